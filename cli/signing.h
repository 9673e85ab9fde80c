// The host side of signatures and encryption, done in software with the
// crypto backend: what the provider is handed to sign (SM2: e = SM3(Z || M)
// with the default signer identity; RSA: a DigestInfo), the checking of
// signatures against an exported public key, and encryption to one.
#ifndef TEMBRA_CLI_SIGNING_H
#define TEMBRA_CLI_SIGNING_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tembra {
namespace cli {

enum class HashKind { Sha256, Sm3 };

// "sha256" or "sm3"; throws UsageError otherwise.
HashKind hashFromText(const std::string &text);

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

// True if the public key is an SM2 key (else RSA); throws for neither.
bool isSm2Key(const std::vector<uint8_t> &spki);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_SIGNING_H
