// Benchmarks of the software token at the pace of its crypto.
//
// Signing: the provider's DeviceSign over the software token against raw
// OpenSSL EVP signing with a key prepared once (an EVP_PKEY made before the
// loop), the same kind of key and the same input, measured in the same run:
// the interesting figure is the ratio (OpenSSL time / provider time).
// Discovery: DeviceGetAllDevices + DeviceFreeDevices over 4 tokens holding 1,
// 8 and 32 containers each (SM2 signature and encryption key pairs with
// certificates). Run: build with -DTEMBRA_BUILD_BENCH=ON, then
//   bin/token_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <map>
#include <string>
#include <vector>

#include "bench/bench_support.h"

namespace {

using tembra::bench::newStore;
using tembra::bench::signWithProvider;
using tembra::bench::useStore;

// The demo token, the provider started on it and logged in.
struct SignFixture {
  SPI_DEVICESET_HANDLE set = nullptr;
  SPI_KEYPAIR_HANDLE sm2 = nullptr;
  SPI_KEYPAIR_HANDLE rsa = nullptr;
  std::string store = newStore("sign");
  bool ok = false;

  SignFixture() {
    SPI_DEVICE_HANDLE device = tembra::bench::startOnDemoToken(store, set);
    ok = tembra::bench::findDemoSigningKeys(device, sm2, rsa);
  }
};

SignFixture &signFixture() {
  static SignFixture f;
  return f;
}

// One sign with a prepared key, as an application using OpenSSL does it.
bool evpSign(EVP_PKEY *key, bool rsa, const std::vector<unsigned char> &in, unsigned char *sig,
             size_t &len) {
  EVP_PKEY_CTX *ctx = EVP_PKEY_CTX_new(key, nullptr);
  bool ok = ctx != nullptr && EVP_PKEY_sign_init(ctx) == 1 &&
            (!rsa || EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1) &&
            EVP_PKEY_sign(ctx, sig, &len, in.data(), in.size()) == 1;
  EVP_PKEY_CTX_free(ctx);
  return ok;
}

void BM_Sm2SignOpenSsl(benchmark::State &state) {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  if (key == nullptr) return state.SkipWithError("no SM2 key");
  std::vector<unsigned char> e = tembra::bench::patternBytes(32);
  unsigned char sig[80];
  for (auto _ : state) {
    size_t len = sizeof sig;
    if (!evpSign(key, false, e, sig, len)) return state.SkipWithError("EVP_PKEY_sign failed");
    benchmark::DoNotOptimize(sig);
  }
  EVP_PKEY_free(key);
}

void BM_Sm2SignProvider(benchmark::State &state) {
  SignFixture &f = signFixture();
  if (!f.ok) return state.SkipWithError("no token");
  useStore(f.store);
  signWithProvider(state, f.sm2, ORVEL_PKI_ALGORITHM_SM2_SIGN, 32, 80);
}

void BM_RsaSignOpenSsl(benchmark::State &state) {
  EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048));
  if (key == nullptr) return state.SkipWithError("no RSA key");
  std::vector<unsigned char> tbs = tembra::bench::patternBytes(51);
  unsigned char sig[256];
  for (auto _ : state) {
    size_t len = sizeof sig;
    if (!evpSign(key, true, tbs, sig, len)) return state.SkipWithError("EVP_PKEY_sign failed");
    benchmark::DoNotOptimize(sig);
  }
  EVP_PKEY_free(key);
}

void BM_RsaSignProvider(benchmark::State &state) {
  SignFixture &f = signFixture();
  if (!f.ok) return state.SkipWithError("no token");
  useStore(f.store);
  signWithProvider(state, f.rsa, ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN, 51, 256);
}

// A store of 4 tokens with `containers` SM2 containers each, made once per
// size.
const std::string &discoveryStore(int containers) {
  static std::map<int, std::string> stores;
  auto it = stores.find(containers);
  if (it != stores.end()) return it->second;
  std::string store = newStore("discovery" + std::to_string(containers));
  useStore(store);
  for (int t = 0; t < 4; ++t) {
    tembra::provision::DeviceSpec layout;
    layout.name = "Token" + std::to_string(t);
    layout.label = layout.name;
    layout.serial = "S" + std::to_string(t);
    tembra::provision::ApplicationSpec app;
    app.name = "TembraApp";
    for (int c = 0; c < containers; ++c) {
      tembra::provision::ContainerSpec container;
      container.name = "C" + std::to_string(c);
      app.containers.push_back(container);
    }
    layout.applications.push_back(app);
    if (tembra::provision::provisionDevice(layout) != SAR_OK) store.clear();
  }
  return stores[containers] = store;
}

void BM_Discovery(benchmark::State &state) {
  if (!signFixture().ok) return state.SkipWithError("no provider");
  const std::string &store = discoveryStore(static_cast<int>(state.range(0)));
  if (store.empty()) return state.SkipWithError("no store");
  useStore(store);
  for (auto _ : state) {
    SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
    if (set == nullptr || DeviceGetDeviceCount(set) != 4)
      return state.SkipWithError("discovery failed");
    DeviceFreeDevices(set);
  }
  state.counters["containers"] = static_cast<double>(4 * state.range(0));
}

BENCHMARK(BM_Sm2SignOpenSsl)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Sm2SignProvider)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RsaSignOpenSsl)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RsaSignProvider)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Discovery)->Arg(1)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
