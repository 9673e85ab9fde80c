#include "softskf/provision/container_keys.h"

#include <string.h>

namespace tembra {
namespace provision {

ULONG exportSm2PublicKey(HCONTAINER container, bool signatureKey, crypto::Sm2PublicKey &key) {
  ECCPUBLICKEYBLOB blob;
  memset(&blob, 0, sizeof(blob));
  ULONG len = sizeof(blob);
  ULONG rv = SKF_ExportPublicKey(container, signatureKey ? TRUE : FALSE,
                                 reinterpret_cast<BYTE *>(&blob), &len);
  if (rv != SAR_OK) return rv;
  if (len != sizeof(blob) || blob.BitLen != 256) return SAR_INDATAERR;
  memcpy(key.x, blob.XCoordinate + 32, 32);
  memcpy(key.y, blob.YCoordinate + 32, 32);
  return SAR_OK;
}

ULONG exportRsaPublicKey(HCONTAINER container, bool signatureKey, crypto::RsaPublicKey &key) {
  RSAPUBLICKEYBLOB blob;
  memset(&blob, 0, sizeof(blob));
  ULONG len = sizeof(blob);
  ULONG rv = SKF_ExportPublicKey(container, signatureKey ? TRUE : FALSE,
                                 reinterpret_cast<BYTE *>(&blob), &len);
  if (rv != SAR_OK) return rv;
  const ULONG bitLen = blob.BitLen;
  if (len != sizeof(blob) || (bitLen != 1024 && bitLen != 2048)) return SAR_INDATAERR;
  const size_t modulusLen = bitLen / 8;
  const uint8_t *modulus = blob.Modulus + (MAX_RSA_MODULUS_LEN - modulusLen);
  const uint8_t *exponent = blob.PublicExponent;
  size_t exponentLen = MAX_RSA_EXPONENT_LEN;
  while (exponentLen > 0 && exponent[0] == 0) {
    ++exponent;
    --exponentLen;
  }
  if (modulus[0] == 0 || exponentLen == 0) return SAR_INDATAERR;
  key.n.assign(modulus, modulus + modulusLen);
  key.e.assign(exponent, exponent + exponentLen);
  return SAR_OK;
}

}  // namespace provision
}  // namespace tembra
