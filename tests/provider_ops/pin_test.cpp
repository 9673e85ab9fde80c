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

enum class Op { Verify, Change, Unblock, Retries, RetriesNoCount };

struct PinCase {
  const char *name;
  Op op;
  int type;
  const char *pin;            // the PIN, the old PIN or the administrator PIN
  const char *newPin;         // Change and Unblock only
  const char *faultFunction;  // token call made to fail, or null
  ULONG faultCode;
  int expected;
  int expectedRetries;  // kUntouched: left alone; kAnyRetry: not checked
  bool touchesToken;    // false: the call record stays empty
  const char *error;    // the one [ERROR] line expected, or null for none
  // Puts the token back as provisioned for the next case, or null.
  void (*restore)(SPI_DEVICE_HANDLE hDevice);
};

int callPin(const PinCase &c, SPI_DEVICE_HANDLE h, int *retries) {
  switch (c.op) {
    case Op::Verify:
      return DeviceVerifyPwd(h, c.type, c.pin, retries);
    case Op::Change:
      return DeviceChangePwd(h, c.type, c.pin, c.newPin, retries);
    case Op::Unblock:
      return DeviceUnlockPwd(h, c.type, c.pin, c.newPin, retries);
    case Op::Retries:
      return DeviceGetPwdRetryNum(h, c.type, retries);
    case Op::RetriesNoCount:
      return DeviceGetPwdRetryNum(h, c.type, nullptr);
  }
  return 0;
}

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

const char *const kNone = nullptr;
const char kRetryFail[] = "SKF_GetPINInfo fail, error : 0x0A000001";

const PinCase kPinCases[] = {
    // Log in.
    {"VerifyUser", Op::Verify, 1, kUserPin, kNone, kNone, 0, 1, kAnyRetry, true, kNone, nullptr},
    {"VerifyAdmin", Op::Verify, 2, kAdminPin, kNone, kNone, 0, 1, kAnyRetry, true, kNone, nullptr},
    {"VerifyWrongUser", Op::Verify, 1, kWrong, kNone, kNone, 0, -5, kRetries - 1, true, kNone,
     resetUser},
    {"VerifyWrongAdmin", Op::Verify, 2, kWrong, kNone, kNone, 0, -5, kRetries - 1, true, kNone,
     resetAdmin},
    {"VerifyTooShort", Op::Verify, 1, "12345", kNone, kNone, 0, -19, kAnyRetry, true, kNone,
     nullptr},
    {"VerifyTooLong", Op::Verify, 1, "12345678901234567", kNone, kNone, 0, -19, kAnyRetry, true,
     kNone, nullptr},
    {"VerifyTypeZero", Op::Verify, 0, kUserPin, kNone, kNone, 0, -1, kUntouched, false, kNone,
     nullptr},
    {"VerifyTypeFour", Op::Verify, 4, kUserPin, kNone, kNone, 0, -1, kUntouched, false, kNone,
     nullptr},
    {"VerifyNullPin", Op::Verify, 1, kNone, kNone, kNone, 0, -1, kUntouched, false, kNone, nullptr},
    {"VerifyNullPinBeforeType", Op::Verify, 3, kNone, kNone, kNone, 0, -1, kUntouched, false, kNone,
     nullptr},
    {"VerifyTokenFailure", Op::Verify, 1, kUserPin, kNone, "SKF_VerifyPIN", kFail, 0, kAnyRetry,
     true, "SKF_VerifyPIN fail, error = 0x0A000001", nullptr},
    // Only "incorrect" is a wrong PIN for verify; "locked" is a failure.
    {"VerifyLockedIsFailure", Op::Verify, 1, kUserPin, kNone, "SKF_VerifyPIN", SAR_PIN_LOCKED, 0,
     kAnyRetry, true, "SKF_VerifyPIN fail, error = 0x0A000025", nullptr},
    // Change.
    {"ChangeUser", Op::Change, 1, kUserPin, kNewPin, kNone, 0, 1, kAnyRetry, true, kNone,
     revertUser},
    {"ChangeAdmin", Op::Change, 2, kAdminPin, kNewPin, kNone, 0, 1, kAnyRetry, true, kNone,
     revertAdmin},
    {"ChangeWrongOld", Op::Change, 1, kWrong, kNewPin, kNone, 0, -5, kRetries - 1, true, kNone,
     resetUser},
    {"ChangeNewTooShort", Op::Change, 1, kUserPin, "123", kNone, 0, -19, kAnyRetry, true, kNone,
     nullptr},
    {"ChangeTypeThree", Op::Change, 3, kUserPin, kNewPin, kNone, 0, -1, kUntouched, false, kNone,
     nullptr},
    {"ChangeNullNew", Op::Change, 1, kUserPin, kNone, kNone, 0, -1, kUntouched, false, kNone,
     nullptr},
    {"ChangeTokenFailure", Op::Change, 1, kUserPin, kNewPin, "SKF_ChangePIN", kFail, 0, kAnyRetry,
     true, "SKF_ChangePIN fail, error = 0x0A000001", nullptr},
    // Unblock: "locked" is the wrong-PIN answer here, "incorrect" a failure.
    {"UnblockUser", Op::Unblock, 1, kAdminPin, kNewPin, kNone, 0, 1, kAnyRetry, true, kNone,
     revertUser},
    {"UnblockAdminTypeRefused", Op::Unblock, 2, kAdminPin, kNewPin, kNone, 0, -1, kUntouched, false,
     kNone, nullptr},
    {"UnblockNullAdminPin", Op::Unblock, 1, kNone, kNewPin, kNone, 0, -1, kUntouched, false, kNone,
     nullptr},
    {"UnblockLockedIsWrongPin", Op::Unblock, 1, kAdminPin, kNewPin, "SKF_UnblockPIN",
     SAR_PIN_LOCKED, -5, kAnyRetry, true, kNone, nullptr},
    {"UnblockIncorrectIsFailure", Op::Unblock, 1, kAdminPin, kNewPin, "SKF_UnblockPIN",
     SAR_PIN_INCORRECT, 0, kAnyRetry, true, "rv != SAR_OK, rv = 0x0A000024", nullptr},
    {"UnblockLengthRange", Op::Unblock, 1, kAdminPin, kNewPin, "SKF_UnblockPIN", SAR_PIN_LEN_RANGE,
     -19, kAnyRetry, true, kNone, nullptr},
    // Remaining tries.
    {"RetryUser", Op::Retries, 1, kNone, kNone, kNone, 0, 1, kRetries, true, kNone, nullptr},
    {"RetryAdmin", Op::Retries, 2, kNone, kNone, kNone, 0, 1, kRetries, true, kNone, nullptr},
    {"RetryTypeThree", Op::Retries, 3, kNone, kNone, kNone, 0, -1, kUntouched, false, kNone,
     nullptr},
    {"RetryTokenFailure", Op::Retries, 1, kNone, kNone, "SKF_GetPINInfo", kFail, 0, kUntouched,
     true, kRetryFail, nullptr},
    // Without a count pointer the token is still asked; only the store is skipped.
    {"RetryNullCount", Op::RetriesNoCount, 1, kNone, kNone, kNone, 0, 1, kUntouched, true, kNone,
     nullptr},
    {"RetryNullCountTokenFailure", Op::RetriesNoCount, 1, kNone, kNone, "SKF_GetPINInfo", kFail, 0,
     kUntouched, true, kRetryFail, nullptr},
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
    EXPECT_EQ(c.expected, callPin(c, device(), &retries));
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
  const char kNoApp[] = "hDevice->m_hApp == 0";
  const char kNotFormat[] = "hDevice->m_isformat == 0";
  // The name is the function whose [ERROR] line the case expects.
  const PinCase cases[] = {
      {"DeviceVerifyPwd", Op::Verify, 1, kUserPin, kNone, kNone, 0, 0, kUntouched, false, kNoApp,
       nullptr},
      {"DeviceChangePwd", Op::Change, 1, kUserPin, kNewPin, kNone, 0, 0, kUntouched, false,
       kNotFormat, nullptr},
      {"DeviceUnlockPwd", Op::Unblock, 1, kAdminPin, kNewPin, kNone, 0, 0, kUntouched, false,
       kNotFormat, nullptr},
      {"DeviceGetPwdRetryNum", Op::Retries, 2, kNone, kNone, kNone, 0, 0, kUntouched, false,
       kNotFormat, nullptr},
      {"DeviceGetPwdRetryNum", Op::RetriesNoCount, 1, kNone, kNone, kNone, 0, 0, kUntouched, false,
       kNotFormat, nullptr},
  };
  for (const PinCase &c : cases) {
    mark();
    int retries = kUntouched;
    EXPECT_EQ(c.expected, callPin(c, device(), &retries)) << c.name;
    EXPECT_EQ(c.expectedRetries, retries) << c.name;
    EXPECT_EQ(std::vector<std::string>{c.error}, m_log.messages("[ERROR]")) << c.name;
    EXPECT_TRUE(m_log.has("[ERROR]", c.name, c.error)) << c.name;
    EXPECT_TRUE(tembra::test::tokenCallLog().empty()) << c.name;
  }
}

}  // namespace
}  // namespace opstest
