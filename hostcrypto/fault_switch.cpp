#include "fault_switch.h"

#include <string.h>

#include <map>
#include <mutex>
#include <string>

#include "hostcrypto/include/orvel_test.h"

namespace tembra {
namespace hostcrypto {

namespace {

const char *const kFunctions[] = {
    "OrvelPKICryptoGetPseudoDevice",  "OrvelPKICryptoFreeDevice",
    "OrvelPKICryptoFreeMemory",       "OrvelPKICryptoEncodeRSAPubKey",
    "OrvelPKICryptoEncodeECCPubKey",  "OrvelPKICryptoDecodeRSAPubKey",
    "OrvelPKICryptoDecodeECCPubKey",  "OrvelPKICryptoEncodeECCSignature",
    "OrvelPKICryptoDecodeECCKeyPair", "OrvelPKICryptoRSAPrivKeyToDER",
    "OrvelPKICryptoImportPublicKey",  "OrvelPKICryptoFreePublicKey",
    "OrvelPKICryptoPublicKeyEncrypt", "OrvelPKICryptoGenerateRandom",
};

struct Fault {
  int result;
  int remaining;  // -1: always
};

// Function-local statics: the library may be called while other statics of
// the process are still being constructed.
std::mutex &faultLock() {
  static std::mutex lock;
  return lock;
}

std::map<std::string, Fault> &faults() {
  static std::map<std::string, Fault> table;
  return table;
}

bool knownFunction(const char *name) {
  for (const char *known : kFunctions) {
    if (strcmp(known, name) == 0) return true;
  }
  return false;
}

}  // namespace

bool setFault(const char *function, int result, int times) {
  if (function == nullptr || !knownFunction(function) || times < -1) return false;
  std::lock_guard<std::mutex> guard(faultLock());
  if (times == 0) {
    faults().erase(function);
  } else {
    faults()[function] = Fault{result, times};
  }
  return true;
}

void clearFaults() {
  std::lock_guard<std::mutex> guard(faultLock());
  faults().clear();
}

bool faultHit(const char *function, int &result) {
  std::lock_guard<std::mutex> guard(faultLock());
  auto found = faults().find(function);
  if (found == faults().end()) return false;
  result = found->second.result;
  if (found->second.remaining > 0 && --found->second.remaining == 0) faults().erase(found);
  return true;
}

}  // namespace hostcrypto
}  // namespace tembra

extern "C" {

ORVEL_CRYPTO_API int OrvelTestSetFault(const char *function, int result, int times) {
  try {
    return tembra::hostcrypto::setFault(function, result, times) ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

ORVEL_CRYPTO_API int OrvelTestClearFaults(void) {
  tembra::hostcrypto::clearFaults();
  return 1;
}

}  // extern "C"
