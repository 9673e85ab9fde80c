// Device calls beyond connection: the presence state by name, the label,
// and the APDU channel, which a software token does not have.
#include <string.h>

#include "softskf/api/device_access.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const size_t kMaxLabelLen = 31;  // DEVINFO.Label holds 32 with the NUL

}  // namespace

extern "C" {

ULONG DEVAPI SKF_GetDevState(LPSTR szDevName, ULONG *pulDevState) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GetDevState");
    call.text("szDevName", szDevName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    std::string name;
    if (pulDevState == nullptr) return SAR_INVALIDPARAMERR;
    if ((rv = takeName(szDevName, kMaxDeviceNameLen, name)) != SAR_OK) return rv;
    DeviceLocation location{currentStoreDirectory(), name};
    DeviceRecord record;
    if (!fs::isDirectory(location.directory())) {
      *pulDevState = DEV_ABSENT_STATE;
      return SAR_OK;
    }
    {
      StoreLock lock(location);
      rv = loadDevice(location, record);
    }
    // An unknown name is a device not plugged in; an unreadable one unknown.
    if (rv == SAR_OK)
      *pulDevState = record.present ? DEV_PRESENT_STATE : DEV_ABSENT_STATE;
    else
      *pulDevState = DEV_UNKNOW_STATE;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_SetLabel(DEVHANDLE hDev, LPSTR szLabel) {
  return guarded([&]() -> ULONG {
    Call call("SKF_SetLabel");
    call.handle("hDev", hDev).text("szLabel", szLabel);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    if (szLabel == nullptr) return SAR_INVALIDPARAMERR;
    const size_t len = strnlen(szLabel, kMaxLabelLen + 1);
    if (len > kMaxLabelLen) return SAR_INVALIDPARAMERR;
    StoreLock lock(device->location);
    DeviceRecord record;
    if ((rv = loadPresentDevice(device->location, record)) != SAR_OK) return rv;
    record.label.assign(szLabel, len);
    return saveDevice(device->location, record);
  });
}

ULONG DEVAPI SKF_Transmit(DEVHANDLE hDev, BYTE *pbCommand, ULONG ulCommandLen, BYTE *pbData,
                          ULONG *pulDataLen) {
  (void)pbCommand;
  (void)pbData;
  (void)pulDataLen;
  return guarded([&]() -> ULONG {
    Call call("SKF_Transmit");
    call.handle("hDev", hDev).number("ulCommandLen", ulCommandLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    if ((rv = checkPresentDevice(call, hDev)) != SAR_OK) return rv;
    return SAR_NOTSUPPORTYETERR;  // no APDU channel behind a file store
  });
}

}  // extern "C"
