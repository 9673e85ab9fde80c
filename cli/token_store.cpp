#include "cli/token_store.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <set>

#include "cli/errors.h"
#include "cli/files.h"
#include "cli/session.h"
#include "platform/skf.h"
#include "softskf/store/fs.h"

namespace tembra {
namespace cli {
namespace {

namespace fs = softskf::fs;

std::set<std::string> listedTokens() {
  std::set<std::string> names;
  ULONG size = 0;
  if (SKF_EnumDev(FALSE, nullptr, &size) != SAR_OK) return names;
  std::vector<char> buffer(size_t(size) + 2, '\0');
  size = ULONG(buffer.size());
  if (SKF_EnumDev(FALSE, buffer.data(), &size) != SAR_OK) return names;
  for (size_t offset = 0; offset < buffer.size() && buffer[offset] != '\0';) {
    names.emplace(buffer.data() + offset);
    offset += strlen(buffer.data() + offset) + 1;
  }
  return names;
}

// Why the token library cannot use a listed token: connection and every
// application must open. Empty when all is well or the token is unplugged.
std::string openProblem(const std::string &name) {
  DEVHANDLE device = nullptr;
  ULONG rv = SKF_ConnectDev(const_cast<LPSTR>(name.c_str()), &device);
  if (rv == SAR_DEVICE_REMOVED) return std::string();
  if (rv != SAR_OK) return "cannot be opened: " + tokenResultText(rv);
  std::string problem;
  char list[1024] = {0};
  ULONG size = sizeof(list) - 1;
  rv = SKF_EnumApplication(device, list, &size);
  if (rv != SAR_OK) problem = "cannot be read: " + tokenResultText(rv);
  for (const char *p = list; problem.empty() && *p != '\0' && p < list + sizeof(list) - 1;
       p += strlen(p) + 1) {
    HAPPLICATION application = nullptr;
    rv = SKF_OpenApplication(device, const_cast<LPSTR>(p), &application);
    if (rv != SAR_OK) {
      problem =
          "has an application '" + std::string(p) + "' that cannot be read: " + tokenResultText(rv);
    } else {
      SKF_CloseApplication(application);
    }
  }
  SKF_DisConnectDev(device);
  return problem;
}

}  // namespace

std::string tokenStoreDirectory() {
  return softskf::fs::storeDirectory();
}

void checkTokenStore(const std::string &directory) {
  struct stat status;
  if (stat(directory.c_str(), &status) != 0) {
    throw CliError("token store " + directory + ": " + strerror(errno));
  }
  if (!S_ISDIR(status.st_mode)) throw CliError("token store " + directory + ": not a directory");
#ifndef _WIN32
  // Listing needs read permission, which opening for reading checks.
  FILE *probe = fopen(directory.c_str(), "r");
  if (probe == nullptr) throw CliError("token store " + directory + ": " + strerror(errno));
  fclose(probe);
#endif
}

std::vector<StoreProblem> storeProblems() {
  std::vector<StoreProblem> problems;
  const std::string store = tokenStoreDirectory();
  const std::set<std::string> listed = listedTokens();
  for (const std::string &entry : fs::listDirectory(store)) {
    std::string name;
    const std::string directory = fs::join(store, entry);
    if (entry.empty() || entry[0] == '.' || !fs::isDirectory(directory) ||
        !fs::decodeName(entry, name)) {
      continue;
    }
    if (listed.count(name) != 0) {
      const std::string problem = openProblem(name);
      if (!problem.empty()) problems.push_back({name, problem});
      continue;
    }
    const std::string record = fs::join(directory, "device.rec");
    FILE *file = fopen(record.c_str(), "rb");
    if (file == nullptr) {
      problems.push_back({name, errno == ENOENT
                                    ? "is corrupt (device.rec is missing)"
                                    : std::string("is unreadable (") + strerror(errno) + ")"});
      continue;
    }
    fclose(file);
    problems.push_back({name, "is corrupt (device.rec cannot be decoded)"});
  }
  return problems;
}

std::vector<StoreProblem> tokensMissingFrom(const std::vector<std::string> &providerSerials) {
  std::vector<StoreProblem> missing;
  for (const std::string &name : listedTokens()) {
    DEVHANDLE device = nullptr;
    if (SKF_ConnectDev(const_cast<LPSTR>(name.c_str()), &device) != SAR_OK) continue;
    DEVINFO info;
    memset(&info, 0, sizeof(info));
    const bool known = SKF_GetDevInfo(device, &info) == SAR_OK;
    SKF_DisConnectDev(device);
    if (!known) continue;
    const std::string serial(info.SerialNumber,
                             strnlen(info.SerialNumber, sizeof(info.SerialNumber)));
    bool listed = false;
    for (const std::string &other : providerSerials) listed = listed || other == serial;
    if (!listed) {
      missing.push_back({name, "(serial " + serial +
                                   ") is present, but the provider dropped it at discovery "
                                   "(--trace shows why)"});
    }
  }
  return missing;
}

std::string problemsText(const std::vector<StoreProblem> &problems) {
  std::string text;
  for (const StoreProblem &problem : problems) {
    text += (text.empty() ? "" : "; ") + ("token '" + problem.token + "' " + problem.reason);
  }
  return text;
}

}  // namespace cli
}  // namespace tembra
