#include "tests/cli/cli_run.h"

#include <fstream>
#include <iterator>
#include <sstream>

#include "cli/commands.h"

#ifdef TEMBRA_TEST_HAVE_OPENSSL
#include "crypto/sm2_z.h"
#include "tests/support/openssl_party.h"
#endif

namespace tembra {
namespace test {

Outcome tembra(const std::vector<std::string> &words) {
  std::ostringstream out;
  std::ostringstream err;
  const int status = cli::tembraMain(words, out, err);
  return {status, out.str(), err.str()};
}

#ifdef TEMBRA_TEST_HAVE_OPENSSL
bool openSslVerifies(const std::string &pem, const char *digest, const std::string &message,
                     const std::string &signature) {
  const openssl::Pkey key = openssl::keyFromPem(pem);
  return key && openssl::verifyMessage(
                    key.get(), digest,
                    openssl::Bytes(crypto::kSm2DefaultId,
                                   crypto::kSm2DefaultId + crypto::kSm2DefaultIdSize),
                    openssl::Bytes(message.begin(), message.end()),
                    openssl::Bytes(signature.begin(), signature.end()));
}
#endif

void CliStoreTest::writeText(const std::string &name, const std::string &text) const {
  std::ofstream(path(name), std::ios::binary) << text;
}

std::string CliStoreTest::readText(const std::string &name) const {
  std::ifstream in(path(name), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<uint8_t> CliStoreTest::readBytes(const std::string &name) const {
  std::ifstream in(path(name), std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace test
}  // namespace tembra
