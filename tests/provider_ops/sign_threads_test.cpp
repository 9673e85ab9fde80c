// Signing from several threads at once, on one device and on two: every
// signature must verify (the token call is serialised under the provider's
// lock; nothing else is shared).
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace opstest
