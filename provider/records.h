// The provider's handle records and process-wide state.
//
// Every handle the host holds is a pointer to one of these plain structures,
// allocated with malloc and released with free. Handles are checked for null
// only. A Device is reference counted; DeviceFreeDevice is the one release
// operation and destroys the record once m_refCount equals
// m_keypairCount + m_hashCount + m_cipherCount (see provider/records.cpp).
#ifndef TEMBRA_PROVIDER_RECORDS_H
#define TEMBRA_PROVIDER_RECORDS_H

#include <stdint.h>

#include "include/tembra_key_prov.h"
#include "platform/orvel_crypto.h"
#include "platform/skf.h"
#include "platform/win_compat.h"

#define DEVICE_SET_CAPACITY 16
#define CONTAINER_COUNT_MAX 32
#define KEYPAIR_COUNT_MAX (2 * CONTAINER_COUNT_MAX)
#define HANDLE_ARRAY_GROWTH 64
#define SERIAL_NUMBER_BUFFER 64
#define PUBLIC_KEY_CAPACITY 1024

struct Keypair;
struct Container;
struct HashContext;
struct CipherContext;

struct DeviceSet {
  int32_t m_allocCount;  // always DEVICE_SET_CAPACITY
  int32_t m_count;
  struct Device **m_handles;  // DEVICE_SET_CAPACITY slots, zero-filled
};

struct Device {
  DEVHANDLE m_hDev;
  int32_t m_isformat;  // 0: a token without application
  HAPPLICATION m_hApp;
  char m_appName[64];
  char *m_serialNumber;  // zeroed SERIAL_NUMBER_BUFFER-byte heap buffer
  DEVINFO m_info;
  int32_t m_refCount;
  int32_t m_keypairCount;
  struct Keypair *m_keypairs[KEYPAIR_COUNT_MAX];
  int32_t m_containerCount;
  struct Container *m_containers[CONTAINER_COUNT_MAX];
  int32_t m_hashAllocCount;
  int32_t m_hashCount;
  struct HashContext **m_hashes;
  int32_t m_cipherAllocCount;
  int32_t m_cipherCount;
  struct CipherContext **m_ciphers;
};

struct Container {
  char *m_label;
  HCONTAINER m_hContainer;
  uint32_t m_type;  // 0 empty, 1 RSA, 2 ECC
  int32_t m_keybits;
  int32_t m_encPubKeyLen;
  unsigned char *m_encPubKey;  // host library allocation
  int32_t m_encCertLen;
  unsigned char *m_encCert;  // malloc
  int32_t m_signPubKeyLen;
  unsigned char *m_signPubKey;  // host library allocation
  int32_t m_signCertLen;
  unsigned char *m_signCert;  // malloc
};

struct Keypair {
  int32_t m_index;          // slot of its container in m_device->m_containers
  struct Device *m_device;  // null once deleted: the handle owns the record
  char *m_label;
  int32_t m_keytype;  // ORVEL_PKI_KEYPAIRTYPE_SIGNATURE or _ENCRYPT
  int32_t m_algo;     // ORVEL_PKI_ALGORITHM_RSA or _ECC
  int32_t m_keybits;
};

struct PublicKey {
  int32_t m_algo;
  int32_t m_keybits;
  unsigned char m_pubKey[PUBLIC_KEY_CAPACITY];
  int32_t m_pubKeyLen;
};

struct HashContext {
  struct Device *m_device;  // holds one reference
  HANDLE m_hHash;           // 0 once closed
  int32_t m_algo;           // ORVEL_PKI_ALGORITHM_SM3
};

struct CipherContext {
  struct Device *m_device;  // holds one reference
  HANDLE m_hKey;            // 0 once closed
  int32_t m_enc;
  int32_t m_chained;  // 1 for the CBC algorithms
  unsigned char m_iv[16];
};

// ---- Process-wide state, set by DeviceInit ------------------------------
extern uint32_t g_hasSM3;
extern uint32_t g_hasSM4;
extern int32_t g_maxOperationLen;
extern uint32_t g_supportGDKMSM2Import;
extern ORVEL_PKI_DEVICE g_pseudoDevice;
extern CRITICAL_SECTION g_lock;

// ---- Record operations ---------------------------------------------------

// Destroys a device record and everything it owns: key pairs, containers,
// hash and cipher records (closing their SKF handles), then closes the
// application and disconnects the token. A null device does nothing.
void freeDevice(struct Device *device);

// Closes the container's SKF handle, releases its keys and certificates and
// the record itself. A null container does nothing.
void freeContainer(struct Container *container);

// Closes the SKF handle of a hash or cipher record if it is still open and
// frees the record.
void freeHashContext(struct HashContext *hash);
void freeCipherContext(struct CipherContext *cipher);

// Appends a record to a growable handle array (the hash and cipher lists):
// the first append allocates HANDLE_ARRAY_GROWTH zeroed slots, a full array
// grows by HANDLE_ARRAY_GROWTH. Returns 1, or 0 when memory runs out (the
// array is then unchanged).
int appendHandle(void ***array, int32_t *allocCount, int32_t count, void *record);

// Removes the first occurrence of `record` from the array, shifting later
// entries down. Returns 1 when found (and decrements *count), else 0.
int removeHandle(void **array, int32_t *count, void *record);

// What one release saw under g_lock: the counts after the decrement, for the
// caller's log line, and whether the device must now be destroyed.
struct DeviceRelease {
  int32_t m_refCount;
  int32_t m_keypairCount;
  int32_t m_hashCount;
  int32_t m_cipherCount;
  int m_destroy;
};

// The release rule of DeviceFreeDevice: under g_lock subtract one reference;
// the device is to be destroyed once the references left are only those of
// its own key pairs, hashes and ciphers. The caller destroys it, and writes
// its log line, after the lock is left. A null device releases nothing.
struct DeviceRelease releaseDeviceReference(struct Device *device);

#endif  // TEMBRA_PROVIDER_RECORDS_H
