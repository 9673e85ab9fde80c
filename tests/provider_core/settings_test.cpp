// DeviceInit and DeviceEnd through the built provider: the registry
// settings, their log lines, and a missing pseudo device.
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "hostcrypto/include/orvel_test.h"
#include "include/tembra_key_prov.h"
#include "tests/support/provider_test_support.h"

namespace {

using tembra::test::LogLine;
using tembra::test::LogTail;
using tembra::test::RegistryValue;

// (function-name field, message) of a log line.
using Entry = std::pair<std::string, std::string>;

struct SettingsCase {
  const char *name;
  int hasSM3;
  int hasSM4;
  int maxOperationLen;
  int gdkm;
  bool keyExists;
  std::vector<RegistryValue> values;
  std::vector<Entry> errors;
};
void PrintTo(const SettingsCase &c, std::ostream *os) {
  *os << c.name;
}

class SettingsTest : public ::testing::TestWithParam<SettingsCase> {
 protected:
  void TearDown() override {
    tembra::test::removeRegistryKey();
    tembra::test::unsetEnv("TEMBRA_KEY_PROV_LOG_LEVEL");
  }
  std::vector<Entry> entries(const std::vector<LogLine> &lines, const std::string &level) {
    std::vector<Entry> found;
    for (const LogLine &line : lines) {
      if (line.level == level) found.emplace_back(line.function, line.message);
    }
    return found;
  }
  tembra::test::TokenStore m_store;
};

TEST_P(SettingsTest, ReadsAndLogsEverySetting) {
  const SettingsCase &c = GetParam();
  if (c.keyExists) {
    tembra::test::writeRegistry(c.values);
  } else {
    tembra::test::removeRegistryKey();
  }
  LogTail tail;
  ASSERT_EQ(DeviceInit(), 1);
  std::vector<LogLine> lines = tail.lines();
  EXPECT_EQ(DeviceEnd(), 1);

  EXPECT_EQ(entries(lines, "[ERROR]"), c.errors);
  EXPECT_EQ(entries(lines, "[INFO]"),
            (std::vector<Entry>{
                {"DeviceInit", "hasSM3 : " + std::to_string(c.hasSM3)},
                {"DeviceInit", "hasSM4 : " + std::to_string(c.hasSM4)},
                {"DeviceInit", "getMaxOperationLen : " + std::to_string(c.maxOperationLen)},
                {"DeviceInit", "isSupportGDKMSM2Import : " + std::to_string(c.gdkm)},
            }));
  EXPECT_TRUE(entries(lines, "[DEBUG]").empty());
}

// The four settings, all valid, with MaxOperationLen given.
std::vector<RegistryValue> withMaxLen(const std::string &maxLen) {
  return {{"HasSM3", "dword:00000000"},
          {"HasSM4", "dword:00000000"},
          {"MaxOperationLen", maxLen},
          {"SupportGDKMSM2Import", "dword:00000000"}};
}

std::vector<RegistryValue> withHasSM3(const std::string &hasSM3) {
  return {{"HasSM3", hasSM3},
          {"HasSM4", "dword:00000001"},
          {"MaxOperationLen", "dword:00000010"},
          {"SupportGDKMSM2Import", "dword:00000001"}};
}

const std::vector<Entry> kNoErrors;
const std::vector<RegistryValue> kFlagsOnly = {{"HasSM3", "dword:00000005"},
                                               {"HasSM4", "dword:00000001"},
                                               {"SupportGDKMSM2Import", "dword:00000002"}};
const std::vector<RegistryValue> kWrongTypes = {{"HasSM3", "hex:01,00,00,00"},
                                                {"HasSM4", "\"1\""},
                                                {"MaxOperationLen", "hex:20,00,00,00"},
                                                {"SupportGDKMSM2Import", "\"1\""}};
const std::vector<RegistryValue> kUnrelated = {{"Unrelated", "dword:00000001"}};

std::vector<Entry> sm3Error(const std::string &message) {
  return {{"hasSM3", message}};
}
std::vector<Entry> threeErrors(const std::string &sm3, const std::string &sm4,
                               const std::string &gdkm) {
  return {{"hasSM3", sm3}, {"hasSM4", sm4}, {"isSupportGDKMSM2Import", gdkm}};
}

INSTANTIATE_TEST_SUITE_P(
    Registry, SettingsTest,
    ::testing::Values(
        SettingsCase{"MaxLen17", 0, 0, 32, 0, true, withMaxLen("dword:00000011"), kNoErrors},
        SettingsCase{"MaxLen16", 0, 0, 16, 0, true, withMaxLen("dword:00000010"), kNoErrors},
        SettingsCase{"MaxLen1", 0, 0, 16, 0, true, withMaxLen("dword:00000001"), kNoErrors},
        SettingsCase{"MaxLen1000", 0, 0, 1008, 0, true, withMaxLen("dword:000003e8"), kNoErrors},
        SettingsCase{"MaxLen0", 0, 0, 1024, 0, true, withMaxLen("dword:00000000"), kNoErrors},
        SettingsCase{"MaxLenNegative", 0, 0, 1024, 0, true, withMaxLen("dword:ffffffff"),
                     kNoErrors},
        SettingsCase{"MaxLenLargestPositive", 0, 0, 0x7FFFFFF0, 0, true,
                     withMaxLen("dword:7fffffff"), kNoErrors},
        SettingsCase{"MaxLenString", 0, 0, 1024, 0, true, withMaxLen("\"32\""), kNoErrors},
        SettingsCase{"MaxLenLongString", 0, 0, 1024, 0, true, withMaxLen("\"2048\""), kNoErrors},
        SettingsCase{"MaxLenQword", 0, 0, 1024, 0, true,
                     withMaxLen("hex(b):20,00,00,00,00,00,00,00"), kNoErrors},
        SettingsCase{"FlagsStoredAsRead", 5, 1, 1024, 2, true, kFlagsOnly, kNoErrors},
        SettingsCase{"HasSM3Qword", 0, 1, 16, 1, true, withHasSM3("hex(b):01,00,00,00,00,00,00,00"),
                     sm3Error("unsupport HasSM3, error = 0")},
        SettingsCase{"HasSM3String", 0, 1, 16, 1, true, withHasSM3("\"1\""),
                     sm3Error("unsupport HasSM3, error = 0")},
        // Longer than the 8-byte buffer: the query's own result is logged.
        SettingsCase{"HasSM3LongString", 0, 1, 16, 1, true, withHasSM3("\"12345678\""),
                     sm3Error("unsupport HasSM3, error = 234")},
        SettingsCase{"ValuesMissing", 0, 0, 1024, 0, true, kUnrelated,
                     threeErrors("unsupport HasSM3, error = 2", "unsupport HasSM4, error = 2",
                                 "RegQueryValueEx fail, error = 2")},
        SettingsCase{"WrongTypes", 0, 0, 1024, 0, true, kWrongTypes,
                     threeErrors("unsupport HasSM3, error = 0", "unsupport HasSM4, error = 0",
                                 "RegQueryValueEx fail, error = 0")},
        SettingsCase{"NoKey", 0, 0, 1024, 0, false, kUnrelated,
                     threeErrors("RegOpenKeyEx fail, error = 2", "RegOpenKeyEx fail, error = 2",
                                 "RegOpenKeyEx fail, error = 2")}),
    [](const ::testing::TestParamInfo<SettingsCase> &p) { return std::string(p.param.name); });

class LifecycleTest : public ::testing::Test {
 protected:
  void TearDown() override { tembra::test::unsetEnv("TEMBRA_KEY_PROV_LOG_LEVEL"); }
  tembra::test::TokenStore m_store;
};

TEST_F(LifecycleTest, MissingPseudoDeviceFailsInitButEndSucceeds) {
  ASSERT_EQ(OrvelTestSetFault("OrvelPKICryptoGetPseudoDevice", 0, 1), 1);
  LogTail tail;
  EXPECT_EQ(DeviceInit(), 0);
  EXPECT_TRUE(tail.has("[ERROR]", "DeviceInit", "OrvelPKICryptoGetPseudoDevice fail"));
  // The lock was never made; ending must not touch it.
  EXPECT_EQ(DeviceEnd(), 1);

  // The fault is spent: the next start succeeds and says nothing of it.
  tail.mark();
  EXPECT_EQ(DeviceInit(), 1);
  EXPECT_FALSE(tail.has("[ERROR]", "DeviceInit", "OrvelPKICryptoGetPseudoDevice fail"));
  EXPECT_EQ(DeviceEnd(), 1);
}

TEST_F(LifecycleTest, EntryAndExitAreTracedAtDebug) {
  tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_LEVEL", "4");
  LogTail tail;
  ASSERT_EQ(DeviceInit(), 1);
  EXPECT_EQ(DeviceEnd(), 1);
  std::vector<LogLine> lines = tail.lines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines.front().message, ">>>>> DeviceInit");
  EXPECT_EQ(lines[lines.size() - 3].message, "<<<<< DeviceInit");
  EXPECT_EQ(lines[lines.size() - 2].message, ">>>>> DeviceEnd");
  EXPECT_EQ(lines.back().message, "<<<<< DeviceEnd");
}

}  // namespace
