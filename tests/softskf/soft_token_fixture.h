// A fresh software token store per test case, and the few steps most cases
// share: a device, device authentication, an application, a login.
#ifndef TEMBRA_TESTS_SOFTSKF_SOFT_TOKEN_FIXTURE_H
#define TEMBRA_TESTS_SOFTSKF_SOFT_TOKEN_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/skf.h"
#include "softskf/include/softskf.h"
#include "tests/support/provider_test_support.h"

namespace softskf_test {

extern const BYTE kAuthKey[16];
extern const char kAdminPin[];
extern const char kUserPin[];

class SoftTokenTest : public ::testing::Test {
 public:
  void SetUp() override;
  void TearDown() override;

  const std::string &storePath() const { return m_store->path(); }
  // Creates the device in the store and connects it.
  DEVHANDLE makeDevice(const char *name = "tok1");
  // GenRandom + SM4-ECB of the challenge under `key` + DevAuth.
  static ULONG authenticate(DEVHANDLE dev, const BYTE key[16] = kAuthKey);
  // An application "app" with the PINs above, 5 retries each and create
  // rights ANYONE, made after authenticating.
  HAPPLICATION makeApplication(DEVHANDLE dev, const char *name = "app", ULONG retries = 5,
                               ULONG createRights = SECURE_ANYONE_ACCOUNT);
  static void loginUser(HAPPLICATION app);
  // A container with an SM2 or RSA signature key pair (logs in as user).
  HCONTAINER makeSm2Container(HAPPLICATION app, const char *name = "sm2");
  HCONTAINER makeRsaContainer(HAPPLICATION app, ULONG bits = 1024, const char *name = "rsa");
  static std::vector<std::string> multiString(const std::vector<char> &buffer);
  static std::vector<std::string> enumContainers(HAPPLICATION app);
  // Every byte of every file in the store, concatenated.
  static std::string storeContents(const std::string &dir);
  // The call record since StartCallLog, one entry per line.
  static std::vector<std::string> callLog();

 private:
  std::unique_ptr<tembra::test::TokenStore> m_store;
};

}  // namespace softskf_test

#endif  // TEMBRA_TESTS_SOFTSKF_SOFT_TOKEN_FIXTURE_H
