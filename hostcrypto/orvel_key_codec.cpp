// Public keys, SM2 signatures and "_KEYPAIR" blobs to and from the host
// encodings (docs/host-formats.md). Every output buffer comes from
// host_memory and is released with OrvelPKICryptoFreeMemory; on failure no
// output is written.
#include <string.h>

#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "crypto/keypair_blob.h"
#include "fault_switch.h"
#include "host_memory.h"
#include "hostcrypto/include/orvel_test.h"
#include "orvel_objects.h"

namespace {

using tembra::SecureBytes;
using tembra::hostcrypto::faultHit;
using tembra::hostcrypto::guarded;
using tembra::hostcrypto::handOut;
using tembra::hostcrypto::hostFree;
namespace crypto = tembra::crypto;

constexpr int kCurveSm2 = 7;
constexpr int kMaxRsaBytes = 512;

bool allZero(const unsigned char *p, int len) {
  for (int i = 0; i < len; ++i) {
    if (p[i] != 0) return false;
  }
  return true;
}

std::vector<uint8_t> withoutLeadingZeros(const unsigned char *p, int len) {
  int start = 0;
  while (start < len - 1 && p[start] == 0) ++start;
  return std::vector<uint8_t>(p + start, p + len);
}

// One caller output: the bytes to hand out and where the buffer goes.
struct Output {
  const std::vector<uint8_t> *bytes;
  unsigned char **out;
  int *outLen;
};

// Hands out several buffers together: all are written, or none.
bool handOutAll(std::initializer_list<Output> outputs) {
  std::vector<std::pair<unsigned char *, int>> made;
  for (const Output &output : outputs) {
    unsigned char *copy = nullptr;
    int copyLen = 0;
    if (!handOut(output.bytes->data(), output.bytes->size(), &copy, &copyLen)) {
      for (auto &done : made) hostFree(done.first);
      return false;
    }
    made.emplace_back(copy, copyLen);
  }
  size_t i = 0;
  for (const Output &output : outputs) {
    *output.out = made[i].first;
    *output.outLen = made[i].second;
    ++i;
  }
  return true;
}

}  // namespace

extern "C" {

ORVEL_CRYPTO_API int OrvelPKICryptoEncodeRSAPubKey(const unsigned char *modulus, int modulusLen,
                                                   const unsigned char *exponent, int exponentLen,
                                                   unsigned char **out, int *outLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoEncodeRSAPubKey", fault)) return fault;
  if (modulus == nullptr || exponent == nullptr || out == nullptr || outLen == nullptr) return 0;
  if (modulusLen <= 0 || modulusLen > kMaxRsaBytes || exponentLen <= 0 ||
      exponentLen > kMaxRsaBytes) {
    return 0;
  }
  if (allZero(modulus, modulusLen) || allZero(exponent, exponentLen)) return 0;
  return guarded(0, [&] {
    crypto::RsaPublicKey key;
    key.n = withoutLeadingZeros(modulus, modulusLen);
    key.e = withoutLeadingZeros(exponent, exponentLen);
    std::vector<uint8_t> der;
    if (!crypto::encodeRsaSpki(key, der)) return 0;
    return handOut(der.data(), der.size(), out, outLen) ? 1 : 0;
  });
}

ORVEL_CRYPTO_API int OrvelPKICryptoEncodeECCPubKey(int curve, const unsigned char *x, int xLen,
                                                   const unsigned char *y, int yLen,
                                                   unsigned char **out, int *outLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoEncodeECCPubKey", fault)) return fault;
  if (curve != kCurveSm2 || x == nullptr || y == nullptr || out == nullptr || outLen == nullptr) {
    return 0;
  }
  if (xLen != static_cast<int>(crypto::kSm2ScalarSize) ||
      yLen != static_cast<int>(crypto::kSm2ScalarSize)) {
    return 0;
  }
  return guarded(0, [&] {
    crypto::Sm2PublicKey key;
    memcpy(key.x, x, crypto::kSm2ScalarSize);
    memcpy(key.y, y, crypto::kSm2ScalarSize);
    // A point off the curve is no public key; refuse it here rather than
    // hand the host an encoding it cannot use.
    if (!crypto::sm2ValidatePublic(key)) return 0;
    std::vector<uint8_t> der;
    if (!crypto::encodeSm2Spki(key, der)) return 0;
    return handOut(der.data(), der.size(), out, outLen) ? 1 : 0;
  });
}

ORVEL_CRYPTO_API int OrvelPKICryptoDecodeRSAPubKey(const unsigned char *in, int inLen,
                                                   unsigned char **modulus, int *modulusLen,
                                                   unsigned char **exponent, int *exponentLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoDecodeRSAPubKey", fault)) return fault;
  if (in == nullptr || inLen <= 0 || modulus == nullptr || modulusLen == nullptr ||
      exponent == nullptr || exponentLen == nullptr) {
    return 0;
  }
  return guarded(0, [&] {
    crypto::RsaPublicKey key;
    if (!crypto::decodeRsaSpki(in, static_cast<size_t>(inLen), key)) return 0;
    if (key.n.size() > static_cast<size_t>(kMaxRsaBytes)) return 0;
    return handOutAll({{&key.n, modulus, modulusLen}, {&key.e, exponent, exponentLen}}) ? 1 : 0;
  });
}

ORVEL_CRYPTO_API int OrvelPKICryptoDecodeECCPubKey(const unsigned char *in, int inLen, int *curve,
                                                   unsigned char **x, int *xLen, unsigned char **y,
                                                   int *yLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoDecodeECCPubKey", fault)) return fault;
  if (in == nullptr || inLen <= 0 || curve == nullptr || x == nullptr || xLen == nullptr ||
      y == nullptr || yLen == nullptr) {
    return 0;
  }
  return guarded(0, [&] {
    crypto::Sm2PublicKey key;
    if (!crypto::decodeSm2Spki(in, static_cast<size_t>(inLen), key)) return 0;
    const std::vector<uint8_t> xs(key.x, key.x + crypto::kSm2ScalarSize);
    const std::vector<uint8_t> ys(key.y, key.y + crypto::kSm2ScalarSize);
    if (!handOutAll({{&xs, x, xLen}, {&ys, y, yLen}})) return 0;
    *curve = kCurveSm2;
    return 1;
  });
}

ORVEL_CRYPTO_API int OrvelPKICryptoEncodeECCSignature(const unsigned char *r, int rLen,
                                                      const unsigned char *s, int sLen,
                                                      unsigned char **out, int *outLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoEncodeECCSignature", fault)) return fault;
  if (r == nullptr || s == nullptr || out == nullptr || outLen == nullptr) return 0;
  if (rLen != static_cast<int>(crypto::kSm2ScalarSize) ||
      sLen != static_cast<int>(crypto::kSm2ScalarSize)) {
    return 0;
  }
  // r and s lie in [1, n - 1]; zero is never part of a signature.
  if (allZero(r, rLen) || allZero(s, sLen)) return 0;
  return guarded(0, [&] {
    std::vector<uint8_t> der;
    if (!crypto::encodeSm2Signature(r, s, der)) return 0;
    return handOut(der.data(), der.size(), out, outLen) ? 1 : 0;
  });
}

ORVEL_CRYPTO_API int OrvelPKICryptoDecodeECCKeyPair(const unsigned char *in, int inLen, int *curve,
                                                    unsigned char **x, int *xLen, unsigned char **y,
                                                    int *yLen, unsigned char **d, int *dLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoDecodeECCKeyPair", fault)) return fault;
  if (in == nullptr || inLen <= 0 || curve == nullptr || x == nullptr || xLen == nullptr ||
      y == nullptr || yLen == nullptr || d == nullptr || dLen == nullptr) {
    return 0;
  }
  return guarded(0, [&] {
    crypto::Sm2KeyPair keyPair;
    if (!crypto::decodeSm2KeyPairBlob(in, static_cast<size_t>(inLen), keyPair)) return 0;
    const std::vector<uint8_t> xs(keyPair.publicKey.x,
                                  keyPair.publicKey.x + crypto::kSm2ScalarSize);
    const std::vector<uint8_t> ys(keyPair.publicKey.y,
                                  keyPair.publicKey.y + crypto::kSm2ScalarSize);
    std::vector<uint8_t> ds(keyPair.d.data(), keyPair.d.data() + crypto::kSm2ScalarSize);
    const bool ok = handOutAll({{&xs, x, xLen}, {&ys, y, yLen}, {&ds, d, dLen}});
    tembra::secureZero(ds.data(), ds.size());
    if (!ok) return 0;
    *curve = kCurveSm2;
    return 1;
  });
}

ORVEL_CRYPTO_API int OrvelPKICryptoRSAPrivKeyToDER(const unsigned char *in, int inLen,
                                                   unsigned char **der, int *derLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoRSAPrivKeyToDER", fault)) return fault;
  if (in == nullptr || inLen <= 0 || der == nullptr || derLen == nullptr) return 0;
  return guarded(0, [&] {
    SecureBytes encoded;
    if (!crypto::rsaKeyPairBlobToDer(in, static_cast<size_t>(inLen), encoded)) return 0;
    return handOut(encoded.data(), encoded.size(), der, derLen) ? 1 : 0;
  });
}

}  // extern "C"
