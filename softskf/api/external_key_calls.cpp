// Operations with keys the caller holds (GM/T 0016 "external" keys): RSA key
// generation, raw RSA, verification and SM2 encryption, decryption and
// signing with keys given as blobs. Nothing here touches the store beyond
// the device check, and nothing needs a login.
#include <string.h>

#include "crypto/backend.h"
#include "crypto/sm2_kdf.h"
#include "softskf/api/blob_forms.h"
#include "softskf/api/device_access.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const ULONG kMaxEccPlainLen = 65536;

ULONG signatureFrom(const ECCSIGNATUREBLOB *sig, uint8_t r[32], uint8_t s[32]) {
  if (!crypto::allZero(sig->r, 32) || !crypto::allZero(sig->s, 32)) return SAR_FAIL;
  memcpy(r, sig->r + 32, 32);
  memcpy(s, sig->s + 32, 32);
  return SAR_OK;
}

// SAR_OK if the signature verifies over the 32-byte digest, else SAR_FAIL.
ULONG verifyEcc(ECCPUBLICKEYBLOB *pub, BYTE *pbData, ULONG ulDataLen, PECCSIGNATUREBLOB sig) {
  if (pub == nullptr || pbData == nullptr || sig == nullptr) return SAR_INVALIDPARAMERR;
  if (ulDataLen != crypto::kSm3DigestSize) return SAR_INDATALENERR;
  crypto::Sm2PublicKey key;
  if (!eccPublicFromBlob(pub, key)) return SAR_INVALIDPARAMERR;
  uint8_t r[32], s[32];
  if (signatureFrom(sig, r, s) != SAR_OK) return SAR_FAIL;
  return crypto::sm2Verify(key, pbData, r, s) ? SAR_OK : SAR_FAIL;
}

ULONG frame(Call &call, HANDLE hDev) {
  ULONG rv;
  if (call.faulted(rv)) return rv;
  return checkPresentDevice(call, hDev);
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_GenExtRSAKey(DEVHANDLE hDev, ULONG ulBitsLen, RSAPRIVATEKEYBLOB *pBlob) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GenExtRSAKey");
    call.handle("hDev", hDev).number("ulBitsLen", ulBitsLen);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    if (pBlob == nullptr || (ulBitsLen != 1024 && ulBitsLen != 2048)) return SAR_INVALIDPARAMERR;
    crypto::RsaPrivateKey key;
    if (!crypto::rsaGenerate(static_cast<int>(ulBitsLen), key)) return SAR_GENRSAKEYERR;
    return rsaBlobFromPrivate(key, *pBlob) ? SAR_OK : SAR_FAIL;
  });
}

ULONG DEVAPI SKF_RSAVerify(DEVHANDLE hDev, RSAPUBLICKEYBLOB *pRSAPubKeyBlob, BYTE *pbData,
                           ULONG ulDataLen, BYTE *pbSignature, ULONG ulSignLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_RSAVerify");
    call.handle("hDev", hDev).number("ulDataLen", ulDataLen).number("ulSignLen", ulSignLen);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    if (pRSAPubKeyBlob == nullptr || pbSignature == nullptr || (pbData == nullptr && ulDataLen))
      return SAR_INVALIDPARAMERR;
    crypto::RsaPublicKey key;
    if (!rsaPublicFromBlob(pRSAPubKeyBlob, key)) return SAR_INVALIDPARAMERR;
    if (ulSignLen != key.n.size()) return SAR_INDATALENERR;
    return crypto::rsaVerifyPkcs1(key, pbData, ulDataLen, pbSignature, ulSignLen) ? SAR_OK
                                                                                  : SAR_FAIL;
  });
}

ULONG DEVAPI SKF_ExtRSAPubKeyOperation(DEVHANDLE hDev, RSAPUBLICKEYBLOB *pRSAPubKeyBlob,
                                       BYTE *pbInput, ULONG ulInputLen, BYTE *pbOutput,
                                       ULONG *pulOutputLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExtRSAPubKeyOperation");
    call.handle("hDev", hDev)
        .number("ulInputLen", ulInputLen)
        .number("ulOutputLen", pulOutputLen ? *pulOutputLen : 0);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    if (pRSAPubKeyBlob == nullptr || pbInput == nullptr || pulOutputLen == nullptr)
      return SAR_INVALIDPARAMERR;
    crypto::RsaPublicKey key;
    if (!rsaPublicFromBlob(pRSAPubKeyBlob, key)) return SAR_INVALIDPARAMERR;
    if (ulInputLen != key.n.size()) return SAR_INDATALENERR;
    std::vector<uint8_t> out;
    if (!crypto::rsaPublicRaw(key, pbInput, ulInputLen, out)) return SAR_INDATAERR;
    return answerBytes(out.data(), out.size(), pbOutput, pulOutputLen);
  });
}

ULONG DEVAPI SKF_ExtRSAPriKeyOperation(DEVHANDLE hDev, RSAPRIVATEKEYBLOB *pRSAPriKeyBlob,
                                       BYTE *pbInput, ULONG ulInputLen, BYTE *pbOutput,
                                       ULONG *pulOutputLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExtRSAPriKeyOperation");
    call.handle("hDev", hDev)
        .number("ulInputLen", ulInputLen)
        .number("ulOutputLen", pulOutputLen ? *pulOutputLen : 0);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    if (pRSAPriKeyBlob == nullptr || pbInput == nullptr || pulOutputLen == nullptr)
      return SAR_INVALIDPARAMERR;
    crypto::RsaPrivateKey key;
    if (!rsaPrivateFromBlob(pRSAPriKeyBlob, key)) return SAR_INVALIDPARAMERR;
    if (ulInputLen != key.publicKey.n.size()) return SAR_INDATALENERR;
    SecureBytes out;
    if (!crypto::rsaPrivateRaw(key, pbInput, ulInputLen, out)) return SAR_INDATAERR;
    return answerBytes(out.data(), out.size(), pbOutput, pulOutputLen);
  });
}

ULONG DEVAPI SKF_ECCVerify(DEVHANDLE hDev, ECCPUBLICKEYBLOB *pECCPubKeyBlob, BYTE *pbData,
                           ULONG ulDataLen, PECCSIGNATUREBLOB pSignature) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ECCVerify");
    call.handle("hDev", hDev).number("ulDataLen", ulDataLen);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    return verifyEcc(pECCPubKeyBlob, pbData, ulDataLen, pSignature);
  });
}

ULONG DEVAPI SKF_ExtECCVerify(DEVHANDLE hDev, ECCPUBLICKEYBLOB *pECCPubKeyBlob, BYTE *pbData,
                              ULONG ulDataLen, PECCSIGNATUREBLOB pSignature) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExtECCVerify");
    call.handle("hDev", hDev).number("ulDataLen", ulDataLen);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    return verifyEcc(pECCPubKeyBlob, pbData, ulDataLen, pSignature);
  });
}

ULONG DEVAPI SKF_ExtECCSign(DEVHANDLE hDev, ECCPRIVATEKEYBLOB *pECCPriKeyBlob, BYTE *pbData,
                            ULONG ulDataLen, PECCSIGNATUREBLOB pSignature) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExtECCSign");
    call.handle("hDev", hDev).number("ulDataLen", ulDataLen);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    if (pECCPriKeyBlob == nullptr || pbData == nullptr || pSignature == nullptr)
      return SAR_INVALIDPARAMERR;
    if (ulDataLen != crypto::kSm3DigestSize) return SAR_INDATALENERR;
    SecureArray<32> d;
    if (!eccPrivateFromBlob(pECCPriKeyBlob, d)) return SAR_INVALIDPARAMERR;
    ECCSIGNATUREBLOB signature;
    memset(&signature, 0, sizeof signature);
    if (!crypto::sm2Sign(d.data(), pbData, signature.r + 32, signature.s + 32))
      return SAR_INVALIDPARAMERR;
    *pSignature = signature;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ExtECCEncrypt(DEVHANDLE hDev, ECCPUBLICKEYBLOB *pECCPubKeyBlob, BYTE *pbPlainText,
                               ULONG ulPlainTextLen, PECCCIPHERBLOB pCipherText) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExtECCEncrypt");
    call.handle("hDev", hDev).number("ulPlainTextLen", ulPlainTextLen);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    if (pECCPubKeyBlob == nullptr || pCipherText == nullptr || pbPlainText == nullptr)
      return SAR_INVALIDPARAMERR;
    if (ulPlainTextLen == 0 || ulPlainTextLen > kMaxEccPlainLen) return SAR_INDATALENERR;
    crypto::Sm2PublicKey key;
    if (!eccPublicFromBlob(pECCPubKeyBlob, key)) return SAR_INVALIDPARAMERR;
    std::vector<uint8_t> flat;
    if (!crypto::sm2Encrypt(key, pbPlainText, ulPlainTextLen, flat) ||
        flat.size() != crypto::kSm2CipherOverhead + ulPlainTextLen) {
      return SAR_FAIL;
    }
    // The caller's blob holds CipherLen bytes of Cipher, as the standard has it.
    eccCipherFromFlat(flat, pCipherText);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ExtECCDecrypt(DEVHANDLE hDev, ECCPRIVATEKEYBLOB *pECCPriKeyBlob,
                               PECCCIPHERBLOB pCipherText, BYTE *pbPlainText,
                               ULONG *pulPlainTextLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExtECCDecrypt");
    call.handle("hDev", hDev).number("CipherLen", pCipherText ? pCipherText->CipherLen : 0);
    ULONG rv;
    if ((rv = frame(call, hDev)) != SAR_OK) return rv;
    if (pECCPriKeyBlob == nullptr || pCipherText == nullptr || pulPlainTextLen == nullptr)
      return SAR_INVALIDPARAMERR;
    SecureArray<32> d;
    if (!eccPrivateFromBlob(pECCPriKeyBlob, d)) return SAR_INVALIDPARAMERR;
    std::vector<uint8_t> flat;
    if (!eccCipherToFlat(pCipherText, kMaxEccPlainLen, flat)) return SAR_INDATALENERR;
    if (pbPlainText == nullptr)
      return answerBytes(nullptr, pCipherText->CipherLen, nullptr, pulPlainTextLen);
    SecureBytes plain;
    if (!crypto::sm2Decrypt(d.data(), flat.data(), flat.size(), plain)) return SAR_INDATAERR;
    return answerBytes(plain.data(), plain.size(), pbPlainText, pulPlainTextLen);
  });
}

}  // extern "C"
