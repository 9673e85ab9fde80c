// Block cipher calls (SMS4 in ECB and CBC mode) on session keys, and the
// closing of key and hash handles. An operation runs once per *Init: a
// completed SKF_Encrypt or SKF_Decrypt needs a new *Init before the next.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/api/feedback_modes.h"
#include "softskf/core/token.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const ULONG kMaxCipherData = 64u << 20;

ULONG initCipher(Call &call, HANDLE hKey, const BLOCKCIPHERPARAM &param, CipherState state) {
  KeyObject *key = call.token().handles.key(hKey);
  if (key == nullptr) return SAR_INVALIDHANDLEERR;
  if ((param.IVLen != 0 && param.IVLen != 16) || param.PaddingType > 1) return SAR_INVALIDPARAMERR;
  if ((key->algorithm == SGD_SMS4_CBC || isFeedbackMode(key->algorithm)) && param.IVLen != 16)
    return SAR_INVALIDPARAMERR;
  memset(key->iv, 0, sizeof key->iv);
  if (param.IVLen == 16) memcpy(key->iv, param.IV, 16);
  key->padding = param.PaddingType == 1;
  key->state = state;
  key->pending.clear();
  return SAR_OK;
}

void describeParam(Call &call, HANDLE hKey, const BLOCKCIPHERPARAM &param) {
  ULONG ivLen = param.IVLen <= MAX_IV_LEN ? param.IVLen : MAX_IV_LEN;
  call.handle("hKey", hKey)
      .number("IVLen", param.IVLen)
      .bytes("IV", param.IV, ivLen)
      .number("PaddingType", param.PaddingType);
}

// True when the output starts inside the input (or the input inside the
// output) without being the same buffer: the cipher then goes through a
// buffer of its own. The same buffer (in place) is fine.
bool partlyOverlapping(const BYTE *in, const BYTE *out, ULONG len) {
  const uintptr_t a = reinterpret_cast<uintptr_t>(in);
  const uintptr_t b = reinterpret_cast<uintptr_t>(out);
  return a != b && a < b + len && b < a + len;
}

// One whole operation over the input; the key returns to idle once output
// has been written.
ULONG runCipher(Call &call, HANDLE hKey, CipherState expected, const BYTE *in, ULONG inLen,
                BYTE *out, ULONG *outLen) {
  KeyObject *key = call.token().handles.key(hKey);
  if (key == nullptr) return SAR_INVALIDHANDLEERR;
  if (key->state != expected) return SAR_NOTINITIALIZEERR;
  if (outLen == nullptr || (in == nullptr && inLen > 0)) return SAR_INVALIDPARAMERR;
  if (inLen > kMaxCipherData) return SAR_INDATALENERR;
  const bool encrypt = expected == CipherState::Encrypt;
  const bool cbc = key->algorithm == SGD_SMS4_CBC;
  const bool feedback = isFeedbackMode(key->algorithm);  // stream modes: any length, no padding
  if (!feedback && (!key->padding || !encrypt)) {
    if (inLen % 16 != 0 || (key->padding && inLen == 0)) return SAR_INDATALENERR;
  }
  if (!feedback && !key->padding && out != nullptr && *outLen >= inLen &&
      !partlyOverlapping(in, out, inLen)) {
    // Output as long as the input, and room for it: written straight into
    // the caller's buffer, with no intermediate copy.
    const bool done =
        inLen == 0 || (cbc ? crypto::sm4Cbc(encrypt, key->key.data(), key->iv, in, inLen, out)
                           : crypto::sm4Ecb(encrypt, key->key.data(), in, inLen, out));
    if (!done) return encrypt ? SAR_FAIL : SAR_DECRYPTPADERR;
    *outLen = inLen;
    key->state = CipherState::Idle;
    return SAR_OK;
  }
  SecureBytes result;
  bool ok;
  if (feedback) {
    ok = sm4Feedback(*key, encrypt, in, inLen, result);
  } else if (key->padding) {
    ok = cbc ? crypto::sm4CbcPadded(encrypt, key->key.data(), key->iv, in, inLen, result)
             : crypto::sm4EcbPadded(encrypt, key->key.data(), in, inLen, result);
  } else {
    result.resize(inLen);
    ok = inLen == 0 ||
         (cbc ? crypto::sm4Cbc(encrypt, key->key.data(), key->iv, in, inLen, result.data())
              : crypto::sm4Ecb(encrypt, key->key.data(), in, inLen, result.data()));
  }
  if (!ok) return encrypt ? SAR_FAIL : SAR_DECRYPTPADERR;
  ULONG rv = answerBytes(result.data(), result.size(), out, outLen);
  if (rv == SAR_OK && out != nullptr) key->state = CipherState::Idle;
  return rv;
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_SetSymmKey(DEVHANDLE hDev, BYTE *pbKey, ULONG ulAlgID, HANDLE *phKey) {
  return guarded([&]() -> ULONG {
    Call call("SKF_SetSymmKey");
    call.handle("hDev", hDev).hex("ulAlgID", ulAlgID);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    if (pbKey == nullptr || phKey == nullptr) return SAR_INVALIDPARAMERR;
    if (ulAlgID != SGD_SMS4_ECB && ulAlgID != SGD_SMS4_CBC && !isFeedbackMode(ulAlgID))
      return SAR_NOTSUPPORTYETERR;
    std::unique_ptr<KeyObject> key(new KeyObject);
    key->device = HandleTable::idOf(hDev);
    key->algorithm = ulAlgID;
    memcpy(key->key.data(), pbKey, 16);
    *phKey = call.token().handles.add(std::move(key));
    call.output("hKey", *phKey);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_EncryptInit(HANDLE hKey, BLOCKCIPHERPARAM EncryptParam) {
  return guarded([&]() -> ULONG {
    Call call("SKF_EncryptInit");
    describeParam(call, hKey, EncryptParam);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return initCipher(call, hKey, EncryptParam, CipherState::Encrypt);
  });
}

ULONG DEVAPI SKF_DecryptInit(HANDLE hKey, BLOCKCIPHERPARAM DecryptParam) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DecryptInit");
    describeParam(call, hKey, DecryptParam);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return initCipher(call, hKey, DecryptParam, CipherState::Decrypt);
  });
}

ULONG DEVAPI SKF_Encrypt(HANDLE hKey, BYTE *pbData, ULONG ulDataLen, BYTE *pbEncryptedData,
                         ULONG *pulEncryptedLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_Encrypt");
    call.handle("hKey", hKey).number("ulDataLen", ulDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return runCipher(call, hKey, CipherState::Encrypt, pbData, ulDataLen, pbEncryptedData,
                     pulEncryptedLen);
  });
}

ULONG DEVAPI SKF_Decrypt(HANDLE hKey, BYTE *pbEncryptedData, ULONG ulEncryptedLen, BYTE *pbData,
                         ULONG *pulDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_Decrypt");
    call.handle("hKey", hKey).number("ulEncryptedLen", ulEncryptedLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return runCipher(call, hKey, CipherState::Decrypt, pbEncryptedData, ulEncryptedLen, pbData,
                     pulDataLen);
  });
}

ULONG DEVAPI SKF_CloseHandle(HANDLE hHandle) {
  return guarded([&]() -> ULONG {
    Call call("SKF_CloseHandle");
    call.handle("hHandle", hHandle);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    HandleTable &handles = call.token().handles;
    if (handles.remove(hHandle, HandleKind::Key) || handles.remove(hHandle, HandleKind::Hash))
      return SAR_OK;
    return SAR_INVALIDHANDLEERR;
  });
}

}  // extern "C"
