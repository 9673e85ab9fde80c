// Published SM3 and SM4 vectors through the SKF digest and cipher calls, and
// the one-operation-per-init protocol of the ciphers.
#include <gtest/gtest.h>
#include <string.h>

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
  size_t piece;  // bytes per SKF_DigestUpdate
  const char *digest;
};

TEST_F(CipherDigestTest, Sm3MatchesPublishedVectors) {
  DEVHANDLE dev = makeDevice();
  std::string abcd;
  for (int i = 0; i < 16; ++i) abcd += "abcd";
  // GB/T 32905 examples 1 and 2, fed whole and in uneven pieces.
  const DigestVector vectors[] = {
      {"abc", 3, "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"},
      {"abc", 1, "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"},
      {abcd, 64, "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732"},
      {abcd, 7, "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732"},
  };
  for (const DigestVector &v : vectors) {
    SCOPED_TRACE(v.piece);
    HANDLE hash;
    ASSERT_EQ(SAR_OK, SKF_DigestInit(dev, SGD_SM3, nullptr, nullptr, 0, &hash));
    for (size_t pos = 0; pos < v.message.size(); pos += v.piece) {
      size_t n = std::min(v.piece, v.message.size() - pos);
      ASSERT_EQ(SAR_OK,
                SKF_DigestUpdate(
                    hash, reinterpret_cast<BYTE *>(const_cast<char *>(v.message.data() + pos)),
                    static_cast<ULONG>(n)));
    }
    ULONG len = 0;
    ASSERT_EQ(SAR_OK, SKF_DigestFinal(hash, nullptr, &len));
    EXPECT_EQ(32u, len);
    Bytes out(32);
    len = 31;
    EXPECT_EQ(SAR_BUFFER_TOO_SMALL, SKF_DigestFinal(hash, out.data(), &len));
    len = 32;
    ASSERT_EQ(SAR_OK, SKF_DigestFinal(hash, out.data(), &len));
    EXPECT_EQ(fromHex(v.digest), out);
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

TEST_F(CipherDigestTest, Sm4CbcChainsBlocksAndPadsOnRequest) {
  DEVHANDLE dev = makeDevice();
  Bytes key = fromHex("0123456789abcdeffedcba9876543210");
  Bytes iv = fromHex("000102030405060708090a0b0c0d0e0f");
  Bytes plain(48);
  for (size_t i = 0; i < plain.size(); ++i) plain[i] = static_cast<BYTE>(i * 7);

  HANDLE cbc, ecb;
  ASSERT_EQ(SAR_OK, SKF_SetSymmKey(dev, key.data(), SGD_SMS4_CBC, &cbc));
  ASSERT_EQ(SAR_OK, SKF_SetSymmKey(dev, key.data(), SGD_SMS4_ECB, &ecb));
  BLOCKCIPHERPARAM param = {};
  EXPECT_EQ(SAR_INVALIDPARAMERR, SKF_EncryptInit(cbc, param)) << "CBC without an IV";
  memcpy(param.IV, iv.data(), 16);
  param.IVLen = 16;
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(cbc, param));
  Bytes cipher(48);
  ULONG len = 48;
  ASSERT_EQ(SAR_OK, SKF_Encrypt(cbc, plain.data(), 48, cipher.data(), &len));

  // Block by block through ECB: C_i = E(P_i xor C_{i-1}), C_0 = IV.
  Bytes previous = iv;
  for (size_t block = 0; block < 3; ++block) {
    Bytes x(16);
    for (size_t i = 0; i < 16; ++i) x[i] = plain[block * 16 + i] ^ previous[i];
    BLOCKCIPHERPARAM none = {};
    ASSERT_EQ(SAR_OK, SKF_EncryptInit(ecb, none));
    Bytes c(16);
    ULONG clen = 16;
    ASSERT_EQ(SAR_OK, SKF_Encrypt(ecb, x.data(), 16, c.data(), &clen));
    EXPECT_EQ(0, memcmp(c.data(), cipher.data() + block * 16, 16)) << block;
    previous = c;
  }

  // Without padding the length must be whole blocks; with it, any length.
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(cbc, param));
  EXPECT_EQ(SAR_INDATALENERR, SKF_Encrypt(cbc, plain.data(), 17, cipher.data(), &len));
  param.PaddingType = 1;
  ASSERT_EQ(SAR_OK, SKF_EncryptInit(cbc, param));
  Bytes padded(32);
  len = 32;
  ASSERT_EQ(SAR_OK, SKF_Encrypt(cbc, plain.data(), 17, padded.data(), &len));
  EXPECT_EQ(32u, len);
  ASSERT_EQ(SAR_OK, SKF_DecryptInit(cbc, param));
  Bytes back(32);
  len = 32;
  ASSERT_EQ(SAR_OK, SKF_Decrypt(cbc, padded.data(), 32, back.data(), &len));
  ASSERT_EQ(17u, len);
  EXPECT_EQ(0, memcmp(back.data(), plain.data(), 17));
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
