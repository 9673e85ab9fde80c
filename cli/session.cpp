#include "cli/session.h"

#include "cli/errors.h"
#include "cli/token_store.h"

namespace tembra {
namespace cli {

ProviderSession::ProviderSession() {
  std::string error;
  if (!m_library.load(&error)) throw CliError(error);
  if (api().DeviceInit() != ORVEL_PKI_OK) throw CliError("DeviceInit failed");
  m_started = true;
}

ProviderSession::~ProviderSession() {
  for (SPI_DEVICE_HANDLE device : m_devices) {
    if (device != nullptr) api().DeviceFreeDevice(device);
  }
  if (m_set != nullptr) api().DeviceFreeDevices(m_set);
  if (m_started) api().DeviceEnd();
}

void ProviderSession::discover() {
  if (m_set != nullptr) return;
  m_set = api().DeviceGetAllDevices();
  if (m_set == nullptr) throw CliError("DeviceGetAllDevices failed");
  int count = api().DeviceGetDeviceCount(m_set);
  m_devices.assign(count > 0 ? size_t(count) : 0, nullptr);
}

int ProviderSession::deviceCount() {
  discover();
  return int(m_devices.size());
}

SPI_DEVICE_HANDLE ProviderSession::device(int index) {
  return deviceAt(index);
}

SPI_DEVICE_HANDLE ProviderSession::device(const DeviceChoice &choice) {
  return deviceAt(indexOf(choice));
}

int ProviderSession::indexOf(const DeviceChoice &choice) {
  discover();
  const std::vector<StoreProblem> problems = storeProblems();
  const std::string aside =
      problems.empty() ? std::string() : " (the store also holds: " + problemsText(problems) + ")";
  if (!choice.byIdentity()) {
    if (!problems.empty()) {
      throw CliError(problemsText(problems) +
                     "; device numbers may have moved: choose the device with --token-label or "
                     "--serial");
    }
    deviceAt(choice.index);  // throws for a device that is not there
    return choice.index;
  }
  std::vector<int> matches;
  for (int index = 0; index < int(m_devices.size()); ++index) {
    SPI_DEVICE_HANDLE candidate = deviceAt(index);
    if (!choice.label.empty() && deviceLabel(api(), candidate) != choice.label) continue;
    if (!choice.serial.empty() && deviceSerial(api(), candidate) != choice.serial) continue;
    matches.push_back(index);
  }
  std::string wanted = choice.label.empty() ? std::string() : "label '" + choice.label + "'";
  if (!choice.serial.empty()) {
    wanted += (wanted.empty() ? "" : " and ") + ("serial '" + choice.serial + "'");
  }
  if (matches.empty()) throw CliError("no device with " + wanted + aside);
  if (choice.indexGiven) {
    for (int index : matches) {
      if (index == choice.index) return index;
    }
    throw CliError("device " + std::to_string(choice.index) + " does not have " + wanted);
  }
  if (matches.size() > 1) {
    std::string list;
    for (int index : matches) list += (list.empty() ? "" : ", ") + std::to_string(index);
    throw CliError("devices " + list + " all have " + wanted + ": add --device N");
  }
  return matches.front();
}

SPI_DEVICE_HANDLE ProviderSession::deviceAt(int index) {
  discover();
  if (index < 0 || size_t(index) >= m_devices.size()) {
    if (m_devices.empty()) throw CliError("no device found");
    throw CliError("no device " + std::to_string(index) + " (" + std::to_string(m_devices.size()) +
                   " found)");
  }
  if (m_devices[size_t(index)] == nullptr) {
    m_devices[size_t(index)] = api().DeviceGetDevice(m_set, index);
    if (m_devices[size_t(index)] == nullptr) throw CliError("DeviceGetDevice failed");
  }
  return m_devices[size_t(index)];
}

int keypairTypeFromText(const std::string &text) {
  if (text == "sign") return ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
  if (text == "enc") return ORVEL_PKI_KEYPAIRTYPE_ENCRYPT;
  throw UsageError("key pair type must be sign or enc, not '" + text + "'");
}

const char *keypairTypeText(int type) {
  switch (type) {
    case ORVEL_PKI_KEYPAIRTYPE_SIGNATURE:
      return "sign";
    case ORVEL_PKI_KEYPAIRTYPE_ENCRYPT:
      return "enc";
  }
  return "?";
}

const char *algorithmText(int algorithm) {
  switch (algorithm) {
    case ORVEL_PKI_ALGORITHM_RSA:
      return "RSA";
    case ORVEL_PKI_ALGORITHM_ECC:
      return "SM2";
  }
  return "?";
}

namespace {

// The provider's text getters: a length query, then the copy.
template <typename Getter>
std::string readText(Getter getter, const char *what) {
  int len = 0;
  if (getter(nullptr, 0, &len) != ORVEL_PKI_OK || len <= 0) {
    throw CliError(std::string("cannot read the ") + what);
  }
  std::vector<char> buffer(size_t(len) + 1, '\0');
  if (getter(buffer.data(), len, &len) != ORVEL_PKI_OK) {
    throw CliError(std::string("cannot read the ") + what);
  }
  return std::string(buffer.data());
}

}  // namespace

std::string deviceSerial(const ProviderApi &api, SPI_DEVICE_HANDLE device) {
  return readText([&](char *buf, int len,
                      int *ret) { return api.DeviceGetSerialNumber(device, buf, len, ret); },
                  "serial number");
}

std::string deviceLabel(const ProviderApi &api, SPI_DEVICE_HANDLE device) {
  return readText(
      [&](char *buf, int len, int *ret) { return api.DeviceGetLabel(device, buf, len, ret); },
      "device label");
}

std::string keypairLabel(const ProviderApi &api, SPI_KEYPAIR_HANDLE keypair) {
  return readText([&](char *buf, int len,
                      int *ret) { return api.DeviceGetKeypairLabel(keypair, buf, len, ret); },
                  "key pair label");
}

Bytes exportPublicKey(const ProviderApi &api, SPI_KEYPAIR_HANDLE keypair) {
  SPI_PUBLICKEY_HANDLE publicKey = api.DeviceGetPublicKeyFromKeypair(keypair);
  if (publicKey == nullptr) throw CliError("DeviceGetPublicKeyFromKeypair failed");
  int len = 0;
  Bytes der;
  int rv = api.DeviceExportPublicKey(publicKey, nullptr, 0, &len);
  if (rv == ORVEL_PKI_OK && len > 0) {
    der.resize(size_t(len));
    rv = api.DeviceExportPublicKey(publicKey, der.data(), len, &len);
  }
  api.DeviceFreePublicKey(publicKey);
  if (rv != ORVEL_PKI_OK || der.empty()) {
    throw CliError("cannot export the public key: " + providerResultText(rv));
  }
  der.resize(size_t(len));
  return der;
}

SPI_KEYPAIR_HANDLE findKeypair(const ProviderApi &api, SPI_DEVICE_HANDLE device, int type,
                               const std::string &label) {
  SPI_KEYPAIR_HANDLE keypair = nullptr;
  if (api.DeviceFindKeypair(device, type, label.c_str(), &keypair) != ORVEL_PKI_OK ||
      keypair == nullptr) {
    throw CliError(std::string("no ") + keypairTypeText(type) + " key pair labelled '" + label +
                   "'");
  }
  return keypair;
}

void login(const ProviderApi &api, SPI_DEVICE_HANDLE device, int pinType, const char *pin) {
  int retries = -1;
  const int rv = api.DeviceVerifyPwd(device, pinType, pin, &retries);
  const char *which = pinType == 2 ? "administrator PIN" : "user PIN";
  switch (rv) {
    case ORVEL_PKI_OK:
      return;
    case ORVEL_PKI_WRONGPIN:
      throw CliError(wrongPinText(pinType, retries));
    case ORVEL_PKI_PINLENRANGE:
      throw CliError(std::string(which) + " length out of range " + pinLengthText());
  }
  int remaining = -1;
  if (api.DeviceGetPwdRetryNum(device, pinType, &remaining) == ORVEL_PKI_OK && remaining == 0) {
    throw CliError(wrongPinText(pinType, 0));
  }
  throw CliError("login failed: " + providerResultText(rv));
}

std::string hexText(const uint8_t *data, size_t len) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(len * 2);
  for (size_t i = 0; i < len; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 15];
  }
  return out;
}

}  // namespace cli
}  // namespace tembra
