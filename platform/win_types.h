/* Windows base types, one definition for both platforms.
 *
 * On Windows this is <windows.h>. Elsewhere it declares the few types the
 * provider and its companions share with Windows, sized as on Win64 where it
 * matters for binary layouts: DWORD, ULONG, LONG and BOOL are 32 bits. */
#ifndef TEMBRA_PLATFORM_WIN_TYPES_H
#define TEMBRA_PLATFORM_WIN_TYPES_H

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <stdint.h>
#include <wchar.h>

typedef uint8_t BYTE;
typedef char CHAR;
typedef int16_t SHORT;
typedef uint16_t USHORT;
typedef int32_t INT;
typedef uint32_t UINT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef int32_t BOOL;
typedef uint16_t WORD;
typedef void *HANDLE;
typedef void *LPVOID;
typedef char *LPSTR;
typedef const char *LPCSTR;
typedef wchar_t WCHAR;
typedef const wchar_t *LPCWSTR;
typedef BYTE *LPBYTE;
typedef DWORD *LPDWORD;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#endif /* _WIN32 */

#endif /* TEMBRA_PLATFORM_WIN_TYPES_H */
