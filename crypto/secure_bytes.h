// Buffers for secrets: wiped with secureZero before their memory is released.
#ifndef TEMBRA_CRYPTO_SECURE_BYTES_H
#define TEMBRA_CRYPTO_SECURE_BYTES_H

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "platform/secure_zero.h"

namespace tembra {

// A byte vector that wipes its contents on destruction, clear() and resize
// down. Reallocation is avoided by reserve() where the size is known.
class SecureBytes {
 public:
  SecureBytes() = default;
  explicit SecureBytes(size_t n) : m_bytes(n) {}
  SecureBytes(const uint8_t *p, size_t n) : m_bytes(p, p + n) {}
  ~SecureBytes() { wipe(); }
  SecureBytes(const SecureBytes &other) = default;
  SecureBytes(SecureBytes &&other) noexcept : m_bytes(std::move(other.m_bytes)) {}
  SecureBytes &operator=(const SecureBytes &other) {
    if (this != &other) {
      wipe();
      m_bytes = other.m_bytes;
    }
    return *this;
  }
  SecureBytes &operator=(SecureBytes &&other) noexcept {
    if (this != &other) {
      wipe();
      m_bytes = std::move(other.m_bytes);
    }
    return *this;
  }

  uint8_t *data() { return m_bytes.data(); }
  const uint8_t *data() const { return m_bytes.data(); }
  size_t size() const { return m_bytes.size(); }
  bool empty() const { return m_bytes.empty(); }
  uint8_t &operator[](size_t i) { return m_bytes[i]; }
  const uint8_t &operator[](size_t i) const { return m_bytes[i]; }
  // Growing may move the contents; the old storage is not wiped then, so
  // size secrets up front.
  void resize(size_t n) {
    if (n < m_bytes.size()) secureZero(m_bytes.data() + n, m_bytes.size() - n);
    m_bytes.resize(n);
  }
  void assign(const uint8_t *p, size_t n) {
    wipe();
    m_bytes.assign(p, p + n);
  }
  void clear() {
    wipe();
    m_bytes.clear();
  }

 private:
  void wipe() {
    if (!m_bytes.empty()) secureZero(m_bytes.data(), m_bytes.size());
  }
  std::vector<uint8_t> m_bytes;
};

// A fixed-size secret, wiped on destruction.
template <size_t N>
struct SecureArray {
  uint8_t bytes[N] = {};
  SecureArray() = default;
  SecureArray(const SecureArray &) = default;
  SecureArray &operator=(const SecureArray &) = default;
  ~SecureArray() { secureZero(bytes, N); }
  uint8_t *data() { return bytes; }
  const uint8_t *data() const { return bytes; }
  static constexpr size_t size() { return N; }
};

}  // namespace tembra

#endif  // TEMBRA_CRYPTO_SECURE_BYTES_H
