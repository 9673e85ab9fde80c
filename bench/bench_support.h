// What the provider benchmarks share: a token store of the process's own,
// the demo token provisioned in it with the provider started on it, input
// bytes of a fixed pattern, and the provider's signing loop.
#ifndef TEMBRA_BENCH_BENCH_SUPPORT_H
#define TEMBRA_BENCH_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <random>
#include <string>
#include <vector>

#include "include/tembra_key_prov.h"
#include "platform/skf.h"
#include "softskf/provision/provision.h"

namespace tembra {
namespace bench {

// $TMPDIR (else /tmp)/tembra-bench-<what>-<random>-<time>, not yet created.
inline std::string newStore(const std::string &what) {
  return std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/tembra-bench-" + what + "-" +
         std::to_string(std::random_device{}()) + "-" +
         std::to_string(static_cast<long long>(time(nullptr)));
}

// The store the token uses from now on.
inline void useStore(const std::string &store) {
#ifdef _WIN32
  _putenv_s("TEMBRA_SOFTSKF_DIR", store.c_str());
#else
  setenv("TEMBRA_SOFTSKF_DIR", store.c_str(), 1);
#endif
}

// The demo token "BenchToken" provisioned in `store` and the provider
// started on it with default settings, its trace log going to a throw-away
// file beside the store at its default level. The first device, null when
// any step failed.
inline SPI_DEVICE_HANDLE startOnDemoToken(const std::string &store, SPI_DEVICESET_HANDLE &set) {
  useStore(store);
#ifndef _WIN32
  setenv("TEMBRA_KEY_PROV_LOG_PATH", (store + ".log").c_str(), 0);
#endif
  if (provision::provisionDevice(provision::demoDeviceSpec("BenchToken")) != SAR_OK) return nullptr;
  if (DeviceInit() != 1) return nullptr;
  set = DeviceGetAllDevices();
  return DeviceGetDevice(set, 0);
}

// The demo token logged in with its user PIN, and its SM2 and RSA signature
// key pairs found. False at the first step that failed.
inline bool findDemoSigningKeys(SPI_DEVICE_HANDLE device, SPI_KEYPAIR_HANDLE &sm2,
                                SPI_KEYPAIR_HANDLE &rsa) {
  int tries = 0;
  return device != nullptr && DeviceVerifyPwd(device, 1, "12345678", &tries) == 1 &&
         DeviceFindKeypair(device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "SM2Container", &sm2) == 1 &&
         DeviceFindKeypair(device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "RSAContainer", &rsa) == 1;
}

// n bytes standing for a digest or a message: i * 7 + 1.
inline std::vector<unsigned char> patternBytes(size_t n) {
  std::vector<unsigned char> d(n);
  for (size_t i = 0; i < n; ++i) d[i] = static_cast<unsigned char>(i * 7 + 1);
  return d;
}

// One DeviceSign of `inputLen` pattern bytes per iteration, into a buffer of
// `signatureSize` bytes.
inline void signWithProvider(benchmark::State &state, SPI_KEYPAIR_HANDLE key, int algorithm,
                             size_t inputLen, size_t signatureSize) {
  std::vector<unsigned char> in = patternBytes(inputLen);
  std::vector<unsigned char> sig(signatureSize);
  for (auto _ : state) {
    int len = static_cast<int>(sig.size());
    if (DeviceSign(key, algorithm, nullptr, in.data(), static_cast<int>(in.size()), sig.data(), len,
                   &len) != 1)
      return state.SkipWithError("DeviceSign failed");
    benchmark::DoNotOptimize(sig.data());
  }
}

}  // namespace bench
}  // namespace tembra

#endif  // TEMBRA_BENCH_BENCH_SUPPORT_H
