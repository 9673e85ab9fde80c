// Fixture of the discovery, device and key pair tests: the provider started
// and a fresh software-token store per test, everything the test left open
// released in TearDown, so the tests also pass when they share one process.
#ifndef TEMBRA_TESTS_PROVIDER_DISCOVERY_DISCOVERY_FIXTURE_H
#define TEMBRA_TESTS_PROVIDER_DISCOVERY_DISCOVERY_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "include/tembra_key_prov.h"
#include "softskf/provision/provision.h"
#include "tests/support/provider_test_support.h"

namespace discoverytest {

using tembra::provision::ApplicationSpec;
using tembra::provision::ContainerSpec;
using tembra::provision::DeviceSpec;
using tembra::provision::KeyKind;

constexpr const char *kTokenName = "DiscoveryToken";
constexpr const char *kTokenLabel = "Discovery Label";
constexpr const char *kTokenSerial = "SN20261121-0042";
constexpr const char *kUserPin = "12345678";

// A container of `kind` with a signature key pair and, if asked, an
// encryption key pair, each with its certificate when `certificates`.
ContainerSpec container(const std::string &name, KeyKind kind = KeyKind::Sm2,
                        bool encryptionKey = true, bool certificates = true);
// The token kTokenName with the given applications (none: unformatted).
DeviceSpec token(const std::vector<ApplicationSpec> &applications);
ApplicationSpec application(const std::string &name, const std::vector<ContainerSpec> &containers);
// A pointer as the log's %p prints it.
std::string pointerText(const void *p);

class DiscoveryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Fills this test's fresh store with the tokens of `tokens`, provisioned
  // once per process under `key` and copied from there: provisioning costs
  // seconds (minutes under emulation), a copy of the store almost nothing.
  void provisionShared(const std::string &key, const std::vector<DeviceSpec> &tokens);
  // Runs discovery; the set is released in TearDown unless freeSet() did.
  SPI_DEVICESET_HANDLE discover();
  void freeSet();
  // The one device of a set holding exactly one, taken with DeviceGetDevice.
  SPI_DEVICE_HANDLE onlyDevice();
  // Restarts the token's call record and marks the log.
  void mark();
  // Calls of the SKF function since mark().
  int calls(const std::string &function) const;
  // True if a new log line has exactly this level, function field and text.
  bool logged(const char *level, const char *function, const std::string &message) const {
    return m_log.has(level, function, message);
  }

  tembra::test::TokenStore m_store;
  tembra::test::LogTail m_log;
  SPI_DEVICESET_HANDLE m_set = nullptr;
};

}  // namespace discoverytest

#endif  // TEMBRA_TESTS_PROVIDER_DISCOVERY_DISCOVERY_FIXTURE_H
