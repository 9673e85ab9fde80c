#include "tests/provider_discovery/discovery_fixture.h"

#include <stdio.h>

#include <filesystem>
#include <map>
#include <memory>

#include "softskf/include/softskf.h"

namespace discoverytest {

ContainerSpec container(const std::string &name, KeyKind kind, bool encryptionKey,
                        bool certificates) {
  ContainerSpec made;
  made.name = name;
  made.kind = kind;
  made.encryptionKey = encryptionKey;
  made.certificates = certificates;
  return made;
}

ApplicationSpec application(const std::string &name, const std::vector<ContainerSpec> &containers) {
  ApplicationSpec made;
  made.name = name;
  made.userPin = kUserPin;
  made.containers = containers;
  return made;
}

DeviceSpec token(const std::vector<ApplicationSpec> &applications) {
  DeviceSpec made;
  made.name = kTokenName;
  made.label = kTokenLabel;
  made.serial = kTokenSerial;
  for (int i = 0; i < 16; i++) made.authKey[i] = tembra::provision::kDefaultAuthKey[i];
  made.applications = applications;
  return made;
}

std::string pointerText(const void *p) {
  char text[32];
  snprintf(text, sizeof(text), "%p", p);
  return text;
}

void DiscoveryTest::SetUp() {
  ASSERT_EQ(DeviceInit(), 1);
  m_log.mark();
}

void DiscoveryTest::TearDown() {
  freeSet();
  SKFSoft_StopCallLog();
  DeviceEnd();
}

void DiscoveryTest::provisionShared(const std::string &key, const std::vector<DeviceSpec> &tokens) {
  // Lives until the process ends; each directory is removed with it.
  static std::map<std::string, std::unique_ptr<tembra::test::TempDir>> templates;
  std::unique_ptr<tembra::test::TempDir> &source = templates[key];
  if (source == nullptr) {
    source.reset(new tembra::test::TempDir());
    tembra::test::setEnv("TEMBRA_SOFTSKF_DIR", source->path().c_str());
    for (const DeviceSpec &made : tokens) m_store.provision(made);
    tembra::test::setEnv("TEMBRA_SOFTSKF_DIR", m_store.path().c_str());
  }
  // File by file: copying a whole tree onto an existing directory fails
  // with the Windows build's standard library.
  namespace fs = std::filesystem;
  std::error_code error;
  for (fs::recursive_directory_iterator it(source->path(), error), end; !error && it != end;
       it.increment(error)) {
    const fs::path target = fs::path(m_store.path()) / fs::relative(it->path(), source->path());
    if (it->is_directory()) {
      fs::create_directories(target, error);
    } else {
      fs::copy_file(it->path(), target, fs::copy_options::overwrite_existing, error);
    }
  }
  ASSERT_FALSE(error) << error.message();
}

SPI_DEVICESET_HANDLE DiscoveryTest::discover() {
  freeSet();
  m_set = DeviceGetAllDevices();
  EXPECT_NE(m_set, nullptr);
  return m_set;
}

void DiscoveryTest::freeSet() {
  if (m_set != nullptr) DeviceFreeDevices(m_set);
  m_set = nullptr;
}

SPI_DEVICE_HANDLE DiscoveryTest::onlyDevice() {
  EXPECT_EQ(DeviceGetDeviceCount(m_set), 1);
  return DeviceGetDevice(m_set, 0);
}

void DiscoveryTest::mark() {
  SKFSoft_StopCallLog();
  SKFSoft_StartCallLog();
  m_log.mark();
}

int DiscoveryTest::calls(const std::string &function) const {
  int count = 0;
  for (const std::string &line : tembra::test::tokenCallLog()) {
    if (line.compare(0, function.size(), function) == 0 &&
        (line.size() == function.size() || line[function.size()] == ' ')) {
      count++;
    }
  }
  return count;
}

}  // namespace discoverytest
