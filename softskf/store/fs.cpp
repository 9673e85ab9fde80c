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

// A name for the temporary file of one write, unique within the machine.
std::string temporaryName(const std::string &path) {
  static std::atomic<unsigned long> counter{0};
#ifdef _WIN32
  unsigned long pid = GetCurrentProcessId();
#else
  unsigned long pid = static_cast<unsigned long>(getpid());
#endif
  return path + ".tmp." + std::to_string(pid) + "." + std::to_string(++counter);
}

}  // namespace

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

}  // namespace

ReadResult readFile(const std::string &path, std::vector<uint8_t> &bytes) {
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
  for (;;) {
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
  return true;
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
}

#else  // POSIX

ReadResult readFile(const std::string &path, std::vector<uint8_t> &bytes) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? ReadResult::NotFound : ReadResult::Error;
  bytes.clear();
  uint8_t buf[16384];
  ReadResult result = ReadResult::Ok;
  for (;;) {
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

std::string environment(const char *name) {
  const char *value = ::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

FileLock::~FileLock() {
  close();
}

bool FileLock::open(const std::string &path) {
  close();
  m_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  return m_fd >= 0;
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
  if (m_fd >= 0 && m_held) ::flock(m_fd, LOCK_UN);
  m_held = false;
}

void FileLock::close() {
  unlock();
  if (m_fd >= 0) ::close(m_fd);
  m_fd = -1;
}

#endif

}  // namespace fs
}  // namespace softskf
}  // namespace tembra
