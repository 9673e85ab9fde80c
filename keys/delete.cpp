// Key pair deletion: DeviceDeleteKeypair deletes the whole container of a
// key pair on the token and drops the container and both of its key pairs
// from the device's tables.
//
// The deleted handle's record leaves the table and becomes the handle's
// own (m_device null): DeviceFreeKeypair frees it. The other key pair of the
// container is freed here. The Container record only loses its slot and
// stays in memory, and m_refCount keeps the references of the dropped key
// pairs, so the device is not destroyed after a deletion; both by design.
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "provider/lock.h"
#include "provider/records.h"

#if defined(__SANITIZE_ADDRESS__)
#define TEMBRA_KEEPS_UNRELEASED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TEMBRA_KEEPS_UNRELEASED 1
#endif
#endif
#if defined(TEMBRA_KEEPS_UNRELEASED)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// Records that stay in memory for the life of the process by design (see
// above) are announced to the leak checker of sanitizer builds, which
// otherwise reports them; in other builds this does nothing.
void keepUnreleased(const void *record) {
#if defined(TEMBRA_KEEPS_UNRELEASED)
  if (record != nullptr) __lsan_ignore_object(record);
#else
  (void)record;
#endif
}

// Takes the entry at `at` out of the key pair table, shifting the later
// entries down in their order.
void removeKeypairAt(Device *hDevice, int at) {
  for (int i = at; i + 1 < hDevice->m_keypairCount; i++) {
    hDevice->m_keypairs[i] = hDevice->m_keypairs[i + 1];
  }
  hDevice->m_keypairs[hDevice->m_keypairCount - 1] = nullptr;
  hDevice->m_keypairCount--;
}

int keypairCount(const Device *hDevice) {
  int count = hDevice->m_keypairCount;
  if (count < 0) return 0;
  return count > KEYPAIR_COUNT_MAX ? KEYPAIR_COUNT_MAX : count;
}

}  // namespace

// Removes the key pair pointer from the device's table, keeping the order of
// the others; a pointer not in the table leaves it as it is.
static void removeKeypair(Device *hDevice, const Keypair *hKeypair) {
  int count = keypairCount(hDevice);
  for (int i = 0; i < count; i++) {
    if (hDevice->m_keypairs[i] == hKeypair) {
      removeKeypairAt(hDevice, i);
      return;
    }
  }
}

// Drops the deleted container and both key pairs of it from the tables.
// Runs under g_lock.
static void dropDeletedKeypair(Device *hDevice, Keypair *hKeypair, const Container *container) {
  int containers = hDevice->m_containerCount;
  if (containers > CONTAINER_COUNT_MAX) containers = CONTAINER_COUNT_MAX;
  for (int i = 0; container != nullptr && i < containers; i++) {
    if (hDevice->m_containers[i] == container) {
      hDevice->m_containers[i] = nullptr;
      hDevice->m_containerCount--;
      keepUnreleased(container);
      break;
    }
  }
  removeKeypair(hDevice, hKeypair);

  // The other key pair of the container: the first remaining record of the
  // same label, freed here.
  int count = keypairCount(hDevice);
  for (int i = 0; i < count; i++) {
    Keypair *other = hDevice->m_keypairs[i];
    if (other == nullptr || other->m_label == nullptr || hKeypair->m_label == nullptr) continue;
    if (strcmp(other->m_label, hKeypair->m_label) != 0) continue;
    removeKeypairAt(hDevice, i);
    free(other->m_label);
    free(other);
    break;
  }
  keepUnreleased(hDevice);
  // From here the handle owns its record: DeviceFreeKeypair frees it.
  hKeypair->m_device = nullptr;
}

extern "C" {

TEMBRA_API int DeviceDeleteKeypair(SPI_KEYPAIR_HANDLE hKeypair) {
  call_stack_tracer tracer("DeviceDeleteKeypair");
  LOG_INFO("SPI_KEYPAIR_HANDLE hKeypair = %p", static_cast<void *>(hKeypair));
  if (hKeypair == nullptr) {
    LOG_ERROR("hKeypair == NULL");
    return ORVEL_PKI_NULLHANDLE;
  }
  Device *hDevice = hKeypair->m_device;
  if (hDevice == nullptr) {
    LOG_ERROR("hKeypair->m_device == NULL");
    return ORVEL_PKI_NULLHANDLE;
  }

  ULONG rv;
  const Container *container = nullptr;
  {
    ProviderLock lock;
    if (hKeypair->m_index >= 0 && hKeypair->m_index < CONTAINER_COUNT_MAX) {
      container = hDevice->m_containers[hKeypair->m_index];
    }
    if (container != nullptr) SKF_CloseContainer(container->m_hContainer);
    rv = SKF_DeleteContainer(hDevice->m_hApp, hKeypair->m_label);
    if (rv == SAR_OK) {
      dropDeletedKeypair(hDevice, hKeypair, container);
      return ORVEL_PKI_OK;
    }
  }
  LOG_ERROR("SKF_DeleteContainer fail, error = 0x%08x", static_cast<unsigned>(rv));
  if (rv == SAR_USER_NOT_LOGGED_IN) return ORVEL_PKI_NOTLOGGEDIN;
  // Any other failure still drops the key pair from the tables, under the
  // lock taken again here and left once.
  ProviderLock lock;
  dropDeletedKeypair(hDevice, hKeypair, container);
  return ORVEL_PKI_OK;
}

}  // extern "C"
