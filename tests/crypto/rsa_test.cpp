// RSA through the backend interface: PKCS#1 v1.5 signatures over raw bytes
// and encryption, on freshly generated 1024- and 2048-bit keys.
#include <gtest/gtest.h>

#include <vector>

#include "crypto/backend.h"
#include "tests/crypto/test_hex.h"

namespace tembra {
namespace crypto {
namespace {

class RsaKeys : public ::testing::TestWithParam<int> {};

// The generated keys' size, exponent and CRT parts are checked by OpenSSL
// (interop test) and across backends (crypto_cross).
// Message lengths up to k - 11, a changed signature or message and one byte
// too many are crypto_cross's, on both backends; here a prefix of the signed
// bytes, which a comparison over the shorter length would let through.
TEST_P(RsaKeys, SignatureOpensToTheSignedBytesOnly) {
  RsaPrivateKey key;
  ASSERT_TRUE(rsaGenerate(GetParam(), key));
  std::vector<uint8_t> data(35), signature;
  ASSERT_TRUE(randomBytes(data.data(), data.size()));
  ASSERT_TRUE(rsaSignPkcs1(key, data.data(), data.size(), signature));
  EXPECT_TRUE(rsaVerifyPkcs1(key.publicKey, data.data(), 35, signature.data(), signature.size()));
  EXPECT_FALSE(rsaVerifyPkcs1(key.publicKey, data.data(), 34, signature.data(), signature.size()));
}

TEST_P(RsaKeys, EncryptionRoundTripsAndRefusesWrongLengths) {
  RsaPrivateKey key, other;
  ASSERT_TRUE(rsaGenerate(GetParam(), key));
  ASSERT_TRUE(rsaGenerate(GetParam(), other));
  const size_t k = key.publicKey.n.size();
  std::vector<uint8_t> message(16);
  ASSERT_TRUE(randomBytes(message.data(), message.size()));
  std::vector<uint8_t> cipher, cipher2;
  ASSERT_TRUE(rsaEncryptPkcs1(key.publicKey, message.data(), message.size(), cipher));
  ASSERT_EQ(cipher.size(), k);
  // Random padding: two encryptions differ.
  ASSERT_TRUE(rsaEncryptPkcs1(key.publicKey, message.data(), message.size(), cipher2));
  EXPECT_NE(cipher, cipher2);
  SecureBytes plain;
  ASSERT_TRUE(rsaDecryptPkcs1(key, cipher.data(), cipher.size(), plain));
  EXPECT_EQ(std::vector<uint8_t>(plain.data(), plain.data() + plain.size()), message);
  EXPECT_FALSE(rsaDecryptPkcs1(other, cipher.data(), cipher.size(), plain));
  EXPECT_FALSE(rsaDecryptPkcs1(key, cipher.data(), cipher.size() - 1, plain));
  std::vector<uint8_t> tooLong(k - 10);
  EXPECT_FALSE(rsaEncryptPkcs1(key.publicKey, tooLong.data(), tooLong.size(), cipher));
}

INSTANTIATE_TEST_SUITE_P(Sizes, RsaKeys, ::testing::Values(1024, 2048));

TEST(Rsa, RefusesOtherKeySizes) {
  RsaPrivateKey key;
  for (int bits : {0, 512, 1023, 3072, 4096}) EXPECT_FALSE(rsaGenerate(bits, key)) << bits;
}

}  // namespace
}  // namespace crypto
}  // namespace tembra
