// Prepared private keys shared between threads: every signature made and
// every ciphertext opened at the same time on one key must come out right.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "crypto/backend.h"

namespace tembra {
namespace crypto {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 25;

// Runs `round` kRounds times on each of kThreads threads; counts failures.
template <typename Round>
int failuresOnThreads(Round round) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        if (!round(static_cast<uint8_t>(t * kRounds + i))) ++failures;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  return failures.load();
}

TEST(PreparedKeys, Sm2KeySignsAndDecryptsFromFourThreads) {
  Sm2KeyPair pair;
  ASSERT_TRUE(sm2Generate(pair));
  std::unique_ptr<PreparedSm2Key> key = PreparedSm2Key::create(pair.d.data());
  ASSERT_TRUE(key);
  EXPECT_EQ(failuresOnThreads([&](uint8_t tag) {
              uint8_t e[kSm3DigestSize] = {tag};
              uint8_t r[kSm2ScalarSize], s[kSm2ScalarSize];
              std::vector<uint8_t> message(1 + tag % 40, tag), cipher;
              SecureBytes plain;
              return key->sign(e, r, s) && sm2Verify(pair.publicKey, e, r, s) &&
                     sm2Encrypt(pair.publicKey, message.data(), message.size(), cipher) &&
                     key->decrypt(cipher.data(), cipher.size(), plain) &&
                     std::vector<uint8_t>(plain.data(), plain.data() + plain.size()) == message;
            }),
            0);
  const uint8_t outOfRange[kSm2ScalarSize] = {0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_FALSE(PreparedSm2Key::create(outOfRange));
}

TEST(PreparedKeys, RsaKeySignsAndDecryptsFromFourThreads) {
  RsaPrivateKey pair;
  ASSERT_TRUE(rsaGenerate(2048, pair));
  std::unique_ptr<PreparedRsaKey> key = PreparedRsaKey::create(pair);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->modulusSize(), 256u);
  EXPECT_EQ(failuresOnThreads([&](uint8_t tag) {
              std::vector<uint8_t> message(1 + tag % 40, tag), signature, cipher;
              SecureBytes plain;
              return key->signPkcs1(message.data(), message.size(), signature) &&
                     rsaVerifyPkcs1(pair.publicKey, message.data(), message.size(),
                                    signature.data(), signature.size()) &&
                     rsaEncryptPkcs1(pair.publicKey, message.data(), message.size(), cipher) &&
                     key->decryptPkcs1(cipher.data(), cipher.size(), plain) &&
                     std::vector<uint8_t>(plain.data(), plain.data() + plain.size()) == message;
            }),
            0);
}

}  // namespace
}  // namespace crypto
}  // namespace tembra
