// The input cap shared by every fuzz target and both drivers.
#ifndef TEMBRA_FUZZ_FUZZ_LIMITS_H
#define TEMBRA_FUZZ_FUZZ_LIMITS_H

#include <stddef.h>

constexpr size_t kMaxFuzzInput = 64 * 1024;

#endif  // TEMBRA_FUZZ_FUZZ_LIMITS_H
