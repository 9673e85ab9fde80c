// PINs for `tembra`: from the terminal without echo, from a file, from an
// environment variable, or (only when asked for explicitly) from the command
// line. A PIN lives in a SecretText, which wipes it when released.
#ifndef TEMBRA_CLI_PIN_INPUT_H
#define TEMBRA_CLI_PIN_INPUT_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/arguments.h"

namespace tembra {
namespace cli {

// NUL-terminated text that is wiped on destruction.
class SecretText {
 public:
  SecretText() : m_chars(1, '\0') {}
  explicit SecretText(const char *text);
  ~SecretText();
  SecretText(const SecretText &other) : m_chars(other.m_chars) {}
  SecretText &operator=(const SecretText &) = delete;
  // The replaced text goes to other, which wipes it.
  SecretText &operator=(SecretText &&other) noexcept {
    m_chars.swap(other.m_chars);
    return *this;
  }

  const char *c_str() const { return m_chars.data(); }
  size_t size() const { return m_chars.size() - 1; }
  bool empty() const { return size() == 0; }
  // Appends a character without leaving an unwiped copy behind.
  void push_back(char c);

 private:
  std::vector<char> m_chars;
};

// The options of one PIN, named with a prefix ("" gives --pin-file,
// --pin-env, --pin-insecure-arg; "admin-" gives --admin-pin-file ...).
std::vector<OptionDefinition> pinOptions(const std::string &prefix);

// Reads the PIN that the options with this prefix name ("--pin-file -" reads
// standard input), else prompts on the terminal (without echo) when standard
// input is one. False with a one-line
// *error when no source is given and there is no terminal, when the file or
// variable is missing or empty. A PIN from --...-pin-insecure-arg draws a
// warning on warnings.
bool readPin(const Arguments &args, const std::string &prefix, const std::string &prompt,
             std::ostream &warnings, SecretText &pin, std::string *error);

// A new PIN: as readPin, its length checked against the tokens' range, and
// when typed on the terminal asked a second time and compared, so that a
// typo never sets an unknown PIN.
bool readNewPin(const Arguments &args, const std::string &prefix, const std::string &prompt,
                std::ostream &warnings, SecretText &pin, std::string *error);

// True if any PIN option of this prefix was given.
bool pinGiven(const Arguments &args, const std::string &prefix);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_PIN_INPUT_H
