// The token's persistent records and their file formats (see
// docs/softskf.md). A device file holds the device; one application file
// holds everything of one application: PINs, the wrapped token key,
// containers with their keys and certificates, and files.
#ifndef TEMBRA_SOFTSKF_STORE_RECORDS_H
#define TEMBRA_SOFTSKF_STORE_RECORDS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "crypto/secure_bytes.h"

namespace tembra {
namespace softskf {

// Limits of names (bytes, without the terminating NUL) and sizes.
constexpr size_t kMaxDeviceNameLen = 64;
constexpr size_t kMaxApplicationNameLen = 32;
constexpr size_t kMaxContainerNameLen = 64;
constexpr size_t kMaxFileNameLen = 31;
constexpr size_t kMaxApplications = 16;
constexpr size_t kMaxContainers = 64;
constexpr size_t kMaxFiles = 256;
constexpr size_t kMaxFileSize = 1u << 20;
constexpr size_t kMaxCertificateSize = 1u << 16;
// The PIN derivation's iteration counts a store may hold: one verification
// runs under the store lock, so a count that would hold it for minutes (a
// damaged or hostile file) is refused with the file. A million keeps room
// to raise today's count a thousandfold.
constexpr uint32_t kMinPinIterations = 1;
constexpr uint32_t kMaxPinIterations = 1000000;

struct DeviceRecord {
  std::string label;
  std::string serial;
  SecureArray<16> authKey;
  bool present = true;
  uint32_t sequence = 0;  // creation order within the store
  // Capability bits SKF_GetDevInfo reports instead of the token's own, set
  // by SKFSoft_SetCapabilities (test support). What the token computes does
  // not change with them.
  bool hasCapabilities = false;
  uint32_t symCapability = 0;
  uint32_t asymCapability = 0;
  uint32_t hashCapability = 0;
};

struct PinRecord {
  uint32_t maxRetries = 0;
  uint32_t remaining = 0;
  bool isDefault = true;
  std::vector<uint8_t> salt;  // 16 bytes
  uint32_t iterations = 0;
  std::vector<uint8_t> verifier;  // 32 bytes
  std::vector<uint8_t> wrappedTokenKey;
};

enum class KeyAlgorithm : uint32_t { None = 0, Rsa = 1, Sm2 = 2 };

// A key pair: the public part in clear, the private part sealed under the
// application's token key.
struct KeyPairRecord {
  KeyAlgorithm algorithm = KeyAlgorithm::None;
  std::vector<uint8_t> publicX, publicY;   // SM2, 32 bytes each
  std::vector<uint8_t> modulus, exponent;  // RSA, without leading zeros
  std::vector<uint8_t> sealedPrivate;
  bool present() const { return algorithm != KeyAlgorithm::None; }
};

struct ContainerRecord {
  std::string name;
  KeyPairRecord signature, encryption;
  std::vector<uint8_t> signatureCertificate, encryptionCertificate;
  // 0 empty, 1 RSA, 2 ECC: the algorithm of the signature key pair.
  uint32_t type() const;
};

struct FileRecord {
  std::string name;
  uint32_t readRights = 0;
  uint32_t writeRights = 0;
  std::vector<uint8_t> data;  // as long as the file's size, fixed at creation
};

struct ApplicationRecord {
  std::string name;
  std::vector<uint8_t> instanceId;  // 16 random bytes, new at every creation
  uint32_t createFileRights = 0;
  PinRecord adminPin, userPin;
  std::vector<ContainerRecord> containers;  // creation order
  std::vector<FileRecord> files;            // creation order

  ContainerRecord *findContainer(const std::string &containerName);
  const ContainerRecord *findContainer(const std::string &containerName) const;
  FileRecord *findFile(const std::string &fileName);
  const FileRecord *findFile(const std::string &fileName) const;
};

std::vector<uint8_t> encodeDevice(const DeviceRecord &device);
bool decodeDevice(const std::vector<uint8_t> &bytes, DeviceRecord &device);
std::vector<uint8_t> encodeApplication(const ApplicationRecord &app);
bool decodeApplication(const std::vector<uint8_t> &bytes, ApplicationRecord &app);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_STORE_RECORDS_H
