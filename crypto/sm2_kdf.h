// The SM2 key derivation function of GM/T 0003.4 with SM3, shared by both
// backends' SM2 encryption. Backend-independent: built on Sm3 alone.
#ifndef TEMBRA_CRYPTO_SM2_KDF_H
#define TEMBRA_CRYPTO_SM2_KDF_H

#include <stddef.h>
#include <stdint.h>

namespace tembra {
namespace crypto {

// out = SM3(z || ct) blocks, ct a 32-bit big-endian counter from 1, cut to
// len bytes. False (with out unspecified) if the digest fails.
bool sm2Kdf(const uint8_t *z, size_t zLen, uint8_t *out, size_t len);

// True if all len bytes are zero, in time independent of the contents (an
// all-zero key stream must be refused).
bool allZero(const uint8_t *p, size_t len);

}  // namespace crypto
}  // namespace tembra

#endif  // TEMBRA_CRYPTO_SM2_KDF_H
