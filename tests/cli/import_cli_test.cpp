// `tembra envelope` and `tembra import` end to end: a key pair made by
// OpenSSL, written in each accepted file form, installed as the encryption
// key pair beside a signature key pair (enveloped in software, or plain and
// enveloped by the provider), then its exported public key compared with
// OpenSSL's and a ciphertext decrypted on the token.
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/cli/cli_run.h"
#include "tests/support/provider_test_support.h"

namespace tembra {
namespace {

using test::Outcome;
using test::tembra;

enum class Form { Pkcs8Pem, Pkcs8Der, TraditionalPem, TraditionalDer };

struct ImportCase {
  const char *name;
  const char *label;
  bool sm2;
  bool enveloped;
  Form form;
};

bool writeKey(EVP_PKEY *key, Form form, const std::string &path) {
  BIO *bio = BIO_new_file(path.c_str(), "wb");
  if (bio == nullptr) return false;
  int ok = 0;
  switch (form) {
    case Form::Pkcs8Pem:
      ok = PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
      break;
    case Form::Pkcs8Der:
      ok = i2d_PKCS8PrivateKey_bio(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
      break;
    case Form::TraditionalPem:
      ok = PEM_write_bio_PrivateKey_traditional(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
      break;
    case Form::TraditionalDer:
      ok = i2d_PrivateKey_bio(bio, key);
      break;
  }
  BIO_free(bio);
  return ok == 1;
}

// One token: "S" an SM2 and "R" an RSA-1024 signature key pair, no
// encryption key pairs yet.
class ImportBase : public test::CliStoreTest {
 protected:
  void SetUp() override {
    test::setEnv("TEMBRA_TEST_USER_PIN", "11112222");
    ASSERT_EQ(0, tembra({"token", "create", "tok", "--container", "S:sm2:noenc:nocert",
                         "--container", "R:rsa1024:noenc:nocert", "--user-pin-env",
                         "TEMBRA_TEST_USER_PIN", "--default-pins"})
                     .status);
  }
};

class ImportCommand : public ImportBase, public ::testing::WithParamInterface<ImportCase> {};

TEST_P(ImportCommand, InstalledKeyDecryptsOnTheToken) {
  const ImportCase &c = GetParam();
  EVP_PKEY *key = c.sm2 ? EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2") : EVP_RSA_gen(1024);
  ASSERT_NE(nullptr, key);
  ASSERT_TRUE(writeKey(key, c.form, path("enc.key")));
  unsigned char *der = nullptr;
  const int derLen = i2d_PUBKEY(key, &der);
  const std::vector<uint8_t> spki(der, der + derLen);
  OPENSSL_free(der);
  EVP_PKEY_free(key);
  writeText("plain", "for the imported key");

  const std::string label = c.label;
  const std::string pin = "TEMBRA_TEST_USER_PIN";
  std::vector<std::vector<std::string>> steps = {
      {"pubkey", "--label", label, "--pem", "-o", path("sign.pem")},
      {"envelope", "--to", path("sign.pem"), "-i", path("enc.key"), "-o", path("enc.blob")},
      {"import", "--label", label, "--pin-env", pin, "--enveloped", "-i", path("enc.blob")},
      {"pubkey", "--label", label, "--type", "enc", "-o", path("enc.spki")},
      {"encrypt", "--label", label, "-i", path("plain"), "-o", path("cipher")},
      {"decrypt", "--label", label, "-i", path("cipher"), "-o", path("back"), "--pin-env", pin}};
  if (!c.enveloped) {
    steps.erase(steps.begin(), steps.begin() + 2);
    steps[0] = {"import", "--label", label, "--pin-env", pin, "-i", path("enc.key")};
  }
  for (const std::vector<std::string> &words : steps) {
    Outcome run = tembra(words);
    ASSERT_EQ(run.status, 0) << words[0] << ": " << run.err;
  }
  EXPECT_EQ(spki, readBytes("enc.spki"));
  EXPECT_EQ(readBytes("plain"), readBytes("back"));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ImportCommand,
    ::testing::Values(ImportCase{"sm2_enveloped_pkcs8_pem", "S", true, true, Form::Pkcs8Pem},
                      ImportCase{"sm2_plain_sec1_der", "S", true, false, Form::TraditionalDer},
                      ImportCase{"sm2_plain_sec1_pem", "S", true, false, Form::TraditionalPem},
                      ImportCase{"rsa_enveloped_pkcs1_pem", "R", false, true, Form::TraditionalPem},
                      ImportCase{"rsa_plain_pkcs8_der", "R", false, false, Form::Pkcs8Der}),
    [](const ::testing::TestParamInfo<ImportCase> &param) { return param.param.name; });

TEST_F(ImportBase, EnvelopeRefusesARecipientOfTheOtherAlgorithm) {
  EVP_PKEY *sm2 = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  ASSERT_TRUE(writeKey(sm2, Form::Pkcs8Pem, path("sm2.key")));
  EVP_PKEY_free(sm2);
  ASSERT_EQ(0, tembra({"pubkey", "--label", "R", "--pem", "-o", path("rsa.pem")}).status);
  Outcome run =
      tembra({"envelope", "--to", path("rsa.pem"), "-i", path("sm2.key"), "-o", path("blob")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "tembra: an SM2 key pair needs an SM2 signature public key\n");
}

}  // namespace
}  // namespace tembra
