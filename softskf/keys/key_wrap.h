// Protection of secrets at rest: PIN verifiers and wrapping keys derived by
// PBKDF2 with HMAC-SM3, and sealing (SM4-CBC with PKCS#7 under a random IV,
// then an HMAC-SM3 tag over IV and ciphertext) under a 16-byte key.
#ifndef TEMBRA_SOFTSKF_KEYS_KEY_WRAP_H
#define TEMBRA_SOFTSKF_KEYS_KEY_WRAP_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/secure_bytes.h"
#include "softskf/store/records.h"

namespace tembra {
namespace softskf {

// Kept moderate on purpose: the token also runs under emulation in the test
// runs, where every login pays for the derivation. Stored per PIN, so it can
// be raised without breaking existing stores.
constexpr uint32_t kPinIterations = 1000;
constexpr size_t kTokenKeySize = 16;
using TokenKey = SecureArray<kTokenKeySize>;

bool hmacSm3(const uint8_t *key, size_t keyLen, const uint8_t *data, size_t len,
             uint8_t out[crypto::kSm3DigestSize]);
// PBKDF2 (RFC 8018) with HMAC-SM3 as the pseudo-random function.
bool pbkdf2Sm3(const uint8_t *password, size_t passwordLen, const uint8_t *salt, size_t saltLen,
               uint32_t iterations, uint8_t *out, size_t outLen);

// seal: IV (16) || SM4-CBC-PKCS#7(plain) || tag (32). open checks the tag
// before decrypting and fails on any change.
bool seal(const TokenKey &key, const uint8_t *plain, size_t len, std::vector<uint8_t> &sealed);
bool open(const TokenKey &key, const std::vector<uint8_t> &sealed, SecureBytes &plain);

// Sets a PIN record for `pin`: fresh salt, verifier, and the token key
// wrapped under the PIN. Counters are left to the caller.
bool setPin(PinRecord &record, const std::string &pin, const TokenKey &tokenKey);
// True if `pin` matches the verifier; then `tokenKey` is unwrapped.
bool checkPin(const PinRecord &record, const std::string &pin, TokenKey &tokenKey);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_KEYS_KEY_WRAP_H
