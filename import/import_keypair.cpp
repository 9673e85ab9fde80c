// DeviceImportKeypair: an encryption key pair installed into the container
// that holds the user's signature key pair, from an "SCAENCKP" blob (already
// enveloped for that container) or a "_KEYPAIR" blob (plain; enveloped here
// first and then imported as an "SCAENCKP" blob).
//
// g_lock is held from the device-state check to the end of the call, across
// the token import; the "_KEYPAIR" branch leaves it after enveloping and the
// inner call takes it again. A successful import appends a new Keypair record
// and raises m_refCount by two, as generation does.
#include <stdlib.h>
#include <string.h>

#include "import/host_buffer.h"
#include "import/keypair_import.h"
#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "provider/lock.h"
#include "provider/records.h"

namespace {

constexpr char kEnvelopedMagic[8] = {'S', 'C', 'A', 'E', 'N', 'C', 'K', 'P'};
constexpr char kPlainMagic[8] = {'_', 'K', 'E', 'Y', 'P', 'A', 'I', 'R'};

// The device's first signature key pair with this label, or null.
Keypair *findSignatureKeypair(Device *hDevice, const char *label) {
  for (int i = 0; i < hDevice->m_keypairCount && i < KEYPAIR_COUNT_MAX; i++) {
    Keypair *keypair = hDevice->m_keypairs[i];
    if (keypair == nullptr || keypair->m_label == nullptr) continue;
    if (keypair->m_keytype == ORVEL_PKI_KEYPAIRTYPE_SIGNATURE &&
        strcmp(keypair->m_label, label) == 0)
      return keypair;
  }
  return nullptr;
}

}  // namespace

int GetContainerIndex(SPI_DEVICE_HANDLE hDevice, const char *label) {
  LOG_DEBUG("GetContainerIndex label=%s, hDevice->m_containerCount=%d", label,
            hDevice->m_containerCount);
  for (int i = 0; i < hDevice->m_containerCount && i < CONTAINER_COUNT_MAX; i++) {
    const Container *container = hDevice->m_containers[i];
    if (container == nullptr || container->m_label == nullptr) continue;
    LOG_DEBUG("hDevice->m_containers[i]->m_label=%s", container->m_label);
    if (strcmp(container->m_label, label) == 0) return i;
  }
  return -1;
}

extern "C" TEMBRA_API int DeviceImportKeypair(SPI_DEVICE_HANDLE hDevice,
                                              const unsigned char *keyblob, int keybloblen,
                                              int type, const char *label,
                                              SPI_KEYPAIR_HANDLE *phKeypair) {
  call_stack_tracer tracer("DeviceImportKeypair");
  LOG_INFO(
      "hDevice = %p, const unsigned char *keyblob = %p, int keybloblen = %d, int type = %d, "
      "const char *label = %s, SPI_KEYPAIR_HANDLE *phKeypair = %p",
      static_cast<void *>(hDevice), static_cast<const void *>(keyblob), keybloblen, type,
      label != nullptr ? label : "0", static_cast<void *>(phKeypair));

  if (hDevice == nullptr) {
    LOG_ERROR("hDevice == 0");
    return ORVEL_PKI_NULLHANDLE;
  }
  if (keyblob == nullptr || keybloblen <= 8) {
    LOG_ERROR("keyblob == 0 || keybloblen <= 8");
    return ORVEL_PKI_BADARGUMENT;
  }
  if (type != ORVEL_PKI_KEYPAIRTYPE_ENCRYPT) {
    LOG_ERROR("type != ORVEL_PKI_KEYPAIRTYPE_ENCRYPT");
    return ORVEL_PKI_FAIL;
  }
  if (label == nullptr || label[0] == 0) {
    LOG_ERROR("typelabel == 0 || label[0] == 0");
    return ORVEL_PKI_BADARGUMENT;
  }
  if (phKeypair == nullptr) {
    LOG_ERROR("phKeypair == 0");
    return ORVEL_PKI_BADARGUMENT;
  }
  const int index = GetContainerIndex(hDevice, label);
  if (index == -1) {
    LOG_ERROR("GetContainerIndex(hDevice, label) = -1");
    return ORVEL_PKI_FAIL;
  }
  LOG_DEBUG("GetContainerIndex success, index = %d", index);

  ProviderLock lock;
  if (hDevice->m_isformat == 0) {
    lock.release();
    LOG_ERROR("hDevice->m_isformat == 0");
    return ORVEL_PKI_FAIL;
  }

  if (memcmp(keyblob, kPlainMagic, sizeof(kPlainMagic)) == 0) {
    const Keypair *hSignKeypair = findSignatureKeypair(hDevice, label);
    if (hSignKeypair == nullptr) {
      lock.release();
      LOG_ERROR("hSignKeypair == 0");
      return ORVEL_PKI_FAIL;
    }
    unsigned char *envelope = nullptr;
    int envelopeLen = 0;
    const int erv = EncKeyPairBlob(hSignKeypair, keyblob, keybloblen, &envelope, &envelopeLen);
    lock.release();
    if (erv == 0) {
      LOG_ERROR("EncKeyPairBlob()==0");
      return ORVEL_PKI_FAIL;
    }
    const int rv = DeviceImportKeypair(hDevice, envelope, envelopeLen,
                                       ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, label, phKeypair);
    free(envelope);
    return rv;
  }

  if (memcmp(keyblob, kEnvelopedMagic, sizeof(kEnvelopedMagic)) != 0) {
    lock.release();
    LOG_ERROR("memcmp(keyblob, 'SCAENCKP', 8) != 0");
    return ORVEL_PKI_FAIL;
  }
  if (keybloblen < ENVELOPED_HEADER_LEN) {
    lock.release();
    LOG_ERROR("keybloblen < 20");
    return ORVEL_PKI_FAIL;
  }
  if (readBigEndian32(&keyblob[8]) != 1) {
    lock.release();
    LOG_ERROR("version != 1");
    return ORVEL_PKI_FAIL;
  }
  const uint32_t algo = readBigEndian32(&keyblob[12]);
  if (algo != ORVEL_PKI_ALGORITHM_RSA && algo != ORVEL_PKI_ALGORITHM_ECC) {
    lock.release();
    LOG_ERROR("algo != ORVEL_PKI_ALGORITHM_RSA && algo != ORVEL_PKI_ALGORITHM_ECC");
    return ORVEL_PKI_FAIL;
  }
  // Read as signed: a length with its top bit set is not positive.
  const int32_t len = static_cast<int32_t>(readBigEndian32(&keyblob[16]));
  if (len <= 0 || static_cast<int64_t>(len) + ENVELOPED_HEADER_LEN != keybloblen) {
    lock.release();
    LOG_ERROR("len <= 0 || len + 20 != keybloblen");
    return ORVEL_PKI_FAIL;
  }
  // The table never grows: a full one is refused before the token is touched.
  if (hDevice->m_keypairCount < 0 || hDevice->m_keypairCount >= KEYPAIR_COUNT_MAX) {
    lock.release();
    LOG_ERROR("hDevice->m_keypairCount >= KEYPAIR_COUNT_MAX");
    return ORVEL_PKI_FAIL;
  }

  Container *container = hDevice->m_containers[index];
  const unsigned char *payload = keyblob + ENVELOPED_HEADER_LEN;
  const int rv = algo == ORVEL_PKI_ALGORITHM_RSA ? importRSAKeyPair(container, payload, len)
                                                 : importSM2KeyPair(container, payload, len);
  if (rv != 1) return rv;

  // From here on the key pair stays imported on the token, whatever happens.
  Keypair *hEncKeypair = static_cast<Keypair *>(calloc(1, sizeof(Keypair)));
  if (hEncKeypair == nullptr) {
    lock.release();
    LOG_ERROR("hEncKeypair == 0");
    return ORVEL_PKI_FAIL;
  }
  const size_t labelLen = strlen(label) + 1;
  hEncKeypair->m_label = static_cast<char *>(malloc(labelLen));
  if (hEncKeypair->m_label == nullptr) {
    free(hEncKeypair);
    lock.release();
    LOG_ERROR("hEncKeypair->m_label == 0");
    return ORVEL_PKI_FAIL;
  }
  memcpy(hEncKeypair->m_label, label, labelLen);
  hEncKeypair->m_index = index;
  hEncKeypair->m_device = hDevice;
  hEncKeypair->m_keytype = ORVEL_PKI_KEYPAIRTYPE_ENCRYPT;
  hEncKeypair->m_algo = static_cast<int32_t>(algo);
  hEncKeypair->m_keybits = container->m_keybits;
  hDevice->m_keypairs[hDevice->m_keypairCount] = hEncKeypair;
  hDevice->m_keypairCount++;
  hDevice->m_refCount += 2;
  *phKeypair = hEncKeypair;
  return ORVEL_PKI_OK;
}
