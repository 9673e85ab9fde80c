// Benchmarks of the provider's cost over the token it drives.
//
// Each provider benchmark has a baseline measured in the same run: the same
// token operation called directly through SKF. The interesting number is the
// ratio (provider time / baseline time), which tells the provider's own
// overhead (argument checks, trace lines, the lock, encoding) independent of
// the machine. Run: build with -DTEMBRA_BUILD_BENCH=ON, then
//   bin/provider_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/bench_support.h"

namespace {

using tembra::bench::patternBytes;
using tembra::bench::signWithProvider;

// One provisioned demo token in a store of this process, and the provider
// started on it, shared by every benchmark.
struct Fixture {
  SPI_DEVICESET_HANDLE set = nullptr;
  SPI_DEVICE_HANDLE device = nullptr;
  SPI_KEYPAIR_HANDLE sm2 = nullptr;
  SPI_KEYPAIR_HANDLE rsa = nullptr;
  DEVHANDLE hDev = nullptr;
  HAPPLICATION hApp = nullptr;
  HCONTAINER hSm2 = nullptr;
  HCONTAINER hRsa = nullptr;
  bool ok = false;

  Fixture() {
    device = tembra::bench::startOnDemoToken(tembra::bench::newStore("store"), set);
    if (!tembra::bench::findDemoSigningKeys(device, sm2, rsa)) return;
    // The baseline's own session on the same token.
    ULONG retry = 0;
    char name[] = "BenchToken", app[] = "TembraApp", sm2Name[] = "SM2Container",
         rsaName[] = "RSAContainer", pin[] = "12345678";
    ok = SKF_ConnectDev(name, &hDev) == SAR_OK && SKF_OpenApplication(hDev, app, &hApp) == SAR_OK &&
         SKF_VerifyPIN(hApp, USER_TYPE, pin, &retry) == SAR_OK &&
         SKF_OpenContainer(hApp, sm2Name, &hSm2) == SAR_OK &&
         SKF_OpenContainer(hApp, rsaName, &hRsa) == SAR_OK;
  }
};

Fixture &fixture() {
  static Fixture f;
  return f;
}

void BM_Sm2SignBaseline(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  std::vector<unsigned char> e = patternBytes(32);
  for (auto _ : state) {
    ECCSIGNATUREBLOB blob;
    if (SKF_ECCSignData(f.hSm2, e.data(), 32, &blob) != SAR_OK)
      return state.SkipWithError("SKF_ECCSignData failed");
    benchmark::DoNotOptimize(blob);
  }
}

void BM_Sm2SignProvider(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  signWithProvider(state, f.sm2, ORVEL_PKI_ALGORITHM_SM2_SIGN, 32, 80);
}

void BM_RsaSignBaseline(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  std::vector<unsigned char> tbs = patternBytes(51);
  unsigned char sig[256];
  for (auto _ : state) {
    ULONG len = sizeof sig;
    if (SKF_RSASignData(f.hRsa, tbs.data(), 51, sig, &len) != SAR_OK)
      return state.SkipWithError("SKF_RSASignData failed");
    benchmark::DoNotOptimize(sig);
  }
}

void BM_RsaSignProvider(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  signWithProvider(state, f.rsa, ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN, 51, 256);
}

// Attribute getters touch no token: their cost is the trace line alone.
void BM_KeypairAttributeGetter(benchmark::State &state) {
  Fixture &f = fixture();
  if (!f.ok) return state.SkipWithError("no token");
  for (auto _ : state) benchmark::DoNotOptimize(DeviceGetKeypairBits(f.sm2));
}

BENCHMARK(BM_Sm2SignBaseline)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Sm2SignProvider)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RsaSignBaseline)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RsaSignProvider)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KeypairAttributeGetter)->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();
