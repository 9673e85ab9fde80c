// What the token keeps on disk: state written by one process is seen by
// another, a process killed in the middle of writing leaves a sound store,
// the device lock excludes other processes, and secrets are not stored in
// clear. Linux only: the cases fork.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "crypto/backend.h"
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

std::string readAll(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Rewrites a record file as an outside editor would (in place, its time set
// back), its check value made anew after `edit` changed the body.
void rewriteRecord(const std::string &path, const std::function<void(std::string &)> &edit) {
  std::string body = readAll(path);
  ASSERT_GT(body.size(), 32u);
  body.resize(body.size() - 32);
  edit(body);
  uint8_t check[32];
  ASSERT_TRUE(
      tembra::crypto::sm3(reinterpret_cast<const uint8_t *>(body.data()), body.size(), check));
  body.append(reinterpret_cast<const char *>(check), 32);
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << body;
  }
  static time_t when = 1000000000;  // a time of its own for every rewrite
  ++when;
  struct utimbuf past = {when, when};
  ASSERT_EQ(0, utime(path.c_str(), &past));
}

std::string le32(uint32_t v) {
  return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 24)};
}

TEST_F(PersistenceTest, AnotherProcessSeesWhatOneWrote) {
  // The child provisions; it shares nothing with the parent but the disk.
  ASSERT_EQ(0, inChild([this] {
              HAPPLICATION app = makeApplication(makeDevice(), "app", 4);
              makeSm2Container(app, "c1");
              BYTE data[4] = {1, 2, 3, 4};
              ULONG retry;
              EXPECT_EQ(SAR_OK, SKF_CreateFile(app, const_cast<char *>("f"), 4,
                                               SECURE_ANYONE_ACCOUNT, SECURE_ANYONE_ACCOUNT));
              EXPECT_EQ(SAR_OK, SKF_WriteFile(app, const_cast<char *>("f"), 0, data, 4));
              SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>("wrong-pin"), &retry);
              return HasFailure() ? 1 : 0;
            }));

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
  const std::string original = readAll(path);
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

// The records a process keeps between calls give way to another process's
// change at the very next call.
TEST_F(PersistenceTest, CachedStateGivesWayToAnotherProcessesChange) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  BYTE first[3] = {0x30, 0x01, 0x01};
  ASSERT_EQ(SAR_OK, SKF_ImportCertificate(con, TRUE, first, 3));
  struct Change {
    const char *what;
    std::function<ULONG()> change;   // in another process
    std::function<void()> seenHere;  // the next call here
  };
  const Change changes[] = {
      {"PIN change",
       [app] {
         char newPin[] = "user-pin-2";
         ULONG retry;
         return SKF_ChangePIN(app, USER_TYPE, const_cast<char *>(kUserPin), newPin, &retry);
       },
       [app] {
         ULONG max, remaining;
         BOOL isDefault = TRUE;
         ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, USER_TYPE, &max, &remaining, &isDefault));
         EXPECT_FALSE(isDefault);
       }},
      {"new certificate",
       [con] {
         BYTE cert[4] = {0x30, 0x02, 0x02, 0x02};
         return SKF_ImportCertificate(con, TRUE, cert, 4);
       },
       [con] {
         BYTE cert[8] = {};
         ULONG len = sizeof cert;
         ASSERT_EQ(SAR_OK, SKF_ExportCertificate(con, TRUE, cert, &len));
         EXPECT_EQ(4u, len);
       }},
      {"deleted container", [app] { return SKF_DeleteContainer(app, const_cast<char *>("sm2")); },
       [app, con] {
         ULONG type = 0;
         EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF_GetContainerType(con, &type));
         EXPECT_TRUE(enumContainers(app).empty());
       }},
  };
  for (const Change &c : changes) {
    SCOPED_TRACE(c.what);
    // Every record the checks read is in this process's cache before the change.
    ULONG max, remaining, type, len = 0;
    BOOL isDefault;
    ASSERT_EQ(SAR_OK, SKF_GetPINInfo(app, USER_TYPE, &max, &remaining, &isDefault));
    ASSERT_EQ(SAR_OK, SKF_GetContainerType(con, &type));
    ASSERT_EQ(SAR_OK, SKF_ExportCertificate(con, TRUE, nullptr, &len));
    ASSERT_EQ(0, inChild([&c] { return c.change() == SAR_OK ? 0 : 1; }));
    c.seenHere();
  }
}

// Exactly one of several processes creating one device at once succeeds,
// and the device is the one it made.
TEST_F(PersistenceTest, OneOfManyProcessesCreatesADevice) {
  // Other devices in the store make a creation take its time.
  for (int i = 0; i < 24; ++i) {
    ASSERT_EQ(SAR_OK,
              SKFSoft_CreateDevice(("other" + std::to_string(i)).c_str(), "L", "S", kAuthKey));
  }
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE(round);
    const std::string name = "race" + std::to_string(round);
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i) {
      pid_t pid = fork();
      if (pid == 0) {
        close(gate[1]);
        char c;
        if (read(gate[0], &c, 1) != 0) _exit(3);  // all start when the gate closes
        std::string label = "L" + std::to_string(i);
        ULONG rv = SKFSoft_CreateDevice(name.c_str(), label.c_str(), "S", kAuthKey);
        _exit(rv == SAR_OK ? 0 : rv == SAR_FILE_ALREADY_EXIST ? 1 : 2);
      }
      children.push_back(pid);
    }
    close(gate[0]);
    close(gate[1]);
    int winners = 0, winner = -1;
    for (size_t i = 0; i < children.size(); ++i) {
      int status = 0;
      waitpid(children[i], &status, 0);
      ASSERT_TRUE(WIFEXITED(status));
      ASSERT_LE(WEXITSTATUS(status), 1);
      if (WEXITSTATUS(status) == 0) {
        ++winners;
        winner = static_cast<int>(i);
      }
    }
    ASSERT_EQ(1, winners);
    DEVHANDLE dev;
    DEVINFO info;
    ASSERT_EQ(SAR_OK, SKF_ConnectDev(const_cast<char *>(name.c_str()), &dev));
    ASSERT_EQ(SAR_OK, SKF_GetDevInfo(dev, &info));
    EXPECT_EQ("L" + std::to_string(winner), std::string(info.Label));
  }
}

// A device directory without its device record (its creator was killed)
// is taken by the next creation of the name; a whole device is not.
TEST_F(PersistenceTest, HalfMadeDeviceIsReclaimed) {
  struct Case {
    const char *what;
    std::vector<std::string> files;
    ULONG expected;
  };
  const Case cases[] = {
      {"empty directory", {}, SAR_OK},
      {"lock file only", {"store.lock"}, SAR_OK},
      {"a temporary record", {"store.lock", "device.rec.tmp.99999999.1"}, SAR_OK},
      {"a device record", {"device.rec"}, SAR_FILE_ALREADY_EXIST},
  };
  int n = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const std::string name = "half" + std::to_string(n++);
    ASSERT_EQ(0, mkdir((storePath() + "/" + name).c_str(), 0700));
    for (const std::string &file : c.files) {
      std::ofstream(storePath() + "/" + name + "/" + file) << "x";
    }
    EXPECT_EQ(c.expected, SKFSoft_CreateDevice(name.c_str(), "L", "S", kAuthKey));
    if (c.expected != SAR_OK) continue;
    DEVHANDLE dev = nullptr;
    EXPECT_EQ(SAR_OK, SKF_ConnectDev(const_cast<char *>(name.c_str()), &dev));
    for (const std::string &file : c.files) {
      if (file == "store.lock") continue;
      EXPECT_FALSE(std::ifstream(storePath() + "/" + name + "/" + file));
    }
  }
}

// Writes clear the temporary files of writers that are gone, and only those.
TEST_F(PersistenceTest, WritesRemoveTemporaryFilesOfDeadWriters) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  pid_t alive = fork();
  if (alive == 0) {
    pause();
    _exit(0);
  }
  const std::string dir = storePath() + "/tok1/";
  const struct {
    std::string name;
    bool kept;
  } files[] = {
      {"app.app.tmp." + std::to_string(dead) + ".3", false},
      {"device.rec.tmp." + std::to_string(dead) + ".4", false},
      {"app.app.tmp." + std::to_string(getpid()) + ".999999", false},
      {"app.app.tmp." + std::to_string(alive) + ".5", true},
      {"app.app.tmp.notapid.5", true},
  };
  for (const auto &f : files) std::ofstream(dir + f.name) << "partial";
  EXPECT_EQ(SAR_OK, SKF_CreateFile(app, const_cast<char *>("f"), 4, SECURE_ANYONE_ACCOUNT,
                                   SECURE_ANYONE_ACCOUNT));
  kill(alive, SIGKILL);
  waitpid(alive, nullptr, 0);
  for (const auto &f : files) {
    SCOPED_TRACE(f.name);
    EXPECT_EQ(f.kept, std::ifstream(dir + f.name).good());
  }
}

// The PIN derivation's iteration count is bounded: a store asking for more
// (or for none) is refused before any verification runs.
TEST_F(PersistenceTest, PinIterationCountsOutsideTheRangeAreRefused) {
  DEVHANDLE dev = makeDevice();
  makeApplication(dev);
  const std::string path = storePath() + "/tok1/app.app";
  const std::string original = readAll(path);
  // magic, version, name "app", instance id, rights, the administrator
  // PIN's counters, default flag and salt: then its iteration count.
  const size_t at = 8 + 4 + (4 + 3) + (4 + 16) + 4 + 4 + 4 + 1 + (4 + 16);
  ASSERT_EQ(le32(1000), original.substr(at, 4));
  const std::pair<uint32_t, ULONG> cases[] = {
      {0, SAR_FILEERR}, {1000001, SAR_FILEERR}, {0xFFFFFFFFu, SAR_FILEERR},
      {1, SAR_OK},      {1000000, SAR_OK},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.first);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << original;
    rewriteRecord(path, [&](std::string &body) { body.replace(at, 4, le32(c.first)); });
    HAPPLICATION app = nullptr;
    EXPECT_EQ(c.second, SKF_OpenApplication(dev, const_cast<char *>("app"), &app));
  }
}

// A stored RSA key without modulus or exponent makes the file unreadable
// rather than a key of nothing.
TEST_F(PersistenceTest, RsaKeyWithoutModulusOrExponentIsRefused) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeRsaContainer(app);
  RSAPUBLICKEYBLOB blob;
  ULONG len = sizeof blob;
  ASSERT_EQ(SAR_OK, SKF_ExportPublicKey(con, TRUE, reinterpret_cast<BYTE *>(&blob), &len));
  const std::string modulus =
      le32(128) + std::string(reinterpret_cast<char *>(blob.Modulus) + 128, 128);
  const std::string exponent = le32(3) + std::string("\x01\x00\x01", 3);
  const std::string path = storePath() + "/tok1/app.app";
  const std::string original = readAll(path);
  for (const std::string &field : {modulus, exponent}) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << original;
    rewriteRecord(path, [&](std::string &body) {
      size_t at = body.find(field);
      ASSERT_NE(std::string::npos, at);
      body.replace(at, field.size(), le32(0));
    });
    HAPPLICATION again = nullptr;
    EXPECT_EQ(SAR_FILEERR, SKF_OpenApplication(dev, const_cast<char *>("app"), &again));
    EXPECT_EQ(SAR_FILEERR, SKF_ExportPublicKey(con, TRUE, nullptr, &len));
  }
}

// Without the cross-process lock no call goes ahead.
TEST_F(PersistenceTest, CallsFailWhenTheStoreLockCannotBeOpened) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  loginUser(app);
  const std::string lock = storePath() + "/tok1/store.lock";
  ASSERT_EQ(0, unlink(lock.c_str()));
  ASSERT_EQ(0, mkdir(lock.c_str(), 0700));
  // This process holds the lock file it opened before, now unlinked: a
  // write confirms it and fails. Another process cannot open one at all.
  HCONTAINER con;
  EXPECT_EQ(SAR_FILEERR, SKF_CreateContainer(app, const_cast<char *>("c"), &con));
  EXPECT_EQ(0, inChild([app] {
              ULONG size = 0;
              DEVHANDLE again;
              return (SKF_EnumContainer(app, nullptr, &size) == SAR_FILEERR ? 0 : 1) |
                     (SKF_ConnectDev(const_cast<char *>("tok1"), &again) == SAR_FILEERR ? 0 : 2);
            }));
  rmdir(lock.c_str());
}

TEST_F(PersistenceTest, StoreHoldsNoPinAndNoTokenKeyInClear) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  makeSm2Container(app);
  std::string contents = storeContents(storePath());
  EXPECT_EQ(std::string::npos, contents.find(kUserPin));
  EXPECT_EQ(std::string::npos, contents.find(kAdminPin));
}

}  // namespace
}  // namespace softskf_test
