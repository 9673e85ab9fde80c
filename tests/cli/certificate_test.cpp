// The certificates that provisioning makes, read back from the token and
// checked by OpenSSL: they parse, carry the right key and algorithm, and
// their signatures verify (self-signed for the signature key, issued by it
// for the encryption key).
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "crypto/sm2_z.h"
#include "softskf/provision/provision.h"
#include "tests/cli/token_access.h"
#include "tests/support/provider_test_support.h"

namespace tembra {
namespace {

using provision::KeyKind;

// A certificate with nothing after it, or null.
X509 *parse(const std::vector<uint8_t> &der) {
  const unsigned char *p = der.data();
  X509 *cert = d2i_X509(nullptr, &p, long(der.size()));
  if (cert != nullptr && p == der.data() + der.size()) return cert;
  X509_free(cert);  // trailing bytes
  return nullptr;
}

// SM2 certificate signatures are made over Z with the default identifier.
bool verifiedBy(X509 *cert, EVP_PKEY *issuerKey, bool sm2) {
  if (sm2) {
    ASN1_OCTET_STRING *id = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(id, crypto::kSm2DefaultId, int(crypto::kSm2DefaultIdSize));
    X509_set0_distinguishing_id(cert, id);
  }
  return X509_verify(cert, issuerKey) == 1;
}

std::vector<uint8_t> publicPointOrModulus(EVP_PKEY *key, bool sm2) {
  if (sm2) {
    unsigned char point[65];
    size_t len = 0;
    if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof(point), &len) !=
        1) {
      return {};
    }
    return std::vector<uint8_t>(point, point + len);
  }
  BIGNUM *n = nullptr;
  if (EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n) != 1) return {};
  std::vector<uint8_t> bytes(size_t(BN_num_bytes(n)));
  BN_bn2bin(n, bytes.data());
  BN_free(n);
  return bytes;
}

std::vector<uint8_t> tokenKey(test::TokenConnection &token, bool sm2, bool signatureKey) {
  if (sm2) {
    crypto::Sm2PublicKey key;
    if (!token.sm2PublicKey(signatureKey, key)) return {};
    std::vector<uint8_t> point(1, 0x04);
    point.insert(point.end(), key.x, key.x + 32);
    point.insert(point.end(), key.y, key.y + 32);
    return point;
  }
  crypto::RsaPublicKey key;
  if (!token.rsaPublicKey(signatureKey, key)) return {};
  return key.n;
}

class Certificates : public ::testing::TestWithParam<KeyKind> {};

TEST_P(Certificates, ParseCarryTheKeysAndVerify) {
  const bool sm2 = GetParam() == KeyKind::Sm2;
  test::TokenStore store;
  store.provision(test::oneContainer(GetParam()));

  test::TokenConnection token("tok");
  ASSERT_TRUE(token.openContainer("App", "C1"));
  X509 *signCert = parse(token.certificate(true));
  X509 *encCert = parse(token.certificate(false));
  ASSERT_NE(signCert, nullptr);
  ASSERT_NE(encCert, nullptr);

  const int expectedAlgorithm = sm2 ? NID_SM2_with_SM3 : NID_sha256WithRSAEncryption;
  for (X509 *cert : {signCert, encCert}) {
    EXPECT_EQ(X509_get_version(cert), 2);  // v3
    EXPECT_EQ(X509_get_signature_nid(cert), expectedAlgorithm);
    BIGNUM *serial = ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr);
    EXPECT_FALSE(BN_is_negative(serial) || BN_is_zero(serial));
    BN_free(serial);
    int days = 0;
    int seconds = 0;
    ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(cert), X509_get0_notAfter(cert)),
              1);
    EXPECT_EQ(days, 3653);
    EXPECT_LE(X509_cmp_current_time(X509_get0_notBefore(cert)), 0);
  }

  EVP_PKEY *signKey = X509_get_pubkey(signCert);
  EVP_PKEY *encKey = X509_get_pubkey(encCert);
  ASSERT_NE(signKey, nullptr);
  ASSERT_NE(encKey, nullptr);
  EXPECT_EQ(publicPointOrModulus(signKey, sm2), tokenKey(token, sm2, true));
  EXPECT_EQ(publicPointOrModulus(encKey, sm2), tokenKey(token, sm2, false));

  EXPECT_TRUE(verifiedBy(signCert, signKey, sm2));
  EXPECT_TRUE(verifiedBy(encCert, signKey, sm2));
  EXPECT_FALSE(verifiedBy(encCert, encKey, sm2));
  EXPECT_EQ(X509_check_issued(signCert, encCert), X509_V_OK);
  EXPECT_EQ(X509_check_issued(signCert, signCert), X509_V_OK);
  EXPECT_NE(X509_check_issued(encCert, signCert), X509_V_OK);
  EVP_PKEY_free(signKey);
  EVP_PKEY_free(encKey);
  X509_free(signCert);
  X509_free(encCert);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Certificates, ::testing::Values(KeyKind::Sm2, KeyKind::Rsa1024),
                         [](const ::testing::TestParamInfo<KeyKind> &param) {
                           return std::string(param.param == KeyKind::Sm2 ? "Sm2" : "Rsa1024");
                         });

}  // namespace
}  // namespace tembra
