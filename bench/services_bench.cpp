// Benchmarks of the token services through the provider against OpenSSL over
// the same bytes, measured in the same run: SM3 over 1 MiB with
// DeviceHashUpdate at the default MaxOperationLen (1024-byte pieces), and
// SM4-CBC over 1 MiB with DeviceCipherUpdate. The ratio OpenSSL time /
// provider time is the figure of merit (targets: 0.8 for SM3, 0.75 for
// SM4-CBC). Run: build with -DTEMBRA_BUILD_BENCH=ON, then
//   bin/services_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <vector>

#include "bench/bench_support.h"

namespace {

constexpr size_t kDataSize = 1u << 20;
const unsigned char kKey[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const unsigned char kIv[16] = {16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};

// One provisioned token in a store of this process and the provider started
// on it with default settings, logging at its default level.
struct Fixture {
  SPI_DEVICESET_HANDLE set = nullptr;
  SPI_DEVICE_HANDLE device = nullptr;
  std::vector<unsigned char> data = std::vector<unsigned char>(kDataSize);
  std::vector<unsigned char> out = std::vector<unsigned char>(kDataSize);
  EVP_MD *sm3 = EVP_MD_fetch(nullptr, "SM3", nullptr);
  EVP_CIPHER *sm4Cbc = EVP_CIPHER_fetch(nullptr, "SM4-CBC", nullptr);
  bool ok = false;

  Fixture() {
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31 + 7);
    device = tembra::bench::startOnDemoToken(tembra::bench::newStore("services"), set);
    ok = device != nullptr && sm3 != nullptr && sm4Cbc != nullptr;
  }
};

Fixture &fixture() {
  static Fixture f;
  return f;
}

void setBytes(benchmark::State &state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kDataSize));
}

void BM_Sm3OpenSsl(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  unsigned char digest[32];
  for (auto _ : state) {
    unsigned int len = 0;
    if (EVP_Digest(f.data.data(), f.data.size(), digest, &len, f.sm3, nullptr) != 1)
      return state.SkipWithError("EVP_Digest failed");
    benchmark::DoNotOptimize(digest);
  }
  setBytes(state);
}

// A whole digest per iteration (new, one 1 MiB update, final, free), as the
// baseline makes one.
void BM_Sm3DeviceHashUpdate(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  unsigned char digest[32];
  for (auto _ : state) {
    SPI_HASH_HANDLE hHash = DeviceNewHash(f.device, ORVEL_PKI_ALGORITHM_SM3);
    int len = 0;
    if (hHash == nullptr ||
        DeviceHashUpdate(hHash, f.data.data(), static_cast<int>(f.data.size())) != 1 ||
        DeviceHashFinal(hHash, digest, 32, &len) != 1)
      return state.SkipWithError("provider hash failed");
    DeviceFreeHash(hHash);
    benchmark::DoNotOptimize(digest);
  }
  setBytes(state);
}

void BM_Sm4CbcOpenSsl(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  for (auto _ : state) {
    int n = 0;
    if (EVP_CipherInit_ex2(ctx, f.sm4Cbc, kKey, kIv, 1, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx, 0) != 1 ||
        EVP_CipherUpdate(ctx, f.out.data(), &n, f.data.data(), static_cast<int>(f.data.size())) !=
            1)
      return state.SkipWithError("EVP_CipherUpdate failed");
    benchmark::DoNotOptimize(f.out.data());
  }
  EVP_CIPHER_CTX_free(ctx);
  setBytes(state);
}

// One 1 MiB update per iteration on one cipher handle (the chain carries on).
void BM_Sm4CbcDeviceCipherUpdate(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  SPI_CIPHER_HANDLE hCipher =
      DeviceNewCipher(f.device, 1, ORVEL_PKI_ALGORITHM_SMS4_CBC, kKey, 16, kIv);
  if (hCipher == nullptr) return state.SkipWithError("DeviceNewCipher failed");
  for (auto _ : state) {
    int len = 0;
    if (DeviceCipherUpdate(hCipher, f.data.data(), static_cast<int>(f.data.size()), f.out.data(),
                           static_cast<int>(f.out.size()), &len) != 1)
      return state.SkipWithError("DeviceCipherUpdate failed");
    benchmark::DoNotOptimize(f.out.data());
  }
  DeviceFreeCipher(hCipher);
  setBytes(state);
}

BENCHMARK(BM_Sm3OpenSsl)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sm3DeviceHashUpdate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sm4CbcOpenSsl)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sm4CbcDeviceCipherUpdate)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
