// DeviceSign against a software token: the checks in their order, the size
// answers, the token's answers mapped per algorithm and the short-buffer
// protocol. The signatures themselves are verified in the threaded signing
// test (every one, with the backend) and, by OpenSSL, in the key generation
// test.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "crypto/sm2_z.h"
#include "hostcrypto/include/orvel_test.h"
#include "provider/records.h"
#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"

namespace opstest {
namespace {

constexpr int kSign = ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
constexpr int kEncrypt = ORVEL_PKI_KEYPAIRTYPE_ENCRYPT;
constexpr int kSm2Sign = ORVEL_PKI_ALGORITHM_SM2_SIGN;
constexpr int kRsaSign = ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN;

class SignTest : public OpsTest {
 protected:
  // Signature key pairs only, apart from the SM2 encryption key pair that
  // the type check needs; RSA-1024, as key generation is what takes time.
  std::vector<DeviceSpec> tokens() const override {
    ContainerSpec rsa = keyContainer("rsa", KeyKind::Rsa1024);
    rsa.encryptionKey = false;
    return {makeToken("signer", {keyContainer("sm2", KeyKind::Sm2), rsa})};
  }

  // e = SM3(Z || message) for the key pair's public key and the default id.
  std::vector<uint8_t> sm2Digest(SPI_KEYPAIR_HANDLE hKeypair, const std::string &message) {
    const std::vector<uint8_t> spki = publicKey(hKeypair);
    tembra::crypto::Sm2PublicKey key;
    std::vector<uint8_t> e(32);
    EXPECT_TRUE(tembra::crypto::decodeSm2Spki(spki.data(), spki.size(), key));
    EXPECT_TRUE(tembra::crypto::sm2DigestWithZ(
        key, tembra::crypto::kSm2DefaultId, tembra::crypto::kSm2DefaultIdSize,
        reinterpret_cast<const uint8_t *>(message.data()), message.size(), e.data()));
    return e;
  }
};

enum class Key { None, Sm2Sign, Sm2Encrypt, RsaSign };

struct CheckCase {
  const char *name;
  Key key;
  int algo;
  bool withTbs;
  int tbslen;
  bool withSign;
  int signlen;
  bool withLength;
  int expected;
  const char *error;
};

// Every failure comes before the token is asked; the order of the checks
// shows where two are broken at once.
const CheckCase kCheckCases[] = {
    {"NullHandle", Key::None, kSm2Sign, true, 32, true, 80, true, -2, "hKeypair == 0"},
    {"NullHandleFirst", Key::None, 0, false, -1, false, 0, false, -2, "hKeypair == 0"},
    {"EncryptionKeyPair", Key::Sm2Encrypt, kSm2Sign, true, 32, true, 80, true, -1,
     "hKeypair->m_keytype != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE"},
    {"EncryptionKeyPairSizeQuery", Key::Sm2Encrypt, kSm2Sign, true, 32, false, 0, true, -1,
     "hKeypair->m_keytype != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE"},
    {"EncryptionKeyPairBeforeLength", Key::Sm2Encrypt, kSm2Sign, true, 32, false, 0, false, -1,
     "hKeypair->m_keytype != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE"},
    {"NullLength", Key::Sm2Sign, kSm2Sign, true, 32, true, 80, false, -1, "pretsignlen == 0"},
    {"NullLengthBeforeTbsLength", Key::Sm2Sign, kSm2Sign, true, -1, true, 80, false, -1,
     "pretsignlen == 0"},
    {"NegativeTbsLength", Key::Sm2Sign, kSm2Sign, true, -1, true, 80, true, -1, "tbslen < 0"},
    {"NegativeTbsLengthSizeQuery", Key::RsaSign, kRsaSign, true, -1, false, 0, true, -1,
     "tbslen < 0"},
    {"EmptyTbsWithPointer", Key::Sm2Sign, kSm2Sign, true, 0, true, 80, true, -1,
     "tbslen == 0 && tbs != 0"},
    {"ZeroSignLength", Key::Sm2Sign, kSm2Sign, true, 32, true, 0, true, -1, "signlen <= 0"},
    {"NegativeSignLength", Key::RsaSign, kRsaSign, true, 32, true, -1, true, -1, "signlen <= 0"},
    {"SignLengthBeforeAlgo", Key::RsaSign, kSm2Sign, true, 32, true, 0, true, -1, "signlen <= 0"},
    {"RsaAlgoOnSm2", Key::Sm2Sign, kRsaSign, true, 32, true, 80, true, -1,
     "algo != ORVEL_PKI_ALGORITHM_SM2_SIGN"},
    {"Sm2AlgoOnRsa", Key::RsaSign, kSm2Sign, true, 32, true, 128, true, -1,
     "algo != ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN"},
    {"UnknownAlgoOnSm2", Key::Sm2Sign, 0x7000, true, 32, true, 80, true, -1,
     "algo != ORVEL_PKI_ALGORITHM_SM2_SIGN"},
};

TEST_F(SignTest, ChecksRefuseBeforeTheToken) {
  SPI_KEYPAIR_HANDLE sm2Sign = keypair(kSign, "sm2");
  SPI_KEYPAIR_HANDLE sm2Encrypt = keypair(kEncrypt, "sm2");
  SPI_KEYPAIR_HANDLE rsaSign = keypair(kSign, "rsa");
  login();
  for (const CheckCase &c : kCheckCases) {
    SCOPED_TRACE(c.name);
    SPI_KEYPAIR_HANDLE hKeypair = c.key == Key::Sm2Sign      ? sm2Sign
                                  : c.key == Key::Sm2Encrypt ? sm2Encrypt
                                  : c.key == Key::RsaSign    ? rsaSign
                                                             : nullptr;
    mark();
    unsigned char tbs[32] = {1, 2, 3};
    unsigned char sign[300];
    memset(sign, 0xEE, sizeof(sign));
    int length = 12345;
    EXPECT_EQ(c.expected,
              DeviceSign(hKeypair, c.algo, nullptr, c.withTbs ? tbs : nullptr, c.tbslen,
                         c.withSign ? sign : nullptr, c.signlen, c.withLength ? &length : nullptr));
    EXPECT_EQ(12345, length);
    EXPECT_EQ(0xEE, sign[0]);
    EXPECT_EQ(std::vector<std::string>{c.error}, m_log.messages("[ERROR]"));
    EXPECT_TRUE(m_log.has("[ERROR]", "DeviceSign", c.error));
    EXPECT_TRUE(tembra::test::tokenCallLog().empty());
  }
}

// The size answer comes from the record alone: whatever algo and signlen,
// without the token and without a login. Besides the token's key pairs,
// records it cannot produce (and RSA-2048, whose key generation would cost
// more than the rest of the test): a 1023-bit RSA key pair rounds up to 128
// bytes; an unknown algorithm answers 80 yet cannot sign; a deleted key pair
// (no device) fails as the token would, without touching memory it does not
// have. (Signatures of RSA-1024, RSA-2048 and SM2 keys checked by OpenSSL are
// the key generation test's.)
TEST_F(SignTest, SizeQueryAnswersFromTheRecord) {
  char label[] = "fake";
  Keypair rsa1023 = {0, nullptr, label, kSign, ORVEL_PKI_ALGORITHM_RSA, 1023};
  Keypair rsa2048 = {0, nullptr, label, kSign, ORVEL_PKI_ALGORITHM_RSA, 2048};
  Keypair other = {0, nullptr, label, kSign, 7, 256};
  Keypair deleted = {0, nullptr, label, kSign, ORVEL_PKI_ALGORITHM_ECC, 256};
  const std::pair<SPI_KEYPAIR_HANDLE, int> cases[] = {
      {keypair(kSign, "sm2"), 80},
      {keypair(kSign, "rsa"), 128},
      {&rsa1023, 128},
      {&rsa2048, 256},
      {&other, 80},
  };
  int length = 0;
  for (const auto &c : cases) {
    mark();
    EXPECT_EQ(1, DeviceSign(c.first, 0x12345, nullptr, nullptr, 0, nullptr, -7, &length));
    EXPECT_EQ(c.second, length);
    EXPECT_TRUE(tembra::test::tokenCallLog().empty());
    EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  }

  unsigned char tbs[32] = {};
  unsigned char sign[256];
  m_log.mark();
  EXPECT_EQ(-1, DeviceSign(&other, kSm2Sign, nullptr, tbs, 32, sign, 80, &length));
  EXPECT_TRUE(m_log.has("[ERROR]", "DeviceSign", "error algo"));
  EXPECT_EQ(0, DeviceSign(&deleted, kSm2Sign, nullptr, tbs, 32, sign, 80, &length));
  EXPECT_EQ(0, DeviceSign(&rsa1023, kRsaSign, nullptr, tbs, 32, sign, 256, &length));
}

// The token's answers, per algorithm: 0xB3 means "not logged in" for SM2
// only.
TEST_F(SignTest, TokenAnswersMappedPerAlgorithm) {
  struct Case {
    const char *label;
    bool loggedIn;
    ULONG fault;  // 0: the token's own answer
    int expected;
    const char *error;
  };
  const char *sm2NotLoggedIn =
      " SKF_ECCSignData fail, rv == SAR_USER_NOT_LOGGED_IN || rv == 0x000000b3";
  const char *rsaNotLoggedIn = "SKF_RSASignData fail,rv= SAR_USER_NOT_LOGGED_IN";
  const Case cases[] = {
      {"sm2", false, 0, -8, sm2NotLoggedIn},
      {"rsa", false, 0, -8, rsaNotLoggedIn},
      {"sm2", true, SAR_USER_NOT_LOGGED_IN, -8, sm2NotLoggedIn},
      {"rsa", true, SAR_USER_NOT_LOGGED_IN, -8, rsaNotLoggedIn},
      {"sm2", true, 0xB3, -8, sm2NotLoggedIn},
      {"rsa", true, 0xB3, 0, "SKF_RSASignData fail, error = 0x000000B3"},
      {"sm2", true, SAR_FAIL, 0, "SKF_ECCSignData fail, error = 0x0A000001"},
      {"rsa", true, SAR_FAIL, 0, "SKF_RSASignData fail, error = 0x0A000001"},
  };
  SPI_KEYPAIR_HANDLE sm2 = keypair(kSign, "sm2");
  SPI_KEYPAIR_HANDLE rsa = keypair(kSign, "rsa");
  bool loggedIn = false;
  for (const Case &c : cases) {
    const bool isSm2 = strcmp(c.label, "sm2") == 0;
    if (c.loggedIn && !loggedIn) login();
    loggedIn = loggedIn || c.loggedIn;
    if (c.fault != 0) {
      ASSERT_EQ(kTokenOk,
                SKFSoft_SetFault(isSm2 ? "SKF_ECCSignData" : "SKF_RSASignData", c.fault, 1));
    }
    mark();
    unsigned char tbs[35] = {7};
    unsigned char sign[256];
    int length = 0;
    EXPECT_EQ(c.expected, DeviceSign(isSm2 ? sm2 : rsa, isSm2 ? kSm2Sign : kRsaSign, nullptr, tbs,
                                     isSm2 ? 32 : 35, sign, sizeof(sign), &length))
        << c.label << " " << c.fault;
    EXPECT_EQ(std::vector<std::string>{c.error}, m_log.messages("[ERROR]")) << c.label;
    EXPECT_EQ(1u, tokenCalls(isSm2 ? "SKF_ECCSignData" : "SKF_RSASignData").size());
  }
}

TEST_F(SignTest, EncodingFailureGivesZero) {
  SPI_KEYPAIR_HANDLE hKeypair = keypair(kSign, "sm2");
  login();
  ASSERT_EQ(1, OrvelTestSetFault("OrvelPKICryptoEncodeECCSignature", -3, 1));
  m_log.mark();
  unsigned char tbs[32] = {};
  unsigned char sign[80];
  int length = 99;
  EXPECT_EQ(0, DeviceSign(hKeypair, kSm2Sign, nullptr, tbs, 32, sign, 80, &length));
  EXPECT_EQ(99, length);
  EXPECT_EQ(std::vector<std::string>{"OrvelPKICryptoEncodeECCSignature fail, error = -3"},
            m_log.messages("[ERROR]"));
}

// A buffer one byte short of the signature's encoding gets -4, the needed
// length, and stays untouched; the reported length then suffices. Each call
// is a new signature, so the buffer is one byte short of the longest
// encoding (72 bytes) and the calls repeat until such an encoding comes;
// shorter ones fit and succeed.
TEST_F(SignTest, ShortBufferThenReportedLength) {
  SPI_KEYPAIR_HANDLE hKeypair = keypair(kSign, "sm2");
  login();
  const std::vector<uint8_t> e = sm2Digest(hKeypair, "short buffer");
  int length = 0;
  for (int attempt = 0; attempt < 64; ++attempt) {
    std::vector<uint8_t> sign(71, 0xEE);
    m_log.mark();
    const int rv = DeviceSign(hKeypair, kSm2Sign, nullptr, e.data(), 32, sign.data(), 71, &length);
    if (rv == 1) {
      EXPECT_LE(length, 71);
      continue;
    }
    ASSERT_EQ(-4, rv);
    EXPECT_EQ(72, length);
    EXPECT_EQ(std::vector<uint8_t>(71, 0xEE), sign);
    EXPECT_EQ(std::vector<std::string>{"signlen < sm2SignValueLen, ORVEL_PKI_MOREDATA"},
              m_log.messages("[ERROR]"));

    sign.assign(72, 0xEE);
    ASSERT_EQ(1, DeviceSign(hKeypair, kSm2Sign, nullptr, e.data(), 32, sign.data(), 72, &length));
    uint8_t r[32];
    uint8_t s[32];
    EXPECT_TRUE(tembra::crypto::decodeSm2Signature(sign.data(), static_cast<size_t>(length), r, s));
    return;
  }
  ADD_FAILURE() << "no 72-byte encoding in 64 signatures";
}

// An RSA buffer shorter than the modulus is the token's to refuse.
TEST_F(SignTest, RsaShortBufferIsTheTokensRefusal) {
  SPI_KEYPAIR_HANDLE hKeypair = keypair(kSign, "rsa");
  login();
  mark();
  unsigned char tbs[35] = {};
  unsigned char sign[127];
  int length = 0;
  EXPECT_EQ(0, DeviceSign(hKeypair, kRsaSign, nullptr, tbs, 35, sign, 127, &length));
  ASSERT_EQ(1u, m_log.messages("[ERROR]").size());
  EXPECT_EQ(0u, m_log.messages("[ERROR]")[0].find("SKF_RSASignData fail, error = 0x"));
  ASSERT_EQ(1u, tokenCalls("SKF_RSASignData").size());
}

// A null tbs with length 0 passes the checks and reaches the token.
TEST_F(SignTest, EmptyTbsReachesTheToken) {
  SPI_KEYPAIR_HANDLE hKeypair = keypair(kSign, "sm2");
  login();
  mark();
  unsigned char sign[80];
  int length = 0;
  DeviceSign(hKeypair, kSm2Sign, nullptr, nullptr, 0, sign, 80, &length);
  const std::vector<std::string> calls = tokenCalls("SKF_ECCSignData");
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ("0", callField(calls[0], "ulDataLen"));
}

}  // namespace
}  // namespace opstest
