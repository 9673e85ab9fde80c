#include "softskf/api/blob_forms.h"

#include <string.h>

#include "crypto/sm2_kdf.h"

namespace tembra {
namespace softskf {

namespace {

const size_t kCoordinate = 32;
const size_t kField = ECC_MAX_XCOORDINATE_BITS_LEN / 8;

// The value of the last `len` bytes of a right-aligned field, without
// leading zero bytes; false if a byte before them is set.
template <typename Out>
bool rightAligned(const BYTE *field, size_t fieldLen, size_t len, Out &out) {
  if (len > fieldLen || !crypto::allZero(field, fieldLen - len)) return false;
  const BYTE *p = field + (fieldLen - len);
  size_t skip = 0;
  while (skip < len && p[skip] == 0) ++skip;
  out.assign(p + skip, p + len);
  return true;
}

bool put(const uint8_t *value, size_t len, BYTE *field, size_t fieldLen) {
  while (len > 0 && *value == 0) {
    ++value;
    --len;
  }
  if (len > fieldLen) return false;
  memcpy(field + (fieldLen - len), value, len);
  return true;
}

size_t rsaModulusBytes(ULONG bitLen) {
  return bitLen == 1024 || bitLen == 2048 ? bitLen / 8 : 0;
}

// SecureBytes has no iterator-pair assign; this adapter gives it one.
struct SecureOut {
  SecureBytes &bytes;
  void assign(const uint8_t *b, const uint8_t *e) { bytes.assign(b, static_cast<size_t>(e - b)); }
};

}  // namespace

bool eccPublicFromBlob(const ECCPUBLICKEYBLOB *blob, crypto::Sm2PublicKey &key) {
  if (blob == nullptr || blob->BitLen != 256) return false;
  if (!crypto::allZero(blob->XCoordinate, kField - kCoordinate) ||
      !crypto::allZero(blob->YCoordinate, kField - kCoordinate)) {
    return false;
  }
  memcpy(key.x, blob->XCoordinate + kField - kCoordinate, kCoordinate);
  memcpy(key.y, blob->YCoordinate + kField - kCoordinate, kCoordinate);
  return crypto::sm2ValidatePublic(key);
}

void eccBlobFromPublic(const crypto::Sm2PublicKey &key, ECCPUBLICKEYBLOB &blob) {
  memset(&blob, 0, sizeof blob);
  blob.BitLen = 256;
  memcpy(blob.XCoordinate + kField - kCoordinate, key.x, kCoordinate);
  memcpy(blob.YCoordinate + kField - kCoordinate, key.y, kCoordinate);
}

bool eccPrivateFromBlob(const ECCPRIVATEKEYBLOB *blob, SecureArray<32> &d) {
  if (blob == nullptr || blob->BitLen != 256) return false;
  if (!crypto::allZero(blob->PrivateKey, kField - kCoordinate)) return false;
  memcpy(d.data(), blob->PrivateKey + kField - kCoordinate, kCoordinate);
  return true;
}

bool eccCipherToFlat(const ECCCIPHERBLOB *blob, ULONG maxLen, std::vector<uint8_t> &flat) {
  if (blob == nullptr || blob->CipherLen > maxLen) return false;
  if (!crypto::allZero(blob->XCoordinate, kField - kCoordinate) ||
      !crypto::allZero(blob->YCoordinate, kField - kCoordinate)) {
    return false;
  }
  const size_t len = blob->CipherLen;
  flat.assign(crypto::kSm2CipherOverhead + len, 0);
  flat[0] = 0x04;
  memcpy(&flat[1], blob->XCoordinate + kField - kCoordinate, kCoordinate);
  memcpy(&flat[33], blob->YCoordinate + kField - kCoordinate, kCoordinate);
  if (len > 0) memcpy(&flat[65], blob->Cipher, len);
  memcpy(&flat[65 + len], blob->HASH, 32);
  return true;
}

void eccCipherFromFlat(const std::vector<uint8_t> &flat, ECCCIPHERBLOB *blob) {
  const size_t len = flat.size() - crypto::kSm2CipherOverhead;
  memset(blob, 0, sizeof(ECCCIPHERBLOB) - 1);
  memcpy(blob->XCoordinate + kField - kCoordinate, &flat[1], kCoordinate);
  memcpy(blob->YCoordinate + kField - kCoordinate, &flat[33], kCoordinate);
  memcpy(blob->HASH, &flat[65 + len], 32);
  blob->CipherLen = static_cast<ULONG>(len);
  if (len > 0) memcpy(blob->Cipher, &flat[65], len);
}

bool rsaPublicFromBlob(const RSAPUBLICKEYBLOB *blob, crypto::RsaPublicKey &key) {
  if (blob == nullptr) return false;
  const size_t k = rsaModulusBytes(blob->BitLen);
  if (k == 0 || !rightAligned(blob->Modulus, sizeof blob->Modulus, k, key.n) ||
      !rightAligned(blob->PublicExponent, sizeof blob->PublicExponent, 4, key.e)) {
    return false;
  }
  return key.n.size() == k && (key.n.back() & 1) != 0 && !key.e.empty();
}

bool rsaPrivateFromBlob(const RSAPRIVATEKEYBLOB *blob, crypto::RsaPrivateKey &key) {
  if (blob == nullptr) return false;
  const size_t k = rsaModulusBytes(blob->BitLen);
  if (k == 0) return false;
  RSAPUBLICKEYBLOB pub;
  pub.AlgID = blob->AlgID;
  pub.BitLen = blob->BitLen;
  memcpy(pub.Modulus, blob->Modulus, sizeof pub.Modulus);
  memcpy(pub.PublicExponent, blob->PublicExponent, sizeof pub.PublicExponent);
  if (!rsaPublicFromBlob(&pub, key.publicKey)) return false;
  SecureOut d{key.d}, p{key.p}, q{key.q}, dp{key.dp}, dq{key.dq}, qinv{key.qinv};
  const size_t half = sizeof blob->Prime1;
  if (!rightAligned(blob->PrivateExponent, sizeof blob->PrivateExponent, k, d) ||
      !rightAligned(blob->Prime1, half, k / 2, p) || !rightAligned(blob->Prime2, half, k / 2, q) ||
      !rightAligned(blob->Prime1Exponent, half, k / 2, dp) ||
      !rightAligned(blob->Prime2Exponent, half, k / 2, dq) ||
      !rightAligned(blob->Coefficient, half, k / 2, qinv)) {
    return false;
  }
  return !key.d.empty();
}

bool rsaBlobFromPrivate(const crypto::RsaPrivateKey &key, RSAPRIVATEKEYBLOB &blob) {
  memset(&blob, 0, sizeof blob);
  const crypto::RsaPublicKey &pub = key.publicKey;
  blob.AlgID = SGD_RSA;
  blob.BitLen = static_cast<ULONG>(pub.n.size() * 8);
  const size_t half = sizeof blob.Prime1;
  return put(pub.n.data(), pub.n.size(), blob.Modulus, sizeof blob.Modulus) &&
         put(pub.e.data(), pub.e.size(), blob.PublicExponent, sizeof blob.PublicExponent) &&
         put(key.d.data(), key.d.size(), blob.PrivateExponent, sizeof blob.PrivateExponent) &&
         put(key.p.data(), key.p.size(), blob.Prime1, half) &&
         put(key.q.data(), key.q.size(), blob.Prime2, half) &&
         put(key.dp.data(), key.dp.size(), blob.Prime1Exponent, half) &&
         put(key.dq.data(), key.dq.size(), blob.Prime2Exponent, half) &&
         put(key.qinv.data(), key.qinv.size(), blob.Coefficient, half);
}

}  // namespace softskf
}  // namespace tembra
