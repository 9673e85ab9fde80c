#include "softskf/store/fs.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#ifdef _WIN32
#include "platform/win_types.h"
#else
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#endif

namespace tembra {
namespace softskf {
namespace fs {

namespace {

const char kTemporaryMark[] = ".tmp.";

// A name for the temporary file of one write, unique within the machine.
std::string temporaryName(const std::string &path) {
  static std::atomic<unsigned long> counter{0};
  return path + kTemporaryMark + std::to_string(currentProcessId()) + "." +
         std::to_string(++counter);
}

bool allDigits(const std::string &s, size_t from, size_t to) {
  if (from >= to || to - from > 19) return false;
  for (size_t i = from; i < to; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
  }
  return true;
}

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

}  // namespace

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

bool parseTemporaryName(const std::string &name, std::string &target, unsigned long &pid) {
  size_t mark = name.rfind(kTemporaryMark);
  if (mark == std::string::npos || mark == 0) return false;
  size_t pidFrom = mark + sizeof kTemporaryMark - 1;
  size_t dot = name.find('.', pidFrom);
  if (dot == std::string::npos || !allDigits(name, pidFrom, dot) ||
      !allDigits(name, dot + 1, name.size())) {
    return false;
  }
  target = name.substr(0, mark);
  pid = std::stoul(name.substr(pidFrom, dot - pidFrom));
  return true;
}

std::string join(const std::string &dir, const std::string &name) {
  if (dir.empty()) return name;
  char last = dir.back();
  if (last == '/' || last == '\\') return dir + name;
#ifdef _WIN32
  return dir + "\\" + name;
#else
  return dir + "/" + name;
#endif
}

void sleepMilliseconds(unsigned ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

#ifdef _WIN32

namespace {

std::wstring wide(const std::string &s) {
  if (s.empty()) return std::wstring();
  int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), &out[0], n);
  return out;
}

std::string narrow(const wchar_t *s) {
  int n = WideCharToMultiByte(CP_UTF8, 0, s, -1, nullptr, 0, nullptr, nullptr);
  if (n <= 1) return std::string();
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, s, -1, &out[0], n, nullptr, nullptr);
  out.resize(static_cast<size_t>(n - 1));
  return out;
}

void stampOf(const BY_HANDLE_FILE_INFORMATION &info, FileStamp &stamp) {
  stamp.volume = info.dwVolumeSerialNumber;
  stamp.file = static_cast<uint64_t>(info.nFileIndexHigh) << 32 | info.nFileIndexLow;
  stamp.size = static_cast<uint64_t>(info.nFileSizeHigh) << 32 | info.nFileSizeLow;
  stamp.modified =
      static_cast<int64_t>(static_cast<uint64_t>(info.ftLastWriteTime.dwHighDateTime) << 32 |
                           info.ftLastWriteTime.dwLowDateTime);
  stamp.changed =
      static_cast<int64_t>(static_cast<uint64_t>(info.ftCreationTime.dwHighDateTime) << 32 |
                           info.ftCreationTime.dwLowDateTime);
}

}  // namespace

unsigned long currentProcessId() {
  return GetCurrentProcessId();
}

bool processAlive(unsigned long pid) {
  HANDLE h = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
  if (h == nullptr) return GetLastError() == ERROR_ACCESS_DENIED;
  DWORD code = 0;
  bool alive = GetExitCodeProcess(h, &code) == 0 || code == STILL_ACTIVE;
  CloseHandle(h);
  return alive;
}

ReadResult statFile(const std::string &path, FileStamp &stamp) {
  HANDLE h =
      CreateFileW(wide(path).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                  nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD err = GetLastError();
    return (err == ERROR_FILE_NOT_FOUND || err == ERROR_PATH_NOT_FOUND) ? ReadResult::NotFound
                                                                        : ReadResult::Error;
  }
  BY_HANDLE_FILE_INFORMATION info;
  bool ok = GetFileInformationByHandle(h, &info) != 0;
  CloseHandle(h);
  if (!ok) return ReadResult::Error;
  stampOf(info, stamp);
  return ReadResult::Ok;
}

ReadResult readFile(const std::string &path, std::vector<uint8_t> &bytes, FileStamp *stamp) {
  HANDLE h = CreateFileW(wide(path).c_str(), GENERIC_READ,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    DWORD err = GetLastError();
    return (err == ERROR_FILE_NOT_FOUND || err == ERROR_PATH_NOT_FOUND) ? ReadResult::NotFound
                                                                        : ReadResult::Error;
  }
  bytes.clear();
  uint8_t buf[16384];
  ReadResult result = ReadResult::Ok;
  if (stamp != nullptr) {
    BY_HANDLE_FILE_INFORMATION info;
    if (GetFileInformationByHandle(h, &info)) {
      stampOf(info, *stamp);
    } else {
      result = ReadResult::Error;
    }
  }
  while (result == ReadResult::Ok) {
    DWORD got = 0;
    if (!ReadFile(h, buf, sizeof buf, &got, nullptr)) {
      result = ReadResult::Error;
      break;
    }
    if (got == 0) break;
    bytes.insert(bytes.end(), buf, buf + got);
  }
  CloseHandle(h);
  return result;
}

bool writeFileAtomic(const std::string &path, const std::vector<uint8_t> &bytes) {
  std::string tmp = temporaryName(path);
  std::wstring wtmp = wide(tmp);
  HANDLE h = CreateFileW(wtmp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  size_t done = 0;
  bool ok = true;
  while (ok && done < bytes.size()) {
    DWORD put = 0;
    DWORD chunk =
        static_cast<DWORD>(bytes.size() - done > 1u << 20 ? 1u << 20 : bytes.size() - done);
    ok = WriteFile(h, bytes.data() + done, chunk, &put, nullptr) && put == chunk;
    done += put;
  }
  ok = ok && FlushFileBuffers(h);
  CloseHandle(h);
  if (ok) {
    // A reader holding the target open can make the replacement fail for a
    // moment; a few attempts ride that out.
    ok = false;
    for (int attempt = 0; attempt < 50 && !ok; ++attempt) {
      ok = MoveFileExW(wtmp.c_str(), wide(path).c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
      if (!ok) Sleep(10);
    }
  }
  if (!ok) DeleteFileW(wtmp.c_str());
  return ok;
}

bool removeFile(const std::string &path) {
  if (DeleteFileW(wide(path).c_str())) return true;
  DWORD err = GetLastError();
  return err == ERROR_FILE_NOT_FOUND || err == ERROR_PATH_NOT_FOUND;
}

bool isDirectory(const std::string &path) {
  DWORD attr = GetFileAttributesW(wide(path).c_str());
  return attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool exists(const std::string &path) {
  return GetFileAttributesW(wide(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::string> listDirectory(const std::string &path) {
  std::vector<std::string> names;
  WIN32_FIND_DATAW data;
  HANDLE h = FindFirstFileW(wide(join(path, "*")).c_str(), &data);
  if (h == INVALID_HANDLE_VALUE) return names;
  do {
    std::string name = narrow(data.cFileName);
    if (name != "." && name != "..") names.push_back(name);
  } while (FindNextFileW(h, &data));
  FindClose(h);
  return names;
}

bool removeTree(const std::string &path) {
  if (!isDirectory(path)) return removeFile(path);
  for (const std::string &name : listDirectory(path)) {
    if (!removeTree(join(path, name))) return false;
  }
  return RemoveDirectoryW(wide(path).c_str()) != 0;
}

bool makeDirs(const std::string &path) {
  if (path.empty()) return false;
  if (isDirectory(path)) return true;
  size_t cut = path.find_last_of("/\\");
  if (cut != std::string::npos && cut > 0 && path[cut - 1] != ':') {
    if (!makeDirs(path.substr(0, cut))) return false;
  }
  return CreateDirectoryW(wide(path).c_str(), nullptr) != 0 || isDirectory(path);
}

MakeResult makeDirectory(const std::string &path) {
  if (CreateDirectoryW(wide(path).c_str(), nullptr) != 0) return MakeResult::Created;
  return GetLastError() == ERROR_ALREADY_EXISTS && isDirectory(path) ? MakeResult::Exists
                                                                     : MakeResult::Error;
}

std::string environment(const char *name) {
  std::wstring wname = wide(name);
  const wchar_t *value = _wgetenv(wname.c_str());
  return value == nullptr ? std::string() : narrow(value);
}

FileLock::~FileLock() {
  close();
}

bool FileLock::open(const std::string &path) {
  close();
  HANDLE h = CreateFileW(wide(path).c_str(), GENERIC_READ | GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                         OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  m_handle = h;
  m_path = path;
  return true;
}

bool FileLock::readCounter(uint64_t &value) {
  value = 0;
  if (m_handle == nullptr || !m_held) return false;
  uint8_t buf[8] = {};
  OVERLAPPED ov = {};
  DWORD got = 0;
  if (!ReadFile(static_cast<HANDLE>(m_handle), buf, sizeof buf, &got, &ov)) {
    if (GetLastError() != ERROR_HANDLE_EOF) return false;
    got = 0;
  }
  if (got < sizeof buf) return true;  // an empty (new) lock file: counter 0
  for (int i = 7; i >= 0; --i) value = value << 8 | buf[i];
  return true;
}

bool FileLock::writeCounter(uint64_t value) {
  if (m_handle == nullptr || !m_held) return false;
  uint8_t buf[8];
  for (int i = 0; i < 8; ++i) buf[i] = static_cast<uint8_t>(value >> (8 * i));
  OVERLAPPED ov = {};
  DWORD put = 0;
  return WriteFile(static_cast<HANDLE>(m_handle), buf, sizeof buf, &put, &ov) && put == sizeof buf;
}

bool FileLock::stillInPlace() const {
  return m_handle != nullptr;
}

bool FileLock::usable() const {
  return m_handle != nullptr;
}

ReadResult FileLock::statBeside(const std::string &name, FileStamp &stamp) const {
  size_t cut = m_path.find_last_of("/\\");
  return statFile(cut == std::string::npos ? name : m_path.substr(0, cut + 1) + name, stamp);
}

bool FileLock::tryLock() {
  if (m_handle == nullptr) return false;
  if (m_held) return true;
  OVERLAPPED ov = {};
  m_held = LockFileEx(static_cast<HANDLE>(m_handle),
                      LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &ov) != 0;
  return m_held;
}

bool FileLock::lock() {
  if (m_handle == nullptr) return false;
  if (m_held) return true;
  OVERLAPPED ov = {};
  m_held = LockFileEx(static_cast<HANDLE>(m_handle), LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &ov) != 0;
  return m_held;
}

void FileLock::unlock() {
  if (m_handle == nullptr || !m_held) return;
  OVERLAPPED ov = {};
  UnlockFileEx(static_cast<HANDLE>(m_handle), 0, 1, 0, &ov);
  m_held = false;
}

void FileLock::close() {
  unlock();
  if (m_handle != nullptr) CloseHandle(static_cast<HANDLE>(m_handle));
  m_handle = nullptr;
  m_path.clear();
}

#else  // POSIX

namespace {

void stampOf(const struct stat &st, FileStamp &stamp) {
  stamp.volume = static_cast<uint64_t>(st.st_dev);
  stamp.file = static_cast<uint64_t>(st.st_ino);
  stamp.size = static_cast<uint64_t>(st.st_size);
  stamp.modified = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  stamp.changed = static_cast<int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
}

}  // namespace

unsigned long currentProcessId() {
  return static_cast<unsigned long>(getpid());
}

bool processAlive(unsigned long pid) {
  if (pid == 0 || pid > 0x7fffffffUL) return false;
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

ReadResult statFile(const std::string &path, FileStamp &stamp) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0)
    return errno == ENOENT || errno == ENOTDIR ? ReadResult::NotFound : ReadResult::Error;
  stampOf(st, stamp);
  return ReadResult::Ok;
}

ReadResult readFile(const std::string &path, std::vector<uint8_t> &bytes, FileStamp *stamp) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? ReadResult::NotFound : ReadResult::Error;
  bytes.clear();
  uint8_t buf[16384];
  ReadResult result = ReadResult::Ok;
  if (stamp != nullptr) {
    struct stat st;
    if (::fstat(fd, &st) == 0) {
      stampOf(st, *stamp);
      if (st.st_size > 0) bytes.reserve(static_cast<size_t>(st.st_size));
    } else {
      result = ReadResult::Error;
    }
  }
  while (result == ReadResult::Ok) {
    ssize_t got = ::read(fd, buf, sizeof buf);
    if (got < 0) {
      if (errno == EINTR) continue;
      result = ReadResult::Error;
      break;
    }
    if (got == 0) break;
    bytes.insert(bytes.end(), buf, buf + got);
  }
  ::close(fd);
  return result;
}

bool writeFileAtomic(const std::string &path, const std::vector<uint8_t> &bytes) {
  std::string tmp = temporaryName(path);
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  size_t done = 0;
  bool ok = true;
  while (ok && done < bytes.size()) {
    ssize_t put = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (put < 0 && errno == EINTR) continue;
    ok = put > 0;
    if (ok) done += static_cast<size_t>(put);
  }
  ok = ok && ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  ok = ok && ::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(tmp.c_str());
    return false;
  }
  // The rename itself reaches the disk with the directory.
  size_t cut = path.find_last_of('/');
  std::string dir = cut == std::string::npos ? std::string(".") : path.substr(0, cut);
  int dfd = ::open(dir.empty() ? "/" : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    ::fsync(dfd);
    ::close(dfd);
  }
  return true;
}

bool removeFile(const std::string &path) {
  return ::unlink(path.c_str()) == 0 || errno == ENOENT;
}

bool isDirectory(const std::string &path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string &path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> listDirectory(const std::string &path) {
  std::vector<std::string> names;
  DIR *dir = ::opendir(path.c_str());
  if (dir == nullptr) return names;
  while (struct dirent *entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  return names;
}

bool removeTree(const std::string &path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
  if (!S_ISDIR(st.st_mode)) return removeFile(path);
  for (const std::string &name : listDirectory(path)) {
    if (!removeTree(join(path, name))) return false;
  }
  return ::rmdir(path.c_str()) == 0;
}

bool makeDirs(const std::string &path) {
  if (path.empty()) return false;
  if (isDirectory(path)) return true;
  size_t cut = path.find_last_of('/');
  if (cut != std::string::npos && cut > 0) {
    if (!makeDirs(path.substr(0, cut))) return false;
  }
  return ::mkdir(path.c_str(), 0700) == 0 || isDirectory(path);
}

MakeResult makeDirectory(const std::string &path) {
  if (::mkdir(path.c_str(), 0700) == 0) return MakeResult::Created;
  return errno == EEXIST && isDirectory(path) ? MakeResult::Exists : MakeResult::Error;
}

std::string environment(const char *name) {
  const char *value = ::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

namespace {

// Forks of this process so far, counted in the child: a lock file opened
// before a fork is shared with the parent, lock included.
std::atomic<unsigned> g_forks{0};

void countFork() {
  ++g_forks;
}

}  // namespace

FileLock::~FileLock() {
  close();
}

bool FileLock::open(const std::string &path) {
  static const bool counting = pthread_atfork(nullptr, nullptr, countFork) == 0;
  (void)counting;
  close();
  m_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (m_fd < 0) return false;
  struct stat st;
  if (::fstat(m_fd, &st) != 0) {
    close();
    return false;
  }
  m_device = static_cast<uint64_t>(st.st_dev);
  m_inode = static_cast<uint64_t>(st.st_ino);
  m_forks = g_forks;
  m_path = path;
  size_t cut = path.find_last_of('/');
  std::string dir = cut == std::string::npos ? std::string(".") : path.substr(0, cut);
  m_directory = ::open(dir.empty() ? "/" : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return true;
}

ReadResult FileLock::statBeside(const std::string &name, FileStamp &stamp) const {
  if (m_directory < 0) {
    size_t cut = m_path.find_last_of('/');
    return statFile(cut == std::string::npos ? name : m_path.substr(0, cut + 1) + name, stamp);
  }
  struct stat st;
  if (::fstatat(m_directory, name.c_str(), &st, 0) != 0)
    return errno == ENOENT || errno == ENOTDIR ? ReadResult::NotFound : ReadResult::Error;
  stampOf(st, stamp);
  return ReadResult::Ok;
}

bool FileLock::usable() const {
  return m_fd >= 0 && m_forks == g_forks;
}

bool FileLock::readCounter(uint64_t &value) {
  value = 0;
  if (m_fd < 0 || !m_held) return false;
  uint8_t buf[8] = {};
  ssize_t got;
  do {
    got = ::pread(m_fd, buf, sizeof buf, 0);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return false;
  if (got < static_cast<ssize_t>(sizeof buf)) return true;  // an empty (new) lock file: counter 0
  for (int i = 7; i >= 0; --i) value = value << 8 | buf[i];
  return true;
}

bool FileLock::writeCounter(uint64_t value) {
  if (m_fd < 0 || !m_held) return false;
  uint8_t buf[8];
  for (int i = 0; i < 8; ++i) buf[i] = static_cast<uint8_t>(value >> (8 * i));
  ssize_t put;
  do {
    put = ::pwrite(m_fd, buf, sizeof buf, 0);
  } while (put < 0 && errno == EINTR);
  return put == static_cast<ssize_t>(sizeof buf);
}

bool FileLock::stillInPlace() const {
  struct stat there;
  if (!usable() || ::stat(m_path.c_str(), &there) != 0) return false;
  return static_cast<uint64_t>(there.st_dev) == m_device &&
         static_cast<uint64_t>(there.st_ino) == m_inode;
}

bool FileLock::tryLock() {
  if (m_fd < 0) return false;
  if (!m_held) m_held = ::flock(m_fd, LOCK_EX | LOCK_NB) == 0;
  return m_held;
}

bool FileLock::lock() {
  if (m_fd < 0) return false;
  while (!m_held) {
    if (::flock(m_fd, LOCK_EX) == 0) {
      m_held = true;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

void FileLock::unlock() {
  // A lock inherited from the parent is the parent's to release.
  if (m_held && usable()) ::flock(m_fd, LOCK_UN);
  m_held = false;
}

void FileLock::close() {
  unlock();
  if (m_fd >= 0) ::close(m_fd);
  if (m_directory >= 0) ::close(m_directory);
  m_fd = -1;
  m_directory = -1;
  m_path.clear();
}

#endif

std::string storeDirectory() {
  std::string dir = environment("TEMBRA_SOFTSKF_DIR");
  if (!dir.empty()) return dir;
#ifdef _WIN32
  std::string base = environment("LOCALAPPDATA");
  if (base.empty()) base = environment("APPDATA");
  return join(join(base, "tembra"), "softskf");
#else
  std::string base = environment("XDG_DATA_HOME");
  if (base.empty()) {
    std::string home = environment("HOME");
    if (home.empty()) home = "/tmp";
    base = join(join(home, ".local"), "share");
  }
  return join(join(base, "tembra"), "softskf");
#endif
}

}  // namespace fs
}  // namespace softskf
}  // namespace tembra
