// A fresh software-token store per test, and the token's call record.
#include <string>
#include <vector>

#include "hostcrypto/include/orvel_test.h"
#include "softskf/include/softskf.h"
#include "tests/support/provider_test_support.h"

namespace tembra {
namespace test {

TokenStore::TokenStore() {
  setEnv("TEMBRA_SOFTSKF_DIR", m_dir.path().c_str());
  SKFSoft_ClearFaults();
  OrvelTestClearFaults();
}

TokenStore::~TokenStore() {
  SKFSoft_ClearFaults();
  OrvelTestClearFaults();
  unsetEnv("TEMBRA_SOFTSKF_DIR");
}

std::vector<std::string> tokenCallLog() {
  std::vector<std::string> lines;
  ULONG length = 0;
  if (SKFSoft_GetCallLog(nullptr, &length) != SAR_OK || length == 0) return lines;
  std::string text(length, '\0');
  if (SKFSoft_GetCallLog(&text[0], &length) != SAR_OK) return lines;
  text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

}  // namespace test
}  // namespace tembra
