#include "softskf/store/records.h"

#include <string.h>

#include "crypto/backend.h"
#include "softskf/store/serial.h"

namespace tembra {
namespace softskf {

namespace {

constexpr char kDeviceMagic[8] = {'T', 'S', 'K', 'F', 'D', 'E', 'V', '1'};
constexpr char kApplicationMagic[8] = {'T', 'S', 'K', 'F', 'A', 'P', 'P', '1'};
constexpr uint32_t kFormatVersion = 1;

void begin(ByteWriter &w, const char magic[8]) {
  w.raw(reinterpret_cast<const uint8_t *>(magic), 8);
  w.u32(kFormatVersion);
}

// Appends SM3 over everything written, which reading checks first: a torn or
// altered file is refused as a whole.
std::vector<uint8_t> finish(ByteWriter &w) {
  uint8_t check[crypto::kSm3DigestSize];
  crypto::sm3(w.data().data(), w.data().size(), check);
  w.raw(check, sizeof check);
  return w.data();
}

bool opens(const std::vector<uint8_t> &bytes, const char magic[8], size_t &bodyLen) {
  if (bytes.size() < 12 + crypto::kSm3DigestSize) return false;
  if (memcmp(bytes.data(), magic, 8) != 0) return false;
  bodyLen = bytes.size() - crypto::kSm3DigestSize;
  uint8_t check[crypto::kSm3DigestSize];
  if (!crypto::sm3(bytes.data(), bodyLen, check)) return false;
  if (memcmp(check, bytes.data() + bodyLen, sizeof check) != 0) return false;
  uint32_t version = static_cast<uint32_t>(bytes[8]) | static_cast<uint32_t>(bytes[9]) << 8 |
                     static_cast<uint32_t>(bytes[10]) << 16 |
                     static_cast<uint32_t>(bytes[11]) << 24;
  return version == kFormatVersion;
}

void putPin(ByteWriter &w, const PinRecord &pin) {
  w.u32(pin.maxRetries);
  w.u32(pin.remaining);
  w.u8(pin.isDefault ? 1 : 0);
  w.bytes(pin.salt);
  w.u32(pin.iterations);
  w.bytes(pin.verifier);
  w.bytes(pin.wrappedTokenKey);
}

bool getPin(ByteReader &r, PinRecord &pin) {
  uint8_t isDefault = 0;
  bool ok = r.u32(pin.maxRetries) && r.u32(pin.remaining) && r.u8(isDefault) &&
            r.bytes(pin.salt, 64) && r.u32(pin.iterations) && r.bytes(pin.verifier, 64) &&
            r.bytes(pin.wrappedTokenKey, 256);
  pin.isDefault = isDefault != 0;
  return ok && pin.remaining <= pin.maxRetries && pin.iterations >= kMinPinIterations &&
         pin.iterations <= kMaxPinIterations;
}

void putKey(ByteWriter &w, const KeyPairRecord &key) {
  w.u32(static_cast<uint32_t>(key.algorithm));
  w.bytes(key.publicX);
  w.bytes(key.publicY);
  w.bytes(key.modulus);
  w.bytes(key.exponent);
  w.bytes(key.sealedPrivate);
}

bool getKey(ByteReader &r, KeyPairRecord &key) {
  uint32_t algorithm = 0;
  if (!r.u32(algorithm) || algorithm > 2) return false;
  key.algorithm = static_cast<KeyAlgorithm>(algorithm);
  if (!r.bytes(key.publicX, 32) || !r.bytes(key.publicY, 32) || !r.bytes(key.modulus, 512) ||
      !r.bytes(key.exponent, 512) || !r.bytes(key.sealedPrivate, 8192)) {
    return false;
  }
  // An RSA key without its modulus or exponent is no key.
  return key.algorithm != KeyAlgorithm::Rsa || (!key.modulus.empty() && !key.exponent.empty());
}

}  // namespace

uint32_t ContainerRecord::type() const {
  switch (signature.algorithm) {
    case KeyAlgorithm::Rsa:
      return 1;
    case KeyAlgorithm::Sm2:
      return 2;
    default:
      return 0;
  }
}

const ContainerRecord *ApplicationRecord::findContainer(const std::string &containerName) const {
  for (const ContainerRecord &c : containers) {
    if (c.name == containerName) return &c;
  }
  return nullptr;
}

ContainerRecord *ApplicationRecord::findContainer(const std::string &containerName) {
  return const_cast<ContainerRecord *>(
      static_cast<const ApplicationRecord *>(this)->findContainer(containerName));
}

const FileRecord *ApplicationRecord::findFile(const std::string &fileName) const {
  for (const FileRecord &f : files) {
    if (f.name == fileName) return &f;
  }
  return nullptr;
}

FileRecord *ApplicationRecord::findFile(const std::string &fileName) {
  return const_cast<FileRecord *>(static_cast<const ApplicationRecord *>(this)->findFile(fileName));
}

std::vector<uint8_t> encodeDevice(const DeviceRecord &device) {
  ByteWriter w;
  begin(w, kDeviceMagic);
  w.text(device.label);
  w.text(device.serial);
  w.bytes(device.authKey.data(), device.authKey.size());
  w.u8(device.present ? 1 : 0);
  w.u32(device.sequence);
  // Optional tail: a device file without it (written before capabilities
  // could be set, or never set) reads as the token's own capabilities.
  if (device.hasCapabilities) {
    w.u32(device.symCapability);
    w.u32(device.asymCapability);
    w.u32(device.hashCapability);
  }
  return finish(w);
}

bool decodeDevice(const std::vector<uint8_t> &bytes, DeviceRecord &device) {
  size_t bodyLen = 0;
  if (!opens(bytes, kDeviceMagic, bodyLen)) return false;
  ByteReader r(bytes.data() + 12, bodyLen - 12);
  SecureBytes key;
  uint8_t present = 0;
  if (!r.text(device.label, 64) || !r.text(device.serial, 64) || !r.bytes(key, 16) ||
      key.size() != 16 || !r.u8(present) || !r.u32(device.sequence)) {
    return false;
  }
  device.hasCapabilities = !r.atEnd();
  if (device.hasCapabilities && (!r.u32(device.symCapability) || !r.u32(device.asymCapability) ||
                                 !r.u32(device.hashCapability) || !r.atEnd())) {
    return false;
  }
  memcpy(device.authKey.data(), key.data(), 16);
  device.present = present != 0;
  return true;
}

std::vector<uint8_t> encodeApplication(const ApplicationRecord &app) {
  ByteWriter w;
  begin(w, kApplicationMagic);
  w.text(app.name);
  w.bytes(app.instanceId);
  w.u32(app.createFileRights);
  putPin(w, app.adminPin);
  putPin(w, app.userPin);
  w.u32(static_cast<uint32_t>(app.containers.size()));
  for (const ContainerRecord &c : app.containers) {
    w.text(c.name);
    putKey(w, c.signature);
    putKey(w, c.encryption);
    w.bytes(c.signatureCertificate);
    w.bytes(c.encryptionCertificate);
  }
  w.u32(static_cast<uint32_t>(app.files.size()));
  for (const FileRecord &f : app.files) {
    w.text(f.name);
    w.u32(f.readRights);
    w.u32(f.writeRights);
    w.bytes(f.data);
  }
  return finish(w);
}

bool decodeApplication(const std::vector<uint8_t> &bytes, ApplicationRecord &app) {
  size_t bodyLen = 0;
  if (!opens(bytes, kApplicationMagic, bodyLen)) return false;
  ByteReader r(bytes.data() + 12, bodyLen - 12);
  uint32_t count = 0;
  if (!r.text(app.name, kMaxApplicationNameLen) || !r.bytes(app.instanceId, 64) ||
      !r.u32(app.createFileRights) || !getPin(r, app.adminPin) || !getPin(r, app.userPin) ||
      !r.u32(count) || count > kMaxContainers) {
    return false;
  }
  app.containers.assign(count, ContainerRecord());
  for (ContainerRecord &c : app.containers) {
    if (!r.text(c.name, kMaxContainerNameLen) || !getKey(r, c.signature) ||
        !getKey(r, c.encryption) || !r.bytes(c.signatureCertificate, kMaxCertificateSize) ||
        !r.bytes(c.encryptionCertificate, kMaxCertificateSize)) {
      return false;
    }
  }
  if (!r.u32(count) || count > kMaxFiles) return false;
  app.files.assign(count, FileRecord());
  for (FileRecord &f : app.files) {
    if (!r.text(f.name, kMaxFileNameLen) || !r.u32(f.readRights) || !r.u32(f.writeRights) ||
        !r.bytes(f.data, kMaxFileSize)) {
      return false;
    }
  }
  return r.atEnd();
}

}  // namespace softskf
}  // namespace tembra
