// The symmetric algorithm of an envelope, chosen from a token's capabilities.
#ifndef TEMBRA_IMPORT_ENVELOPE_ALGORITHM_H
#define TEMBRA_IMPORT_ENVELOPE_ALGORITHM_H

#include <stdint.h>

// The host identifier (ECB mode) of the first of SM1, SSF33 and SMS4 that
// AlgSymCap claims, or 0 when it claims none of them or lacks bit 0x1.
int chooseEnvelopeAlgorithm(uint32_t algSymCap);

#endif  // TEMBRA_IMPORT_ENVELOPE_ALGORITHM_H
