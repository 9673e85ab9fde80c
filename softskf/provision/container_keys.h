// Reading a container's public keys into the backend's key types.
#ifndef TEMBRA_SOFTSKF_PROVISION_CONTAINER_KEYS_H
#define TEMBRA_SOFTSKF_PROVISION_CONTAINER_KEYS_H

#include "crypto/backend.h"
#include "platform/skf.h"

namespace tembra {
namespace provision {

// SKF_ExportPublicKey of the signature (signatureKey true) or encryption
// key. SAR_OK, the SKF result, or SAR_INDATAERR for a blob of a bit length
// the backend cannot take (SM2 keys must be 256 bits; RSA 1024 or 2048).
ULONG exportSm2PublicKey(HCONTAINER container, bool signatureKey, crypto::Sm2PublicKey &key);
ULONG exportRsaPublicKey(HCONTAINER container, bool signatureKey, crypto::RsaPublicKey &key);

}  // namespace provision
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_PROVISION_CONTAINER_KEYS_H
