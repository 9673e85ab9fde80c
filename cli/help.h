// The help of `tembra`, written once and shown three ways: `--help` on the
// terminal, the man page tembra(1) and the bash completion, all generated
// from the command table and the option definitions.
#ifndef TEMBRA_CLI_HELP_H
#define TEMBRA_CLI_HELP_H

#include <ostream>

#include "cli/commands.h"

namespace tembra {
namespace cli {

void printGeneralHelp(std::ostream &out);
// Usage, summary, each option with its value, meaning and default, and an
// example.
void printCommandHelp(std::ostream &out, const Command &command);
void writeManPage(std::ostream &out);
void writeBashCompletion(std::ostream &out);

const char *tembraVersion();

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_HELP_H
