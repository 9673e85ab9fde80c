// tembra_docs: writes the man page (man) or the bash completion (bash) of
// tembra from the same help text that `tembra --help` shows. Run at build
// time; not installed.
#include <fstream>
#include <iostream>
#include <string>

#include "cli/help.h"

int main(int argc, char **argv) {
  if (argc != 3) {
    std::cerr << "usage: tembra_docs man|bash OUTPUT\n";
    return 2;
  }
  std::ofstream out(argv[2], std::ios::binary);
  const std::string kind = argv[1];
  if (kind == "man") {
    tembra::cli::writeManPage(out);
  } else if (kind == "bash") {
    tembra::cli::writeBashCompletion(out);
  } else {
    std::cerr << "tembra_docs: unknown kind " << kind << "\n";
    return 2;
  }
  out.close();
  return out ? 0 : 1;
}
