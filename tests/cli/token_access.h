// Direct SKF access to a provisioned software token, for checking what the
// provisioning library left on it without going through the provider.
#ifndef TEMBRA_TESTS_CLI_TOKEN_ACCESS_H
#define TEMBRA_TESTS_CLI_TOKEN_ACCESS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "crypto/backend.h"
#include "platform/skf.h"
#include "softskf/provision/provision.h"

namespace tembra {
namespace test {

// Token "tok" with application "App" holding container "C1" of the kind.
provision::DeviceSpec oneContainer(provision::KeyKind kind, bool encryption = true,
                                   bool certificates = true);

// Names of every device in the current store, present or not.
std::vector<std::string> tokenNames();

class TokenConnection {
 public:
  explicit TokenConnection(const std::string &name);
  ~TokenConnection();
  TokenConnection(const TokenConnection &) = delete;
  TokenConnection &operator=(const TokenConnection &) = delete;

  bool openContainer(const std::string &application, const std::string &container);
  HCONTAINER container() const { return m_container; }

  bool sm2PublicKey(bool signatureKey, crypto::Sm2PublicKey &key);
  bool rsaPublicKey(bool signatureKey, crypto::RsaPublicKey &key);
  std::vector<uint8_t> certificate(bool signatureKey);

 private:
  DEVHANDLE m_device = nullptr;
  HAPPLICATION m_application = nullptr;
  HCONTAINER m_container = nullptr;
};

}  // namespace test
}  // namespace tembra

#endif  // TEMBRA_TESTS_CLI_TOKEN_ACCESS_H
