// The internal routines behind DeviceImportKeypair: the two payload
// importers and the enveloping of a plain "_KEYPAIR" blob.
//
// The payload routines run with g_lock held by their caller and take no lock
// themselves.
#ifndef TEMBRA_IMPORT_KEYPAIR_IMPORT_H
#define TEMBRA_IMPORT_KEYPAIR_IMPORT_H

#include "provider/records.h"

// Length of the "SCAENCKP" header before the payload.
#define ENVELOPED_HEADER_LEN 20

// The index in m_containers of the first container whose label equals
// `label` (exact bytes), or -1. Runs before g_lock is taken.
int GetContainerIndex(SPI_DEVICE_HANDLE hDevice, const char *label);

// Import the encryption key pair carried by an "SCAENCKP" payload (the bytes
// after the 20-byte header) into the container, after checking that the
// envelope was made for the container's signature public key. On success the
// container's cached encryption public key is replaced. Returns 1, -8 when
// the token refuses for lack of login, 0 on any other failure (logged).
int importSM2KeyPair(struct Container *container, const unsigned char *keyblob, int keyblobLen);
int importRSAKeyPair(struct Container *container, const unsigned char *keyblob, int keyblobLen);

// Envelopes a "_KEYPAIR" blob for the container of the signature key pair:
// a fresh symmetric key, the private key encrypted with it on the token, the
// key wrapped under the signature public key by the host library. On success
// *outBlob is a malloc'ed "SCAENCKP" blob (released with free) of *outLen
// bytes and 1 is returned; on any failure 0, without a log line.
int EncKeyPairBlob(const struct Keypair *hSignKeypair, const unsigned char *keyblob, int keybloblen,
                   unsigned char **outBlob, int *outLen);

// The symmetric algorithms a payload may name: the host's ECB identifiers
// of SM1, SSF33 and SMS4. The SKF identifier for one of them, or 0 for any
// other value (the CBC identifiers included).
ULONG envelopeSymmetricAlgorithm(uint32_t hostAlgorithm);

#endif  // TEMBRA_IMPORT_KEYPAIR_IMPORT_H
