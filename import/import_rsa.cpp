// importRSAKeyPair: an RSA encryption key pair from an "SCAENCKP" payload
// into a token container, through SKF_ImportRSAKeyPair.
//
// Payload (integers big-endian): nLen | n | eLen | e (the container's
// signature key) | symmetric algorithm | encKeyLen = nLen | the symmetric key
// wrapped under that key | cipherLen | the encrypted private key, ending the
// payload. Every length is checked before the bytes it announces are read.
#include <string.h>

#include "import/host_buffer.h"
#include "import/keypair_import.h"
#include "keys/key_readers.h"
#include "log/trace_log.h"
#include "platform/skf.h"

namespace {

// Results of SKF_ImportRSAKeyPair that mean "not logged in" on this path:
// fewer than on the SM2 path, by design.
bool rsaImportNotLoggedIn(ULONG rv) {
  return rv == 0x0A00000D || rv == SAR_USER_NOT_LOGGED_IN;
}

}  // namespace

int importRSAKeyPair(struct Container *container, const unsigned char *keyblob, int keyblobLen) {
  const int64_t keyblobLength = keyblobLen;
  int64_t pos = 0;

  if (keyblobLength - pos < 4) {
    LOG_ERROR("keyblobLen - pos < 4");
    return 0;
  }
  int64_t len = readBigEndian32(&keyblob[pos]);
  pos += 4;
  if (keyblobLength - pos < len) {
    LOG_ERROR("keyblobLen - pos < len");
    return 0;
  }

  // The envelope must be made for this container's signature key.
  HostMemory n, e;
  const int rv = OrvelPKICryptoDecodeRSAPubKey(container->m_signPubKey, container->m_signPubKeyLen,
                                               n.out(), n.outLen(), e.out(), e.outLen());
  if (rv != 1) {
    LOG_ERROR("OrvelPKICryptoDecodeRSAPubKey fail, error = %d", rv);
    return 0;
  }
  const int64_t nLen = n.len();
  if (len != nLen) {
    LOG_ERROR("len != nLen");
    return 0;
  }
  if (memcmp(n.data(), &keyblob[pos], static_cast<size_t>(len)) != 0) {
    LOG_ERROR("memcmp(n, &keyblob[pos], len) != 0");
    return 0;
  }
  pos += len;

  if (keyblobLength - pos < 4) {
    LOG_ERROR("keyblobLen - pos < 4");
    return 0;
  }
  len = readBigEndian32(&keyblob[pos]);
  pos += 4;
  const int64_t eLen = e.len();
  if (keyblobLength - pos < eLen) {
    LOG_ERROR("keyblobLen - pos < eLen");
    return 0;
  }
  if (len != eLen) {
    LOG_ERROR("rvlen != eLen");
    return 0;
  }
  if (memcmp(e.data(), &keyblob[pos], static_cast<size_t>(len)) != 0) {
    LOG_ERROR("memcmp(e, &keyblob[pos], len) != 0");
    return 0;
  }
  pos += len;

  if (keyblobLength - pos < 4) {
    LOG_ERROR("keyblobLen - pos < 4");
    return 0;
  }
  const ULONG skfAlgorithm = envelopeSymmetricAlgorithm(readBigEndian32(&keyblob[pos]));
  pos += 4;
  if (skfAlgorithm == 0) {
    LOG_ERROR("unsupportd algorithm");
    return 0;
  }

  if (keyblobLength - pos < 4) {
    LOG_ERROR("keyblobLen - pos < 4");
    return 0;
  }
  const int64_t encKeyLen = readBigEndian32(&keyblob[pos]);
  pos += 4;
  if (encKeyLen != nLen) {
    LOG_ERROR("encKeyLen != nLen");
    return 0;
  }
  if (keyblobLength - pos < encKeyLen) {
    LOG_ERROR("keyblobLen - pos < encKeyLen");
    return 0;
  }
  const unsigned char *wrappedKey = &keyblob[pos];
  pos += encKeyLen;

  if (keyblobLength - pos < 4) {
    LOG_ERROR("keyblobLen - pos < 4");
    return 0;
  }
  // A length with its top bit set reads as negative and is not positive.
  const int32_t cipherLen = static_cast<int32_t>(readBigEndian32(&keyblob[pos]));
  pos += 4;
  if (cipherLen <= 0) {
    LOG_ERROR("cipherLen <= 0");
    return 0;
  }
  if (keyblobLength - pos != cipherLen) {
    LOG_ERROR("keyblobLen - pos != cipherLen");
    return 0;
  }

  const ULONG irv =
      SKF_ImportRSAKeyPair(container->m_hContainer, skfAlgorithm, const_cast<BYTE *>(wrappedKey),
                           static_cast<ULONG>(encKeyLen), const_cast<BYTE *>(&keyblob[pos]),
                           static_cast<ULONG>(cipherLen));
  if (rsaImportNotLoggedIn(irv)) return ORVEL_PKI_NOTLOGGEDIN;
  if (irv != SAR_OK) {
    LOG_ERROR("SKF_ImportRSAKeyPair fail, error = 0x%08X", static_cast<unsigned>(irv));
    return 0;
  }

  unsigned char *encPubKey = nullptr;
  int encPubKeyLen = 0;
  if (GetRSAPublicKey(container->m_hContainer, 0, &encPubKey, &encPubKeyLen, nullptr) != 1) {
    LOG_ERROR("GetRSAPublicKey fail");
    return 0;
  }
  if (container->m_encPubKey != nullptr) OrvelPKICryptoFreeMemory(container->m_encPubKey);
  container->m_encPubKey = encPubKey;
  container->m_encPubKeyLen = encPubKeyLen;
  return 1;
}
