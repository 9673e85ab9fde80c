#include "softskf/core/diagnostics.h"

#include <string.h>

namespace tembra {
namespace softskf {

void CallRecord::start() {
  m_lines.clear();
  m_recording = true;
}

void CallRecord::stop() {
  m_recording = false;
}

long CallRecord::append(const std::string &line) {
  if (!m_recording) return -1;
  m_lines.push_back(line);
  return static_cast<long>(m_lines.size() - 1);
}

void CallRecord::extend(long index, const std::string &text) {
  if (index >= 0 && static_cast<size_t>(index) < m_lines.size()) {
    m_lines[static_cast<size_t>(index)] += text;
  }
}

std::string CallRecord::text() const {
  std::string out;
  for (const std::string &line : m_lines) {
    out += line;
    out += '\n';
  }
  return out;
}

void FaultSwitch::set(const std::string &function, ULONG result, int times) {
  if (times == 0) {
    m_faults.erase(function);
  } else {
    m_faults[function] = Fault{result, times};
  }
}

bool FaultSwitch::take(const std::string &function, ULONG &result) {
  auto it = m_faults.find(function);
  if (it == m_faults.end()) return false;
  result = it->second.result;
  if (it->second.remaining > 0 && --it->second.remaining == 0) m_faults.erase(it);
  return true;
}

bool isSkfFunctionName(const char *name) {
  static const char *const kNames[] = {
      "SKF_EnumDev",           "SKF_ConnectDev",        "SKF_DisConnectDev",
      "SKF_GetDevInfo",        "SKF_LockDev",           "SKF_UnlockDev",
      "SKF_ChangeDevAuthKey",  "SKF_DevAuth",           "SKF_ChangePIN",
      "SKF_GetPINInfo",        "SKF_VerifyPIN",         "SKF_UnblockPIN",
      "SKF_ClearSecureState",  "SKF_CreateApplication", "SKF_EnumApplication",
      "SKF_DeleteApplication", "SKF_OpenApplication",   "SKF_CloseApplication",
      "SKF_CreateFile",        "SKF_DeleteFile",        "SKF_EnumFiles",
      "SKF_GetFileInfo",       "SKF_ReadFile",          "SKF_WriteFile",
      "SKF_CreateContainer",   "SKF_DeleteContainer",   "SKF_OpenContainer",
      "SKF_CloseContainer",    "SKF_EnumContainer",     "SKF_GetContainerType",
      "SKF_ImportCertificate", "SKF_ExportCertificate", "SKF_GenRandom",
      "SKF_GenRSAKeyPair",     "SKF_ImportRSAKeyPair",  "SKF_RSASignData",
      "SKF_RSADecrypt",        "SKF_GenECCKeyPair",     "SKF_ImportECCKeyPair",
      "SKF_ECCSignData",       "SKF_ECCDecrypt",        "SKF_ExportPublicKey",
      "SKF_SetSymmKey",        "SKF_EncryptInit",       "SKF_Encrypt",
      "SKF_DecryptInit",       "SKF_Decrypt",           "SKF_CloseHandle",
      "SKF_DigestInit",        "SKF_DigestUpdate",      "SKF_DigestFinal"};
  // The rest of GM/T 0016.
  static const char *const kMoreNames[] = {"SKF_WaitForDevEvent",
                                           "SKF_CancelWaitForDevEvent",
                                           "SKF_GetDevState",
                                           "SKF_SetLabel",
                                           "SKF_Transmit",
                                           "SKF_GenExtRSAKey",
                                           "SKF_RSAVerify",
                                           "SKF_RSAExportSessionKey",
                                           "SKF_ExtRSAPubKeyOperation",
                                           "SKF_ExtRSAPriKeyOperation",
                                           "SKF_ECCVerify",
                                           "SKF_ECCExportSessionKey",
                                           "SKF_ExtECCEncrypt",
                                           "SKF_ExtECCDecrypt",
                                           "SKF_ExtECCSign",
                                           "SKF_ExtECCVerify",
                                           "SKF_GenerateAgreementDataWithECC",
                                           "SKF_GenerateAgreementDataAndKeyWithECC",
                                           "SKF_GenerateKeyWithECC",
                                           "SKF_ImportSessionKey",
                                           "SKF_EncryptUpdate",
                                           "SKF_EncryptFinal",
                                           "SKF_DecryptUpdate",
                                           "SKF_DecryptFinal",
                                           "SKF_Digest",
                                           "SKF_MacInit",
                                           "SKF_Mac",
                                           "SKF_MacUpdate",
                                           "SKF_MacFinal"};
  if (name == nullptr) return false;
  for (const char *known : kNames) {
    if (strcmp(known, name) == 0) return true;
  }
  for (const char *known : kMoreNames) {
    if (strcmp(known, name) == 0) return true;
  }
  return false;
}

}  // namespace softskf
}  // namespace tembra
