#include "tests/cli/token_access.h"

#include <string.h>

namespace tembra {
namespace test {
provision::DeviceSpec oneContainer(provision::KeyKind kind, bool encryption, bool certificates) {
  provision::DeviceSpec plan;
  plan.name = "tok";
  plan.label = "Label";
  plan.serial = "SN0001";
  memcpy(plan.authKey, provision::kDefaultAuthKey, 16);
  provision::ContainerSpec container;
  container.name = "C1";
  container.kind = kind;
  container.encryptionKey = encryption;
  container.certificates = certificates;
  plan.applications.resize(1);
  plan.applications[0].name = "App";
  plan.applications[0].containers.push_back(container);
  return plan;
}

std::vector<std::string> tokenNames() {
  std::vector<char> list(4096, '\0');
  ULONG size = ULONG(list.size());
  if (SKF_EnumDev(FALSE, list.data(), &size) != SAR_OK) return {"<SKF_EnumDev failed>"};
  std::vector<std::string> names;
  for (size_t offset = 0; offset < list.size() && list[offset] != '\0';) {
    names.emplace_back(list.data() + offset);
    offset += names.back().size() + 1;
  }
  return names;
}

TokenConnection::TokenConnection(const std::string &name) {
  if (SKF_ConnectDev(const_cast<LPSTR>(name.c_str()), &m_device) != SAR_OK) m_device = nullptr;
}

TokenConnection::~TokenConnection() {
  if (m_container != nullptr) SKF_CloseContainer(m_container);
  if (m_application != nullptr) {
    SKF_ClearSecureState(m_application);
    SKF_CloseApplication(m_application);
  }
  if (m_device != nullptr) SKF_DisConnectDev(m_device);
}

bool TokenConnection::openContainer(const std::string &application, const std::string &container) {
  return m_device != nullptr &&
         SKF_OpenApplication(m_device, const_cast<LPSTR>(application.c_str()), &m_application) ==
             SAR_OK &&
         SKF_OpenContainer(m_application, const_cast<LPSTR>(container.c_str()), &m_container) ==
             SAR_OK;
}

bool TokenConnection::sm2PublicKey(bool signatureKey, crypto::Sm2PublicKey &key) {
  ECCPUBLICKEYBLOB blob;
  ULONG len = sizeof(blob);
  if (SKF_ExportPublicKey(m_container, signatureKey, reinterpret_cast<BYTE *>(&blob), &len) !=
      SAR_OK) {
    return false;
  }
  memcpy(key.x, blob.XCoordinate + 32, 32);
  memcpy(key.y, blob.YCoordinate + 32, 32);
  return true;
}

bool TokenConnection::rsaPublicKey(bool signatureKey, crypto::RsaPublicKey &key) {
  RSAPUBLICKEYBLOB blob;
  ULONG len = sizeof(blob);
  if (SKF_ExportPublicKey(m_container, signatureKey, reinterpret_cast<BYTE *>(&blob), &len) !=
      SAR_OK) {
    return false;
  }
  const size_t modulusLen = blob.BitLen / 8;
  key.n.assign(blob.Modulus + sizeof(blob.Modulus) - modulusLen,
               blob.Modulus + sizeof(blob.Modulus));
  key.e.assign(blob.PublicExponent, blob.PublicExponent + 4);
  while (!key.e.empty() && key.e.front() == 0) key.e.erase(key.e.begin());
  return true;
}

std::vector<uint8_t> TokenConnection::certificate(bool signatureKey) {
  ULONG len = 0;
  if (SKF_ExportCertificate(m_container, signatureKey, nullptr, &len) != SAR_OK || len == 0) {
    return {};
  }
  std::vector<uint8_t> der(len);
  if (SKF_ExportCertificate(m_container, signatureKey, der.data(), &len) != SAR_OK) return {};
  der.resize(len);
  return der;
}

}  // namespace test
}  // namespace tembra
