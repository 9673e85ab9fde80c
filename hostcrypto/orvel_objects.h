// The objects behind the host library's opaque handles, and the call guard
// every exported function runs its body in.
#ifndef TEMBRA_HOSTCRYPTO_ORVEL_OBJECTS_H
#define TEMBRA_HOSTCRYPTO_ORVEL_OBJECTS_H

#include <stdint.h>

#include "crypto/backend.h"
#include "crypto/key_formats.h"

namespace tembra {
namespace hostcrypto {

constexpr uint32_t kDeviceTag = 0x50534456;     // "PSDV"
constexpr uint32_t kPublicKeyTag = 0x50554B59;  // "PUKY"
constexpr uint32_t kDeadTag = 0xDEADDEAD;

// ORVEL_PKI_DEVICE: a software pseudo device. It holds no state beyond its
// tag; the tag lets the library refuse handles it did not make.
struct PseudoDevice {
  uint32_t tag = kDeviceTag;
};

// ORVEL_PKI_PUBLICKEY: one imported public key, RSA or SM2.
struct PublicKeyObject {
  uint32_t tag = kPublicKeyTag;
  crypto::KeyAlgorithm algorithm = crypto::KeyAlgorithm::kUnknown;
  crypto::RsaPublicKey rsa;
  crypto::Sm2PublicKey sm2{};
};

inline bool validDevice(const void *device) {
  return device != nullptr && static_cast<const PseudoDevice *>(device)->tag == kDeviceTag;
}

// Runs body() and turns any exception into `onException`: no exception may
// leave the C interface.
template <typename Result, typename Body>
Result guarded(Result onException, Body body) {
  try {
    return body();
  } catch (...) {
    return onException;
  }
}

}  // namespace hostcrypto
}  // namespace tembra

#endif  // TEMBRA_HOSTCRYPTO_ORVEL_OBJECTS_H
