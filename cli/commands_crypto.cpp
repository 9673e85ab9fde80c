// `tembra sign`, `verify`, `encrypt` and `decrypt`. Private-key operations
// go through the provider (DeviceSign, DevicePrivateKeyDecrypt); the
// public-key side runs in software on the exported public key, never on the
// token. Messages are read in pieces, so any size takes bounded memory.
#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/files.h"
#include "cli/pin_input.h"
#include "cli/session.h"
#include "cli/signing.h"
#include "crypto/secure_bytes.h"

namespace tembra {
namespace cli {
namespace {

std::string requiredOption(const Arguments &args, const char *name, const char *display) {
  if (!args.has(name) || args.value(name).empty()) {
    throw UsageError(std::string(display) + " is required");
  }
  return args.value(name);
}

SecretText userPin(CommandContext &context) {
  SecretText pin;
  std::string error;
  if (!readPin(context.args, "", "User PIN", context.err, pin, &error)) throw UsageError(error);
  return pin;
}

// SM2 keys are hashed with SM3 whatever the default; RSA takes --hash.
HashKind hashFor(const Arguments &args, bool sm2) {
  return hashFromText(args.value("hash", sm2 ? "sm3" : "sha256"));
}

// Where a result goes and how the summary names it.
std::string outputName(const Arguments &args) {
  const std::string path = args.value("output", "-");
  return path.empty() || path == "-" ? std::string("standard output") : path;
}

}  // namespace

int runSign(CommandContext &context) {
  const std::string label = requiredOption(context.args, "label", "--label");
  const std::string input = requiredOption(context.args, "input", "-i <file>");
  const std::string output = context.args.value("output", "-");
  const std::string wanted = context.args.value("alg");
  if (!wanted.empty() && wanted != "sm2" && wanted != "rsa") {
    throw UsageError("algorithm must be sm2 or rsa, not '" + wanted + "'");
  }
  InputFile message(input);
  SecretText pin = userPin(context);

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  KeypairRef keypair(api, findKeypair(api, device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, label));
  const bool sm2 = api.DeviceGetKeypairAlgorithm(keypair.get()) == ORVEL_PKI_ALGORITHM_ECC;
  if (!wanted.empty() && (wanted == "sm2") != sm2) {
    throw CliError("key pair '" + label + "' is " + (sm2 ? "SM2" : "RSA") + ", not " + wanted);
  }
  SignatureDigest digest(exportPublicKey(api, keypair.get()), hashFor(context.args, sm2));
  readInPieces(message, "hashing",
               [&](const uint8_t *data, size_t len) { digest.update(data, len); });
  const Bytes tbs = digest.finish();
  login(api, device, 1, pin.c_str());

  const int algo = sm2 ? ORVEL_PKI_ALGORITHM_SM2_SIGN : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN;
  int len = 0;
  int rv =
      api.DeviceSign(keypair.get(), algo, nullptr, tbs.data(), int(tbs.size()), nullptr, 0, &len);
  Bytes signature;
  if (rv == ORVEL_PKI_OK && len > 0) {
    signature.resize(size_t(len));
    rv = api.DeviceSign(keypair.get(), algo, nullptr, tbs.data(), int(tbs.size()), signature.data(),
                        len, &len);
  }
  checkProviderResult(rv, "signing");
  signature.resize(size_t(len));
  context.out.writeResult(output, signature.data(), signature.size());
  context.out.record({{"label", label},
                      {"algorithm", sm2 ? "SM2" : "RSA"},
                      {"signature", outputName(context.args)},
                      {"bytes", int64_t(signature.size())}});
  return 0;
}

int runVerify(CommandContext &context) {
  const std::string input = requiredOption(context.args, "input", "-i <file>");
  const std::string signaturePath = requiredOption(context.args, "signature", "-s <signature>");
  if (context.args.has("pubkey") && context.args.has("label")) {
    throw UsageError("give --label or --pubkey, not both");
  }
  InputFile message(input);
  const Bytes signature = readFile(signaturePath, 4096, "not a signature");
  Bytes spki;
  if (context.args.has("pubkey")) {
    const std::string path = context.args.value("pubkey");
    spki = derFromDerOrPem(readFile(path, 1 << 20, "not a public key"), "PUBLIC KEY", path);
  } else {
    const std::string label = requiredOption(context.args, "label", "--label or --pubkey");
    ProviderSession session;
    const ProviderApi &api = session.api();
    SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
    KeypairRef keypair(api, findKeypair(api, device, ORVEL_PKI_KEYPAIRTYPE_SIGNATURE, label));
    spki = exportPublicKey(api, keypair.get());
  }
  const bool sm2 = isSm2Key(spki);
  SignatureDigest digest(spki, hashFor(context.args, sm2));
  readInPieces(message, "hashing",
               [&](const uint8_t *data, size_t len) { digest.update(data, len); });
  if (!digest.verify(signature)) throw CliError("signature does not verify");
  context.out.record({{"algorithm", sm2 ? "SM2" : "RSA"}, {"valid", true}});
  return 0;
}

int runEncrypt(CommandContext &context) {
  const std::string label = requiredOption(context.args, "label", "--label");
  const std::string input = requiredOption(context.args, "input", "-i <file>");
  const std::string output = context.args.value("output", "-");
  const int type = keypairTypeFromText(context.args.value("type", "enc"));
  InputFile check(input);
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  KeypairRef keypair(api, findKeypair(api, device, type, label));
  const Bytes spki = exportPublicKey(api, keypair.get());
  // Public-key encryption takes one block; the limit is checked before the
  // input is read, so a large file is refused at once.
  const size_t limit = maxEncryptLength(spki);
  const Bytes message =
      readFile(input, limit,
               isSm2Key(spki) ? "SM2 encryption is limited to what the token can decrypt"
                              : "more than one RSA block");
  const Bytes cipher = encryptTo(spki, message);
  context.out.writeResult(output, cipher.data(), cipher.size());
  context.out.record(
      {{"label", label}, {"output", outputName(context.args)}, {"bytes", int64_t(cipher.size())}});
  return 0;
}

int runDecrypt(CommandContext &context) {
  const std::string label = requiredOption(context.args, "label", "--label");
  const std::string input = requiredOption(context.args, "input", "-i <cipher file>");
  const std::string output = context.args.value("output", "-");
  const int type = keypairTypeFromText(context.args.value("type", "enc"));
  const Bytes cipher =
      readFile(input, kSm2TokenCipherLimit + 97, "larger than any ciphertext the token decrypts");
  if (cipher.empty()) throw CliError(input + " is empty");
  SecretText pin = userPin(context);

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  KeypairRef keypair(api, findKeypair(api, device, type, label));
  login(api, device, 1, pin.c_str());
  const bool sm2 = api.DeviceGetKeypairAlgorithm(keypair.get()) == ORVEL_PKI_ALGORITHM_ECC;
  const int algo = sm2 ? ORVEL_PKI_ALGORITHM_SM2_ENC : ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC;
  const int hash = ORVEL_PKI_ALGORITHM_SM3;
  int len = 0;
  int rv = api.DevicePrivateKeyDecrypt(keypair.get(), algo, &hash, cipher.data(),
                                       int(cipher.size()), nullptr, 0, &len);
  SecureBytes plain;
  if (rv == ORVEL_PKI_OK && len > 0) {
    plain.resize(size_t(len));
    rv = api.DevicePrivateKeyDecrypt(keypair.get(), algo, &hash, cipher.data(), int(cipher.size()),
                                     plain.data(), len, &len);
  }
  checkProviderResult(rv, "decryption");
  plain.resize(size_t(len));
  context.out.writeResult(output, plain.data(), plain.size());
  context.out.record(
      {{"label", label}, {"output", outputName(context.args)}, {"bytes", int64_t(plain.size())}});
  return 0;
}

}  // namespace cli
}  // namespace tembra
