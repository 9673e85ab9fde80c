// `tembra devices`, `keys`, `pubkey` and `cert`: what the provider sees on
// the tokens, read through its entry points only.
#include <string.h>
#include "cli/commands.h"
#include "cli/files.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "cli/signing.h"

#include "cli/errors.h"
#include "cli/token_store.h"
#include "crypto/key_formats.h"

namespace tembra {
namespace cli {
namespace {

// Output of DER bytes: to -o (default standard output), as PEM with --pem;
// with --json the bytes go into the record as hex or PEM text instead. DER
// is never written to a terminal without --force; PEM is text.
void emitDer(CommandContext &context, const Bytes &der, const char *pemLabel,
             const char *jsonField) {
  const bool pem = context.args.has("pem");
  const std::string path = context.args.value("output", "-");
  if (context.out.json() && !context.args.has("output")) {
    context.out.record(
        {{jsonField, pem ? crypto::pemArmour(pemLabel, der.data(), der.size()) : hexText(der)}});
    return;
  }
  size_t written = der.size();
  if (pem) {
    std::string text = crypto::pemArmour(pemLabel, der.data(), der.size());
    context.out.writeResult(path, reinterpret_cast<const uint8_t *>(text.data()), text.size(),
                            true);
    written = text.size();
  } else {
    context.out.writeResult(path, der.data(), der.size());
  }
  if (path != "-") {
    context.out.record(
        {{"written", path}, {"format", pem ? "PEM" : "DER"}, {"bytes", int64_t(written)}});
  }
}

}  // namespace

// A device counts as unformatted when it shows no key pair and no PIN:
// the provider has no getter for that state, and DeviceGetPwdRetryNum fails
// exactly on the placeholder record of a token without application.
int runDevices(CommandContext &context) {
  ProviderSession session;
  const ProviderApi &api = session.api();
  std::vector<Record> rows;
  std::vector<std::string> serials;
  for (int index = 0; index < session.deviceCount(); ++index) {
    SPI_DEVICE_HANDLE device = session.device(index);
    serials.push_back(deviceSerial(api, device));
    const int keypairs = api.DeviceGetKeypairCount(device);
    int retries = 0;
    const bool formatted =
        keypairs > 0 || api.DeviceGetPwdRetryNum(device, 1, &retries) == ORVEL_PKI_OK;
    rows.push_back({{"index", index},
                    {"label", deviceLabel(api, device)},
                    {"serial", deviceSerial(api, device)},
                    {"formatted", formatted},
                    {"keypairs", keypairs}});
  }
  // No device and no store to hold one: say so rather than list nothing.
  if (rows.empty()) checkTokenStore(tokenStoreDirectory());
  context.out.table(rows);
  // A token the store holds but the provider left out is not silently
  // missing from the list.
  const std::vector<StoreProblem> problems = storeProblems();
  for (const StoreProblem &problem : problems) {
    context.err << "tembra: warning: token '" << problem.token << "' " << problem.reason
                << "; the provider does not list it\n";
  }
  for (const StoreProblem &missing : tokensMissingFrom(serials)) {
    bool known = false;
    for (const StoreProblem &problem : problems) known = known || problem.token == missing.token;
    if (!known) {
      context.err << "tembra: warning: token '" << missing.token << "' " << missing.reason << "\n";
    }
  }
  return 0;
}

int runKeys(CommandContext &context) {
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  std::vector<Record> rows;
  const int count = api.DeviceGetKeypairCount(device);
  for (int index = 0; index < count; ++index) {
    KeypairRef keypair(api, api.DeviceGetKeypair(device, index));
    if (keypair.get() == nullptr) throw CliError("cannot read key pair " + std::to_string(index));
    rows.push_back({{"index", index},
                    {"label", keypairLabel(api, keypair.get())},
                    {"type", keypairTypeText(api.DeviceGetKeypairType(keypair.get()))},
                    {"algorithm", algorithmText(api.DeviceGetKeypairAlgorithm(keypair.get()))},
                    {"bits", api.DeviceGetKeypairBits(keypair.get())},
                    {"certificate", api.DeviceGetCertificateCount(keypair.get()) > 0}});
  }
  context.out.table(rows);
  return 0;
}

int runPubkey(CommandContext &context) {
  const std::string label = context.args.value("label");
  if (label.empty()) throw UsageError("--label is required");
  const int type = keypairTypeFromText(context.args.value("type", "sign"));
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  KeypairRef keypair(api, findKeypair(api, device, type, label));
  emitDer(context, exportPublicKey(api, keypair.get()), "PUBLIC KEY", "spki");
  return 0;
}

int runCert(CommandContext &context) {
  const std::vector<std::string> &words = context.args.positionals();
  if (words.size() != 1 || (words[0] != "get" && words[0] != "put")) {
    throw UsageError("cert needs get or put");
  }
  const std::string label = context.args.value("label");
  if (label.empty()) throw UsageError("--label is required");
  const int type = keypairTypeFromText(context.args.value("type", "sign"));
  const bool put = words[0] == "put";
  if (put && !context.args.has("input")) throw UsageError("cert put needs -i <certificate>");

  Bytes certificate;
  if (put)
    certificate = derFromDerOrPem(readFile(context.args.value("input")), "CERTIFICATE",
                                  context.args.value("input"));
  SecretText pin;
  std::string error;
  if (put && !readPin(context.args, "", "User PIN", context.err, pin, &error)) {
    throw UsageError(error);
  }

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  KeypairRef keypair(api, findKeypair(api, device, type, label));
  if (put) {
    const Bytes certKey = certificatePublicKey(certificate);
    if (certKey.empty()) {
      throw CliError(context.args.value("input") + " is not an X.509 certificate");
    }
    if (!samePublicKey(certKey, exportPublicKey(api, keypair.get())) && !context.out.force()) {
      throw CliError(std::string("the certificate's public key is not that of the ") +
                     keypairTypeText(type) + " key pair '" + label +
                     "'; nothing stored (--force stores it all the same)");
    }
    login(api, device, 1, pin.c_str());
    const int rv =
        api.DeviceUpdateCertificate(keypair.get(), certificate.data(), int(certificate.size()));
    checkProviderResult(rv, "storing the certificate");
    context.out.record({{"label", label},
                        {"type", keypairTypeText(type)},
                        {"stored", int64_t(certificate.size())}});
    return 0;
  }
  int len = 0;
  int rv = api.DeviceGetCertificate(keypair.get(), 0, nullptr, 0, &len);
  if (rv == ORVEL_PKI_OK && len > 0) {
    certificate.resize(size_t(len));
    rv = api.DeviceGetCertificate(keypair.get(), 0, certificate.data(), len, &len);
  }
  if (rv != ORVEL_PKI_OK || certificate.empty()) {
    throw CliError(std::string("no certificate for the ") + keypairTypeText(type) + " key pair '" +
                   label + "'");
  }
  certificate.resize(size_t(len));
  emitDer(context, certificate, "CERTIFICATE", "certificate");
  return 0;
}

}  // namespace cli
}  // namespace tembra
