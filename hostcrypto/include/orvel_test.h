/* Test support of the host crypto stand-in; never called by the provider.
 *
 * OrvelTestSetFault makes the next `times` calls of the named function
 * ("OrvelPKICryptoEncodeECCPubKey") return `result` without acting (a
 * handle-returning function returns null); times -1 means always, 0 clears. */
#ifndef TEMBRA_HOSTCRYPTO_ORVEL_TEST_H
#define TEMBRA_HOSTCRYPTO_ORVEL_TEST_H

#include "platform/orvel_crypto.h"

#ifdef __cplusplus
extern "C" {
#endif

ORVEL_CRYPTO_API int OrvelTestSetFault(const char *function, int result, int times);
ORVEL_CRYPTO_API int OrvelTestClearFaults(void);

#ifdef __cplusplus
}
#endif

#endif /* TEMBRA_HOSTCRYPTO_ORVEL_TEST_H */
