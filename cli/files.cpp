#include "cli/files.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>

#include "platform/win_types.h"
#endif

#include "cli/session.h"
#include "cli/terminal.h"
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

std::string fileError(const std::string &action, const std::string &path, int errorNumber) {
  const std::string name = path == "-" ? std::string("standard input") : path;
  if (errorNumber == EISDIR) return name + ": is a directory";
  return action + " " + name + ": " + strerror(errorNumber);
}

InputFile::InputFile(const std::string &path) : m_path(path) {
  if (path == "-") {
    m_file = binaryStream(stdin);
    return;
  }
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throw CliError(fileError("cannot open", path, errno));
  if (S_ISDIR(status.st_mode)) throw CliError(fileError("cannot open", path, EISDIR));
  m_file = fopen(path.c_str(), "rb");
  if (m_file == nullptr) throw CliError(fileError("cannot open", path, errno));
  m_owned = true;
  if (S_ISREG(status.st_mode)) m_size = uint64_t(status.st_size);
}

InputFile::~InputFile() {
  if (m_owned) fclose(m_file);
}

size_t InputFile::read(uint8_t *buffer, size_t len) {
  const size_t got = fread(buffer, 1, len, m_file);
  if (got == 0 && ferror(m_file) != 0) throw CliError(fileError("cannot read", m_path, errno));
  return got;
}

void readInPieces(const std::string &path, const std::string &what,
                  const std::function<void(const uint8_t *, size_t)> &consume) {
  InputFile input(path);
  readInPieces(input, what, consume);
}

void readInPieces(InputFile &input, const std::string &what,
                  const std::function<void(const uint8_t *, size_t)> &consume) {
  ProgressBar progress(what, input.size());
  std::vector<uint8_t> piece(kInputPieceSize);
  size_t got;
  while ((got = input.read(piece.data(), piece.size())) > 0) {
    consume(piece.data(), got);
    progress.advance(got);
  }
}

std::vector<uint8_t> readFile(const std::string &path) {
  return readFile(path, SIZE_MAX, std::string());
}

std::vector<uint8_t> readFile(const std::string &path, size_t limit, const std::string &why) {
  InputFile input(path);
  auto tooLarge = [&]() {
    return CliError((path == "-" ? std::string("standard input") : path) + " is larger than " +
                    std::to_string(limit) + " bytes: " + why);
  };
  if (input.size() > limit) throw tooLarge();
  std::vector<uint8_t> data;
  uint8_t chunk[65536];
  size_t got;
  while ((got = input.read(chunk, sizeof(chunk))) > 0) {
    if (got > limit - data.size()) throw tooLarge();
    data.insert(data.end(), chunk, chunk + got);
  }
  return data;
}

void writeFile(const std::string &path, const uint8_t *data, size_t len) {
  const bool useStdout = path == "-";
  FILE *file = useStdout ? binaryStream(stdout) : fopen(path.c_str(), "wb");
  if (file == nullptr) {
    const int reason = errno;
    struct stat status;
    throw CliError(
        fileError("cannot create", path,
                  stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? EISDIR : reason));
  }
  bool ok = len == 0 || fwrite(data, 1, len, file) == len;
  int reason = ok ? 0 : errno;
  const bool closed = (useStdout ? fflush(file) : fclose(file)) == 0;
  if (ok && !closed) reason = errno;
  if (!ok || !closed) throw CliError(fileError("cannot write", path, reason != 0 ? reason : EIO));
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

void binaryStandardOutput() {
  fflush(stdout);
  binaryStream(stdout);
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
