// `tembra` run in-process through tembraMain, and a fresh software token store
// whose directory also holds the files a command reads and writes.
#ifndef TEMBRA_TESTS_CLI_CLI_RUN_H
#define TEMBRA_TESTS_CLI_CLI_RUN_H

#include <stdint.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/provider_test_support.h"

namespace tembra {
namespace test {

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome tembra(const std::vector<std::string> &words);

#ifdef TEMBRA_TEST_HAVE_OPENSSL
// Whether OpenSSL, as the independent party, accepts the signature of the
// message under the PEM public key: SM2 with the default identifier, RSA as
// PKCS #1 v1.5; digest "SM3" or "SHA256".
bool openSslVerifies(const std::string &pem, const char *digest, const std::string &message,
                     const std::string &signature);
#endif

class CliStoreTest : public ::testing::Test {
 protected:
  std::string path(const std::string &name) const { return m_store.path() + "/" + name; }
  void writeText(const std::string &name, const std::string &text) const;
  std::string readText(const std::string &name) const;
  std::vector<uint8_t> readBytes(const std::string &name) const;

  TokenStore m_store;
};

}  // namespace test
}  // namespace tembra

#endif  // TEMBRA_TESTS_CLI_CLI_RUN_H
