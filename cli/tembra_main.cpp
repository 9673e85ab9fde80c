// The `tembra` command table and the program itself: global options, the
// dispatch to one command, --help, and the one-line error report.
#include <stdlib.h>

#include <exception>
#include <iostream>

#include "cli/commands.h"
#include "cli/files.h"
#include "cli/help.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "cli/terminal.h"
#include "cli/token_store.h"

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

const OptionDefinition kLabel = {"label", true, '\0', false, "L: the key pair's container label"};
const OptionDefinition kType = {"type", true, '\0', false,
                                "T: key pair type, sign or enc (default: sign)"};
const OptionDefinition kEncType = {"type", true, '\0', false,
                                   "T: key pair type, enc or sign (default: enc)"};
const OptionDefinition kInput = {"input", true, 'i', false,
                                 "FILE: input file (- for standard input)"};
const OptionDefinition kOutput = {"output", true, 'o', false,
                                  "FILE: output file (default: standard output)"};
const OptionDefinition kPem = {"pem", false, '\0', false, "PEM instead of DER"};

bool takesPositionals(const std::string &command) {
  return command == "cert" || command == "token" || command == "data" || command == "random" ||
         command == "cipher";
}

const Command *findCommand(const std::string &name) {
  for (const Command &command : allCommands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

// The provider's trace log records PINs from level 3 on, and its default
// (the variable unset) is level 3: tembra runs it at errors only unless the
// user chose a level or asks for --trace.
void chooseLogLevel(const Arguments &args, std::ostream &err) {
  const char kLevel[] = "TEMBRA_KEY_PROV_LOG_LEVEL";
  if (args.has("trace")) {
    setEnvironment(kLevel, "5");
    err << "tembra: warning: the trace log records PINs in clear; remove it after use\n";
  } else if (getenv(kLevel) == nullptr) {
    setEnvironment(kLevel, "1");
  }
}

DeviceChoice deviceChoice(const Arguments &args, const std::string &command) {
  DeviceChoice choice;
  if (args.has("device")) {
    if (!parseIndex(args.value("device"), choice.index)) {
      throw UsageError("--device needs a device index (0, 1, ...), not '" + args.value("device") +
                       "'");
    }
    choice.indexGiven = true;
  }
  choice.label = args.value("token-label");
  // token create takes --serial as the new token's serial number.
  if (command != "token") choice.serial = args.value("serial");
  return choice;
}

int dispatch(const std::vector<std::string> &words, std::ostream &out, std::ostream &err) {
  std::string name;
  std::vector<std::string> rest;
  if (!splitCommand(words, name, rest)) {
    Arguments globals;
    std::string error;
    if (!globals.parse(words, globalOptions(), &error)) throw UsageError(error);
    if (globals.has("version")) {
      out << "tembra " << tembraVersion() << "\n";
      return 0;
    }
    if (globals.has("help")) {
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
  if (args.has("version")) {
    out << "tembra " << tembraVersion() << "\n";
    return 0;
  }
  if (!takesPositionals(name) && !args.positionals().empty()) {
    throw UsageError(name + ": unexpected argument '" + args.positionals().front() + "'");
  }
  const DeviceChoice choice = deviceChoice(args, name);
  if (args.has("module") && args.value("module").empty()) {
    throw UsageError("--module needs a library path");
  }
  setProviderModule(args.value("module"));
  chooseLogLevel(args, err);
  if (args.has("store")) {
    if (args.value("store").empty()) throw UsageError("--store needs a directory");
    setEnvironment("TEMBRA_SOFTSKF_DIR", args.value("store"));
  }
  // A store named by the user must be there: an empty listing of a mistyped
  // directory would look like a store without tokens. token create and the
  // demo make theirs.
  const bool makesStore =
      name == "demo" || (name == "verify" && args.has("pubkey")) ||
      (name == "token" && !args.positionals().empty() && args.positionals().front() == "create");
  if (!makesStore && (args.has("store") || getenv("TEMBRA_SOFTSKF_DIR") != nullptr)) {
    checkTokenStore(tokenStoreDirectory());
  }
  OutputSettings settings;
  settings.json = args.has("json");
  settings.quiet = args.has("quiet");
  settings.force = args.has("force");
  settings.stdoutIsTerminal = &out == &std::cout && stdoutIsTerminal();
  Output output(out, err, settings);
  CommandContext context{args, output, err, choice};
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
       "get|put --label L [--type sign|enc] [-o FILE | -i FILE] [--pem] [--force] "
       "[PIN options for put]",
       join({kLabel,
             kType,
             kPem,
             kOutput,
             {"input", true, 'i', false, "FILE: certificate to store, DER or PEM (put)"}},
            {pinOptions("")}),
       runCert},
      {"token", "create, list, remove, plug or unplug software tokens",
       "create NAME [--label L] [--serial S] [--app NAME] [--user-pin-file F | --user-pin-env V]\n"
       "             [--admin-pin-file F | --admin-pin-env V] [--default-pins] [--container "
       "NAME:sm2|rsa1024|rsa2048|empty[:noenc][:nocert]]...\n"
       "             [--auth-key HEX32] [--unformatted]\n"
       "       tembra token list | remove NAME | plug NAME | unplug NAME",
       join({{"label", true, '\0', false, "L: the new token's label (default: NAME)"},
             {"app", true, '\0', false, "NAME: the application's name (default: TembraApp)"},
             {"container", true, '\0', true,
              "C: NAME:sm2|rsa1024|rsa2048|empty[:noenc][:nocert] (default: "
              "SM2Container:sm2 and RSAContainer:rsa2048)"},
             {"auth-key", true, '\0', false,
              "HEX32: device authentication key (default: 0102...10)"},
             {"unformatted", false, '\0', false, "a token without application"},
             {"default-pins", false, '\0', false,
              "use 12345678 for each PIN not given (needed when not on a terminal)"}},
            {pinOptions("user-"), pinOptions("admin-")}),
       runToken},
      {"login", "check a PIN (type user or admin); reports the tries left on failure",
       "[--type user|admin] [PIN options]",
       join({{"type", true, '\0', false, "T: user or admin (default: user)"}}, {pinOptions("")}),
       runLogin},
      {"passwd", "change a PIN (a new PIN typed on the terminal is asked twice)",
       "[--type user|admin] [PIN options] [--new-pin-file F | --new-pin-env V]",
       join({{"type", true, '\0', false, "T: user or admin (default: user)"}},
            {pinOptions(""), pinOptions("new-")}),
       runPasswd},
      {"unblock", "unblock the user PIN with the administrator PIN",
       "[--admin-pin-file F | --admin-pin-env V] [--new-pin-file F | --new-pin-env V]",
       join({}, {pinOptions("admin-"), pinOptions("new-")}), runUnblock},
      {"pin-info", "show the tries left of both PINs", "", {}, runPinInfo},
      {"sign", "sign a file with a signature key pair",
       "--label L [--alg sm2|rsa] [--hash sha256|sm3] -i FILE [-o SIGFILE] [PIN options]",
       join({kLabel,
             {"alg", true, '\0', false,
              "A: sm2 or rsa, checked against the key (default: the key's)"},
             {"hash", true, '\0', false, "H: sha256 or sm3 (default: sm3 for SM2, sha256 for RSA)"},
             kInput,
             {"output", true, 'o', false, "FILE: signature file (default: standard output)"}},
            {pinOptions("")}),
       runSign},
      {"verify",
       "verify a signature with the exported public key (no token key used)",
       "(--label L | --pubkey FILE) [--hash sha256|sm3] -i FILE -s SIGFILE",
       {kLabel,
        {"pubkey", true, '\0', false, "FILE: public key, DER or PEM, instead of --label"},
        {"hash", true, '\0', false, "H: sha256 or sm3 (default: sm3 for SM2, sha256 for RSA)"},
        kInput,
        {"signature", true, 's', false, "FILE: the signature"}},
       runVerify},
      {"encrypt",
       "encrypt a file to a key pair's exported public key",
       "--label L [--type enc|sign] -i FILE [-o FILE]",
       {kLabel, kEncType, kInput, kOutput},
       runEncrypt},
      {"decrypt", "decrypt a file with a key pair on the token",
       "--label L [--type enc|sign] -i CIPHERFILE [-o FILE] [PIN options]",
       join({kLabel, kEncType, kInput, kOutput}, {pinOptions("")}), runDecrypt},
      {"random",
       "random bytes from the token (raw, or hexadecimal text with --hex)",
       "N [--hex] [-o FILE]",
       {{"hex", false, '\0', false, "hexadecimal text instead of raw bytes (default: raw)"},
        {"output", true, 'o', false, "FILE: where the bytes go (default: standard output)"}},
       runRandom},
      {"hash", "SM3 digest of a file, computed on the token", "-i FILE", {kInput}, runHash},
      {"cipher",
       "SM4 encryption or decryption on the token with a raw key",
       "encrypt|decrypt --alg sm4-ecb|sm4-cbc --key-file F [--iv HEX32] [--pad] -i FILE [-o FILE]",
       {{"alg", true, '\0', false, "A: sm4-ecb or sm4-cbc"},
        {"key-file", true, '\0', false, "FILE: the 16-byte key, raw or as 32 hex digits"},
        {"iv", true, '\0', false, "HEX32: the initial vector of sm4-cbc, 32 hex digits"},
        {"pad", false, '\0', false,
         "PKCS #7 padding: added before encryption, checked and removed after decryption "
         "(default: none, whole 16-byte blocks only)"},
        kInput,
        kOutput},
       runCipher},
      {"mechanisms",
       "the algorithms and usages the provider reports for a device",
       "",
       {},
       runMechanisms},
      {"keygen", "generate a signature key pair on the token",
       "--label L [--alg sm2|rsa1024|rsa2048] [PIN options]",
       join({kLabel, {"alg", true, '\0', false, "A: sm2, rsa1024 or rsa2048 (default: sm2)"}},
            {pinOptions("")}),
       runKeygen},
      {"csr", "make a PKCS #10 certificate request signed on the token",
       "--label L --subject /CN=NAME/O=ORG [-o FILE] [--pem] [PIN options]",
       join({kLabel,
             {"subject", true, '\0', false,
              "DN: /TYPE=value/... with CN, O, OU, C, L, ST, serialNumber, emailAddress"},
             {"output", true, 'o', false, "FILE: request file (default: standard output)"},
             kPem},
            {pinOptions("")}),
       runCsr},
      {"delete-key", "delete a key pair's container (both key pairs) from the token",
       "--label L [--yes] [PIN options]",
       join({kLabel,
             {"yes", false, '\0', false, "delete without asking (needed when not on a terminal)"}},
            {pinOptions("")}),
       runDeleteKey},
      {"data", "list, create, read, write or delete numbered data objects",
       "list | create ID --size N [--read anyone|user|never] [--write anyone|user|never]\n"
       "       | read ID [-o FILE] [--offset N] [--length N] | write ID -i FILE [--offset N]\n"
       "       | delete ID  [PIN options, asked for when the token wants them]",
       join({{"size", true, '\0', false, "N: the new object's size in bytes (create)"},
             {"read", true, '\0', false,
              "WHO: who may read, anyone, user or never (default: anyone)"},
             {"write", true, '\0', false,
              "WHO: who may write, anyone, user or never (default: user)"},
             {"offset", true, '\0', false, "N: where read or write starts (default: 0)"},
             {"length", true, '\0', false, "N: bytes to read (default: to the end)"},
             {"input", true, 'i', false, "FILE: bytes to write (- for standard input)"},
             {"output", true, 'o', false,
              "FILE: where read puts the bytes (default: standard "
              "output)"}},
            {pinOptions("")}),
       runData},
      {"import", "import an encryption key pair beside a signature key pair",
       "--label L -i KEYFILE | --label L --enveloped -i BLOB [PIN options]",
       join({kLabel,
             {"input", true, 'i', false,
              "FILE: private key (DER or PEM), or with --enveloped the blob"},
             {"enveloped", false, '\0', false,
              "the input is an enveloped \"SCAENCKP\" blob (default: a plain key)"}},
            {pinOptions("")}),
       runImport},
      {"envelope",
       "envelope a private key to a signature public key (no token)",
       "--to PUBKEY_OR_CERT -i KEYFILE [-o BLOB] [--sym sm4]",
       {{"to", true, '\0', false, "FILE: the signature public key or certificate, DER or PEM"},
        {"input", true, 'i', false, "FILE: the private key to envelope, DER or PEM"},
        {"output", true, 'o', false, "FILE: blob file (default: standard output)"},
        {"sym", true, '\0', false, "ALG: the symmetric cipher, sm4 only (default: sm4)"}},
       runEnvelope},
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
