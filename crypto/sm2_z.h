// The SM2 signer identity value Z and the digest e = SM3(Z || M) that SM2
// signatures are made over. Backend-independent: built on Sm3 alone.
#ifndef TEMBRA_CRYPTO_SM2_Z_H
#define TEMBRA_CRYPTO_SM2_Z_H

#include <stddef.h>
#include <stdint.h>

#include "crypto/backend.h"

namespace tembra {
namespace crypto {

// The identifier used when the signer names none: the 16 ASCII bytes
// "1234567812345678".
extern const uint8_t kSm2DefaultId[16];
constexpr size_t kSm2DefaultIdSize = 16;

// Z = SM3(ENTL || ID || a || b || xG || yG || xA || yA), ENTL being the
// identifier length in bits as two big-endian bytes. False if idLen exceeds
// 8191 bytes (ENTL would overflow) or id is null with idLen > 0.
bool sm2ComputeZ(const Sm2PublicKey &publicKey, const uint8_t *id, size_t idLen,
                 uint8_t z[kSm3DigestSize]);

// e = SM3(Z || M), the value sm2Sign and sm2Verify take.
bool sm2DigestWithZ(const Sm2PublicKey &publicKey, const uint8_t *id, size_t idLen,
                    const uint8_t *msg, size_t len, uint8_t e[kSm3DigestSize]);

}  // namespace crypto
}  // namespace tembra

#endif  // TEMBRA_CRYPTO_SM2_Z_H
