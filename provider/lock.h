// A scoped hold on the provider's one lock, g_lock.
//
// The constructor enters g_lock; the destructor leaves it unless release()
// already did. release() lets a routine drop the lock early (before a slow
// token call or before destroying a record that is no longer shared); a
// second release() does nothing. The lock is recursive.
#ifndef TEMBRA_PROVIDER_LOCK_H
#define TEMBRA_PROVIDER_LOCK_H

#include "provider/records.h"

class ProviderLock {
 public:
  ProviderLock() { EnterCriticalSection(&g_lock); }
  ~ProviderLock() { release(); }
  void release() {
    if (m_held) {
      m_held = false;
      LeaveCriticalSection(&g_lock);
    }
  }
  ProviderLock(const ProviderLock &) = delete;
  ProviderLock &operator=(const ProviderLock &) = delete;

 private:
  bool m_held = true;
};

#endif  // TEMBRA_PROVIDER_LOCK_H
