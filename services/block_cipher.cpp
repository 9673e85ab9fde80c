#include "services/block_cipher.h"

#include "include/tembra_key_prov.h"
#include "platform/skf.h"

namespace {

struct BlockCipherRow {
  int host;
  uint32_t skf;
  int chained;
};

constexpr BlockCipherRow kBlockCiphers[] = {
    {ORVEL_PKI_ALGORITHM_SSF33_ECB, SGD_SSF33_ECB, 0},
    {ORVEL_PKI_ALGORITHM_SSF33_CBC, SGD_SSF33_CBC, 1},
    {ORVEL_PKI_ALGORITHM_SM1_ECB, SGD_SM1_ECB, 0},
    {ORVEL_PKI_ALGORITHM_SM1_CBC, SGD_SM1_CBC, 1},
    {ORVEL_PKI_ALGORITHM_SMS4_ECB, SGD_SMS4_ECB, 0},
    {ORVEL_PKI_ALGORITHM_SMS4_CBC, SGD_SMS4_CBC, 1},
};

const BlockCipherRow *findBlockCipher(int hostAlgorithm) {
  for (const BlockCipherRow &row : kBlockCiphers) {
    if (row.host == hostAlgorithm) return &row;
  }
  return nullptr;
}

}  // namespace

int64_t skfBlockCipherAlgorithm(int hostAlgorithm) {
  const BlockCipherRow *row = findBlockCipher(hostAlgorithm);
  return row != nullptr ? static_cast<int64_t>(row->skf) : -1;
}

int isChainedBlockCipher(int hostAlgorithm) {
  const BlockCipherRow *row = findBlockCipher(hostAlgorithm);
  return row != nullptr ? row->chained : 0;
}
