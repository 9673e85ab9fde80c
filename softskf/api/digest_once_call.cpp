// SKF_Digest: the whole message in one call on a fresh hash handle (after
// SKF_DigestInit, with the Z value already taken in when a public key was
// given). The handle is spent afterwards, as after SKF_DigestFinal; a length
// query leaves it as it was.
#include "crypto/backend.h"
#include "softskf/core/token.h"

using namespace tembra;
using namespace tembra::softskf;

extern "C" {

ULONG DEVAPI SKF_Digest(HANDLE hHash, BYTE *pbData, ULONG ulDataLen, BYTE *pbHashData,
                        ULONG *pulHashLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_Digest");
    call.handle("hHash", hHash).number("ulDataLen", ulDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    HashObject *hash = call.token().handles.hash(hHash);
    if (hash == nullptr) return SAR_INVALIDHANDLEERR;
    if (pulHashLen == nullptr || (pbData == nullptr && ulDataLen > 0)) return SAR_INVALIDPARAMERR;
    if (!hash->sm3) return SAR_NOTINITIALIZEERR;
    const size_t len = crypto::kSm3DigestSize;
    if (pbHashData == nullptr || *pulHashLen < len)
      return answerBytes(nullptr, len, pbHashData, pulHashLen);
    bool ok =
        (ulDataLen == 0 || hash->sm3->update(pbData, ulDataLen)) && hash->sm3->final(pbHashData);
    hash->sm3.reset();  // spent: the handle only closes now
    if (!ok) return SAR_HASHERR;
    *pulHashLen = static_cast<ULONG>(len);
    return SAR_OK;
  });
}

}  // extern "C"
