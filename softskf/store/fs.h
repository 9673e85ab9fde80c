// File-system primitives of the token store, one implementation for POSIX and
// one for Windows behind the same calls. Paths are UTF-8 everywhere.
#ifndef TEMBRA_SOFTSKF_STORE_FS_H
#define TEMBRA_SOFTSKF_STORE_FS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tembra {
namespace softskf {
namespace fs {

enum class ReadResult { Ok, NotFound, Error };

// Reads the whole file.
ReadResult readFile(const std::string &path, std::vector<uint8_t> &bytes);

// Replaces the file atomically: the bytes go to a temporary file in the same
// directory, which is flushed to disk and renamed over the target. A process
// killed at any moment leaves either the old or the new content.
bool writeFileAtomic(const std::string &path, const std::vector<uint8_t> &bytes);

bool removeFile(const std::string &path);  // true also when it did not exist
bool removeTree(const std::string &path);  // a directory and everything below it
bool makeDirs(const std::string &path);    // with missing parents; true if it exists
bool isDirectory(const std::string &path);
bool exists(const std::string &path);
// Names in the directory (no "." or ".."); empty if it cannot be read.
std::vector<std::string> listDirectory(const std::string &path);
std::string join(const std::string &dir, const std::string &name);

// An environment variable as UTF-8; empty when unset.
std::string environment(const char *name);
void sleepMilliseconds(unsigned ms);

// An exclusive lock on a lock file that other processes respect (flock /
// LockFileEx). Two FileLock objects of one process on the same file also
// exclude each other. The lock goes with the object, and with the process.
class FileLock {
 public:
  FileLock() = default;
  ~FileLock();
  FileLock(const FileLock &) = delete;
  FileLock &operator=(const FileLock &) = delete;
  // Opens (creating) the lock file; false if it cannot.
  bool open(const std::string &path);
  // One attempt without waiting; true if the lock is now held.
  bool tryLock();
  // Waits as long as it takes; true if the lock is now held.
  bool lock();
  void unlock();
  // Unlocks and closes the lock file.
  void close();
  bool held() const { return m_held; }

 private:
#ifdef _WIN32
  void *m_handle = nullptr;
#else
  int m_fd = -1;
#endif
  bool m_held = false;
};

}  // namespace fs
}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_STORE_FS_H
