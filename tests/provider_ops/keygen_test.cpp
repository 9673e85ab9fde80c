// DeviceGenerateKeypair and DeviceDeleteKeypair against a software token:
// new keys that sign and that a fresh discovery sees, the container walk,
// the checks in their order, the token's answers, the full table, and
// deletion with the tables it leaves and the lock it frees.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "crypto/sm2_z.h"
#include "provider/records.h"
#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"
#if defined(TEMBRA_TEST_HAVE_OPENSSL)
#include "tests/support/openssl_party.h"
#endif

namespace opstest {
namespace {

constexpr int kSign = ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
constexpr int kRsa = ORVEL_PKI_ALGORITHM_RSA;
constexpr int kEcc = ORVEL_PKI_ALGORITHM_ECC;
const ORVEL_PKI_ECC_PARAM kSm2Param = {ORVEL_PKI_ECC_CURVE_SM2, 0};

ContainerSpec signOnly(const std::string &name) {
  ContainerSpec container = keyContainer(name, KeyKind::Sm2);
  container.encryptionKey = false;
  return container;
}

ContainerSpec keyless(const std::string &name) {
  ContainerSpec container = keyContainer(name, KeyKind::Empty);
  container.signatureKey = false;
  container.encryptionKey = false;
  return container;
}

// Labels of the device's key pair table, in order, with their type.
std::vector<std::string> tableLabels(SPI_DEVICE_HANDLE hDevice) {
  std::vector<std::string> labels;
  for (int i = 0; i < hDevice->m_keypairCount; ++i) {
    const Keypair *keypair = hDevice->m_keypairs[i];
    labels.push_back(std::string(keypair->m_label) + (keypair->m_keytype == kSign ? "/s" : "/e"));
  }
  return labels;
}

// Token "gen": containers "a" (SM2, both key pairs), "b" (SM2, both), "c"
// (SM2, signature only); no keyless container, so that a new label gets a
// new container.
class KeygenTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    return {makeToken(
        "gen", {keyContainer("a", KeyKind::Sm2), keyContainer("b", KeyKind::Sm2), signOnly("c")})};
  }

  // A signature by the new key pair, checked with its exported public key.
  void expectSignatureVerifies(SPI_KEYPAIR_HANDLE hKeypair, bool sm2) {
    const std::string message = "signed by a generated key";
    const std::vector<uint8_t> spki = publicKey(hKeypair);
    std::vector<uint8_t> tbs;
    if (sm2) {
      tembra::crypto::Sm2PublicKey key;
      ASSERT_TRUE(tembra::crypto::decodeSm2Spki(spki.data(), spki.size(), key));
      tbs.resize(32);
      ASSERT_TRUE(tembra::crypto::sm2DigestWithZ(
          key, tembra::crypto::kSm2DefaultId, tembra::crypto::kSm2DefaultIdSize,
          reinterpret_cast<const uint8_t *>(message.data()), message.size(), tbs.data()));
    } else {
      tbs.assign(51, 0x5A);
    }
    const int algo = sm2 ? ORVEL_PKI_ALGORITHM_SM2_SIGN : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN;
    std::vector<uint8_t> sign(512);
    int length = 0;
    ASSERT_EQ(1, DeviceSign(hKeypair, algo, nullptr, tbs.data(), int(tbs.size()), sign.data(),
                            int(sign.size()), &length));
    sign.resize(size_t(length));
#if defined(TEMBRA_TEST_HAVE_OPENSSL)
    namespace openssl = tembra::test::openssl;
    const openssl::Pkey key = openssl::keyFromSpki(spki);
    ASSERT_TRUE(key);
    EXPECT_TRUE(sm2 ? openssl::sm2VerifyDigest(key.get(), tbs, sign)
                    : openssl::rsaRecover(key.get(), sign) == tbs);
#else
    EXPECT_FALSE(sign.empty());
#endif
  }

  int generate(const char *label, int algo = kEcc, int keybits = 256,
               const void *param = &kSm2Param, SPI_KEYPAIR_HANDLE *out = nullptr) {
    SPI_KEYPAIR_HANDLE hKeypair = nullptr;
    const int rv = DeviceGenerateKeypair(device(), algo, keybits, param, kSign, label, &hKeypair);
    if (hKeypair != nullptr) m_generated.push_back(hKeypair);
    if (out != nullptr) *out = hKeypair;
    return rv;
  }

  void TearDown() override {
    for (SPI_KEYPAIR_HANDLE hKeypair : m_generated) DeviceFreeKeypair(hKeypair);
    m_generated.clear();
    OpsTest::TearDown();
  }

  std::vector<SPI_KEYPAIR_HANDLE> m_generated;
};

struct KindCase {
  const char *name;
  int algo;
  int keybits;
  bool sm2;
};

class GeneratedKinds : public KeygenTest, public ::testing::WithParamInterface<KindCase> {};

// A new container after the existing ones, a handle that counts twice on
// the device, a signature OpenSSL accepts, and a key a fresh discovery sees.
TEST_P(GeneratedKinds, SignsAndIsFoundByAFreshDiscovery) {
  const KindCase &c = GetParam();
  login();
  const int refCount = device()->m_refCount;
  SPI_KEYPAIR_HANDLE hKeypair = nullptr;
  mark();
  ASSERT_EQ(1, generate("fresh", c.algo, c.keybits, c.sm2 ? &kSm2Param : nullptr, &hKeypair));
  ASSERT_NE(nullptr, hKeypair);
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  EXPECT_EQ(1u, tokenCalls("SKF_CreateContainer").size());
  EXPECT_EQ(refCount + 2, device()->m_refCount);
  EXPECT_EQ(6, DeviceGetKeypairCount(device()));
  EXPECT_EQ(3, hKeypair->m_index);
  EXPECT_EQ(kSign, DeviceGetKeypairType(hKeypair));
  EXPECT_EQ(c.algo, DeviceGetKeypairAlgorithm(hKeypair));
  EXPECT_EQ(c.keybits, DeviceGetKeypairBits(hKeypair));
  expectSignatureVerifies(hKeypair, c.sm2);

  const std::vector<uint8_t> key = publicKey(hKeypair);
  SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
  ASSERT_EQ(1, DeviceGetDeviceCount(set));
  SPI_DEVICE_HANDLE again = DeviceGetDevice(set, 0);
  SPI_KEYPAIR_HANDLE found = nullptr;
  ASSERT_EQ(1, DeviceFindKeypair(again, kSign, "fresh", &found));
  EXPECT_EQ(c.keybits, DeviceGetKeypairBits(found));
  EXPECT_EQ(key, publicKey(found));
  DeviceFreeKeypair(found);
  DeviceFreeDevice(again);
  DeviceFreeDevices(set);
}

INSTANTIATE_TEST_SUITE_P(Kinds, GeneratedKinds,
                         ::testing::Values(KindCase{"Sm2", kEcc, 256, true},
                                           KindCase{"Rsa1024", kRsa, 1024, false},
                                           KindCase{"Rsa2048", kRsa, 2048, false}),
                         CaseName());

// 1536 bits fails after the container was made; that keyless container then
// answers -6 to its own label, and is taken by the next other label.
TEST_F(KeygenTest, RefusedSizeLeavesTheContainerThenExistsThenReused) {
  login();
  mark();
  EXPECT_EQ(-1, generate("x", kRsa, 1536, nullptr));
  EXPECT_EQ(std::vector<std::string>{"keybits != 1024 && keybits != 2048"},
            m_log.messages("[ERROR]"));
  ASSERT_EQ(1u, tokenCalls("SKF_CreateContainer").size());
  EXPECT_EQ(4, device()->m_containerCount);
  EXPECT_EQ(5, DeviceGetKeypairCount(device()));

  mark();
  EXPECT_EQ(-6, generate("x"));
  EXPECT_TRUE(m_log.lines().size() == 1u);  // the [INFO] entry line only
  EXPECT_TRUE(tembra::test::tokenCallLog().empty());

  SPI_KEYPAIR_HANDLE hKeypair = nullptr;
  mark();
  ASSERT_EQ(1, generate("y", kEcc, 256, &kSm2Param, &hKeypair));
  EXPECT_TRUE(tokenCalls("SKF_CreateContainer").empty());
  EXPECT_EQ(3, hKeypair->m_index);
  EXPECT_STREQ("x", device()->m_containers[3]->m_label);
  EXPECT_STREQ("y", hKeypair->m_label);
}

// Token "reuse": "a" with keys, "spare" keyless, "later" keyless.
class ReuseTest : public KeygenTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    return {makeToken("reuse", {signOnly("a"), keyless("spare"), keyless("later")})};
  }
};

// The first keyless container is taken whatever its name, even for the
// label of a later container, which the walk never reaches; the container
// keeps its name on the token.
TEST_F(ReuseTest, FirstKeylessContainerTakesTheCallersLabel) {
  login();
  SPI_KEYPAIR_HANDLE hKeypair = nullptr;
  mark();
  ASSERT_EQ(1, generate("later", kEcc, 256, &kSm2Param, &hKeypair));
  EXPECT_TRUE(tokenCalls("SKF_CreateContainer").empty());
  EXPECT_EQ(1, hKeypair->m_index);
  EXPECT_STREQ("later", hKeypair->m_label);
  EXPECT_EQ((std::vector<std::string>{"a/s", "later/s"}), tableLabels(device()));

  SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
  SPI_DEVICE_HANDLE again = DeviceGetDevice(set, 0);
  EXPECT_EQ((std::vector<std::string>{"a/s", "spare/s"}), tableLabels(again));
  DeviceFreeDevice(again);
  DeviceFreeDevices(set);
}

struct CheckCase {
  const char *name;
  bool nullDevice;
  int algo;
  int keybits;
  int paramKind;  // 0 null, 1 SM2, 2 m_temp 1 and curve 8, 3 curve 8
  int type;
  const char *label;  // nullptr: null label; "" empty; otherwise the case name
  bool nullOut;
  int expected;
  const char *error;  // nullptr: no [ERROR] line
};

const CheckCase kChecks[] = {
    {"NullDevice", true, 3, 0, 0, 1, nullptr, true, -2, nullptr},
    {"NullOut", false, kEcc, 0, 0, 1, "l", true, -1, nullptr},
    {"NullLabel", false, kEcc, 0, 0, 1, nullptr, false, -1, nullptr},
    {"EmptyLabel", false, kEcc, 0, 0, 1, "", false, -1, nullptr},
    {"TypeBeforeBits", false, kEcc, 0, 0, 1, "l", false, -1,
     "type != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE"},
    {"BitsBeforeAlgorithm", false, 77, 0, 0, kSign, "l", false, -1, "keybits <= 0"},
    {"NullEccParam", false, kEcc, 255, 0, kSign, "l", false, -1, "eccParam == 0"},
    {"TempBeforeCurve", false, kEcc, 255, 2, kSign, "l", false, -1, "eccParam->m_temp"},
    {"CurveBeforeBits", false, kEcc, 255, 3, kSign, "l", false, -1,
     "eccParam->m_curve != ORVEL_PKI_ECC_CURVE_SM2"},
    {"EccBits", false, kEcc, 255, 1, kSign, "l", false, -1, "keybits != 256"},
    {"RsaWithParam", false, kRsa, 1024, 1, kSign, "l", false, -1, nullptr},
    {"OtherAlgorithm", false, 2, 256, 1, kSign, "l", false, 1, nullptr},
};

// Each check in its place: where two are broken the earlier one answers.
// *phKeypair is never written.
TEST_F(KeygenTest, ChecksInTheirOrder) {
  login();
  const ORVEL_PKI_ECC_PARAM tempAndCurve = {8, 1};
  const ORVEL_PKI_ECC_PARAM curve = {8, 0};
  for (const CheckCase &c : kChecks) {
    SCOPED_TRACE(c.name);
    const void *param = c.paramKind == 1   ? static_cast<const void *>(&kSm2Param)
                        : c.paramKind == 2 ? static_cast<const void *>(&tempAndCurve)
                        : c.paramKind == 3 ? static_cast<const void *>(&curve)
                                           : nullptr;
    SPI_KEYPAIR_HANDLE sentinel = reinterpret_cast<SPI_KEYPAIR_HANDLE>(0x1234);
    mark();
    EXPECT_EQ(c.expected,
              DeviceGenerateKeypair(c.nullDevice ? nullptr : device(), c.algo, c.keybits, param,
                                    c.type, c.label && c.label[0] ? c.name : c.label,
                                    c.nullOut ? nullptr : &sentinel));
    EXPECT_EQ(reinterpret_cast<SPI_KEYPAIR_HANDLE>(0x1234), sentinel);
    const std::vector<std::string> errors = m_log.messages("[ERROR]");
    EXPECT_EQ(c.error ? std::vector<std::string>{c.error} : std::vector<std::string>{}, errors);
  }
  EXPECT_EQ(5, DeviceGetKeypairCount(device()));
}

// The token's answers: not logged in from container creation (both codes)
// and from generation (one code); other generation failures are DEBUG
// lines, and leave the container keyless.
TEST_F(KeygenTest, TokenAnswers) {
  struct Case {
    const char *function;  // nullptr: the token's own answer, logged out
    ULONG fault;
    int expected;
    const char *level;
    const char *message;
  };
  const Case cases[] = {
      {nullptr, 0, -8, "[WARN]", "rv == SAR_USER_NOT_LOGGED_IN || rv == 0x000000b3"},
      {"SKF_CreateContainer", 0xB3, -8, "[WARN]",
       "rv == SAR_USER_NOT_LOGGED_IN || rv == 0x000000b3"},
      {"SKF_CreateContainer", SAR_FAIL, 0, "[ERROR]",
       "SKF_CreateContainer fail, error = 0x0A000001"},
      {"SKF_GenECCKeyPair", SAR_USER_NOT_LOGGED_IN, -8, nullptr, nullptr},
      {"SKF_GenECCKeyPair", 0xB3, 0, "[DEBUG]", "SKF_GenECCKeyPair fail, error = 0x000000B3"},
      {"SKF_GenRSAKeyPair", SAR_FAIL, 0, "[DEBUG]", "SKF_GenRSAKeyPair fail, error = 0x0A000001"},
  };
  tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_LEVEL", "4");
  int n = 0;
  bool loggedIn = false;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.message ? c.message : "silent -8");
    if (c.function != nullptr && !loggedIn) login();
    loggedIn = loggedIn || c.function != nullptr;
    if (c.function != nullptr) {
      ASSERT_EQ(kTokenOk, SKFSoft_SetFault(c.function, c.fault, 1));
    }
    const bool rsa = c.function != nullptr && strcmp(c.function, "SKF_GenRSAKeyPair") == 0;
    const std::string label = "t" + std::to_string(n++);
    mark();
    EXPECT_EQ(c.expected, generate(label.c_str(), rsa ? kRsa : kEcc, rsa ? 1024 : 256,
                                   rsa ? nullptr : &kSm2Param));
    std::vector<std::string> lines;
    for (const tembra::test::LogLine &line : m_log.lines()) {
      const bool trace = line.message.compare(0, 5, ">>>>>") == 0 ||
                         line.message.compare(0, 5, "<<<<<") == 0 ||
                         line.message.compare(0, 20, "SKF_CreateContainer ") == 0;
      if (line.level != "[INFO]" && !(line.level == "[DEBUG]" && trace)) {
        lines.push_back(line.level + " " + line.message);
      }
    }
    EXPECT_EQ(c.level ? std::vector<std::string>{std::string(c.level) + " " + c.message}
                      : std::vector<std::string>{},
              lines);
  }
  tembra::test::unsetEnv("TEMBRA_KEY_PROV_LOG_LEVEL");
  // One container was made by the failed generations, and is keyless.
  EXPECT_EQ(4, device()->m_containerCount);
  EXPECT_EQ(0u, device()->m_containers[3]->m_type);
  EXPECT_EQ(5, DeviceGetKeypairCount(device()));
}

// All 32 slots hold keys: the walk finds no place, nothing is stored.
class FullTableTest : public KeygenTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    std::vector<ContainerSpec> containers;
    for (int i = 0; i < CONTAINER_COUNT_MAX; ++i) containers.push_back(signOnly(std::to_string(i)));
    return {makeToken("full", containers)};
  }
};

TEST_F(FullTableTest, NoSlotLeft) {
  login();
  ASSERT_EQ(CONTAINER_COUNT_MAX, device()->m_containerCount);
  mark();
  EXPECT_EQ(0, generate("extra"));
  EXPECT_TRUE(m_log.has("[ERROR]", "getEmptyContainerIndex", "pos >= CONTAINER_COUNT_MAX"));
  EXPECT_TRUE(tembra::test::tokenCallLog().empty());
  EXPECT_EQ(CONTAINER_COUNT_MAX, device()->m_containerCount);
  EXPECT_EQ(CONTAINER_COUNT_MAX, DeviceGetKeypairCount(device()));
}

// Deleting b's signature key pair drops both of b's key pairs and keeps the
// others in order; the handle is then the caller's to free.
TEST_F(KeygenTest, DeletionDropsTheContainersKeyPairs) {
  login();
  SPI_KEYPAIR_HANDLE hKeypair = nullptr;
  ASSERT_EQ(1, DeviceFindKeypair(device(), kSign, "b", &hKeypair));
  mark();
  EXPECT_EQ(1, DeviceDeleteKeypair(hKeypair));
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  const std::vector<std::string> deletes = tokenCalls("SKF_DeleteContainer");
  ASSERT_EQ(1u, deletes.size());
  EXPECT_EQ("b", callField(deletes[0], "szContainerName"));
  EXPECT_EQ((std::vector<std::string>{"a/s", "a/e", "c/s"}), tableLabels(device()));
  EXPECT_EQ(2, device()->m_containerCount);
  EXPECT_EQ(nullptr, device()->m_containers[1]);
  EXPECT_EQ(nullptr, hKeypair->m_device);

  m_log.mark();
  EXPECT_EQ(-2, DeviceDeleteKeypair(hKeypair));
  EXPECT_EQ(std::vector<std::string>{"hKeypair->m_device == NULL"}, m_log.messages("[ERROR]"));
  m_log.mark();
  EXPECT_EQ(1, DeviceFreeKeypair(hKeypair));
  char expected[64];
  snprintf(expected, sizeof(expected), "freeDevice hKeypair success, hKeypair=%p",
           static_cast<void *>(hKeypair));
  EXPECT_TRUE(m_log.has("[INFO]", "DeviceFreeKeypair", expected));

  SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
  SPI_DEVICE_HANDLE again = DeviceGetDevice(set, 0);
  EXPECT_EQ((std::vector<std::string>{"a/s", "a/e", "c/s"}), tableLabels(again));
  DeviceFreeDevice(again);
  DeviceFreeDevices(set);
}

// Not logged in: -8 and nothing dropped. Any other token failure still
// drops the key pairs, answers 1, and leaves the lock free for another
// thread.
TEST_F(KeygenTest, FailedDeletion) {
  SPI_KEYPAIR_HANDLE hKeypair = keypair(kSign, "a");
  m_log.mark();
  EXPECT_EQ(-8, DeviceDeleteKeypair(hKeypair));
  EXPECT_EQ(std::vector<std::string>{"SKF_DeleteContainer fail, error = 0x0a00002d"},
            m_log.messages("[ERROR]"));
  EXPECT_EQ(5, DeviceGetKeypairCount(device()));
  EXPECT_EQ(device(), hKeypair->m_device);

  SPI_KEYPAIR_HANDLE other = nullptr;
  ASSERT_EQ(1, DeviceFindKeypair(device(), kSign, "c", &other));
  ASSERT_EQ(kTokenOk, SKFSoft_SetFault("SKF_DeleteContainer", SAR_FAIL, 1));
  m_log.mark();
  EXPECT_EQ(1, DeviceDeleteKeypair(other));
  EXPECT_EQ(std::vector<std::string>{"SKF_DeleteContainer fail, error = 0x0a000001"},
            m_log.messages("[ERROR]"));
  EXPECT_EQ((std::vector<std::string>{"a/s", "a/e", "b/s", "b/e"}), tableLabels(device()));
  DeviceFreeKeypair(other);

  SPI_DEVICE_HANDLE hDevice = device();
  std::future<int> locked = std::async(std::launch::async, [hDevice] {
    SPI_KEYPAIR_HANDLE found = nullptr;
    const int rv = DeviceFindKeypair(hDevice, kSign, "b", &found);
    if (found != nullptr) DeviceFreeKeypair(found);
    return rv;
  });
  ASSERT_EQ(std::future_status::ready, locked.wait_for(std::chrono::seconds(10)))
      << "the provider lock stayed held";
  EXPECT_EQ(1, locked.get());
}

}  // namespace
}  // namespace opstest
