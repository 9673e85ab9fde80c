// `tembra login`, `passwd`, `unblock` and `pin-info`. A login lasts only as
// long as the process, so `login` merely checks a PIN; commands that need the
// PIN read it themselves.
#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/pin_input.h"
#include "cli/session.h"

namespace tembra {
namespace cli {
namespace {

// --type user|admin as the provider's PIN type (1 or 2).
int pinTypeOption(const Arguments &args) {
  const std::string text = args.value("type", "user");
  if (text == "user") return 1;
  if (text == "admin") return 2;
  throw UsageError("PIN type must be user or admin, not '" + text + "'");
}

const char *pinTypeText(int type) {
  return type == 2 ? "admin" : "user";
}

SecretText pinFromOptions(CommandContext &context, const std::string &prefix,
                          const std::string &prompt) {
  SecretText pin;
  std::string error;
  if (!readPin(context.args, prefix, prompt, context.err, pin, &error)) throw UsageError(error);
  return pin;
}

SecretText newPinFromOptions(CommandContext &context, const std::string &prompt) {
  SecretText pin;
  std::string error;
  if (!readNewPin(context.args, "new-", prompt, context.err, pin, &error)) throw UsageError(error);
  return pin;
}

// The tries left of a PIN, or -1 when the token does not say.
int triesLeft(const ProviderApi &api, SPI_DEVICE_HANDLE device, int type) {
  int tries = -1;
  return api.DeviceGetPwdRetryNum(device, type, &tries) == ORVEL_PKI_OK ? tries : -1;
}

// Results shared by change and unblock: 1 ok, -19 length out of range, and
// for a wrong or locked PIN -5 or 0 depending on the call (DeviceUnlockPwd
// answers 0 for a wrong administrator PIN and -5 for a locked one). The
// tries left of the checked PIN, before and after, tell them apart.
void checkPinChange(const ProviderApi &api, SPI_DEVICE_HANDLE device, int rv, int before,
                    int checkedType, const char *what) {
  if (rv == ORVEL_PKI_OK) return;
  if (rv == ORVEL_PKI_PINLENRANGE) {
    throw CliError(std::string(what) + " refused: PIN length out of range " + pinLengthText());
  }
  const int after = triesLeft(api, device, checkedType);
  if (after == 0 || (before > after && after > 0) || rv == ORVEL_PKI_WRONGPIN) {
    throw CliError(std::string(what) + " refused: " + wrongPinText(checkedType, after));
  }
  throw CliError(std::string(what) + " failed: " + providerResultText(rv));
}

}  // namespace

int runLogin(CommandContext &context) {
  const int type = pinTypeOption(context.args);
  SecretText pin = pinFromOptions(context, "", type == 2 ? "Administrator PIN" : "User PIN");
  ProviderSession session;
  login(session.api(), session.device(context.deviceIndex), type, pin.c_str());
  context.out.record({{"pin", pinTypeText(type)}, {"verified", true}});
  return 0;
}

int runPasswd(CommandContext &context) {
  const int type = pinTypeOption(context.args);
  SecretText oldPin = pinFromOptions(context, "", "Current PIN");
  SecretText newPin = newPinFromOptions(context, "New PIN");
  ProviderSession session;
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  const int before = triesLeft(session.api(), device, type);
  int retries = -1;
  const int rv =
      session.api().DeviceChangePwd(device, type, oldPin.c_str(), newPin.c_str(), &retries);
  checkPinChange(session.api(), device, rv, before, type, "PIN change");
  context.out.record({{"pin", pinTypeText(type)}, {"changed", true}});
  return 0;
}

int runUnblock(CommandContext &context) {
  SecretText adminPin = pinFromOptions(context, "admin-", "Administrator PIN");
  SecretText newPin = newPinFromOptions(context, "New user PIN");
  ProviderSession session;
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  const int before = triesLeft(session.api(), device, 2);
  int retries = -1;
  const int rv =
      session.api().DeviceUnlockPwd(device, 1, adminPin.c_str(), newPin.c_str(), &retries);
  checkPinChange(session.api(), device, rv, before, 2, "unblock");
  context.out.record({{"pin", "user"}, {"unblocked", true}});
  return 0;
}

int runPinInfo(CommandContext &context) {
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  std::vector<Record> rows;
  for (int type : {1, 2}) {
    int retries = -1;
    const int rv = api.DeviceGetPwdRetryNum(device, type, &retries);
    if (rv != ORVEL_PKI_OK) {
      throw CliError("cannot read the PIN tries left (" + providerResultText(rv) +
                     "); is the token formatted?");
    }
    rows.push_back({{"pin", pinTypeText(type)}, {"tries_left", retries}, {"locked", retries == 0}});
  }
  context.out.table(rows);
  return 0;
}

}  // namespace cli
}  // namespace tembra
