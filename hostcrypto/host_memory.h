// Buffers handed to callers of the host crypto stand-in. Each carries a
// hidden header (a tag and the size) just before the returned pointer, so
// that OrvelPKICryptoFreeMemory can wipe the whole buffer before freeing it
// and can refuse pointers this library did not hand out.
#ifndef TEMBRA_HOSTCRYPTO_HOST_MEMORY_H
#define TEMBRA_HOSTCRYPTO_HOST_MEMORY_H

#include <stddef.h>
#include <stdint.h>

namespace tembra {
namespace hostcrypto {

// A copy of data[0..len) in a new host buffer (len 0 gives a valid, empty
// buffer); null when memory runs out or len exceeds INT32_MAX.
unsigned char *hostCopy(const uint8_t *data, size_t len);

// Wipes and frees a buffer from hostCopy. Null is accepted; false for a
// pointer whose header is not ours.
bool hostFree(void *p);

// Hands a copy of data to a caller's (out, outLen) pair: both are written, or
// neither is. False when the copy cannot be made.
bool handOut(const uint8_t *data, size_t len, unsigned char **out, int *outLen);

}  // namespace hostcrypto
}  // namespace tembra

#endif  // TEMBRA_HOSTCRYPTO_HOST_MEMORY_H
