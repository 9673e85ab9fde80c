// POSIX versions of the Windows thread, lock and temporary-directory calls
// declared in platform/win_compat.h. The registry lives in registry_file.cpp.
#ifndef _WIN32

#include <stdlib.h>
#include <string.h>
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

// $TMPDIR (when set and not empty) or /tmp, always with one trailing '/'.
// Windows conventions: the length without the NUL when the path fits, else
// the size needed including the NUL, with the buffer left untouched.
DWORD GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer) {
  const char *directory = getenv("TMPDIR");
  if (directory == nullptr || directory[0] == '\0') directory = "/tmp";
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

DWORD GetCurrentThreadId(void) {
  return static_cast<DWORD>(syscall(SYS_gettid));
}

#endif  // !_WIN32
