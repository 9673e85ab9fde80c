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
TEST_P(RsaKeys, SignatureOpensToTheSignedBytesOnly) {
  RsaPrivateKey key;
  ASSERT_TRUE(rsaGenerate(GetParam(), key));
  const size_t k = key.publicKey.n.size();
  // Up to the largest message a type-1 block can carry (k - 11 bytes).
  for (size_t len : {size_t{1}, size_t{32}, size_t{35}, k - 11}) {
    std::vector<uint8_t> data(len);
    ASSERT_TRUE(randomBytes(data.data(), len));
    std::vector<uint8_t> signature;
    ASSERT_TRUE(rsaSignPkcs1(key, data.data(), len, signature)) << len;
    ASSERT_EQ(signature.size(), k);
    EXPECT_TRUE(rsaVerifyPkcs1(key.publicKey, data.data(), len, signature.data(), k));
    // A different message, a shorter message (prefix) and a changed
    // signature are all refused.
    std::vector<uint8_t> other = data;
    other[0] ^= 1;
    EXPECT_FALSE(rsaVerifyPkcs1(key.publicKey, other.data(), len, signature.data(), k));
    EXPECT_FALSE(rsaVerifyPkcs1(key.publicKey, data.data(), len - 1, signature.data(), k));
    signature[k / 2] ^= 1;
    EXPECT_FALSE(rsaVerifyPkcs1(key.publicKey, data.data(), len, signature.data(), k));
  }
  std::vector<uint8_t> tooLong(k - 10), signature;
  EXPECT_FALSE(rsaSignPkcs1(key, tooLong.data(), tooLong.size(), signature));
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
