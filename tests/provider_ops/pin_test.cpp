// PINs through the provider against a software token: results, retry counts,
// the lock-and-unblock cycle, the unformatted token and the argument lines.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"

namespace opstest {
namespace {

constexpr int kUntouched = 0x5A5A;
constexpr int kAnyRetry = -0x7777;  // the token's answer on success is not checked

class PinTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override { return {makeToken("pins", {})}; }
};

struct PinCase {
  const char *name;
  int (*call)(SPI_DEVICE_HANDLE hDevice, int *retries);
  const char *faultFunction;  // token call made to fail, or null
  ULONG faultCode;
  int expected;
  int expectedRetries;  // kUntouched: left alone; kAnyRetry: not checked
  bool touchesToken;    // false: the call record stays empty
  const char *error;    // the one [ERROR] line expected, or null for none
  // Puts the token back as provisioned for the next case, or null.
  void (*restore)(SPI_DEVICE_HANDLE hDevice);
};

const char kWrong[] = "00000000";
const char kNewPin[] = "11112222";
constexpr ULONG kFail = SAR_FAIL;

// A correct PIN resets its counter; a changed PIN is changed back.
void resetUser(SPI_DEVICE_HANDLE h) {
  int r = 0;
  EXPECT_EQ(1, DeviceVerifyPwd(h, 1, kUserPin, &r));
}
void resetAdmin(SPI_DEVICE_HANDLE h) {
  int r = 0;
  EXPECT_EQ(1, DeviceVerifyPwd(h, 2, kAdminPin, &r));
}
void revertUser(SPI_DEVICE_HANDLE h) {
  int r = 0;
  EXPECT_EQ(1, DeviceChangePwd(h, 1, kNewPin, kUserPin, &r));
}
void revertAdmin(SPI_DEVICE_HANDLE h) {
  int r = 0;
  EXPECT_EQ(1, DeviceChangePwd(h, 2, kNewPin, kAdminPin, &r));
}

const PinCase kPinCases[] = {
    // Log in.
    {"VerifyUser", [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, kUserPin, r); },
     nullptr, 0, 1, kAnyRetry, true, nullptr, nullptr},
    {"VerifyAdmin", [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 2, kAdminPin, r); },
     nullptr, 0, 1, kAnyRetry, true, nullptr, nullptr},
    {"VerifyWrongUser",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, kWrong, r); }, nullptr, 0, -5,
     kRetries - 1, true, nullptr, resetUser},
    {"VerifyWrongAdmin",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 2, kWrong, r); }, nullptr, 0, -5,
     kRetries - 1, true, nullptr, resetAdmin},
    {"VerifyTooShort",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, "12345", r); }, nullptr, 0, -19,
     kAnyRetry, true, nullptr, nullptr},
    {"VerifyTooLong",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, "12345678901234567", r); },
     nullptr, 0, -19, kAnyRetry, true, nullptr, nullptr},
    {"VerifyTypeZero",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 0, kUserPin, r); }, nullptr, 0, -1,
     kUntouched, false, nullptr, nullptr},
    {"VerifyTypeFour",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 4, kUserPin, r); }, nullptr, 0, -1,
     kUntouched, false, nullptr, nullptr},
    {"VerifyNullPin", [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, nullptr, r); },
     nullptr, 0, -1, kUntouched, false, nullptr, nullptr},
    {"VerifyNullPinBeforeType",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 3, nullptr, r); }, nullptr, 0, -1,
     kUntouched, false, nullptr, nullptr},
    {"VerifyTokenFailure",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, kUserPin, r); },
     "SKF_VerifyPIN", kFail, 0, kAnyRetry, true, "SKF_VerifyPIN fail, error = 0x0A000001", nullptr},
    // Only "incorrect" is a wrong PIN for verify; "locked" is a failure.
    {"VerifyLockedIsFailure",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, kUserPin, r); },
     "SKF_VerifyPIN", SAR_PIN_LOCKED, 0, kAnyRetry, true, "SKF_VerifyPIN fail, error = 0x0A000025",
     nullptr},
    // Change.
    {"ChangeUser",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 1, kUserPin, kNewPin, r); },
     nullptr, 0, 1, kAnyRetry, true, nullptr, revertUser},
    {"ChangeAdmin",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 2, kAdminPin, kNewPin, r); },
     nullptr, 0, 1, kAnyRetry, true, nullptr, revertAdmin},
    {"ChangeWrongOld",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 1, kWrong, kNewPin, r); }, nullptr,
     0, -5, kRetries - 1, true, nullptr, resetUser},
    {"ChangeNewTooShort",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 1, kUserPin, "123", r); }, nullptr,
     0, -19, kAnyRetry, true, nullptr, nullptr},
    {"ChangeTypeThree",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 3, kUserPin, kNewPin, r); },
     nullptr, 0, -1, kUntouched, false, nullptr, nullptr},
    {"ChangeNullNew",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 1, kUserPin, nullptr, r); },
     nullptr, 0, -1, kUntouched, false, nullptr, nullptr},
    {"ChangeTokenFailure",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 1, kUserPin, kNewPin, r); },
     "SKF_ChangePIN", kFail, 0, kAnyRetry, true, "SKF_ChangePIN fail, error = 0x0A000001", nullptr},
    // Unblock: "locked" is the wrong-PIN answer here, "incorrect" a failure.
    {"UnblockUser",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceUnlockPwd(h, 1, kAdminPin, kNewPin, r); },
     nullptr, 0, 1, kAnyRetry, true, nullptr, revertUser},
    {"UnblockAdminTypeRefused",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceUnlockPwd(h, 2, kAdminPin, kNewPin, r); },
     nullptr, 0, -1, kUntouched, false, nullptr, nullptr},
    {"UnblockNullAdminPin",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceUnlockPwd(h, 1, nullptr, kNewPin, r); },
     nullptr, 0, -1, kUntouched, false, nullptr, nullptr},
    {"UnblockLockedIsWrongPin",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceUnlockPwd(h, 1, kAdminPin, kNewPin, r); },
     "SKF_UnblockPIN", SAR_PIN_LOCKED, -5, kAnyRetry, true, nullptr, nullptr},
    {"UnblockIncorrectIsFailure",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceUnlockPwd(h, 1, kAdminPin, kNewPin, r); },
     "SKF_UnblockPIN", SAR_PIN_INCORRECT, 0, kAnyRetry, true, "rv != SAR_OK, rv = 0x0A000024",
     nullptr},
    {"UnblockLengthRange",
     [](SPI_DEVICE_HANDLE h, int *r) { return DeviceUnlockPwd(h, 1, kAdminPin, kNewPin, r); },
     "SKF_UnblockPIN", SAR_PIN_LEN_RANGE, -19, kAnyRetry, true, nullptr, nullptr},
    // Remaining tries.
    {"RetryUser", [](SPI_DEVICE_HANDLE h, int *r) { return DeviceGetPwdRetryNum(h, 1, r); },
     nullptr, 0, 1, kRetries, true, nullptr, nullptr},
    {"RetryAdmin", [](SPI_DEVICE_HANDLE h, int *r) { return DeviceGetPwdRetryNum(h, 2, r); },
     nullptr, 0, 1, kRetries, true, nullptr, nullptr},
    {"RetryTypeThree", [](SPI_DEVICE_HANDLE h, int *r) { return DeviceGetPwdRetryNum(h, 3, r); },
     nullptr, 0, -1, kUntouched, false, nullptr, nullptr},
    {"RetryTokenFailure", [](SPI_DEVICE_HANDLE h, int *r) { return DeviceGetPwdRetryNum(h, 1, r); },
     "SKF_GetPINInfo", kFail, 0, kUntouched, true, "SKF_GetPINInfo fail, error : 0x0A000001",
     nullptr},
    // Without a count pointer the token is still asked; only the store is skipped.
    {"RetryNullCount",
     [](SPI_DEVICE_HANDLE h, int *) { return DeviceGetPwdRetryNum(h, 1, nullptr); }, nullptr, 0, 1,
     kUntouched, true, nullptr, nullptr},
    {"RetryNullCountTokenFailure",
     [](SPI_DEVICE_HANDLE h, int *) { return DeviceGetPwdRetryNum(h, 1, nullptr); },
     "SKF_GetPINInfo", kFail, 0, kUntouched, true, "SKF_GetPINInfo fail, error : 0x0A000001",
     nullptr},
};

// One token for the whole table: each case that changes the token's state
// restores it, so the cases stay independent of their order.
TEST_F(PinTest, ResultsRetriesAndLogs) {
  for (const PinCase &c : kPinCases) {
    SCOPED_TRACE(c.name);
    if (c.faultFunction != nullptr) {
      ASSERT_EQ(kTokenOk, SKFSoft_SetFault(c.faultFunction, c.faultCode, 1));
    }
    mark();
    int retries = kUntouched;
    EXPECT_EQ(c.expected, c.call(device(), &retries));
    if (c.expectedRetries != kAnyRetry) {
      EXPECT_EQ(c.expectedRetries, retries);
    }
    if (!c.touchesToken) {
      EXPECT_TRUE(tembra::test::tokenCallLog().empty());
    }
    std::vector<std::string> expectedErrors;
    if (c.error != nullptr) expectedErrors.push_back(c.error);
    EXPECT_EQ(expectedErrors, m_log.messages("[ERROR]"));
    if (c.restore != nullptr) c.restore(device());
  }
}

// A null device is refused before anything else, for every type.
TEST_F(PinTest, NullDeviceIsRefusedFirst) {
  int retries = kUntouched;
  mark();
  for (int type : {1, 2, 3, 7}) {
    EXPECT_EQ(-2, DeviceVerifyPwd(nullptr, type, nullptr, &retries)) << type;
    EXPECT_EQ(-2, DeviceChangePwd(nullptr, type, nullptr, nullptr, &retries)) << type;
    EXPECT_EQ(-2, DeviceUnlockPwd(nullptr, type, nullptr, nullptr, &retries)) << type;
    EXPECT_EQ(-2, DeviceGetPwdRetryNum(nullptr, type, nullptr)) << type;
  }
  EXPECT_EQ(kUntouched, retries);
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());
}

// Wrong PINs count down to the lock; the administrator unblocks with a new
// user PIN, which then logs in while the old one no longer does.
TEST_F(PinTest, LockThenUnblockRestoresLogin) {
  int retries = 0;
  for (int left = static_cast<int>(kRetries) - 1; left >= 0; --left) {
    EXPECT_EQ(-5, DeviceVerifyPwd(device(), 1, kWrong, &retries));
    EXPECT_EQ(left, retries);
    int counted = -1;
    EXPECT_EQ(1, DeviceGetPwdRetryNum(device(), 1, &counted));
    EXPECT_EQ(left, counted);
  }
  mark();
  EXPECT_EQ(0, DeviceVerifyPwd(device(), 1, kUserPin, &retries));
  EXPECT_TRUE(m_log.has("[ERROR]", "DeviceVerifyPwd", "SKF_VerifyPIN fail, error = 0x0A000025"));

  EXPECT_EQ(1, DeviceUnlockPwd(device(), 1, kAdminPin, kNewPin, &retries));
  EXPECT_EQ(1, DeviceVerifyPwd(device(), 1, kNewPin, &retries));
  EXPECT_EQ(-5, DeviceVerifyPwd(device(), 1, kUserPin, &retries));
  int counted = -1;
  EXPECT_EQ(1, DeviceGetPwdRetryNum(device(), 1, &counted));
  EXPECT_EQ(static_cast<int>(kRetries) - 1, counted);
}

// The argument lines, including the full-width comma of the retry count and
// a null count pointer printed as 0.
TEST_F(PinTest, ArgumentLines) {
  char handle[32];
  snprintf(handle, sizeof(handle), "%p", static_cast<void *>(device()));
  int retries = 7;
  char pointer[32];
  snprintf(pointer, sizeof(pointer), "%p", static_cast<void *>(&retries));
  char nullPointer[32];
  snprintf(nullPointer, sizeof(nullPointer), "%p", static_cast<void *>(nullptr));
  const std::string h = handle;

  DeviceGetPwdRetryNum(device(), 1, nullptr);
  retries = 7;
  DeviceGetPwdRetryNum(device(), 2, &retries);
  retries = 7;
  DeviceVerifyPwd(device(), 9, "abc", &retries);
  DeviceVerifyPwd(device(), 9, "abc", nullptr);
  retries = 7;
  DeviceChangePwd(device(), 9, "old", "new", &retries);
  DeviceUnlockPwd(device(), 9, "so", "new", &retries);
  DeviceUnlockPwd(device(), 9, "so", "new", nullptr);
  DeviceVerifyPwd(device(), 1, nullptr, &retries);
  DeviceChangePwd(device(), 1, nullptr, nullptr, &retries);
  DeviceUnlockPwd(device(), 1, nullptr, nullptr, nullptr);

  const std::vector<std::string> expected = {
      "hDevice = " + h + ", int type = 1\xEF\xBC\x8C int *pretrynum = 0",
      "hDevice = " + h + ", int type = 2\xEF\xBC\x8C int *pretrynum = 7",
      "hDevice = " + h + ", type = 9, pwd = abc, *pretrynum = 7",
      "hDevice = " + h + ", type = 9, pwd = abc, *pretrynum = 0",
      "hDevice = " + h +
          ", int type = 9, const char *oldpwd = old, const char *newpwd = new, int *pretrynum = 7",
      "hDevice = " + h + ", int type = 9, const char *sopwd = so, const char *newpwd = new, " +
          "int *pretrynum = " + pointer,
      "hDevice = " + h + ", int type = 9, const char *sopwd = so, const char *newpwd = new, " +
          "int *pretrynum = " + nullPointer,
      // Null PIN texts print as 0.
      "hDevice = " + h + ", type = 1, pwd = 0, *pretrynum = 7",
      "hDevice = " + h +
          ", int type = 1, const char *oldpwd = 0, const char *newpwd = 0, int *pretrynum = 7",
      "hDevice = " + h + ", int type = 1, const char *sopwd = 0, const char *newpwd = 0, " +
          "int *pretrynum = " + nullPointer,
  };
  EXPECT_EQ(expected, m_log.messages("[INFO]"));
}

// A token without an application: the PIN calls refuse it, each with its
// own message. (Device authentication on such tokens is the super password
// test's.)
class UnformattedTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    DeviceSpec token;
    token.name = "blank";
    token.label = "blank-label";
    token.serial = "blank-serial";
    return {token};
  }
};

TEST_F(UnformattedTest, PinCallsRefuseTheDevice) {
  struct Case {
    const char *function;
    int (*call)(SPI_DEVICE_HANDLE hDevice, int *retries);
    const char *message;
  };
  const Case cases[] = {
      {"DeviceVerifyPwd",
       [](SPI_DEVICE_HANDLE h, int *r) { return DeviceVerifyPwd(h, 1, kUserPin, r); },
       "hDevice->m_hApp == 0"},
      {"DeviceChangePwd",
       [](SPI_DEVICE_HANDLE h, int *r) { return DeviceChangePwd(h, 1, kUserPin, kNewPin, r); },
       "hDevice->m_isformat == 0"},
      {"DeviceUnlockPwd",
       [](SPI_DEVICE_HANDLE h, int *r) { return DeviceUnlockPwd(h, 1, kAdminPin, kNewPin, r); },
       "hDevice->m_isformat == 0"},
      {"DeviceGetPwdRetryNum",
       [](SPI_DEVICE_HANDLE h, int *r) { return DeviceGetPwdRetryNum(h, 2, r); },
       "hDevice->m_isformat == 0"},
      {"DeviceGetPwdRetryNum",
       [](SPI_DEVICE_HANDLE h, int *) { return DeviceGetPwdRetryNum(h, 1, nullptr); },
       "hDevice->m_isformat == 0"},
  };
  for (const Case &c : cases) {
    mark();
    int retries = kUntouched;
    EXPECT_EQ(0, c.call(device(), &retries)) << c.function;
    EXPECT_EQ(kUntouched, retries) << c.function;
    EXPECT_EQ(std::vector<std::string>{c.message}, m_log.messages("[ERROR]")) << c.function;
    EXPECT_TRUE(m_log.has("[ERROR]", c.function, c.message)) << c.function;
    EXPECT_TRUE(tembra::test::tokenCallLog().empty()) << c.function;
  }
}

}  // namespace
}  // namespace opstest
