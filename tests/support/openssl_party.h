// OpenSSL as the independent party that checks the token's and the
// provider's cryptography: keys built from public key blobs or
// SubjectPublicKeyInfo, signatures verified and ciphertexts made outside the
// code under test. Linux only.
#ifndef TEMBRA_TESTS_SUPPORT_OPENSSL_PARTY_H
#define TEMBRA_TESTS_SUPPORT_OPENSSL_PARTY_H

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/skf.h"

namespace tembra {
namespace test {
namespace openssl {

using Bytes = std::vector<unsigned char>;

struct PkeyFree {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

Pkey sm2KeyFromBlob(const ECCPUBLICKEYBLOB &blob);
Pkey rsaKeyFromBlob(const RSAPUBLICKEYBLOB &blob);
Pkey keyFromSpki(const Bytes &spki);
Pkey keyFromPem(const std::string &pem);
// The key's SubjectPublicKeyInfo DER.
Bytes spkiOf(EVP_PKEY *key);

// EVP_PKEY_verify of the 32-byte digest with the SM2 key.
bool sm2VerifyDigest(EVP_PKEY *key, const Bytes &digest, const ECCSIGNATUREBLOB &sig);
// The same with the signature as DER SEQUENCE { r, s }.
bool sm2VerifyDigest(EVP_PKEY *key, const Bytes &digest, const Bytes &derSignature);
// EVP_DigestVerify of the message with the SM2 key and signer identifier:
// OpenSSL computes Z and the digest itself.
bool sm2VerifyMessage(EVP_PKEY *key, const Bytes &id, const Bytes &message,
                      const ECCSIGNATUREBLOB &sig);
// The same for any key and digest name ("SM3", "SHA256"), the signature in
// DER (as RSA gives it, or SEQUENCE { r, s }); `id` matters for SM2 only.
bool verifyMessage(EVP_PKEY *key, const char *digest, const Bytes &id, const Bytes &message,
                   const Bytes &derSignature);
// The bytes a PKCS#1 v1.5 type-1 signature opens to.
Bytes rsaRecover(EVP_PKEY *key, const Bytes &signature);
Bytes rsaEncrypt(EVP_PKEY *key, const Bytes &plain);
// EVP_PKEY_sign and EVP_PKEY_decrypt with the private key: SM2 signs a ready
// digest (DER signature) and opens OpenSSL's ASN.1 ciphertext; RSA uses
// PKCS #1 v1.5.
Bytes sign(EVP_PKEY *key, const Bytes &data);
Bytes decrypt(EVP_PKEY *key, const Bytes &cipher);

// SM2 encryption by OpenSSL, turned from its ASN.1 form into the flat
// 04 || x || y || C2 || C3 (empty on failure) ...
Bytes sm2EncryptFlat(EVP_PKEY *key, const Bytes &plain);
// ... or into an ECCCIPHERBLOB (with room for the whole C2).
Bytes sm2EncryptToBlob(EVP_PKEY *key, const Bytes &plain);

// A fresh SM2 key pair: private scalar and public x, y (32 bytes each).
struct Sm2Pair {
  Pkey key;
  Bytes d, x, y;
  ECCPUBLICKEYBLOB blob() const;  // the public key as the token gives it
};
Sm2Pair newSm2Pair();

// A fresh RSA key and its PKCS#1 RSAPrivateKey DER.
struct RsaPair {
  Pkey key;
  Bytes der;
};
RsaPair newRsaPair(int bits);

Bytes sm4(bool encrypt, bool pad, const Bytes &key, const Bytes &in);
// The same in another mode ("SM4-CBC", "SM4-CFB", "SM4-OFB") with an IV.
Bytes sm4Mode(const char *mode, bool encrypt, bool pad, const Bytes &key, const Bytes &iv,
              const Bytes &in);
Bytes sm3(const Bytes &data);
// An ENVELOPEDKEYBLOB importing `pair`, its fresh SM4 key SM2-encrypted
// under wrapKey. The private key field holds, right-aligned, the encryption
// of `privateField` (empty: d itself, the 32-byte layout).
Bytes sm2Envelope(EVP_PKEY *wrapKey, const Sm2Pair &pair, const Bytes &privateField = Bytes(),
                  ULONG algorithm = SGD_SMS4_ECB);
// The 16-byte key of SM2 key agreement (GM/T 0003.3) as the sponsor
// derives it from its key pair and temporary pair and the responder's.
Bytes sm2AgreedKey(const Sm2Pair &own, const Sm2Pair &ownTemp, const Bytes &ownId,
                   const ECCPUBLICKEYBLOB &peer, const ECCPUBLICKEYBLOB &peerTemp,
                   const Bytes &peerId);

}  // namespace openssl
}  // namespace test
}  // namespace tembra

#endif  // TEMBRA_TESTS_SUPPORT_OPENSSL_PARTY_H
