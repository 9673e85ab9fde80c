#include "softskf/core/session.h"

namespace tembra {
namespace softskf {

ULONG AppSession::load(uint32_t deviceId, const std::string &appName) {
  m_device = m_call.token().handles.deviceById(deviceId);
  if (m_device == nullptr) return SAR_INVALIDHANDLEERR;
  m_location = m_device->location;
  m_lock.reset(new StoreLock(m_location));
  DeviceRecord device;
  ULONG rv = loadPresentDevice(m_location, device);
  if (rv != SAR_OK) return rv;
  return loadApplication(m_location, appName, m_app);
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
  for (size_t i = 0; i < m_app.containers.size(); ++i) {
    if (m_app.containers[i].name == name) {
      m_containerIndex = i;
      return SAR_OK;
    }
  }
  return SAR_INVALIDHANDLEERR;
}

SecurityState &AppSession::security() {
  return m_call.token().security(m_location, m_app.name, m_app.instanceId);
}

ULONG AppSession::save() {
  return saveApplication(m_location, m_app);
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
