// Tokens made by the provisioning library, as the token itself sees them:
// a name already taken, the clean-up of a failed
// provisioning (the provider's view of key pair kinds is checked by the
// provider's own tests). That the encryption key pairs decrypt what is sent to
// their public keys is checked through `tembra encrypt`/`decrypt`.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "softskf/include/softskf.h"
#include "softskf/provision/provision.h"
#include "tests/cli/token_access.h"
#include "tests/support/provider_test_support.h"

namespace tembra {
namespace {

using provision::DeviceSpec;
using provision::KeyKind;
using test::oneContainer;

TEST(Provision, NameTakenLeavesTheExistingTokenAlone) {
  test::TokenStore store;
  store.provision(oneContainer(KeyKind::Sm2, false));
  std::string error;
  EXPECT_EQ(provision::provisionDevice(oneContainer(KeyKind::Empty), &error),
            ULONG(SAR_FILE_ALREADY_EXIST));
  EXPECT_NE(error.find("SKFSoft_CreateDevice"), std::string::npos) << error;
  test::TokenConnection token("tok");
  ASSERT_TRUE(token.openContainer("App", "C1"));
  crypto::Sm2PublicKey key;
  EXPECT_TRUE(token.sm2PublicKey(true, key));
  EXPECT_FALSE(token.sm2PublicKey(false, key));
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
  EXPECT_EQ(provision::provisionDevice(oneContainer(KeyKind::Sm2), &error), injected);
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
  store.provision(oneContainer(KeyKind::Sm2, false, false));
  test::TokenConnection token("tok");
  ASSERT_TRUE(token.openContainer("App", "C1"));
  ECCSIGNATUREBLOB signature;
  uint8_t digest[32] = {1};
  EXPECT_EQ(SKF_ECCSignData(token.container(), digest, 32, &signature),
            ULONG(SAR_USER_NOT_LOGGED_IN));
}

}  // namespace
}  // namespace tembra
