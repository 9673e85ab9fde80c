// The `tembra` program run in-process through tembraMain: argument errors
// give status 2 and exactly one line; signatures, encryption and PINs work
// end to end through the provider loaded at run time, and OpenSSL accepts
// what `tembra sign` produces.
#include <stdio.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/commands.h"
#include "tests/support/provider_test_support.h"

#ifdef TEMBRA_TEST_HAVE_OPENSSL
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "crypto/sm2_z.h"
#endif

namespace tembra {
namespace {

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome tembra(const std::vector<std::string> &words) {
  std::ostringstream out;
  std::ostringstream err;
  const int status = cli::tembraMain(words, out, err);
  return {status, out.str(), err.str()};
}

size_t lineCount(const std::string &text) {
  size_t lines = 0;
  for (char c : text) lines += c == '\n' ? 1 : 0;
  return lines;
}

struct UsageCase {
  std::vector<std::string> words;
  const char *message;  // the line after "tembra: "
};

class UsageErrors : public ::testing::TestWithParam<UsageCase> {};

TEST_P(UsageErrors, StatusTwoAndOneLine) {
  Outcome run = tembra(GetParam().words);
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, std::string("tembra: ") + GetParam().message + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, UsageErrors,
    ::testing::Values(
        UsageCase{{}, "no command given (try 'tembra --help')"},
        UsageCase{{"frobnicate"}, "unknown command 'frobnicate' (try 'tembra --help')"},
        UsageCase{{"devices", "--bogus"}, "devices: unknown option --bogus"},
        UsageCase{{"devices", "surplus"}, "devices: unexpected argument 'surplus'"},
        UsageCase{{"keys", "--device", "x"}, "--device needs a device index (0, 1, ...), not 'x'"},
        UsageCase{{"keys", "--device", "-1"},
                  "--device needs a device index (0, 1, ...), not '-1'"},
        UsageCase{{"pubkey", "--label"}, "pubkey: option --label needs a value"},
        UsageCase{{"pubkey", "--label", "a", "--label", "b"}, "pubkey: option --label given twice"},
        UsageCase{{"pubkey", "--pem=yes", "--label", "a"}, "pubkey: option --pem takes no value"},
        UsageCase{{"pubkey"}, "--label is required"},
        UsageCase{{"pubkey", "--label", "L", "--type", "both"},
                  "key pair type must be sign or enc, not 'both'"},
        UsageCase{{"cert", "fetch", "--label", "L"}, "cert needs get or put"},
        UsageCase{{"cert", "put", "--label", "L"}, "cert put needs -i <certificate>"},
        UsageCase{{"sign", "--label", "L"}, "-i <file> is required"},
        UsageCase{{"sign", "--label", "L", "-i", "m", "-o", "s", "--alg", "dsa"},
                  "algorithm must be sm2 or rsa, not 'dsa'"},
        UsageCase{{"token"}, "token needs create, list, remove, plug or unplug"},
        UsageCase{{"token", "create"}, "token create needs one name"},
        UsageCase{{"token", "create", "t", "--container", "X:dsa"},
                  "unknown key kind 'dsa' in container 'X:dsa'"},
        UsageCase{{"token", "create", "t", "--container", ":sm2"},
                  "container ':sm2' is not NAME:sm2|rsa1024|rsa2048|empty[:noenc][:nocert]"},
        UsageCase{{"token", "create", "t", "--auth-key", "00112233"},
                  "--auth-key needs 32 hexadecimal digits"},
        UsageCase{{"login", "--type", "root"}, "PIN type must be user or admin, not 'root'"},
        UsageCase{{"login", "--pin-env", "TEMBRA_TEST_SURELY_UNSET"},
                  "environment variable TEMBRA_TEST_SURELY_UNSET is not set"},
        UsageCase{{"login", "--pin-env", "A", "--pin-file", "B"},
                  "give only one of --pin-file, --pin-env, --pin-insecure-arg"}));

TEST(Help, GoesToStandardOutputWithStatusZero) {
  for (const std::vector<std::string> &words :
       {std::vector<std::string>{"--help"}, {"help"}, {"sign", "--help"}, {"help", "token"}}) {
    Outcome run = tembra(words);
    EXPECT_EQ(run.status, 0) << words.front();
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.rfind("usage: tembra", 0), 0u) << run.out;
  }
}

// A fresh store with one token: "S" an SM2 container, "R" an RSA-1024 one,
// user PIN 11112222 given through the environment.
class TembraOnToken : public ::testing::Test {
 protected:
  void SetUp() override {
    test::setEnv("TEMBRA_TEST_USER_PIN", "11112222");
    test::setEnv("TEMBRA_TEST_WRONG_PIN", "99999999");
    Outcome run = tembra({"token", "create", "tok", "--container", "S:sm2", "--container",
                          "R:rsa1024:nocert", "--user-pin-env", "TEMBRA_TEST_USER_PIN", "--default-pins"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "tembra: note: default PIN 12345678 in use for the administrator\n");
  }

  std::string path(const std::string &name) const { return m_store.path() + "/" + name; }

  void writeText(const std::string &name, const std::string &text) const {
    std::ofstream(path(name), std::ios::binary) << text;
  }

  std::vector<uint8_t> readBytes(const std::string &name) const {
    std::ifstream in(path(name), std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>());
  }

  test::TokenStore m_store;
};

TEST_F(TembraOnToken, ListsTheKeyPairsAsJson) {
  Outcome run = tembra({"keys", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "[{\"index\": 0, \"label\": \"S\", \"type\": \"sign\", \"algorithm\": \"SM2\", "
            "\"bits\": 256, \"certificate\": true},\n"
            " {\"index\": 1, \"label\": \"S\", \"type\": \"enc\", \"algorithm\": \"SM2\", "
            "\"bits\": 256, \"certificate\": true},\n"
            " {\"index\": 2, \"label\": \"R\", \"type\": \"sign\", \"algorithm\": \"RSA\", "
            "\"bits\": 1024, \"certificate\": false},\n"
            " {\"index\": 3, \"label\": \"R\", \"type\": \"enc\", \"algorithm\": \"RSA\", "
            "\"bits\": 1024, \"certificate\": false}]\n");
}

struct KeyCase {
  const char *label;
  const char *hash;
};

class SignAndVerify : public TembraOnToken, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(SignAndVerify, SignatureVerifiesAndATamperedMessageDoesNot) {
  const std::string label = GetParam().label;
  const std::string hash = GetParam().hash;
  writeText("message", "pay 100 to Alice");
  writeText("tampered", "pay 900 to Alice");
  Outcome sign = tembra({"sign", "--label", label, "--hash", hash, "-i", path("message"), "-o",
                         path("sig"), "--pin-env", "TEMBRA_TEST_USER_PIN"});
  ASSERT_EQ(sign.status, 0) << sign.err;
  Outcome good = tembra(
      {"verify", "--label", label, "--hash", hash, "-i", path("message"), "-s", path("sig")});
  EXPECT_EQ(good.status, 0) << good.err;
  Outcome bad = tembra(
      {"verify", "--label", label, "--hash", hash, "-i", path("tampered"), "-s", path("sig")});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "tembra: signature does not verify\n");

  // The same with the public key from a PEM file instead of the token.
  Outcome pubkey = tembra({"pubkey", "--label", label, "--pem", "-o", path("key.pem")});
  ASSERT_EQ(pubkey.status, 0) << pubkey.err;
  Outcome fromFile = tembra({"verify", "--pubkey", path("key.pem"), "--hash", hash, "-i",
                             path("message"), "-s", path("sig")});
  EXPECT_EQ(fromFile.status, 0) << fromFile.err;

#ifdef TEMBRA_TEST_HAVE_OPENSSL
  // OpenSSL as the independent party: SM2 over SM3 with the default
  // identifier; RSA as PKCS #1 v1.5 with the DigestInfo of the hash.
  FILE *file = fopen(path("key.pem").c_str(), "r");
  ASSERT_NE(file, nullptr);
  EVP_PKEY *key = PEM_read_PUBKEY(file, nullptr, nullptr, nullptr);
  fclose(file);
  ASSERT_NE(key, nullptr);
  const std::vector<uint8_t> message = readBytes("message");
  const std::vector<uint8_t> signature = readBytes("sig");
  if (label == "R" && hash == "sm3") {
    // OpenSSL 3.0 does not sign RSA over SM3; recover the block and compare
    // it with the DigestInfo of the SM3 digest (OID 1.2.156.10197.1.401).
    std::vector<uint8_t> expected = {0x30, 0x30, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x81, 0x1c,
                                     0xcf, 0x55, 0x01, 0x83, 0x11, 0x05, 0x00, 0x04, 0x20};
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    ASSERT_EQ(EVP_Digest(message.data(), message.size(), digest, &digestLen,
                         EVP_get_digestbyname("SM3"), nullptr),
              1);
    expected.insert(expected.end(), digest, digest + digestLen);
    EVP_PKEY_CTX *recoverCtx = EVP_PKEY_CTX_new(key, nullptr);
    ASSERT_EQ(EVP_PKEY_verify_recover_init(recoverCtx), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(recoverCtx, RSA_PKCS1_PADDING), 1);
    std::vector<uint8_t> recovered(512);
    size_t recoveredLen = recovered.size();
    ASSERT_EQ(EVP_PKEY_verify_recover(recoverCtx, recovered.data(), &recoveredLen, signature.data(),
                                      signature.size()),
              1);
    recovered.resize(recoveredLen);
    EXPECT_EQ(recovered, expected);
    EVP_PKEY_CTX_free(recoverCtx);
  } else {
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    EVP_PKEY_CTX *keyCtx = EVP_PKEY_CTX_new(key, nullptr);
    if (label == "S") {
      ASSERT_EQ(EVP_PKEY_CTX_set1_id(keyCtx, crypto::kSm2DefaultId, crypto::kSm2DefaultIdSize), 1);
    }
    EVP_MD_CTX_set_pkey_ctx(ctx, keyCtx);
    const EVP_MD *md = EVP_get_digestbyname(hash == "sm3" ? "SM3" : "SHA256");
    ASSERT_EQ(EVP_DigestVerifyInit(ctx, nullptr, md, nullptr, key), 1);
    EXPECT_EQ(
        EVP_DigestVerify(ctx, signature.data(), signature.size(), message.data(), message.size()),
        1);
    EVP_MD_CTX_free(ctx);
    EVP_PKEY_CTX_free(keyCtx);
  }
  EVP_PKEY_free(key);
#endif
}

INSTANTIATE_TEST_SUITE_P(Keys, SignAndVerify,
                         ::testing::Values(KeyCase{"S", "sm3"}, KeyCase{"R", "sha256"},
                                           KeyCase{"R", "sm3"}),
                         [](const ::testing::TestParamInfo<KeyCase> &param) {
                           return std::string(param.param.label) + "_" + param.param.hash;
                         });

class EncryptAndDecrypt : public TembraOnToken,
                          public ::testing::WithParamInterface<const char *> {};

TEST_P(EncryptAndDecrypt, RoundTripThroughTheToken) {
  const std::string label = GetParam();
  writeText("plain", "a secret for the token only");
  ASSERT_EQ(tembra({"encrypt", "--label", label, "-i", path("plain"), "-o", path("cipher")}).status,
            0);
  Outcome decrypt = tembra({"decrypt", "--label", label, "-i", path("cipher"), "-o", path("back"),
                            "--pin-env", "TEMBRA_TEST_USER_PIN"});
  ASSERT_EQ(decrypt.status, 0) << decrypt.err;
  EXPECT_EQ(readBytes("back"), readBytes("plain"));
}

INSTANTIATE_TEST_SUITE_P(Keys, EncryptAndDecrypt, ::testing::Values("S", "R"));

TEST_F(TembraOnToken, WrongPinReportsTheTriesLeftAndBlocksNothingElse) {
  writeText("message", "m");
  Outcome wrong = tembra({"sign", "--label", "S", "-i", path("message"), "-o", path("sig"),
                          "--pin-env", "TEMBRA_TEST_WRONG_PIN"});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(wrong.err, "tembra: wrong user PIN, 9 tries left\n");
  Outcome info = tembra({"pin-info", "--json"});
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_EQ(info.out,
            "[{\"pin\": \"user\", \"tries_left\": 9, \"locked\": false},\n"
            " {\"pin\": \"admin\", \"tries_left\": 10, \"locked\": false}]\n");
  EXPECT_EQ(tembra({"login", "--pin-env", "TEMBRA_TEST_USER_PIN"}).status, 0);
}

TEST_F(TembraOnToken, MissingKeyPairAndDeviceAreOneLineFailures) {
  Outcome noKey = tembra({"pubkey", "--label", "Nope"});
  EXPECT_EQ(noKey.status, 1);
  EXPECT_EQ(noKey.err, "tembra: no sign key pair labelled 'Nope'\n");
  Outcome noDevice = tembra({"keys", "--device", "3"});
  EXPECT_EQ(noDevice.status, 1);
  EXPECT_EQ(noDevice.err, "tembra: no device 3 (1 found)\n");
  EXPECT_EQ(lineCount(noDevice.out), 0u);
}

}  // namespace
}  // namespace tembra
