// SHA-256 (FIPS 180-4), self-contained: the crypto backend has no SHA-256,
// yet RSA certificates and `tembra sign --hash sha256` need it.
#ifndef TEMBRA_SOFTSKF_PROVISION_SHA256_H
#define TEMBRA_SOFTSKF_PROVISION_SHA256_H

#include <stddef.h>
#include <stdint.h>

namespace tembra {

constexpr size_t kSha256DigestSize = 32;

// Incremental SHA-256. final() writes the digest and wipes the state; the
// object may be reused only after reset().
class Sha256 {
 public:
  Sha256() { reset(); }
  ~Sha256();
  Sha256(const Sha256 &) = delete;
  Sha256 &operator=(const Sha256 &) = delete;

  void reset();
  void update(const uint8_t *data, size_t len);
  void final(uint8_t out[kSha256DigestSize]);

 private:
  void compress(const uint8_t block[64]);

  uint32_t m_state[8];
  uint64_t m_totalBytes;
  uint8_t m_buffer[64];
  size_t m_buffered;
};

void sha256(const uint8_t *data, size_t len, uint8_t out[kSha256DigestSize]);

}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_PROVISION_SHA256_H
