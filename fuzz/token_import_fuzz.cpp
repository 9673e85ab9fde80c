// Fuzz target: the software token's enveloped key pair import,
// SKF_ImportECCKeyPair and SKF_ImportRSAKeyPair, on containers holding a
// signature key pair, with the user logged in.
//
// Input: one mode byte, then the payload. Bit 0 picks the call (0 ECC,
// 1 RSA). Bit 1 clear: the payload is the raw argument bytes (ECC: the
// ENVELOPEDKEYBLOB; RSA: a 4-byte algorithm id, a 2-byte wrapped-key length,
// the wrapped key and the encrypted key pair). Bit 1 set: the payload is a
// 16-byte SM4 key and the key pair in clear (ECC: the 64-byte private key
// field, then the public x and y; RSA: the DER private key), enveloped here
// under the container's signature key, so that inputs reach the parsing of
// what the token unwraps.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "crypto/backend.h"
#include "fuzz/fuzz_limits.h"
#include "fuzz/fuzz_store.h"
#include "platform/skf.h"
#include "softskf/provision/container_keys.h"

namespace {

using tembra::provision::KeyKind;
namespace crypto = tembra::crypto;

struct Token {
  HCONTAINER sm2 = nullptr, rsa = nullptr;
  crypto::Sm2PublicKey sm2Key;
  crypto::RsaPublicKey rsaKey;
};

Token &token() {
  static Token t = [] {
    tembra::provision::DeviceSpec layout;
    layout.name = "F";
    tembra::provision::ApplicationSpec app;
    app.name = "A";
    app.containers = {{"S", KeyKind::Sm2, true, false, false},
                      {"R", KeyKind::Rsa1024, true, false, false}};
    layout.applications = {app};
    fuzzstore::provisionStore(layout);
    Token made;
    DEVHANDLE dev = nullptr;
    HAPPLICATION hApp = nullptr;
    ULONG retries = 0;
    if (SKF_ConnectDev(const_cast<LPSTR>("F"), &dev) != SAR_OK ||
        SKF_OpenApplication(dev, const_cast<LPSTR>("A"), &hApp) != SAR_OK ||
        SKF_VerifyPIN(hApp, USER_TYPE, const_cast<LPSTR>("12345678"), &retries) != SAR_OK ||
        SKF_OpenContainer(hApp, const_cast<LPSTR>("S"), &made.sm2) != SAR_OK ||
        SKF_OpenContainer(hApp, const_cast<LPSTR>("R"), &made.rsa) != SAR_OK ||
        tembra::provision::exportSm2PublicKey(made.sm2, true, made.sm2Key) != SAR_OK ||
        tembra::provision::exportRsaPublicKey(made.rsa, true, made.rsaKey) != SAR_OK) {
      abort();
    }
    return made;
  }();
  return t;
}

// The payload, zero-extended to at least `size` bytes.
std::vector<uint8_t> padded(const uint8_t *data, size_t len, size_t size) {
  std::vector<uint8_t> bytes(data, data + len);
  if (bytes.size() < size) bytes.resize(size, 0);
  return bytes;
}

void importEcc(const Token &t, bool envelope, const uint8_t *data, size_t len) {
  // Cipher[] runs 15 bytes past the structure for the 16-byte wrapped key.
  std::vector<uint8_t> storage(sizeof(ENVELOPEDKEYBLOB) + 15, 0);
  ENVELOPEDKEYBLOB *blob = reinterpret_cast<ENVELOPEDKEYBLOB *>(storage.data());
  if (!envelope) {
    memcpy(storage.data(), data, len < storage.size() ? len : storage.size());
  } else {
    const std::vector<uint8_t> in = padded(data, len, 16 + 64 + 64);
    const uint8_t *key = in.data();
    std::vector<uint8_t> wrapped;
    if (!crypto::sm2Encrypt(t.sm2Key, key, 16, wrapped) || wrapped.size() != 97 + 16) return;
    blob->Version = 1;
    blob->ulSymmAlgID = SGD_SMS4_ECB;
    blob->ulBits = 256;
    if (!crypto::sm4Ecb(true, key, in.data() + 16, 64, blob->cbEncryptedPriKey)) return;
    blob->PubKey.BitLen = 256;
    memcpy(blob->PubKey.XCoordinate + 32, in.data() + 80, 32);
    memcpy(blob->PubKey.YCoordinate + 32, in.data() + 112, 32);
    ECCCIPHERBLOB *cipher = &blob->ECCCipherBlob;
    memcpy(cipher->XCoordinate + 32, wrapped.data() + 1, 32);
    memcpy(cipher->YCoordinate + 32, wrapped.data() + 33, 32);
    memcpy(cipher->HASH, wrapped.data() + 81, 32);
    cipher->CipherLen = 16;
    memcpy(cipher->Cipher, wrapped.data() + 65, 16);
  }
  SKF_ImportECCKeyPair(t.sm2, blob);
}

void importRsa(const Token &t, bool envelope, const uint8_t *data, size_t len) {
  if (!envelope) {
    const std::vector<uint8_t> in = padded(data, len, 6);
    ULONG algorithm;
    memcpy(&algorithm, in.data(), 4);
    size_t wrappedLen = static_cast<size_t>(in[4]) | static_cast<size_t>(in[5]) << 8;
    if (wrappedLen > in.size() - 6) wrappedLen = in.size() - 6;
    std::vector<uint8_t> wrapped(in.begin() + 6, in.begin() + 6 + wrappedLen);
    std::vector<uint8_t> encrypted(in.begin() + 6 + wrappedLen, in.end());
    wrapped.push_back(0);  // never a null pointer, even for length 0
    encrypted.push_back(0);
    SKF_ImportRSAKeyPair(t.rsa, algorithm, wrapped.data(), static_cast<ULONG>(wrappedLen),
                         encrypted.data(), static_cast<ULONG>(encrypted.size() - 1));
    return;
  }
  const std::vector<uint8_t> in = padded(data, len, 16);
  std::vector<uint8_t> wrapped;
  tembra::SecureBytes encrypted;
  if (!crypto::rsaEncryptPkcs1(t.rsaKey, in.data(), 16, wrapped) ||
      !crypto::sm4EcbPadded(true, in.data(), in.data() + 16, in.size() - 16, encrypted)) {
    return;
  }
  SKF_ImportRSAKeyPair(t.rsa, SGD_SMS4_ECB, wrapped.data(), static_cast<ULONG>(wrapped.size()),
                       encrypted.data(), static_cast<ULONG>(encrypted.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1 || size > kMaxFuzzInput) return 0;
  const Token &t = token();
  const bool envelope = (data[0] & 2) != 0;
  if ((data[0] & 1) == 0) {
    importEcc(t, envelope, data + 1, size - 1);
  } else {
    importRsa(t, envelope, data + 1, size - 1);
  }
  return 0;
}
