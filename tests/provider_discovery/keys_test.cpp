// Device and key pair queries through the output buffer protocol, key pair
// lookup, certificates and their update, and the public key getters.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "include/tembra_key_prov.h"
#include "platform/orvel_crypto.h"
#include "platform/skf.h"
#include "tests/provider_discovery/discovery_fixture.h"

namespace discoverytest {
namespace {

using Bytes = std::vector<unsigned char>;

// A session of the test's own on the provisioned token, beside the
// provider's: the independent view of what the token holds.
class TokenSession {
 public:
  TokenSession() {
    EXPECT_EQ(SKF_ConnectDev(const_cast<LPSTR>(kTokenName), &m_dev), ULONG(SAR_OK));
    EXPECT_EQ(SKF_OpenApplication(m_dev, const_cast<LPSTR>("App"), &m_app), ULONG(SAR_OK));
  }
  ~TokenSession() {
    for (HCONTAINER container : m_containers) SKF_CloseContainer(container);
    if (m_app != nullptr) SKF_CloseApplication(m_app);
    if (m_dev != nullptr) SKF_DisConnectDev(m_dev);
  }
  TokenSession(const TokenSession &) = delete;
  TokenSession &operator=(const TokenSession &) = delete;

  HCONTAINER container(const char *name) {
    HCONTAINER container = nullptr;
    EXPECT_EQ(SKF_OpenContainer(m_app, const_cast<LPSTR>(name), &container), ULONG(SAR_OK));
    m_containers.push_back(container);
    return container;
  }
  Bytes certificate(const char *name, bool sign) {
    HCONTAINER hCon = container(name);
    ULONG len = 0;
    if (SKF_ExportCertificate(hCon, sign, nullptr, &len) != SAR_OK) return Bytes();
    Bytes cert(len);
    if (SKF_ExportCertificate(hCon, sign, cert.data(), &len) != SAR_OK) return Bytes();
    cert.resize(len);
    return cert;
  }
  // The raw blob SKF_ExportPublicKey answers (an ECC or RSA public key blob).
  Bytes publicKeyBlob(const char *name, bool sign) {
    Bytes blob(sizeof(RSAPUBLICKEYBLOB));
    ULONG len = ULONG(blob.size());
    EXPECT_EQ(SKF_ExportPublicKey(container(name), sign, blob.data(), &len), ULONG(SAR_OK));
    blob.resize(len);
    return blob;
  }
  bool login() {
    ULONG retries = 0;
    return SKF_VerifyPIN(m_app, USER_TYPE, const_cast<LPSTR>(kUserPin), &retries) == SAR_OK;
  }

 private:
  DEVHANDLE m_dev = nullptr;
  HAPPLICATION m_app = nullptr;
  std::vector<HCONTAINER> m_containers;
};

// One token with an SM2 container "sm2" and an RSA-1024 container "rsa",
// both full, and "signonly": an SM2 signature key without certificate.
class KeysTest : public DiscoveryTest {
 protected:
  void SetUp() override {
    DiscoveryTest::SetUp();
    provisionShared(
        "keys", {token({application("App", {container("sm2"), container("rsa", KeyKind::Rsa1024),
                                            container("signonly", KeyKind::Sm2, false, false)})})});
    discover();
    m_device = onlyDevice();
    ASSERT_NE(m_device, nullptr);
  }
  void TearDown() override {
    for (SPI_KEYPAIR_HANDLE keypair : m_keypairs) DeviceFreeKeypair(keypair);
    DeviceFreeDevice(m_device);
    DiscoveryTest::TearDown();
  }
  // A key pair handle, released in TearDown.
  SPI_KEYPAIR_HANDLE find(int type, const char *label) {
    SPI_KEYPAIR_HANDLE keypair = nullptr;
    EXPECT_EQ(DeviceFindKeypair(m_device, type, label, &keypair), 1) << label;
    m_keypairs.push_back(keypair);
    return keypair;
  }

  SPI_DEVICE_HANDLE m_device = nullptr;
  std::vector<SPI_KEYPAIR_HANDLE> m_keypairs;
};

// ---- The output buffer protocol: one table for every getter ---------------

enum class Getter { SerialNumber, Label, KeypairLabel, PublicKey, Certificate };

class BufferTest : public KeysTest, public ::testing::WithParamInterface<Getter> {
 protected:
  int get(unsigned char *buf, int len, int *ret) {
    char *text = reinterpret_cast<char *>(buf);
    switch (GetParam()) {
      case Getter::SerialNumber:
        return DeviceGetSerialNumber(m_device, text, len, ret);
      case Getter::Label:
        return DeviceGetLabel(m_device, text, len, ret);
      case Getter::KeypairLabel:
        return DeviceGetKeypairLabel(find(ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "signonly"), text, len,
                                     ret);
      case Getter::PublicKey: {
        SPI_PUBLICKEY_HANDLE key =
            DeviceGetPublicKeyFromKeypair(find(ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "sm2"));
        int rv = DeviceExportPublicKey(key, buf, len, ret);
        DeviceFreePublicKey(key);
        return rv;
      }
      case Getter::Certificate:
        return DeviceGetCertificate(find(ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, "rsa"), 0, buf, len, ret);
    }
    return 0;
  }
  // What an exact buffer must receive, found without the provider.
  Bytes expected() {
    auto text = [](const char *s) { return Bytes(s, s + strlen(s) + 1); };
    switch (GetParam()) {
      case Getter::SerialNumber:
        return text(kTokenSerial);
      case Getter::Label:
        return text(kTokenLabel);
      case Getter::KeypairLabel:
        return text("signonly");
      case Getter::PublicKey: {
        // The host library's encoding of the last 32 bytes of each coordinate.
        Bytes blob = TokenSession().publicKeyBlob("sm2", true);
        const ECCPUBLICKEYBLOB *ecc = reinterpret_cast<const ECCPUBLICKEYBLOB *>(blob.data());
        unsigned char *out = nullptr;
        int outLen = 0;
        EXPECT_EQ(OrvelPKICryptoEncodeECCPubKey(ORVEL_PKI_ECC_CURVE_SM2, &ecc->XCoordinate[32], 32,
                                                &ecc->YCoordinate[32], 32, &out, &outLen),
                  1);
        Bytes key(out, out + outLen);
        OrvelPKICryptoFreeMemory(out);
        return key;
      }
      case Getter::Certificate:
        return TokenSession().certificate("rsa", false);
    }
    return Bytes();
  }
};

TEST_P(BufferTest, LengthQueryShortBufferExactBuffer) {
  const Bytes want = expected();
  ASSERT_FALSE(want.empty());
  const int size = static_cast<int>(want.size());

  int len = -7;
  EXPECT_EQ(get(nullptr, 0, &len), 1);
  EXPECT_EQ(len, size);

  Bytes buf(want.size(), 0xA5);
  len = -7;
  EXPECT_EQ(get(buf.data(), size - 1, &len), ORVEL_PKI_MOREDATA);
  EXPECT_EQ(len, size);
  EXPECT_EQ(buf, Bytes(want.size(), 0xA5)) << "a short buffer must stay untouched";

  len = -7;
  EXPECT_EQ(get(buf.data(), size, &len), 1);
  EXPECT_EQ(len, size);
  EXPECT_EQ(buf, want);
}

std::string getterName(const ::testing::TestParamInfo<Getter> &param) {
  const char *names[] = {"SerialNumber", "Label", "KeypairLabel", "PublicKey", "Certificate"};
  return names[static_cast<int>(param.param)];
}

INSTANTIATE_TEST_SUITE_P(Keys, BufferTest,
                         ::testing::Values(Getter::SerialNumber, Getter::Label,
                                           Getter::KeypairLabel, Getter::PublicKey,
                                           Getter::Certificate),
                         getterName);

TEST_F(KeysTest, NullHandlesAnswerTheirCodes) {
  char buf[8];
  int len = 0;
  EXPECT_EQ(DeviceGetSerialNumber(nullptr, buf, sizeof(buf), &len), 0);
  EXPECT_TRUE(logged("[ERROR]", "DeviceGetSerialNumber", "rv = hDevice == 0"));
  EXPECT_EQ(DeviceGetLabel(nullptr, buf, sizeof(buf), &len), 0);
  EXPECT_TRUE(logged("[ERROR]", "DeviceGetLabel", "hDevice == 0"));
  EXPECT_EQ(DeviceGetKeypairLabel(nullptr, buf, sizeof(buf), &len), -2);
  EXPECT_EQ(DeviceGetKeypairCount(nullptr), -1);
  EXPECT_EQ(DeviceGetKeypair(nullptr, 0), nullptr);
  EXPECT_EQ(DeviceGetKeypairType(nullptr), -1);
  EXPECT_EQ(DeviceGetKeypairAlgorithm(nullptr), -1);
  EXPECT_EQ(DeviceGetKeypairBits(nullptr), -1);
  EXPECT_EQ(DeviceGetPublicKeyFromKeypair(nullptr), nullptr);
  EXPECT_TRUE(logged("[ERROR]", "DeviceGetPublicKeyFromKeypair", "hKeypair == 0"));
  EXPECT_EQ(DeviceExportPublicKey(nullptr, nullptr, 0, &len), -1);
  EXPECT_TRUE(logged("[ERROR]", "DeviceExportPublicKey", "hPublicKey=0"));
  EXPECT_EQ(DeviceGetPublicKeyAlgorithm(nullptr), -1);
  EXPECT_EQ(DeviceGetPublicKeyBits(nullptr), -1);
  EXPECT_EQ(DeviceFreePublicKey(nullptr), 1);
  EXPECT_EQ(DeviceGetCertificateCount(nullptr), -1);
  EXPECT_EQ(DeviceGetCertificate(nullptr, 0, nullptr, 0, &len), -2);
  EXPECT_EQ(DeviceUpdateCertificate(nullptr, reinterpret_cast<const unsigned char *>(buf), 8), -2);
  EXPECT_EQ(DeviceFreeKeypair(nullptr), 1);
  EXPECT_EQ(DeviceFreeDevice(nullptr), 1);
  EXPECT_EQ(DeviceFreeDevices(nullptr), 1);
  EXPECT_EQ(DeviceLockDevice(nullptr), 1);
  EXPECT_EQ(DeviceUnlockDevice(nullptr), 1);
  EXPECT_TRUE(logged("[INFO]", "DeviceLockDevice", "DeviceLockDevice success"));
}

// ---- Key pair lookup --------------------------------------------------------

struct FindCase {
  const char *name;
  bool nullDevice;
  int type;
  const char *label;
  int result;
  const char *error;  // the [ERROR] line, or null
};

const FindCase kFindCases[] = {
    {"Signature", false, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "sm2", 1, nullptr},
    {"Encryption", false, ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, "rsa", 1, nullptr},
    {"OtherTypeOnly", false, ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, "signonly", 0,
     "DeviceFindKeypair fail "},
    {"CaseDiffers", false, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "SM2", 0, "DeviceFindKeypair fail "},
    {"Prefix", false, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "sign", 0, "DeviceFindKeypair fail "},
    {"NullDevice", true, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "sm2", -2, "hDevice==0, rv=0xFFFFFFFE"},
};

class FindTest : public KeysTest, public ::testing::WithParamInterface<FindCase> {};

TEST_P(FindTest, MatchesLabelAndTypeExactly) {
  const FindCase &c = GetParam();
  SPI_DEVICE_HANDLE device = c.nullDevice ? nullptr : m_device;
  SPI_KEYPAIR_HANDLE untouched = reinterpret_cast<SPI_KEYPAIR_HANDLE>(&untouched);
  SPI_KEYPAIR_HANDLE keypair = untouched;
  m_log.mark();
  EXPECT_EQ(DeviceFindKeypair(device, c.type, c.label, &keypair), c.result);
  EXPECT_TRUE(logged("[INFO]", "DeviceFindKeypair",
                     "hDevice = " + pointerText(device) + ", int type = " + std::to_string(c.type) +
                         ", const char *label = " + c.label +
                         ", SPI_KEYPAIR_HANDLE *phKeypair = " + pointerText(&keypair)));
  if (c.error != nullptr) {
    EXPECT_TRUE(logged("[ERROR]", "DeviceFindKeypair", c.error));
    EXPECT_EQ(keypair, untouched);
    return;
  }
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  m_keypairs.push_back(keypair);
  EXPECT_EQ(DeviceGetKeypairType(keypair), c.type);
  char label[32];
  EXPECT_EQ(DeviceGetKeypairLabel(keypair, label, sizeof(label), nullptr), 1);
  EXPECT_STREQ(label, c.label);
}

std::string findName(const ::testing::TestParamInfo<FindCase> &param) {
  return param.param.name;
}

INSTANTIATE_TEST_SUITE_P(Keys, FindTest, ::testing::ValuesIn(kFindCases), findName);

// ---- Certificates -----------------------------------------------------------

TEST_F(KeysTest, MissingCertificateCountsZero) {
  SPI_KEYPAIR_HANDLE keypair = find(ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "signonly");
  EXPECT_EQ(DeviceGetCertificateCount(keypair), 0);
  int len = -7;
  EXPECT_EQ(DeviceGetCertificate(keypair, 0, nullptr, 0, &len), 0);
  EXPECT_TRUE(logged("[ERROR]", "DeviceGetCertificate", "len <= 0"));
  EXPECT_EQ(len, -7);
}

TEST_F(KeysTest, UpdateNeedsLoginThenServesTheNewBytes) {
  struct Slot {
    const char *label;
    int type;
  };
  const Slot slots[] = {{"sm2", ORVEL_PKI_KEYPAIRTYPE_SIGNATURE},
                        {"signonly", ORVEL_PKI_KEYPAIRTYPE_SIGNATURE},
                        {"rsa", ORVEL_PKI_KEYPAIRTYPE_ENCRYPT}};
  // Any well-formed certificate the token does not hold in these slots.
  const Bytes fresh = TokenSession().certificate("rsa", true);
  ASSERT_FALSE(fresh.empty());

  mark();
  SPI_KEYPAIR_HANDLE first = find(slots[0].type, slots[0].label);
  EXPECT_EQ(DeviceUpdateCertificate(first, fresh.data(), int(fresh.size())), -8);
  EXPECT_TRUE(logged("[WARN]", "DeviceUpdateCertificate", "rv == SAR_USER_NOT_LOGGED_IN"));
  // Bad input is refused before the token is asked.
  EXPECT_EQ(DeviceUpdateCertificate(first, nullptr, 16), -1);
  EXPECT_EQ(DeviceUpdateCertificate(first, fresh.data(), 0), -1);
  EXPECT_EQ(calls("SKF_ImportCertificate"), 1);

  TokenSession session;
  ASSERT_TRUE(session.login());
  for (const Slot &slot : slots) {
    SCOPED_TRACE(slot.label);
    SPI_KEYPAIR_HANDLE keypair = find(slot.type, slot.label);
    ASSERT_EQ(DeviceUpdateCertificate(keypair, fresh.data(), int(fresh.size())), 1);
    EXPECT_EQ(DeviceGetCertificateCount(keypair), 1);
    Bytes served(fresh.size() + 8);
    int len = 0;
    ASSERT_EQ(DeviceGetCertificate(keypair, 0, served.data(), int(served.size()), &len), 1);
    served.resize(static_cast<size_t>(len));
    EXPECT_EQ(served, fresh);
    EXPECT_EQ(session.certificate(slot.label, slot.type == ORVEL_PKI_KEYPAIRTYPE_SIGNATURE), fresh);
  }
  EXPECT_EQ(calls("SKF_EnumContainer"), 0) << "served from the cache, no new discovery";
}

// ---- Public keys ------------------------------------------------------------

struct KeyCase {
  const char *label;
  int type;
  int algo;
  int bits;
};

const KeyCase kKeyCases[] = {
    {"sm2", ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, ORVEL_PKI_ALGORITHM_ECC, 256},
    {"sm2", ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, ORVEL_PKI_ALGORITHM_ECC, 256},
    {"rsa", ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, ORVEL_PKI_ALGORITHM_RSA, 1024},
    {"rsa", ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, ORVEL_PKI_ALGORITHM_RSA, 1024},
};

class PublicKeyTest : public KeysTest, public ::testing::WithParamInterface<KeyCase> {};

// That the exported key is the token's: its exact bytes for the SM2 signature
// key in the buffer test; for every kind, OpenSSL verifying the token's
// signatures and the token opening ciphertexts made with the exported keys
// (sign, decrypt, key generation and import tests).
TEST_P(PublicKeyTest, AnswersAlgorithmBitsAndAnEncoding) {
  const KeyCase &c = GetParam();
  SPI_PUBLICKEY_HANDLE publicKey = DeviceGetPublicKeyFromKeypair(find(c.type, c.label));
  ASSERT_NE(publicKey, nullptr);
  EXPECT_EQ(DeviceGetPublicKeyAlgorithm(publicKey), c.algo);
  EXPECT_EQ(DeviceGetPublicKeyBits(publicKey), c.bits);
  int len = 0;
  ASSERT_EQ(DeviceExportPublicKey(publicKey, nullptr, 0, &len), 1);
  Bytes der(static_cast<size_t>(len));
  ASSERT_EQ(DeviceExportPublicKey(publicKey, der.data(), len, &len), 1);
  EXPECT_EQ(DeviceFreePublicKey(publicKey), 1);

  EXPECT_GT(len, 0);
}

std::string keyName(const ::testing::TestParamInfo<KeyCase> &param) {
  return std::string(param.param.label) +
         (param.param.type == ORVEL_PKI_KEYPAIRTYPE_SIGNATURE ? "Sign" : "Enc");
}

INSTANTIATE_TEST_SUITE_P(Keys, PublicKeyTest, ::testing::ValuesIn(kKeyCases), keyName);

}  // namespace
}  // namespace discoverytest
