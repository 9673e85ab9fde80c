// Fuzz target: decodeSm2CipherText, the provider's reader of the host's flat
// SM2 ciphertext (0x04 || x || y || C2 || C3). Every accepted input must come
// back as the ECCCIPHERBLOB it describes; anything else aborts.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz/fuzz_limits.h"
#include "import/sm2_cipher.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // The decoder's one log line would otherwise be written at every short input.
  setenv("TEMBRA_KEY_PROV_LOG_LEVEL", "0", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput + SM2_CIPHER_MAX_MESSAGE) return 0;
  const int len = static_cast<int>(size);
  ECCCIPHERBLOB *blob = decodeSm2CipherText(data, len);
  const bool acceptable = size >= SM2_CIPHER_OVERHEAD && data[0] == 0x04 &&
                          size - SM2_CIPHER_OVERHEAD <= SM2_CIPHER_MAX_MESSAGE;
  if ((blob != nullptr) != acceptable) abort();
  if (blob == nullptr) return 0;
  const size_t message = size - SM2_CIPHER_OVERHEAD;
  static const uint8_t zeros[32] = {};
  if (blob->CipherLen != message || memcmp(blob->XCoordinate, zeros, 32) != 0 ||
      memcmp(blob->XCoordinate + 32, data + 1, 32) != 0 ||
      memcmp(blob->YCoordinate, zeros, 32) != 0 ||
      memcmp(blob->YCoordinate + 32, data + 33, 32) != 0 ||
      memcmp(blob->HASH, data + size - 32, 32) != 0 ||
      (message > 0 && memcmp(blob->Cipher, data + 65, message) != 0)) {
    abort();
  }
  free(blob);
  return 0;
}
