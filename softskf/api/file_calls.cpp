// File calls. A file has a fixed size from its creation and its own read and
// write rights; creation is governed by the application's create-file
// rights, deletion by the file's write right.
#include <string.h>

#include "softskf/core/session.h"

using namespace tembra;
using namespace tembra::softskf;

extern "C" {

ULONG DEVAPI SKF_CreateFile(HAPPLICATION hApplication, LPSTR szFileName, ULONG ulFileSize,
                            ULONG ulReadRights, ULONG ulWriteRights) {
  return guarded([&]() -> ULONG {
    Call call("SKF_CreateFile");
    call.handle("hApplication", hApplication)
        .text("szFileName", szFileName)
        .number("ulFileSize", ulFileSize)
        .hex("ulReadRights", ulReadRights)
        .hex("ulWriteRights", ulWriteRights);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if ((rv = takeName(szFileName, kMaxFileNameLen, name)) != SAR_OK) return rv;
    if (ulFileSize > kMaxFileSize) return SAR_INVALIDPARAMERR;
    ApplicationRecord &app = session.app();
    if ((rv = checkRights(app.createFileRights, session.security())) != SAR_OK) return rv;
    if (app.findFile(name) != nullptr) return SAR_FILE_ALREADY_EXIST;
    if (app.files.size() >= kMaxFiles) return SAR_NO_ROOM;
    FileRecord file;
    file.name = name;
    file.readRights = ulReadRights;
    file.writeRights = ulWriteRights;
    file.data.assign(ulFileSize, 0);
    app.files.push_back(std::move(file));
    return session.save();
  });
}

ULONG DEVAPI SKF_DeleteFile(HAPPLICATION hApplication, LPSTR szFileName) {
  return guarded([&]() -> ULONG {
    Call call("SKF_DeleteFile");
    call.handle("hApplication", hApplication).text("szFileName", szFileName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if ((rv = takeName(szFileName, kMaxFileNameLen, name)) != SAR_OK) return rv;
    std::vector<FileRecord> &files = session.app().files;
    for (auto it = files.begin(); it != files.end(); ++it) {
      if (it->name != name) continue;
      if ((rv = checkRights(it->writeRights, session.security())) != SAR_OK) return rv;
      files.erase(it);
      return session.save();
    }
    return SAR_FILE_NOT_EXIST;
  });
}

ULONG DEVAPI SKF_EnumFiles(HAPPLICATION hApplication, LPSTR szFileList, ULONG *pulSize) {
  return guarded([&]() -> ULONG {
    Call call("SKF_EnumFiles");
    call.handle("hApplication", hApplication).number("ulSize", pulSize ? *pulSize : 0);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::vector<std::string> names;
    for (const FileRecord &f : session.view().files) names.push_back(f.name);
    std::string list = multiString(names);
    return answerBytes(reinterpret_cast<const uint8_t *>(list.data()), list.size(),
                       reinterpret_cast<BYTE *>(szFileList), pulSize);
  });
}

ULONG DEVAPI SKF_GetFileInfo(HAPPLICATION hApplication, LPSTR szFileName,
                             FILEATTRIBUTE *pFileInfo) {
  return guarded([&]() -> ULONG {
    Call call("SKF_GetFileInfo");
    call.handle("hApplication", hApplication).text("szFileName", szFileName);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if ((rv = takeName(szFileName, kMaxFileNameLen, name)) != SAR_OK) return rv;
    if (pFileInfo == nullptr) return SAR_INVALIDPARAMERR;
    const FileRecord *file = session.view().findFile(name);
    if (file == nullptr) return SAR_FILE_NOT_EXIST;
    FILEATTRIBUTE info;
    memset(&info, 0, sizeof info);
    memcpy(info.FileName, file->name.data(), file->name.size());
    info.FileSize = static_cast<ULONG>(file->data.size());
    info.ReadRights = file->readRights;
    info.WriteRights = file->writeRights;
    *pFileInfo = info;
    return SAR_OK;
  });
}

ULONG DEVAPI SKF_ReadFile(HAPPLICATION hApplication, LPSTR szFileName, ULONG ulOffset, ULONG ulSize,
                          BYTE *pbOutData, ULONG *pulOutLen) {
  return guarded([&]() -> ULONG {
    Call call("SKF_ReadFile");
    call.handle("hApplication", hApplication)
        .text("szFileName", szFileName)
        .number("ulOffset", ulOffset)
        .number("ulSize", ulSize);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if ((rv = takeName(szFileName, kMaxFileNameLen, name)) != SAR_OK) return rv;
    if (pulOutLen == nullptr) return SAR_INVALIDPARAMERR;
    const FileRecord *file = session.view().findFile(name);
    if (file == nullptr) return SAR_FILE_NOT_EXIST;
    if ((rv = checkRights(file->readRights, session.security())) != SAR_OK) return rv;
    if (ulOffset > file->data.size()) return SAR_INDATALENERR;
    size_t left = file->data.size() - ulOffset;
    size_t n = ulSize < left ? ulSize : left;
    return answerBytes(file->data.data() + ulOffset, n, pbOutData, pulOutLen);
  });
}

ULONG DEVAPI SKF_WriteFile(HAPPLICATION hApplication, LPSTR szFileName, ULONG ulOffset,
                           BYTE *pbData, ULONG ulSize) {
  return guarded([&]() -> ULONG {
    Call call("SKF_WriteFile");
    call.handle("hApplication", hApplication)
        .text("szFileName", szFileName)
        .number("ulOffset", ulOffset)
        .number("ulSize", ulSize);
    ULONG rv;
    if (call.faulted(rv)) return rv;
    AppSession session(call);
    if ((rv = session.openApplication(hApplication)) != SAR_OK) return rv;
    std::string name;
    if ((rv = takeName(szFileName, kMaxFileNameLen, name)) != SAR_OK) return rv;
    if (pbData == nullptr && ulSize > 0) return SAR_INVALIDPARAMERR;
    FileRecord *file = session.app().findFile(name);
    if (file == nullptr) return SAR_FILE_NOT_EXIST;
    if ((rv = checkRights(file->writeRights, session.security())) != SAR_OK) return rv;
    if (ulOffset > file->data.size() || ulSize > file->data.size() - ulOffset)
      return SAR_INDATALENERR;
    if (ulSize > 0) memcpy(file->data.data() + ulOffset, pbData, ulSize);
    return session.save();
  });
}

}  // extern "C"
