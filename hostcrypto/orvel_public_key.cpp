// Public key objects of the pseudo device and encryption under them.
#include <new>
#include <vector>

#include "crypto/backend.h"
#include "crypto/key_formats.h"
#include "fault_switch.h"
#include "host_memory.h"
#include "hostcrypto/include/orvel_test.h"
#include "orvel_objects.h"

namespace {

using tembra::hostcrypto::faultHit;
using tembra::hostcrypto::guarded;
using tembra::hostcrypto::PublicKeyObject;
namespace crypto = tembra::crypto;

constexpr int kAlgorithmRsaPkcs1Encrypt = 0x10;
constexpr int kAlgorithmSm2Encrypt = 0x40;
constexpr int kAlgorithmSm3 = 0x7000;

bool validPublicKey(const void *p) {
  return p != nullptr &&
         static_cast<const PublicKeyObject *>(p)->tag == tembra::hostcrypto::kPublicKeyTag;
}

}  // namespace

extern "C" {

ORVEL_CRYPTO_API int OrvelPKICryptoImportPublicKey(ORVEL_PKI_DEVICE device, const unsigned char *in,
                                                   int inLen, ORVEL_PKI_PUBLICKEY *publicKey) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoImportPublicKey", fault)) return fault;
  if (!tembra::hostcrypto::validDevice(device) || in == nullptr || inLen <= 0 ||
      publicKey == nullptr) {
    return 0;
  }
  return guarded(0, [&] {
    const size_t len = static_cast<size_t>(inLen);
    PublicKeyObject object;
    object.algorithm = crypto::spkiAlgorithm(in, len);
    switch (object.algorithm) {
      case crypto::KeyAlgorithm::kRsa:
        if (!crypto::decodeRsaSpki(in, len, object.rsa)) return 0;
        break;
      case crypto::KeyAlgorithm::kSm2:
        if (!crypto::decodeSm2Spki(in, len, object.sm2)) return 0;
        break;
      default:
        return 0;
    }
    auto *made = new (std::nothrow) PublicKeyObject(std::move(object));
    if (made == nullptr) return 0;
    *publicKey = made;
    return 1;
  });
}

ORVEL_CRYPTO_API int OrvelPKICryptoFreePublicKey(ORVEL_PKI_PUBLICKEY publicKey) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoFreePublicKey", fault)) return fault;
  if (publicKey == nullptr) return 1;
  if (!validPublicKey(publicKey)) return 0;
  auto *object = static_cast<PublicKeyObject *>(publicKey);
  object->tag = tembra::hostcrypto::kDeadTag;
  delete object;
  return 1;
}

ORVEL_CRYPTO_API int OrvelPKICryptoPublicKeyEncrypt(ORVEL_PKI_PUBLICKEY publicKey, int algo,
                                                    const void *param, const unsigned char *in,
                                                    int inLen, unsigned char **out, int *outLen) {
  int fault = 0;
  if (faultHit("OrvelPKICryptoPublicKeyEncrypt", fault)) return fault;
  if (!validPublicKey(publicKey) || in == nullptr || inLen <= 0 || out == nullptr ||
      outLen == nullptr) {
    return 0;
  }
  const auto *object = static_cast<const PublicKeyObject *>(publicKey);
  return guarded(0, [&] {
    std::vector<uint8_t> cipher;
    const size_t len = static_cast<size_t>(inLen);
    if (object->algorithm == crypto::KeyAlgorithm::kSm2) {
      // The hash of the SM2 ciphertext must be named, and only SM3 exists.
      if (algo != kAlgorithmSm2Encrypt || param == nullptr ||
          *static_cast<const int *>(param) != kAlgorithmSm3) {
        return 0;
      }
      if (!crypto::sm2Encrypt(object->sm2, in, len, cipher)) return 0;
    } else if (object->algorithm == crypto::KeyAlgorithm::kRsa) {
      if (algo != kAlgorithmRsaPkcs1Encrypt) return 0;
      if (!crypto::rsaEncryptPkcs1(object->rsa, in, len, cipher)) return 0;
    } else {
      return 0;
    }
    if (cipher.size() > 0x7FFFFFFF) return 0;
    return tembra::hostcrypto::handOut(cipher.data(), cipher.size(), out, outLen) ? 1 : 0;
  });
}

}  // extern "C"
