// Key and signature encodings and the "_KEYPAIR" blob: fixed layouts,
// round trips, and refusal of every kind of malformed input.
#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "crypto/keypair_blob.h"
#include "tests/crypto/test_hex.h"

namespace tembra {
namespace crypto {
namespace {

using testing::fromHex;
using testing::toHex;

const char kPublicX[] = "09f9df311e5421a150dd7d161e4bc5c672179fad1833fc076bb08ff356f35020";
const char kPublicY[] = "ccea490ce26775a52dc6ea718cc1aa600aed05fbf35e084a6632f6072da9ad13";
// SEQUENCE { SEQUENCE { id-ecPublicKey, SM2 curve }, BIT STRING 04 || x || y }
const char kSm2SpkiPrefix[] =
    "3059301306072a8648ce3d020106082a811ccf5501822d034200"
    "04";

Sm2PublicKey publishedKey() {
  Sm2PublicKey key;
  memcpy(key.x, fromHex(kPublicX).data(), 32);
  memcpy(key.y, fromHex(kPublicY).data(), 32);
  return key;
}

TEST(Sm2Spki, HasTheFixedLayoutAndRoundTrips) {
  std::vector<uint8_t> der;
  ASSERT_TRUE(encodeSm2Spki(publishedKey(), der));
  EXPECT_EQ(toHex(der), std::string(kSm2SpkiPrefix) + kPublicX + kPublicY);
  EXPECT_EQ(spkiAlgorithm(der.data(), der.size()), KeyAlgorithm::kSm2);
  Sm2PublicKey back;
  ASSERT_TRUE(decodeSm2Spki(der.data(), der.size(), back));
  EXPECT_EQ(toHex(back.x, 32), kPublicX);
  EXPECT_EQ(toHex(back.y, 32), kPublicY);
  RsaPublicKey rsa;
  EXPECT_FALSE(decodeRsaSpki(der.data(), der.size(), rsa));
}

// A mutation of a valid encoding, and whether the decoder must refuse it.
struct Mutation {
  const char *name;
  std::function<void(std::vector<uint8_t> &)> apply;
};

class Sm2SpkiRefuses : public ::testing::TestWithParam<Mutation> {};

TEST_P(Sm2SpkiRefuses, MalformedEncoding) {
  std::vector<uint8_t> der;
  ASSERT_TRUE(encodeSm2Spki(publishedKey(), der));
  GetParam().apply(der);
  Sm2PublicKey key;
  EXPECT_FALSE(decodeSm2Spki(der.data(), der.size(), key));
}

INSTANTIATE_TEST_SUITE_P(
    Mutations, Sm2SpkiRefuses,
    ::testing::Values(Mutation{"Truncated", [](std::vector<uint8_t> &d) { d.pop_back(); }},
                      Mutation{"TrailingByte", [](std::vector<uint8_t> &d) { d.push_back(0); }},
                      Mutation{"OuterLengthPlusOne", [](std::vector<uint8_t> &d) { d[1]++; }},
                      Mutation{"WrongAlgorithmOid", [](std::vector<uint8_t> &d) { d[12]++; }},
                      Mutation{"WrongCurveOid", [](std::vector<uint8_t> &d) { d[22]++; }},
                      Mutation{"CompressedPointMarker",
                               [](std::vector<uint8_t> &d) { d[26] = 0x02; }},
                      Mutation{"UnusedBitsInBitString", [](std::vector<uint8_t> &d) { d[25] = 1; }},
                      Mutation{"OffCurve", [](std::vector<uint8_t> &d) { d.back() ^= 1; }}),
    [](const ::testing::TestParamInfo<Mutation> &caseInfo) {
      return std::string(caseInfo.param.name);
    });

TEST(RsaSpki, EncodesWithoutLeadingZerosAndRoundTrips) {
  RsaPublicKey key;
  key.n = fromHex("00c0ffee01");  // leading zero: ignored
  key.e = fromHex("00010001");
  std::vector<uint8_t> der;
  ASSERT_TRUE(encodeRsaSpki(key, der));
  // rsaEncryption with NULL, then BIT STRING { SEQUENCE { 00c0ffee01, 010001 } }.
  EXPECT_EQ(toHex(der),
            "3020"
            "300d06092a864886f70d010101"
            "0500"
            "030f00"
            "300c020500c0ffee010203010001");
  EXPECT_EQ(spkiAlgorithm(der.data(), der.size()), KeyAlgorithm::kRsa);
  RsaPublicKey back;
  ASSERT_TRUE(decodeRsaSpki(der.data(), der.size(), back));
  EXPECT_EQ(toHex(back.n), "c0ffee01");
  EXPECT_EQ(toHex(back.e), "010001");
}

TEST(RsaSpki, RefusesMalformedEncodings) {
  RsaPublicKey key;
  key.n = fromHex("c0ffee01");
  key.e = fromHex("010001");
  std::vector<uint8_t> good;
  ASSERT_TRUE(encodeRsaSpki(key, good));
  std::vector<std::pair<const char *, std::vector<uint8_t>>> cases;
  cases.push_back({"Truncated", std::vector<uint8_t>(good.begin(), good.end() - 1)});
  std::vector<uint8_t> trailing = good;
  trailing.push_back(0);
  cases.push_back({"Trailing", trailing});
  std::vector<uint8_t> wrongOid = good;
  wrongOid[14]++;  // last arc of rsaEncryption
  cases.push_back({"WrongOid", wrongOid});
  std::vector<uint8_t> noNull =
      fromHex("301e300b06092a864886f70d010101030f00300c020500c0ffee010203010001");
  cases.push_back({"MissingNull", noNull});
  cases.push_back({"Empty", {}});
  for (const auto &c : cases) {
    RsaPublicKey back;
    EXPECT_FALSE(decodeRsaSpki(c.second.data(), c.second.size(), back)) << c.first;
  }
  RsaPublicKey zero;
  zero.n = fromHex("0000");
  zero.e = fromHex("03");
  EXPECT_FALSE(encodeRsaSpki(zero, good));
}

struct SignatureCase {
  const char *name;
  const char *r;
  const char *s;
  const char *der;
};

class Sm2SignatureDer : public ::testing::TestWithParam<SignatureCase> {};

TEST_P(Sm2SignatureDer, MinimalIntegersAndExactRoundTrip) {
  const SignatureCase &c = GetParam();
  std::vector<uint8_t> der;
  ASSERT_TRUE(encodeSm2Signature(fromHex(c.r).data(), fromHex(c.s).data(), der));
  EXPECT_EQ(toHex(der), c.der);
  EXPECT_LE(der.size(), kSm2SignatureDerMax);
  uint8_t r[32], s[32];
  ASSERT_TRUE(decodeSm2Signature(der.data(), der.size(), r, s));
  EXPECT_EQ(toHex(r, 32), c.r);
  EXPECT_EQ(toHex(s, 32), c.s);
}

const char kHigh[] = "f5a03b0648d2c4630eeac513e1bb81a15944da3827d5b74143ac7eaceee720b3";
const char kLow[] = "31b6aa29df212fd8763182bc0d421ca1bb9038fd1f7f42d4840b69c485bbc1aa";
const char kShort[] = "0000000000000000000000000000000000000000000000000000000000000001";

INSTANTIATE_TEST_SUITE_P(
    Widths, Sm2SignatureDer,
    ::testing::Values(
        SignatureCase{"BothHighBit", kHigh, kHigh,
                      "3046022100f5a03b0648d2c4630eeac513e1bb81a15944da3827d5b74143ac7eaceee720b3"
                      "022100f5a03b0648d2c4630eeac513e1bb81a15944da3827d5b74143ac7eaceee720b3"},
        SignatureCase{"Mixed", kHigh, kLow,
                      "3045022100f5a03b0648d2c4630eeac513e1bb81a15944da3827d5b74143ac7eaceee720b3"
                      "022031b6aa29df212fd8763182bc0d421ca1bb9038fd1f7f42d4840b69c485bbc1aa"},
        SignatureCase{"LeadingZerosStripped", kShort, kLow,
                      "3025020101"
                      "022031b6aa29df212fd8763182bc0d421ca1bb9038fd1f7f42d4840b69c485bbc1aa"}),
    [](const ::testing::TestParamInfo<SignatureCase> &caseInfo) {
      return std::string(caseInfo.param.name);
    });

TEST(Sm2SignatureDer, RefusesMalformedSignatures) {
  const std::string r = kLow;
  const std::vector<std::pair<const char *, std::string>> cases = {
      {"Trailing", "30250201010220" + r + "00"},
      {"SequenceTooShort", "30240201010220" + r},
      {"ThirdInteger", "30280201010220" + r + "020101"},
      {"ZeroR", "30250201000220" + r},
      {"NegativeS", "3006020101020180"},
      {"NonMinimalR", "3026020200010220" + r},
      {"RWiderThan32", "3045022101" + r + "0220" + r},
      {"NotASequence", "31250201010220" + r},
  };
  for (const auto &c : cases) {
    const std::vector<uint8_t> der = fromHex(c.second);
    uint8_t rr[32], ss[32];
    EXPECT_FALSE(decodeSm2Signature(der.data(), der.size(), rr, ss)) << c.first;
  }
}

class RsaPrivateKeyDer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_TRUE(rsaGenerate(1024, s_key)); }
  static RsaPrivateKey s_key;
};
RsaPrivateKey RsaPrivateKeyDer::s_key;

// Our RSAPrivateKey read by OpenSSL (with its private and pairwise checks)
// and OpenSSL's read by us are the interop test's.
TEST_F(RsaPrivateKeyDer, RefusesOtherVersionsTruncationAndTrailingBytes) {
  SecureBytes der;
  ASSERT_TRUE(encodeRsaPrivateKey(s_key, der));
  std::vector<uint8_t> good(der.data(), der.data() + der.size());
  RsaPrivateKey back;
  std::vector<uint8_t> version1 = good;
  version1[6] = 1;  // 30 82 LL LL 02 01 <version>
  EXPECT_FALSE(decodeRsaPrivateKey(version1.data(), version1.size(), back));
  EXPECT_FALSE(decodeRsaPrivateKey(good.data(), good.size() - 1, back));
  std::vector<uint8_t> trailing = good;
  trailing.push_back(0);
  EXPECT_FALSE(decodeRsaPrivateKey(trailing.data(), trailing.size(), back));
  RsaPrivateKey partial = s_key;
  partial.qinv.clear();
  EXPECT_FALSE(encodeRsaPrivateKey(partial, der));
}

TEST(Pem, ArmourRoundTripsEveryPaddingLength) {
  for (size_t len : {size_t{1}, size_t{2}, size_t{3}, size_t{48}, size_t{49}, size_t{100}}) {
    std::vector<uint8_t> data(len);
    for (size_t i = 0; i < len; ++i) data[i] = static_cast<uint8_t>(0xF0 + i);
    const std::string pem = pemArmour("PUBLIC KEY", data.data(), data.size());
    EXPECT_EQ(pem.rfind("-----BEGIN PUBLIC KEY-----\n", 0), 0u);
    for (size_t at = 0, next; (next = pem.find('\n', at)) != std::string::npos; at = next + 1) {
      EXPECT_LE(next - at, 64u);
    }
    std::vector<uint8_t> back;
    ASSERT_TRUE(pemUnarmour(pem, "PUBLIC KEY", back)) << len;
    EXPECT_EQ(back, data);
    EXPECT_FALSE(pemUnarmour(pem, "PRIVATE KEY", back));
  }
}

TEST(Pem, RefusesBrokenBase64) {
  std::vector<uint8_t> out;
  for (const char *body : {"AQID!A==", "AQ=D", "AQIDB", "A===", ""}) {
    const std::string pem = std::string("-----BEGIN X-----\n") + body + "\n-----END X-----\n";
    EXPECT_FALSE(pemUnarmour(pem, "X", out)) << body;
  }
  EXPECT_TRUE(pemUnarmour("-----BEGIN X-----\r\nAQID\r\n-----END X-----\r\n", "X", out));
  EXPECT_EQ(toHex(out), "010203");
}

// ---- "_KEYPAIR" blobs ---------------------------------------------------------

// The blobs' layout is pinned by the import test, which builds them on its own
// from OpenSSL keys, and our encoding of them is read back by the provider in
// the CLI's import test; here the refusals.
class Sm2KeyPairBlobRefuses : public ::testing::TestWithParam<Mutation> {};

TEST_P(Sm2KeyPairBlobRefuses, MalformedBlob) {
  Sm2KeyPair keyPair;
  ASSERT_TRUE(sm2Generate(keyPair));
  SecureBytes encoded;
  ASSERT_TRUE(encodeSm2KeyPairBlob(keyPair, encoded));
  std::vector<uint8_t> blob(encoded.data(), encoded.data() + encoded.size());
  GetParam().apply(blob);
  Sm2KeyPair back;
  EXPECT_FALSE(decodeSm2KeyPairBlob(blob.data(), blob.size(), back));
}

INSTANTIATE_TEST_SUITE_P(
    Mutations, Sm2KeyPairBlobRefuses,
    ::testing::Values(Mutation{"Magic", [](std::vector<uint8_t> &b) { b[0] = 'K'; }},
                      Mutation{"AlgorithmRsa", [](std::vector<uint8_t> &b) { b[11] = 1; }},
                      Mutation{"Version2", [](std::vector<uint8_t> &b) { b[15] = 2; }},
                      Mutation{"CurveLittleEndian",
                               [](std::vector<uint8_t> &b) {
                                 b[16] = 7;
                                 b[19] = 0;
                               }},
                      Mutation{"OneByteShort", [](std::vector<uint8_t> &b) { b.pop_back(); }},
                      Mutation{"OneByteLong", [](std::vector<uint8_t> &b) { b.push_back(0); }},
                      Mutation{"PublicYDoesNotMatchD", [](std::vector<uint8_t> &b) { b[83] ^= 1; }},
                      Mutation{"DDoesNotMatchPublic", [](std::vector<uint8_t> &b) { b[115] ^= 1; }},
                      Mutation{"DZero",
                               [](std::vector<uint8_t> &b) { memset(b.data() + 84, 0, 32); }}),
    [](const ::testing::TestParamInfo<Mutation> &caseInfo) {
      return std::string(caseInfo.param.name);
    });

TEST(KeyPairBlob, RsaBlobChecksItsFraming) {
  RsaPrivateKey key;
  ASSERT_TRUE(rsaGenerate(1024, key));
  SecureBytes blob, der;
  ASSERT_TRUE(encodeRsaKeyPairBlob(key, blob));
  RsaPrivateKey back;
  ASSERT_TRUE(decodeRsaKeyPairBlob(blob.data(), blob.size(), back));
  const std::vector<uint8_t> good(blob.data(), blob.data() + blob.size());
  const std::vector<std::pair<const char *, std::function<void(std::vector<uint8_t> &)>>> bad = {
      {"ModulusLength256", [](std::vector<uint8_t> &b) { b[18] = 1; }},
      {"DerLengthPlusOne", [](std::vector<uint8_t> &b) { b[23]++; }},
      {"TrailingByte", [](std::vector<uint8_t> &b) { b.push_back(0); }},
      {"AlgorithmEcc", [](std::vector<uint8_t> &b) { b[11] = 4; }},
      {"HeaderOnly", [](std::vector<uint8_t> &b) { b.resize(24); }},
      {"DerCorrupted", [](std::vector<uint8_t> &b) { b[24] = 0x31; }},
  };
  for (const auto &c : bad) {
    std::vector<uint8_t> mutated = good;
    c.second(mutated);
    EXPECT_FALSE(decodeRsaKeyPairBlob(mutated.data(), mutated.size(), back)) << c.first;
    EXPECT_FALSE(rsaKeyPairBlobToDer(mutated.data(), mutated.size(), der)) << c.first;
  }
}

}  // namespace
}  // namespace crypto
}  // namespace tembra
