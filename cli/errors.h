// Failures in plain words for `tembra`: what a provider result or a token
// (SKF) result means and, where there is one, what the user can do about it.
// Every command reports through these so the wording stays one.
#ifndef TEMBRA_CLI_ERRORS_H
#define TEMBRA_CLI_ERRORS_H

#include <stdint.h>

#include <string>

#include "cli/session.h"

namespace tembra {
namespace cli {

// A provider result (ORVEL_PKI_...) in words: "wrong PIN", "no such object",
// "the token refused or failed (details with --trace)".
std::string providerResultText(int rv);
// A token result (SAR_...) in words, with the code for reference:
// "the PIN is locked: unblock it with the administrator PIN (SAR 0x0A000025)".
std::string tokenResultText(uint32_t rv);

// Throws CliError "<what> failed: <providerResultText>"; returns if rv is
// ORVEL_PKI_OK.
void checkProviderResult(int rv, const std::string &what);

// The PIN length range of the tokens, for "PIN length out of range (6 to 16
// characters)".
const int kMinPinLength = 6;
const int kMaxPinLength = 16;
std::string pinLengthText();

// The one line for a refused PIN: tries left, or locked with the remedy.
// pinType 1 user, 2 administrator.
std::string wrongPinText(int pinType, int triesLeft);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_ERRORS_H
