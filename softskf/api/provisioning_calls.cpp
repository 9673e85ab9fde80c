// The token's own calls: provisioning of devices in the store, and the test
// support (fault switch, call record). None of them is recorded in the call
// record or subject to the fault switch.
#include <string.h>

#include <mutex>

#include "softskf/core/token.h"
#include "softskf/include/softskf.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const size_t kMaxLabelLen = 31;  // DEVINFO.Label and SerialNumber hold 32 with the NUL

ULONG takeText(const char *value, size_t maxLen, std::string &out) {
  if (value == nullptr) return SAR_INVALIDPARAMERR;
  size_t len = strnlen(value, maxLen + 1);
  if (len > maxLen) return SAR_INVALIDPARAMERR;
  out.assign(value, len);
  return SAR_OK;
}

}  // namespace

extern "C" {

ULONG DEVAPI SKFSoft_CreateDevice(const char *name, const char *label, const char *serial,
                                  const BYTE authKey[16]) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    std::string deviceName;
    DeviceRecord record;
    ULONG rv;
    if ((rv = takeName(name, kMaxDeviceNameLen, deviceName)) != SAR_OK) return rv;
    if ((rv = takeText(label, kMaxLabelLen, record.label)) != SAR_OK) return rv;
    if ((rv = takeText(serial, kMaxLabelLen, record.serial)) != SAR_OK) return rv;
    if (authKey == nullptr) return SAR_INVALIDPARAMERR;
    memcpy(record.authKey.data(), authKey, 16);
    return createDevice(DeviceLocation{currentStoreDirectory(), deviceName}, record);
  });
}

ULONG DEVAPI SKFSoft_RemoveDevice(const char *name) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    std::string deviceName;
    ULONG rv;
    if ((rv = takeName(name, kMaxDeviceNameLen, deviceName)) != SAR_OK) return rv;
    return removeDevice(DeviceLocation{currentStoreDirectory(), deviceName});
  });
}

ULONG DEVAPI SKFSoft_SetPresent(const char *name, BOOL present) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    std::string deviceName;
    ULONG rv;
    if ((rv = takeName(name, kMaxDeviceNameLen, deviceName)) != SAR_OK) return rv;
    DeviceLocation location{currentStoreDirectory(), deviceName};
    StoreLock storeLock(location);
    DeviceRecord record;
    if ((rv = loadDevice(location, record)) != SAR_OK) return rv;
    record.present = present != FALSE;
    return saveDevice(location, record);
  });
}

ULONG DEVAPI SKFSoft_SetCapabilities(LPSTR szDevName, ULONG ulAlgSymCap, ULONG ulAlgAsymCap,
                                     ULONG ulAlgHashCap) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    std::string deviceName;
    ULONG rv;
    if ((rv = takeName(szDevName, kMaxDeviceNameLen, deviceName)) != SAR_OK) return rv;
    DeviceLocation location{currentStoreDirectory(), deviceName};
    StoreLock storeLock(location);
    DeviceRecord record;
    rv = loadDevice(location, record);
    if (rv == SAR_INVALIDPARAMERR) return SAR_FILE_NOT_EXIST;  // no such device
    if (rv != SAR_OK) return rv;
    record.hasCapabilities = true;
    record.symCapability = ulAlgSymCap;
    record.asymCapability = ulAlgAsymCap;
    record.hashCapability = ulAlgHashCap;
    return saveDevice(location, record);
  });
}

ULONG DEVAPI SKFSoft_SetFault(const char *function, ULONG result, int times) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    if (!isSkfFunctionName(function) || times < -1) return SAR_INVALIDPARAMERR;
    token().faults.set(function, result, times);
    return SAR_OK;
  });
}

ULONG DEVAPI SKFSoft_ClearFaults(void) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    token().faults.clear();
    return SAR_OK;
  });
}

ULONG DEVAPI SKFSoft_StartCallLog(void) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    token().calls.start();
    return SAR_OK;
  });
}

ULONG DEVAPI SKFSoft_GetCallLog(char *buf, ULONG *len) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    std::string text = token().calls.text();
    return answerBytes(reinterpret_cast<const uint8_t *>(text.c_str()), text.size() + 1,
                       reinterpret_cast<BYTE *>(buf), len);
  });
}

ULONG DEVAPI SKFSoft_StopCallLog(void) {
  return guarded([&]() -> ULONG {
    std::lock_guard<std::mutex> lock(token().mutex);
    token().calls.stop();
    return SAR_OK;
  });
}

}  // extern "C"
