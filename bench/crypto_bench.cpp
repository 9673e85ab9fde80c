// The prepared private keys of the crypto backend against OpenSSL called
// directly on a key made once (EVP_PKEY), the best a caller of the library
// could do. Each iteration makes one signature; the ratio prepared / raw
// shows what the backend's own wrapping costs. OpenSSL backend only.
// Run: build with -DTEMBRA_BUILD_BENCH=ON, then bin/crypto_bench
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>
#include <vector>

#include "crypto/backend.h"

namespace {

using tembra::crypto::PreparedRsaKey;
using tembra::crypto::PreparedSm2Key;

struct PkeyDeleter {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
struct CtxDeleter {
  void operator()(EVP_PKEY_CTX *p) const { EVP_PKEY_CTX_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using Ctx = std::unique_ptr<EVP_PKEY_CTX, CtxDeleter>;

const uint8_t kDigest[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16,
                             17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

// One OpenSSL key and the same key prepared by the backend.
struct Keys {
  Pkey sm2;
  Pkey rsa;
  std::unique_ptr<PreparedSm2Key> preparedSm2;
  std::unique_ptr<PreparedRsaKey> preparedRsa;
  tembra::crypto::Sm2KeyPair pair;
  tembra::crypto::RsaPrivateKey rsaKey;

  Keys() {
    if (!tembra::crypto::sm2Generate(pair) || !tembra::crypto::rsaGenerate(2048, rsaKey)) return;
    preparedSm2 = PreparedSm2Key::create(pair.d.data());
    preparedRsa = PreparedRsaKey::create(rsaKey);
    sm2.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2"));
    rsa.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)));
  }
};

Keys &keys() {
  static Keys k;
  return k;
}

// A context per signature, as the backend does, so that threads can share
// the key.
bool rawSign(EVP_PKEY *key, bool rsa, const uint8_t *tbs, size_t len) {
  Ctx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1) return false;
  if (rsa && EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1) return false;
  uint8_t out[512];
  size_t outLen = sizeof out;
  return EVP_PKEY_sign(ctx.get(), out, &outLen, tbs, len) == 1;
}

void Sm2SignPrepared(benchmark::State &state) {
  uint8_t r[32], s[32];
  for (auto _ : state) {
    if (!keys().preparedSm2 || !keys().preparedSm2->sign(kDigest, r, s)) {
      state.SkipWithError("sign failed");
      break;
    }
  }
}

void Sm2SignRawEvp(benchmark::State &state) {
  for (auto _ : state) {
    if (!keys().sm2 || !rawSign(keys().sm2.get(), false, kDigest, sizeof kDigest)) {
      state.SkipWithError("sign failed");
      break;
    }
  }
}

void Rsa2048SignPrepared(benchmark::State &state) {
  std::vector<uint8_t> signature;
  for (auto _ : state) {
    if (!keys().preparedRsa || !keys().preparedRsa->signPkcs1(kDigest, sizeof kDigest, signature)) {
      state.SkipWithError("sign failed");
      break;
    }
  }
}

void Rsa2048SignRawEvp(benchmark::State &state) {
  for (auto _ : state) {
    if (!keys().rsa || !rawSign(keys().rsa.get(), true, kDigest, sizeof kDigest)) {
      state.SkipWithError("sign failed");
      break;
    }
  }
}

// The free functions prepare the key anew on every call.
void Sm2SignUnprepared(benchmark::State &state) {
  uint8_t r[32], s[32];
  for (auto _ : state) {
    if (!tembra::crypto::sm2Sign(keys().pair.d.data(), kDigest, r, s)) {
      state.SkipWithError("sign failed");
      break;
    }
  }
}

void Rsa2048SignUnprepared(benchmark::State &state) {
  std::vector<uint8_t> signature;
  for (auto _ : state) {
    if (!tembra::crypto::rsaSignPkcs1(keys().rsaKey, kDigest, sizeof kDigest, signature)) {
      state.SkipWithError("sign failed");
      break;
    }
  }
}

BENCHMARK(Sm2SignPrepared);
BENCHMARK(Sm2SignRawEvp);
BENCHMARK(Rsa2048SignPrepared);
BENCHMARK(Rsa2048SignRawEvp);
BENCHMARK(Sm2SignUnprepared);
BENCHMARK(Rsa2048SignUnprepared);

}  // namespace

BENCHMARK_MAIN();
