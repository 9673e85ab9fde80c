// Published SM3 and SM4 vectors through the SKF digest and cipher calls, and
// the one-operation-per-init protocol of the ciphers.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/softskf/soft_token_fixture.h"

namespace softskf_test {
namespace {

using Bytes = std::vector<BYTE>;

Bytes fromHex(const std::string &hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<BYTE>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

class CipherDigestTest : public SoftTokenTest {};

struct DigestVector {
  std::string message;
  size_t piece;  // bytes per SKF_DigestUpdate; 0: one SKF_Digest
  const char *digest;
};

TEST_F(CipherDigestTest, Sm3MatchesPublishedVectors) {
  DEVHANDLE dev = makeDevice();
  std::string abcd;
  for (int i = 0; i < 16; ++i) abcd += "abcd";
  // GB/T 32905 examples 1 and 2, fed in one call, whole and in uneven pieces.
  const char *const kAbc = "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0";
  const char *const kAbcd = "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732";
  const DigestVector vectors[] = {{"abc", 0, kAbc}, {"abc", 3, kAbc},  {"abc", 1, kAbc},
                                  {abcd, 0, kAbcd}, {abcd, 64, kAbcd}, {abcd, 7, kAbcd}};
  for (const DigestVector &v : vectors) {
    SCOPED_TRACE(v.piece);
    BYTE *message = reinterpret_cast<BYTE *>(const_cast<char *>(v.message.data()));
    const ULONG size = static_cast<ULONG>(v.message.size());
    HANDLE hash;
    ASSERT_EQ(SAR_OK, SKF_DigestInit(dev, SGD_SM3, nullptr, nullptr, 0, &hash));
    for (size_t pos = 0; v.piece != 0 && pos < size; pos += v.piece) {
      ASSERT_EQ(SAR_OK, SKF_DigestUpdate(hash, message + pos,
                                         static_cast<ULONG>(std::min(v.piece, size - pos))));
    }
    auto finish = [&](BYTE *out, ULONG *len) {
      return v.piece == 0 ? SKF_Digest(hash, message, size, out, len)
                          : SKF_DigestFinal(hash, out, len);
    };
    ULONG len = 0;
    ASSERT_EQ(SAR_OK, finish(nullptr, &len));
    EXPECT_EQ(32u, len);
    Bytes out(32);
    len = 31;
    EXPECT_EQ(SAR_BUFFER_TOO_SMALL, finish(out.data(), &len));
    len = 32;
    ASSERT_EQ(SAR_OK, finish(out.data(), &len));
    EXPECT_EQ(fromHex(v.digest), out);
    EXPECT_EQ(SAR_NOTINITIALIZEERR, finish(out.data(), &len)) << "one digest per init";
    EXPECT_EQ(SAR_OK, SKF_CloseHandle(hash));
  }
  HANDLE hash;
  EXPECT_EQ(SAR_NOTSUPPORTYETERR, SKF_DigestInit(dev, SGD_SHA256, nullptr, nullptr, 0, &hash));
}

TEST_F(CipherDigestTest, Sm4EcbMatchesThePublishedVector) {
  DEVHANDLE dev = makeDevice();
  Bytes key = fromHex("0123456789abcdeffedcba9876543210");
  Bytes expected = fromHex("681edf34d206965e86b3e94f536e4246");
  HANDLE hKey;
  ASSERT_EQ(SAR_OK, SKF_SetSymmKey(dev, key.data(), SGD_SMS4_ECB, &hKey));
  BLOCKCIPHERPARAM param = {};
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(hKey, param));
  Bytes out(16);
  ULONG len = 0;
  ASSERT_EQ(SAR_OK, SKF_Encrypt(hKey, key.data(), 16, nullptr, &len));
  EXPECT_EQ(16u, len);
  len = 15;
  EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKF_Encrypt(hKey, key.data(), 16, out.data(), &len));
  EXPECT_EQ(16u, len);
  ASSERT_EQ(SAR_OK, SKF_Encrypt(hKey, key.data(), 16, out.data(), &len));
  EXPECT_EQ(expected, out);
  EXPECT_EQ(SAR_NOTINITIALIZEERR, SKF_Encrypt(hKey, key.data(), 16, out.data(), &len))
      << "each operation needs its own init";

  ASSERT_EQ(SAR_OK, SKF_DecryptInit(hKey, param));
  Bytes back(16);
  len = 16;
  ASSERT_EQ(SAR_OK, SKF_Decrypt(hKey, out.data(), 16, back.data(), &len));
  EXPECT_EQ(key, back);
}

// The chaining itself is checked against OpenSSL (conformance_test) and
// across backends (crypto_cross); here the IV and the padding rules.
TEST_F(CipherDigestTest, Sm4CbcNeedsAnIvAndPadsOnRequest) {
  DEVHANDLE dev = makeDevice();
  Bytes key = fromHex("0123456789abcdeffedcba9876543210"), plain(17, 0x17);
  HANDLE cbc;
  ASSERT_EQ(SAR_OK, SKF_SetSymmKey(dev, key.data(), SGD_SMS4_CBC, &cbc));
  BLOCKCIPHERPARAM param = {};
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_EncryptInit(cbc, param)) << "CBC without an IV";
  param.IVLen = 16;
  // Without padding the length must be whole blocks; with it, any length.
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(cbc, param));
  Bytes padded(32), back(32);
  ULONG len = 32;
  EXPECT_EQ(SAR_INDATALENERR, SKF_Encrypt(cbc, plain.data(), 17, padded.data(), &len));
  param.PaddingType = 1;
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(cbc, param));
  ASSERT_EQ(SAR_OK, SKF_Encrypt(cbc, plain.data(), 17, padded.data(), &len));
  EXPECT_EQ(32u, len);
  ASSERT_EQ(SAR_OK, SKF_DecryptInit(cbc, param));
  ASSERT_EQ(SAR_OK, SKF_Decrypt(cbc, padded.data(), 32, back.data(), &len));
  back.resize(len);
  EXPECT_EQ(plain, back);
}

TEST_F(CipherDigestTest, OnlySms4IsOffered) {
  DEVHANDLE dev = makeDevice();
  BYTE key[16] = {};
  const ULONG refused[] = {SGD_SM1_ECB, SGD_SM1_CBC, SGD_SSF33_ECB, SGD_SSF33_CBC, SGD_SMS4_MAC};
  for (ULONG alg : refused) {
    SCOPED_TRACE(alg);
    HANDLE hKey = nullptr;
    EXPECT_EQ(SAR_NOTSUPPORTYETERR, SKF_SetSymmKey(dev, key, alg, &hKey));
  }
}

}  // namespace
}  // namespace softskf_test
