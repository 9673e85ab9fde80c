// PIN arguments as every PIN-taking call checks them.
#ifndef TEMBRA_SOFTSKF_API_PIN_RULES_H
#define TEMBRA_SOFTSKF_API_PIN_RULES_H

#include <string.h>

#include <string>

#include "platform/secure_zero.h"
#include "platform/skf.h"

namespace tembra {
namespace softskf {

constexpr size_t kMinPinLen = 6;
constexpr size_t kMaxPinLen = 16;

// A PIN copied out of the caller's string, wiped when it goes.
struct PinText {
  std::string value;
  PinText() = default;
  PinText(const PinText &) = delete;
  PinText &operator=(const PinText &) = delete;
  ~PinText() {
    if (!value.empty()) secureZero(&value[0], value.size());
  }
};

// SAR_INVALIDPARAMERR for null, SAR_PIN_LEN_RANGE outside 6..16 bytes.
inline ULONG takePin(const char *pin, PinText &out) {
  if (pin == nullptr) return SAR_INVALIDPARAMERR;
  size_t len = strnlen(pin, kMaxPinLen + 1);
  if (len < kMinPinLen || len > kMaxPinLen) return SAR_PIN_LEN_RANGE;
  out.value.assign(pin, len);
  return SAR_OK;
}

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_API_PIN_RULES_H
