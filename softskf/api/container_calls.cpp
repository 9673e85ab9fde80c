// Container calls: creation and deletion (user login), opening, enumeration
// in creation order, the container type, and certificates.
#include "softskf/core/session.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

HCONTAINER addContainerHandle(Call &call, AppSession &session, const std::string &name) {
  std::unique_ptr<ContainerObject> object(new ContainerObject);
  object->application = session.applicationId();
  object->device = call.token().handles.applicationById(session.applicationId())->device;
  object->name = name;
  return call.token().handles.add(std::move(object));
}

}  // namespace

extern "C" {

ULONG DEVAPI SKF_CreateContainer(HAPPLICATION hApplication, LPSTR szContainerName,
                                 HCONTAINER *phContainer) {
  return guarded([&]() -> ULONG {
    Call call("SKF_CreateContainer");
    call.handle("hApplication", hApplication).text("szContainerName", szContainerName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if (phContainer == nullptr) return SAR_INVALIDPARAMERR;
    if ((rv = takeName(szContainerName, kMaxContainerNameLen, name)) != SAR_OK) return rv;
    if (!session.security().user) return SAR_USER_NOT_LOGGED_IN;
    ApplicationRecord &app = session.app();
    if (app.findContainer(name) != nullptr) return SAR_FILE_ALREADY_EXIST;
    if (app.containers.size() >= kMaxContainers) return SAR_REACH_MAX_CONTAINER_COUNT;
    ContainerRecord container;
    container.name = name;
    app.containers.push_back(container);
    if ((rv = session.save()) != SAR_OK) return rv;
    *phContainer = addContainerHandle(call, session, name);
    call.output("hContainer", *phContainer);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_DeleteContainer(HAPPLICATION hApplication, LPSTR szContainerName) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DeleteContainer");
    call.handle("hApplication", hApplication).text("szContainerName", szContainerName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if ((rv = takeName(szContainerName, kMaxContainerNameLen, name)) != SAR_OK) return rv;
    if (!session.security().user) return SAR_USER_NOT_LOGGED_IN;
    std::vector<ContainerRecord> &containers = session.app().containers;
    for (auto it = containers.begin(); it != containers.end(); ++it) {
      if (it->name == name) {
        containers.erase(it);
        return session.save();
      }
    }
    return SAR_INVALIDPARAMERR;
  });
}

ULONG DEVAPI SKF_OpenContainer(HAPPLICATION hApplication, LPSTR szContainerName,
                               HCONTAINER *phContainer) {
  return guarded([&]() -> ULONG {
    Call call("SKF_OpenContainer");
    call.handle("hApplication", hApplication).text("szContainerName", szContainerName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if (phContainer == nullptr) return SAR_INVALIDPARAMERR;
    if ((rv = takeName(szContainerName, kMaxContainerNameLen, name)) != SAR_OK) return rv;
    if (session.view().findContainer(name) == nullptr) return SAR_INVALIDPARAMERR;
    *phContainer = addContainerHandle(call, session, name);
    call.output("hContainer", *phContainer);
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_CloseContainer(HCONTAINER hContainer) {
  return guarded([&]() -> ULONG {
    Call call("SKF_CloseContainer");
    call.handle("hContainer", hContainer);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    return call.token().handles.remove(hContainer, HandleKind::Container) ? SAR_OK
                                                                          : SAR_INVALIDHANDLEERR;
  });
}

ULONG DEVAPI SKF_EnumContainer(HAPPLICATION hApplication, LPSTR szContainerName, ULONG *pulSize) {
  return guarded([&]() -> ULONG {
    Call call("SKF_EnumContainer");
    call.handle("hApplication", hApplication).number("ulSize", pulSize ? *pulSize : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::vector<std::string> names;
    for (const ContainerRecord &c : session.view().containers) names.push_back(c.name);
    std::string list = multiString(names);
    return answerBytes(reinterpret_cast<const uint8_t *>(list.data()), list.size(),
                       reinterpret_cast<BYTE *>(szContainerName), pulSize);
  });
}

ULONG DEVAPI SKF_GetContainerType(HCONTAINER hContainer, ULONG *pulContainerType) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GetContainerType");
    call.handle("hContainer", hContainer);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pulContainerType == nullptr) return SAR_INVALIDPARAMERR;
    *pulContainerType = session.containerView().type();
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ImportCertificate(HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbCert,
                                   ULONG ulCertLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ImportCertificate");
    call.handle("hContainer", hContainer)
        .number("bSignFlag", bSignFlag ? 1 : 0)
        .number("ulCertLen", ulCertLen);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pbCert == nullptr || ulCertLen == 0 || ulCertLen > kMaxCertificateSize)
      return SAR_INVALIDPARAMERR;
    if (!session.security().user) return SAR_USER_NOT_LOGGED_IN;
    ContainerRecord &c = session.container();
    (bSignFlag ? c.signatureCertificate : c.encryptionCertificate)
        .assign(pbCert, pbCert + ulCertLen);
    return session.save();
  });
}

ULONG DEVAPI SKF_ExportCertificate(HCONTAINER hContainer, BOOL bSignFlag, BYTE *pbCert,
                                   ULONG *pulCertLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ExportCertificate");
    call.handle("hContainer", hContainer)
        .number("bSignFlag", bSignFlag ? 1 : 0)
        .number("ulCertLen", pulCertLen ? *pulCertLen : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openContainer(hContainer)) != SAR_OK) return rv;
    if (pulCertLen == nullptr) return SAR_INVALIDPARAMERR;
    const std::vector<uint8_t> &cert = bSignFlag ? session.containerView().signatureCertificate
                                                 : session.containerView().encryptionCertificate;
    if (cert.empty()) return SAR_CERTNOTFOUNTERR;
    return answerBytes(cert.data(), cert.size(), pbCert, pulCertLen);
  });
}

}  // extern "C"
