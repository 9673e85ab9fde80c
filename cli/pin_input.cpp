#include "cli/pin_input.h"

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

// A PIN ends at the first line end; a file's trailing newline is not part of it.
bool readPinFile(const std::string &path, SecretText &pin, std::string *error) {
  FILE *file = fopen(path.c_str(), "rb");
  if (file == nullptr) {
    *error = "cannot read PIN file " + path;
    return false;
  }
  SecretText text;
  int c;
  while ((c = fgetc(file)) != EOF && c != '\n' && c != '\r') text.push_back(char(c));
  fclose(file);
  if (text.empty()) {
    *error = "PIN file " + path + " is empty";
    return false;
  }
  pin = SecretText(text.c_str());
  return true;
}

bool stdinIsTerminal() {
#ifdef _WIN32
  return _isatty(_fileno(stdin)) != 0;
#else
  return isatty(STDIN_FILENO) != 0;
#endif
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
  fprintf(stderr, "%s: ", prompt.c_str());
  fflush(stderr);
  SecretText text;
  {
    EchoOff quiet;
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
  return {
      {prefix + "pin-file", true}, {prefix + "pin-env", true}, {prefix + "pin-insecure-arg", true}};
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

}  // namespace cli
}  // namespace tembra
