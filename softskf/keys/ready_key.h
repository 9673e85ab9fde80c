// A private key unsealed for use: the backend's prepared key object (with
// its blinding and Montgomery set-up done once), kept in process memory while
// the user is logged in, so a signature or decryption costs what the crypto
// costs. The backend wipes and frees it when the object goes (logout, PIN
// change, a change of the stored key, process exit).
#ifndef TEMBRA_SOFTSKF_KEYS_READY_KEY_H
#define TEMBRA_SOFTSKF_KEYS_READY_KEY_H

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <vector>

#include "crypto/backend.h"
#include "crypto/secure_bytes.h"
#include "softskf/keys/key_wrap.h"
#include "softskf/store/records.h"

namespace tembra {
namespace softskf {

class ReadyKey {
 public:
  // The key of the record opened under the token key; null if the seal does
  // not open or the record holds no key.
  static std::unique_ptr<ReadyKey> unseal(const TokenKey &tokenKey, const KeyPairRecord &record);
  ~ReadyKey();
  ReadyKey(const ReadyKey &) = delete;
  ReadyKey &operator=(const ReadyKey &) = delete;

  // Whether this object was made from exactly this stored key.
  bool madeFrom(const KeyPairRecord &record) const;

  bool sm2Sign(const uint8_t e[crypto::kSm3DigestSize], uint8_t r[crypto::kSm2ScalarSize],
               uint8_t s[crypto::kSm2ScalarSize]) const;
  // The flat ciphertext 0x04 || x || y || C2 || C3.
  bool sm2Decrypt(const uint8_t *cipher, size_t len, SecureBytes &plain) const;
  bool rsaSignPkcs1(const uint8_t *data, size_t len, std::vector<uint8_t> &signature) const;
  bool rsaDecryptPkcs1(const uint8_t *cipher, size_t len, SecureBytes &plain) const;

 private:
  ReadyKey() = default;
  KeyAlgorithm m_algorithm = KeyAlgorithm::None;
  std::vector<uint8_t> m_sealed;  // the sealed form it came from
  std::unique_ptr<crypto::PreparedSm2Key> m_sm2;
  std::unique_ptr<crypto::PreparedRsaKey> m_rsa;
};

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_KEYS_READY_KEY_H
