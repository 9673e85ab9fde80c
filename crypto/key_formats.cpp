#include "crypto/key_formats.h"

#include <string.h>

#include <cstddef>

#include "crypto/der.h"

namespace tembra {
namespace crypto {

const char kOidRsaEncryption[] = "1.2.840.113549.1.1.1";
const char kOidEcPublicKey[] = "1.2.840.10045.2.1";
const char kOidSm2Curve[] = "1.2.156.10197.1.301";
const char kOidSm2WithSm3[] = "1.2.156.10197.1.501";
const char kOidSha256WithRsa[] = "1.2.840.113549.1.1.11";

namespace {

using der::Bytes;

Bytes oidOf(const char *dotted) {
  Bytes out;
  der::oid(dotted, out);  // the constants above are well-formed
  return out;
}

Bytes oidContent(const char *dotted) {
  Bytes full = oidOf(dotted);
  return Bytes(full.begin() + 2, full.end());  // all our identifiers are short
}

Bytes stripZeros(const Bytes &value) {
  size_t i = 0;
  while (i + 1 < value.size() && value[i] == 0) ++i;
  return Bytes(value.begin() + static_cast<std::ptrdiff_t>(i), value.end());
}

bool isZero(const Bytes &value) {
  for (uint8_t b : value) {
    if (b != 0) return false;
  }
  return true;
}

// Reads SEQUENCE { AlgorithmIdentifier, BIT STRING } and returns the
// algorithm OID, the raw parameter element (tag 0 when absent) and the key.
bool readSpki(const uint8_t *data, size_t len, Bytes &algorithm, der::Element &parameters,
              Bytes &key) {
  der::Reader outer(data, len);
  der::Reader spki;
  der::Reader algo;
  if (!outer.enterSequence(spki) || !outer.finished()) return false;
  if (!spki.enterSequence(algo) || !algo.readOid(algorithm)) return false;
  parameters = der::Element();
  if (!algo.atEnd() && !algo.next(parameters)) return false;
  if (!algo.finished()) return false;
  if (!spki.readBitString(key) || !spki.finished()) return false;
  return true;
}

bool setBigEndian(const Bytes &value, std::vector<uint8_t> &out) {
  out = stripZeros(value);
  return true;
}

template <typename Out>
void assignStripped(const Bytes &value, Out &out) {
  Bytes stripped = stripZeros(value);
  out.resize(stripped.size());
  if (!stripped.empty()) memcpy(out.data(), stripped.data(), stripped.size());
  secureZero(stripped.data(), stripped.size());
}

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

KeyAlgorithm spkiAlgorithm(const uint8_t *data, size_t len) {
  Bytes algorithm, key;
  der::Element parameters;
  if (data == nullptr || !readSpki(data, len, algorithm, parameters, key)) {
    return KeyAlgorithm::kUnknown;
  }
  if (algorithm == oidContent(kOidRsaEncryption)) return KeyAlgorithm::kRsa;
  if (algorithm == oidContent(kOidEcPublicKey) && parameters.tag == der::kTagOid &&
      Bytes(parameters.content, parameters.content + parameters.length) ==
          oidContent(kOidSm2Curve)) {
    return KeyAlgorithm::kSm2;
  }
  return KeyAlgorithm::kUnknown;
}

bool encodeRsaPublicKey(const RsaPublicKey &key, std::vector<uint8_t> &out) {
  if (key.n.empty() || key.e.empty() || isZero(key.n) || isZero(key.e)) return false;
  out = der::sequence({der::integer(key.n), der::integer(key.e)});
  return true;
}

bool decodeRsaPublicKey(const uint8_t *data, size_t len, RsaPublicKey &key) {
  if (data == nullptr) return false;
  der::Reader outer(data, len);
  der::Reader seq;
  Bytes n, e;
  if (!outer.enterSequence(seq) || !outer.finished()) return false;
  if (!seq.readUnsignedInteger(n) || !seq.readUnsignedInteger(e) || !seq.finished()) return false;
  if (isZero(n) || isZero(e)) return false;
  RsaPublicKey result;
  setBigEndian(n, result.n);
  setBigEndian(e, result.e);
  key = std::move(result);
  return true;
}

bool encodeRsaSpki(const RsaPublicKey &key, std::vector<uint8_t> &out) {
  Bytes rsaKey;
  if (!encodeRsaPublicKey(key, rsaKey)) return false;
  out = der::sequence(
      {der::sequence({oidOf(kOidRsaEncryption), der::null()}), der::bitString(rsaKey)});
  return true;
}

bool decodeRsaSpki(const uint8_t *data, size_t len, RsaPublicKey &key) {
  Bytes algorithm, rsaKey;
  der::Element parameters;
  if (data == nullptr || !readSpki(data, len, algorithm, parameters, rsaKey)) return false;
  if (algorithm != oidContent(kOidRsaEncryption)) return false;
  // The parameters must be NULL (RFC 3279).
  if (parameters.tag != der::kTagNull || parameters.length != 0) return false;
  return decodeRsaPublicKey(rsaKey.data(), rsaKey.size(), key);
}

bool encodeSm2Spki(const Sm2PublicKey &key, std::vector<uint8_t> &out) {
  Bytes point;
  point.reserve(1 + 2 * kSm2ScalarSize);
  point.push_back(0x04);
  point.insert(point.end(), key.x, key.x + kSm2ScalarSize);
  point.insert(point.end(), key.y, key.y + kSm2ScalarSize);
  out = der::sequence(
      {der::sequence({oidOf(kOidEcPublicKey), oidOf(kOidSm2Curve)}), der::bitString(point)});
  return true;
}

bool decodeSm2Spki(const uint8_t *data, size_t len, Sm2PublicKey &key) {
  Bytes algorithm, point;
  der::Element parameters;
  if (data == nullptr || !readSpki(data, len, algorithm, parameters, point)) return false;
  if (algorithm != oidContent(kOidEcPublicKey) || parameters.tag != der::kTagOid ||
      Bytes(parameters.content, parameters.content + parameters.length) !=
          oidContent(kOidSm2Curve)) {
    return false;
  }
  if (point.size() != 1 + 2 * kSm2ScalarSize || point[0] != 0x04) return false;
  Sm2PublicKey result;
  memcpy(result.x, point.data() + 1, kSm2ScalarSize);
  memcpy(result.y, point.data() + 1 + kSm2ScalarSize, kSm2ScalarSize);
  if (!sm2ValidatePublic(result)) return false;
  key = result;
  return true;
}

bool encodeSm2Signature(const uint8_t r[kSm2ScalarSize], const uint8_t s[kSm2ScalarSize],
                        std::vector<uint8_t> &out) {
  if (r == nullptr || s == nullptr) return false;
  out = der::sequence({der::integer(r, kSm2ScalarSize), der::integer(s, kSm2ScalarSize)});
  return true;
}

bool decodeSm2Signature(const uint8_t *data, size_t len, uint8_t r[kSm2ScalarSize],
                        uint8_t s[kSm2ScalarSize]) {
  if (data == nullptr || r == nullptr || s == nullptr || len > kSm2SignatureDerMax) return false;
  der::Reader outer(data, len);
  der::Reader seq;
  uint8_t rr[kSm2ScalarSize], ss[kSm2ScalarSize];
  if (!outer.enterSequence(seq) || !outer.finished()) return false;
  if (!seq.readUnsignedInteger(rr, kSm2ScalarSize) ||
      !seq.readUnsignedInteger(ss, kSm2ScalarSize) || !seq.finished()) {
    return false;
  }
  const Bytes zero(kSm2ScalarSize, 0);
  if (memcmp(rr, zero.data(), kSm2ScalarSize) == 0 ||
      memcmp(ss, zero.data(), kSm2ScalarSize) == 0) {
    return false;
  }
  memcpy(r, rr, kSm2ScalarSize);
  memcpy(s, ss, kSm2ScalarSize);
  return true;
}

bool encodeRsaPrivateKey(const RsaPrivateKey &key, SecureBytes &out) {
  const RsaPublicKey &pub = key.publicKey;
  if (pub.n.empty() || pub.e.empty() || key.d.empty() || key.p.empty() || key.q.empty() ||
      key.dp.empty() || key.dq.empty() || key.qinv.empty()) {
    return false;
  }
  std::vector<Bytes> parts;
  parts.push_back(der::integer(int64_t{0}));
  parts.push_back(der::integer(pub.n));
  parts.push_back(der::integer(pub.e));
  for (const SecureBytes *secret : {&key.d, &key.p, &key.q, &key.dp, &key.dq, &key.qinv}) {
    parts.push_back(der::integer(secret->data(), secret->size()));
  }
  Bytes encoded = der::sequence(parts);
  out.assign(encoded.data(), encoded.size());
  secureZero(encoded.data(), encoded.size());
  for (Bytes &part : parts) secureZero(part.data(), part.size());
  return true;
}

bool decodeRsaPrivateKey(const uint8_t *data, size_t len, RsaPrivateKey &key) {
  if (data == nullptr) return false;
  der::Reader outer(data, len);
  der::Reader seq;
  int64_t version = -1;
  if (!outer.enterSequence(seq) || !outer.finished()) return false;
  if (!seq.readSmallInteger(version) || version != 0) return false;
  Bytes values[8];
  for (Bytes &value : values) {
    if (!seq.readUnsignedInteger(value)) {
      for (Bytes &v : values) secureZero(v.data(), v.size());
      return false;
    }
  }
  bool ok = seq.finished() && !isZero(values[0]) && !isZero(values[1]) && !isZero(values[2]);
  if (ok) {
    RsaPrivateKey result;
    setBigEndian(values[0], result.publicKey.n);
    setBigEndian(values[1], result.publicKey.e);
    assignStripped(values[2], result.d);
    assignStripped(values[3], result.p);
    assignStripped(values[4], result.q);
    assignStripped(values[5], result.dp);
    assignStripped(values[6], result.dq);
    assignStripped(values[7], result.qinv);
    key = std::move(result);
  }
  for (Bytes &v : values) secureZero(v.data(), v.size());
  return ok;
}

std::string pemArmour(const char *label, const uint8_t *data, size_t len) {
  std::string body;
  body.reserve((len + 2) / 3 * 4);
  for (size_t i = 0; i < len; i += 3) {
    const uint32_t b0 = data[i];
    const uint32_t b1 = i + 1 < len ? data[i + 1] : 0;
    const uint32_t b2 = i + 2 < len ? data[i + 2] : 0;
    const uint32_t triple = (b0 << 16) | (b1 << 8) | b2;
    body += kBase64[(triple >> 18) & 0x3F];
    body += kBase64[(triple >> 12) & 0x3F];
    body += i + 1 < len ? kBase64[(triple >> 6) & 0x3F] : '=';
    body += i + 2 < len ? kBase64[triple & 0x3F] : '=';
  }
  std::string out = std::string("-----BEGIN ") + label + "-----\n";
  for (size_t i = 0; i < body.size(); i += 64) out += body.substr(i, 64) + "\n";
  out += std::string("-----END ") + label + "-----\n";
  return out;
}

bool pemUnarmour(const std::string &text, const char *label, std::vector<uint8_t> &out) {
  if (label == nullptr) return false;
  const std::string begin = std::string("-----BEGIN ") + label + "-----";
  const std::string end = std::string("-----END ") + label + "-----";
  const size_t start = text.find(begin);
  if (start == std::string::npos) return false;
  const size_t bodyStart = start + begin.size();
  const size_t stop = text.find(end, bodyStart);
  if (stop == std::string::npos) return false;
  Bytes decoded;
  uint32_t accumulator = 0;
  int bits = 0;
  int padding = 0;
  for (size_t i = bodyStart; i < stop; ++i) {
    const char c = text[i];
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int v = base64Value(c);
    if (v < 0 || padding > 0) return false;  // no data after padding
    accumulator = (accumulator << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      decoded.push_back(static_cast<uint8_t>((accumulator >> bits) & 0xFF));
    }
  }
  // Complete quanta only: no leftover bits without padding, 4 with "==",
  // 2 with "=".
  if (padding > 2 || (bits == 0 && padding != 0) || (bits == 4 && padding != 2) ||
      (bits == 2 && padding != 1) || bits == 6) {
    return false;
  }
  if (decoded.empty()) return false;
  out = std::move(decoded);
  return true;
}

}  // namespace crypto
}  // namespace tembra
