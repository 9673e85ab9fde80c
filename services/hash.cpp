// SM3 digests computed on the token through a hash handle: DeviceNewHash,
// DeviceHashUpdate, DeviceHashFinal, DeviceFreeHash.
//
// A hash record counts in its device's m_refCount and m_hashCount alike, so
// it never keeps the device alive: a device destroyed first destroys its hash
// records with it. Updates and finals take no lock (a hash handle belongs to
// one caller at a time); the data of an update is passed to the token in
// place, in pieces of at most g_maxOperationLen bytes.
#include <stdlib.h>

#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "platform/skf.h"
#include "provider/lock.h"
#include "provider/records.h"

namespace {

constexpr int kSm3DigestLength = 32;
constexpr int32_t kDefaultPieceLength = 1024;

// The largest piece one token call takes. DeviceInit leaves a positive
// multiple of 16 here; should it ever hold 0 or less, the default piece
// length is used instead, so a feeding loop always makes progress.
int32_t pieceLength() {
  const int32_t configured = g_maxOperationLen;
  return configured > 0 ? configured : kDefaultPieceLength;
}

}  // namespace

extern "C" {

TEMBRA_API SPI_HASH_HANDLE DeviceNewHash(SPI_DEVICE_HANDLE hDevice, int algo) {
  call_stack_tracer tracer("DeviceNewHash");
  LOG_INFO("hDevice = %p, int algo = %d", static_cast<void *>(hDevice), algo);
  if (hDevice == nullptr) return nullptr;
  if (algo != ORVEL_PKI_ALGORITHM_SM3) {
    LOG_ERROR("only support sm3");
    return nullptr;
  }

  ProviderLock lock;
  HashContext *hash = static_cast<HashContext *>(calloc(1, sizeof(HashContext)));
  if (hash == nullptr) return nullptr;
  hash->m_device = hDevice;
  hash->m_algo = ORVEL_PKI_ALGORITHM_SM3;

  // A plain digest: no signer public key, no identifier, so no Z value.
  if (SKF_DigestInit(hDevice->m_hDev, SGD_SM3, nullptr, nullptr, 0, &hash->m_hHash) != SAR_OK) {
    free(hash);
    return nullptr;
  }
  void **slots = reinterpret_cast<void **>(hDevice->m_hashes);
  if (!appendHandle(&slots, &hDevice->m_hashAllocCount, hDevice->m_hashCount, hash)) {
    freeHashContext(hash);  // closes the token's hash handle
    return nullptr;
  }
  hDevice->m_hashes = reinterpret_cast<HashContext **>(slots);
  hDevice->m_hashCount += 1;
  hDevice->m_refCount += 1;
  return hash;
}

TEMBRA_API int DeviceHashUpdate(SPI_HASH_HANDLE hHash, const unsigned char *data, int datalen) {
  call_stack_tracer tracer("DeviceHashUpdate");
  LOG_INFO("SPI_HASH_HANDLE hHash = %p, const unsigned char *data = %p, int datalen = %d",
           static_cast<void *>(hHash), static_cast<const void *>(data), datalen);
  if (hHash == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (datalen < 0) return ORVEL_PKI_BADARGUMENT;
  if (datalen == 0) return ORVEL_PKI_OK;
  if (data == nullptr) return ORVEL_PKI_BADARGUMENT;

  const int32_t piece = pieceLength();
  int done = 0;
  while (done < datalen) {
    const int remaining = datalen - done;
    const int length = remaining < piece ? remaining : piece;
    const ULONG rv = SKF_DigestUpdate(hHash->m_hHash, const_cast<BYTE *>(data + done),
                                      static_cast<ULONG>(length));
    if (rv != SAR_OK) {
      // The pieces before stay fed and the handle stays open.
      LOG_ERROR("SKF_DigestUpdate fail, error = 0x%08X", static_cast<unsigned>(rv));
      return ORVEL_PKI_FAIL;
    }
    done += length;
  }
  return ORVEL_PKI_OK;
}

TEMBRA_API int DeviceHashFinal(SPI_HASH_HANDLE hHash, unsigned char *hashvalue, int hashvaluelen,
                               int *prethashvaluelen) {
  call_stack_tracer tracer("DeviceHashFinal");
  LOG_INFO(
      "SPI_HASH_HANDLE hHash = %p, unsigned char *hashvalue = %p, int hashvaluelen = %d, "
      "int *prethashvaluelen = %d",
      static_cast<void *>(hHash), static_cast<void *>(hashvalue), hashvaluelen,
      logValueAt(prethashvaluelen));
  if (hHash == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (prethashvaluelen == nullptr) return ORVEL_PKI_BADARGUMENT;
  *prethashvaluelen = kSm3DigestLength;
  // A length query leaves the digest unfinished and the handle usable.
  if (hashvalue == nullptr) return ORVEL_PKI_OK;
  if (hashvaluelen < kSm3DigestLength) return ORVEL_PKI_MOREDATA;

  ULONG length = static_cast<ULONG>(hashvaluelen);
  const ULONG rv = SKF_DigestFinal(hHash->m_hHash, hashvalue, &length);
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_DigestFinal fail, error = 0x%08X", static_cast<unsigned>(rv));
    return ORVEL_PKI_FAIL;
  }
  return ORVEL_PKI_OK;
}

TEMBRA_API int DeviceFreeHash(SPI_HASH_HANDLE hHash) {
  call_stack_tracer tracer("DeviceFreeHash");
  LOG_INFO("SPI_HASH_HANDLE hHash = %p", static_cast<void *>(hHash));
  if (hHash == nullptr) return ORVEL_PKI_OK;
  Device *device = hHash->m_device;
  if (device != nullptr) {
    // The list is changed under g_lock: a DeviceNewHash on another thread may
    // be growing (and freeing) the same array at this moment.
    ProviderLock lock;
    removeHandle(reinterpret_cast<void **>(device->m_hashes), &device->m_hashCount, hHash);
  }
  // A record missing from the list is still freed.
  freeHashContext(hHash);
  if (device != nullptr) DeviceFreeDevice(device);
  return ORVEL_PKI_OK;
}

}  // extern "C"
