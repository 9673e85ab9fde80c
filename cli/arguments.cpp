#include "cli/arguments.h"

#include <limits.h>

namespace tembra {
namespace cli {
namespace {

const OptionDefinition *findDefinition(const std::vector<OptionDefinition> &definitions,
                                       const std::string &name) {
  for (const OptionDefinition &definition : definitions) {
    if (name == definition.name) return &definition;
  }
  return nullptr;
}

const OptionDefinition *findAlias(const std::vector<OptionDefinition> &definitions, char alias) {
  for (const OptionDefinition &definition : definitions) {
    if (definition.alias != '\0' && definition.alias == alias) return &definition;
  }
  return nullptr;
}

}  // namespace

const std::vector<OptionDefinition> &globalOptions() {
  static const std::vector<OptionDefinition> options = {
      {"device", true, '\0', false, "N: device N of the provider's device set (default: 0)"},
      {"token-label", true, '\0', false, "L: the device whose token label is L"},
      {"serial", true, '\0', false, "S: the device whose serial number is S"},
      {"store", true, '\0', false,
       "DIR: software token store (default: $TEMBRA_SOFTSKF_DIR, else "
       "~/.local/share/tembra/softskf)"},
      {"module", true, '\0', false,
       "PATH: load this provider build (default: beside tembra, then the system search)"},
      {"json", false, '\0', false, "machine-readable output"},
      {"quiet", false, 'q', false, "no summaries or notes, only results and errors"},
      {"force", false, '\0', false,
       "write binary data to a terminal; for cert put, store a certificate of another key"},
      {"trace", false, '\0', false,
       "full provider trace log (level 5); the log then records PINs (default: errors only)"},
      {"version", false, '\0', false, "the version of tembra"},
      {"help", false, 'h', false, "this help"}};
  return options;
}

bool Arguments::parse(const std::vector<std::string> &words,
                      const std::vector<OptionDefinition> &definitions, std::string *error) {
  m_values.clear();
  m_positionals.clear();
  bool optionsEnded = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string &word = words[i];
    if (optionsEnded || word.size() < 2 || word[0] != '-') {
      m_positionals.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    const OptionDefinition *definition = nullptr;
    std::string display;
    std::string inlineValue;
    bool hasInlineValue = false;
    if (word[1] == '-') {
      std::string name = word.substr(2);
      size_t equals = name.find('=');
      if (equals != std::string::npos) {
        inlineValue = name.substr(equals + 1);
        hasInlineValue = true;
        name.resize(equals);
      }
      definition = findDefinition(definitions, name);
      display = "--" + name;
    } else if (word.size() == 2) {
      definition = findAlias(definitions, word[1]);
      display = word;
    }
    if (definition == nullptr) {
      *error = "unknown option " + (display.empty() ? word : display);
      return false;
    }
    std::string value;
    if (definition->takesValue) {
      if (hasInlineValue) {
        value = inlineValue;
      } else if (i + 1 < words.size()) {
        value = words[++i];
      } else {
        *error = "option " + display + " needs a value";
        return false;
      }
    } else if (hasInlineValue) {
      *error = "option " + display + " takes no value";
      return false;
    }
    std::vector<std::string> &slot = m_values[definition->name];
    if (!slot.empty() && !definition->repeatable) {
      *error = "option " + display + " given twice";
      return false;
    }
    slot.push_back(value);
  }
  return true;
}

std::string Arguments::value(const std::string &name, const std::string &fallback) const {
  auto it = m_values.find(name);
  if (it == m_values.end() || it->second.empty()) return fallback;
  return it->second.back();
}

const std::vector<std::string> &Arguments::values(const std::string &name) const {
  static const std::vector<std::string> none;
  auto it = m_values.find(name);
  return it == m_values.end() ? none : it->second;
}

bool splitCommand(const std::vector<std::string> &words, std::string &command,
                  std::vector<std::string> &rest) {
  rest.clear();
  command.clear();
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string &word = words[i];
    if (!command.empty()) {
      rest.push_back(word);
      continue;
    }
    if (word.size() >= 2 && word[0] == '-') {
      rest.push_back(word);
      const OptionDefinition *definition =
          word[1] == '-' ? findDefinition(globalOptions(), word.substr(2)) : nullptr;
      if (definition != nullptr && definition->takesValue && i + 1 < words.size())
        rest.push_back(words[++i]);
      continue;
    }
    command = word;
  }
  return !command.empty();
}

bool parseIndex(const std::string &text, int &value) {
  if (text.empty() || text.size() > 9) return false;
  long result = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    result = result * 10 + (c - '0');
  }
  if (result > INT_MAX) return false;
  value = int(result);
  return true;
}

}  // namespace cli
}  // namespace tembra
