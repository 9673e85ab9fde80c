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

// What tells one version of a file from another without reading it: its
// identity (volume and file number), size, and modification and change
// times to the nanosecond (100 ns on Windows). Every write replaces the file
// by a new one, so a changed file shows a different identity at least.
struct FileStamp {
  uint64_t volume = 0;
  uint64_t file = 0;
  uint64_t size = 0;
  int64_t modified = 0;
  int64_t changed = 0;
  bool operator==(const FileStamp &o) const {
    return volume == o.volume && file == o.file && size == o.size && modified == o.modified &&
           changed == o.changed;
  }
  bool operator!=(const FileStamp &o) const { return !(*this == o); }
};

// Reads the whole file, and (if asked) the stamp of the version read.
ReadResult readFile(const std::string &path, std::vector<uint8_t> &bytes,
                    FileStamp *stamp = nullptr);
// The stamp of the file as it is now.
ReadResult statFile(const std::string &path, FileStamp &stamp);

// Replaces the file atomically: the bytes go to a temporary file in the same
// directory, which is flushed to disk and renamed over the target. A process
// killed at any moment leaves either the old or the new content.
bool writeFileAtomic(const std::string &path, const std::vector<uint8_t> &bytes);

// Token and application names as file names: bytes outside [A-Za-z0-9._-]
// (and a leading '.') become %XX. Decoding fails on a malformed escape.
std::string encodeName(const std::string &name);
bool decodeName(const std::string &encoded, std::string &name);

// The name the temporary file of one write gets, and its parts read back:
// the writing process and the target's name. False for any other name.
bool parseTemporaryName(const std::string &name, std::string &target, unsigned long &pid);
// Whether the process still runs (a process we may not signal counts as
// running).
bool processAlive(unsigned long pid);
unsigned long currentProcessId();

bool removeFile(const std::string &path);  // true also when it did not exist
bool removeTree(const std::string &path);  // a directory and everything below it
bool makeDirs(const std::string &path);    // with missing parents; true if it exists
// One directory, its parent existing: Created, Exists, or Error.
enum class MakeResult { Created, Exists, Error };
MakeResult makeDirectory(const std::string &path);
bool isDirectory(const std::string &path);
bool exists(const std::string &path);
// Names in the directory (no "." or ".."); empty if it cannot be read.
std::vector<std::string> listDirectory(const std::string &path);
std::string join(const std::string &dir, const std::string &name);

// The store directory: $TEMBRA_SOFTSKF_DIR, else the per-user data
// directory.
std::string storeDirectory();

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
  // The 8-byte counter kept at the start of the lock file (0 for an empty
  // file). Only while the lock is held.
  bool readCounter(uint64_t &value);
  bool writeCounter(uint64_t value);
  // False when the lock file has been removed or replaced since it was
  // opened (another process removed the device), or was opened before this
  // process was forked (the child would share the parent's lock): the lock
  // then guards nothing, and the file is to be opened anew. Always true on
  // Windows, where an open file cannot go away.
  bool stillInPlace() const;
  // Open, and this process's own (not inherited over a fork).
  bool usable() const;
  // The stamp of a file in the lock file's directory: on POSIX looked up
  // from the directory opened with the lock file, a short lookup that finds
  // nothing once that directory has been removed.
  ReadResult statBeside(const std::string &name, FileStamp &stamp) const;
  // Unlocks and closes the lock file.
  void close();
  bool held() const { return m_held; }

 private:
#ifdef _WIN32
  void *m_handle = nullptr;
#else
  int m_fd = -1;
  int m_directory = -1;
  uint64_t m_device = 0, m_inode = 0;
  unsigned m_forks = 0;  // the process's fork count when it was opened
#endif
  std::string m_path;
  bool m_held = false;
};

}  // namespace fs
}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_STORE_FS_H
