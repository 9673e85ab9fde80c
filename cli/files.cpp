#include "cli/files.h"

#include <stdio.h>
#include <stdlib.h>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>

#include "platform/win_types.h"
#endif

#include "cli/session.h"
#include "crypto/key_formats.h"

namespace tembra {
namespace cli {

namespace {

FILE *binaryStream(FILE *stream) {
#ifdef _WIN32
  _setmode(_fileno(stream), _O_BINARY);
#endif
  return stream;
}

}  // namespace

std::vector<uint8_t> readFile(const std::string &path) {
  const bool useStdin = path == "-";
  FILE *file = useStdin ? binaryStream(stdin) : fopen(path.c_str(), "rb");
  if (file == nullptr) throw CliError("cannot open " + path);
  std::vector<uint8_t> data;
  uint8_t chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
    data.insert(data.end(), chunk, chunk + got);
  const bool failed = ferror(file) != 0;
  if (!useStdin) fclose(file);
  if (failed) throw CliError("cannot read " + path);
  return data;
}

void writeFile(const std::string &path, const uint8_t *data, size_t len) {
  const bool useStdout = path == "-";
  FILE *file = useStdout ? binaryStream(stdout) : fopen(path.c_str(), "wb");
  if (file == nullptr) throw CliError("cannot create " + path);
  bool ok = len == 0 || fwrite(data, 1, len, file) == len;
  ok = (useStdout ? fflush(file) : fclose(file)) == 0 && ok;
  if (!ok) throw CliError("cannot write " + path);
}

std::vector<uint8_t> derFromDerOrPem(const std::vector<uint8_t> &bytes, const char *label,
                                     const std::string &path) {
  if (!bytes.empty() && bytes[0] == 0x30) return bytes;
  std::vector<uint8_t> der;
  if (!crypto::pemUnarmour(std::string(bytes.begin(), bytes.end()), label, der)) {
    throw CliError(path + " holds neither DER nor PEM \"" + label + "\"");
  }
  return der;
}

void setEnvironment(const std::string &name, const std::string &value) {
#ifdef _WIN32
  // Both the C runtime's copy and the process environment: libraries with
  // their own runtime read the latter.
  _putenv_s(name.c_str(), value.c_str());
  SetEnvironmentVariableA(name.c_str(), value.c_str());
#else
  setenv(name.c_str(), value.c_str(), 1);
#endif
}

}  // namespace cli
}  // namespace tembra
