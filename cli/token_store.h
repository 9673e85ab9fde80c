// The software token store as `tembra` checks it: where it is, whether it
// can be read, and which of its tokens the token library does not list or
// cannot open, with the reason. A token that silently dropped out of the
// device list would shift every device number after it.
#ifndef TEMBRA_CLI_TOKEN_STORE_H
#define TEMBRA_CLI_TOKEN_STORE_H

#include <string>
#include <vector>

namespace tembra {
namespace cli {

// $TEMBRA_SOFTSKF_DIR, else the per-user data directory the token uses.
std::string tokenStoreDirectory();

// Throws CliError "token store DIR: <OS reason>" when the directory is
// missing, not a directory or cannot be listed.
void checkTokenStore(const std::string &directory);

struct StoreProblem {
  std::string token;   // the token's name
  std::string reason;  // "corrupt", "unreadable (Permission denied)", ...
};

// Tokens of the store that the token library leaves out or cannot open.
std::vector<StoreProblem> storeProblems();

// Present tokens, healthy to the token library, whose serial number is none
// of the provider's devices' (the provider dropped them at discovery).
std::vector<StoreProblem> tokensMissingFrom(const std::vector<std::string> &providerSerials);

// "token 'a' is corrupt (...); token 'b' is unreadable (...)".
std::string problemsText(const std::vector<StoreProblem> &problems);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_TOKEN_STORE_H
