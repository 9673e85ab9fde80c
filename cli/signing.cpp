#include "cli/signing.h"

#include <string.h>

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
std::vector<uint8_t> digestInfo(const uint8_t digest[32], HashKind hash) {
  der::Bytes algorithm;
  der::oid(hash == HashKind::Sha256 ? kOidSha256 : kOidSm3, algorithm);
  return der::sequence({der::sequence({algorithm, der::null()}), der::octetString(digest, 32)});
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

struct SignatureDigest::State {
  std::vector<uint8_t> spki;
  bool sm2 = false;
  HashKind hash = HashKind::Sha256;
  crypto::Sm3 sm3;
  crypto::Sha256 sha256;
  bool finished = false;
};

SignatureDigest::SignatureDigest(const std::vector<uint8_t> &spki, HashKind hash)
    : m_state(new State) {
  m_state->spki = spki;
  m_state->sm2 = isSm2Key(spki);
  m_state->hash = hash;
  if (m_state->sm2 && hash != HashKind::Sm3) throw UsageError("SM2 signatures use SM3");
  if (hash == HashKind::Sm3 && !m_state->sm3.ok()) throw CliError("SM3 is not available");
  if (m_state->sm2) {
    uint8_t z[crypto::kSm3DigestSize];
    if (!crypto::sm2ComputeZ(sm2Key(spki), crypto::kSm2DefaultId, crypto::kSm2DefaultIdSize, z) ||
        !m_state->sm3.update(z, sizeof z)) {
      throw CliError("SM3 digest with Z failed");
    }
  }
}

SignatureDigest::~SignatureDigest() = default;

void SignatureDigest::update(const uint8_t *data, size_t len) {
  if (m_state->hash == HashKind::Sha256) {
    if (!m_state->sha256.update(data, len)) throw CliError("SHA-256 failed");
  } else if (!m_state->sm3.update(data, len)) {
    throw CliError("SM3 failed");
  }
}

std::vector<uint8_t> SignatureDigest::finish() {
  if (m_state->finished) throw CliError("digest already finished");
  m_state->finished = true;
  uint8_t digest[32];
  if (m_state->hash == HashKind::Sha256) {
    if (!m_state->sha256.final(digest)) throw CliError("SHA-256 failed");
  } else if (!m_state->sm3.final(digest)) {
    throw CliError("SM3 failed");
  }
  if (m_state->sm2) return std::vector<uint8_t>(digest, digest + sizeof digest);
  return digestInfo(digest, m_state->hash);
}

bool SignatureDigest::verify(const std::vector<uint8_t> &signature) {
  const std::vector<uint8_t> tbs = finish();
  if (m_state->sm2) {
    uint8_t r[crypto::kSm2ScalarSize];
    uint8_t s[crypto::kSm2ScalarSize];
    if (!crypto::decodeSm2Signature(signature.data(), signature.size(), r, s)) return false;
    return crypto::sm2Verify(sm2Key(m_state->spki), tbs.data(), r, s);
  }
  return crypto::rsaVerifyPkcs1(rsaKey(m_state->spki), tbs.data(), tbs.size(), signature.data(),
                                signature.size());
}

std::vector<uint8_t> signatureInput(const std::vector<uint8_t> &spki,
                                    const std::vector<uint8_t> &message, HashKind hash) {
  SignatureDigest digest(spki, hash);
  digest.update(message.data(), message.size());
  return digest.finish();
}

bool verifySignature(const std::vector<uint8_t> &spki, const std::vector<uint8_t> &message,
                     const std::vector<uint8_t> &signature, HashKind hash) {
  SignatureDigest digest(spki, hash);
  digest.update(message.data(), message.size());
  return digest.verify(signature);
}

std::vector<uint8_t> certificatePublicKey(const std::vector<uint8_t> &certificate) {
  der::Reader outer(certificate);
  der::Reader cert;
  der::Reader tbs;
  der::Element element;
  if (!outer.enterSequence(cert) || !cert.enterSequence(tbs)) return std::vector<uint8_t>();
  tbs.optional(der::contextTag(0, true), element);
  for (int skip = 0; skip < 5; ++skip) {
    if (!tbs.next(element)) return std::vector<uint8_t>();
  }
  if (!tbs.expect(der::kTagSequence, element)) return std::vector<uint8_t>();
  return element.encodingBytes();
}

bool samePublicKey(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b) {
  const crypto::KeyAlgorithm kind = crypto::spkiAlgorithm(a.data(), a.size());
  if (kind != crypto::spkiAlgorithm(b.data(), b.size())) return false;
  if (kind == crypto::KeyAlgorithm::kSm2) {
    crypto::Sm2PublicKey x;
    crypto::Sm2PublicKey y;
    return crypto::decodeSm2Spki(a.data(), a.size(), x) &&
           crypto::decodeSm2Spki(b.data(), b.size(), y) && memcmp(x.x, y.x, sizeof x.x) == 0 &&
           memcmp(x.y, y.y, sizeof x.y) == 0;
  }
  if (kind == crypto::KeyAlgorithm::kRsa) {
    crypto::RsaPublicKey x;
    crypto::RsaPublicKey y;
    return crypto::decodeRsaSpki(a.data(), a.size(), x) &&
           crypto::decodeRsaSpki(b.data(), b.size(), y) && x.n == y.n && x.e == y.e;
  }
  return false;
}

size_t maxEncryptLength(const std::vector<uint8_t> &spki) {
  if (isSm2Key(spki)) return kSm2TokenCipherLimit;
  const size_t modulus = rsaKey(spki).n.size();
  return modulus > 11 ? modulus - 11 : 0;
}

std::vector<uint8_t> encryptTo(const std::vector<uint8_t> &spki,
                               const std::vector<uint8_t> &message) {
  std::vector<uint8_t> cipher;
  if (isSm2Key(spki)) {
    if (message.size() > kSm2TokenCipherLimit) {
      throw CliError("message too long for SM2 (at most " + std::to_string(kSm2TokenCipherLimit) +
                     " bytes: the token cannot decrypt more)");
    }
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
