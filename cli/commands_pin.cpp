// `tembra login`, `passwd`, `unblock` and `pin-info`. A login lasts only as
// long as the process, so `login` merely checks a PIN; commands that need the
// PIN read it themselves.
#include "cli/commands.h"
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

// Results shared by change and unblock: 1 ok, -5 wrong PIN (for unblock:
// the administrator PIN is locked), -19 length out of range.
void checkPinChange(int rv, int retries, const char *what) {
  switch (rv) {
    case ORVEL_PKI_OK:
      return;
    case ORVEL_PKI_WRONGPIN:
      throw CliError(std::string(what) + " refused: wrong or locked PIN, " +
                     std::to_string(retries) + " tries left");
    case ORVEL_PKI_PINLENRANGE:
      throw CliError(std::string(what) + " refused: PIN length out of range");
  }
  throw CliError(std::string(what) + " failed (" + std::to_string(rv) + ")");
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
  SecretText newPin = pinFromOptions(context, "new-", "New PIN");
  ProviderSession session;
  int retries = -1;
  const int rv = session.api().DeviceChangePwd(session.device(context.deviceIndex), type,
                                               oldPin.c_str(), newPin.c_str(), &retries);
  checkPinChange(rv, retries, "PIN change");
  context.out.record({{"pin", pinTypeText(type)}, {"changed", true}});
  return 0;
}

int runUnblock(CommandContext &context) {
  SecretText adminPin = pinFromOptions(context, "admin-", "Administrator PIN");
  SecretText newPin = pinFromOptions(context, "new-", "New user PIN");
  ProviderSession session;
  int retries = -1;
  const int rv = session.api().DeviceUnlockPwd(session.device(context.deviceIndex), 1,
                                               adminPin.c_str(), newPin.c_str(), &retries);
  checkPinChange(rv, retries, "unblock");
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
      throw CliError("DeviceGetPwdRetryNum failed (" + std::to_string(rv) +
                     "); is the token formatted?");
    }
    rows.push_back({{"pin", pinTypeText(type)}, {"tries_left", retries}, {"locked", retries == 0}});
  }
  context.out.table(rows);
  return 0;
}

}  // namespace cli
}  // namespace tembra
