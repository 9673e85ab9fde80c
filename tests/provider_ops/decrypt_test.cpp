// DevicePrivateKeyDecrypt against a software token: the argument checks, the
// size answer, the SM2 ciphertext decoding at its bounds and the token's
// answers per algorithm. (Ciphertexts made by OpenSSL are opened in the
// import test, on the imported keys.)
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "import/sm2_cipher.h"
#include "provider/records.h"
#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"

namespace opstest {
namespace {

constexpr int kSign = ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
constexpr int kEncrypt = ORVEL_PKI_KEYPAIRTYPE_ENCRYPT;
constexpr int kSm2Enc = ORVEL_PKI_ALGORITHM_SM2_ENC;
constexpr int kRsaEnc = ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC;
const int kSm3 = ORVEL_PKI_ALGORITHM_SM3;

class DecryptTest : public OpsTest {
 protected:
  // An SM2 ciphertext for the key pair, made by the crypto backend.
  std::vector<uint8_t> sm2Cipher(SPI_KEYPAIR_HANDLE hKeypair, const std::string &message) {
    const std::vector<uint8_t> spki = publicKey(hKeypair);
    tembra::crypto::Sm2PublicKey key;
    std::vector<uint8_t> cipher;
    EXPECT_TRUE(tembra::crypto::decodeSm2Spki(spki.data(), spki.size(), key));
    EXPECT_TRUE(tembra::crypto::sm2Encrypt(key, reinterpret_cast<const uint8_t *>(message.data()),
                                           message.size(), cipher));
    return cipher;
  }
  std::vector<uint8_t> rsaCipher(SPI_KEYPAIR_HANDLE hKeypair, const std::string &message) {
    const std::vector<uint8_t> spki = publicKey(hKeypair);
    tembra::crypto::RsaPublicKey key;
    std::vector<uint8_t> cipher;
    EXPECT_TRUE(tembra::crypto::decodeRsaSpki(spki.data(), spki.size(), key));
    EXPECT_TRUE(tembra::crypto::rsaEncryptPkcs1(
        key, reinterpret_cast<const uint8_t *>(message.data()), message.size(), cipher));
    return cipher;
  }
  // Decrypts into a buffer of the given room; the plaintext or the result.
  int decrypt(SPI_KEYPAIR_HANDLE hKeypair, int algo, const std::vector<uint8_t> &cipher, int room,
              std::string &plain) {
    std::vector<uint8_t> clear(static_cast<size_t>(room) + 1, 0xEE);
    int length = 0;
    const int rv =
        DevicePrivateKeyDecrypt(hKeypair, algo, &kSm3, cipher.data(),
                                static_cast<int>(cipher.size()), clear.data(), room, &length);
    plain.assign(clear.begin(), clear.begin() + (rv == 1 ? length : 0));
    return rv;
  }
};

enum class Key { None, Sm2, Rsa };

struct CheckCase {
  const char *name;
  Key key;
  int algo;
  int paramValue;  // 0: param null
  int cipherLen;   // -100: cipher null
  bool withClear;
  int clearlen;
  bool withLength;
  int expected;
  int expectedLength;  // -1: untouched
  const char *error;   // the [ERROR] message, or null for none
};

// The checks before the token: -2 and -1 without a message, a size query
// that looks at nothing else, and algorithm mismatches that give 0, not -1.
const CheckCase kCheckCases[] = {
    {"NullHandle", Key::None, kSm2Enc, kSm3, 100, true, 100, true, -2, -1, nullptr},
    {"NullCipher", Key::Sm2, kSm2Enc, kSm3, -100, true, 100, true, -1, -1, nullptr},
    {"ZeroCipherLength", Key::Sm2, kSm2Enc, kSm3, 0, true, 100, true, -1, -1, nullptr},
    {"NullLength", Key::Rsa, kRsaEnc, 0, 128, true, 128, false, -1, -1, nullptr},
    {"SizeQuerySm2", Key::Sm2, kSm2Enc, kSm3, 130, false, 0, true, 1, 130, nullptr},
    {"SizeQueryAnyAlgo", Key::Sm2, 0x1234, 0, 5, false, -9, true, 1, 5, nullptr},
    {"SizeQueryRsaNeedsNoParam", Key::Rsa, 77, 0, 128, false, 0, true, 1, 128, nullptr},
    {"NegativeClearLength", Key::Sm2, kSm2Enc, kSm3, 130, true, -1, true, -1, -1, nullptr},
    {"Sm2WrongAlgo", Key::Sm2, kRsaEnc, kSm3, 130, true, 100, true, 0, -1,
     "algo != ORVEL_PKI_ALGORITHM_SM2_ENC"},
    {"Sm2NullParam", Key::Sm2, kSm2Enc, 0, 130, true, 100, true, 0, -1, "param == 0"},
    {"Sm2WrongHash", Key::Sm2, kSm2Enc, 0x7001, 130, true, 100, true, 0, -1,
     "hashAlgo != ORVEL_PKI_ALGORITHM_SM3"},
    {"RsaWrongAlgo", Key::Rsa, kSm2Enc, kSm3, 128, true, 128, true, 0, -1,
     "algo != ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC"},
};

TEST_F(DecryptTest, ChecksRefuseBeforeTheToken) {
  SPI_KEYPAIR_HANDLE sm2 = keypair(kEncrypt, "sm2");
  SPI_KEYPAIR_HANDLE rsa = keypair(kEncrypt, "rsa");
  for (const CheckCase &c : kCheckCases) {
    SCOPED_TRACE(c.name);
    SPI_KEYPAIR_HANDLE hKeypair = c.key == Key::Sm2 ? sm2 : c.key == Key::Rsa ? rsa : nullptr;
    mark();
    std::vector<uint8_t> cipher(300, 0x04);
    std::vector<uint8_t> clear(300, 0xEE);
    int length = -1;
    const int paramValue = c.paramValue;
    EXPECT_EQ(c.expected,
              DevicePrivateKeyDecrypt(hKeypair, c.algo, c.paramValue != 0 ? &paramValue : nullptr,
                                      c.cipherLen == -100 ? nullptr : cipher.data(), c.cipherLen,
                                      c.withClear ? clear.data() : nullptr, c.clearlen,
                                      c.withLength ? &length : nullptr));
    EXPECT_EQ(c.expectedLength, length);
    EXPECT_EQ(std::vector<uint8_t>(300, 0xEE), clear);
    std::vector<std::string> errors;
    if (c.error != nullptr) errors.push_back(c.error);
    EXPECT_EQ(errors, m_log.messages("[ERROR]"));
    if (c.error != nullptr) {
      EXPECT_TRUE(m_log.has("[ERROR]", "DevicePrivateKeyDecrypt", c.error));
    }
    EXPECT_TRUE(tembra::test::tokenCallLog().empty());
  }
}

// The flat SM2 form at its bounds: 96 bytes, a wrong first byte and a C2
// longer than any token takes are refused before the token (and before the
// copy); 97 bytes (an empty C2) and the longest C2 reach it with their length.
TEST_F(DecryptTest, Sm2CipherTextBounds) {
  SPI_KEYPAIR_HANDLE hKeypair = keypair(kEncrypt, "sm2");
  login();
  const std::vector<uint8_t> good = sm2Cipher(hKeypair, "bounds");
  ASSERT_EQ(97u + 6u, good.size());
  // C1 and C3 of the good ciphertext around a C2 of `length` bytes.
  auto withMessage = [&good](size_t length) {
    std::vector<uint8_t> cipher(good.begin(), good.begin() + 65);
    cipher.insert(cipher.end(), length, 0x5A);
    cipher.insert(cipher.end(), good.end() - 32, good.end());
    return cipher;
  };
  std::vector<uint8_t> compressed = good;
  compressed[0] = 0x02;
  const std::string decodeFail = "decodeSm2CipherText(cipher, cipherlen) == 0";
  struct Case {
    const char *name;
    std::vector<uint8_t> cipher;
    std::vector<std::string> errors;  // when refused before the token
    const char *tokenCipherLen;       // CipherLen the token sees, or null
  };
  const Case cases[] = {
      {"Short96",
       std::vector<uint8_t>(good.begin(), good.begin() + 96),
       {"cipherLen < 97", decodeFail},
       nullptr},
      {"NotUncompressed", compressed, {decodeFail}, nullptr},
      {"LongerThanAnyToken", withMessage(SM2_CIPHER_MAX_MESSAGE + 1), {decodeFail}, nullptr},
      {"EmptyMessage", withMessage(0), {}, "0"},
      {"LongestMessage", withMessage(SM2_CIPHER_MAX_MESSAGE), {}, "65536"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    mark();
    std::string plain;
    const int rv = decrypt(hKeypair, kSm2Enc, c.cipher, 64, plain);
    const std::vector<std::string> calls = tokenCalls("SKF_ECCDecrypt");
    if (c.tokenCipherLen == nullptr) {
      EXPECT_EQ(0, rv);
      EXPECT_EQ(c.errors, m_log.messages("[ERROR]"));
      EXPECT_TRUE(m_log.has("[ERROR]", "DevicePrivateKeyDecrypt", decodeFail));
      if (c.errors.size() == 2) {
        EXPECT_TRUE(m_log.has("[ERROR]", "decodeSm2CipherText", "cipherLen < 97"));
      }
      EXPECT_TRUE(tembra::test::tokenCallLog().empty());
      continue;
    }
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(c.tokenCipherLen, callField(calls[0], "CipherLen"));
    EXPECT_EQ("0", callField(calls[0], "bSignFlag"));
  }
}

// A short buffer: -4, the true length, the buffer untouched; the reported
// length then suffices. Both algorithms, both key pairs of a container (the
// key flag tells the token which).
TEST_F(DecryptTest, ShortBufferThenReportedLength) {
  login();
  struct Case {
    const char *label;
    int type;
    int algo;
    const char *flag;
  };
  const std::string message = "plaintext of twenty-nine byte";
  for (const Case &c : {Case{"sm2", kEncrypt, kSm2Enc, "0"}, Case{"sm2", kSign, kSm2Enc, "1"},
                        Case{"rsa", kEncrypt, kRsaEnc, "0"}, Case{"rsa", kSign, kRsaEnc, "1"}}) {
    SPI_KEYPAIR_HANDLE hKeypair = keypair(c.type, c.label);
    const std::vector<uint8_t> cipher =
        c.algo == kSm2Enc ? sm2Cipher(hKeypair, message) : rsaCipher(hKeypair, message);
    mark();
    std::vector<uint8_t> clear(64, 0xEE);
    int length = 0;
    EXPECT_EQ(-4, DevicePrivateKeyDecrypt(hKeypair, c.algo, &kSm3, cipher.data(),
                                          static_cast<int>(cipher.size()), clear.data(),
                                          static_cast<int>(message.size()) - 1, &length))
        << c.label << c.type;
    EXPECT_EQ(static_cast<int>(message.size()), length);
    EXPECT_EQ(std::vector<uint8_t>(64, 0xEE), clear);
    EXPECT_TRUE(m_log.messages("[ERROR]").empty());
    const std::vector<std::string> calls =
        tokenCalls(c.algo == kSm2Enc ? "SKF_ECCDecrypt" : "SKF_RSADecrypt");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(c.flag, callField(calls[0], "bSignFlag")) << c.label << c.type;

    EXPECT_EQ(
        1, DevicePrivateKeyDecrypt(hKeypair, c.algo, &kSm3, cipher.data(),
                                   static_cast<int>(cipher.size()), clear.data(), length, &length));
    EXPECT_EQ(message, std::string(clear.begin(), clear.begin() + length));
    EXPECT_EQ(0xEE, clear[message.size()]);
  }
}

// The token's answers: SAR_USER_NOT_LOGGED_IN is -8 on both paths, code 3
// on the RSA path only; other codes give 0 with lower-case hex.
TEST_F(DecryptTest, TokenAnswersMappedPerAlgorithm) {
  struct Case {
    const char *label;
    bool loggedIn;
    ULONG fault;
    int expected;
    const char *error;
  };
  const Case cases[] = {
      {"sm2", false, 0, -8, nullptr},
      {"rsa", false, 0, -8, nullptr},
      {"sm2", true, SAR_USER_NOT_LOGGED_IN, -8, nullptr},
      {"rsa", true, SAR_USER_NOT_LOGGED_IN, -8, nullptr},
      {"rsa", true, 3, -8, nullptr},
      {"sm2", true, 3, 0, "SKF_ECCPrvKeyDecrypt fail, error = 0x00000003"},
      {"sm2", true, SAR_FAIL, 0, "SKF_ECCPrvKeyDecrypt fail, error = 0x0a000001"},
      {"rsa", true, SAR_FAIL, 0, "SKF_RSADecrypt fail, error = 0x0a000001"},
  };
  SPI_KEYPAIR_HANDLE sm2 = keypair(kEncrypt, "sm2");
  SPI_KEYPAIR_HANDLE rsa = keypair(kEncrypt, "rsa");
  const std::vector<uint8_t> sm2Text = sm2Cipher(sm2, "answers");
  const std::vector<uint8_t> rsaText = rsaCipher(rsa, "answers");
  bool loggedIn = false;
  for (const Case &c : cases) {
    const bool isSm2 = strcmp(c.label, "sm2") == 0;
    if (c.loggedIn && !loggedIn) login();
    loggedIn = loggedIn || c.loggedIn;
    if (c.fault != 0) {
      ASSERT_EQ(kTokenOk,
                SKFSoft_SetFault(isSm2 ? "SKF_ECCDecrypt" : "SKF_RSADecrypt", c.fault, 1));
    }
    mark();
    std::string plain;
    EXPECT_EQ(c.expected, decrypt(isSm2 ? sm2 : rsa, isSm2 ? kSm2Enc : kRsaEnc,
                                  isSm2 ? sm2Text : rsaText, 256, plain))
        << c.label << " " << c.fault;
    std::vector<std::string> errors;
    if (c.error != nullptr) errors.push_back(c.error);
    EXPECT_EQ(errors, m_log.messages("[ERROR]")) << c.label << " " << c.fault;
  }
}

// A deleted key pair (no device) fails as the token would, on both paths.
TEST_F(DecryptTest, KeypairWithoutDeviceFails) {
  char label[] = "gone";
  std::vector<uint8_t> cipher(130, 0x04);
  unsigned char clear[256];
  int length = 0;
  for (int algo : {ORVEL_PKI_ALGORITHM_ECC, ORVEL_PKI_ALGORITHM_RSA}) {
    Keypair gone = {0,        nullptr, label,
                    kEncrypt, algo,    algo == ORVEL_PKI_ALGORITHM_RSA ? 1024 : 256};
    EXPECT_EQ(0, DevicePrivateKeyDecrypt(&gone, algo == ORVEL_PKI_ALGORITHM_RSA ? kRsaEnc : kSm2Enc,
                                         &kSm3, cipher.data(), 130, clear, 256, &length));
  }
  Keypair other = {0, nullptr, label, kEncrypt, 9, 256};
  m_log.mark();
  EXPECT_EQ(
      0, DevicePrivateKeyDecrypt(&other, kSm2Enc, &kSm3, cipher.data(), 130, clear, 256, &length));
  EXPECT_EQ(std::vector<std::string>{"unsupport hKeypair->m_algo, hKeypair->m_algo = 9"},
            m_log.messages("[ERROR]"));
}

}  // namespace
}  // namespace opstest
