// EncKeyPairBlob: a plain "_KEYPAIR" blob enveloped for the container of a
// signature key pair, in the "SCAENCKP" layout the importers parse.
//
// The private key is encrypted on the token under a fresh 16-byte key drawn
// from the host's pseudo device; that key is encrypted under the container's
// signature public key by the host library. The private scalar, the private
// key DER, the symmetric key and every plaintext copy are wiped on every
// path. Writes no log line: DeviceImportKeypair reports the failure.
#include <stdlib.h>
#include <string.h>

#include "import/envelope_algorithm.h"
#include "import/host_buffer.h"
#include "import/keypair_container.h"
#include "import/keypair_import.h"
#include "platform/secure_zero.h"
#include "platform/skf.h"
#include "services/block_cipher.h"

namespace {

constexpr int kSymmetricKeyLen = 16;
constexpr int kCoordinate = 32;
constexpr int kFieldOffset = 32;
constexpr int kSm2PlainLen = 32;
constexpr int kSm2PaddedPlainLen = 48;
constexpr int kSm2CipherCapacity = 64;
constexpr int kSm2WrappedKeyLen = 97 + kSymmetricKeyLen;
constexpr int kBlobMargin = 900;
constexpr int kMinKeyPairBlobLen = 17;
constexpr int kMinRsaKeyPairBlobLen = 20;

// A zeroed malloc'ed buffer, freed on every path unless release() hands it
// over.
class OutputBlob {
 public:
  // A length of 0 holds nothing until reset().
  explicit OutputBlob(size_t len)
      : m_data(len > 0 ? static_cast<unsigned char *>(calloc(1, len)) : nullptr) {}
  ~OutputBlob() { free(m_data); }
  OutputBlob(const OutputBlob &) = delete;
  OutputBlob &operator=(const OutputBlob &) = delete;
  unsigned char *data() { return m_data; }
  void reset(size_t len) {
    free(m_data);
    m_data = static_cast<unsigned char *>(calloc(1, len));
  }
  unsigned char *release() {
    unsigned char *p = m_data;
    m_data = nullptr;
    return p;
  }

 private:
  unsigned char *m_data;
};

// Appends to the output blob; the caller sized it for everything written.
class BlobWriter {
 public:
  explicit BlobWriter(unsigned char *out) : m_out(out) {}
  void u32(uint32_t value) {
    writeBigEndian32(m_out + m_pos, value);
    m_pos += 4;
  }
  void byte(unsigned char value) { m_out[m_pos++] = value; }
  void bytes(const unsigned char *data, size_t len) {
    memcpy(m_out + m_pos, data, len);
    m_pos += len;
  }
  size_t pos() const { return m_pos; }
  // The header, with the payload length filled in by finish().
  void header(uint32_t algorithm) {
    bytes(reinterpret_cast<const unsigned char *>("SCAENCKP"), 8);
    u32(1);
    u32(algorithm);
    u32(0);
  }
  int finish() {
    writeBigEndian32(m_out + 16, static_cast<uint32_t>(m_pos - ENVELOPED_HEADER_LEN));
    return static_cast<int>(m_pos);
  }

 private:
  unsigned char *m_out;
  size_t m_pos = 0;
};

// Encrypts `plain` on the token under the symmetric key: SetSymmKey,
// EncryptInit, Encrypt, and the key handle closed whatever happened.
// *outLen is the capacity on entry and the ciphertext length on return.
bool encryptOnToken(const Device *device, unsigned char *key, ULONG skfAlgorithm, int padding,
                    unsigned char *plain, int plainLen, unsigned char *out, ULONG *outLen) {
  HANDLE hKey = nullptr;
  if (SKF_SetSymmKey(device->m_hDev, key, skfAlgorithm, &hKey) != SAR_OK) return false;
  BLOCKCIPHERPARAM param;
  memset(&param, 0, sizeof(param));
  param.PaddingType = static_cast<ULONG>(padding);
  ULONG rv = SKF_EncryptInit(hKey, param);
  if (rv == SAR_OK) rv = SKF_Encrypt(hKey, plain, static_cast<ULONG>(plainLen), out, outLen);
  SKF_CloseHandle(hKey);
  return rv == SAR_OK;
}

// The symmetric key wrapped under a host-encoded public key: SM2 (flat
// C1 C2 C3, SM3) or RSA PKCS #1 v1.5.
bool wrapSymmetricKey(const HostMemory &encoded, bool sm2, const unsigned char *key,
                      HostMemory &wrapped) {
  HostPublicKey publicKey;
  if (OrvelPKICryptoImportPublicKey(g_pseudoDevice, encoded.data(), encoded.len(),
                                    publicKey.out()) != 1) {
    return false;
  }
  const int hash = ORVEL_PKI_ALGORITHM_SM3;
  const int algorithm = sm2 ? ORVEL_PKI_ALGORITHM_SM2_ENC : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC;
  return OrvelPKICryptoPublicKeyEncrypt(publicKey.get(), algorithm, sm2 ? &hash : nullptr, key,
                                        kSymmetricKeyLen, wrapped.out(), wrapped.outLen()) == 1;
}

// The symmetric algorithm and a fresh key for it.
bool drawSymmetricKey(const Device *device, int *hostAlgorithm, ULONG *skfAlgorithm,
                      unsigned char *key) {
  *hostAlgorithm = chooseEnvelopeAlgorithm(device->m_info.AlgSymCap);
  if (*hostAlgorithm == 0) return false;
  const int64_t skf = skfBlockCipherAlgorithm(*hostAlgorithm);
  if (skf <= 0) return false;
  *skfAlgorithm = static_cast<ULONG>(skf);
  return OrvelPKICryptoGenerateRandom(g_pseudoDevice, kSymmetricKeyLen, key) == 1;
}

int envelopeSm2(const Keypair *hSignKeypair, HCONTAINER hContainer, const unsigned char *keyblob,
                int keybloblen, unsigned char **outBlob, int *outLen) {
  int curve = 0;
  HostMemory x, y, d;
  d.wipeOnRelease();
  if (OrvelPKICryptoDecodeECCKeyPair(keyblob, keybloblen, &curve, x.out(), x.outLen(), y.out(),
                                     y.outLen(), d.out(), d.outLen()) != 1) {
    return 0;
  }
  if (curve != ORVEL_PKI_ECC_CURVE_SM2 || x.len() != kCoordinate || y.len() != kCoordinate ||
      d.len() != kCoordinate) {
    return 0;
  }

  tembra::WipedBuffer<kSymmetricKeyLen> key;
  int hostAlgorithm = 0;
  ULONG skfAlgorithm = 0;
  if (!drawSymmetricKey(hSignKeypair->m_device, &hostAlgorithm, &skfAlgorithm, key.bytes)) return 0;

  // d alone, or (with the setting on) 00 01 00 00 | d | twelve 0x0C: the
  // padding is ours, the token adds none.
  tembra::WipedBuffer<kSm2PaddedPlainLen> plain;
  int plainLen = kSm2PlainLen;
  if (g_supportGDKMSM2Import != 0) {
    const uint32_t bits = 256;
    plain.bytes[0] = static_cast<unsigned char>(bits);
    plain.bytes[1] = static_cast<unsigned char>(bits >> 8);
    plain.bytes[2] = static_cast<unsigned char>(bits >> 16);
    plain.bytes[3] = static_cast<unsigned char>(bits >> 24);
    memcpy(plain.bytes + 4, d.data(), kCoordinate);
    memset(plain.bytes + 4 + kCoordinate, 0x0C, kSm2PaddedPlainLen - 4 - kCoordinate);
    plainLen = kSm2PaddedPlainLen;
  } else {
    memcpy(plain.bytes, d.data(), kCoordinate);
  }
  unsigned char encrypted[kSm2CipherCapacity] = {};
  ULONG encryptedLen = sizeof(encrypted);
  const bool encryptedOk = encryptOnToken(hSignKeypair->m_device, key.bytes, skfAlgorithm, 0,
                                          plain.bytes, plainLen, encrypted, &encryptedLen);
  tembra::secureZero(plain.bytes, sizeof(plain.bytes));
  if (!encryptedOk || encryptedLen == 0 || encryptedLen > sizeof(encrypted)) return 0;

  ECCPUBLICKEYBLOB signKey;
  memset(&signKey, 0, sizeof(signKey));
  ULONG signKeyLen = sizeof(signKey);
  if (SKF_ExportPublicKey(hContainer, TRUE, reinterpret_cast<BYTE *>(&signKey), &signKeyLen) !=
      SAR_OK) {
    return 0;
  }
  if (signKey.BitLen != 256) return 0;

  HostMemory encodedSignKey, wrappedKey;
  if (OrvelPKICryptoEncodeECCPubKey(ORVEL_PKI_ECC_CURVE_SM2, &signKey.XCoordinate[kFieldOffset],
                                    kCoordinate, &signKey.YCoordinate[kFieldOffset], kCoordinate,
                                    encodedSignKey.out(), encodedSignKey.outLen()) != 1) {
    return 0;
  }
  if (!wrapSymmetricKey(encodedSignKey, true, key.bytes, wrappedKey)) return 0;
  if (wrappedKey.len() != kSm2WrappedKeyLen) return 0;

  OutputBlob blob(kBlobMargin);
  if (blob.data() == nullptr) return 0;
  BlobWriter writer(blob.data());
  writer.header(ORVEL_PKI_ALGORITHM_ECC);
  writer.u32(ORVEL_PKI_ECC_CURVE_SM2);
  writer.byte(0x04);
  writer.bytes(&signKey.XCoordinate[kFieldOffset], kCoordinate);
  writer.bytes(&signKey.YCoordinate[kFieldOffset], kCoordinate);
  writer.u32(static_cast<uint32_t>(hostAlgorithm));
  writer.u32(kSm2WrappedKeyLen);
  writer.bytes(wrappedKey.data(), static_cast<size_t>(wrappedKey.len()));
  writer.byte(0x04);
  writer.bytes(x.data(), kCoordinate);
  writer.bytes(y.data(), kCoordinate);
  writer.u32(encryptedLen);
  writer.bytes(encrypted, encryptedLen);
  *outLen = writer.finish();
  *outBlob = blob.release();
  return 1;
}

int envelopeRsa(const Keypair *hSignKeypair, HCONTAINER hContainer, const unsigned char *keyblob,
                int keybloblen, unsigned char **outBlob, int *outLen) {
  if (keybloblen < kMinRsaKeyPairBlobLen) return 0;
  const uint32_t modulusLen = readBigEndian32(&keyblob[16]);
  if (modulusLen != 128 && modulusLen != 256) return 0;

  tembra::WipedBuffer<kSymmetricKeyLen> key;
  int hostAlgorithm = 0;
  ULONG skfAlgorithm = 0;
  OutputBlob encrypted(0);
  ULONG encryptedLen = 0;
  int derLen = 0;
  {
    HostMemory der;
    der.wipeOnRelease();
    if (OrvelPKICryptoRSAPrivKeyToDER(keyblob, keybloblen, der.out(), der.outLen()) != 1) return 0;
    if (der.data() == nullptr || der.len() <= 0 || der.len() > 0x7FFFFFFF - kBlobMargin) return 0;
    if (!drawSymmetricKey(hSignKeypair->m_device, &hostAlgorithm, &skfAlgorithm, key.bytes)) {
      return 0;
    }
    // The token pads (PKCS #7): at most one block more than the DER.
    derLen = der.len();
    const ULONG capacity = static_cast<ULONG>(derLen) + 16;
    encrypted.reset(capacity);
    if (encrypted.data() == nullptr) return 0;
    encryptedLen = capacity;
    if (!encryptOnToken(hSignKeypair->m_device, key.bytes, skfAlgorithm, 1,
                        const_cast<unsigned char *>(der.data()), der.len(), encrypted.data(),
                        &encryptedLen) ||
        encryptedLen == 0 || encryptedLen > capacity) {
      return 0;
    }
  }

  RSAPUBLICKEYBLOB signKey;
  memset(&signKey, 0, sizeof(signKey));
  ULONG signKeyLen = sizeof(signKey);
  if (SKF_ExportPublicKey(hContainer, TRUE, reinterpret_cast<BYTE *>(&signKey), &signKeyLen) !=
      SAR_OK) {
    return 0;
  }
  const uint32_t nLen = (signKey.BitLen + 7) / 8;
  if (nLen == 0 || nLen > MAX_RSA_MODULUS_LEN) return 0;
  int leadingZeros = 0;
  while (leadingZeros < MAX_RSA_EXPONENT_LEN && signKey.PublicExponent[leadingZeros] == 0) {
    ++leadingZeros;
  }
  const int eLen = MAX_RSA_EXPONENT_LEN - leadingZeros;
  if (eLen == 0) return 0;
  const unsigned char *modulus = &signKey.Modulus[MAX_RSA_MODULUS_LEN - nLen];

  HostMemory encodedSignKey, wrappedKey;
  if (OrvelPKICryptoEncodeRSAPubKey(modulus, static_cast<int>(nLen), signKey.PublicExponent,
                                    MAX_RSA_EXPONENT_LEN, encodedSignKey.out(),
                                    encodedSignKey.outLen()) != 1) {
    return 0;
  }
  if (!wrapSymmetricKey(encodedSignKey, false, key.bytes, wrappedKey)) return 0;
  if (wrappedKey.len() != static_cast<int>(nLen)) return 0;

  OutputBlob blob(static_cast<size_t>(derLen) + kBlobMargin);
  if (blob.data() == nullptr) return 0;
  BlobWriter writer(blob.data());
  writer.header(ORVEL_PKI_ALGORITHM_RSA);
  writer.u32(nLen);
  writer.bytes(modulus, nLen);
  writer.u32(static_cast<uint32_t>(eLen));
  writer.bytes(&signKey.PublicExponent[leadingZeros], static_cast<size_t>(eLen));
  writer.u32(static_cast<uint32_t>(hostAlgorithm));
  writer.u32(nLen);
  writer.bytes(wrappedKey.data(), nLen);
  writer.u32(encryptedLen);
  writer.bytes(encrypted.data(), encryptedLen);
  *outLen = writer.finish();
  *outBlob = blob.release();
  return 1;
}

}  // namespace

int EncKeyPairBlob(const struct Keypair *hSignKeypair, const unsigned char *keyblob, int keybloblen,
                   unsigned char **outBlob, int *outLen) {
  if (keybloblen < kMinKeyPairBlobLen) return 0;
  const uint32_t algorithm = readBigEndian32(&keyblob[8]);
  if (algorithm != static_cast<uint32_t>(hSignKeypair->m_algo)) return 0;
  HCONTAINER hContainer = keypairContainerHandle(hSignKeypair);
  if (hContainer == nullptr) return 0;
  if (algorithm == ORVEL_PKI_ALGORITHM_ECC) {
    return envelopeSm2(hSignKeypair, hContainer, keyblob, keybloblen, outBlob, outLen);
  }
  if (algorithm == ORVEL_PKI_ALGORITHM_RSA) {
    return envelopeRsa(hSignKeypair, hContainer, keyblob, keybloblen, outBlob, outLen);
  }
  return 0;
}
