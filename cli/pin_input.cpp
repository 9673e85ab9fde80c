#include "cli/pin_input.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef _WIN32
#include <io.h>

#include "platform/win_types.h"
#else
#include <termios.h>
#include <unistd.h>
#endif

#include "cli/errors.h"
#include "cli/files.h"
#include "cli/terminal.h"
#include "platform/secure_zero.h"

namespace tembra {
namespace cli {

SecretText::SecretText(const char *text) : m_chars(text, text + strlen(text)) {
  m_chars.push_back('\0');
}

SecretText::~SecretText() {
  secureZero(m_chars.data(), m_chars.size());
}

void SecretText::push_back(char c) {
  if (m_chars.size() == m_chars.capacity()) {
    std::vector<char> larger;
    larger.reserve(m_chars.capacity() * 2 + 16);
    larger.assign(m_chars.begin(), m_chars.end());
    secureZero(m_chars.data(), m_chars.size());
    m_chars.swap(larger);
  }
  m_chars.back() = c;
  m_chars.push_back('\0');
}

namespace {

// A PIN ends at the first line end; a file's trailing newline is not part of
// it. "-" is standard input, of which only that first line is read.
bool readPinFile(const std::string &path, SecretText &pin, std::string *error) {
  const bool useStdin = path == "-";
  FILE *file = useStdin ? stdin : fopen(path.c_str(), "rb");
  if (file == nullptr) {
    *error = fileError("cannot read PIN file", path, errno);
    return false;
  }
  SecretText text;
  int c;
  while ((c = fgetc(file)) != EOF && c != '\n' && c != '\r') text.push_back(char(c));
  if (!useStdin) fclose(file);
  if (text.empty()) {
    *error = useStdin ? std::string("no PIN on standard input") : "PIN file " + path + " is empty";
    return false;
  }
  pin = SecretText(text.c_str());
  return true;
}

// Echo is switched off while the PIN is typed and restored afterwards.
class EchoOff {
 public:
  EchoOff() {
#ifdef _WIN32
    m_console = GetStdHandle(STD_INPUT_HANDLE);
    m_saved = GetConsoleMode(m_console, &m_mode) != 0;
    if (m_saved) SetConsoleMode(m_console, m_mode & ~DWORD(ENABLE_ECHO_INPUT));
#else
    m_saved = tcgetattr(STDIN_FILENO, &m_mode) == 0;
    if (m_saved) {
      struct termios quiet = m_mode;
      quiet.c_lflag &= ~tcflag_t(ECHO);
      tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
#endif
  }
  ~EchoOff() {
#ifdef _WIN32
    if (m_saved) SetConsoleMode(m_console, m_mode);
#else
    if (m_saved) tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_mode);
#endif
  }
  EchoOff(const EchoOff &) = delete;
  EchoOff &operator=(const EchoOff &) = delete;

 private:
#ifdef _WIN32
  HANDLE m_console = nullptr;
  DWORD m_mode = 0;
#else
  struct termios m_mode;
#endif
  bool m_saved = false;
};

bool promptPin(const std::string &prompt, SecretText &pin, std::string *error) {
  SecretText text;
  {
    // Echo goes off before the prompt shows, so nothing typed after it is
    // ever echoed.
    EchoOff quiet;
    fprintf(stderr, "%s: ", prompt.c_str());
    fflush(stderr);
    int c;
    while ((c = fgetc(stdin)) != EOF && c != '\n' && c != '\r') text.push_back(char(c));
  }
  fprintf(stderr, "\n");
  if (text.empty()) {
    *error = "no PIN entered";
    return false;
  }
  pin = SecretText(text.c_str());
  return true;
}

}  // namespace

std::vector<OptionDefinition> pinOptions(const std::string &prefix) {
  const std::string which =
      prefix.empty() ? "the PIN" : "the " + prefix.substr(0, prefix.size() - 1) + " PIN";
  return {{prefix + "pin-file", true, '\0', false,
           "F: read " + which + " from the first line of file F (- for standard input)"},
          {prefix + "pin-env", true, '\0', false, "VAR: take " + which + " from variable VAR"},
          {prefix + "pin-insecure-arg", true, '\0', false,
           "PIN: " + which + " itself (visible to other users; avoid)"}};
}

bool pinGiven(const Arguments &args, const std::string &prefix) {
  return args.has(prefix + "pin-file") || args.has(prefix + "pin-env") ||
         args.has(prefix + "pin-insecure-arg");
}

bool readPin(const Arguments &args, const std::string &prefix, const std::string &prompt,
             std::ostream &warnings, SecretText &pin, std::string *error) {
  const std::string fileOption = prefix + "pin-file";
  const std::string envOption = prefix + "pin-env";
  const std::string argOption = prefix + "pin-insecure-arg";
  int sources = int(args.has(fileOption)) + int(args.has(envOption)) + int(args.has(argOption));
  if (sources > 1) {
    *error = "give only one of --" + fileOption + ", --" + envOption + ", --" + argOption;
    return false;
  }
  if (args.has(fileOption)) return readPinFile(args.value(fileOption), pin, error);
  if (args.has(envOption)) {
    const std::string variable = args.value(envOption);
    const char *text = getenv(variable.c_str());
    if (text == nullptr || text[0] == '\0') {
      *error = "environment variable " + variable + " is not set";
      return false;
    }
    pin = SecretText(text);
    return true;
  }
  if (args.has(argOption)) {
    warnings << "tembra: warning: a PIN on the command line is visible to other users\n";
    pin = SecretText(args.value(argOption).c_str());
    if (pin.empty()) {
      *error = "empty PIN";
      return false;
    }
    return true;
  }
  if (!stdinIsTerminal()) {
    *error = "no PIN given: use --" + fileOption + " or --" + envOption + ", or run on a terminal";
    return false;
  }
  return promptPin(prompt, pin, error);
}

bool readNewPin(const Arguments &args, const std::string &prefix, const std::string &prompt,
                std::ostream &warnings, SecretText &pin, std::string *error) {
  const bool prompted = !pinGiven(args, prefix);
  if (!readPin(args, prefix, prompt, warnings, pin, error)) return false;
  if (pin.size() < size_t(kMinPinLength) || pin.size() > size_t(kMaxPinLength)) {
    *error = prompt + ": PIN length out of range " + pinLengthText();
    return false;
  }
  if (!prompted) return true;
  SecretText again;
  if (!promptPin(prompt + " again", again, error)) return false;
  if (strcmp(again.c_str(), pin.c_str()) != 0) {
    *error = "the two PINs typed differ; nothing was changed";
    return false;
  }
  return true;
}

}  // namespace cli
}  // namespace tembra
