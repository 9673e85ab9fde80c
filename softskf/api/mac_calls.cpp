// SM4-CBC-MAC on session keys: SKF_MacInit makes a MAC handle from any
// session key handle, whatever its mode (the key copied, the IV the first
// chaining value, zero when IVLen is 0); data is chained block by block; the
// MAC is the last chaining value (16 bytes). PaddingType 1 pads with PKCS#7
// first; PaddingType 0 needs whole blocks. A MAC handle serves one MAC and
// closes with SKF_CloseHandle.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/core/token.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const size_t kBlock = crypto::kSm4BlockSize;
const ULONG kMaxMacData = 64u << 20;

KeyObject *macOf(Call &call, HANDLE hMac) {
  KeyObject *mac = call.token().handles.key(hMac);
  return mac != nullptr && mac->algorithm == SGD_SMS4_MAC ? mac : nullptr;
}

// Chains the whole blocks of pending || data, keeping the rest pending.
ULONG absorb(KeyObject &mac, const BYTE *data, ULONG len) {
  if (mac.state != CipherState::Mac) return SAR_NOTINITIALIZEERR;
  if (data == nullptr && len > 0) return SAR_INVALIDPARAMERR;
  if (len > kMaxMacData || mac.pending.size() + len > kMaxMacData) return SAR_INDATALENERR;
  const size_t total = mac.pending.size() + len;
  SecureBytes all(total);
  if (!mac.pending.empty()) memcpy(all.data(), mac.pending.data(), mac.pending.size());
  if (len > 0) memcpy(all.data() + mac.pending.size(), data, len);
  const size_t whole = total - total % kBlock;
  if (whole > 0) {
    SecureBytes out(whole);
    if (!crypto::sm4Cbc(true, mac.key.data(), mac.iv, all.data(), whole, out.data()))
      return SAR_FAIL;
    memcpy(mac.iv, out.data() + whole - kBlock, kBlock);
  }
  mac.pending.assign(all.data() + whole, total - whole);
  return SAR_OK;
}

// The MAC of what was absorbed; the handle is spent once it is written.
ULONG finish(KeyObject &mac, BYTE *out, ULONG *outLen) {
  if (mac.state != CipherState::Mac) return SAR_NOTINITIALIZEERR;
  if (outLen == nullptr) return SAR_INVALIDPARAMERR;
  if (out == nullptr || *outLen < kBlock) return answerBytes(nullptr, kBlock, out, outLen);
  uint8_t value[kBlock];
  memcpy(value, mac.iv, kBlock);
  const size_t held = mac.pending.size();
  if (mac.padding) {
    uint8_t block[kBlock];
    if (held != 0) memcpy(block, mac.pending.data(), held);
    memset(block + held, static_cast<int>(kBlock - held), kBlock - held);
    if (!crypto::sm4Cbc(true, mac.key.data(), mac.iv, block, kBlock, value)) return SAR_FAIL;
  } else if (held != 0) {
    return SAR_INDATALENERR;
  }
  mac.state = CipherState::Idle;
  mac.pending.clear();
  return answerBytes(value, kBlock, out, outLen);
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_MacInit(HANDLE hKey, BLOCKCIPHERPARAM *pMacParam, HANDLE *phMac) {
  return guarded([&]() -> ULONG {
    Call call("SKF_MacInit");
    call.handle("hKey", hKey);
    if (pMacParam != nullptr) {
      const ULONG ivLen = pMacParam->IVLen <= MAX_IV_LEN ? pMacParam->IVLen : MAX_IV_LEN;
      call.number("IVLen", pMacParam->IVLen)
          .bytes("IV", pMacParam->IV, ivLen)
          .number("PaddingType", pMacParam->PaddingType);
    }
    ULONG rv;
    if (call.faulted(rv)) return rv;
    KeyObject *key = call.token().handles.key(hKey);
    if (key == nullptr || key->algorithm == SGD_SMS4_MAC || key->state == CipherState::Agreement) {
      return SAR_INVALIDHANDLEERR;
    }
    if (pMacParam == nullptr || phMac == nullptr) return SAR_INVALIDPARAMERR;
    if ((pMacParam->IVLen != 0 && pMacParam->IVLen != kBlock) || pMacParam->PaddingType > 1)
      return SAR_INVALIDPARAMERR;
    std::unique_ptr<KeyObject> mac(new KeyObject);
    mac->device = key->device;
    mac->algorithm = SGD_SMS4_MAC;
    mac->key = key->key;
    if (pMacParam->IVLen == kBlock) memcpy(mac->iv, pMacParam->IV, kBlock);
    mac->padding = pMacParam->PaddingType == 1;
    mac->state = CipherState::Mac;
    *phMac = call.token().handles.add(std::move(mac));
    call.output("hMac", *phMac);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_Mac(HANDLE hMac, BYTE *pbData, ULONG ulDataLen, BYTE *pbMacData,
                     ULONG *pulMacLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_Mac");
    call.handle("hMac", hMac).number("ulDataLen", ulDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    KeyObject *mac = macOf(call, hMac);
    if (mac == nullptr) return SAR_INVALIDHANDLEERR;
    if (mac->state != CipherState::Mac) return SAR_NOTINITIALIZEERR;
    if (pulMacLen == nullptr) return SAR_INVALIDPARAMERR;
    if (pbMacData == nullptr || *pulMacLen < kBlock)
      return answerBytes(nullptr, kBlock, pbMacData, pulMacLen);
    if ((rv = absorb(*mac, pbData, ulDataLen)) != SAR_OK) return rv;
    return finish(*mac, pbMacData, pulMacLen);
  });
}

ULONG DEVAPI SKF_MacUpdate(HANDLE hMac, BYTE *pbData, ULONG ulDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_MacUpdate");
    call.handle("hMac", hMac).number("ulDataLen", ulDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    KeyObject *mac = macOf(call, hMac);
    return mac == nullptr ? SAR_INVALIDHANDLEERR : absorb(*mac, pbData, ulDataLen);
  });
}

ULONG DEVAPI SKF_MacFinal(HANDLE hMac, BYTE *pbMacData, ULONG *pulMacDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_MacFinal");
    call.handle("hMac", hMac);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    KeyObject *mac = macOf(call, hMac);
    return mac == nullptr ? SAR_INVALIDHANDLEERR : finish(*mac, pbMacData, pulMacDataLen);
  });
}

}  // extern "C"
