// The `tembra` program run in-process through tembraMain: argument errors
// give status 2 and exactly one line; signatures, encryption and PINs work
// end to end through the provider loaded at run time, and OpenSSL accepts
// what `tembra sign` produces.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/commands.h"
#include "softskf/include/softskf.h"
#include "tests/cli/cli_run.h"
#include "tests/support/provider_test_support.h"
#ifdef TEMBRA_TEST_HAVE_OPENSSL
#include "tests/support/openssl_party.h"
#endif

namespace tembra {
namespace {

using test::Outcome;
using test::tembra;

struct UsageCase {
  std::vector<std::string> words;
  const char *message;  // the line after "tembra: "
};

class UsageErrors : public ::testing::TestWithParam<UsageCase> {
 protected:
  void SetUp() override { test::setEnv("TEMBRA_TEST_SHORT_PIN", "1234"); }
};

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
                  "give only one of --pin-file, --pin-env, --pin-insecure-arg"},
        UsageCase{{"--bogus"}, "unknown option --bogus"},
        UsageCase{{"verify", "--label", "L", "--pubkey", "k", "-i", "m", "-s", "s"},
                  "give --label or --pubkey, not both"},
        UsageCase{{"token", "create", "t", "--container", "A:sm2", "--container", "A:rsa1024"},
                  "container name 'A' given twice"},
        UsageCase{{"token", "create", "t"},
                  "no user PIN given: use --user-pin-file or --user-pin-env, run on a terminal, "
                  "or add --default-pins"},
        UsageCase{
            {"token", "create", "t", "--user-pin-env", "TEMBRA_TEST_SHORT_PIN", "--default-pins"},
            "New user PIN: PIN length out of range (6 to 16 characters)"}));

// Every option of every command is described in its --help, with an
// example; help goes to standard output with status 0.
TEST(Help, DescribesEveryOptionWithAnExample) {
  for (const std::vector<std::string> &words :
       {std::vector<std::string>{"--help"}, {"help"}, {"help", "token"}}) {
    Outcome run = tembra(words);
    EXPECT_EQ(run.status, 0) << words.front();
    EXPECT_EQ(run.out.rfind("usage: tembra", 0), 0u) << run.out;
  }
  for (const cli::Command &command : cli::allCommands()) {
    Outcome run = tembra({command.name, "--help"});
    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.rfind("usage: tembra", 0), 0u) << run.out;
    if (!command.options.empty()) {
      EXPECT_NE(run.out.find("Example:\n  tembra " + std::string(command.name)), std::string::npos)
          << command.name;
    }
    for (const cli::OptionDefinition &option : command.options) {
      EXPECT_FALSE(option.help.empty()) << command.name << " --" << option.name;
      EXPECT_NE(run.out.find("--" + option.name), std::string::npos) << command.name;
    }
  }
  EXPECT_EQ(tembra({"--version"}).out, "tembra 0.1.0\n");
}

// A fresh store with one token: "S" an SM2 container, "R" an RSA-1024 one,
// user PIN 11112222 given through the environment.
class TembraOnToken : public test::CliStoreTest {
 protected:
  void SetUp() override {
    test::setEnv("TEMBRA_TEST_USER_PIN", "11112222");
    test::setEnv("TEMBRA_TEST_WRONG_PIN", "99999999");
    Outcome run =
        tembra({"token", "create", "tok", "--container", "S:sm2", "--container", "R:rsa1024:nocert",
                "--user-pin-env", "TEMBRA_TEST_USER_PIN", "--default-pins"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "tembra: note: default PIN 12345678 in use for the administrator\n");
  }
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
  EXPECT_NE(pubkey.out.find("bytes:   " + std::to_string(readBytes("key.pem").size()) + "\n"),
            std::string::npos)
      << pubkey.out;
  Outcome fromFile = tembra({"verify", "--pubkey", path("key.pem"), "--hash", hash, "-i",
                             path("message"), "-s", path("sig")});
  EXPECT_EQ(fromFile.status, 0) << fromFile.err;

#ifdef TEMBRA_TEST_HAVE_OPENSSL
  // OpenSSL as the independent party: SM2 over SM3 with the default
  // identifier; RSA as PKCS #1 v1.5 with the DigestInfo of the hash.
  const std::string pem = readText("key.pem");
  if (label == "S" || hash == "sha256") {
    EXPECT_TRUE(test::openSslVerifies(pem, hash == "sm3" ? "SM3" : "SHA256", readText("message"),
                                      readText("sig")));
  } else {
    // OpenSSL 3.0 does not sign RSA over SM3; recover the block and compare
    // it with the DigestInfo of the SM3 digest (OID 1.2.156.10197.1.401).
    std::vector<uint8_t> expected = {0x30, 0x30, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x81, 0x1c,
                                     0xcf, 0x55, 0x01, 0x83, 0x11, 0x05, 0x00, 0x04, 0x20};
    const std::vector<uint8_t> digest = test::openssl::sm3(readBytes("message"));
    expected.insert(expected.end(), digest.begin(), digest.end());
    const test::openssl::Pkey key = test::openssl::keyFromPem(pem);
    ASSERT_TRUE(key);
    EXPECT_EQ(expected, test::openssl::rsaRecover(key.get(), readBytes("sig")));
  }
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

// Failures in plain words, one line each. "@" in words and messages stands
// for the store's directory. Setup commands run first, their results unused.
struct FailureCase {
  const char *name;
  std::vector<std::vector<std::string>> setup;
  std::vector<std::string> words;
  const char *message;          // the line after "tembra: "
  const char *fault = nullptr;  // an SKF call that fails once with SAR_WRITEFILEERR
};
void PrintTo(const FailureCase &c, std::ostream *os) {
  *os << c.name;
}

class Failures : public TembraOnToken, public ::testing::WithParamInterface<FailureCase> {
 protected:
  std::string expand(const std::string &text) const {
    std::string out;
    for (char c : text) out += c == '@' ? m_store.path() : std::string(1, c);
    return out;
  }
  std::vector<std::string> expand(std::vector<std::string> words) const {
    for (std::string &word : words) word = expand(word);
    return words;
  }
};

TEST_P(Failures, OneLineInPlainWords) {
  writeText("big", std::string(65537, 'x'));
  for (const std::vector<std::string> &words : GetParam().setup) tembra(expand(words));
  if (GetParam().fault != nullptr) SKFSoft_SetFault(GetParam().fault, SAR_WRITEFILEERR, 1);
  Outcome run = tembra(expand(GetParam().words));
  SKFSoft_ClearFaults();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "tembra: " + expand(GetParam().message) + "\n");
}

const std::vector<std::string> kWrongLogin = {"login", "--pin-env", "TEMBRA_TEST_WRONG_PIN"};
const std::vector<std::string> kWrongAdmin = {"passwd",
                                              "--type",
                                              "admin",
                                              "--pin-env",
                                              "TEMBRA_TEST_WRONG_PIN",
                                              "--new-pin-env",
                                              "TEMBRA_TEST_USER_PIN"};

INSTANTIATE_TEST_SUITE_P(
    Cases, Failures,
    ::testing::Values(
        FailureCase{"UnblockWrongAdminPin",
                    {},
                    {"unblock", "--admin-pin-env", "TEMBRA_TEST_WRONG_PIN", "--new-pin-env",
                     "TEMBRA_TEST_USER_PIN"},
                    "unblock refused: wrong administrator PIN, 9 tries left"},
        FailureCase{"OneTryLeft", std::vector<std::vector<std::string>>(8, kWrongLogin),
                    kWrongLogin, "wrong user PIN, 1 try left"},
        FailureCase{"UserPinLocked", std::vector<std::vector<std::string>>(9, kWrongLogin),
                    kWrongLogin,
                    "the user PIN is locked: unblock it with the administrator PIN "
                    "(tembra unblock)"},
        FailureCase{"PasswdOnLockedAdminPin",
                    std::vector<std::vector<std::string>>(10, kWrongAdmin), kWrongAdmin,
                    "PIN change refused: the administrator PIN is locked and cannot be unblocked"},
        FailureCase{
            "NoKeyPair", {}, {"pubkey", "--label", "Nope"}, "no sign key pair labelled 'Nope'"},
        FailureCase{"NoDevice", {}, {"keys", "--device", "3"}, "no device 3 (1 found)"},
        FailureCase{"PlugUnknownToken",
                    {},
                    {"token", "plug", "nope"},
                    "token plug 'nope' failed: no such token (see tembra token list)"},
        FailureCase{"ReadOnlyStore",
                    {},
                    {"token", "create", "t2", "--default-pins"},
                    "cannot create token 't2': application TembraApp: SKF_CreateApplication: the "
                    "token's store cannot be written (read-only or full) (token code 0x0A000008)",
                    "SKF_CreateApplication"},
        FailureCase{"MissingInput",
                    {},
                    {"sign", "--label", "S", "-i", "@/none", "--pin-env", "TEMBRA_TEST_USER_PIN"},
                    "cannot open @/none: No such file or directory"},
        FailureCase{"DirectoryInput",
                    {},
                    {"verify", "--label", "S", "-i", "@", "-s", "@/big"},
                    "@: is a directory"},
        FailureCase{"MissingStore",
                    {},
                    {"devices", "--store", "@/none"},
                    "token store @/none: No such file or directory"},
        FailureCase{"Sm2MessageTooLong",
                    {},
                    {"encrypt", "--label", "S", "-i", "@/big", "-o", "@/out"},
                    "@/big is larger than 65536 bytes: SM2 encryption is limited to what the "
                    "token can decrypt"},
        FailureCase{
            "CertificateOfAnotherKey",
            {{"cert", "get", "--label", "S", "--type", "enc", "-o", "@/enc.der"}},
            {"cert", "put", "--label", "S", "-i", "@/enc.der", "--pin-env", "TEMBRA_TEST_USER_PIN"},
            "the certificate's public key is not that of the sign key pair 'S'; nothing "
            "stored (--force stores it all the same)"}),
    [](const ::testing::TestParamInfo<FailureCase> &param) {
      return std::string(param.param.name);
    });

// A token whose store files are corrupt is named on standard error and in
// token list, and never stands in for another: an index is refused, an
// identity finds only the right token.
TEST_F(TembraOnToken, CorruptTokenIsReportedAndNeverMistakenForAnother) {
  ASSERT_EQ(tembra({"token", "create", "other", "--default-pins"}).status, 0);
  writeText("tok/device.rec", "garbage");
  const std::string problem = "token 'tok' is corrupt (device.rec cannot be decoded)";

  Outcome devices = tembra({"devices", "--json"});
  EXPECT_EQ(devices.status, 0);
  EXPECT_EQ(devices.err, "tembra: warning: " + problem + "; the provider does not list it\n");
  Outcome list = tembra({"token", "list", "--json"});
  EXPECT_NE(list.out.find("\"status\": \"is corrupt (device.rec cannot be decoded)\""),
            std::string::npos)
      << list.out;
  Outcome byIndex = tembra({"login", "--device", "0", "--pin-env", "TEMBRA_TEST_USER_PIN"});
  EXPECT_EQ(byIndex.status, 1);
  EXPECT_EQ(byIndex.err, "tembra: " + problem +
                             "; device numbers may have moved: choose the device with "
                             "--token-label or --serial\n");
  Outcome byLabel = tembra({"login", "--token-label", "tok", "--pin-env", "TEMBRA_TEST_USER_PIN"});
  EXPECT_EQ(byLabel.err,
            "tembra: no device with label 'tok' (the store also holds: " + problem + ")\n");
  EXPECT_EQ(tembra({"keys", "--token-label", "other"}).status, 0);
}

TEST_F(TembraOnToken, TokenTheProviderDroppedIsNamed) {
  SKFSoft_SetFault("SKF_ConnectDev", SAR_FAIL, 1);
  Outcome devices = tembra({"devices"});
  SKFSoft_ClearFaults();
  EXPECT_EQ(devices.out, "(none)\n");
  EXPECT_EQ(devices.err.rfind("tembra: warning: token 'tok' (serial TMB", 0), 0u) << devices.err;
  EXPECT_NE(devices.err.find("is present, but the provider dropped it at discovery"),
            std::string::npos);
}

TEST_F(TembraOnToken, ForcedCertificateOfAnotherKeyIsStored) {
  ASSERT_EQ(tembra({"cert", "get", "--label", "S", "--type", "enc", "-o", path("enc.der")}).status,
            0);
  ASSERT_EQ(tembra({"cert", "put", "--force", "--label", "S", "-i", path("enc.der"), "--pin-env",
                    "TEMBRA_TEST_USER_PIN"})
                .status,
            0);
  ASSERT_EQ(tembra({"cert", "get", "--label", "S", "-o", path("back.der")}).status, 0);
  EXPECT_EQ(readBytes("back.der"), readBytes("enc.der"));
}

TEST_F(TembraOnToken, ModuleSelectsTheProviderBuild) {
  Outcome missing = tembra({"devices", "--module", "/nonexistent/provider.so"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err.rfind("tembra: cannot load /nonexistent/provider.so: ", 0), 0u)
      << missing.err;
  Outcome chosen = tembra({"devices", "--module", TEMBRA_PROVIDER_BINARY});
  EXPECT_EQ(chosen.status, 0) << chosen.err;
}

}  // namespace
}  // namespace tembra
