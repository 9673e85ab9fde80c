// Scoped holders for what the host library hands out during key import.
#ifndef TEMBRA_IMPORT_HOST_BUFFER_H
#define TEMBRA_IMPORT_HOST_BUFFER_H

#include <stddef.h>
#include <stdint.h>

#include "platform/orvel_crypto.h"
#include "platform/secure_zero.h"

// A buffer the host library allocated, released with OrvelPKICryptoFreeMemory
// on every path. A secret one (a private scalar, a private key DER) is wiped
// first by wipeOnRelease(), whatever the library does on release.
class HostMemory {
 public:
  HostMemory() = default;
  ~HostMemory() {
    if (m_data == nullptr) return;
    if (m_secret && m_len > 0) tembra::secureZero(m_data, static_cast<size_t>(m_len));
    OrvelPKICryptoFreeMemory(m_data);
  }
  HostMemory(const HostMemory &) = delete;
  HostMemory &operator=(const HostMemory &) = delete;

  unsigned char **out() { return &m_data; }
  int *outLen() { return &m_len; }
  const unsigned char *data() const { return m_data; }
  int len() const { return m_len; }
  void wipeOnRelease() { m_secret = true; }

 private:
  unsigned char *m_data = nullptr;
  int m_len = 0;
  bool m_secret = false;
};

// A public key object of the pseudo device, released with
// OrvelPKICryptoFreePublicKey.
class HostPublicKey {
 public:
  HostPublicKey() = default;
  ~HostPublicKey() {
    if (m_key != nullptr) OrvelPKICryptoFreePublicKey(m_key);
  }
  HostPublicKey(const HostPublicKey &) = delete;
  HostPublicKey &operator=(const HostPublicKey &) = delete;
  ORVEL_PKI_PUBLICKEY *out() { return &m_key; }
  ORVEL_PKI_PUBLICKEY get() const { return m_key; }

 private:
  ORVEL_PKI_PUBLICKEY m_key = nullptr;
};

// Big-endian 32-bit integers of the blobs.
inline uint32_t readBigEndian32(const unsigned char *p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

inline void writeBigEndian32(unsigned char *p, uint32_t value) {
  p[0] = static_cast<unsigned char>(value >> 24);
  p[1] = static_cast<unsigned char>(value >> 16);
  p[2] = static_cast<unsigned char>(value >> 8);
  p[3] = static_cast<unsigned char>(value);
}

#endif  // TEMBRA_IMPORT_HOST_BUFFER_H
