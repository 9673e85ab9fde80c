// The host side of signatures and encryption, done in software with the
// crypto backend: what the provider is handed to sign (SM2: e = SM3(Z || M)
// with the default signer identity; RSA: a DigestInfo), the checking of
// signatures against an exported public key, and encryption to one.
#ifndef TEMBRA_CLI_SIGNING_H
#define TEMBRA_CLI_SIGNING_H

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

namespace tembra {
namespace cli {

enum class HashKind { Sha256, Sm3 };

// "sha256" or "sm3"; throws UsageError otherwise.
HashKind hashFromText(const std::string &text);

// The message digest of a signature, fed in pieces so that any size of
// input takes bounded memory: SM2 computes e = SM3(Z || M) with Z from the
// public key and the default signer identity; RSA a SHA-256 or SM3 digest
// wrapped in a DigestInfo. Throws CliError or UsageError (SM2 without SM3).
class SignatureDigest {
 public:
  SignatureDigest(const std::vector<uint8_t> &spki, HashKind hash);
  ~SignatureDigest();
  SignatureDigest(const SignatureDigest &) = delete;
  SignatureDigest &operator=(const SignatureDigest &) = delete;

  void update(const uint8_t *data, size_t len);
  // What DeviceSign takes: e for SM2, the DigestInfo for RSA. Once only.
  std::vector<uint8_t> finish();
  // Checks signature against the digest (finishes it).
  bool verify(const std::vector<uint8_t> &signature);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// The bytes DeviceSign takes for this message under the public key (a DER
// SubjectPublicKeyInfo): SM2 keys need hash Sm3. Throws CliError.
std::vector<uint8_t> signatureInput(const std::vector<uint8_t> &spki,
                                    const std::vector<uint8_t> &message, HashKind hash);

// True if signature (SM2: DER r, s; RSA: PKCS#1 v1.5) is valid for message.
bool verifySignature(const std::vector<uint8_t> &spki, const std::vector<uint8_t> &message,
                     const std::vector<uint8_t> &signature, HashKind hash);

// SM2: flat 0x04 || x || y || C2 || C3; RSA: PKCS#1 v1.5. Throws CliError.
std::vector<uint8_t> encryptTo(const std::vector<uint8_t> &spki,
                               const std::vector<uint8_t> &message);

// The longest message encryptTo accepts for this key: for RSA what
// PKCS #1 v1.5 leaves of the modulus; for SM2 the token's limit on what it
// decrypts (SKF_ECCDecrypt takes at most kSm2TokenCipherLimit bytes of C2).
const size_t kSm2TokenCipherLimit = 65536;
size_t maxEncryptLength(const std::vector<uint8_t> &spki);

// The SubjectPublicKeyInfo of a DER X.509 certificate, or empty when the
// bytes are no certificate: Certificate { TBSCertificate { [0] version,
// serial, signature, issuer, validity, subject, subjectPublicKeyInfo, ...
// }, ... }. Reads outside input: bounded by the bytes given.
std::vector<uint8_t> certificatePublicKey(const std::vector<uint8_t> &certificate);

// The same key: both SM2 with equal points, or both RSA with equal modulus
// and exponent, however each SubjectPublicKeyInfo is spelled.
bool samePublicKey(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b);

// True if the public key is an SM2 key (else RSA); throws for neither.
bool isSm2Key(const std::vector<uint8_t> &spki);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_SIGNING_H
