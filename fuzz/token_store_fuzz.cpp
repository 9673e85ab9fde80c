// Fuzz target: the software token's store files, the device record and the
// application file, as written by anything with access to the store. The
// first input byte picks the file (even: device record, odd: application
// file), the rest replaces it; the public SKF interface then reads the token
// as a host would. The other file is put back as provisioned.
//
// Store files end in an SM3 check over the rest. With bit 1 of the first
// byte set the input is the file without it, and the target appends the
// check, so that inputs reach the record parser and what reads the records.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "fuzz/fuzz_limits.h"
#include "fuzz/fuzz_store.h"
#include "platform/skf.h"

namespace {

using tembra::provision::KeyKind;

struct Store {
  std::string devicePath, appPath;
  std::vector<unsigned char> device, app;
  bool deviceChanged = false, appChanged = false;
};

Store &store() {
  static Store s = [] {
    tembra::provision::DeviceSpec layout;
    layout.name = "F";
    layout.label = "fuzz-label";
    layout.serial = "fuzz-serial";
    tembra::provision::ApplicationSpec app;
    app.name = "A";
    app.containers = {{"S", KeyKind::Sm2, true, true, true},
                      {"R", KeyKind::Rsa1024, true, false, true},
                      {"E", KeyKind::Empty, false, false, false}};
    layout.applications = {app};
    const std::string dir = fuzzstore::provisionStore(layout);
    Store made;
    made.devicePath = dir + "/F/device.rec";
    made.appPath = dir + "/F/A.app";
    made.device = fuzzstore::readAll(made.devicePath);
    made.app = fuzzstore::readAll(made.appPath);
    if (made.device.empty() || made.app.empty()) abort();
    fuzzstore::writeSeed("device_record", 0, made.device);
    fuzzstore::writeSeed("application_file", 1, made.app);
    const size_t check = tembra::crypto::kSm3DigestSize;
    fuzzstore::writeSeed(
        "device_record_body", 2,
        std::vector<unsigned char>(made.device.begin(), made.device.end() - check));
    fuzzstore::writeSeed("application_body", 3,
                         std::vector<unsigned char>(made.app.begin(), made.app.end() - check));
    return made;
  }();
  return s;
}

// Calls each name of an SKF name list (NUL-separated, double-NUL-ended,
// `len` bytes at most), up to `limit` names.
template <typename F>
void eachName(const char *list, ULONG len, size_t capacity, int limit, F f) {
  size_t end = len < capacity ? len : capacity;
  size_t at = 0;
  while (at < end && list[at] != '\0' && limit-- > 0) {
    size_t n = strnlen(list + at, end - at);
    if (at + n >= end) break;
    f(list + at);
    at += n + 1;
  }
}

void readContainer(HCONTAINER container) {
  ULONG type = 0;
  SKF_GetContainerType(container, &type);
  for (BOOL sign : {TRUE, FALSE}) {
    unsigned char buffer[4096];
    ULONG len = 0;
    SKF_ExportPublicKey(container, sign, nullptr, &len);
    len = sizeof buffer;
    SKF_ExportPublicKey(container, sign, buffer, &len);
    len = 0;
    if (SKF_ExportCertificate(container, sign, nullptr, &len) == SAR_OK && len <= kMaxFuzzInput) {
      std::vector<BYTE> cert(len + 1);
      SKF_ExportCertificate(container, sign, cert.data(), &len);
    }
  }
}

void readApplication(HAPPLICATION app) {
  ULONG maxRetries = 0, remaining = 0;
  BOOL isDefault = FALSE;
  SKF_GetPINInfo(app, USER_TYPE, &maxRetries, &remaining, &isDefault);
  SKF_GetPINInfo(app, ADMIN_TYPE, &maxRetries, &remaining, &isDefault);

  char names[4096];
  ULONG len = sizeof names;
  memset(names, 0, sizeof names);
  if (SKF_EnumContainer(app, names, &len) == SAR_OK) {
    eachName(names, len, sizeof names, 8, [app](const char *name) {
      HCONTAINER container = nullptr;
      if (SKF_OpenContainer(app, const_cast<LPSTR>(name), &container) != SAR_OK) return;
      readContainer(container);
      SKF_CloseContainer(container);
    });
  }
  len = sizeof names;
  memset(names, 0, sizeof names);
  if (SKF_EnumFiles(app, names, &len) == SAR_OK) {
    eachName(names, len, sizeof names, 8, [app](const char *name) {
      FILEATTRIBUTE info;
      SKF_GetFileInfo(app, const_cast<LPSTR>(name), &info);
      BYTE data[256];
      ULONG got = sizeof data;
      SKF_ReadFile(app, const_cast<LPSTR>(name), 0, sizeof data, data, &got);
    });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > kMaxFuzzInput) return 0;
  Store &s = store();
  const bool appFile = (data[0] & 1) != 0;
  std::vector<unsigned char> file(data + 1, data + size);
  if ((data[0] & 2) != 0) {
    uint8_t check[tembra::crypto::kSm3DigestSize];
    if (!tembra::crypto::sm3(file.data(), file.size(), check)) abort();
    file.insert(file.end(), check, check + sizeof check);
  }
  if (appFile) {
    fuzzstore::writeAll(s.appPath, file.data(), file.size());
    s.appChanged = true;
    if (s.deviceChanged) fuzzstore::writeAll(s.devicePath, s.device.data(), s.device.size());
    s.deviceChanged = false;
  } else {
    fuzzstore::writeAll(s.devicePath, file.data(), file.size());
    s.deviceChanged = true;
    if (s.appChanged) fuzzstore::writeAll(s.appPath, s.app.data(), s.app.size());
    s.appChanged = false;
  }

  char names[1024];
  ULONG len = sizeof names;
  SKF_EnumDev(TRUE, names, &len);
  DEVHANDLE dev = nullptr;
  if (SKF_ConnectDev(const_cast<LPSTR>("F"), &dev) != SAR_OK) return 0;
  DEVINFO info;
  SKF_GetDevInfo(dev, &info);
  len = sizeof names;
  memset(names, 0, sizeof names);
  if (SKF_EnumApplication(dev, names, &len) == SAR_OK) {
    eachName(names, len, sizeof names, 4, [dev](const char *name) {
      HAPPLICATION app = nullptr;
      if (SKF_OpenApplication(dev, const_cast<LPSTR>(name), &app) != SAR_OK) return;
      readApplication(app);
      SKF_CloseApplication(app);
    });
  }
  SKF_DisConnectDev(dev);
  return 0;
}
