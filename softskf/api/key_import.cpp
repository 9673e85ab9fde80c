// Import of an encryption key pair enveloped for the container: the
// symmetric key travels encrypted under the container's signature public
// key, the private key under that symmetric key (SM4-ECB). A refused
// envelope imports nothing.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/api/key_access.h"
#include "softskf/keys/key_material.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

// SM1 and SSF33 are not implemented; SMS4-ECB is the one envelope cipher.
ULONG checkEnvelopeAlgorithm(ULONG algorithm) {
  if ((algorithm & 0xFFFFFF00u) == 0x100 || (algorithm & 0xFFFFFF00u) == 0x200)
    return SAR_NOTSUPPORTYETERR;
  return algorithm == SGD_SMS4_ECB ? SAR_OK : SAR_INVALIDPARAMERR;
}

// The private scalar in cbEncryptedPriKey, which senders lay out in one of
// three ways (all right-aligned in the 64 bytes): E(d) in the last 32 bytes;
// E(00 01 00 00 || d || twelve 0x0C) in the last 48; E(32 zero bytes || d)
// in all 64. The layout whose d yields exactly the announced public key wins.
bool unwrapSm2Private(const uint8_t symmetricKey[16], const uint8_t encrypted[64],
                      const crypto::Sm2PublicKey &expected, SecureArray<32> &d) {
  static const uint8_t kZero[32] = {};
  static const uint8_t kPrefix[4] = {0x00, 0x01, 0x00, 0x00};
  SecureArray<64> plain;
  SecureArray<32> candidate[3];
  bool have[3] = {false, false, false};
  if (memcmp(encrypted, kZero, 32) == 0 &&
      crypto::sm4Ecb(false, symmetricKey, encrypted + 32, 32, plain.data())) {
    memcpy(candidate[0].data(), plain.data(), 32);
    have[0] = true;
  }
  if (memcmp(encrypted, kZero, 16) == 0 &&
      crypto::sm4Ecb(false, symmetricKey, encrypted + 16, 48, plain.data())) {
    bool padded = memcmp(plain.data(), kPrefix, 4) == 0;
    for (size_t i = 36; i < 48; ++i) padded = padded && plain.bytes[i] == 0x0C;
    if (padded) {
      memcpy(candidate[1].data(), plain.data() + 4, 32);
      have[1] = true;
    }
  }
  if (crypto::sm4Ecb(false, symmetricKey, encrypted, 64, plain.data()) &&
      memcmp(plain.data(), kZero, 32) == 0) {
    memcpy(candidate[2].data(), plain.data() + 32, 32);
    have[2] = true;
  }
  for (int i = 0; i < 3; ++i) {
    crypto::Sm2PublicKey derived;
    if (have[i] && crypto::sm2PublicFromPrivate(candidate[i].data(), derived) &&
        memcmp(derived.x, expected.x, 32) == 0 && memcmp(derived.y, expected.y, 32) == 0) {
      d = candidate[i];
      return true;
    }
  }
  return false;
}

void storeEncryptionKey(ContainerRecord &container, KeyPairRecord &&key) {
  container.encryption = std::move(key);
  container.encryptionCertificate.clear();
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_ImportECCKeyPair(HCONTAINER hContainer, PENVELOPEDKEYBLOB pEnvelopedKeyBlob) {
  return guarded([&]() -> ULONG {
    const ENVELOPEDKEYBLOB *blob = pEnvelopedKeyBlob;
    Call call("SKF_ImportECCKeyPair");
    call.handle("hContainer", hContainer)
        .hex("ulSymmAlgID", blob ? blob->ulSymmAlgID : 0)
        .number("ulBits", blob ? blob->ulBits : 0)
        .number("CipherLen", blob ? blob->ECCCipherBlob.CipherLen : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (blob == nullptr) return SAR_INVALIDPARAMERR;
    if ((rv = checkEnvelopeAlgorithm(blob->ulSymmAlgID)) != SAR_OK) return rv;
    if (blob->ulBits != 256 || blob->ECCCipherBlob.CipherLen != 16) return SAR_INVALIDPARAMERR;
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    ContainerRecord &container = session.container();
    if (container.signature.algorithm != KeyAlgorithm::Sm2) return SAR_KEYNOTFOUNTERR;
    SecureArray<32> signatureKey;
    if (!loadSm2(tokenKey, container.signature, signatureKey)) return SAR_FAIL;

    const ECCCIPHERBLOB &wrapped = blob->ECCCipherBlob;
    uint8_t flat[crypto::kSm2CipherOverhead + 16];
    flat[0] = 0x04;
    memcpy(flat + 1, wrapped.XCoordinate + 32, 32);
    memcpy(flat + 33, wrapped.YCoordinate + 32, 32);
    memcpy(flat + 65, wrapped.Cipher, 16);
    memcpy(flat + 81, wrapped.HASH, 32);
    SecureBytes symmetricKey;
    if (!crypto::sm2Decrypt(signatureKey.data(), flat, sizeof flat, symmetricKey) ||
        symmetricKey.size() != 16) {
      return SAR_KEYINFOTYPEERR;
    }
    crypto::Sm2KeyPair pair;
    memcpy(pair.publicKey.x, blob->PubKey.XCoordinate + 32, 32);
    memcpy(pair.publicKey.y, blob->PubKey.YCoordinate + 32, 32);
    if (!unwrapSm2Private(symmetricKey.data(), blob->cbEncryptedPriKey, pair.publicKey, pair.d))
      return SAR_KEYINFOTYPEERR;
    KeyPairRecord record;
    if (!storeSm2(tokenKey, pair, record)) return SAR_FAIL;
    storeEncryptionKey(container, std::move(record));
    return session.save();
  });
}

ULONG DEVAPI SKF_ImportRSAKeyPair(HCONTAINER hContainer, ULONG ulSymAlgId, BYTE *pbWrappedKey,
                                  ULONG ulWrappedKeyLen, BYTE *pbEncryptedData,
                                  ULONG ulEncryptedDataLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ImportRSAKeyPair");
    call.handle("hContainer", hContainer)
        .hex("ulSymAlgId", ulSymAlgId)
        .number("ulWrappedKeyLen", ulWrappedKeyLen)
        .number("ulEncryptedDataLen", ulEncryptedDataLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pbWrappedKey == nullptr || pbEncryptedData == nullptr || ulEncryptedDataLen == 0 ||
        ulEncryptedDataLen > 8192) {
      return SAR_INVALIDPARAMERR;
    }
    if ((rv = checkEnvelopeAlgorithm(ulSymAlgId)) != SAR_OK) return rv;
    TokenKey tokenKey;
    if ((rv = userTokenKey(session, tokenKey)) != SAR_OK) return rv;
    ContainerRecord &container = session.container();
    if (container.signature.algorithm != KeyAlgorithm::Rsa) return SAR_KEYNOTFOUNTERR;
    if (ulWrappedKeyLen != container.signature.modulus.size()) return SAR_INDATALENERR;
    crypto::RsaPrivateKey signatureKey;
    if (!loadRsa(tokenKey, container.signature, signatureKey)) return SAR_FAIL;
    SecureBytes symmetricKey, der;
    if (!crypto::rsaDecryptPkcs1(signatureKey, pbWrappedKey, ulWrappedKeyLen, symmetricKey) ||
        symmetricKey.size() != 16 ||
        !crypto::sm4EcbPadded(false, symmetricKey.data(), pbEncryptedData, ulEncryptedDataLen,
                              der)) {
      return SAR_KEYINFOTYPEERR;
    }
    crypto::RsaPrivateKey key;
    if (!parseRsaPrivateKeyDer(der.data(), der.size(), key)) return SAR_KEYINFOTYPEERR;
    uint32_t bits = bitLength(key.publicKey.n);
    if (bits != 1024 && bits != 2048) return SAR_KEYINFOTYPEERR;
    KeyPairRecord record;
    if (!storeRsa(tokenKey, key, record)) return SAR_FAIL;
    storeEncryptionKey(container, std::move(record));
    return session.save();
  });
}

}  // extern "C"
