// Device authentication through DeviceVerifyPwd type 3: the text-to-key
// conversion (checked against tokens provisioned with the expected key), the
// challenge-response as the token sees it, and the failure of each step.
#include <gtest/gtest.h>

#include <string.h>

#include <regex>
#include <string>
#include <vector>

#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"

namespace opstest {
namespace {

struct SuperPwdCase {
  const char *name;
  std::string text;
  std::vector<uint8_t> tokenKey;  // the device-authentication key provisioned
  int expected;
  const char *errorFunction;  // the one [ERROR] line's function, or null
  const char *errorPattern;   // its message, a regular expression
};

std::vector<uint8_t> repeated(std::initializer_list<uint8_t> pattern, size_t count) {
  std::vector<uint8_t> out;
  while (out.size() < count) out.insert(out.end(), pattern.begin(), pattern.end());
  out.resize(count);
  return out;
}

std::string repeatedText(const std::string &pair, size_t pairs) {
  std::string out;
  for (size_t i = 0; i < pairs; ++i) out += pair;
  return out;
}

const std::vector<uint8_t> kMixedKey = {0x01, 0x23, 0x45, 0x67, 0x89, 0x01, 0x23, 0x45,
                                        0x01, 0x23, 0x45, 0x67, 0x89, 0x01, 0x23, 0x45};

const SuperPwdCase kSuperPwdCases[] = {
    // 'A'-'F' and 'a'-'f' count as 0-5.
    {"HexLettersCountFromA", "0123456789ABCDEF0123456789abcdef", kMixedKey, 1, nullptr, nullptr},
    // 'Z' is 25 = 0x19, ORed in unmasked: 0x90 | 0x19.
    {"LowCharacterUnmasked", repeatedText("9Z", 16), repeated({0x99}, 16), 1, nullptr, nullptr},
    // 'P' and 'p' are 15, where hexadecimal would have no value at all.
    {"HighCharacterKeptToEightBits", repeatedText("Pp", 16), repeated({0xFF}, 16), 1, nullptr,
     nullptr},
    // A low value above 15 reaches into the high nibble: "0z" is 0x19.
    {"LowCharacterAboveFifteen", repeatedText("0z", 16), repeated({0x19}, 16), 1, nullptr, nullptr},
    {"WrongKey", "0123456789ABCDEF0123456789abcdef", repeated({0x01, 0x23}, 16), -5, "ExternalAuth",
     "SKF_DevAuth fail, error = 0x[0-9A-F]{8}"},
    {"Dash", "0123456789ABCDEF0123456789abcde-", kMixedKey, 0, "VerifySuperPwd", "keylen != 16"},
    {"Blank", "01234567 9ABCDEF0123456789abcdef", kMixedKey, 0, "VerifySuperPwd", "keylen != 16"},
    {"ThirtyOne", "0123456789ABCDEF0123456789abcde", kMixedKey, 0, "VerifySuperPwd",
     "strlen\\(pwd\\) != 32"},
    {"ThirtyThree", "0123456789ABCDEF0123456789abcdef0", kMixedKey, 0, "VerifySuperPwd",
     "strlen\\(pwd\\) != 32"},
    {"Empty", "", kMixedKey, 0, "VerifySuperPwd", "strlen\\(pwd\\) != 32"},
};

// The label of the token whose device-authentication key is `key`: the
// hex of its first 15 bytes, which tell the table's keys apart and fit a
// label field.
std::string keyLabel(const std::vector<uint8_t> &key) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string label;
  for (size_t i = 0; i < 15; ++i) {
    const uint8_t b = key[i];
    label += kHex[b >> 4];
    label += kHex[b & 15];
  }
  return label;
}

// One token without application per key the table names: device
// authentication needs no application, and such tokens are quick to make.
class SuperPwdTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    std::vector<DeviceSpec> tokenList;
    for (const SuperPwdCase &c : kSuperPwdCases) {
      const std::string label = keyLabel(c.tokenKey);
      bool known = false;
      for (const DeviceSpec &token : tokenList) known = known || token.label == label;
      if (known) continue;
      DeviceSpec token;
      token.name = "token" + std::to_string(tokenList.size());
      token.label = label;
      token.serial = token.name;
      memcpy(token.authKey, c.tokenKey.data(), sizeof(token.authKey));
      tokenList.push_back(token);
    }
    return tokenList;
  }
};

TEST_F(SuperPwdTest, ResultsAndLogs) {
  for (const SuperPwdCase &c : kSuperPwdCases) {
    SCOPED_TRACE(c.name);
    mark();
    int retries = 42;
    EXPECT_EQ(c.expected,
              DeviceVerifyPwd(device(keyLabel(c.tokenKey)), 3, c.text.c_str(), &retries));
    // Set first, whatever follows.
    EXPECT_EQ(-1, retries);
    std::vector<tembra::test::LogLine> errors;
    for (const tembra::test::LogLine &line : m_log.lines()) {
      if (line.level == "[ERROR]") errors.push_back(line);
    }
    if (c.errorPattern == nullptr) {
      EXPECT_TRUE(errors.empty());
    } else {
      ASSERT_EQ(1u, errors.size());
      EXPECT_EQ(c.errorFunction, errors[0].function);
      EXPECT_TRUE(std::regex_match(errors[0].message, std::regex(c.errorPattern)))
          << errors[0].message;
    }
  }
}

class DeviceAuthTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override {
    DeviceSpec token = makeToken("auth", {});
    memcpy(token.authKey, kMixedKey.data(), sizeof(token.authKey));
    return {token};
  }
  const char *text() const { return "0123456789ABCDEF0123456789abcdef"; }
};

// The token sees: 8 random bytes asked for, the key set under its own
// device-authentication algorithm, an ECB start without IV, one 16-byte
// block enciphered, the key closed, 16 bytes of authentication data.
TEST_F(DeviceAuthTest, ChallengeResponseAsTheTokenSeesIt) {
  mark();
  int retries = 0;
  ASSERT_EQ(1, DeviceVerifyPwd(device(), 3, text(), &retries));
  std::vector<std::string> names;
  for (const std::string &line : tembra::test::tokenCallLog()) {
    names.push_back(line.substr(0, line.find(' ')));
  }
  const std::vector<std::string> expected = {"SKF_GenRandom", "SKF_SetSymmKey",  "SKF_EncryptInit",
                                             "SKF_Encrypt",   "SKF_CloseHandle", "SKF_DevAuth"};
  EXPECT_EQ(expected, names);
  const char *const fields[][3] = {
      {"SKF_GenRandom", "ulRandomLen", "8"}, {"SKF_SetSymmKey", "ulAlgID", "0x00000401"},
      {"SKF_EncryptInit", "IVLen", "0"},     {"SKF_EncryptInit", "PaddingType", "0"},
      {"SKF_Encrypt", "ulDataLen", "16"},    {"SKF_DevAuth", "ulLen", "16"},
  };
  for (const auto &f : fields) {
    ASSERT_EQ(1u, tokenCalls(f[0]).size()) << f[0];
    EXPECT_EQ(f[2], callField(tokenCalls(f[0])[0], f[1])) << f[0] << " " << f[1];
  }
}

// Each step's failure: its message, the result (only the last step gives
// -5), and whether the key handle was closed (not when the start failed).
TEST_F(DeviceAuthTest, EachStepFailure) {
  struct Case {
    const char *function;
    int expected;
    int closes;  // SKF_CloseHandle calls expected
  };
  const Case cases[] = {
      {"SKF_GenRandom", 0, 0}, {"SKF_SetSymmKey", 0, 0}, {"SKF_EncryptInit", 0, 0},
      {"SKF_Encrypt", 0, 1},   {"SKF_DevAuth", -5, 1},
  };
  for (const Case &c : cases) {
    ASSERT_EQ(kTokenOk, SKFSoft_SetFault(c.function, SAR_FAIL, 1));
    mark();
    int retries = 0;
    EXPECT_EQ(c.expected, DeviceVerifyPwd(device(), 3, text(), &retries)) << c.function;
    const std::string message = std::string(c.function) + " fail, error = 0x0A000001";
    EXPECT_EQ(std::vector<std::string>{message}, m_log.messages("[ERROR]")) << c.function;
    EXPECT_TRUE(m_log.has("[ERROR]", "ExternalAuth", message)) << c.function;
    EXPECT_EQ(static_cast<size_t>(c.closes), tokenCalls("SKF_CloseHandle").size()) << c.function;
  }
  // Nothing was left half done on the token: authentication works again.
  int retries = 0;
  EXPECT_EQ(1, DeviceVerifyPwd(device(), 3, text(), &retries));
}

}  // namespace
}  // namespace opstest
