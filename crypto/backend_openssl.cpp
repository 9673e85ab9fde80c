// The crypto backend on OpenSSL 3.
//
// SM3 and SM4 go through EVP. SM2 is computed here on OpenSSL's big-number and
// elliptic-curve arithmetic, because the callers sign a digest e that already
// contains Z and use the flat C1||C2||C3 ciphertext, neither of which OpenSSL's
// SM2 EVP interface offers. RSA keys travel as OSSL_PARAM sets.
#include <openssl/bn.h>
#include <openssl/core_names.h>
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
#include "crypto/sm2_kdf.h"

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

// ---- SM4 --------------------------------------------------------------------

const EVP_CIPHER *sm4Cipher(bool cbc) {
  static EVP_CIPHER *ecb = EVP_CIPHER_fetch(nullptr, "SM4-ECB", nullptr);
  static EVP_CIPHER *cbcCipher = EVP_CIPHER_fetch(nullptr, "SM4-CBC", nullptr);
  return cbc ? cbcCipher : ecb;
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

// The curve is built once; OpenSSL treats a const group as read-only, so it
// can be shared between threads.
const Sm2Curve *sm2Curve() {
  static const Sm2Curve *curve = [] {
    Sm2Curve *c = new Sm2Curve;
    c->group.reset(EC_GROUP_new_by_curve_name(NID_sm2));
    if (c->group) {
      c->order.reset(BN_dup(EC_GROUP_get0_order(c->group.get())));
      c->prime.reset(BN_new());
      if (c->prime &&
          EC_GROUP_get_curve(c->group.get(), c->prime.get(), nullptr, nullptr, nullptr) != 1) {
        c->prime.reset();
      }
    }
    if (!c->group || !c->order || !c->prime) {
      delete c;
      return static_cast<Sm2Curve *>(nullptr);
    }
    return c;
  }();
  return curve;
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

struct Sm3::State {
  MdCtx ctx;
};

Sm3::Sm3() : m_state(new State) {
  static EVP_MD *md = EVP_MD_fetch(nullptr, "SM3", nullptr);
  m_state->ctx.reset(EVP_MD_CTX_new());
  if (md == nullptr || !m_state->ctx || EVP_DigestInit_ex2(m_state->ctx.get(), md, nullptr) != 1) {
    m_state->ctx.reset();
  }
}

Sm3::~Sm3() = default;

bool Sm3::ok() const {
  return m_state && m_state->ctx;
}

bool Sm3::update(const uint8_t *data, size_t len) {
  if (!ok()) return false;
  if (len == 0) return true;
  if (data == nullptr) return false;
  return EVP_DigestUpdate(m_state->ctx.get(), data, len) == 1;
}

bool Sm3::final(uint8_t out[kSm3DigestSize]) {
  if (!ok() || out == nullptr) return false;
  unsigned int len = 0;
  bool done = EVP_DigestFinal_ex(m_state->ctx.get(), out, &len) == 1 && len == kSm3DigestSize;
  m_state->ctx.reset();
  return done;
}

bool sm3(const uint8_t *data, size_t len, uint8_t out[kSm3DigestSize]) {
  Sm3 hash;
  return hash.update(data, len) && hash.final(out);
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

bool sm2Sign(const uint8_t d[kSm2ScalarSize], const uint8_t e[kSm3DigestSize],
             uint8_t r[kSm2ScalarSize], uint8_t s[kSm2ScalarSize]) {
  const Sm2Curve *curve = sm2Curve();
  if (curve == nullptr || d == nullptr || e == nullptr || r == nullptr || s == nullptr) {
    return false;
  }
  const EC_GROUP *group = curve->group.get();
  const BIGNUM *n = curve->order.get();
  BnCtx ctx(BN_CTX_secure_new());
  Bn bd = privateScalar(*curve, d);
  Bn be = bnFrom(e, kSm3DigestSize);
  Bn k = newBn(), x1 = newBn(), br = newBn(), bs = newBn(), tmp = newBn(), inv = newBn();
  Point kg(EC_POINT_new(group));
  if (!ctx || !bd || !be || !k || !x1 || !br || !bs || !tmp || !inv || !kg) return false;
  // (1 + d)^-1 mod n; d <= n - 2 keeps 1 + d invertible.
  if (BN_add(tmp.get(), bd.get(), BN_value_one()) != 1 ||
      BN_mod_inverse(inv.get(), tmp.get(), n, ctx.get()) == nullptr) {
    return false;
  }
  for (int attempt = 0; attempt < 64; ++attempt) {
    if (!randomScalar(n, k.get())) return false;
    if (EC_POINT_mul(group, kg.get(), k.get(), nullptr, nullptr, ctx.get()) != 1 ||
        EC_POINT_get_affine_coordinates(group, kg.get(), x1.get(), nullptr, ctx.get()) != 1) {
      return false;
    }
    // r = (e + x1) mod n; retry on r = 0 or r + k = n.
    if (BN_mod_add(br.get(), be.get(), x1.get(), n, ctx.get()) != 1) return false;
    if (BN_is_zero(br.get())) continue;
    if (BN_add(tmp.get(), br.get(), k.get()) != 1) return false;
    if (BN_cmp(tmp.get(), n) == 0) continue;
    // s = (1 + d)^-1 (k - r d) mod n; retry on s = 0.
    if (BN_mod_mul(tmp.get(), br.get(), bd.get(), n, ctx.get()) != 1 ||
        BN_mod_sub(tmp.get(), k.get(), tmp.get(), n, ctx.get()) != 1 ||
        BN_mod_mul(bs.get(), inv.get(), tmp.get(), n, ctx.get()) != 1) {
      return false;
    }
    if (BN_is_zero(bs.get())) continue;
    return bnTo32(br.get(), r) && bnTo32(bs.get(), s);
  }
  return false;
}

bool sm2Verify(const Sm2PublicKey &publicKey, const uint8_t e[kSm3DigestSize],
               const uint8_t r[kSm2ScalarSize], const uint8_t s[kSm2ScalarSize]) {
  const Sm2Curve *curve = sm2Curve();
  if (curve == nullptr || e == nullptr || r == nullptr || s == nullptr) return false;
  const EC_GROUP *group = curve->group.get();
  const BIGNUM *n = curve->order.get();
  BnCtx ctx(BN_CTX_new());
  if (!ctx) return false;
  Point pub = pointFrom(*curve, publicKey.x, publicKey.y, ctx.get());
  Bn be = bnFrom(e, kSm3DigestSize);
  Bn br = bnFrom(r, kSm2ScalarSize);
  Bn bs = bnFrom(s, kSm2ScalarSize);
  Bn t = newBn(), x1 = newBn(), check = newBn();
  Point sum(EC_POINT_new(group));
  if (!pub || !be || !br || !bs || !t || !x1 || !check || !sum) return false;
  // r, s in [1, n - 1].
  if (BN_is_zero(br.get()) || BN_cmp(br.get(), n) >= 0 || BN_is_zero(bs.get()) ||
      BN_cmp(bs.get(), n) >= 0) {
    return false;
  }
  if (BN_mod_add(t.get(), br.get(), bs.get(), n, ctx.get()) != 1 || BN_is_zero(t.get())) {
    return false;
  }
  if (EC_POINT_mul(group, sum.get(), bs.get(), pub.get(), t.get(), ctx.get()) != 1 ||
      EC_POINT_is_at_infinity(group, sum.get()) ||
      EC_POINT_get_affine_coordinates(group, sum.get(), x1.get(), nullptr, ctx.get()) != 1) {
    return false;
  }
  if (BN_mod_add(check.get(), be.get(), x1.get(), n, ctx.get()) != 1) return false;
  return BN_cmp(check.get(), br.get()) == 0;
}

bool sm2Encrypt(const Sm2PublicKey &publicKey, const uint8_t *message, size_t len,
                std::vector<uint8_t> &cipher) {
  const Sm2Curve *curve = sm2Curve();
  if (curve == nullptr || (message == nullptr && len > 0)) return false;
  if (len > std::numeric_limits<size_t>::max() - kSm2CipherOverhead) return false;
  const EC_GROUP *group = curve->group.get();
  BnCtx ctx(BN_CTX_secure_new());
  if (!ctx) return false;
  Point pub = pointFrom(*curve, publicKey.x, publicKey.y, ctx.get());
  Bn k = newBn();
  Point c1(EC_POINT_new(group));
  Point shared(EC_POINT_new(group));
  if (!pub || !k || !c1 || !shared) return false;
  std::vector<uint8_t> out(kSm2CipherOverhead + len);
  uint8_t *c2 = out.data() + 65;
  uint8_t *c3 = c2 + len;
  uint8_t x2y2[2 * kSm2ScalarSize];
  for (int attempt = 0; attempt < 64; ++attempt) {
    if (!randomScalar(curve->order.get(), k.get())) return false;
    out[0] = 0x04;
    if (EC_POINT_mul(group, c1.get(), k.get(), nullptr, nullptr, ctx.get()) != 1 ||
        !pointTo(group, c1.get(), out.data() + 1, out.data() + 33, ctx.get()) ||
        EC_POINT_mul(group, shared.get(), nullptr, pub.get(), k.get(), ctx.get()) != 1 ||
        !pointTo(group, shared.get(), x2y2, x2y2 + kSm2ScalarSize, ctx.get())) {
      secureZero(x2y2, sizeof x2y2);
      return false;
    }
    if (!sm2Kdf(x2y2, sizeof x2y2, c2, len)) {
      secureZero(x2y2, sizeof x2y2);
      return false;
    }
    if (len > 0 && allZero(c2, len)) continue;
    for (size_t i = 0; i < len; ++i) c2[i] ^= message[i];
    Sm3 hash;
    bool hashed = hash.update(x2y2, kSm2ScalarSize) && hash.update(message, len) &&
                  hash.update(x2y2 + kSm2ScalarSize, kSm2ScalarSize) && hash.final(c3);
    secureZero(x2y2, sizeof x2y2);
    if (!hashed) return false;
    cipher = std::move(out);
    return true;
  }
  secureZero(x2y2, sizeof x2y2);
  return false;
}

bool sm2Decrypt(const uint8_t d[kSm2ScalarSize], const uint8_t *cipher, size_t len,
                SecureBytes &message) {
  const Sm2Curve *curve = sm2Curve();
  if (curve == nullptr || d == nullptr || cipher == nullptr || len < kSm2CipherOverhead ||
      cipher[0] != 0x04) {
    return false;
  }
  const EC_GROUP *group = curve->group.get();
  BnCtx ctx(BN_CTX_secure_new());
  if (!ctx) return false;
  Bn bd = privateScalar(*curve, d);
  Point c1 = pointFrom(*curve, cipher + 1, cipher + 33, ctx.get());
  Point shared(EC_POINT_new(group));
  if (!bd || !c1 || !shared) return false;
  const size_t plainLen = len - kSm2CipherOverhead;
  const uint8_t *c2 = cipher + 65;
  const uint8_t *c3 = c2 + plainLen;
  SecureArray<2 * kSm2ScalarSize> x2y2;
  if (EC_POINT_mul(group, shared.get(), nullptr, c1.get(), bd.get(), ctx.get()) != 1 ||
      !pointTo(group, shared.get(), x2y2.data(), x2y2.data() + kSm2ScalarSize, ctx.get())) {
    return false;
  }
  SecureBytes plain(plainLen);
  if (!sm2Kdf(x2y2.data(), x2y2.size(), plain.data(), plainLen)) return false;
  if (plainLen > 0 && allZero(plain.data(), plainLen)) return false;
  for (size_t i = 0; i < plainLen; ++i) plain[i] ^= c2[i];
  uint8_t check[kSm3DigestSize];
  Sm3 hash;
  if (!hash.update(x2y2.data(), kSm2ScalarSize) || !hash.update(plain.data(), plainLen) ||
      !hash.update(x2y2.data() + kSm2ScalarSize, kSm2ScalarSize) || !hash.final(check)) {
    return false;
  }
  uint8_t diff = 0;
  for (size_t i = 0; i < kSm3DigestSize; ++i) diff |= check[i] ^ c3[i];
  if (diff != 0) return false;
  message = std::move(plain);
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

bool rsaSignPkcs1(const RsaPrivateKey &key, const uint8_t *data, size_t len,
                  std::vector<uint8_t> &signature) {
  if (data == nullptr && len > 0) return false;
  Pkey pkey = rsaKey(key.publicKey, &key);
  if (!pkey) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey.get(), nullptr));
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 || !setPkcs1Padding(ctx.get())) return false;
  size_t sigLen = 0;
  if (EVP_PKEY_sign(ctx.get(), nullptr, &sigLen, data, len) != 1) return false;
  std::vector<uint8_t> out(sigLen);
  if (EVP_PKEY_sign(ctx.get(), out.data(), &sigLen, data, len) != 1) return false;
  // OpenSSL writes the full modulus length; keep the contract explicit.
  if (sigLen != modulusSize(key.publicKey)) return false;
  out.resize(sigLen);
  signature = std::move(out);
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

bool rsaDecryptPkcs1(const RsaPrivateKey &key, const uint8_t *cipher, size_t len,
                     SecureBytes &message) {
  if (cipher == nullptr || len != modulusSize(key.publicKey)) return false;
  Pkey pkey = rsaKey(key.publicKey, &key);
  if (!pkey) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey.get(), nullptr));
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
