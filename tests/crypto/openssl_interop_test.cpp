// OpenSSL as the independent party: it parses and verifies what our backend
// and encoders produce, and we open what it produces.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/der.h"
#include "crypto/key_formats.h"
#include "tests/crypto/test_hex.h"

namespace tembra {
namespace crypto {
namespace {

using testing::toHex;

struct PkeyFree {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX *p) const { EVP_PKEY_CTX_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;

std::vector<uint8_t> writePublic(EVP_PKEY *key) {
  unsigned char *out = nullptr;
  const int len = i2d_PUBKEY(key, &out);
  std::vector<uint8_t> der;
  if (len > 0) der.assign(out, out + len);
  OPENSSL_free(out);
  return der;
}

Pkey opensslSm2Key() {
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "SM2", nullptr));
  EVP_PKEY *key = nullptr;
  if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_keygen(ctx.get(), &key) != 1) {
    return nullptr;
  }
  return Pkey(key);
}

// Our view of an OpenSSL SM2 key: its SPKI through our decoder, its private
// scalar through the parameter interface.
bool ourSm2Key(EVP_PKEY *key, Sm2KeyPair &out) {
  const std::vector<uint8_t> spki = writePublic(key);
  if (!decodeSm2Spki(spki.data(), spki.size(), out.publicKey)) return false;
  BIGNUM *d = nullptr;
  if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_PRIV_KEY, &d) != 1) return false;
  const bool ok = BN_bn2binpad(d, out.d.data(), 32) == 32;
  BN_clear_free(d);
  return ok;
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
  Pkey theirs = opensslSm2Key();
  ASSERT_TRUE(theirs);
  Sm2KeyPair ours;
  ASSERT_TRUE(ourSm2Key(theirs.get(), ours));
  uint8_t e[32];
  ASSERT_TRUE(randomBytes(e, sizeof e));
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, theirs.get(), nullptr));
  ASSERT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
  size_t sigLen = 0;
  ASSERT_EQ(EVP_PKEY_sign(ctx.get(), nullptr, &sigLen, e, sizeof e), 1);
  std::vector<uint8_t> sig(sigLen);
  ASSERT_EQ(EVP_PKEY_sign(ctx.get(), sig.data(), &sigLen, e, sizeof e), 1);
  sig.resize(sigLen);
  uint8_t r[32], s[32];
  ASSERT_TRUE(decodeSm2Signature(sig.data(), sig.size(), r, s));
  EXPECT_TRUE(sm2Verify(ours.publicKey, e, r, s));
}

// OpenSSL's ciphertexts opening on the token are checked in the provider's
// import test.
TEST(OpensslSm2, OurCiphertextOpensInOpenssl) {
  Pkey theirs = opensslSm2Key();
  ASSERT_TRUE(theirs);
  Sm2KeyPair ours;
  ASSERT_TRUE(ourSm2Key(theirs.get(), ours));
  const std::vector<uint8_t> message = testing::bytesOf("sixteen byte key");

  std::vector<uint8_t> flat;
  ASSERT_TRUE(sm2Encrypt(ours.publicKey, message.data(), message.size(), flat));
  const std::vector<uint8_t> asn1 = flatToAsn1(flat);
  PkeyCtx dec(EVP_PKEY_CTX_new_from_pkey(nullptr, theirs.get(), nullptr));
  ASSERT_EQ(EVP_PKEY_decrypt_init(dec.get()), 1);
  size_t plainLen = 0;
  ASSERT_EQ(EVP_PKEY_decrypt(dec.get(), nullptr, &plainLen, asn1.data(), asn1.size()), 1);
  std::vector<uint8_t> plain(plainLen);
  ASSERT_EQ(EVP_PKEY_decrypt(dec.get(), plain.data(), &plainLen, asn1.data(), asn1.size()), 1);
  plain.resize(plainLen);
  EXPECT_EQ(plain, message);
}

// ---- RSA ----------------------------------------------------------------------

class OpensslRsa : public ::testing::TestWithParam<int> {};

Pkey opensslRsaFromDer(const SecureBytes &der) {
  const unsigned char *p = der.data();
  return Pkey(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size())));
}

// OpenSSL checking the token's RSA signatures and encrypting to its keys is
// in the provider's key generation and import tests.
TEST_P(OpensslRsa, OpensslReadsOurKeys) {
  RsaPrivateKey ours;
  ASSERT_TRUE(rsaGenerate(GetParam(), ours));
  SecureBytes der;
  ASSERT_TRUE(encodeRsaPrivateKey(ours, der));
  Pkey theirs = opensslRsaFromDer(der);
  ASSERT_TRUE(theirs);
  EXPECT_EQ(EVP_PKEY_get_bits(theirs.get()), GetParam());
  {
    PkeyCtx check(EVP_PKEY_CTX_new_from_pkey(nullptr, theirs.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_private_check(check.get()), 1);
    EXPECT_EQ(EVP_PKEY_pairwise_check(check.get()), 1);
  }
  std::vector<uint8_t> spki;
  ASSERT_TRUE(encodeRsaSpki(ours.publicKey, spki));
  EXPECT_EQ(toHex(spki), toHex(writePublic(theirs.get())));
}

TEST_P(OpensslRsa, WeReadOpensslsKeysAndCheckItsSignatures) {
  Pkey theirs(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(GetParam())));
  ASSERT_TRUE(theirs);
  unsigned char *raw = nullptr;
  const int len = i2d_PrivateKey(theirs.get(), &raw);
  ASSERT_GT(len, 0);
  RsaPrivateKey ours;
  const bool decoded = decodeRsaPrivateKey(raw, static_cast<size_t>(len), ours);
  OPENSSL_clear_free(raw, static_cast<size_t>(len));
  ASSERT_TRUE(decoded);

  const std::vector<uint8_t> data = testing::bytesOf("0123456789abcdef0123");
  PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, theirs.get(), nullptr));
  ASSERT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
  ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING), 1);
  size_t sigLen = 0;
  ASSERT_EQ(EVP_PKEY_sign(ctx.get(), nullptr, &sigLen, data.data(), data.size()), 1);
  std::vector<uint8_t> sig(sigLen);
  ASSERT_EQ(EVP_PKEY_sign(ctx.get(), sig.data(), &sigLen, data.data(), data.size()), 1);
  EXPECT_TRUE(rsaVerifyPkcs1(ours.publicKey, data.data(), data.size(), sig.data(), sigLen));

  // And our encryption opens in OpenSSL.
  std::vector<uint8_t> cipher;
  ASSERT_TRUE(rsaEncryptPkcs1(ours.publicKey, data.data(), data.size(), cipher));
  PkeyCtx dec(EVP_PKEY_CTX_new_from_pkey(nullptr, theirs.get(), nullptr));
  ASSERT_EQ(EVP_PKEY_decrypt_init(dec.get()), 1);
  ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(dec.get(), RSA_PKCS1_PADDING), 1);
  std::vector<uint8_t> plain(cipher.size());
  size_t plainLen = plain.size();
  ASSERT_EQ(EVP_PKEY_decrypt(dec.get(), plain.data(), &plainLen, cipher.data(), cipher.size()), 1);
  plain.resize(plainLen);
  EXPECT_EQ(plain, data);
}

INSTANTIATE_TEST_SUITE_P(Sizes, OpensslRsa, ::testing::Values(1024, 2048));

}  // namespace
}  // namespace crypto
}  // namespace tembra
