// Fixture of the private-key operation and PIN tests: a fresh software-token
// store per test, provisioned with the test's devices, the provider started
// and every device opened; everything released and the provider ended in
// TearDown, so the tests also pass when they share one process.
#ifndef TEMBRA_TESTS_PROVIDER_OPS_OPS_FIXTURE_H
#define TEMBRA_TESTS_PROVIDER_OPS_OPS_FIXTURE_H

#include <gtest/gtest.h>

#include <stdint.h>

#include <string>
#include <vector>

#include "include/tembra_key_prov.h"
#include "softskf/provision/provision.h"
#include "tests/support/provider_test_support.h"

namespace opstest {

using tembra::provision::ApplicationSpec;
using tembra::provision::ContainerSpec;
using tembra::provision::DeviceSpec;
using tembra::provision::KeyKind;

constexpr const char *kUserPin = "12345678";
constexpr const char *kAdminPin = "87654321";
constexpr uint32_t kRetries = 3;
// SAR_OK as the token library's result type, for comparisons.
constexpr ULONG kTokenOk = SAR_OK;

// One token with one application "OpsApp" (user PIN kUserPin, administrator
// PIN kAdminPin, kRetries tries each) holding the given containers.
DeviceSpec makeToken(const std::string &name, const std::vector<ContainerSpec> &containers);
// One container with signature and encryption key pairs of `kind`.
ContainerSpec keyContainer(const std::string &name, KeyKind kind);

class OpsTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The devices the test works on; by default one token "ops" with an SM2
  // container "sm2" and an RSA-1024 container "rsa" (RSA key generation is
  // what makes a test slow).
  virtual std::vector<DeviceSpec> tokens() const;

  // The opened device whose label is the token's label.
  SPI_DEVICE_HANDLE device(const std::string &label) const;
  SPI_DEVICE_HANDLE device() const { return m_devices.at(0); }
  // A key pair handle of the device's container, released in TearDown.
  SPI_KEYPAIR_HANDLE keypair(SPI_DEVICE_HANDLE hDevice, int type, const char *label);
  SPI_KEYPAIR_HANDLE keypair(int type, const char *label) { return keypair(device(), type, label); }
  // The key pair's public key as DeviceExportPublicKey gives it.
  std::vector<uint8_t> publicKey(SPI_KEYPAIR_HANDLE hKeypair);
  // Logs in as user with kUserPin.
  void login(SPI_DEVICE_HANDLE hDevice);
  void login() { login(device()); }

  // Starts the token's call record afresh and marks the log.
  void mark();
  // Token calls since mark() whose function name is `function`.
  std::vector<std::string> tokenCalls(const std::string &function) const;

  tembra::test::TokenStore m_store;
  tembra::test::LogTail m_log;

 private:
  SPI_DEVICESET_HANDLE m_set = nullptr;
  std::vector<SPI_DEVICE_HANDLE> m_devices;
  std::vector<std::string> m_labels;
  std::vector<SPI_KEYPAIR_HANDLE> m_keypairs;
  bool m_started = false;
};

// Names parameterised cases by their `name` member.
struct CaseName {
  template <class Case>
  std::string operator()(const ::testing::TestParamInfo<Case> &param) const {
    return param.param.name;
  }
};

// The value of "name=value" in one call-record line, or "" if absent.
std::string callField(const std::string &line, const std::string &name);

}  // namespace opstest

#endif  // TEMBRA_TESTS_PROVIDER_OPS_OPS_FIXTURE_H
