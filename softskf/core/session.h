// The application (and container) one call works on, read from disk under
// the device's store lock, which stays held until the session ends, so a
// read-modify-write of the application is atomic across processes.
#ifndef TEMBRA_SOFTSKF_CORE_SESSION_H
#define TEMBRA_SOFTSKF_CORE_SESSION_H

#include <memory>
#include <string>

#include "softskf/core/token.h"

namespace tembra {
namespace softskf {

class AppSession {
 public:
  explicit AppSession(Call &call) : m_call(call) {}
  // SAR_INVALIDHANDLEERR for a bad handle; SAR_DEVICE_REMOVED for a device
  // gone or absent; SAR_APPLICATION_NOT_EXISTS for a deleted application.
  ULONG openApplication(HANDLE hApplication);
  // As openApplication, and SAR_INVALIDHANDLEERR when the container has been
  // deleted since it was opened.
  ULONG openContainer(HANDLE hContainer);

  ApplicationRecord &app() { return m_app; }
  ContainerRecord &container() { return m_app.containers[m_containerIndex]; }
  DeviceObject &device() { return *m_device; }
  const DeviceLocation &location() const { return m_location; }
  uint32_t applicationId() const { return m_applicationId; }
  SecurityState &security();
  // Writes the application back (atomically).
  ULONG save();

 private:
  ULONG load(uint32_t deviceId, const std::string &appName);
  Call &m_call;
  DeviceObject *m_device = nullptr;
  DeviceLocation m_location;
  std::unique_ptr<StoreLock> m_lock;
  ApplicationRecord m_app;
  uint32_t m_applicationId = 0;
  size_t m_containerIndex = 0;
};

// The rights check of files: ANYONE always, otherwise the USER bit with a
// user login or the ADM bit with an administrator login. SAR_OK, else
// SAR_USER_NOT_LOGGED_IN, or SAR_FAIL for SECURE_NEVER_ACCOUNT.
ULONG checkRights(ULONG rights, const SecurityState &state);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_CORE_SESSION_H
