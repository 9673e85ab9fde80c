#include "crypto/sm2_ciphertext.h"

#include "crypto/backend.h"
#include "crypto/der.h"

namespace tembra {
namespace crypto {

namespace {

constexpr size_t kPointSize = 1 + 2 * kSm2ScalarSize;

}  // namespace

bool sm2CipherFlatToDer(const uint8_t *flat, size_t len, std::vector<uint8_t> &der) {
  if (flat == nullptr || len < kSm2CipherOverhead || flat[0] != 0x04) return false;
  const size_t messageLen = len - kSm2CipherOverhead;
  const uint8_t *c2 = flat + kPointSize;
  const uint8_t *c3 = c2 + messageLen;
  der = der::sequence({der::integer(flat + 1, kSm2ScalarSize),
                       der::integer(flat + 1 + kSm2ScalarSize, kSm2ScalarSize),
                       der::octetString(c3, kSm3DigestSize), der::octetString(c2, messageLen)});
  return true;
}

bool sm2CipherDerToFlat(const uint8_t *der, size_t len, std::vector<uint8_t> &flat) {
  if (der == nullptr) return false;
  der::Reader outer(der, len);
  der::Reader fields;
  std::vector<uint8_t> out(kPointSize);
  der::Bytes c3, c2;
  out[0] = 0x04;
  if (!outer.enterSequence(fields) || !outer.finished() ||
      !fields.readUnsignedInteger(out.data() + 1, kSm2ScalarSize) ||
      !fields.readUnsignedInteger(out.data() + 1 + kSm2ScalarSize, kSm2ScalarSize) ||
      !fields.readOctetString(c3) || !fields.readOctetString(c2) || !fields.finished() ||
      c3.size() != kSm3DigestSize) {
    return false;
  }
  out.insert(out.end(), c2.begin(), c2.end());
  out.insert(out.end(), c3.begin(), c3.end());
  flat = std::move(out);
  return true;
}

}  // namespace crypto
}  // namespace tembra
