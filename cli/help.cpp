#include "cli/help.h"

#include <set>
#include <string>
#include <vector>

#include "cli/arguments.h"

#ifndef TEMBRA_VERSION
#define TEMBRA_VERSION "0.0.0"
#endif

namespace tembra {
namespace cli {
namespace {

// One example per command, as a user types it.
const char *exampleFor(const std::string &name) {
  static const std::vector<std::pair<std::string, const char *>> examples = {
      {"devices", "tembra devices --json"},
      {"keys", "tembra keys --token-label Alice"},
      {"pubkey", "tembra pubkey --label Sign --pem -o sign.pem"},
      {"cert", "tembra cert get --label Sign --pem | openssl x509 -noout -subject"},
      {"token",
       "tembra token create alice --container Sign:sm2 --user-pin-file pin.txt "
       "--admin-pin-file admin.txt"},
      {"login", "tembra login --pin-file pin.txt"},
      {"passwd", "tembra passwd --pin-file old.txt --new-pin-file new.txt"},
      {"unblock", "tembra unblock --admin-pin-file admin.txt --new-pin-file new.txt"},
      {"pin-info", "tembra pin-info --serial TMB0123456789ab"},
      {"sign", "tembra sign --label Sign -i contract.pdf --pin-file pin.txt > contract.sig"},
      {"verify", "tembra verify --pubkey sign.pem -i contract.pdf -s contract.sig"},
      {"encrypt", "tembra encrypt --label Sign -i note.txt -o note.bin"},
      {"decrypt", "tembra decrypt --label Sign -i note.bin -o note.txt --pin-file pin.txt"},
      {"random", "tembra random 32 --hex"},
      {"hash", "tembra hash -i contract.pdf"},
      {"cipher",
       "tembra cipher encrypt --alg sm4-cbc --key-file key.hex --iv "
       "000102030405060708090a0b0c0d0e0f --pad -i note.txt -o note.sm4"},
      {"mechanisms", "tembra mechanisms --json"},
      {"keygen", "tembra keygen --label Sign2 --alg sm2 --pin-file pin.txt"},
      {"csr",
       "tembra csr --label Sign2 --subject /CN=Alice/O=Example --pem -o alice.csr "
       "--pin-file pin.txt"},
      {"delete-key", "tembra delete-key --label Sign2 --yes --pin-file pin.txt"},
      {"data", "tembra data read 3 --length 16 | od -An -tx1"},
      {"import", "tembra import --label Sign --enveloped -i enc.blob --pin-file pin.txt"},
      {"envelope", "tembra envelope --to sign.pem -i enc.key -o enc.blob"},
      {"demo", "tembra demo --store /tmp/demo-store"},
  };
  for (const auto &example : examples) {
    if (example.first == name) return example.second;
  }
  return nullptr;
}

struct OptionText {
  std::string left;   // "-o, --output FILE"
  std::string right;  // what it does
};

OptionText optionText(const OptionDefinition &option) {
  OptionText text;
  std::string help = option.help;
  std::string value = "VALUE";
  if (option.takesValue) {
    const size_t colon = help.find(": ");
    if (colon != std::string::npos && colon < 12) {
      value = help.substr(0, colon);
      help = help.substr(colon + 2);
    }
  }
  if (option.alias != '\0') text.left = std::string("-") + option.alias + ", ";
  text.left += "--" + option.name + (option.takesValue ? " " + value : "");
  if (option.repeatable) text.left += " ...";
  text.right = help;
  return text;
}

void printOptions(std::ostream &out, const std::vector<OptionDefinition> &options) {
  for (const OptionDefinition &option : options) {
    const OptionText text = optionText(option);
    out << "  " << text.left;
    if (text.left.size() < 26) {
      out << std::string(26 - text.left.size(), ' ');
    } else {
      out << "\n" << std::string(28, ' ');
    }
    out << text.right << "\n";
  }
}

// roff: a leading dot or quote and backslashes need escaping.
std::string roff(const std::string &text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out = "\\&" + out;
  return out;
}

void manOptions(std::ostream &out, const std::vector<OptionDefinition> &options) {
  for (const OptionDefinition &option : options) {
    const OptionText text = optionText(option);
    out << ".TP\n.B " << roff(text.left) << "\n" << roff(text.right) << "\n";
  }
}

}  // namespace

const char *tembraVersion() {
  return TEMBRA_VERSION;
}

void printGeneralHelp(std::ostream &out) {
  out << "usage: tembra [global options] <command> [options]\n"
         "A command-line host for the TembraKeyProv device key provider.\n\nCommands:\n";
  for (const Command &command : allCommands()) {
    std::string name = command.name;
    out << "  " << name << std::string(name.size() < 10 ? 10 - name.size() : 1, ' ')
        << command.summary << "\n";
  }
  out << "\nGlobal options:\n";
  printOptions(out, globalOptions());
  out << "\nBinary results go to standard output when -o is missing or -; summaries then go to\n"
         "standard error. 'tembra <command> --help' shows a command's options.\n";
}

void printCommandHelp(std::ostream &out, const Command &command) {
  out << "usage: tembra " << command.name << " " << command.usage << "\n"
      << command.summary << "\n";
  if (!command.options.empty()) {
    out << "\nOptions:\n";
    printOptions(out, command.options);
  }
  if (const char *example = exampleFor(command.name)) out << "\nExample:\n  " << example << "\n";
  out << "\nGlobal options:\n";
  printOptions(out, globalOptions());
}

void writeManPage(std::ostream &out) {
  out << ".TH TEMBRA 1 \"\" \"tembra " << TEMBRA_VERSION << "\" \"User Commands\"\n"
      << ".SH NAME\ntembra \\- command-line host for the TembraKeyProv device key provider\n"
      << ".SH SYNOPSIS\n.B tembra\n[global options] command [options]\n"
      << ".SH DESCRIPTION\n"
         "tembra loads the provider at run time and drives it as a host framework does: it\n"
         "lists devices and key pairs, signs, verifies, encrypts and decrypts, manages PINs\n"
         "and certificates, and administers software tokens. Binary results go to standard\n"
         "output when \\-o is missing or \\-; summaries then go to standard error. Every\n"
         "failure is one line on standard error; the exit status is 0 on success, 1 on\n"
         "failure and 2 for wrong usage.\n"
      << ".SH GLOBAL OPTIONS\n";
  manOptions(out, globalOptions());
  out << ".SH COMMANDS\n";
  for (const Command &command : allCommands()) {
    out << ".SS " << command.name << "\n.B tembra " << command.name << "\n"
        << roff(command.usage) << "\n.PP\n"
        << roff(command.summary) << ".\n";
    manOptions(out, command.options);
    if (const char *example = exampleFor(command.name)) {
      out << ".PP\nExample:\n.PP\n.nf\n" << roff(example) << "\n.fi\n";
    }
  }
  out << ".SH ENVIRONMENT\n"
         ".TP\n.B TEMBRA_KEY_PROV_LOG_LEVEL\n"
         "The provider's trace log level, 1 (errors) to 5 (verbose). tembra sets 1 unless the\n"
         "variable is set or \\-\\-trace is given. Levels 3 and above record PINs in clear.\n"
         ".TP\n.B TEMBRA_KEY_PROV_LOG_PATH\n"
         "The trace log file (default: tembra_key_prov.log in $TMPDIR, else\n"
         "$XDG_RUNTIME_DIR, else /tmp), created readable by its owner only.\n"
         ".TP\n.B TEMBRA_SOFTSKF_DIR\nThe software token store (as \\-\\-store).\n"
      << ".SH SEE ALSO\nopenssl(1)\n";
}

void writeBashCompletion(std::ostream &out) {
  out << "# bash completion for tembra, generated from its help.\n"
         "_tembra() {\n"
         "  local cur=\"${COMP_WORDS[COMP_CWORD]}\" prev=\"${COMP_WORDS[COMP_CWORD-1]}\" cmd=\"\" "
         "w\n"
         "  for w in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
         "    case \"$w\" in -*) ;; *) cmd=\"$w\"; break ;; esac\n"
         "  done\n"
         "  case \"$prev\" in\n"
         "    "
         "-i|-o|-s|--input|--output|--signature|--pubkey|--to|--key-file|--module|--*pin-file)\n"
         "      COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
         "    --store) COMPREPLY=($(compgen -d -- \"$cur\")); return ;;\n"
         "  esac\n"
         "  local globals=\"";
  std::string globals;
  for (const OptionDefinition &option : globalOptions()) globals += " --" + option.name;
  out << globals.substr(1) << "\"\n  case \"$cmd\" in\n";
  std::string names;
  for (const Command &command : allCommands()) {
    names += std::string(" ") + command.name;
    std::string options;
    for (const OptionDefinition &option : command.options) options += " --" + option.name;
    const std::string name = command.name;
    const std::string words = name == "cert"     ? "get put"
                              : name == "token"  ? "create list remove plug unplug"
                              : name == "data"   ? "list create read write delete"
                              : name == "cipher" ? "encrypt decrypt"
                                                 : "";
    out << "    " << command.name << ") COMPREPLY=($(compgen -W \"" << words
        << (words.empty() ? "" : " ") << (options.empty() ? "" : options.substr(1))
        << " $globals\" -- \"$cur\")) ;;\n";
  }
  out << "    *) COMPREPLY=($(compgen -W \"" << names.substr(1)
      << " help $globals\" -- \"$cur\")) ;;\n"
         "  esac\n"
         "}\n"
         "complete -o default -F _tembra tembra\n";
}

}  // namespace cli
}  // namespace tembra
