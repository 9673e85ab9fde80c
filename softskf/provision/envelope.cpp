// importEncryptionKeyPair: the encryption key pair of a container is made in
// software and handed to the token enveloped under the container's own
// signature public key, the way a key management centre delivers it.
#include <string.h>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "crypto/secure_bytes.h"
#include "softskf/provision/container_keys.h"
#include "softskf/provision/provision.h"

namespace tembra {
namespace provision {
namespace {

constexpr size_t kWrapKeySize = crypto::kSm4KeySize;

ULONG importSm2EncryptionKeyPair(HCONTAINER container) {
  crypto::Sm2PublicKey signatureKey;
  ULONG rv = exportSm2PublicKey(container, true, signatureKey);
  if (rv != SAR_OK) return rv;

  crypto::Sm2KeyPair keyPair;
  SecureArray<kWrapKeySize> wrapKey;
  if (!crypto::sm2Generate(keyPair) || !crypto::randomBytes(wrapKey.data(), wrapKey.size())) {
    return SAR_GENRANDERR;
  }
  std::vector<uint8_t> wrapped;  // 0x04 || x || y || C2 || C3, C2 the wrapped key
  if (!crypto::sm2Encrypt(signatureKey, wrapKey.data(), wrapKey.size(), wrapped) ||
      wrapped.size() != crypto::kSm2CipherOverhead + kWrapKeySize) {
    return SAR_FAIL;
  }

  // Cipher[] of the embedded ECCCIPHERBLOB holds the whole wrapped key and
  // so runs past the declared structure.
  SecureBytes storage(sizeof(ENVELOPEDKEYBLOB) + kWrapKeySize - 1);
  ENVELOPEDKEYBLOB *blob = reinterpret_cast<ENVELOPEDKEYBLOB *>(storage.data());
  blob->Version = 1;
  blob->ulSymmAlgID = SGD_SMS4_ECB;
  blob->ulBits = 256;
  if (!crypto::sm4Ecb(true, wrapKey.data(), keyPair.d.data(), keyPair.d.size(),
                      blob->cbEncryptedPriKey + 32)) {
    return SAR_FAIL;
  }
  blob->PubKey.BitLen = 256;
  memcpy(blob->PubKey.XCoordinate + 32, keyPair.publicKey.x, 32);
  memcpy(blob->PubKey.YCoordinate + 32, keyPair.publicKey.y, 32);
  ECCCIPHERBLOB *cipher = &blob->ECCCipherBlob;
  memcpy(cipher->XCoordinate + 32, wrapped.data() + 1, 32);
  memcpy(cipher->YCoordinate + 32, wrapped.data() + 33, 32);
  memcpy(cipher->HASH, wrapped.data() + 65 + kWrapKeySize, 32);
  cipher->CipherLen = kWrapKeySize;
  memcpy(cipher->Cipher, wrapped.data() + 65, kWrapKeySize);
  return SKF_ImportECCKeyPair(container, blob);
}

ULONG importRsaEncryptionKeyPair(HCONTAINER container) {
  crypto::RsaPublicKey signatureKey;
  ULONG rv = exportRsaPublicKey(container, true, signatureKey);
  if (rv != SAR_OK) return rv;

  crypto::RsaPrivateKey keyPair;
  SecureArray<kWrapKeySize> wrapKey;
  if (!crypto::rsaGenerate(int(signatureKey.n.size() * 8), keyPair)) return SAR_GENRSAKEYERR;
  if (!crypto::randomBytes(wrapKey.data(), wrapKey.size())) return SAR_GENRANDERR;
  std::vector<uint8_t> wrapped;
  if (!crypto::rsaEncryptPkcs1(signatureKey, wrapKey.data(), wrapKey.size(), wrapped)) {
    return SAR_RSAENCERR;
  }
  SecureBytes der;
  SecureBytes encrypted;
  if (!crypto::encodeRsaPrivateKey(keyPair, der) ||
      !crypto::sm4EcbPadded(true, wrapKey.data(), der.data(), der.size(), encrypted)) {
    return SAR_FAIL;
  }
  return SKF_ImportRSAKeyPair(container, SGD_SMS4_ECB, wrapped.data(), ULONG(wrapped.size()),
                              encrypted.data(), ULONG(encrypted.size()));
}

}  // namespace

// The device handle is not needed: the envelope is made in software.
ULONG importEncryptionKeyPair(DEVHANDLE, HCONTAINER container, KeyKind kind) {
  switch (kind) {
    case KeyKind::Sm2:
      return importSm2EncryptionKeyPair(container);
    case KeyKind::Rsa1024:
    case KeyKind::Rsa2048:
      return importRsaEncryptionKeyPair(container);
    case KeyKind::Empty:
      break;
  }
  return SAR_INVALIDPARAMERR;
}

}  // namespace provision
}  // namespace tembra
