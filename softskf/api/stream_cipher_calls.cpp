// Streaming block cipher calls on session keys: after SKF_EncryptInit or
// SKF_DecryptInit, any number of *Update calls and one *Final. Whole blocks
// are processed as they arrive; the rest waits in the key. With padding,
// decryption holds back the last whole block for *Final to strip. A length
// query (null output) changes nothing.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/api/feedback_modes.h"
#include "softskf/core/token.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const ULONG kMaxCipherData = 64u << 20;
const size_t kBlock = crypto::kSm4BlockSize;

// Runs whole blocks through the key's mode, carrying the CBC chain.
bool runBlocks(KeyObject &key, bool encrypt, const uint8_t *in, size_t len, uint8_t *out) {
  if (len == 0) return true;
  if (isFeedbackMode(key.algorithm)) return sm4FeedbackRun(key, encrypt, key.iv, in, len, out);
  if (key.algorithm != SGD_SMS4_CBC) return crypto::sm4Ecb(encrypt, key.key.data(), in, len, out);
  uint8_t nextIv[kBlock];
  if (!encrypt) memcpy(nextIv, in + len - kBlock, kBlock);
  if (!crypto::sm4Cbc(encrypt, key.key.data(), key.iv, in, len, out)) return false;
  memcpy(key.iv, encrypt ? out + len - kBlock : nextIv, kBlock);
  return true;
}

ULONG update(Call &call, HANDLE hKey, CipherState expected, const BYTE *in, ULONG inLen, BYTE *out,
             ULONG *outLen) {
  KeyObject *key = call.token().handles.key(hKey);
  if (key == nullptr) return SAR_INVALIDHANDLEERR;
  if (key->state != expected) return SAR_NOTINITIALIZEERR;
  if (outLen == nullptr || (in == nullptr && inLen > 0)) return SAR_INVALIDPARAMERR;
  if (inLen > kMaxCipherData || key->pending.size() + inLen > kMaxCipherData)
    return SAR_INDATALENERR;
  const size_t total = key->pending.size() + inLen;
  size_t ready = total - total % kBlock;
  const bool padded = key->padding && !isFeedbackMode(key->algorithm);
  if (expected == CipherState::Decrypt && padded && ready == total && ready > 0) ready -= kBlock;
  if (out == nullptr || *outLen < ready) return answerBytes(nullptr, ready, out, outLen);
  SecureBytes all(total);
  if (!key->pending.empty()) memcpy(all.data(), key->pending.data(), key->pending.size());
  if (inLen > 0) memcpy(all.data() + key->pending.size(), in, inLen);
  SecureBytes result(ready);
  if (!runBlocks(*key, expected == CipherState::Encrypt, all.data(), ready, result.data()))
    return SAR_FAIL;
  key->pending.assign(all.data() + ready, total - ready);
  return answerBytes(result.data(), ready, out, outLen);
}

ULONG finish(Call &call, HANDLE hKey, CipherState expected, BYTE *out, ULONG *outLen) {
  KeyObject *key = call.token().handles.key(hKey);
  if (key == nullptr) return SAR_INVALIDHANDLEERR;
  if (key->state != expected) return SAR_NOTINITIALIZEERR;
  if (outLen == nullptr) return SAR_INVALIDPARAMERR;
  const bool encrypt = expected == CipherState::Encrypt;
  const size_t held = key->pending.size();
  SecureBytes result;
  if (isFeedbackMode(key->algorithm)) {
    // The last, partial block of a stream mode; a length query leaves the register.
    uint8_t iv[kBlock];
    memcpy(iv, key->iv, kBlock);
    result.resize(held);
    if (held > 0 && !sm4FeedbackRun(*key, encrypt, iv, key->pending.data(), held, result.data()))
      return SAR_FAIL;
  } else if (!key->padding) {
    if (held != 0) return SAR_INDATALENERR;
  } else if (encrypt) {
    uint8_t block[kBlock];
    if (held != 0) memcpy(block, key->pending.data(), held);
    memset(block + held, static_cast<int>(kBlock - held), kBlock - held);
    result.resize(kBlock);
    uint8_t iv[kBlock];
    memcpy(iv, key->iv, kBlock);  // a length query leaves the chain as it was
    bool ok = runBlocks(*key, true, block, kBlock, result.data());
    memcpy(key->iv, iv, kBlock);
    if (!ok) return SAR_FAIL;
  } else {
    if (held != kBlock) return SAR_INDATALENERR;
    SecureBytes block(kBlock);
    uint8_t iv[kBlock];
    memcpy(iv, key->iv, kBlock);
    bool ok = runBlocks(*key, false, key->pending.data(), kBlock, block.data());
    memcpy(key->iv, iv, kBlock);
    const uint8_t pad = block[kBlock - 1];
    if (!ok) return SAR_FAIL;
    if (pad == 0 || pad > kBlock) return SAR_DECRYPTPADERR;
    for (size_t i = kBlock - pad; i < kBlock; ++i)
      if (block[i] != pad) return SAR_DECRYPTPADERR;
    result.assign(block.data(), kBlock - pad);
  }
  ULONG rv = answerBytes(result.data(), result.size(), out, outLen);
  if (rv == SAR_OK && out != nullptr) {
    key->state = CipherState::Idle;
    key->pending.clear();
  }
  return rv;
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_EncryptUpdate(HANDLE hKey, BYTE *pbData, ULONG ulDataLen, BYTE *pbEncryptedData,
                               ULONG *pulEncryptedLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_EncryptUpdate");
    call.handle("hKey", hKey).number("ulDataLen", ulDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return update(call, hKey, CipherState::Encrypt, pbData, ulDataLen, pbEncryptedData,
                  pulEncryptedLen);
  });
}

ULONG DEVAPI SKF_EncryptFinal(HANDLE hKey, BYTE *pbEncryptedData, ULONG *pulEncryptedDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_EncryptFinal");
    call.handle("hKey", hKey);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return finish(call, hKey, CipherState::Encrypt, pbEncryptedData, pulEncryptedDataLen);
  });
}

ULONG DEVAPI SKF_DecryptUpdate(HANDLE hKey, BYTE *pbEncryptedData, ULONG ulEncryptedLen,
                               BYTE *pbData, ULONG *pulDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DecryptUpdate");
    call.handle("hKey", hKey).number("ulEncryptedLen", ulEncryptedLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return update(call, hKey, CipherState::Decrypt, pbEncryptedData, ulEncryptedLen, pbData,
                  pulDataLen);
  });
}

ULONG DEVAPI SKF_DecryptFinal(HANDLE hKey, BYTE *pbDecryptedData, ULONG *pulDecryptedDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DecryptFinal");
    call.handle("hKey", hKey);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return finish(call, hKey, CipherState::Decrypt, pbDecryptedData, pulDecryptedDataLen);
  });
}

}  // extern "C"
