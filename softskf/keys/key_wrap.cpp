#include "softskf/keys/key_wrap.h"

#include <string.h>

#include "platform/secure_zero.h"

namespace tembra {
namespace softskf {

namespace {

constexpr size_t kBlock = 64;  // SM3 block size
constexpr size_t kTag = crypto::kSm3DigestSize;
constexpr size_t kIv = crypto::kSm4BlockSize;

// The two keys of one seal: the cipher key and the tag key, split from the
// sealing key by HMAC so neither is used for both jobs.
bool splitKey(const TokenKey &key, SecureArray<16> &cipherKey, SecureArray<32> &tagKey) {
  static const uint8_t kCipherLabel[] = "tembra-softskf seal cipher";
  static const uint8_t kTagLabel[] = "tembra-softskf seal tag";
  SecureArray<32> full;
  if (!hmacSm3(key.data(), key.size(), kCipherLabel, sizeof kCipherLabel - 1, full.data()))
    return false;
  memcpy(cipherKey.data(), full.data(), 16);
  return hmacSm3(key.data(), key.size(), kTagLabel, sizeof kTagLabel - 1, tagKey.data());
}

// From the PIN: the verifier kept on disk, and the key that wraps the token
// key. Both come from one PBKDF2 output through different HMAC labels.
bool derivePinKeys(const std::string &pin, const std::vector<uint8_t> &salt, uint32_t iterations,
                   uint8_t verifier[32], TokenKey &wrapKey) {
  static const uint8_t kVerifyLabel[] = "tembra-softskf pin verifier";
  static const uint8_t kWrapLabel[] = "tembra-softskf pin wrap";
  SecureArray<32> master, wrap;
  if (!pbkdf2Sm3(reinterpret_cast<const uint8_t *>(pin.data()), pin.size(), salt.data(),
                 salt.size(), iterations, master.data(), master.size())) {
    return false;
  }
  if (!hmacSm3(master.data(), master.size(), kVerifyLabel, sizeof kVerifyLabel - 1, verifier) ||
      !hmacSm3(master.data(), master.size(), kWrapLabel, sizeof kWrapLabel - 1, wrap.data())) {
    return false;
  }
  memcpy(wrapKey.data(), wrap.data(), kTokenKeySize);
  return true;
}

bool equalInConstantTime(const uint8_t *a, const uint8_t *b, size_t n) {
  uint8_t diff = 0;
  for (size_t i = 0; i < n; ++i) diff |= static_cast<uint8_t>(a[i] ^ b[i]);
  return diff == 0;
}

}  // namespace

bool hmacSm3(const uint8_t *key, size_t keyLen, const uint8_t *data, size_t len,
             uint8_t out[crypto::kSm3DigestSize]) {
  SecureArray<kBlock> k0, pad;
  if (keyLen > kBlock) {
    if (!crypto::sm3(key, keyLen, k0.data())) return false;
  } else if (keyLen > 0) {
    memcpy(k0.data(), key, keyLen);
  }
  SecureArray<crypto::kSm3DigestSize> inner;
  for (size_t i = 0; i < kBlock; ++i) pad.bytes[i] = static_cast<uint8_t>(k0.bytes[i] ^ 0x36);
  {
    crypto::Sm3 h;
    if (!h.ok() || !h.update(pad.data(), kBlock) || !h.update(data, len) || !h.final(inner.data()))
      return false;
  }
  for (size_t i = 0; i < kBlock; ++i) pad.bytes[i] = static_cast<uint8_t>(k0.bytes[i] ^ 0x5c);
  crypto::Sm3 h;
  return h.ok() && h.update(pad.data(), kBlock) && h.update(inner.data(), inner.size()) &&
         h.final(out);
}

bool pbkdf2Sm3(const uint8_t *password, size_t passwordLen, const uint8_t *salt, size_t saltLen,
               uint32_t iterations, uint8_t *out, size_t outLen) {
  if (iterations == 0) return false;
  std::vector<uint8_t> first(salt, salt + saltLen);
  first.resize(saltLen + 4);
  SecureArray<crypto::kSm3DigestSize> u, t;
  for (uint32_t block = 1; outLen > 0; ++block) {
    first[saltLen] = static_cast<uint8_t>(block >> 24);
    first[saltLen + 1] = static_cast<uint8_t>(block >> 16);
    first[saltLen + 2] = static_cast<uint8_t>(block >> 8);
    first[saltLen + 3] = static_cast<uint8_t>(block);
    if (!hmacSm3(password, passwordLen, first.data(), first.size(), u.data())) return false;
    memcpy(t.data(), u.data(), u.size());
    for (uint32_t i = 1; i < iterations; ++i) {
      if (!hmacSm3(password, passwordLen, u.data(), u.size(), u.data())) return false;
      for (size_t j = 0; j < t.size(); ++j) t.bytes[j] ^= u.bytes[j];
    }
    size_t take = outLen < t.size() ? outLen : t.size();
    memcpy(out, t.data(), take);
    out += take;
    outLen -= take;
  }
  return true;
}

bool seal(const TokenKey &key, const uint8_t *plain, size_t len, std::vector<uint8_t> &sealed) {
  SecureArray<16> cipherKey;
  SecureArray<32> tagKey;
  if (!splitKey(key, cipherKey, tagKey)) return false;
  uint8_t iv[kIv];
  if (!crypto::randomBytes(iv, sizeof iv)) return false;
  SecureBytes body;
  if (!crypto::sm4CbcPadded(true, cipherKey.data(), iv, plain, len, body)) return false;
  sealed.assign(iv, iv + kIv);
  sealed.insert(sealed.end(), body.data(), body.data() + body.size());
  uint8_t tag[kTag];
  if (!hmacSm3(tagKey.data(), tagKey.size(), sealed.data(), sealed.size(), tag)) return false;
  sealed.insert(sealed.end(), tag, tag + kTag);
  return true;
}

bool open(const TokenKey &key, const std::vector<uint8_t> &sealed, SecureBytes &plain) {
  if (sealed.size() < kIv + 16 + kTag) return false;
  SecureArray<16> cipherKey;
  SecureArray<32> tagKey;
  if (!splitKey(key, cipherKey, tagKey)) return false;
  size_t bodyEnd = sealed.size() - kTag;
  uint8_t tag[kTag];
  if (!hmacSm3(tagKey.data(), tagKey.size(), sealed.data(), bodyEnd, tag)) return false;
  if (!equalInConstantTime(tag, sealed.data() + bodyEnd, kTag)) return false;
  return crypto::sm4CbcPadded(false, cipherKey.data(), sealed.data(), sealed.data() + kIv,
                              bodyEnd - kIv, plain);
}

bool setPin(PinRecord &record, const std::string &pin, const TokenKey &tokenKey) {
  std::vector<uint8_t> salt(16);
  if (!crypto::randomBytes(salt.data(), salt.size())) return false;
  uint8_t verifier[32];
  TokenKey wrapKey;
  if (!derivePinKeys(pin, salt, kPinIterations, verifier, wrapKey)) return false;
  std::vector<uint8_t> wrapped;
  if (!seal(wrapKey, tokenKey.data(), tokenKey.size(), wrapped)) return false;
  record.salt = salt;
  record.iterations = kPinIterations;
  record.verifier.assign(verifier, verifier + 32);
  record.wrappedTokenKey = wrapped;
  return true;
}

bool checkPin(const PinRecord &record, const std::string &pin, TokenKey &tokenKey) {
  if (record.verifier.size() != 32 || record.iterations == 0) return false;
  uint8_t verifier[32];
  TokenKey wrapKey;
  if (!derivePinKeys(pin, record.salt, record.iterations, verifier, wrapKey)) return false;
  if (!equalInConstantTime(verifier, record.verifier.data(), 32)) return false;
  SecureBytes key;
  if (!open(wrapKey, record.wrappedTokenKey, key) || key.size() != kTokenKeySize) return false;
  memcpy(tokenKey.data(), key.data(), kTokenKeySize);
  return true;
}

}  // namespace softskf
}  // namespace tembra
