// tembra: the command-line host of the TembraKeyProv provider.
#include <iostream>
#include <string>
#include <vector>

#include "cli/commands.h"

int main(int argc, char **argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  return tembra::cli::tembraMain(words, std::cout, std::cerr);
}
