// OpenSSL as the independent party that checks the token's cryptography:
// keys built from the token's public key blobs, signatures verified and
// ciphertexts made outside the token. Linux only.
#ifndef TEMBRA_TESTS_SOFTSKF_OPENSSL_PARTY_H
#define TEMBRA_TESTS_SOFTSKF_OPENSSL_PARTY_H

#include <openssl/evp.h>

#include <memory>
#include <vector>

#include "platform/skf.h"

namespace softskf_test {

using Bytes = std::vector<unsigned char>;

struct PkeyFree {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

Pkey sm2KeyFromBlob(const ECCPUBLICKEYBLOB &blob);
Pkey rsaKeyFromBlob(const RSAPUBLICKEYBLOB &blob);

// EVP_PKEY_verify of the 32-byte digest with the SM2 key.
bool sm2VerifyDigest(EVP_PKEY *key, const Bytes &digest, const ECCSIGNATUREBLOB &sig);
// EVP_DigestVerify of the message with the SM2 key and signer identifier:
// OpenSSL computes Z and the digest itself.
bool sm2VerifyMessage(EVP_PKEY *key, const Bytes &id, const Bytes &message,
                      const ECCSIGNATUREBLOB &sig);
// The bytes a PKCS#1 v1.5 type-1 signature opens to.
Bytes rsaRecover(EVP_PKEY *key, const Bytes &signature);
Bytes rsaEncrypt(EVP_PKEY *key, const Bytes &plain);

// SM2 encryption by OpenSSL, turned from its ASN.1 form into an
// ECCCIPHERBLOB (with room for the whole C2).
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
Bytes rsaDecrypt(EVP_PKEY *key, const Bytes &cipher);
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

}  // namespace softskf_test

#endif  // TEMBRA_TESTS_SOFTSKF_OPENSSL_PARTY_H
