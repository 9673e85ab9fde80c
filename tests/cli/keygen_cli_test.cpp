// `tembra keygen`, `csr`, `delete-key` and `data` end to end on a fresh
// software token: the request that the token signs is one OpenSSL accepts
// (the check `openssl req -verify` makes, with the SM2 default identity),
// and data objects round-trip with their numbers listed.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crypto/sm2_z.h"
#include "tests/cli/cli_run.h"
#include "tests/support/provider_test_support.h"

namespace tembra {
namespace {

using test::Outcome;
using test::tembra;

class KeygenCliBase : public test::CliStoreTest {
 protected:
  void SetUp() override {
    test::setEnv("TEMBRA_TEST_USER_PIN", "11112222");
    // One key pair, so that the store holds no keyless container to reuse.
    Outcome run = tembra({"token", "create", "tok", "--container", "X:sm2:noenc:nocert",
                          "--user-pin-env", "TEMBRA_TEST_USER_PIN", "--default-pins"});
    ASSERT_EQ(run.status, 0) << run.err;
  }
};

class KeygenCli : public KeygenCliBase, public ::testing::WithParamInterface<const char *> {};

TEST_P(KeygenCli, RequestSignedOnTheTokenVerifies) {
  const std::string alg = GetParam();
  const bool sm2 = alg == "sm2";
  Outcome run = tembra(
      {"keygen", "--label", "K", "--alg", alg, "--json", "--pin-env", "TEMBRA_TEST_USER_PIN"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find(sm2 ? "\"fingerprint\": \"sm3:" : "\"fingerprint\": \"sha256:"),
            std::string::npos)
      << run.out;
  run = tembra({"keygen", "--label", "K", "--pin-env", "TEMBRA_TEST_USER_PIN"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "tembra: a container labelled 'K' exists\n");

  run = tembra({"csr", "--label", "K", "--subject", "/CN=Alice\\/Bob/O=Tembra/C=CN", "-o",
                path("req.der"), "--pin-env", "TEMBRA_TEST_USER_PIN"});
  ASSERT_EQ(run.status, 0) << run.err;
  run = tembra({"pubkey", "--label", "K", "-o", path("key.der")});
  ASSERT_EQ(run.status, 0) << run.err;

  const std::vector<uint8_t> der = readBytes("req.der");
  const unsigned char *p = der.data();
  X509_REQ *request = d2i_X509_REQ(nullptr, &p, long(der.size()));
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(p, der.data() + der.size());
  EVP_PKEY *key = X509_REQ_get_pubkey(request);
  ASSERT_NE(key, nullptr);
  unsigned char *spki = nullptr;
  const int spkiLen = i2d_PUBKEY(key, &spki);
  EXPECT_EQ(readBytes("key.der"), std::vector<uint8_t>(spki, spki + spkiLen));
  OPENSSL_free(spki);
  if (sm2) {
    ASN1_OCTET_STRING *id = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(id, crypto::kSm2DefaultId, int(crypto::kSm2DefaultIdSize));
    X509_REQ_set0_distinguishing_id(request, id);
  }
  EXPECT_EQ(X509_REQ_verify(request, key), 1);
  char subject[256] = {};
  X509_NAME_oneline(X509_REQ_get_subject_name(request), subject, sizeof(subject));
  EXPECT_STREQ(subject, "/CN=Alice\\/Bob/O=Tembra/C=CN");
  EVP_PKEY_free(key);
  X509_REQ_free(request);

  run = tembra({"delete-key", "--label", "K", "--yes", "--pin-env", "TEMBRA_TEST_USER_PIN"});
  ASSERT_EQ(run.status, 0) << run.err;
  run = tembra({"keys", "--json"});
  EXPECT_EQ(run.out.find("\"K\""), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\"X\""), std::string::npos) << run.out;
}

INSTANTIATE_TEST_SUITE_P(Algorithms, KeygenCli, ::testing::Values("sm2", "rsa1024"));

TEST_F(KeygenCliBase, DataObjectsRoundTrip) {
  std::ofstream(path("in"), std::ios::binary) << "payload";
  const std::vector<std::vector<std::string>> steps = {
      {"data", "create", "3", "--size", "10", "--read", "anyone", "--write", "user"},
      {"data", "create", "20", "--size", "4", "--read", "user"},
      {"data", "write", "3", "-i", path("in"), "--offset", "1", "--pin-env",
       "TEMBRA_TEST_USER_PIN"},
  };
  for (const std::vector<std::string> &words : steps) {
    Outcome run = tembra(words);
    ASSERT_EQ(run.status, 0) << words[1] << " " << run.err;
  }
  // The bytes alone on standard output, the summary on standard error.
  Outcome run = tembra({"data", "read", "3", "--offset", "1", "--length", "7", "--json"});
  EXPECT_EQ(run.out, "payload");
  EXPECT_EQ(run.err, "{\"id\": 3, \"offset\": 1, \"output\": \"standard output\", \"bytes\": 7}\n");
  run = tembra({"data", "list", "--json"});
  EXPECT_EQ(run.out,
            "[{\"id\": 3, \"size\": 10, \"read\": \"anyone\", \"write\": \"user\"},\n"
            " {\"id\": 20, \"size\": 4, \"read\": \"user\", \"write\": \"user\"}]\n");
  run = tembra({"data", "write", "3", "-i", path("in"), "--offset", "4", "--pin-env",
                "TEMBRA_TEST_USER_PIN"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "tembra: offset or length outside data object 3\n");
  run = tembra({"data", "read", "4"});
  EXPECT_EQ(run.err, "tembra: no data object 4\n");
  // The listing goes through the token library, yet honours the device choice.
  run = tembra({"data", "list", "--token-label", "other"});
  EXPECT_EQ(run.err, "tembra: no device with label 'other'\n");
}

}  // namespace
}  // namespace tembra
