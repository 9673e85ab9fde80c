// PINs: log in, change, unblock and the remaining-tries count, on the SKF
// application that discovery opened (m_hApp). Type 3 of DeviceVerifyPwd is
// device authentication (services/device_auth.cpp).
//
// Results: 1 success, 0 token or device-state failure, -1 bad argument,
// -2 null device, -5 wrong PIN, -19 PIN length out of range. The token calls
// run inside g_lock, which is always left before a log line is written. The
// provider copies no PIN; the texts go to the token as the host gave them.
#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "provider/lock.h"
#include "provider/records.h"
#include "services/device_auth.h"

namespace {

constexpr int kTypeUser = 1;
constexpr int kTypeAdmin = 2;
constexpr int kTypeSuperPassword = 3;

// The SKF PIN type of a host PIN type 1 or 2, or false for any other value.
bool skfPinType(int type, ULONG *pinType) {
  if (type == kTypeUser) {
    *pinType = USER_TYPE;
    return true;
  }
  if (type == kTypeAdmin) {
    *pinType = ADMIN_TYPE;
    return true;
  }
  return false;
}

// Stand-in for the host's retry-count pointer: the token writes to a local
// value, copied back to the host only when the host gave a pointer, so a
// null pointer reaches neither the token nor a write.
class RetryCount {
 public:
  explicit RetryCount(int *host) : m_host(host), m_value(host ? static_cast<ULONG>(*host) : 0) {}
  ~RetryCount() {
    if (m_host != nullptr) *m_host = static_cast<int>(m_value);
  }
  RetryCount(const RetryCount &) = delete;
  RetryCount &operator=(const RetryCount &) = delete;
  ULONG *get() { return &m_value; }

 private:
  int *m_host;
  ULONG m_value;
};

const char *logText(const char *s) {
  return s != nullptr ? s : "0";
}

}  // namespace

extern "C" int DeviceVerifyPwd(SPI_DEVICE_HANDLE hDevice, int type, const char *pwd,
                               int *pretrynum) {
  call_stack_tracer tracer("DeviceVerifyPwd");
  LOG_INFO("hDevice = %p, type = %d, pwd = %s, *pretrynum = %d", static_cast<void *>(hDevice), type,
           logText(pwd), logValueAt(pretrynum));

  if (hDevice == nullptr) return -2;
  if (pwd == nullptr) return -1;

  ULONG pinType = 0;
  if (type == kTypeSuperPassword) return VerifySuperPwd(hDevice, pwd, pretrynum);
  if (!skfPinType(type, &pinType)) return -1;

  // Unlike change, unblock and retry count, verify tests the application
  // handle itself, and outside the lock.
  if (hDevice->m_hApp == nullptr) {
    LOG_ERROR("hDevice->m_hApp == 0");
    return 0;
  }

  ULONG rv;
  {
    RetryCount retries(pretrynum);
    ProviderLock lock;
    rv = SKF_VerifyPIN(hDevice->m_hApp, pinType, const_cast<LPSTR>(pwd), retries.get());
  }

  if (rv == SAR_PIN_INCORRECT) return -5;
  if (rv == SAR_PIN_LEN_RANGE) return -19;
  if (rv == SAR_OK) return 1;
  LOG_ERROR("SKF_VerifyPIN fail, error = 0x%08X", static_cast<unsigned>(rv));
  return 0;
}

extern "C" int DeviceChangePwd(SPI_DEVICE_HANDLE hDevice, int type, const char *oldpwd,
                               const char *newpwd, int *pretrynum) {
  call_stack_tracer tracer("DeviceChangePwd");
  LOG_INFO(
      "hDevice = %p, int type = %d, const char *oldpwd = %s, const char *newpwd = %s, "
      "int *pretrynum = %d",
      static_cast<void *>(hDevice), type, logText(oldpwd), logText(newpwd), logValueAt(pretrynum));

  if (hDevice == nullptr) return -2;
  ULONG pinType = 0;
  if (!skfPinType(type, &pinType)) return -1;
  if (oldpwd == nullptr || newpwd == nullptr) return -1;

  ULONG rv;
  {
    RetryCount retries(pretrynum);
    ProviderLock lock;
    if (hDevice->m_isformat == 0) {
      lock.release();
      LOG_ERROR("hDevice->m_isformat == 0");
      return 0;
    }
    rv = SKF_ChangePIN(hDevice->m_hApp, pinType, const_cast<LPSTR>(oldpwd),
                       const_cast<LPSTR>(newpwd), retries.get());
  }

  if (rv == SAR_PIN_INCORRECT) return -5;
  if (rv == SAR_PIN_LEN_RANGE) return -19;
  if (rv == SAR_OK) return 1;
  LOG_ERROR("SKF_ChangePIN fail, error = 0x%08X", static_cast<unsigned>(rv));
  return 0;
}

extern "C" int DeviceUnlockPwd(SPI_DEVICE_HANDLE hDevice, int type, const char *sopwd,
                               const char *newpwd, int *pretrynum) {
  call_stack_tracer tracer("DeviceUnlockPwd");
  LOG_INFO(
      "hDevice = %p, int type = %d, const char *sopwd = %s, const char *newpwd = %s, "
      "int *pretrynum = %p",
      static_cast<void *>(hDevice), type, logText(sopwd), logText(newpwd),
      static_cast<void *>(pretrynum));

  if (hDevice == nullptr) return -2;
  if (type != kTypeUser) return -1;
  if (sopwd == nullptr || newpwd == nullptr) return -1;

  ULONG rv;
  {
    RetryCount retries(pretrynum);
    ProviderLock lock;
    if (hDevice->m_isformat == 0) {
      lock.release();
      LOG_ERROR("hDevice->m_isformat == 0");
      return 0;
    }
    rv = SKF_UnblockPIN(hDevice->m_hApp, const_cast<LPSTR>(sopwd), const_cast<LPSTR>(newpwd),
                        retries.get());
  }

  // Here the locked-PIN code, not the incorrect-PIN code, means a wrong PIN;
  // a wrong administrator PIN is an ordinary failure.
  if (rv == SAR_PIN_LOCKED) return -5;
  if (rv == SAR_PIN_LEN_RANGE) return -19;
  if (rv == SAR_OK) return 1;
  LOG_ERROR("rv != SAR_OK, rv = 0x%08X", static_cast<unsigned>(rv));
  return 0;
}

extern "C" int DeviceGetPwdRetryNum(SPI_DEVICE_HANDLE hDevice, int type, int *pretrynum) {
  call_stack_tracer tracer("DeviceGetPwdRetryNum");
  LOG_INFO("hDevice = %p, int type = %d， int *pretrynum = %d", static_cast<void *>(hDevice), type,
           logValueAt(pretrynum));

  if (hDevice == nullptr) return -2;
  ULONG pinType = 0;
  if (!skfPinType(type, &pinType)) return -1;

  ULONG maxRetries = 0;
  ULONG remainingRetries = 0;
  BOOL defaultPin = FALSE;
  ULONG rv;
  {
    ProviderLock lock;
    if (hDevice->m_isformat == 0) {
      lock.release();
      LOG_ERROR("hDevice->m_isformat == 0");
      return 0;
    }
    rv = SKF_GetPINInfo(hDevice->m_hApp, pinType, &maxRetries, &remainingRetries, &defaultPin);
  }

  if (rv != SAR_OK) {
    LOG_ERROR("SKF_GetPINInfo fail, error : 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }
  // A null pointer takes the same path; only the store is skipped.
  if (pretrynum != nullptr) *pretrynum = static_cast<int>(remainingRetries);
  return 1;
}
