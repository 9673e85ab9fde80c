// Public keys: reading them out of SKF containers in the host's encoding,
// and the PublicKey handles the host exports them through.
//
// A PublicKey is a snapshot of the encoded key, one plain allocation that
// takes no device reference and outlives its key pair.
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "keys/key_readers.h"
#include "log/trace_log.h"
#include "platform/orvel_crypto.h"
#include "platform/skf.h"
#include "provider/buffer_protocol.h"
#include "provider/records.h"

int EncodeRSAPublicKeyBlob(const RSAPUBLICKEYBLOB *blob, unsigned char **keyblob, int *keybloblen) {
  if (blob->BitLen > MAX_RSA_MODULUS_LEN * 8) return 0;
  int modulusLen = static_cast<int>(blob->BitLen / 8);
  return OrvelPKICryptoEncodeRSAPubKey(&blob->Modulus[MAX_RSA_MODULUS_LEN - modulusLen], modulusLen,
                                       blob->PublicExponent, MAX_RSA_EXPONENT_LEN, keyblob,
                                       keybloblen);
}

int EncodeECCPublicKeyBlob(const ECCPUBLICKEYBLOB *blob, unsigned char **keyblob, int *keybloblen) {
  return OrvelPKICryptoEncodeECCPubKey(
      ORVEL_PKI_ECC_CURVE_SM2, &blob->XCoordinate[sizeof(blob->XCoordinate) - 32], 32,
      &blob->YCoordinate[sizeof(blob->YCoordinate) - 32], 32, keyblob, keybloblen);
}

int GetRSAPublicKey(HCONTAINER hCon, int bSignFlag, unsigned char **keyblob, int *keybloblen,
                    int *pbits) {
  LOG_DEBUG("hCon : %p", hCon);
  LOG_DEBUG("type : %d", bSignFlag);

  RSAPUBLICKEYBLOB blob;
  memset(&blob, 0, sizeof(blob));
  ULONG len = sizeof(blob);
  ULONG rv = SKF_ExportPublicKey(hCon, bSignFlag, reinterpret_cast<BYTE *>(&blob), &len);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_ExportPublicKey fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }

  // The modulus stands right-aligned in its 256-byte field; a token that
  // claims more bits than the field holds is refused rather than read past.
  if (blob.BitLen > MAX_RSA_MODULUS_LEN * 8) {
    LOG_ERROR("rsa.BitLen > MAX_RSA_MODULUS_LEN * 8");
    return 0;
  }
  int result = EncodeRSAPublicKeyBlob(&blob, keyblob, keybloblen);
  if (result != 1) {
    LOG_ERROR("OrvelPKICryptoEncodeRSAPubKey fail, error : %d", result);
    return 0;
  }
  if (pbits != nullptr) *pbits = static_cast<int>(blob.BitLen);
  return 1;
}

int GetECCPublicKey(HCONTAINER hCon, int bSignFlag, unsigned char **keyblob, int *keybloblen) {
  LOG_DEBUG("hCon : %p", hCon);
  LOG_DEBUG("type : %d", bSignFlag);

  ECCPUBLICKEYBLOB ecc;
  memset(&ecc, 0, sizeof(ecc));
  ULONG len = sizeof(ecc);
  ULONG rv = SKF_ExportPublicKey(hCon, bSignFlag, reinterpret_cast<BYTE *>(&ecc), &len);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_ExportPublicKey fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }
  LOG_DEBUG("bitlen = %d, line: %d", static_cast<int>(ecc.BitLen), __LINE__);
  logHexDump(__func__, "&ecc.XCoordinate[sizeof(ecc.XCoordinate) - 32]",
             &ecc.XCoordinate[sizeof(ecc.XCoordinate) - 32], 32);
  logHexDump(__func__, "&ecc.YCoordinate[sizeof(ecc.YCoordinate) - 32]",
             &ecc.YCoordinate[sizeof(ecc.YCoordinate) - 32], 32);

  // SM2 coordinates are 256 bits: only the last 32 bytes of each field are
  // passed on, whatever BitLen says.
  int result = EncodeECCPublicKeyBlob(&ecc, keyblob, keybloblen);
  if (result != 1) {
    // A warning, not an error, unlike the RSA reader: kept so on purpose.
    LOG_WARN("OrvelPKICryptoEncodeECCPubKey fail, error = %d", result);
    return 0;
  }
  logHexDump(__func__, "*keyblob", *keyblob, *keybloblen);
  return 1;
}

extern "C" {

// A snapshot of the key pair's encoded public key; null for a null handle,
// a deleted key pair, a key type other than signature or encryption, or an
// encoding that would not fit the record.
TEMBRA_API SPI_PUBLICKEY_HANDLE DeviceGetPublicKeyFromKeypair(SPI_KEYPAIR_HANDLE hKeypair) {
  call_stack_tracer tracer("DeviceGetPublicKeyFromKeypair");
  if (hKeypair == nullptr) {
    LOG_ERROR("hKeypair == 0");
    return nullptr;
  }
  // A deleted key pair has no device and hence no container to read from.
  if (hKeypair->m_device == nullptr) {
    LOG_ERROR("hKeypair->m_device == 0");
    return nullptr;
  }
  PublicKey *hPublicKey = static_cast<PublicKey *>(calloc(1, sizeof(PublicKey)));
  if (hPublicKey == nullptr) {
    LOG_ERROR("malloc memory fail");
    return nullptr;
  }
  hPublicKey->m_algo = hKeypair->m_algo;
  hPublicKey->m_keybits = hKeypair->m_keybits;

  const Container *container = nullptr;
  if (hKeypair->m_index >= 0 && hKeypair->m_index < CONTAINER_COUNT_MAX) {
    container = hKeypair->m_device->m_containers[hKeypair->m_index];
  }
  int32_t keyLen = 0;
  const unsigned char *key = nullptr;
  if (hKeypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_SIGNATURE) {
    if (container != nullptr) {
      keyLen = container->m_signPubKeyLen;
      key = container->m_signPubKey;
    }
  } else if (hKeypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_ENCRYPT) {
    if (container != nullptr) {
      keyLen = container->m_encPubKeyLen;
      key = container->m_encPubKey;
    }
  } else {
    // An [INFO] line, not an error: kept so on purpose.
    LOG_INFO("unsupported keytype! hKeypair->m_keytype : %d", hKeypair->m_keytype);
    free(hPublicKey);
    return nullptr;
  }
  if (keyLen > PUBLIC_KEY_CAPACITY || (keyLen > 0 && key == nullptr)) {
    LOG_ERROR("m_pubKeyLen > PUBLIC_KEY_CAPACITY");
    free(hPublicKey);
    return nullptr;
  }
  if (keyLen > 0) {
    memcpy(hPublicKey->m_pubKey, key, static_cast<size_t>(keyLen));
    hPublicKey->m_pubKeyLen = keyLen;
  }
  LOG_INFO("hPublicKey = %p", static_cast<void *>(hPublicKey));
  return hPublicKey;
}

TEMBRA_API int DeviceExportPublicKey(SPI_PUBLICKEY_HANDLE hPublicKey, unsigned char *keyblob,
                                     int keybloblen, int *pretkeybloblen) {
  call_stack_tracer tracer("DeviceExportPublicKey");
  if (hPublicKey == nullptr) {
    LOG_ERROR("hPublicKey=0");
    return ORVEL_PKI_BADARGUMENT;
  }
  if (hPublicKey->m_pubKeyLen <= 0) {
    LOG_ERROR("m_pubKey==0 || m_pubKey<=0 ");
    return ORVEL_PKI_BADARGUMENT;
  }
  int rv =
      copyOut(hPublicKey->m_pubKey, hPublicKey->m_pubKeyLen, keyblob, keybloblen, pretkeybloblen);
  if (rv != ORVEL_PKI_OK || keyblob == nullptr) return rv;
  logHexDump(__func__, "keyblob", keyblob, logValueAt(pretkeybloblen));
  return ORVEL_PKI_OK;
}

TEMBRA_API int DeviceGetPublicKeyAlgorithm(SPI_PUBLICKEY_HANDLE hPublicKey) {
  call_stack_tracer tracer("DeviceGetPublicKeyAlgorithm");
  if (hPublicKey == nullptr) return -1;
  LOG_INFO("hPublicKey->m_algo = %d", hPublicKey->m_algo);
  return hPublicKey->m_algo;
}

TEMBRA_API int DeviceGetPublicKeyBits(SPI_PUBLICKEY_HANDLE hPublicKey) {
  call_stack_tracer tracer("DeviceGetPublicKeyBits");
  if (hPublicKey == nullptr) return -1;
  LOG_INFO("SPI_PUBLICKEY_HANDLE hPublicKey->m_keybits = %d", hPublicKey->m_keybits);
  return hPublicKey->m_keybits;
}

// The record is the provider's own allocation: released with free, never
// with OrvelPKICryptoFreePublicKey.
TEMBRA_API int DeviceFreePublicKey(SPI_PUBLICKEY_HANDLE hPublicKey) {
  call_stack_tracer tracer("DeviceFreePublicKey");
  if (hPublicKey == nullptr) return ORVEL_PKI_OK;
  free(hPublicKey);
  LOG_DEBUG("hPublicKey = NULL, line: %d", __LINE__);
  return ORVEL_PKI_OK;
}

}  // extern "C"
