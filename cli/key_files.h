// Key files for `tembra import` and `tembra envelope`: private keys (PKCS #8,
// SEC1 for SM2, PKCS #1 for RSA; DER or PEM) and the recipient of an
// envelope (a SubjectPublicKeyInfo or a certificate; DER or PEM).
#ifndef TEMBRA_CLI_KEY_FILES_H
#define TEMBRA_CLI_KEY_FILES_H

#include <stdint.h>

#include <string>
#include <vector>

#include "crypto/backend.h"

namespace tembra {
namespace cli {

struct PrivateKey {
  bool sm2 = false;
  crypto::Sm2KeyPair sm2Key;     // when sm2
  crypto::RsaPrivateKey rsaKey;  // otherwise
};

// Throws CliError naming the file when the bytes are no unencrypted SM2 or
// RSA private key in one of the accepted forms.
PrivateKey readPrivateKeyFile(const std::string &path);

// The SubjectPublicKeyInfo DER of a public key file or of the subject key
// of a certificate file; throws CliError naming the file otherwise.
std::vector<uint8_t> readRecipientFile(const std::string &path);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_KEY_FILES_H
