// DeviceIsSupportedAlgorithm2: whether a token supports an algorithm for a
// usage, decided by a fixed table over the capability bits the token gave at
// discovery (m_info) and the HasSM3 / HasSM4 settings. The token is not asked
// again and nothing is locked.
//
// The texts of the table are kept exactly as hosts have always seen them,
// irregularities included: the SM4-ECB message reads in the negated form, the
// RSA key-length message can never be false, SM1 and SM4 read "usage= ", and
// ECC key generation without SM2 capability reports the curve message.
#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "platform/skf.h"
#include "provider/records.h"

namespace {

const char kFunction[] = "DeviceIsSupportedAlgorithm2";

// The host's algorithm 0x30, answered for decryption only.
constexpr int kHostAlgorithm0x30 = 0x30;

bool allBits(uint32_t field, uint32_t bits) {
  return (field & bits) == bits;
}
bool usageIsEncryptOrDecrypt(int usage) {
  return usage == ORVEL_PKI_USAGE_ENCRYPT || usage == ORVEL_PKI_USAGE_DECRYPT;
}

// One symmetric row: an optional HasSM4 test (silent), the usage (silent),
// then all bits of `capability` in AlgSymCap (else `warning`); `support` at
// [DEBUG] on success.
struct SymmetricRow {
  int algo;
  uint32_t capability;
  bool needsHasSM4;
  bool allowsImport;
  const char *warning;
  const char *support;
};

const SymmetricRow kSymmetricRows[] = {
    {ORVEL_PKI_ALGORITHM_SSF33_ECB, SGD_SSF33_ECB, false, false,
     "(hDevice->m_info.AlgSymCap & 0xFF & 0x1) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 & "
     "0x200) != 0",
     "Device support algo=ORVEL_PKI_ALGORITHM_SSF33_ECB, usage=ORVEL_PKI_USAGE_ENCRYPT || "
     "ORVEL_PKI_USAGE_DECRYPT"},
    {ORVEL_PKI_ALGORITHM_SSF33_CBC, SGD_SSF33_CBC, false, false,
     "(hDevice->m_info.AlgSymCap & 0xFF & 0x2) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 & "
     "0x200) != 0",
     "Device support algo=ORVEL_PKI_ALGORITHM_SSF33_CBC, usage=ORVEL_PKI_USAGE_ENCRYPT || "
     "ORVEL_PKI_USAGE_DECRYPT"},
    {ORVEL_PKI_ALGORITHM_SM1_ECB, SGD_SM1_ECB, false, true,
     "(hDevice->m_info.AlgSymCap & 0xFF & 0x1) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 & "
     "0x100) != 0",
     "Device support algo=ORVEL_PKI_ALGORITHM_SM1_ECB, usage=ORVEL_PKI_USAGE_ENCRYPT || "
     "ORVEL_PKI_USAGE_DECRYPT || ORVEL_PKI_USAGE_IMPORTKEYPAIR"},
    {ORVEL_PKI_ALGORITHM_SM1_CBC, SGD_SM1_CBC, false, false,
     "(hDevice->m_info.AlgSymCap & 0xFF & 0x2) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 & "
     "0x100) != 0",
     "Device support algo=ORVEL_PKI_ALGORITHM_SM1_CBC, usage= ORVEL_PKI_USAGE_ENCRYPT || "
     "ORVEL_PKI_USAGE_DECRYPT"},
    {ORVEL_PKI_ALGORITHM_SMS4_ECB, SGD_SMS4_ECB, true, false,
     "(hDevice->m_info.AlgSymCap & 0xFF & 0x1) == 0 || (hDevice->m_info.AlgSymCap & 0xFFFFFF00 & "
     "0x400) == 0",
     "Device support algo=ORVEL_PKI_ALGORITHM_SMS4_ECB, usage= ORVEL_PKI_USAGE_ENCRYPT || "
     "ORVEL_PKI_USAGE_DECRYPT"},
    {ORVEL_PKI_ALGORITHM_SMS4_CBC, SGD_SMS4_CBC, true, false,
     "(hDevice->m_info.AlgSymCap & 0xFF & 0x2) != 0 && (hDevice->m_info.AlgSymCap & 0xFFFFFF00 & "
     "0x400) != 0",
     "Device support algo=ORVEL_PKI_ALGORITHM_SMS4_CBC, usage= ORVEL_PKI_USAGE_ENCRYPT || "
     "ORVEL_PKI_USAGE_DECRYPT"},
};

int symmetric(const Device *hDevice, const SymmetricRow &row, int usage) {
  if (row.needsHasSM4 && g_hasSM4 == 0) return 0;
  if (!usageIsEncryptOrDecrypt(usage) &&
      !(row.allowsImport && usage == ORVEL_PKI_USAGE_IMPORTKEYPAIR))
    return 0;
  if (!allBits(hDevice->m_info.AlgSymCap, row.capability)) {
    LOG_WARN_AS(kFunction, "%s", row.warning);
    return 0;
  }
  LOG_DEBUG_AS(kFunction, "%s", row.support);
  return 1;
}

int sm3(const Device *hDevice, int usage) {
  if (g_hasSM3 == 0) {
    LOG_WARN_AS(kFunction, "g_hasSM3 == 0 ");
    return 0;
  }
  if (usage != ORVEL_PKI_USAGE_HASH) return 0;
  if ((hDevice->m_info.AlgHashCap & SGD_SM3) == 0) {
    LOG_WARN_AS(kFunction, "hDevice->m_info.AlgHashCap&SGD_SM3) == 0 ");
    return 0;
  }
  LOG_DEBUG_AS(kFunction,
               "Device support algo=ORVEL_PKI_ALGORITHM_SM3, usage=ORVEL_PKI_USAGE_HASH");
  return 1;
}

int sm2Decrypt(const Device *hDevice, int usage, const void *param) {
  if (usage != ORVEL_PKI_USAGE_DECRYPT) return 0;
  if (!allBits(hDevice->m_info.AlgAsymCap, SGD_SM2_3)) return 0;
  if (param == nullptr) return 0;
  return *static_cast<const int *>(param) == ORVEL_PKI_ALGORITHM_SM3 ? 1 : 0;
}

int rsaGenerate(int keyLen, int usage, const void *param) {
  if (usage != ORVEL_PKI_USAGE_GENKEYPAIR) {
    LOG_WARN_AS(kFunction, "usage != ORVEL_PKI_USAGE_GENKEYPAIR");
    return 0;
  }
  if (param != nullptr) return 0;
  if (keyLen != 1024 && keyLen != 2048) {
    LOG_WARN_AS(kFunction, "keyLen != 1024 || keyLen != 2048");
    return 0;
  }
  return 1;
}

// Any bit of the SM2 signature identifier will do here, where the signature
// row needs all of them: deliberately looser for key generation.
int eccGenerate(const Device *hDevice, int usage, const void *param) {
  if (usage != ORVEL_PKI_USAGE_GENKEYPAIR) {
    LOG_WARN_AS(kFunction, "usage != ORVEL_PKI_USAGE_GENKEYPAIR");
    return 0;
  }
  const ORVEL_PKI_ECC_PARAM *eccParam = static_cast<const ORVEL_PKI_ECC_PARAM *>(param);
  if (eccParam == nullptr) {
    LOG_WARN_AS(kFunction, "eccParam == 0");
    return 0;
  }
  if (eccParam->m_temp != 0) {
    LOG_WARN_AS(kFunction, "eccParam->m_temp = 1");
    return 0;
  }
  if (eccParam->m_curve != ORVEL_PKI_ECC_CURVE_SM2 ||
      (hDevice->m_info.AlgAsymCap & SGD_SM2_1) == 0) {
    LOG_WARN_AS(kFunction, "eccParam->m_curve != ORVEL_PKI_ECC_CURVE_SM2");
    return 0;
  }
  return 1;
}

}  // namespace

extern "C" TEMBRA_API int DeviceIsSupportedAlgorithm2(SPI_DEVICE_HANDLE hDevice, int algo,
                                                      int keyLen, int usage, const void *param) {
  call_stack_tracer tracer(kFunction);
  LOG_DEBUG("algo : 0x%08x", static_cast<unsigned>(algo));
  LOG_DEBUG("keyLen : %d", keyLen);
  LOG_DEBUG("usage : %d", usage);
  if (hDevice == nullptr) return 0;

  for (const SymmetricRow &row : kSymmetricRows) {
    if (row.algo == algo) return symmetric(hDevice, row, usage);
  }
  switch (algo) {
    case ORVEL_PKI_ALGORITHM_SM3:
      return sm3(hDevice, usage);
    case kHostAlgorithm0x30:
    case ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC:
      return usage == ORVEL_PKI_USAGE_DECRYPT ? 1 : 0;
    case ORVEL_PKI_ALGORITHM_SM2_ENC:
      return sm2Decrypt(hDevice, usage, param);
    case ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN:
      return usage == ORVEL_PKI_USAGE_SIGN && (hDevice->m_info.AlgAsymCap & SGD_RSA) != 0 ? 1 : 0;
    case ORVEL_PKI_ALGORITHM_SM2_SIGN:
      return usage == ORVEL_PKI_USAGE_SIGN && allBits(hDevice->m_info.AlgAsymCap, SGD_SM2_1) ? 1
                                                                                             : 0;
    case ORVEL_PKI_ALGORITHM_RSA:
      return rsaGenerate(keyLen, usage, param);
    case ORVEL_PKI_ALGORITHM_ECC:
      return eccGenerate(hDevice, usage, param);
    default:
      return 0;
  }
}
