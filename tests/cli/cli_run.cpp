#include "tests/cli/cli_run.h"

#include <fstream>
#include <iterator>
#include <sstream>

#include "cli/commands.h"

#ifdef TEMBRA_TEST_HAVE_OPENSSL
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "crypto/sm2_z.h"
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
  BIO *bio = BIO_new_mem_buf(pem.data(), int(pem.size()));
  EVP_PKEY *key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (key == nullptr) return false;
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  EVP_PKEY_CTX *keyCtx = EVP_PKEY_CTX_new(key, nullptr);
  bool ok = !EVP_PKEY_is_a(key, "SM2") ||
            EVP_PKEY_CTX_set1_id(keyCtx, crypto::kSm2DefaultId, crypto::kSm2DefaultIdSize) == 1;
  EVP_MD_CTX_set_pkey_ctx(ctx, keyCtx);
  ok = ok && EVP_DigestVerifyInit(ctx, nullptr, EVP_get_digestbyname(digest), nullptr, key) == 1 &&
       EVP_DigestVerify(ctx, reinterpret_cast<const uint8_t *>(signature.data()), signature.size(),
                        reinterpret_cast<const uint8_t *>(message.data()), message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_CTX_free(keyCtx);
  EVP_PKEY_free(key);
  return ok;
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
