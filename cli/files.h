// Files for `tembra`: whole-file reads and writes, "-" meaning standard
// input or output, and DER/PEM detection for keys and certificates.
#ifndef TEMBRA_CLI_FILES_H
#define TEMBRA_CLI_FILES_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tembra {
namespace cli {

// Throws CliError naming the file on failure.
std::vector<uint8_t> readFile(const std::string &path);
void writeFile(const std::string &path, const uint8_t *data, size_t len);
inline void writeFile(const std::string &path, const std::vector<uint8_t> &data) {
  writeFile(path, data.data(), data.size());
}

// DER as is, or the first PEM block with this label; throws when the bytes
// are neither.
std::vector<uint8_t> derFromDerOrPem(const std::vector<uint8_t> &bytes, const char *label,
                                     const std::string &path);

// Sets an environment variable for this process and the libraries it loads.
void setEnvironment(const std::string &name, const std::string &value);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_FILES_H
