// The application (and container) one call works on, read under the device's
// store lock, which stays held until the session ends, so a read-modify-write
// of the application is atomic across processes. The record is the store's
// cached one, shared while the call only reads it; app() and container()
// give a copy of the call's own to change and save.
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

  const ApplicationRecord &view() const { return m_own ? *m_own : *m_shared; }
  // (A call's own copy, once made, stays the one it reads and saves.)
  const ContainerRecord &containerView() const { return view().containers[m_containerIndex]; }
  ApplicationRecord &app();
  ContainerRecord &container() { return app().containers[m_containerIndex]; }
  DeviceObject &device() { return *m_device; }
  const DeviceLocation &location() const { return m_location; }
  uint32_t applicationId() const { return m_applicationId; }
  SecurityState &security();
  // The private key of the container's signature (bSignFlag non-zero) or
  // encryption key pair, ready for use: SAR_USER_NOT_LOGGED_IN without a
  // user login, SAR_KEYNOTFOUNTERR without such a key pair, SAR_FAIL when
  // it does not unseal. Valid until the session ends.
  ULONG readyKey(BOOL bSignFlag, const ReadyKey *&key);
  // Writes the application back (atomically).
  ULONG save();

 private:
  ULONG load(uint32_t deviceId, const std::string &appName);
  Call &m_call;
  DeviceObject *m_device = nullptr;
  DeviceLocation m_location;
  std::unique_ptr<StoreLock> m_lock;
  std::shared_ptr<const ApplicationRecord> m_shared;
  std::unique_ptr<ApplicationRecord> m_own;
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
