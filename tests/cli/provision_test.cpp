// Tokens made by the provisioning library, as the provider and the token
// itself see them: key pair counts per container kind, the clean-up of a
// failed provisioning. That the encryption key pairs decrypt what is sent to
// their public keys is checked through `tembra encrypt`/`decrypt`.
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "include/tembra_key_prov.h"
#include "softskf/include/softskf.h"
#include "softskf/provision/provision.h"
#include "tests/cli/token_access.h"
#include "tests/support/provider_test_support.h"

namespace tembra {
namespace {

using provision::ContainerSpec;
using provision::DeviceSpec;
using provision::KeyKind;

DeviceSpec oneContainer(const ContainerSpec &container) {
  DeviceSpec plan;
  plan.name = "tok";
  plan.label = "Label";
  plan.serial = "SN0001";
  memcpy(plan.authKey, provision::kDefaultAuthKey, 16);
  provision::ApplicationSpec application;
  application.name = "App";
  application.containers.push_back(container);
  plan.applications.push_back(application);
  return plan;
}

ContainerSpec container(KeyKind kind, bool encryption = true, bool certificates = true) {
  ContainerSpec plan;
  plan.name = "C1";
  plan.kind = kind;
  plan.encryptionKey = encryption;
  plan.certificates = certificates;
  return plan;
}

// What the provider reports for the first device.
struct ProviderView {
  int devices = -1;
  std::vector<int> types;  // per key pair, in the provider's order
  std::vector<int> bits;
  std::vector<int> certificates;
};

ProviderView viewThroughProvider() {
  ProviderView view;
  EXPECT_EQ(DeviceInit(), 1);
  SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
  view.devices = DeviceGetDeviceCount(set);
  if (view.devices > 0) {
    SPI_DEVICE_HANDLE device = DeviceGetDevice(set, 0);
    for (int i = 0; i < DeviceGetKeypairCount(device); ++i) {
      SPI_KEYPAIR_HANDLE keypair = DeviceGetKeypair(device, i);
      view.types.push_back(DeviceGetKeypairType(keypair));
      view.bits.push_back(DeviceGetKeypairBits(keypair));
      view.certificates.push_back(DeviceGetCertificateCount(keypair));
      DeviceFreeKeypair(keypair);
    }
    DeviceFreeDevice(device);
  }
  DeviceFreeDevices(set);
  DeviceEnd();
  return view;
}

struct KindCase {
  const char *name;
  ContainerSpec container;
  std::vector<int> types;
  std::vector<int> bits;
  std::vector<int> certificates;
};

class ProvisionKinds : public ::testing::TestWithParam<KindCase> {};

TEST_P(ProvisionKinds, ProviderSeesTheKeyPairsAskedFor) {
  test::TokenStore store;
  const KindCase &c = GetParam();
  store.provision(oneContainer(c.container));
  ProviderView view = viewThroughProvider();
  EXPECT_EQ(view.devices, 1);
  EXPECT_EQ(view.types, c.types);
  EXPECT_EQ(view.bits, c.bits);
  EXPECT_EQ(view.certificates, c.certificates);
}

const int kSign = ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
const int kEnc = ORVEL_PKI_KEYPAIRTYPE_ENCRYPT;

INSTANTIATE_TEST_SUITE_P(
    Kinds, ProvisionKinds,
    ::testing::Values(
        KindCase{"Sm2", container(KeyKind::Sm2), {kSign, kEnc}, {256, 256}, {1, 1}},
        KindCase{"Sm2NoEncryption", container(KeyKind::Sm2, false), {kSign}, {256}, {1}},
        KindCase{"Sm2NoCertificates",
                 container(KeyKind::Sm2, true, false),
                 {kSign, kEnc},
                 {256, 256},
                 {0, 0}},
        KindCase{"Rsa1024", container(KeyKind::Rsa1024), {kSign, kEnc}, {1024, 1024}, {1, 1}},
        KindCase{"Empty", container(KeyKind::Empty), {}, {}, {}}),
    [](const ::testing::TestParamInfo<KindCase> &param) { return std::string(param.param.name); });

TEST(Provision, NoApplicationGivesAnUnformattedToken) {
  test::TokenStore store;
  DeviceSpec plan = oneContainer(container(KeyKind::Sm2));
  plan.applications.clear();
  store.provision(plan);
  test::TokenConnection token("tok");
  ASSERT_TRUE(token.connected());
  EXPECT_EQ(token.applicationNames(), std::vector<std::string>());
  EXPECT_EQ(viewThroughProvider().devices, 1);
}

TEST(Provision, NameTakenLeavesTheExistingTokenAlone) {
  test::TokenStore store;
  store.provision(oneContainer(container(KeyKind::Sm2, false)));
  std::string error;
  EXPECT_EQ(provision::provisionDevice(oneContainer(container(KeyKind::Empty)), &error),
            ULONG(SAR_FILE_ALREADY_EXIST));
  EXPECT_NE(error.find("SKFSoft_CreateDevice"), std::string::npos) << error;
  EXPECT_EQ(viewThroughProvider().types, std::vector<int>{kSign});
}

// A failure part way removes the half-made token and names the step.
struct FailureCase {
  const char *function;
  const char *step;
};

class ProvisionFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(ProvisionFailure, RemovesTheTokenAndNamesTheStep) {
  test::TokenStore store;
  const ULONG injected = SAR_NO_ROOM;
  ASSERT_EQ(SKFSoft_SetFault(GetParam().function, injected, 1), ULONG(SAR_OK));
  std::string error;
  EXPECT_EQ(provision::provisionDevice(oneContainer(container(KeyKind::Sm2)), &error), injected);
  EXPECT_NE(error.find(GetParam().step), std::string::npos) << error;
  EXPECT_NE(error.find("0x0A000030"), std::string::npos) << error;
  EXPECT_EQ(test::tokenNames(), std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(
    Steps, ProvisionFailure,
    ::testing::Values(FailureCase{"SKF_DevAuth", "device authentication"},
                      FailureCase{"SKF_CreateApplication", "SKF_CreateApplication"},
                      FailureCase{"SKF_CreateContainer", "container C1: SKF_CreateContainer"},
                      FailureCase{"SKF_ImportECCKeyPair", "encryption key pair import"},
                      FailureCase{"SKF_ImportCertificate", "SKF_ImportCertificate"}),
    [](const ::testing::TestParamInfo<FailureCase> &param) {
      return std::string(param.param.function).substr(4);
    });

TEST(Provision, LeavesTheApplicationLoggedOut) {
  test::TokenStore store;
  store.provision(oneContainer(container(KeyKind::Sm2, false, false)));
  test::TokenConnection token("tok");
  ASSERT_TRUE(token.openContainer("App", "C1"));
  ECCSIGNATUREBLOB signature;
  uint8_t digest[32] = {1};
  EXPECT_EQ(SKF_ECCSignData(token.container(), digest, 32, &signature),
            ULONG(SAR_USER_NOT_LOGGED_IN));
}

}  // namespace
}  // namespace tembra
