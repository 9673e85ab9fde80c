// `tembra import` and `tembra envelope`: an encryption key pair installed
// beside a container's signature key pair (DeviceImportKeypair), and the key
// management centre's side that envelopes a private key for it in software.
#include <string.h>

#include "cli/commands.h"
#include "cli/enveloped_blob.h"
#include "cli/errors.h"
#include "cli/files.h"
#include "cli/key_files.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "crypto/keypair_blob.h"
#include "crypto/secure_bytes.h"

namespace tembra {
namespace cli {
namespace {

// An "SCAENCKP" blob of an RSA-2048 key pair is well under 4 KiB.
const size_t kLargestBlob = 64u << 10;

std::string requiredOption(const Arguments &args, const char *name, const char *display) {
  if (!args.has(name) || args.value(name).empty()) {
    throw UsageError(std::string(display) + " is required");
  }
  return args.value(name);
}

// The "_KEYPAIR" blob of a private key file: the host library's encoding of
// a plain key pair, which the provider envelopes on the token itself.
SecureBytes plainKeyPairBlob(const std::string &path) {
  const PrivateKey key = readPrivateKeyFile(path);
  SecureBytes blob;
  const bool ok = key.sm2 ? crypto::encodeSm2KeyPairBlob(key.sm2Key, blob)
                          : crypto::encodeRsaKeyPairBlob(key.rsaKey, blob);
  if (!ok) throw CliError(path + ": only SM2 and RSA 1024 or 2048 key pairs can be imported");
  return blob;
}

}  // namespace

int runImport(CommandContext &context) {
  const std::string label = requiredOption(context.args, "label", "--label");
  const std::string input = requiredOption(context.args, "input", "-i <key file>");
  const bool enveloped = context.args.has("enveloped");
  SecureBytes blob;
  if (enveloped) {
    const Bytes bytes = readFile(input, kLargestBlob, "not an enveloped key pair");
    if (bytes.size() < 8 || memcmp(bytes.data(), "SCAENCKP", 8) != 0) {
      throw CliError(input + " is no enveloped key pair (\"SCAENCKP\" blob)");
    }
    blob.assign(bytes.data(), bytes.size());
  } else {
    blob = plainKeyPairBlob(input);
  }
  SecretText pin;
  std::string error;
  if (!readPin(context.args, "", "User PIN", context.err, pin, &error)) throw UsageError(error);

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  login(api, device, 1, pin.c_str());
  SPI_KEYPAIR_HANDLE handle = nullptr;
  const int rv = api.DeviceImportKeypair(device, blob.data(), int(blob.size()),
                                         ORVEL_PKI_KEYPAIRTYPE_ENCRYPT, label.c_str(), &handle);
  if (rv == ORVEL_PKI_FAIL || rv == ORVEL_PKI_NOTEXISTS || rv == ORVEL_PKI_BADARGUMENT) {
    throw CliError("import failed: " + providerResultText(rv) +
                   "; is there a signature key pair labelled '" + label +
                   "' of the key's algorithm, and was the blob made for it?");
  }
  checkProviderResult(rv, "import");
  KeypairRef keypair(api, handle);
  context.out.record({{"label", label},
                      {"type", keypairTypeText(ORVEL_PKI_KEYPAIRTYPE_ENCRYPT)},
                      {"algorithm", algorithmText(api.DeviceGetKeypairAlgorithm(keypair.get()))},
                      {"bits", int64_t(api.DeviceGetKeypairBits(keypair.get()))},
                      {"form", enveloped ? "SCAENCKP" : "_KEYPAIR"}});
  return 0;
}

int runEnvelope(CommandContext &context) {
  const std::string to = requiredOption(context.args, "to", "--to <public key or certificate>");
  const std::string input = requiredOption(context.args, "input", "-i <key file>");
  const std::string output = context.args.value("output", "-");
  const std::string sym = context.args.value("sym", "sm4");
  if (sym != "sm4") throw UsageError("--sym: only sm4 is available in software, not '" + sym + "'");
  const Bytes recipient = readRecipientFile(to);
  const PrivateKey key = readPrivateKeyFile(input);
  const Bytes blob = envelopeKeyPair(recipient, key);
  context.out.writeResult(output, blob.data(), blob.size());
  context.out.record({{"algorithm", key.sm2 ? "SM2" : "RSA"},
                      {"to", to},
                      {"output", output.empty() || output == "-" ? "standard output" : output},
                      {"bytes", int64_t(blob.size())}});
  return 0;
}

}  // namespace cli
}  // namespace tembra
