// Fuzz target: the software token's test switches and call record, which
// take function names and counts from the test programs: SKFSoft_SetFault,
// the calls it then fails, and SKFSoft_GetCallLog under its buffer protocol.
//
// Input: a function name up to the first NUL, then a 4-byte result, a
// 1-byte count (as signed) and a device name for SKF_ConnectDev.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_limits.h"
#include "platform/skf.h"
#include "softskf/include/softskf.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  char pattern[] = "/tmp/tembra_fuzz_store_XXXXXX";
  if (mkdtemp(pattern) == nullptr) abort();
  setenv("TEMBRA_SOFTSKF_DIR", pattern, 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput) return 0;
  const char *text = reinterpret_cast<const char *>(data);
  const size_t nameLen = strnlen(text, size);
  const std::string function(text, nameLen);
  std::vector<uint8_t> rest(data + (nameLen < size ? nameLen + 1 : size), data + size);
  rest.resize(rest.size() < 5 ? 5 : rest.size(), 0);
  ULONG result;
  memcpy(&result, rest.data(), 4);
  const int times = static_cast<int8_t>(rest[4]);
  const std::string device(rest.begin() + 5, rest.end());

  SKFSoft_StartCallLog();
  SKFSoft_SetFault(function.c_str(), result, times);
  char names[256];
  ULONG len = sizeof names;
  SKF_EnumDev(TRUE, names, &len);
  DEVHANDLE dev = nullptr;
  if (SKF_ConnectDev(const_cast<LPSTR>(device.c_str()), &dev) == SAR_OK) SKF_DisConnectDev(dev);
  SKF_GetDevInfo(nullptr, nullptr);

  ULONG needed = 0;
  if (SKFSoft_GetCallLog(nullptr, &needed) == SAR_OK && needed > 0) {
    std::vector<char> record(needed);
    ULONG shortLen = needed - 1;
    SKFSoft_GetCallLog(record.data(), &shortLen);
    ULONG fullLen = needed;
    if (SKFSoft_GetCallLog(record.data(), &fullLen) == SAR_OK && record[fullLen - 1] != '\0') {
      abort();
    }
  }
  SKFSoft_StopCallLog();
  SKFSoft_ClearFaults();
  return 0;
}
