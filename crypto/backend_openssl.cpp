// The crypto backend on OpenSSL 3.
//
// SM3 and SM4 go through EVP. SM2 signatures and encryption go through
// OpenSSL's SM2 EVP keys: EVP_PKEY_sign signs the digest it is given as e (the
// Z value is only added by the EVP_DigestSign path, not used here), and
// EVP_PKEY_encrypt/decrypt speak the DER SM2Ciphertext, converted here to and
// from the flat C1||C2||C3 form. RSA keys travel as OSSL_PARAM sets.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/param_build.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <string.h>

#include <limits>
#include <memory>

#include "crypto/backend.h"
#include "crypto/der.h"
#include "crypto/sm2_ciphertext.h"

namespace tembra {
namespace crypto {

namespace {

struct BnDeleter {
  void operator()(BIGNUM *p) const { BN_clear_free(p); }
};
struct BnCtxDeleter {
  void operator()(BN_CTX *p) const { BN_CTX_free(p); }
};
struct PointDeleter {
  void operator()(EC_POINT *p) const { EC_POINT_clear_free(p); }
};
struct GroupDeleter {
  void operator()(EC_GROUP *p) const { EC_GROUP_free(p); }
};
struct CipherCtxDeleter {
  void operator()(EVP_CIPHER_CTX *p) const { EVP_CIPHER_CTX_free(p); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX *p) const { EVP_MD_CTX_free(p); }
};
struct PkeyDeleter {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
struct PkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX *p) const { EVP_PKEY_CTX_free(p); }
};
struct ParamBldDeleter {
  void operator()(OSSL_PARAM_BLD *p) const { OSSL_PARAM_BLD_free(p); }
};
// OSSL_PARAM_free clears the block of secure (private) numbers it frees.
struct ParamDeleter {
  void operator()(OSSL_PARAM *p) const { OSSL_PARAM_free(p); }
};

using Bn = std::unique_ptr<BIGNUM, BnDeleter>;
using BnCtx = std::unique_ptr<BN_CTX, BnCtxDeleter>;
using Point = std::unique_ptr<EC_POINT, PointDeleter>;
using Group = std::unique_ptr<EC_GROUP, GroupDeleter>;
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;
using Pkey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;

Bn newBn() {
  return Bn(BN_secure_new());
}

Bn bnFrom(const uint8_t *p, size_t len) {
  if (len > static_cast<size_t>(std::numeric_limits<int>::max())) return nullptr;
  return Bn(BN_bin2bn(p, static_cast<int>(len), nullptr));
}

bool bnTo32(const BIGNUM *bn, uint8_t out[kSm2ScalarSize]) {
  return BN_bn2binpad(bn, out, kSm2ScalarSize) == static_cast<int>(kSm2ScalarSize);
}

// ---- Algorithms ---------------------------------------------------------------

// The digests and ciphers, fetched once and freed with the library (as the
// SM2 curve below: OpenSSL's own exit-time clean-up was registered first, so
// ours runs before it).
struct Algorithms {
  EVP_MD *sm3 = EVP_MD_fetch(nullptr, "SM3", nullptr);
  EVP_MD *sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  EVP_CIPHER *sm4Ecb = EVP_CIPHER_fetch(nullptr, "SM4-ECB", nullptr);
  EVP_CIPHER *sm4Cbc = EVP_CIPHER_fetch(nullptr, "SM4-CBC", nullptr);

  Algorithms() = default;
  Algorithms(const Algorithms &) = delete;
  Algorithms &operator=(const Algorithms &) = delete;
  ~Algorithms() {
    EVP_MD_free(sm3);
    EVP_MD_free(sha256);
    EVP_CIPHER_free(sm4Ecb);
    EVP_CIPHER_free(sm4Cbc);
  }
};

const Algorithms &algorithms() {
  static const Algorithms fetched;
  return fetched;
}

// ---- SM4 --------------------------------------------------------------------

const EVP_CIPHER *sm4Cipher(bool cbc) {
  return cbc ? algorithms().sm4Cbc : algorithms().sm4Ecb;
}

// One-shot SM4; `out` must hold len + 16 bytes when padding is on.
bool sm4Run(bool cbc, bool pad, bool encrypt, const uint8_t *key, const uint8_t *iv,
            const uint8_t *in, size_t len, uint8_t *out, size_t &outLen) {
  const EVP_CIPHER *cipher = sm4Cipher(cbc);
  if (cipher == nullptr || key == nullptr || (cbc && iv == nullptr)) return false;
  if (len > 0 && (in == nullptr || out == nullptr)) return false;
  if (len > static_cast<size_t>(std::numeric_limits<int>::max()) - 32) return false;
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || EVP_CipherInit_ex2(ctx.get(), cipher, key, cbc ? iv : nullptr, encrypt ? 1 : 0,
                                 nullptr) != 1) {
    return false;
  }
  EVP_CIPHER_CTX_set_padding(ctx.get(), pad ? 1 : 0);
  int n1 = 0;
  int n2 = 0;
  if (len > 0 && EVP_CipherUpdate(ctx.get(), out, &n1, in, static_cast<int>(len)) != 1) {
    return false;
  }
  uint8_t tail[kSm4BlockSize * 2];
  if (EVP_CipherFinal_ex(ctx.get(), out != nullptr ? out + n1 : tail, &n2) != 1) return false;
  outLen = static_cast<size_t>(n1) + static_cast<size_t>(n2);
  return true;
}

// ---- SM2 --------------------------------------------------------------------

struct Sm2Curve {
  Group group;
  Bn order;
  Bn prime;
};

// The curve is built once and freed with the library (a function-local
// static is destroyed at unload); OpenSSL treats a const group as read-only,
// so it can be shared between threads. OpenSSL registers its own exit-time
// clean-up before the first group is built, so ours runs first.
Sm2Curve makeSm2Curve() {
  Sm2Curve c;
  c.group.reset(EC_GROUP_new_by_curve_name(NID_sm2));
  if (c.group) {
    c.order.reset(BN_dup(EC_GROUP_get0_order(c.group.get())));
    c.prime.reset(BN_new());
    if (c.prime &&
        EC_GROUP_get_curve(c.group.get(), c.prime.get(), nullptr, nullptr, nullptr) != 1) {
      c.prime.reset();
    }
  }
  return c;
}

const Sm2Curve *sm2Curve() {
  static const Sm2Curve curve = makeSm2Curve();
  if (!curve.group || !curve.order || !curve.prime) return nullptr;
  return &curve;
}

// A uniform scalar in [1, n - 1].
bool randomScalar(const BIGNUM *order, BIGNUM *k) {
  do {
    if (BN_priv_rand_range(k, order) != 1) return false;
  } while (BN_is_zero(k));
  return true;
}

// The affine point (x, y), or null unless both coordinates are below p and the
// point lies on the curve.
Point pointFrom(const Sm2Curve &curve, const uint8_t *x, const uint8_t *y, BN_CTX *ctx) {
  const EC_GROUP *group = curve.group.get();
  Bn bx = bnFrom(x, kSm2ScalarSize);
  Bn by = bnFrom(y, kSm2ScalarSize);
  Point point(EC_POINT_new(group));
  if (!bx || !by || !point) return nullptr;
  if (BN_cmp(bx.get(), curve.prime.get()) >= 0 || BN_cmp(by.get(), curve.prime.get()) >= 0) {
    return nullptr;
  }
  if (EC_POINT_set_affine_coordinates(group, point.get(), bx.get(), by.get(), ctx) != 1) {
    return nullptr;
  }
  if (EC_POINT_is_on_curve(group, point.get(), ctx) != 1) return nullptr;
  return point;
}

bool pointTo(const EC_GROUP *group, const EC_POINT *point, uint8_t *x, uint8_t *y, BN_CTX *ctx) {
  Bn bx = newBn();
  Bn by = newBn();
  if (!bx || !by || EC_POINT_is_at_infinity(group, point)) return false;
  if (EC_POINT_get_affine_coordinates(group, point, bx.get(), by.get(), ctx) != 1) return false;
  return bnTo32(bx.get(), x) && bnTo32(by.get(), y);
}

// The private scalar, checked to lie in [1, n - 2].
Bn privateScalar(const Sm2Curve &curve, const uint8_t d[kSm2ScalarSize]) {
  Bn bd = Bn(BN_secure_new());
  if (!bd || BN_bin2bn(d, kSm2ScalarSize, bd.get()) == nullptr) return nullptr;
  Bn limit(BN_dup(curve.order.get()));
  if (!limit || BN_sub_word(limit.get(), 1) != 1) return nullptr;
  if (BN_is_zero(bd.get()) || BN_cmp(bd.get(), limit.get()) >= 0) return nullptr;
  return bd;
}

// An SM2 EVP key from the public point (x || y) and, for a key pair, d.
Pkey sm2Key(const uint8_t *x, const uint8_t *y, const BIGNUM *d) {
  uint8_t point[1 + 2 * kSm2ScalarSize];
  point[0] = 0x04;
  memcpy(point + 1, x, kSm2ScalarSize);
  memcpy(point + 1 + kSm2ScalarSize, y, kSm2ScalarSize);
  std::unique_ptr<OSSL_PARAM_BLD, ParamBldDeleter> bld(OSSL_PARAM_BLD_new());
  if (!bld ||
      OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, "SM2", 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point) !=
          1 ||
      (d != nullptr && OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_PRIV_KEY, d) != 1)) {
    return nullptr;
  }
  std::unique_ptr<OSSL_PARAM, ParamDeleter> params(OSSL_PARAM_BLD_to_param(bld.get()));
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr));
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1) return nullptr;
  EVP_PKEY *key = nullptr;
  // The point is decoded and checked against the curve here.
  if (EVP_PKEY_fromdata(ctx.get(), &key, d != nullptr ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY,
                        params.get()) != 1) {
    return nullptr;
  }
  return Pkey(key);
}

Pkey sm2PublicKey(const Sm2PublicKey &publicKey) {
  return sm2Key(publicKey.x, publicKey.y, nullptr);
}

// OpenSSL's SM2 encryption refuses an empty message both ways. Without C2
// there is no key stream and C3 = SM3(x2 || y2) is all the ciphertext holds
// besides C1, so that case is computed here on OpenSSL's constant-time
// scalar multiplication: x2 || y2 = [scalar] point.
bool sm2EmptyCheck(const Sm2Curve &curve, const EC_POINT *point, const BIGNUM *scalar,
                   uint8_t c3[kSm3DigestSize], BN_CTX *ctx) {
  Point shared(EC_POINT_new(curve.group.get()));
  SecureArray<2 * kSm2ScalarSize> x2y2;
  if (!shared || EC_POINT_mul(curve.group.get(), shared.get(), nullptr, point, scalar, ctx) != 1 ||
      !pointTo(curve.group.get(), shared.get(), x2y2.data(), x2y2.data() + kSm2ScalarSize, ctx)) {
    return false;
  }
  return sm3(x2y2.data(), x2y2.size(), c3);
}

bool sm2EncryptEmpty(const Sm2PublicKey &publicKey, std::vector<uint8_t> &cipher) {
  const Sm2Curve *curve = sm2Curve();
  BnCtx ctx(BN_CTX_secure_new());
  if (curve == nullptr || !ctx) return false;
  Point pub = pointFrom(*curve, publicKey.x, publicKey.y, ctx.get());
  Point c1(EC_POINT_new(curve->group.get()));
  Bn k = newBn();
  std::vector<uint8_t> out(kSm2CipherOverhead);
  out[0] = 0x04;
  if (!pub || !c1 || !k || !randomScalar(curve->order.get(), k.get()) ||
      EC_POINT_mul(curve->group.get(), c1.get(), k.get(), nullptr, nullptr, ctx.get()) != 1 ||
      !pointTo(curve->group.get(), c1.get(), out.data() + 1, out.data() + 33, ctx.get()) ||
      !sm2EmptyCheck(*curve, pub.get(), k.get(), out.data() + 65, ctx.get())) {
    return false;
  }
  cipher = std::move(out);
  return true;
}

bool sm2DecryptEmpty(const BIGNUM *d, const uint8_t cipher[kSm2CipherOverhead]) {
  const Sm2Curve *curve = sm2Curve();
  BnCtx ctx(BN_CTX_secure_new());
  if (curve == nullptr || !ctx) return false;
  Point c1 = pointFrom(*curve, cipher + 1, cipher + 33, ctx.get());
  uint8_t check[kSm3DigestSize];
  if (!c1 || !sm2EmptyCheck(*curve, c1.get(), d, check, ctx.get())) return false;
  return CRYPTO_memcmp(check, cipher + 65, kSm3DigestSize) == 0;
}

// ---- RSA --------------------------------------------------------------------

bool pushBn(OSSL_PARAM_BLD *bld, const char *name, const uint8_t *p, size_t len,
            std::vector<Bn> &keep) {
  Bn bn = bnFrom(p, len);
  if (!bn) return false;
  bool ok = OSSL_PARAM_BLD_push_BN(bld, name, bn.get()) == 1;
  keep.push_back(std::move(bn));
  return ok;
}

// An EVP_PKEY from our key structures; `priv` may be null for a public key.
Pkey rsaKey(const RsaPublicKey &pub, const RsaPrivateKey *priv) {
  if (pub.n.empty() || pub.e.empty()) return nullptr;
  std::unique_ptr<OSSL_PARAM_BLD, ParamBldDeleter> bld(OSSL_PARAM_BLD_new());
  if (!bld) return nullptr;
  std::vector<Bn> keep;
  if (!pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_N, pub.n.data(), pub.n.size(), keep) ||
      !pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_E, pub.e.data(), pub.e.size(), keep)) {
    return nullptr;
  }
  if (priv != nullptr) {
    if (priv->d.empty()) return nullptr;
    if (!pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_D, priv->d.data(), priv->d.size(), keep)) {
      return nullptr;
    }
    // The CRT parts are used only when all of them are present.
    if (!priv->p.empty() && !priv->q.empty() && !priv->dp.empty() && !priv->dq.empty() &&
        !priv->qinv.empty()) {
      if (!pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, priv->p.data(), priv->p.size(), keep) ||
          !pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, priv->q.data(), priv->q.size(), keep) ||
          !pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, priv->dp.data(), priv->dp.size(),
                  keep) ||
          !pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, priv->dq.data(), priv->dq.size(),
                  keep) ||
          !pushBn(bld.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, priv->qinv.data(), priv->qinv.size(),
                  keep)) {
        return nullptr;
      }
    }
  }
  std::unique_ptr<OSSL_PARAM, ParamDeleter> params(OSSL_PARAM_BLD_to_param(bld.get()));
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1) return nullptr;
  EVP_PKEY *key = nullptr;
  if (EVP_PKEY_fromdata(ctx.get(), &key, priv != nullptr ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY,
                        params.get()) != 1) {
    return nullptr;
  }
  return Pkey(key);
}

template <typename Out>
bool getBn(const EVP_PKEY *key, const char *name, Out &out) {
  BIGNUM *raw = nullptr;
  if (EVP_PKEY_get_bn_param(key, name, &raw) != 1) return false;
  Bn bn(raw);
  int len = BN_num_bytes(bn.get());
  out.resize(static_cast<size_t>(len));
  return len == 0 || BN_bn2bin(bn.get(), out.data()) == len;
}

size_t modulusSize(const RsaPublicKey &pub) {
  return pub.n.size();
}

bool setPkcs1Padding(EVP_PKEY_CTX *ctx) {
  return EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1;
}

}  // namespace

const char *backendName() {
  return "openssl";
}

bool randomBytes(uint8_t *out, size_t len) {
  if (len == 0) return true;
  if (out == nullptr || len > static_cast<size_t>(std::numeric_limits<int>::max())) return false;
  return RAND_bytes(out, static_cast<int>(len)) == 1;
}

// ---- SM3 ----------------------------------------------------------------------

struct StreamingDigest::State {
  MdCtx ctx;
};

StreamingDigest::StreamingDigest(DigestKind kind) : m_state(new State) {
  const EVP_MD *md = kind == DigestKind::Sm3 ? algorithms().sm3 : algorithms().sha256;
  m_state->ctx.reset(EVP_MD_CTX_new());
  if (md == nullptr || !m_state->ctx || EVP_DigestInit_ex2(m_state->ctx.get(), md, nullptr) != 1) {
    m_state->ctx.reset();
  }
}

StreamingDigest::~StreamingDigest() = default;

bool StreamingDigest::ok() const {
  return m_state && m_state->ctx;
}

bool StreamingDigest::update(const uint8_t *data, size_t len) {
  if (!ok()) return false;
  if (len == 0) return true;
  if (data == nullptr) return false;
  return EVP_DigestUpdate(m_state->ctx.get(), data, len) == 1;
}

bool StreamingDigest::final(uint8_t out[32]) {
  if (!ok() || out == nullptr) return false;
  unsigned int len = 0;
  bool done = EVP_DigestFinal_ex(m_state->ctx.get(), out, &len) == 1 && len == 32;
  m_state->ctx.reset();
  return done;
}

bool sm3(const uint8_t *data, size_t len, uint8_t out[kSm3DigestSize]) {
  Sm3 hash;
  return hash.update(data, len) && hash.final(out);
}

// ---- SHA-256 ------------------------------------------------------------------

bool sha256(const uint8_t *data, size_t len, uint8_t out[kSha256DigestSize]) {
  const EVP_MD *md = algorithms().sha256;
  if (md == nullptr || out == nullptr || (data == nullptr && len > 0)) return false;
  const uint8_t none = 0;
  unsigned int outLen = 0;
  return EVP_Digest(len > 0 ? data : &none, len, out, &outLen, md, nullptr) == 1 &&
         outLen == kSha256DigestSize;
}

// ---- SM4 ----------------------------------------------------------------------

bool sm4Ecb(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t *in, size_t len,
            uint8_t *out) {
  if (len % kSm4BlockSize != 0) return false;
  size_t outLen = 0;
  return sm4Run(false, false, encrypt, key, nullptr, in, len, out, outLen) && outLen == len;
}

bool sm4Cbc(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t iv[kSm4BlockSize],
            const uint8_t *in, size_t len, uint8_t *out) {
  if (len % kSm4BlockSize != 0) return false;
  size_t outLen = 0;
  return sm4Run(true, false, encrypt, key, iv, in, len, out, outLen) && outLen == len;
}

namespace {

bool sm4Padded(bool cbc, bool encrypt, const uint8_t *key, const uint8_t *iv, const uint8_t *in,
               size_t len, SecureBytes &out) {
  if (!encrypt && (len == 0 || len % kSm4BlockSize != 0)) return false;
  SecureBytes buffer(len + kSm4BlockSize);
  size_t outLen = 0;
  if (!sm4Run(cbc, true, encrypt, key, iv, in, len, buffer.data(), outLen)) return false;
  buffer.resize(outLen);
  out = std::move(buffer);
  return true;
}

}  // namespace

bool sm4EcbPadded(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t *in, size_t len,
                  SecureBytes &out) {
  return sm4Padded(false, encrypt, key, nullptr, in, len, out);
}

bool sm4CbcPadded(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t iv[kSm4BlockSize],
                  const uint8_t *in, size_t len, SecureBytes &out) {
  return sm4Padded(true, encrypt, key, iv, in, len, out);
}

// ---- SM2 ----------------------------------------------------------------------

bool sm2PublicFromPrivate(const uint8_t d[kSm2ScalarSize], Sm2PublicKey &publicKey) {
  const Sm2Curve *curve = sm2Curve();
  if (curve == nullptr || d == nullptr) return false;
  BnCtx ctx(BN_CTX_secure_new());
  Bn bd = privateScalar(*curve, d);
  Point point(EC_POINT_new(curve->group.get()));
  if (!ctx || !bd || !point) return false;
  if (EC_POINT_mul(curve->group.get(), point.get(), bd.get(), nullptr, nullptr, ctx.get()) != 1) {
    return false;
  }
  return pointTo(curve->group.get(), point.get(), publicKey.x, publicKey.y, ctx.get());
}

bool sm2Generate(Sm2KeyPair &keyPair) {
  const Sm2Curve *curve = sm2Curve();
  if (curve == nullptr) return false;
  Bn limit(BN_dup(curve->order.get()));
  Bn d = newBn();
  if (!limit || !d || BN_sub_word(limit.get(), 1) != 1) return false;
  // d uniform in [1, n - 2].
  if (!randomScalar(limit.get(), d.get()) || !bnTo32(d.get(), keyPair.d.data())) return false;
  return sm2PublicFromPrivate(keyPair.d.data(), keyPair.publicKey);
}

bool sm2ValidatePublic(const Sm2PublicKey &publicKey) {
  const Sm2Curve *curve = sm2Curve();
  BnCtx ctx(BN_CTX_new());
  if (curve == nullptr || !ctx) return false;
  return static_cast<bool>(pointFrom(*curve, publicKey.x, publicKey.y, ctx.get()));
}

struct PreparedSm2Key::State {
  Pkey key;
  Bn d;  // for the empty message only; secure, cleared on release
};

PreparedSm2Key::PreparedSm2Key() : m_state(new State) {}

PreparedSm2Key::~PreparedSm2Key() = default;

std::unique_ptr<PreparedSm2Key> PreparedSm2Key::create(const uint8_t d[kSm2ScalarSize]) {
  const Sm2Curve *curve = sm2Curve();
  Sm2PublicKey publicKey;
  if (curve == nullptr || d == nullptr || !sm2PublicFromPrivate(d, publicKey)) return nullptr;
  Bn bd = privateScalar(*curve, d);
  if (!bd) return nullptr;
  std::unique_ptr<PreparedSm2Key> prepared(new PreparedSm2Key);
  prepared->m_state->key = sm2Key(publicKey.x, publicKey.y, bd.get());
  if (!prepared->m_state->key) return nullptr;
  prepared->m_state->d = std::move(bd);
  return prepared;
}

bool PreparedSm2Key::sign(const uint8_t e[kSm3DigestSize], uint8_t r[kSm2ScalarSize],
                          uint8_t s[kSm2ScalarSize]) const {
  if (e == nullptr || r == nullptr || s == nullptr) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, m_state->key.get(), nullptr));
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1) return false;
  uint8_t der[80];
  size_t derLen = sizeof der;
  if (EVP_PKEY_sign(ctx.get(), der, &derLen, e, kSm3DigestSize) != 1) return false;
  der::Reader outer(der, derLen);
  der::Reader fields;
  return outer.enterSequence(fields) && outer.finished() &&
         fields.readUnsignedInteger(r, kSm2ScalarSize) &&
         fields.readUnsignedInteger(s, kSm2ScalarSize) && fields.finished();
}

bool PreparedSm2Key::decrypt(const uint8_t *cipher, size_t len, SecureBytes &message) const {
  std::vector<uint8_t> der;
  if (!sm2CipherFlatToDer(cipher, len, der)) return false;
  if (len == kSm2CipherOverhead) {
    if (!sm2DecryptEmpty(m_state->d.get(), cipher)) return false;
    message.clear();
    return true;
  }
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, m_state->key.get(), nullptr));
  if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1) return false;
  const size_t messageLen = len - kSm2CipherOverhead;
  size_t outLen = 0;
  if (EVP_PKEY_decrypt(ctx.get(), nullptr, &outLen, der.data(), der.size()) != 1 ||
      outLen < messageLen) {
    return false;
  }
  SecureBytes out(outLen);
  if (EVP_PKEY_decrypt(ctx.get(), out.data(), &outLen, der.data(), der.size()) != 1 ||
      outLen != messageLen) {
    return false;
  }
  out.resize(outLen);
  message = std::move(out);
  return true;
}

bool sm2Verify(const Sm2PublicKey &publicKey, const uint8_t e[kSm3DigestSize],
               const uint8_t r[kSm2ScalarSize], const uint8_t s[kSm2ScalarSize]) {
  if (e == nullptr || r == nullptr || s == nullptr) return false;
  Pkey key = sm2PublicKey(publicKey);
  if (!key) return false;
  const der::Bytes signature =
      der::sequence({der::integer(r, kSm2ScalarSize), der::integer(s, kSm2ScalarSize)});
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
  return ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
         EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), e, kSm3DigestSize) == 1;
}

bool sm2Encrypt(const Sm2PublicKey &publicKey, const uint8_t *message, size_t len,
                std::vector<uint8_t> &cipher) {
  if (message == nullptr && len > 0) return false;
  if (len > std::numeric_limits<size_t>::max() - kSm2CipherOverhead - 32) return false;
  if (len == 0) return sm2EncryptEmpty(publicKey, cipher);
  Pkey key = sm2PublicKey(publicKey);
  if (!key) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1) return false;
  size_t derLen = 0;
  if (EVP_PKEY_encrypt(ctx.get(), nullptr, &derLen, message, len) != 1) return false;
  std::vector<uint8_t> der(derLen);
  if (EVP_PKEY_encrypt(ctx.get(), der.data(), &derLen, message, len) != 1) return false;
  std::vector<uint8_t> flat;
  if (!sm2CipherDerToFlat(der.data(), derLen, flat) || flat.size() != kSm2CipherOverhead + len) {
    return false;
  }
  cipher = std::move(flat);
  return true;
}

// ---- RSA ----------------------------------------------------------------------

namespace {

// The reduced coordinate x' = 2^127 + (x mod 2^127) of SM2 key exchange.
Bn reducedX(const uint8_t x[kSm2ScalarSize]) {
  uint8_t low[16];
  memcpy(low, x + 16, 16);
  low[0] |= 0x80;
  return bnFrom(low, sizeof low);
}

}  // namespace

bool sm2AgreementPoint(const uint8_t d[kSm2ScalarSize], const uint8_t r[kSm2ScalarSize],
                       const Sm2PublicKey &ownTemporary, const Sm2PublicKey &peer,
                       const Sm2PublicKey &peerTemporary, uint8_t xy[2 * kSm2ScalarSize]) {
  const Sm2Curve *curve = sm2Curve();
  if (curve == nullptr || d == nullptr || r == nullptr || xy == nullptr) return false;
  const EC_GROUP *group = curve->group.get();
  BnCtx ctx(BN_CTX_secure_new());
  if (!ctx) return false;
  Bn bd = privateScalar(*curve, d);
  Bn br = privateScalar(*curve, r);
  Bn x1 = reducedX(ownTemporary.x);
  Bn x2 = reducedX(peerTemporary.x);
  Bn t(BN_secure_new());
  Point pb = pointFrom(*curve, peer.x, peer.y, ctx.get());
  Point rb = pointFrom(*curve, peerTemporary.x, peerTemporary.y, ctx.get());
  Point sum(EC_POINT_new(group)), u(EC_POINT_new(group));
  if (!bd || !br || !x1 || !x2 || !t || !pb || !rb || !sum || !u) return false;
  // t = (d + x1' r) mod n
  if (BN_mod_mul(t.get(), x1.get(), br.get(), curve->order.get(), ctx.get()) != 1 ||
      BN_mod_add(t.get(), t.get(), bd.get(), curve->order.get(), ctx.get()) != 1) {
    return false;
  }
  // U = t (P + x2' R), which must not be the point at infinity.
  if (EC_POINT_mul(group, sum.get(), nullptr, rb.get(), x2.get(), ctx.get()) != 1 ||
      EC_POINT_add(group, sum.get(), sum.get(), pb.get(), ctx.get()) != 1 ||
      EC_POINT_mul(group, u.get(), nullptr, sum.get(), t.get(), ctx.get()) != 1) {
    return false;
  }
  return pointTo(group, u.get(), xy, xy + kSm2ScalarSize, ctx.get());
}

bool rsaGenerate(int bits, RsaPrivateKey &key) {
  if (bits != 1024 && bits != 2048) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) != 1) {
    return false;
  }
  Bn e(BN_new());
  if (!e || BN_set_word(e.get(), 65537) != 1 ||
      EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), e.get()) != 1) {
    return false;
  }
  EVP_PKEY *raw = nullptr;
  if (EVP_PKEY_keygen(ctx.get(), &raw) != 1) return false;
  Pkey pkey(raw);
  RsaPrivateKey out;
  if (!getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_N, out.publicKey.n) ||
      !getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_E, out.publicKey.e) ||
      !getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_D, out.d) ||
      !getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, out.p) ||
      !getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, out.q) ||
      !getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, out.dp) ||
      !getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, out.dq) ||
      !getBn(pkey.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, out.qinv)) {
    return false;
  }
  key = std::move(out);
  return true;
}

struct PreparedRsaKey::State {
  Pkey key;
  size_t modulusLen = 0;
};

PreparedRsaKey::PreparedRsaKey() : m_state(new State) {}

PreparedRsaKey::~PreparedRsaKey() = default;

std::unique_ptr<PreparedRsaKey> PreparedRsaKey::create(const RsaPrivateKey &key) {
  std::unique_ptr<PreparedRsaKey> prepared(new PreparedRsaKey);
  prepared->m_state->key = rsaKey(key.publicKey, &key);
  prepared->m_state->modulusLen = key.publicKey.n.size();
  if (!prepared->m_state->key) return nullptr;
  return prepared;
}

size_t PreparedRsaKey::modulusSize() const {
  return m_state->modulusLen;
}

bool PreparedRsaKey::signPkcs1(const uint8_t *data, size_t len,
                               std::vector<uint8_t> &signature) const {
  if (data == nullptr && len > 0) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, m_state->key.get(), nullptr));
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 || !setPkcs1Padding(ctx.get())) return false;
  size_t sigLen = 0;
  if (EVP_PKEY_sign(ctx.get(), nullptr, &sigLen, data, len) != 1) return false;
  std::vector<uint8_t> out(sigLen);
  if (EVP_PKEY_sign(ctx.get(), out.data(), &sigLen, data, len) != 1) return false;
  // OpenSSL writes the full modulus length; keep the contract explicit.
  if (sigLen != m_state->modulusLen) return false;
  out.resize(sigLen);
  signature = std::move(out);
  return true;
}

bool PreparedRsaKey::decryptPkcs1(const uint8_t *cipher, size_t len, SecureBytes &message) const {
  if (cipher == nullptr || len != m_state->modulusLen) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, m_state->key.get(), nullptr));
  if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 || !setPkcs1Padding(ctx.get())) return false;
  // Newer OpenSSL releases answer a bad padding with a random message unless
  // told otherwise; callers here need the failure. Older ones ignore this.
  unsigned int explicitRejection = 0;
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_uint("implicit-rejection", &explicitRejection),
      OSSL_PARAM_construct_end(),
  };
  EVP_PKEY_CTX_set_params(ctx.get(), params);
  SecureBytes out(len);
  size_t outLen = out.size();
  if (EVP_PKEY_decrypt(ctx.get(), out.data(), &outLen, cipher, len) != 1) return false;
  out.resize(outLen);
  message = std::move(out);
  return true;
}

bool rsaVerifyPkcs1(const RsaPublicKey &key, const uint8_t *data, size_t len,
                    const uint8_t *signature, size_t signatureLen) {
  if ((data == nullptr && len > 0) || signature == nullptr) return false;
  if (signatureLen != modulusSize(key)) return false;
  Pkey pkey = rsaKey(key, nullptr);
  if (!pkey) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey.get(), nullptr));
  if (!ctx || EVP_PKEY_verify_recover_init(ctx.get()) != 1 || !setPkcs1Padding(ctx.get())) {
    return false;
  }
  std::vector<uint8_t> recovered(signatureLen);
  size_t recoveredLen = recovered.size();
  if (EVP_PKEY_verify_recover(ctx.get(), recovered.data(), &recoveredLen, signature,
                              signatureLen) != 1) {
    return false;
  }
  return recoveredLen == len && (len == 0 || memcmp(recovered.data(), data, len) == 0);
}

bool rsaEncryptPkcs1(const RsaPublicKey &key, const uint8_t *data, size_t len,
                     std::vector<uint8_t> &cipher) {
  if (data == nullptr && len > 0) return false;
  Pkey pkey = rsaKey(key, nullptr);
  if (!pkey) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey.get(), nullptr));
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 || !setPkcs1Padding(ctx.get())) return false;
  size_t outLen = 0;
  if (EVP_PKEY_encrypt(ctx.get(), nullptr, &outLen, data, len) != 1) return false;
  std::vector<uint8_t> out(outLen);
  if (EVP_PKEY_encrypt(ctx.get(), out.data(), &outLen, data, len) != 1) return false;
  out.resize(outLen);
  cipher = std::move(out);
  return true;
}

namespace {

// One RSA operation without padding over an input of the modulus length.
template <typename Out>
bool rsaRaw(const RsaPublicKey &pub, const RsaPrivateKey *priv, const uint8_t *in, size_t len,
            Out &out) {
  if (in == nullptr || len == 0 || len != modulusSize(pub)) return false;
  Pkey pkey = rsaKey(pub, priv);
  if (!pkey) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey.get(), nullptr));
  if (!ctx) return false;
  const int init =
      priv != nullptr ? EVP_PKEY_decrypt_init(ctx.get()) : EVP_PKEY_encrypt_init(ctx.get());
  if (init != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) != 1) return false;
  Out result(len);
  size_t resultLen = result.size();
  const int done = priv != nullptr
                       ? EVP_PKEY_decrypt(ctx.get(), result.data(), &resultLen, in, len)
                       : EVP_PKEY_encrypt(ctx.get(), result.data(), &resultLen, in, len);
  if (done != 1 || resultLen != len) return false;
  out = std::move(result);
  return true;
}

}  // namespace

bool rsaPublicRaw(const RsaPublicKey &key, const uint8_t *in, size_t len,
                  std::vector<uint8_t> &out) {
  return rsaRaw(key, nullptr, in, len, out);
}

bool rsaPrivateRaw(const RsaPrivateKey &key, const uint8_t *in, size_t len, SecureBytes &out) {
  return rsaRaw(key.publicKey, &key, in, len, out);
}

}  // namespace crypto
}  // namespace tembra
