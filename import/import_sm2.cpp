// importSM2KeyPair: an SM2 encryption key pair from an "SCAENCKP" payload
// into a token container, through SKF_ImportECCKeyPair.
//
// Payload (integers big-endian): curve 7 | 04 x y (the container's signature
// key) | symmetric algorithm | encKeyLen = 97 + L | 04 C1x C1y C2(L) C3 |
// 04 x y (the encryption key) | K | K bytes of encrypted private key, ending
// the payload. Every length is checked before the bytes it announces are
// read.
#include <stdlib.h>
#include <string.h>

#include "import/host_buffer.h"
#include "import/keypair_import.h"
#include "keys/key_readers.h"
#include "log/trace_log.h"
#include "platform/skf.h"

namespace {

constexpr int kCoordinate = 32;
constexpr int kFieldOffset = 32;  // 32-byte values stand right-aligned in 64-byte fields
constexpr int kPointLen = 1 + 2 * kCoordinate;
constexpr uint32_t kSm2CipherOverhead = 97;
// The token's structure with room for 16 bytes of C2 (sizeof counts one).
constexpr size_t kSm2CipherBlockLen = 388;
constexpr uint32_t kMaxWrappedKeyLen = kSm2CipherBlockLen - sizeof(ENVELOPEDKEYBLOB) + 1;
constexpr int64_t kMinPrivateKeyLen = 32;
constexpr int64_t kMaxPrivateKeyLen = 64;

// Results of SKF_ImportECCKeyPair that mean "not logged in" on this path.
bool sm2ImportNotLoggedIn(ULONG rv) {
  return rv == 0x0A00000D || rv == 0x0A00001E || rv == SAR_USER_NOT_LOGGED_IN || rv == 0x0B000033 ||
         rv == 0x00000001;
}

// The 388-byte block, freed on every path.
class CipherBlock {
 public:
  CipherBlock() : m_block(static_cast<unsigned char *>(calloc(1, kSm2CipherBlockLen))) {}
  ~CipherBlock() { free(m_block); }
  CipherBlock(const CipherBlock &) = delete;
  CipherBlock &operator=(const CipherBlock &) = delete;
  ENVELOPEDKEYBLOB *blob() { return reinterpret_cast<ENVELOPEDKEYBLOB *>(m_block); }
  const unsigned char *bytes() const { return m_block; }

 private:
  unsigned char *m_block;
};

}  // namespace

int importSM2KeyPair(struct Container *container, const unsigned char *keyblob, int keyblobLen) {
  const int64_t keyblobLength = keyblobLen;
  int64_t pos = 0;

  if (keyblobLength - pos < 4) {
    LOG_ERROR("rvkeyblobLen - pos < 4");
    return 0;
  }
  if (readBigEndian32(&keyblob[pos]) != ORVEL_PKI_ECC_CURVE_SM2) {
    LOG_ERROR("rvcurve != ORVEL_PKI_ECC_CURVE_SM2");
    return 0;
  }
  pos += 4;

  if (keyblobLength - pos < kPointLen) {
    LOG_ERROR("keyblobLen - pos < 65");
    return 0;
  }
  if (keyblob[pos] != 4) {
    LOG_ERROR("keyblob[pos] != 4");
    return 0;
  }
  pos += 1;

  // The envelope must be made for this container's signature key.
  {
    int curve = 0;
    HostMemory x, y;
    const int rv =
        OrvelPKICryptoDecodeECCPubKey(container->m_signPubKey, container->m_signPubKeyLen, &curve,
                                      x.out(), x.outLen(), y.out(), y.outLen());
    if (rv != 1) {
      LOG_ERROR("OrvelPKICryptoDecodeECCPubKey fail, error = %d", rv);
      return 0;
    }
    // A coordinate of another length cannot be the one in the payload.
    if (x.len() != kCoordinate || memcmp(x.data(), &keyblob[pos], kCoordinate) != 0) {
      LOG_ERROR("memcmp(x, &keyblob[pos], 32) != 0");
      return 0;
    }
    pos += kCoordinate;
    if (y.len() != kCoordinate || memcmp(y.data(), &keyblob[pos], kCoordinate) != 0) {
      LOG_ERROR("memcmp(y, &keyblob[pos], 32) != 0");
      return 0;
    }
    pos += kCoordinate;
  }

  if (keyblobLength - pos < 4) {
    LOG_ERROR("keyblobLen - pos < 4");
    return 0;
  }
  const uint32_t symmetricAlgorithm = readBigEndian32(&keyblob[pos]);
  pos += 4;
  if (keyblobLength - pos < 8) {
    LOG_ERROR("keyblobLen - pos < 8");
    return 0;
  }
  const ULONG skfAlgorithm = envelopeSymmetricAlgorithm(symmetricAlgorithm);
  if (skfAlgorithm == 0) {
    LOG_ERROR("an unsupportd ECC algoritom");
    return 0;
  }

  const uint32_t encKeyLen = readBigEndian32(&keyblob[pos]);
  pos += 4;
  if (encKeyLen < kSm2CipherOverhead) {
    LOG_ERROR("encKeyLen < 97");
    return 0;
  }
  if (keyblobLength - pos < static_cast<int64_t>(encKeyLen)) {
    LOG_ERROR("keyblobLen - pos < encKeyLen");
    return 0;
  }
  if (keyblob[pos] != 4) {
    LOG_ERROR("keyblob[pos] != 4");
    return 0;
  }
  // The token's structure holds at most 16 bytes of C2 (a wrapped 128-bit
  // key); a longer one is refused before anything is copied.
  const uint32_t cipherLen = encKeyLen - kSm2CipherOverhead;
  if (cipherLen > kMaxWrappedKeyLen) {
    LOG_ERROR("encKeyLen - 97 > 16");
    return 0;
  }

  CipherBlock block;
  if (block.blob() == nullptr) {
    LOG_ERROR("sm2Cipher == 0");
    return 0;
  }
  logHexDump(__func__, "keyblob", keyblob, keyblobLen);

  ENVELOPEDKEYBLOB *sm2Cipher = block.blob();
  sm2Cipher->Version = 1;
  sm2Cipher->ulSymmAlgID = skfAlgorithm;
  sm2Cipher->ulBits = 256;
  ECCCIPHERBLOB *wrapped = &sm2Cipher->ECCCipherBlob;
  pos += 1;
  memcpy(&wrapped->XCoordinate[kFieldOffset], &keyblob[pos], kCoordinate);
  pos += kCoordinate;
  memcpy(&wrapped->YCoordinate[kFieldOffset], &keyblob[pos], kCoordinate);
  pos += kCoordinate;
  wrapped->CipherLen = cipherLen;
  memcpy(wrapped->Cipher, &keyblob[pos], cipherLen);
  pos += cipherLen;
  memcpy(wrapped->HASH, &keyblob[pos], sizeof(wrapped->HASH));
  pos += sizeof(wrapped->HASH);

  if (keyblobLength - pos < kPointLen) {
    LOG_ERROR("keyblobLen - pos < 65");
    return 0;
  }
  if (keyblob[pos] != 4) {
    LOG_ERROR("rvkeyblob[pos] != 4");
    return 0;
  }
  pos += 1;
  sm2Cipher->PubKey.BitLen = 256;
  memcpy(&sm2Cipher->PubKey.XCoordinate[kFieldOffset], &keyblob[pos], kCoordinate);
  pos += kCoordinate;
  memcpy(&sm2Cipher->PubKey.YCoordinate[kFieldOffset], &keyblob[pos], kCoordinate);
  pos += kCoordinate;

  if (keyblobLength - pos < 4) {
    LOG_ERROR("keyblobLen - pos < 4");
    return 0;
  }
  const int64_t len = readBigEndian32(&keyblob[pos]);
  pos += 4;
  if (keyblobLength - pos != len) {
    LOG_ERROR("keyblobLen - pos != len");
    return 0;
  }
  if (len < kMinPrivateKeyLen || len > kMaxPrivateKeyLen) {
    LOG_ERROR("len < 32 || len>64");
    return 0;
  }
  const size_t privateKeyField = sizeof(sm2Cipher->cbEncryptedPriKey);
  memcpy(&sm2Cipher->cbEncryptedPriKey[privateKeyField - static_cast<size_t>(len)], &keyblob[pos],
         static_cast<size_t>(len));

  logHexDump(__func__, "sm2Cipher", block.bytes(), static_cast<int>(kSm2CipherBlockLen));
  const ULONG rv = SKF_ImportECCKeyPair(container->m_hContainer, sm2Cipher);
  if (sm2ImportNotLoggedIn(rv)) return ORVEL_PKI_NOTLOGGEDIN;
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_ImportECCKeyPair fail, error = 0x%08X", static_cast<unsigned>(rv));
    return 0;
  }

  unsigned char *encPubKey = nullptr;
  int encPubKeyLen = 0;
  const int grv = GetECCPublicKey(container->m_hContainer, 0, &encPubKey, &encPubKeyLen);
  if (grv != 1) {
    LOG_ERROR("GetECCPublicKey fail, error = %d", grv);
    return 0;
  }
  if (container->m_encPubKey != nullptr) OrvelPKICryptoFreeMemory(container->m_encPubKey);
  container->m_encPubKey = encPubKey;
  container->m_encPubKeyLen = encPubKeyLen;
  return 1;
}
