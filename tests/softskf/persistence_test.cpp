// What the token keeps on disk: state written by one process is seen by
// another, a process killed in the middle of writing leaves a sound store,
// the device lock excludes other processes, and secrets are not stored in
// clear. Linux only: the cases fork.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include <string>
#include <vector>

#include "tests/softskf/soft_token_fixture.h"

namespace softskf_test {
namespace {

class PersistenceTest : public SoftTokenTest {};

// Runs `body` in a child process; answers its exit status (the body's
// result, or 255 for a crash or a signal).
template <typename Body>
int inChild(Body body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

TEST_F(PersistenceTest, AnotherProcessSeesWhatOneWrote) {
  ASSERT_EQ(SAR_OK, SKFSoft_CreateDevice("tok1", "L", "S", kAuthKey));
  // The child provisions; it shares nothing with the parent but the disk.
  int child = inChild([] {
    DEVHANDLE dev;
    HAPPLICATION app;
    HCONTAINER con;
    ULONG retry;
    if (SKF_ConnectDev(const_cast<char *>("tok1"), &dev) != SAR_OK) return 1;
    if (SoftTokenTest::authenticate(dev) != SAR_OK) return 2;
    if (SKF_CreateApplication(dev, const_cast<char *>("app"), const_cast<char *>(kAdminPin), 4,
                              const_cast<char *>(kUserPin), 4, SECURE_ANYONE_ACCOUNT,
                              &app) != SAR_OK)
      return 3;
    if (SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>(kUserPin), &retry) != SAR_OK) return 4;
    if (SKF_CreateContainer(app, const_cast<char *>("c1"), &con) != SAR_OK) return 5;
    ECCPUBLICKEYBLOB blob;
    if (SKF_GenECCKeyPair(con, SGD_SM2_1, &blob) != SAR_OK) return 6;
    if (SKF_CreateFile(app, const_cast<char *>("f"), 4, SECURE_ANYONE_ACCOUNT,
                       SECURE_ANYONE_ACCOUNT) != SAR_OK)
      return 7;
    BYTE data[4] = {1, 2, 3, 4};
    if (SKF_WriteFile(app, const_cast<char *>("f"), 0, data, 4) != SAR_OK) return 8;
    SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>("wrong-pin"), &retry);
    return 0;
  });
  ASSERT_EQ(0, child);

  DEVHANDLE dev;
  HAPPLICATION app;
  HCONTAINER con;
  ASSERT_EQ(SAR_OK, SKF_ConnectDev(const_cast<char *>("tok1"), &dev));
  ASSERT_EQ(SAR_OK, SKF_OpenApplication(dev, const_cast<char *>("app"), &app));
  ASSERT_EQ(SAR_OK, SKF_OpenContainer(app, const_cast<char *>("c1"), &con));
  ULONG max, remaining;
  BOOL isDefault;
  ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, USER_TYPE, &max, &remaining, &isDefault));
  EXPECT_EQ(4u, max);
  EXPECT_EQ(3u, remaining);
  BYTE data[4] = {};
  ULONG len = 4;
  ASSERT_EQ(SAR_OK, SKF_ReadFile(app, const_cast<char *>("f"), 0, 4, data, &len));
  EXPECT_EQ(4, data[3]);
  // The child's login does not carry over; the private key opens with the PIN.
  BYTE digest[32] = {3};
  ECCSIGNATUREBLOB sig;
  EXPECT_EQ(SAR_USER_NOT_LOGGED_IN, SKF_ECCSignData(con, digest, 32, &sig));
  loginUser(app);
  EXPECT_EQ(SAR_OK, SKF_ECCSignData(con, digest, 32, &sig));
}

TEST_F(PersistenceTest, KillDuringWritesLeavesTheOldOrTheNewState) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  ASSERT_EQ(SAR_OK, SKF_CreateFile(app, const_cast<char *>("f"), 4096, SECURE_ANYONE_ACCOUNT,
                                   SECURE_ANYONE_ACCOUNT));
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t pid = fork();
    if (pid == 0) {
      close(ready[0]);
      std::vector<BYTE> block(4096);
      for (unsigned i = 0;; ++i) {
        memset(block.data(), static_cast<int>(i & 0xFF), block.size());
        SKF_WriteFile(app, const_cast<char *>("f"), 0, block.data(), 4096);
        if (i == 3) {
          char go = 1;
          if (write(ready[1], &go, 1) != 1) _exit(1);
        }
      }
    }
    close(ready[1]);
    char go = 0;
    ASSERT_EQ(1, read(ready[0], &go, 1));
    close(ready[0]);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);

    std::vector<BYTE> block(4096);
    ULONG len = 4096;
    ASSERT_EQ(SAR_OK, SKF_ReadFile(app, const_cast<char *>("f"), 0, 4096, block.data(), &len));
    ASSERT_EQ(4096u, len);
    for (BYTE b : block) ASSERT_EQ(block[0], b) << "a torn write";
  }
}

TEST_F(PersistenceTest, DeviceLockExcludesOtherProcessesAndHandles) {
  DEVHANDLE dev = makeDevice();
  ASSERT_EQ(SAR_OK, SKF_LockDev(dev, 0xFFFFFFFF));
  auto tryLockElsewhere = [] {
    DEVHANDLE other;
    if (SKF_ConnectDev(const_cast<char *>("tok1"), &other) != SAR_OK) return 1;
    ULONG rv = SKF_LockDev(other, 0);
    return rv == SAR_OK ? 0 : rv == SAR_TIMEOUTERR ? 2 : 3;
  };
  EXPECT_EQ(2, inChild(tryLockElsewhere));
  DEVHANDLE second;
  ASSERT_EQ(SAR_OK, SKF_ConnectDev(const_cast<char *>("tok1"), &second));
  EXPECT_EQ(SAR_TIMEOUTERR, SKF_LockDev(second, 20));
  ASSERT_EQ(SAR_OK, SKF_UnlockDev(dev));
  EXPECT_EQ(0, inChild(tryLockElsewhere));
  EXPECT_EQ(SAR_OK, SKF_LockDev(second, 0));
  // Disconnecting releases the lock.
  ASSERT_EQ(SAR_OK, SKF_DisConnectDev(second));
  EXPECT_EQ(0, inChild(tryLockElsewhere));
}

// A damaged application file is refused as a whole with SAR_FILEERR.
TEST_F(PersistenceTest, DamagedApplicationFileIsRefused) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  makeSm2Container(app);
  const std::string path = storePath() + "/tok1/app.app";
  std::string original;
  {
    std::ifstream in(path, std::ios::binary);
    original.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  ASSERT_GT(original.size(), 100u);
  struct Damage {
    const char *what;
    std::string bytes;
  };
  std::string flipped = original;
  flipped[original.size() / 2] ^= 0x01;
  const Damage damages[] = {
      {"empty", ""},
      {"truncated", original.substr(0, original.size() / 2)},
      {"one bit flipped", flipped},
      {"trailing byte", original + "x"},
  };
  for (const Damage &d : damages) {
    SCOPED_TRACE(d.what);
    {
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out << d.bytes;
    }
    HAPPLICATION again = nullptr;
    EXPECT_EQ(SAR_FILEERR, SKF_OpenApplication(dev, const_cast<char *>("app"), &again));
    ULONG size = 0;
    EXPECT_EQ(SAR_FILEERR, SKF_EnumContainer(app, nullptr, &size));
  }
}

TEST_F(PersistenceTest, StoreHoldsNoPinAndNoTokenKeyInClear) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  (void)con;
  std::string contents = storeContents(storePath());
  EXPECT_EQ(std::string::npos, contents.find(kUserPin));
  EXPECT_EQ(std::string::npos, contents.find(kAdminPin));
}

}  // namespace
}  // namespace softskf_test
