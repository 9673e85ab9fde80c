#include "tests/provider_ops/ops_fixture.h"

#include <sstream>

#include "softskf/include/softskf.h"

namespace opstest {

DeviceSpec makeToken(const std::string &name, const std::vector<ContainerSpec> &containers) {
  DeviceSpec token;
  token.name = name;
  token.label = name + "-label";
  token.serial = name + "-serial";
  ApplicationSpec app;
  app.name = "OpsApp";
  app.userPin = kUserPin;
  app.adminPin = kAdminPin;
  app.userRetries = kRetries;
  app.adminRetries = kRetries;
  app.containers = containers;
  token.applications.push_back(app);
  return token;
}

ContainerSpec keyContainer(const std::string &name, KeyKind kind) {
  ContainerSpec container;
  container.name = name;
  container.kind = kind;
  container.certificates = false;
  return container;
}

std::vector<DeviceSpec> OpsTest::tokens() const {
  return {
      makeToken("ops", {keyContainer("sm2", KeyKind::Sm2), keyContainer("rsa", KeyKind::Rsa1024)})};
}

void OpsTest::SetUp() {
  const std::vector<DeviceSpec> tokenList = tokens();
  for (const DeviceSpec &token : tokenList) {
    m_store.provision(token);
    m_labels.push_back(token.label);
  }
  if (HasFatalFailure()) return;
  ASSERT_EQ(1, DeviceInit());
  m_started = true;
  m_set = DeviceGetAllDevices();
  ASSERT_NE(nullptr, m_set);
  const int count = DeviceGetDeviceCount(m_set);
  for (int i = 0; i < count; ++i) {
    SPI_DEVICE_HANDLE hDevice = DeviceGetDevice(m_set, i);
    ASSERT_NE(nullptr, hDevice);
    m_devices.push_back(hDevice);
  }
  // Discovery order is the token library's; tests find devices by label.
  std::vector<SPI_DEVICE_HANDLE> byLabel;
  for (const std::string &label : m_labels) byLabel.push_back(device(label));
  m_devices = byLabel;
  m_log.mark();
}

void OpsTest::TearDown() {
  for (SPI_KEYPAIR_HANDLE hKeypair : m_keypairs) DeviceFreeKeypair(hKeypair);
  m_keypairs.clear();
  for (SPI_DEVICE_HANDLE hDevice : m_devices) {
    if (hDevice != nullptr) DeviceFreeDevice(hDevice);
  }
  m_devices.clear();
  if (m_set != nullptr) DeviceFreeDevices(m_set);
  m_set = nullptr;
  SKFSoft_StopCallLog();
  if (m_started) DeviceEnd();
  m_started = false;
}

SPI_DEVICE_HANDLE OpsTest::device(const std::string &label) const {
  for (SPI_DEVICE_HANDLE hDevice : m_devices) {
    char text[64] = {};
    int len = 0;
    if (DeviceGetLabel(hDevice, text, sizeof(text), &len) == 1 && label == text) return hDevice;
  }
  ADD_FAILURE() << "no device labelled " << label;
  return nullptr;
}

SPI_KEYPAIR_HANDLE OpsTest::keypair(SPI_DEVICE_HANDLE hDevice, int type, const char *label) {
  SPI_KEYPAIR_HANDLE hKeypair = nullptr;
  EXPECT_EQ(1, DeviceFindKeypair(hDevice, type, label, &hKeypair)) << label << " type " << type;
  EXPECT_NE(nullptr, hKeypair);
  if (hKeypair != nullptr) m_keypairs.push_back(hKeypair);
  return hKeypair;
}

std::vector<uint8_t> OpsTest::publicKey(SPI_KEYPAIR_HANDLE hKeypair) {
  std::vector<uint8_t> key;
  SPI_PUBLICKEY_HANDLE hPublicKey = DeviceGetPublicKeyFromKeypair(hKeypair);
  EXPECT_NE(nullptr, hPublicKey);
  if (hPublicKey == nullptr) return key;
  int len = 0;
  EXPECT_EQ(1, DeviceExportPublicKey(hPublicKey, nullptr, 0, &len));
  key.resize(static_cast<size_t>(len));
  EXPECT_EQ(1, DeviceExportPublicKey(hPublicKey, key.data(), len, &len));
  key.resize(static_cast<size_t>(len));
  DeviceFreePublicKey(hPublicKey);
  return key;
}

void OpsTest::login(SPI_DEVICE_HANDLE hDevice) {
  int retries = 0;
  ASSERT_EQ(1, DeviceVerifyPwd(hDevice, 1, kUserPin, &retries));
}

void OpsTest::mark() {
  SKFSoft_StopCallLog();
  SKFSoft_StartCallLog();
  m_log.mark();
}

std::vector<std::string> OpsTest::tokenCalls(const std::string &function) const {
  std::vector<std::string> calls;
  for (const std::string &line : tembra::test::tokenCallLog()) {
    if (line.compare(0, function.size() + 1, function + " ") == 0 || line == function) {
      calls.push_back(line);
    }
  }
  return calls;
}

std::string callField(const std::string &line, const std::string &name) {
  std::istringstream words(line);
  std::string word;
  const std::string prefix = name + "=";
  while (words >> word) {
    if (word.compare(0, prefix.size(), prefix) == 0) return word.substr(prefix.size());
  }
  return std::string();
}

}  // namespace opstest
