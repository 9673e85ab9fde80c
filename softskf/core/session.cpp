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
  const KeyPairRecord &record =
      bSignFlag ? containerView().signature : containerView().encryption;
  if (!record.present()) return SAR_KEYNOTFOUNTERR;
  // The user PIN changed (here or in another process) since the keys were
  // made: they go, as at a logout.
  if (state.keysPinSalt != view().userPin.salt) {
    state.dropKeys();
    state.keysPinSalt = view().userPin.salt;
  }
  std::string slot = containerView().name;
  slot += bSignFlag ? "\1" : "\2";
  std::unique_ptr<ReadyKey> &ready = state.keys[slot];
  if (!ready || !ready->madeFrom(record)) {
    wipeKeysAtExit();
    ready = ReadyKey::unseal(state.tokenKey, record);
    if (!ready) {
      state.keys.erase(slot);
      return SAR_FAIL;
    }
  }
  key = ready.get();
  return SAR_OK;
}

ULONG AppSession::save() {
  if (!m_own) return saveApplication(m_location, *m_shared);
  // A new user PIN (changed or unblocked) takes the ready keys with it.
  if (m_own->userPin.salt != m_shared->userPin.salt) security().dropKeys();
  ULONG rv = saveApplication(m_location, *m_own);
  if (rv == SAR_OK) {
    m_shared.reset(m_own.release());
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
