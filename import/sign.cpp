// DeviceSign: a signature with the private key of a signature key pair held
// in a token container. The bytes from the host go to the token unchanged
// (the host hashes and pads); an SM2 signature (r, s) is encoded by the host
// library, an RSA signature is returned as the token made it.
//
// g_lock is held around the token call only; checks, the size answer, the
// encoding and the copy run outside it. No record is modified.
#include <string.h>

#include "import/host_buffer.h"
#include "import/keypair_container.h"
#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "platform/orvel_crypto.h"
#include "platform/skf.h"
#include "provider/lock.h"
#include "provider/records.h"

namespace {

// The size answered for every non-RSA key pair: a bound above the longest
// encoded SM2 signature.
constexpr int kSm2SignatureBound = 80;
constexpr int kSm2ScalarLength = 32;
constexpr int kSm2ScalarOffset = 32;  // values stand right-aligned in 64-byte fields

int signRsa(const Keypair *keypair, int algo, const unsigned char *tbs, int tbslen,
            unsigned char *sign, int signlen, int *pretsignlen) {
  if (algo != ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN) {
    LOG_ERROR_AS("DeviceSign", "algo != ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN");
    return -1;
  }

  // In: the capacity; out: the signature length. A buffer shorter than the
  // modulus is the token's to refuse.
  ULONG length = static_cast<ULONG>(signlen);
  ULONG rv;
  {
    ProviderLock lock;
    HCONTAINER hContainer = keypairContainerHandle(keypair);
    if (hContainer == nullptr) {
      lock.release();
      LOG_ERROR_AS("DeviceSign", "hContainer == 0");
      return 0;
    }
    rv = SKF_RSASignData(hContainer, const_cast<BYTE *>(tbs), static_cast<ULONG>(tbslen), sign,
                         &length);
  }

  if (rv == SAR_USER_NOT_LOGGED_IN) {
    LOG_ERROR_AS("DeviceSign", "SKF_RSASignData fail,rv= SAR_USER_NOT_LOGGED_IN");
    return -8;
  }
  if (rv != SAR_OK) {
    LOG_ERROR_AS("DeviceSign", "SKF_RSASignData fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }
  *pretsignlen = static_cast<int>(length);
  return 1;
}

int signSm2(const Keypair *keypair, int algo, const unsigned char *tbs, int tbslen,
            unsigned char *sign, int signlen, int *pretsignlen) {
  if (algo != ORVEL_PKI_ALGORITHM_SM2_SIGN) {
    LOG_ERROR_AS("DeviceSign", "algo != ORVEL_PKI_ALGORITHM_SM2_SIGN");
    return -1;
  }

  ECCSIGNATUREBLOB blob;
  memset(&blob, 0, sizeof(blob));
  ULONG rv;
  {
    ProviderLock lock;
    HCONTAINER hContainer = keypairContainerHandle(keypair);
    if (hContainer == nullptr) {
      lock.release();
      LOG_ERROR_AS("DeviceSign", "hContainer == 0");
      return 0;
    }
    rv = SKF_ECCSignData(hContainer, const_cast<BYTE *>(tbs), static_cast<ULONG>(tbslen), &blob);
  }

  // For SM2 both codes mean "not logged in"; the RSA branch knows only the
  // first. The message's leading blank is part of it.
  if (rv == SAR_USER_NOT_LOGGED_IN || rv == 0x000000B3) {
    LOG_ERROR_AS("DeviceSign",
                 " SKF_ECCSignData fail, rv == SAR_USER_NOT_LOGGED_IN || rv == 0x000000b3");
    return -8;
  }
  if (rv != SAR_OK) {
    LOG_ERROR_AS("DeviceSign", "SKF_ECCSignData fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }

  HostMemory encoded;
  const int erv = OrvelPKICryptoEncodeECCSignature(blob.r + kSm2ScalarOffset, kSm2ScalarLength,
                                                   blob.s + kSm2ScalarOffset, kSm2ScalarLength,
                                                   encoded.out(), encoded.outLen());
  const int encodedLen = encoded.len();
  if (erv != 1 || encoded.data() == nullptr || encodedLen < 0) {
    LOG_ERROR_AS("DeviceSign", "OrvelPKICryptoEncodeECCSignature fail, error = %d", erv);
    return 0;
  }

  *pretsignlen = encodedLen;
  if (signlen < encodedLen) {
    // The token has signed already; that signature is dropped and the host
    // asks again with a larger buffer, getting a new one.
    LOG_ERROR_AS("DeviceSign", "signlen < sm2SignValueLen, ORVEL_PKI_MOREDATA");
    return -4;
  }
  memcpy(sign, encoded.data(), static_cast<size_t>(encodedLen));
  LOG_DEBUG_AS("DeviceSign", "DeviceSign success");
  return 1;
}

}  // namespace

extern "C" int DeviceSign(SPI_KEYPAIR_HANDLE hKeypair, int algo, const void *param,
                          const unsigned char *tbs, int tbslen, unsigned char *sign, int signlen,
                          int *pretsignlen) {
  call_stack_tracer tracer("DeviceSign");
  LOG_INFO(
      "SPI_KEYPAIR_HANDLE hKeypair = %p, int algo = %d, const void *param = %p, "
      "const unsigned char *tbs = %p, int tbslen = %d, unsigned char *sign = %p, "
      "int signlen = %d, int *pretsignlen = %d",
      static_cast<void *>(hKeypair), algo, param, static_cast<const void *>(tbs), tbslen,
      static_cast<void *>(sign), signlen, logValueAt(pretsignlen));

  if (hKeypair == nullptr) {
    LOG_ERROR("hKeypair == 0");
    return -2;
  }
  if (hKeypair->m_keytype != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE) {
    LOG_ERROR("hKeypair->m_keytype != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE");
    return -1;
  }
  if (pretsignlen == nullptr) {
    LOG_ERROR("pretsignlen == 0");
    return -1;
  }
  if (tbslen < 0) {
    LOG_ERROR("tbslen < 0");
    return -1;
  }
  if (tbslen == 0 && tbs != nullptr) {
    LOG_ERROR("tbslen == 0 && tbs != 0");
    return -1;
  }

  // Size query: answered from the record alone, whatever algo and signlen.
  if (sign == nullptr) {
    *pretsignlen = hKeypair->m_algo == ORVEL_PKI_ALGORITHM_RSA ? (hKeypair->m_keybits + 7) / 8
                                                               : kSm2SignatureBound;
    LOG_DEBUG("DeviceSign success, sign == 0");
    return 1;
  }

  if (signlen <= 0) {
    LOG_ERROR("signlen <= 0");
    return -1;
  }
  // tbslen > 0 with a null tbs would send the token through a null pointer.
  if (tbs == nullptr && tbslen > 0) {
    LOG_ERROR("tbs == 0");
    return -1;
  }

  if (hKeypair->m_algo == ORVEL_PKI_ALGORITHM_RSA) {
    return signRsa(hKeypair, algo, tbs, tbslen, sign, signlen, pretsignlen);
  }
  if (hKeypair->m_algo == ORVEL_PKI_ALGORITHM_ECC) {
    return signSm2(hKeypair, algo, tbs, tbslen, sign, signlen, pretsignlen);
  }
  LOG_ERROR("error algo");
  return -1;
}
