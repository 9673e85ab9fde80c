#include "softskf/keys/key_material.h"

#include <string.h>

#include "softskf/store/serial.h"

namespace tembra {
namespace softskf {

namespace {

void stripLeadingZeros(std::vector<uint8_t> &v) {
  size_t i = 0;
  while (i + 1 < v.size() && v[i] == 0) ++i;
  v.erase(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(i));
}

void stripLeadingZeros(SecureBytes &v) {
  size_t i = 0;
  while (i + 1 < v.size() && v[i] == 0) ++i;
  if (i > 0) {
    SecureBytes shorter(v.data() + i, v.size() - i);
    v = std::move(shorter);
  }
}

// One DER element: tag, definite length (short or long form up to 4 bytes).
bool derElement(const uint8_t *&p, const uint8_t *end, uint8_t tag, const uint8_t *&content,
                size_t &len) {
  if (end - p < 2 || p[0] != tag) return false;
  size_t n = p[1];
  p += 2;
  if (n & 0x80) {
    size_t bytes = n & 0x7f;
    if (bytes == 0 || bytes > 4 || static_cast<size_t>(end - p) < bytes) return false;
    n = 0;
    for (size_t i = 0; i < bytes; ++i) n = (n << 8) | *p++;
  }
  if (static_cast<size_t>(end - p) < n) return false;
  content = p;
  len = n;
  p += n;
  return true;
}

bool derInteger(const uint8_t *&p, const uint8_t *end, SecureBytes &value) {
  const uint8_t *content;
  size_t len;
  if (!derElement(p, end, 0x02, content, len) || len == 0) return false;
  if (content[0] & 0x80) return false;  // no negative values in a private key
  value.assign(content, len);
  stripLeadingZeros(value);
  return true;
}

}  // namespace

bool storeSm2(const TokenKey &tokenKey, const crypto::Sm2KeyPair &pair, KeyPairRecord &record) {
  KeyPairRecord out;
  out.algorithm = KeyAlgorithm::Sm2;
  out.publicX.assign(pair.publicKey.x, pair.publicKey.x + 32);
  out.publicY.assign(pair.publicKey.y, pair.publicKey.y + 32);
  if (!seal(tokenKey, pair.d.data(), pair.d.size(), out.sealedPrivate)) return false;
  record = std::move(out);
  return true;
}

bool storeRsa(const TokenKey &tokenKey, const crypto::RsaPrivateKey &key, KeyPairRecord &record) {
  KeyPairRecord out;
  out.algorithm = KeyAlgorithm::Rsa;
  out.modulus = key.publicKey.n;
  out.exponent = key.publicKey.e;
  stripLeadingZeros(out.modulus);
  stripLeadingZeros(out.exponent);
  ByteWriter w;
  for (const SecureBytes *part : {&key.d, &key.p, &key.q, &key.dp, &key.dq, &key.qinv}) {
    w.bytes(*part);
  }
  if (!seal(tokenKey, w.data().data(), w.data().size(), out.sealedPrivate)) return false;
  record = std::move(out);
  return true;
}

bool loadSm2(const TokenKey &tokenKey, const KeyPairRecord &record, SecureArray<32> &d) {
  if (record.algorithm != KeyAlgorithm::Sm2) return false;
  SecureBytes plain;
  if (!open(tokenKey, record.sealedPrivate, plain) || plain.size() != 32) return false;
  memcpy(d.data(), plain.data(), 32);
  return true;
}

bool loadRsa(const TokenKey &tokenKey, const KeyPairRecord &record, crypto::RsaPrivateKey &key) {
  if (record.algorithm != KeyAlgorithm::Rsa) return false;
  SecureBytes plain;
  if (!open(tokenKey, record.sealedPrivate, plain)) return false;
  ByteReader r(plain.data(), plain.size());
  key.publicKey = rsaPublic(record);
  return r.bytes(key.d, 512) && r.bytes(key.p, 512) && r.bytes(key.q, 512) &&
         r.bytes(key.dp, 512) && r.bytes(key.dq, 512) && r.bytes(key.qinv, 512) && r.atEnd();
}

crypto::Sm2PublicKey sm2Public(const KeyPairRecord &record) {
  crypto::Sm2PublicKey pub = {};
  if (record.publicX.size() == 32 && record.publicY.size() == 32) {
    memcpy(pub.x, record.publicX.data(), 32);
    memcpy(pub.y, record.publicY.data(), 32);
  }
  return pub;
}

crypto::RsaPublicKey rsaPublic(const KeyPairRecord &record) {
  crypto::RsaPublicKey pub;
  pub.n = record.modulus;
  pub.e = record.exponent;
  return pub;
}

uint32_t bitLength(const std::vector<uint8_t> &value) {
  size_t i = 0;
  while (i < value.size() && value[i] == 0) ++i;
  if (i == value.size()) return 0;
  uint32_t bits = static_cast<uint32_t>((value.size() - i) * 8);
  for (uint8_t top = value[i]; (top & 0x80) == 0; top = static_cast<uint8_t>(top << 1)) --bits;
  return bits;
}

void fillEccBlob(const KeyPairRecord &record, ECCPUBLICKEYBLOB &blob) {
  memset(&blob, 0, sizeof blob);
  blob.BitLen = 256;
  if (record.publicX.size() == 32) memcpy(blob.XCoordinate + 32, record.publicX.data(), 32);
  if (record.publicY.size() == 32) memcpy(blob.YCoordinate + 32, record.publicY.data(), 32);
}

bool fillRsaBlob(const KeyPairRecord &record, RSAPUBLICKEYBLOB &blob) {
  memset(&blob, 0, sizeof blob);
  if (record.modulus.empty() || record.exponent.empty()) return false;
  if (record.modulus.size() > MAX_RSA_MODULUS_LEN || record.exponent.size() > 4) return false;
  blob.AlgID = SGD_RSA;
  blob.BitLen = bitLength(record.modulus);
  memcpy(blob.Modulus + MAX_RSA_MODULUS_LEN - record.modulus.size(), record.modulus.data(),
         record.modulus.size());
  memcpy(blob.PublicExponent + 4 - record.exponent.size(), record.exponent.data(),
         record.exponent.size());
  return true;
}

bool parseRsaPrivateKeyDer(const uint8_t *der, size_t len, crypto::RsaPrivateKey &key) {
  if (der == nullptr) return false;
  const uint8_t *p = der, *end = der + len;
  const uint8_t *seq;
  size_t seqLen;
  if (!derElement(p, end, 0x30, seq, seqLen) || p != end) return false;
  const uint8_t *q = seq, *seqEnd = seq + seqLen;
  SecureBytes version, n, e;
  if (!derInteger(q, seqEnd, version) || version.size() != 1 || version[0] != 0) return false;
  if (!derInteger(q, seqEnd, n) || !derInteger(q, seqEnd, e) || !derInteger(q, seqEnd, key.d) ||
      !derInteger(q, seqEnd, key.p) || !derInteger(q, seqEnd, key.q) ||
      !derInteger(q, seqEnd, key.dp) || !derInteger(q, seqEnd, key.dq) ||
      !derInteger(q, seqEnd, key.qinv) || q != seqEnd) {
    return false;
  }
  key.publicKey.n.assign(n.data(), n.data() + n.size());
  key.publicKey.e.assign(e.data(), e.data() + e.size());
  return true;
}

}  // namespace softskf
}  // namespace tembra
