// Fuzz target: the POSIX registry file reader (the `reg export` text format),
// through RegOpenKeyExW / RegQueryValueExW as the provider calls them.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz_limits.h"
#include "platform/win_compat.h"

namespace {

const std::string &registryPath() {
  static const std::string path = [] {
    std::string p = "/tmp/tembra-registry-fuzz-" + std::to_string(getpid()) + ".reg";
    setenv("ORVEL_PKI_REGISTRY_FILE", p.c_str(), 1);
    return p;
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput) return 0;
  FILE *f = fopen(registryPath().c_str(), "wb");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);
  HKEY key = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\ORVEL\\PKI\\Devices\\TembraKey", 0, KEY_READ,
                    &key) != ERROR_SUCCESS)
    return 0;
  for (const wchar_t *name : {L"HasSM3", L"HasSM4", L"MaxOperationLen", L"SupportGDKMSM2Import"}) {
    BYTE buffer[8] = {};
    DWORD type = 0, bytes = sizeof buffer;
    RegQueryValueExW(key, name, nullptr, &type, buffer, &bytes);
  }
  RegCloseKey(key);
  return 0;
}
