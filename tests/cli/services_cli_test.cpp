// `tembra random`, `hash`, `cipher` and `mechanisms` run in-process against a
// fresh software token, with OpenSSL as the independent party for SM3.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/cli/cli_run.h"
#include "tests/support/provider_test_support.h"

#ifdef TEMBRA_TEST_HAVE_OPENSSL
#include "tests/crypto/test_hex.h"
#include "tests/support/openssl_party.h"
#endif

namespace tembra {
namespace {

using test::Outcome;
using test::tembra;

class ServicesCli : public test::CliStoreTest {
 protected:
  void SetUp() override {
    test::setEnv("TEMBRA_TEST_USER_PIN", "11112222");
    ASSERT_EQ(0, tembra({"token", "create", "tok", "--user-pin-env", "TEMBRA_TEST_USER_PIN",
                         "--default-pins"})
                     .status);
    writeText("key", std::string("0123456789abcdef0123456789ABCDEF\n"));
  }
};

std::string sample(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 13 + 5);
  return s;
}

// Encrypt then decrypt gives the input back, in both modes, with and without
// padding (the provider's tests compare the token's SM4 with OpenSSL); the
// decryption streams to standard output, the summary then to standard error.
TEST_F(ServicesCli, CipherRoundTripsAndEqualsOpenSsl) {
  const std::string iv = "000102030405060708090a0b0c0d0e0f";
  struct Case {
    const char *alg;
    size_t length;
    bool pad;
  };
  for (const Case &c :
       {Case{"sm4-cbc", 4096, false}, Case{"sm4-ecb", 1000, true}, Case{"sm4-cbc", 32, true}}) {
    SCOPED_TRACE(std::string(c.alg) + " " + std::to_string(c.length));
    writeText("plain", sample(c.length));
    std::vector<std::string> common = {"--alg", c.alg, "--key-file", path("key")};
    if (std::string(c.alg) == "sm4-cbc") common.insert(common.end(), {"--iv", iv});
    if (c.pad) common.push_back("--pad");
    std::vector<std::string> enc = {"cipher", "encrypt", "-i", path("plain"), "-o", path("c")};
    std::vector<std::string> dec = {"cipher", "decrypt", "-i", path("c")};
    enc.insert(enc.end(), common.begin(), common.end());
    dec.insert(dec.end(), common.begin(), common.end());
    ASSERT_EQ(0, tembra(enc).status);
    Outcome run = tembra(dec);
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_EQ(readText("plain"), run.out);
    EXPECT_NE(run.err.find("output:    standard output\n"), std::string::npos) << run.err;
    EXPECT_EQ((c.length / 16 + (c.pad ? 1 : 0)) * 16, readText("c").size());
    if (c.pad) {
      // Decrypted without --pad, the tail shows the PKCS #7 bytes the tool added.
      dec.pop_back();
      run = tembra(dec);
      ASSERT_EQ(0, run.status);
      const size_t fill = 16 - c.length % 16;
      EXPECT_EQ(std::string(fill, static_cast<char>(fill)), run.out.substr(c.length));
    }
  }
}

// Without --pad a length that is not a multiple of 16 is refused with one
// clear line, and no output file is left behind.
TEST_F(ServicesCli, UnalignedInputIsRefusedClearly) {
  writeText("plain", sample(1000));
  Outcome run = tembra({"cipher", "encrypt", "--alg", "sm4-ecb", "--key-file", path("key"), "-i",
                        path("plain"), "-o", path("c")});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("tembra: " + path("plain") +
                " is 1000 bytes, not a multiple of 16: SM4 works on whole 16-byte blocks (add "
                "--pad for PKCS #7 padding)\n",
            run.err);
  EXPECT_FALSE(std::ifstream(path("c")).good());
}

TEST_F(ServicesCli, HashRandomAndMechanisms) {
  writeText("data", sample(3000));
  Outcome hash = tembra({"hash", "-i", path("data"), "--json"});
  ASSERT_EQ(0, hash.status) << hash.err;
#ifdef TEMBRA_TEST_HAVE_OPENSSL
  const std::string hex = testing::toHex(test::openssl::sm3(readBytes("data")));
  EXPECT_NE(std::string::npos, hash.out.find("\"digest\": \"" + hex + "\"")) << hash.out;
#endif
  // Raw bytes, or hexadecimal text with --hex.
  EXPECT_EQ(16u, tembra({"random", "16"}).out.size());
  EXPECT_EQ(33u, tembra({"random", "16", "--hex"}).out.size());
  Outcome mechanisms = tembra({"mechanisms", "--json"});
  EXPECT_EQ(0, mechanisms.status);
  EXPECT_NE(std::string::npos,
            mechanisms.out.find("{\"mechanism\": \"SM2-SIGN\", \"id\": \"0x00001000\", "
                                "\"usages\": \"sign\", \"key-bits\": \"-\"}"))
      << mechanisms.out;
}

}  // namespace
}  // namespace tembra
