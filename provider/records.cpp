// Destruction of the handle records, the growable hash and cipher arrays,
// and the device release rule.
#include "provider/records.h"

#include <stdlib.h>
#include <string.h>

#include "platform/secure_zero.h"
#include "provider/lock.h"

namespace {

int32_t clampCount(int32_t count, int32_t capacity) {
  if (count < 0) return 0;
  return count > capacity ? capacity : count;
}

}  // namespace

void freeContainer(struct Container *container) {
  if (container == nullptr) return;
  if (container->m_hContainer != nullptr) {
    SKF_CloseContainer(container->m_hContainer);
    container->m_hContainer = nullptr;
  }
  free(container->m_label);
  if (container->m_encPubKey != nullptr) OrvelPKICryptoFreeMemory(container->m_encPubKey);
  if (container->m_encCert != nullptr) free(container->m_encCert);
  if (container->m_signPubKey != nullptr) OrvelPKICryptoFreeMemory(container->m_signPubKey);
  if (container->m_signCert != nullptr) free(container->m_signCert);
  free(container);
}

void freeHashContext(struct HashContext *hash) {
  if (hash == nullptr) return;
  if (hash->m_hHash != nullptr) SKF_CloseHandle(hash->m_hHash);
  free(hash);
}

// The record carries the chaining state of a cipher, wiped before release.
void freeCipherContext(struct CipherContext *cipher) {
  if (cipher == nullptr) return;
  if (cipher->m_hKey != nullptr) SKF_CloseHandle(cipher->m_hKey);
  tembra::secureZero(cipher, sizeof *cipher);
  free(cipher);
}

void freeDevice(struct Device *device) {
  if (device == nullptr) return;
  free(device->m_serialNumber);
  device->m_serialNumber = nullptr;

  int32_t keypairs = clampCount(device->m_keypairCount, KEYPAIR_COUNT_MAX);
  for (int32_t i = 0; i < keypairs; ++i) {
    struct Keypair *keypair = device->m_keypairs[i];
    if (keypair == nullptr) continue;
    free(keypair->m_label);
    free(keypair);
  }

  int32_t containers = clampCount(device->m_containerCount, CONTAINER_COUNT_MAX);
  for (int32_t i = 0; i < containers; ++i) freeContainer(device->m_containers[i]);

  if (device->m_hashes != nullptr) {
    int32_t hashes = clampCount(device->m_hashCount, device->m_hashAllocCount);
    for (int32_t i = 0; i < hashes; ++i) freeHashContext(device->m_hashes[i]);
    free(device->m_hashes);
  }
  if (device->m_ciphers != nullptr) {
    int32_t ciphers = clampCount(device->m_cipherCount, device->m_cipherAllocCount);
    for (int32_t i = 0; i < ciphers; ++i) freeCipherContext(device->m_ciphers[i]);
    free(device->m_ciphers);
  }

  // Also for a token without application (null m_hApp); results ignored.
  SKF_CloseApplication(device->m_hApp);
  SKF_DisConnectDev(device->m_hDev);
  free(device);
}

int appendHandle(void ***array, int32_t *allocCount, int32_t count, void *record) {
  if (array == nullptr || allocCount == nullptr || count < 0) return 0;
  if (*array == nullptr) {
    if (count >= HANDLE_ARRAY_GROWTH) return 0;
    void **slots = static_cast<void **>(calloc(HANDLE_ARRAY_GROWTH, sizeof(void *)));
    if (slots == nullptr) return 0;
    *array = slots;
    *allocCount = HANDLE_ARRAY_GROWTH;
  } else if (count >= *allocCount) {
    if (count != *allocCount || *allocCount > INT32_MAX - HANDLE_ARRAY_GROWTH) return 0;
    int32_t grown = *allocCount + HANDLE_ARRAY_GROWTH;
    void **slots = static_cast<void **>(calloc(static_cast<size_t>(grown), sizeof(void *)));
    if (slots == nullptr) return 0;
    memcpy(slots, *array, static_cast<size_t>(count) * sizeof(void *));
    free(*array);
    *array = slots;
    *allocCount = grown;
  }
  (*array)[count] = record;
  return 1;
}

int removeHandle(void **array, int32_t *count, void *record) {
  if (array == nullptr || count == nullptr) return 0;
  for (int32_t i = 0; i < *count; ++i) {
    if (array[i] != record) continue;
    for (int32_t j = i; j + 1 < *count; ++j) array[j] = array[j + 1];
    array[*count - 1] = nullptr;
    --*count;
    return 1;
  }
  return 0;
}

DeviceRelease releaseDeviceReference(struct Device *device) {
  DeviceRelease seen = {0, 0, 0, 0, 0};
  if (device == nullptr) return seen;
  ProviderLock lock;
  seen.m_refCount = --device->m_refCount;
  seen.m_keypairCount = device->m_keypairCount;
  seen.m_hashCount = device->m_hashCount;
  seen.m_cipherCount = device->m_cipherCount;
  seen.m_destroy =
      seen.m_refCount == seen.m_cipherCount + seen.m_hashCount + seen.m_keypairCount ? 1 : 0;
  return seen;
}
