#include "host_memory.h"

#include <stdlib.h>
#include <string.h>

#include "platform/secure_zero.h"

namespace tembra {
namespace hostcrypto {

namespace {

constexpr uint64_t kLiveTag = 0x4F5256454C4D454DULL;  // "ORVELMEM"
constexpr uint64_t kDeadTag = 0x44454144424C4F43ULL;

// 16 bytes, so the returned pointer keeps malloc's alignment.
struct Header {
  uint64_t tag;
  uint64_t size;
};
static_assert(sizeof(Header) == 16, "header must keep 16-byte alignment");

}  // namespace

unsigned char *hostCopy(const uint8_t *data, size_t len) {
  if (len > 0x7FFFFFFF || (data == nullptr && len > 0)) return nullptr;
  auto *header = static_cast<Header *>(malloc(sizeof(Header) + (len > 0 ? len : 1)));
  if (header == nullptr) return nullptr;
  header->tag = kLiveTag;
  header->size = len;
  auto *body = reinterpret_cast<unsigned char *>(header + 1);
  if (len > 0) memcpy(body, data, len);
  return body;
}

bool hostFree(void *p) {
  if (p == nullptr) return true;
  Header *header = static_cast<Header *>(p) - 1;
  if (header->tag != kLiveTag) return false;
  secureZero(p, static_cast<size_t>(header->size));
  header->tag = kDeadTag;
  free(header);
  return true;
}

bool handOut(const uint8_t *data, size_t len, unsigned char **out, int *outLen) {
  unsigned char *copy = hostCopy(data, len);
  if (copy == nullptr) return false;
  *out = copy;
  *outLen = static_cast<int>(len);
  return true;
}

}  // namespace hostcrypto
}  // namespace tembra
