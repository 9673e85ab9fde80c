#include "tests/support/openssl_party.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <string.h>

#include <algorithm>

namespace tembra {
namespace test {
namespace openssl {

namespace {

struct CtxFree {
  void operator()(EVP_PKEY_CTX *p) const { EVP_PKEY_CTX_free(p); }
};
using Ctx = std::unique_ptr<EVP_PKEY_CTX, CtxFree>;

Pkey fromData(const char *type, OSSL_PARAM_BLD *bld) {
  OSSL_PARAM *params = OSSL_PARAM_BLD_to_param(bld);
  Ctx ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY *key = nullptr;
  if (ctx && params && EVP_PKEY_fromdata_init(ctx.get()) == 1) {
    EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params);
  }
  OSSL_PARAM_free(params);
  return Pkey(key);
}

Bytes bnBytes(const BIGNUM *bn, int len) {
  Bytes out(static_cast<size_t>(len));
  BN_bn2binpad(bn, out.data(), len);
  return out;
}

// The signature blob as DER SEQUENCE { r, s }.
Bytes signatureDer(const ECCSIGNATUREBLOB &sig) {
  ECDSA_SIG *s = ECDSA_SIG_new();
  ECDSA_SIG_set0(s, BN_bin2bn(sig.r + 32, 32, nullptr), BN_bin2bn(sig.s + 32, 32, nullptr));
  unsigned char *der = nullptr;
  const int len = i2d_ECDSA_SIG(s, &der);
  Bytes out(der, der + (len > 0 ? len : 0));
  ECDSA_SIG_free(s);
  OPENSSL_free(der);
  return out;
}

using Operation = int (*)(EVP_PKEY_CTX *, unsigned char *, size_t *, const unsigned char *,
                         size_t);

// One public-key operation, with PKCS #1 v1.5 padding on RSA keys (empty on
// failure).
Bytes operate(EVP_PKEY *key, int (*init)(EVP_PKEY_CTX *), Operation op, const Bytes &in) {
  Ctx ctx(EVP_PKEY_CTX_new(key, nullptr));
  size_t len = 0;
  if (!ctx || init(ctx.get()) != 1 ||
      (EVP_PKEY_is_a(key, "RSA") == 1 &&
       EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1) ||
      op(ctx.get(), nullptr, &len, in.data(), in.size()) != 1) {
    return Bytes();
  }
  Bytes out(len);
  if (op(ctx.get(), out.data(), &len, in.data(), in.size()) != 1) return Bytes();
  out.resize(len);
  return out;
}

}  // namespace

Pkey sm2KeyFromBlob(const ECCPUBLICKEYBLOB &blob) {
  unsigned char point[65];
  point[0] = 0x04;
  memcpy(point + 1, blob.XCoordinate + 32, 32);
  memcpy(point + 33, blob.YCoordinate + 32, 32);
  OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
  OSSL_PARAM_BLD_push_utf8_string(bld, OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0);
  OSSL_PARAM_BLD_push_octet_string(bld, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point);
  Pkey key = fromData("SM2", bld);
  OSSL_PARAM_BLD_free(bld);
  return key;
}

Pkey rsaKeyFromBlob(const RSAPUBLICKEYBLOB &blob) {
  size_t k = blob.BitLen / 8;
  BIGNUM *n = BN_bin2bn(blob.Modulus + 256 - k, static_cast<int>(k), nullptr);
  BIGNUM *e = BN_bin2bn(blob.PublicExponent, 4, nullptr);
  OSSL_PARAM_BLD *bld = OSSL_PARAM_BLD_new();
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, n);
  OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, e);
  Pkey key = fromData("RSA", bld);
  OSSL_PARAM_BLD_free(bld);
  BN_free(n);
  BN_free(e);
  return key;
}

Pkey keyFromSpki(const Bytes &spki) {
  const unsigned char *p = spki.data();
  return Pkey(d2i_PUBKEY(nullptr, &p, static_cast<long>(spki.size())));
}

Bytes spkiOf(EVP_PKEY *key) {
  unsigned char *der = nullptr;
  const int len = i2d_PUBKEY(key, &der);
  Bytes out(der, der + (len > 0 ? len : 0));
  OPENSSL_free(der);
  return out;
}

bool sm2VerifyDigest(EVP_PKEY *key, const Bytes &digest, const ECCSIGNATUREBLOB &sig) {
  return sm2VerifyDigest(key, digest, signatureDer(sig));
}

bool sm2VerifyDigest(EVP_PKEY *key, const Bytes &digest, const Bytes &derSignature) {
  Ctx ctx(EVP_PKEY_CTX_new(key, nullptr));
  return ctx && !derSignature.empty() && EVP_PKEY_verify_init(ctx.get()) == 1 &&
         EVP_PKEY_verify(ctx.get(), derSignature.data(), derSignature.size(), digest.data(),
                         digest.size()) == 1;
}

Pkey keyFromPem(const std::string &pem) {
  BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  Pkey key(PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr));
  BIO_free(bio);
  return key;
}

bool verifyMessage(EVP_PKEY *key, const char *digest, const Bytes &id, const Bytes &message,
                   const Bytes &derSignature) {
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  Ctx ctx(EVP_PKEY_CTX_new(key, nullptr));
  bool ok = md != nullptr && ctx && !derSignature.empty() &&
            (EVP_PKEY_is_a(key, "SM2") != 1 ||
             EVP_PKEY_CTX_set1_id(ctx.get(), id.data(), static_cast<int>(id.size())) == 1);
  if (ok) {
    EVP_MD_CTX_set_pkey_ctx(md, ctx.get());
    ok = EVP_DigestVerifyInit(md, nullptr, EVP_get_digestbyname(digest), nullptr, key) == 1 &&
         EVP_DigestVerify(md, derSignature.data(), derSignature.size(), message.data(),
                          message.size()) == 1;
  }
  EVP_MD_CTX_free(md);
  return ok;
}

bool sm2VerifyMessage(EVP_PKEY *key, const Bytes &id, const Bytes &message,
                      const ECCSIGNATUREBLOB &sig) {
  return verifyMessage(key, "SM3", id, message, signatureDer(sig));
}

Bytes rsaRecover(EVP_PKEY *key, const Bytes &signature) {
  return operate(key, EVP_PKEY_verify_recover_init, EVP_PKEY_verify_recover, signature);
}

Bytes rsaEncrypt(EVP_PKEY *key, const Bytes &plain) {
  return operate(key, EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, plain);
}

Bytes sign(EVP_PKEY *key, const Bytes &data) {
  return operate(key, EVP_PKEY_sign_init, EVP_PKEY_sign, data);
}

Bytes decrypt(EVP_PKEY *key, const Bytes &cipher) {
  return operate(key, EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, cipher);
}

Bytes sm2EncryptFlat(EVP_PKEY *key, const Bytes &plain) {
  const Bytes der = operate(key, EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, plain);
  // SEQUENCE { INTEGER x, INTEGER y, OCTET STRING C3, OCTET STRING C2 }
  const unsigned char *p = der.data();
  STACK_OF(ASN1_TYPE) *seq = d2i_ASN1_SEQUENCE_ANY(nullptr, &p, static_cast<long>(der.size()));
  if (seq == nullptr || sk_ASN1_TYPE_num(seq) != 4) {
    sk_ASN1_TYPE_pop_free(seq, ASN1_TYPE_free);
    return Bytes();
  }
  Bytes flat = {0x04};
  for (int i = 0; i < 2; ++i) {
    BIGNUM *v = ASN1_INTEGER_to_BN(sk_ASN1_TYPE_value(seq, i)->value.integer, nullptr);
    const Bytes coordinate = bnBytes(v, 32);
    flat.insert(flat.end(), coordinate.begin(), coordinate.end());
    BN_free(v);
  }
  for (int i : {3, 2}) {
    const ASN1_OCTET_STRING *part = sk_ASN1_TYPE_value(seq, i)->value.octet_string;
    const unsigned char *bytes = ASN1_STRING_get0_data(part);
    flat.insert(flat.end(), bytes, bytes + ASN1_STRING_length(part));
  }
  sk_ASN1_TYPE_pop_free(seq, ASN1_TYPE_free);
  return flat;
}

Bytes sm2EncryptToBlob(EVP_PKEY *key, const Bytes &plain) {
  const Bytes flat = sm2EncryptFlat(key, plain);
  if (flat.size() != 65 + plain.size() + 32) return Bytes();
  Bytes blob(sizeof(ECCCIPHERBLOB) + plain.size(), 0);
  ECCCIPHERBLOB *out = reinterpret_cast<ECCCIPHERBLOB *>(blob.data());
  const auto c2 = flat.begin() + 65, c3 = c2 + static_cast<long>(plain.size());
  std::copy(flat.begin() + 1, flat.begin() + 33, out->XCoordinate + 32);
  std::copy(flat.begin() + 33, c2, out->YCoordinate + 32);
  std::copy(c3, flat.end(), out->HASH);
  out->CipherLen = static_cast<ULONG>(plain.size());
  std::copy(c2, c3, out->Cipher);
  return blob;
}

Sm2Pair newSm2Pair() {
  Sm2Pair pair;
  pair.key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2"));
  BIGNUM *d = nullptr;
  EVP_PKEY_get_bn_param(pair.key.get(), OSSL_PKEY_PARAM_PRIV_KEY, &d);
  pair.d = bnBytes(d, 32);
  BN_clear_free(d);
  unsigned char point[65];
  size_t len = 0;
  EVP_PKEY_get_octet_string_param(pair.key.get(), OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point,
                                  &len);
  pair.x.assign(point + 1, point + 33);
  pair.y.assign(point + 33, point + 65);
  return pair;
}

ECCPUBLICKEYBLOB Sm2Pair::blob() const {
  ECCPUBLICKEYBLOB out = {};
  out.BitLen = 256;
  memcpy(out.XCoordinate + 32, x.data(), 32);
  memcpy(out.YCoordinate + 32, y.data(), 32);
  return out;
}

RsaPair newRsaPair(int bits) {
  RsaPair pair;
  pair.key.reset(EVP_RSA_gen(static_cast<unsigned>(bits)));
  unsigned char *der = nullptr;
  int len = i2d_PrivateKey(pair.key.get(), &der);
  if (len > 0) pair.der.assign(der, der + len);
  OPENSSL_free(der);
  return pair;
}

Bytes sm4(bool encrypt, bool pad, const Bytes &key, const Bytes &in) {
  return sm4Mode("SM4-ECB", encrypt, pad, key, Bytes(), in);
}

Bytes sm4Mode(const char *mode, bool encrypt, bool pad, const Bytes &key, const Bytes &iv,
              const Bytes &in) {
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, mode, nullptr);
  Bytes out(in.size() + 16);
  int len1 = 0, len2 = 0;
  bool ok = EVP_CipherInit_ex2(ctx, cipher, key.data(), iv.empty() ? nullptr : iv.data(),
                               encrypt ? 1 : 0, nullptr) == 1 &&
            EVP_CIPHER_CTX_set_padding(ctx, pad ? 1 : 0) == 1 &&
            EVP_CipherUpdate(ctx, out.data(), &len1, in.data(), static_cast<int>(in.size())) == 1 &&
            EVP_CipherFinal_ex(ctx, out.data() + len1, &len2) == 1;
  EVP_CIPHER_free(cipher);
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) return Bytes();
  out.resize(static_cast<size_t>(len1 + len2));
  return out;
}

Bytes sm3(const Bytes &data) {
  Bytes out(32);
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), out.data(), &len, EVP_sm3(), nullptr);
  return out;
}

Bytes sm2Envelope(EVP_PKEY *wrapKey, const Sm2Pair &pair, const Bytes &privateField,
                  ULONG algorithm) {
  Bytes symmetricKey(16);
  RAND_bytes(symmetricKey.data(), 16);
  Bytes wrapped = sm2EncryptToBlob(wrapKey, symmetricKey);
  Bytes blob(sizeof(ENVELOPEDKEYBLOB) + 15, 0);
  ENVELOPEDKEYBLOB *env = reinterpret_cast<ENVELOPEDKEYBLOB *>(blob.data());
  env->Version = 1;
  env->ulSymmAlgID = algorithm;
  env->ulBits = 256;
  Bytes cipher = sm4(true, false, symmetricKey, privateField.empty() ? pair.d : privateField);
  memcpy(env->cbEncryptedPriKey + 64 - cipher.size(), cipher.data(), cipher.size());
  env->PubKey = pair.blob();
  memcpy(&env->ECCCipherBlob, wrapped.data(), sizeof(ECCCIPHERBLOB) + 15);
  return blob;
}

namespace {

struct BnPool {
  BN_CTX *ctx = BN_CTX_new();
  std::vector<BIGNUM *> all;
  BIGNUM *add(BIGNUM *bn) {
    all.push_back(bn);
    return bn;
  }
  BIGNUM *of(const unsigned char *p, size_t n) {
    return add(BN_bin2bn(p, static_cast<int>(n), nullptr));
  }
  ~BnPool() {
    for (BIGNUM *bn : all) BN_free(bn);
    BN_CTX_free(ctx);
  }
};

// Z = SM3(ENTL || ID || a || b || xG || yG || x || y).
Bytes sm2Z(const EC_GROUP *group, BnPool &bn, const Bytes &id, const unsigned char *x,
           const unsigned char *y) {
  BIGNUM *p = bn.add(BN_new()), *a = bn.add(BN_new()), *b = bn.add(BN_new());
  BIGNUM *gx = bn.add(BN_new()), *gy = bn.add(BN_new());
  EC_GROUP_get_curve(group, p, a, b, bn.ctx);
  EC_POINT_get_affine_coordinates(group, EC_GROUP_get0_generator(group), gx, gy, bn.ctx);
  Bytes in = {static_cast<unsigned char>(id.size() * 8 >> 8),
              static_cast<unsigned char>(id.size() * 8)};
  in.insert(in.end(), id.begin(), id.end());
  for (const BIGNUM *v : {a, b, gx, gy}) {
    Bytes field = bnBytes(v, 32);
    in.insert(in.end(), field.begin(), field.end());
  }
  in.insert(in.end(), x, x + 32);
  in.insert(in.end(), y, y + 32);
  return sm3(in);
}

BIGNUM *reduced(BnPool &bn, const unsigned char *x) {
  Bytes low(x + 16, x + 32);
  low[0] |= 0x80;
  return bn.of(low.data(), low.size());
}

}  // namespace

Bytes sm2AgreedKey(const Sm2Pair &own, const Sm2Pair &ownTemp, const Bytes &ownId,
                   const ECCPUBLICKEYBLOB &peer, const ECCPUBLICKEYBLOB &peerTemp,
                   const Bytes &peerId) {
  BnPool bn;
  EC_GROUP *group = EC_GROUP_new_by_curve_name(NID_sm2);
  const BIGNUM *n = EC_GROUP_get0_order(group);
  EC_POINT *pb = EC_POINT_new(group), *rb = EC_POINT_new(group), *u = EC_POINT_new(group);
  EC_POINT_set_affine_coordinates(group, pb, bn.of(peer.XCoordinate + 32, 32),
                                  bn.of(peer.YCoordinate + 32, 32), bn.ctx);
  EC_POINT_set_affine_coordinates(group, rb, bn.of(peerTemp.XCoordinate + 32, 32),
                                  bn.of(peerTemp.YCoordinate + 32, 32), bn.ctx);
  // t = d + x1' r mod n; U = t (P + x2' R)
  BIGNUM *t = bn.add(BN_new());
  BN_mod_mul(t, reduced(bn, ownTemp.x.data()), bn.of(ownTemp.d.data(), 32), n, bn.ctx);
  BN_mod_add(t, t, bn.of(own.d.data(), 32), n, bn.ctx);
  EC_POINT_mul(group, u, nullptr, rb, reduced(bn, peerTemp.XCoordinate + 32), bn.ctx);
  EC_POINT_add(group, u, u, pb, bn.ctx);
  EC_POINT_mul(group, u, nullptr, u, t, bn.ctx);
  BIGNUM *ux = bn.add(BN_new()), *uy = bn.add(BN_new());
  EC_POINT_get_affine_coordinates(group, u, ux, uy, bn.ctx);
  Bytes in = bnBytes(ux, 32), uyb = bnBytes(uy, 32);
  in.insert(in.end(), uyb.begin(), uyb.end());
  for (const Bytes &z : {sm2Z(group, bn, ownId, own.x.data(), own.y.data()),
                         sm2Z(group, bn, peerId, peer.XCoordinate + 32, peer.YCoordinate + 32)})
    in.insert(in.end(), z.begin(), z.end());
  in.insert(in.end(), {0, 0, 0, 1});  // KDF counter 1: one SM3 block covers 16 bytes
  Bytes key = sm3(in);
  key.resize(16);
  EC_POINT_free(pb);
  EC_POINT_free(rb);
  EC_POINT_free(u);
  EC_GROUP_free(group);
  return key;
}

}  // namespace openssl
}  // namespace test
}  // namespace tembra
