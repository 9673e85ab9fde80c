// The fault switch and the call record, which the provider's tests rely on,
// and the library's thread safety.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/softskf/soft_token_fixture.h"

namespace softskf_test {
namespace {

class DiagnosticsTest : public SoftTokenTest {};

// The value of "name=value" in a record line.
std::string valueOf(const std::string &line, const std::string &name) {
  size_t at = line.find(" " + name + "=");
  if (at == std::string::npos) return std::string();
  at += name.size() + 2;
  return line.substr(at, line.find(' ', at) - at);
}

// The record's name of a device handle made before recording started.
std::string describeDevice(DEVHANDLE dev) {
  SKFSoft_StartCallLog();
  SKF_UnlockDev(dev);
  std::vector<std::string> log = SoftTokenTest::callLog();
  return log.empty() ? std::string() : valueOf(log[0], "hDev");
}

TEST_F(DiagnosticsTest, FaultsAnswerTheChosenResultForTheChosenNumberOfCalls) {
  DEVHANDLE dev = makeDevice();
  struct Step {
    int times;
    std::vector<ULONG> results;  // of consecutive SKF_LockDev calls
  };
  const Step steps[] = {
      {2, {SAR_TIMEOUTERR, SAR_TIMEOUTERR, SAR_OK}},
      {-1, {SAR_TIMEOUTERR, SAR_TIMEOUTERR, SAR_TIMEOUTERR, SAR_TIMEOUTERR}},
      {0, {SAR_OK, SAR_OK}},
  };
  for (const Step &step : steps) {
    SCOPED_TRACE(step.times);
    ASSERT_EQ(SAR_OK, SKFSoft_SetFault("SKF_LockDev", SAR_TIMEOUTERR, step.times));
    for (ULONG expected : step.results) {
      EXPECT_EQ(expected, SKF_LockDev(dev, 0xFFFFFFFF));
      SKF_UnlockDev(dev);
    }
  }
  ASSERT_EQ(SAR_OK, SKFSoft_SetFault("SKF_GetDevInfo", 0x0A000099, -1));
  DEVINFO info;
  EXPECT_EQ(0x0A000099u, SKF_GetDevInfo(dev, &info));
  EXPECT_EQ(SAR_OK, SKF_UnlockDev(dev)) << "other functions are not affected";
  ASSERT_EQ(SAR_OK, SKFSoft_ClearFaults());
  EXPECT_EQ(SAR_OK, SKF_GetDevInfo(dev, &info));
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKFSoft_SetFault("SKF_NoSuchCall", SAR_FAIL, 1));
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKFSoft_SetFault(nullptr, SAR_FAIL, 1));
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKFSoft_SetFault("SKF_LockDev", SAR_FAIL, -2));
}

TEST_F(DiagnosticsTest, FaultedCallsAreRecordedButDoNotAct) {
  ASSERT_EQ(SAR_OK, SKFSoft_CreateDevice("tok1", "L", "S", kAuthKey));
  ASSERT_EQ(SAR_OK, SKFSoft_StartCallLog());
  ASSERT_EQ(SAR_OK, SKFSoft_SetFault("SKF_ConnectDev", SAR_DEVICE_REMOVED, 1));
  DEVHANDLE dev = nullptr;
  EXPECT_EQ(SAR_DEVICE_REMOVED, SKF_ConnectDev(const_cast<char *>("tok1"), &dev));
  EXPECT_EQ(nullptr, dev);
  std::vector<std::string> log = callLog();
  ASSERT_EQ(1u, log.size());
  EXPECT_EQ("SKF_ConnectDev szName=tok1", log[0]);
}

TEST_F(DiagnosticsTest, CallRecordHasOneStableLinePerCall) {
  DEVHANDLE dev = makeDevice();
  HAPPLICATION app = makeApplication(dev);
  HCONTAINER con = makeSm2Container(app);
  const std::string first = describeDevice(dev);
  ASSERT_EQ(SAR_OK, SKFSoft_StartCallLog());

  DEVHANDLE dev2;
  ASSERT_EQ(SAR_OK, SKF_ConnectDev(const_cast<char *>("tok1"), &dev2));
  ASSERT_EQ(SAR_OK, SKF_LockDev(dev2, 0xFFFFFFFF));
  ASSERT_EQ(SAR_OK, SKF_UnlockDev(dev2));
  ULONG retry;
  ASSERT_EQ(SAR_OK, SKF_VerifyPIN(app, USER_TYPE, const_cast<char *>(kUserPin), &retry));
  HANDLE hash;
  ASSERT_EQ(SAR_OK, SKF_DigestInit(dev2, SGD_SM3, nullptr, nullptr, 0, &hash));
  std::vector<BYTE> data(1024, 0x5A);
  ASSERT_EQ(SAR_OK, SKF_DigestUpdate(hash, data.data(), 1024));
  BYTE key[16] = {0x11, 0x22};
  HANDLE hKey;
  ASSERT_EQ(SAR_OK, SKF_SetSymmKey(dev2, key, SGD_SMS4_CBC, &hKey));
  BLOCKCIPHERPARAM param = {};
  for (BYTE i = 0; i < 16; ++i) param.IV[i] = static_cast<BYTE>(i * 0x11);
  param.IVLen = 16;
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(hKey, param));
  std::vector<BYTE> blob(sizeof(ECCCIPHERBLOB) + 15, 0);
  reinterpret_cast<ECCCIPHERBLOB *>(blob.data())->CipherLen = 16;
  ULONG len = 0;
  SKF_ECCDecrypt(con, FALSE, reinterpret_cast<ECCCIPHERBLOB *>(blob.data()), nullptr, &len);
  ASSERT_EQ(SAR_OK, SKF_CloseHandle(hash));

  std::vector<std::string> log = callLog();
  ASSERT_EQ(10u, log.size());
  const std::string d = valueOf(log[0], "hDev");
  const std::string a = valueOf(log[3], "hApplication");
  const std::string h = valueOf(log[4], "hHash");
  const std::string k = valueOf(log[6], "hKey");
  const std::string c = valueOf(log[8], "hContainer");
  EXPECT_EQ('D', d[0]);
  EXPECT_EQ('A', a[0]);
  EXPECT_EQ('H', h[0]);
  EXPECT_EQ('K', k[0]);
  EXPECT_EQ('C', c[0]);
  EXPECT_NE(first, d) << "a new handle per connection";
  const std::vector<std::string> expected = {
      "SKF_ConnectDev szName=tok1 -> hDev=" + d,
      "SKF_LockDev hDev=" + d + " ulTimeOut=0xFFFFFFFF",
      "SKF_UnlockDev hDev=" + d,
      "SKF_VerifyPIN hApplication=" + a + " ulPINType=1",
      "SKF_DigestInit hDev=" + d + " ulAlgID=0x00000001 pPubKey=0 ulIDLen=0 -> hHash=" + h,
      "SKF_DigestUpdate hHash=" + h + " ulDataLen=1024",
      "SKF_SetSymmKey hDev=" + d + " ulAlgID=0x00000402 -> hKey=" + k,
      "SKF_EncryptInit hKey=" + k + " IVLen=16 IV=00112233445566778899AABBCCDDEEFF PaddingType=0",
      "SKF_ECCDecrypt hContainer=" + c + " bSignFlag=0 CipherLen=16",
      "SKF_CloseHandle hHandle=" + h,
  };
  EXPECT_EQ(expected, log);
  // Never a PIN or a key.
  for (const std::string &line : log) {
    EXPECT_EQ(std::string::npos, line.find(kUserPin)) << line;
    EXPECT_EQ(std::string::npos, line.find("1122000000")) << line;
  }
}

TEST_F(DiagnosticsTest, StoppedRecordKeepsItsLinesAndStartClearsThem) {
  DEVHANDLE dev = makeDevice();
  ASSERT_EQ(SAR_OK, SKFSoft_StartCallLog());
  ASSERT_EQ(SAR_OK, SKF_UnlockDev(dev));
  ASSERT_EQ(SAR_OK, SKFSoft_StopCallLog());
  ASSERT_EQ(SAR_OK, SKF_UnlockDev(dev));
  EXPECT_EQ(1u, callLog().size());
  ULONG len = 0;
  ASSERT_EQ(SAR_OK, SKFSoft_GetCallLog(nullptr, &len));
  std::vector<char> small(len - 1);
  ULONG shortLen = len - 1;
  EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKFSoft_GetCallLog(small.data(), &shortLen));
  EXPECT_EQ(len, shortLen);
  ASSERT_EQ(SAR_OK, SKFSoft_StartCallLog());
  EXPECT_TRUE(callLog().empty());
}

TEST_F(DiagnosticsTest, ConcurrentDigestsOnSeparateHandlesStayApart) {
  DEVHANDLE dev = makeDevice();
  const int kThreads = 4;
  std::vector<std::vector<BYTE>> digests(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      HANDLE hash = nullptr;
      if (SKF_DigestInit(dev, SGD_SM3, nullptr, nullptr, 0, &hash) != SAR_OK) return;
      BYTE abc[3] = {'a', 'b', 'c'};
      // Thread t hashes "abc" repeated t+1 times, one byte per call.
      for (int r = 0; r <= t; ++r) {
        for (BYTE &b : abc) SKF_DigestUpdate(hash, &b, 1);
      }
      digests[t].resize(32);
      ULONG len = 32;
      SKF_DigestFinal(hash, digests[t].data(), &len);
      SKF_CloseHandle(hash);
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    std::string message;
    for (int r = 0; r <= t; ++r) message += "abc";
    HANDLE hash;
    ASSERT_EQ(SAR_OK, SKF_DigestInit(dev, SGD_SM3, nullptr, nullptr, 0, &hash));
    ASSERT_EQ(SAR_OK, SKF_DigestUpdate(hash, reinterpret_cast<BYTE *>(&message[0]),
                                       static_cast<ULONG>(message.size())));
    std::vector<BYTE> expected(32);
    ULONG len = 32;
    ASSERT_EQ(SAR_OK, SKF_DigestFinal(hash, expected.data(), &len));
    EXPECT_EQ(expected, digests[t]) << t;
  }
}

}  // namespace
}  // namespace softskf_test
