// The output-buffer protocol shared by the entry points that hand bytes to
// the host.
#ifndef TEMBRA_PROVIDER_BUFFER_PROTOCOL_H
#define TEMBRA_PROVIDER_BUFFER_PROTOCOL_H

#include <string.h>

#include "include/tembra_key_prov.h"

// Stores the needed length `len` through `pretLen` first (when given). A null
// `out` makes the call a length query (1); an `out` shorter than `len` answers
// ORVEL_PKI_MOREDATA and is left untouched; otherwise the bytes are copied (1).
inline int copyOut(const void *src, int len, void *out, int outLen, int *pretLen) {
  if (pretLen != nullptr) *pretLen = len;
  if (out == nullptr) return ORVEL_PKI_OK;
  if (outLen < len) return ORVEL_PKI_MOREDATA;
  memcpy(out, src, static_cast<size_t>(len));
  return ORVEL_PKI_OK;
}

#endif  // TEMBRA_PROVIDER_BUFFER_PROTOCOL_H
