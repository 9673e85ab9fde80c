// The two forms of an SM2 ciphertext: the flat 0x04 || x || y || C2 || C3
// that the token interface carries, and the DER SM2Ciphertext
// SEQUENCE { x INTEGER, y INTEGER, C3 OCTET STRING, C2 OCTET STRING }
// that OpenSSL's SM2 encryption reads and writes. Backend-independent.
#ifndef TEMBRA_CRYPTO_SM2_CIPHERTEXT_H
#define TEMBRA_CRYPTO_SM2_CIPHERTEXT_H

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace tembra {
namespace crypto {

// False unless len >= 97 and the point is marked uncompressed (0x04). The
// point is not checked against the curve here: decryption does that.
bool sm2CipherFlatToDer(const uint8_t *flat, size_t len, std::vector<uint8_t> &der);

// Strict DER: false unless the structure ends where the input ends, both
// coordinates fit 32 bytes and C3 is exactly 32 bytes.
bool sm2CipherDerToFlat(const uint8_t *der, size_t len, std::vector<uint8_t> &flat);

}  // namespace crypto
}  // namespace tembra

#endif  // TEMBRA_CRYPTO_SM2_CIPHERTEXT_H
