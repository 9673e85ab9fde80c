// Fuzz target: the host crypto library's decoders, through its exported C
// functions, exactly as the provider calls them with bytes from tokens and
// hosts.
#include <stddef.h>
#include <stdint.h>

#include "fuzz/fuzz_limits.h"
#include "platform/orvel_crypto.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput) return 0;
  const int len = static_cast<int>(size);
  unsigned char *a = nullptr, *b = nullptr, *c = nullptr;
  int aLen = 0, bLen = 0, cLen = 0, curve = 0;
  if (OrvelPKICryptoDecodeRSAPubKey(data, len, &a, &aLen, &b, &bLen) == 1) {
    OrvelPKICryptoFreeMemory(a);
    OrvelPKICryptoFreeMemory(b);
  }
  a = b = nullptr;
  if (OrvelPKICryptoDecodeECCPubKey(data, len, &curve, &a, &aLen, &b, &bLen) == 1) {
    OrvelPKICryptoFreeMemory(a);
    OrvelPKICryptoFreeMemory(b);
  }
  a = b = nullptr;
  if (OrvelPKICryptoDecodeECCKeyPair(data, len, &curve, &a, &aLen, &b, &bLen, &c, &cLen) == 1) {
    OrvelPKICryptoFreeMemory(a);
    OrvelPKICryptoFreeMemory(b);
    OrvelPKICryptoFreeMemory(c);
  }
  a = nullptr;
  if (OrvelPKICryptoRSAPrivKeyToDER(data, len, &a, &aLen) == 1) OrvelPKICryptoFreeMemory(a);
  ORVEL_PKI_DEVICE device = OrvelPKICryptoGetPseudoDevice();
  ORVEL_PKI_PUBLICKEY key = nullptr;
  if (OrvelPKICryptoImportPublicKey(device, data, len, &key) == 1) OrvelPKICryptoFreePublicKey(key);
  OrvelPKICryptoFreeDevice(device);
  return 0;
}
