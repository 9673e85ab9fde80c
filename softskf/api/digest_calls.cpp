// SM3 digests, optionally over the SM2 signer identity value Z first.
#include <string.h>

#include "crypto/backend.h"
#include "crypto/sm2_z.h"
#include "softskf/core/token.h"

using namespace tembra;
using namespace tembra::softskf;

extern "C" {

ULONG DEVAPI SKF_DigestInit(DEVHANDLE hDev, ULONG ulAlgID, ECCPUBLICKEYBLOB *pPubKey,
                            unsigned char *pucID, ULONG ulIDLen, HANDLE *phHash) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DigestInit");
    call.handle("hDev", hDev)
        .hex("ulAlgID", ulAlgID)
        .number("pPubKey", pPubKey != nullptr ? 1 : 0)
        .number("ulIDLen", ulIDLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    if (call.token().handles.device(hDev) == nullptr) return SAR_INVALIDHANDLEERR;
    if (phHash == nullptr) return SAR_INVALIDPARAMERR;
    if (ulAlgID != SGD_SM3) return SAR_NOTSUPPORTYETERR;
    std::unique_ptr<HashObject> hash(new HashObject);
    hash->device = HandleTable::idOf(hDev);
    hash->sm3.reset(new crypto::Sm3);
    if (!hash->sm3->ok()) return SAR_HASHERR;
    if (pPubKey != nullptr) {
      if (pucID == nullptr && ulIDLen > 0) return SAR_INVALIDPARAMERR;
      crypto::Sm2PublicKey pub;
      memcpy(pub.x, pPubKey->XCoordinate + 32, 32);
      memcpy(pub.y, pPubKey->YCoordinate + 32, 32);
      const uint8_t *id = ulIDLen > 0 ? pucID : crypto::kSm2DefaultId;
      size_t idLen = ulIDLen > 0 ? ulIDLen : crypto::kSm2DefaultIdSize;
      uint8_t z[crypto::kSm3DigestSize];
      if (!crypto::sm2ComputeZ(pub, id, idLen, z)) return SAR_INVALIDPARAMERR;
      if (!hash->sm3->update(z, sizeof z)) return SAR_HASHERR;
    }
    *phHash = call.token().handles.add(std::move(hash));
    call.output("hHash", *phHash);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_DigestUpdate(HANDLE hHash, BYTE *pbData, ULONG ulDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DigestUpdate");
    call.handle("hHash", hHash).number("ulDataLen", ulDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    HashObject *hash = call.token().handles.hash(hHash);
    if (hash == nullptr) return SAR_INVALIDHANDLEERR;
    if (pbData == nullptr && ulDataLen > 0) return SAR_INVALIDPARAMERR;
    if (!hash->sm3) return SAR_NOTINITIALIZEERR;
    return ulDataLen == 0 || hash->sm3->update(pbData, ulDataLen) ? SAR_OK : SAR_HASHERR;
  });
}

ULONG DEVAPI SKF_DigestFinal(HANDLE hHash, BYTE *pHashData, ULONG *pulHashLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DigestFinal");
    call.handle("hHash", hHash);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    HashObject *hash = call.token().handles.hash(hHash);
    if (hash == nullptr) return SAR_INVALIDHANDLEERR;
    if (pulHashLen == nullptr) return SAR_INVALIDPARAMERR;
    if (!hash->sm3) return SAR_NOTINITIALIZEERR;
    if (pHashData == nullptr) {
      *pulHashLen = crypto::kSm3DigestSize;
      return SAR_OK;
    }
    if (*pulHashLen < crypto::kSm3DigestSize) {
      *pulHashLen = crypto::kSm3DigestSize;
      return SAR_BUFFER_TOO_SMALL;
    }
    bool ok = hash->sm3->final(pHashData);
    hash->sm3.reset();  // spent: the handle only closes now
    if (!ok) return SAR_HASHERR;
    *pulHashLen = crypto::kSm3DigestSize;
    return SAR_OK;
  });
}

}  // extern "C"
