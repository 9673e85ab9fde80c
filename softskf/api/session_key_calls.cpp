// Session keys made with a container: imported (unwrapped by the container's
// encryption private key, which needs the user login) or generated and
// exported wrapped under a public key the caller names (SM2 or RSA
// PKCS#1 v1.5). Each answers a key handle like SKF_SetSymmKey's.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/api/algorithm_ids.h"
#include "softskf/api/blob_forms.h"
#include "softskf/api/key_access.h"
#include "softskf/keys/key_material.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const size_t kSessionKeyLen = 16;
const size_t kCipherBlobHeader = sizeof(ECCCIPHERBLOB) - 1;

HANDLE addSessionKey(Call &call, HCONTAINER hContainer, ULONG algorithm, const uint8_t *value) {
  std::unique_ptr<KeyObject> key(new KeyObject);
  key->device = call.token().handles.container(hContainer)->device;
  key->algorithm = algorithm;
  memcpy(key->key.data(), value, kSessionKeyLen);
  return call.token().handles.add(std::move(key));
}

// The wrapped key opened by the container's encryption key pair.
ULONG unwrap(AppSession &session, const BYTE *data, ULONG len, SecureBytes &plain) {
  TokenKey tokenKey;
  ULONG rv;
  if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
  const KeyPairRecord &key = session.container().encryption;
  if (key.algorithm == KeyAlgorithm::Sm2) {
    const ECCCIPHERBLOB *blob = reinterpret_cast<const ECCCIPHERBLOB *>(data);
    std::vector<uint8_t> flat;
    if (len < kCipherBlobHeader || !eccCipherToFlat(blob, len - kCipherBlobHeader, flat))
      return SAR_INDATALENERR;
    SecureArray<32> d;
    if (!loadSm2(tokenKey, key, d)) return SAR_FAIL;
    return crypto::sm2Decrypt(d.data(), flat.data(), flat.size(), plain) ? SAR_OK : SAR_INDATAERR;
  }
  if (key.algorithm == KeyAlgorithm::Rsa) {
    if (len != key.modulus.size()) return SAR_INDATALENERR;
    crypto::RsaPrivateKey privateKey;
    if (!loadRsa(tokenKey, key, privateKey)) return SAR_FAIL;
    return crypto::rsaDecryptPkcs1(privateKey, data, len, plain) ? SAR_OK : SAR_INDATAERR;
  }
  return SAR_KEYNOTFOUNTERR;
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_ImportSessionKey(HCONTAINER hContainer, ULONG ulAlgId, BYTE *pbWrapedData,
                                  ULONG ulWrapedLen, HANDLE *phKey) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ImportSessionKey");
    call.handle("hContainer", hContainer)
        .hex("ulAlgId", ulAlgId)
        .number("ulWrapedLen", ulWrapedLen);
    ULONG rv, algorithm = 0;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pbWrapedData == nullptr || phKey == nullptr) return SAR_INVALIDPARAMERR;
    if ((rv = sessionKeyAlgorithm(ulAlgId, false, algorithm)) != SAR_OK) return rv;
    SecureBytes plain;
    if ((rv = unwrap(session, pbWrapedData, ulWrapedLen, plain)) != SAR_OK) return rv;
    if (plain.size() != kSessionKeyLen) return SAR_INDATAERR;
    *phKey = addSessionKey(call, hContainer, algorithm, plain.data());
    call.output("hKey", *phKey);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ECCExportSessionKey(HCONTAINER hContainer, ULONG ulAlgId,
                                     ECCPUBLICKEYBLOB *pPubKey, PECCCIPHERBLOB pData,
                                     HANDLE *phSessionKey) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ECCExportSessionKey");
    call.handle("hContainer", hContainer).hex("ulAlgId", ulAlgId);
    ULONG rv, algorithm = 0;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pPubKey == nullptr || pData == nullptr || phSessionKey == nullptr)
      return SAR_INVALIDPARAMERR;
    if ((rv = sessionKeyAlgorithm(ulAlgId, false, algorithm)) != SAR_OK) return rv;
    crypto::Sm2PublicKey peer;
    if (!eccPublicFromBlob(pPubKey, peer)) return SAR_INVALIDPARAMERR;
    SecureArray<kSessionKeyLen> value;
    std::vector<uint8_t> flat;
    if (!crypto::randomBytes(value.data(), value.size())) return SAR_GENRANDERR;
    if (!crypto::sm2Encrypt(peer, value.data(), value.size(), flat) ||
        flat.size() != crypto::kSm2CipherOverhead + kSessionKeyLen) {
      return SAR_FAIL;
    }
    eccCipherFromFlat(flat, pData);  // CipherLen 16: the blob must hold 16 bytes of Cipher
    *phSessionKey = addSessionKey(call, hContainer, algorithm, value.data());
    call.output("hSessionKey", *phSessionKey);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_RSAExportSessionKey(HCONTAINER hContainer, ULONG ulAlgId,
                                     RSAPUBLICKEYBLOB *pPubKey, BYTE *pbData, ULONG *pulDataLen,
                                     HANDLE *phSessionKey) {
  return guarded([&]() -> ULONG {
    Call call("SKF_RSAExportSessionKey");
    call.handle("hContainer", hContainer)
        .hex("ulAlgId", ulAlgId)
        .number("ulDataLen", pulDataLen ? *pulDataLen : 0);
    ULONG rv, algorithm = 0;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pPubKey == nullptr || pulDataLen == nullptr || phSessionKey == nullptr)
      return SAR_INVALIDPARAMERR;
    if ((rv = sessionKeyAlgorithm(ulAlgId, false, algorithm)) != SAR_OK) return rv;
    crypto::RsaPublicKey peer;
    if (!rsaPublicFromBlob(pPubKey, peer)) return SAR_INVALIDPARAMERR;
    const ULONG k = static_cast<ULONG>(peer.n.size());
    // A null buffer or a short one only learns the length; no key is made.
    if (pbData == nullptr || *pulDataLen < k) return answerBytes(nullptr, k, pbData, pulDataLen);
    SecureArray<kSessionKeyLen> value;
    std::vector<uint8_t> wrapped;
    if (!crypto::randomBytes(value.data(), value.size())) return SAR_GENRANDERR;
    if (!crypto::rsaEncryptPkcs1(peer, value.data(), value.size(), wrapped) || wrapped.size() != k)
      return SAR_RSAENCERR;
    if ((rv = answerBytes(wrapped.data(), wrapped.size(), pbData, pulDataLen)) != SAR_OK) return rv;
    *phSessionKey = addSessionKey(call, hContainer, algorithm, value.data());
    call.output("hSessionKey", *phSessionKey);
    return SAR_OK;
  });
}

}  // extern "C"
