// Standard encodings of the keys and signatures this project handles:
// SubjectPublicKeyInfo for RSA and SM2 public keys, the DER SM2 signature,
// PKCS#1 RSAPrivateKey and RSAPublicKey, and PEM armour. docs/host-formats.md
// gives the layouts.
//
// Every decoder is strict: the whole input must be one well-formed structure
// with no trailing bytes, the algorithm identifiers must be the expected ones,
// and a failure leaves the output unchanged.
#ifndef TEMBRA_CRYPTO_KEY_FORMATS_H
#define TEMBRA_CRYPTO_KEY_FORMATS_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/secure_bytes.h"

namespace tembra {
namespace crypto {

// Dotted identifiers used in the encodings.
extern const char kOidRsaEncryption[];  // 1.2.840.113549.1.1.1
extern const char kOidEcPublicKey[];    // 1.2.840.10045.2.1
extern const char kOidSm2Curve[];       // 1.2.156.10197.1.301
extern const char kOidSm2WithSm3[];     // 1.2.156.10197.1.501
extern const char kOidSha256WithRsa[];  // 1.2.840.113549.1.1.11

// Largest DER SM2 signature: two 33-byte INTEGERs in a SEQUENCE.
constexpr size_t kSm2SignatureDerMax = 72;

enum class KeyAlgorithm { kUnknown, kRsa, kSm2 };

// The algorithm of a SubjectPublicKeyInfo, judged from its outer structure;
// kUnknown when it is malformed or of another algorithm.
KeyAlgorithm spkiAlgorithm(const uint8_t *der, size_t len);

// SubjectPublicKeyInfo with rsaEncryption, NULL parameters and the PKCS#1
// RSAPublicKey in the BIT STRING. Leading zero bytes of n and e are ignored
// on encoding; decoding returns both without leading zeros.
bool encodeRsaSpki(const RsaPublicKey &key, std::vector<uint8_t> &der);
bool decodeRsaSpki(const uint8_t *der, size_t len, RsaPublicKey &key);

// SubjectPublicKeyInfo with id-ecPublicKey, the SM2 curve as parameter and
// the uncompressed point 04 || x || y. Decoding also checks the point lies on
// the curve.
bool encodeSm2Spki(const Sm2PublicKey &key, std::vector<uint8_t> &der);
bool decodeSm2Spki(const uint8_t *der, size_t len, Sm2PublicKey &key);

// PKCS#1 RSAPublicKey: SEQUENCE { n, e }.
bool encodeRsaPublicKey(const RsaPublicKey &key, std::vector<uint8_t> &der);
bool decodeRsaPublicKey(const uint8_t *der, size_t len, RsaPublicKey &key);

// SEQUENCE { INTEGER r, INTEGER s } in minimal form (at most 72 bytes).
// Decoding accepts r and s of up to 32 significant bytes, each in [1, 2^256).
bool encodeSm2Signature(const uint8_t r[kSm2ScalarSize], const uint8_t s[kSm2ScalarSize],
                        std::vector<uint8_t> &der);
bool decodeSm2Signature(const uint8_t *der, size_t len, uint8_t r[kSm2ScalarSize],
                        uint8_t s[kSm2ScalarSize]);

// PKCS#1 RSAPrivateKey (version 0, two primes). Encoding needs every CRT
// part; the DER holds the private key and so comes in a SecureBytes.
bool encodeRsaPrivateKey(const RsaPrivateKey &key, SecureBytes &der);
bool decodeRsaPrivateKey(const uint8_t *der, size_t len, RsaPrivateKey &key);

// PEM: "-----BEGIN <label>-----", base64 in lines of 64, "-----END <label>-----",
// each line ending in "\n".
std::string pemArmour(const char *label, const uint8_t *der, size_t len);
// The DER of the first block with this label; whitespace inside the base64
// (including "\r\n" line ends) is accepted, anything else is refused.
bool pemUnarmour(const std::string &text, const char *label, std::vector<uint8_t> &der);

}  // namespace crypto
}  // namespace tembra

#endif  // TEMBRA_CRYPTO_KEY_FORMATS_H
