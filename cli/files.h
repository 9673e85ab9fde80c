// Files for `tembra`: reads and writes with the OS reason on failure, "-"
// meaning standard input or output, inputs read in pieces (bounded memory,
// a progress bar on a terminal for large ones), and DER/PEM detection for
// keys and certificates.
#ifndef TEMBRA_CLI_FILES_H
#define TEMBRA_CLI_FILES_H

#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <string>
#include <vector>

namespace tembra {
namespace cli {

// "cannot open F: No such file or directory", "F: is a directory": one
// line naming the file and what the system said. errorNumber is an errno.
std::string fileError(const std::string &action, const std::string &path, int errorNumber);

// An input file ("-": standard input) read in pieces. Throws CliError with
// the OS reason when it cannot be opened or read, or is a directory.
class InputFile {
 public:
  explicit InputFile(const std::string &path);
  ~InputFile();
  InputFile(const InputFile &) = delete;
  InputFile &operator=(const InputFile &) = delete;

  const std::string &path() const { return m_path; }
  // The size of a regular file, else 0 (a pipe, a terminal).
  uint64_t size() const { return m_size; }
  // Up to len bytes; 0 at the end.
  size_t read(uint8_t *buffer, size_t len);

 private:
  std::string m_path;
  FILE *m_file = nullptr;
  bool m_owned = false;
  uint64_t m_size = 0;
};

// Reads the whole input in pieces of kInputPieceSize bytes, handing each to
// consume; memory stays bounded whatever the size. A progress bar labelled
// `what` shows on a terminal for inputs over a few MiB.
const size_t kInputPieceSize = 1u << 20;
void readInPieces(const std::string &path, const std::string &what,
                  const std::function<void(const uint8_t *, size_t)> &consume);
// The same for an input opened beforehand (to fail early, before a PIN is
// asked for).
void readInPieces(InputFile &input, const std::string &what,
                  const std::function<void(const uint8_t *, size_t)> &consume);

// The whole file; throws CliError with the OS reason. With a limit, a file
// longer than limit bytes is refused before it is read whole: the message
// is "<path> is larger than <limit> bytes: <why>".
std::vector<uint8_t> readFile(const std::string &path);
std::vector<uint8_t> readFile(const std::string &path, size_t limit, const std::string &why);
void writeFile(const std::string &path, const uint8_t *data, size_t len);
inline void writeFile(const std::string &path, const std::vector<uint8_t> &data) {
  writeFile(path, data.data(), data.size());
}

// DER as is, or the first PEM block with this label; throws when the bytes
// are neither.
std::vector<uint8_t> derFromDerOrPem(const std::vector<uint8_t> &bytes, const char *label,
                                     const std::string &path);

// Puts standard output in binary mode (Windows translates line ends in text
// mode); nothing elsewhere.
void binaryStandardOutput();

// Sets an environment variable for this process and the libraries it loads.
void setEnvironment(const std::string &name, const std::string &value);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_FILES_H
