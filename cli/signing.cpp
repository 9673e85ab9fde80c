#include "cli/signing.h"

#include "cli/session.h"
#include "crypto/backend.h"
#include "crypto/der.h"
#include "crypto/key_formats.h"
#include "crypto/sm2_z.h"

namespace tembra {
namespace cli {
namespace {

const char kOidSha256[] = "2.16.840.1.101.3.4.2.1";
const char kOidSm3[] = "1.2.156.10197.1.401";

// DigestInfo { AlgorithmIdentifier { oid, NULL }, OCTET STRING digest }.
std::vector<uint8_t> digestInfo(const std::vector<uint8_t> &message, HashKind hash) {
  uint8_t digest[32];
  der::Bytes algorithm;
  if (hash == HashKind::Sha256) {
    if (!crypto::sha256(message.data(), message.size(), digest)) throw CliError("SHA-256 failed");
    der::oid(kOidSha256, algorithm);
  } else {
    if (!crypto::sm3(message.data(), message.size(), digest)) throw CliError("SM3 failed");
    der::oid(kOidSm3, algorithm);
  }
  return der::sequence(
      {der::sequence({algorithm, der::null()}), der::octetString(digest, sizeof(digest))});
}

crypto::Sm2PublicKey sm2Key(const std::vector<uint8_t> &spki) {
  crypto::Sm2PublicKey key;
  if (!crypto::decodeSm2Spki(spki.data(), spki.size(), key)) {
    throw CliError("malformed SM2 public key");
  }
  return key;
}

crypto::RsaPublicKey rsaKey(const std::vector<uint8_t> &spki) {
  crypto::RsaPublicKey key;
  if (!crypto::decodeRsaSpki(spki.data(), spki.size(), key)) {
    throw CliError("malformed RSA public key");
  }
  return key;
}

std::vector<uint8_t> sm2Digest(const std::vector<uint8_t> &spki,
                               const std::vector<uint8_t> &message) {
  std::vector<uint8_t> e(crypto::kSm3DigestSize);
  if (!crypto::sm2DigestWithZ(sm2Key(spki), crypto::kSm2DefaultId, crypto::kSm2DefaultIdSize,
                              message.data(), message.size(), e.data())) {
    throw CliError("SM3 digest with Z failed");
  }
  return e;
}

}  // namespace

HashKind hashFromText(const std::string &text) {
  if (text == "sha256") return HashKind::Sha256;
  if (text == "sm3") return HashKind::Sm3;
  throw UsageError("hash must be sha256 or sm3, not '" + text + "'");
}

bool isSm2Key(const std::vector<uint8_t> &spki) {
  switch (crypto::spkiAlgorithm(spki.data(), spki.size())) {
    case crypto::KeyAlgorithm::kSm2:
      return true;
    case crypto::KeyAlgorithm::kRsa:
      return false;
    default:
      throw CliError("public key is neither SM2 nor RSA");
  }
}

std::vector<uint8_t> signatureInput(const std::vector<uint8_t> &spki,
                                    const std::vector<uint8_t> &message, HashKind hash) {
  if (isSm2Key(spki)) {
    if (hash != HashKind::Sm3) throw UsageError("SM2 signatures use SM3");
    return sm2Digest(spki, message);
  }
  return digestInfo(message, hash);
}

bool verifySignature(const std::vector<uint8_t> &spki, const std::vector<uint8_t> &message,
                     const std::vector<uint8_t> &signature, HashKind hash) {
  if (isSm2Key(spki)) {
    if (hash != HashKind::Sm3) throw UsageError("SM2 signatures use SM3");
    uint8_t r[crypto::kSm2ScalarSize];
    uint8_t s[crypto::kSm2ScalarSize];
    if (!crypto::decodeSm2Signature(signature.data(), signature.size(), r, s)) return false;
    return crypto::sm2Verify(sm2Key(spki), sm2Digest(spki, message).data(), r, s);
  }
  const std::vector<uint8_t> info = digestInfo(message, hash);
  return crypto::rsaVerifyPkcs1(rsaKey(spki), info.data(), info.size(), signature.data(),
                                signature.size());
}

std::vector<uint8_t> encryptTo(const std::vector<uint8_t> &spki,
                               const std::vector<uint8_t> &message) {
  std::vector<uint8_t> cipher;
  if (isSm2Key(spki)) {
    if (!crypto::sm2Encrypt(sm2Key(spki), message.data(), message.size(), cipher)) {
      throw CliError("SM2 encryption failed");
    }
    return cipher;
  }
  const crypto::RsaPublicKey key = rsaKey(spki);
  if (message.size() + 11 > key.n.size()) {
    throw CliError("message too long for RSA-" + std::to_string(key.n.size() * 8) + " (at most " +
                   std::to_string(key.n.size() - 11) + " bytes)");
  }
  if (!crypto::rsaEncryptPkcs1(key, message.data(), message.size(), cipher)) {
    throw CliError("RSA encryption failed");
  }
  return cipher;
}

}  // namespace cli
}  // namespace tembra
