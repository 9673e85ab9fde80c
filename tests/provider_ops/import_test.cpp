// DeviceImportKeypair against a software token whose containers hold only
// signature key pairs. The "SCAENCKP" blobs and the "_KEYPAIR" blobs are
// built here with OpenSSL, independently of the provider and the token; an
// imported key must decrypt what OpenSSL encrypts to it.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <stdio.h>
#include <string.h>

#include <functional>

#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"
#include "tests/support/openssl_party.h"

namespace opstest {
namespace {

using Bytes = std::vector<uint8_t>;
namespace openssl = tembra::test::openssl;

constexpr uint32_t kSms4Ecb = ORVEL_PKI_ALGORITHM_SMS4_ECB;
const char kMessage[] = "imported key pair";

ContainerSpec signatureOnly(const std::string &name, KeyKind kind) {
  ContainerSpec container = keyContainer(name, kind);
  container.encryptionKey = false;
  return container;
}

void put32(Bytes &out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

Bytes bigEndian(const EVP_PKEY *key, const char *param) {
  BIGNUM *bn = nullptr;
  Bytes out;
  if (EVP_PKEY_get_bn_param(key, param, &bn) != 1) return out;
  out.resize(static_cast<size_t>(BN_num_bytes(bn)));
  BN_bn2bin(bn, out.data());
  BN_free(bn);
  return out;
}

// A key pair made by OpenSSL: its SubjectPublicKeyInfo, its private part
// (d for SM2, the PKCS #1 RSAPrivateKey DER for RSA) and, for SM2, the point.
struct PeerKey {
  bool sm2 = true;
  Bytes spki, secret, point;  // point: 04 || x || y
};

PeerKey makeKey(bool sm2, int bits) {
  PeerKey key;
  key.sm2 = sm2;
  if (sm2) {
    const openssl::Sm2Pair pair = openssl::newSm2Pair();
    key.spki = openssl::spkiOf(pair.key.get());
    key.secret = pair.d;
    key.point = Bytes(key.spki.end() - 65, key.spki.end());
  } else {
    const openssl::RsaPair pair = openssl::newRsaPair(bits);
    key.spki = openssl::spkiOf(pair.key.get());
    key.secret = pair.der;
  }
  return key;
}

// The fields of an "SCAENCKP" blob, for the tests to alter before assembly.
struct Envelope {
  bool sm2 = true;
  Bytes signKey;   // SM2: 04 || x || y; RSA: the modulus
  Bytes exponent;  // RSA only
  uint32_t symmetric = kSms4Ecb;
  Bytes wrapped;    // the symmetric key under the signature key
  Bytes encPoint;   // SM2 only: the encryption public key
  Bytes encrypted;  // the private key under the symmetric key
  Bytes trailing;

  Bytes blob() const {
    Bytes payload;
    if (sm2) {
      put32(payload, ORVEL_PKI_ECC_CURVE_SM2);
      payload.insert(payload.end(), signKey.begin(), signKey.end());
    } else {
      put32(payload, static_cast<uint32_t>(signKey.size()));
      payload.insert(payload.end(), signKey.begin(), signKey.end());
      put32(payload, static_cast<uint32_t>(exponent.size()));
      payload.insert(payload.end(), exponent.begin(), exponent.end());
    }
    put32(payload, symmetric);
    put32(payload, static_cast<uint32_t>(wrapped.size()));
    payload.insert(payload.end(), wrapped.begin(), wrapped.end());
    payload.insert(payload.end(), encPoint.begin(), encPoint.end());
    put32(payload, static_cast<uint32_t>(encrypted.size()));
    payload.insert(payload.end(), encrypted.begin(), encrypted.end());
    payload.insert(payload.end(), trailing.begin(), trailing.end());
    Bytes out = {'S', 'C', 'A', 'E', 'N', 'C', 'K', 'P'};
    put32(out, 1);
    put32(out, sm2 ? ORVEL_PKI_ALGORITHM_ECC : ORVEL_PKI_ALGORITHM_RSA);
    put32(out, static_cast<uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
  }
};

// Envelopes `key` for the signature public key `signSpki` as a key
// management centre does: SMS4-ECB under a fresh key, wrapped with SM2 or
// RSA PKCS #1 v1.5.
Envelope envelopeFor(const Bytes &signSpki, const PeerKey &key) {
  Envelope e;
  e.sm2 = key.sm2;
  Bytes symmetric(16);
  RAND_bytes(symmetric.data(), 16);
  const openssl::Pkey sign = openssl::keyFromSpki(signSpki);
  if (key.sm2) {
    e.signKey = Bytes(signSpki.end() - 65, signSpki.end());
    e.wrapped = openssl::sm2EncryptFlat(sign.get(), symmetric);
    e.encPoint = key.point;
    e.encrypted = openssl::sm4(true, false, symmetric, key.secret);
  } else {
    e.signKey = bigEndian(sign.get(), OSSL_PKEY_PARAM_RSA_N);
    e.exponent = bigEndian(sign.get(), OSSL_PKEY_PARAM_RSA_E);
    e.wrapped = openssl::rsaEncrypt(sign.get(), symmetric);
    e.encrypted = openssl::sm4(true, true, symmetric, key.secret);  // PKCS #7
  }
  return e;
}

// A "_KEYPAIR" blob of the host library's encoding.
Bytes plainBlob(const PeerKey &key, uint32_t modulusLen) {
  Bytes out = {'_', 'K', 'E', 'Y', 'P', 'A', 'I', 'R'};
  put32(out, key.sm2 ? ORVEL_PKI_ALGORITHM_ECC : ORVEL_PKI_ALGORITHM_RSA);
  put32(out, 1);
  if (key.sm2) {
    put32(out, ORVEL_PKI_ECC_CURVE_SM2);
    out.insert(out.end(), key.point.begin() + 1, key.point.end());
  } else {
    put32(out, modulusLen);
    put32(out, static_cast<uint32_t>(key.secret.size()));
  }
  out.insert(out.end(), key.secret.begin(), key.secret.end());
  return out;
}

class ImportTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    return {makeToken(
        "imp", {signatureOnly("sm2", KeyKind::Sm2), signatureOnly("rsa", KeyKind::Rsa1024)})};
  }
  void TearDown() override {
    for (SPI_KEYPAIR_HANDLE hKeypair : m_imported) DeviceFreeKeypair(hKeypair);
    OpsTest::TearDown();
  }
  int import(const Bytes &blob, const char *label) {
    SPI_KEYPAIR_HANDLE hKeypair = nullptr;
    const int rv = DeviceImportKeypair(device(), blob.data(), static_cast<int>(blob.size()),
                                       ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, label, &hKeypair);
    if (hKeypair != nullptr) m_imported.push_back(hKeypair);
    return rv;
  }
  Bytes signatureKey(const char *label) {
    return publicKey(keypair(ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, label));
  }
  // The last import's key: its exported public key equals the peer's and
  // it decrypts what OpenSSL encrypts to that peer key.
  void expectUsable(const PeerKey &key, int bits) {
    ASSERT_FALSE(m_imported.empty());
    SPI_KEYPAIR_HANDLE hKeypair = m_imported.back();
    EXPECT_EQ(ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, DeviceGetKeypairType(hKeypair));
    EXPECT_EQ(bits, DeviceGetKeypairBits(hKeypair));
    EXPECT_EQ(key.spki, publicKey(hKeypair));
    const openssl::Pkey peer = openssl::keyFromSpki(key.spki);
    const Bytes message(kMessage, kMessage + strlen(kMessage));
    const Bytes cipher = key.sm2 ? openssl::sm2EncryptFlat(peer.get(), message)
                                 : openssl::rsaEncrypt(peer.get(), message);
    const int hash = ORVEL_PKI_ALGORITHM_SM3;
    const int algo = key.sm2 ? ORVEL_PKI_ALGORITHM_SM2_ENC : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC;
    Bytes plain(512);
    int len = 0;
    ASSERT_EQ(1, DevicePrivateKeyDecrypt(hKeypair, algo, &hash, cipher.data(),
                                         static_cast<int>(cipher.size()), plain.data(),
                                         static_cast<int>(plain.size()), &len));
    EXPECT_EQ(std::string(kMessage), std::string(plain.begin(), plain.begin() + len));
  }

  // The device release line written since the last mark.
  std::string releaseLine() const {
    for (const std::string &message : m_log.messages("[INFO]")) {
      if (message.rfind("hDevice->m_refCount=", 0) == 0) return message;
    }
    return std::string();
  }

  std::vector<SPI_KEYPAIR_HANDLE> m_imported;
};

// ---- "SCAENCKP" blobs imported and used ------------------------------------

struct KindCase {
  const char *name;
  const char *label;
  bool sm2;
  int bits;
};

class EnvelopedImportTest : public ImportTest, public ::testing::WithParamInterface<KindCase> {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    return {makeToken("imp",
                      {signatureOnly("sm2", KeyKind::Sm2), signatureOnly("rsa", KeyKind::Rsa1024),
                       signatureOnly("rsa2048", KeyKind::Rsa2048)})};
  }
};

TEST_P(EnvelopedImportTest, ImportedKeyDecryptsAndExportsItsPublicKey) {
  const KindCase &c = GetParam();
  const PeerKey key = makeKey(c.sm2, c.bits);
  const Bytes blob = envelopeFor(signatureKey(c.label), key).blob();
  login();
  const int before = DeviceGetKeypairCount(device());
  m_log.mark();
  DeviceFreeKeypair(DeviceGetKeypair(device(), 0));
  const std::string baseline = releaseLine();
  ASSERT_EQ(1, import(blob, c.label));
  EXPECT_EQ(before + 1, DeviceGetKeypairCount(device()));
  expectUsable(key, c.bits);

  // The import added two references; releasing its handle gives one back,
  // so the count stays one above what a release left before the import.
  m_log.mark();
  DeviceFreeKeypair(m_imported.back());
  m_imported.pop_back();
  int refBefore = 0, refAfter = 0, countBefore = 0, countAfter = 0;
  ASSERT_EQ(2, sscanf(baseline.c_str(), "hDevice->m_refCount=%d, hDevice->m_keypairCount=%d",
                      &refBefore, &countBefore));
  ASSERT_EQ(2, sscanf(releaseLine().c_str(), "hDevice->m_refCount=%d, hDevice->m_keypairCount=%d",
                      &refAfter, &countAfter));
  EXPECT_EQ(refBefore + 1, refAfter);
  EXPECT_EQ(countBefore + 1, countAfter);
}

INSTANTIATE_TEST_SUITE_P(Kinds, EnvelopedImportTest,
                         ::testing::Values(KindCase{"sm2", "sm2", true, 256},
                                           KindCase{"rsa1024", "rsa", false, 1024},
                                           KindCase{"rsa2048", "rsa2048", false, 2048}),
                         CaseName());

// ---- Payload checks: refused with their message before any token call -------

struct PayloadCase {
  const char *name;
  bool sm2;
  std::function<void(Envelope &)> alter;
  const char *error;
};

class PayloadCheckTest : public ImportTest, public ::testing::WithParamInterface<PayloadCase> {};

TEST_P(PayloadCheckTest, RefusedWithoutTouchingTheToken) {
  const PayloadCase &c = GetParam();
  const char *label = c.sm2 ? "sm2" : "rsa";
  Envelope envelope = envelopeFor(signatureKey(label), makeKey(c.sm2, 1024));
  c.alter(envelope);
  login();
  mark();
  EXPECT_EQ(0, import(envelope.blob(), label));
  EXPECT_TRUE(m_log.has("[ERROR]", c.sm2 ? "importSM2KeyPair" : "importRSAKeyPair", c.error))
      << c.error;
  EXPECT_TRUE(tembra::test::tokenCallLog().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Checks, PayloadCheckTest,
    ::testing::Values(
        PayloadCase{"sm2_sign_x", true, [](Envelope &e) { e.signKey[1] ^= 1; },
                    "memcmp(x, &keyblob[pos], 32) != 0"},
        PayloadCase{"sm2_sign_y", true, [](Envelope &e) { e.signKey[64] ^= 1; },
                    "memcmp(y, &keyblob[pos], 32) != 0"},
        PayloadCase{"rsa_modulus", false, [](Envelope &e) { e.signKey[5] ^= 1; },
                    "memcmp(n, &keyblob[pos], len) != 0"},
        PayloadCase{"k31", true, [](Envelope &e) { e.encrypted.resize(31); }, "len < 32 || len>64"},
        PayloadCase{"k65", true, [](Envelope &e) { e.encrypted.resize(65); }, "len < 32 || len>64"},
        PayloadCase{"sm2_trailing", true, [](Envelope &e) { e.trailing = {0}; },
                    "keyblobLen - pos != len"},
        PayloadCase{"rsa_trailing", false, [](Envelope &e) { e.trailing = {0}; },
                    "keyblobLen - pos != cipherLen"},
        PayloadCase{"sm2_skf_id", true, [](Envelope &e) { e.symmetric = SGD_SMS4_ECB; },
                    "an unsupportd ECC algoritom"},
        PayloadCase{"rsa_skf_id", false, [](Envelope &e) { e.symmetric = SGD_SMS4_ECB; },
                    "unsupportd algorithm"},
        PayloadCase{"sm2_cbc", true,
                    [](Envelope &e) { e.symmetric = ORVEL_PKI_ALGORITHM_SMS4_CBC; },
                    "an unsupportd ECC algoritom"},
        // A C2 longer than the token's structure holds.
        PayloadCase{"sm2_c2_17", true,
                    [](Envelope &e) { e.wrapped.insert(e.wrapped.begin() + 65, 0); },
                    "encKeyLen - 97 > 16"}),
    CaseName());

// ---- Token results: two different sets mean "not logged in" -----------------

struct TokenResultCase {
  const char *name;
  bool sm2;
  ULONG result;
  int expected;
};

class TokenResultTest : public ImportTest, public ::testing::WithParamInterface<TokenResultCase> {};

TEST_P(TokenResultTest, MappedPerImportPath) {
  const TokenResultCase &c = GetParam();
  const char *label = c.sm2 ? "sm2" : "rsa";
  const char *function = c.sm2 ? "SKF_ImportECCKeyPair" : "SKF_ImportRSAKeyPair";
  const Bytes blob = envelopeFor(signatureKey(label), makeKey(c.sm2, 1024)).blob();
  ASSERT_EQ(kTokenOk, SKFSoft_SetFault(function, c.result, 1));
  EXPECT_EQ(c.expected, import(blob, label));
  char message[80];
  snprintf(message, sizeof message, "%s fail, error = 0x%08X", function,
           static_cast<unsigned>(c.result));
  EXPECT_EQ(c.expected == 0,
            m_log.has("[ERROR]", c.sm2 ? "importSM2KeyPair" : "importRSAKeyPair", message));
}

INSTANTIATE_TEST_SUITE_P(Results, TokenResultTest,
                         ::testing::Values(TokenResultCase{"sm2_0A00000D", true, 0x0A00000D, -8},
                                           TokenResultCase{"sm2_0A00001E", true, 0x0A00001E, -8},
                                           TokenResultCase{"sm2_0A00002D", true, 0x0A00002D, -8},
                                           TokenResultCase{"sm2_0B000033", true, 0x0B000033, -8},
                                           TokenResultCase{"sm2_00000001", true, 0x00000001, -8},
                                           TokenResultCase{"sm2_0A000001", true, 0x0A000001, 0},
                                           TokenResultCase{"rsa_0A00000D", false, 0x0A00000D, -8},
                                           TokenResultCase{"rsa_0A00002D", false, 0x0A00002D, -8},
                                           TokenResultCase{"rsa_0A00001E", false, 0x0A00001E, 0},
                                           TokenResultCase{"rsa_0B000033", false, 0x0B000033, 0},
                                           TokenResultCase{"rsa_00000001", false, 0x00000001, 0}),
                         CaseName());

// ---- "_KEYPAIR" blobs enveloped by the provider ------------------------------

struct PlainCase {
  const char *name;
  bool sm2;
  bool gdkm;            // SupportGDKMSM2Import
  int encryptedLength;  // bytes SKF_Encrypt receives; 0: the DER length
};

class PlainImportTest : public ImportTest, public ::testing::WithParamInterface<PlainCase> {
 protected:
  void SetUp() override {
    tembra::test::writeRegistry(
        {{"SupportGDKMSM2Import", GetParam().gdkm ? "dword:00000001" : "dword:00000000"}});
    ImportTest::SetUp();
  }
  void TearDown() override {
    ImportTest::TearDown();
    tembra::test::removeRegistryKey();
  }
  std::vector<DeviceSpec> tokens() const override {
    return {makeToken(
        "imp", {signatureOnly("sm2", KeyKind::Sm2), signatureOnly("rsa2048", KeyKind::Rsa2048)})};
  }
};

TEST_P(PlainImportTest, EnvelopedOnTheTokenThenImported) {
  const PlainCase &c = GetParam();
  const PeerKey key = makeKey(c.sm2, 2048);
  login();
  mark();
  ASSERT_EQ(1, import(plainBlob(key, 256), c.sm2 ? "sm2" : "rsa2048"));
  const std::vector<std::string> setKey = tokenCalls("SKF_SetSymmKey");
  ASSERT_EQ(1u, setKey.size());
  EXPECT_EQ("0x00000401", callField(setKey[0], "ulAlgID"));
  const std::vector<std::string> encrypt = tokenCalls("SKF_Encrypt");
  ASSERT_EQ(1u, encrypt.size());
  const int expected =
      c.encryptedLength != 0 ? c.encryptedLength : static_cast<int>(key.secret.size());
  EXPECT_EQ(std::to_string(expected), callField(encrypt[0], "ulDataLen"));
  EXPECT_EQ(1u, tokenCalls("SKF_CloseHandle").size());
  expectUsable(key, c.sm2 ? 256 : 2048);
}

INSTANTIATE_TEST_SUITE_P(Blobs, PlainImportTest,
                         ::testing::Values(PlainCase{"sm2_gdkm_off", true, false, 32},
                                           PlainCase{"sm2_gdkm_on", true, true, 48},
                                           PlainCase{"rsa2048_gdkm_off", false, false, 0},
                                           PlainCase{"rsa2048_gdkm_on", false, true, 0}),
                         CaseName());

struct RefusedPlainCase {
  const char *name;
  bool sm2Key;
  const char *label;
  uint32_t modulusField;
};

class RefusedPlainTest : public ImportTest,
                         public ::testing::WithParamInterface<RefusedPlainCase> {};

TEST_P(RefusedPlainTest, RefusedBeforeTheTokenEncrypts) {
  const RefusedPlainCase &c = GetParam();
  const Bytes blob = plainBlob(makeKey(c.sm2Key, 1024), c.modulusField);
  login();
  mark();
  EXPECT_EQ(0, import(blob, c.label));
  EXPECT_TRUE(m_log.has("[ERROR]", "DeviceImportKeypair", "EncKeyPairBlob()==0"));
  EXPECT_TRUE(tokenCalls("SKF_SetSymmKey").empty());
}

INSTANTIATE_TEST_SUITE_P(Refused, RefusedPlainTest,
                         ::testing::Values(RefusedPlainCase{"rsa_to_sm2", false, "sm2", 128},
                                           RefusedPlainCase{"sm2_to_rsa", true, "rsa", 0},
                                           RefusedPlainCase{"modulus_192", false, "rsa", 192}),
                         CaseName());

// A token whose capabilities claim SM1 gets the private key enveloped under
// SM1 first; the software token computes no SM1 and refuses the key.
TEST_F(ImportTest, Sm1ChosenFirstWhenTheTokenClaimsIt) {
  char name[] = "imp";
  ASSERT_EQ(static_cast<ULONG>(SAR_OK),
            SKFSoft_SetCapabilities(name, SGD_SM1_ECB | SGD_SMS4_ECB,
                                    SGD_RSA | SGD_SM2_1 | SGD_SM2_3, SGD_SM3));
  SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
  SPI_DEVICE_HANDLE hDevice = DeviceGetDevice(set, 0);
  ASSERT_NE(nullptr, hDevice);
  login(hDevice);
  mark();
  const Bytes blob = plainBlob(makeKey(true, 256), 256);
  SPI_KEYPAIR_HANDLE hKeypair = nullptr;
  EXPECT_EQ(0, DeviceImportKeypair(hDevice, blob.data(), static_cast<int>(blob.size()),
                                   ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, "sm2", &hKeypair));
  const std::vector<std::string> setKey = tokenCalls("SKF_SetSymmKey");
  ASSERT_EQ(1u, setKey.size());
  EXPECT_EQ("0x00000101", callField(setKey[0], "ulAlgID"));
  EXPECT_TRUE(m_log.has("[ERROR]", "DeviceImportKeypair", "EncKeyPairBlob()==0"));
  DeviceFreeDevice(hDevice);
  DeviceFreeDevices(set);
}

}  // namespace
}  // namespace opstest
