// Devices, applications, containers and files of the software token: life
// cycles, rights, enumeration and handles.
#include <gtest/gtest.h>
#include <string.h>

#include "crypto/backend.h"
#include "tests/softskf/soft_token_fixture.h"

namespace softskf_test {
namespace {

class ObjectsTest : public SoftTokenTest {};

std::vector<std::string> enumDevices(BOOL present) {
  ULONG size = 0;
  EXPECT_EQ(SAR_OK, SKF_EnumDev(present, nullptr, &size));
  std::vector<char> buffer(size);
  EXPECT_EQ(SAR_OK, SKF_EnumDev(present, buffer.data(), &size));
  EXPECT_EQ(buffer.size(), size);
  EXPECT_EQ('\0', buffer.back()) << "the list ends in an extra NUL";
  return SoftTokenTest::multiString(buffer);
}

TEST_F(ObjectsTest, EnumDevListsInCreationOrderAndLeavesAbsentOnesOut) {
  EXPECT_TRUE(enumDevices(TRUE).empty());
  for (const char *name : {"tok2", "tok10", "tok1"}) {
    ASSERT_EQ(SAR_OK, SKFSoft_CreateDevice(name, "L", "S", kAuthKey));
  }
  EXPECT_EQ(SAR_FILE_ALREADY_EXIST, SKFSoft_CreateDevice("tok1", "L", "S", kAuthKey));
  EXPECT_EQ((std::vector<std::string>{"tok2", "tok10", "tok1"}), enumDevices(TRUE));
  ASSERT_EQ(SAR_OK, SKFSoft_SetPresent("tok10", FALSE));
  EXPECT_EQ((std::vector<std::string>{"tok2", "tok1"}), enumDevices(TRUE));
  EXPECT_EQ((std::vector<std::string>{"tok2", "tok10", "tok1"}), enumDevices(FALSE));
  DEVHANDLE dev;
  EXPECT_EQ(SAR_DEVICE_REMOVED, SKF_ConnectDev(const_cast<char *>("tok10"), &dev));
  ASSERT_EQ(SAR_OK, SKFSoft_RemoveDevice("tok2"));
  EXPECT_EQ((std::vector<std::string>{"tok1"}), enumDevices(TRUE));

  ULONG size = 3;  // "tok1\0\0" needs 6
  char small[3];
  EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKF_EnumDev(TRUE, small, &size));
  EXPECT_EQ(6u, size);
}

TEST_F(ObjectsTest, DeviceInfoDescribesTheSoftwareToken) {
  DEVHANDLE dev = makeDevice();
  DEVINFO info;
  ASSERT_EQ(SAR_OK, SKF_GetDevInfo(dev, &info));
  EXPECT_STREQ("Tembra Software Token", info.Manufacturer);
  EXPECT_STREQ("TembraKeyProv", info.Issuer);
  EXPECT_STREQ("Label", info.Label);
  EXPECT_STREQ("SN0001", info.SerialNumber);
  EXPECT_EQ(1, info.Version.major);
  EXPECT_EQ(0x40Fu, ULONG(info.AlgSymCap));
  EXPECT_EQ(SGD_RSA | SGD_SM2_1 | SGD_SM2_3 | SGD_SM2_1_GMT0006 | SGD_SM2_3_GMT0006,
            ULONG(info.AlgAsymCap));
  EXPECT_EQ(SGD_SM3, ULONG(info.AlgHashCap));
  EXPECT_EQ(SGD_SMS4_ECB, ULONG(info.DevAuthAlgId));
  EXPECT_LE(ULONG(info.FreeSpace), ULONG(info.TotalSpace));
}

TEST_F(ObjectsTest, DeviceAuthenticationGuardsApplicationManagement) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app;
  auto create = [&] {
    return SKF_CreateApplication(dev, const_cast<char *>("app"), const_cast<char *>(kAdminPin), 3,
                                 const_cast<char *>(kUserPin), 3, SECURE_ANYONE_ACCOUNT, &app);
  };
  EXPECT_EQ(SAR_FAIL, create()) << "no device authentication yet";
  BYTE wrongKey[16] = {0x55};
  EXPECT_EQ(SAR_FAIL, authenticate(dev, wrongKey));
  EXPECT_EQ(SAR_FAIL, create());
  ASSERT_EQ(SAR_OK, authenticate(dev));
  // A challenge answers once: replaying the right answer fails.
  BYTE challenge[16] = {}, answer[16];
  ASSERT_EQ(SAR_OK, SKF_GenRandom(dev, challenge, 8));
  ASSERT_TRUE(tembra::crypto::sm4Ecb(true, kAuthKey, challenge, 16, answer));
  ASSERT_EQ(SAR_OK, SKF_DevAuth(dev, answer, 16));
  EXPECT_EQ(SAR_FAIL, SKF_DevAuth(dev, answer, 16));
  ASSERT_EQ(SAR_OK, authenticate(dev));
  ASSERT_EQ(SAR_OK, create());
  EXPECT_EQ(SAR_APPLICATION_EXISTS, create());

  // A new authentication key replaces the old one.
  BYTE newKey[16] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6};
  ASSERT_EQ(SAR_OK, SKF_ChangeDevAuthKey(dev, newKey, 16));
  EXPECT_EQ(SAR_FAIL, authenticate(dev));
  EXPECT_EQ(SAR_OK, authenticate(dev, newKey));
  EXPECT_EQ(SAR_OK, SKF_DeleteApplication(dev, const_cast<char *>("app")));
  EXPECT_EQ(SAR_APPLICATION_NOT_EXISTS, SKF_OpenApplication(dev, const_cast<char *>("app"), &app));
}

TEST_F(ObjectsTest, ContainersEnumerateInCreationOrderAndCarryTheirType) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  loginUser(app);
  HCONTAINER con;
  for (const char *name : {"zeta", "alpha", "mid"}) {
    ASSERT_EQ(SAR_OK, SKF_CreateContainer(app, const_cast<char *>(name), &con));
  }
  EXPECT_EQ(SAR_FILE_ALREADY_EXIST, SKF_CreateContainer(app, const_cast<char *>("mid"), &con));
  EXPECT_EQ((std::vector<std::string>{"zeta", "alpha", "mid"}), enumContainers(app));

  ASSERT_EQ(SAR_OK, SKF_OpenContainer(app, const_cast<char *>("alpha"), &con));
  ULONG type = 9;
  ASSERT_EQ(SAR_OK, SKF_GetContainerType(con, &type));
  EXPECT_EQ(0u, type);
  ECCPUBLICKEYBLOB ecc;
  ASSERT_EQ(SAR_OK, SKF_GenECCKeyPair(con, SGD_SM2_1, &ecc));
  ASSERT_EQ(SAR_OK, SKF_GetContainerType(con, &type));
  EXPECT_EQ(2u, type);
  RSAPUBLICKEYBLOB rsa;
  EXPECT_EQ(SAR_FAIL, SKF_GenRSAKeyPair(con, 1024, &rsa)) << "holds SM2 keys";
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_GenECCKeyPair(con, SGD_SM2_3, &ecc));

  HCONTAINER rsaCon;
  ASSERT_EQ(SAR_OK, SKF_OpenContainer(app, const_cast<char *>("mid"), &rsaCon));
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_GenRSAKeyPair(rsaCon, 1536, &rsa));
  ASSERT_EQ(SAR_OK, SKF_GenRSAKeyPair(rsaCon, 1024, &rsa));
  ASSERT_EQ(SAR_OK, SKF_GetContainerType(rsaCon, &type));
  EXPECT_EQ(1u, type);

  ASSERT_EQ(SAR_OK, SKF_DeleteContainer(app, const_cast<char *>("zeta")));
  EXPECT_EQ((std::vector<std::string>{"alpha", "mid"}), enumContainers(app));
  ASSERT_EQ(SAR_OK, SKF_CreateContainer(app, const_cast<char *>("zeta"), &con));
  EXPECT_EQ((std::vector<std::string>{"alpha", "mid", "zeta"}), enumContainers(app));
}

TEST_F(ObjectsTest, RegenerationDropsTheEncryptionKeyAndCertificates) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  BYTE cert[] = {0x30, 0x03, 0x02, 0x01, 0x05};
  ULONG len = 0;
  EXPECT_EQ(SAR_CERTNOTFOUNTERR, SKF_ExportCertificate(con, TRUE, nullptr, &len));
  ASSERT_EQ(SAR_OK, SKF_ImportCertificate(con, TRUE, cert, sizeof cert));
  ASSERT_EQ(SAR_OK, SKF_ExportCertificate(con, TRUE, nullptr, &len));
  EXPECT_EQ(sizeof cert, len);
  BYTE out[8];
  len = 4;
  EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKF_ExportCertificate(con, TRUE, out, &len));
  EXPECT_EQ(sizeof cert, len);
  len = sizeof out;
  ASSERT_EQ(SAR_OK, SKF_ExportCertificate(con, TRUE, out, &len));
  EXPECT_EQ(0, memcmp(cert, out, sizeof cert));
  EXPECT_EQ(SAR_CERTNOTFOUNTERR, SKF_ExportCertificate(con, FALSE, nullptr, &len));

  ECCPUBLICKEYBLOB first, second;
  len = sizeof first;
  ASSERT_EQ(SAR_OK, SKF_ExportPublicKey(con, TRUE, reinterpret_cast<BYTE *>(&first), &len));
  ASSERT_EQ(SAR_OK, SKF_GenECCKeyPair(con, SGD_SM2_1, &second));
  EXPECT_NE(0, memcmp(&first, &second, sizeof first));
  EXPECT_EQ(SAR_CERTNOTFOUNTERR, SKF_ExportCertificate(con, TRUE, nullptr, &len));
}

TEST_F(ObjectsTest, PublicKeyExportFollowsTheBufferProtocol) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  ULONG len = 0;
  ASSERT_EQ(SAR_OK, SKF_ExportPublicKey(con, TRUE, nullptr, &len));
  EXPECT_EQ(132u, len);
  BYTE blob[132];
  len = 131;
  EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKF_ExportPublicKey(con, TRUE, blob, &len));
  EXPECT_EQ(132u, len);
  EXPECT_EQ(SAR_KEYNOTFOUNTERR, SKF_ExportPublicKey(con, FALSE, blob, &len));
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_ExportPublicKey(con, TRUE, blob, nullptr));
}

struct FileAccess {
  const char *what;
  ULONG readRights, writeRights;
  int login;  // 0 none, 1 user, 2 admin
  ULONG read, write, erase;
};

const FileAccess kFileAccess[] = {
    {"anyone, logged out", SECURE_ANYONE_ACCOUNT, SECURE_ANYONE_ACCOUNT, 0, SAR_OK, SAR_OK, SAR_OK},
    {"user rights, logged out", SECURE_USER_ACCOUNT, SECURE_USER_ACCOUNT, 0, SAR_USER_NOT_LOGGED_IN,
     SAR_USER_NOT_LOGGED_IN, SAR_USER_NOT_LOGGED_IN},
    {"user rights, user", SECURE_USER_ACCOUNT, SECURE_USER_ACCOUNT, 1, SAR_OK, SAR_OK, SAR_OK},
    {"user rights, admin", SECURE_USER_ACCOUNT, SECURE_USER_ACCOUNT, 2, SAR_USER_NOT_LOGGED_IN,
     SAR_USER_NOT_LOGGED_IN, SAR_USER_NOT_LOGGED_IN},
    {"admin rights, user", SECURE_ADM_ACCOUNT, SECURE_ADM_ACCOUNT, 1, SAR_USER_NOT_LOGGED_IN,
     SAR_USER_NOT_LOGGED_IN, SAR_USER_NOT_LOGGED_IN},
    {"admin rights, admin", SECURE_ADM_ACCOUNT, SECURE_ADM_ACCOUNT, 2, SAR_OK, SAR_OK, SAR_OK},
    {"read anyone, write never", SECURE_ANYONE_ACCOUNT, SECURE_NEVER_ACCOUNT, 1, SAR_OK, SAR_FAIL,
     SAR_FAIL},
};

TEST_F(ObjectsTest, FileRightsDecideReadWriteAndDelete) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  for (const FileAccess &c : kFileAccess) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(SAR_OK, SKF_ClearSecureState(app));
    ASSERT_EQ(SAR_OK,
              SKF_CreateFile(app, const_cast<char *>("f"), 10, c.readRights, c.writeRights));
    ULONG retry;
    if (c.login == 1) loginUser(app);
    if (c.login == 2) {
      ASSERT_EQ(SAR_OK, SKF_VerifyPIN(app, ADMIN_TYPE, const_cast<char *>(kAdminPin), &retry));
    }
    BYTE data[10] = {1, 2, 3};
    ULONG len = sizeof data;
    EXPECT_EQ(c.read, SKF_ReadFile(app, const_cast<char *>("f"), 0, 10, data, &len));
    EXPECT_EQ(c.write, SKF_WriteFile(app, const_cast<char *>("f"), 0, data, 3));
    EXPECT_EQ(c.erase, SKF_DeleteFile(app, const_cast<char *>("f")));
    if (c.erase != SAR_OK) {
      // Clean up with rights that allow it: recreate the application.
      ASSERT_EQ(SAR_OK, authenticate(dev));
      ASSERT_EQ(SAR_OK, SKF_DeleteApplication(dev, const_cast<char *>("app")));
      app = makeApplication(dev);
    }
  }
}

TEST_F(ObjectsTest, FilesKeepTheirSizeAndAnswerPartialReads) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev, "app", 5, SECURE_USER_ACCOUNT);
  EXPECT_EQ(SAR_USER_NOT_LOGGED_IN, SKF_CreateFile(app, const_cast<char *>("7"), 100,
                                                   SECURE_ANYONE_ACCOUNT, SECURE_ANYONE_ACCOUNT));
  loginUser(app);
  ASSERT_EQ(SAR_OK, SKF_CreateFile(app, const_cast<char *>("7"), 100, SECURE_ANYONE_ACCOUNT,
                                   SECURE_ANYONE_ACCOUNT));
  ASSERT_EQ(SAR_OK, SKF_CreateFile(app, const_cast<char *>("3"), 5, SECURE_ANYONE_ACCOUNT,
                                   SECURE_ANYONE_ACCOUNT));
  EXPECT_EQ(SAR_FILE_ALREADY_EXIST, SKF_CreateFile(app, const_cast<char *>("7"), 1,
                                                   SECURE_ANYONE_ACCOUNT, SECURE_ANYONE_ACCOUNT));
  ULONG size = 0;
  ASSERT_EQ(SAR_OK, SKF_EnumFiles(app, nullptr, &size));
  std::vector<char> list(size);
  ASSERT_EQ(SAR_OK, SKF_EnumFiles(app, list.data(), &size));
  EXPECT_EQ((std::vector<std::string>{"7", "3"}), multiString(list));

  FILEATTRIBUTE attr;
  ASSERT_EQ(SAR_OK, SKF_GetFileInfo(app, const_cast<char *>("7"), &attr));
  EXPECT_STREQ("7", attr.FileName);
  EXPECT_EQ(100u, ULONG(attr.FileSize));
  EXPECT_EQ(SAR_FILE_NOT_EXIST, SKF_GetFileInfo(app, const_cast<char *>("8"), &attr));

  BYTE data[20];
  for (int i = 0; i < 20; ++i) data[i] = static_cast<BYTE>(i + 1);
  ASSERT_EQ(SAR_OK, SKF_WriteFile(app, const_cast<char *>("7"), 90, data, 10));
  EXPECT_EQ(SAR_INDATALENERR, SKF_WriteFile(app, const_cast<char *>("7"), 90, data, 11));

  struct Read {
    ULONG offset, size;
    ULONG expected, length;
  };
  const Read reads[] = {{90, 100, SAR_OK, 10},
                        {100, 10, SAR_OK, 0},
                        {101, 1, SAR_INDATALENERR, 0},
                        {95, 3, SAR_OK, 3}};
  for (const Read &r : reads) {
    SCOPED_TRACE(r.offset);
    BYTE out[100] = {};
    ULONG len = sizeof out;
    ASSERT_EQ(r.expected, SKF_ReadFile(app, const_cast<char *>("7"), r.offset, r.size, out, &len));
    if (r.expected != SAR_OK) continue;
    EXPECT_EQ(r.length, len);
    EXPECT_EQ(0, memcmp(out, data + (r.offset - 90), r.length));
  }
  ASSERT_EQ(SAR_OK, SKF_DeleteFile(app, const_cast<char *>("7")));
  EXPECT_EQ(SAR_FILE_NOT_EXIST, SKF_DeleteFile(app, const_cast<char *>("7")));
}

TEST_F(ObjectsTest, ClosedAndWrongKindHandlesAreRefused) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  HANDLE hash, key;
  ASSERT_EQ(SAR_OK, SKF_DigestInit(dev, SGD_SM3, nullptr, nullptr, 0, &hash));
  ASSERT_EQ(SAR_OK, SKF_SetSymmKey(dev, const_cast<BYTE *>(kAuthKey), SGD_SMS4_ECB, &key));
  ULONG type;
  // Wrong kinds.
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_GetContainerType(app, &type));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_DigestUpdate(key, nullptr, 0));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_CloseHandle(con));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_DisConnectDev(app));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_GetContainerType(reinterpret_cast<HANDLE>(0x1234), &type));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_GetContainerType(nullptr, &type));
  // Closed ones.
  ASSERT_EQ(SAR_OK, SKF_CloseHandle(hash));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_DigestUpdate(hash, nullptr, 0));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_CloseHandle(hash));
  ASSERT_EQ(SAR_OK, SKF_CloseContainer(con));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_GetContainerType(con, &type));
  // Deleting a container closes its handles; the name is then unknown.
  ASSERT_EQ(SAR_OK, SKF_OpenContainer(app, const_cast<char *>("sm2"), &con));
  ASSERT_EQ(SAR_OK, SKF_DeleteContainer(app, const_cast<char *>("sm2")));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_GetContainerType(con, &type));
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_OpenContainer(app, const_cast<char *>("sm2"), &con));
  HCONTAINER other = makeSm2Container(app, "other");
  // Disconnection closes what was opened through the device.
  ASSERT_EQ(SAR_OK, SKF_DisConnectDev(dev));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_GetContainerType(other, &type));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_ClearSecureState(app));
  BLOCKCIPHERPARAM param = {};
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_EncryptInit(key, param));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_DisConnectDev(dev));
  // Null output pointers.
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_ConnectDev(const_cast<char *>("tok1"), nullptr));
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_EnumDev(TRUE, nullptr, nullptr));
}

}  // namespace
}  // namespace softskf_test
