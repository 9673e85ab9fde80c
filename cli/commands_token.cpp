// `tembra token create|list|remove|plug|unplug`: software tokens in the
// store, administered through the software token's own calls and the SKF
// interface (not through the provider, which only uses tokens).
#include <stdio.h>
#include <string.h>

#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "cli/terminal.h"
#include "cli/token_store.h"
#include "crypto/backend.h"
#include "platform/secure_zero.h"
#include "softskf/include/softskf.h"
#include "softskf/provision/provision.h"

namespace tembra {
namespace cli {
namespace {

const char kDefaultPin[] = "12345678";

std::vector<std::string> splitText(const std::string &text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

// NAME:sm2|rsa1024|rsa2048|empty[:noenc][:nocert]
provision::ContainerSpec containerFromText(const std::string &text) {
  const std::vector<std::string> parts = splitText(text, ':');
  if (parts.size() < 2 || parts[0].empty()) {
    throw UsageError("container '" + text +
                     "' is not NAME:sm2|rsa1024|rsa2048|empty[:noenc][:nocert]");
  }
  provision::ContainerSpec plan;
  plan.name = parts[0];
  const std::string &kind = parts[1];
  if (kind == "sm2") {
    plan.kind = provision::KeyKind::Sm2;
  } else if (kind == "rsa1024") {
    plan.kind = provision::KeyKind::Rsa1024;
  } else if (kind == "rsa2048") {
    plan.kind = provision::KeyKind::Rsa2048;
  } else if (kind == "empty") {
    plan.kind = provision::KeyKind::Empty;
  } else {
    throw UsageError("unknown key kind '" + kind + "' in container '" + text + "'");
  }
  for (size_t i = 2; i < parts.size(); ++i) {
    if (parts[i] == "noenc") {
      plan.encryptionKey = false;
    } else if (parts[i] == "nocert") {
      plan.certificates = false;
    } else {
      throw UsageError("unknown container flag '" + parts[i] + "' in '" + text + "'");
    }
  }
  return plan;
}

bool parseAuthKey(const std::string &hex, uint8_t key[16]) {
  if (hex.size() != 32) return false;
  for (size_t i = 0; i < 16; ++i) {
    int value = 0;
    for (size_t j = 0; j < 2; ++j) {
      const char c = hex[2 * i + j];
      int digit;
      if (c >= '0' && c <= '9') {
        digit = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        digit = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        digit = c - 'A' + 10;
      } else {
        return false;
      }
      value = value * 16 + digit;
    }
    key[i] = uint8_t(value);
  }
  return true;
}

std::string randomSerial() {
  uint8_t bytes[6];
  if (!crypto::randomBytes(bytes, sizeof(bytes))) throw CliError("no random numbers");
  return "TMB" + hexText(bytes, sizeof(bytes));
}

// A new token's PIN: from its options, typed twice on the terminal, or the
// default only when --default-pins asks for it; written straight into
// target so that no other copy is left.
void newTokenPin(CommandContext &context, const std::string &prefix, const char *prompt,
                 std::string &target, bool &usedDefault) {
  const bool given = pinGiven(context.args, prefix);
  if (!given && context.args.has("default-pins")) {
    usedDefault = true;
    target = kDefaultPin;
    return;
  }
  if (!given && !stdinIsTerminal()) {
    throw UsageError(std::string("no ") + (prefix == "user-" ? "user" : "administrator") +
                     " PIN given: use --" + prefix + "pin-file or --" + prefix +
                     "pin-env, run on a terminal, or add --default-pins");
  }
  SecretText pin;
  std::string error;
  if (!readNewPin(context.args, prefix, prompt, context.err, pin, &error)) throw UsageError(error);
  target.assign(pin.c_str());
}

// Wipes the PINs of a token plan on every way out.
class PlanPinWiper {
 public:
  explicit PlanPinWiper(provision::DeviceSpec &plan) : m_spec(plan) {}
  ~PlanPinWiper() {
    for (provision::ApplicationSpec &application : m_spec.applications) {
      secureZero(&application.userPin[0], application.userPin.size());
      secureZero(&application.adminPin[0], application.adminPin.size());
    }
  }
  PlanPinWiper(const PlanPinWiper &) = delete;
  PlanPinWiper &operator=(const PlanPinWiper &) = delete;

 private:
  provision::DeviceSpec &m_spec;
};

// The device names of a NUL-separated SKF name list.
std::vector<std::string> nameList(bool presentOnly) {
  ULONG size = 0;
  ULONG rv = SKF_EnumDev(presentOnly ? TRUE : FALSE, nullptr, &size);
  if (rv != SAR_OK) throw CliError("cannot list the tokens: " + tokenResultText(rv));
  std::vector<char> buffer(size_t(size) + 2, '\0');
  size = ULONG(buffer.size());
  rv = SKF_EnumDev(presentOnly ? TRUE : FALSE, buffer.data(), &size);
  if (rv != SAR_OK) throw CliError("cannot list the tokens: " + tokenResultText(rv));
  std::vector<std::string> names;
  for (size_t offset = 0; offset < buffer.size() && buffer[offset] != '\0';) {
    names.emplace_back(buffer.data() + offset);
    offset += names.back().size() + 1;
  }
  return names;
}

int tokenCreate(CommandContext &context, const std::string &name) {
  provision::DeviceSpec plan;
  PlanPinWiper wiper(plan);
  plan.name = name;
  plan.label = context.args.value("label", name);
  plan.serial = context.args.value("serial");
  if (plan.serial.empty()) plan.serial = randomSerial();
  if (plan.label.size() > 31 || plan.serial.size() > 31) {
    throw UsageError("label and serial number are at most 31 characters");
  }
  memcpy(plan.authKey, provision::kDefaultAuthKey, sizeof(plan.authKey));
  if (context.args.has("auth-key") && !parseAuthKey(context.args.value("auth-key"), plan.authKey)) {
    throw UsageError("--auth-key needs 32 hexadecimal digits");
  }
  std::string defaultPinNote;
  if (!context.args.has("unformatted")) {
    provision::ApplicationSpec application;
    application.name = context.args.value("app", "TembraApp");
    const std::vector<std::string> &containers = context.args.values("container");
    if (containers.empty()) {
      application.containers = {containerFromText("SM2Container:sm2"),
                                containerFromText("RSAContainer:rsa2048")};
    }
    for (const std::string &text : containers) {
      application.containers.push_back(containerFromText(text));
      for (size_t i = 0; i + 1 < application.containers.size(); ++i) {
        if (application.containers[i].name == application.containers.back().name) {
          throw UsageError("container name '" + application.containers.back().name +
                           "' given twice");
        }
      }
    }
    plan.applications.push_back(application);
    provision::ApplicationSpec &made = plan.applications.back();
    bool defaultUser = false;
    bool defaultAdmin = false;
    newTokenPin(context, "user-", "New user PIN", made.userPin, defaultUser);
    newTokenPin(context, "admin-", "New administrator PIN", made.adminPin, defaultAdmin);
    if (defaultUser || defaultAdmin) {
      const bool both = defaultUser && defaultAdmin;
      defaultPinNote = std::string("tembra: note: default ") + (both ? "PINs " : "PIN ") +
                       kDefaultPin + " in use for the " +
                       (both          ? "user and administrator"
                        : defaultUser ? "user"
                                      : "administrator");
    }
  }
  for (const std::string &existing : nameList(false)) {
    if (existing == name) throw CliError("token '" + name + "' already exists");
  }
  std::string error;
  const ULONG rv = provision::provisionDevice(plan, &error);
  if (rv != SAR_OK) {
    // "<step> failed: 0x0A000008" with the code put in words.
    const size_t code = error.rfind(" failed: ");
    if (code != std::string::npos) error.resize(code);
    throw CliError("cannot create token '" + name + "': " + (error.empty() ? "" : error + ": ") +
                   tokenResultText(rv));
  }
  if (!defaultPinNote.empty()) context.err << defaultPinNote << "\n";
  context.out.record({{"token", name},
                      {"label", plan.label},
                      {"serial", plan.serial},
                      {"formatted", !plan.applications.empty()}});
  return 0;
}

int tokenList(CommandContext &context) {
  const std::vector<std::string> present = nameList(true);
  const std::vector<StoreProblem> problems = storeProblems();
  auto statusOf = [&](const std::string &name) -> std::string {
    for (const StoreProblem &problem : problems) {
      if (problem.token == name) return problem.reason;
    }
    return "ok";
  };
  std::vector<Record> rows;
  for (const StoreProblem &problem : problems) {
    bool listed = false;
    for (const std::string &name : nameList(false)) listed = listed || name == problem.token;
    if (listed) continue;
    rows.push_back({{"token", problem.token},
                    {"present", false},
                    {"label", "-"},
                    {"serial", "-"},
                    {"applications", "-"},
                    {"status", problem.reason}});
  }
  for (const std::string &name : nameList(false)) {
    bool isPresent = false;
    for (const std::string &other : present) isPresent = isPresent || other == name;
    std::string label = "-";
    std::string serial = "-";
    std::string applications = "-";
    DEVHANDLE device = nullptr;
    if (isPresent && SKF_ConnectDev(const_cast<LPSTR>(name.c_str()), &device) == SAR_OK) {
      DEVINFO info;
      memset(&info, 0, sizeof(info));
      if (SKF_GetDevInfo(device, &info) == SAR_OK) {
        label.assign(info.Label, strnlen(info.Label, sizeof(info.Label)));
        serial.assign(info.SerialNumber, strnlen(info.SerialNumber, sizeof(info.SerialNumber)));
      }
      char list[1024] = {0};
      ULONG size = sizeof(list) - 1;
      if (SKF_EnumApplication(device, list, &size) == SAR_OK) {
        applications.clear();
        for (const char *p = list; *p != '\0' && p < list + sizeof(list) - 1; p += strlen(p) + 1) {
          applications += (applications.empty() ? "" : ",") + std::string(p);
        }
        if (applications.empty()) applications = "(unformatted)";
      }
      SKF_DisConnectDev(device);
    }
    rows.push_back({{"token", name},
                    {"present", isPresent},
                    {"label", label},
                    {"serial", serial},
                    {"applications", applications},
                    {"status", statusOf(name)}});
  }
  context.out.table(rows);
  return 0;
}

}  // namespace

int runToken(CommandContext &context) {
  const std::vector<std::string> &words = context.args.positionals();
  const std::string action = words.empty() ? "" : words[0];
  if (action == "list") {
    if (words.size() != 1) throw UsageError("token list takes no name");
    return tokenList(context);
  }
  if (action != "create" && action != "remove" && action != "plug" && action != "unplug") {
    throw UsageError("token needs create, list, remove, plug or unplug");
  }
  if (words.size() != 2 || words[1].empty())
    throw UsageError("token " + action + " needs one name");
  const std::string &name = words[1];
  if (action == "create") return tokenCreate(context, name);
  ULONG rv = action == "remove" ? SKFSoft_RemoveDevice(name.c_str())
                                : SKFSoft_SetPresent(name.c_str(), action == "plug" ? TRUE : FALSE);
  if (rv != SAR_OK) {
    throw CliError("token " + action + " '" + name + "' failed: " +
                   (rv == SAR_FILE_NOT_EXIST || rv == SAR_INVALIDPARAMERR
                        ? std::string("no such token (see tembra token list)")
                        : tokenResultText(rv)));
  }
  context.out.record({{"token", name}, {"done", action}});
  return 0;
}

}  // namespace cli
}  // namespace tembra
