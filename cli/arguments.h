// Command-line parsing for `tembra`: options as "--name value",
// "--name=value" or a one-letter alias ("-o file"), flags without a value,
// repeatable options, and positional words. Nothing here knows the commands;
// each command hands in the options it accepts.
#ifndef TEMBRA_CLI_ARGUMENTS_H
#define TEMBRA_CLI_ARGUMENTS_H

#include <map>
#include <string>
#include <vector>

namespace tembra {
namespace cli {

struct OptionDefinition {
  std::string name;         // without the leading "--"
  bool takesValue;          // false: a flag
  char alias = '\0';        // one-letter form, or none
  bool repeatable = false;  // may be given more than once
  // The --help line: "VALUE: what it does (default: ...)"; for a flag just
  // what it does. The text before the first ": " names the value.
  std::string help = std::string();
};

class Arguments {
 public:
  // Parses words against definitions. False with a one-line *error for an unknown
  // option, a missing value, a value given to a flag or a repeated option.
  bool parse(const std::vector<std::string> &words,
             const std::vector<OptionDefinition> &definitions, std::string *error);

  bool has(const std::string &name) const { return m_values.count(name) != 0; }
  // The (last) value of an option, or fallback if it was not given.
  std::string value(const std::string &name, const std::string &fallback = "") const;
  const std::vector<std::string> &values(const std::string &name) const;
  const std::vector<std::string> &positionals() const { return m_positionals; }

 private:
  std::map<std::string, std::vector<std::string>> m_values;
  std::vector<std::string> m_positionals;
};

// The options every command takes.
const std::vector<OptionDefinition> &globalOptions();

// Splits the words into the command name and the rest: the command is the
// first word that is neither an option nor the value of a global option.
// Returns false if there is no command word.
bool splitCommand(const std::vector<std::string> &words, std::string &command,
                  std::vector<std::string> &rest);

// A non-negative decimal integer that fits an int; false otherwise.
bool parseIndex(const std::string &text, int &value);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_ARGUMENTS_H
