// Key pair handles: handing out the Keypair records a device owns, releasing
// them, and reading their attributes.
//
// Every hand-out (DeviceGetKeypair, DeviceFindKeypair) takes one reference
// on the device under g_lock; DeviceFreeKeypair gives it back through
// DeviceFreeDevice. The records stay in the device's table: a handle does not
// own its record, except a deleted key pair's (m_device null).
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "provider/lock.h"
#include "provider/buffer_protocol.h"
#include "provider/records.h"

extern "C" {

TEMBRA_API int DeviceGetKeypairCount(SPI_DEVICE_HANDLE hDevice) {
  call_stack_tracer tracer("DeviceGetKeypairCount");
  if (hDevice == nullptr) return -1;
  LOG_DEBUG("hDevice->m_keypairCount=%d", hDevice->m_keypairCount);
  return hDevice->m_keypairCount;
}

TEMBRA_API SPI_KEYPAIR_HANDLE DeviceGetKeypair(SPI_DEVICE_HANDLE hDevice, int index) {
  call_stack_tracer tracer("DeviceGetKeypair");
  if (hDevice == nullptr || index < 0 || index >= hDevice->m_keypairCount) return nullptr;
  ProviderLock lock;
  Keypair *hKeypair = hDevice->m_keypairs[index];
  if (hKeypair != nullptr) hDevice->m_refCount++;
  lock.release();
  LOG_DEBUG("hKeypair=%p", static_cast<void *>(hKeypair));
  return hKeypair;
}

// The first key pair in table order whose label (exact, case-sensitive) and
// type match. A null label or a null phKeypair finds nothing: answered 0
// with the failure line, and no reference is taken.
TEMBRA_API int DeviceFindKeypair(SPI_DEVICE_HANDLE hDevice, int type, const char *label,
                                 SPI_KEYPAIR_HANDLE *phKeypair) {
  call_stack_tracer tracer("DeviceFindKeypair");
  LOG_INFO(
      "hDevice = %p, int type = %d, const char *label = %s, SPI_KEYPAIR_HANDLE *phKeypair = %p",
      static_cast<void *>(hDevice), type, label != nullptr ? label : "0",
      static_cast<void *>(phKeypair));
  if (hDevice == nullptr) {
    LOG_ERROR("hDevice==0, rv=0x%08X", static_cast<unsigned>(ORVEL_PKI_NULLHANDLE));
    return ORVEL_PKI_NULLHANDLE;
  }
  if (label != nullptr && phKeypair != nullptr) {
    ProviderLock lock;
    for (int i = 0; i < hDevice->m_keypairCount && i < KEYPAIR_COUNT_MAX; i++) {
      Keypair *keypair = hDevice->m_keypairs[i];
      if (keypair == nullptr || keypair->m_label == nullptr) continue;
      if (strcmp(keypair->m_label, label) == 0 && keypair->m_keytype == type) {
        *phKeypair = keypair;
        hDevice->m_refCount++;
        return ORVEL_PKI_OK;
      }
    }
  }
  LOG_ERROR("DeviceFindKeypair fail ");
  return ORVEL_PKI_FAIL;
}

// Gives the handle's device reference back. A deleted key pair (m_device
// null) belongs to the handle alone and is freed here. Takes no lock itself.
TEMBRA_API int DeviceFreeKeypair(SPI_KEYPAIR_HANDLE hKeypair) {
  call_stack_tracer tracer("DeviceFreeKeypair");
  LOG_INFO("hKeypair = %p", static_cast<void *>(hKeypair));
  if (hKeypair == nullptr) return ORVEL_PKI_OK;
  if (hKeypair->m_device != nullptr) {
    LOG_INFO("freeDevice hKeypair->m_device success, hKeypair->m_device=%p",
             static_cast<void *>(hKeypair->m_device));
    DeviceFreeDevice(hKeypair->m_device);
  } else {
    LOG_INFO("freeDevice hKeypair success, hKeypair=%p", static_cast<void *>(hKeypair));
    free(hKeypair->m_label);
    free(hKeypair);
  }
  return ORVEL_PKI_OK;
}

TEMBRA_API int DeviceGetKeypairLabel(SPI_KEYPAIR_HANDLE hKeypair, char *label, int labellen,
                                     int *pretlabellen) {
  call_stack_tracer tracer("DeviceGetKeypairLabel");
  if (hKeypair == nullptr) return ORVEL_PKI_NULLHANDLE;
  const char *text = hKeypair->m_label != nullptr ? hKeypair->m_label : "";
  int len = static_cast<int>(strlen(text)) + 1;
  int rv = copyOut(text, len, label, labellen, pretlabellen);
  if (rv != ORVEL_PKI_OK || label == nullptr) return rv;
  LOG_INFO(
      "SPI_KEYPAIR_HANDLE hKeypair = %p, char *label = %s, int labellen = %d, "
      "int *pretlabellen = %d",
      static_cast<void *>(hKeypair), label, labellen, logValueAt(pretlabellen));
  return ORVEL_PKI_OK;
}

TEMBRA_API int DeviceGetKeypairType(SPI_KEYPAIR_HANDLE hKeypair) {
  call_stack_tracer tracer("DeviceGetKeypairType");
  if (hKeypair == nullptr) return -1;
  LOG_INFO("hKeypair->m_keytype = %d", hKeypair->m_keytype);
  return hKeypair->m_keytype;
}

TEMBRA_API int DeviceGetKeypairAlgorithm(SPI_KEYPAIR_HANDLE hKeypair) {
  call_stack_tracer tracer("DeviceGetKeypairAlgorithm");
  if (hKeypair == nullptr) return -1;
  LOG_INFO("hKeypair->m_algo=%d", hKeypair->m_algo);
  return hKeypair->m_algo;
}

TEMBRA_API int DeviceGetKeypairBits(SPI_KEYPAIR_HANDLE hKeypair) {
  call_stack_tracer tracer("DeviceGetKeypairBits");
  if (hKeypair == nullptr) return -1;
  LOG_INFO("hKeypair->m_keybits=%d", hKeypair->m_keybits);
  return hKeypair->m_keybits;
}

}  // extern "C"
