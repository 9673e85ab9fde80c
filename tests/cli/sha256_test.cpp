// SHA-256 against the FIPS 180-4 examples and, on Linux, against OpenSSL for
// every length across several block boundaries fed in uneven pieces.
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "softskf/provision/sha256.h"

#ifdef TEMBRA_TEST_HAVE_OPENSSL
#include <openssl/sha.h>
#endif

namespace tembra {
namespace {

std::string hex(const uint8_t *p, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[p[i] >> 4];
    out += kDigits[p[i] & 15];
  }
  return out;
}

struct Vector {
  std::string message;
  size_t repeat;
  const char *digest;
};

class Sha256Vectors : public ::testing::TestWithParam<Vector> {};

TEST_P(Sha256Vectors, MatchPublishedDigest) {
  const Vector &v = GetParam();
  Sha256 hash;
  for (size_t i = 0; i < v.repeat; ++i) {
    hash.update(reinterpret_cast<const uint8_t *>(v.message.data()), v.message.size());
  }
  uint8_t digest[kSha256DigestSize];
  hash.final(digest);
  EXPECT_EQ(hex(digest, sizeof(digest)), v.digest);
}

INSTANTIATE_TEST_SUITE_P(
    Fips180, Sha256Vectors,
    ::testing::Values(
        Vector{"", 1, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        Vector{"abc", 1, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        Vector{"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1,
               "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        Vector{"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopq"
               "klmnopqrlmnopqrsmnopqrstnopqrstu",
               1, "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
        Vector{"a", 1000000, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}));

#ifdef TEMBRA_TEST_HAVE_OPENSSL
TEST(Sha256, AgreesWithOpenSslAcrossBlockBoundaries) {
  std::vector<uint8_t> data(300);
  for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 131 + 7);
  for (size_t len = 0; len <= data.size(); ++len) {
    uint8_t expected[SHA256_DIGEST_LENGTH];
    SHA256(data.data(), len, expected);
    for (size_t piece : {size_t(1), size_t(13), size_t(63), size_t(64), size_t(65)}) {
      Sha256 hash;
      for (size_t offset = 0; offset < len; offset += piece) {
        hash.update(data.data() + offset, len - offset < piece ? len - offset : piece);
      }
      uint8_t digest[kSha256DigestSize];
      hash.final(digest);
      ASSERT_EQ(hex(digest, 32), hex(expected, 32)) << "length " << len << " piece " << piece;
    }
  }
}
#endif

TEST(Sha256, ResetStartsAfresh) {
  Sha256 hash;
  hash.update(reinterpret_cast<const uint8_t *>("junk"), 4);
  hash.reset();
  hash.update(reinterpret_cast<const uint8_t *>("abc"), 3);
  uint8_t digest[kSha256DigestSize];
  hash.final(digest);
  EXPECT_EQ(hex(digest, 32), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
}  // namespace tembra
