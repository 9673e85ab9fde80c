// OpenSSL as the independent party that checks the provider's signatures
// and makes the ciphertexts it decrypts. Linux only.
#ifndef TEMBRA_TESTS_PROVIDER_OPS_OPENSSL_PEER_H
#define TEMBRA_TESTS_PROVIDER_OPS_OPENSSL_PEER_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace opstest {
namespace peer {

// SHA-256 DigestInfo of `message`, the bytes an RSA PKCS #1 v1.5 signature
// covers.
std::vector<uint8_t> sha256DigestInfo(const std::string &message);

// RSA PKCS #1 v1.5 with SHA-256 over `message`, checked by OpenSSL alone.
bool verifyRsaSha256(const std::vector<uint8_t> &spki, const std::string &message,
                     const std::vector<uint8_t> &signature);

// SM2 over a ready digest e; `signature` is DER SEQUENCE { r, s }.
bool verifySm2Digest(const std::vector<uint8_t> &spki, const uint8_t digest[32],
                     const std::vector<uint8_t> &signature);

// RSA PKCS #1 v1.5 encryption.
std::vector<uint8_t> encryptRsa(const std::vector<uint8_t> &spki, const std::string &message);
// SM2 encryption (SM3), converted from OpenSSL's ASN.1 form to the flat
// 0x04 || x || y || C2 || C3. Empty on failure.
std::vector<uint8_t> encryptSm2Flat(const std::vector<uint8_t> &spki, const std::string &message);

// Plain SM3 (no Z value).
std::vector<uint8_t> sm3(const std::vector<uint8_t> &data);
// SM4 in ECB or CBC mode without padding; `data` a multiple of 16 bytes.
std::vector<uint8_t> sm4(bool cbc, bool encrypt, const uint8_t key[16], const uint8_t iv[16],
                         const std::vector<uint8_t> &data);

}  // namespace peer
}  // namespace opstest

#endif  // TEMBRA_TESTS_PROVIDER_OPS_OPENSSL_PEER_H
