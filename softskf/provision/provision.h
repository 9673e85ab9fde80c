// Provisioning of software tokens through the SKF interface itself: a
// device, its applications and PINs, containers with fresh SM2 or RSA key
// pairs (signature key generated on the token, encryption key pair imported
// in a GM/T 0016 envelope) and self-signed certificates. Used by the
// `tembra token` commands, the demo and the tests.
#ifndef TEMBRA_SOFTSKF_PROVISION_H
#define TEMBRA_SOFTSKF_PROVISION_H

#include <stdint.h>

#include <string>
#include <vector>

#include "platform/skf.h"

namespace tembra {
namespace provision {

enum class KeyKind { Empty, Sm2, Rsa1024, Rsa2048 };

struct ContainerSpec {
  std::string name;
  KeyKind kind = KeyKind::Sm2;
  bool signatureKey = true;     // generate a signature key pair on the token
  bool encryptionKey = true;    // import an encryption key pair (needs signatureKey)
  bool certificates = true;     // self-signed certificates for the key pairs made
};

struct ApplicationSpec {
  std::string name;
  std::string adminPin = "12345678";
  std::string userPin = "12345678";
  uint32_t adminRetries = 10;
  uint32_t userRetries = 10;
  std::vector<ContainerSpec> containers;
};

struct DeviceSpec {
  std::string name;    // store name, also the SKF device name
  std::string label;   // DEVINFO.Label
  std::string serial;  // DEVINFO.SerialNumber
  uint8_t authKey[16] = {};
  std::vector<ApplicationSpec> applications;  // none: an unformatted token
};

// The device-authentication key of tokens made without an explicit key:
// the bytes 0x01..0x10.
extern const uint8_t kDefaultAuthKey[16];

// Creates the device in the current store and everything the layout names.
// Returns SAR_OK or the first failing SKF result; *error (if given) then
// names the failing step in one line.
ULONG provisionDevice(const DeviceSpec &layout, std::string *error = nullptr);

// A DeviceSpec with one application "TembraApp" (PINs "12345678"), holding
// containers "SM2Container" (SM2) and "RSAContainer" (RSA-2048), each with
// signature and encryption key pairs and certificates.
DeviceSpec demoDeviceSpec(const std::string &name = "TembraSoftToken");

// Imports a fresh encryption key pair of the container's own algorithm,
// enveloped under its signature public key (which must exist). The
// application must be logged in as user.
ULONG importEncryptionKeyPair(DEVHANDLE device, HCONTAINER container, KeyKind kind);

// An X.509 certificate (DER) for the container's signature or encryption
// public key, signed on the token with the container's signature key: self-
// signed for the signature key, issued by it for the encryption key. The
// application must be logged in as user. Empty on failure.
std::vector<uint8_t> makeCertificate(HCONTAINER container, bool signatureKey,
                                     const std::string &commonName);

}  // namespace provision
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_PROVISION_H
