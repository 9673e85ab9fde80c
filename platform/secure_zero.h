// secureZero: the one way to wipe secrets (PINs, keys, plaintext) before their
// memory is released. The compiler cannot remove the stores.
#ifndef TEMBRA_PLATFORM_SECURE_ZERO_H
#define TEMBRA_PLATFORM_SECURE_ZERO_H

#include <stddef.h>
#include <string.h>

#ifdef _WIN32
#include "win_types.h"
#endif

namespace tembra {

inline void secureZero(void *p, size_t len) {
  if (p == nullptr || len == 0) return;
#if defined(_WIN32)
  SecureZeroMemory(p, len);
#else
  explicit_bzero(p, len);
#endif
}

// A stack buffer of N bytes, zero at first and wiped on every path out.
template <size_t N>
struct WipedBuffer {
  unsigned char bytes[N] = {};
  WipedBuffer() = default;
  WipedBuffer(const WipedBuffer &) = delete;
  WipedBuffer &operator=(const WipedBuffer &) = delete;
  ~WipedBuffer() { secureZero(bytes, N); }
};

}  // namespace tembra

#endif  // TEMBRA_PLATFORM_SECURE_ZERO_H
