// Fuzz target: the readers of the GM/T 0016 key and cipher blobs that SKF
// callers hand to the software token (RSA and SM2 key blobs, SM2 cipher
// blobs, also as wrapped session keys of any length).
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "fuzz/fuzz_limits.h"
#include "softskf/api/blob_forms.h"

using namespace tembra;
using namespace tembra::softskf;

namespace {

template <typename Blob>
Blob blobOf(const uint8_t *data, size_t size) {
  Blob blob;
  memset(&blob, 0, sizeof blob);
  memcpy(&blob, data, size < sizeof blob ? size : sizeof blob);
  return blob;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput) return 0;
  RSAPUBLICKEYBLOB rsaPublicBlob = blobOf<RSAPUBLICKEYBLOB>(data, size);
  RSAPRIVATEKEYBLOB rsaPrivateBlob = blobOf<RSAPRIVATEKEYBLOB>(data, size);
  ECCPUBLICKEYBLOB eccPublicBlob = blobOf<ECCPUBLICKEYBLOB>(data, size);
  ECCPRIVATEKEYBLOB eccPrivateBlob = blobOf<ECCPRIVATEKEYBLOB>(data, size);
  crypto::RsaPublicKey rsaPublic;
  crypto::RsaPrivateKey rsaPrivate;
  crypto::Sm2PublicKey sm2Public;
  SecureArray<32> d;
  rsaPublicFromBlob(&rsaPublicBlob, rsaPublic);
  rsaPrivateFromBlob(&rsaPrivateBlob, rsaPrivate);
  eccPublicFromBlob(&eccPublicBlob, sm2Public);
  eccPrivateFromBlob(&eccPrivateBlob, d);
  // A wrapped session key: the blob is as long as the input, CipherLen bounded by it.
  const size_t header = sizeof(ECCCIPHERBLOB) - 1;
  if (size >= header) {
    std::vector<uint8_t> copy(data, data + size);
    std::vector<uint8_t> flat;
    eccCipherToFlat(reinterpret_cast<const ECCCIPHERBLOB *>(copy.data()),
                    static_cast<ULONG>(size - header), flat);
  }
  return 0;
}
