// Fuzz target: the DER and PEM readers that take keys and signatures from
// outside (SubjectPublicKeyInfo, PKCS#1, SM2 signatures, key pair blobs),
// and the SM2 ciphertext conversion between the flat and the DER form.
#include <stddef.h>
#include <stdint.h>

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/key_formats.h"
#include "crypto/keypair_blob.h"
#include "crypto/sm2_ciphertext.h"
#include "fuzz/fuzz_limits.h"

using namespace tembra::crypto;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput) return 0;
  RsaPublicKey rsaPublic;
  decodeRsaSpki(data, size, rsaPublic);
  decodeRsaPublicKey(data, size, rsaPublic);
  Sm2PublicKey sm2Public;
  decodeSm2Spki(data, size, sm2Public);
  uint8_t r[kSm2ScalarSize], s[kSm2ScalarSize];
  decodeSm2Signature(data, size, r, s);
  RsaPrivateKey rsaPrivate;
  decodeRsaPrivateKey(data, size, rsaPrivate);
  decodeRsaKeyPairBlob(data, size, rsaPrivate);
  Sm2KeyPair sm2Pair;
  decodeSm2KeyPairBlob(data, size, sm2Pair);
  std::vector<uint8_t> der, flat;
  // Strict DER has one encoding: what is read must write back the same.
  if (sm2CipherDerToFlat(data, size, flat) &&
      (!sm2CipherFlatToDer(flat.data(), flat.size(), der) || der.size() != size ||
       memcmp(der.data(), data, size) != 0)) {
    abort();
  }
  sm2CipherFlatToDer(data, size, der);
  pemUnarmour(std::string(reinterpret_cast<const char *>(data), size), "PUBLIC KEY", der);
  return 0;
}
