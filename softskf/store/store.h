// The token store on disk: where it is, and loading and saving its records.
//
// Layout: <store>/<device>/device.rec, <store>/<device>/<application>.app,
// plus the lock files <device>/store.lock (held around every read and write
// of the device's records, so read-modify-write is atomic across processes)
// and <device>/device.lock (SKF_LockDev). Names are percent-encoded in file
// names. All results are SKF codes.
#ifndef TEMBRA_SOFTSKF_STORE_STORE_H
#define TEMBRA_SOFTSKF_STORE_STORE_H

#include <string>
#include <vector>

#include "platform/skf.h"
#include "softskf/store/fs.h"
#include "softskf/store/records.h"

namespace tembra {
namespace softskf {

// $TEMBRA_SOFTSKF_DIR, else the per-user data directory.
std::string currentStoreDirectory();

// Bytes outside [A-Za-z0-9._-] (and a leading '.') become %XX.
std::string encodeName(const std::string &name);

struct DeviceLocation {
  std::string store;
  std::string name;
  std::string directory() const;
  std::string lockFile() const;  // the SKF_LockDev lock
};

// Holds the device's store lock for its lifetime.
class StoreLock {
 public:
  explicit StoreLock(const DeviceLocation &device);
  bool held() const { return m_lock.held(); }

 private:
  fs::FileLock m_lock;
};

// SAR_OK; SAR_INVALIDPARAMERR when no such device exists; SAR_FILEERR when
// its record cannot be read.
ULONG loadDevice(const DeviceLocation &device, DeviceRecord &record);
// As loadDevice, and SAR_DEVICE_REMOVED for a missing or absent device: the
// check of every call made through a device's handles.
ULONG loadPresentDevice(const DeviceLocation &device, DeviceRecord &record);
ULONG saveDevice(const DeviceLocation &device, const DeviceRecord &record);

struct StoredDevice {
  std::string name;
  DeviceRecord record;
};
// The devices of a store in creation order; an unreadable one is left out.
std::vector<StoredDevice> listDevices(const std::string &store);

// Names of the device's applications, sorted.
std::vector<std::string> listApplications(const DeviceLocation &device);
// SAR_APPLICATION_NOT_EXISTS if absent, SAR_FILEERR if unreadable.
ULONG loadApplication(const DeviceLocation &device, const std::string &name,
                      ApplicationRecord &app);
ULONG saveApplication(const DeviceLocation &device, const ApplicationRecord &app);
ULONG removeApplication(const DeviceLocation &device, const std::string &name);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_STORE_STORE_H
