// Signing from several threads at once, on one device and on two: every
// signature must verify (the token call is serialised under the provider's
// lock; nothing else is shared). Then mixed operations on one device at once:
// certificate reads against updates, signing, key pair handles and PIN retry
// queries (the test the ThreadSanitizer build runs).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "crypto/sm2_z.h"
#include "tests/provider_ops/ops_fixture.h"

namespace opstest {
namespace {

constexpr int kThreads = 4;
constexpr int kSignaturesPerThread = 16;

class SignThreadsTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    ContainerSpec sm2 = keyContainer("sm2", KeyKind::Sm2);
    sm2.encryptionKey = false;
    return {makeToken("first", {sm2}), makeToken("second", {sm2})};
  }

  struct Signer {
    SPI_KEYPAIR_HANDLE hKeypair = nullptr;
    tembra::crypto::Sm2PublicKey key{};
  };

  Signer signer(const std::string &label) {
    Signer s;
    SPI_DEVICE_HANDLE hDevice = device(label);
    login(hDevice);
    s.hKeypair = keypair(hDevice, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "sm2");
    const std::vector<uint8_t> spki = publicKey(s.hKeypair);
    EXPECT_TRUE(tembra::crypto::decodeSm2Spki(spki.data(), spki.size(), s.key));
    return s;
  }

  // Each thread signs its own digests with the signer of its parity; every
  // signature is checked afterwards against the right key and digest.
  void signConcurrently(const std::vector<Signer> &signers) {
    struct Made {
      int rv = 0;
      size_t signer = 0;
      std::vector<uint8_t> digest;
      std::vector<uint8_t> signature;
    };
    std::vector<std::vector<Made>> made(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < kSignaturesPerThread; ++i) {
          Made m;
          m.signer = static_cast<size_t>(t) % signers.size();
          m.digest.assign(32, static_cast<uint8_t>(t * kSignaturesPerThread + i));
          m.signature.resize(80);
          int length = 0;
          m.rv = DeviceSign(signers[m.signer].hKeypair, ORVEL_PKI_ALGORITHM_SM2_SIGN, nullptr,
                            m.digest.data(), 32, m.signature.data(), 80, &length);
          m.signature.resize(m.rv == 1 ? static_cast<size_t>(length) : 0);
          made[t].push_back(std::move(m));
        }
      });
    }
    for (std::thread &thread : threads) thread.join();

    int verified = 0;
    for (const std::vector<Made> &list : made) {
      for (const Made &m : list) {
        ASSERT_EQ(1, m.rv);
        uint8_t r[32];
        uint8_t s[32];
        ASSERT_TRUE(
            tembra::crypto::decodeSm2Signature(m.signature.data(), m.signature.size(), r, s));
        EXPECT_TRUE(tembra::crypto::sm2Verify(signers[m.signer].key, m.digest.data(), r, s));
        ++verified;
      }
    }
    EXPECT_EQ(kThreads * kSignaturesPerThread, verified);
  }
};

TEST_F(SignThreadsTest, OneDevice) {
  signConcurrently({signer("first-label")});
}

TEST_F(SignThreadsTest, TwoDevices) {
  signConcurrently({signer("first-label"), signer("second-label")});
}

// One thread replaces the signature certificate again and again, alternating
// two certificates of different lengths, while others read it, sign, take
// and release key pair handles and ask for the PIN retry count. Every read
// must give one certificate whole, never a mix or freed memory.
TEST_F(SignThreadsTest, MixedOperationsOnOneDevice) {
  const Signer s = signer("first-label");
  SPI_DEVICE_HANDLE hDevice = device("first-label");
  const std::vector<uint8_t> certs[] = {std::vector<uint8_t>(600, 0xA1),
                                        std::vector<uint8_t>(900, 0xB2)};
  ASSERT_EQ(1, DeviceUpdateCertificate(s.hKeypair, certs[0].data(), 600));

  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  auto check = [&failures](bool ok) {
    if (!ok) ++failures;
  };
  // Each worker runs its operation until the writer is done, at least 20 times.
  auto worker = [&done](auto operation) {
    return std::thread([&done, operation] {
      for (int i = 0; i < 20 || !done; ++i) operation();
    });
  };
  std::vector<std::thread> threads;
  threads.push_back(worker([&] {
    std::vector<uint8_t> out(1024);
    int len = 0;
    check(DeviceGetCertificate(s.hKeypair, 0, out.data(), 1024, &len) == 1);
    const size_t n = static_cast<size_t>(len);
    check(n == 600 || n == 900);
    check(std::vector<uint8_t>(out.begin(), out.begin() + n) == certs[n == 600 ? 0 : 1]);
  }));
  threads.push_back(worker([&] {
    uint8_t digest[32] = {1};
    uint8_t signature[80];
    int len = 0;
    check(DeviceSign(s.hKeypair, ORVEL_PKI_ALGORITHM_SM2_SIGN, nullptr, digest, 32, signature,
                     80, &len) == 1);
  }));
  threads.push_back(worker([&] {
    SPI_KEYPAIR_HANDLE h = DeviceGetKeypair(hDevice, 0);
    check(h != nullptr && DeviceGetKeypairCount(hDevice) == 1);
    DeviceFreeKeypair(h);
  }));
  threads.push_back(worker([&] {
    int retries = 0;
    check(DeviceGetPwdRetryNum(hDevice, 1, &retries) == 1 && retries == static_cast<int>(kRetries));
  }));
  for (int i = 1; i <= 30; ++i) {
    const std::vector<uint8_t> &cert = certs[i % 2];
    check(DeviceUpdateCertificate(s.hKeypair, cert.data(), static_cast<int>(cert.size())) == 1);
  }
  done = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(0, failures.load());
}

}  // namespace
}  // namespace opstest
