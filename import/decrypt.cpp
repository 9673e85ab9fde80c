// DevicePrivateKeyDecrypt: decryption with the private key of either key pair
// of a token container, RSA PKCS #1 v1.5 through SKF_RSADecrypt and SM2
// through SKF_ECCDecrypt (after decodeSm2CipherText).
//
// Takes no lock, unlike signing. An algorithm mismatch here gives 0, not -1,
// and the two branches count different token codes as "not logged in"; both
// differences are what hosts rely on. Every plaintext buffer is wiped before
// it is released.
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "import/keypair_container.h"
#include "import/sm2_cipher.h"
#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "platform/secure_zero.h"
#include "platform/skf.h"
#include "provider/records.h"

namespace {

constexpr size_t kSm2CoordinateLength = 32;
constexpr size_t kSm2CoordinateOffset = 32;  // right-aligned in 64-byte fields
constexpr size_t kSm2HashLength = 32;
// Offset of the Cipher bytes in ECCCIPHERBLOB: x, y, HASH and CipherLen.
constexpr size_t kCipherBlobHeader = 64 + 64 + 32 + 4;
// The RSA working buffer: room for a 4096-bit modulus.
constexpr ULONG kRsaWorkLength = 512;
// Not logged in, as the RSA path alone also reads it.
constexpr ULONG kRsaNotLoggedIn = 0x00000003;

struct FreeDeleter {
  void operator()(void *p) const { free(p); }
};

// A malloc block of secret bytes, wiped and freed on every path.
class PlainBuffer {
 public:
  explicit PlainBuffer(size_t size)
      : m_size(size), m_data(static_cast<unsigned char *>(malloc(size))) {}
  ~PlainBuffer() {
    if (m_data != nullptr) {
      tembra::secureZero(m_data, m_size);
      free(m_data);
    }
  }
  PlainBuffer(const PlainBuffer &) = delete;
  PlainBuffer &operator=(const PlainBuffer &) = delete;
  unsigned char *data() { return m_data; }

 private:
  size_t m_size;
  unsigned char *m_data;
};

// A stack buffer of secret bytes, wiped when it goes out of scope.
struct WipedRsaBuffer {
  unsigned char bytes[kRsaWorkLength] = {};
  WipedRsaBuffer() = default;
  WipedRsaBuffer(const WipedRsaBuffer &) = delete;
  WipedRsaBuffer &operator=(const WipedRsaBuffer &) = delete;
  ~WipedRsaBuffer() { tembra::secureZero(bytes, sizeof(bytes)); }
};

// The key flag of both SKF calls: 0 the container's encryption key, 1 its
// signature key (any type other than "encrypt").
BOOL keyFlagOf(const Keypair *keypair) {
  return keypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_ENCRYPT ? 0 : 1;
}

int decryptSm2(const Keypair *keypair, int algo, const void *param, const unsigned char *cipher,
               int cipherlen, unsigned char *clear, int clearlen, int *pretclearlen) {
  if (algo != ORVEL_PKI_ALGORITHM_SM2_ENC) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "algo != ORVEL_PKI_ALGORITHM_SM2_ENC");
    return 0;
  }
  if (param == nullptr) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "param == 0");
    return 0;
  }
  if (*static_cast<const int *>(param) != ORVEL_PKI_ALGORITHM_SM3) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "hashAlgo != ORVEL_PKI_ALGORITHM_SM3");
    return 0;
  }

  // Released on every path, the token's paths included: nothing holds the
  // block once the token has answered, so keeping it would only leak.
  std::unique_ptr<ECCCIPHERBLOB, FreeDeleter> blob(decodeSm2CipherText(cipher, cipherlen));
  if (!blob) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "decodeSm2CipherText(cipher, cipherlen) == 0");
    return 0;
  }

  // At least one byte, so that an empty message (L = 0) still has a buffer
  // to hand to the token.
  const ULONG messageLen = blob->CipherLen;
  PlainBuffer plain(messageLen > 0 ? messageLen : 1);
  if (plain.data() == nullptr) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "alloc memory fail");
    return 0;
  }

  HCONTAINER hContainer = keypairContainerHandle(keypair);
  if (hContainer == nullptr) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "hContainer == 0");
    return 0;
  }

  ULONG plainLen = messageLen;
  const ULONG rv =
      SKF_ECCDecrypt(hContainer, keyFlagOf(keypair), blob.get(), plain.data(), &plainLen);
  if (rv == SAR_USER_NOT_LOGGED_IN) return -8;
  if (rv != SAR_OK) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "SKF_ECCPrvKeyDecrypt fail, error = 0x%08x",
                 static_cast<unsigned>(rv));
    return 0;
  }
  // The plaintext of SM2 is as long as C2; a token claiming more is wrong.
  if (plainLen > messageLen) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "plainLen > cipherLen - 97");
    return 0;
  }

  *pretclearlen = static_cast<int>(plainLen);
  if (plainLen > static_cast<ULONG>(clearlen)) return -4;
  if (plainLen > 0) memcpy(clear, plain.data(), plainLen);
  return 1;
}

int decryptRsa(const Keypair *keypair, int algo, const unsigned char *cipher, int cipherlen,
               unsigned char *clear, int clearlen, int *pretclearlen) {
  if (algo != ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "algo != ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC");
    return 0;
  }

  HCONTAINER hContainer = keypairContainerHandle(keypair);
  if (hContainer == nullptr) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "hContainer == 0");
    return 0;
  }

  // Wiped before return, although nothing requires it of this path.
  WipedRsaBuffer work;
  ULONG plainLen = kRsaWorkLength;
  const ULONG rv = SKF_RSADecrypt(hContainer, keyFlagOf(keypair), const_cast<BYTE *>(cipher),
                                  static_cast<ULONG>(cipherlen), work.bytes, &plainLen);
  if (rv == SAR_USER_NOT_LOGGED_IN || rv == kRsaNotLoggedIn) return -8;
  if (rv != SAR_OK) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "SKF_RSADecrypt fail, error = 0x%08x",
                 static_cast<unsigned>(rv));
    return 0;
  }
  if (plainLen > kRsaWorkLength) {
    LOG_ERROR_AS("DevicePrivateKeyDecrypt", "plainLen > 512");
    return 0;
  }

  *pretclearlen = static_cast<int>(plainLen);
  if (plainLen > static_cast<ULONG>(clearlen)) return -4;
  if (plainLen > 0) memcpy(clear, work.bytes, plainLen);
  return 1;
}

}  // namespace

ECCCIPHERBLOB *decodeSm2CipherText(const unsigned char *cipher, int cipherLen) {
  if (cipherLen < SM2_CIPHER_OVERHEAD) {
    LOG_ERROR("cipherLen < 97");
    return nullptr;
  }
  if (cipher == nullptr || cipher[0] != 0x04) return nullptr;

  // size_t arithmetic: cipherLen + 68 cannot overflow here.
  const size_t total = static_cast<size_t>(cipherLen);
  const size_t messageLen = total - SM2_CIPHER_OVERHEAD;
  // Checked before anything is allocated or copied.
  if (messageLen > SM2_CIPHER_MAX_MESSAGE) return nullptr;
  unsigned char *block = static_cast<unsigned char *>(calloc(1, total + 68));
  if (block == nullptr) return nullptr;

  ECCCIPHERBLOB *blob = reinterpret_cast<ECCCIPHERBLOB *>(block);
  memcpy(blob->XCoordinate + kSm2CoordinateOffset, cipher + 1, kSm2CoordinateLength);
  memcpy(blob->YCoordinate + kSm2CoordinateOffset, cipher + 1 + kSm2CoordinateLength,
         kSm2CoordinateLength);
  memcpy(blob->HASH, cipher + total - kSm2HashLength, kSm2HashLength);
  blob->CipherLen = static_cast<ULONG>(messageLen);
  memcpy(block + kCipherBlobHeader, cipher + 1 + 2 * kSm2CoordinateLength, messageLen);
  return blob;
}

extern "C" int DevicePrivateKeyDecrypt(SPI_KEYPAIR_HANDLE hKeypair, int algo, const void *param,
                                       const unsigned char *cipher, int cipherlen,
                                       unsigned char *clear, int clearlen, int *pretclearlen) {
  call_stack_tracer tracer("DevicePrivateKeyDecrypt");
  LOG_INFO(
      "SPI_KEYPAIR_HANDLE hKeypair = %p, int algo = %d, const void *param = %p, "
      "const unsigned char *cipher = %p, int cipherlen = %d, unsigned char *clear = %p, "
      "int clearlen = %d, int *pretclearlen = %d",
      static_cast<void *>(hKeypair), algo, param, static_cast<const void *>(cipher), cipherlen,
      static_cast<void *>(clear), clearlen, logValueAt(pretclearlen));

  if (hKeypair == nullptr) return -2;
  if (cipher == nullptr || cipherlen < 1 || pretclearlen == nullptr) return -1;

  // Size query: the ciphertext length bounds the plaintext of both
  // algorithms; nothing else is examined.
  if (clear == nullptr) {
    *pretclearlen = cipherlen;
    return 1;
  }
  if (clearlen < 0) return -1;

  if (hKeypair->m_algo == ORVEL_PKI_ALGORITHM_ECC) {
    return decryptSm2(hKeypair, algo, param, cipher, cipherlen, clear, clearlen, pretclearlen);
  }
  if (hKeypair->m_algo == ORVEL_PKI_ALGORITHM_RSA) {
    return decryptRsa(hKeypair, algo, cipher, cipherlen, clear, clearlen, pretclearlen);
  }
  LOG_ERROR("unsupport hKeypair->m_algo, hKeypair->m_algo = %d", hKeypair->m_algo);
  return 0;
}
