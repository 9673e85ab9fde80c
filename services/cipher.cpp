// SM1, SM4 and SSF33 in ECB and CBC mode on the token, through a cipher
// handle made from a raw 16-byte key: DeviceNewCipher, DeviceCipherUpdate,
// DeviceFreeCipher.
//
// Every piece of an update is a complete token operation (init, one-shot
// encrypt or decrypt) with no block filling; the provider carries the CBC
// chain in the record's IV, so any sequence of updates equals one operation
// over the concatenated input. Only DeviceNewCipher takes g_lock; a cipher
// handle belongs to one caller at a time. Like a hash, a cipher never keeps
// its device alive.
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "platform/skf.h"
#include "provider/lock.h"
#include "provider/records.h"
#include "services/block_cipher.h"

namespace {

constexpr int kKeyLength = 16;
constexpr ULONG kBlockLength = 16;
constexpr ULONG kDefaultPieceLength = 1024;

// The largest piece one token call takes; see DeviceHashUpdate for the guard
// against a setting of 0 or less.
ULONG pieceLength() {
  const int32_t configured = g_maxOperationLen;
  return configured > 0 ? static_cast<ULONG>(configured) : kDefaultPieceLength;
}

// The "out" trace line names the length of the result but never shows it:
// its hex field comes from a zeroed scratch buffer of the same length, not
// from the output. Nothing is built when the verbose level is off.
void logOutputLine(int length) {
  if (!logLevelEnabled(LOG_LEVEL_VERBOSE)) return;
  const size_t size = length > 0 ? static_cast<size_t>(length) : 1;
  unsigned char *scratch = static_cast<unsigned char *>(calloc(size, 1));
  if (scratch == nullptr) return;
  logHexDump("cipherUpdate", "out", scratch, length);
  free(scratch);
}

// The transformation loop: 1, or 0 after a token failure (logged). The
// output written before a failing piece stays written; the IV then stays at
// the last ciphertext block of the last good piece.
int cipherUpdate(CipherContext *hCipher, const unsigned char *in, int inlen, unsigned char *out,
                 int outlen, int *pretoutlen) {
  if (outlen < inlen) {
    LOG_ERROR("outlen < inlen");
    return ORVEL_PKI_FAIL;
  }
  const ULONG total = static_cast<ULONG>(inlen);
  const ULONG maxPiece = pieceLength();
  ULONG done = 0;
  while (done < total) {
    const ULONG piece = total - done > maxPiece ? maxPiece : total - done;
    BLOCKCIPHERPARAM param;
    memset(&param, 0, sizeof param);
    if (hCipher->m_chained) {
      memcpy(param.IV, hCipher->m_iv, kBlockLength);
      param.IVLen = kBlockLength;
    }

    // The chaining value after this piece is its last ciphertext block. For
    // decryption it is taken from the input before the token writes, so that
    // decrypting in place (out == in) chains correctly too.
    unsigned char nextIv[kBlockLength] = {};
    const bool chainable = hCipher->m_chained && done + piece >= kBlockLength;
    if (chainable && !hCipher->m_enc)
      memcpy(nextIv, in + done + piece - kBlockLength, kBlockLength);

    ULONG partOutLen = piece;
    ULONG rv;
    if (hCipher->m_enc) {
      rv = SKF_EncryptInit(hCipher->m_hKey, param);
      if (rv != SAR_OK) {
        LOG_ERROR("SKF_EncryptInit fail, error = 0x%08X", static_cast<unsigned>(rv));
        return ORVEL_PKI_FAIL;
      }
      rv = SKF_Encrypt(hCipher->m_hKey, const_cast<BYTE *>(in + done), piece, out + done,
                       &partOutLen);
      if (rv != SAR_OK) {
        LOG_ERROR("SKF_Encrypt fail, error = 0x%08X", static_cast<unsigned>(rv));
        return ORVEL_PKI_FAIL;
      }
    } else {
      // A failed SKF_DecryptInit is answered without a log line, unlike its
      // encrypting twin; hosts see exactly this asymmetry.
      rv = SKF_DecryptInit(hCipher->m_hKey, param);
      if (rv != SAR_OK) return ORVEL_PKI_FAIL;
      rv = SKF_Decrypt(hCipher->m_hKey, const_cast<BYTE *>(in + done), piece, out + done,
                       &partOutLen);
      if (rv != SAR_OK) {
        LOG_ERROR("SKF_Decrypt fail, error = 0x%08X", static_cast<unsigned>(rv));
        return ORVEL_PKI_FAIL;
      }
    }
    if (partOutLen != piece) {
      LOG_ERROR("partOutLen != len");
      return ORVEL_PKI_FAIL;
    }
    done += piece;
    if (chainable) {
      if (hCipher->m_enc) memcpy(nextIv, out + done - kBlockLength, kBlockLength);
      memcpy(hCipher->m_iv, nextIv, kBlockLength);
    }
  }
  *pretoutlen = inlen;
  logOutputLine(inlen);
  return ORVEL_PKI_OK;
}

}  // namespace

extern "C" {

TEMBRA_API SPI_CIPHER_HANDLE DeviceNewCipher(SPI_DEVICE_HANDLE hDevice, int enc, int algo,
                                             const unsigned char *key, int keylen,
                                             const void *param) {
  call_stack_tracer tracer("DeviceNewCipher");
  LOG_INFO(
      "hDevice = %p, int enc = %d, int algo = %d, const unsigned char *key = %p, int keylen = %d, "
      "const void *param = %p",
      static_cast<void *>(hDevice), enc, algo, static_cast<const void *>(key), keylen, param);

  // Every refusal answers null without a log line.
  const int64_t skfAlgorithm = skfBlockCipherAlgorithm(algo);
  const int chained = isChainedBlockCipher(algo);
  if (hDevice == nullptr || skfAlgorithm < 0 || key == nullptr || keylen != kKeyLength)
    return nullptr;
  if (chained && param == nullptr) return nullptr;

  ProviderLock lock;
  HANDLE hKey = nullptr;
  if (SKF_SetSymmKey(hDevice->m_hDev, const_cast<BYTE *>(key), static_cast<ULONG>(skfAlgorithm),
                     &hKey) != SAR_OK)
    return nullptr;
  CipherContext *cipher = static_cast<CipherContext *>(calloc(1, sizeof(CipherContext)));
  if (cipher == nullptr) {
    SKF_CloseHandle(hKey);
    return nullptr;
  }
  cipher->m_device = hDevice;
  cipher->m_hKey = hKey;
  cipher->m_enc = enc;
  if (chained) {
    cipher->m_chained = 1;
    memcpy(cipher->m_iv, param, kBlockLength);
  }
  void **slots = reinterpret_cast<void **>(hDevice->m_ciphers);
  if (!appendHandle(&slots, &hDevice->m_cipherAllocCount, hDevice->m_cipherCount, cipher)) {
    freeCipherContext(cipher);  // closes the key handle
    return nullptr;
  }
  hDevice->m_ciphers = reinterpret_cast<CipherContext **>(slots);
  hDevice->m_cipherCount += 1;
  hDevice->m_refCount += 1;
  return cipher;
}

TEMBRA_API int DeviceCipherUpdate(SPI_CIPHER_HANDLE hCipher, const unsigned char *in, int inlen,
                                  unsigned char *out, int outlen, int *pretoutlen) {
  call_stack_tracer tracer("DeviceCipherUpdate");
  // The last field is the pointer itself, printed with %d (its low 32 bits):
  // the line never reads through it.
  LOG_INFO(
      "SPI_CIPHER_HANDLE hCipher = %p, const unsigned char *in = %p, int inlen = %d, "
      "unsigned char *out = %p, int outlen = %d, int *pretoutlen = %d",
      static_cast<void *>(hCipher), static_cast<const void *>(in), inlen, static_cast<void *>(out),
      outlen, static_cast<int>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pretoutlen))));
  // Written before any check; the hex text is built only when the line is.
  logHexDump("DeviceCipherUpdate", "in", in, inlen);

  if (hCipher == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (pretoutlen == nullptr || inlen < 0) return ORVEL_PKI_BADARGUMENT;
  *pretoutlen = inlen;
  if (inlen == 0) return out == nullptr || outlen >= 0 ? ORVEL_PKI_OK : ORVEL_PKI_BADARGUMENT;
  if (in == nullptr) return ORVEL_PKI_BADARGUMENT;
  if (out == nullptr) return ORVEL_PKI_OK;  // length query
  if (outlen < inlen) return ORVEL_PKI_MOREDATA;
  return cipherUpdate(hCipher, in, inlen, out, outlen, pretoutlen);
}

TEMBRA_API int DeviceFreeCipher(SPI_CIPHER_HANDLE hCipher) {
  call_stack_tracer tracer("DeviceFreeCipher");
  LOG_INFO("SPI_CIPHER_HANDLE hCipher = %p", static_cast<void *>(hCipher));
  if (hCipher == nullptr) return ORVEL_PKI_OK;
  Device *device = hCipher->m_device;
  if (device != nullptr) {
    // Under g_lock for the same reason as DeviceFreeHash: the array may be
    // growing on another thread.
    ProviderLock lock;
    removeHandle(reinterpret_cast<void **>(device->m_ciphers), &device->m_cipherCount, hCipher);
  }
  freeCipherContext(hCipher);
  if (device != nullptr) DeviceFreeDevice(device);
  return ORVEL_PKI_OK;
}

}  // extern "C"
