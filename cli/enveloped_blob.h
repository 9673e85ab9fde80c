// The key management centre's side of key pair import: a private key
// enveloped to a signature public key as an "SCAENCKP" blob, entirely in
// software (no token).
//
// The private key is encrypted with SMS4-ECB under a fresh 16-byte key (SM2:
// d, 32 bytes, unpadded; RSA: the PKCS #1 DER, PKCS #7 padded); that key is
// encrypted to the signature public key (SM2 flat C1 C2 C3, or RSA PKCS #1
// v1.5). docs/host-formats.md gives the layout.
#ifndef TEMBRA_CLI_ENVELOPED_BLOB_H
#define TEMBRA_CLI_ENVELOPED_BLOB_H

#include <stdint.h>

#include <vector>

#include "cli/key_files.h"

namespace tembra {
namespace cli {

// Throws CliError when the recipient is not of the key's algorithm or the
// cryptography fails.
std::vector<uint8_t> envelopeKeyPair(const std::vector<uint8_t> &recipientSpki,
                                     const PrivateKey &key);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_ENVELOPED_BLOB_H
