// Process environment and temporary directories for tests.
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#ifdef _WIN32
#include <process.h>
#else
#include <unistd.h>
#endif

#include "tests/support/provider_test_support.h"

namespace tembra {
namespace test {

void setEnv(const char *name, const char *value) {
#ifdef _WIN32
  _putenv_s(name, value);
#else
  setenv(name, value, 1);
#endif
}

void unsetEnv(const char *name) {
#ifdef _WIN32
  // An empty value removes the variable from the CRT environment.
  _putenv_s(name, "");
#else
  unsetenv(name);
#endif
}

namespace {

std::string uniqueSuffix() {
  static std::atomic<unsigned> counter{0};
  static std::mt19937_64 generator(
      static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
#ifdef _WIN32
  long pid = _getpid();
#else
  long pid = getpid();
#endif
  return std::to_string(pid) + "_" + std::to_string(counter++) + "_" +
         std::to_string(generator() % 1000000007u);
}

}  // namespace

std::string uniqueTempPath(const std::string &prefix) {
  std::error_code error;
  std::filesystem::path base = std::filesystem::temp_directory_path(error);
  if (error) base = ".";
  return (base / (prefix + uniqueSuffix())).string();
}

TempDir::TempDir() {
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string candidate = uniqueTempPath("tembra_test_");
    std::error_code error;
    if (std::filesystem::create_directory(candidate, error)) {
      m_path = candidate;
      return;
    }
  }
  abort();  // the temporary directory is unusable; no test can run
}

TempDir::~TempDir() {
  std::error_code error;
  std::filesystem::remove_all(m_path, error);
}

}  // namespace test
}  // namespace tembra
