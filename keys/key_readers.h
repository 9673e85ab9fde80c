// Readers of a container's public keys and certificates, shared by discovery
// and the key import routines.
//
// Each reads one key or certificate of an open SKF container; bSignFlag is
// handed to the token unchanged (non-zero: the signature key pair, 0: the
// encryption key pair). All return 1 on success and 0 on failure, with the
// failure logged; they own nothing on failure.
#ifndef TEMBRA_KEYS_KEY_READERS_H
#define TEMBRA_KEYS_KEY_READERS_H

#include "platform/skf.h"

// The RSA public key in the host's encoding. On success *keyblob (released
// with OrvelPKICryptoFreeMemory by the caller) and *keybloblen are set and,
// when pbits is not null, *pbits receives the key's BitLen.
int GetRSAPublicKey(HCONTAINER hCon, int bSignFlag, unsigned char **keyblob, int *keybloblen,
                    int *pbits);

// The SM2 public key in the host's encoding, built from the last 32 bytes of
// each coordinate whatever BitLen the token reports. Ownership as above.
int GetECCPublicKey(HCONTAINER hCon, int bSignFlag, unsigned char **keyblob, int *keybloblen);

// The certificate of the key pair: on success *cert is a malloc'ed buffer
// (released with free by the caller) and *certlen its length. On failure
// neither is written.
int GetCertificate(HCONTAINER hCon, int bSignFlag, unsigned char **cert, int *certlen);

// The encoding step of the two readers, for a public key blob the token
// handed over otherwise (key generation): RSA from the last BitLen/8 modulus
// bytes and the 4 exponent bytes, SM2 from the last 32 bytes of each
// coordinate with curve ORVEL_PKI_ECC_CURVE_SM2. They return the host
// library's result (1 on success) and log nothing; an RSA BitLen beyond the
// modulus field gives 0 without calling the library.
int EncodeRSAPublicKeyBlob(const RSAPUBLICKEYBLOB *blob, unsigned char **keyblob, int *keybloblen);
int EncodeECCPublicKeyBlob(const ECCPUBLICKEYBLOB *blob, unsigned char **keyblob, int *keybloblen);

#endif  // TEMBRA_KEYS_KEY_READERS_H
