#include "tests/softskf/soft_token_fixture.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <system_error>

#include "crypto/backend.h"

#ifdef _WIN32
#include <process.h>
#else
#include <unistd.h>
#endif

namespace softskf_test {

const BYTE kAuthKey[16] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                           0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};
const char kAdminPin[] = "admin-pin-1";
const char kUserPin[] = "user-pin-1";

void setEnvironment(const char *name, const char *value) {
#ifdef _WIN32
  _putenv_s(name, value);
#else
  setenv(name, value, 1);
#endif
}

void SoftTokenTest::SetUp() {
  // Process ids repeat (under Wine often), and a store left behind by an
  // earlier run must never be reused: take a name that did not exist.
  static std::atomic<int> counter{0};
  std::random_device random;
#ifdef _WIN32
  int pid = _getpid();
#else
  int pid = getpid();
#endif
  std::filesystem::path dir;
  for (;;) {
    dir = std::filesystem::temp_directory_path() /
          ("softskf-test-" + std::to_string(pid) + "-" + std::to_string(++counter) + "-" +
           std::to_string(random()));
    if (std::filesystem::create_directory(dir)) break;
  }
  m_store = dir.string();
  setEnvironment("TEMBRA_SOFTSKF_DIR", m_store.c_str());
  SKFSoft_ClearFaults();
}

void SoftTokenTest::TearDown() {
  SKFSoft_ClearFaults();
  SKFSoft_StopCallLog();
  // One pass, deepest first, ignoring failures: a file still held open by a
  // handle a case left connected stays behind instead of stalling the run.
  std::error_code ignored;
  std::vector<std::filesystem::path> paths;
  for (std::filesystem::recursive_directory_iterator it(m_store, ignored), end;
       !ignored && it != end; it.increment(ignored)) {
    paths.push_back(it->path());
  }
  for (auto p = paths.rbegin(); p != paths.rend(); ++p) std::filesystem::remove(*p, ignored);
  std::filesystem::remove(m_store, ignored);
}

DEVHANDLE SoftTokenTest::makeDevice(const char *name) {
  EXPECT_EQ(SAR_OK, SKFSoft_CreateDevice(name, "Label", "SN0001", kAuthKey));
  DEVHANDLE dev = nullptr;
  EXPECT_EQ(SAR_OK, SKF_ConnectDev(const_cast<char *>(name), &dev));
  return dev;
}

ULONG SoftTokenTest::authenticate(DEVHANDLE dev, const BYTE key[16]) {
  BYTE challenge[16] = {};
  ULONG rv = SKF_GenRandom(dev, challenge, 8);
  if (rv != SAR_OK) return rv;
  BYTE answer[16];
  if (!tembra::crypto::sm4Ecb(true, key, challenge, 16, answer)) return SAR_FAIL;
  return SKF_DevAuth(dev, answer, 16);
}

HAPPLICATION SoftTokenTest::makeApplication(DEVHANDLE dev, const char *name, ULONG retries,
                                            ULONG createRights) {
  EXPECT_EQ(SAR_OK, authenticate(dev));
  HAPPLICATION app = nullptr;
  EXPECT_EQ(SAR_OK, SKF_CreateApplication(
                        dev, const_cast<char *>(name), const_cast<char *>(kAdminPin), retries,
                        const_cast<char *>(kUserPin), retries, createRights, &app));
  return app;
}

void SoftTokenTest::loginUser(HAPPLICATION app) {
  ULONG retry = 0;
  ASSERT_EQ(SAR_OK, SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>(kUserPin), &retry));
}

HCONTAINER SoftTokenTest::makeSm2Container(HAPPLICATION app, const char *name) {
  loginUser(app);
  HCONTAINER con = nullptr;
  EXPECT_EQ(SAR_OK, SKF_CreateContainer(app, const_cast<char *>(name), &con));
  ECCPUBLICKEYBLOB blob;
  EXPECT_EQ(SAR_OK, SKF_GenECCKeyPair(con, SGD_SM2_1, &blob));
  return con;
}

HCONTAINER SoftTokenTest::makeRsaContainer(HAPPLICATION app, ULONG bits, const char *name) {
  loginUser(app);
  HCONTAINER con = nullptr;
  EXPECT_EQ(SAR_OK, SKF_CreateContainer(app, const_cast<char *>(name), &con));
  RSAPUBLICKEYBLOB blob;
  EXPECT_EQ(SAR_OK, SKF_GenRSAKeyPair(con, bits, &blob));
  return con;
}

std::vector<std::string> SoftTokenTest::multiString(const std::vector<char> &buffer) {
  std::vector<std::string> names;
  size_t pos = 0;
  while (pos < buffer.size() && buffer[pos] != '\0') {
    std::string name(&buffer[pos]);
    names.push_back(name);
    pos += name.size() + 1;
  }
  return names;
}

std::vector<std::string> SoftTokenTest::enumContainers(HAPPLICATION app) {
  ULONG size = 0;
  EXPECT_EQ(SAR_OK, SKF_EnumContainer(app, nullptr, &size));
  std::vector<char> buffer(size);
  EXPECT_EQ(SAR_OK, SKF_EnumContainer(app, buffer.data(), &size));
  return multiString(buffer);
}

std::string SoftTokenTest::storeContents(const std::string &dir) {
  std::string all;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(dir)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    all.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return all;
}

std::vector<std::string> SoftTokenTest::callLog() {
  ULONG len = 0;
  EXPECT_EQ(SAR_OK, SKFSoft_GetCallLog(nullptr, &len));
  std::string text(len, '\0');
  EXPECT_EQ(SAR_OK, SKFSoft_GetCallLog(&text[0], &len));
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t i = 0; i < text.size() && text[i] != '\0'; ++i) {
    if (text[i] == '\n') {
      lines.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  return lines;
}

}  // namespace softskf_test
