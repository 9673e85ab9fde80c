// Plug events: SKF_WaitForDevEvent reports a device of the store becoming
// present (event 1) or absent or deleted (event 2), as SKFSoft_SetPresent,
// SKFSoft_CreateDevice and SKFSoft_RemoveDevice make them. The presence
// last reported is kept per process and starts empty, so the first waits
// report the devices already present, one each. The store is read every
// 50 ms with the token mutex held only for the read.
// SKF_CancelWaitForDevEvent ends every wait under way with SAR_NOT_EVENTERR;
// with none under way it ends the next one, so a cancel cannot slip in just
// before a wait begins and leave that wait blocked.
#include <string.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

#include "softskf/core/token.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

const std::chrono::milliseconds kPollInterval(50);

struct Watch {
  std::mutex mutex;  // taken after the token mutex, never before it
  std::condition_variable wake;
  unsigned long cancels = 0;
  unsigned waiting = 0;
  bool cancelNext = false;
  std::string store;
  std::map<std::string, bool> present;  // the presence last reported
};

Watch &watch() {
  static Watch *w = new Watch;  // never destroyed: a waiter may outlive static teardown
  return *w;
}

std::map<std::string, bool> scan(const std::string &store) {
  std::map<std::string, bool> now;
  for (const StoredDevice &device : listDevices(store)) now[device.name] = device.record.present;
  return now;
}

// The first device whose presence differs from the last report.
bool findChange(const std::map<std::string, bool> &now, const std::map<std::string, bool> &known,
                std::string &name, bool &present) {
  for (const auto &entry : now) {
    auto it = known.find(entry.first);
    if ((it == known.end() ? false : it->second) != entry.second) {
      name = entry.first;
      present = entry.second;
      return true;
    }
  }
  for (const auto &entry : known) {
    if (entry.second && now.find(entry.first) == now.end()) {
      name = entry.first;
      present = false;
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_WaitForDevEvent(LPSTR szDevName, ULONG *pulDevNameLen, ULONG *pulEvent) {
  return guarded([&]() -> ULONG {
    Call call("SKF_WaitForDevEvent");
    call.number("ulDevNameLen", pulDevNameLen ? *pulDevNameLen : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    if (szDevName == nullptr || pulDevNameLen == nullptr || pulEvent == nullptr)
      return SAR_INVALIDPARAMERR;
    Watch &w = watch();
    std::unique_lock<std::mutex> lock(w.mutex);
    if (w.cancelNext) {
      w.cancelNext = false;
      return SAR_NOT_EVENTERR;
    }
    const unsigned long cancels = w.cancels;
    ++w.waiting;
    struct Leave {
      unsigned &waiting;
      ~Leave() { --waiting; }
    } leave{w.waiting};
    for (;;) {
      const std::string store = currentStoreDirectory();
      std::map<std::string, bool> now = scan(store);
      if (w.store != store) {  // another store: nothing reported from it yet
        w.store = store;
        w.present.clear();
      }
      std::string name;
      bool present = false;
      if (findChange(now, w.present, name, present)) {
        // A short buffer leaves the event to be fetched again.
        if (*pulDevNameLen < name.size() + 1) {
          *pulDevNameLen = static_cast<ULONG>(name.size() + 1);
          return SAR_BUFFER_TOO_SMALL;
        }
        w.present[name] = present;
        memcpy(szDevName, name.c_str(), name.size() + 1);
        *pulDevNameLen = static_cast<ULONG>(name.size() + 1);
        *pulEvent = present ? DEV_EVENT_INSERTED : DEV_EVENT_REMOVED;
        return SAR_OK;
      }
      call.lock().unlock();
      w.wake.wait_for(lock, kPollInterval, [&] { return w.cancels != cancels; });
      const bool cancelled = w.cancels != cancels;
      lock.unlock();  // the token mutex comes first
      call.lock().lock();
      lock.lock();
      if (cancelled) return SAR_NOT_EVENTERR;
    }
  });
}

ULONG DEVAPI SKF_CancelWaitForDevEvent(void) {
  return guarded([&]() -> ULONG {
    Call call("SKF_CancelWaitForDevEvent");
    ULONG rv;
    if (call.faulted(rv)) return rv;
    Watch &w = watch();
    {
      std::lock_guard<std::mutex> lock(w.mutex);
      ++w.cancels;
      w.cancelNext = w.waiting == 0;
    }
    w.wake.notify_all();
    return SAR_OK;
  });
}

}  // extern "C"
