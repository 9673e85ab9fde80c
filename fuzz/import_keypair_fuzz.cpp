// Fuzz target: DeviceImportKeypair with blobs from outside, against a
// software token that holds an SM2 and an RSA-1024 signature key pair (made
// once, in a store of this process, logged in as user).
//
// The first input byte steers, the rest is the blob or its payload:
//   bit 0     container: 0 the SM2 one ("sm2"), 1 the RSA one ("rsa")
//   bits 1-2  0: the bytes as the whole blob
//             1: an "SCAENCKP" header (version 1, the container's algorithm,
//                the right length) before the bytes
//             2: as 1, with the container's own signature public key spliced
//                into the payload, so that the checks after it are reached
//             3: "_KEYPAIR" and the container's algorithm before the bytes
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_limits.h"
#include "include/tembra_key_prov.h"
#include "platform/skf.h"
#include "softskf/provision/provision.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Held for the life of the process.
struct Target {
  SPI_DEVICESET_HANDLE set = nullptr;
  SPI_DEVICE_HANDLE device = nullptr;
  Bytes sm2Point;     // 04 || x || y of the SM2 signature key
  Bytes rsaModulus;   // of the RSA signature key, without leading zeros
  Bytes rsaExponent;  // likewise
};

void put32(Bytes &out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

Bytes stripped(const BYTE *p, size_t len) {
  size_t skip = 0;
  while (skip < len && p[skip] == 0) ++skip;
  return Bytes(p + skip, p + len);
}

// The signature public keys, read from the token before the provider starts.
bool readSignatureKeys(Target &target) {
  char names[256] = {};
  ULONG size = sizeof(names);
  DEVHANDLE hDev = nullptr;
  HAPPLICATION hApp = nullptr;
  if (SKF_EnumDev(TRUE, names, &size) != SAR_OK || SKF_ConnectDev(names, &hDev) != SAR_OK ||
      SKF_OpenApplication(hDev, const_cast<char *>("FuzzApp"), &hApp) != SAR_OK) {
    return false;
  }
  bool ok = true;
  HCONTAINER hCon = nullptr;
  ECCPUBLICKEYBLOB ecc = {};
  ULONG len = sizeof(ecc);
  ok = ok && SKF_OpenContainer(hApp, const_cast<char *>("sm2"), &hCon) == SAR_OK &&
       SKF_ExportPublicKey(hCon, TRUE, reinterpret_cast<BYTE *>(&ecc), &len) == SAR_OK;
  if (ok) {
    target.sm2Point.push_back(0x04);
    target.sm2Point.insert(target.sm2Point.end(), ecc.XCoordinate + 32, ecc.XCoordinate + 64);
    target.sm2Point.insert(target.sm2Point.end(), ecc.YCoordinate + 32, ecc.YCoordinate + 64);
    SKF_CloseContainer(hCon);
  }
  RSAPUBLICKEYBLOB rsa = {};
  len = sizeof(rsa);
  ok = ok && SKF_OpenContainer(hApp, const_cast<char *>("rsa"), &hCon) == SAR_OK &&
       SKF_ExportPublicKey(hCon, TRUE, reinterpret_cast<BYTE *>(&rsa), &len) == SAR_OK;
  if (ok) {
    target.rsaModulus = stripped(rsa.Modulus, sizeof(rsa.Modulus));
    target.rsaExponent = stripped(rsa.PublicExponent, sizeof(rsa.PublicExponent));
    SKF_CloseContainer(hCon);
  }
  SKF_CloseApplication(hApp);
  SKF_DisConnectDev(hDev);
  return ok;
}

Target *setUp() {
  static char storeTemplate[] = "/tmp/tembra-import-fuzz-XXXXXX";
  if (mkdtemp(storeTemplate) == nullptr) abort();
  setenv("TEMBRA_SOFTSKF_DIR", storeTemplate, 1);
  // Every line is formatted (hex dumps included) and thrown away.
  setenv("TEMBRA_KEY_PROV_LOG_LEVEL", "5", 1);
  setenv("TEMBRA_KEY_PROV_LOG_PATH", "/dev/null", 1);

  tembra::provision::DeviceSpec token;
  token.name = token.label = token.serial = "fuzz";
  tembra::provision::ApplicationSpec app;
  app.name = "FuzzApp";
  for (const char *name : {"sm2", "rsa"}) {
    tembra::provision::ContainerSpec container;
    container.name = name;
    container.kind =
        name[0] == 's' ? tembra::provision::KeyKind::Sm2 : tembra::provision::KeyKind::Rsa1024;
    container.encryptionKey = false;
    container.certificates = false;
    app.containers.push_back(container);
  }
  token.applications.push_back(app);
  if (tembra::provision::provisionDevice(token) != SAR_OK) abort();

  static Target target;
  if (!readSignatureKeys(target)) abort();
  if (DeviceInit() != 1) abort();
  target.set = DeviceGetAllDevices();
  target.device = target.set != nullptr ? DeviceGetDevice(target.set, 0) : nullptr;
  int retries = 0;
  if (target.device == nullptr ||
      DeviceVerifyPwd(target.device, 1, app.userPin.c_str(), &retries) != 1) {
    abort();
  }
  return &target;
}

Bytes buildBlob(const Target &target, uint8_t steer, const uint8_t *data, size_t size) {
  const bool rsa = (steer & 1) != 0;
  const uint32_t algo = rsa ? ORVEL_PKI_ALGORITHM_RSA : ORVEL_PKI_ALGORITHM_ECC;
  const int mode = (steer >> 1) & 3;
  if (mode == 0) return Bytes(data, data + size);
  if (mode == 3) {
    Bytes blob = {'_', 'K', 'E', 'Y', 'P', 'A', 'I', 'R'};
    put32(blob, algo);
    blob.insert(blob.end(), data, data + size);
    return blob;
  }
  Bytes payload;
  if (mode == 2 && rsa) {
    put32(payload, static_cast<uint32_t>(target.rsaModulus.size()));
    payload.insert(payload.end(), target.rsaModulus.begin(), target.rsaModulus.end());
    put32(payload, static_cast<uint32_t>(target.rsaExponent.size()));
    payload.insert(payload.end(), target.rsaExponent.begin(), target.rsaExponent.end());
    payload.insert(payload.end(), data, data + size);
  } else if (mode == 2) {
    payload = {0, 0, 0, 7};
    payload.insert(payload.end(), target.sm2Point.begin(), target.sm2Point.end());
    payload.insert(payload.end(), data, data + size);
  } else {
    payload.assign(data, data + size);
  }
  Bytes blob = {'S', 'C', 'A', 'E', 'N', 'C', 'K', 'P'};
  put32(blob, 1);
  put32(blob, algo);
  put32(blob, static_cast<uint32_t>(payload.size()));
  blob.insert(blob.end(), payload.begin(), payload.end());
  return blob;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > kMaxFuzzInput) return 0;
  static Target *target = setUp();
  const Bytes blob = buildBlob(*target, data[0], data + 1, size - 1);
  const char *label = (data[0] & 1) != 0 ? "rsa" : "sm2";
  SPI_KEYPAIR_HANDLE hKeypair = nullptr;
  // An exact-size copy, so that a read past the blob is caught.
  unsigned char *copy = static_cast<unsigned char *>(malloc(blob.empty() ? 1 : blob.size()));
  if (copy == nullptr) return 0;
  if (!blob.empty()) memcpy(copy, blob.data(), blob.size());
  if (DeviceImportKeypair(target->device, copy, static_cast<int>(blob.size()),
                          ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, label, &hKeypair) == 1) {
    DeviceFreeKeypair(hKeypair);
  }
  free(copy);
  return 0;
}
