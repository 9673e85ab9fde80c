// The host crypto stand-in through its C interface: refusal of malformed
// input, and the test fault switch. Its encodings and encryption are checked
// through the provider's exported calls (keys, sign, decrypt and import tests),
// on the paths the provider runs.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "crypto/keypair_blob.h"
#include "hostcrypto/include/orvel_test.h"
#include "tests/crypto/test_hex.h"

namespace tembra {
namespace {

using testing::fromHex;

constexpr int kSm3 = 0x7000;

// A host buffer released on scope exit, as the provider's RAII holders do.
struct HostBuffer {
  unsigned char *p = nullptr;
  int len = 0;
  ~HostBuffer() { OrvelPKICryptoFreeMemory(p); }
  std::vector<uint8_t> bytes() const { return std::vector<uint8_t>(p, p + len); }
};

class OrvelCrypto : public ::testing::Test {
 protected:
  void SetUp() override {
    OrvelTestClearFaults();
    m_device = OrvelPKICryptoGetPseudoDevice();
    ASSERT_NE(m_device, nullptr);
    ASSERT_TRUE(crypto::sm2Generate(m_sm2));
  }
  void TearDown() override {
    OrvelTestClearFaults();
    EXPECT_EQ(OrvelPKICryptoFreeDevice(m_device), 1);
  }

  std::vector<uint8_t> sm2Spki() {
    HostBuffer out;
    EXPECT_EQ(OrvelPKICryptoEncodeECCPubKey(7, m_sm2.publicKey.x, 32, m_sm2.publicKey.y, 32, &out.p,
                                            &out.len),
              1);
    return out.bytes();
  }

  ORVEL_PKI_DEVICE m_device = nullptr;
  crypto::Sm2KeyPair m_sm2;
};

// ---- Malformed input ----------------------------------------------------------

// Each case is one call that must answer 0 and leave its outputs untouched.
// The decoders' refusal of each malformed encoding is the crypto library's
// test; here one malformed input per call is enough.
struct BadCall {
  const char *name;
  std::function<int(unsigned char **out, int *outLen)> call;
};

TEST_F(OrvelCrypto, MalformedInputFailsCleanly) {
  const std::vector<uint8_t> spki = sm2Spki();
  const int spkiLen = static_cast<int>(spki.size());
  const uint8_t *x = m_sm2.publicKey.x;
  const uint8_t *y = m_sm2.publicKey.y;
  std::vector<uint8_t> rsaSpki;
  crypto::RsaPublicKey rsa;
  rsa.n = fromHex("c0ffee01c0ffee01c0ffee01c0ffee01");
  rsa.e = fromHex("010001");
  ASSERT_TRUE(crypto::encodeRsaSpki(rsa, rsaSpki));
  SecureBytes eccBlob;
  ASSERT_TRUE(crypto::encodeSm2KeyPairBlob(m_sm2, eccBlob));
  const int eccBlobLen = static_cast<int>(eccBlob.size());
  const std::vector<uint8_t> r(32, 1);
  ORVEL_PKI_PUBLICKEY sm2Key = nullptr;
  ORVEL_PKI_PUBLICKEY rsaKey = nullptr;
  ASSERT_EQ(OrvelPKICryptoImportPublicKey(m_device, spki.data(), spkiLen, &sm2Key), 1);
  ASSERT_EQ(OrvelPKICryptoImportPublicKey(m_device, rsaSpki.data(),
                                          static_cast<int>(rsaSpki.size()), &rsaKey),
            1);
  const uint8_t data[16] = {};
  const int otherHash = kSm3 + 1;
  unsigned char *second = reinterpret_cast<unsigned char *>(0x1);
  int secondLen = -7;
  int curve = -7;
  const uint8_t exponent[4] = {0, 1, 0, 1};
  const std::vector<uint8_t> zeros(32, 0);
  std::vector<uint8_t> longModulus(513, 0xC1);

  // One line per case: `o` and `l` are the call's output and length.
#define BAD_CALL(name, call)                                               \
  {                                                                        \
    name, [&](unsigned char **o, [[maybe_unused]] int *l) { return call; } \
  }
  const std::vector<uint8_t> r33(33, 1);
  const int rsaSpkiLen = static_cast<int>(rsaSpki.size());
  const std::vector<BadCall> cases = {
      BAD_CALL("EccCurve6", OrvelPKICryptoEncodeECCPubKey(6, x, 32, y, 32, o, l)),
      BAD_CALL("EccX31", OrvelPKICryptoEncodeECCPubKey(7, x, 31, y, 32, o, l)),
      BAD_CALL("EccY33", OrvelPKICryptoEncodeECCPubKey(7, x, 32, y, 33, o, l)),
      BAD_CALL("EccNullX", OrvelPKICryptoEncodeECCPubKey(7, nullptr, 32, y, 32, o, l)),
      BAD_CALL("EccNullOutLen", OrvelPKICryptoEncodeECCPubKey(7, x, 32, y, 32, o, nullptr)),
      BAD_CALL("EccPointOffCurve", OrvelPKICryptoEncodeECCPubKey(7, x, 32, x, 32, o, l)),
      BAD_CALL("RsaModulus513",
               OrvelPKICryptoEncodeRSAPubKey(longModulus.data(), 513, exponent, 4, o, l)),
      BAD_CALL("RsaModulusZero",
               OrvelPKICryptoEncodeRSAPubKey(zeros.data(), 32, exponent, 4, o, l)),
      BAD_CALL("RsaExponentLength0",
               OrvelPKICryptoEncodeRSAPubKey(longModulus.data(), 128, exponent, 0, o, l)),
      BAD_CALL("RsaNullModulus", OrvelPKICryptoEncodeRSAPubKey(nullptr, 128, exponent, 4, o, l)),
      BAD_CALL("DecodeEccTruncated", OrvelPKICryptoDecodeECCPubKey(spki.data(), spkiLen - 1, &curve,
                                                                   o, l, &second, &secondLen)),
      BAD_CALL("DecodeEccGivenRsa",
               OrvelPKICryptoDecodeECCPubKey(rsaSpki.data(), rsaSpkiLen, &curve, o, l, &second,
                                             &secondLen)),
      BAD_CALL("DecodeRsaGivenEcc",
               OrvelPKICryptoDecodeRSAPubKey(spki.data(), spkiLen, o, l, &second, &secondLen)),
      BAD_CALL("DecodeRsaNegativeLength",
               OrvelPKICryptoDecodeRSAPubKey(rsaSpki.data(), -1, o, l, &second, &secondLen)),
      BAD_CALL("SignatureR33",
               OrvelPKICryptoEncodeECCSignature(r33.data(), 33, r.data(), 32, o, l)),
      BAD_CALL("SignatureS31", OrvelPKICryptoEncodeECCSignature(r.data(), 32, r.data(), 31, o, l)),
      BAD_CALL("SignatureZeroR",
               OrvelPKICryptoEncodeECCSignature(zeros.data(), 32, r.data(), 32, o, l)),
      BAD_CALL("KeyPairOneByteShort",
               OrvelPKICryptoDecodeECCKeyPair(eccBlob.data(), eccBlobLen - 1, &curve, o, l, &second,
                                              &secondLen, &second, &secondLen)),
      BAD_CALL("KeyPairNullD",
               OrvelPKICryptoDecodeECCKeyPair(eccBlob.data(), eccBlobLen, &curve, o, l, &second,
                                              &secondLen, nullptr, &secondLen)),
      BAD_CALL("RsaDerFromEccBlob",
               OrvelPKICryptoRSAPrivKeyToDER(eccBlob.data(), eccBlobLen, o, l)),
      BAD_CALL("EncryptSm2KeyWithRsaAlgorithm",
               OrvelPKICryptoPublicKeyEncrypt(sm2Key, 0x10, &kSm3, data, 16, o, l)),
      BAD_CALL("EncryptSm2NullParam",
               OrvelPKICryptoPublicKeyEncrypt(sm2Key, 0x40, nullptr, data, 16, o, l)),
      BAD_CALL("EncryptSm2OtherHash",
               OrvelPKICryptoPublicKeyEncrypt(sm2Key, 0x40, &otherHash, data, 16, o, l)),
      BAD_CALL("EncryptRsaKeyWithSm2Algorithm",
               OrvelPKICryptoPublicKeyEncrypt(rsaKey, 0x40, &kSm3, data, 16, o, l)),
      BAD_CALL("EncryptRsaMessageTooLong",
               OrvelPKICryptoPublicKeyEncrypt(rsaKey, 0x10, nullptr, data, 16, o, l)),
      BAD_CALL("EncryptNullKey",
               OrvelPKICryptoPublicKeyEncrypt(nullptr, 0x40, &kSm3, data, 16, o, l)),
      BAD_CALL("EncryptEmptyMessage",
               OrvelPKICryptoPublicKeyEncrypt(sm2Key, 0x40, &kSm3, data, 0, o, l)),
  };
#undef BAD_CALL
  for (const BadCall &c : cases) {
    unsigned char *out = reinterpret_cast<unsigned char *>(0x2);
    int outLen = -9;
    EXPECT_EQ(c.call(&out, &outLen), 0) << c.name;
    EXPECT_EQ(out, reinterpret_cast<unsigned char *>(0x2)) << c.name;
    EXPECT_EQ(outLen, -9) << c.name;
  }
  EXPECT_EQ(second, reinterpret_cast<unsigned char *>(0x1));
  EXPECT_EQ(curve, -7);
  EXPECT_EQ(OrvelPKICryptoFreePublicKey(sm2Key), 1);
  EXPECT_EQ(OrvelPKICryptoFreePublicKey(rsaKey), 1);
}

TEST_F(OrvelCrypto, DeviceAndImportArgumentsAreChecked) {
  const std::vector<uint8_t> spki = sm2Spki();
  const int len = static_cast<int>(spki.size());
  ORVEL_PKI_PUBLICKEY key = nullptr;
  EXPECT_EQ(OrvelPKICryptoImportPublicKey(nullptr, spki.data(), len, &key), 0);
  EXPECT_EQ(OrvelPKICryptoImportPublicKey(m_device, spki.data(), len - 1, &key), 0);
  EXPECT_EQ(OrvelPKICryptoImportPublicKey(m_device, spki.data(), len, nullptr), 0);
  std::vector<uint8_t> notAKey = fromHex("300d06092a864886f70d0101010500");
  EXPECT_EQ(OrvelPKICryptoImportPublicKey(m_device, notAKey.data(),
                                          static_cast<int>(notAKey.size()), &key),
            0);
  EXPECT_EQ(key, nullptr);

  uint8_t buffer[8] = {};
  EXPECT_EQ(OrvelPKICryptoGenerateRandom(nullptr, 8, buffer), 0);
  EXPECT_EQ(OrvelPKICryptoGenerateRandom(m_device, 8, nullptr), 0);
  EXPECT_EQ(OrvelPKICryptoGenerateRandom(m_device, -1, buffer), 0);
  EXPECT_EQ(OrvelPKICryptoGenerateRandom(m_device, 0, buffer), 1);

  EXPECT_EQ(OrvelPKICryptoFreeDevice(nullptr), 1);
  EXPECT_EQ(OrvelPKICryptoFreePublicKey(nullptr), 1);
  EXPECT_EQ(OrvelPKICryptoFreeMemory(nullptr), 1);
  // A block this library did not hand out is refused, not freed.
  std::vector<uint8_t> foreign(64, 0);
  EXPECT_EQ(OrvelPKICryptoFreeMemory(foreign.data() + 16), 0);
}

// ---- Fault switch -------------------------------------------------------------

struct FaultCase {
  const char *name;
  int times;
  // Results of six calls in a row.
  std::vector<int> results;
};

class OrvelFaultSwitch : public OrvelCrypto, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(OrvelFaultSwitch, ArmedCallsAnswerTheResultWithoutActing) {
  const FaultCase &c = GetParam();
  ASSERT_EQ(OrvelTestSetFault("OrvelPKICryptoEncodeECCSignature", -3, c.times), 1);
  const std::vector<uint8_t> r(32, 1);
  for (size_t i = 0; i < c.results.size(); ++i) {
    unsigned char *out = nullptr;
    int outLen = 0;
    EXPECT_EQ(OrvelPKICryptoEncodeECCSignature(r.data(), 32, r.data(), 32, &out, &outLen),
              c.results[i])
        << "call " << i;
    // A failing call hands out nothing.
    EXPECT_EQ(out == nullptr, c.results[i] != 1) << "call " << i;
    OrvelPKICryptoFreeMemory(out);
  }
}

INSTANTIATE_TEST_SUITE_P(Times, OrvelFaultSwitch,
                         ::testing::Values(FaultCase{"Once", 1, {-3, 1, 1, 1, 1, 1}},
                                           FaultCase{"Twice", 2, {-3, -3, 1, 1, 1, 1}},
                                           FaultCase{"Always", -1, {-3, -3, -3, -3, -3, -3}},
                                           FaultCase{"Cleared", 0, {1, 1, 1, 1, 1, 1}}),
                         [](const ::testing::TestParamInfo<FaultCase> &caseInfo) {
                           return std::string(caseInfo.param.name);
                         });

TEST_F(OrvelCrypto, FaultSwitchRefusesUnknownNamesAndBadCounts) {
  EXPECT_EQ(OrvelTestSetFault("OrvelPKICryptoEncodeEccPubKey", 0, 1), 0);  // wrong case
  EXPECT_EQ(OrvelTestSetFault("DeviceInit", 0, 1), 0);
  EXPECT_EQ(OrvelTestSetFault(nullptr, 0, 1), 0);
  EXPECT_EQ(OrvelTestSetFault("OrvelPKICryptoGenerateRandom", 0, -2), 0);
  // Faults are per function: arming one leaves the others working.
  ASSERT_EQ(OrvelTestSetFault("OrvelPKICryptoGenerateRandom", 5, -1), 1);
  uint8_t buffer[4];
  EXPECT_EQ(OrvelPKICryptoGenerateRandom(m_device, 4, buffer), 5);
  HostBuffer out;
  EXPECT_EQ(OrvelPKICryptoEncodeECCPubKey(7, m_sm2.publicKey.x, 32, m_sm2.publicKey.y, 32, &out.p,
                                          &out.len),
            1);
  EXPECT_EQ(OrvelTestClearFaults(), 1);
  EXPECT_EQ(OrvelPKICryptoGenerateRandom(m_device, 4, buffer), 1);
}

// Calls from several threads use up an armed count exactly once each.
TEST_F(OrvelCrypto, FaultCountIsSharedExactlyAcrossThreads) {
  constexpr int kThreads = 4, kCallsPerThread = 200, kArmed = 300;
  ASSERT_EQ(OrvelTestSetFault("OrvelPKICryptoGenerateRandom", 0, kArmed), 1);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      uint8_t byte;
      for (int i = 0; i < kCallsPerThread; ++i) {
        if (OrvelPKICryptoGenerateRandom(m_device, 1, &byte) != 1) ++failures;
      }
    });
  }
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(failures.load(), kArmed);
}

}  // namespace
}  // namespace tembra
