// The token's signatures, decryptions and key imports checked against
// OpenSSL: OpenSSL verifies what the token signs and makes the ciphertexts
// and envelopes that the token opens.
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "tests/softskf/soft_token_fixture.h"
#include "tests/support/openssl_party.h"

namespace softskf_test {
namespace {

using namespace tembra::test::openssl;

Bytes randomBytes(size_t n) {
  Bytes out(n);
  if (n > 0) RAND_bytes(out.data(), static_cast<int>(n));
  return out;
}

// The container's public key blob of either kind, exported in full.
template <typename Blob>
Blob exportKey(HCONTAINER con, BOOL sign) {
  Blob blob = {};
  ULONG len = sizeof blob;
  EXPECT_EQ(SAR_OK, SKF_ExportPublicKey(con, sign, reinterpret_cast<BYTE *>(&blob), &len));
  EXPECT_EQ(sizeof blob, len);
  return blob;
}
ECCPUBLICKEYBLOB exportEcc(HCONTAINER con, BOOL sign) {
  return exportKey<ECCPUBLICKEYBLOB>(con, sign);
}
RSAPUBLICKEYBLOB exportRsa(HCONTAINER con, BOOL sign) {
  return exportKey<RSAPUBLICKEYBLOB>(con, sign);
}

class CrossCheckTest : public SoftTokenTest {};

// SKF_DigestInit with a public key hashes Z || M: a signature over that
// digest verifies as an SM2 signature of M in OpenSSL, with the default
// identifier and with a given one.
TEST_F(CrossCheckTest, DigestWithPublicKeyIsTheSm2MessageDigest) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  ECCPUBLICKEYBLOB blob = exportEcc(con, TRUE);
  Pkey key = sm2KeyFromBlob(blob);
  const std::string defaultId = "1234567812345678";
  const std::string aliceId = "ALICE123@YAHOO.COM";
  struct Case {
    std::string givenId;  // empty: none given
    std::string verifiedId;
  };
  const Case cases[] = {{"", defaultId}, {aliceId, aliceId}};
  Bytes message = randomBytes(300);
  for (const Case &c : cases) {
    SCOPED_TRACE(c.verifiedId);
    HANDLE hash;
    ASSERT_EQ(SAR_OK, SKF_DigestInit(
                          dev, SGD_SM3, &blob,
                          reinterpret_cast<unsigned char *>(const_cast<char *>(c.givenId.data())),
                          static_cast<ULONG>(c.givenId.size()), &hash));
    ASSERT_EQ(SAR_OK, SKF_DigestUpdate(hash, message.data(), static_cast<ULONG>(message.size())));
    Bytes digest(32);
    ULONG len = 32;
    ASSERT_EQ(SAR_OK, SKF_DigestFinal(hash, digest.data(), &len));
    ECCSIGNATUREBLOB sig;
    ASSERT_EQ(SAR_OK, SKF_ECCSignData(con, digest.data(), 32, &sig));
    Bytes id(c.verifiedId.begin(), c.verifiedId.end());
    EXPECT_TRUE(sm2VerifyMessage(key.get(), id, message, sig));
    Bytes otherId(defaultId.begin(), defaultId.end() - 1);
    EXPECT_FALSE(sm2VerifyMessage(key.get(), otherId, message, sig));
  }
}

class RsaCrossCheckTest : public SoftTokenTest, public ::testing::WithParamInterface<ULONG> {};

TEST_P(RsaCrossCheckTest, SignatureOpensToTheSignedBytesAndDecryptionMatches) {
  const ULONG bits = GetParam();
  const ULONG k = bits / 8;
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeRsaContainer(app, bits);
  RSAPUBLICKEYBLOB blob = exportRsa(con, TRUE);
  EXPECT_EQ(SGD_RSA, blob.AlgID);
  EXPECT_EQ(bits, blob.BitLen);
  const BYTE f4[4] = {0x00, 0x01, 0x00, 0x01};
  EXPECT_EQ(0, memcmp(blob.PublicExponent, f4, 4));
  Pkey key = rsaKeyFromBlob(blob);
  ASSERT_TRUE(key);

  for (ULONG dataLen : {ULONG(1), ULONG(35), k - 11}) {
    SCOPED_TRACE(dataLen);
    Bytes data = randomBytes(dataLen);
    ULONG len = 0;
    ASSERT_EQ(SAR_OK, SKF_RSASignData(con, data.data(), dataLen, nullptr, &len));
    EXPECT_EQ(k, len);
    Bytes sig(k);
    len = k - 1;
    EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKF_RSASignData(con, data.data(), dataLen, sig.data(), &len));
    EXPECT_EQ(k, len);
    ASSERT_EQ(SAR_OK, SKF_RSASignData(con, data.data(), dataLen, sig.data(), &len));
    EXPECT_EQ(data, rsaRecover(key.get(), sig));
  }
  Bytes tooLong(k - 10, 1);
  Bytes sig(k);
  ULONG len = k;
  EXPECT_EQ(SAR_INDATALENERR, SKF_RSASignData(con, tooLong.data(), k - 10, sig.data(), &len));

  Bytes secret = randomBytes(24);
  Bytes cipher = rsaEncrypt(key.get(), secret);
  ASSERT_EQ(k, cipher.size());
  Bytes plain(512);
  len = static_cast<ULONG>(plain.size());
  ASSERT_EQ(SAR_OK, SKF_RSADecrypt(con, TRUE, cipher.data(), k, plain.data(), &len));
  plain.resize(len);
  EXPECT_EQ(secret, plain);
  cipher[k / 2] ^= 0x40;
  len = 512;
  plain.resize(512);
  EXPECT_NE(SAR_OK, SKF_RSADecrypt(con, TRUE, cipher.data(), k, plain.data(), &len));
  EXPECT_EQ(SAR_KEYNOTFOUNTERR, SKF_RSADecrypt(con, FALSE, cipher.data(), k, plain.data(), &len));
}

INSTANTIATE_TEST_SUITE_P(Bits, RsaCrossCheckTest, ::testing::Values(1024u, 2048u));

// The key a signature is made with is the one stored now, whoever replaced
// it since the last signature: this process or another one, after a PIN
// change there.
TEST_F(CrossCheckTest, SignaturesFollowTheStoredKey) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  auto regenerate = [con] {
    ECCPUBLICKEYBLOB blob;
    return SKF_GenECCKeyPair(con, SGD_SM2_1, &blob) == SAR_OK ? 0 : 1;
  };
  auto elsewhere = [&] {
    pid_t pid = fork();
    if (pid == 0) {
      ULONG retry;
      char newPin[] = "user-pin-2";
      if (SKF_ChangePIN(app, USER_TYPE, const_cast<char *>(kUserPin), newPin, &retry) != SAR_OK)
        _exit(2);
      _exit(regenerate());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
  };
  const std::vector<std::pair<const char *, std::function<int()>>> changes = {
      {"regenerated here", regenerate}, {"regenerated by another process", elsewhere}};
  for (const auto &change : changes) {
    SCOPED_TRACE(change.first);
    Bytes digest = randomBytes(32);
    ECCSIGNATUREBLOB sig;
    ASSERT_EQ(SAR_OK, SKF_ECCSignData(con, digest.data(), 32, &sig));
    ASSERT_EQ(0, change.second());
    ASSERT_EQ(SAR_OK, SKF_ECCSignData(con, digest.data(), 32, &sig));
    EXPECT_TRUE(sm2VerifyDigest(sm2KeyFromBlob(exportEcc(con, TRUE)).get(), digest, sig));
  }
}

class Sm2DecryptTest : public SoftTokenTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(Sm2DecryptTest, OpensOpenSslCiphertext) {
  const size_t length = GetParam();
  HCONTAINER con = makeSm2Container(makeApplication(makeDevice()));
  Pkey key = sm2KeyFromBlob(exportEcc(con, TRUE));
  Bytes message = randomBytes(length);
  Bytes blob = sm2EncryptToBlob(key.get(), message);
  ASSERT_FALSE(blob.empty());
  ECCCIPHERBLOB *cipher = reinterpret_cast<ECCCIPHERBLOB *>(blob.data());
  ASSERT_EQ(length, cipher->CipherLen);

  ULONG len = 0;
  ASSERT_EQ(SAR_OK, SKF_ECCDecrypt(con, TRUE, cipher, nullptr, &len));
  EXPECT_EQ(length, len);
  Bytes plain(length + 1);
  if (length > 0) {
    len = static_cast<ULONG>(length - 1);
    EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKF_ECCDecrypt(con, TRUE, cipher, plain.data(), &len));
    EXPECT_EQ(length, len);
  }
  len = static_cast<ULONG>(plain.size());
  ASSERT_EQ(SAR_OK, SKF_ECCDecrypt(con, TRUE, cipher, plain.data(), &len));
  plain.resize(len);
  EXPECT_EQ(message, plain);

  cipher->HASH[5] ^= 1;  // a wrong check value is refused, not answered
  len = static_cast<ULONG>(length + 1);
  plain.resize(length + 1);
  EXPECT_NE(SAR_OK, SKF_ECCDecrypt(con, TRUE, cipher, plain.data(), &len));
  EXPECT_EQ(SAR_KEYNOTFOUNTERR, SKF_ECCDecrypt(con, FALSE, cipher, plain.data(), &len));
  cipher->CipherLen = 0xFFFFFFF0u;
  EXPECT_EQ(SAR_INDATALENERR, SKF_ECCDecrypt(con, TRUE, cipher, plain.data(), &len));
}

INSTANTIATE_TEST_SUITE_P(Lengths, Sm2DecryptTest, ::testing::Values(1u, 16u, 32u, 33u, 1000u));

// The three layouts of the private key in cbEncryptedPriKey: d alone, d
// between a 4-byte header and padding, d after 32 zero bytes.
enum class PrivateLayout { Plain32, Padded48, Zero64 };

Bytes privateField(PrivateLayout layout, const Bytes &d) {
  Bytes plain;
  if (layout == PrivateLayout::Padded48) plain = {0x00, 0x01, 0x00, 0x00};
  if (layout == PrivateLayout::Zero64) plain.assign(32, 0);
  plain.insert(plain.end(), d.begin(), d.end());
  if (layout == PrivateLayout::Padded48) plain.insert(plain.end(), 12, 0x0C);
  return plain;
}

class EccImportTest : public SoftTokenTest, public ::testing::WithParamInterface<PrivateLayout> {};

TEST_P(EccImportTest, ImportsEachPrivateKeyLayout) {
  HCONTAINER con = makeSm2Container(makeApplication(makeDevice()));
  Pkey signKey = sm2KeyFromBlob(exportEcc(con, TRUE));
  Sm2Pair pair = newSm2Pair();
  Bytes blob = sm2Envelope(signKey.get(), pair, privateField(GetParam(), pair.d));
  ASSERT_EQ(SAR_OK, SKF_ImportECCKeyPair(con, reinterpret_cast<ENVELOPEDKEYBLOB *>(blob.data())));
  // At rest the private scalar is sealed: the store never holds it in clear.
  std::string stored = storeContents(storePath());
  EXPECT_EQ(std::string::npos, stored.find(std::string(pair.d.begin(), pair.d.end())));

  const ECCPUBLICKEYBLOB encBlob = exportEcc(con, FALSE), expected = pair.blob();
  EXPECT_EQ(0, memcmp(&expected, &encBlob, sizeof encBlob));
  // The imported private key opens what OpenSSL encrypts to its public key.
  Bytes message = randomBytes(20);
  Bytes cipher = sm2EncryptToBlob(pair.key.get(), message);
  Bytes plain(20);
  ULONG len = 20;
  ASSERT_EQ(SAR_OK, SKF_ECCDecrypt(con, FALSE, reinterpret_cast<ECCCIPHERBLOB *>(cipher.data()),
                                   plain.data(), &len));
  EXPECT_EQ(message, plain);
  // A second import replaces the key the first decryption made ready.
  Sm2Pair next = newSm2Pair();
  blob = sm2Envelope(signKey.get(), next, privateField(GetParam(), next.d));
  ASSERT_EQ(SAR_OK, SKF_ImportECCKeyPair(con, reinterpret_cast<ENVELOPEDKEYBLOB *>(blob.data())));
  cipher = sm2EncryptToBlob(next.key.get(), message);
  len = 20;
  ASSERT_EQ(SAR_OK, SKF_ECCDecrypt(con, FALSE, reinterpret_cast<ECCCIPHERBLOB *>(cipher.data()),
                                   plain.data(), &len));
  EXPECT_EQ(message, plain);
}

INSTANTIATE_TEST_SUITE_P(Layouts, EccImportTest,
                         ::testing::Values(PrivateLayout::Plain32, PrivateLayout::Padded48,
                                           PrivateLayout::Zero64));

TEST_F(CrossCheckTest, WrongEccEnvelopesImportNothing) {
  HCONTAINER con = makeSm2Container(makeApplication(makeDevice()));
  Pkey signKey = sm2KeyFromBlob(exportEcc(con, TRUE));
  Sm2Pair pair = newSm2Pair(), other = newSm2Pair();
  struct Case {
    const char *what;
    Bytes blob;
    ULONG expected;
  };
  Bytes mismatched = sm2Envelope(signKey.get(), pair);
  memcpy(reinterpret_cast<ENVELOPEDKEYBLOB *>(mismatched.data())->PubKey.XCoordinate + 32,
         other.x.data(), 32);
  Case cases[] = {
      {"public key of another pair", mismatched, SAR_KEYINFOTYPEERR},
      {"symmetric key wrapped for another key", sm2Envelope(other.key.get(), pair),
       SAR_KEYINFOTYPEERR},
      {"SM1 envelope", sm2Envelope(signKey.get(), pair, Bytes(), SGD_SM1_ECB),
       SAR_NOTSUPPORTYETERR},
      {"SSF33 envelope", sm2Envelope(signKey.get(), pair, Bytes(), SGD_SSF33_ECB),
       SAR_NOTSUPPORTYETERR},
  };
  for (Case &c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(c.expected,
              SKF_ImportECCKeyPair(con, reinterpret_cast<ENVELOPEDKEYBLOB *>(c.blob.data())));
    ULONG len = 0;
    EXPECT_EQ(SAR_KEYNOTFOUNTERR, SKF_ExportPublicKey(con, FALSE, nullptr, &len));
  }
}

TEST_F(CrossCheckTest, RsaEnvelopeImportsTheEncryptionKeyPair) {
  HCONTAINER con = makeRsaContainer(makeApplication(makeDevice()), 1024);
  Pkey signKey = rsaKeyFromBlob(exportRsa(con, TRUE));
  RsaPair pair = newRsaPair(2048);
  ASSERT_FALSE(pair.der.empty());
  Bytes symmetricKey = randomBytes(16);
  Bytes wrapped = rsaEncrypt(signKey.get(), symmetricKey);
  Bytes encrypted = sm4(true, true, symmetricKey, pair.der);

  Bytes badWrap = wrapped;
  badWrap[10] ^= 1;
  EXPECT_NE(SAR_OK, SKF_ImportRSAKeyPair(con, SGD_SMS4_ECB, badWrap.data(),
                                         static_cast<ULONG>(badWrap.size()), encrypted.data(),
                                         static_cast<ULONG>(encrypted.size())));
  EXPECT_EQ(
      SAR_NOTSUPPORTYETERR,
      SKF_ImportRSAKeyPair(con, SGD_SSF33_ECB, wrapped.data(), static_cast<ULONG>(wrapped.size()),
                           encrypted.data(), static_cast<ULONG>(encrypted.size())));
  ULONG len = 0;
  EXPECT_EQ(SAR_KEYNOTFOUNTERR, SKF_ExportPublicKey(con, FALSE, nullptr, &len));

  ASSERT_EQ(SAR_OK, SKF_ImportRSAKeyPair(con, SGD_SMS4_ECB, wrapped.data(),
                                         static_cast<ULONG>(wrapped.size()), encrypted.data(),
                                         static_cast<ULONG>(encrypted.size())));
  RSAPUBLICKEYBLOB encBlob = exportRsa(con, FALSE);
  EXPECT_EQ(2048u, encBlob.BitLen);
  Bytes secret = randomBytes(16);
  Bytes cipher = rsaEncrypt(pair.key.get(), secret);
  Bytes plain(256);
  len = 256;
  ASSERT_EQ(SAR_OK, SKF_RSADecrypt(con, FALSE, cipher.data(), 256, plain.data(), &len));
  plain.resize(len);
  EXPECT_EQ(secret, plain);
  // The same ciphertext imports as a session key; a damaged one does not.
  HANDLE session = nullptr;
  ASSERT_EQ(SAR_OK, SKF_ImportSessionKey(con, SGD_SMS4_ECB, cipher.data(), 256, &session));
  const BLOCKCIPHERPARAM ecb = {};
  Bytes block(16, 0x42), out(16);
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(session, ecb));
  ASSERT_EQ(SAR_OK, SKF_Encrypt(session, block.data(), 16, out.data(), &len));
  EXPECT_EQ(sm4(true, false, secret, block), out);
  cipher[5] ^= 1;
  EXPECT_EQ(SAR_INDATAERR, SKF_ImportSessionKey(con, SGD_SMS4_ECB, cipher.data(), 256, &session));
}

}  // namespace
}  // namespace softskf_test
