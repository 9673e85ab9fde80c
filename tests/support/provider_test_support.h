// Support for tests that drive the provider through its exported interface
// against software tokens.
//
// The test executables link the `tembra_test_support` library, which brings
// its own main(): before any test runs it points TEMBRA_KEY_PROV_LOG_PATH at a
// log file of this process (the provider fixes its log path at the first
// line, so it cannot change per test) and ORVEL_PKI_REGISTRY_FILE at an empty
// registry (POSIX).
#ifndef TEMBRA_TESTS_SUPPORT_PROVIDER_TEST_SUPPORT_H
#define TEMBRA_TESTS_SUPPORT_PROVIDER_TEST_SUPPORT_H

#include <stdint.h>

#include <string>
#include <vector>

#include "softskf/provision/provision.h"

namespace tembra {
namespace test {

void setEnv(const char *name, const char *value);
void unsetEnv(const char *name);

// A path in the temporary directory that no other call returns; nothing is
// created there.
std::string uniqueTempPath(const std::string &prefix);

// A fresh temporary directory, removed with its contents at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return m_path; }

 private:
  std::string m_path;
};

// Points the software token at a fresh, empty store for the life of the
// object (TEMBRA_SOFTSKF_DIR), and clears the token's fault switches and the
// host library's on entry and exit.
class TokenStore {
 public:
  TokenStore();
  ~TokenStore();
  const std::string &path() const { return m_dir.path(); }
  // provision::provisionDevice; fails the current test on error.
  void provision(const provision::DeviceSpec &layout);

 private:
  TempDir m_dir;
};

// One line of the provider's log: "<tid> <date> <time> <tag> [<fn>] <msg> \n".
struct LogLine {
  long threadId = 0;
  std::string time;      // "YYYY-MM-DD HH:MM:SS"
  std::string level;     // "[ERROR]", "[INFO]", ...
  std::string function;  // without the brackets
  std::string message;   // without the trailing blank
  std::string raw;       // the whole line without its newline
};

// The lines the provider appended to its log since construction (or since
// the last mark()).
class LogTail {
 public:
  LogTail();
  void mark();
  std::vector<LogLine> lines() const;
  // True if some new line has this level tag ("[ERROR]"), function name and
  // message, all exact.
  bool has(const std::string &level, const std::string &function, const std::string &message) const;
  // Messages of the new lines at the level, in order.
  std::vector<std::string> messages(const std::string &level) const;
  static std::string logPath();

 private:
  long long m_offset = 0;
};

// The registry settings the provider reads at DeviceInit. On POSIX a .reg
// file named by ORVEL_PKI_REGISTRY_FILE; on Windows the real registry key.
// Each value is given as its `reg export` text, e.g. "dword:00000011",
// "\"text\"", "hex(b):01,00,00,00,00,00,00,00".
struct RegistryValue {
  std::string name;
  std::string data;
};
void writeRegistry(const std::vector<RegistryValue> &values);  // replaces the key
void removeRegistryKey();

// The software token's call record since StartCallLog, one line per entry.
std::vector<std::string> tokenCallLog();

}  // namespace test
}  // namespace tembra

#endif  // TEMBRA_TESTS_SUPPORT_PROVIDER_TEST_SUPPORT_H
