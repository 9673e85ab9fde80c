// The crypto backend on libgcrypt (the Windows build links it statically).
//
// SM3 and SM4 use libgcrypt's digests and ciphers. SM2 signatures are made and
// checked by gcry_pk_sign/gcry_pk_verify with the `sm2` flag, which sign the
// digest e as given. SM2 encryption and decryption stay computed here on
// libgcrypt's constant-time scalar multiplication: its own SM2 encryption
// (1.10) turns the message into a number, losing leading zero bytes and
// refusing an empty one, and hashes x2 and y2 at their minimal length, so its
// C3 is wrong (and a correct one refused) whenever either starts with a zero
// byte. RSA pads here (PKCS#1 v1.5 types 1 and 2) and exponentiates on
// libgcrypt's numbers, so both backends give byte-identical encodings and
// accept and reject the same inputs.
//
// libgcrypt frees s-expression buffers unwiped when secure memory is off
// (which it is: see libraryReady), so when we initialise the library we give
// it allocation functions that wipe every block they free. Big numbers that
// hold secrets are also flagged secure, which selects constant-time code.
#include <gcrypt.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <limits>
#include <memory>
#include <utility>

#include "crypto/backend.h"
#include "crypto/sm2_kdf.h"

namespace tembra {
namespace crypto {

namespace {

// libgcrypt's own messages are dropped: a library loaded into a host process
// must not write to its standard streams. (On Windows the entropy gatherer
// notes on every start that disk statistics are off.) Fatal conditions still
// end in libgcrypt's own abort.
void discardLibraryLog(void *, int, const char *, va_list) {}

// libgcrypt's allocations, each with its size stored in front of it so that
// it can be wiped when freed. The header keeps malloc's alignment.
constexpr size_t kBlockHeader = 16;

void *wipingAlloc(size_t n) {
  if (n > std::numeric_limits<size_t>::max() - kBlockHeader) return nullptr;
  auto *block = static_cast<unsigned char *>(malloc(n + kBlockHeader));
  if (block == nullptr) return nullptr;
  memcpy(block, &n, sizeof n);
  return block + kBlockHeader;
}

size_t blockSize(const void *p) {
  size_t n = 0;
  memcpy(&n, static_cast<const unsigned char *>(p) - kBlockHeader, sizeof n);
  return n;
}

void wipingFree(void *p) {
  if (p == nullptr) return;
  unsigned char *block = static_cast<unsigned char *>(p) - kBlockHeader;
  secureZero(block, blockSize(p) + kBlockHeader);
  free(block);
}

void *wipingRealloc(void *p, size_t n) {
  if (p == nullptr) return wipingAlloc(n);
  void *moved = wipingAlloc(n);
  if (moved == nullptr) return nullptr;
  const size_t old = blockSize(p);
  memcpy(moved, p, old < n ? old : n);
  wipingFree(p);
  return moved;
}

// No block is in locked memory; libgcrypt then treats all alike.
int neverSecure(const void *) {
  return 0;
}

// libgcrypt must be initialised once per process before any other call. The
// function-local static makes this thread-safe. Secure memory is not used
// (it needs mlock, which Wine and containers may refuse); libgcrypt still
// wipes every number it frees. If the host already initialised libgcrypt,
// its settings stand.
//
// The random generator asked for is the DRBG: the default one gathers a
// little system state on every digest, cipher and random call, and on
// Windows that is some twenty kernel and window-system queries each time.
// The DRBG takes its seed from the same system sources and then runs on its
// own. The request only counts before libgcrypt is first used.
bool libraryReady() {
  static const bool ready = [] {
    gcry_control(GCRYCTL_SET_PREFERRED_RNG_TYPE, GCRY_RNG_TYPE_FIPS);
    if (gcry_check_version(GCRYPT_VERSION) == nullptr) return false;
    if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P)) return true;
    // Nothing libgcrypt has allocated so far is ever freed (its constants),
    // so every block it frees from here on comes from wipingAlloc.
    gcry_set_allocation_handler(wipingAlloc, wipingAlloc, neverSecure, wipingRealloc, wipingFree);
    gcry_set_log_handler(discardLibraryLog, nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM_WARN);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  return ready;
}

// ---- RAII holders -----------------------------------------------------------

struct MpiDeleter {
  void operator()(gcry_mpi *p) const { gcry_mpi_release(p); }
};
struct PointDeleter {
  void operator()(gcry_mpi_point *p) const { gcry_mpi_point_release(p); }
};
struct ContextDeleter {
  void operator()(gcry_context *p) const { gcry_ctx_release(p); }
};
struct CipherDeleter {
  void operator()(gcry_cipher_handle *p) const { gcry_cipher_close(p); }
};
struct DigestDeleter {
  void operator()(gcry_md_handle *p) const { gcry_md_close(p); }
};
struct SexpDeleter {
  void operator()(gcry_sexp *p) const { gcry_sexp_release(p); }
};

using Mpi = std::unique_ptr<gcry_mpi, MpiDeleter>;
using Point = std::unique_ptr<gcry_mpi_point, PointDeleter>;
using Context = std::unique_ptr<gcry_context, ContextDeleter>;
using Cipher = std::unique_ptr<gcry_cipher_handle, CipherDeleter>;
using Digest = std::unique_ptr<gcry_md_handle, DigestDeleter>;
using Sexp = std::unique_ptr<gcry_sexp, SexpDeleter>;

Mpi newMpi() {
  return Mpi(gcry_mpi_new(0));
}

// A big-endian unsigned integer; an empty string reads as zero.
Mpi mpiFrom(const uint8_t *p, size_t len) {
  if (len == 0) return newMpi();
  if (p == nullptr) return nullptr;
  gcry_mpi_t m = nullptr;
  if (gcry_mpi_scan(&m, GCRYMPI_FMT_USG, p, len, nullptr) != 0) return nullptr;
  return Mpi(m);
}

// Writes m right-aligned into exactly `width` bytes; false if it does not fit.
bool mpiToFixed(gcry_mpi_t m, uint8_t *out, size_t width) {
  if (gcry_mpi_is_neg(m) || gcry_mpi_get_nbits(m) > width * 8) return false;
  size_t written = 0;
  if (gcry_mpi_cmp_ui(m, 0) != 0 && gcry_mpi_print(GCRYMPI_FMT_USG, out, width, &written, m) != 0) {
    return false;
  }
  if (written < width) {
    memmove(out + (width - written), out, written);
    memset(out, 0, width - written);
  }
  return true;
}

// The minimal big-endian form of m (empty for zero).
template <typename Out>
bool mpiToMinimal(gcry_mpi_t m, Out &out) {
  size_t len = (gcry_mpi_get_nbits(m) + 7) / 8;
  out.resize(len);
  return len == 0 || mpiToFixed(m, out.data(), len);
}

// ---- SM4 --------------------------------------------------------------------

// One run of SM4 without padding over whole blocks; out may equal in.
bool sm4Run(int mode, bool encrypt, const uint8_t *key, const uint8_t *iv, const uint8_t *in,
            size_t len, uint8_t *out) {
  if (!libraryReady() || key == nullptr || (mode == GCRY_CIPHER_MODE_CBC && iv == nullptr)) {
    return false;
  }
  if (len % kSm4BlockSize != 0) return false;
  if (len == 0) return true;
  if (in == nullptr || out == nullptr) return false;
  gcry_cipher_hd_t raw = nullptr;
  if (gcry_cipher_open(&raw, GCRY_CIPHER_SM4, mode, 0) != 0) return false;
  Cipher cipher(raw);
  if (gcry_cipher_setkey(cipher.get(), key, kSm4KeySize) != 0) return false;
  if (mode == GCRY_CIPHER_MODE_CBC && gcry_cipher_setiv(cipher.get(), iv, kSm4BlockSize) != 0) {
    return false;
  }
  // libgcrypt works in place when given no separate input.
  const bool inPlace = in == out;
  gcry_error_t err =
      encrypt
          ? gcry_cipher_encrypt(cipher.get(), out, len, inPlace ? nullptr : in, inPlace ? 0 : len)
          : gcry_cipher_decrypt(cipher.get(), out, len, inPlace ? nullptr : in, inPlace ? 0 : len);
  return err == 0;
}

// PKCS#7 around sm4Run. Decryption checks every padding byte.
bool sm4Padded(int mode, bool encrypt, const uint8_t *key, const uint8_t *iv, const uint8_t *in,
               size_t len, SecureBytes &out) {
  if (len > 0 && in == nullptr) return false;
  if (encrypt) {
    if (len > std::numeric_limits<size_t>::max() - kSm4BlockSize) return false;
    const size_t pad = kSm4BlockSize - len % kSm4BlockSize;
    SecureBytes buffer(len + pad);
    if (len > 0) memcpy(buffer.data(), in, len);
    memset(buffer.data() + len, static_cast<int>(pad), pad);
    if (!sm4Run(mode, true, key, iv, buffer.data(), buffer.size(), buffer.data())) return false;
    out = std::move(buffer);
    return true;
  }
  if (len == 0 || len % kSm4BlockSize != 0) return false;
  SecureBytes buffer(len);
  if (!sm4Run(mode, false, key, iv, in, len, buffer.data())) return false;
  const uint8_t pad = buffer[len - 1];
  if (pad == 0 || pad > kSm4BlockSize) return false;
  uint8_t diff = 0;
  for (size_t i = len - pad; i < len; ++i) diff |= static_cast<uint8_t>(buffer[i] ^ pad);
  if (diff != 0) return false;
  buffer.resize(len - pad);
  out = std::move(buffer);
  return true;
}

// ---- SM2 --------------------------------------------------------------------

// The SM2 curve with its order n and prime p. A libgcrypt curve context keeps
// scratch space, so each operation builds its own rather than sharing one.
struct Sm2Curve {
  Context ctx;
  Mpi n;
  Mpi p;
  Point g;

  bool open() {
    if (!libraryReady()) return false;
    gcry_ctx_t raw = nullptr;
    if (gcry_mpi_ec_new(&raw, nullptr, "sm2p256v1") != 0) return false;
    ctx.reset(raw);
    n.reset(gcry_mpi_ec_get_mpi("n", ctx.get(), 1));
    p.reset(gcry_mpi_ec_get_mpi("p", ctx.get(), 1));
    g.reset(gcry_mpi_ec_get_point("g", ctx.get(), 1));
    return n && p && g;
  }

  // The affine coordinates of a point, 32 bytes each; false at infinity.
  bool affine(gcry_mpi_point_t point, uint8_t *x, uint8_t *y) {
    Mpi mx = newMpi();
    Mpi my = newMpi();
    if (!mx || !my || gcry_mpi_ec_get_affine(mx.get(), my.get(), point, ctx.get()) != 0) {
      return false;
    }
    return mpiToFixed(mx.get(), x, kSm2ScalarSize) &&
           (y == nullptr || mpiToFixed(my.get(), y, kSm2ScalarSize));
  }

  Mpi affineX(gcry_mpi_point_t point) {
    Mpi mx = newMpi();
    if (!mx || gcry_mpi_ec_get_affine(mx.get(), nullptr, point, ctx.get()) != 0) return nullptr;
    return mx;
  }

  // A point from 32-byte coordinates, rejected unless both lie below p and
  // the point is on the curve.
  Point pointFrom(const uint8_t *x, const uint8_t *y) {
    Mpi mx = mpiFrom(x, kSm2ScalarSize);
    Mpi my = mpiFrom(y, kSm2ScalarSize);
    Mpi one(gcry_mpi_set_ui(nullptr, 1));
    Point point(gcry_mpi_point_new(0));
    if (!mx || !my || !one || !point) return nullptr;
    if (gcry_mpi_cmp(mx.get(), p.get()) >= 0 || gcry_mpi_cmp(my.get(), p.get()) >= 0) {
      return nullptr;
    }
    gcry_mpi_point_set(point.get(), mx.get(), my.get(), one.get());
    if (!gcry_mpi_ec_curve_point(point.get(), ctx.get())) return nullptr;
    return point;
  }

  // The private scalar, checked to lie in [1, n - 2].
  Mpi privateScalar(const uint8_t d[kSm2ScalarSize]) {
    Mpi md = mpiFrom(d, kSm2ScalarSize);
    Mpi limit = newMpi();
    if (!md || !limit) return nullptr;
    gcry_mpi_sub_ui(limit.get(), n.get(), 1);
    if (gcry_mpi_cmp_ui(md.get(), 0) == 0 || gcry_mpi_cmp(md.get(), limit.get()) >= 0) {
      return nullptr;
    }
    // A secure scalar takes libgcrypt's constant-time multiplication.
    gcry_mpi_set_flag(md.get(), GCRYMPI_FLAG_SECURE);
    return md;
  }

  // A uniform scalar in [1, bound - 1] by rejection sampling.
  bool randomBelow(gcry_mpi_t bound, gcry_mpi_t k) {
    SecureArray<kSm2ScalarSize> bytes;
    for (int attempt = 0; attempt < 256; ++attempt) {
      gcry_randomize(bytes.data(), bytes.size(), GCRY_STRONG_RANDOM);
      Mpi candidate = mpiFrom(bytes.data(), bytes.size());
      if (!candidate) return false;
      if (gcry_mpi_cmp_ui(candidate.get(), 0) != 0 && gcry_mpi_cmp(candidate.get(), bound) < 0) {
        gcry_mpi_set(k, candidate.get());
        return true;
      }
    }
    return false;
  }
};

// C3 = SM3(x2 || M || y2).
bool sm2Check(const uint8_t *x2y2, const uint8_t *message, size_t len, uint8_t *out) {
  Sm3 hash;
  return hash.update(x2y2, kSm2ScalarSize) && hash.update(message, len) &&
         hash.update(x2y2 + kSm2ScalarSize, kSm2ScalarSize) && hash.final(out);
}

// ---- RSA --------------------------------------------------------------------

constexpr unsigned kRsaMinBits = 512;
constexpr unsigned kRsaMaxBits = 16384;
constexpr size_t kPkcs1Overhead = 11;  // 00 || BT || at least 8 padding bytes || 00

// A public key as numbers, checked for a usable size and an odd e in (1, n).
struct RsaNumbers {
  Mpi n;
  Mpi e;
  size_t modulusLen = 0;

  bool load(const RsaPublicKey &key) {
    if (!libraryReady()) return false;
    n = mpiFrom(key.n.data(), key.n.size());
    e = mpiFrom(key.e.data(), key.e.size());
    if (!n || !e) return false;
    const unsigned bits = gcry_mpi_get_nbits(n.get());
    if (bits < kRsaMinBits || bits > kRsaMaxBits || !gcry_mpi_test_bit(n.get(), 0)) return false;
    if (gcry_mpi_cmp_ui(e.get(), 1) <= 0 || !gcry_mpi_test_bit(e.get(), 0) ||
        gcry_mpi_cmp(e.get(), n.get()) >= 0) {
      return false;
    }
    modulusLen = (bits + 7) / 8;
    return true;
  }
};

// x^e mod n over a block of exactly modulusLen bytes, written back in place.
bool rsaPublicOp(const RsaNumbers &key, uint8_t *block) {
  Mpi x = mpiFrom(block, key.modulusLen);
  Mpi y = newMpi();
  if (!x || !y || gcry_mpi_cmp(x.get(), key.n.get()) >= 0) return false;
  gcry_mpi_powm(y.get(), x.get(), key.e.get(), key.n.get());
  return mpiToFixed(y.get(), block, key.modulusLen);
}

// A secret number: held with libgcrypt's "secure" flag, which also selects
// its constant-time exponentiation; the limbs are wiped on release.
Mpi secretFrom(const uint8_t *p, size_t len) {
  Mpi m = mpiFrom(p, len);
  if (m) gcry_mpi_set_flag(m.get(), GCRYMPI_FLAG_SECURE);
  return m;
}

// A private key read once into libgcrypt numbers.
struct RsaSecret {
  RsaNumbers numbers;
  Mpi d, p, q, dp, dq, qinv;
  bool crt = false;

  bool load(const RsaPrivateKey &key) {
    if (!numbers.load(key.publicKey) || key.d.empty()) return false;
    d = secretFrom(key.d.data(), key.d.size());
    if (!d) return false;
    if (!key.p.empty() && !key.q.empty() && !key.dp.empty() && !key.dq.empty() &&
        !key.qinv.empty()) {
      p = secretFrom(key.p.data(), key.p.size());
      q = secretFrom(key.q.data(), key.q.size());
      dp = secretFrom(key.dp.data(), key.dp.size());
      dq = secretFrom(key.dq.data(), key.dq.size());
      qinv = secretFrom(key.qinv.data(), key.qinv.size());
      if (!p || !q || !dp || !dq || !qinv) return false;
      crt = gcry_mpi_cmp_ui(p.get(), 1) > 0 && gcry_mpi_cmp_ui(q.get(), 1) > 0;
    }
    return true;
  }
};

// x^d mod n over a block of exactly modulusLen bytes, written back in place.
// Computed here on libgcrypt numbers, so that both backends pad alike.
// The input is blinded with a random r (x r^e), the exponentiation runs by
// CRT when p, q, dp, dq and qinv are all present (qinv = q^-1 mod p), and a
// CRT result that does not check out under e is recomputed with d, as the
// OpenSSL backend does. The key's numbers are only read, so one key serves
// several threads.
bool rsaPrivateOp(const RsaSecret &key, uint8_t *block) {
  const RsaNumbers &numbers = key.numbers;
  gcry_mpi_t n = numbers.n.get();
  Mpi x = secretFrom(block, numbers.modulusLen);
  Mpi r = newMpi(), rInverse = newMpi(), blinded = newMpi(), y = newMpi(), check = newMpi();
  if (!x || !r || !rInverse || !blinded || !y || !check) return false;
  if (gcry_mpi_cmp(x.get(), n) >= 0) return false;
  gcry_mpi_set_flag(blinded.get(), GCRYMPI_FLAG_SECURE);
  gcry_mpi_set_flag(y.get(), GCRYMPI_FLAG_SECURE);

  // r uniform below n and invertible mod n.
  bool haveR = false;
  for (int attempt = 0; attempt < 64 && !haveR; ++attempt) {
    gcry_mpi_randomize(r.get(), gcry_mpi_get_nbits(n), GCRY_STRONG_RANDOM);
    haveR = gcry_mpi_cmp_ui(r.get(), 0) != 0 && gcry_mpi_cmp(r.get(), n) < 0 &&
            gcry_mpi_invm(rInverse.get(), r.get(), n);
  }
  if (!haveR) return false;
  gcry_mpi_powm(blinded.get(), r.get(), numbers.e.get(), n);
  gcry_mpi_mulm(blinded.get(), blinded.get(), x.get(), n);

  bool done = false;
  if (key.crt) {
    Mpi m1 = newMpi(), m2 = newMpi(), h = newMpi();
    if (!m1 || !m2 || !h) return false;
    gcry_mpi_set_flag(m1.get(), GCRYMPI_FLAG_SECURE);
    gcry_mpi_set_flag(m2.get(), GCRYMPI_FLAG_SECURE);
    gcry_mpi_set_flag(h.get(), GCRYMPI_FLAG_SECURE);
    // m1 = c^dp mod p, m2 = c^dq mod q, h = qinv (m1 - m2) mod p, y = m2 + h q.
    gcry_mpi_mod(h.get(), blinded.get(), key.p.get());
    gcry_mpi_powm(m1.get(), h.get(), key.dp.get(), key.p.get());
    gcry_mpi_mod(h.get(), blinded.get(), key.q.get());
    gcry_mpi_powm(m2.get(), h.get(), key.dq.get(), key.q.get());
    gcry_mpi_subm(h.get(), m1.get(), m2.get(), key.p.get());
    gcry_mpi_mulm(h.get(), h.get(), key.qinv.get(), key.p.get());
    gcry_mpi_mul(h.get(), h.get(), key.q.get());
    gcry_mpi_add(y.get(), m2.get(), h.get());
    gcry_mpi_powm(check.get(), y.get(), numbers.e.get(), n);
    done = gcry_mpi_cmp(y.get(), n) < 0 && gcry_mpi_cmp(check.get(), blinded.get()) == 0;
  }
  if (!done) {
    gcry_mpi_powm(y.get(), blinded.get(), key.d.get(), n);
    gcry_mpi_powm(check.get(), y.get(), numbers.e.get(), n);
    if (gcry_mpi_cmp(check.get(), blinded.get()) != 0) return false;
  }
  gcry_mpi_mulm(y.get(), y.get(), rInverse.get(), n);
  return mpiToFixed(y.get(), block, numbers.modulusLen);
}

// Nonzero random bytes for type-2 padding.
void randomNonZero(uint8_t *out, size_t len) {
  gcry_randomize(out, len, GCRY_STRONG_RANDOM);
  for (size_t i = 0; i < len; ++i) {
    while (out[i] == 0) gcry_randomize(&out[i], 1, GCRY_STRONG_RANDOM);
  }
}

}  // namespace

const char *backendName() {
  return "gcrypt";
}

bool randomBytes(uint8_t *out, size_t len) {
  if (len == 0) return true;
  if (out == nullptr || !libraryReady()) return false;
  gcry_randomize(out, len, GCRY_STRONG_RANDOM);
  return true;
}

// ---- SM3 ----------------------------------------------------------------------

struct StreamingDigest::State {
  Digest digest;
  int algorithm = 0;
};

StreamingDigest::StreamingDigest(DigestKind kind) : m_state(new State) {
  m_state->algorithm = kind == DigestKind::Sm3 ? GCRY_MD_SM3 : GCRY_MD_SHA256;
  gcry_md_hd_t raw = nullptr;
  if (libraryReady() && gcry_md_open(&raw, m_state->algorithm, 0) == 0) {
    m_state->digest.reset(raw);
  }
}

StreamingDigest::~StreamingDigest() = default;

bool StreamingDigest::ok() const {
  return m_state && m_state->digest;
}

bool StreamingDigest::update(const uint8_t *data, size_t len) {
  if (!ok()) return false;
  if (len == 0) return true;
  if (data == nullptr) return false;
  gcry_md_write(m_state->digest.get(), data, len);
  return true;
}

bool StreamingDigest::final(uint8_t out[32]) {
  if (!ok() || out == nullptr) return false;
  const unsigned char *digest = gcry_md_read(m_state->digest.get(), m_state->algorithm);
  const bool done = digest != nullptr;
  if (done) memcpy(out, digest, 32);
  m_state->digest.reset();
  return done;
}

bool sm3(const uint8_t *data, size_t len, uint8_t out[kSm3DigestSize]) {
  Sm3 hash;
  return hash.update(data, len) && hash.final(out);
}

// ---- SHA-256 ------------------------------------------------------------------

bool sha256(const uint8_t *data, size_t len, uint8_t out[kSha256DigestSize]) {
  if (out == nullptr || (data == nullptr && len > 0) || !libraryReady()) return false;
  const uint8_t none = 0;
  gcry_md_hash_buffer(GCRY_MD_SHA256, out, len > 0 ? data : &none, len);
  return true;
}

// ---- SM4 ----------------------------------------------------------------------

bool sm4Ecb(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t *in, size_t len,
            uint8_t *out) {
  return sm4Run(GCRY_CIPHER_MODE_ECB, encrypt, key, nullptr, in, len, out);
}

bool sm4Cbc(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t iv[kSm4BlockSize],
            const uint8_t *in, size_t len, uint8_t *out) {
  return sm4Run(GCRY_CIPHER_MODE_CBC, encrypt, key, iv, in, len, out);
}

bool sm4EcbPadded(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t *in, size_t len,
                  SecureBytes &out) {
  return sm4Padded(GCRY_CIPHER_MODE_ECB, encrypt, key, nullptr, in, len, out);
}

bool sm4CbcPadded(bool encrypt, const uint8_t key[kSm4KeySize], const uint8_t iv[kSm4BlockSize],
                  const uint8_t *in, size_t len, SecureBytes &out) {
  return sm4Padded(GCRY_CIPHER_MODE_CBC, encrypt, key, iv, in, len, out);
}

// ---- SM2 ----------------------------------------------------------------------

bool sm2PublicFromPrivate(const uint8_t d[kSm2ScalarSize], Sm2PublicKey &publicKey) {
  Sm2Curve curve;
  if (d == nullptr || !curve.open()) return false;
  Mpi md = curve.privateScalar(d);
  Point q(gcry_mpi_point_new(0));
  if (!md || !q) return false;
  gcry_mpi_ec_mul(q.get(), md.get(), curve.g.get(), curve.ctx.get());
  return curve.affine(q.get(), publicKey.x, publicKey.y);
}

bool sm2Generate(Sm2KeyPair &keyPair) {
  Sm2Curve curve;
  if (!curve.open()) return false;
  // d uniform in [1, n - 2].
  Mpi limit = newMpi();
  Mpi d = newMpi();
  if (!limit || !d) return false;
  gcry_mpi_sub_ui(limit.get(), curve.n.get(), 1);
  if (!curve.randomBelow(limit.get(), d.get()) ||
      !mpiToFixed(d.get(), keyPair.d.data(), kSm2ScalarSize)) {
    return false;
  }
  return sm2PublicFromPrivate(keyPair.d.data(), keyPair.publicKey);
}

bool sm2ValidatePublic(const Sm2PublicKey &publicKey) {
  Sm2Curve curve;
  return curve.open() && static_cast<bool>(curve.pointFrom(publicKey.x, publicKey.y));
}

namespace {

// The SM2 public key as an s-expression, its point checked against the curve.
Sexp sm2PublicSexp(Sm2Curve &curve, const Sm2PublicKey &publicKey) {
  if (!curve.pointFrom(publicKey.x, publicKey.y)) return nullptr;
  uint8_t point[1 + 2 * kSm2ScalarSize];
  point[0] = 0x04;
  memcpy(point + 1, publicKey.x, kSm2ScalarSize);
  memcpy(point + 1 + kSm2ScalarSize, publicKey.y, kSm2ScalarSize);
  gcry_sexp_t raw = nullptr;
  if (gcry_sexp_build(&raw, nullptr, "(public-key(ecc(curve sm2p256v1)(q %b)))",
                      static_cast<int>(sizeof point), point) != 0) {
    return nullptr;
  }
  return Sexp(raw);
}

// The digest e to be signed as given: the `sm2` flag takes it as the e of
// the signature equations and adds no Z.
Sexp sm2DigestSexp(const uint8_t e[kSm3DigestSize]) {
  gcry_sexp_t raw = nullptr;
  if (gcry_sexp_build(&raw, nullptr, "(data(flags sm2)(hash sm3 %b))",
                      static_cast<int>(kSm3DigestSize), e) != 0) {
    return nullptr;
  }
  return Sexp(raw);
}

// The decryption of a flat ciphertext with a checked, secure scalar d.
bool sm2DecryptWith(gcry_mpi_t md, const uint8_t *cipher, size_t len, SecureBytes &message) {
  Sm2Curve curve;
  if (cipher == nullptr || len < kSm2CipherOverhead || cipher[0] != 0x04 || !curve.open()) {
    return false;
  }
  Point c1 = curve.pointFrom(cipher + 1, cipher + 33);
  Point shared(gcry_mpi_point_new(0));
  if (!c1 || !shared) return false;
  const size_t plainLen = len - kSm2CipherOverhead;
  const uint8_t *c2 = cipher + 65;
  const uint8_t *c3 = c2 + plainLen;
  SecureArray<2 * kSm2ScalarSize> x2y2;
  gcry_mpi_ec_mul(shared.get(), md, c1.get(), curve.ctx.get());
  if (!curve.affine(shared.get(), x2y2.data(), x2y2.data() + kSm2ScalarSize)) return false;
  SecureBytes plain(plainLen);
  if (!sm2Kdf(x2y2.data(), x2y2.size(), plain.data(), plainLen)) return false;
  if (plainLen > 0 && allZero(plain.data(), plainLen)) return false;
  for (size_t i = 0; i < plainLen; ++i) plain[i] ^= c2[i];
  uint8_t check[kSm3DigestSize];
  if (!sm2Check(x2y2.data(), plain.data(), plainLen, check)) return false;
  uint8_t diff = 0;
  for (size_t i = 0; i < kSm3DigestSize; ++i) diff |= static_cast<uint8_t>(check[i] ^ c3[i]);
  if (diff != 0) return false;
  message = std::move(plain);
  return true;
}

}  // namespace

struct PreparedSm2Key::State {
  Mpi d;     // secure: wiped on release
  Sexp key;  // freed through wipingFree
};

PreparedSm2Key::PreparedSm2Key() : m_state(new State) {}

PreparedSm2Key::~PreparedSm2Key() = default;

std::unique_ptr<PreparedSm2Key> PreparedSm2Key::create(const uint8_t d[kSm2ScalarSize]) {
  Sm2Curve curve;
  if (d == nullptr || !curve.open()) return nullptr;
  std::unique_ptr<PreparedSm2Key> prepared(new PreparedSm2Key);
  State &state = *prepared->m_state;
  state.d = curve.privateScalar(d);
  if (!state.d) return nullptr;
  gcry_sexp_t raw = nullptr;
  if (gcry_sexp_build(&raw, nullptr, "(private-key(ecc(curve sm2p256v1)(d %m)))", state.d.get()) !=
      0) {
    return nullptr;
  }
  state.key.reset(raw);
  return prepared;
}

bool PreparedSm2Key::sign(const uint8_t e[kSm3DigestSize], uint8_t r[kSm2ScalarSize],
                          uint8_t s[kSm2ScalarSize]) const {
  if (e == nullptr || r == nullptr || s == nullptr) return false;
  Sexp data = sm2DigestSexp(e);
  gcry_sexp_t raw = nullptr;
  if (!data || gcry_pk_sign(&raw, data.get(), m_state->key.get()) != 0) return false;
  Sexp signature(raw);
  gcry_mpi_t rawR = nullptr;
  gcry_mpi_t rawS = nullptr;
  if (gcry_sexp_extract_param(signature.get(), "sig-val!sm2", "rs", &rawR, &rawS, nullptr) != 0) {
    return false;
  }
  Mpi mr(rawR);
  Mpi ms(rawS);
  return mpiToFixed(mr.get(), r, kSm2ScalarSize) && mpiToFixed(ms.get(), s, kSm2ScalarSize);
}

bool PreparedSm2Key::decrypt(const uint8_t *cipher, size_t len, SecureBytes &message) const {
  return sm2DecryptWith(m_state->d.get(), cipher, len, message);
}

bool sm2Verify(const Sm2PublicKey &publicKey, const uint8_t e[kSm3DigestSize],
               const uint8_t r[kSm2ScalarSize], const uint8_t s[kSm2ScalarSize]) {
  Sm2Curve curve;
  if (e == nullptr || r == nullptr || s == nullptr || !curve.open()) return false;
  Mpi mr = mpiFrom(r, kSm2ScalarSize);
  Mpi ms = mpiFrom(s, kSm2ScalarSize);
  if (!mr || !ms) return false;
  // r, s in [1, n - 1].
  gcry_mpi_t n = curve.n.get();
  if (gcry_mpi_cmp_ui(mr.get(), 0) == 0 || gcry_mpi_cmp(mr.get(), n) >= 0 ||
      gcry_mpi_cmp_ui(ms.get(), 0) == 0 || gcry_mpi_cmp(ms.get(), n) >= 0) {
    return false;
  }
  Sexp key = sm2PublicSexp(curve, publicKey);
  Sexp data = sm2DigestSexp(e);
  gcry_sexp_t raw = nullptr;
  if (!key || !data ||
      gcry_sexp_build(&raw, nullptr, "(sig-val(sm2(r %m)(s %m)))", mr.get(), ms.get()) != 0) {
    return false;
  }
  Sexp signature(raw);
  return gcry_pk_verify(signature.get(), data.get(), key.get()) == 0;
}

bool sm2Encrypt(const Sm2PublicKey &publicKey, const uint8_t *message, size_t len,
                std::vector<uint8_t> &cipher) {
  Sm2Curve curve;
  if ((message == nullptr && len > 0) || !curve.open()) return false;
  if (len > std::numeric_limits<size_t>::max() - kSm2CipherOverhead) return false;
  Point pub = curve.pointFrom(publicKey.x, publicKey.y);
  Mpi k = newMpi();
  Point c1(gcry_mpi_point_new(0));
  Point shared(gcry_mpi_point_new(0));
  if (!pub || !k || !c1 || !shared) return false;
  std::vector<uint8_t> out(kSm2CipherOverhead + len);
  uint8_t *c2 = out.data() + 65;
  uint8_t *c3 = c2 + len;
  SecureArray<2 * kSm2ScalarSize> x2y2;
  for (int attempt = 0; attempt < 64; ++attempt) {
    if (!curve.randomBelow(curve.n.get(), k.get())) return false;
    out[0] = 0x04;
    gcry_mpi_ec_mul(c1.get(), k.get(), curve.g.get(), curve.ctx.get());
    gcry_mpi_ec_mul(shared.get(), k.get(), pub.get(), curve.ctx.get());
    if (!curve.affine(c1.get(), out.data() + 1, out.data() + 33) ||
        !curve.affine(shared.get(), x2y2.data(), x2y2.data() + kSm2ScalarSize)) {
      return false;
    }
    if (!sm2Kdf(x2y2.data(), x2y2.size(), c2, len)) return false;
    // An all-zero key stream would leave the message in clear: draw a new k.
    if (len > 0 && allZero(c2, len)) continue;
    for (size_t i = 0; i < len; ++i) c2[i] ^= message[i];
    if (!sm2Check(x2y2.data(), message, len, c3)) return false;
    cipher = std::move(out);
    return true;
  }
  return false;
}

// The shared point of SM2 key exchange; x' = 2^127 + (x mod 2^127).
bool sm2AgreementPoint(const uint8_t d[kSm2ScalarSize], const uint8_t r[kSm2ScalarSize],
                       const Sm2PublicKey &ownTemporary, const Sm2PublicKey &peer,
                       const Sm2PublicKey &peerTemporary, uint8_t xy[2 * kSm2ScalarSize]) {
  Sm2Curve curve;
  if (d == nullptr || r == nullptr || xy == nullptr || !curve.open()) return false;
  uint8_t low1[16], low2[16];
  memcpy(low1, ownTemporary.x + 16, 16);
  memcpy(low2, peerTemporary.x + 16, 16);
  low1[0] |= 0x80;
  low2[0] |= 0x80;
  Mpi md = curve.privateScalar(d);
  Mpi mr = curve.privateScalar(r);
  Mpi x1 = mpiFrom(low1, sizeof low1);
  Mpi x2 = mpiFrom(low2, sizeof low2);
  Mpi t = newMpi();
  Point pb = curve.pointFrom(peer.x, peer.y);
  Point rb = curve.pointFrom(peerTemporary.x, peerTemporary.y);
  Point scaled(gcry_mpi_point_new(0)), sum(gcry_mpi_point_new(0)), u(gcry_mpi_point_new(0));
  if (!md || !mr || !x1 || !x2 || !t || !pb || !rb || !scaled || !sum || !u) return false;
  gcry_mpi_set_flag(t.get(), GCRYMPI_FLAG_SECURE);
  // t = (d + x1' r) mod n; U = t (P + x2' R), not the point at infinity.
  gcry_mpi_mulm(t.get(), x1.get(), mr.get(), curve.n.get());
  gcry_mpi_addm(t.get(), t.get(), md.get(), curve.n.get());
  gcry_mpi_ec_mul(scaled.get(), x2.get(), rb.get(), curve.ctx.get());
  gcry_mpi_ec_add(sum.get(), scaled.get(), pb.get(), curve.ctx.get());
  gcry_mpi_ec_mul(u.get(), t.get(), sum.get(), curve.ctx.get());
  return curve.affine(u.get(), xy, xy + kSm2ScalarSize);
}

// ---- RSA ----------------------------------------------------------------------

// One number of the generated key's private part, or null.
Mpi keyNumber(gcry_sexp_t privateKey, const char *name) {
  Sexp token(gcry_sexp_find_token(privateKey, name, 0));
  if (!token) return nullptr;
  return Mpi(gcry_sexp_nth_mpi(token.get(), 1, GCRYMPI_FMT_USG));
}

// libgcrypt's own RSA key generation with e = 65537 (its "transient-key"
// flag draws the primes from the same strong random level as every other
// key here). The numbers taken out of its result are wiped like all others;
// the result s-expression itself is released by libgcrypt, which wipes it
// only in secure memory, and that is off (see libraryReady). libgcrypt orders the primes p < q with
// u = p^-1 mod q; the key here wants p > q and qinv = q^-1 mod p, which is the same u with the
// primes swapped.
bool rsaGenerate(int bits, RsaPrivateKey &key) {
  if ((bits != 1024 && bits != 2048) || !libraryReady()) return false;
  const char *keyRequest = bits == 1024
                         ? "(genkey(rsa(nbits 4:1024)(rsa-use-e 5:65537)(flags transient-key)))"
                         : "(genkey(rsa(nbits 4:2048)(rsa-use-e 5:65537)(flags transient-key)))";
  gcry_sexp_t raw = nullptr;
  if (gcry_sexp_new(&raw, keyRequest, 0, 1) != 0) return false;
  Sexp parameters(raw);
  raw = nullptr;
  if (gcry_pk_genkey(&raw, parameters.get()) != 0) return false;
  Sexp generated(raw);
  Sexp privateKey(gcry_sexp_find_token(generated.get(), "private-key", 0));
  if (!privateKey) return false;
  Mpi n = keyNumber(privateKey.get(), "n"), e = keyNumber(privateKey.get(), "e");
  Mpi d = keyNumber(privateKey.get(), "d"), p = keyNumber(privateKey.get(), "q");
  Mpi q = keyNumber(privateKey.get(), "p"), qinv = keyNumber(privateKey.get(), "u");
  Mpi dp = newMpi(), dq = newMpi(), pMinusOne = newMpi(), qMinusOne = newMpi();
  if (!n || !e || !d || !p || !q || !qinv || !dp || !dq || !pMinusOne || !qMinusOne ||
      gcry_mpi_get_nbits(n.get()) != static_cast<unsigned>(bits) ||
      gcry_mpi_cmp(p.get(), q.get()) <= 0) {
    return false;
  }
  gcry_mpi_sub_ui(pMinusOne.get(), p.get(), 1);
  gcry_mpi_sub_ui(qMinusOne.get(), q.get(), 1);
  gcry_mpi_mod(dp.get(), d.get(), pMinusOne.get());
  gcry_mpi_mod(dq.get(), d.get(), qMinusOne.get());
  RsaPrivateKey out;
  if (!mpiToMinimal(n.get(), out.publicKey.n) || !mpiToMinimal(e.get(), out.publicKey.e) ||
      !mpiToMinimal(d.get(), out.d) || !mpiToMinimal(p.get(), out.p) ||
      !mpiToMinimal(q.get(), out.q) || !mpiToMinimal(dp.get(), out.dp) ||
      !mpiToMinimal(dq.get(), out.dq) || !mpiToMinimal(qinv.get(), out.qinv)) {
    return false;
  }
  key = std::move(out);
  return true;
}

struct PreparedRsaKey::State {
  RsaSecret secret;
};

PreparedRsaKey::PreparedRsaKey() : m_state(new State) {}

PreparedRsaKey::~PreparedRsaKey() = default;

std::unique_ptr<PreparedRsaKey> PreparedRsaKey::create(const RsaPrivateKey &key) {
  std::unique_ptr<PreparedRsaKey> prepared(new PreparedRsaKey);
  if (!prepared->m_state->secret.load(key)) return nullptr;
  return prepared;
}

size_t PreparedRsaKey::modulusSize() const {
  return m_state->secret.numbers.modulusLen;
}

bool PreparedRsaKey::signPkcs1(const uint8_t *data, size_t len,
                               std::vector<uint8_t> &signature) const {
  if (data == nullptr && len > 0) return false;
  const size_t k = modulusSize();
  if (len > k - kPkcs1Overhead) return false;
  // 00 || 01 || FF ... FF || 00 || data
  SecureBytes block(k);
  block[0] = 0x00;
  block[1] = 0x01;
  memset(block.data() + 2, 0xFF, k - 3 - len);
  block[k - len - 1] = 0x00;
  if (len > 0) memcpy(block.data() + (k - len), data, len);
  if (!rsaPrivateOp(m_state->secret, block.data())) return false;
  signature.assign(block.data(), block.data() + k);
  return true;
}

bool PreparedRsaKey::decryptPkcs1(const uint8_t *cipher, size_t len, SecureBytes &message) const {
  const size_t k = modulusSize();
  if (cipher == nullptr || len != k) return false;
  SecureBytes block(cipher, k);
  if (!rsaPrivateOp(m_state->secret, block.data())) return false;
  if (block[0] != 0x00 || block[1] != 0x02) return false;
  size_t i = 2;
  while (i < k && block[i] != 0x00) ++i;
  // At least eight padding bytes, then the 00 separator.
  if (i - 2 < 8 || i >= k) return false;
  ++i;
  SecureBytes out(block.data() + i, k - i);
  message = std::move(out);
  return true;
}

bool rsaVerifyPkcs1(const RsaPublicKey &key, const uint8_t *data, size_t len,
                    const uint8_t *signature, size_t signatureLen) {
  if ((data == nullptr && len > 0) || signature == nullptr) return false;
  RsaNumbers numbers;
  if (!numbers.load(key) || signatureLen != numbers.modulusLen) return false;
  const size_t k = numbers.modulusLen;
  std::vector<uint8_t> block(signature, signature + k);
  if (!rsaPublicOp(numbers, block.data())) return false;
  if (block[0] != 0x00 || block[1] != 0x01) return false;
  size_t i = 2;
  while (i < k && block[i] == 0xFF) ++i;
  // At least eight FF bytes, then the 00 separator.
  if (i - 2 < 8 || i >= k || block[i] != 0x00) return false;
  ++i;
  return k - i == len && (len == 0 || memcmp(block.data() + i, data, len) == 0);
}

bool rsaEncryptPkcs1(const RsaPublicKey &key, const uint8_t *data, size_t len,
                     std::vector<uint8_t> &cipher) {
  if (data == nullptr && len > 0) return false;
  RsaNumbers numbers;
  if (!numbers.load(key) || len > numbers.modulusLen - kPkcs1Overhead) return false;
  // 00 || 02 || nonzero random || 00 || data
  const size_t k = numbers.modulusLen;
  std::vector<uint8_t> block(k);
  block[1] = 0x02;
  randomNonZero(block.data() + 2, k - 3 - len);
  if (len > 0) memcpy(block.data() + (k - len), data, len);
  const bool done = rsaPublicOp(numbers, block.data());
  if (!done) {
    secureZero(block.data(), block.size());
    return false;
  }
  cipher = std::move(block);
  return true;
}

// Raw RSA: the public or private operation on a block of the modulus length.
bool rsaPublicRaw(const RsaPublicKey &key, const uint8_t *in, size_t len,
                  std::vector<uint8_t> &out) {
  if (in == nullptr) return false;
  RsaNumbers numbers;
  if (!numbers.load(key) || len != numbers.modulusLen) return false;
  std::vector<uint8_t> block(in, in + len);
  if (!rsaPublicOp(numbers, block.data())) return false;
  out = std::move(block);
  return true;
}

bool rsaPrivateRaw(const RsaPrivateKey &key, const uint8_t *in, size_t len, SecureBytes &out) {
  if (in == nullptr) return false;
  RsaSecret secret;
  if (!secret.load(key) || len != secret.numbers.modulusLen) return false;
  SecureBytes block(in, len);
  if (!rsaPrivateOp(secret, block.data())) return false;
  out = std::move(block);
  return true;
}

}  // namespace crypto
}  // namespace tembra
