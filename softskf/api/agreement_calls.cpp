// SM2 key agreement (GM/T 0003.3) with the container's encryption key pair.
// The sponsor calls SKF_GenerateAgreementDataWithECC (its temporary key) and
// then SKF_GenerateKeyWithECC with the responder's keys; the responder calls
// SKF_GenerateAgreementDataAndKeyWithECC once. Both sides derive the 16-byte
// session key KDF(x || y || Z_sponsor || Z_responder) of the shared point;
// the optional confirmation values are not exchanged in this interface.
#include <string.h>

#include "crypto/backend.h"
#include "crypto/sm2_kdf.h"
#include "crypto/sm2_z.h"
#include "softskf/api/algorithm_ids.h"
#include "softskf/api/blob_forms.h"
#include "softskf/api/key_access.h"
#include "softskf/keys/key_material.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const ULONG kMaxIdLen = 1024;
const size_t kSessionKeyLen = 16;

bool idOk(const BYTE *id, ULONG len) {
  return len <= kMaxIdLen && (id != nullptr || len == 0);
}

// The user-logged-in container's SM2 encryption key: d and its public key.
ULONG encryptionKey(AppSession &session, SecureArray<32> &d, crypto::Sm2PublicKey &pub) {
  TokenKey tokenKey;
  ULONG rv;
  if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
  const KeyPairRecord &key = session.container().encryption;
  if (key.algorithm != KeyAlgorithm::Sm2) return SAR_KEYNOTFOUNTERR;
  if (!loadSm2(tokenKey, key, d)) return SAR_FAIL;
  pub = sm2Public(key);
  return SAR_OK;
}

bool deriveKey(const uint8_t xy[64], const crypto::Sm2PublicKey &sponsor, const uint8_t *sponsorId,
               size_t sponsorIdLen, const crypto::Sm2PublicKey &responder,
               const uint8_t *responderId, size_t responderIdLen, uint8_t key[kSessionKeyLen]) {
  // An empty identifier is the default one, as SKF_DigestInit takes it.
  if (sponsorIdLen == 0) {
    sponsorId = crypto::kSm2DefaultId;
    sponsorIdLen = crypto::kSm2DefaultIdSize;
  }
  if (responderIdLen == 0) {
    responderId = crypto::kSm2DefaultId;
    responderIdLen = crypto::kSm2DefaultIdSize;
  }
  SecureArray<128> input;
  memcpy(input.data(), xy, 64);
  return crypto::sm2ComputeZ(sponsor, sponsorId, sponsorIdLen, input.data() + 64) &&
         crypto::sm2ComputeZ(responder, responderId, responderIdLen, input.data() + 96) &&
         crypto::sm2Kdf(input.data(), input.size(), key, kSessionKeyLen);
}

HANDLE addKey(Call &call, uint32_t device, ULONG algorithm, const uint8_t *value) {
  std::unique_ptr<KeyObject> key(new KeyObject);
  key->device = device;
  key->algorithm = algorithm;
  memcpy(key->key.data(), value, kSessionKeyLen);
  return call.token().handles.add(std::move(key));
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_GenerateAgreementDataWithECC(HCONTAINER hContainer, ULONG ulAlgId,
                                              ECCPUBLICKEYBLOB *pTempECCPubKeyBlob, BYTE *pbID,
                                              ULONG ulIDLen, HANDLE *phAgreementHandle) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GenerateAgreementDataWithECC");
    call.handle("hContainer", hContainer).hex("ulAlgId", ulAlgId).number("ulIDLen", ulIDLen);
    ULONG rv, algorithm = 0;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pTempECCPubKeyBlob == nullptr || phAgreementHandle == nullptr || !idOk(pbID, ulIDLen))
      return SAR_INVALIDPARAMERR;
    if ((rv = sessionKeyAlgorithm(ulAlgId, true, algorithm)) != SAR_OK) return rv;
    if (session.container().encryption.algorithm != KeyAlgorithm::Sm2) return SAR_KEYNOTFOUNTERR;
    crypto::Sm2KeyPair temporary;
    if (!crypto::sm2Generate(temporary)) return SAR_FAIL;
    std::unique_ptr<KeyObject> agreement(new KeyObject);
    agreement->device = call.token().handles.container(hContainer)->device;
    agreement->algorithm = algorithm;
    agreement->state = CipherState::Agreement;
    agreement->container = hContainer;
    SecureBytes withId(temporary.d.size() + ulIDLen);
    memcpy(withId.data(), temporary.d.data(), temporary.d.size());
    if (ulIDLen > 0) memcpy(withId.data() + temporary.d.size(), pbID, ulIDLen);
    agreement->pending = std::move(withId);
    eccBlobFromPublic(temporary.publicKey, *pTempECCPubKeyBlob);
    *phAgreementHandle = call.token().handles.add(std::move(agreement));
    call.output("hAgreementHandle", *phAgreementHandle);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_GenerateAgreementDataAndKeyWithECC(HANDLE hContainer, ULONG ulAlgId,
                                                    ECCPUBLICKEYBLOB *pSponsorECCPubKeyBlob,
                                                    ECCPUBLICKEYBLOB *pSponsorTempECCPubKeyBlob,
                                                    ECCPUBLICKEYBLOB *pTempECCPubKeyBlob,
                                                    BYTE *pbID, ULONG ulIDLen, BYTE *pbSponsorID,
                                                    ULONG ulSponsorIDLen, HANDLE *phKeyHandle) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GenerateAgreementDataAndKeyWithECC");
    call.handle("hContainer", hContainer)
        .hex("ulAlgId", ulAlgId)
        .number("ulIDLen", ulIDLen)
        .number("ulSponsorIDLen", ulSponsorIDLen);
    ULONG rv, algorithm = 0;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pTempECCPubKeyBlob == nullptr || phKeyHandle == nullptr || !idOk(pbID, ulIDLen) ||
        !idOk(pbSponsorID, ulSponsorIDLen)) {
      return SAR_INVALIDPARAMERR;
    }
    if ((rv = sessionKeyAlgorithm(ulAlgId, true, algorithm)) != SAR_OK) return rv;
    crypto::Sm2PublicKey sponsor, sponsorTemporary, own;
    if (!eccPublicFromBlob(pSponsorECCPubKeyBlob, sponsor) ||
        !eccPublicFromBlob(pSponsorTempECCPubKeyBlob, sponsorTemporary)) {
      return SAR_INVALIDPARAMERR;
    }
    SecureArray<32> d;
    if ((rv = encryptionKey(session, d, own)) != SAR_OK) return rv;
    crypto::Sm2KeyPair temporary;
    SecureArray<64> shared;
    SecureArray<kSessionKeyLen> value;
    if (!crypto::sm2Generate(temporary) ||
        !crypto::sm2AgreementPoint(d.data(), temporary.d.data(), temporary.publicKey, sponsor,
                                   sponsorTemporary, shared.data()) ||
        !deriveKey(shared.data(), sponsor, pbSponsorID, ulSponsorIDLen, own, pbID, ulIDLen,
                   value.data())) {
      return SAR_FAIL;
    }
    eccBlobFromPublic(temporary.publicKey, *pTempECCPubKeyBlob);
    *phKeyHandle =
        addKey(call, call.token().handles.container(hContainer)->device, algorithm, value.data());
    call.output("hKeyHandle", *phKeyHandle);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_GenerateKeyWithECC(HANDLE hAgreementHandle, ECCPUBLICKEYBLOB *pECCPubKeyBlob,
                                    ECCPUBLICKEYBLOB *pTempECCPubKeyBlob, BYTE *pbID, ULONG ulIDLen,
                                    HANDLE *phKeyHandle) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GenerateKeyWithECC");
    call.handle("hAgreementHandle", hAgreementHandle).number("ulIDLen", ulIDLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    KeyObject *agreement = call.token().handles.key(hAgreementHandle);
    if (agreement == nullptr || agreement->state != CipherState::Agreement)
      return SAR_INVALIDHANDLEERR;
    AppSession session(call);
    if ((rv = session.openContainer(agreement->container)) != SAR_OK) return rv;
    if (phKeyHandle == nullptr || !idOk(pbID, ulIDLen)) return SAR_INVALIDPARAMERR;
    crypto::Sm2PublicKey responder, responderTemporary, own, ownTemporary;
    if (!eccPublicFromBlob(pECCPubKeyBlob, responder) ||
        !eccPublicFromBlob(pTempECCPubKeyBlob, responderTemporary)) {
      return SAR_INVALIDPARAMERR;
    }
    SecureArray<32> d;
    if ((rv = encryptionKey(session, d, own)) != SAR_OK) return rv;
    const uint8_t *r = agreement->pending.data();
    const uint8_t *sponsorId = agreement->pending.data() + 32;
    const size_t sponsorIdLen = agreement->pending.size() - 32;
    SecureArray<64> shared;
    SecureArray<kSessionKeyLen> value;
    if (!crypto::sm2PublicFromPrivate(r, ownTemporary) ||
        !crypto::sm2AgreementPoint(d.data(), r, ownTemporary, responder, responderTemporary,
                                   shared.data()) ||
        !deriveKey(shared.data(), own, sponsorId, sponsorIdLen, responder, pbID, ulIDLen,
                   value.data())) {
      return SAR_FAIL;
    }
    *phKeyHandle = addKey(call, agreement->device, agreement->algorithm, value.data());
    call.output("hKeyHandle", *phKeyHandle);
    return SAR_OK;
  });
}

}  // extern "C"
