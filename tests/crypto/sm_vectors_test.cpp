// SM3, SM4 and SM2 against the published examples of their standards
// (GB/T 32905, GB/T 32907, GB/T 32918 / GM/T 0003.5), and SHA-256 against
// FIPS 180-4's, through the backend
// interface only, so that the same cases run on every backend.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/sm2_z.h"
#include "tests/crypto/test_hex.h"

namespace tembra {
namespace crypto {
namespace {

using testing::bytesOf;
using testing::fromHex;
using testing::toHex;

// ---- SM3 ----------------------------------------------------------------------

struct Sm3Case {
  const char *name;
  std::string message;
  const char *digest;
};

class Sm3Vectors : public ::testing::TestWithParam<Sm3Case> {};

TEST_P(Sm3Vectors, OneShotAndSplitUpdatesGiveThePublishedDigest) {
  const Sm3Case &c = GetParam();
  const std::vector<uint8_t> message = bytesOf(c.message);
  uint8_t digest[kSm3DigestSize];
  ASSERT_TRUE(sm3(message.data(), message.size(), digest));
  EXPECT_EQ(toHex(digest, sizeof digest), c.digest);

  // Every split point: the streaming state must carry partial blocks.
  for (size_t split = 0; split <= message.size(); ++split) {
    Sm3 hash;
    ASSERT_TRUE(hash.ok());
    ASSERT_TRUE(hash.update(message.data(), split));
    ASSERT_TRUE(hash.update(message.data() + split, message.size() - split));
    ASSERT_TRUE(hash.final(digest));
    EXPECT_EQ(toHex(digest, sizeof digest), c.digest) << "split at " << split;
  }
}

std::string repeat(const std::string &unit, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += unit;
  return out;
}

INSTANTIATE_TEST_SUITE_P(
    Published, Sm3Vectors,
    ::testing::Values(Sm3Case{"abc", "abc",
                              "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"},
                      Sm3Case{"abcd16", repeat("abcd", 16),
                              "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732"}),
    [](const ::testing::TestParamInfo<Sm3Case> &caseInfo) {
      return std::string(caseInfo.param.name);
    });

// ---- SHA-256 ------------------------------------------------------------------

TEST(Sha256, GivesThePublishedDigests) {
  const struct {
    std::string message;
    const char *digest;
  } cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
  };
  for (const auto &c : cases) {
    const std::vector<uint8_t> message = bytesOf(c.message);
    uint8_t digest[kSha256DigestSize];
    ASSERT_TRUE(sha256(message.data(), message.size(), digest)) << c.message;
    EXPECT_EQ(toHex(digest, sizeof digest), c.digest) << c.message;
  }
}

// ---- SM4 ----------------------------------------------------------------------

const char kSm4Key[] = "0123456789abcdeffedcba9876543210";

struct Sm4EcbCase {
  const char *name;
  const char *key;
  const char *plain;
  const char *cipher;
};

class Sm4EcbVectors : public ::testing::TestWithParam<Sm4EcbCase> {};

TEST_P(Sm4EcbVectors, EncryptsAndDecryptsThePublishedBlocks) {
  const Sm4EcbCase &c = GetParam();
  const std::vector<uint8_t> key = fromHex(c.key), plain = fromHex(c.plain);
  std::vector<uint8_t> out(plain.size());
  ASSERT_TRUE(sm4Ecb(true, key.data(), plain.data(), plain.size(), out.data()));
  EXPECT_EQ(toHex(out), c.cipher);
  // In place, as the header allows.
  ASSERT_TRUE(sm4Ecb(false, key.data(), out.data(), out.size(), out.data()));
  EXPECT_EQ(toHex(out), c.plain);
}

INSTANTIATE_TEST_SUITE_P(
    Published, Sm4EcbVectors,
    ::testing::Values(
        Sm4EcbCase{"Example1", kSm4Key, kSm4Key, "681edf34d206965e86b3e94f536e4246"},
        Sm4EcbCase{"TwoBlocksKey1", kSm4Key,
                   "aaaaaaaabbbbbbbbccccccccddddddddeeeeeeeeffffffffaaaaaaaabbbbbbbb",
                   "5ec8143de509cff7b5179f8f474b86192f1d305a7fb17df985f81c8482192304"},
        Sm4EcbCase{"TwoBlocksKey2", "fedcba98765432100123456789abcdef",
                   "aaaaaaaabbbbbbbbccccccccddddddddeeeeeeeeffffffffaaaaaaaabbbbbbbb",
                   "c5876897e4a59bbba72a10c83872245b12dd90bc2d200692b529a4155ac9e600"}),
    [](const ::testing::TestParamInfo<Sm4EcbCase> &caseInfo) {
      return std::string(caseInfo.param.name);
    });

// CBC chaining is checked against OpenSSL through the token's cipher calls
// (services test) and across backends (crypto_cross).
TEST(Sm4, UnpaddedModesRefusePartialBlocks) {
  const std::vector<uint8_t> key = fromHex(kSm4Key);
  uint8_t iv[16] = {};
  uint8_t buffer[32] = {};
  for (size_t len : {size_t{1}, size_t{15}, size_t{17}, size_t{31}}) {
    EXPECT_FALSE(sm4Ecb(true, key.data(), buffer, len, buffer)) << len;
    EXPECT_FALSE(sm4Cbc(true, key.data(), iv, buffer, len, buffer)) << len;
  }
}

// PKCS#7: every length 0..33 pads to the next whole block (a full block of
// 16 when already aligned) and comes back unchanged.
TEST(Sm4Padded, PadsEveryLengthToTheNextBlockAndStripsIt) {
  const std::vector<uint8_t> key = fromHex(kSm4Key);
  const uint8_t iv[16] = {1, 2, 3};
  std::vector<uint8_t> message(33);
  for (size_t i = 0; i < message.size(); ++i) message[i] = static_cast<uint8_t>(i * 7);
  for (size_t len = 0; len <= message.size(); ++len) {
    for (bool cbc : {false, true}) {
      SecureBytes cipher, plain;
      ASSERT_TRUE(cbc ? sm4CbcPadded(true, key.data(), iv, message.data(), len, cipher)
                      : sm4EcbPadded(true, key.data(), message.data(), len, cipher));
      EXPECT_EQ(cipher.size(), (len / 16 + 1) * 16) << len;
      // The last block opened without padding shows the PKCS#7 bytes.
      std::vector<uint8_t> raw(cipher.size());
      ASSERT_TRUE(cbc ? sm4Cbc(false, key.data(), iv, cipher.data(), cipher.size(), raw.data())
                      : sm4Ecb(false, key.data(), cipher.data(), cipher.size(), raw.data()));
      EXPECT_EQ(raw.back(), 16 - len % 16) << len;
      ASSERT_TRUE(cbc ? sm4CbcPadded(false, key.data(), iv, cipher.data(), cipher.size(), plain)
                      : sm4EcbPadded(false, key.data(), cipher.data(), cipher.size(), plain));
      ASSERT_EQ(plain.size(), len);
      EXPECT_EQ(0, len == 0 ? 0 : memcmp(plain.data(), message.data(), len));
    }
  }
}

// Padding verdicts (a zero, 17, mismatched bytes) are crypto_cross's, on both
// backends and modes; here the lengths no padded ciphertext can have.
TEST(Sm4Padded, RefusesLengthsThatAreNotWholeBlocks) {
  const std::vector<uint8_t> key = fromHex(kSm4Key);
  SecureBytes plain;
  uint8_t buffer[17] = {};
  EXPECT_FALSE(sm4EcbPadded(false, key.data(), buffer, 0, plain));
  EXPECT_FALSE(sm4EcbPadded(false, key.data(), buffer, 17, plain));
}

// ---- SM2 ----------------------------------------------------------------------

// GM/T 0003.5 / GB/T 32918.5 examples on the recommended curve.
const char kPrivate[] = "3945208F7B2144B13F36E38AC6D39F95889393692860B51A42FB81EF4DF7C5B8";
const char kPublicX[] = "09F9DF311E5421A150DD7D161E4BC5C672179FAD1833FC076BB08FF356F35020";
const char kPublicY[] = "CCEA490CE26775A52DC6EA718CC1AA600AED05FBF35E084A6632F6072DA9AD13";
const char kZ[] = "B2E14C5C79C6DF5B85F4FE7ED8DB7A262B9DA7E07CCB0EA9F4747B8CCDA8A4F3";
const char kE[] = "F0B43E94BA45ACCAACE692ED534382EB17E6AB5A19CE7B31F4486FDFC0D28640";
const char kR[] = "F5A03B0648D2C4630EEAC513E1BB81A15944DA3827D5B74143AC7EACEEE720B3";
const char kS[] = "B1B6AA29DF212FD8763182BC0D421CA1BB9038FD1F7F42D4840B69C485BBC1AA";
// "encryption standard" under the same key, in the flat C1 || C2 || C3 form.
const char kCipher[] =
    "04"
    "04EBFC718E8D1798620432268E77FEB6415E2EDE0E073C0F4F640ECD2E149A73"
    "E858F9D81E5430A57B36DAAB8F950A3C64E6EE6A63094D99283AFF767E124DF0"
    "21886CA989CA9C7D58087307CA93092D651EFA"
    "59983C18F809E262923C53AEC295D30383B54E39D609D160AFCB1908D0BD8766";

std::string upper(std::string s) {
  for (char &c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return s;
}

Sm2PublicKey publishedKey() {
  Sm2PublicKey key;
  memcpy(key.x, fromHex(kPublicX).data(), 32);
  memcpy(key.y, fromHex(kPublicY).data(), 32);
  return key;
}

TEST(Sm2Published, PublicKeyFollowsFromThePrivateKey) {
  Sm2PublicKey derived;
  ASSERT_TRUE(sm2PublicFromPrivate(fromHex(kPrivate).data(), derived));
  EXPECT_EQ(upper(toHex(derived.x, 32)), kPublicX);
  EXPECT_EQ(upper(toHex(derived.y, 32)), kPublicY);
  EXPECT_TRUE(sm2ValidatePublic(derived));
}

TEST(Sm2Published, ZAndDigestOfTheDefaultIdentifier) {
  const Sm2PublicKey key = publishedKey();
  uint8_t z[32], e[32];
  ASSERT_TRUE(sm2ComputeZ(key, kSm2DefaultId, kSm2DefaultIdSize, z));
  EXPECT_EQ(upper(toHex(z, 32)), kZ);
  const std::vector<uint8_t> message = bytesOf("message digest");
  ASSERT_TRUE(
      sm2DigestWithZ(key, kSm2DefaultId, kSm2DefaultIdSize, message.data(), message.size(), e));
  EXPECT_EQ(upper(toHex(e, 32)), kE);
}

TEST(Sm2Published, VerifiesThePublishedSignatureAndNoAlteredOne) {
  const Sm2PublicKey key = publishedKey();
  std::vector<uint8_t> e = fromHex(kE), r = fromHex(kR), s = fromHex(kS);
  EXPECT_TRUE(sm2Verify(key, e.data(), r.data(), s.data()));
  // One flipped bit in each input, and the swapped pair, must fail.
  for (std::vector<uint8_t> *part : {&e, &r, &s}) {
    (*part)[31] ^= 1;
    EXPECT_FALSE(sm2Verify(key, e.data(), r.data(), s.data()));
    (*part)[31] ^= 1;
  }
  EXPECT_FALSE(sm2Verify(key, e.data(), s.data(), r.data()));
}

TEST(Sm2Published, DecryptsThePublishedCiphertext) {
  const std::vector<uint8_t> d = fromHex(kPrivate);
  std::vector<uint8_t> cipher = fromHex(kCipher);
  SecureBytes plain;
  ASSERT_TRUE(sm2Decrypt(d.data(), cipher.data(), cipher.size(), plain));
  EXPECT_EQ(std::string(plain.data(), plain.data() + plain.size()), "encryption standard");
  // Refused: C2 or C3 changed (C3 protects C2), no 04 marker, C1 off the
  // curve (last byte of y), one byte short.
  for (size_t at : {size_t{65}, cipher.size() - 1, size_t{0}, size_t{64}}) {
    cipher[at] ^= 0x02;
    EXPECT_FALSE(sm2Decrypt(d.data(), cipher.data(), cipher.size(), plain)) << at;
    cipher[at] ^= 0x02;
  }
  EXPECT_FALSE(sm2Decrypt(d.data(), cipher.data(), cipher.size() - 1, plain));
}

TEST(Sm2, SignVerifyRoundTripAndWrongKeyFails) {
  Sm2KeyPair keyPair, other;
  ASSERT_TRUE(sm2Generate(keyPair));
  ASSERT_TRUE(sm2Generate(other));
  uint8_t e[32], r[32], s[32];
  ASSERT_TRUE(randomBytes(e, sizeof e));
  ASSERT_TRUE(sm2Sign(keyPair.d.data(), e, r, s));
  EXPECT_TRUE(sm2Verify(keyPair.publicKey, e, r, s));
  EXPECT_FALSE(sm2Verify(other.publicKey, e, r, s));
  // Signatures are randomised: a second one differs and verifies too.
  uint8_t r2[32], s2[32];
  ASSERT_TRUE(sm2Sign(keyPair.d.data(), e, r2, s2));
  EXPECT_NE(toHex(r, 32), toHex(r2, 32));
  EXPECT_TRUE(sm2Verify(keyPair.publicKey, e, r2, s2));
}

// Encryption round trips over message lengths (an empty C2 included) are
// crypto_cross's, on both backends; the DER length forms the OpenSSL backend
// converts through are the DER writer's and reader's tests.

// Scalars and points at the edges of their ranges.
TEST(Sm2, RefusesOutOfRangeScalarsAndPoints) {
  const std::vector<uint8_t> n =
      fromHex("FFFFFFFEFFFFFFFFFFFFFFFFFFFFFFFF7203DF6B21C6052B53BBF40939D54123");
  std::vector<uint8_t> nMinus1 = n;
  nMinus1[31] -= 1;
  std::vector<uint8_t> nMinus2 = n;
  nMinus2[31] -= 2;
  const std::vector<uint8_t> zero(32, 0);
  Sm2PublicKey pub;
  EXPECT_FALSE(sm2PublicFromPrivate(zero.data(), pub));
  EXPECT_FALSE(sm2PublicFromPrivate(nMinus1.data(), pub));
  EXPECT_FALSE(sm2PublicFromPrivate(n.data(), pub));
  EXPECT_TRUE(sm2PublicFromPrivate(nMinus2.data(), pub));

  Sm2PublicKey offCurve = publishedKey();
  offCurve.y[31] ^= 1;
  EXPECT_FALSE(sm2ValidatePublic(offCurve));
  uint8_t e[32] = {}, r[32], s[32];
  EXPECT_FALSE(sm2Verify(offCurve, e, fromHex(kR).data(), fromHex(kS).data()));
  std::vector<uint8_t> cipher;
  EXPECT_FALSE(sm2Encrypt(offCurve, e, sizeof e, cipher));
  // r = 0 and s = n are outside [1, n - 1].
  const Sm2PublicKey key = publishedKey();
  EXPECT_FALSE(sm2Verify(key, fromHex(kE).data(), zero.data(), fromHex(kS).data()));
  EXPECT_FALSE(sm2Verify(key, fromHex(kE).data(), fromHex(kR).data(), n.data()));
  EXPECT_FALSE(sm2Sign(zero.data(), e, r, s));
}

}  // namespace
}  // namespace crypto
}  // namespace tembra
