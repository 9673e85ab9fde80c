// `tembra keygen`, `csr` and `delete-key`: signature key pairs made and
// removed on the token through the provider (DeviceGenerateKeypair,
// DeviceDeleteKeypair), and PKCS #10 requests signed on the token.
#include <stdio.h>

#include <iostream>

#include "cli/commands.h"
#include "cli/csr.h"
#include "cli/files.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "cli/signing.h"
#include "cli/terminal.h"
#include "crypto/backend.h"
#include "crypto/key_formats.h"

namespace tembra {
namespace cli {
namespace {

std::string requiredLabel(const Arguments &args) {
  const std::string label = args.value("label");
  if (label.empty()) throw UsageError("--label is required");
  return label;
}

SecretText userPin(CommandContext &context) {
  SecretText pin;
  std::string error;
  if (!readPin(context.args, "", "User PIN", context.err, pin, &error)) throw UsageError(error);
  return pin;
}

// "sm3:<hex>" of an SM2 key's SubjectPublicKeyInfo, "sha256:<hex>" of an
// RSA key's.
std::string fingerprint(const Bytes &spki, bool sm2) {
  uint8_t digest[32];
  if (sm2) {
    if (!crypto::sm3(spki.data(), spki.size(), digest)) throw CliError("SM3 failed");
    return "sm3:" + hexText(digest, sizeof(digest));
  }
  if (!crypto::sha256(spki.data(), spki.size(), digest)) throw CliError("SHA-256 failed");
  return "sha256:" + hexText(digest, sizeof(digest));
}

// DeviceSign with a size query first; throws on failure.
Bytes signOnToken(const ProviderApi &api, SPI_KEYPAIR_HANDLE keypair, bool sm2, const Bytes &tbs) {
  const int algo = sm2 ? ORVEL_PKI_ALGORITHM_SM2_SIGN : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN;
  int len = 0;
  int rv = api.DeviceSign(keypair, algo, nullptr, tbs.data(), int(tbs.size()), nullptr, 0, &len);
  Bytes signature;
  if (rv == ORVEL_PKI_OK && len > 0) {
    signature.resize(size_t(len));
    rv = api.DeviceSign(keypair, algo, nullptr, tbs.data(), int(tbs.size()), signature.data(), len,
                        &len);
  }
  if (rv != ORVEL_PKI_OK) throw CliError("DeviceSign failed (" + std::to_string(rv) + ")");
  signature.resize(size_t(len));
  return signature;
}

}  // namespace

int runKeygen(CommandContext &context) {
  const std::string label = requiredLabel(context.args);
  const std::string alg = context.args.value("alg", "sm2");
  int algo = ORVEL_PKI_ALGORITHM_ECC;
  int bits = 256;
  if (alg == "rsa1024" || alg == "rsa2048") {
    algo = ORVEL_PKI_ALGORITHM_RSA;
    bits = alg == "rsa1024" ? 1024 : 2048;
  } else if (alg != "sm2") {
    throw UsageError("algorithm must be sm2, rsa1024 or rsa2048, not '" + alg + "'");
  }
  SecretText pin = userPin(context);

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  login(api, device, 1, pin.c_str());
  const ORVEL_PKI_ECC_PARAM param = {ORVEL_PKI_ECC_CURVE_SM2, 0};
  SPI_KEYPAIR_HANDLE handle = nullptr;
  const int rv = api.DeviceGenerateKeypair(device, algo, bits,
                                           algo == ORVEL_PKI_ALGORITHM_ECC ? &param : nullptr,
                                           ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, label.c_str(), &handle);
  if (rv == ORVEL_PKI_EXISTS) throw CliError("a container labelled '" + label + "' exists");
  if (rv == ORVEL_PKI_NOTLOGGEDIN) throw CliError("the token wants the user PIN first");
  if (rv != ORVEL_PKI_OK || handle == nullptr) {
    throw CliError("DeviceGenerateKeypair failed (" + std::to_string(rv) + ")");
  }
  KeypairRef keypair(api, handle);
  const bool sm2 = algo == ORVEL_PKI_ALGORITHM_ECC;
  context.out.record({{"label", label},
                      {"algorithm", sm2 ? "SM2" : "RSA"},
                      {"bits", api.DeviceGetKeypairBits(keypair.get())},
                      {"fingerprint", fingerprint(exportPublicKey(api, keypair.get()), sm2)}});
  return 0;
}

int runCsr(CommandContext &context) {
  const std::string label = requiredLabel(context.args);
  if (!context.args.has("subject")) throw UsageError("--subject is required");
  const Bytes subject = subjectName(context.args.value("subject"));
  SecretText pin = userPin(context);

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  KeypairRef keypair(api, findKeypair(api, device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, label));
  const bool sm2 = api.DeviceGetKeypairAlgorithm(keypair.get()) == ORVEL_PKI_ALGORITHM_ECC;
  const Bytes spki = exportPublicKey(api, keypair.get());
  const Bytes info = certificationRequestInfo(subject, spki);
  const Bytes tbs = signatureInput(spki, info, sm2 ? HashKind::Sm3 : HashKind::Sha256);
  login(api, device, 1, pin.c_str());
  const Bytes request = certificationRequest(info, sm2, signOnToken(api, keypair.get(), sm2, tbs));

  const std::string path = context.args.value("output", "-");
  if (context.args.has("pem")) {
    const std::string text =
        crypto::pemArmour("CERTIFICATE REQUEST", request.data(), request.size());
    writeFile(path, reinterpret_cast<const uint8_t *>(text.data()), text.size());
  } else {
    writeFile(path, request);
  }
  if (path != "-") {
    context.out.record({{"label", label},
                        {"algorithm", sm2 ? "SM2" : "RSA"},
                        {"written", path},
                        {"bytes", int64_t(request.size())}});
  }
  return 0;
}

// Deletes the whole container of the signature key pair: both key pairs and
// their certificates. On a terminal it asks first unless --yes.
int runDeleteKey(CommandContext &context) {
  const std::string label = requiredLabel(context.args);
  if (!context.args.has("yes")) {
    if (!stdinIsTerminal()) throw UsageError("delete-key needs --yes when not run on a terminal");
    context.err << "Delete container '" << label
                << "' with its key pairs and certificates from the token? [y/N] ";
    context.err.flush();
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "Y" && answer != "yes") throw CliError("nothing deleted");
  }
  SecretText pin = userPin(context);

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  KeypairRef keypair(api, findKeypair(api, device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, label));
  login(api, device, 1, pin.c_str());
  const int rv = api.DeviceDeleteKeypair(keypair.get());
  if (rv == ORVEL_PKI_NOTLOGGEDIN) throw CliError("the token wants the user PIN first");
  if (rv != ORVEL_PKI_OK) throw CliError("DeviceDeleteKeypair failed (" + std::to_string(rv) + ")");
  context.out.record({{"label", label}, {"deleted", true}});
  return 0;
}

}  // namespace cli
}  // namespace tembra
