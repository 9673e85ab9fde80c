#include "cli/errors.h"

#include <stdio.h>
#ifndef _WIN32
#include <unistd.h>
#endif

#include "cli/output.h"
#include "cli/token_store.h"
#include "include/tembra_key_prov.h"
#include "platform/skf.h"

namespace tembra {
namespace cli {
namespace {

// A failure of the software token is most often a store it cannot write.
bool storeIsReadOnly() {
#ifdef _WIN32
  return false;
#else
  const std::string store = tokenStoreDirectory();
  return access(store.c_str(), F_OK) == 0 && access(store.c_str(), W_OK) != 0;
#endif
}

}  // namespace

std::string providerResultText(int rv) {
  switch (rv) {
    case ORVEL_PKI_OK:
      return "success";
    case ORVEL_PKI_FAIL:
      return storeIsReadOnly()
                 ? "the token store " + tokenStoreDirectory() +
                       " is read-only: the token cannot save changes"
                 : "the token refused or failed (run with --trace for the provider's log)";
    case ORVEL_PKI_BADARGUMENT:
      return "the provider rejected an argument";
    case ORVEL_PKI_NULLHANDLE:
      return "no such device or key pair";
    case ORVEL_PKI_MOREDATA:
      return "the result did not fit the buffer";
    case ORVEL_PKI_WRONGPIN:
      return "wrong PIN";
    case ORVEL_PKI_EXISTS:
      return "it already exists";
    case ORVEL_PKI_NOTEXISTS:
      return "it does not exist";
    case ORVEL_PKI_NOTLOGGEDIN:
      return "the user is not logged in";
    case ORVEL_PKI_PINLENRANGE:
      return "PIN length out of range " + pinLengthText();
  }
  return "unexpected provider result " + std::to_string(rv);
}

std::string tokenResultText(uint32_t rv) {
  const char *text = nullptr;
  switch (rv) {
    case SAR_FILEERR:
    case SAR_READFILEERR:
      text = "the token's store cannot be read (unreadable or corrupt files)";
      break;
    case SAR_WRITEFILEERR:
      text = "the token's store cannot be written (read-only or full)";
      break;
    case SAR_INVALIDPARAMERR:
      text = "the token rejected an argument";
      break;
    case SAR_NAMELENERR:
      text = "a name is too long";
      break;
    case SAR_INDATALENERR:
      text = "the input is too long for the token";
      break;
    case SAR_DEVICE_REMOVED:
      text = "the token is not present (plug it in: tembra token plug NAME)";
      break;
    case SAR_PIN_INCORRECT:
      text = "wrong PIN";
      break;
    case SAR_PIN_LOCKED:
      text = "the PIN is locked: unblock it with the administrator PIN";
      break;
    case SAR_PIN_LEN_RANGE:
      text = "PIN length out of range";
      break;
    case SAR_USER_NOT_LOGGED_IN:
      text = "the user is not logged in";
      break;
    case SAR_APPLICATION_EXISTS:
      text = "an application of that name already exists";
      break;
    case SAR_FILE_ALREADY_EXIST:
      text = "it already exists";
      break;
    case SAR_FILE_NOT_EXIST:
      text = "no such token";
      break;
    case SAR_NO_ROOM:
      text = "the token is full";
      break;
    case SAR_REACH_MAX_CONTAINER_COUNT:
      text = "the token holds as many containers as it can";
      break;
  }
  char code[32];
  snprintf(code, sizeof code, "token code 0x%08X", static_cast<unsigned>(rv));
  if (text == nullptr) return std::string("the token failed (") + code + ")";
  std::string out = text;
  if (rv == SAR_PIN_LEN_RANGE) out += " " + pinLengthText();
  return out + " (" + code + ")";
}

void checkProviderResult(int rv, const std::string &what) {
  if (rv != ORVEL_PKI_OK) throw CliError(what + " failed: " + providerResultText(rv));
}

std::string pinLengthText() {
  return "(" + std::to_string(kMinPinLength) + " to " + std::to_string(kMaxPinLength) +
         " characters)";
}

std::string wrongPinText(int pinType, int triesLeft) {
  const std::string which = pinType == 2 ? "administrator PIN" : "user PIN";
  if (triesLeft == 0) {
    return pinType == 2 ? "the administrator PIN is locked and cannot be unblocked"
                        : "the user PIN is locked: unblock it with the administrator PIN "
                          "(tembra unblock)";
  }
  std::string text = "wrong " + which;
  if (triesLeft > 0) text += ", " + triesLeftText(triesLeft);
  return text;
}

}  // namespace cli
}  // namespace tembra
