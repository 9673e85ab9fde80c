// PIN life cycle and security states of the software token.
#include <gtest/gtest.h>

#include <utility>

#include "tests/softskf/soft_token_fixture.h"

namespace softskf_test {
namespace {

enum class Op { Verify, Change, Unblock };

struct PinStep {
  const char *what;
  Op op;
  ULONG type;
  const char *pin;
  const char *newPin;
  ULONG expected;
  long retry;           // *pulRetryCount afterwards; -1: not checked
  ULONG userRemaining;  // SKF_GetPINInfo afterwards
  ULONG adminRemaining;
};

// Three tries for each PIN. Every step depends on the ones before it.
const PinStep kLifeCycle[] = {
    {"wrong user PIN counts down", Op::Verify, USER_TYPE, "wrong-pin", nullptr, SAR_PIN_INCORRECT,
     2, 2, 3},
    {"second wrong PIN", Op::Verify, USER_TYPE, "wrong-pin", nullptr, SAR_PIN_INCORRECT, 1, 1, 3},
    {"right PIN resets the counter", Op::Verify, USER_TYPE, kUserPin, nullptr, SAR_OK, -1, 3, 3},
    {"too short: no count", Op::Verify, USER_TYPE, "12345", nullptr, SAR_PIN_LEN_RANGE, -1, 3, 3},
    {"too long: no count", Op::Verify, USER_TYPE, "12345678901234567", nullptr, SAR_PIN_LEN_RANGE,
     -1, 3, 3},
    {"16 bytes is a length in range", Op::Verify, USER_TYPE, "1234567890123456", nullptr,
     SAR_PIN_INCORRECT, 2, 2, 3},
    {"6 bytes is a length in range", Op::Verify, USER_TYPE, "123456", nullptr, SAR_PIN_INCORRECT, 1,
     1, 3},
    {"last try reaches 0", Op::Verify, USER_TYPE, "wrong-pin", nullptr, SAR_PIN_INCORRECT, 0, 0, 3},
    {"locked: the right PIN is refused", Op::Verify, USER_TYPE, kUserPin, nullptr, SAR_PIN_LOCKED,
     0, 0, 3},
    {"change refused while locked", Op::Change, USER_TYPE, kUserPin, "other-pin", SAR_PIN_LOCKED, 0,
     0, 3},
    {"unblock with a wrong admin PIN counts the admin PIN", Op::Unblock, 0, "wrong-admin",
     "new-user-pin", SAR_PIN_INCORRECT, 2, 0, 2},
    {"unblock with a short new PIN", Op::Unblock, 0, kAdminPin, "short", SAR_PIN_LEN_RANGE, -1, 0,
     2},
    {"unblock", Op::Unblock, 0, kAdminPin, "new-user-pin", SAR_OK, -1, 3, 3},
    {"old user PIN is gone", Op::Verify, USER_TYPE, kUserPin, nullptr, SAR_PIN_INCORRECT, 2, 2, 3},
    {"new user PIN works", Op::Verify, USER_TYPE, "new-user-pin", nullptr, SAR_OK, -1, 3, 3},
    {"change with a wrong old PIN counts down", Op::Change, USER_TYPE, "wrong-pin", "changed-pin",
     SAR_PIN_INCORRECT, 2, 2, 3},
    {"change to a short PIN", Op::Change, USER_TYPE, "new-user-pin", "short", SAR_PIN_LEN_RANGE, -1,
     2, 3},
    {"change", Op::Change, USER_TYPE, "new-user-pin", "changed-pin", SAR_OK, -1, 3, 3},
    {"changed PIN works", Op::Verify, USER_TYPE, "changed-pin", nullptr, SAR_OK, -1, 3, 3},
    {"admin PIN verifies", Op::Verify, ADMIN_TYPE, kAdminPin, nullptr, SAR_OK, -1, 3, 3},
    {"admin change", Op::Change, ADMIN_TYPE, kAdminPin, "admin-pin-2", SAR_OK, -1, 3, 3},
    {"old admin PIN is gone", Op::Verify, ADMIN_TYPE, kAdminPin, nullptr, SAR_PIN_INCORRECT, 2, 3,
     2},
    {"unknown PIN type", Op::Verify, 7, kUserPin, nullptr, SAR_USER_TYPE_INVALID, -1, 3, 2},
};

class PinTest : public SoftTokenTest {};

TEST_F(PinTest, LifeCycleFollowsTheTable) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev, "app", 3);
  for (const PinStep &step : kLifeCycle) {
    SCOPED_TRACE(step.what);
    ULONG retry = 0xEEEE;
    ULONG rv;
    switch (step.op) {
      case Op::Verify:
        rv = SKF_VerifyPIN(app, step.type, const_cast<char *>(step.pin), &retry);
        break;
      case Op::Change:
        rv = SKF_ChangePIN(app, step.type, const_cast<char *>(step.pin),
                           const_cast<char *>(step.newPin), &retry);
        break;
      default:
        rv = SKF_UnblockPIN(app, const_cast<char *>(step.pin), const_cast<char *>(step.newPin),
                            &retry);
        break;
    }
    EXPECT_EQ(step.expected, rv);
    if (step.retry >= 0) {
      EXPECT_EQ(static_cast<ULONG>(step.retry), retry);
    }
    ULONG max = 0, remaining = 0;
    BOOL isDefault = TRUE;
    ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, USER_TYPE, &max, &remaining, &isDefault));
    EXPECT_EQ(3u, max);
    EXPECT_EQ(step.userRemaining, remaining);
    ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, ADMIN_TYPE, &max, &remaining, &isDefault));
    EXPECT_EQ(step.adminRemaining, remaining);
  }
}

TEST_F(PinTest, DefaultFlagClearsOnlyForTheChangedPin) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  ULONG max, remaining, retry;
  BOOL isDefault = FALSE;
  ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, USER_TYPE, &max, &remaining, &isDefault));
  EXPECT_TRUE(isDefault);
  ASSERT_EQ(SAR_OK, SKF_ChangePIN(app, USER_TYPE, const_cast<char *>(kUserPin),
                                  const_cast<char *>("another-pin"), &retry));
  ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, USER_TYPE, &max, &remaining, &isDefault));
  EXPECT_FALSE(isDefault);
  ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, ADMIN_TYPE, &max, &remaining, &isDefault));
  EXPECT_TRUE(isDefault);
}

// Calls that need the user to be logged in, each run on a fresh container.
struct GuardedCall {
  const char *name;
  ULONG (*run)(HAPPLICATION app, HCONTAINER con);
};

const GuardedCall kUserCalls[] = {
    {"SKF_CreateContainer",
     [](HAPPLICATION app, HCONTAINER) {
       HCONTAINER c;
       return SKF_CreateContainer(app, const_cast<char *>("new"), &c);
     }},
    {"SKF_DeleteContainer",
     [](HAPPLICATION app, HCONTAINER) {
       return SKF_DeleteContainer(app, const_cast<char *>("sm2"));
     }},
    {"SKF_GenECCKeyPair",
     [](HAPPLICATION, HCONTAINER con) {
       ECCPUBLICKEYBLOB blob;
       return SKF_GenECCKeyPair(con, SGD_SM2_1, &blob);
     }},
    {"SKF_ECCSignData",
     [](HAPPLICATION, HCONTAINER con) {
       BYTE digest[32] = {1};
       ECCSIGNATUREBLOB sig;
       return SKF_ECCSignData(con, digest, 32, &sig);
     }},
    {"SKF_ImportCertificate",
     [](HAPPLICATION, HCONTAINER con) {
       BYTE cert[3] = {0x30, 0x01, 0x00};
       return SKF_ImportCertificate(con, TRUE, cert, 3);
     }},
};

TEST_F(PinTest, PrivateOperationsNeedTheUserLogin) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  ULONG retry;
  for (const GuardedCall &call : kUserCalls) {
    SCOPED_TRACE(call.name);
    ASSERT_EQ(SAR_OK, SKF_ClearSecureState(app));
    EXPECT_EQ(SAR_USER_NOT_LOGGED_IN, call.run(app, con));
    // The administrator is not the user.
    ASSERT_EQ(SAR_OK, SKF_VerifyPIN(app, ADMIN_TYPE, const_cast<char *>(kAdminPin), &retry));
    EXPECT_EQ(SAR_USER_NOT_LOGGED_IN, call.run(app, con));
  }
  // Public reads need no login.
  ASSERT_EQ(SAR_OK, SKF_ClearSecureState(app));
  ULONG len = 0;
  EXPECT_EQ(SAR_OK, SKF_ExportPublicKey(con, TRUE, nullptr, &len));
  EXPECT_EQ(sizeof(ECCPUBLICKEYBLOB), len);
  ULONG type = 9;
  EXPECT_EQ(SAR_OK, SKF_GetContainerType(con, &type));
  EXPECT_EQ(2u, type);
}

// A signature made ready keeps no key past the user login, however it ends.
TEST_F(PinTest, ReadyKeysGoWithTheUserLogin) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev, "app", 9);
  HCONTAINER con = makeSm2Container(app);
  const std::pair<const char *, ULONG (*)(HAPPLICATION)> logouts[] = {
      {"SKF_ClearSecureState", [](HAPPLICATION a) -> ULONG { return SKF_ClearSecureState(a); }},
      {"a wrong user PIN, the administrator still logged in",
       [](HAPPLICATION a) -> ULONG {
         ULONG retry;
         if (SKF_VerifyPIN(a, ADMIN_TYPE, const_cast<char *>(kAdminPin), &retry) != SAR_OK)
           return SAR_FAIL;
         return SKF_VerifyPIN(a, USER_TYPE, const_cast<char *>("wrong-pin"), &retry) ==
                        SAR_PIN_INCORRECT
                    ? SAR_OK
                    : SAR_FAIL;
       }},
  };
  BYTE digest[32] = {9};
  ECCSIGNATUREBLOB sig;
  for (const auto &logout : logouts) {
    SCOPED_TRACE(logout.first);
    loginUser(app);
    ASSERT_EQ(SAR_OK, SKF_ECCSignData(con, digest, 32, &sig));
    ASSERT_EQ(SAR_OK, logout.second(app));
    EXPECT_EQ(SAR_USER_NOT_LOGGED_IN, SKF_ECCSignData(con, digest, 32, &sig));
  }
}

TEST_F(PinTest, LoginIsSharedByHandlesOfOneApplicationAndClearedForAll) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);  // logs in through `app`
  DEVHANDLE dev2 = nullptr;
  HAPPLICATION app2 = nullptr;
  HCONTAINER con2 = nullptr;
  ASSERT_EQ(SAR_OK, SKF_ConnectDev(const_cast<char *>("tok1"), &dev2));
  ASSERT_EQ(SAR_OK, SKF_OpenApplication(dev2, const_cast<char *>("app"), &app2));
  ASSERT_EQ(SAR_OK, SKF_OpenContainer(app2, const_cast<char *>("sm2"), &con2));
  BYTE digest[32] = {7};
  ECCSIGNATUREBLOB sig;
  EXPECT_EQ(SAR_OK, SKF_ECCSignData(con2, digest, 32, &sig));
  ASSERT_EQ(SAR_OK, SKF_ClearSecureState(app2));
  EXPECT_EQ(SAR_USER_NOT_LOGGED_IN, SKF_ECCSignData(con, digest, 32, &sig));
}

TEST_F(PinTest, RecreatedApplicationStartsLoggedOut) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  loginUser(app);
  ASSERT_EQ(SAR_OK, authenticate(dev));
  ASSERT_EQ(SAR_OK, SKF_DeleteApplication(dev, const_cast<char *>("app")));
  HAPPLICATION again = makeApplication(dev);
  HCONTAINER con;
  EXPECT_EQ(SAR_USER_NOT_LOGGED_IN, SKF_CreateContainer(again, const_cast<char *>("c"), &con));
}

}  // namespace
}  // namespace softskf_test
