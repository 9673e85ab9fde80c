// OpenSSL as the independent party: it parses and verifies what our backend
// and encoders produce, and we open what it produces.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/der.h"
#include "crypto/key_formats.h"
#include "tests/crypto/test_hex.h"
#include "tests/support/openssl_party.h"

namespace tembra {
namespace crypto {
namespace {

using testing::toHex;
namespace openssl = test::openssl;

// Our view of an OpenSSL SM2 key: its SPKI through our decoder, its private
// scalar as OpenSSL gives it.
bool ourSm2Key(const openssl::Sm2Pair &theirs, Sm2KeyPair &out) {
  const std::vector<uint8_t> spki = openssl::spkiOf(theirs.key.get());
  if (!decodeSm2Spki(spki.data(), spki.size(), out.publicKey) || theirs.d.size() != 32)
    return false;
  std::copy(theirs.d.begin(), theirs.d.end(), out.d.data());
  return true;
}

// OpenSSL's SM2 ciphertext: SEQUENCE { INTEGER x, INTEGER y, OCTET STRING C3,
// OCTET STRING C2 }, from and to our flat C1 || C2 || C3.
std::vector<uint8_t> flatToAsn1(const std::vector<uint8_t> &flat) {
  const size_t messageLen = flat.size() - kSm2CipherOverhead;
  return der::sequence({der::integer(flat.data() + 1, 32), der::integer(flat.data() + 33, 32),
                        der::octetString(flat.data() + 65 + messageLen, 32),
                        der::octetString(flat.data() + 65, messageLen)});
}

// Our SM2 SubjectPublicKeyInfo has the fixed layout of the key formats test,
// and OpenSSL parses it in every check of the provider's tests; our PEM
// armour is read by OpenSSL in the CLI tests.
// The curve constants inside the Z value are pinned by the published Z of the
// vectors test; OpenSSL verifying the token's SM2 signatures is the provider's
// sign and key generation tests'.
TEST(OpensslSm2, WeVerifyOpensslsSignatureOverTheDigest) {
  const openssl::Sm2Pair theirs = openssl::newSm2Pair();
  Sm2KeyPair ours;
  ASSERT_TRUE(ourSm2Key(theirs, ours));
  std::vector<uint8_t> e(32);
  ASSERT_TRUE(randomBytes(e.data(), e.size()));
  const std::vector<uint8_t> sig = openssl::sign(theirs.key.get(), e);
  uint8_t r[32], s[32];
  ASSERT_TRUE(decodeSm2Signature(sig.data(), sig.size(), r, s));
  EXPECT_TRUE(sm2Verify(ours.publicKey, e.data(), r, s));
}

// OpenSSL's ciphertexts opening on the token are checked in the provider's
// import test.
TEST(OpensslSm2, OurCiphertextOpensInOpenssl) {
  const openssl::Sm2Pair theirs = openssl::newSm2Pair();
  Sm2KeyPair ours;
  ASSERT_TRUE(ourSm2Key(theirs, ours));
  const std::vector<uint8_t> message = testing::bytesOf("sixteen byte key");
  std::vector<uint8_t> flat;
  ASSERT_TRUE(sm2Encrypt(ours.publicKey, message.data(), message.size(), flat));
  EXPECT_EQ(message, openssl::decrypt(theirs.key.get(), flatToAsn1(flat)));
}

// ---- RSA ----------------------------------------------------------------------

class OpensslRsa : public ::testing::TestWithParam<int> {};

openssl::Pkey opensslRsaFromDer(const SecureBytes &der) {
  const unsigned char *p = der.data();
  return openssl::Pkey(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size())));
}

// OpenSSL checking the token's RSA signatures and encrypting to its keys is
// in the provider's key generation and import tests.
TEST_P(OpensslRsa, OpensslReadsOurKeys) {
  RsaPrivateKey ours;
  ASSERT_TRUE(rsaGenerate(GetParam(), ours));
  SecureBytes der;
  ASSERT_TRUE(encodeRsaPrivateKey(ours, der));
  openssl::Pkey theirs = opensslRsaFromDer(der);
  ASSERT_TRUE(theirs);
  EXPECT_EQ(EVP_PKEY_get_bits(theirs.get()), GetParam());
  {
    EVP_PKEY_CTX *check = EVP_PKEY_CTX_new_from_pkey(nullptr, theirs.get(), nullptr);
    EXPECT_EQ(EVP_PKEY_private_check(check), 1);
    EXPECT_EQ(EVP_PKEY_pairwise_check(check), 1);
    EVP_PKEY_CTX_free(check);
  }
  std::vector<uint8_t> spki;
  ASSERT_TRUE(encodeRsaSpki(ours.publicKey, spki));
  EXPECT_EQ(toHex(spki), toHex(openssl::spkiOf(theirs.get())));
}

TEST_P(OpensslRsa, WeReadOpensslsKeysAndCheckItsSignatures) {
  const openssl::RsaPair theirs = openssl::newRsaPair(GetParam());
  RsaPrivateKey ours;
  ASSERT_TRUE(decodeRsaPrivateKey(theirs.der.data(), theirs.der.size(), ours));
  const std::vector<uint8_t> data = testing::bytesOf("0123456789abcdef0123");
  const std::vector<uint8_t> sig = openssl::sign(theirs.key.get(), data);
  EXPECT_TRUE(rsaVerifyPkcs1(ours.publicKey, data.data(), data.size(), sig.data(), sig.size()));
  // And our encryption opens in OpenSSL.
  std::vector<uint8_t> cipher;
  ASSERT_TRUE(rsaEncryptPkcs1(ours.publicKey, data.data(), data.size(), cipher));
  EXPECT_EQ(data, openssl::decrypt(theirs.key.get(), cipher));
}

INSTANTIATE_TEST_SUITE_P(Sizes, OpensslRsa, ::testing::Values(1024, 2048));

}  // namespace
}  // namespace crypto
}  // namespace tembra
