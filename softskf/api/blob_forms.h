// The GM/T 0016 key and cipher blobs that callers hand in, to and from the
// backend's forms. Integers sit right-aligned in their fields, as the
// token's own export writes them.
#ifndef TEMBRA_SOFTSKF_API_BLOB_FORMS_H
#define TEMBRA_SOFTSKF_API_BLOB_FORMS_H

#include <stdint.h>

#include <vector>

#include "crypto/backend.h"
#include "platform/skf.h"

namespace tembra {
namespace softskf {

// False unless BitLen is 256, the coordinates' high bytes are zero and the
// point lies on the curve.
bool eccPublicFromBlob(const ECCPUBLICKEYBLOB *blob, crypto::Sm2PublicKey &key);
void eccBlobFromPublic(const crypto::Sm2PublicKey &key, ECCPUBLICKEYBLOB &blob);
// False unless BitLen is 256 and the high bytes are zero.
bool eccPrivateFromBlob(const ECCPRIVATEKEYBLOB *blob, SecureArray<32> &d);

// The flat SM2 ciphertext 0x04 || x || y || C2 || C3 of a cipher blob whose
// CipherLen is at most maxLen; and the blob of a flat ciphertext (the blob
// must hold CipherLen bytes of Cipher).
bool eccCipherToFlat(const ECCCIPHERBLOB *blob, ULONG maxLen, std::vector<uint8_t> &flat);
void eccCipherFromFlat(const std::vector<uint8_t> &flat, ECCCIPHERBLOB *blob);

// RSA keys of 1024 or 2048 bits (BitLen), the modulus odd and full length.
bool rsaPublicFromBlob(const RSAPUBLICKEYBLOB *blob, crypto::RsaPublicKey &key);
bool rsaPrivateFromBlob(const RSAPRIVATEKEYBLOB *blob, crypto::RsaPrivateKey &key);
bool rsaBlobFromPrivate(const crypto::RsaPrivateKey &key, RSAPRIVATEKEYBLOB &blob);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_API_BLOB_FORMS_H
