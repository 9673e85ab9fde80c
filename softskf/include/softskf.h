/* The software token's own calls, beside the SKF interface.
 *
 * Provisioning (documented, for administrators and the `tembra token`
 * commands) and test support (documented as such: never called by the
 * provider). All return SKF result codes (SAR_OK on success).
 *
 * The store is the directory $TEMBRA_SOFTSKF_DIR, else a per-user data
 * directory (XDG_DATA_HOME or ~/.local/share/tembra/softskf on Linux,
 * %LOCALAPPDATA%\tembra\softskf on Windows); it is read anew at every
 * SKF_EnumDev, SKF_ConnectDev and provisioning call. */
#ifndef TEMBRA_SOFTSKF_H
#define TEMBRA_SOFTSKF_H

#include "platform/skf.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Provisioning ---------------------------------------------------- */
/* Creates an empty device (no application) named `name` in the store, with
 * its DEVINFO label and serial number and its 16-byte device-authentication
 * key. SAR_FILE_ALREADY_EXIST if the name is taken. */
SKF_API ULONG DEVAPI SKFSoft_CreateDevice(const char *name, const char *label, const char *serial,
                                          const BYTE authKey[16]);
SKF_API ULONG DEVAPI SKFSoft_RemoveDevice(const char *name);
/* Marks a device present or absent; SKF_EnumDev(TRUE) leaves absent ones out. */
SKF_API ULONG DEVAPI SKFSoft_SetPresent(const char *name, BOOL present);

/* ---- Test support ---------------------------------------------------- */
/* The capability bits (GM/T 0006 identifiers) that SKF_GetDevInfo reports
 * for the device from now on, on every later connection in any process;
 * what the token computes does not change (it still does SMS4 and SM3
 * only). SAR_FILE_NOT_EXIST for an unknown device. */
SKF_API ULONG DEVAPI SKFSoft_SetCapabilities(LPSTR szDevName, ULONG ulAlgSymCap, ULONG ulAlgAsymCap,
                                             ULONG ulAlgHashCap);
/* The next `times` calls of the named SKF function ("SKF_LockDev") return
 * `result` without acting; -1 means always, 0 clears the switch. */
SKF_API ULONG DEVAPI SKFSoft_SetFault(const char *function, ULONG result, int times);
SKF_API ULONG DEVAPI SKFSoft_ClearFaults(void);
/* The call record: one line per SKF call, in order, e.g.
 * "SKF_DigestUpdate hHash=H3 ulDataLen=1024". Lines hold function names,
 * handle kinds, lengths, flags, algorithm ids and the IV of every *Init
 * call; never a PIN, a key or plaintext. GetCallLog follows the usual
 * buffer protocol: a null buf asks for the length (with the NUL). */
SKF_API ULONG DEVAPI SKFSoft_StartCallLog(void);
SKF_API ULONG DEVAPI SKFSoft_GetCallLog(char *buf, ULONG *len);
SKF_API ULONG DEVAPI SKFSoft_StopCallLog(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* TEMBRA_SOFTSKF_H */
