// Stand-alone driver for the fuzz targets when they are not built with
// libFuzzer: runs LLVMFuzzerTestOneInput over each file named on the command
// line (a seed corpus), so the targets also serve as regression tests.
// Inputs are capped at kMaxFuzzInput bytes, as the libFuzzer runs are
// (-max_len), so both drivers exercise the same input space.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/fuzz_limits.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  int ran = 0;
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    if (!in) {
      fprintf(stderr, "cannot read %s\n", argv[i]);
      return 2;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    if (bytes.size() > kMaxFuzzInput) bytes.resize(kMaxFuzzInput);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++ran;
  }
  printf("%d inputs ran\n", ran);
  return 0;
}
