// DeviceGenerateRandom: random bytes drawn from the token in one call, under
// g_lock.
#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "platform/skf.h"
#include "provider/lock.h"
#include "provider/records.h"

extern "C" TEMBRA_API int DeviceGenerateRandom(SPI_DEVICE_HANDLE hDevice, int len,
                                               unsigned char *rand) {
  call_stack_tracer tracer("DeviceGenerateRandom");
  LOG_INFO("hDevice = %p, int len = %d, unsigned char *rand = %p", static_cast<void *>(hDevice),
           len, static_cast<void *>(rand));

  // The whole length goes to the token in one call and the buffer is the
  // token's to check. A null device and a negative length (which the token
  // would read as a length of about 4 GiB) are refused here, silently, so
  // that no host argument makes the token write out of bounds.
  if (hDevice == nullptr || len < 0) return ORVEL_PKI_FAIL;

  ULONG rv;
  {
    ProviderLock lock;
    rv = SKF_GenRandom(hDevice->m_hDev, rand, static_cast<ULONG>(len));
  }
  if (rv != SAR_OK) {
    LOG_ERROR("SKF_GenRandom fail, error = 0x%08X", static_cast<unsigned>(rv));
    return ORVEL_PKI_FAIL;
  }
  return ORVEL_PKI_OK;
}
