// The software token as an independent GM/T 0016 client sees it: the library
// opened by path, every function of the standard resolved by name (a missing
// export fails), each driven through its published prototype, and the
// cryptography checked by OpenSSL.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <string.h>

#include <future>
#include <sstream>
#include <string>
#include <thread>

#include "tests/softskf/soft_token_fixture.h"
#include "tests/support/openssl_party.h"

using namespace softskf_test;
using namespace tembra::test::openssl;

namespace {

void *library() {
  static void *handle = dlopen(TEMBRA_QXSKFAPI_PATH, RTLD_NOW);
  return handle;
}

// The function of that name in the library, typed by its declared prototype.
#define SKF(name) (reinterpret_cast<decltype(&::name)>(dlsym(library(), #name)))

// Every function of the standard, separated by spaces.
const char kStandardFunctions[] =
    "SKF_WaitForDevEvent SKF_CancelWaitForDevEvent SKF_EnumDev SKF_ConnectDev "
    "SKF_DisConnectDev SKF_GetDevState SKF_SetLabel SKF_GetDevInfo SKF_LockDev SKF_UnlockDev "
    "SKF_Transmit SKF_ChangeDevAuthKey SKF_DevAuth SKF_ChangePIN SKF_GetPINInfo "
    "SKF_VerifyPIN SKF_UnblockPIN SKF_ClearSecureState SKF_CreateApplication "
    "SKF_EnumApplication SKF_DeleteApplication SKF_OpenApplication SKF_CloseApplication "
    "SKF_CreateFile SKF_DeleteFile SKF_EnumFiles SKF_GetFileInfo SKF_ReadFile SKF_WriteFile "
    "SKF_CreateContainer SKF_DeleteContainer SKF_OpenContainer SKF_CloseContainer "
    "SKF_EnumContainer SKF_GetContainerType SKF_ImportCertificate SKF_ExportCertificate "
    "SKF_GenRandom SKF_GenExtRSAKey SKF_GenRSAKeyPair SKF_ImportRSAKeyPair SKF_RSASignData "
    "SKF_RSAVerify SKF_RSAExportSessionKey SKF_ExtRSAPubKeyOperation "
    "SKF_ExtRSAPriKeyOperation SKF_GenECCKeyPair SKF_ImportECCKeyPair SKF_ECCSignData "
    "SKF_ECCVerify SKF_ECCExportSessionKey SKF_ExtECCEncrypt SKF_ExtECCDecrypt "
    "SKF_ExtECCSign SKF_ExtECCVerify SKF_GenerateAgreementDataWithECC "
    "SKF_GenerateAgreementDataAndKeyWithECC SKF_GenerateKeyWithECC SKF_ExportPublicKey "
    "SKF_ImportSessionKey SKF_SetSymmKey SKF_EncryptInit SKF_Encrypt SKF_EncryptUpdate "
    "SKF_EncryptFinal SKF_DecryptInit SKF_Decrypt SKF_DecryptUpdate SKF_DecryptFinal "
    "SKF_DigestInit SKF_Digest SKF_DigestUpdate SKF_DigestFinal SKF_MacInit SKF_Mac "
    "SKF_MacUpdate SKF_MacFinal SKF_CloseHandle";

TEST(ConformanceExports, EveryStandardFunctionResolves) {
  ASSERT_NE(nullptr, library()) << dlerror();
  std::istringstream names(kStandardFunctions);
  int count = 0;
  for (std::string name; names >> name; ++count) {
    EXPECT_NE(nullptr, dlsym(library(), name.c_str())) << name;
  }
  EXPECT_EQ(78, count);
}

Bytes pattern(size_t n, unsigned char seed) {
  Bytes out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<unsigned char>(seed + i * 7);
  return out;
}

BLOCKCIPHERPARAM param(const Bytes &iv, ULONG padding) {
  BLOCKCIPHERPARAM p;
  memset(&p, 0, sizeof p);
  if (!iv.empty()) memcpy(p.IV, iv.data(), iv.size());
  p.IVLen = static_cast<ULONG>(iv.size());
  p.PaddingType = padding;
  return p;
}

class ConformanceTest : public SoftTokenTest {
 protected:
  void SetUp() override {
    SoftTokenTest::SetUp();
    ASSERT_NE(nullptr, library());
    dev = makeDevice();
    app = makeApplication(dev);
    con = makeSm2Container(app);
  }
  HANDLE symmKey(const Bytes &key, ULONG alg = SGD_SMS4_ECB) {
    HANDLE h = nullptr;
    EXPECT_EQ(SAR_OK, SKF(SKF_SetSymmKey)(dev, const_cast<BYTE *>(key.data()), alg, &h));
    return h;
  }
  // One block under a session key (ECB, no padding), to compare keys.
  static Bytes encryptBlock(HANDLE key) {
    Bytes out(16);
    ULONG len = 16;
    Bytes block = pattern(16, 1);
    EXPECT_EQ(SAR_OK, SKF(SKF_EncryptInit)(key, param(Bytes(), 0)));
    EXPECT_EQ(SAR_OK, SKF(SKF_Encrypt)(key, block.data(), 16, out.data(), &len));
    return out;
  }
  ECCPUBLICKEYBLOB exportEcc(BOOL sign) {
    ECCPUBLICKEYBLOB blob;
    ULONG len = sizeof blob;
    EXPECT_EQ(SAR_OK, SKF(SKF_ExportPublicKey)(con, sign, reinterpret_cast<BYTE *>(&blob), &len));
    return blob;
  }
  // Gives the container an encryption key pair the test knows.
  Sm2Pair importEncryptionPair() {
    Sm2Pair pair = newSm2Pair();
    Bytes env = sm2Envelope(sm2KeyFromBlob(exportEcc(TRUE)).get(), pair);
    EXPECT_EQ(SAR_OK,
              SKF(SKF_ImportECCKeyPair)(con, reinterpret_cast<ENVELOPEDKEYBLOB *>(env.data())));
    return pair;
  }
  DEVHANDLE dev = nullptr;
  HAPPLICATION app = nullptr;
  HCONTAINER con = nullptr;
};

// Runs `data` through *Update in `chunk`-byte pieces and *Final.
Bytes stream(bool encrypt, HANDLE key, const Bytes &data, size_t chunk) {
  Bytes out;
  for (size_t at = 0; at < data.size(); at += chunk) {
    const ULONG n = static_cast<ULONG>(std::min(chunk, data.size() - at));
    Bytes part(n + 16);
    ULONG len = static_cast<ULONG>(part.size());
    BYTE *in = const_cast<BYTE *>(data.data() + at);
    EXPECT_EQ(SAR_OK, encrypt ? SKF(SKF_EncryptUpdate)(key, in, n, part.data(), &len)
                              : SKF(SKF_DecryptUpdate)(key, in, n, part.data(), &len));
    out.insert(out.end(), part.begin(), part.begin() + len);
  }
  Bytes last(16);
  ULONG len = 16;
  EXPECT_EQ(SAR_OK, encrypt ? SKF(SKF_EncryptFinal)(key, last.data(), &len)
                            : SKF(SKF_DecryptFinal)(key, last.data(), &len));
  out.insert(out.end(), last.begin(), last.begin() + len);
  return out;
}

TEST_F(ConformanceTest, StreamingCipherAgreesWithOpenSsl) {
  const struct {
    ULONG alg, padding;
    size_t len, chunk;
    const char *mode;
  } cases[] = {{SGD_SMS4_ECB, 0, 32, 7, "SM4-ECB"},  {SGD_SMS4_ECB, 1, 33, 5, "SM4-ECB"},
               {SGD_SMS4_CBC, 0, 96, 40, "SM4-CBC"}, {SGD_SMS4_CBC, 1, 100, 7, "SM4-CBC"},
               {SGD_SMS4_CBC, 1, 48, 16, "SM4-CBC"}, {SGD_SMS4_CBC, 1, 0, 1, "SM4-CBC"},
               {SGD_SMS4_CFB, 0, 45, 7, "SM4-CFB"},  {SGD_SMS4_OFB, 1, 37, 16, "SM4-OFB"}};
  const Bytes key = pattern(16, 3), iv = pattern(16, 9);
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << std::hex << c.alg << " pad " << c.padding << " len " << std::dec << c.len);
    const Bytes plain = pattern(c.len, 5), useIv = c.alg == SGD_SMS4_ECB ? Bytes() : iv;
    HANDLE h = symmKey(key, c.alg);
    ASSERT_EQ(SAR_OK, SKF(SKF_EncryptInit)(h, param(useIv, c.padding)));
    const Bytes cipher = stream(true, h, plain, c.chunk);
    EXPECT_EQ(sm4Mode(c.mode, true, c.padding == 1, key, useIv, plain), cipher);
    Bytes once(c.len + 16);
    ULONG onceLen = static_cast<ULONG>(once.size());
    ASSERT_EQ(SAR_OK, SKF(SKF_EncryptInit)(h, param(useIv, c.padding)));
    ASSERT_EQ(SAR_OK, SKF(SKF_Encrypt)(h, const_cast<BYTE *>(plain.data()),
                                       static_cast<ULONG>(c.len), once.data(), &onceLen));
    EXPECT_EQ(cipher, Bytes(once.begin(), once.begin() + onceLen));
    ASSERT_EQ(SAR_OK, SKF(SKF_DecryptInit)(h, param(useIv, c.padding)));
    EXPECT_EQ(plain, stream(false, h, cipher, c.chunk + 3));
    Bytes rest(16);
    ULONG len = 16;  // spent until the next *Init
    EXPECT_EQ(SAR_NOTINITIALIZEERR, SKF(SKF_DecryptFinal)(h, rest.data(), &len));
    EXPECT_EQ(SAR_OK, SKF(SKF_CloseHandle)(h));
  }
}

TEST_F(ConformanceTest, StreamingRefusesBadTailsAndPadding) {
  const Bytes key = pattern(16, 3);
  HANDLE h = symmKey(key);
  Bytes out(64);
  ULONG len = 64;
  ASSERT_EQ(SAR_OK, SKF(SKF_EncryptInit)(h, param(Bytes(), 0)));
  ASSERT_EQ(SAR_OK, SKF(SKF_EncryptUpdate)(h, out.data(), 20, out.data(), &len));
  EXPECT_EQ(16u, len);
  EXPECT_EQ(SAR_INDATALENERR, SKF(SKF_EncryptFinal)(h, out.data(), &len));
  Bytes bad = sm4(true, false, key, Bytes(16, 0x11));  // ends in 0x11: no pad
  ASSERT_EQ(SAR_OK, SKF(SKF_DecryptInit)(h, param(Bytes(), 1)));
  len = 64;
  ASSERT_EQ(SAR_OK, SKF(SKF_DecryptUpdate)(h, bad.data(), 16, out.data(), &len));
  EXPECT_EQ(0u, len);
  len = 64;
  EXPECT_EQ(SAR_DECRYPTPADERR, SKF(SKF_DecryptFinal)(h, out.data(), &len));
}

TEST_F(ConformanceTest, MacIsTheLastCbcBlock) {
  const struct {
    ULONG padding;
    size_t len;
  } cases[] = {{0, 32}, {1, 20}, {1, 32}, {0, 16}};
  const Bytes key = pattern(16, 4), iv = pattern(16, 2);
  HANDLE k = symmKey(key);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.len);
    const Bytes data = pattern(c.len, 8);
    Bytes expected = sm4Mode("SM4-CBC", true, c.padding == 1, key, iv, data);
    expected.erase(expected.begin(), expected.end() - 16);
    BLOCKCIPHERPARAM p = param(iv, c.padding);
    HANDLE streamed = nullptr, once = nullptr;
    ASSERT_EQ(SAR_OK, SKF(SKF_MacInit)(k, &p, &streamed));
    ASSERT_EQ(SAR_OK, SKF(SKF_MacInit)(k, &p, &once));
    for (size_t at = 0; at < data.size(); at += 5) {
      ULONG n = static_cast<ULONG>(std::min<size_t>(5, data.size() - at));
      ASSERT_EQ(SAR_OK, SKF(SKF_MacUpdate)(streamed, const_cast<BYTE *>(&data[at]), n));
    }
    Bytes mac(16), macOnce(16);
    ULONG len = 16, lenOnce = 16;
    EXPECT_EQ(SAR_OK, SKF(SKF_MacFinal)(streamed, mac.data(), &len));
    EXPECT_EQ(SAR_OK, SKF(SKF_Mac)(once, const_cast<BYTE *>(data.data()),
                                   static_cast<ULONG>(data.size()), macOnce.data(), &lenOnce));
    EXPECT_EQ(expected, mac);
    EXPECT_EQ(expected, macOnce);
    EXPECT_EQ(SAR_NOTINITIALIZEERR, SKF(SKF_MacUpdate)(streamed, mac.data(), 16));
    EXPECT_EQ(SAR_OK, SKF(SKF_CloseHandle)(streamed));
    EXPECT_EQ(SAR_OK, SKF(SKF_CloseHandle)(once));
  }
}

TEST_F(ConformanceTest, BothSm2NumberingsGenerateAndSign) {
  DEVINFO info;
  ASSERT_EQ(SAR_OK, SKF(SKF_GetDevInfo)(dev, &info));
  EXPECT_EQ(0x00020100u, info.AlgAsymCap & 0x00020100u);
  EXPECT_EQ(0x00020200u, info.AlgAsymCap & 0x00020200u);
  for (ULONG alg : {0x00020100u, 0x00020200u}) {
    ECCPUBLICKEYBLOB pub;
    ECCSIGNATUREBLOB sig;
    ASSERT_EQ(SAR_OK, SKF(SKF_GenECCKeyPair)(con, alg, &pub));
    Bytes digest = pattern(32, static_cast<unsigned char>(alg >> 8));
    memset(&sig, 0xAA, sizeof sig);
    ASSERT_EQ(SAR_OK, SKF(SKF_ECCSignData)(con, digest.data(), 32, &sig));
    EXPECT_TRUE(sm2VerifyDigest(sm2KeyFromBlob(pub).get(), digest, sig));
    EXPECT_EQ(Bytes(32, 0), Bytes(sig.r, sig.r + 32)) << "r is right-aligned";
    EXPECT_EQ(Bytes(32, 0), Bytes(sig.s, sig.s + 32)) << "s is right-aligned";
    EXPECT_EQ(SAR_OK, SKF(SKF_ECCVerify)(dev, &pub, digest.data(), 32, &sig));
    EXPECT_EQ(SAR_OK, SKF(SKF_ExtECCVerify)(dev, &pub, digest.data(), 32, &sig));
    sig.s[63] ^= 1;
    EXPECT_EQ(SAR_FAIL, SKF(SKF_ECCVerify)(dev, &pub, digest.data(), 32, &sig));
  }
  ECCPUBLICKEYBLOB pub;
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF(SKF_GenECCKeyPair)(con, 0x00020800, &pub));
  ECCSIGNATUREBLOB sig;
  EXPECT_EQ(SAR_INDATALENERR, SKF(SKF_ECCSignData)(con, pub.XCoordinate, 31, &sig));
}

TEST_F(ConformanceTest, ExternalSm2KeysAgreeWithOpenSsl) {
  Sm2Pair pair = newSm2Pair();
  ECCPRIVATEKEYBLOB pri = {};
  ECCPUBLICKEYBLOB pub = pair.blob();
  pri.BitLen = 256;
  memcpy(pri.PrivateKey + 32, pair.d.data(), 32);
  Bytes digest = pattern(32, 1), plain = pattern(45, 2);
  ECCSIGNATUREBLOB sig;
  ASSERT_EQ(SAR_OK, SKF(SKF_ExtECCSign)(dev, &pri, digest.data(), 32, &sig));
  EXPECT_TRUE(sm2VerifyDigest(pair.key.get(), digest, sig));
  Bytes fromOpenSsl = sm2EncryptToBlob(pair.key.get(), plain);
  Bytes fromToken(sizeof(ECCCIPHERBLOB) + plain.size());
  ECCCIPHERBLOB *tokenBlob = reinterpret_cast<ECCCIPHERBLOB *>(fromToken.data());
  ASSERT_EQ(SAR_OK, SKF(SKF_ExtECCEncrypt)(dev, &pub, plain.data(), 45, tokenBlob));
  for (Bytes *blob : {&fromOpenSsl, &fromToken}) {
    Bytes out(64);
    ULONG len = 64;
    ASSERT_EQ(SAR_OK,
              SKF(SKF_ExtECCDecrypt)(dev, &pri, reinterpret_cast<ECCCIPHERBLOB *>(blob->data()),
                                     out.data(), &len));
    EXPECT_EQ(plain, Bytes(out.begin(), out.begin() + len));
  }
}

TEST_F(ConformanceTest, ExternalRsaKeysAgreeWithOpenSsl) {
  RSAPRIVATEKEYBLOB pri;
  ASSERT_EQ(SAR_OK, SKF(SKF_GenExtRSAKey)(dev, 1024, &pri));
  RSAPUBLICKEYBLOB pub;
  pub.AlgID = pri.AlgID;
  pub.BitLen = pri.BitLen;
  memcpy(pub.Modulus, pri.Modulus, sizeof pub.Modulus);
  memcpy(pub.PublicExponent, pri.PublicExponent, sizeof pub.PublicExponent);
  ASSERT_EQ(1024u, pub.BitLen);
  Bytes data = pattern(20, 3), block(128, 0xFF);  // 00 01 FF.. 00 data
  block[0] = 0x00;
  block[1] = 0x01;
  block[107] = 0x00;
  memcpy(&block[108], data.data(), 20);
  Bytes sig(128), back(128);
  ULONG len = 128;
  ASSERT_EQ(SAR_OK, SKF(SKF_ExtRSAPriKeyOperation)(dev, &pri, block.data(), 128, sig.data(), &len));
  EXPECT_EQ(data, rsaRecover(rsaKeyFromBlob(pub).get(), sig));
  ASSERT_EQ(SAR_OK, SKF(SKF_ExtRSAPubKeyOperation)(dev, &pub, sig.data(), 128, back.data(), &len));
  EXPECT_EQ(block, back);
  EXPECT_EQ(SAR_OK, SKF(SKF_RSAVerify)(dev, &pub, data.data(), 20, sig.data(), 128));
  data[0] ^= 1;
  EXPECT_EQ(SAR_FAIL, SKF(SKF_RSAVerify)(dev, &pub, data.data(), 20, sig.data(), 128));
  EXPECT_EQ(SAR_INDATALENERR,
            SKF(SKF_ExtRSAPubKeyOperation)(dev, &pub, sig.data(), 127, back.data(), &len));
}

TEST_F(ConformanceTest, SessionKeysTravelWrapped) {
  Sm2Pair enc = importEncryptionPair();
  const Bytes key = pattern(16, 11);
  Bytes wrapped = sm2EncryptToBlob(enc.key.get(), key);
  HANDLE imported = nullptr, exported = nullptr, reimported = nullptr, rsaKey = nullptr;
  ASSERT_EQ(SAR_OK, SKF(SKF_ImportSessionKey)(con, SGD_SMS4_ECB, wrapped.data(),
                                              static_cast<ULONG>(wrapped.size()), &imported));
  EXPECT_EQ(sm4(true, false, key, pattern(16, 1)), encryptBlock(imported));
  // Exported to the container's own encryption key, it imports back to the same key.
  ECCPUBLICKEYBLOB encPub = exportEcc(FALSE);
  Bytes blob(sizeof(ECCCIPHERBLOB) + 16);
  ECCCIPHERBLOB *cipher = reinterpret_cast<ECCCIPHERBLOB *>(blob.data());
  ASSERT_EQ(SAR_OK, SKF(SKF_ECCExportSessionKey)(con, SGD_SMS4_ECB, &encPub, cipher, &exported));
  ASSERT_EQ(SAR_OK, SKF(SKF_ImportSessionKey)(con, SGD_SMS4_ECB, blob.data(),
                                              static_cast<ULONG>(blob.size()), &reimported));
  EXPECT_EQ(encryptBlock(exported), encryptBlock(reimported));
  RsaPair rsa = newRsaPair(1024);
  RSAPUBLICKEYBLOB rsaPub;
  memset(&rsaPub, 0, sizeof rsaPub);
  rsaPub.AlgID = SGD_RSA;
  rsaPub.BitLen = 1024;
  BIGNUM *n = nullptr;
  EVP_PKEY_get_bn_param(rsa.key.get(), "n", &n);
  BN_bn2binpad(n, rsaPub.Modulus + 128, 128);
  BN_free(n);
  rsaPub.PublicExponent[1] = 0x01;  // 65537
  rsaPub.PublicExponent[3] = 0x01;
  Bytes rsaWrapped(128);
  ULONG len = 0;
  EXPECT_EQ(SAR_OK,
            SKF(SKF_RSAExportSessionKey)(con, SGD_SMS4_ECB, &rsaPub, nullptr, &len, &rsaKey));
  EXPECT_EQ(128u, len);
  ASSERT_EQ(SAR_OK, SKF(SKF_RSAExportSessionKey)(con, SGD_SMS4_ECB, &rsaPub, rsaWrapped.data(),
                                                 &len, &rsaKey));
  EXPECT_EQ(sm4(true, false, decrypt(rsa.key.get(), rsaWrapped), pattern(16, 1)),
            encryptBlock(rsaKey));
  for (ULONG alg : {SGD_SM1_ECB, SGD_SSF33_CBC}) {
    EXPECT_EQ(SAR_NOTSUPPORTYETERR,
              SKF(SKF_ImportSessionKey)(con, alg, wrapped.data(),
                                        static_cast<ULONG>(wrapped.size()), &imported));
  }
}

TEST_F(ConformanceTest, KeyAgreementMatchesOpenSslAndItself) {
  importEncryptionPair();
  Bytes sponsorId = {'a', 'l', 'i', 'c', 'e'}, responderId = {'b', 'o', 'b'};
  // OpenSSL sponsors; the token responds.
  Sm2Pair sponsor = newSm2Pair(), temp = newSm2Pair();
  ECCPUBLICKEYBLOB encPub = exportEcc(FALSE), sponsorPub = sponsor.blob(),
                   sponsorTemp = temp.blob(), responderTemp;
  HANDLE responderKey = nullptr, agreement = nullptr, sponsorKey = nullptr;
  ASSERT_EQ(SAR_OK, SKF(SKF_GenerateAgreementDataAndKeyWithECC)(
                        con, SGD_SMS4_ECB, &sponsorPub, &sponsorTemp, &responderTemp,
                        responderId.data(), 3, sponsorId.data(), 5, &responderKey));
  Bytes agreed = sm2AgreedKey(sponsor, temp, sponsorId, encPub, responderTemp, responderId);
  EXPECT_EQ(sm4(true, false, agreed, pattern(16, 1)), encryptBlock(responderKey));
  // The token on both sides (one container, SM2 named by its GM/T 0006 id).
  ASSERT_EQ(SAR_OK, SKF(SKF_GenerateAgreementDataWithECC)(con, 0x00020200, &sponsorTemp,
                                                          sponsorId.data(), 5, &agreement));
  ASSERT_EQ(SAR_OK, SKF(SKF_GenerateAgreementDataAndKeyWithECC)(
                        con, SGD_SMS4_ECB, &encPub, &sponsorTemp, &responderTemp,
                        responderId.data(), 3, sponsorId.data(), 5, &responderKey));
  ASSERT_EQ(SAR_OK, SKF(SKF_GenerateKeyWithECC)(agreement, &encPub, &responderTemp,
                                                responderId.data(), 3, &sponsorKey));
  EXPECT_EQ(encryptBlock(responderKey), encryptBlock(sponsorKey));
}

TEST_F(ConformanceTest, DeviceStateLabelEventsAndTransmit) {
  ULONG state = 9;
  const struct {
    const char *name;
    BOOL present;
    ULONG expected;
  } cases[] = {{"tok1", TRUE, DEV_PRESENT_STATE},
               {"tok1", FALSE, DEV_ABSENT_STATE},
               {"nosuch", TRUE, DEV_ABSENT_STATE}};
  for (const auto &c : cases) {
    SKFSoft_SetPresent("tok1", c.present);
    EXPECT_EQ(SAR_OK, SKF(SKF_GetDevState)(const_cast<char *>(c.name), &state));
    EXPECT_EQ(c.expected, state) << c.name;
  }
  SKFSoft_SetPresent("tok1", TRUE);
  DEVINFO info;
  ASSERT_EQ(SAR_OK, SKF(SKF_SetLabel)(dev, const_cast<char *>("relabelled")));
  ASSERT_EQ(SAR_OK, SKF(SKF_GetDevInfo)(dev, &info));
  EXPECT_STREQ("relabelled", info.Label);
  BYTE apdu[5] = {0x00, 0x84, 0x00, 0x00, 0x08};
  ULONG len = 16;
  EXPECT_EQ(SAR_NOTSUPPORTYETERR, SKF(SKF_Transmit)(dev, apdu, 5, apdu, &len));
  // A watcher learns of the device present, then sees the unplug and the
  // plug; a cancel ends its wait.
  auto wait = [] {
    char name[80];
    ULONG nameLen = sizeof name, event = 0;
    ULONG rv = SKF(SKF_WaitForDevEvent)(name, &nameLen, &event);
    return std::to_string(rv) + " " + (rv == SAR_OK ? name : "") + " " + std::to_string(event);
  };
  EXPECT_EQ("0 tok1 1", wait());
  auto watcher = std::async(std::launch::async, wait);
  SKFSoft_SetPresent("tok1", FALSE);
  EXPECT_EQ("0 tok1 2", watcher.get());
  SKFSoft_SetPresent("tok1", TRUE);
  EXPECT_EQ("0 tok1 1", wait());
  watcher = std::async(std::launch::async, wait);
  EXPECT_EQ(SAR_OK, SKF(SKF_CancelWaitForDevEvent)());
  EXPECT_EQ(std::to_string(SAR_NOT_EVENTERR) + "  0", watcher.get());
}

TEST_F(ConformanceTest, ContainerClosesAfterItsApplication) {
  ASSERT_EQ(SAR_OK, SKF(SKF_CloseApplication)(app));
  ULONG type = 0;
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF(SKF_GetContainerType)(con, &type));
  EXPECT_EQ(SAR_OK, SKF(SKF_CloseContainer)(con));
  EXPECT_EQ(SAR_INVALIDHANDLEERR, SKF(SKF_CloseContainer)(con));
}

}  // namespace
