// Fakes of the token and host library calls that provider/records.cpp
// makes, recording each call, for unit tests that compile records.cpp
// without the real libraries.
#ifndef TEMBRA_TESTS_PROVIDER_CORE_FAKE_TOKEN_H
#define TEMBRA_TESTS_PROVIDER_CORE_FAKE_TOKEN_H

#include <string>
#include <vector>

namespace fake {

// "SKF_CloseContainer C1", "OrvelPKICryptoFreeMemory <name>", ... in call
// order. A handle or host buffer is named by the text it points to.
std::vector<std::string> &calls();

// A fake SKF handle or host buffer whose name shows up in calls(); host
// buffers are malloc'ed and freed by the fake OrvelPKICryptoFreeMemory.
void *handle(const char *name);
unsigned char *hostBuffer(const char *name);

}  // namespace fake

#endif  // TEMBRA_TESTS_PROVIDER_CORE_FAKE_TOKEN_H
