// The handle table: every handle the library gives out is an opaque number
// naming an entry here, never a pointer. A closed, unknown or wrong-kind
// handle finds nothing. Not locked itself: the token mutex guards it.
#ifndef TEMBRA_SOFTSKF_CORE_HANDLES_H
#define TEMBRA_SOFTSKF_CORE_HANDLES_H

#include <stdint.h>

#include <map>
#include <memory>
#include <string>

#include "crypto/backend.h"
#include "crypto/secure_bytes.h"
#include "platform/skf.h"
#include "softskf/store/fs.h"
#include "softskf/store/store.h"

namespace tembra {
namespace softskf {

enum class HandleKind : uint32_t { Device = 1, Application = 2, Container = 3, Key = 4, Hash = 5 };

struct DeviceObject {
  DeviceLocation location;  // the store path and name it was connected with
  bool authenticated = false;
  bool hasChallenge = false;
  SecureArray<16> challenge;
  fs::FileLock deviceLock;  // SKF_LockDev
};

struct ApplicationObject {
  uint32_t device = 0;
  std::string name;
};

struct ContainerObject {
  uint32_t device = 0;
  uint32_t application = 0;
  std::string name;
};

// Mac: a MAC handle taking data; Agreement: a key agreement under way.
enum class CipherState { Idle, Encrypt, Decrypt, Mac, Agreement };

struct KeyObject {
  uint32_t device = 0;
  ULONG algorithm = 0;
  SecureArray<16> key;
  CipherState state = CipherState::Idle;
  uint8_t iv[16] = {};
  bool padding = false;
  // Input held back between *Update calls (streaming ciphers, MAC); for a
  // key agreement the temporary private key, then the sponsor's ID.
  SecureBytes pending;
  HANDLE container = nullptr;  // key agreement: the container taking part
};

struct HashObject {
  uint32_t device = 0;
  std::unique_ptr<crypto::Sm3> sm3;
};

class HandleTable {
 public:
  // A new handle of the kind, owning the object.
  HANDLE add(std::unique_ptr<DeviceObject> object);
  HANDLE add(std::unique_ptr<ApplicationObject> object);
  HANDLE add(std::unique_ptr<ContainerObject> object);
  HANDLE add(std::unique_ptr<KeyObject> object);
  HANDLE add(std::unique_ptr<HashObject> object);

  DeviceObject *device(HANDLE h);
  ApplicationObject *application(HANDLE h);
  ContainerObject *container(HANDLE h);
  KeyObject *key(HANDLE h);
  HashObject *hash(HANDLE h);
  DeviceObject *deviceById(uint32_t id);
  ApplicationObject *applicationById(uint32_t id);

  // Removes the handle; false if it is not of the kind.
  bool remove(HANDLE h, HandleKind kind);
  // Removes every handle opened through the device or the application.
  void removeChildrenOfDevice(uint32_t device);
  void removeChildrenOfApplication(uint32_t application);

  // The id of a handle: its number within its kind.
  static uint32_t idOf(HANDLE h);
  // "D3", "A1", ...; "0" for null; the raw value in hex for an unknown one.
  std::string describe(HANDLE h) const;

 private:
  struct Entry {
    HandleKind kind;
    std::unique_ptr<DeviceObject> device;
    std::unique_ptr<ApplicationObject> application;
    std::unique_ptr<ContainerObject> container;
    std::unique_ptr<KeyObject> key;
    std::unique_ptr<HashObject> hash;
  };
  HANDLE insert(HandleKind kind, Entry entry);
  Entry *find(HANDLE h, HandleKind kind);
  std::map<uintptr_t, Entry> m_entries;
  uint32_t m_next[6] = {};
};

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_CORE_HANDLES_H
