#include "softskf/api/feedback_modes.h"

#include <string.h>

#include "crypto/backend.h"

namespace tembra {
namespace softskf {

bool sm4FeedbackRun(const KeyObject &key, bool encrypt, uint8_t iv[16], const uint8_t *in,
                    size_t len, uint8_t *out) {
  const bool cfb = key.algorithm == SGD_SMS4_CFB;
  SecureArray<16> stream;
  for (size_t at = 0; at < len; at += 16) {
    const size_t n = len - at < 16 ? len - at : 16;
    if (!crypto::sm4Ecb(true, key.key.data(), iv, 16, stream.data())) return false;
    // CFB feeds the ciphertext back, OFB the key stream.
    if (!cfb) memcpy(iv, stream.data(), 16);
    if (cfb && !encrypt && n == 16) memcpy(iv, in + at, 16);
    for (size_t i = 0; i < n; ++i) out[at + i] = static_cast<uint8_t>(in[at + i] ^ stream.data()[i]);
    if (cfb && encrypt && n == 16) memcpy(iv, out + at, 16);
  }
  return true;
}

bool sm4Feedback(const KeyObject &key, bool encrypt, const uint8_t *in, size_t len,
                 SecureBytes &out) {
  uint8_t iv[16];
  memcpy(iv, key.iv, 16);
  out = SecureBytes(len);
  return len == 0 || sm4FeedbackRun(key, encrypt, iv, in, len, out.data());
}

}  // namespace softskf
}  // namespace tembra
