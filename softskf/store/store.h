// The token store on disk: where it is, and loading and saving its records.
//
// Layout: <store>/<device>/device.rec, <store>/<device>/<application>.app,
// plus the lock files <device>/store.lock (held around every read and write
// of the device's records, so read-modify-write is atomic across processes)
// and <device>/device.lock (SKF_LockDev). Names are percent-encoded in file
// names. All results are SKF codes.
//
// Records read under the store lock are kept in a per-process cache and
// served again as long as the device's write generation (a counter in
// store.lock that every write bumps, under the lock) and the file's stamp
// (identity, size, times) are those seen when it was read: a check costs a
// read of 8 bytes and a stat, and a change by any process is seen at the
// next call.
#ifndef TEMBRA_SOFTSKF_STORE_STORE_H
#define TEMBRA_SOFTSKF_STORE_STORE_H

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/skf.h"
#include "softskf/store/fs.h"
#include "softskf/store/records.h"

namespace tembra {
namespace softskf {

// $TEMBRA_SOFTSKF_DIR, else the per-user data directory.
inline std::string currentStoreDirectory() {
  return fs::storeDirectory();
}


struct DeviceLocation {
  std::string store;
  std::string name;
  std::string directory() const;
  std::string lockFile() const;  // the SKF_LockDev lock
};

// Holds the device's store lock for its lifetime. The loads and saves of the
// device made meanwhile (by this thread: the token mutex serialises the
// calls) go through it; when it could not be taken they fail rather than go
// on without the lock: as an absent device when its directory is missing,
// else with SAR_FILEERR.
class StoreLock {
 public:
  explicit StoreLock(const DeviceLocation &device);
  ~StoreLock();
  StoreLock(const StoreLock &) = delete;
  StoreLock &operator=(const StoreLock &) = delete;
  bool held() const { return m_lock->held(); }
  // The device directory did not exist.
  bool deviceMissing() const { return m_missing; }
  uint64_t generation() const { return m_generation; }
  // Counts a write of the device's records; false if the counter cannot be
  // written.
  bool bump();
  // The stamp of one of the device's files.
  fs::ReadResult stamp(const std::string &name, fs::FileStamp &stamp) const;
  // Makes sure the lock held is on the device's lock file as it is now: a
  // lock file kept open from an earlier call may have gone with its device
  // (and the device been made anew). False when the device is gone.
  bool confirm();

 private:
  void acquire(bool verify);
  std::string m_directory;
  fs::FileLock *m_lock;  // the process's open lock file of the device
#ifdef _WIN32
  fs::FileLock m_own;  // opened for this lock alone: an open file keeps a removal from completing
#endif
  bool m_missing = false;
  uint64_t m_generation = 0;
  StoreLock *m_outer = nullptr;
};

// SAR_OK; SAR_INVALIDPARAMERR when no such device exists; SAR_FILEERR when
// its record cannot be read.
ULONG loadDevice(const DeviceLocation &device, DeviceRecord &record);
// As loadDevice, and SAR_DEVICE_REMOVED for a missing or absent device: the
// check of every call made through a device's handles.
ULONG loadPresentDevice(const DeviceLocation &device, DeviceRecord &record);
// The result of loadPresentDevice, for a call that goes on to load one of
// the device's applications: the cached device record is checked against
// the write generation alone (the application file's check, made next,
// also shows the device directory still in place).
ULONG checkPresentDevice(const DeviceLocation &device);
ULONG saveDevice(const DeviceLocation &device, const DeviceRecord &record);

// Creates the device: exactly one of any number of creators of one name
// (threads or processes) gets SAR_OK, the others SAR_FILE_ALREADY_EXIST. A
// device directory without a device record is a half-made device (its
// creator was killed): the next creation of the name reclaims it.
ULONG createDevice(const DeviceLocation &device, DeviceRecord record);
// SAR_FILE_NOT_EXIST if there is no such directory (whole or half-made).
ULONG removeDevice(const DeviceLocation &device);

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
// As loadApplication, sharing the cached record instead of copying it.
ULONG loadApplication(const DeviceLocation &device, const std::string &name,
                      std::shared_ptr<const ApplicationRecord> &app);
ULONG saveApplication(const DeviceLocation &device, const ApplicationRecord &app);
ULONG removeApplication(const DeviceLocation &device, const std::string &name);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_STORE_STORE_H
