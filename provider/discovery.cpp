// Device discovery: DeviceGetAllDevices connects every present token and
// builds one Device record per SKF application (one unformatted record for
// a token without application), with its containers, their encoded public
// keys and certificates, and the key pairs derived from them.
//
// The whole enumeration runs inside g_lock, and each token is held with
// SKF_LockDev while it is read. Tokens stay connected, and applications and
// containers open, for as long as a record made for them lives. A token,
// application, container or key that cannot be read is left out; discovery
// fails only when the set itself cannot be allocated.
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "keys/key_readers.h"
#include "log/trace_log.h"
#include "provider/lock.h"
#include "provider/records.h"

namespace {

const size_t kNameListSize = 1024;
const size_t kContainerListSize = 4096;

// Calls `visit` for each name of an SKF name list: NUL-terminated names,
// ending at an empty name or where the offset reaches the answered length.
// A name is read only up to the end of the buffer and a name without its
// NUL inside the buffer ends the walk. `visit` returns false to stop.
template <typename Visit>
void walkNameList(const char *list, size_t listLen, size_t bufferSize, Visit visit) {
  size_t offset = 0;
  while (offset < listLen && offset < bufferSize) {
    const char *name = list + offset;
    size_t nameLen = strnlen(name, bufferSize - offset);
    if (nameLen == 0 || offset + nameLen >= bufferSize) break;
    if (!visit(name)) break;
    offset += nameLen + 1;
  }
}

// A NUL-terminated copy of a fixed DEVINFO text field for the log.
template <size_t N>
struct FieldText {
  explicit FieldText(const CHAR (&field)[N]) {
    memcpy(text, field, N);
    text[N] = '\0';
  }
  char text[N + 1];
};

char *copyLabel(const char *text) {
  size_t len = strlen(text) + 1;
  char *copy = static_cast<char *>(malloc(len));
  if (copy != nullptr) memcpy(copy, text, len);
  return copy;
}

}  // namespace

// Opens one container and reads what it holds: the public keys in the host's
// encoding and, after a key was read, its certificate. Null when the
// container cannot be allocated, opened or typed.
static Container *getContainer(HAPPLICATION hApp, const char *name) {
  Container *hContainer = static_cast<Container *>(calloc(1, sizeof(Container)));
  if (hContainer == nullptr) {
    LOG_ERROR("hContainer == 0");
    return nullptr;
  }
  hContainer->m_label = copyLabel(name);
  if (hContainer->m_label == nullptr) {
    free(hContainer);
    LOG_ERROR("hContainer->m_label == 0");
    return nullptr;
  }
  ULONG rv = SKF_OpenContainer(hApp, const_cast<LPSTR>(name), &hContainer->m_hContainer);
  if (rv != SAR_OK) {
    hContainer->m_hContainer = nullptr;  // nothing was opened
    freeContainer(hContainer);
    LOG_ERROR("SKF_OpenContainer fail, error = 0x%08X", static_cast<unsigned>(rv));
    return nullptr;
  }
  ULONG type = 0;
  rv = SKF_GetContainerType(hContainer->m_hContainer, &type);
  if (rv != SAR_OK) {
    freeContainer(hContainer);  // also closes the container just opened
    LOG_ERROR("SKF_GetContainerType fail, error = 0x%08X", static_cast<unsigned>(rv));
    return nullptr;
  }
  hContainer->m_type = type;

  HCONTAINER hCon = hContainer->m_hContainer;
  if (type == CONTAINER_TYPE_RSA) {
    // RSA reads a certificate only after a key read answering exactly 1.
    if (GetRSAPublicKey(hCon, 1, &hContainer->m_signPubKey, &hContainer->m_signPubKeyLen,
                        &hContainer->m_keybits) == 1) {
      GetCertificate(hCon, 1, &hContainer->m_signCert, &hContainer->m_signCertLen);
    }
    if (GetRSAPublicKey(hCon, 0, &hContainer->m_encPubKey, &hContainer->m_encPubKeyLen, nullptr) ==
        1) {
      GetCertificate(hCon, 0, &hContainer->m_encCert, &hContainer->m_encCertLen);
    }
  } else if (type == CONTAINER_TYPE_ECC) {
    hContainer->m_keybits = 256;
    // The signature certificate follows any non-zero key read, unlike RSA.
    if (GetECCPublicKey(hCon, 1, &hContainer->m_signPubKey, &hContainer->m_signPubKeyLen) != 0) {
      GetCertificate(hCon, 1, &hContainer->m_signCert, &hContainer->m_signCertLen);
    }
    if (GetECCPublicKey(hCon, 0, &hContainer->m_encPubKey, &hContainer->m_encPubKeyLen) == 1) {
      GetCertificate(hCon, 0, &hContainer->m_encCert, &hContainer->m_encCertLen);
    }
  }
  return hContainer;
}

// Reads the application's containers into the device, at most
// CONTAINER_COUNT_MAX of them: the walk stops before a 33rd would be stored
// (and that container is not opened). 0 when the token cannot enumerate.
static int getAllContainer(Device *hDevice) {
  char nameList[kContainerListSize];
  memset(nameList, 0, sizeof(nameList));
  ULONG nameListLen = sizeof(nameList);
  ULONG rv = SKF_EnumContainer(hDevice->m_hApp, nameList, &nameListLen);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_EnumContainer fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }
  walkNameList(nameList, nameListLen, sizeof(nameList), [&](const char *name) {
    if (hDevice->m_containerCount >= CONTAINER_COUNT_MAX) return false;
    Container *container = getContainer(hDevice->m_hApp, name);
    if (container != nullptr) hDevice->m_containers[hDevice->m_containerCount++] = container;
    return true;
  });
  return 1;
}

// A Keypair of the device for one key of container `index`, appended to
// m_keypairs with its reference. False when it cannot be allocated or the
// table is full.
static bool appendKeypair(Device *hDevice, int index, int keytype) {
  if (hDevice->m_keypairCount >= KEYPAIR_COUNT_MAX) return false;
  const Container *container = hDevice->m_containers[index];
  Keypair *keypair = static_cast<Keypair *>(calloc(1, sizeof(Keypair)));
  if (keypair == nullptr) return false;
  keypair->m_label = copyLabel(container->m_label);
  if (keypair->m_label == nullptr) {
    free(keypair);
    return false;
  }
  keypair->m_index = index;
  keypair->m_device = hDevice;
  keypair->m_keytype = keytype;
  keypair->m_algo =
      container->m_type == CONTAINER_TYPE_RSA ? ORVEL_PKI_ALGORITHM_RSA : ORVEL_PKI_ALGORITHM_ECC;
  keypair->m_keybits = container->m_keybits;
  hDevice->m_keypairs[hDevice->m_keypairCount++] = keypair;
  hDevice->m_refCount++;
  return true;
}

// Key pairs in container order, signature before encryption. A signature
// key pair that cannot be made skips its container's encryption key pair
// as well.
static int getAllKeypairFromContainer(Device *hDevice) {
  for (int i = 0; i < hDevice->m_containerCount; i++) {
    const Container *container = hDevice->m_containers[i];
    if (container == nullptr || container->m_type == CONTAINER_TYPE_EMPTY) continue;
    if (container->m_signPubKeyLen != 0 &&
        !appendKeypair(hDevice, i, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE)) {
      continue;
    }
    if (container->m_encPubKeyLen != 0) {
      appendKeypair(hDevice, i, ORVEL_PKI_KEYPAIRTYPE_ENCRYPT);
    }
  }
  return 1;
}

// The record of one opened application, with its containers and key pairs.
// When the containers cannot be enumerated the half-built record is
// destroyed, which also closes the application and disconnects the token
// under any other record of it; null is then returned.
static Device *createKeyHandle(DEVHANDLE hDev, HAPPLICATION hApp, const char *appName,
                               const DEVINFO *info) {
  Device *hDevice = static_cast<Device *>(calloc(1, sizeof(Device)));
  if (hDevice == nullptr) {
    SKF_CloseApplication(hApp);
    LOG_ERROR("hDevice alloc memory fail");
    return nullptr;
  }
  hDevice->m_isformat = 1;
  hDevice->m_hDev = hDev;
  hDevice->m_hApp = hApp;
  hDevice->m_info = *info;
  hDevice->m_serialNumber = static_cast<char *>(calloc(1, SERIAL_NUMBER_BUFFER));
  if (hDevice->m_serialNumber == nullptr) {
    free(hDevice);
    SKF_CloseApplication(hApp);
    LOG_ERROR("hDevice->m_serialNumber == 0");
    return nullptr;
  }
  memcpy(hDevice->m_serialNumber, info->SerialNumber, sizeof(info->SerialNumber));
  strncpy(hDevice->m_appName, appName, sizeof(hDevice->m_appName) - 1);
  hDevice->m_refCount = 1;

  if (getAllContainer(hDevice) == 0) {
    freeDevice(hDevice);
    LOG_ERROR("getAllContainer(hDevice) == 0");
    return nullptr;
  }
  if (getAllKeypairFromContainer(hDevice) == 0) {
    freeDevice(hDevice);
    LOG_ERROR("getAllKeypairFromContainer(hDevice) == 0");
    return nullptr;
  }
  return hDevice;
}

// The record of a token without application: m_isformat 0, no application
// handle, no containers.
static Device *createEmptyKeyHandle(DEVHANDLE hDev, const DEVINFO *info) {
  Device *hDevice = static_cast<Device *>(calloc(1, sizeof(Device)));
  if (hDevice == nullptr) {
    LOG_ERROR("hDevice == 0");
    return nullptr;
  }
  hDevice->m_hDev = hDev;
  hDevice->m_isformat = 0;
  hDevice->m_hApp = nullptr;
  hDevice->m_info = *info;
  hDevice->m_serialNumber = static_cast<char *>(calloc(1, SERIAL_NUMBER_BUFFER));
  if (hDevice->m_serialNumber == nullptr) {
    free(hDevice);
    LOG_ERROR("hDevice->m_serialNumber == 0");
    return nullptr;
  }
  memcpy(hDevice->m_serialNumber, info->SerialNumber, sizeof(info->SerialNumber));
  hDevice->m_refCount = 1;
  return hDevice;
}

// Part of addDevice: its line carries addDevice's name.
static void storeDevice(DeviceSet *hSet, Device *hDevice) {
  hSet->m_handles[hSet->m_count] = hDevice;
  LOG_DEBUG_AS("addDevice", "hSet->m_handles[%d]=%p", hSet->m_count, static_cast<void *>(hDevice));
  hSet->m_count++;
}

// Adds the records of one token to the set.
//
// The set holds DEVICE_SET_CAPACITY records and never grows: a token met
// with the set already full is not connected at all, and applications past
// the capacity are not opened (the token keeps the records it has). Both
// cases are reported with a warning.
static void addDevice(DeviceSet *hSet, const char *name) {
  if (name == nullptr || name[0] == '\0') return;
  if (hSet->m_count >= DEVICE_SET_CAPACITY) {
    LOG_WARN("hSet->m_count >= DEVICE_SET_CAPACITY");
    return;
  }

  DEVHANDLE hDev = nullptr;
  ULONG rv = SKF_ConnectDev(const_cast<LPSTR>(name), &hDev);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_ConnectDev fail, error = 0x%08X", static_cast<unsigned>(rv));
    return;
  }
  rv = SKF_LockDev(hDev, 0xFFFFFFFF);
  if (rv != SAR_OK) {
    SKF_DisConnectDev(hDev);
    LOG_ERROR("SKF_LockDev fail, error = 0x%08X", static_cast<unsigned>(rv));
    return;
  }
  DEVINFO info;
  memset(&info, 0, sizeof(info));
  rv = SKF_GetDevInfo(hDev, &info);
  if (rv != SAR_OK) {
    SKF_UnlockDev(hDev);
    SKF_DisConnectDev(hDev);
    LOG_ERROR("SKF_GetDevInfo fail, error = 0x%08X", static_cast<unsigned>(rv));
    return;
  }
  if (logLevelEnabled(LOG_LEVEL_DEBUG)) {
    LOG_DEBUG("device info issuer : %s", FieldText<sizeof(info.Issuer)>(info.Issuer).text);
    LOG_DEBUG("device info label : %s", FieldText<sizeof(info.Label)>(info.Label).text);
    LOG_DEBUG("device info serial number : %s",
              FieldText<sizeof(info.SerialNumber)>(info.SerialNumber).text);
    LOG_DEBUG("device algo sym : 0x%08x", static_cast<unsigned>(info.AlgSymCap));
    LOG_DEBUG("device algo asym : 0x%08x", static_cast<unsigned>(info.AlgAsymCap));
    LOG_DEBUG("device algo hash : 0x%08x", static_cast<unsigned>(info.AlgHashCap));
  }

  char appNameList[kNameListSize];
  memset(appNameList, 0, sizeof(appNameList));
  ULONG appNameLen = sizeof(appNameList);
  rv = SKF_EnumApplication(hDev, appNameList, &appNameLen);
  if (rv == SAR_OK && appNameLen != 0 && appNameList[0] != '\0') {
    walkNameList(appNameList, appNameLen, sizeof(appNameList), [&](const char *appName) {
      if (hSet->m_count >= DEVICE_SET_CAPACITY) {
        LOG_WARN_AS("addDevice", "hSet->m_count >= DEVICE_SET_CAPACITY");
        return false;
      }
      HAPPLICATION hApp = nullptr;
      if (SKF_OpenApplication(hDev, const_cast<LPSTR>(appName), &hApp) != SAR_OK) return true;
      // No login from an earlier session survives discovery.
      SKF_ClearSecureState(hApp);
      Device *hDevice = createKeyHandle(hDev, hApp, appName, &info);
      if (hDevice != nullptr) storeDevice(hSet, hDevice);
      return true;
    });
    SKF_UnlockDev(hDev);
    return;
  }

  // No application: one unformatted record, so that the host sees the token.
  Device *hDevice = createEmptyKeyHandle(hDev, &info);
  if (hDevice != nullptr) storeDevice(hSet, hDevice);
  SKF_UnlockDev(hDev);
  LOG_ERROR("appNameLen == 0 || appNameList[0] == 0");
}

extern "C" {

// A new set of every present token's records. Null only when the set cannot
// be allocated; a failed enumeration gives an empty set.
TEMBRA_API SPI_DEVICESET_HANDLE DeviceGetAllDevices(void) {
  call_stack_tracer tracer("DeviceGetAllDevices");
  DeviceSet *hSet = static_cast<DeviceSet *>(malloc(sizeof(DeviceSet)));
  Device **handles = static_cast<Device **>(calloc(DEVICE_SET_CAPACITY, sizeof(Device *)));
  if (hSet == nullptr || handles == nullptr) {
    free(hSet);
    free(handles);
    LOG_ERROR("alloc memory fail");
    return nullptr;
  }
  hSet->m_allocCount = DEVICE_SET_CAPACITY;
  hSet->m_count = 0;
  hSet->m_handles = handles;

  ProviderLock lock;
  char nameList[kNameListSize];
  memset(nameList, 0, sizeof(nameList));
  ULONG nameListLen = sizeof(nameList);
  ULONG rv = SKF_EnumDev(TRUE, nameList, &nameListLen);
  if (rv != SAR_OK) {
    lock.release();
    LOG_ERROR("SKF_EnumDev fail, error : 0x%08X", static_cast<unsigned>(rv));
    return hSet;
  }
  if (nameListLen == 0 || nameList[0] == '\0') return hSet;
  walkNameList(nameList, nameListLen, sizeof(nameList), [&](const char *name) {
    addDevice(hSet, name);
    return true;
  });
  return hSet;
}

}  // extern "C"
