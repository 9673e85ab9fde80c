// GetTempPathA on POSIX: $TMPDIR, else $XDG_RUNTIME_DIR, else /tmp with one
// trailing separator, and Windows' return conventions.
#ifndef _WIN32

#include <stdlib.h>

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "platform/win_compat.h"
#include "tests/support/provider_test_support.h"

namespace {

struct TempPathCase {
  const char *name;
  const char *tmpdir;      // null: unset
  const char *runtimeDir;  // $XDG_RUNTIME_DIR; null: unset
  DWORD bufferSize;
  DWORD result;
  std::string buffer;  // contents afterwards, up to the first NUL
};
void PrintTo(const TempPathCase &c, std::ostream *os) {
  *os << c.name;
}

// Sets `name` to `value`, or unsets it for null.
void put(const char *name, const char *value) {
  if (value == nullptr) {
    tembra::test::unsetEnv(name);
  } else {
    tembra::test::setEnv(name, value);
  }
}

const char *const kVariables[] = {"TMPDIR", "XDG_RUNTIME_DIR"};

class TempPathTest : public ::testing::TestWithParam<TempPathCase> {
 protected:
  void SetUp() override {
    for (int i = 0; i < 2; ++i) {
      const char *value = getenv(kVariables[i]);
      m_had[i] = value != nullptr;
      if (m_had[i]) m_saved[i] = value;
    }
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i) put(kVariables[i], m_had[i] ? m_saved[i].c_str() : nullptr);
  }
  bool m_had[2] = {};
  std::string m_saved[2];
};

TEST_P(TempPathTest, AnswersTheDirectoryWithSeparator) {
  const TempPathCase &c = GetParam();
  put("TMPDIR", c.tmpdir);
  put("XDG_RUNTIME_DIR", c.runtimeDir);
  char buffer[64] = "untouched";
  EXPECT_EQ(GetTempPathA(c.bufferSize, buffer), c.result);
  EXPECT_EQ(std::string(buffer), c.buffer);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TempPathTest,
    ::testing::Values(TempPathCase{"Unset", nullptr, nullptr, 64, 5, "/tmp/"},
                      TempPathCase{"Empty", "", "", 64, 5, "/tmp/"},
                      TempPathCase{"RuntimeDir", nullptr, "/run/user/7", 64, 12, "/run/user/7/"},
                      TempPathCase{"TmpdirFirst", "/var/tmp", "/run/user/7", 64, 9, "/var/tmp/"},
                      TempPathCase{"NoSeparator", "/var/tmp", nullptr, 64, 9, "/var/tmp/"},
                      TempPathCase{"WithSeparator", "/var/tmp/", nullptr, 64, 9, "/var/tmp/"},
                      TempPathCase{"ExactFit", "/var/tmp", nullptr, 10, 9, "/var/tmp/"},
                      TempPathCase{"OneShort", "/var/tmp", nullptr, 9, 10, "untouched"},
                      TempPathCase{"NoBuffer", "/var/tmp", nullptr, 0, 10, "untouched"}),
    [](const ::testing::TestParamInfo<TempPathCase> &p) { return std::string(p.param.name); });

}  // namespace

#endif  // !_WIN32
