// Fuzz target: the subject text of `tembra csr` ("/CN=.../O=..."), read
// into a DER Name; text that is not of that form must end in UsageError
// and nothing else.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "cli/csr.h"
#include "cli/session.h"
#include "crypto/der.h"
#include "fuzz/fuzz_limits.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > kMaxFuzzInput) return 0;
  try {
    std::vector<uint8_t> name =
        tembra::cli::subjectName(std::string(reinterpret_cast<const char *>(data), size));
    // What comes out is one well-formed SEQUENCE.
    tembra::der::Reader reader(name);
    tembra::der::Reader inner;
    if (!reader.enterSequence(inner) || !reader.finished()) __builtin_trap();
  } catch (const tembra::cli::UsageError &) {
  }
  return 0;
}
