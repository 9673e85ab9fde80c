#include "softskf/keys/ready_key.h"

#include "softskf/keys/key_material.h"

namespace tembra {
namespace softskf {

std::unique_ptr<ReadyKey> ReadyKey::unseal(const TokenKey &tokenKey,
                                           const KeyPairRecord &record) {
  std::unique_ptr<ReadyKey> key(new ReadyKey);
  key->m_algorithm = record.algorithm;
  key->m_sealed = record.sealedPrivate;
  switch (record.algorithm) {
    case KeyAlgorithm::Sm2:
      if (!loadSm2(tokenKey, record, key->m_d)) return nullptr;
      break;
    case KeyAlgorithm::Rsa:
      if (!loadRsa(tokenKey, record, key->m_rsa)) return nullptr;
      break;
    default:
      return nullptr;
  }
  return key;
}

ReadyKey::~ReadyKey() = default;  // the members wipe themselves

bool ReadyKey::madeFrom(const KeyPairRecord &record) const {
  return record.algorithm == m_algorithm && record.sealedPrivate == m_sealed;
}

bool ReadyKey::sm2Sign(const uint8_t e[crypto::kSm3DigestSize], uint8_t r[crypto::kSm2ScalarSize],
                       uint8_t s[crypto::kSm2ScalarSize]) const {
  return m_algorithm == KeyAlgorithm::Sm2 && crypto::sm2Sign(m_d.data(), e, r, s);
}

bool ReadyKey::sm2Decrypt(const uint8_t *cipher, size_t len, SecureBytes &plain) const {
  return m_algorithm == KeyAlgorithm::Sm2 && crypto::sm2Decrypt(m_d.data(), cipher, len, plain);
}

bool ReadyKey::rsaSignPkcs1(const uint8_t *data, size_t len,
                            std::vector<uint8_t> &signature) const {
  return m_algorithm == KeyAlgorithm::Rsa && crypto::rsaSignPkcs1(m_rsa, data, len, signature);
}

bool ReadyKey::rsaDecryptPkcs1(const uint8_t *cipher, size_t len, SecureBytes &plain) const {
  return m_algorithm == KeyAlgorithm::Rsa && crypto::rsaDecryptPkcs1(m_rsa, cipher, len, plain);
}

}  // namespace softskf
}  // namespace tembra
