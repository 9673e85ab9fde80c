// Device authentication: the text-to-key conversion of the super password
// and the challenge-response with the token.
#include "services/device_auth.h"

#include <string.h>

#include "log/trace_log.h"
#include "platform/secure_zero.h"
#include "platform/skf.h"

namespace {

constexpr size_t kAuthKeyLength = 16;
constexpr size_t kAuthBlockLength = 16;
constexpr ULONG kChallengeLength = 8;

// The value of one character of the super password, or -1. Letters count
// from their own 'A' or 'a', so 'A'-'F' are 0-5 and 'Z' is 25.
int superPwdCharValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a';
  return -1;
}

}  // namespace

int VerifySuperPwd(struct Device *device, const char *pwd, int *pretrynum) {
  if (pretrynum != nullptr) *pretrynum = -1;
  if (strlen(pwd) != 2 * kAuthKeyLength) {
    LOG_ERROR("strlen(pwd) != 32");
    return 0;
  }

  tembra::WipedBuffer<kAuthKeyLength> key;
  for (size_t i = 0; i < kAuthKeyLength; ++i) {
    const int high = superPwdCharValue(pwd[2 * i]);
    const int low = superPwdCharValue(pwd[2 * i + 1]);
    if (high < 0 || low < 0) {
      LOG_ERROR("keylen != 16");
      return 0;
    }
    // The low value is ORed in unmasked: "9Z" gives 0x90 | 0x19 = 0x99.
    key.bytes[i] = static_cast<unsigned char>(((high << 4) & 0xFF) | low);
  }
  return ExternalAuth(device, key.bytes);
}

int ExternalAuth(struct Device *device, const unsigned char key[16]) {
  tembra::WipedBuffer<kAuthBlockLength> challenge;  // 8 random bytes, then 8 zero bytes
  tembra::WipedBuffer<kAuthBlockLength> cipher;

  ULONG rv = SKF_GenRandom(device->m_hDev, challenge.bytes, kChallengeLength);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_GenRandom fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }

  HANDLE hKey = nullptr;
  rv = SKF_SetSymmKey(device->m_hDev, const_cast<BYTE *>(key), device->m_info.DevAuthAlgId, &hKey);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_SetSymmKey fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }

  BLOCKCIPHERPARAM param;
  memset(&param, 0, sizeof(param));
  rv = SKF_EncryptInit(hKey, param);
  if (rv != SAR_OK) {
    // The key handle is left open on this path, as the token's callers have
    // always seen it.
    LOG_ERROR("SKF_EncryptInit fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }

  ULONG cipherLen = kAuthBlockLength;
  rv = SKF_Encrypt(hKey, challenge.bytes, kAuthBlockLength, cipher.bytes, &cipherLen);
  SKF_CloseHandle(hKey);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_Encrypt fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }
  // A token that reports more than it may have written is not believed.
  if (cipherLen > kAuthBlockLength) cipherLen = kAuthBlockLength;

  rv = SKF_DevAuth(device->m_hDev, cipher.bytes, cipherLen);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_DevAuth fail, error = 0x%08X", static_cast<unsigned>(rv));
    return -5;
  }
  return 1;
}
