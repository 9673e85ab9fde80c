// The device set and the device-level queries: walking the set discovery
// built, taking devices out of it, reading serial number and label, and the
// device release every DeviceFree... function ends in.
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "provider/lock.h"
#include "provider/records.h"

namespace {

// Copies `text` (`textLen` characters) with a terminating NUL under the
// output buffer protocol: the needed length (with the NUL) goes to *pretlen
// first; a null buffer is a length query; a short buffer answers -4 and is
// not touched.
int copyText(const char *text, size_t textLen, char *out, int outLen, int *pretlen) {
  int needed = static_cast<int>(textLen) + 1;
  if (pretlen != nullptr) *pretlen = needed;
  if (out == nullptr) return ORVEL_PKI_OK;
  if (outLen < needed) return ORVEL_PKI_MOREDATA;
  memcpy(out, text, textLen);
  out[textLen] = '\0';
  return ORVEL_PKI_OK;
}

}  // namespace

extern "C" {

TEMBRA_API int DeviceGetDeviceCount(SPI_DEVICESET_HANDLE hDeviceSet) {
  call_stack_tracer tracer("DeviceGetDeviceCount");
  LOG_INFO("hDeviceSet = %p", static_cast<void *>(hDeviceSet));
  if (hDeviceSet == nullptr) return -1;
  return hDeviceSet->m_count;
}

// Takes one reference for the caller, who releases it with DeviceFreeDevice;
// the device then survives the set.
TEMBRA_API SPI_DEVICE_HANDLE DeviceGetDevice(SPI_DEVICESET_HANDLE hDeviceSet, int index) {
  call_stack_tracer tracer("DeviceGetDevice");
  LOG_INFO("hDeviceSet = %p, index = %d", static_cast<void *>(hDeviceSet), index);
  if (hDeviceSet == nullptr || index < 0 || index >= hDeviceSet->m_count) {
    LOG_ERROR("index < 0 || index >= hDeviceSet->m_count");
    return nullptr;
  }
  Device *hDevice = hDeviceSet->m_handles[index];
  ProviderLock lock;
  hDevice->m_refCount++;
  return hDevice;
}

// Releases the set's reference on each device, then the set itself.
TEMBRA_API int DeviceFreeDevices(SPI_DEVICESET_HANDLE hDeviceSet) {
  call_stack_tracer tracer("DeviceFreeDevices");
  LOG_DEBUG(
      " hDeviceSet = %p, hDeviceSet->m_allocCount=%d, hDeviceSet->m_count=%d, "
      "hDeviceSet->m_handles[0]=%p",
      static_cast<void *>(hDeviceSet), hDeviceSet != nullptr ? hDeviceSet->m_allocCount : 0,
      hDeviceSet != nullptr ? hDeviceSet->m_count : 0,
      hDeviceSet != nullptr && hDeviceSet->m_handles != nullptr
          ? static_cast<void *>(hDeviceSet->m_handles[0])
          : nullptr);
  if (hDeviceSet == nullptr) return ORVEL_PKI_OK;
  for (int i = 0; i < hDeviceSet->m_count; i++) {
    LOG_INFO("hDeviceSet->m_handles[%d]=%p", i, static_cast<void *>(hDeviceSet->m_handles[i]));
    DeviceFreeDevice(hDeviceSet->m_handles[i]);
  }
  free(hDeviceSet->m_handles);
  free(hDeviceSet);
  return ORVEL_PKI_OK;
}

// The one release operation. The device is destroyed, after g_lock is left,
// once the references left are only those of its own key pairs, hashes and
// ciphers. The reference line carries the values seen under the lock but is
// written after it is left, like every log line.
TEMBRA_API int DeviceFreeDevice(SPI_DEVICE_HANDLE hDevice) {
  call_stack_tracer tracer("DeviceFreeDevice");
  LOG_INFO("hDevice = %p", static_cast<void *>(hDevice));
  if (hDevice == nullptr) return ORVEL_PKI_OK;

  DeviceRelease seen = releaseDeviceReference(hDevice);
  LOG_INFO(
      "hDevice->m_refCount=%d, hDevice->m_keypairCount=%d, hDevice->m_hashCount=%d, "
      "hDevice->m_cipherCount=%d",
      seen.m_refCount, seen.m_keypairCount, seen.m_hashCount, seen.m_cipherCount);
  if (seen.m_destroy) freeDevice(hDevice);
  return ORVEL_PKI_OK;
}

TEMBRA_API int DeviceGetSerialNumber(SPI_DEVICE_HANDLE hDevice, char *sn, int snlen,
                                     int *pretsnlen) {
  call_stack_tracer tracer("DeviceGetSerialNumber");
  if (hDevice == nullptr) {
    LOG_ERROR("rv = hDevice == 0");
    return ORVEL_PKI_FAIL;
  }
  if (hDevice->m_serialNumber == nullptr) {
    LOG_ERROR("rv = hDevice->m_serialNumber == 0");
    return ORVEL_PKI_FAIL;
  }
  size_t len = strnlen(hDevice->m_serialNumber, SERIAL_NUMBER_BUFFER - 1);
  int rv = copyText(hDevice->m_serialNumber, len, sn, snlen, pretsnlen);
  if (rv == ORVEL_PKI_OK && sn != nullptr) {
    LOG_INFO("hDevice = %p, sn = %s, snlen = %d, pretsnlen = %d", static_cast<void *>(hDevice), sn,
             snlen, logValueAt(pretsnlen));
  }
  return rv;
}

// The token label of DEVINFO. The field is a fixed array inside the record
// and so never null; a label filling all of it is served with a NUL added.
TEMBRA_API int DeviceGetLabel(SPI_DEVICE_HANDLE hDevice, char *label, int labellen,
                              int *pretlabellen) {
  call_stack_tracer tracer("DeviceGetLabel");
  if (hDevice == nullptr) {
    LOG_ERROR("hDevice == 0");
    return ORVEL_PKI_FAIL;
  }
  size_t len = strnlen(hDevice->m_info.Label, sizeof(hDevice->m_info.Label));
  int rv = copyText(hDevice->m_info.Label, len, label, labellen, pretlabellen);
  if (rv == ORVEL_PKI_OK && label != nullptr) LOG_INFO("label : %s", label);
  return rv;
}

// Kept for the host's interface: no lock, no token, any handle.
TEMBRA_API int DeviceLockDevice(SPI_DEVICE_HANDLE hDevice) {
  call_stack_tracer tracer("DeviceLockDevice");
  (void)hDevice;
  LOG_INFO("DeviceLockDevice success");
  return ORVEL_PKI_OK;
}

TEMBRA_API int DeviceUnlockDevice(SPI_DEVICE_HANDLE hDevice) {
  call_stack_tracer tracer("DeviceUnlockDevice");
  (void)hDevice;
  LOG_INFO("DeviceUnlockDevice success");
  return ORVEL_PKI_OK;
}

}  // extern "C"
