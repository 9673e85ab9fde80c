// The device check of the calls that work on a device handle alone: the
// handle must name a device still present in its store.
#ifndef TEMBRA_SOFTSKF_API_DEVICE_ACCESS_H
#define TEMBRA_SOFTSKF_API_DEVICE_ACCESS_H

#include "softskf/core/token.h"

namespace tembra {
namespace softskf {

// SAR_INVALIDHANDLEERR for a bad handle, SAR_DEVICE_REMOVED for a device
// gone or absent.
inline ULONG checkPresentDevice(Call &call, HANDLE hDev) {
  DeviceObject *device = call.token().handles.device(hDev);
  if (device == nullptr) return SAR_INVALIDHANDLEERR;
  StoreLock lock(device->location);
  DeviceRecord record;
  return loadPresentDevice(device->location, record);
}

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_API_DEVICE_ACCESS_H
