// Random numbers, SM3 hashes, SM4 ciphers and the capability query through
// the provider's interface against a software token, with OpenSSL as the
// independent party for the digests and ciphertexts.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "provider/records.h"
#include "softskf/include/softskf.h"
#include "tests/provider_ops/ops_fixture.h"
#if defined(TEMBRA_TEST_HAVE_OPENSSL)
#include "tests/support/openssl_party.h"
#endif

namespace opstest {
namespace {

using Bytes = std::vector<uint8_t>;
using tembra::test::RegistryValue;

constexpr int kSm3 = ORVEL_PKI_ALGORITHM_SM3;
constexpr int kEcb = ORVEL_PKI_ALGORITHM_SMS4_ECB;
constexpr int kCbc = ORVEL_PKI_ALGORITHM_SMS4_CBC;
const uint8_t kKey[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                          0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};
const uint8_t kIv[16] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                         0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};

Bytes pattern(size_t n, unsigned seed = 7) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * seed + (i >> 8) + 3);
  return b;
}

std::string hex(const uint8_t *p, size_t n) {
  std::string s;
  char two[3];
  for (size_t i = 0; i < n; ++i) {
    snprintf(two, sizeof two, "%02X", p[i]);
    s += two;
  }
  return s;
}

class ServicesTest : public OpsTest {
 protected:
  std::vector<DeviceSpec> tokens() const override { return {makeToken("svc", {})}; }
  void TearDown() override {
    OpsTest::TearDown();
    tembra::test::removeRegistryKey();
    tembra::test::unsetEnv("TEMBRA_KEY_PROV_LOG_LEVEL");
  }
  // Starts the provider again on new settings; held handles stay valid.
  void restart(const std::vector<RegistryValue> &settings) {
    DeviceEnd();
    tembra::test::writeRegistry(settings);
    ASSERT_EQ(1, DeviceInit());
  }

  // The digest of `data` fed in updates of the given sizes (the rest last).
  Bytes digest(const Bytes &data, const std::vector<size_t> &splits) {
    SPI_HASH_HANDLE hHash = DeviceNewHash(device(), kSm3);
    EXPECT_NE(nullptr, hHash);
    size_t done = 0;
    for (size_t split : splits) {
      EXPECT_EQ(1, DeviceHashUpdate(hHash, data.data() + done, static_cast<int>(split)));
      done += split;
    }
    EXPECT_EQ(1, DeviceHashUpdate(hHash, data.data() + done, static_cast<int>(data.size() - done)));
    Bytes value(32);
    int len = 0;
    EXPECT_EQ(1, DeviceHashFinal(hHash, value.data(), 32, &len));
    EXPECT_EQ(1, DeviceFreeHash(hHash));
    return value;
  }

  // Runs `data` through a new cipher in updates of the given sizes.
  Bytes cipher(int algo, int enc, const Bytes &data, const std::vector<size_t> &splits) {
    SPI_CIPHER_HANDLE hCipher = DeviceNewCipher(device(), enc, algo, kKey, 16, kIv);
    EXPECT_NE(nullptr, hCipher);
    Bytes out(data.size());
    size_t done = 0;
    std::vector<size_t> pieces = splits;
    pieces.push_back(data.size());
    for (size_t split : pieces) {
      const size_t n = split < data.size() - done ? split : data.size() - done;
      int len = -1;
      EXPECT_EQ(1, DeviceCipherUpdate(hCipher, data.data() + done, static_cast<int>(n),
                                      out.data() + done, static_cast<int>(n), &len));
      EXPECT_EQ(static_cast<int>(n), len);
      done += n;
    }
    DeviceFreeCipher(hCipher);
    return out;
  }
};

// ---- Hashing --------------------------------------------------------------

TEST_F(ServicesTest, DigestsEqualOpenSslAroundThePieceSize) {
#if !defined(TEMBRA_TEST_HAVE_OPENSSL)
  GTEST_SKIP() << "OpenSSL is the reference on Linux only";
#else
  const size_t kLengths[] = {0, 1, 31, 1023, 1024, 1025, 2047, 2048, 2500, 5000};
  const std::vector<std::vector<size_t> > kSplits = {{}, {0}, {1}, {1000}, {1024, 0, 1}, {3, 1021}};
  for (size_t length : kLengths) {
    const Bytes data = pattern(length);
    for (const std::vector<size_t> &splits : kSplits) {
      size_t fed = 0;
      for (size_t s : splits) fed += s;
      if (fed > length) continue;
      SCOPED_TRACE("length " + std::to_string(length) + ", first split " +
                   std::to_string(splits.empty() ? 0 : splits[0]));
      EXPECT_EQ(tembra::test::openssl::sm3(data), digest(data, splits));
    }
  }
#endif
}

// The pieces that reach the token for one update, at several settings of
// MaxOperationLen (a value is rounded up to a multiple of 16).
TEST_F(ServicesTest, UpdatesReachTheTokenInPiecesOfMaxOperationLen) {
  struct Case {
    const char *setting;  // null: the default
    int length;
    std::vector<std::string> pieces;
  };
  const Case kCases[] = {
      {nullptr, 2500, {"1024", "1024", "452"}},
      {"dword:00000011", 100, {"32", "32", "32", "4"}},
      {"dword:000003e8", 2016, {"1008", "1008"}},
      {"dword:00000000", 1025, {"1024", "1"}},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.setting != nullptr ? c.setting : "default");
    std::vector<RegistryValue> settings;
    if (c.setting != nullptr) settings.push_back({"MaxOperationLen", c.setting});
    restart(settings);
    const Bytes data = pattern(static_cast<size_t>(c.length));
    SPI_HASH_HANDLE hHash = DeviceNewHash(device(), kSm3);
    ASSERT_NE(nullptr, hHash);
    mark();
    EXPECT_EQ(1, DeviceHashUpdate(hHash, data.data(), c.length));
    std::vector<std::string> pieces;
    for (const std::string &line : tokenCalls("SKF_DigestUpdate"))
      pieces.push_back(callField(line, "ulDataLen"));
    EXPECT_EQ(c.pieces, pieces);
#if defined(TEMBRA_TEST_HAVE_OPENSSL)
    Bytes value(32);
    int len = 0;
    EXPECT_EQ(1, DeviceHashFinal(hHash, value.data(), 32, &len));
    EXPECT_EQ(tembra::test::openssl::sm3(data), value);
#endif
    DeviceFreeHash(hHash);
  }
}

// Results and lines of the hash entry points outside the happy path, each on
// a fresh hash of "abc". Nothing of it finishes the digest or feeds it: a
// final afterwards still gives SM3("abc").
TEST_F(ServicesTest, HashResultsAndMessages) {
  struct Case {
    const char *name;
    bool final, handle, data;
    int len;
    bool withLength;
    int expected, expectedLength;  // -1: length not written
    const char *fault;             // token call made to fail once (and its line), or null
  };
  const Case kCases[] = {
      {"FinalNullHandle", true, false, true, 32, true, -2, -1, nullptr},
      {"FinalNullLength", true, true, true, 32, false, -1, -1, nullptr},
      {"LengthQuery", true, true, false, 0, true, 1, 32, nullptr},
      {"ShortBuffer", true, true, true, 31, true, -4, 32, nullptr},
      {"FinalFails", true, true, true, 32, true, 0, 32, "SKF_DigestFinal"},
      {"UpdateNullHandle", false, false, true, 1, true, -2, -1, nullptr},
      {"UpdateNegative", false, true, true, -1, true, -1, -1, nullptr},
      {"UpdateEmptyNull", false, true, false, 0, true, 1, -1, nullptr},
      {"UpdateNullData", false, true, false, 5, true, -1, -1, nullptr},
      {"UpdateFails", false, true, true, 3, true, 0, -1, "SKF_DigestUpdate"},
  };
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    SPI_HASH_HANDLE hHash = DeviceNewHash(device(), kSm3);
    ASSERT_NE(nullptr, hHash);
    ASSERT_EQ(1, DeviceHashUpdate(hHash, reinterpret_cast<const unsigned char *>("abc"), 3));
    if (c.fault != nullptr) SKFSoft_SetFault(c.fault, SAR_FAIL, 1);
    mark();
    uint8_t buffer[32];
    memset(buffer, 0xEE, sizeof buffer);
    int length = -1;
    SPI_HASH_HANDLE h = c.handle ? hHash : nullptr;
    uint8_t *data = c.data ? buffer : nullptr;
    EXPECT_EQ(c.expected, c.final
                              ? DeviceHashFinal(h, data, c.len, c.withLength ? &length : nullptr)
                              : DeviceHashUpdate(h, data, c.len));
    EXPECT_EQ(c.expectedLength, length);
    if (c.expected != 1) {
      EXPECT_EQ(Bytes(32, 0xEE), Bytes(buffer, buffer + 32));
    }
    std::vector<std::string> errors;
    if (c.fault != nullptr) errors.push_back(std::string(c.fault) + " fail, error = 0x0A000001");
    EXPECT_EQ(errors, m_log.messages("[ERROR]"));
#if defined(TEMBRA_TEST_HAVE_OPENSSL)
    Bytes value(32);
    EXPECT_EQ(1, DeviceHashFinal(hHash, value.data(), 32, &length));
    EXPECT_EQ(tembra::test::openssl::sm3(Bytes{'a', 'b', 'c'}), value);
#endif
    DeviceFreeHash(hHash);
  }

  // Only SM3, whatever HasSM3 says; a refused DigestInit answers null silently.
  mark();
  EXPECT_EQ(nullptr, DeviceNewHash(device(), kSm3 + 1));
  EXPECT_EQ(nullptr, DeviceNewHash(nullptr, kSm3));
  SKFSoft_SetFault("SKF_DigestInit", SAR_FAIL, 1);
  EXPECT_EQ(nullptr, DeviceNewHash(device(), kSm3));
  EXPECT_EQ(std::vector<std::string>{"only support sm3"}, m_log.messages("[ERROR]"));
  EXPECT_EQ(0, device()->m_hashCount);
}

// The hash and cipher lists grow by 64: the 65th live record of each kind
// works, and releasing them all leaves the device alive and unchanged.
TEST_F(ServicesTest, The65thLiveHashAndCipher) {
  std::vector<SPI_HASH_HANDLE> hashes;
  std::vector<SPI_CIPHER_HANDLE> ciphers;
  for (int i = 0; i < 65; ++i) {
    hashes.push_back(DeviceNewHash(device(), kSm3));
    ciphers.push_back(DeviceNewCipher(device(), 1, kEcb, kKey, 16, nullptr));
    ASSERT_NE(nullptr, hashes.back());
    ASSERT_NE(nullptr, ciphers.back());
  }
  SPI_DEVICE_HANDLE hDevice = device();
  EXPECT_EQ(128, hDevice->m_hashAllocCount);
  EXPECT_EQ(128, hDevice->m_cipherAllocCount);
  EXPECT_EQ(65, hDevice->m_hashCount);
  const int refCount = hDevice->m_refCount;
  uint8_t block[16] = {}, out[16];
  int len = 0;
  EXPECT_EQ(1, DeviceCipherUpdate(ciphers[64], block, 16, out, 16, &len));
  EXPECT_EQ(1, DeviceHashUpdate(hashes[64], block, 16));
  // Freed out of order: the list keeps the others.
  for (size_t i : {size_t(64), size_t(0), size_t(30)}) {
    DeviceFreeHash(hashes[i]);
    DeviceFreeCipher(ciphers[i]);
    hashes[i] = nullptr;
    ciphers[i] = nullptr;
  }
  EXPECT_EQ(62, hDevice->m_hashCount);
  EXPECT_EQ(refCount - 6, hDevice->m_refCount);
  for (int i = 0; i < 65; ++i) {
    if (hashes[i] == nullptr) continue;
    EXPECT_EQ(hashes[i], hDevice->m_hashes[i - (i > 30 ? 2 : 1)]);
  }
  mark();
  for (SPI_HASH_HANDLE h : hashes) DeviceFreeHash(h);
  for (SPI_CIPHER_HANDLE h : ciphers) DeviceFreeCipher(h);
  EXPECT_EQ(0, hDevice->m_hashCount + hDevice->m_cipherCount);
  EXPECT_EQ(124u, tokenCalls("SKF_CloseHandle").size());
  EXPECT_TRUE(tokenCalls("SKF_DisConnectDev").empty());
  EXPECT_EQ(1, DeviceGenerateRandom(hDevice, 16, out));
}

// A hash or cipher neither keeps its device alive nor destroys it: the last
// device handle destroys the device and the hash and cipher with it.
TEST_F(ServicesTest, HashAndCipherDoNotHoldTheirDevice) {
  for (bool releaseFirst : {true, false}) {
    SCOPED_TRACE(releaseFirst ? "hash and cipher released first" : "device released first");
    SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
    ASSERT_NE(nullptr, set);
    SPI_DEVICE_HANDLE hDevice = DeviceGetDevice(set, 0);
    ASSERT_NE(nullptr, hDevice);
    SPI_HASH_HANDLE hHash = DeviceNewHash(hDevice, kSm3);
    SPI_CIPHER_HANDLE hCipher = DeviceNewCipher(hDevice, 0, kCbc, kKey, 16, kIv);
    ASSERT_NE(nullptr, hHash);
    ASSERT_NE(nullptr, hCipher);
    DeviceFreeDevices(set);
    mark();
    if (releaseFirst) {
      DeviceFreeHash(hHash);
      DeviceFreeCipher(hCipher);
      EXPECT_EQ(2u, tokenCalls("SKF_CloseHandle").size());
      EXPECT_TRUE(tokenCalls("SKF_DisConnectDev").empty());
      uint8_t random[8];
      EXPECT_EQ(1, DeviceGenerateRandom(hDevice, 8, random));
    }
    DeviceFreeDevice(hDevice);
    EXPECT_EQ(2u, tokenCalls("SKF_CloseHandle").size());
    EXPECT_EQ(1u, tokenCalls("SKF_DisConnectDev").size());
  }
}

// ---- Ciphers --------------------------------------------------------------

#if defined(TEMBRA_TEST_HAVE_OPENSSL)
Bytes sm4Reference(bool cbc, bool encrypt, const Bytes &data) {
  return tembra::test::openssl::sm4Mode(cbc ? "SM4-CBC" : "SM4-ECB", encrypt, false,
                                        Bytes(kKey, kKey + 16), Bytes(kIv, kIv + 16), data);
}
#endif

TEST_F(ServicesTest, CiphersEqualOpenSslInAnySplit) {
#if !defined(TEMBRA_TEST_HAVE_OPENSSL)
  GTEST_SKIP() << "OpenSSL is the reference on Linux only";
#else
  const Bytes data = pattern(2560, 13);
  const std::vector<std::vector<size_t> > kSplits = {{}, {16, 16}, {1024, 0, 1040}, {48, 2048}};
  for (int algo : {kEcb, kCbc}) {
    for (int enc : {1, 0}) {
      const Bytes expected = sm4Reference(algo == kCbc, enc != 0, data);
      for (const std::vector<size_t> &splits : kSplits) {
        SCOPED_TRACE(std::string(algo == kCbc ? "CBC" : "ECB") + (enc ? " encrypt" : " decrypt") +
                     ", splits " + std::to_string(splits.size()));
        EXPECT_EQ(expected, cipher(algo, enc, data, splits));
      }
    }
  }
#endif
}

// One CBC encryption of 2560 bytes reaches the token as 1024, 1024 and 512,
// each piece chained on the last ciphertext block before it.
TEST_F(ServicesTest, CbcPiecesCarryTheIv) {
  const Bytes data = pattern(2560, 5);
  mark();
  const Bytes out = cipher(kCbc, 1, data, {});
  const std::vector<std::string> inits = tokenCalls("SKF_EncryptInit");
  const std::vector<std::string> pieces = tokenCalls("SKF_Encrypt");
  ASSERT_EQ(3u, inits.size());
  ASSERT_EQ(3u, pieces.size());
  EXPECT_EQ(hex(kIv, 16), callField(inits[0], "IV"));
  EXPECT_EQ(hex(out.data() + 1008, 16), callField(inits[1], "IV"));
  EXPECT_EQ(hex(out.data() + 2032, 16), callField(inits[2], "IV"));
  EXPECT_EQ("0", callField(inits[0], "PaddingType"));
  EXPECT_EQ("1024", callField(pieces[1], "ulDataLen"));
  EXPECT_EQ("512", callField(pieces[2], "ulDataLen"));
}

// A failing token call answers 0; only the decrypt-side init fails silently.
// The IV stays at the last good piece, so a retry continues the chain.
TEST_F(ServicesTest, FailedPieceKeepsTheIvAndLogsAsymmetrically) {
  struct Case {
    int enc;
    const char *fault;
    const char *error;  // null: no line
  };
  const Case kCases[] = {
      {1, "SKF_EncryptInit", "SKF_EncryptInit fail, error = 0x0A000001"},
      {1, "SKF_Encrypt", "SKF_Encrypt fail, error = 0x0A000001"},
      {0, "SKF_DecryptInit", nullptr},
      {0, "SKF_Decrypt", "SKF_Decrypt fail, error = 0x0A000001"},
  };
  const Bytes data = pattern(64, 3);
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.fault);
    SPI_CIPHER_HANDLE hCipher = DeviceNewCipher(device(), c.enc, kCbc, kKey, 16, kIv);
    ASSERT_NE(nullptr, hCipher);
    Bytes out(64);
    int len = 0;
    ASSERT_EQ(1, DeviceCipherUpdate(hCipher, data.data(), 32, out.data(), 32, &len));
    SKFSoft_SetFault(c.fault, SAR_FAIL, 1);
    mark();
    EXPECT_EQ(0, DeviceCipherUpdate(hCipher, data.data() + 32, 32, out.data() + 32, 32, &len));
    std::vector<std::string> errors;
    if (c.error != nullptr) errors.push_back(c.error);
    EXPECT_EQ(errors, m_log.messages("[ERROR]"));
    ASSERT_EQ(1, DeviceCipherUpdate(hCipher, data.data() + 32, 32, out.data() + 32, 32, &len));
#if defined(TEMBRA_TEST_HAVE_OPENSSL)
    EXPECT_EQ(sm4Reference(true, c.enc != 0, data), out);
#endif
    DeviceFreeCipher(hCipher);
  }
}

TEST_F(ServicesTest, CipherArgumentsAreRefusedWithoutALine) {
  // DeviceNewCipher: every refusal is a null handle and no [ERROR] line.
  mark();
  EXPECT_EQ(nullptr, DeviceNewCipher(nullptr, 1, kEcb, kKey, 16, nullptr));
  EXPECT_EQ(nullptr, DeviceNewCipher(device(), 1, 0x04800001, kKey, 16, nullptr));
  EXPECT_EQ(nullptr, DeviceNewCipher(device(), 1, kEcb, nullptr, 16, nullptr));
  EXPECT_EQ(nullptr, DeviceNewCipher(device(), 1, kEcb, kKey, 32, nullptr));
  EXPECT_EQ(nullptr, DeviceNewCipher(device(), 1, kEcb, kKey, 8, nullptr));
  EXPECT_EQ(nullptr, DeviceNewCipher(device(), 1, ORVEL_PKI_ALGORITHM_SM1_CBC, kKey, 16, nullptr));
  EXPECT_TRUE(tembra::test::tokenCallLog().empty());
  // SM1 maps, but this token refuses the key.
  EXPECT_EQ(nullptr, DeviceNewCipher(device(), 1, ORVEL_PKI_ALGORITHM_SM1_ECB, kKey, 16, nullptr));
  EXPECT_EQ(1u, tokenCalls("SKF_SetSymmKey").size());
  EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  EXPECT_EQ(0, device()->m_cipherCount);

  struct Case {
    const char *name;
    bool handle, in, out, length;
    int inlen, outlen;
    int expected, expectedLength;  // -9: untouched
  };
  const Case kCases[] = {
      {"NullHandle", false, true, true, true, 16, 16, -2, -9},
      {"NullLength", true, true, true, false, 16, 16, -1, -9},
      {"NegativeIn", true, true, true, true, -1, 16, -1, -9},
      {"EmptyNegativeOut", true, true, true, true, 0, -1, -1, 0},
      {"EmptyZeroOut", true, true, true, true, 0, 0, 1, 0},
      {"EmptyNullOut", true, true, false, true, 0, -1, 1, 0},
      {"NullIn", true, false, true, true, 16, 16, -1, 16},
      {"LengthQuery", true, true, false, true, 32, 0, 1, 32},
      {"ShortOut", true, true, true, true, 32, 31, -4, 32},
  };
  SPI_CIPHER_HANDLE hCipher = DeviceNewCipher(device(), 1, kCbc, kKey, 16, kIv);
  ASSERT_NE(nullptr, hCipher);
  const Bytes in = pattern(32);
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.name);
    mark();
    Bytes out(32, 0xEE);
    int length = -9;
    EXPECT_EQ(
        c.expected,
        DeviceCipherUpdate(c.handle ? hCipher : nullptr, c.in ? in.data() : nullptr, c.inlen,
                           c.out ? out.data() : nullptr, c.outlen, c.length ? &length : nullptr));
    EXPECT_EQ(c.expectedLength, length);
    EXPECT_EQ(Bytes(32, 0xEE), out);
    EXPECT_TRUE(tembra::test::tokenCallLog().empty());
    EXPECT_TRUE(m_log.messages("[ERROR]").empty());
  }
  DeviceFreeCipher(hCipher);
}

// At the verbose level the input is dumped, the output never: its line
// carries zeros of the same length. At the default level neither is built.
TEST_F(ServicesTest, CipherOutputNeverReachesTheLog) {
  const Bytes data = pattern(32, 11);
  for (int enc : {1, 0}) {
    for (const char *level : {"5", static_cast<const char *>(nullptr)}) {
      SCOPED_TRACE(std::string(enc ? "encrypt" : "decrypt") + " at level " +
                   (level != nullptr ? level : "unset"));
      if (level != nullptr) {
        tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_LEVEL", level);
      } else {
        tembra::test::unsetEnv("TEMBRA_KEY_PROV_LOG_LEVEL");
      }
      mark();
      const Bytes out = cipher(kCbc, enc, data, {16});
      std::vector<std::string> dumps;
      for (const tembra::test::LogLine &line : m_log.lines()) {
        EXPECT_EQ(std::string::npos, line.raw.find(hex(out.data(), 16))) << line.raw;
        if (line.level == "[VERBOSE]") dumps.push_back(line.function + " " + line.message);
      }
      std::vector<std::string> expected;
      if (level != nullptr) {
        for (int i = 0; i < 2; ++i) {
          expected.push_back("DeviceCipherUpdate in[length:16]: " + hex(data.data() + 16 * i, 16));
          expected.push_back("cipherUpdate out[length:16]: " + std::string(32, '0'));
        }
      }
      EXPECT_EQ(expected, dumps);
    }
  }
}

TEST_F(ServicesTest, RandomBytesComeFromTheTokenInOneCall) {
  uint8_t random[3000] = {};
  mark();
  EXPECT_EQ(1, DeviceGenerateRandom(device(), 3000, random));
  const std::vector<std::string> calls = tokenCalls("SKF_GenRandom");
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ("3000", callField(calls[0], "ulRandomLen"));
  EXPECT_NE(Bytes(3000, 0), Bytes(random, random + 3000));
  char info[160];
  snprintf(info, sizeof info, "hDevice = %p, int len = 3000, unsigned char *rand = %p",
           static_cast<void *>(device()), static_cast<void *>(random));
  EXPECT_TRUE(m_log.has("[INFO]", "DeviceGenerateRandom", info));
  SKFSoft_SetFault("SKF_GenRandom", SAR_GENRANDERR, 1);
  mark();
  EXPECT_EQ(0, DeviceGenerateRandom(device(), 16, random));
  EXPECT_EQ(std::vector<std::string>{"SKF_GenRandom fail, error = 0x0A000012"},
            m_log.messages("[ERROR]"));
  EXPECT_EQ(0, DeviceGenerateRandom(nullptr, 16, random));
  EXPECT_EQ(0, DeviceGenerateRandom(device(), -1, random));
}

// ---- Capabilities ---------------------------------------------------------

// Every row of the decision table over the capability bits the token
// reports, with the one [WARN] or [DEBUG] message it writes, or silence.
TEST_F(ServicesTest, CapabilityTable) {
  enum Param { None, Hash7000, Hash7001, Ecc, EccCurve8, EccTemp1 };
  struct Row {
    int algo, keyLen, usage;
    Param param;
    ULONG sym, asym, hash;
    int hasSM3, hasSM4;
    int expected;
    const char *level;  // null: silent
    const char *message;
  };
  const char *kW = "[WARN]";
  const char *kD = "[DEBUG]";
  const Row kRows[] = {
      {0x7000, 0, 3, None, 0, 0, 1, 1, 0, 1, kD,
       "Device support algo=ORVEL_PKI_ALGORITHM_SM3, usage=ORVEL_PKI_USAGE_HASH"},
      {0x7000, 0, 1, None, 0, 0, 1, 1, 0, 0, nullptr, nullptr},
      {0x7000, 0, 1, None, 0, 0, 1, 0, 0, 0, kW, "g_hasSM3 == 0 "},
      {0x7000, 0, 3, None, 0, 0, 2, 1, 0, 0, kW, "hDevice->m_info.AlgHashCap&SGD_SM3) == 0 "},
      {0x03000000, 0, 1, None, 0x201, 0, 0, 0, 0, 1, kD,
       "Device support algo=ORVEL_PKI_ALGORITHM_SSF33_ECB, usage=ORVEL_PKI_USAGE_ENCRYPT || "
       "ORVEL_PKI_USAGE_DECRYPT"},
      {0x03000000, 0, 11, None, 0x201, 0, 0, 0, 0, 0, nullptr, nullptr},
      {0x03000000, 0, 2, None, 0x401, 0, 0, 0, 0, 0, kW,
       "(hDevice->m_info.AlgSymCap & 0xFF & 0x1) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 "
       "& 0x200) != 0"},
      {0x03400000, 0, 2, None, 0x202, 0, 0, 0, 0, 1, kD,
       "Device support algo=ORVEL_PKI_ALGORITHM_SSF33_CBC, usage=ORVEL_PKI_USAGE_ENCRYPT || "
       "ORVEL_PKI_USAGE_DECRYPT"},
      {0x03400000, 0, 1, None, 0x002, 0, 0, 0, 0, 0, kW,
       "(hDevice->m_info.AlgSymCap & 0xFF & 0x2) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 "
       "& 0x200) != 0"},
      {0x03C00000, 0, 11, None, 0x101, 0, 0, 0, 0, 1, kD,
       "Device support algo=ORVEL_PKI_ALGORITHM_SM1_ECB, usage=ORVEL_PKI_USAGE_ENCRYPT || "
       "ORVEL_PKI_USAGE_DECRYPT || ORVEL_PKI_USAGE_IMPORTKEYPAIR"},
      {0x03C00000, 0, 1, None, 0x001, 0, 0, 0, 0, 0, kW,
       "(hDevice->m_info.AlgSymCap & 0xFF & 0x1) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 "
       "& 0x100) != 0"},
      {0x04000000, 0, 2, None, 0x102, 0, 0, 0, 0, 1, kD,
       "Device support algo=ORVEL_PKI_ALGORITHM_SM1_CBC, usage= ORVEL_PKI_USAGE_ENCRYPT || "
       "ORVEL_PKI_USAGE_DECRYPT"},
      {0x04000000, 0, 11, None, 0x102, 0, 0, 0, 0, 0, nullptr, nullptr},
      {0x04000000, 0, 1, None, 0x100, 0, 0, 0, 0, 0, kW,
       "(hDevice->m_info.AlgSymCap & 0xFF & 0x2) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 "
       "& 0x100) != 0"},
      {0x04800000, 0, 1, None, 0x401, 0, 0, 0, 1, 1, kD,
       "Device support algo=ORVEL_PKI_ALGORITHM_SMS4_ECB, usage= ORVEL_PKI_USAGE_ENCRYPT || "
       "ORVEL_PKI_USAGE_DECRYPT"},
      {0x04800000, 0, 1, None, 0x401, 0, 0, 0, 0, 0, nullptr, nullptr},
      {0x04800000, 0, 1, None, 0x402, 0, 0, 0, 1, 0, kW,
       "(hDevice->m_info.AlgSymCap & 0xFF & 0x1) == 0 || (hDevice->m_info.AlgSymCap & 0xFFFFFF00 "
       "& 0x400) == 0"},
      {0x04C00000, 0, 2, None, 0x402, 0, 0, 0, 1, 1, kD,
       "Device support algo=ORVEL_PKI_ALGORITHM_SMS4_CBC, usage= ORVEL_PKI_USAGE_ENCRYPT || "
       "ORVEL_PKI_USAGE_DECRYPT"},
      {0x04C00000, 0, 2, None, 0x402, 0, 0, 0, 0, 0, nullptr, nullptr},
      {0x04C00000, 0, 3, None, 0x402, 0, 0, 0, 1, 0, nullptr, nullptr},
      {0x04C00000, 0, 2, None, 0x401, 0, 0, 0, 1, 0, kW,
       "(hDevice->m_info.AlgSymCap & 0xFF & 0x2) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 "
       "& 0x400) != 0"},
      {0x30, 0, 2, None, 0, 0, 0, 0, 0, 1, nullptr, nullptr},
      {0x30, 0, 1, None, 0, 0, 0, 0, 0, 0, nullptr, nullptr},
      {0x10, 0, 2, None, 0, 0, 0, 0, 0, 1, nullptr, nullptr},
      {0x40, 0, 2, Hash7000, 0, 0x20400, 0, 0, 0, 1, nullptr, nullptr},
      {0x40, 0, 2, None, 0, 0x20400, 0, 0, 0, 0, nullptr, nullptr},
      {0x40, 0, 2, Hash7001, 0, 0x20400, 0, 0, 0, 0, nullptr, nullptr},
      {0x40, 0, 2, Hash7000, 0, 0x00400, 0, 0, 0, 0, nullptr, nullptr},
      {0x100, 0, 5, None, 0, 0x10000, 0, 0, 0, 1, nullptr, nullptr},
      {0x100, 0, 5, None, 0, 0x20100, 0, 0, 0, 0, nullptr, nullptr},
      {0x1000, 0, 5, None, 0, 0x20100, 0, 0, 0, 1, nullptr, nullptr},
      {0x1000, 0, 5, None, 0, 0x00100, 0, 0, 0, 0, nullptr, nullptr},
      {1, 2048, 7, None, 0, 0, 0, 0, 0, 1, nullptr, nullptr},
      {1, 1024, 7, Hash7000, 0, 0, 0, 0, 0, 0, nullptr, nullptr},
      {1, 1536, 7, None, 0, 0, 0, 0, 0, 0, kW, "keyLen != 1024 || keyLen != 2048"},
      {1, 2048, 5, None, 0, 0, 0, 0, 0, 0, kW, "usage != ORVEL_PKI_USAGE_GENKEYPAIR"},
      {4, 256, 7, Ecc, 0, 0x00000100, 0, 0, 0, 1, nullptr, nullptr},
      {4, 256, 7, Ecc, 0, 0, 0, 0, 0, 0, kW, "eccParam->m_curve != ORVEL_PKI_ECC_CURVE_SM2"},
      {4, 256, 7, EccCurve8, 0, 0x20100, 0, 0, 0, 0, kW,
       "eccParam->m_curve != ORVEL_PKI_ECC_CURVE_SM2"},
      {4, 256, 7, EccTemp1, 0, 0x20100, 0, 0, 0, 0, kW, "eccParam->m_temp = 1"},
      {4, 256, 7, None, 0, 0x20100, 0, 0, 0, 0, kW, "eccParam == 0"},
      {4, 256, 1, Ecc, 0, 0x20100, 0, 0, 0, 0, kW, "usage != ORVEL_PKI_USAGE_GENKEYPAIR"},
      {2, 0, 1, None, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 1, 1, 0, nullptr, nullptr},
  };
  char deviceName[] = "svc";
  char unknownName[] = "nope";
  EXPECT_EQ(static_cast<ULONG>(SAR_FILE_NOT_EXIST), SKFSoft_SetCapabilities(unknownName, 0, 0, 0));
  tembra::test::setEnv("TEMBRA_KEY_PROV_LOG_LEVEL", "4");
  int settings = -1;
  for (size_t i = 0; i < sizeof kRows / sizeof kRows[0]; ++i) {
    const Row &r = kRows[i];
    SCOPED_TRACE("row " + std::to_string(i));
    const int wanted = r.hasSM3 * 2 + r.hasSM4;
    if (wanted != settings) {
      restart({{"HasSM3", r.hasSM3 ? "dword:00000001" : "dword:00000000"},
               {"HasSM4", r.hasSM4 ? "dword:00000001" : "dword:00000000"}});
      settings = wanted;
    }
    ASSERT_EQ(kTokenOk, SKFSoft_SetCapabilities(deviceName, r.sym, r.asym, r.hash));
    SPI_DEVICESET_HANDLE set = DeviceGetAllDevices();
    SPI_DEVICE_HANDLE hDevice = DeviceGetDevice(set, 0);
    ASSERT_NE(nullptr, hDevice);
    const int hashValue = r.param == Hash7001 ? 0x7001 : 0x7000;
    ORVEL_PKI_ECC_PARAM ecc = {r.param == EccCurve8 ? 8 : 7, r.param == EccTemp1 ? 1 : 0};
    const void *param = r.param == None ? nullptr
                        : r.param == Hash7000 || r.param == Hash7001
                            ? static_cast<const void *>(&hashValue)
                            : static_cast<const void *>(&ecc);
    m_log.mark();
    EXPECT_EQ(r.expected, DeviceIsSupportedAlgorithm2(hDevice, r.algo, r.keyLen, r.usage, param));
    std::vector<std::string> lines, expected;
    for (const tembra::test::LogLine &line : m_log.lines()) {
      if (line.function == "DeviceIsSupportedAlgorithm2")
        lines.push_back(line.level + " " + line.message);
    }
    char algoLine[32];
    snprintf(algoLine, sizeof algoLine, "[DEBUG] algo : 0x%08x", static_cast<unsigned>(r.algo));
    expected = {algoLine, "[DEBUG] keyLen : " + std::to_string(r.keyLen),
                "[DEBUG] usage : " + std::to_string(r.usage)};
    if (r.level != nullptr) expected.push_back(std::string(r.level) + " " + r.message);
    EXPECT_EQ(expected, lines);
    DeviceFreeDevice(hDevice);
    DeviceFreeDevices(set);
  }
  EXPECT_EQ(0, DeviceIsSupportedAlgorithm2(nullptr, 0x7000, 0, 3, nullptr));
}

}  // namespace
}  // namespace opstest
