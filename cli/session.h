// A provider session for one `tembra` command: the provider loaded and
// started (DeviceInit), the device set discovered on first use, and every
// handle handed out freed again before DeviceEnd. Also the small wrappers
// around the provider's buffer protocol that the commands share.
#ifndef TEMBRA_CLI_SESSION_H
#define TEMBRA_CLI_SESSION_H

#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "cli/provider_loader.h"

namespace tembra {
namespace cli {

// A command failure: main prints "tembra: <what>" and exits with status 1.
class CliError : public std::runtime_error {
 public:
  explicit CliError(const std::string &what) : std::runtime_error(what) {}
};

// A usage error: exit status 2.
class UsageError : public CliError {
 public:
  explicit UsageError(const std::string &what) : CliError(what) {}
};

using Bytes = std::vector<uint8_t>;

// The device a command acts on: by index in the provider's device set
// (--device N, default 0) or by identity (--token-label L, --serial S).
// An index is refused while the store holds a token the provider left out,
// since the numbers after it have moved; an identity never names another
// token.
struct DeviceChoice {
  int index = 0;
  bool indexGiven = false;
  std::string label;
  std::string serial;
  // Converts from a plain index, as the device-listing loops use.
  DeviceChoice() = default;
  DeviceChoice(int deviceIndex) : index(deviceIndex), indexGiven(true) {}  // NOLINT
  bool byIdentity() const { return !label.empty() || !serial.empty(); }
};

class ProviderSession {
 public:
  // Loads the provider and calls DeviceInit; throws CliError on failure.
  ProviderSession();
  ~ProviderSession();
  ProviderSession(const ProviderSession &) = delete;
  ProviderSession &operator=(const ProviderSession &) = delete;

  const ProviderApi &api() const { return m_library.api(); }
  // Number of devices found (discovery runs on first use).
  int deviceCount();
  // The device at index, owned by the session; throws if there is none.
  SPI_DEVICE_HANDLE device(int index);
  // The chosen device (see DeviceChoice); throws a one-line CliError naming
  // what did not match, and any token of the store the provider left out.
  SPI_DEVICE_HANDLE device(const DeviceChoice &choice);
  // The index in the device set of the chosen device; throws as device().
  int indexOf(const DeviceChoice &choice);

 private:
  void discover();
  SPI_DEVICE_HANDLE deviceAt(int index);

  ProviderLibrary m_library;
  bool m_started = false;
  SPI_DEVICESET_HANDLE m_set = nullptr;
  std::vector<SPI_DEVICE_HANDLE> m_devices;
};

// A key pair handle, freed with DeviceFreeKeypair.
class KeypairRef {
 public:
  KeypairRef(const ProviderApi &api, SPI_KEYPAIR_HANDLE handle) : m_api(api), m_handle(handle) {}
  ~KeypairRef() {
    if (m_handle != nullptr) m_api.DeviceFreeKeypair(m_handle);
  }
  KeypairRef(const KeypairRef &) = delete;
  KeypairRef &operator=(const KeypairRef &) = delete;
  SPI_KEYPAIR_HANDLE get() const { return m_handle; }
  // Gives the handle up; the caller frees it.
  SPI_KEYPAIR_HANDLE release() {
    SPI_KEYPAIR_HANDLE handle = m_handle;
    m_handle = nullptr;
    return handle;
  }

 private:
  const ProviderApi &m_api;
  SPI_KEYPAIR_HANDLE m_handle;
};

// Text of the key pair type option: "sign" (ORVEL_PKI_KEYPAIRTYPE_SIGNATURE)
// or "enc"; throws UsageError for anything else.
int keypairTypeFromText(const std::string &text);
const char *keypairTypeText(int type);
const char *algorithmText(int algorithm);

std::string deviceSerial(const ProviderApi &api, SPI_DEVICE_HANDLE device);
std::string deviceLabel(const ProviderApi &api, SPI_DEVICE_HANDLE device);
std::string keypairLabel(const ProviderApi &api, SPI_KEYPAIR_HANDLE keypair);
// The key pair's public key as the provider exports it (a DER
// SubjectPublicKeyInfo); throws on failure.
Bytes exportPublicKey(const ProviderApi &api, SPI_KEYPAIR_HANDLE keypair);
// DeviceFindKeypair; throws "no <type> key pair labelled <label>".
SPI_KEYPAIR_HANDLE findKeypair(const ProviderApi &api, SPI_DEVICE_HANDLE device, int type,
                               const std::string &label);
// Logs in with DeviceVerifyPwd (pinType 1 user, 2 administrator); throws
// with the remaining tries on a wrong PIN, or how to unblock a locked one.
void login(const ProviderApi &api, SPI_DEVICE_HANDLE device, int pinType, const char *pin);

// Hex text of bytes (lower case).
std::string hexText(const uint8_t *data, size_t len);
inline std::string hexText(const Bytes &bytes) {
  return hexText(bytes.data(), bytes.size());
}

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_SESSION_H
