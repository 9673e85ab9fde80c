#include "softskf/store/store.h"

#include <stdio.h>

#include <algorithm>
#include <map>
#include <mutex>

namespace tembra {
namespace softskf {

namespace {

const char kDeviceFile[] = "device.rec";
const char kApplicationSuffix[] = ".app";
const char kStoreLockFile[] = "store.lock";
// Bounds of what the process keeps between calls.
const size_t kMaxOpenLockFiles = 64;
const size_t kMaxCachedRecords = 1024;

std::string applicationFile(const std::string &name) {
  return fs::encodeName(name) + kApplicationSuffix;
}

std::string applicationPath(const DeviceLocation &device, const std::string &name) {
  return fs::join(device.directory(), applicationFile(name));
}

// The process's view of the store: the store lock held for each device
// directory, and the records read under it. Calls are serialised by the
// token mutex already; the mutex here keeps the maps sound on their own.
template <typename Record>
struct CachedRecord {
  uint64_t generation = 0;
  fs::FileStamp stamp;
  std::shared_ptr<const Record> record;
};

struct StoreState {
  std::mutex mutex;
  std::map<std::string, StoreLock *> locks;
  // The lock file of each device, kept open between calls (POSIX).
  std::map<std::string, std::unique_ptr<fs::FileLock>> lockFiles;
  std::map<std::string, CachedRecord<DeviceRecord>> devices;
  std::map<std::string, CachedRecord<ApplicationRecord>> applications;
};

StoreState &state() {
  static StoreState *instance = new StoreState;  // lives as long as the process
  return *instance;
}

StoreLock *heldLock(const std::string &directory) {
  StoreState &s = state();
  std::lock_guard<std::mutex> guard(s.mutex);
  auto it = s.locks.find(directory);
  return it == s.locks.end() ? nullptr : it->second;
}

// How a cached record is checked before it is served: against the
// device's write generation and the file's stamp, or (for the device record
// of a call that goes on to check an application file, which also shows the
// device directory still there) the generation alone.
enum class Check { GenerationAndStamp, Generation };

// The record `name` of the device, from the cache when it passes the check.
// Without a lock of the device the file is read as it is and nothing is
// cached.
template <typename Record, typename Decode>
fs::ReadResult loadRecord(std::map<std::string, CachedRecord<Record>> &cache,
                          const std::string &directory, const std::string &name, StoreLock *lock,
                          Decode decode, std::shared_ptr<const Record> &record, bool &decoded,
                          Check check = Check::GenerationAndStamp) {
  decoded = true;
  const std::string path = fs::join(directory, name);
  fs::FileStamp now;
  StoreState &s = state();
  if (lock != nullptr) {
    if (check == Check::Generation) {
      std::lock_guard<std::mutex> guard(s.mutex);
      auto it = cache.find(path);
      if (it != cache.end() && it->second.generation == lock->generation()) {
        record = it->second.record;
        return fs::ReadResult::Ok;
      }
    } else if (lock->stamp(name, now) == fs::ReadResult::Ok) {
      std::lock_guard<std::mutex> guard(s.mutex);
      auto it = cache.find(path);
      if (it != cache.end() && it->second.generation == lock->generation() &&
          it->second.stamp == now) {
        record = it->second.record;
        return fs::ReadResult::Ok;
      }
    }
    // Not as it was: before reading, the lock must be the device's own.
    if (!lock->confirm()) {
      std::lock_guard<std::mutex> guard(s.mutex);
      cache.erase(path);
      return fs::ReadResult::NotFound;
    }
  }
  std::vector<uint8_t> bytes;
  fs::ReadResult read = fs::readFile(path, bytes, &now);
  if (read != fs::ReadResult::Ok) {
    std::lock_guard<std::mutex> guard(s.mutex);
    cache.erase(path);
    return read;
  }
  std::shared_ptr<Record> fresh = std::make_shared<Record>();
  if (!decode(bytes, *fresh)) {
    decoded = false;
    return fs::ReadResult::Ok;
  }
  record = fresh;
  if (lock != nullptr) {
    std::lock_guard<std::mutex> guard(s.mutex);
    if (cache.size() >= kMaxCachedRecords) cache.clear();  // stores come and go (tests)
    cache[path] = CachedRecord<Record>{lock->generation(), now, record};
  }
  return fs::ReadResult::Ok;
}

template <typename Record>
void remember(std::map<std::string, CachedRecord<Record>> &cache, const std::string &directory,
              const std::string &name, const StoreLock &lock, const Record &record) {
  const std::string path = fs::join(directory, name);
  fs::FileStamp now;
  bool found = lock.stamp(name, now) == fs::ReadResult::Ok;
  StoreState &s = state();
  std::lock_guard<std::mutex> guard(s.mutex);
  if (found) {
    cache[path] = CachedRecord<Record>{lock.generation(), now, std::make_shared<Record>(record)};
  } else {
    cache.erase(path);
  }
}

void forgetDirectory(const std::string &directory) {
  StoreState &s = state();
  std::lock_guard<std::mutex> guard(s.mutex);
  auto file = s.lockFiles.find(directory);
  if (file != s.lockFiles.end() && !file->second->held() && s.locks.count(directory) == 0)
    s.lockFiles.erase(file);
  const std::string prefix = fs::join(directory, "");
  for (auto it = s.devices.begin(); it != s.devices.end();) {
    it = it->first.compare(0, prefix.size(), prefix) == 0 ? s.devices.erase(it) : std::next(it);
  }
  for (auto it = s.applications.begin(); it != s.applications.end();) {
    it =
        it->first.compare(0, prefix.size(), prefix) == 0 ? s.applications.erase(it) : std::next(it);
  }
}

// Temporary files of writes that never reached their rename. Every write
// happens under the store lock, so one seen while the lock is held is dead;
// the writer's process id is checked all the same (a file of a live
// process other than this one is left alone).
void removeStaleTemporaries(const std::string &directory) {
  const unsigned long self = fs::currentProcessId();
  for (const std::string &entry : fs::listDirectory(directory)) {
    std::string target;
    unsigned long pid = 0;
    if (!fs::parseTemporaryName(entry, target, pid)) continue;
    if (pid == self || !fs::processAlive(pid)) fs::removeFile(fs::join(directory, entry));
  }
}

// The lock of the device for a write: the one held by the caller, else one
// taken here for the write alone.
class WriteLock {
 public:
  explicit WriteLock(const DeviceLocation &device) : m_lock(heldLock(device.directory())) {
    if (m_lock == nullptr) {
      m_own.reset(new StoreLock(device));
      m_lock = m_own.get();
    }
  }
  StoreLock *operator->() { return m_lock; }
  StoreLock &operator*() { return *m_lock; }

 private:
  StoreLock *m_lock;
  std::unique_ptr<StoreLock> m_own;
};

// A write of the device's records: the device's own lock held, the
// generation counted before the file changes (a writer killed between the
// two costs other processes a re-read, never a stale record), stale
// temporary files cleared. SAR_OK, else the result of the write.
ULONG beginWrite(StoreLock &lock, const DeviceLocation &device) {
  if (!lock.confirm()) return lock.deviceMissing() ? SAR_DEVICE_REMOVED : SAR_FILEERR;
  if (!lock.bump()) return SAR_WRITEFILEERR;
  removeStaleTemporaries(device.directory());
  return SAR_OK;
}

}  // namespace

std::string DeviceLocation::directory() const {
  return fs::join(store, fs::encodeName(name));
}
std::string DeviceLocation::lockFile() const {
  return fs::join(directory(), "device.lock");
}

StoreLock::StoreLock(const DeviceLocation &device) : m_directory(device.directory()) {
  StoreState &s = state();
#ifdef _WIN32
  m_lock = &m_own;
#else
  {
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.lockFiles.size() >= kMaxOpenLockFiles && s.lockFiles.count(m_directory) == 0) {
      for (auto it = s.lockFiles.begin(); it != s.lockFiles.end();) {
        bool inUse = it->second->held() || s.locks.count(it->first) != 0;
        it = inUse ? std::next(it) : s.lockFiles.erase(it);
      }
    }
    std::unique_ptr<fs::FileLock> &file = s.lockFiles[m_directory];
    if (!file) file.reset(new fs::FileLock);
    m_lock = file.get();
  }
#endif
  // A lock file kept open since an earlier call is confirmed when what it
  // guards looks changed (see confirm), not at every call.
  acquire(!m_lock->usable());
  std::lock_guard<std::mutex> guard(s.mutex);
  StoreLock *&slot = s.locks[m_directory];
  m_outer = slot;
  slot = this;
}

StoreLock::~StoreLock() {
#ifdef _WIN32
  m_own.close();
#else
  if (m_outer == nullptr) m_lock->unlock();
#endif
  StoreState &s = state();
  std::lock_guard<std::mutex> guard(s.mutex);
  auto it = s.locks.find(m_directory);
  if (it != s.locks.end() && it->second == this) {
    if (m_outer != nullptr) {
      it->second = m_outer;
    } else {
      s.locks.erase(it);
    }
  }
}

void StoreLock::acquire(bool verify) {
  // A lock file removed while we waited for it (the device was removed, and
  // perhaps made anew) guards nothing: take the one now in place.
  for (int attempt = 0; attempt < 8; ++attempt) {
    if (!m_lock->usable()) {
      verify = true;
      if (!m_lock->open(fs::join(m_directory, kStoreLockFile))) {
        m_missing = !fs::isDirectory(m_directory);
        return;
      }
    }
    if (!m_lock->lock()) return;
    if (!verify || m_lock->stillInPlace()) {
      if (!m_lock->readCounter(m_generation)) m_lock->close();
      return;
    }
    m_lock->close();
  }
}

bool StoreLock::confirm() {
  if (!held()) return false;
  if (m_lock->stillInPlace()) return true;
  m_lock->close();
  acquire(true);
  return held();
}

fs::ReadResult StoreLock::stamp(const std::string &name, fs::FileStamp &stamp) const {
  return m_lock->statBeside(name, stamp);
}

bool StoreLock::bump() {
  if (!m_lock->held() || !m_lock->writeCounter(m_generation + 1)) return false;
  ++m_generation;
  return true;
}

namespace {

ULONG loadDevice(const DeviceLocation &device, std::shared_ptr<const DeviceRecord> &record,
                 Check check) {
  StoreLock *lock = heldLock(device.directory());
  if (lock != nullptr && !lock->held()) {
    return lock->deviceMissing() ? SAR_INVALIDPARAMERR : SAR_FILEERR;
  }
  bool decoded = true;
  switch (loadRecord(state().devices, device.directory(), kDeviceFile, lock, decodeDevice, record,
                     decoded, check)) {
    case fs::ReadResult::NotFound:
      return SAR_INVALIDPARAMERR;
    case fs::ReadResult::Error:
      return SAR_FILEERR;
    case fs::ReadResult::Ok:
      break;
  }
  return decoded ? SAR_OK : SAR_FILEERR;
}

}  // namespace

ULONG loadDevice(const DeviceLocation &device, DeviceRecord &record) {
  std::shared_ptr<const DeviceRecord> shared;
  ULONG rv = loadDevice(device, shared, Check::GenerationAndStamp);
  if (rv == SAR_OK) record = *shared;
  return rv;
}

ULONG loadPresentDevice(const DeviceLocation &device, DeviceRecord &record) {
  ULONG rv = loadDevice(device, record);
  if (rv == SAR_INVALIDPARAMERR || (rv == SAR_OK && !record.present)) return SAR_DEVICE_REMOVED;
  return rv;
}

ULONG checkPresentDevice(const DeviceLocation &device) {
  std::shared_ptr<const DeviceRecord> record;
  ULONG rv = loadDevice(device, record, Check::Generation);
  if (rv == SAR_INVALIDPARAMERR || (rv == SAR_OK && !record->present)) return SAR_DEVICE_REMOVED;
  return rv;
}

ULONG saveDevice(const DeviceLocation &device, const DeviceRecord &record) {
  WriteLock lock(device);
  ULONG rv = beginWrite(*lock, device);
  if (rv != SAR_OK) return rv;
  const std::string path = fs::join(device.directory(), kDeviceFile);
  if (!fs::writeFileAtomic(path, encodeDevice(record))) return SAR_WRITEFILEERR;
  remember(state().devices, device.directory(), kDeviceFile, *lock, record);
  return SAR_OK;
}

ULONG createDevice(const DeviceLocation &device, DeviceRecord record) {
  if (!fs::makeDirs(device.store)) return SAR_WRITEFILEERR;
  const std::string directory = device.directory();
  // Making the directory is not the exclusive step (a killed creator leaves
  // one behind): the device record, checked and written under the store
  // lock, is. A remover may take the directory away between the two; then
  // it is made again.
  for (int attempt = 0; attempt < 8; ++attempt) {
    if (fs::makeDirectory(directory) == fs::MakeResult::Error) return SAR_WRITEFILEERR;
    StoreLock lock(device);
    if (!lock.held()) {
      if (lock.deviceMissing()) continue;
      return SAR_FILEERR;
    }
    if (fs::exists(fs::join(directory, kDeviceFile))) return SAR_FILE_ALREADY_EXIST;
    // A half-made device: whatever its creator left goes, the lock file aside.
    for (const std::string &entry : fs::listDirectory(directory)) {
      if (entry != kStoreLockFile && !fs::removeTree(fs::join(directory, entry)))
        return SAR_WRITEFILEERR;
    }
    forgetDirectory(directory);
    record.sequence = 1;
    for (const StoredDevice &other : listDevices(device.store)) {
      if (other.record.sequence >= record.sequence) record.sequence = other.record.sequence + 1;
    }
    return saveDevice(device, record);
  }
  return SAR_WRITEFILEERR;
}

ULONG removeDevice(const DeviceLocation &device) {
  const std::string directory = device.directory();
  if (!fs::isDirectory(directory)) return SAR_FILE_NOT_EXIST;
  {
    // Under the lock the records go, so no process reads a device half
    // removed; the lock file itself can only go once it is let go of
    // (Windows keeps an open file).
    StoreLock lock(device);
    if (lock.held()) {
      lock.bump();
      for (const std::string &entry : fs::listDirectory(directory)) {
        if (entry != kStoreLockFile && !fs::removeTree(fs::join(directory, entry)))
          return SAR_FILEERR;
      }
    }
  }
  forgetDirectory(directory);  // the records, and the open lock file
  return fs::removeTree(directory) ? SAR_OK : SAR_FILEERR;
}

std::vector<StoredDevice> listDevices(const std::string &store) {
  std::vector<StoredDevice> devices;
  for (const std::string &entry : fs::listDirectory(store)) {
    StoredDevice device;
    if (!fs::decodeName(entry, device.name) || fs::encodeName(device.name) != entry) continue;
    DeviceLocation location{store, device.name};
    if (!fs::isDirectory(location.directory())) continue;
    if (loadDevice(location, device.record) != SAR_OK) continue;
    devices.push_back(std::move(device));
  }
  std::sort(devices.begin(), devices.end(), [](const StoredDevice &a, const StoredDevice &b) {
    return a.record.sequence != b.record.sequence ? a.record.sequence < b.record.sequence
                                                  : a.name < b.name;
  });
  return devices;
}

std::vector<std::string> listApplications(const DeviceLocation &device) {
  std::vector<std::string> names;
  const size_t suffixLen = sizeof kApplicationSuffix - 1;
  for (const std::string &entry : fs::listDirectory(device.directory())) {
    if (entry.size() <= suffixLen ||
        entry.compare(entry.size() - suffixLen, suffixLen, kApplicationSuffix) != 0) {
      continue;
    }
    std::string name;
    if (fs::decodeName(entry.substr(0, entry.size() - suffixLen), name)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

ULONG loadApplication(const DeviceLocation &device, const std::string &name,
                      std::shared_ptr<const ApplicationRecord> &app) {
  StoreLock *lock = heldLock(device.directory());
  if (lock != nullptr && !lock->held()) {
    return lock->deviceMissing() ? SAR_DEVICE_REMOVED : SAR_FILEERR;
  }
  std::shared_ptr<const ApplicationRecord> shared;
  bool decoded = true;
  switch (loadRecord(state().applications, device.directory(), applicationFile(name), lock,
                     decodeApplication, shared, decoded)) {
    case fs::ReadResult::NotFound:
      // The device itself may be gone (its directory removed under us).
      if (lock != nullptr && !lock->held() && lock->deviceMissing()) return SAR_DEVICE_REMOVED;
      return SAR_APPLICATION_NOT_EXISTS;
    case fs::ReadResult::Error:
      return SAR_READFILEERR;
    case fs::ReadResult::Ok:
      break;
  }
  if (!decoded || shared->name != name) return SAR_FILEERR;
  app = std::move(shared);
  return SAR_OK;
}

ULONG loadApplication(const DeviceLocation &device, const std::string &name,
                      ApplicationRecord &app) {
  std::shared_ptr<const ApplicationRecord> shared;
  ULONG rv = loadApplication(device, name, shared);
  if (rv == SAR_OK) app = *shared;
  return rv;
}

ULONG saveApplication(const DeviceLocation &device, const ApplicationRecord &app) {
  WriteLock lock(device);
  ULONG rv = beginWrite(*lock, device);
  if (rv != SAR_OK) return rv;
  const std::string path = applicationPath(device, app.name);
  if (!fs::writeFileAtomic(path, encodeApplication(app))) return SAR_WRITEFILEERR;
  remember(state().applications, device.directory(), applicationFile(app.name), *lock, app);
  return SAR_OK;
}

ULONG removeApplication(const DeviceLocation &device, const std::string &name) {
  WriteLock lock(device);
  std::string path = applicationPath(device, name);
  if (!fs::exists(path)) return SAR_APPLICATION_NOT_EXISTS;
  ULONG rv = beginWrite(*lock, device);
  if (rv != SAR_OK) return rv;
  bool removed = fs::removeFile(path);
  {
    StoreState &s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.applications.erase(path);
  }
  return removed ? SAR_OK : SAR_FILEERR;
}

}  // namespace softskf
}  // namespace tembra
