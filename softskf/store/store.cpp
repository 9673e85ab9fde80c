#include "softskf/store/store.h"

#include <stdio.h>

#include <algorithm>

namespace tembra {
namespace softskf {

namespace {

const char kDeviceFile[] = "device.rec";
const char kApplicationSuffix[] = ".app";

bool isPlain(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool decodeName(const std::string &encoded, std::string &name) {
  name.clear();
  for (size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] != '%') {
      name.push_back(encoded[i]);
      continue;
    }
    if (i + 2 >= encoded.size()) return false;
    int hi = hexValue(encoded[i + 1]), lo = hexValue(encoded[i + 2]);
    if (hi < 0 || lo < 0) return false;
    name.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return true;
}

std::string applicationPath(const DeviceLocation &device, const std::string &name) {
  return fs::join(device.directory(), encodeName(name) + kApplicationSuffix);
}

}  // namespace

std::string currentStoreDirectory() {
  std::string dir = fs::environment("TEMBRA_SOFTSKF_DIR");
  if (!dir.empty()) return dir;
#ifdef _WIN32
  std::string base = fs::environment("LOCALAPPDATA");
  if (base.empty()) base = fs::environment("APPDATA");
  return fs::join(fs::join(base, "tembra"), "softskf");
#else
  std::string base = fs::environment("XDG_DATA_HOME");
  if (base.empty()) {
    std::string home = fs::environment("HOME");
    if (home.empty()) home = "/tmp";
    base = fs::join(fs::join(home, ".local"), "share");
  }
  return fs::join(fs::join(base, "tembra"), "softskf");
#endif
}

std::string encodeName(const std::string &name) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    if (isPlain(c) && !(i == 0 && c == '.')) {
      out.push_back(c);
    } else {
      unsigned char u = static_cast<unsigned char>(c);
      out.push_back('%');
      out.push_back(digits[u >> 4]);
      out.push_back(digits[u & 15]);
    }
  }
  return out;
}

std::string DeviceLocation::directory() const {
  return fs::join(store, encodeName(name));
}
std::string DeviceLocation::lockFile() const {
  return fs::join(directory(), "device.lock");
}

StoreLock::StoreLock(const DeviceLocation &device) {
  if (m_lock.open(fs::join(device.directory(), "store.lock"))) m_lock.lock();
}

ULONG loadDevice(const DeviceLocation &device, DeviceRecord &record) {
  std::vector<uint8_t> bytes;
  switch (fs::readFile(fs::join(device.directory(), kDeviceFile), bytes)) {
    case fs::ReadResult::NotFound:
      return SAR_INVALIDPARAMERR;
    case fs::ReadResult::Error:
      return SAR_FILEERR;
    case fs::ReadResult::Ok:
      break;
  }
  return decodeDevice(bytes, record) ? SAR_OK : SAR_FILEERR;
}

ULONG loadPresentDevice(const DeviceLocation &device, DeviceRecord &record) {
  ULONG rv = loadDevice(device, record);
  if (rv == SAR_INVALIDPARAMERR || (rv == SAR_OK && !record.present)) return SAR_DEVICE_REMOVED;
  return rv;
}

ULONG saveDevice(const DeviceLocation &device, const DeviceRecord &record) {
  if (!fs::makeDirs(device.directory())) return SAR_WRITEFILEERR;
  return fs::writeFileAtomic(fs::join(device.directory(), kDeviceFile), encodeDevice(record))
             ? SAR_OK
             : SAR_WRITEFILEERR;
}

std::vector<StoredDevice> listDevices(const std::string &store) {
  std::vector<StoredDevice> devices;
  for (const std::string &entry : fs::listDirectory(store)) {
    StoredDevice device;
    if (!decodeName(entry, device.name) || encodeName(device.name) != entry) continue;
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
    if (decodeName(entry.substr(0, entry.size() - suffixLen), name)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

ULONG loadApplication(const DeviceLocation &device, const std::string &name,
                      ApplicationRecord &app) {
  std::vector<uint8_t> bytes;
  switch (fs::readFile(applicationPath(device, name), bytes)) {
    case fs::ReadResult::NotFound:
      return SAR_APPLICATION_NOT_EXISTS;
    case fs::ReadResult::Error:
      return SAR_READFILEERR;
    case fs::ReadResult::Ok:
      break;
  }
  if (!decodeApplication(bytes, app) || app.name != name) return SAR_FILEERR;
  return SAR_OK;
}

ULONG saveApplication(const DeviceLocation &device, const ApplicationRecord &app) {
  return fs::writeFileAtomic(applicationPath(device, app.name), encodeApplication(app))
             ? SAR_OK
             : SAR_WRITEFILEERR;
}

ULONG removeApplication(const DeviceLocation &device, const std::string &name) {
  std::string path = applicationPath(device, name);
  if (!fs::exists(path)) return SAR_APPLICATION_NOT_EXISTS;
  return fs::removeFile(path) ? SAR_OK : SAR_FILEERR;
}

}  // namespace softskf
}  // namespace tembra
