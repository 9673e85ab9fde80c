// The token's process-wide state and the frame of every exported call.
//
// One mutex guards everything: the handle table, the security states, the
// call record and the fault switch. Every entry point builds a Call, which
// holds the mutex for the call's duration, writes the call record line and
// applies the fault switch. SKF_LockDev alone lets go of the mutex while it
// waits for another holder of the device lock.
#ifndef TEMBRA_SOFTSKF_CORE_TOKEN_H
#define TEMBRA_SOFTSKF_CORE_TOKEN_H

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "platform/skf.h"
#include "softskf/core/diagnostics.h"
#include "softskf/core/handles.h"
#include "softskf/keys/key_wrap.h"
#include "softskf/keys/ready_key.h"
#include "softskf/store/store.h"

namespace tembra {
namespace softskf {

// Login state of one application, shared by all its handles in this process.
// It belongs to one instance of the application: a deleted and re-created
// application of the same name starts logged out.
//
// While the user is logged in, the private keys used are kept unsealed and
// ready (keys, by container and key pair). They go with the user login, at a
// change of the user PIN (seen by its salt, whichever process made it) and
// when the stored key is no longer the one they were made from.
struct SecurityState {
  std::vector<uint8_t> instanceId;
  bool user = false;
  bool admin = false;
  bool hasTokenKey = false;
  TokenKey tokenKey;
  std::vector<uint8_t> keysPinSalt;  // the user PIN's salt when the keys were made
  std::map<std::string, std::unique_ptr<ReadyKey>> keys;
  void clear();
  void dropKeys();
};

class Token {
 public:
  std::mutex mutex;
  HandleTable handles;
  CallRecord calls;
  FaultSwitch faults;

  // The state of the application instance (created logged out).
  SecurityState &security(const DeviceLocation &device, const std::string &app,
                          const std::vector<uint8_t> &instanceId);
  void forgetSecurity(const DeviceLocation &device, const std::string &app);
  // Wipes every ready key of the process (at exit).
  void dropAllKeys();

 private:
  std::map<std::string, SecurityState> m_security;
};

Token &token();

// The frame of one SKF call (see the file comment). The line is built only
// while the call record is on, and the fault switch is consulted only when
// some fault is set: the digest and cipher calls run thousands of times per
// megabyte and pay for neither otherwise.
class Call {
 public:
  explicit Call(const char *function);
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;

  Call &handle(const char *name, HANDLE h);
  Call &number(const char *name, ULONG value);
  Call &hex(const char *name, ULONG value);
  Call &text(const char *name, const char *value);  // percent-encoded; "0" for null
  Call &bytes(const char *name, const uint8_t *p, size_t n);
  // Writes the record line, then true (with the result) if the fault switch
  // says this call fails now.
  bool faulted(ULONG &result);
  // Appends " -> name=<handle>" to the recorded line.
  void output(const char *name, HANDLE h);

  Token &token() { return m_token; }
  std::unique_lock<std::mutex> &lock() { return m_lock; }

 private:
  Token &m_token;
  std::unique_lock<std::mutex> m_lock;
  const char *m_function;
  bool m_recording;
  std::string m_line;
  long m_index = -1;
  bool m_hasOutput = false;
};

// Runs the body of an entry point; no exception leaves it.
template <typename Body>
ULONG guarded(Body &&body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return SAR_MEMORYERR;
  } catch (...) {
    return SAR_UNKNOWNERR;
  }
}

// Output buffer protocol of the library: null buffer -> needed length and
// SAR_OK; short buffer -> SAR_BUFFER_TOO_SMALL with the needed length;
// otherwise copy. Null length pointer -> SAR_INVALIDPARAMERR.
ULONG answerBytes(const uint8_t *data, size_t len, BYTE *out, ULONG *outLen);

// A multi-string: names each NUL-terminated, then one more NUL.
std::string multiString(const std::vector<std::string> &names);

// A C string argument of 1..maxLen bytes; SAR_INVALIDPARAMERR for null,
// SAR_NAMELENERR for an empty or too long one.
ULONG takeName(const char *value, size_t maxLen, std::string &name);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_CORE_TOKEN_H
