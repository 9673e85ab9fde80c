// SMS4 in the feedback modes, CFB and OFB with 128-bit feedback, built on
// single-block encryption: stream ciphers over any length, no padding.
#ifndef TEMBRA_SOFTSKF_API_FEEDBACK_MODES_H
#define TEMBRA_SOFTSKF_API_FEEDBACK_MODES_H

#include <stddef.h>
#include <stdint.h>

#include "softskf/core/handles.h"

namespace tembra {
namespace softskf {

inline bool isFeedbackMode(ULONG algorithm) {
  return algorithm == SGD_SMS4_CFB || algorithm == SGD_SMS4_OFB;
}

// Runs len bytes through the key's mode from the feedback register `iv`,
// which is left where a following call continues (after whole blocks).
bool sm4FeedbackRun(const KeyObject &key, bool encrypt, uint8_t iv[16], const uint8_t *in,
                    size_t len, uint8_t *out);

// One whole operation from the key's IV, as SKF_Encrypt and SKF_Decrypt run it.
bool sm4Feedback(const KeyObject &key, bool encrypt, const uint8_t *in, size_t len,
                 SecureBytes &out);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_API_FEEDBACK_MODES_H
