// Algorithm identifiers as the calls take them: SM2 under either numbering
// in use, and the symmetric algorithm of a session key.
#ifndef TEMBRA_SOFTSKF_API_ALGORITHM_IDS_H
#define TEMBRA_SOFTSKF_API_ALGORITHM_IDS_H

#include "platform/skf.h"

namespace tembra {
namespace softskf {

// SM2 signing: 0x00020100 in the token's numbering, 0x00020200 in GM/T 0006.
inline bool isSm2SignatureAlgorithm(ULONG id) {
  return id == SGD_SM2_1 || id == SGD_SM2_1_GMT0006;
}

// Any SM2 identifier of either numbering.
inline bool isSm2Algorithm(ULONG id) {
  return id == SGD_SM2_1 || id == SGD_SM2_2 || id == SGD_SM2_3 || id == SGD_SM2_3_GMT0006;
}

// The algorithm of a new session key: SMS4 ECB, CBC, CFB or OFB as asked;
// SAR_NOTSUPPORTYETERR for SM1, SSF33 and anything else, as SKF_SetSymmKey
// answers them. With `sm2Default` an SM2 identifier (key agreement callers
// name the agreement instead of the key) yields SMS4 ECB.
inline ULONG sessionKeyAlgorithm(ULONG id, bool sm2Default, ULONG &algorithm) {
  if (id == SGD_SMS4_ECB || id == SGD_SMS4_CBC || id == SGD_SMS4_CFB || id == SGD_SMS4_OFB) {
    algorithm = id;
    return SAR_OK;
  }
  if (sm2Default && isSm2Algorithm(id)) {
    algorithm = SGD_SMS4_ECB;
    return SAR_OK;
  }
  return SAR_NOTSUPPORTYETERR;
}

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_API_ALGORITHM_IDS_H
