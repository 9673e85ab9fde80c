// Hex helpers shared by the crypto and host crypto tests.
#ifndef TEMBRA_TESTS_CRYPTO_TEST_HEX_H
#define TEMBRA_TESTS_CRYPTO_TEST_HEX_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

namespace tembra {
namespace testing {

// Bytes of a hex text; spaces are skipped. An odd digit count or a non-hex
// character aborts the test program, as it is a fault of the test itself.
inline std::vector<uint8_t> fromHex(const std::string &text) {
  std::vector<uint8_t> out;
  int high = -1;
  for (char c : text) {
    if (c == ' ') continue;
    int v = (c >= '0' && c <= '9')   ? c - '0'
            : (c >= 'a' && c <= 'f') ? c - 'a' + 10
            : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                     : -1;
    if (v < 0) abort();
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<uint8_t>(high << 4 | v));
      high = -1;
    }
  }
  if (high >= 0) abort();
  return out;
}

inline std::string toHex(const uint8_t *p, size_t len) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < len; ++i) {
    out += digits[p[i] >> 4];
    out += digits[p[i] & 15];
  }
  return out;
}

inline std::string toHex(const std::vector<uint8_t> &v) {
  return toHex(v.data(), v.size());
}

inline std::vector<uint8_t> bytesOf(const std::string &text) {
  return std::vector<uint8_t>(text.begin(), text.end());
}

}  // namespace testing
}  // namespace tembra

#endif  // TEMBRA_TESTS_CRYPTO_TEST_HEX_H
