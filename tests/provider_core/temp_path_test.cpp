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

class TempPathTest : public ::testing::TestWithParam<TempPathCase> {
 protected:
  void SetUp() override {
    const char *saved = getenv("TMPDIR");
    m_hadTmpdir = saved != nullptr;
    if (m_hadTmpdir) m_savedTmpdir = saved;
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    m_hadRuntimeDir = runtime != nullptr;
    if (m_hadRuntimeDir) m_savedRuntimeDir = runtime;
  }
  void TearDown() override {
    if (m_hadTmpdir) {
      tembra::test::setEnv("TMPDIR", m_savedTmpdir.c_str());
    } else {
      tembra::test::unsetEnv("TMPDIR");
    }
    if (m_hadRuntimeDir) {
      tembra::test::setEnv("XDG_RUNTIME_DIR", m_savedRuntimeDir.c_str());
    } else {
      tembra::test::unsetEnv("XDG_RUNTIME_DIR");
    }
  }
  bool m_hadTmpdir = false;
  std::string m_savedTmpdir;
  bool m_hadRuntimeDir = false;
  std::string m_savedRuntimeDir;
};

TEST_P(TempPathTest, AnswersTheDirectoryWithSeparator) {
  const TempPathCase &c = GetParam();
  if (c.tmpdir == nullptr) {
    tembra::test::unsetEnv("TMPDIR");
  } else {
    tembra::test::setEnv("TMPDIR", c.tmpdir);
  }
  if (c.runtimeDir == nullptr) {
    tembra::test::unsetEnv("XDG_RUNTIME_DIR");
  } else {
    tembra::test::setEnv("XDG_RUNTIME_DIR", c.runtimeDir);
  }
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
