#include "softskf/keys/ready_key.h"

#include "softskf/keys/key_material.h"

namespace tembra {
namespace softskf {

std::unique_ptr<ReadyKey> ReadyKey::unseal(const TokenKey &tokenKey, const KeyPairRecord &record) {
  std::unique_ptr<ReadyKey> key(new ReadyKey);
  key->m_algorithm = record.algorithm;
  key->m_sealed = record.sealedPrivate;
  switch (record.algorithm) {
    case KeyAlgorithm::Sm2: {
      SecureArray<crypto::kSm2ScalarSize> d;
      if (!loadSm2(tokenKey, record, d)) return nullptr;
      key->m_sm2 = crypto::PreparedSm2Key::create(d.data());
      return key->m_sm2 ? std::move(key) : nullptr;
    }
    case KeyAlgorithm::Rsa: {
      crypto::RsaPrivateKey rsa;
      if (!loadRsa(tokenKey, record, rsa)) return nullptr;
      key->m_rsa = crypto::PreparedRsaKey::create(rsa);
      return key->m_rsa ? std::move(key) : nullptr;
    }
    default:
      return nullptr;
  }
}

ReadyKey::~ReadyKey() = default;  // the prepared keys wipe themselves

bool ReadyKey::madeFrom(const KeyPairRecord &record) const {
  return record.algorithm == m_algorithm && record.sealedPrivate == m_sealed;
}

bool ReadyKey::sm2Sign(const uint8_t e[crypto::kSm3DigestSize], uint8_t r[crypto::kSm2ScalarSize],
                       uint8_t s[crypto::kSm2ScalarSize]) const {
  return m_sm2 && m_sm2->sign(e, r, s);
}

bool ReadyKey::sm2Decrypt(const uint8_t *cipher, size_t len, SecureBytes &plain) const {
  return m_sm2 && m_sm2->decrypt(cipher, len, plain);
}

bool ReadyKey::rsaSignPkcs1(const uint8_t *data, size_t len,
                            std::vector<uint8_t> &signature) const {
  return m_rsa && m_rsa->signPkcs1(data, len, signature);
}

bool ReadyKey::rsaDecryptPkcs1(const uint8_t *cipher, size_t len, SecureBytes &plain) const {
  return m_rsa && m_rsa->decryptPkcs1(cipher, len, plain);
}

}  // namespace softskf
}  // namespace tembra
