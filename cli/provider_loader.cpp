#include "cli/provider_loader.h"

#ifdef _WIN32
#include "platform/win_types.h"
#else
#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>
#endif

namespace tembra {
namespace cli {
namespace {

#ifdef _WIN32
void *openLibrary(const std::string &path, std::string *reason) {
  HMODULE module = LoadLibraryA(path.c_str());
  if (module == nullptr) *reason = "error " + std::to_string(GetLastError());
  return reinterpret_cast<void *>(module);
}
void *findSymbol(void *module, const char *name) {
  return reinterpret_cast<void *>(GetProcAddress(static_cast<HMODULE>(module), name));
}
void closeLibrary(void *module) {
  FreeLibrary(static_cast<HMODULE>(module));
}
#else
void *openLibrary(const std::string &path, std::string *reason) {
  void *module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    const char *text = dlerror();
    *reason = text != nullptr ? text : "unknown error";
  }
  return module;
}
void *findSymbol(void *module, const char *name) {
  return dlsym(module, name);
}
void closeLibrary(void *module) {
  dlclose(module);
}
#endif

std::string &moduleOverride() {
  static std::string path;
  return path;
}

}  // namespace

void setProviderModule(const std::string &path) {
  moduleOverride() = path;
}

const char *providerLibraryName() {
#ifdef _WIN32
  return "TembraKeyProv.dll";
#else
  return "libTembraKeyProv.so";
#endif
}

std::string executableDirectory() {
#ifdef _WIN32
  char path[MAX_PATH];
  DWORD len = GetModuleFileNameA(nullptr, path, MAX_PATH);
  if (len == 0 || len >= MAX_PATH) return std::string();
  std::string text(path, len);
  size_t slash = text.find_last_of("\\/");
#else
  char path[PATH_MAX];
  ssize_t len = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (len <= 0) return std::string();
  std::string text(path, size_t(len));
  size_t slash = text.rfind('/');
#endif
  if (slash == std::string::npos) return std::string();
  return text.substr(0, slash + 1);
}

ProviderLibrary::~ProviderLibrary() {
  unload();
}

void ProviderLibrary::unload() {
  if (m_module != nullptr) closeLibrary(m_module);
  m_module = nullptr;
  m_api = ProviderApi();
}

bool ProviderLibrary::load(std::string *error) {
  unload();
  const std::string name = providerLibraryName();
  std::string reason;
  if (!moduleOverride().empty()) {
    m_path = moduleOverride();
    m_module = openLibrary(m_path, &reason);
    if (m_module == nullptr) {
      if (error != nullptr) *error = "cannot load " + m_path + ": " + reason;
      return false;
    }
  } else {
    const std::string beside = executableDirectory() + name;
    m_module = openLibrary(beside, &reason);
    m_path = beside;
  }
  if (m_module == nullptr) {
    m_module = openLibrary(name, &reason);
    m_path = name;
  }
  if (m_module == nullptr) {
    if (error != nullptr) *error = "cannot load " + name + ": " + reason;
    return false;
  }
#define TEMBRA_CLI_RESOLVE_ENTRY(entry)                                                \
  m_api.entry = reinterpret_cast<decltype(m_api.entry)>(findSymbol(m_module, #entry)); \
  if (m_api.entry == nullptr) {                                                        \
    if (error != nullptr) *error = "entry point " #entry " missing in " + m_path;      \
    unload();                                                                          \
    return false;                                                                      \
  }
  TEMBRA_CLI_ENTRY_POINTS(TEMBRA_CLI_RESOLVE_ENTRY)
#undef TEMBRA_CLI_RESOLVE_ENTRY
  return true;
}

}  // namespace cli
}  // namespace tembra
