#include "softskf/provision/provision.h"

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "crypto/secure_bytes.h"
#include "softskf/include/softskf.h"
#include "softskf/provision/skf_handles.h"

namespace tembra {
namespace provision {

const uint8_t kDefaultAuthKey[16] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                                     0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10};

namespace {

// Records the failing step, "<step> failed: 0x0A00000D", and hands the result on.
ULONG failed(std::string *error, const std::string &step, ULONG rv) {
  if (error != nullptr) {
    char code[16];
    snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(rv));
    *error = step + " failed: " + code;
  }
  return rv;
}

// GM/T 0016 device authentication: the token's 8-byte challenge followed by
// eight zero bytes, enciphered with SM4-ECB under the device key.
ULONG authenticateDevice(DEVHANDLE device, const uint8_t authKey[16]) {
  SecureArray<16> block;
  SecureArray<16> response;
  ULONG rv = SKF_GenRandom(device, block.data(), 8);
  if (rv != SAR_OK) return rv;
  if (!crypto::sm4Ecb(true, authKey, block.data(), block.size(), response.data())) {
    return SAR_FAIL;
  }
  return SKF_DevAuth(device, response.data(), ULONG(response.size()));
}

ULONG provisionContainer(DEVHANDLE device, HAPPLICATION application, const ContainerSpec &plan,
                         std::string *error) {
  const std::string where = "container " + plan.name + ": ";
  ScopedContainer container;
  ULONG rv = SKF_CreateContainer(application, skfText(plan.name), container.out());
  if (rv != SAR_OK) return failed(error, where + "SKF_CreateContainer", rv);
  if (plan.kind == KeyKind::Empty || !plan.signatureKey) return SAR_OK;

  if (plan.kind == KeyKind::Sm2) {
    ECCPUBLICKEYBLOB blob;
    rv = SKF_GenECCKeyPair(container.get(), SGD_SM2_1, &blob);
    if (rv != SAR_OK) return failed(error, where + "SKF_GenECCKeyPair", rv);
  } else {
    RSAPUBLICKEYBLOB blob;
    rv = SKF_GenRSAKeyPair(container.get(), plan.kind == KeyKind::Rsa1024 ? 1024 : 2048, &blob);
    if (rv != SAR_OK) return failed(error, where + "SKF_GenRSAKeyPair", rv);
  }
  if (plan.encryptionKey) {
    rv = importEncryptionKeyPair(device, container.get(), plan.kind);
    if (rv != SAR_OK) return failed(error, where + "encryption key pair import", rv);
  }
  if (!plan.certificates) return SAR_OK;

  for (int pass = 0; pass < (plan.encryptionKey ? 2 : 1); ++pass) {
    const bool signatureKey = pass == 0;
    std::vector<uint8_t> certificate = makeCertificate(container.get(), signatureKey, plan.name);
    if (certificate.empty()) return failed(error, where + "certificate", SAR_FAIL);
    rv = SKF_ImportCertificate(container.get(), signatureKey ? TRUE : FALSE, certificate.data(),
                               ULONG(certificate.size()));
    if (rv != SAR_OK) return failed(error, where + "SKF_ImportCertificate", rv);
  }
  return SAR_OK;
}

ULONG provisionApplication(const DeviceSpec &device, const ApplicationSpec &plan,
                           std::string *error) {
  const std::string where = "application " + plan.name + ": ";
  ScopedDevice connection;
  ULONG rv = SKF_ConnectDev(skfText(device.name), connection.out());
  if (rv != SAR_OK) return failed(error, "SKF_ConnectDev", rv);
  rv = authenticateDevice(connection.get(), device.authKey);
  if (rv != SAR_OK) return failed(error, "device authentication", rv);

  ScopedApplication application;
  rv = SKF_CreateApplication(connection.get(), skfText(plan.name), skfText(plan.adminPin),
                             plan.adminRetries, skfText(plan.userPin), plan.userRetries,
                             SECURE_ANYONE_ACCOUNT, application.out());
  if (rv != SAR_OK) return failed(error, where + "SKF_CreateApplication", rv);
  ULONG retries = 0;
  rv = SKF_VerifyPIN(application.get(), USER_TYPE, skfText(plan.userPin), &retries);
  if (rv != SAR_OK) return failed(error, where + "SKF_VerifyPIN", rv);

  for (const ContainerSpec &container : plan.containers) {
    rv = provisionContainer(connection.get(), application.get(), container, error);
    if (rv != SAR_OK) {
      if (error != nullptr) *error = where + *error;
      return rv;
    }
  }
  return SAR_OK;
}

}  // namespace

// A device whose provisioning fails part way is removed again, so the name
// can be used for a new attempt; a name that was already taken is left alone.
ULONG provisionDevice(const DeviceSpec &plan, std::string *error) {
  ULONG rv = SKFSoft_CreateDevice(plan.name.c_str(), plan.label.c_str(), plan.serial.c_str(),
                                  plan.authKey);
  if (rv != SAR_OK) return failed(error, "SKFSoft_CreateDevice", rv);
  for (const ApplicationSpec &application : plan.applications) {
    rv = provisionApplication(plan, application, error);
    if (rv != SAR_OK) {
      SKFSoft_RemoveDevice(plan.name.c_str());
      return rv;
    }
  }
  return SAR_OK;
}

DeviceSpec demoDeviceSpec(const std::string &name) {
  DeviceSpec plan;
  plan.name = name;
  plan.label = "Tembra Demo Token";
  plan.serial = "TMB0000000000001";
  memcpy(plan.authKey, kDefaultAuthKey, sizeof(plan.authKey));
  ApplicationSpec application;
  application.name = "TembraApp";
  ContainerSpec sm2;
  sm2.name = "SM2Container";
  sm2.kind = KeyKind::Sm2;
  ContainerSpec rsa;
  rsa.name = "RSAContainer";
  rsa.kind = KeyKind::Rsa2048;
  application.containers = {sm2, rsa};
  plan.applications.push_back(application);
  return plan;
}

}  // namespace provision
}  // namespace tembra
