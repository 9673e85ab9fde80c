#include "tests/provider_ops/openssl_peer.h"

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

namespace opstest {
namespace peer {
namespace {

struct PkeyFree {
  void operator()(EVP_PKEY *p) const { EVP_PKEY_free(p); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX *p) const { EVP_PKEY_CTX_free(p); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX *p) const { EVP_MD_CTX_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;

Pkey parse(const std::vector<uint8_t> &spki) {
  const unsigned char *p = spki.data();
  return Pkey(d2i_PUBKEY(nullptr, &p, static_cast<long>(spki.size())));
}

bool digestVerify(const std::vector<uint8_t> &spki, const EVP_MD *md, const std::string &message,
                  const std::vector<uint8_t> &signature) {
  Pkey key = parse(spki);
  MdCtx ctx(EVP_MD_CTX_new());
  if (!key || !ctx) return false;
  if (EVP_DigestVerifyInit(ctx.get(), nullptr, md, nullptr, key.get()) != 1) return false;
  return EVP_DigestVerify(ctx.get(), signature.data(), signature.size(),
                          reinterpret_cast<const unsigned char *>(message.data()),
                          message.size()) == 1;
}

// The content of the next DER element of the given tag, advancing `p`.
bool readElement(const unsigned char *&p, long &left, int tag, std::vector<uint8_t> &content) {
  const unsigned char *start = p;
  long length = 0;
  int gotTag = 0;
  int cls = 0;
  const int rv = ASN1_get_object(&p, &length, &gotTag, &cls, left);
  if ((rv & 0x80) != 0 || gotTag != tag || cls != V_ASN1_UNIVERSAL) return false;
  content.assign(p, p + length);
  p += length;
  left -= static_cast<long>(p - start);
  return true;
}

// A DER INTEGER's content as 32 big-endian bytes.
bool fixed32(std::vector<uint8_t> integer, uint8_t out[32]) {
  while (integer.size() > 32 && integer.front() == 0) integer.erase(integer.begin());
  if (integer.size() > 32) return false;
  const size_t pad = 32 - integer.size();
  for (size_t i = 0; i < pad; ++i) out[i] = 0;
  for (size_t i = 0; i < integer.size(); ++i) out[pad + i] = integer[i];
  return true;
}

}  // namespace

std::vector<uint8_t> sha256DigestInfo(const std::string &message) {
  static const uint8_t kPrefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                    0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
  std::vector<uint8_t> info(kPrefix, kPrefix + sizeof(kPrefix));
  unsigned char digest[32];
  unsigned int len = 0;
  EVP_Digest(message.data(), message.size(), digest, &len, EVP_sha256(), nullptr);
  info.insert(info.end(), digest, digest + len);
  return info;
}

bool verifyRsaSha256(const std::vector<uint8_t> &spki, const std::string &message,
                     const std::vector<uint8_t> &signature) {
  return digestVerify(spki, EVP_sha256(), message, signature);
}

bool verifySm2Digest(const std::vector<uint8_t> &spki, const uint8_t digest[32],
                     const std::vector<uint8_t> &signature) {
  Pkey key = parse(spki);
  if (!key || EVP_PKEY_is_a(key.get(), "SM2") != 1) return false;
  PkeyCtx ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
  if (!ctx || EVP_PKEY_verify_init(ctx.get()) != 1) return false;
  return EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), digest, 32) == 1;
}

std::vector<uint8_t> encryptRsa(const std::vector<uint8_t> &spki, const std::string &message) {
  std::vector<uint8_t> cipher;
  Pkey key = parse(spki);
  if (!key) return cipher;
  PkeyCtx ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
  size_t len = 0;
  const auto *in = reinterpret_cast<const unsigned char *>(message.data());
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_encrypt(ctx.get(), nullptr, &len, in, message.size()) != 1) {
    return cipher;
  }
  cipher.resize(len);
  if (EVP_PKEY_encrypt(ctx.get(), cipher.data(), &len, in, message.size()) != 1) return {};
  cipher.resize(len);
  return cipher;
}

std::vector<uint8_t> encryptSm2Flat(const std::vector<uint8_t> &spki, const std::string &message) {
  Pkey key = parse(spki);
  if (!key) return {};
  PkeyCtx ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
  size_t len = 0;
  const auto *in = reinterpret_cast<const unsigned char *>(message.data());
  if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
      EVP_PKEY_encrypt(ctx.get(), nullptr, &len, in, message.size()) != 1) {
    return {};
  }
  std::vector<uint8_t> asn1(len);
  if (EVP_PKEY_encrypt(ctx.get(), asn1.data(), &len, in, message.size()) != 1) return {};
  asn1.resize(len);

  // SEQUENCE { INTEGER x, INTEGER y, OCTET STRING C3, OCTET STRING C2 }
  const unsigned char *p = asn1.data();
  long left = static_cast<long>(asn1.size());
  long seqLen = 0;
  int tag = 0;
  int cls = 0;
  if ((ASN1_get_object(&p, &seqLen, &tag, &cls, left) & 0x80) != 0 || tag != V_ASN1_SEQUENCE) {
    return {};
  }
  left = seqLen;
  std::vector<uint8_t> x, y, c3, c2;
  if (!readElement(p, left, V_ASN1_INTEGER, x) || !readElement(p, left, V_ASN1_INTEGER, y) ||
      !readElement(p, left, V_ASN1_OCTET_STRING, c3) ||
      !readElement(p, left, V_ASN1_OCTET_STRING, c2) || c3.size() != 32) {
    return {};
  }
  std::vector<uint8_t> flat(1 + 64);
  flat[0] = 0x04;
  if (!fixed32(x, flat.data() + 1) || !fixed32(y, flat.data() + 33)) return {};
  flat.insert(flat.end(), c2.begin(), c2.end());
  flat.insert(flat.end(), c3.begin(), c3.end());
  return flat;
}

std::vector<uint8_t> sm3(const std::vector<uint8_t> &data) {
  std::vector<uint8_t> digest(32);
  unsigned int len = 0;
  EVP_MD *md = EVP_MD_fetch(nullptr, "SM3", nullptr);
  if (md == nullptr || EVP_Digest(data.data(), data.size(), digest.data(), &len, md, nullptr) != 1)
    digest.clear();
  EVP_MD_free(md);
  return digest;
}

std::vector<uint8_t> sm4(bool cbc, bool encrypt, const uint8_t key[16], const uint8_t iv[16],
                         const std::vector<uint8_t> &data) {
  std::vector<uint8_t> out(data.size() + 16);
  EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, cbc ? "SM4-CBC" : "SM4-ECB", nullptr);
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  int n1 = 0, n2 = 0;
  const bool ok =
      cipher != nullptr && ctx != nullptr &&
      EVP_CipherInit_ex2(ctx, cipher, key, cbc ? iv : nullptr, encrypt ? 1 : 0, nullptr) == 1 &&
      EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
      EVP_CipherUpdate(ctx, out.data(), &n1, data.data(), static_cast<int>(data.size())) == 1 &&
      EVP_CipherFinal_ex(ctx, out.data() + n1, &n2) == 1;
  EVP_CIPHER_CTX_free(ctx);
  EVP_CIPHER_free(cipher);
  out.resize(ok ? static_cast<size_t>(n1 + n2) : 0);
  return out;
}

}  // namespace peer
}  // namespace opstest
