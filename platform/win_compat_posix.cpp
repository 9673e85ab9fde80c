// POSIX versions of the Windows thread, lock and temporary-directory calls
// declared in platform/win_compat.h. The registry lives in registry_file.cpp.
#ifndef _WIN32

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/win_compat.h"

// A critical section may be entered again by its owner, as on Windows.
void InitializeCriticalSection(LPCRITICAL_SECTION section) {
  if (section == nullptr) return;
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&section->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

void EnterCriticalSection(LPCRITICAL_SECTION section) {
  if (section != nullptr) pthread_mutex_lock(&section->mutex);
}

void LeaveCriticalSection(LPCRITICAL_SECTION section) {
  if (section != nullptr) pthread_mutex_unlock(&section->mutex);
}

void DeleteCriticalSection(LPCRITICAL_SECTION section) {
  if (section != nullptr) pthread_mutex_destroy(&section->mutex);
}

namespace {

const char *nonEmptyEnvironment(const char *name) {
  const char *value = getenv(name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

}  // namespace

// $TMPDIR, else $XDG_RUNTIME_DIR (the user's own 0700 directory), else /tmp;
// always with one trailing '/'. Windows conventions: the length without the
// NUL when the path fits, else the size needed including the NUL, with the
// buffer left untouched.
DWORD GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer) {
  const char *directory = nonEmptyEnvironment("TMPDIR");
  if (directory == nullptr) directory = nonEmptyEnvironment("XDG_RUNTIME_DIR");
  if (directory == nullptr) directory = "/tmp";
  size_t length = strlen(directory);
  bool addSeparator = directory[length - 1] != '/';
  size_t total = length + (addSeparator ? 1 : 0);
  if (total >= 0xFFFFFFFFu) return 0;
  if (lpBuffer == nullptr || nBufferLength <= total) return static_cast<DWORD>(total + 1);
  memcpy(lpBuffer, directory, length);
  if (addSeparator) lpBuffer[length] = '/';
  lpBuffer[total] = '\0';
  return static_cast<DWORD>(total);
}

FILE *openLogFile(const char *path) {
  if (path == nullptr) return nullptr;
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    close(fd);
    return nullptr;
  }
  // A log left readable by others (an older release made it 0644) is
  // narrowed when it is ours; someone else's file is not written to.
  if (status.st_uid != geteuid()) {
    close(fd);
    return nullptr;
  }
  if ((status.st_mode & 077) != 0) fchmod(fd, status.st_mode & 0700);
  FILE *stream = fdopen(fd, "a");
  if (stream == nullptr) close(fd);
  return stream;
}

DWORD GetCurrentThreadId(void) {
  return static_cast<DWORD>(syscall(SYS_gettid));
}

#endif  // !_WIN32
