// Discovery of tokens, applications, containers and key pairs, and the
// reference counting that decides when a device record is destroyed.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

#include "hostcrypto/include/orvel_test.h"
#include "include/tembra_key_prov.h"
#include "softskf/include/softskf.h"
#include "tests/provider_discovery/discovery_fixture.h"

namespace discoverytest {
namespace {

std::string hex8(unsigned value) {
  char text[16];
  snprintf(text, sizeof(text), "0x%08X", value);
  return text;
}

int keypairCount(SPI_DEVICESET_HANDLE set, int index) {
  SPI_DEVICE_HANDLE device = DeviceGetDevice(set, index);
  int count = DeviceGetKeypairCount(device);
  DeviceFreeDevice(device);
  return count;
}

// Certificates served for all key pairs of the device.
int certificateCount(SPI_DEVICE_HANDLE device) {
  int total = 0;
  for (int i = 0; i < DeviceGetKeypairCount(device); i++) {
    SPI_KEYPAIR_HANDLE keypair = DeviceGetKeypair(device, i);
    total += DeviceGetCertificateCount(keypair);
    DeviceFreeKeypair(keypair);
  }
  return total;
}

TEST_F(DiscoveryTest, NoTokenGivesAnEmptySetWithoutMessage) {
  discover();
  EXPECT_EQ(DeviceGetDeviceCount(m_set), 0);
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  EXPECT_EQ(DeviceGetDevice(m_set, 0), nullptr);
  EXPECT_TRUE(logged("[ERROR]", "DeviceGetDevice", "index < 0 || index >= hDeviceSet->m_count"));
  EXPECT_EQ(DeviceGetDeviceCount(nullptr), -1);
}

TEST_F(DiscoveryTest, TwoApplicationsShareTheTokenConnection) {
  m_store.provision(token({application("AppOne", {container("one")}),
                           application("AppTwo", {container("two", KeyKind::Sm2, false)})}));
  discover();
  ASSERT_EQ(DeviceGetDeviceCount(m_set), 2);
  EXPECT_EQ(keypairCount(m_set, 0) + keypairCount(m_set, 1), 3);
  for (int i = 0; i < 2; i++) {
    SPI_DEVICE_HANDLE device = DeviceGetDevice(m_set, i);
    char text[64];
    EXPECT_EQ(DeviceGetSerialNumber(device, text, sizeof(text), nullptr), 1);
    EXPECT_STREQ(text, kTokenSerial);
    EXPECT_EQ(DeviceGetLabel(device, text, sizeof(text), nullptr), 1);
    EXPECT_STREQ(text, kTokenLabel);
    DeviceFreeDevice(device);
  }

  // Destroying the first record disconnects the token under the second.
  SPI_DEVICE_HANDLE second = DeviceGetDevice(m_set, 1);
  mark();
  freeSet();
  EXPECT_EQ(calls("SKF_DisConnectDev"), 1);
  EXPECT_EQ(calls("SKF_CloseApplication"), 1);
  DeviceFreeDevice(second);
  EXPECT_EQ(calls("SKF_DisConnectDev"), 2);
}

TEST_F(DiscoveryTest, TokenWithoutApplicationIsUnformatted) {
  m_store.provision(token({}));
  mark();
  discover();
  EXPECT_TRUE(logged("[ERROR]", "addDevice", "appNameLen == 0 || appNameList[0] == 0"));
  EXPECT_EQ(calls("SKF_UnlockDev"), 1);
  SPI_DEVICE_HANDLE device = onlyDevice();
  EXPECT_EQ(DeviceGetKeypairCount(device), 0);
  EXPECT_EQ(DeviceGetKeypair(device, 0), nullptr);
  char serial[64];
  EXPECT_EQ(DeviceGetSerialNumber(device, serial, sizeof(serial), nullptr), 1);
  EXPECT_STREQ(serial, kTokenSerial);
  DeviceFreeDevice(device);
}

// Key pairs follow the containers: signature before encryption, none for a
// key the container lacks, none for an empty container, which still takes
// its container index.
TEST_F(DiscoveryTest, KeypairsFollowTheContainers) {
  ContainerSpec empty = container("empty");
  empty.kind = KeyKind::Empty;
  m_store.provision(token({application("App", {container("signonly", KeyKind::Sm2, false), empty,
                                               container("full", KeyKind::Rsa1024)})}));
  discover();
  SPI_DEVICE_HANDLE device = onlyDevice();
  ASSERT_EQ(DeviceGetKeypairCount(device), 3);

  struct Expected {
    const char *label;
    int type;
    int algo;
    int bits;
  };
  const Expected expected[] = {
      {"signonly", ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, ORVEL_PKI_ALGORITHM_ECC, 256},
      {"full", ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, ORVEL_PKI_ALGORITHM_RSA, 1024},
      {"full", ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, ORVEL_PKI_ALGORITHM_RSA, 1024},
  };
  for (const Expected &want : expected) {
    SCOPED_TRACE(want.label);
    SPI_KEYPAIR_HANDLE keypair = nullptr;
    ASSERT_EQ(DeviceFindKeypair(device, want.type, want.label, &keypair), 1);
    EXPECT_EQ(DeviceGetKeypairType(keypair), want.type);
    EXPECT_EQ(DeviceGetKeypairAlgorithm(keypair), want.algo);
    EXPECT_EQ(DeviceGetKeypairBits(keypair), want.bits);
    EXPECT_EQ(DeviceGetCertificateCount(keypair), 1);
    DeviceFreeKeypair(keypair);
  }
  SPI_KEYPAIR_HANDLE missing = nullptr;
  EXPECT_EQ(DeviceFindKeypair(device, ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, "signonly", &missing), 0);
  EXPECT_EQ(DeviceFindKeypair(device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "empty", &missing), 0);
  EXPECT_EQ(missing, nullptr);

  // The certificate index is bounded by the container count, three here.
  SPI_KEYPAIR_HANDLE keypair = nullptr;
  ASSERT_EQ(DeviceFindKeypair(device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, "full", &keypair), 1);
  int length = 0;
  EXPECT_EQ(DeviceGetCertificate(keypair, 2, nullptr, 0, &length), 1);
  EXPECT_GT(length, 0);
  EXPECT_EQ(DeviceGetCertificate(keypair, 3, nullptr, 0, &length), -1);
  DeviceFreeKeypair(keypair);
  DeviceFreeDevice(device);
}

// Never more than 32 containers: the 33rd is not even opened.
TEST_F(DiscoveryTest, ThirtyThreeContainersGiveThirtyTwo) {
  std::vector<ContainerSpec> containers;
  for (int i = 0; i < 33; i++) {
    containers.push_back(container("c" + std::to_string(i), KeyKind::Sm2, false, false));
  }
  m_store.provision(token({application("App", containers)}));
  mark();
  discover();
  EXPECT_EQ(calls("SKF_OpenContainer"), 32);
  SPI_DEVICE_HANDLE device = onlyDevice();
  EXPECT_EQ(DeviceGetKeypairCount(device), 32);
  DeviceFreeDevice(device);
}

// The set holds 16 devices: a 17th application is not even opened. (A token
// holds at most 16 applications, hence two tokens; the second fills the set
// while walking its applications.) Each stored record gets a debug line, and
// both lines carry addDevice in their function field. Provisioning 17
// applications takes minutes under Wine; the logic is the same on both
// platforms, so the Windows build leaves this case out.
TEST_F(DiscoveryTest, SeventeenApplicationsGiveSixteenDevices) {
#ifdef _WIN32
  GTEST_SKIP() << "too slow under emulation";
#endif
  DeviceSpec first = token({});
  first.name = "TokenA";
  for (int i = 0; i < 15; i++)
    first.applications.push_back(application("A" + std::to_string(i), {}));
  DeviceSpec second = token({application("B0", {}), application("B1", {})});
  second.name = "TokenB";
  m_store.provision(first);
  m_store.provision(second);
  mark();
  tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_LEVEL", "4");
  discover();
  tembra::test::unsetEnv("TEMBRA_KEY_PROV_LOG_LEVEL");
  EXPECT_EQ(DeviceGetDeviceCount(m_set), 16);
  EXPECT_EQ(calls("SKF_OpenApplication"), 16);
  EXPECT_EQ(m_log.messages("[WARN]"),
            std::vector<std::string>{"hSet->m_count >= DEVICE_SET_CAPACITY"});
  EXPECT_TRUE(logged("[WARN]", "addDevice", "hSet->m_count >= DEVICE_SET_CAPACITY"));
  for (int i = 0; i < 16; i++) {
    SPI_DEVICE_HANDLE device = DeviceGetDevice(m_set, i);
    EXPECT_TRUE(logged("[DEBUG]", "addDevice",
                       "hSet->m_handles[" + std::to_string(i) + "]=" + pointerText(device)))
        << i;
    DeviceFreeDevice(device);
  }
  freeSet();
  EXPECT_EQ(calls("SKF_CloseApplication"), 16);
}

struct TokenFault {
  const char *function;  // the SKF function made to fail once
  int devices;
  int keypairs;      // of the first device
  int certificates;  // of the first device
  int disconnects;   // SKF_DisConnectDev calls during discovery
  const char *logFunction;
  const char *message;  // the logged line, up to the error code
};

const unsigned kFaultCode = SAR_DEVICE_REMOVED;

// One token with one SM2 container holding both key pairs and certificates.
const TokenFault kTokenFaults[] = {
    {"SKF_ConnectDev", 0, 0, 0, 0, "addDevice", "SKF_ConnectDev fail, error = "},
    {"SKF_LockDev", 0, 0, 0, 1, "addDevice", "SKF_LockDev fail, error = "},
    {"SKF_GetDevInfo", 0, 0, 0, 1, "addDevice", "SKF_GetDevInfo fail, error = "},
    // The half-built record is destroyed: application closed, token disconnected.
    {"SKF_EnumContainer", 0, 0, 0, 1, "getAllContainer", "SKF_EnumContainer fail, error = "},
    {"SKF_OpenContainer", 1, 0, 0, 0, "getContainer", "SKF_OpenContainer fail, error = "},
    {"SKF_GetContainerType", 1, 0, 0, 0, "getContainer", "SKF_GetContainerType fail, error = "},
    {"SKF_ExportPublicKey", 1, 1, 1, 0, "GetECCPublicKey", "SKF_ExportPublicKey fail, error = "},
    {"SKF_ExportCertificate", 1, 2, 1, 0, "GetCertificate", "SKF_ExportCertificate fail, error = "},
};

class TokenFaultTest : public DiscoveryTest, public ::testing::WithParamInterface<TokenFault> {};

TEST_P(TokenFaultTest, SkipsWhatCannotBeReadWithItsMessage) {
  const TokenFault &fault = GetParam();
  provisionShared("sm2", {token({application("App", {container("c")})})});
  mark();
  ASSERT_EQ(SKFSoft_SetFault(fault.function, kFaultCode, 1), static_cast<ULONG>(SAR_OK));
  discover();

  const std::string message = fault.message + hex8(kFaultCode);
  EXPECT_TRUE(logged("[ERROR]", fault.logFunction, message)) << message;
  EXPECT_EQ(calls("SKF_DisConnectDev"), fault.disconnects);
  if (std::string(fault.function) == "SKF_EnumContainer") {
    EXPECT_TRUE(logged("[ERROR]", "createKeyHandle", "getAllContainer(hDevice) == 0"));
    EXPECT_EQ(calls("SKF_CloseApplication"), 1);
  }
  ASSERT_EQ(DeviceGetDeviceCount(m_set), fault.devices);
  if (fault.devices > 0) {
    SPI_DEVICE_HANDLE device = DeviceGetDevice(m_set, 0);
    EXPECT_EQ(DeviceGetKeypairCount(device), fault.keypairs);
    EXPECT_EQ(certificateCount(device), fault.certificates);
    DeviceFreeDevice(device);
  }
}

std::string tokenFaultName(const ::testing::TestParamInfo<TokenFault> &param) {
  return std::string(param.param.function).substr(4);
}

INSTANTIATE_TEST_SUITE_P(Discovery, TokenFaultTest, ::testing::ValuesIn(kTokenFaults),
                         tokenFaultName);

TEST_F(DiscoveryTest, EnumDevFailureGivesAnEmptySet) {
  provisionShared("sm2", {token({application("App", {container("c")})})});
  ASSERT_EQ(SKFSoft_SetFault("SKF_EnumDev", kFaultCode, 1), static_cast<ULONG>(SAR_OK));
  discover();
  EXPECT_EQ(DeviceGetDeviceCount(m_set), 0);
  EXPECT_TRUE(
      logged("[ERROR]", "DeviceGetAllDevices", "SKF_EnumDev fail, error : " + hex8(kFaultCode)));
}

// A signature key that cannot be encoded is left out, and so is its
// certificate: the token is asked for the encryption certificate only.
struct EncoderFault {
  KeyKind kind;
  const char *encoder;
  const char *level;
  const char *logFunction;
  const char *message;
};

const EncoderFault kEncoderFaults[] = {
    {KeyKind::Rsa1024, "OrvelPKICryptoEncodeRSAPubKey", "[ERROR]", "GetRSAPublicKey",
     "OrvelPKICryptoEncodeRSAPubKey fail, error : 0"},
    {KeyKind::Sm2, "OrvelPKICryptoEncodeECCPubKey", "[WARN]", "GetECCPublicKey",
     "OrvelPKICryptoEncodeECCPubKey fail, error = 0"},
};

class EncoderFaultTest : public DiscoveryTest,
                         public ::testing::WithParamInterface<EncoderFault> {};

TEST_P(EncoderFaultTest, SignatureKeyAndCertificateAreLeftOut) {
  const EncoderFault &fault = GetParam();
  provisionShared(fault.kind == KeyKind::Sm2 ? "sm2" : "rsa1024",
                  {token({application("App", {container("c", fault.kind)})})});
  mark();
  ASSERT_EQ(OrvelTestSetFault(fault.encoder, 0, 1), 1);
  discover();
  EXPECT_TRUE(logged(fault.level, fault.logFunction, fault.message));
  // Size query and read of the encryption certificate only.
  EXPECT_EQ(calls("SKF_ExportCertificate"), 2);
  SPI_DEVICE_HANDLE device = onlyDevice();
  ASSERT_EQ(DeviceGetKeypairCount(device), 1);
  SPI_KEYPAIR_HANDLE keypair = DeviceGetKeypair(device, 0);
  EXPECT_EQ(DeviceGetKeypairType(keypair), ORVEL_PKI_KEYPAIRTYPE_ENCRYPT);
  EXPECT_EQ(DeviceGetCertificateCount(keypair), 1);
  DeviceFreeKeypair(keypair);
  DeviceFreeDevice(device);
}

std::string encoderFaultName(const ::testing::TestParamInfo<EncoderFault> &param) {
  return std::string(param.param.encoder).substr(14);
}

INSTANTIATE_TEST_SUITE_P(Discovery, EncoderFaultTest, ::testing::ValuesIn(kEncoderFaults),
                         encoderFaultName);

// ---- Reference counting ---------------------------------------------------

enum class Step { GetDevice, GetKeypair, FreeSet, FreeDevice, FreeKeypair };

struct RefStep {
  Step step;
  int refCount;     // expected in the release line (-1: no release line)
  int disconnects;  // SKF_DisConnectDev calls so far
};

struct RefScenario {
  const char *name;
  std::vector<RefStep> steps;
};

std::string releaseLine(int refCount) {
  return "hDevice->m_refCount=" + std::to_string(refCount) +
         ", hDevice->m_keypairCount=3, hDevice->m_hashCount=0, hDevice->m_cipherCount=0";
}

class ReferenceTest : public DiscoveryTest, public ::testing::WithParamInterface<RefScenario> {};

// A device with three key pairs starts at 4 references (set + key pairs) and
// is destroyed when only its key pairs' references are left.
TEST_P(ReferenceTest, DeviceLivesWhileHeld) {
  provisionShared("threeKeypairs",
                  {token({application("App", {container("pair"),
                                              container("single", KeyKind::Sm2, false, false)})})});
  discover();
  SPI_DEVICE_HANDLE device = nullptr;
  SPI_KEYPAIR_HANDLE keypair = nullptr;
  mark();
  for (const RefStep &step : GetParam().steps) {
    m_log.mark();
    switch (step.step) {
      case Step::GetDevice:
        device = DeviceGetDevice(m_set, 0);
        ASSERT_NE(device, nullptr);
        ASSERT_EQ(DeviceGetKeypairCount(device), 3);
        break;
      case Step::GetKeypair:
        keypair = DeviceGetKeypair(device, 2);
        ASSERT_NE(keypair, nullptr);
        EXPECT_EQ(DeviceGetKeypair(device, 3), nullptr);
        break;
      case Step::FreeSet:
        freeSet();
        break;
      case Step::FreeDevice:
        DeviceFreeDevice(device);
        break;
      case Step::FreeKeypair:
        DeviceFreeKeypair(keypair);
        EXPECT_TRUE(logged(
            "[INFO]", "DeviceFreeKeypair",
            "freeDevice hKeypair->m_device success, hKeypair->m_device=" + pointerText(device)));
        break;
    }
    if (step.refCount >= 0) {
      EXPECT_TRUE(logged("[INFO]", "DeviceFreeDevice", releaseLine(step.refCount)))
          << "step " << static_cast<int>(step.step);
    }
    EXPECT_EQ(calls("SKF_DisConnectDev"), step.disconnects)
        << "step " << static_cast<int>(step.step);
  }
}

const RefScenario kReferenceScenarios[] = {
    {"SetReleaseDestroys", {{Step::FreeSet, 3, 1}}},
    {"DeviceOutlivesSet",
     {{Step::GetDevice, -1, 0}, {Step::FreeSet, 4, 0}, {Step::FreeDevice, 3, 1}}},
    {"KeypairKeepsDeviceAlive",
     {{Step::GetDevice, -1, 0},
      {Step::GetKeypair, -1, 0},
      {Step::FreeSet, 5, 0},
      {Step::FreeDevice, 4, 0},
      {Step::FreeKeypair, 3, 1}}},
};

std::string scenarioName(const ::testing::TestParamInfo<RefScenario> &param) {
  return param.param.name;
}

INSTANTIATE_TEST_SUITE_P(Discovery, ReferenceTest, ::testing::ValuesIn(kReferenceScenarios),
                         scenarioName);

}  // namespace
}  // namespace discoverytest
