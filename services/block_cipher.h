// The one mapping from the host's block-cipher identifiers to the token's
// (GM/T 0006) ones. The cipher entry points and key pair enveloping both use
// it; it is held here only.
#ifndef TEMBRA_SERVICES_BLOCK_CIPHER_H
#define TEMBRA_SERVICES_BLOCK_CIPHER_H

#include <stdint.h>

// The SKF algorithm identifier (SGD_SM1_ECB ... SGD_SMS4_CBC) for a host
// identifier (ORVEL_PKI_ALGORITHM_SSF33_ECB ... _SMS4_CBC), or -1 for any
// other value.
int64_t skfBlockCipherAlgorithm(int hostAlgorithm);

// 1 for the three CBC identifiers of the host, 0 for everything else.
int isChainedBlockCipher(int hostAlgorithm);

#endif  // TEMBRA_SERVICES_BLOCK_CIPHER_H
