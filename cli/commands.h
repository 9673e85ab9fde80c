// The `tembra` commands. Each takes its parsed arguments and writes its
// result through the Output; failures are thrown as CliError (exit 1) or
// UsageError (exit 2) and printed by tembraMain as one line.
#ifndef TEMBRA_CLI_COMMANDS_H
#define TEMBRA_CLI_COMMANDS_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/arguments.h"
#include "cli/output.h"

namespace tembra {
namespace cli {

struct CommandContext {
  const Arguments &args;
  Output &out;
  std::ostream &err;  // warnings and notes that must not mix with results
  int deviceIndex;
};

struct Command {
  const char *name;
  const char *summary;
  const char *usage;  // the --help text after the summary
  std::vector<OptionDefinition> options;
  int (*run)(CommandContext &context);
};

// Every command, in the order `tembra --help` lists them.
const std::vector<Command> &allCommands();

// Device and key listings, public keys and certificates (commands_keys.cpp).
int runDevices(CommandContext &context);
int runKeys(CommandContext &context);
int runPubkey(CommandContext &context);
int runCert(CommandContext &context);
// Software token administration (commands_token.cpp).
int runToken(CommandContext &context);
// PINs (commands_pin.cpp).
int runLogin(CommandContext &context);
int runPasswd(CommandContext &context);
int runUnblock(CommandContext &context);
int runPinInfo(CommandContext &context);
// Signatures and encryption (commands_crypto.cpp).
int runSign(CommandContext &context);
int runVerify(CommandContext &context);
int runEncrypt(CommandContext &context);
int runDecrypt(CommandContext &context);
// Random numbers, SM3, SM4 and the capability table (commands_services.cpp).
int runRandom(CommandContext &context);
int runHash(CommandContext &context);
int runCipher(CommandContext &context);
int runMechanisms(CommandContext &context);
// The typical signature, step by step (commands_demo.cpp).
int runDemo(CommandContext &context);

// The whole program: parses the words after the program name, runs the
// command, and returns the exit status (0 success, 1 failure, 2 usage).
int tembraMain(const std::vector<std::string> &words, std::ostream &out, std::ostream &err);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_COMMANDS_H
