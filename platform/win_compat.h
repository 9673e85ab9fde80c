// The few Windows calls the provider makes, under their Windows names.
//
// On Windows these are the system's own. On POSIX this header supplies them,
// so the provider's code is one and the same on both platforms:
// - the registry key HKEY_LOCAL_MACHINE\Software\ORVEL\PKI\Devices\TembraKey
//   is read from a text file in the format `reg export` writes, at
//   /etc/orvel/pki/TembraKey.reg or at $ORVEL_PKI_REGISTRY_FILE;
// - a critical section is a recursive mutex;
// - GetTempPathA answers a directory of the user's own: $TMPDIR, else
//   $XDG_RUNTIME_DIR, else /tmp, with a trailing separator;
// - openLogFile appends to a file created readable by its owner only (0600),
//   refusing a symbolic link, as Windows keeps %TEMP% per user;
// - GetCurrentThreadId answers the kernel thread id.
#ifndef TEMBRA_PLATFORM_WIN_COMPAT_H
#define TEMBRA_PLATFORM_WIN_COMPAT_H

#include "win_types.h"

#ifndef _WIN32
#include <pthread.h>

typedef struct RegistryKey *HKEY;
typedef HKEY *PHKEY;
typedef DWORD REGSAM;

#define HKEY_LOCAL_MACHINE ((HKEY)(uintptr_t)0x80000002u)

#define ERROR_SUCCESS 0L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_MORE_DATA 234L

#define KEY_READ 0x20019

#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_MULTI_SZ 7
#define REG_QWORD 11

// Opens a subkey of HKEY_LOCAL_MACHINE (the only root served). A missing
// file, or a file without the key's section, answers ERROR_FILE_NOT_FOUND.
LONG RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD ulOptions, REGSAM samDesired,
                   PHKEY phkResult);
// Windows semantics: ERROR_FILE_NOT_FOUND for a missing value; with a data
// buffer smaller than the value, ERROR_MORE_DATA and the needed size; REG_SZ
// data is UTF-16LE with its terminator, as on Windows.
LONG RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType,
                      LPBYTE lpData, LPDWORD lpcbData);
LONG RegCloseKey(HKEY hKey);

typedef struct CriticalSection {
  pthread_mutex_t mutex;
} CRITICAL_SECTION, *LPCRITICAL_SECTION;

void InitializeCriticalSection(LPCRITICAL_SECTION section);
void EnterCriticalSection(LPCRITICAL_SECTION section);
void LeaveCriticalSection(LPCRITICAL_SECTION section);
void DeleteCriticalSection(LPCRITICAL_SECTION section);

DWORD GetTempPathA(DWORD nBufferLength, LPSTR lpBuffer);
DWORD GetCurrentThreadId(void);
#endif  // !_WIN32

#include <stdio.h>

// Opens the trace log file for appending (text mode "a"), or null. On POSIX
// the file is created with mode 0600, a symbolic link is refused, and a file
// of ours that others can read is narrowed to 0600: the log may hold PINs.
#ifdef _WIN32
inline FILE *openLogFile(const char *path) {
  return path != nullptr ? fopen(path, "a") : nullptr;
}
#else
FILE *openLogFile(const char *path);
#endif

// The file name the log appends to the temporary directory: on Windows the
// text "\tembra_key_prov.log" (GetTempPathA's trailing backslash makes the
// separator double, kept so); on POSIX "/tembra_key_prov.log".
#ifdef _WIN32
#define TEMBRA_LOG_FILE_SUFFIX "\\tembra_key_prov.log"
#else
#define TEMBRA_LOG_FILE_SUFFIX "/tembra_key_prov.log"
#endif

#endif  // TEMBRA_PLATFORM_WIN_COMPAT_H
