// Loading the provider the way a host framework does: the shared library is
// opened at run time (from the program's own directory first, then the
// system's default search) and every entry point the CLI uses is looked up by
// name. The CLI never links the provider.
#ifndef TEMBRA_CLI_PROVIDER_LOADER_H
#define TEMBRA_CLI_PROVIDER_LOADER_H

#include <string>

#include "include/tembra_key_prov.h"

namespace tembra {
namespace cli {

// Every entry point the CLI calls; a missing one fails the load.
#define TEMBRA_CLI_ENTRY_POINTS(X) \
  X(DeviceInit)                    \
  X(DeviceEnd)                     \
  X(DeviceGetAllDevices)           \
  X(DeviceGetDeviceCount)          \
  X(DeviceGetDevice)               \
  X(DeviceFreeDevices)             \
  X(DeviceFreeDevice)              \
  X(DeviceGetSerialNumber)         \
  X(DeviceGetLabel)                \
  X(DeviceGetKeypairCount)         \
  X(DeviceGetKeypair)              \
  X(DeviceFindKeypair)             \
  X(DeviceFreeKeypair)             \
  X(DeviceGetKeypairLabel)         \
  X(DeviceGetKeypairType)          \
  X(DeviceGetKeypairAlgorithm)     \
  X(DeviceGetKeypairBits)          \
  X(DeviceGetPublicKeyFromKeypair) \
  X(DeviceExportPublicKey)         \
  X(DeviceFreePublicKey)           \
  X(DeviceGetCertificateCount)     \
  X(DeviceGetCertificate)          \
  X(DeviceUpdateCertificate)       \
  X(DeviceSign)                    \
  X(DevicePrivateKeyDecrypt)       \
  X(DeviceVerifyPwd)               \
  X(DeviceChangePwd)               \
  X(DeviceUnlockPwd)               \
  X(DeviceGetPwdRetryNum)          \
  X(DeviceGenerateRandom)          \
  X(DeviceNewHash)                 \
  X(DeviceHashUpdate)              \
  X(DeviceHashFinal)               \
  X(DeviceFreeHash)                \
  X(DeviceNewCipher)               \
  X(DeviceCipherUpdate)            \
  X(DeviceFreeCipher)              \
  X(DeviceIsSupportedAlgorithm2)

struct ProviderApi {
#define TEMBRA_CLI_DECLARE_ENTRY(entry) decltype(&::entry) entry = nullptr;
  TEMBRA_CLI_ENTRY_POINTS(TEMBRA_CLI_DECLARE_ENTRY)
#undef TEMBRA_CLI_DECLARE_ENTRY
};

// The file name of the provider on this platform.
const char *providerLibraryName();

// Owns the loaded library; unloads it on destruction. The caller ends the
// provider (DeviceEnd) before that.
class ProviderLibrary {
 public:
  ProviderLibrary() = default;
  ~ProviderLibrary();
  ProviderLibrary(const ProviderLibrary &) = delete;
  ProviderLibrary &operator=(const ProviderLibrary &) = delete;

  // Opens the library and resolves every entry point. On failure *error
  // holds one line ("cannot load libTembraKeyProv.so: ...", "entry point
  // DeviceSign missing in ...") and nothing stays loaded.
  bool load(std::string *error);
  const ProviderApi &api() const { return m_api; }
  const std::string &path() const { return m_path; }

 private:
  void unload();

  void *m_module = nullptr;
  std::string m_path;
  ProviderApi m_api;
};

// Directory of the running executable, with a trailing separator; empty if
// it cannot be found.
std::string executableDirectory();

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_PROVIDER_LOADER_H
