#include "cli/enveloped_blob.h"

#include "cli/session.h"
#include "crypto/key_formats.h"
#include "crypto/secure_bytes.h"
#include "include/tembra_key_prov.h"

namespace tembra {
namespace cli {
namespace {

void put32(Bytes &out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(value >> shift));
}

void append(Bytes &out, const uint8_t *data, size_t len) {
  out.insert(out.end(), data, data + len);
}

void appendCounted(Bytes &out, const Bytes &data) {
  put32(out, uint32_t(data.size()));
  append(out, data.data(), data.size());
}

}  // namespace

Bytes envelopeKeyPair(const Bytes &recipientSpki, const PrivateKey &key) {
  SecureArray<crypto::kSm4KeySize> symmetric;
  if (!crypto::randomBytes(symmetric.data(), symmetric.size())) {
    throw CliError("no random numbers");
  }
  Bytes payload;
  if (key.sm2) {
    crypto::Sm2PublicKey recipient;
    if (!crypto::decodeSm2Spki(recipientSpki.data(), recipientSpki.size(), recipient)) {
      throw CliError("an SM2 key pair needs an SM2 signature public key");
    }
    Bytes wrapped;
    uint8_t encrypted[crypto::kSm2ScalarSize];
    if (!crypto::sm2Encrypt(recipient, symmetric.data(), symmetric.size(), wrapped) ||
        !crypto::sm4Ecb(true, symmetric.data(), key.sm2Key.d.data(), crypto::kSm2ScalarSize,
                        encrypted)) {
      throw CliError("SM2 enveloping failed");
    }
    put32(payload, ORVEL_PKI_ECC_CURVE_SM2);
    payload.push_back(0x04);
    append(payload, recipient.x, sizeof recipient.x);
    append(payload, recipient.y, sizeof recipient.y);
    put32(payload, ORVEL_PKI_ALGORITHM_SMS4_ECB);
    appendCounted(payload, wrapped);
    payload.push_back(0x04);
    append(payload, key.sm2Key.publicKey.x, sizeof key.sm2Key.publicKey.x);
    append(payload, key.sm2Key.publicKey.y, sizeof key.sm2Key.publicKey.y);
    appendCounted(payload, Bytes(encrypted, encrypted + sizeof encrypted));
  } else {
    crypto::RsaPublicKey recipient;
    if (!crypto::decodeRsaSpki(recipientSpki.data(), recipientSpki.size(), recipient)) {
      throw CliError("an RSA key pair needs an RSA signature public key");
    }
    SecureBytes der, encrypted;
    Bytes wrapped;
    if (!crypto::encodeRsaPrivateKey(key.rsaKey, der) ||
        !crypto::rsaEncryptPkcs1(recipient, symmetric.data(), symmetric.size(), wrapped) ||
        !crypto::sm4EcbPadded(true, symmetric.data(), der.data(), der.size(), encrypted)) {
      throw CliError("RSA enveloping failed");
    }
    appendCounted(payload, recipient.n);
    appendCounted(payload, recipient.e);
    put32(payload, ORVEL_PKI_ALGORITHM_SMS4_ECB);
    appendCounted(payload, wrapped);
    appendCounted(payload, Bytes(encrypted.data(), encrypted.data() + encrypted.size()));
  }
  Bytes blob = {'S', 'C', 'A', 'E', 'N', 'C', 'K', 'P'};
  put32(blob, 1);
  put32(blob, key.sm2 ? ORVEL_PKI_ALGORITHM_ECC : ORVEL_PKI_ALGORITHM_RSA);
  put32(blob, uint32_t(payload.size()));
  append(blob, payload.data(), payload.size());
  return blob;
}

}  // namespace cli
}  // namespace tembra
