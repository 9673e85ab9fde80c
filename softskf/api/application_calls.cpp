// Application calls: creation and deletion (after device authentication),
// enumeration, opening and closing.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/api/pin_rules.h"
#include "softskf/core/session.h"
#include "softskf/keys/key_wrap.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const DWORD kMaxRetryCount = 255;

}  // namespace

extern "C" {

ULONG DEVAPI SKF_CreateApplication(DEVHANDLE hDev, LPSTR szAppName, LPSTR szAdminPin,
                                   DWORD dwAdminPinRetryCount, LPSTR szUserPin,
                                   DWORD dwUserPinRetryCount, DWORD dwCreateFileRights,
                                   HAPPLICATION *phApplication) {
  return guarded([&]() -> ULONG {
    Call call("SKF_CreateApplication");
    call.handle("hDev", hDev)
        .text("szAppName", szAppName)
        .number("dwAdminPinRetryCount", dwAdminPinRetryCount)
        .number("dwUserPinRetryCount", dwUserPinRetryCount)
        .hex("dwCreateFileRights", dwCreateFileRights);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    if (phApplication == nullptr) return SAR_INVALIDPARAMERR;
    std::string name;
    PinText adminPin, userPin;
    if ((rv = takeName(szAppName, kMaxApplicationNameLen, name)) != SAR_OK) return rv;
    if ((rv = takePin(szAdminPin, adminPin)) != SAR_OK) return rv;
    if ((rv = takePin(szUserPin, userPin)) != SAR_OK) return rv;
    if (dwAdminPinRetryCount == 0 || dwAdminPinRetryCount > kMaxRetryCount ||
        dwUserPinRetryCount == 0 || dwUserPinRetryCount > kMaxRetryCount) {
      return SAR_INVALIDPARAMERR;
    }
    DeviceLocation location = device->location;
    StoreLock lock(location);
    DeviceRecord record;
    if ((rv = loadPresentDevice(location, record)) != SAR_OK) return rv;
    if (!device->authenticated) return SAR_FAIL;
    std::vector<std::string> existing = listApplications(location);
    for (const std::string &other : existing) {
      if (other == name) return SAR_APPLICATION_EXISTS;
    }
    if (existing.size() >= kMaxApplications) return SAR_NO_ROOM;

    ApplicationRecord app;
    app.name = name;
    app.instanceId.resize(16);
    app.createFileRights = dwCreateFileRights;
    TokenKey tokenKey;
    if (!crypto::randomBytes(app.instanceId.data(), 16) ||
        !crypto::randomBytes(tokenKey.data(), tokenKey.size())) {
      return SAR_GENRANDERR;
    }
    if (!setPin(app.adminPin, adminPin.value, tokenKey) ||
        !setPin(app.userPin, userPin.value, tokenKey)) {
      return SAR_FAIL;
    }
    app.adminPin.maxRetries = app.adminPin.remaining = dwAdminPinRetryCount;
    app.userPin.maxRetries = app.userPin.remaining = dwUserPinRetryCount;
    if ((rv = saveApplication(location, app)) != SAR_OK) return rv;
    call.token().forgetSecurity(location, name);
    std::unique_ptr<ApplicationObject> object(new ApplicationObject);
    object->device = HandleTable::idOf(hDev);
    object->name = name;
    *phApplication = call.token().handles.add(std::move(object));
    call.output("hApplication", *phApplication);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_EnumApplication(DEVHANDLE hDev, LPSTR szAppName, ULONG *pulSize) {
  return guarded([&]() -> ULONG {
    Call call("SKF_EnumApplication");
    call.handle("hDev", hDev).number("ulSize", pulSize ? *pulSize : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    if (pulSize == nullptr) return SAR_INVALIDPARAMERR;
    std::string list;
    {
      StoreLock lock(device->location);
      DeviceRecord record;
      if ((rv = loadPresentDevice(device->location, record)) != SAR_OK) return rv;
      list = multiString(listApplications(device->location));
    }
    return answerBytes(reinterpret_cast<const uint8_t *>(list.data()), list.size(),
                       reinterpret_cast<BYTE *>(szAppName), pulSize);
  });
}

ULONG DEVAPI SKF_DeleteApplication(DEVHANDLE hDev, LPSTR szAppName) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DeleteApplication");
    call.handle("hDev", hDev).text("szAppName", szAppName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    std::string name;
    if ((rv = takeName(szAppName, kMaxApplicationNameLen, name)) != SAR_OK) return rv;
    DeviceLocation location = device->location;
    StoreLock lock(location);
    DeviceRecord record;
    if ((rv = loadPresentDevice(location, record)) != SAR_OK) return rv;
    if (!device->authenticated) return SAR_FAIL;
    if ((rv = removeApplication(location, name)) != SAR_OK) return rv;
    call.token().forgetSecurity(location, name);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_OpenApplication(DEVHANDLE hDev, LPSTR szAppName, HAPPLICATION *phApplication) {
  return guarded([&]() -> ULONG {
    Call call("SKF_OpenApplication");
    call.handle("hDev", hDev).text("szAppName", szAppName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    std::string name;
    if (phApplication == nullptr) return SAR_INVALIDPARAMERR;
    if ((rv = takeName(szAppName, kMaxApplicationNameLen, name)) != SAR_OK) return rv;
    {
      StoreLock lock(device->location);
      DeviceRecord record;
      ApplicationRecord app;
      if ((rv = loadPresentDevice(device->location, record)) != SAR_OK) return rv;
      if ((rv = loadApplication(device->location, name, app)) != SAR_OK) return rv;
    }
    std::unique_ptr<ApplicationObject> object(new ApplicationObject);
    object->device = HandleTable::idOf(hDev);
    object->name = name;
    *phApplication = call.token().handles.add(std::move(object));
    call.output("hApplication", *phApplication);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_CloseApplication(HAPPLICATION hApplication) {
  return guarded([&]() -> ULONG {
    Call call("SKF_CloseApplication");
    call.handle("hApplication", hApplication);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    if (call.token().handles.application(hApplication) == nullptr) return SAR_INVALIDHANDLEERR;
    // Its container handles stay until SKF_CloseContainer (SAR_OK) or
    // SKF_DisConnectDev; any other use answers SAR_INVALIDHANDLEERR.
    call.token().handles.remove(hApplication, HandleKind::Application);
    return SAR_OK;
  });
}

}  // extern "C"
