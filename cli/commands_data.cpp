// `tembra data`: numbered data objects through the provider
// (DeviceCreateData, DeviceReadDataEx, DeviceWriteDataEx, DeviceDeleteData).
// The provider has no call that lists them, so `data list` reads the file
// names of the device's application from the token library and asks the
// provider for each object's size.
#include <string.h>

#include <functional>

#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/files.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "platform/skf.h"

namespace tembra {
namespace cli {
namespace {

const size_t kLargestDataObject = 1u << 20;

int dataIdFrom(const std::string &text) {
  int id = 0;
  if (!parseIndex(text, id)) {
    throw UsageError("a data object is a number (0, 1, ...), not '" + text + "'");
  }
  return id;
}

int numberOption(const Arguments &args, const char *name, int fallback) {
  if (!args.has(name)) return fallback;
  int value = 0;
  if (!parseIndex(args.value(name), value)) {
    throw UsageError(std::string("--") + name + " needs a number, not '" + args.value(name) + "'");
  }
  return value;
}

// Bits of one party in the mode block: 1 read, 2 write.
unsigned char rightsOf(const Arguments &args, const char *party) {
  unsigned char bits = 0;
  for (const char *option : {"read", "write"}) {
    const std::string who = args.value(option, option[0] == 'r' ? "anyone" : "user");
    if (who != "anyone" && who != "user" && who != "never") {
      throw UsageError(std::string("--") + option + " must be anyone, user or never, not '" + who +
                       "'");
    }
    if (who == party) bits |= option[0] == 'r' ? 1 : 2;
  }
  return bits;
}

const char *rightsText(ULONG rights) {
  if (rights == SECURE_ANYONE_ACCOUNT) return "anyone";
  if (rights == SECURE_NEVER_ACCOUNT) return "never";
  if (rights & SECURE_USER_ACCOUNT) return "user";
  return "admin";
}

// Runs a provider call; when the token answers "not logged in" it logs in
// with the user PIN (from the PIN options or the terminal) and runs it
// again. With a PIN option given it logs in first.
int withPinWhereNeeded(CommandContext &context, const ProviderApi &api, SPI_DEVICE_HANDLE device,
                       const std::function<int()> &call) {
  auto logIn = [&] {
    SecretText pin;
    std::string error;
    if (!readPin(context.args, "", "User PIN", context.err, pin, &error)) throw UsageError(error);
    login(api, device, 1, pin.c_str());
  };
  const bool given = pinGiven(context.args, "");
  if (given) logIn();
  int rv = call();
  if (rv == ORVEL_PKI_NOTLOGGEDIN && !given) {
    logIn();
    rv = call();
  }
  return rv;
}

// what: "reading", "writing", ... for the failures without words of
// their own.
void check(int rv, const char *what, int id) {
  const std::string object = "data object " + std::to_string(id);
  if (rv == ORVEL_PKI_OK) return;
  if (rv == ORVEL_PKI_EXISTS) throw CliError(object + " exists");
  if (rv == ORVEL_PKI_NOTEXISTS) throw CliError("no " + object);
  if (rv == ORVEL_PKI_NOTLOGGEDIN) {
    throw CliError("the token refuses " + object +
                   " to the user: see its rights in 'tembra data "
                   "list'");
  }
  if (rv == ORVEL_PKI_BADARGUMENT) throw CliError("offset or length outside " + object);
  checkProviderResult(rv, std::string(what) + " " + object);
}

// The token's side of one provider device, for the file listing the
// provider lacks. Discovery makes one device per application that opens (one
// for a token without application, which has no files), a token's devices
// side by side; so the device is found by its token's serial number and
// label, and its application by the device's place among the provider's
// devices of that token. Counting over every present token instead would
// name the wrong token's objects once the provider leaves a token out.
struct TokenPlace {
  std::string serial;
  std::string label;
  int ordinal = 0;  // among the provider's devices of this token
};

TokenPlace placeOf(const CommandContext &context) {
  ProviderSession session;
  const ProviderApi &api = session.api();
  const int index = session.indexOf(context.deviceIndex);
  TokenPlace place;
  place.serial = deviceSerial(api, session.device(index));
  place.label = deviceLabel(api, session.device(index));
  for (int other = 0; other < index; ++other) {
    SPI_DEVICE_HANDLE device = session.device(other);
    if (deviceSerial(api, device) == place.serial && deviceLabel(api, device) == place.label) {
      ++place.ordinal;
    }
  }
  return place;
}

std::string fieldText(const char *field, size_t size) {
  return std::string(field, strnlen(field, size));
}

class DeviceApplication {
 public:
  explicit DeviceApplication(const TokenPlace &place) {
    char names[1024] = {0};
    ULONG size = sizeof(names) - 1;
    const ULONG rv = SKF_EnumDev(TRUE, names, &size);
    if (rv != SAR_OK) throw CliError("cannot list the tokens: " + tokenResultText(rv));
    for (const char *dev = names; *dev != '\0' && dev < names + sizeof(names) - 1;
         dev += strlen(dev) + 1) {
      DEVHANDLE device = nullptr;
      if (SKF_ConnectDev(const_cast<LPSTR>(dev), &device) != SAR_OK) continue;
      DEVINFO info;
      memset(&info, 0, sizeof(info));
      if (SKF_GetDevInfo(device, &info) != SAR_OK ||
          fieldText(info.SerialNumber, sizeof(info.SerialNumber)) != place.serial ||
          fieldText(info.Label, sizeof(info.Label)) != place.label) {
        SKF_DisConnectDev(device);
        continue;
      }
      m_device = device;
      char apps[1024] = {0};
      ULONG appSize = sizeof(apps) - 1;
      if (SKF_EnumApplication(device, apps, &appSize) != SAR_OK || apps[0] == '\0') return;
      int seen = 0;
      for (const char *app = apps; *app != '\0' && app < apps + sizeof(apps) - 1;
           app += strlen(app) + 1) {
        HAPPLICATION application = nullptr;
        if (SKF_OpenApplication(device, const_cast<LPSTR>(app), &application) != SAR_OK) continue;
        if (seen++ == place.ordinal) {
          m_application = application;
          return;
        }
        SKF_CloseApplication(application);
      }
      return;
    }
    throw CliError("the token with serial '" + place.serial + "' is no longer present");
  }
  ~DeviceApplication() {
    if (m_application != nullptr) SKF_CloseApplication(m_application);
    if (m_device != nullptr) SKF_DisConnectDev(m_device);
  }
  DeviceApplication(const DeviceApplication &) = delete;
  DeviceApplication &operator=(const DeviceApplication &) = delete;

  // File names that are a data object's number, with their rights.
  std::vector<std::pair<int, FILEATTRIBUTE>> numberedFiles() const {
    std::vector<std::pair<int, FILEATTRIBUTE>> files;
    if (m_application == nullptr) return files;
    std::vector<char> list(8192, '\0');
    ULONG size = ULONG(list.size() - 1);
    const ULONG rv = SKF_EnumFiles(m_application, list.data(), &size);
    if (rv != SAR_OK) throw CliError("cannot list the data objects: " + tokenResultText(rv));
    for (const char *name = list.data(); *name != '\0' && name < list.data() + list.size() - 1;
         name += strlen(name) + 1) {
      int id = 0;
      // Only the names "%d" makes: no sign, no leading zero.
      if (!parseIndex(name, id) || std::to_string(id) != name) continue;
      FILEATTRIBUTE info;
      memset(&info, 0, sizeof(info));
      if (SKF_GetFileInfo(m_application, const_cast<LPSTR>(name), &info) != SAR_OK) continue;
      files.push_back({id, info});
    }
    return files;
  }

 private:
  DEVHANDLE m_device = nullptr;
  HAPPLICATION m_application = nullptr;
};

int runList(CommandContext &context) {
  std::vector<Record> rows;
  for (const auto &file : DeviceApplication(placeOf(context)).numberedFiles()) {
    rows.push_back({{"id", file.first},
                    {"size", int64_t(file.second.FileSize)},
                    {"read", rightsText(file.second.ReadRights)},
                    {"write", rightsText(file.second.WriteRights)}});
  }
  context.out.table(rows);
  return 0;
}

}  // namespace

int runData(CommandContext &context) {
  const std::vector<std::string> &words = context.args.positionals();
  const std::string verb = words.empty() ? "" : words[0];
  if (verb == "list") {
    if (words.size() != 1) throw UsageError("data list takes no object");
    return runList(context);
  }
  if (verb != "create" && verb != "read" && verb != "write" && verb != "delete") {
    throw UsageError("data needs list, create, read, write or delete");
  }
  if (words.size() != 2) throw UsageError("data " + verb + " needs one object number");
  const int id = dataIdFrom(words[1]);
  std::string mode;
  Bytes input;
  if (verb == "create") {
    if (!context.args.has("size")) throw UsageError("data create needs --size N");
    mode = {char(3), char(rightsOf(context.args, "anyone")), char(rightsOf(context.args, "user"))};
  } else if (verb == "write") {
    if (!context.args.has("input")) throw UsageError("data write needs -i <file>");
    // The tokens keep data objects small; the bound keeps a wrong input
    // from being read whole.
    input =
        readFile(context.args.value("input"), kLargestDataObject, "more than a data object holds");
    if (input.empty()) throw UsageError("nothing to write: the input is empty");
  }
  const int size = numberOption(context.args, "size", 0);
  const int offset = numberOption(context.args, "offset", 0);

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  if (verb == "create") {
    check(withPinWhereNeeded(context, api, device,
                             [&] { return api.DeviceCreateData(device, id, mode.data(), size); }),
          "creating", id);
    context.out.record({{"id", id},
                        {"size", size},
                        {"read", context.args.value("read", "anyone")},
                        {"write", context.args.value("write", "user")}});
  } else if (verb == "write") {
    check(withPinWhereNeeded(context, api, device,
                             [&] {
                               return api.DeviceWriteDataEx(device, id, offset, input.data(),
                                                            int(input.size()));
                             }),
          "writing", id);
    context.out.record({{"id", id}, {"offset", offset}, {"written", int64_t(input.size())}});
  } else if (verb == "delete") {
    check(
        withPinWhereNeeded(context, api, device, [&] { return api.DeviceDeleteData(device, id); }),
        "deleting", id);
    context.out.record({{"id", id}, {"deleted", true}});
  } else {
    Bytes data;
    int length = 0;
    check(withPinWhereNeeded(
              context, api, device,
              [&] {
                // What is left from the offset, unless --length asks for less.
                int rv = api.DeviceReadDataEx(device, id, offset, nullptr, 0, &length);
                if (rv != ORVEL_PKI_OK) return rv;
                length = numberOption(context.args, "length", length);
                data.assign(size_t(length), 0);
                if (length == 0) return rv;
                return api.DeviceReadDataEx(device, id, offset, data.data(), length, &length);
              }),
          "reading", id);
    data.resize(size_t(length));
    const std::string path = context.args.value("output", "-");
    context.out.writeResult(path, data.data(), data.size());
    context.out.record({{"id", id},
                        {"offset", offset},
                        {"output", path.empty() || path == "-" ? "standard output" : path},
                        {"bytes", length}});
  }
  return 0;
}

}  // namespace cli
}  // namespace tembra
