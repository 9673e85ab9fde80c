// DeviceInit and DeviceEnd: the process-wide settings read from the
// registry, the host's pseudo device and the provider lock g_lock.
#include <string.h>

#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "provider/records.h"

uint32_t g_hasSM3 = 0;
uint32_t g_hasSM4 = 0;
int32_t g_maxOperationLen = 1024;
uint32_t g_supportGDKMSM2Import = 0;
ORVEL_PKI_DEVICE g_pseudoDevice = nullptr;
CRITICAL_SECTION g_lock;

namespace {

const wchar_t kSettingsKey[] = L"Software\\ORVEL\\PKI\\Devices\\TembraKey";
const REGSAM kSettingsAccess = 0x20019;  // KEY_READ
const int32_t kDefaultMaxOperationLen = 1024;
// The largest multiple of 16 an int32 holds.
const uint32_t kLargestMaxOperationLen = 0x7FFFFFF0u;

// Whether g_lock holds an initialised critical section: DeviceInit can fail
// before creating it, and DeviceEnd must not delete what was never made.
bool g_lockInitialised = false;

// One setting as read: a fresh open of the settings key, one query into an
// 8-byte buffer, the key closed again. Only the value's type is checked.
struct SettingRead {
  LONG openResult = ERROR_SUCCESS;
  LONG queryResult = ERROR_SUCCESS;
  bool isDword = false;
  uint32_t value = 0;
};

SettingRead readSetting(const wchar_t *name) {
  SettingRead read;
  HKEY key = nullptr;
  read.openResult = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSettingsKey, 0, kSettingsAccess, &key);
  if (read.openResult != ERROR_SUCCESS) return read;
  BYTE data[8] = {0};
  DWORD size = sizeof data;
  DWORD type = REG_NONE;
  read.queryResult = RegQueryValueExW(key, name, nullptr, &type, data, &size);
  RegCloseKey(key);
  if (read.queryResult == ERROR_SUCCESS && type == REG_DWORD) {
    read.isDword = true;
    read.value = static_cast<uint32_t>(data[0]) | (static_cast<uint32_t>(data[1]) << 8) |
                 (static_cast<uint32_t>(data[2]) << 16) | (static_cast<uint32_t>(data[3]) << 24);
  }
  return read;
}

// A yes/no setting: the DWORD as stored, else 0 with an [ERROR] line under
// `function`; `queryFailure` is the text used when the key opened but the
// value was missing or not a REG_DWORD.
uint32_t readFlag(const wchar_t *name, const char *function, const char *queryFailure) {
  SettingRead read = readSetting(name);
  if (read.openResult != ERROR_SUCCESS) {
    LOG_ERROR_AS(function, "RegOpenKeyEx fail, error = %d", static_cast<int>(read.openResult));
    return 0;
  }
  if (!read.isDword) {
    LOG_ERROR_AS(function, "%s, error = %d", queryFailure, static_cast<int>(read.queryResult));
    return 0;
  }
  return read.value;
}

// MaxOperationLen rounded up to a multiple of 16; 1024 when it is missing,
// not a REG_DWORD, or not positive as a signed number. Computed unsigned, so
// a value close to INT32_MAX does not overflow: anything above the largest
// multiple of 16 that fits (0x7FFFFFF0) is clamped to it.
int32_t readMaxOperationLen() {
  SettingRead read = readSetting(L"MaxOperationLen");
  if (read.openResult != ERROR_SUCCESS || !read.isDword) return kDefaultMaxOperationLen;
  if (read.value == 0 || read.value > 0x7FFFFFFFu) return kDefaultMaxOperationLen;
  if (read.value > kLargestMaxOperationLen) return static_cast<int32_t>(kLargestMaxOperationLen);
  return static_cast<int32_t>((read.value + 15u) & ~15u);
}

int deviceInit() {
  call_stack_tracer tracer("DeviceInit");

  g_hasSM3 = readFlag(L"HasSM3", "hasSM3", "unsupport HasSM3");
  LOG_INFO_AS("DeviceInit", "hasSM3 : %d", static_cast<int>(g_hasSM3));

  g_hasSM4 = readFlag(L"HasSM4", "hasSM4", "unsupport HasSM4");
  LOG_INFO_AS("DeviceInit", "hasSM4 : %d", static_cast<int>(g_hasSM4));

  g_maxOperationLen = readMaxOperationLen();
  LOG_INFO_AS("DeviceInit", "getMaxOperationLen : %d", g_maxOperationLen);

  g_supportGDKMSM2Import =
      readFlag(L"SupportGDKMSM2Import", "isSupportGDKMSM2Import", "RegQueryValueEx fail");
  LOG_INFO_AS("DeviceInit", "isSupportGDKMSM2Import : %d",
              static_cast<int>(g_supportGDKMSM2Import));

  // A second DeviceInit overwrites the pseudo device without freeing the
  // previous one, as hosts expect.
  g_pseudoDevice = OrvelPKICryptoGetPseudoDevice();
  if (g_pseudoDevice == nullptr) {
    LOG_ERROR_AS("DeviceInit", "OrvelPKICryptoGetPseudoDevice fail");
    return 0;
  }

  // A second DeviceInit keeps the lock it already made: initialising a
  // critical section twice is undefined and could strand a holder.
  if (!g_lockInitialised) {
    InitializeCriticalSection(&g_lock);
    g_lockInitialised = true;
  }
  return 1;
}

int deviceEnd() {
  call_stack_tracer tracer("DeviceEnd");
  OrvelPKICryptoFreeDevice(g_pseudoDevice);
  g_pseudoDevice = nullptr;
  if (g_lockInitialised) {
    DeleteCriticalSection(&g_lock);
    g_lockInitialised = false;
  }
  return 1;
}

}  // namespace

extern "C" TEMBRA_API int DeviceInit(void) {
  try {
    return deviceInit();
  } catch (...) {
    return 0;
  }
}

extern "C" TEMBRA_API int DeviceEnd(void) {
  try {
    return deviceEnd();
  } catch (...) {
    return 1;
  }
}
