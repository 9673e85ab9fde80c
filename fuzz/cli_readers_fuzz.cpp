// Fuzz target: the readers of `tembra` for files the user names: the
// certificate and public key files (DER or PEM, then the key decoded as the
// signing and encryption commands do) and the PIN file. The input is
// written to a file and read back through the command-line code.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "cli/arguments.h"
#include "cli/files.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "cli/signing.h"
#include "fuzz/fuzz_limits.h"
#include "fuzz/fuzz_store.h"

namespace {

const std::string &inputPath() {
  static const std::string path = [] {
    char pattern[] = "/tmp/tembra_fuzz_cli_XXXXXX";
    const int fd = mkstemp(pattern);
    if (fd < 0) abort();
    close(fd);
    return std::string(pattern);
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace tembra::cli;
  if (size > kMaxFuzzInput) return 0;
  const std::string &path = inputPath();
  fuzzstore::writeAll(path, data, size);

  const std::vector<uint8_t> bytes = readFile(path);
  if (bytes.size() != size) abort();
  for (const char *label : {"CERTIFICATE", "PUBLIC KEY"}) {
    try {
      const std::vector<uint8_t> der = derFromDerOrPem(bytes, label, path);
      if (isSm2Key(der)) {
        verifySignature(der, bytes, der, HashKind::Sm3);
      } else {
        verifySignature(der, bytes, der, HashKind::Sha256);
      }
    } catch (const CliError &) {
    }
  }

  Arguments args;
  std::string error;
  if (!args.parse({"--pin-file", path}, pinOptions(""), &error)) abort();
  std::ostringstream warnings;
  SecretText pin;
  readPin(args, "", "PIN", warnings, pin, &error);
  return 0;
}
