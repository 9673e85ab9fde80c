// GetTempPathA on POSIX: $TMPDIR or /tmp with one trailing separator, and
// Windows' return conventions.
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
  const char *tmpdir;  // null: unset
  DWORD bufferSize;
  DWORD result;
  std::string buffer;  // contents afterwards, up to the first NUL
};
void PrintTo(const TempPathCase &c, std::ostream *os) {
  *os << c.name;
}

class TempPathTest : public ::testing::TestWithParam<TempPathCase> {
 protected:
  void SetUp() override {
    const char *saved = getenv("TMPDIR");
    m_hadTmpdir = saved != nullptr;
    if (m_hadTmpdir) m_savedTmpdir = saved;
  }
  void TearDown() override {
    if (m_hadTmpdir) {
      tembra::test::setEnv("TMPDIR", m_savedTmpdir.c_str());
    } else {
      tembra::test::unsetEnv("TMPDIR");
    }
  }
  bool m_hadTmpdir = false;
  std::string m_savedTmpdir;
};

TEST_P(TempPathTest, AnswersTheDirectoryWithSeparator) {
  const TempPathCase &c = GetParam();
  if (c.tmpdir == nullptr) {
    tembra::test::unsetEnv("TMPDIR");
  } else {
    tembra::test::setEnv("TMPDIR", c.tmpdir);
  }
  char buffer[64] = "untouched";
  EXPECT_EQ(GetTempPathA(c.bufferSize, buffer), c.result);
  EXPECT_EQ(std::string(buffer), c.buffer);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TempPathTest,
    ::testing::Values(TempPathCase{"Unset", nullptr, 64, 5, "/tmp/"},
                      TempPathCase{"Empty", "", 64, 5, "/tmp/"},
                      TempPathCase{"NoSeparator", "/var/tmp", 64, 9, "/var/tmp/"},
                      TempPathCase{"WithSeparator", "/var/tmp/", 64, 9, "/var/tmp/"},
                      TempPathCase{"ExactFit", "/var/tmp", 10, 9, "/var/tmp/"},
                      TempPathCase{"OneShort", "/var/tmp", 9, 10, "untouched"},
                      TempPathCase{"NoBuffer", "/var/tmp", 0, 10, "untouched"}),
    [](const ::testing::TestParamInfo<TempPathCase> &p) { return std::string(p.param.name); });

}  // namespace

#endif  // !_WIN32
