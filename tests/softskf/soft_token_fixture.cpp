#include "tests/softskf/soft_token_fixture.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include "crypto/backend.h"

namespace softskf_test {

const BYTE kAuthKey[16] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                           0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};
const char kAdminPin[] = "admin-pin-1";
const char kUserPin[] = "user-pin-1";

void SoftTokenTest::SetUp() {
  m_store = std::make_unique<tembra::test::TokenStore>();
}

void SoftTokenTest::TearDown() {
  SKFSoft_StopCallLog();
  m_store.reset();
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
  return tembra::test::tokenCallLog();
}

}  // namespace softskf_test
