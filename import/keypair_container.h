// The SKF container behind a key pair handle.
#ifndef TEMBRA_IMPORT_KEYPAIR_CONTAINER_H
#define TEMBRA_IMPORT_KEYPAIR_CONTAINER_H

#include "provider/records.h"

// The container handle of the key pair's container, m_containers[m_index] of
// its device, or null when the key pair has none: a deleted key pair (its
// m_device is null), an index out of range or a freed slot. Callers treat a
// null answer as a token failure, since there is no container to call.
inline HCONTAINER keypairContainerHandle(const struct Keypair *keypair) {
  const struct Device *device = keypair->m_device;
  if (device == nullptr) return nullptr;
  if (keypair->m_index < 0 || keypair->m_index >= CONTAINER_COUNT_MAX) return nullptr;
  const struct Container *container = device->m_containers[keypair->m_index];
  return container != nullptr ? container->m_hContainer : nullptr;
}

#endif  // TEMBRA_IMPORT_KEYPAIR_CONTAINER_H
