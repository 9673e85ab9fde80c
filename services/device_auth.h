// Device authentication with the token's device-authentication key (the
// "super password", type 3 of DeviceVerifyPwd).
#ifndef TEMBRA_SERVICES_DEVICE_AUTH_H
#define TEMBRA_SERVICES_DEVICE_AUTH_H

#include "provider/records.h"

// Turns 32 characters of text into the 16-byte device-authentication key and
// authenticates the device with it. Sets *pretrynum to -1 first when
// pretrynum is not null. Returns 1, 0 (text of the wrong length or with a
// character outside 0-9, A-Z, a-z; any token failure before the last step)
// or -5 (the token refused the authentication). `device` and `pwd` are not
// null. The conversion is deliberately irregular: a letter counts as its
// distance from 'A' or 'a' ('A'-'F' give 0-5, letters up to 'Z' pass), and
// the low character's value is ORed in whole, unmasked.
int VerifySuperPwd(struct Device *device, const char *pwd, int *pretrynum);

// The challenge-response of device authentication: 8 random bytes from the
// token followed by 8 zero bytes are enciphered with `key` under the token's
// own algorithm (m_info.DevAuthAlgId) and handed to SKF_DevAuth. Returns 1,
// 0 for a failure before SKF_DevAuth, -5 when SKF_DevAuth refuses. Takes no
// lock; its challenge and cipher buffers are wiped before return (the key
// belongs to the caller).
int ExternalAuth(struct Device *device, const unsigned char key[16]);

#endif  // TEMBRA_SERVICES_DEVICE_AUTH_H
