// Key pair generation: DeviceGenerateKeypair makes a new signature key pair
// (RSA 1024/2048 or SM2) on the token in a container named by the caller's
// label, registers it as a Keypair of the device and hands out a handle.
//
// The container is a keyless one reused from the device's table, or a new
// one created on the token in the first free slot. Everything from the
// device-state check to the hand-out runs inside g_lock, which is left
// before each of the entry point's own log lines.
#include <stdlib.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "keys/key_readers.h"
#include "log/trace_log.h"
#include "platform/orvel_crypto.h"
#include "provider/lock.h"
#include "provider/records.h"

namespace {

// Token answer that also means "not logged in" when a container is created.
const ULONG kCreateNotLoggedIn = 0xB3;

// The slot the container walk chose.
struct ContainerChoice {
  int reuse = -1;       // a keyless container taken as it is
  int pos = -1;         // the first free slot
  bool exists = false;  // a container of this label came first
};

}  // namespace

// The container walk over all CONTAINER_COUNT_MAX slots, in order: the first
// free slot is remembered; a container of the caller's label ends the walk
// as "exists"; otherwise the first keyless container (m_type 0) is taken
// whatever its name, and the walk ends there, so a container of the caller's
// label in a later slot is not seen. This order is intended.
static ContainerChoice getEmptyContainerIndex(const Device *hDevice, const char *label) {
  ContainerChoice choice;
  for (int i = 0; i < CONTAINER_COUNT_MAX; i++) {
    const Container *container = hDevice->m_containers[i];
    if (container == nullptr) {
      if (choice.pos < 0) choice.pos = i;
      continue;
    }
    if (container->m_label != nullptr && strcmp(container->m_label, label) == 0) {
      choice.exists = true;
      return choice;
    }
    if (container->m_type == CONTAINER_TYPE_EMPTY) {
      choice.reuse = i;
      return choice;
    }
  }
  return choice;
}

// A new, keyless container of this name on the token and its record.
// 1 created, -8 not logged in, 0 any other failure.
static int createContainer(Device *hDevice, const char *label, Container **out) {
  HCONTAINER hCon = nullptr;
  ULONG rv = SKF_CreateContainer(hDevice->m_hApp, const_cast<LPSTR>(label), &hCon);
  LOG_DEBUG("SKF_CreateContainer hDevice->m_hApp=%p, label=%s, hCon=%p",
            static_cast<void *>(hDevice->m_hApp), label, static_cast<void *>(hCon));
  if (rv == SAR_USER_NOT_LOGGED_IN || rv == kCreateNotLoggedIn) {
    LOG_WARN("rv == SAR_USER_NOT_LOGGED_IN || rv == 0x000000b3");
    return ORVEL_PKI_NOTLOGGEDIN;
  }
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_CreateContainer fail, error = 0x%08X", static_cast<unsigned>(rv));
    return ORVEL_PKI_FAIL;
  }
  // Without a record the container is taken off the token again; its handle
  // is closed first so that nothing stays open for it.
  Container *hContainer = static_cast<Container *>(calloc(1, sizeof(Container)));
  if (hContainer == nullptr) {
    SKF_CloseContainer(hCon);
    SKF_DeleteContainer(hDevice->m_hApp, const_cast<LPSTR>(label));
    LOG_ERROR("hContainer == 0");
    return ORVEL_PKI_FAIL;
  }
  size_t len = strlen(label) + 1;
  hContainer->m_label = static_cast<char *>(malloc(len));
  if (hContainer->m_label == nullptr) {
    SKF_CloseContainer(hCon);
    SKF_DeleteContainer(hDevice->m_hApp, const_cast<LPSTR>(label));
    free(hContainer);
    LOG_ERROR("hContainer->m_label == 0");
    return ORVEL_PKI_FAIL;
  }
  memcpy(hContainer->m_label, label, len);
  hContainer->m_hContainer = hCon;
  *out = hContainer;
  return ORVEL_PKI_OK;
}

// Generates the signature key pair of the container's m_type and m_keybits
// and keeps its public key in the host's encoding. 1 generated, -8 not
// logged in, 0 any other failure. Generation failures are DEBUG lines.
static int GenerateKeypair(Container *hContainer) {
  unsigned char *keyblob = nullptr;
  int keybloblen = 0;
  if (hContainer->m_type == CONTAINER_TYPE_RSA) {
    RSAPUBLICKEYBLOB blob;
    memset(&blob, 0, sizeof(blob));
    ULONG rv = SKF_GenRSAKeyPair(hContainer->m_hContainer,
                                 static_cast<ULONG>(hContainer->m_keybits), &blob);
    if (rv == SAR_USER_NOT_LOGGED_IN) return ORVEL_PKI_NOTLOGGEDIN;
    if (rv != SAR_OK) {
      LOG_DEBUG("SKF_GenRSAKeyPair fail, error = 0x%08X", static_cast<unsigned>(rv));
      return ORVEL_PKI_FAIL;
    }
    if (EncodeRSAPublicKeyBlob(&blob, &keyblob, &keybloblen) != 1) {
      // The result itself is not printed here, only 0: kept so.
      LOG_WARN("OrvelPKICryptoEncodeRSAPubKey fail, error = %d", 0);
      return ORVEL_PKI_FAIL;
    }
  } else if (hContainer->m_type == CONTAINER_TYPE_ECC) {
    ECCPUBLICKEYBLOB blob;
    memset(&blob, 0, sizeof(blob));
    ULONG rv = SKF_GenECCKeyPair(hContainer->m_hContainer, SGD_SM2_1, &blob);
    if (rv == SAR_USER_NOT_LOGGED_IN) return ORVEL_PKI_NOTLOGGEDIN;
    if (rv != SAR_OK) {
      LOG_DEBUG("SKF_GenECCKeyPair fail, error = 0x%08X", static_cast<unsigned>(rv));
      return ORVEL_PKI_FAIL;
    }
    int result = EncodeECCPublicKeyBlob(&blob, &keyblob, &keybloblen);
    if (result != 1) {
      LOG_WARN("OrvelPKICryptoEncodeECCPubKey fail, error = %d", result);
      return ORVEL_PKI_FAIL;
    }
  } else {
    LOG_ERROR("error container type");
    return ORVEL_PKI_FAIL;
  }
  // A reused container is keyless; should it still hold an old encoding,
  // that one is released rather than lost.
  if (hContainer->m_signPubKey != nullptr) OrvelPKICryptoFreeMemory(hContainer->m_signPubKey);
  hContainer->m_signPubKey = keyblob;
  hContainer->m_signPubKeyLen = keybloblen;
  return ORVEL_PKI_OK;
}

extern "C" {

TEMBRA_API int DeviceGenerateKeypair(SPI_DEVICE_HANDLE hDevice, int algo, int keybits,
                                     const void *param, int type, const char *label,
                                     SPI_KEYPAIR_HANDLE *phKeypair) {
  call_stack_tracer tracer("DeviceGenerateKeypair");
  LOG_INFO(
      "hDevice = %p, int algo = %d, int keybits = %d, const void *param = %p, int type = %d, "
      "const char *label = %p, SPI_KEYPAIR_HANDLE *phKeypair = %p",
      static_cast<void *>(hDevice), algo, keybits, param, type, static_cast<const void *>(label),
      static_cast<void *>(phKeypair));
  if (hDevice == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (phKeypair == nullptr || label == nullptr || label[0] == '\0') return ORVEL_PKI_BADARGUMENT;
  if (type != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE) {
    LOG_ERROR("type != ORVEL_PKI_KEYPAIRTYPE_SIGNATURE");
    return ORVEL_PKI_BADARGUMENT;
  }
  if (keybits <= 0) {
    LOG_ERROR("keybits <= 0");
    return ORVEL_PKI_BADARGUMENT;
  }

  ProviderLock lock;
  if (hDevice->m_isformat == 0) {
    lock.release();
    LOG_ERROR("hDevice->m_isformat == 0");
    return ORVEL_PKI_FAIL;
  }
  ContainerChoice choice = getEmptyContainerIndex(hDevice, label);
  if (choice.exists) return ORVEL_PKI_EXISTS;
  int index = choice.reuse;
  if (index < 0) {
    // With every slot taken and none keyless no free position was found:
    // that is refused here as a position past the table, never stored.
    if (choice.pos < 0 || choice.pos >= CONTAINER_COUNT_MAX) {
      lock.release();
      LOG_ERROR_AS("getEmptyContainerIndex", "pos >= CONTAINER_COUNT_MAX");
      return ORVEL_PKI_FAIL;
    }
    Container *created = nullptr;
    int rv = createContainer(hDevice, label, &created);
    if (rv != ORVEL_PKI_OK) return rv;
    hDevice->m_containers[choice.pos] = created;
    hDevice->m_containerCount++;
    index = choice.pos;
  }
  Container *hContainer = hDevice->m_containers[index];

  // The container stays in place when a check below fails: by design.
  int keyAlgo;
  if (algo == ORVEL_PKI_ALGORITHM_RSA) {
    if (param != nullptr) return ORVEL_PKI_BADARGUMENT;
    if (keybits != 1024 && keybits != 2048) {
      lock.release();
      LOG_ERROR("keybits != 1024 && keybits != 2048");
      return ORVEL_PKI_BADARGUMENT;
    }
    hContainer->m_type = CONTAINER_TYPE_RSA;
    hContainer->m_keybits = keybits;
    keyAlgo = ORVEL_PKI_ALGORITHM_RSA;
  } else if (algo == ORVEL_PKI_ALGORITHM_ECC) {
    const ORVEL_PKI_ECC_PARAM *eccParam = static_cast<const ORVEL_PKI_ECC_PARAM *>(param);
    const char *failed = nullptr;
    if (eccParam == nullptr) {
      failed = "eccParam == 0";
    } else if (eccParam->m_temp != 0) {
      failed = "eccParam->m_temp";
    } else if (eccParam->m_curve != ORVEL_PKI_ECC_CURVE_SM2) {
      failed = "eccParam->m_curve != ORVEL_PKI_ECC_CURVE_SM2";
    } else if (keybits != 256) {
      failed = "keybits != 256";
    }
    if (failed != nullptr) {
      lock.release();
      LOG_ERROR("%s", failed);
      return ORVEL_PKI_BADARGUMENT;
    }
    hContainer->m_type = CONTAINER_TYPE_ECC;
    hContainer->m_keybits = 256;
    keyAlgo = ORVEL_PKI_ALGORITHM_ECC;
  } else {
    // Any other algorithm generates nothing and still answers success,
    // leaving *phKeypair as it was: intended, and kept.
    return ORVEL_PKI_OK;
  }

  // The key pair table holds KEYPAIR_COUNT_MAX records and never grows: with
  // it full no key is generated and the container goes back to keyless.
  if (hDevice->m_keypairCount < 0 || hDevice->m_keypairCount >= KEYPAIR_COUNT_MAX) {
    hContainer->m_type = CONTAINER_TYPE_EMPTY;
    hContainer->m_keybits = 0;
    lock.release();
    LOG_ERROR("hDevice->m_keypairCount >= KEYPAIR_COUNT_MAX");
    return ORVEL_PKI_FAIL;
  }

  int rv = GenerateKeypair(hContainer);
  if (rv != ORVEL_PKI_OK) {
    hContainer->m_type = CONTAINER_TYPE_EMPTY;
    hContainer->m_keybits = 0;
    return rv;
  }

  Keypair *hKeypair = static_cast<Keypair *>(calloc(1, sizeof(Keypair)));
  if (hKeypair == nullptr) {
    lock.release();
    LOG_ERROR("hKeypair == 0");
    return ORVEL_PKI_FAIL;
  }
  size_t len = strlen(label) + 1;
  hKeypair->m_label = static_cast<char *>(malloc(len));
  if (hKeypair->m_label == nullptr) {
    free(hKeypair);
    lock.release();
    LOG_ERROR("hKeypair->m_label == 0");
    return ORVEL_PKI_FAIL;
  }
  memcpy(hKeypair->m_label, label, len);
  hKeypair->m_keybits = keybits;
  hKeypair->m_algo = keyAlgo;
  hKeypair->m_keytype = ORVEL_PKI_KEYPAIRTYPE_SIGNATURE;
  hKeypair->m_index = index;
  hKeypair->m_device = hDevice;

  // One reference for the table entry, one for the handle handed out.
  hDevice->m_keypairs[hDevice->m_keypairCount] = hKeypair;
  hDevice->m_keypairCount++;
  hDevice->m_refCount += 2;
  *phKeypair = hKeypair;
  return ORVEL_PKI_OK;
}

}  // extern "C"
