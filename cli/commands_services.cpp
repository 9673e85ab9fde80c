// `tembra random`, `hash`, `cipher` and `mechanisms`: the token services
// through the provider (DeviceGenerateRandom, the SM3 hash handle, the SM4
// cipher handle, DeviceIsSupportedAlgorithm2).
//
// Inputs are read and results written in pieces of kInputPieceSize, so
// memory stays bounded whatever the size; a progress bar shows on a terminal
// for large inputs (files.h, terminal.h).
#include <stdio.h>
#include <string.h>

#include <utility>

#include "cli/commands.h"
#include "cli/errors.h"
#include "cli/files.h"
#include "cli/session.h"
#include "cli/terminal.h"
#include "crypto/secure_bytes.h"

namespace tembra {
namespace cli {
namespace {

constexpr size_t kBlock = 16;
constexpr int kMaxRandom = 1 << 30;
static_assert(kInputPieceSize % kBlock == 0, "pieces of whole SM4 blocks");

std::string requiredOption(const Arguments &args, const char *name, const char *display) {
  if (!args.has(name) || args.value(name).empty()) {
    throw UsageError(std::string(display) + " is required");
  }
  return args.value(name);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Exactly 2 * n hexadecimal digits into out; false otherwise.
bool parseHex(const std::string &text, uint8_t *out, size_t n) {
  if (text.size() != 2 * n) return false;
  for (size_t i = 0; i < n; ++i) {
    const int high = hexDigit(text[2 * i]);
    const int low = hexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    out[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return true;
}

// A key file holds the 16 key bytes raw, or as 32 hexadecimal digits with an
// optional line end. The file's bytes are wiped after use.
void readKeyFile(const std::string &path, uint8_t key[kBlock]) {
  const char *kWhat = "must hold 16 bytes, raw or as 32 hex digits";
  SecureBytes bytes;
  {
    std::vector<uint8_t> raw = readFile(path, 64, std::string("an SM4 key file ") + kWhat);
    bytes.assign(raw.data(), raw.size());
    if (!raw.empty()) secureZero(raw.data(), raw.size());
  }
  if (bytes.size() == kBlock) {
    memcpy(key, bytes.data(), kBlock);
    return;
  }
  std::string text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  const bool ok = parseHex(text, key, kBlock);
  if (!text.empty()) secureZero(&text[0], text.size());
  if (!ok) throw CliError("key file " + path + " " + kWhat);
}

// Fills up to room bytes (fewer only at the end of the input); 0 at the end.
size_t readFull(InputFile &input, uint8_t *buffer, size_t room) {
  size_t got = 0;
  while (got < room) {
    const size_t n = input.read(buffer + got, room - got);
    if (n == 0) break;
    got += n;
  }
  return got;
}

class HashRef {
 public:
  HashRef(const ProviderApi &api, SPI_HASH_HANDLE handle) : m_api(api), m_handle(handle) {}
  ~HashRef() {
    if (m_handle != nullptr) m_api.DeviceFreeHash(m_handle);
  }
  HashRef(const HashRef &) = delete;
  HashRef &operator=(const HashRef &) = delete;
  SPI_HASH_HANDLE get() const { return m_handle; }

 private:
  const ProviderApi &m_api;
  SPI_HASH_HANDLE m_handle;
};

class CipherRef {
 public:
  CipherRef(const ProviderApi &api, SPI_CIPHER_HANDLE handle) : m_api(api), m_handle(handle) {}
  ~CipherRef() {
    if (m_handle != nullptr) m_api.DeviceFreeCipher(m_handle);
  }
  CipherRef(const CipherRef &) = delete;
  CipherRef &operator=(const CipherRef &) = delete;
  SPI_CIPHER_HANDLE get() const { return m_handle; }

 private:
  const ProviderApi &m_api;
  SPI_CIPHER_HANDLE m_handle;
};

// ---- mechanisms -------------------------------------------------------------

struct Mechanism {
  const char *name;
  int algo;
};

const Mechanism kMechanisms[] = {
    {"SM3", ORVEL_PKI_ALGORITHM_SM3},
    {"SM1-ECB", ORVEL_PKI_ALGORITHM_SM1_ECB},
    {"SM1-CBC", ORVEL_PKI_ALGORITHM_SM1_CBC},
    {"SM4-ECB", ORVEL_PKI_ALGORITHM_SMS4_ECB},
    {"SM4-CBC", ORVEL_PKI_ALGORITHM_SMS4_CBC},
    {"SSF33-ECB", ORVEL_PKI_ALGORITHM_SSF33_ECB},
    {"SSF33-CBC", ORVEL_PKI_ALGORITHM_SSF33_CBC},
    {"SM2-SIGN", ORVEL_PKI_ALGORITHM_SM2_SIGN},
    {"SM2-ENC", ORVEL_PKI_ALGORITHM_SM2_ENC},
    {"RSA-PKCS1-SIGN", ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_SIGN},
    {"RSA-PKCS1-ENC", ORVEL_PKI_ALGORITHM_RSA_PKCS1_V1_5_ENC},
    {"0x30", 0x30},
    {"RSA", ORVEL_PKI_ALGORITHM_RSA},
    {"ECC", ORVEL_PKI_ALGORITHM_ECC},
};

struct Usage {
  const char *name;
  int usage;
};

const Usage kUsages[] = {
    {"encrypt", ORVEL_PKI_USAGE_ENCRYPT},     {"decrypt", ORVEL_PKI_USAGE_DECRYPT},
    {"hash", ORVEL_PKI_USAGE_HASH},           {"sign", ORVEL_PKI_USAGE_SIGN},
    {"generate", ORVEL_PKI_USAGE_GENKEYPAIR}, {"import", ORVEL_PKI_USAGE_IMPORTKEYPAIR},
};

// The usages the provider answers yes for, with what each query needs: SM2
// decryption names its hash (SM3), ECC generation the SM2 curve, RSA
// generation a key length (both are asked).
std::string supportedUsages(const ProviderApi &api, SPI_DEVICE_HANDLE device, int algo,
                            std::string &keySizes) {
  static const int kSm3 = ORVEL_PKI_ALGORITHM_SM3;
  static const ORVEL_PKI_ECC_PARAM kSm2Curve = {ORVEL_PKI_ECC_CURVE_SM2, 0};
  std::string usages;
  for (const Usage &usage : kUsages) {
    const void *param = nullptr;
    if (algo == ORVEL_PKI_ALGORITHM_SM2_ENC) param = &kSm3;
    if (algo == ORVEL_PKI_ALGORITHM_ECC) param = &kSm2Curve;
    bool yes;
    if (algo == ORVEL_PKI_ALGORITHM_RSA) {
      std::string sizes;
      for (int bits : {1024, 2048}) {
        if (api.DeviceIsSupportedAlgorithm2(device, algo, bits, usage.usage, nullptr) == 1)
          sizes += (sizes.empty() ? "" : ",") + std::to_string(bits);
      }
      yes = !sizes.empty();
      if (yes) keySizes = sizes;
    } else {
      yes = api.DeviceIsSupportedAlgorithm2(device, algo, 256, usage.usage, param) == 1;
      if (yes && algo == ORVEL_PKI_ALGORITHM_ECC) keySizes = "256";
    }
    if (yes) usages += (usages.empty() ? "" : ",") + std::string(usage.name);
  }
  return usages;
}

}  // namespace

// Raw bytes, as `openssl rand` writes them, or hexadecimal text (--hex) that
// a terminal shows; either way in pieces, so any count takes bounded memory.
int runRandom(CommandContext &context) {
  const std::vector<std::string> &words = context.args.positionals();
  int count = 0;
  if (words.size() != 1 || !parseIndex(words[0], count) || count > kMaxRandom) {
    throw UsageError("random needs one byte count, 0 to " + std::to_string(kMaxRandom));
  }
  const bool hex = context.args.has("hex");
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  ResultStream result(context.out, context.args.value("output", "-"), hex);
  SecureBytes piece(count < int(kInputPieceSize) ? size_t(count) : kInputPieceSize);
  for (int done = 0; done < count;) {
    const int n = count - done < int(piece.size()) ? count - done : int(piece.size());
    checkProviderResult(api.DeviceGenerateRandom(device, n, piece.data()),
                        "random number generation");
    if (hex) {
      const std::string text = hexText(piece.data(), size_t(n));
      result.write(reinterpret_cast<const uint8_t *>(text.data()), text.size());
    } else {
      result.write(piece.data(), size_t(n));
    }
    done += n;
  }
  if (hex) result.write(reinterpret_cast<const uint8_t *>("\n"), 1);
  result.finish();
  context.out.record({{"output", result.name()}, {"bytes", count}});
  return 0;
}

// The digest is the result: "<hex>  <file>" on standard output as sha256sum
// writes it, or the JSON record with --json.
int runHash(CommandContext &context) {
  const std::string input = requiredOption(context.args, "input", "-i <file>");
  InputFile in(input);
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  HashRef hash(api, api.DeviceNewHash(device, ORVEL_PKI_ALGORITHM_SM3));
  if (hash.get() == nullptr) {
    throw CliError("the token offers no SM3 hash (see tembra mechanisms)");
  }
  uint64_t total = 0;
  readInPieces(in, "hashing", [&](const uint8_t *data, size_t len) {
    checkProviderResult(api.DeviceHashUpdate(hash.get(), data, int(len)), "hashing");
    total += len;
  });
  uint8_t digest[32];
  int len = 0;
  checkProviderResult(api.DeviceHashFinal(hash.get(), digest, sizeof digest, &len), "hashing");
  if (len != int(sizeof digest)) throw CliError("hashing failed: the token gave no SM3 digest");
  const std::string hex = hexText(digest, sizeof digest);
  if (context.out.json()) {
    context.out.record({{"input", input},
                        {"algorithm", "SM3"},
                        {"bytes", static_cast<int64_t>(total)},
                        {"digest", hex}});
  } else {
    const std::string line = hex + "  " + input + "\n";
    context.out.writeResult("-", reinterpret_cast<const uint8_t *>(line.data()), line.size(), true);
  }
  return 0;
}

int runCipher(CommandContext &context) {
  const std::vector<std::string> &words = context.args.positionals();
  if (words.size() != 1 || (words[0] != "encrypt" && words[0] != "decrypt")) {
    throw UsageError("cipher needs 'encrypt' or 'decrypt'");
  }
  const bool encrypt = words[0] == "encrypt";
  const std::string alg = requiredOption(context.args, "alg", "--alg sm4-ecb|sm4-cbc");
  if (alg != "sm4-ecb" && alg != "sm4-cbc") {
    throw UsageError("--alg must be sm4-ecb or sm4-cbc, not '" + alg + "'");
  }
  const bool cbc = alg == "sm4-cbc";
  const std::string keyPath = requiredOption(context.args, "key-file", "--key-file <file>");
  const std::string input = requiredOption(context.args, "input", "-i <file>");
  const bool pad = context.args.has("pad");
  uint8_t iv[kBlock] = {};
  if (cbc && !parseHex(context.args.value("iv"), iv, kBlock)) {
    throw UsageError("sm4-cbc needs --iv with 32 hexadecimal digits");
  }
  if (!cbc && context.args.has("iv")) throw UsageError("sm4-ecb takes no --iv");
  SecureArray<kBlock> key;
  readKeyFile(keyPath, key.data());

  InputFile in(input);
  const std::string inputName = input == "-" ? std::string("standard input") : input;
  const char *kWholeBlocks = " bytes, not a multiple of 16: SM4 works on whole 16-byte blocks";
  if (!pad && in.size() % kBlock != 0) {
    throw CliError(inputName + " is " + std::to_string(in.size()) + kWholeBlocks +
                   " (add --pad for PKCS #7 padding)");
  }
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  CipherRef cipher(
      api, api.DeviceNewCipher(device, encrypt ? 1 : 0,
                               cbc ? ORVEL_PKI_ALGORITHM_SMS4_CBC : ORVEL_PKI_ALGORITHM_SMS4_ECB,
                               key.data(), int(kBlock), iv));
  if (cipher.get() == nullptr) {
    throw CliError("the token refused an SM4 key in this mode (see tembra mechanisms)");
  }
  ResultStream out(context.out, context.args.value("output", "-"));
  ProgressBar progress(encrypt ? "encrypting" : "decrypting", in.size());

  // One piece ahead: the last piece is known only when the next read comes
  // back empty, and padding is added to (or taken from) that piece alone.
  SecureBytes current(kInputPieceSize + kBlock), next(kInputPieceSize + kBlock),
      result(kInputPieceSize + kBlock);
  size_t have = readFull(in, current.data(), kInputPieceSize);
  uint64_t total = 0, written = 0;
  for (;;) {
    const size_t following =
        have == kInputPieceSize ? readFull(in, next.data(), kInputPieceSize) : 0;
    const bool last = following == 0;
    total += have;
    if (last && pad && encrypt) {
      const uint8_t fill = static_cast<uint8_t>(kBlock - have % kBlock);
      memset(current.data() + have, fill, fill);
      have += fill;
    }
    if (have % kBlock != 0) {
      throw CliError(inputName + " is " + std::to_string(total) + kWholeBlocks +
                     (encrypt ? " (add --pad for PKCS #7 padding)" : ""));
    }
    int len = 0;
    checkProviderResult(api.DeviceCipherUpdate(cipher.get(), current.data(), int(have),
                                               result.data(), int(result.size()), &len),
                        encrypt ? "encryption" : "decryption");
    size_t keep = size_t(len);
    if (last && pad && !encrypt) {
      const uint8_t fill = keep > 0 ? result[keep - 1] : 0;
      bool ok = fill >= 1 && fill <= kBlock && fill <= keep;
      for (size_t i = 0; ok && i < fill; ++i) ok = result[keep - 1 - i] == fill;
      if (!ok) {
        throw CliError("the decrypted data does not end in PKCS #7 padding (wrong key or IV?)");
      }
      keep -= fill;
    }
    out.write(result.data(), keep);
    written += keep;
    progress.advance(have);
    if (last) break;
    std::swap(current, next);
    have = following;
  }
  out.finish();
  context.out.record({{"operation", words[0]},
                      {"algorithm", cbc ? "SM4-CBC" : "SM4-ECB"},
                      {"output", out.name()},
                      {"bytes", static_cast<int64_t>(written)}});
  return 0;
}

int runMechanisms(CommandContext &context) {
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  std::vector<Record> rows;
  for (const Mechanism &mechanism : kMechanisms) {
    std::string keySizes;
    const std::string usages = supportedUsages(api, device, mechanism.algo, keySizes);
    char id[16];
    snprintf(id, sizeof id, "0x%08X", static_cast<unsigned>(mechanism.algo));
    rows.push_back({{"mechanism", mechanism.name},
                    {"id", id},
                    {"usages", usages.empty() ? "-" : usages},
                    {"key-bits", keySizes.empty() ? "-" : keySizes}});
  }
  context.out.table(rows);
  return 0;
}

}  // namespace cli
}  // namespace tembra
