// Scoped SKF handles for provisioning: each closes its handle with the
// matching SKF call when it goes out of scope, so every failure path of a
// provisioning step leaves nothing open on the token.
#ifndef TEMBRA_SOFTSKF_PROVISION_SKF_HANDLES_H
#define TEMBRA_SOFTSKF_PROVISION_SKF_HANDLES_H

#include <string>

#include "platform/skf.h"

namespace tembra {
namespace provision {

template <ULONG(DEVAPI *Close)(HANDLE)>
class ScopedSkfHandle {
 public:
  ScopedSkfHandle() = default;
  ~ScopedSkfHandle() { reset(); }
  ScopedSkfHandle(const ScopedSkfHandle &) = delete;
  ScopedSkfHandle &operator=(const ScopedSkfHandle &) = delete;

  HANDLE get() const { return m_handle; }
  HANDLE *out() {
    reset();
    return &m_handle;
  }
  void reset() {
    if (m_handle != nullptr) Close(m_handle);
    m_handle = nullptr;
  }

 private:
  HANDLE m_handle = nullptr;
};

using ScopedDevice = ScopedSkfHandle<SKF_DisConnectDev>;
using ScopedContainer = ScopedSkfHandle<SKF_CloseContainer>;

// An open application: its security state is cleared before it is closed,
// so a login made while provisioning does not outlive it.
class ScopedApplication {
 public:
  ScopedApplication() = default;
  ~ScopedApplication() { reset(); }
  ScopedApplication(const ScopedApplication &) = delete;
  ScopedApplication &operator=(const ScopedApplication &) = delete;

  HAPPLICATION get() const { return m_handle; }
  HAPPLICATION *out() {
    reset();
    return &m_handle;
  }
  void reset() {
    if (m_handle != nullptr) {
      SKF_ClearSecureState(m_handle);
      SKF_CloseApplication(m_handle);
    }
    m_handle = nullptr;
  }

 private:
  HAPPLICATION m_handle = nullptr;
};

// The SKF interface takes names and PINs as LPSTR but only reads them.
inline LPSTR skfText(const std::string &text) {
  return const_cast<LPSTR>(text.c_str());
}

}  // namespace provision
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_PROVISION_SKF_HANDLES_H
