// Key pair calls: generation of the signature key pair, signing, private-key
// decryption and public key export.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/api/algorithm_ids.h"
#include "softskf/api/key_access.h"
#include "softskf/keys/key_material.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const ULONG kMaxEccCipherLen = 65536;

// Replaces the signature key pair; the encryption key pair and both
// certificates of the container belong to the old key and go with it.
void replaceSignatureKey(ContainerRecord &container, KeyPairRecord &&key) {
  container.signature = std::move(key);
  container.encryption = KeyPairRecord();
  container.signatureCertificate.clear();
  container.encryptionCertificate.clear();
}

bool holdsOther(const ContainerRecord &container, KeyAlgorithm algorithm) {
  for (const KeyPairRecord *key : {&container.signature, &container.encryption}) {
    if (key->present() && key->algorithm != algorithm) return true;
  }
  return false;
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_GenECCKeyPair(HCONTAINER hContainer, ULONG ulAlgId, ECCPUBLICKEYBLOB *pBlob) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GenECCKeyPair");
    call.handle("hContainer", hContainer).hex("ulAlgId", ulAlgId);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pBlob == nullptr || !isSm2SignatureAlgorithm(ulAlgId)) return SAR_INVALIDPARAMERR;
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    ContainerRecord &container = session.container();
    if (holdsOther(container, KeyAlgorithm::Sm2)) return SAR_FAIL;
    crypto::Sm2KeyPair pair;
    KeyPairRecord record;
    if (!crypto::sm2Generate(pair)) return SAR_FAIL;
    if (!storeSm2(tokenKey, pair, record)) return SAR_FAIL;
    replaceSignatureKey(container, std::move(record));
    if ((rv = session.save()) != SAR_OK) return rv;
    fillEccBlob(container.signature, *pBlob);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_GenRSAKeyPair(HCONTAINER hContainer, ULONG ulBitsLen, RSAPUBLICKEYBLOB *pBlob) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GenRSAKeyPair");
    call.handle("hContainer", hContainer).number("ulBitsLen", ulBitsLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pBlob == nullptr || (ulBitsLen != 1024 && ulBitsLen != 2048)) return SAR_INVALIDPARAMERR;
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    ContainerRecord &container = session.container();
    if (holdsOther(container, KeyAlgorithm::Rsa)) return SAR_FAIL;
    crypto::RsaPrivateKey key;
    KeyPairRecord record;
    if (!crypto::rsaGenerate(static_cast<int>(ulBitsLen), key)) return SAR_GENRSAKEYERR;
    if (!storeRsa(tokenKey, key, record)) return SAR_FAIL;
    replaceSignatureKey(container, std::move(record));
    if ((rv = session.save()) != SAR_OK) return rv;
    return fillRsaBlob(container.signature, *pBlob) ? SAR_OK : SAR_FAIL;
  });
}

ULONG DEVAPI SKF_ECCSignData(HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen,
                             PECCSIGNATUREBLOB pSignature) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ECCSignData");
    call.handle("hContainer", hContainer).number("ulDataLen", ulDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pbData == nullptr || pSignature == nullptr) return SAR_INVALIDPARAMERR;
    if (ulDataLen != crypto::kSm3DigestSize) return SAR_INDATALENERR;
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    const KeyPairRecord &key = session.containerView().signature;
    if (key.algorithm != KeyAlgorithm::Sm2) return SAR_KEYNOTFOUNTERR;
    const ReadyKey *ready = nullptr;
    if (session.readyKey(TRUE, ready) != SAR_OK) return SAR_FAIL;
    ECCSIGNATUREBLOB signature;
    memset(&signature, 0, sizeof signature);
    if (!ready->sm2Sign(pbData, signature.r + 32, signature.s + 32)) return SAR_FAIL;
    *pSignature = signature;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_RSASignData(HCONTAINER hContainer, BYTE *pbData, ULONG ulDataLen,
                             BYTE *pbSignature, ULONG *pulSignLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_RSASignData");
    call.handle("hContainer", hContainer)
        .number("ulDataLen", ulDataLen)
        .number("ulSignLen", pulSignLen ? *pulSignLen : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pulSignLen == nullptr || (pbData == nullptr && ulDataLen > 0)) return SAR_INVALIDPARAMERR;
    const KeyPairRecord &key = session.containerView().signature;
    if (key.algorithm != KeyAlgorithm::Rsa) return SAR_KEYNOTFOUNTERR;
    const ULONG k = static_cast<ULONG>(key.modulus.size());
    if (pbSignature == nullptr) {
      *pulSignLen = k;
      return SAR_OK;
    }
    if (k < 11 || ulDataLen > k - 11) return SAR_INDATALENERR;
    if (*pulSignLen < k) {
      *pulSignLen = k;
      return SAR_BUFFER_TOO_SMALL;
    }
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    const ReadyKey *ready = nullptr;
    std::vector<uint8_t> signature;
    if (session.readyKey(TRUE, ready) != SAR_OK) return SAR_FAIL;
    if (!ready->rsaSignPkcs1(pbData, ulDataLen, signature) || signature.size() != k)
      return SAR_FAIL;
    memcpy(pbSignature, signature.data(), k);
    *pulSignLen = k;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ECCDecrypt(HCONTAINER hContainer, BOOL bSignFlag, PECCCIPHERBLOB pCipherText,
                            BYTE *pbPlainText, ULONG *pulPlainTextLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ECCDecrypt");
    call.handle("hContainer", hContainer)
        .number("bSignFlag", bSignFlag ? 1 : 0)
        .number("CipherLen", pCipherText ? pCipherText->CipherLen : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pCipherText == nullptr || pulPlainTextLen == nullptr) return SAR_INVALIDPARAMERR;
    const ULONG len = pCipherText->CipherLen;
    if (len > kMaxEccCipherLen) return SAR_INDATALENERR;
    const KeyPairRecord &key = keyPairOf(session.containerView(), bSignFlag);
    if (key.algorithm != KeyAlgorithm::Sm2) return SAR_KEYNOTFOUNTERR;
    if (pbPlainText == nullptr) {
      *pulPlainTextLen = len;
      return SAR_OK;
    }
    if (*pulPlainTextLen < len) {
      *pulPlainTextLen = len;
      return SAR_BUFFER_TOO_SMALL;
    }
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    const ReadyKey *ready = nullptr;
    if (session.readyKey(bSignFlag, ready) != SAR_OK) return SAR_FAIL;
    // The flat form C1 || C2 || C3 that the backend takes.
    std::vector<uint8_t> flat(crypto::kSm2CipherOverhead + len);
    flat[0] = 0x04;
    memcpy(&flat[1], pCipherText->XCoordinate + 32, 32);
    memcpy(&flat[33], pCipherText->YCoordinate + 32, 32);
    if (len > 0) memcpy(&flat[65], pCipherText->Cipher, len);
    memcpy(&flat[65 + len], pCipherText->HASH, 32);
    SecureBytes plain;
    if (!ready->sm2Decrypt(flat.data(), flat.size(), plain) || plain.size() != len)
      return SAR_INDATAERR;
    if (len > 0) memcpy(pbPlainText, plain.data(), len);
    *pulPlainTextLen = len;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_RSADecrypt(HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbIn, ULONG ulInLen,
                            BYTE *pbOut, ULONG *pulOutLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_RSADecrypt");
    call.handle("hContainer", hContainer)
        .number("bSignFlag", bSignFlag ? 1 : 0)
        .number("ulInLen", ulInLen)
        .number("ulOutLen", pulOutLen ? *pulOutLen : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pbIn == nullptr || pulOutLen == nullptr) return SAR_INVALIDPARAMERR;
    const KeyPairRecord &key = keyPairOf(session.containerView(), bSignFlag);
    if (key.algorithm != KeyAlgorithm::Rsa) return SAR_KEYNOTFOUNTERR;
    if (ulInLen != key.modulus.size()) return SAR_INDATALENERR;
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    const ReadyKey *ready = nullptr;
    SecureBytes plain;
    if (session.readyKey(bSignFlag, ready) != SAR_OK) return SAR_FAIL;
    if (!ready->rsaDecryptPkcs1(pbIn, ulInLen, plain)) return SAR_RSADECERR;
    return answerBytes(plain.data(), plain.size(), pbOut, pulOutLen);
  });
}

ULONG DEVAPI SKF_ExportPublicKey(HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbBlob,
                                 ULONG *pulBlobLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExportPublicKey");
    call.handle("hContainer", hContainer)
        .number("bSignFlag", bSignFlag ? 1 : 0)
        .number("ulBlobLen", pulBlobLen ? *pulBlobLen : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pulBlobLen == nullptr) return SAR_INVALIDPARAMERR;
    const KeyPairRecord &key = keyPairOf(session.containerView(), bSignFlag);
    if (key.algorithm == KeyAlgorithm::Sm2) {
      ECCPUBLICKEYBLOB blob;
      fillEccBlob(key, blob);
      return answerBytes(reinterpret_cast<const uint8_t *>(&blob), sizeof blob, pbBlob, pulBlobLen);
    }
    if (key.algorithm == KeyAlgorithm::Rsa) {
      RSAPUBLICKEYBLOB blob;
      if (!fillRsaBlob(key, blob)) return SAR_FAIL;
      return answerBytes(reinterpret_cast<const uint8_t *>(&blob), sizeof blob, pbBlob, pulBlobLen);
    }
    return SAR_KEYNOTFOUNTERR;
  });
}

}  // extern "C"
