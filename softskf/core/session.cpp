#include "softskf/core/session.h"

#include <stdlib.h>

namespace tembra {
namespace softskf {

namespace {

void dropKeysAtExit() {
  // A call still running on another thread keeps its keys; it is no time to
  // wait for it.
  std::unique_lock<std::mutex> lock(token().mutex, std::try_to_lock);
  if (lock.owns_lock()) token().dropAllKeys();
}

// Registered once the crypto library is set up (it is, by the time a key is
// unsealed), so the keys go before the library's own clean-up at exit.
void wipeKeysAtExit() {
  static const bool registered = atexit(dropKeysAtExit) == 0;
  (void)registered;
}

// Drops the ready keys of containers gone or holding another key now.
void dropStaleKeys(SecurityState &state, const ApplicationRecord &app) {
  for (auto it = state.keys.begin(); it != state.keys.end();) {
    const std::string &slot = it->first;
    const ContainerRecord *container =
        slot.empty() ? nullptr : app.findContainer(slot.substr(0, slot.size() - 1));
    const KeyPairRecord *record = container == nullptr  ? nullptr
                                  : slot.back() == '\1' ? &container->signature
                                                        : &container->encryption;
    bool current = record != nullptr && it->second && it->second->madeFrom(*record);
    it = current ? std::next(it) : state.keys.erase(it);
  }
}

}  // namespace

ULONG AppSession::load(uint32_t deviceId, const std::string &appName) {
  m_device = m_call.token().handles.deviceById(deviceId);
  if (m_device == nullptr) return SAR_INVALIDHANDLEERR;
  m_location = m_device->location;
  m_lock.reset(new StoreLock(m_location));
  ULONG rv = checkPresentDevice(m_location);
  if (rv != SAR_OK) return rv;
  return loadApplication(m_location, appName, m_shared);
}

ApplicationRecord &AppSession::app() {
  if (!m_own) m_own.reset(new ApplicationRecord(*m_shared));
  return *m_own;
}

ULONG AppSession::openApplication(HANDLE hApplication) {
  ApplicationObject *app = m_call.token().handles.application(hApplication);
  if (app == nullptr) return SAR_INVALIDHANDLEERR;
  m_applicationId = HandleTable::idOf(hApplication);
  return load(app->device, app->name);
}

ULONG AppSession::openContainer(HANDLE hContainer) {
  ContainerObject *container = m_call.token().handles.container(hContainer);
  if (container == nullptr) return SAR_INVALIDHANDLEERR;
  ApplicationObject *app = m_call.token().handles.applicationById(container->application);
  if (app == nullptr) return SAR_INVALIDHANDLEERR;
  m_applicationId = container->application;
  std::string name = container->name;
  ULONG rv = load(app->device, app->name);
  if (rv != SAR_OK) return rv;
  const ApplicationRecord &record = view();
  for (size_t i = 0; i < record.containers.size(); ++i) {
    if (record.containers[i].name == name) {
      m_containerIndex = i;
      return SAR_OK;
    }
  }
  return SAR_INVALIDHANDLEERR;
}

SecurityState &AppSession::security() {
  return m_call.token().security(m_location, view().name, view().instanceId);
}

ULONG AppSession::readyKey(BOOL bSignFlag, const ReadyKey *&key) {
  SecurityState &state = security();
  if (!state.user || !state.hasTokenKey) return SAR_USER_NOT_LOGGED_IN;
  const KeyPairRecord &record = bSignFlag ? containerView().signature : containerView().encryption;
  if (!record.present()) return SAR_KEYNOTFOUNTERR;
  // The user PIN changed (here or in another process) since the keys were
  // made: they go, as at a logout.
  if (state.keysPinSalt != view().userPin.salt) {
    state.dropKeys();
    state.keysPinSalt = view().userPin.salt;
  }
  std::string slot = containerView().name;
  slot += bSignFlag ? "\1" : "\2";
  auto found = state.keys.find(slot);
  if (found == state.keys.end() || !found->second->madeFrom(record)) {
    dropStaleKeys(state, view());  // this slot's old key among them
    wipeKeysAtExit();
    std::unique_ptr<ReadyKey> fresh = ReadyKey::unseal(state.tokenKey, record);
    if (!fresh) return SAR_FAIL;
    found = state.keys.emplace(slot, std::move(fresh)).first;
  }
  key = found->second.get();
  return SAR_OK;
}

ULONG AppSession::save() {
  const ApplicationRecord &record = view();
  ULONG rv = saveApplication(m_location, record);
  // Keys made from what is no longer stored go now; a new user PIN (changed
  // or unblocked) takes them all.
  SecurityState &state = security();
  if (record.userPin.salt != state.keysPinSalt) {
    state.dropKeys();
  } else {
    dropStaleKeys(state, record);
  }
  return rv;
}

ULONG checkRights(ULONG rights, const SecurityState &state) {
  if (rights == SECURE_ANYONE_ACCOUNT) return SAR_OK;
  if (rights == SECURE_NEVER_ACCOUNT) return SAR_FAIL;
  if ((rights & SECURE_USER_ACCOUNT) != 0 && state.user) return SAR_OK;
  if ((rights & SECURE_ADM_ACCOUNT) != 0 && state.admin) return SAR_OK;
  return SAR_USER_NOT_LOGGED_IN;
}

}  // namespace softskf
}  // namespace tembra
