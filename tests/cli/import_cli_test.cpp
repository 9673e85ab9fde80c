// `tembra envelope` and `tembra import` end to end: a key pair made by
// OpenSSL, written in each accepted file form, installed as the encryption
// key pair beside a signature key pair (enveloped in software, or plain and
// enveloped by the provider), then its exported public key compared with
// OpenSSL's and a ciphertext decrypted on the token.
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/commands.h"
#include "tests/support/provider_test_support.h"

namespace tembra {
namespace {

enum class Form { Pkcs8Pem, Pkcs8Der, TraditionalPem, TraditionalDer };

struct ImportCase {
  const char *name;
  const char *label;
  bool sm2;
  bool enveloped;
  Form form;
};

int run(const std::vector<std::string> &words, std::string *err = nullptr) {
  std::ostringstream out, errors;
  const int status = cli::tembraMain(words, out, errors);
  if (err != nullptr) *err = errors.str();
  return status;
}

std::vector<uint8_t> readBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

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

class ImportCommand : public ::testing::TestWithParam<ImportCase> {
 protected:
  void SetUp() override {
    test::setEnv("TEMBRA_TEST_USER_PIN", "11112222");
    ASSERT_EQ(0, run({"token", "create", "tok", "--container", "S:sm2:noenc:nocert", "--container",
                      "R:rsa1024:noenc:nocert", "--user-pin-env", "TEMBRA_TEST_USER_PIN",
                      "--default-pins"}));
  }
  std::string path(const std::string &name) const { return m_store.path() + "/" + name; }

  test::TokenStore m_store;
};

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

  std::string err;
  std::vector<std::string> import = {"import", "--label", c.label, "--pin-env",
                                     "TEMBRA_TEST_USER_PIN"};
  if (c.enveloped) {
    ASSERT_EQ(0, run({"pubkey", "--label", c.label, "--pem", "-o", path("sign.pem")}));
    ASSERT_EQ(0, run({"envelope", "--to", path("sign.pem"), "-i", path("enc.key"), "-o",
                      path("enc.blob")},
                     &err))
        << err;
    import.insert(import.end(), {"--enveloped", "-i", path("enc.blob")});
  } else {
    import.insert(import.end(), {"-i", path("enc.key")});
  }
  ASSERT_EQ(0, run(import, &err)) << err;

  ASSERT_EQ(0, run({"pubkey", "--label", c.label, "--type", "enc", "-o", path("enc.spki")}));
  EXPECT_EQ(spki, readBytes(path("enc.spki")));
  std::ofstream(path("plain"), std::ios::binary) << "for the imported key";
  ASSERT_EQ(0, run({"encrypt", "--label", c.label, "-i", path("plain"), "-o", path("cipher")}));
  ASSERT_EQ(0, run({"decrypt", "--label", c.label, "-i", path("cipher"), "-o", path("back"),
                    "--pin-env", "TEMBRA_TEST_USER_PIN"},
                   &err))
      << err;
  EXPECT_EQ(readBytes(path("plain")), readBytes(path("back")));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ImportCommand,
    ::testing::Values(ImportCase{"sm2_enveloped_pkcs8_pem", "S", true, true, Form::Pkcs8Pem},
                      ImportCase{"sm2_plain_sec1_der", "S", true, false, Form::TraditionalDer},
                      ImportCase{"sm2_plain_sec1_pem", "S", true, false, Form::TraditionalPem},
                      ImportCase{"rsa_enveloped_pkcs1_pem", "R", false, true, Form::TraditionalPem},
                      ImportCase{"rsa_plain_pkcs8_der", "R", false, false, Form::Pkcs8Der}),
    [](const ::testing::TestParamInfo<ImportCase> &param) { return param.param.name; });

TEST(EnvelopeCommand, RefusesARecipientOfTheOtherAlgorithm) {
  test::TokenStore store;
  const std::string dir = store.path();
  EVP_PKEY *sm2 = EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2");
  EVP_PKEY *rsa = EVP_RSA_gen(1024);
  ASSERT_TRUE(writeKey(sm2, Form::Pkcs8Pem, dir + "/sm2.key"));
  BIO *bio = BIO_new_file((dir + "/rsa.pub").c_str(), "wb");
  PEM_write_bio_PUBKEY(bio, rsa);
  BIO_free(bio);
  EVP_PKEY_free(sm2);
  EVP_PKEY_free(rsa);
  std::string err;
  EXPECT_EQ(1,
            run({"envelope", "--to", dir + "/rsa.pub", "-i", dir + "/sm2.key", "-o", dir + "/blob"},
                &err));
  EXPECT_EQ("tembra: an SM2 key pair needs an SM2 signature public key\n", err);
}

}  // namespace
}  // namespace tembra
