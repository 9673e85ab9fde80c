// Data objects: small numbered objects stored as files of the application
// that discovery opened (m_hApp), the file named by the decimal text of the
// object's number. DeviceCreateData makes one of a fixed size with access
// rights, DeviceReadDataEx and DeviceWriteDataEx read and write at an
// offset, DeviceDeleteData removes it.
//
// Each entry point holds g_lock from the existence test to its last token
// call, so that test and action are one step for every other entry point;
// the lock is left before a log line. Argument failures are not logged, and
// a token answer SAR_USER_NOT_LOGGED_IN becomes -8 without a line.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "include/tembra_key_prov.h"
#include "log/trace_log.h"
#include "provider/lock.h"
#include "provider/records.h"

namespace {

const size_t kFileNameSize = 32;
const size_t kFileListSize = 8192;

// The file name of a data object: its number in decimal.
struct DataFileName {
  explicit DataFileName(int dataId) { snprintf(text, sizeof(text), "%d", dataId); }
  LPSTR get() { return text; }
  char text[kFileNameSize];
};

// 1 when the application holds a file of exactly this name. The token is
// asked every time; a failed enumeration counts as "not found", and names
// beyond the 8192-byte list are not seen.
int isDataFileExist(const Device *hDevice, const char *fileName) {
  char list[kFileListSize];
  memset(list, 0, sizeof(list));
  ULONG size = sizeof(list);
  if (SKF_EnumFiles(hDevice->m_hApp, list, &size) != SAR_OK) return 0;
  size_t limit = size < sizeof(list) ? size : sizeof(list);
  size_t offset = 0;
  while (offset < limit) {
    const char *name = list + offset;
    size_t nameLen = strnlen(name, limit - offset);
    if (offset + nameLen >= limit) break;  // a name cut off by the end
    if (strcmp(name, fileName) == 0) return 1;
    offset += nameLen + 1;
  }
  return 0;
}

// The size of the existing data object, g_lock held. When the token cannot
// tell it, the lock is left, the failure logged under the entry point's name
// and false returned.
bool dataFileSize(ProviderLock &lock, const char *function, const Device *hDevice, LPSTR name,
                  int &size) {
  FILEATTRIBUTE attr;
  memset(&attr, 0, sizeof(attr));
  ULONG rv = SKF_GetFileInfo(hDevice->m_hApp, name, &attr);
  if (rv != SAR_OK) {
    lock.release();
    LOG_ERROR_AS(function, "SKF_GetFileInfo fail, error = 0x%08x", static_cast<unsigned>(rv));
    return false;
  }
  size = static_cast<int>(attr.FileSize);
  return true;
}

// The read and write rights of the mode block. Byte 0 counts the
// meaningful bytes (2, 3 or 4); byte 1 holds the rights of anyone, byte 2
// those of the user. The administrator's rights are read from byte 2 as well
// when the count is 4, not from byte 3: that second reading is the block's
// defined meaning and stays, so the administrator right never arises.
int GetFileRight(const char *mode, ULONG *readRights, ULONG *writeRights) {
  int count = static_cast<signed char>(mode[0]);
  if (count <= 1 || count > 4) return 0;
  unsigned a = static_cast<unsigned char>(mode[1]);
  unsigned u = count >= 3 ? static_cast<unsigned char>(mode[2]) : 0;
  unsigned s = count == 4 ? static_cast<unsigned char>(mode[2]) : 0;
  if (a & 1) {
    *readRights = SECURE_ANYONE_ACCOUNT;
  } else if (u & 1) {
    *readRights = SECURE_USER_ACCOUNT;
  } else {
    *readRights = s & 1;
  }
  if (a & 2) {
    *writeRights = SECURE_ANYONE_ACCOUNT;
  } else if (u & 2) {
    *writeRights = SECURE_USER_ACCOUNT;
  } else {
    *writeRights = (s & 2) >> 1;
  }
  return 1;
}

}  // namespace

extern "C" {

TEMBRA_API int DeviceCreateData(SPI_DEVICE_HANDLE hDevice, int dataId, const char *mode,
                                int length) {
  call_stack_tracer tracer("DeviceCreateData");
  LOG_INFO("hDevice = %p, int dataId = %d, const char * mode = %p, int length = %d",
           static_cast<void *>(hDevice), dataId, static_cast<const void *>(mode), length);
  if (hDevice == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (dataId < 0 || mode == nullptr || length < 0) return ORVEL_PKI_BADARGUMENT;

  DataFileName name(dataId);
  ULONG rv;
  {
    ProviderLock lock;
    if (isDataFileExist(hDevice, name.get())) return ORVEL_PKI_EXISTS;
    ULONG readRights = 0;
    ULONG writeRights = 0;
    if (GetFileRight(mode, &readRights, &writeRights) == 0) {
      lock.release();
      LOG_ERROR("GetFileRight(mode, &ulReadRights, &ulWriteRights) == 0");
      return ORVEL_PKI_FAIL;
    }
    rv = SKF_CreateFile(hDevice->m_hApp, name.get(), static_cast<ULONG>(length), readRights,
                        writeRights);
  }
  if (rv == SAR_OK) return ORVEL_PKI_OK;
  if (rv == SAR_USER_NOT_LOGGED_IN) return ORVEL_PKI_NOTLOGGEDIN;
  LOG_ERROR("SKF_CreateFile fail, error = 0x%08x", static_cast<unsigned>(rv));
  return ORVEL_PKI_FAIL;
}

// Reading stops at the end of the object: a buffer reaching past it gets
// what is there, and a null buffer asks for what is left from the offset.
TEMBRA_API int DeviceReadDataEx(SPI_DEVICE_HANDLE hDevice, int dataId, int offset,
                                unsigned char *data, int datalen, int *pretdatalen) {
  call_stack_tracer tracer("DeviceReadDataEx");
  LOG_INFO(
      "hDevice = %p, int dataId = %d, int offset = %d, unsigned char *data = %p, int datalen = "
      "%d, int*  pretdatalen = %d",
      static_cast<void *>(hDevice), dataId, offset, static_cast<void *>(data), datalen,
      logValueAt(pretdatalen));
  if (hDevice == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (dataId < 0 || offset < 0 || pretdatalen == nullptr) return ORVEL_PKI_BADARGUMENT;

  DataFileName name(dataId);
  ULONG rv;
  ULONG outLen = 0;
  {
    ProviderLock lock;
    if (!isDataFileExist(hDevice, name.get())) return ORVEL_PKI_NOTEXISTS;
    int fileSize = 0;
    if (!dataFileSize(lock, __func__, hDevice, name.get(), fileSize)) return ORVEL_PKI_FAIL;
    if (offset > fileSize) {
      lock.release();
      LOG_ERROR("offset > (int)attr.FileSize");
      return ORVEL_PKI_BADARGUMENT;
    }
    if (data == nullptr) {
      *pretdatalen = fileSize - offset;
      return ORVEL_PKI_OK;
    }
    if (datalen < 0) {
      lock.release();
      LOG_ERROR("datalen < 0");
      return ORVEL_PKI_BADARGUMENT;
    }
    if (datalen == 0) {
      *pretdatalen = 0;
      return ORVEL_PKI_OK;
    }
    int n = datalen;
    if (static_cast<int64_t>(offset) + datalen > fileSize) n = fileSize - offset;
    outLen = static_cast<ULONG>(n);
    rv = SKF_ReadFile(hDevice->m_hApp, name.get(), static_cast<ULONG>(offset),
                      static_cast<ULONG>(n), data, &outLen);
  }
  if (rv == SAR_OK) {
    *pretdatalen = static_cast<int>(outLen);
    return ORVEL_PKI_OK;
  }
  if (rv == SAR_USER_NOT_LOGGED_IN) return ORVEL_PKI_NOTLOGGEDIN;
  LOG_ERROR("SKF_ReadFile fail, error = 0x%08x", static_cast<unsigned>(rv));
  return ORVEL_PKI_FAIL;
}

// Writes never grow an object: they must fit in the size fixed at creation.
TEMBRA_API int DeviceWriteDataEx(SPI_DEVICE_HANDLE hDevice, int dataId, int offset,
                                 const unsigned char *data, int datalen) {
  call_stack_tracer tracer("DeviceWriteDataEx");
  LOG_INFO(
      "hDevice = %p, int dataId = %d, int offset = %d, const unsigned char *data = %p, int "
      "datalen = %d",
      static_cast<void *>(hDevice), dataId, offset, static_cast<const void *>(data), datalen);
  if (hDevice == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (dataId < 0 || offset < 0 || datalen <= 0 || data == nullptr) return ORVEL_PKI_BADARGUMENT;

  DataFileName name(dataId);
  ULONG rv;
  {
    ProviderLock lock;
    if (!isDataFileExist(hDevice, name.get())) return ORVEL_PKI_NOTEXISTS;
    int fileSize = 0;
    if (!dataFileSize(lock, __func__, hDevice, name.get(), fileSize)) return ORVEL_PKI_FAIL;
    if (static_cast<int64_t>(offset) + datalen > fileSize) {
      lock.release();
      LOG_ERROR("offset + datalen > (int)attr.FileSize");
      return ORVEL_PKI_BADARGUMENT;
    }
    rv = SKF_WriteFile(hDevice->m_hApp, name.get(), static_cast<ULONG>(offset),
                       const_cast<BYTE *>(data), static_cast<ULONG>(datalen));
  }
  if (rv == SAR_OK) return ORVEL_PKI_OK;
  if (rv == SAR_USER_NOT_LOGGED_IN) return ORVEL_PKI_NOTLOGGEDIN;
  LOG_ERROR("SKF_WriteFile fail, error = 0x%08x", static_cast<unsigned>(rv));
  return ORVEL_PKI_FAIL;
}

TEMBRA_API int DeviceDeleteData(SPI_DEVICE_HANDLE hDevice, int dataId) {
  call_stack_tracer tracer("DeviceDeleteData");
  LOG_INFO("hDevice = %p, int dataId = %d", static_cast<void *>(hDevice), dataId);
  if (hDevice == nullptr) return ORVEL_PKI_NULLHANDLE;
  if (dataId < 0) return ORVEL_PKI_BADARGUMENT;

  DataFileName name(dataId);
  ULONG rv;
  {
    ProviderLock lock;
    if (!isDataFileExist(hDevice, name.get())) return ORVEL_PKI_NOTEXISTS;
    rv = SKF_DeleteFile(hDevice->m_hApp, name.get());
  }
  if (rv == SAR_OK) return ORVEL_PKI_OK;
  if (rv == SAR_USER_NOT_LOGGED_IN) return ORVEL_PKI_NOTLOGGEDIN;
  LOG_ERROR("SKF_DeleteFile fail, error = 0x%08x", static_cast<unsigned>(rv));
  return ORVEL_PKI_FAIL;
}

}  // extern "C"
