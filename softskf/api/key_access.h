// What the key calls share: the login check that yields the token key, and
// the choice of a container's key pair by the GM/T sign flag.
#ifndef TEMBRA_SOFTSKF_API_KEY_ACCESS_H
#define TEMBRA_SOFTSKF_API_KEY_ACCESS_H

#include "softskf/core/session.h"

namespace tembra {
namespace softskf {

// SAR_OK with the token key when the user is logged in to the application,
// else SAR_USER_NOT_LOGGED_IN.
inline ULONG userTokenKey(AppSession &session, TokenKey &tokenKey) {
  SecurityState &state = session.security();
  if (!state.user || !state.hasTokenKey) return SAR_USER_NOT_LOGGED_IN;
  tokenKey = state.tokenKey;
  return SAR_OK;
}

// bSignFlag non-zero: the signature key pair; 0: the encryption key pair.
inline KeyPairRecord &keyPairOf(ContainerRecord &container, BOOL bSignFlag) {
  return bSignFlag ? container.signature : container.encryption;
}
inline const KeyPairRecord &keyPairOf(const ContainerRecord &container, BOOL bSignFlag) {
  return bSignFlag ? container.signature : container.encryption;
}

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_API_KEY_ACCESS_H
