// `tembra demo`: the typical signature of a host, step by step, against a
// software token (provisioned on first use), for SM2 and RSA; then
// decryption with the encryption key pairs. Every provider call is shown
// with its result; the exit status is 0 only if every step succeeded.
#include <string.h>

#include <functional>

#include "cli/commands.h"
#include "cli/files.h"
#include "cli/session.h"
#include "cli/signing.h"
#include "crypto/secure_bytes.h"
#include "softskf/include/softskf.h"
#include "softskf/provision/provision.h"

#ifdef _WIN32
#include <direct.h>
#else
#include <sys/stat.h>
#endif

namespace tembra {
namespace cli {
namespace {

const char kDemoPin[] = "12345678";
const char kDemoMessage[] = "TembraKeyProv demo: a typical signature, step by step";

// The steps taken so far, printed as they happen (text) or as one table at
// the end (--json).
class DemoReport {
 public:
  explicit DemoReport(Output &out) : m_out(out) {}
  ~DemoReport() {
    if (m_out.json()) m_out.table(m_rows);
  }
  DemoReport(const DemoReport &) = delete;
  DemoReport &operator=(const DemoReport &) = delete;

  // Records one step; returns ok so that callers can stop at a failure.
  bool step(const std::string &call, const std::string &result, bool ok,
            const std::string &detail = std::string()) {
    m_allOk = m_allOk && ok;
    const int number = int(m_rows.size()) + 1;
    m_rows.push_back(
        {{"step", number}, {"call", call}, {"result", result}, {"ok", ok}, {"detail", detail}});
    char prefix[16];
    snprintf(prefix, sizeof(prefix), "%2d. ", number);
    std::string line = std::string(prefix) + (ok ? "[ ok ] " : "[FAIL] ") + call + " -> " + result;
    if (!detail.empty()) line += "  (" + detail + ")";
    m_out.note(line);
    return ok;
  }
  bool allOk() const { return m_allOk; }

 private:
  Output &m_out;
  std::vector<Record> m_rows;
  bool m_allOk = true;
};

// Frees what the demo holds when it stops, in the host's order.
class DemoCleanup {
 public:
  DemoCleanup(const ProviderApi &api, DemoReport &report) : m_api(api), m_report(report) {}
  ~DemoCleanup() {
    if (device != nullptr) {
      m_report.step("DeviceFreeDevice(hDevice)", std::to_string(m_api.DeviceFreeDevice(device)),
                    true);
    }
    if (set != nullptr) {
      m_report.step("DeviceFreeDevices(hDeviceSet)", std::to_string(m_api.DeviceFreeDevices(set)),
                    true);
    }
    if (started) m_report.step("DeviceEnd()", std::to_string(m_api.DeviceEnd()), true);
  }
  DemoCleanup(const DemoCleanup &) = delete;
  DemoCleanup &operator=(const DemoCleanup &) = delete;

  bool started = false;
  SPI_DEVICESET_HANDLE set = nullptr;
  SPI_DEVICE_HANDLE device = nullptr;

 private:
  const ProviderApi &m_api;
  DemoReport &m_report;
};

void makeDirectory(const std::string &path) {
#ifdef _WIN32
  _mkdir(path.c_str());
#else
  mkdir(path.c_str(), 0700);
#endif
}

bool storeHasToken() {
  ULONG size = 0;
  if (SKF_EnumDev(TRUE, nullptr, &size) != SAR_OK || size == 0) return false;
  std::vector<char> names(size_t(size) + 2, '\0');
  size = ULONG(names.size());
  return SKF_EnumDev(TRUE, names.data(), &size) == SAR_OK && names[0] != '\0';
}

Bytes exportKey(const ProviderApi &api, SPI_KEYPAIR_HANDLE keypair, DemoReport &report) {
  try {
    Bytes spki = exportPublicKey(api, keypair);
    report.step("DeviceExportPublicKey(hPublicKey, ...)", "1", true,
                std::to_string(spki.size()) + "-byte SubjectPublicKeyInfo");
    return spki;
  } catch (const CliError &error) {
    report.step("DeviceExportPublicKey(hPublicKey, ...)", "failed", false, error.what());
    return Bytes();
  }
}

// One typical signature with the signature key pair of the container.
void signatureRound(const ProviderApi &api, SPI_DEVICE_HANDLE device, const std::string &label,
                    bool sm2, DemoReport &report) {
  SPI_KEYPAIR_HANDLE handle = nullptr;
  const int found =
      api.DeviceFindKeypair(device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, label.c_str(), &handle);
  if (!report.step("DeviceFindKeypair(hDevice, SIGNATURE, \"" + label + "\")",
                   std::to_string(found), found == ORVEL_PKI_OK && handle != nullptr)) {
    return;
  }
  KeypairRef keypair(api, handle);
  const int bits = api.DeviceGetKeypairBits(handle);
  const Bytes spki = exportKey(api, handle, report);
  if (spki.empty()) return;
  const Bytes message(kDemoMessage, kDemoMessage + strlen(kDemoMessage));
  Bytes tbs;
  try {
    tbs = signatureInput(spki, message, sm2 ? HashKind::Sm3 : HashKind::Sha256);
  } catch (const CliError &error) {
    report.step("prepare the data to sign", "failed", false, error.what());
    return;
  }
  const int algo = sm2 ? ORVEL_PKI_ALGORITHM_SM2_SIGN : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN;
  const char *algoName = sm2 ? "SM2_SIGN" : "RSA_PKCS1_V1_5_SIGN";
  const std::string what = sm2 ? "e = SM3(Z || M), 32 bytes" : "DigestInfo(SHA-256), 51 bytes";
  int len = 0;
  int rv = api.DeviceSign(handle, algo, nullptr, tbs.data(), int(tbs.size()), nullptr, 0, &len);
  const int expected = sm2 ? 80 : (bits + 7) / 8;
  if (!report.step(std::string("DeviceSign(hKeypair, ") + algoName + ", " + what + ", sign = NULL)",
                   std::to_string(rv), rv == ORVEL_PKI_OK && len == expected,
                   "size " + std::to_string(len) + ", expected " + std::to_string(expected))) {
    return;
  }
  Bytes signature(static_cast<size_t>(len));
  rv = api.DeviceSign(handle, algo, nullptr, tbs.data(), int(tbs.size()), signature.data(), len,
                      &len);
  if (!report.step(std::string("DeviceSign(hKeypair, ") + algoName + ", " + what + ", sign)",
                   std::to_string(rv), rv == ORVEL_PKI_OK && len > 0,
                   std::to_string(len) + "-byte signature")) {
    return;
  }
  signature.resize(size_t(len));
  bool valid = false;
  try {
    valid = verifySignature(spki, message, signature, sm2 ? HashKind::Sm3 : HashKind::Sha256);
  } catch (const CliError &) {
    valid = false;
  }
  report.step(std::string("verify the ") + (sm2 ? "SM2" : "RSA") +
                  " signature with the exported public key",
              valid ? "valid" : "INVALID", valid);
  const int freed = api.DeviceFreeKeypair(keypair.release());
  report.step("DeviceFreeKeypair(hKeypair)", std::to_string(freed), freed == ORVEL_PKI_OK);
}

// Encrypts to the container's encryption key pair in software and decrypts
// on the token.
void decryptionRound(const ProviderApi &api, SPI_DEVICE_HANDLE device, const std::string &label,
                     bool sm2, DemoReport &report) {
  SPI_KEYPAIR_HANDLE handle = nullptr;
  const int found =
      api.DeviceFindKeypair(device, ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, label.c_str(), &handle);
  if (!report.step("DeviceFindKeypair(hDevice, ENCRYPT, \"" + label + "\")", std::to_string(found),
                   found == ORVEL_PKI_OK && handle != nullptr)) {
    return;
  }
  KeypairRef keypair(api, handle);
  const Bytes spki = exportKey(api, handle, report);
  if (spki.empty()) return;
  const Bytes message(kDemoMessage, kDemoMessage + strlen(kDemoMessage));
  Bytes cipher;
  try {
    cipher = encryptTo(spki, message);
  } catch (const CliError &error) {
    report.step("encrypt to the exported public key", "failed", false, error.what());
    return;
  }
  report.step(std::string("encrypt ") + std::to_string(message.size()) +
                  " bytes to the exported public key",
              "ok", true,
              std::to_string(cipher.size()) + (sm2 ? "-byte C1||C2||C3" : "-byte PKCS#1 block"));
  const int algo = sm2 ? ORVEL_PKI_ALGORITHM_SM2_ENC : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC;
  const char *algoName = sm2 ? "SM2_ENC" : "RSA_PKCS1_V1_5_ENC";
  const int hash = ORVEL_PKI_ALGORITHM_SM3;
  int len = 0;
  int rv = api.DevicePrivateKeyDecrypt(handle, algo, &hash, cipher.data(), int(cipher.size()),
                                       nullptr, 0, &len);
  if (!report.step(std::string("DevicePrivateKeyDecrypt(hKeypair, ") + algoName + ", clear = NULL)",
                   std::to_string(rv), rv == ORVEL_PKI_OK && len > 0,
                   "size " + std::to_string(len))) {
    return;
  }
  SecureBytes plain(static_cast<size_t>(len));
  rv = api.DevicePrivateKeyDecrypt(handle, algo, &hash, cipher.data(), int(cipher.size()),
                                   plain.data(), len, &len);
  const bool same = rv == ORVEL_PKI_OK && size_t(len) == message.size() &&
                    memcmp(plain.data(), message.data(), message.size()) == 0;
  report.step(std::string("DevicePrivateKeyDecrypt(hKeypair, ") + algoName + ", clear)",
              std::to_string(rv), same,
              same ? "plaintext matches" : "plaintext differs (" + std::to_string(len) + " bytes)");
  const int freed = api.DeviceFreeKeypair(keypair.release());
  report.step("DeviceFreeKeypair(hKeypair)", std::to_string(freed), freed == ORVEL_PKI_OK);
}

void runSteps(const ProviderApi &api, DemoReport &report) {
  DemoCleanup held(api, report);
  const int init = api.DeviceInit();
  if (!report.step("DeviceInit()", std::to_string(init), init == ORVEL_PKI_OK)) return;
  held.started = true;

  held.set = api.DeviceGetAllDevices();
  if (!report.step("DeviceGetAllDevices()", held.set != nullptr ? "set" : "NULL",
                   held.set != nullptr)) {
    return;
  }
  const int count = api.DeviceGetDeviceCount(held.set);
  if (!report.step("DeviceGetDeviceCount(hDeviceSet)", std::to_string(count), count >= 1)) return;
  held.device = api.DeviceGetDevice(held.set, 0);
  if (!report.step("DeviceGetDevice(hDeviceSet, 0)", held.device != nullptr ? "device" : "NULL",
                   held.device != nullptr)) {
    return;
  }
  try {
    report.step("DeviceGetSerialNumber(hDevice, ...)", "1", true, deviceSerial(api, held.device));
    report.step("DeviceGetLabel(hDevice, ...)", "1", true, deviceLabel(api, held.device));
  } catch (const CliError &error) {
    report.step("DeviceGetSerialNumber / DeviceGetLabel", "failed", false, error.what());
    return;
  }
  int retries = -1;
  const int verified = api.DeviceVerifyPwd(held.device, 1, kDemoPin, &retries);
  if (!report.step("DeviceVerifyPwd(hDevice, 1, user PIN)", std::to_string(verified),
                   verified == ORVEL_PKI_OK)) {
    return;
  }
  signatureRound(api, held.device, "SM2Container", true, report);
  signatureRound(api, held.device, "RSAContainer", false, report);
  decryptionRound(api, held.device, "SM2Container", true, report);
  decryptionRound(api, held.device, "RSAContainer", false, report);
}

}  // namespace

int runDemo(CommandContext &context) {
  // The global --store has already set TEMBRA_SOFTSKF_DIR.
  const char *storeVariable = getenv("TEMBRA_SOFTSKF_DIR");
  std::string store = storeVariable != nullptr && storeVariable[0] != '\0' ? storeVariable : "";
  if (store.empty()) {
    store = "demo-store";
    setEnvironment("TEMBRA_SOFTSKF_DIR", store);
  }
  makeDirectory(store);
  context.out.note("Store: " + store);

  DemoReport report(context.out);
  if (!storeHasToken()) {
    const provision::DeviceSpec plan = provision::demoDeviceSpec();
    std::string error;
    const ULONG rv = provision::provisionDevice(plan, &error);
    if (!report.step(
            "provision software token \"" + plan.name + "\"", rv == SAR_OK ? "ok" : "failed",
            rv == SAR_OK,
            rv == SAR_OK ? "SM2Container (SM2), RSAContainer (RSA-2048), PIN 12345678" : error)) {
      throw CliError("cannot provision the demo token: " + error);
    }
  }
  ProviderLibrary library;
  std::string error;
  if (!library.load(&error)) throw CliError(error);
  runSteps(library.api(), report);
  if (!report.allOk()) throw CliError("demo failed: see the steps marked FAIL");
  context.out.note("All steps succeeded.");
  return 0;
}

}  // namespace cli
}  // namespace tembra
