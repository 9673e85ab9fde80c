// The "_KEYPAIR" blob: a plain (unencrypted) key pair in the host library's
// encoding, as the host hands it to the provider for import. Integers are
// big-endian.
//
//   offset  size  field
//   0       8     "_KEYPAIR" (no terminator)
//   8       4     algorithm: 1 RSA, 4 ECC
//   12      4     format version: 1
//   RSA:
//   16      4     modulus length in bytes (128 or 256)
//   20      4     L: length of the DER that follows
//   24      L     PKCS#1 RSAPrivateKey DER; the blob ends here
//   ECC:
//   16      4     curve: 7 (SM2)
//   20      32    public x
//   52      32    public y
//   84      32    private scalar d; the blob ends here (116 bytes)
//
// Decoders refuse anything else: a short or long blob, another magic,
// algorithm, version or curve, a modulus length that disagrees with the key,
// and an ECC public point that is not d times the base point.
#ifndef TEMBRA_CRYPTO_KEYPAIR_BLOB_H
#define TEMBRA_CRYPTO_KEYPAIR_BLOB_H

#include <stddef.h>
#include <stdint.h>

#include "crypto/backend.h"
#include "crypto/secure_bytes.h"

namespace tembra {
namespace crypto {

constexpr char kKeyPairMagic[8] = {'_', 'K', 'E', 'Y', 'P', 'A', 'I', 'R'};
constexpr uint32_t kKeyPairAlgorithmRsa = 1;
constexpr uint32_t kKeyPairAlgorithmEcc = 4;
constexpr uint32_t kKeyPairVersion = 1;
constexpr uint32_t kKeyPairCurveSm2 = 7;
constexpr size_t kKeyPairHeaderSize = 16;
constexpr size_t kKeyPairRsaDerOffset = 24;
constexpr size_t kKeyPairEccSize = 116;

bool encodeRsaKeyPairBlob(const RsaPrivateKey &key, SecureBytes &blob);
bool decodeRsaKeyPairBlob(const uint8_t *blob, size_t len, RsaPrivateKey &key);
// The PKCS#1 DER carried by an RSA blob, after the blob and the DER were
// checked as decodeRsaKeyPairBlob checks them.
bool rsaKeyPairBlobToDer(const uint8_t *blob, size_t len, SecureBytes &der);

bool encodeSm2KeyPairBlob(const Sm2KeyPair &keyPair, SecureBytes &blob);
bool decodeSm2KeyPairBlob(const uint8_t *blob, size_t len, Sm2KeyPair &keyPair);

}  // namespace crypto
}  // namespace tembra

#endif  // TEMBRA_CRYPTO_KEYPAIR_BLOB_H
