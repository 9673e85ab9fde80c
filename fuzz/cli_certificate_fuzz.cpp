// Fuzz target: the certificate reader of `tembra cert put`, which takes the
// public key out of a certificate file the user names and compares it with
// the key pair's.
#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "cli/signing.h"
#include "fuzz/fuzz_limits.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput) return 0;
  const std::vector<uint8_t> bytes(data, data + size);
  const std::vector<uint8_t> key = tembra::cli::certificatePublicKey(bytes);
  if (!key.empty()) tembra::cli::samePublicKey(key, key);
  tembra::cli::samePublicKey(bytes, bytes);
  return 0;
}
