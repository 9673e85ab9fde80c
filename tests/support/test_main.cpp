// main() of the provider test executables: a log file and (POSIX) an empty
// registry of this process, set up before any test runs and removed after.
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/provider_test_support.h"

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);

  // The provider fixes its log path at its first line, so the path is one
  // per process, chosen before the provider can write.
  std::string logPath;
  if (getenv("TEMBRA_KEY_PROV_LOG_PATH") == nullptr) {
    logPath = tembra::test::uniqueTempPath("tembra_key_prov_test_") + ".log";
    tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_PATH", logPath.c_str());
  }

#ifndef _WIN32
  std::string registryPath = tembra::test::uniqueTempPath("tembra_key_prov_test_") + ".reg";
  tembra::test::setEnv("ORVEL_PKI_REGISTRY_FILE", registryPath.c_str());
#endif
  tembra::test::removeRegistryKey();

  int result = RUN_ALL_TESTS();

#ifndef _WIN32
  remove(registryPath.c_str());
#else
  tembra::test::removeRegistryKey();
#endif
  if (!logPath.empty() && result == 0) remove(logPath.c_str());  // kept when a test failed
  return result;
}
