// The one-shot private-key operations, the same over either backend: each
// prepares the key for one use (see PreparedSm2Key and PreparedRsaKey).
#include "crypto/backend.h"

namespace tembra {
namespace crypto {

bool sm2Sign(const uint8_t d[kSm2ScalarSize], const uint8_t e[kSm3DigestSize],
             uint8_t r[kSm2ScalarSize], uint8_t s[kSm2ScalarSize]) {
  std::unique_ptr<PreparedSm2Key> key = PreparedSm2Key::create(d);
  return key && key->sign(e, r, s);
}

bool sm2Decrypt(const uint8_t d[kSm2ScalarSize], const uint8_t *cipher, size_t len,
                SecureBytes &message) {
  std::unique_ptr<PreparedSm2Key> key = PreparedSm2Key::create(d);
  return key && key->decrypt(cipher, len, message);
}

bool rsaSignPkcs1(const RsaPrivateKey &key, const uint8_t *data, size_t len,
                  std::vector<uint8_t> &signature) {
  std::unique_ptr<PreparedRsaKey> prepared = PreparedRsaKey::create(key);
  return prepared && prepared->signPkcs1(data, len, signature);
}

bool rsaDecryptPkcs1(const RsaPrivateKey &key, const uint8_t *cipher, size_t len,
                     SecureBytes &message) {
  std::unique_ptr<PreparedRsaKey> prepared = PreparedRsaKey::create(key);
  return prepared && prepared->decryptPkcs1(cipher, len, message);
}

}  // namespace crypto
}  // namespace tembra
