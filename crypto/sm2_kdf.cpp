#include "crypto/sm2_kdf.h"

#include <string.h>

#include "crypto/backend.h"
#include "platform/secure_zero.h"

namespace tembra {
namespace crypto {

bool sm2Kdf(const uint8_t *z, size_t zLen, uint8_t *out, size_t len) {
  uint32_t counter = 1;
  uint8_t block[kSm3DigestSize];
  size_t done = 0;
  while (done < len) {
    const uint8_t ct[4] = {static_cast<uint8_t>(counter >> 24), static_cast<uint8_t>(counter >> 16),
                           static_cast<uint8_t>(counter >> 8), static_cast<uint8_t>(counter)};
    Sm3 hash;
    if (!hash.ok() || !hash.update(z, zLen) || !hash.update(ct, sizeof ct) || !hash.final(block)) {
      secureZero(block, sizeof block);
      return false;
    }
    const size_t take = len - done < kSm3DigestSize ? len - done : kSm3DigestSize;
    memcpy(out + done, block, take);
    done += take;
    ++counter;
  }
  secureZero(block, sizeof block);
  return true;
}

bool allZero(const uint8_t *p, size_t len) {
  uint8_t acc = 0;
  for (size_t i = 0; i < len; ++i) acc |= p[i];
  return acc == 0;
}

}  // namespace crypto
}  // namespace tembra
