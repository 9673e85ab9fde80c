#include "cli/key_files.h"

#include <string.h>

#include "cli/files.h"
#include "cli/session.h"
#include "crypto/der.h"
#include "crypto/key_formats.h"

namespace tembra {
namespace cli {
namespace {

// Key files and certificates are a few KiB; the bound keeps a wrong input
// from being read whole.
const size_t kLargestKeyFile = 1u << 20;

der::Bytes oidContent(const char *dotted) {
  der::Bytes encoded;
  der::oid(dotted, encoded);
  der::Reader reader(encoded);
  der::Bytes content;
  reader.readOid(content);
  return content;
}

// SEC1 ECPrivateKey ::= SEQUENCE { version 1, privateKey OCTET STRING,
// [0] parameters OPTIONAL, [1] publicKey BIT STRING OPTIONAL }. The curve,
// when named, must be SM2; a stated public key must be d times G.
bool decodeSec1(const uint8_t *data, size_t len, crypto::Sm2KeyPair &key) {
  der::Reader outer(data, len), inner;
  int64_t version = 0;
  SecureBytes d;
  der::Bytes scalar;
  if (!outer.enterSequence(inner) || !outer.finished() || !inner.readSmallInteger(version) ||
      version != 1 || !inner.readOctetString(scalar)) {
    return false;
  }
  d.assign(scalar.data(), scalar.size());
  secureZero(scalar.data(), scalar.size());
  if (d.size() != crypto::kSm2ScalarSize) return false;
  der::Element element;
  if (inner.optional(der::contextTag(0, true), element)) {
    der::Reader parameters(element);
    der::Bytes curve;
    if (!parameters.readOid(curve) || !parameters.finished() ||
        curve != oidContent(crypto::kOidSm2Curve)) {
      return false;
    }
  }
  der::Bytes point;
  if (inner.optional(der::contextTag(1, true), element)) {
    der::Reader publicKey(element);
    if (!publicKey.readBitString(point) || !publicKey.finished()) return false;
  }
  if (!inner.finished()) return false;
  memcpy(key.d.data(), d.data(), crypto::kSm2ScalarSize);
  if (!crypto::sm2PublicFromPrivate(key.d.data(), key.publicKey)) return false;
  if (!point.empty()) {
    return point.size() == 65 && point[0] == 0x04 &&
           memcmp(point.data() + 1, key.publicKey.x, 32) == 0 &&
           memcmp(point.data() + 33, key.publicKey.y, 32) == 0;
  }
  return true;
}

// PKCS #8 PrivateKeyInfo ::= SEQUENCE { version 0 or 1, AlgorithmIdentifier,
// privateKey OCTET STRING, ... }: rsaEncryption with PKCS #1 inside, or
// id-ecPublicKey with the SM2 curve (or the SM2 curve identifier itself)
// with SEC1 inside.
bool decodePkcs8(const uint8_t *data, size_t len, PrivateKey &key) {
  der::Reader outer(data, len), inner, algorithm;
  int64_t version = 0;
  der::Bytes oid;
  if (!outer.enterSequence(inner) || !outer.finished() || !inner.readSmallInteger(version) ||
      (version != 0 && version != 1) || !inner.enterSequence(algorithm) ||
      !algorithm.readOid(oid)) {
    return false;
  }
  der::Bytes parameter;
  if (oid == oidContent(crypto::kOidRsaEncryption)) {
    key.sm2 = false;
  } else if (oid == oidContent(crypto::kOidEcPublicKey) && algorithm.readOid(parameter) &&
             parameter == oidContent(crypto::kOidSm2Curve)) {
    key.sm2 = true;
  } else if (oid == oidContent(crypto::kOidSm2Curve)) {
    key.sm2 = true;
  } else {
    return false;
  }
  der::Element privateKey;
  if (!inner.expect(der::kTagOctetString, privateKey)) return false;
  // Attributes and a public key may follow; they are not needed.
  return key.sm2 ? decodeSec1(privateKey.content, privateKey.length, key.sm2Key)
                 : crypto::decodeRsaPrivateKey(privateKey.content, privateKey.length, key.rsaKey);
}

bool decodePrivateKey(const uint8_t *der, size_t len, PrivateKey &key) {
  if (len == 0) return false;
  if (decodePkcs8(der, len, key)) return true;
  key = PrivateKey();
  if (decodeSec1(der, len, key.sm2Key)) {
    key.sm2 = true;
    return true;
  }
  key = PrivateKey();
  return crypto::decodeRsaPrivateKey(der, len, key.rsaKey);
}

// The subject public key of an X.509 certificate, as its encoding.
bool certificateSpki(const std::vector<uint8_t> &der, std::vector<uint8_t> &spki) {
  der::Reader outer(der), certificate, tbs;
  der::Element element;
  if (!outer.enterSequence(certificate) || !certificate.enterSequence(tbs)) return false;
  tbs.optional(der::contextTag(0, true), element);  // version
  for (int i = 0; i < 5; ++i) {                     // serial, signature, issuer, validity, subject
    if (!tbs.next(element)) return false;
  }
  if (!tbs.expect(der::kTagSequence, element)) return false;
  spki = element.encodingBytes();
  return true;
}

}  // namespace

PrivateKey readPrivateKeyFile(const std::string &path) {
  std::vector<uint8_t> bytes = readFile(path, kLargestKeyFile, "not a private key file");
  struct Wipe {
    std::vector<uint8_t> &bytes;
    ~Wipe() { secureZero(bytes.data(), bytes.size()); }
  } wipe{bytes};
  SecureBytes der;
  if (!bytes.empty() && bytes[0] == 0x30) {
    der.assign(bytes.data(), bytes.size());
  } else {
    const std::string text(bytes.begin(), bytes.end());
    std::vector<uint8_t> block;
    for (const char *label : {"PRIVATE KEY", "EC PRIVATE KEY", "RSA PRIVATE KEY"}) {
      if (crypto::pemUnarmour(text, label, block)) break;
    }
    der.assign(block.data(), block.size());
    secureZero(block.data(), block.size());
  }
  PrivateKey key;
  if (!decodePrivateKey(der.data(), der.size(), key)) {
    throw CliError(path +
                   " holds no SM2 or RSA private key (PKCS #8, SEC1 or PKCS #1; "
                   "DER or PEM; not encrypted)");
  }
  return key;
}

std::vector<uint8_t> readRecipientFile(const std::string &path) {
  const std::vector<uint8_t> bytes = readFile(path, kLargestKeyFile, "not a key or certificate");
  std::vector<uint8_t> der;
  if (!bytes.empty() && bytes[0] == 0x30) {
    der = bytes;
  } else {
    const std::string text(bytes.begin(), bytes.end());
    if (!crypto::pemUnarmour(text, "PUBLIC KEY", der) &&
        !crypto::pemUnarmour(text, "CERTIFICATE", der)) {
      throw CliError(path + " holds neither a public key nor a certificate");
    }
  }
  if (crypto::spkiAlgorithm(der.data(), der.size()) != crypto::KeyAlgorithm::kUnknown) return der;
  std::vector<uint8_t> spki;
  if (certificateSpki(der, spki) &&
      crypto::spkiAlgorithm(spki.data(), spki.size()) != crypto::KeyAlgorithm::kUnknown) {
    return spki;
  }
  throw CliError(path + " holds no SM2 or RSA public key or certificate");
}

}  // namespace cli
}  // namespace tembra
