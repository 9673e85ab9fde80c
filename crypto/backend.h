// The crypto backend: the one narrow interface through which the software
// token and the host crypto stand-in reach cryptography.
//
// Two implementations exist behind it, OpenSSL 3 (backend_openssl.cpp) and
// libgcrypt (backend_gcrypt.cpp); a build links exactly one of them, chosen by
// TEMBRA_CRYPTO_BACKEND. No backend type appears here. All integers are
// big-endian byte strings. Every function returns true on success and false
// on any failure (bad length, bad key, library error); none throws.
#ifndef TEMBRA_CRYPTO_BACKEND_H
#define TEMBRA_CRYPTO_BACKEND_H

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <vector>

#include "crypto/secure_bytes.h"

namespace tembra {
namespace crypto {

// Name of the linked backend ("openssl" or "gcrypt"), for diagnostics.
const char *backendName();

// ---- Random ---------------------------------------------------------------
bool randomBytes(uint8_t *out, size_t len);

// ---- SM3 ------------------------------------------------------------------
constexpr size_t kSm3DigestSize = 32;

class Sm3 {
 public:
  Sm3();
  ~Sm3();
  Sm3(const Sm3 &) = delete;
  Sm3 &operator=(const Sm3 &) = delete;
  bool ok() const;  // false if the backend could not start a digest
  bool update(const uint8_t *data, size_t len);
  // Writes 32 bytes; the object is spent afterwards.
  bool final(uint8_t out[kSm3DigestSize]);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

bool sm3(const uint8_t *data, size_t len, uint8_t out[kSm3DigestSize]);

// ---- SHA-256 ----------------------------------------------------------------
constexpr size_t kSha256DigestSize = 32;

bool sha256(const uint8_t *data, size_t len, uint8_t out[kSha256DigestSize]);

// ---- SM4 ------------------------------------------------------------------
constexpr size_t kSm4KeySize = 16;
constexpr size_t kSm4BlockSize = 16;

// No padding: len must be a multiple of 16; out receives len bytes (out may
// equal in).
bool sm4Ecb(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t *in, size_t len,
            uint8_t *out);
bool sm4Cbc(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t iv[kSm4BlockSize],
            const uint8_t *in, size_t len, uint8_t *out);
// PKCS#7 padding: encryption pads any length; decryption checks and strips.
bool sm4EcbPadded(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t *in, size_t len,
                  SecureBytes &out);
bool sm4CbcPadded(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t iv[kSm4BlockSize],
                  const uint8_t *in, size_t len, SecureBytes &out);

// ---- SM2 ------------------------------------------------------------------
constexpr size_t kSm2ScalarSize = 32;
// Flat ciphertext 0x04 || x || y || C2 || C3: 97 bytes plus the message.
constexpr size_t kSm2CipherOverhead = 97;

struct Sm2PublicKey {
  uint8_t x[kSm2ScalarSize];
  uint8_t y[kSm2ScalarSize];
};

struct Sm2KeyPair {
  Sm2PublicKey publicKey;
  SecureArray<kSm2ScalarSize> d;
};

bool sm2Generate(Sm2KeyPair &keyPair);
// The public point of d; false for d = 0 or d >= n - 1.
bool sm2PublicFromPrivate(const uint8_t d[kSm2ScalarSize], Sm2PublicKey &publicKey);
// True if the point lies on the curve.
bool sm2ValidatePublic(const Sm2PublicKey &publicKey);
// Signs a 32-byte digest e as given (no Z value is computed here).
bool sm2Sign(const uint8_t d[kSm2ScalarSize], const uint8_t e[kSm3DigestSize],
             uint8_t r[kSm2ScalarSize], uint8_t s[kSm2ScalarSize]);
bool sm2Verify(const Sm2PublicKey &publicKey, const uint8_t e[kSm3DigestSize],
               const uint8_t r[kSm2ScalarSize], const uint8_t s[kSm2ScalarSize]);
bool sm2Encrypt(const Sm2PublicKey &publicKey, const uint8_t *message, size_t len,
                std::vector<uint8_t> &cipher);
bool sm2Decrypt(const uint8_t d[kSm2ScalarSize], const uint8_t *cipher, size_t len,
                SecureBytes &message);

// A private key made ready once for many operations: the backend's own key
// object with its precomputation (blinding, Montgomery set-up). Safe to use
// from several threads at once; the destructor wipes and frees it.
class PreparedSm2Key {
 public:
  // Null for d = 0, d >= n - 1 or a backend failure.
  static std::unique_ptr<PreparedSm2Key> create(const uint8_t d[kSm2ScalarSize]);
  ~PreparedSm2Key();
  PreparedSm2Key(const PreparedSm2Key &) = delete;
  PreparedSm2Key &operator=(const PreparedSm2Key &) = delete;
  // As sm2Sign: e is signed as given.
  bool sign(const uint8_t e[kSm3DigestSize], uint8_t r[kSm2ScalarSize],
            uint8_t s[kSm2ScalarSize]) const;
  // As sm2Decrypt: flat C1 || C2 || C3.
  bool decrypt(const uint8_t *cipher, size_t len, SecureBytes &message) const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
  PreparedSm2Key();
};

// ---- RSA ------------------------------------------------------------------
struct RsaPublicKey {
  std::vector<uint8_t> n;  // modulus, no leading zero byte
  std::vector<uint8_t> e;  // public exponent, no leading zero byte
};

struct RsaPrivateKey {
  RsaPublicKey publicKey;
  SecureBytes d, p, q, dp, dq, qinv;
};

// bits: 1024 or 2048, exponent 65537.
bool rsaGenerate(int bits, RsaPrivateKey &key);
// PKCS#1 v1.5 block type 1 over the given bytes (no DigestInfo added);
// the signature is as long as the modulus.
bool rsaSignPkcs1(const RsaPrivateKey &key, const uint8_t *data, size_t len,
                  std::vector<uint8_t> &signature);
// True if the signature opens to a type-1 block holding exactly `data`.
bool rsaVerifyPkcs1(const RsaPublicKey &key, const uint8_t *data, size_t len,
                    const uint8_t *signature, size_t signatureLen);
// PKCS#1 v1.5 block type 2.
bool rsaEncryptPkcs1(const RsaPublicKey &key, const uint8_t *data, size_t len,
                     std::vector<uint8_t> &cipher);
bool rsaDecryptPkcs1(const RsaPrivateKey &key, const uint8_t *cipher, size_t len,
                     SecureBytes &message);

// The RSA counterpart of PreparedSm2Key.
class PreparedRsaKey {
 public:
  static std::unique_ptr<PreparedRsaKey> create(const RsaPrivateKey &key);  // null on failure
  ~PreparedRsaKey();
  PreparedRsaKey(const PreparedRsaKey &) = delete;
  PreparedRsaKey &operator=(const PreparedRsaKey &) = delete;
  // The modulus length in bytes, which is also the signature length.
  size_t modulusSize() const;
  // As rsaSignPkcs1 and rsaDecryptPkcs1.
  bool signPkcs1(const uint8_t *data, size_t len, std::vector<uint8_t> &signature) const;
  bool decryptPkcs1(const uint8_t *cipher, size_t len, SecureBytes &message) const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
  PreparedRsaKey();
};

}  // namespace crypto
}  // namespace tembra

#endif  // TEMBRA_CRYPTO_BACKEND_H
