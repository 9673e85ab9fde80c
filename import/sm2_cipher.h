// SM2 ciphertext from the host's flat form to the token's ECCCIPHERBLOB.
#ifndef TEMBRA_IMPORT_SM2_CIPHER_H
#define TEMBRA_IMPORT_SM2_CIPHER_H

#include "platform/skf.h"

// Bytes of the flat form beside the message: 0x04, x, y (32 each), C3 (32).
#define SM2_CIPHER_OVERHEAD 97

// The longest C2 the decoder takes. A token receives the message in one
// command, whose extended data field carries at most 64 KiB, so no token can
// decrypt more; refusing longer input before the copy keeps a host's huge
// buffer from costing a block of its size.
#define SM2_CIPHER_MAX_MESSAGE 65536

// Decodes 0x04 || x || y || C2 || C3 (cipherLen = L + 97, L may be 0) into
// one zeroed malloc block of cipherLen + 68 bytes: x and y right-aligned in
// the 64-byte coordinate fields, C3 in HASH, CipherLen = L, C2 in Cipher.
// Returns the block (the caller frees it with free) or null: cipherLen below
// 97 (logged as "cipherLen < 97"), a first byte other than 0x04, a null
// cipher, L above SM2_CIPHER_MAX_MESSAGE or no memory (not logged).
ECCCIPHERBLOB *decodeSm2CipherText(const unsigned char *cipher, int cipherLen);

#endif  // TEMBRA_IMPORT_SM2_CIPHER_H
