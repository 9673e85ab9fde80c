// Device calls: enumeration, connection, device information, the device
// lock, device authentication and random numbers.
#include <string.h>

#include "crypto/backend.h"
#include "softskf/core/token.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const ULONG kTotalSpace = 1u << 20;

// The device of a handle, with its record read anew from the store.
ULONG presentDevice(Call &call, HANDLE hDev, DeviceObject *&device, DeviceRecord &record) {
  device = call.token().handles.device(hDev);
  if (device == nullptr) return SAR_INVALIDHANDLEERR;
  StoreLock lock(device->location);
  return loadPresentDevice(device->location, record);
}

void copyText(CHAR *field, size_t size, const std::string &value) {
  memset(field, 0, size);
  memcpy(field, value.data(), value.size() < size - 1 ? value.size() : size - 1);
}

ULONG usedSpace(const DeviceLocation &location) {
  size_t used = 0;
  for (const std::string &name : listApplications(location)) {
    ApplicationRecord app;
    if (loadApplication(location, name, app) == SAR_OK) used += encodeApplication(app).size();
  }
  return static_cast<ULONG>(used < kTotalSpace ? used : kTotalSpace);
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_EnumDev(BOOL bPresent, LPSTR szNameList, ULONG *pulSize) {
  return guarded([&]() -> ULONG {
    Call call("SKF_EnumDev");
    call.number("bPresent", bPresent ? 1 : 0).number("ulSize", pulSize ? *pulSize : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    if (pulSize == nullptr) return SAR_INVALIDPARAMERR;
    std::vector<std::string> names;
    for (const StoredDevice &device : listDevices(currentStoreDirectory())) {
      if (!bPresent || device.record.present) names.push_back(device.name);
    }
    std::string list = multiString(names);
    return answerBytes(reinterpret_cast<const uint8_t *>(list.data()), list.size(),
                       reinterpret_cast<BYTE *>(szNameList), pulSize);
  });
}

ULONG DEVAPI SKF_ConnectDev(LPSTR szName, DEVHANDLE *phDev) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ConnectDev");
    call.text("szName", szName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    std::string name;
    if (phDev == nullptr) return SAR_INVALIDPARAMERR;
    if ((rv = takeName(szName, kMaxDeviceNameLen, name)) != SAR_OK) return rv;
    std::unique_ptr<DeviceObject> device(new DeviceObject);
    device->location = DeviceLocation{currentStoreDirectory(), name};
    DeviceRecord record;
    {
      StoreLock lock(device->location);
      rv = loadDevice(device->location, record);
    }
    if (rv != SAR_OK) return rv;
    if (!record.present) return SAR_DEVICE_REMOVED;
    *phDev = call.token().handles.add(std::move(device));
    call.output("hDev", *phDev);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_DisConnectDev(DEVHANDLE hDev) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DisConnectDev");
    call.handle("hDev", hDev);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    if (call.token().handles.device(hDev) == nullptr) return SAR_INVALIDHANDLEERR;
    call.token().handles.removeChildrenOfDevice(HandleTable::idOf(hDev));
    call.token().handles.remove(hDev, HandleKind::Device);  // releases its device lock
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_GetDevInfo(DEVHANDLE hDev, DEVINFO *pDevInfo) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GetDevInfo");
    call.handle("hDev", hDev);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device;
    DeviceRecord record;
    if ((rv = presentDevice(call, hDev, device, record)) != SAR_OK) return rv;
    if (pDevInfo == nullptr) return SAR_INVALIDPARAMERR;
    DEVINFO info;
    memset(&info, 0, sizeof info);
    info.Version.major = 1;
    info.Version.minor = 0;
    copyText(info.Manufacturer, sizeof info.Manufacturer, "Tembra Software Token");
    copyText(info.Issuer, sizeof info.Issuer, "TembraKeyProv");
    copyText(info.Label, sizeof info.Label, record.label);
    copyText(info.SerialNumber, sizeof info.SerialNumber, record.serial);
    info.HWVersion.major = 1;
    info.FirmwareVersion.major = 1;
    info.AlgSymCap = record.hasCapabilities
                         ? record.symCapability
                         : SGD_SMS4_ECB | SGD_SMS4_CBC | SGD_SMS4_CFB | SGD_SMS4_OFB;
    info.AlgAsymCap = record.hasCapabilities ? record.asymCapability
                                             : SGD_RSA | SGD_SM2_1 | SGD_SM2_3 |
                                                   SGD_SM2_1_GMT0006 | SGD_SM2_3_GMT0006;
    info.AlgHashCap = record.hasCapabilities ? record.hashCapability : SGD_SM3;
    info.DevAuthAlgId = SGD_SMS4_ECB;
    info.TotalSpace = kTotalSpace;
    {
      StoreLock lock(device->location);
      info.FreeSpace = kTotalSpace - usedSpace(device->location);
    }
    info.MaxECCBufferSize = 65536;
    info.MaxBufferSize = 65536;
    *pDevInfo = info;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_LockDev(DEVHANDLE hDev, ULONG ulTimeOut) {
  return guarded([&]() -> ULONG {
    Call call("SKF_LockDev");
    call.handle("hDev", hDev).hex("ulTimeOut", ulTimeOut);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device;
    DeviceRecord record;
    if ((rv = presentDevice(call, hDev, device, record)) != SAR_OK) return rv;
    if (device->deviceLock.held()) return SAR_OK;
    if (!device->deviceLock.open(device->location.lockFile())) return SAR_FILEERR;
    // Polls, letting go of the token mutex between attempts so that other
    // threads (the holder among them) go on; the handle may be closed
    // meanwhile, so it is looked up again after every wait.
    unsigned long waited = 0;
    for (;;) {
      if (device->deviceLock.tryLock()) return SAR_OK;
      if (ulTimeOut != 0xFFFFFFFFu && waited >= ulTimeOut) return SAR_TIMEOUTERR;
      call.lock().unlock();
      fs::sleepMilliseconds(5);
      waited += 5;
      call.lock().lock();
      device = call.token().handles.device(hDev);
      if (device == nullptr) return SAR_INVALIDHANDLEERR;
    }
  });
}

ULONG DEVAPI SKF_UnlockDev(DEVHANDLE hDev) {
  return guarded([&]() -> ULONG {
    Call call("SKF_UnlockDev");
    call.handle("hDev", hDev);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    device->deviceLock.close();  // an open lock file would keep the device from removal
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_GenRandom(DEVHANDLE hDev, BYTE *pbRandom, ULONG ulRandomLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GenRandom");
    call.handle("hDev", hDev).number("ulRandomLen", ulRandomLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device;
    DeviceRecord record;
    if ((rv = presentDevice(call, hDev, device, record)) != SAR_OK) return rv;
    if (pbRandom == nullptr && ulRandomLen > 0) return SAR_INVALIDPARAMERR;
    if (ulRandomLen > 0 && !crypto::randomBytes(pbRandom, ulRandomLen)) return SAR_GENRANDERR;
    // The challenge of the next SKF_DevAuth on this handle.
    memset(device->challenge.data(), 0, 16);
    if (ulRandomLen > 0)
      memcpy(device->challenge.data(), pbRandom, ulRandomLen < 16 ? ulRandomLen : 16);
    device->hasChallenge = ulRandomLen > 0;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_DevAuth(DEVHANDLE hDev, BYTE *pbAuthData, ULONG ulLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DevAuth");
    call.handle("hDev", hDev).number("ulLen", ulLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device;
    DeviceRecord record;
    if ((rv = presentDevice(call, hDev, device, record)) != SAR_OK) return rv;
    if (pbAuthData == nullptr) return SAR_INVALIDPARAMERR;
    bool hadChallenge = device->hasChallenge;
    device->hasChallenge = false;  // one answer per challenge, right or wrong
    device->authenticated = false;
    if (!hadChallenge || ulLen != 16) return SAR_FAIL;
    SecureArray<16> expected;
    if (!crypto::sm4Ecb(true, record.authKey.data(), device->challenge.data(), 16,
                        expected.data())) {
      return SAR_FAIL;
    }
    uint8_t diff = 0;
    for (size_t i = 0; i < 16; ++i) diff |= static_cast<uint8_t>(expected.bytes[i] ^ pbAuthData[i]);
    if (diff != 0) return SAR_FAIL;
    device->authenticated = true;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ChangeDevAuthKey(DEVHANDLE hDev, BYTE *pbKeyValue, ULONG ulKeyLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ChangeDevAuthKey");
    call.handle("hDev", hDev).number("ulKeyLen", ulKeyLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    DeviceObject *device = call.token().handles.device(hDev);
    if (device == nullptr) return SAR_INVALIDHANDLEERR;
    if (pbKeyValue == nullptr || ulKeyLen != 16) return SAR_INVALIDPARAMERR;
    StoreLock lock(device->location);
    DeviceRecord record;
    if ((rv = loadPresentDevice(device->location, record)) != SAR_OK) return rv;
    if (!device->authenticated) return SAR_FAIL;
    memcpy(record.authKey.data(), pbKeyValue, 16);
    return saveDevice(device->location, record);
  });
}

}  // extern "C"
