// Key pairs between their three forms: the backend's structures, the
// persistent KeyPairRecord (private part sealed under the token key) and the
// GM/T 0016 public key blobs. Also the PKCS#1 RSAPrivateKey DER reader that
// RSA import needs.
#ifndef TEMBRA_SOFTSKF_KEYS_KEY_MATERIAL_H
#define TEMBRA_SOFTSKF_KEYS_KEY_MATERIAL_H

#include <stddef.h>
#include <stdint.h>

#include "crypto/backend.h"
#include "platform/skf.h"
#include "softskf/keys/key_wrap.h"
#include "softskf/store/records.h"

namespace tembra {
namespace softskf {

bool storeSm2(const TokenKey &tokenKey, const crypto::Sm2KeyPair &pair, KeyPairRecord &record);
bool storeRsa(const TokenKey &tokenKey, const crypto::RsaPrivateKey &key, KeyPairRecord &record);
// Unseal the private part; false if the record is not of that algorithm or
// its seal does not open under this token key.
bool loadSm2(const TokenKey &tokenKey, const KeyPairRecord &record, SecureArray<32> &d);
bool loadRsa(const TokenKey &tokenKey, const KeyPairRecord &record, crypto::RsaPrivateKey &key);

crypto::Sm2PublicKey sm2Public(const KeyPairRecord &record);
crypto::RsaPublicKey rsaPublic(const KeyPairRecord &record);
// Bit length of a big-endian integer.
uint32_t bitLength(const std::vector<uint8_t> &value);

void fillEccBlob(const KeyPairRecord &record, ECCPUBLICKEYBLOB &blob);
// False if the key does not fit the blob (modulus over 2048 bits, exponent
// over 4 bytes).
bool fillRsaBlob(const KeyPairRecord &record, RSAPUBLICKEYBLOB &blob);

// A DER PKCS#1 RSAPrivateKey (version 0) into its fields; false on any
// malformation, trailing bytes included.
bool parseRsaPrivateKeyDer(const uint8_t *der, size_t len, crypto::RsaPrivateKey &key);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_KEYS_KEY_MATERIAL_H
