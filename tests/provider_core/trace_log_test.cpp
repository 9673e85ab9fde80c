// The trace log, compiled in: the level gate, the line format, hex dumps and
// the entry and exit trace.
#include <stdlib.h>
#include <string.h>

#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "log/trace_log.h"
#include "platform/win_compat.h"
#include "tests/support/provider_test_support.h"

namespace {

using tembra::test::LogLine;
using tembra::test::LogTail;

const char kLevel[] = "TEMBRA_KEY_PROV_LOG_LEVEL";

void setLevel(const char *value) {
  if (value == nullptr) {
    tembra::test::unsetEnv(kLevel);
  } else {
    tembra::test::setEnv(kLevel, value);
  }
}

class TraceLogTest : public ::testing::Test {
 protected:
  void TearDown() override { setLevel(nullptr); }
};

// ---- The level gate ------------------------------------------------------

struct GateCase {
  const char *name;
  const char *level;  // null: variable unset
  std::set<std::string> tags;
  bool traced;  // entry and exit lines expected
};
void PrintTo(const GateCase &c, std::ostream *os) {
  *os << c.name;
}

class LogGateTest : public TraceLogTest, public ::testing::WithParamInterface<GateCase> {};

TEST_P(LogGateTest, WritesExactlyTheLevelsAtOrBelowTheThreshold) {
  const GateCase &c = GetParam();
#ifdef _WIN32
  // The Windows C runtime removes a variable set to the empty string.
  if (c.level != nullptr && c.level[0] == '\0') GTEST_SKIP();
#endif
  setLevel(c.level);
  LogTail tail;
  {
    call_stack_tracer tracer("DeviceGateProbe");
    LOG_ERROR_AS("gate", "error line");
    LOG_WARN_AS("gate", "warn line");
    LOG_INFO_AS("gate", "info line");
    LOG_DEBUG_AS("gate", "debug line");
    LOG_VERBOSE_AS("gate", "verbose line");
  }
  std::set<std::string> tags;
  std::vector<std::string> trace;
  for (const LogLine &line : tail.lines()) {
    if (line.function == "gate") {
      tags.insert(line.level);
    } else {
      trace.push_back(line.level + " " + line.function + " " + line.message);
    }
  }
  EXPECT_EQ(tags, c.tags);
  std::vector<std::string> expectedTrace;
  if (c.traced) {
    expectedTrace = {"[DEBUG] call_stack_tracer::call_stack_tracer >>>>> DeviceGateProbe",
                     "[DEBUG] call_stack_tracer::~call_stack_tracer <<<<< DeviceGateProbe"};
  }
  EXPECT_EQ(trace, expectedTrace);
}

const std::set<std::string> kUpToInfo = {"[ERROR]", "[WARN]", "[INFO]"};

INSTANTIATE_TEST_SUITE_P(
    Levels, LogGateTest,
    ::testing::Values(
        GateCase{"Unset", nullptr, kUpToInfo, false}, GateCase{"Zero", "0", {}, false},
        GateCase{"Word", "abc", {}, false}, GateCase{"Empty", "", {}, false},
        GateCase{"Negative", "-3", {}, false}, GateCase{"Errors", "1", {"[ERROR]"}, false},
        GateCase{"Warnings", "2", {"[ERROR]", "[WARN]"}, false},
        GateCase{"Information", "3", kUpToInfo, false},
        GateCase{"Debug", "4", {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"}, true},
        GateCase{"Verbose", "5", {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]", "[VERBOSE]"}, true},
        GateCase{"NumberThenText", "4x", {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"}, true}),
    [](const ::testing::TestParamInfo<GateCase> &p) { return std::string(p.param.name); });

TEST_F(TraceLogTest, GateIsReadAgainAtEveryStatement) {
  LogTail tail;
  setLevel("5");
  LOG_VERBOSE_AS("gate", "a");
  setLevel("0");
  LOG_ERROR_AS("gate", "b");
  setLevel(nullptr);
  LOG_INFO_AS("gate", "c");
  LOG_DEBUG_AS("gate", "d");
  setLevel("4");
  LOG_DEBUG_AS("gate", "e");
  setLevel("1");
  LOG_WARN_AS("gate", "f");

  std::vector<std::string> messages;
  for (const LogLine &line : tail.lines()) messages.push_back(line.message);
  EXPECT_EQ(messages, (std::vector<std::string>{"a", "c", "e"}));
}

// ---- Line format ---------------------------------------------------------

const std::regex kLinePattern(
    R"(^(\d+) \d{4}-(0[1-9]|1[0-2])-(0[1-9]|[12]\d|3[01]) ([01]\d|2[0-3]):[0-5]\d:[0-5]\d )"
    R"(\[INFO\] \[formatProbe\] value 42 and text, 100% \n$)");

// Each line carries the id of the thread that wrote it.
TEST_F(TraceLogTest, LineHasThreadTimeTagFunctionMessageAndTrailingBlank) {
  LogTail tail;
  long workerId = 0;
  std::thread worker([&workerId] {
    workerId = static_cast<long>(GetCurrentThreadId());
    LOG_INFO_AS("formatProbe", "value %d and %s, 100%%", 42, "text");
  });
  worker.join();
  LOG_INFO_AS("formatProbe", "value %d and %s, 100%%", 42, "text");
  std::vector<LogLine> lines = tail.lines();
  ASSERT_EQ(lines.size(), 2u);
  const long ids[] = {workerId, static_cast<long>(GetCurrentThreadId())};
  EXPECT_NE(ids[0], ids[1]);
  for (size_t i = 0; i < 2; ++i) {
    // The reader strips the newline; put it back to match the whole line.
    std::smatch match;
    std::string whole = lines[i].raw + "\n";
    ASSERT_TRUE(std::regex_match(whole, match, kLinePattern)) << lines[i].raw;
    EXPECT_EQ(std::stol(match[1].str()), ids[i]);
  }
}

TEST_F(TraceLogTest, LongMessageIsWrittenWhole) {
  LogTail tail;
  std::string longText(70000, 'q');
  longText += "end";
  LOG_ERROR_AS("longProbe", "%s", longText.c_str());
  std::vector<LogLine> lines = tail.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, longText);
}

// ---- Hex dumps -----------------------------------------------------------

// The dump is written at VERBOSE only, with every nibble in upper case, and
// as an empty text for no data, no length or a negative length.
TEST_F(TraceLogTest, HexDumpIsVerboseAndNamesTheBuffer) {
  const unsigned char blob[] = {0x00, 0xAB, 0x7F};
  const unsigned char nibbles[] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xFE};
  LogTail tail;
  setLevel("4");
  logHexDump("dumpProbe", "keyblob", blob, 3);
  setLevel("5");
  logHexDump("dumpProbe", "*certblob", blob, 3);
  logHexDump("dumpProbe", "all", nibbles, 9);
  logHexDump("dumpProbe", "prefix", nibbles, 2);
  logHexDump("dumpProbe", "null", nullptr, 4);
  logHexDump("dumpProbe", "none", blob, 0);
  logHexDump("dumpProbe", "negative", blob, -1);
  std::vector<std::string> messages;
  for (const LogLine &line : tail.lines()) {
    EXPECT_EQ(line.level, "[VERBOSE]");
    EXPECT_EQ(line.function, "dumpProbe");
    messages.push_back(line.message);
  }
  EXPECT_EQ(messages, (std::vector<std::string>{
                          "*certblob[length:3]: 00AB7F",
                          "all[length:9]: 0123456789ABCDEFFE",
                          "prefix[length:2]: 0123",
                          "null[length:4]: ",
                          "none[length:0]: ",
                          "negative[length:-1]: ",
                      }));
}

}  // namespace
