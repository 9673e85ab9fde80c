// The `tembra` command table and the program itself: global options, the
// dispatch to one command, --help, and the one-line error report.
#include <exception>

#include "cli/commands.h"
#include "cli/files.h"
#include "cli/pin_input.h"
#include "cli/session.h"

namespace tembra {
namespace cli {
namespace {

std::vector<OptionDefinition> join(std::vector<OptionDefinition> first,
                                   std::initializer_list<std::vector<OptionDefinition>> more) {
  for (const std::vector<OptionDefinition> &options : more) {
    first.insert(first.end(), options.begin(), options.end());
  }
  return first;
}

const OptionDefinition kLabel = {"label", true};
const OptionDefinition kType = {"type", true};
const OptionDefinition kInput = {"input", true, 'i'};
const OptionDefinition kOutput = {"output", true, 'o'};
const OptionDefinition kPem = {"pem", false};

const char kGlobalHelp[] =
    "Global options:\n"
    "  --device N     use device N of the provider's device set (default 0)\n"
    "  --store DIR    software token store (sets TEMBRA_SOFTSKF_DIR)\n"
    "  --json         machine-readable output\n"
    "  -h, --help     this help\n"
    "PINs: --pin-file F, --pin-env VAR, or the terminal; --pin-insecure-arg PIN only if you "
    "must.\n";

bool takesPositionals(const std::string &command) {
  return command == "cert" || command == "token" || command == "random" || command == "cipher";
}

void printCommandHelp(std::ostream &out, const Command &command) {
  out << "usage: tembra " << command.name << " " << command.usage << "\n"
      << command.summary << "\n\n"
      << kGlobalHelp;
}

void printGeneralHelp(std::ostream &out) {
  out << "usage: tembra [global options] <command> [options]\n"
         "A command-line host for the TembraKeyProv device key provider.\n\nCommands:\n";
  for (const Command &command : allCommands()) {
    std::string name = command.name;
    out << "  " << name << std::string(name.size() < 10 ? 10 - name.size() : 1, ' ')
        << command.summary << "\n";
  }
  out << "\n" << kGlobalHelp << "'tembra <command> --help' shows a command's options.\n";
}

const Command *findCommand(const std::string &name) {
  for (const Command &command : allCommands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

int dispatch(const std::vector<std::string> &words, std::ostream &out, std::ostream &err) {
  std::string name;
  std::vector<std::string> rest;
  if (!splitCommand(words, name, rest)) {
    Arguments globals;
    std::string error;
    if (globals.parse(words, globalOptions(), &error) && globals.has("help")) {
      printGeneralHelp(out);
      return 0;
    }
    throw UsageError("no command given (try 'tembra --help')");
  }
  if (name == "help") {
    const Command *topic = nullptr;
    for (const std::string &word : rest) {
      if (topic == nullptr && !word.empty() && word[0] != '-') topic = findCommand(word);
    }
    if (topic != nullptr) {
      printCommandHelp(out, *topic);
    } else {
      printGeneralHelp(out);
    }
    return 0;
  }
  const Command *command = findCommand(name);
  if (command == nullptr) throw UsageError("unknown command '" + name + "' (try 'tembra --help')");

  Arguments args;
  std::string error;
  if (!args.parse(rest, join(globalOptions(), {command->options}), &error)) {
    throw UsageError(name + ": " + error);
  }
  if (args.has("help")) {
    printCommandHelp(out, *command);
    return 0;
  }
  if (!takesPositionals(name) && !args.positionals().empty()) {
    throw UsageError(name + ": unexpected argument '" + args.positionals().front() + "'");
  }
  int deviceIndex = 0;
  if (args.has("device") && !parseIndex(args.value("device"), deviceIndex)) {
    throw UsageError("--device needs a device index (0, 1, ...), not '" + args.value("device") +
                     "'");
  }
  if (args.has("store")) {
    if (args.value("store").empty()) throw UsageError("--store needs a directory");
    setEnvironment("TEMBRA_SOFTSKF_DIR", args.value("store"));
  }
  Output output(out, args.has("json"));
  CommandContext context{args, output, err, deviceIndex};
  return command->run(context);
}

}  // namespace

const std::vector<Command> &allCommands() {
  static const std::vector<Command> commands = {
      {"devices", "list the devices the provider finds", "", {}, runDevices},
      {"keys", "list the key pairs of a device", "", {}, runKeys},
      {"pubkey",
       "export a key pair's public key (DER SubjectPublicKeyInfo)",
       "--label L [--type sign|enc] [--pem] [-o FILE]",
       {kLabel, kType, kPem, kOutput},
       runPubkey},
      {"cert", "read or store a key pair's certificate",
       "get|put --label L [--type sign|enc] [-o FILE | -i FILE] [--pem] [PIN options for put]",
       join({kLabel, kType, kPem, kOutput, kInput}, {pinOptions("")}), runCert},
      {"token", "create, list, remove, plug or unplug software tokens",
       "create NAME [--label L] [--serial S] [--app NAME] [--user-pin-file F | --user-pin-env V]\n"
       "             [--admin-pin-file F | --admin-pin-env V] [--container "
       "NAME:sm2|rsa1024|rsa2048|empty[:noenc][:nocert]]...\n"
       "             [--auth-key HEX32] [--unformatted]\n"
       "       tembra token list | remove NAME | plug NAME | unplug NAME",
       join({kLabel,
             {"serial", true},
             {"app", true},
             {"container", true, '\0', true},
             {"auth-key", true},
             {"unformatted", false}},
            {pinOptions("user-"), pinOptions("admin-")}),
       runToken},
      {"login", "check a PIN (type user or admin); reports the tries left on failure",
       "[--type user|admin] [PIN options]", join({kType}, {pinOptions("")}), runLogin},
      {"passwd", "change a PIN",
       "[--type user|admin] [PIN options] [--new-pin-file F | --new-pin-env V]",
       join({kType}, {pinOptions(""), pinOptions("new-")}), runPasswd},
      {"unblock", "unblock the user PIN with the administrator PIN",
       "[--admin-pin-file F | --admin-pin-env V] [--new-pin-file F | --new-pin-env V]",
       join({}, {pinOptions("admin-"), pinOptions("new-")}), runUnblock},
      {"pin-info", "show the tries left of both PINs", "", {}, runPinInfo},
      {"sign", "sign a file with a signature key pair",
       "--label L [--alg sm2|rsa] [--hash sha256|sm3] -i FILE -o SIGFILE [PIN options]",
       join({kLabel, {"alg", true}, {"hash", true}, kInput, kOutput}, {pinOptions("")}), runSign},
      {"verify",
       "verify a signature with the exported public key (no token key used)",
       "(--label L | --pubkey FILE) [--hash sha256|sm3] -i FILE -s SIGFILE",
       {kLabel, {"pubkey", true}, {"hash", true}, kInput, {"signature", true, 's'}},
       runVerify},
      {"encrypt",
       "encrypt a file to a key pair's exported public key",
       "--label L [--type enc|sign] -i FILE -o FILE",
       {kLabel, kType, kInput, kOutput},
       runEncrypt},
      {"decrypt", "decrypt a file with a key pair on the token",
       "--label L [--type enc|sign] -i CIPHERFILE -o FILE [PIN options]",
       join({kLabel, kType, kInput, kOutput}, {pinOptions("")}), runDecrypt},
      {"random",
       "random bytes from the token (hex, or raw into a file)",
       "N [-o FILE]",
       {kOutput},
       runRandom},
      {"hash", "SM3 digest of a file, computed on the token", "-i FILE", {kInput}, runHash},
      {"cipher",
       "SM4 encryption or decryption on the token with a raw key",
       "encrypt|decrypt --alg sm4-ecb|sm4-cbc --key-file F [--iv HEX32] [--pad] -i FILE -o FILE",
       {{"alg", true}, {"key-file", true}, {"iv", true}, {"pad", false}, kInput, kOutput},
       runCipher},
      {"mechanisms",
       "the algorithms and usages the provider reports for a device",
       "",
       {},
       runMechanisms},
      {"demo",
       "run a typical signature and decryption step by step on a software token",
       "[--store DIR]",
       {},
       runDemo},
  };
  return commands;
}

int tembraMain(const std::vector<std::string> &words, std::ostream &out, std::ostream &err) {
  try {
    return dispatch(words, out, err);
  } catch (const UsageError &error) {
    out.flush();
    err << "tembra: " << error.what() << "\n";
    return 2;
  } catch (const CliError &error) {
    out.flush();
    err << "tembra: " << error.what() << "\n";
    return 1;
  } catch (const std::exception &error) {
    out.flush();
    err << "tembra: internal error: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace cli
}  // namespace tembra
