// The pseudo device, buffer release and random numbers.
#include <new>

#include "crypto/backend.h"
#include "fault_switch.h"
#include "host_memory.h"
#include "hostcrypto/include/orvel_test.h"
#include "orvel_objects.h"

using tembra::hostcrypto::faultHit;
using tembra::hostcrypto::guarded;
using tembra::hostcrypto::PseudoDevice;

extern "C" {

ORVEL_CRYPTO_API ORVEL_PKI_DEVICE OrvelPKICryptoGetPseudoDevice(void) {
  int ignored = 0;
  if (faultHit("OrvelPKICryptoGetPseudoDevice", ignored)) return nullptr;
  return guarded<ORVEL_PKI_DEVICE>(nullptr, [] { return new (std::nothrow) PseudoDevice; });
}

ORVEL_CRYPTO_API int OrvelPKICryptoFreeDevice(ORVEL_PKI_DEVICE device) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoFreeDevice", fault)) return fault;
  if (device == nullptr) return 1;
  if (!tembra::hostcrypto::validDevice(device)) return 0;
  auto *pseudo = static_cast<PseudoDevice *>(device);
  pseudo->tag = tembra::hostcrypto::kDeadTag;
  delete pseudo;
  return 1;
}

ORVEL_CRYPTO_API int OrvelPKICryptoFreeMemory(void *p) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoFreeMemory", fault)) return fault;
  return tembra::hostcrypto::hostFree(p) ? 1 : 0;
}

ORVEL_CRYPTO_API int OrvelPKICryptoGenerateRandom(ORVEL_PKI_DEVICE device, int len,
                                                  unsigned char *out) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoGenerateRandom", fault)) return fault;
  if (!tembra::hostcrypto::validDevice(device) || out == nullptr || len < 0) return 0;
  return tembra::crypto::randomBytes(out, static_cast<size_t>(len)) ? 1 : 0;
}

}  // extern "C"
