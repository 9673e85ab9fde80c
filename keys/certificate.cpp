// Certificates: the reader that fills a container's certificate cache at
// discovery, and the entry points that serve the host from that cache and
// write a new certificate to the token.
//
// A key pair of type ORVEL_PKI_KEYPAIRTYPE_SIGNATURE sees its container's
// signature certificate, any other type the encryption certificate.
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "keys/key_readers.h"
#include "log/trace_log.h"
#include "platform/skf.h"
#include "provider/buffer_protocol.h"
#include "provider/lock.h"
#include "provider/records.h"

int GetCertificate(HCONTAINER hCon, int bSignFlag, unsigned char **cert, int *certlen) {
  ULONG len = 0;
  ULONG rv = SKF_ExportCertificate(hCon, bSignFlag, nullptr, &len);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_ExportCertificate fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }
  // At least one byte, so that an empty answer allocates alike everywhere.
  unsigned char *buffer = static_cast<unsigned char *>(malloc(len > 0 ? len : 1));
  if (buffer == nullptr) {
    LOG_ERROR("*certblob == 0");
    return 0;
  }
  rv = SKF_ExportCertificate(hCon, bSignFlag, buffer, &len);
  if (rv != SAR_OK) {
    // *cert stays as it was: the container must not hold a released buffer.
    free(buffer);
    LOG_ERROR("SKF_ExportCertificate fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }
  *cert = buffer;
  logHexDump(__func__, "*certblob", buffer, static_cast<int>(len));
  *certlen = static_cast<int>(len);
  return 1;
}

namespace {

// The container of an attached key pair, or null.
Container *keypairContainer(const Keypair *keypair) {
  if (keypair->m_device == nullptr) return nullptr;
  if (keypair->m_index < 0 || keypair->m_index >= CONTAINER_COUNT_MAX) return nullptr;
  return keypair->m_device->m_containers[keypair->m_index];
}

}  // namespace

extern "C" {

TEMBRA_API int DeviceGetCertificateCount(SPI_KEYPAIR_HANDLE hKeypair) {
  call_stack_tracer tracer("DeviceGetCertificateCount");
  LOG_INFO("hKeypair=%p, hKeypair->m_keytype = %d", static_cast<void *>(hKeypair),
           hKeypair != nullptr ? hKeypair->m_keytype : 0);
  if (hKeypair == nullptr) return -1;
  // A deleted key pair has no container left: answered like a bad type
  // rather than read through a null device.
  const Container *container = keypairContainer(hKeypair);
  if (hKeypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_SIGNATURE) {
    if (container == nullptr) return -1;
    return container->m_signCertLen != 0 ? 1 : 0;
  }
  if (hKeypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_ENCRYPT) {
    if (container == nullptr) return -1;
    return container->m_encCertLen != 0 ? 1 : 0;
  }
  return -1;
}

// Serves the key pair's own certificate from the cache; `index` is only
// bounded by the device's container count and selects nothing.
TEMBRA_API int DeviceGetCertificate(SPI_KEYPAIR_HANDLE hKeypair, int index, unsigned char *certblob,
                                    int certbloblen, int *pretcertbloblen) {
  call_stack_tracer tracer("DeviceGetCertificate");
  LOG_INFO(
      "SPI_KEYPAIR_HANDLE hKeypair = %p, int index = %d, unsigned char *certblob = %p, "
      "int certbloblen = %d, int *pretcertbloblen = %d",
      static_cast<void *>(hKeypair), index, static_cast<void *>(certblob), certbloblen,
      logValueAt(pretcertbloblen));
  if (hKeypair == nullptr || hKeypair->m_device == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (index >= hKeypair->m_device->m_containerCount) return ORVEL_PKI_BADARGUMENT;

  // The cache is read and copied under g_lock: DeviceUpdateCertificate on
  // another thread frees and replaces the buffer under the same lock.
  ProviderLock lock;
  const Container *container = keypairContainer(hKeypair);
  int len = 0;
  const unsigned char *cert = nullptr;
  if (container != nullptr) {
    bool sign = hKeypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
    len = sign ? container->m_signCertLen : container->m_encCertLen;
    cert = sign ? container->m_signCert : container->m_encCert;
  }
  // A length without bytes is left behind by a failed update (see
  // DeviceUpdateCertificate): it counts as no certificate here.
  if (len <= 0 || cert == nullptr) {
    lock.release();
    LOG_ERROR("len <= 0");
    return ORVEL_PKI_FAIL;
  }
  return copyOut(cert, len, certblob, certbloblen, pretcertbloblen);
}

// Writes the certificate to the token and replaces the cached copy.
//
// A null certblob or a non-positive certbloblen answers -1 before the token
// is touched. When the new cache buffer cannot be allocated the call returns
// 0 with g_lock still held and the new length in place: this matches the
// established behaviour of this entry point and is deliberate.
TEMBRA_API int DeviceUpdateCertificate(SPI_KEYPAIR_HANDLE hKeypair, const unsigned char *certblob,
                                       int certbloblen) {
  call_stack_tracer tracer("DeviceUpdateCertificate");
  LOG_INFO(
      "SPI_KEYPAIR_HANDLE hKeypair = %p, const unsigned char *certblob = %p, "
      "int certbloblen = %d",
      static_cast<void *>(hKeypair), static_cast<const void *>(certblob), certbloblen);
  if (hKeypair == nullptr || hKeypair->m_device == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (certblob == nullptr || certbloblen <= 0) return ORVEL_PKI_BADARGUMENT;

  // Entered by hand rather than with ProviderLock: one path below returns
  // with the lock held.
  EnterCriticalSection(&g_lock);
  Container *container = keypairContainer(hKeypair);
  if (container == nullptr) {
    LeaveCriticalSection(&g_lock);
    LOG_ERROR("hKeypair->m_device->m_containers[hKeypair->m_index] == 0");
    return ORVEL_PKI_FAIL;
  }
  bool sign = hKeypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
  ULONG rv = SKF_ImportCertificate(container->m_hContainer, sign ? TRUE : FALSE,
                                   const_cast<BYTE *>(certblob), static_cast<ULONG>(certbloblen));
  if (rv == SAR_USER_NOT_LOGGED_IN) {
    LeaveCriticalSection(&g_lock);
    LOG_WARN("rv == SAR_USER_NOT_LOGGED_IN");
    return ORVEL_PKI_NOTLOGGEDIN;
  }
  if (rv != SAR_OK) {
    LeaveCriticalSection(&g_lock);
    LOG_ERROR("SKF_ImportCertificate fail, error = 0x%08X", static_cast<unsigned>(rv));
    return ORVEL_PKI_FAIL;
  }

  int32_t *cachedLen = sign ? &container->m_signCertLen : &container->m_encCertLen;
  unsigned char **cached = sign ? &container->m_signCert : &container->m_encCert;
  *cachedLen = certbloblen;
  free(*cached);
  *cached = static_cast<unsigned char *>(malloc(static_cast<size_t>(certbloblen)));
  if (*cached == nullptr) {
    // The lock stays held on this path, and the two slots log at different
    // levels: both by design.
    if (sign) {
      LOG_ERROR("hKeypair->m_device->m_containers[hKeypair->m_index]->m_signCert == 0");
    } else {
      LOG_INFO("hKeypair->m_device->m_containers[hKeypair->m_index]->m_encCert == 0");
    }
    return ORVEL_PKI_FAIL;
  }
  memcpy(*cached, certblob, static_cast<size_t>(certbloblen));
  LeaveCriticalSection(&g_lock);
  return ORVEL_PKI_OK;
}

}  // extern "C"
