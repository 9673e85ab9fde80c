// The symmetric algorithms of key envelopes: the three ECB ciphers, named by
// their host identifiers in the blobs and by their SKF identifiers to the
// token. The mapping itself is the one block-cipher table.
#include "import/envelope_algorithm.h"

#include "import/keypair_import.h"
#include "include/tembra_key_prov.h"
#include "platform/skf.h"
#include "services/block_cipher.h"

ULONG envelopeSymmetricAlgorithm(uint32_t hostAlgorithm) {
  // Values above INT_MAX name no cipher; they must not wrap onto one.
  if (hostAlgorithm > 0x7FFFFFFFu) return 0;
  const int host = static_cast<int>(hostAlgorithm);
  if (isChainedBlockCipher(host)) return 0;
  const int64_t skf = skfBlockCipherAlgorithm(host);
  return skf > 0 ? static_cast<ULONG>(skf) : 0;
}

int chooseEnvelopeAlgorithm(uint32_t algSymCap) {
  if ((algSymCap & 0x00000001u) == 0) return 0;
  if ((algSymCap & 0x00000100u) != 0) return ORVEL_PKI_ALGORITHM_SM1_ECB;
  if ((algSymCap & 0x00000200u) != 0) return ORVEL_PKI_ALGORITHM_SSF33_ECB;
  if ((algSymCap & 0x00000400u) != 0) return ORVEL_PKI_ALGORITHM_SMS4_ECB;
  return 0;
}
