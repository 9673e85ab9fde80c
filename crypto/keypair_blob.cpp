#include "crypto/keypair_blob.h"

#include <string.h>

#include "crypto/key_formats.h"

namespace tembra {
namespace crypto {

namespace {

void putU32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

uint32_t getU32(const uint8_t *p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

void putHeader(uint8_t *p, uint32_t algorithm) {
  memcpy(p, kKeyPairMagic, sizeof kKeyPairMagic);
  putU32(p + 8, algorithm);
  putU32(p + 12, kKeyPairVersion);
}

bool checkHeader(const uint8_t *blob, size_t len, uint32_t algorithm) {
  return blob != nullptr && len >= kKeyPairHeaderSize &&
         memcmp(blob, kKeyPairMagic, sizeof kKeyPairMagic) == 0 && getU32(blob + 8) == algorithm &&
         getU32(blob + 12) == kKeyPairVersion;
}

// The DER span of an RSA blob, with the framing checked.
bool rsaDerSpan(const uint8_t *blob, size_t len, const uint8_t *&der, size_t &derLen,
                uint32_t &modulusLen) {
  if (!checkHeader(blob, len, kKeyPairAlgorithmRsa) || len < kKeyPairRsaDerOffset) return false;
  modulusLen = getU32(blob + 16);
  derLen = getU32(blob + 20);
  if (derLen == 0 || derLen != len - kKeyPairRsaDerOffset) return false;
  der = blob + kKeyPairRsaDerOffset;
  return true;
}

}  // namespace

bool encodeRsaKeyPairBlob(const RsaPrivateKey &key, SecureBytes &blob) {
  SecureBytes der;
  if (!encodeRsaPrivateKey(key, der) || der.size() > UINT32_MAX) return false;
  SecureBytes out(kKeyPairRsaDerOffset + der.size());
  putHeader(out.data(), kKeyPairAlgorithmRsa);
  putU32(out.data() + 16, static_cast<uint32_t>(key.publicKey.n.size()));
  putU32(out.data() + 20, static_cast<uint32_t>(der.size()));
  memcpy(out.data() + kKeyPairRsaDerOffset, der.data(), der.size());
  blob = std::move(out);
  return true;
}

bool decodeRsaKeyPairBlob(const uint8_t *blob, size_t len, RsaPrivateKey &key) {
  const uint8_t *der = nullptr;
  size_t derLen = 0;
  uint32_t modulusLen = 0;
  if (!rsaDerSpan(blob, len, der, derLen, modulusLen)) return false;
  RsaPrivateKey decoded;
  if (!decodeRsaPrivateKey(der, derLen, decoded)) return false;
  if (decoded.publicKey.n.size() != modulusLen) return false;
  key = std::move(decoded);
  return true;
}

bool rsaKeyPairBlobToDer(const uint8_t *blob, size_t len, SecureBytes &der) {
  RsaPrivateKey checked;
  if (!decodeRsaKeyPairBlob(blob, len, checked)) return false;
  der.assign(blob + kKeyPairRsaDerOffset, len - kKeyPairRsaDerOffset);
  return true;
}

bool encodeSm2KeyPairBlob(const Sm2KeyPair &keyPair, SecureBytes &blob) {
  SecureBytes out(kKeyPairEccSize);
  putHeader(out.data(), kKeyPairAlgorithmEcc);
  putU32(out.data() + 16, kKeyPairCurveSm2);
  memcpy(out.data() + 20, keyPair.publicKey.x, kSm2ScalarSize);
  memcpy(out.data() + 52, keyPair.publicKey.y, kSm2ScalarSize);
  memcpy(out.data() + 84, keyPair.d.data(), kSm2ScalarSize);
  blob = std::move(out);
  return true;
}

bool decodeSm2KeyPairBlob(const uint8_t *blob, size_t len, Sm2KeyPair &keyPair) {
  if (!checkHeader(blob, len, kKeyPairAlgorithmEcc) || len != kKeyPairEccSize) return false;
  if (getU32(blob + 16) != kKeyPairCurveSm2) return false;
  Sm2KeyPair decoded;
  memcpy(decoded.publicKey.x, blob + 20, kSm2ScalarSize);
  memcpy(decoded.publicKey.y, blob + 52, kSm2ScalarSize);
  memcpy(decoded.d.data(), blob + 84, kSm2ScalarSize);
  Sm2PublicKey derived;
  if (!sm2PublicFromPrivate(decoded.d.data(), derived)) return false;
  if (memcmp(derived.x, decoded.publicKey.x, kSm2ScalarSize) != 0 ||
      memcmp(derived.y, decoded.publicKey.y, kSm2ScalarSize) != 0) {
    return false;
  }
  keyPair = decoded;
  return true;
}

}  // namespace crypto
}  // namespace tembra
