#include "tests/provider_core/fake_token.h"

#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "provider/records.h"

CRITICAL_SECTION g_lock;

namespace fake {

namespace {

std::string nameOf(const void *p) {
  return p == nullptr ? "null" : static_cast<const char *>(p);
}

}  // namespace

std::vector<std::string> &calls() {
  static std::vector<std::string> recorded;
  return recorded;
}

void *handle(const char *name) {
  // Names live as long as the process: the handles are string literals.
  return const_cast<char *>(name);
}

unsigned char *hostBuffer(const char *name) {
  size_t size = strlen(name) + 1;
  unsigned char *buffer = static_cast<unsigned char *>(malloc(size));
  memcpy(buffer, name, size);
  return buffer;
}

}  // namespace fake

extern "C" {

ULONG DEVAPI SKF_CloseContainer(HCONTAINER hContainer) {
  fake::calls().push_back("SKF_CloseContainer " + fake::nameOf(hContainer));
  return SAR_OK;
}

ULONG DEVAPI SKF_CloseHandle(HANDLE hHandle) {
  fake::calls().push_back("SKF_CloseHandle " + fake::nameOf(hHandle));
  return SAR_OK;
}

ULONG DEVAPI SKF_CloseApplication(HAPPLICATION hApplication) {
  fake::calls().push_back("SKF_CloseApplication " + fake::nameOf(hApplication));
  return SAR_OK;
}

ULONG DEVAPI SKF_DisConnectDev(DEVHANDLE hDev) {
  fake::calls().push_back("SKF_DisConnectDev " + fake::nameOf(hDev));
  return SAR_OK;
}

int OrvelPKICryptoFreeMemory(void *p) {
  fake::calls().push_back("OrvelPKICryptoFreeMemory " + fake::nameOf(p));
  free(p);
  return 1;
}

}  // extern "C"
