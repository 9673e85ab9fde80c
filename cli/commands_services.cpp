// `tembra random`, `hash`, `cipher` and `mechanisms`: the token services
// through the provider (DeviceGenerateRandom, the SM3 hash handle, the SM4
// cipher handle, DeviceIsSupportedAlgorithm2).
//
// Files are read and written in pieces of kPieceSize, so memory stays bounded
// whatever the input; inputs longer than kProgressThreshold show progress on
// standard error when it is a terminal, never on a pipe or a file.
#include <stdio.h>
#include <string.h>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#else
#include <unistd.h>
#endif

#include <memory>
#include <utility>

#include "cli/commands.h"
#include "cli/files.h"
#include "cli/session.h"
#include "crypto/secure_bytes.h"

namespace tembra {
namespace cli {
namespace {

constexpr size_t kPieceSize = 1u << 20;  // a multiple of the block size
constexpr uint64_t kProgressThreshold = 4u << 20;
constexpr size_t kBlock = 16;
constexpr int kMaxRandom = 1 << 30;

bool stderrIsTerminal() {
#ifdef _WIN32
  return _isatty(_fileno(stderr)) != 0;
#else
  return isatty(STDERR_FILENO) != 0;
#endif
}

// An input file ("-": standard input) read piece by piece.
class InputStream {
 public:
  explicit InputStream(const std::string &path) : m_path(path), m_stdin(path == "-") {
    m_file = m_stdin ? stdin : fopen(path.c_str(), "rb");
    if (m_file == nullptr) throw CliError("cannot open " + path);
#ifdef _WIN32
    if (m_stdin) _setmode(_fileno(stdin), _O_BINARY);
#endif
    if (!m_stdin) {
      // 64-bit offsets: inputs beyond 2 GiB are sized correctly on Windows too.
#ifdef _WIN32
      const bool sized = _fseeki64(m_file, 0, SEEK_END) == 0;
      const long long size = sized ? _ftelli64(m_file) : -1;
#else
      const bool sized = fseeko(m_file, 0, SEEK_END) == 0;
      const long long size = sized ? static_cast<long long>(ftello(m_file)) : -1;
#endif
      if (size >= 0) m_size = static_cast<uint64_t>(size);
      rewind(m_file);
    }
  }
  ~InputStream() {
    if (!m_stdin && m_file != nullptr) fclose(m_file);
  }
  InputStream(const InputStream &) = delete;
  InputStream &operator=(const InputStream &) = delete;

  // Fills up to `room` bytes (fewer only at the end); 0 at the end.
  size_t read(uint8_t *buffer, size_t room) {
    size_t got = 0;
    while (got < room) {
      const size_t n = fread(buffer + got, 1, room - got, m_file);
      if (n == 0) break;
      got += n;
    }
    if (ferror(m_file) != 0) throw CliError("cannot read " + m_path);
    return got;
  }
  // The size of a regular file, 0 when unknown (standard input).
  uint64_t size() const {
    return m_size;
  }

 private:
  std::string m_path;
  bool m_stdin;
  FILE *m_file = nullptr;
  uint64_t m_size = 0;
};

// An output file written piece by piece. A file not committed (the command
// failed half-way) is removed again, so no truncated result stays behind.
class OutputStream {
 public:
  explicit OutputStream(const std::string &path) : m_path(path), m_stdout(path == "-") {
    m_file = m_stdout ? stdout : fopen(path.c_str(), "wb");
    if (m_file == nullptr) throw CliError("cannot create " + path);
#ifdef _WIN32
    if (m_stdout) _setmode(_fileno(stdout), _O_BINARY);
#endif
  }
  ~OutputStream() {
    if (m_stdout) return;
    fclose(m_file);
    if (!m_committed) remove(m_path.c_str());
  }
  OutputStream(const OutputStream &) = delete;
  OutputStream &operator=(const OutputStream &) = delete;

  void write(const uint8_t *data, size_t len) {
    if (len > 0 && fwrite(data, 1, len, m_file) != len) throw CliError("cannot write " + m_path);
  }
  void commit() {
    if (fflush(m_file) != 0) throw CliError("cannot write " + m_path);
    m_committed = true;
  }

 private:
  std::string m_path;
  bool m_stdout;
  FILE *m_file = nullptr;
  bool m_committed = false;
};

// "\r<what>: 12 of 40 MiB (30%)" on a terminal for long inputs; nothing
// otherwise. The line is ended when the work is done.
class Progress {
 public:
  Progress(std::ostream &err, const char *what, uint64_t total)
      : m_err(err), m_what(what), m_total(total), m_shown(stderrIsTerminal()) {}
  ~Progress() {
    if (m_active) m_err << "\n" << std::flush;
  }
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  void advance(uint64_t done) {
    if (!m_shown || (m_total != 0 ? m_total : done) <= kProgressThreshold) return;
    m_active = true;
    m_err << "\r" << m_what << ": " << (done >> 20) << " MiB";
    if (m_total != 0)
      m_err << " of " << (m_total >> 20) << " MiB (" << done * 100 / m_total << "%)";
    m_err << std::flush;
  }

 private:
  std::ostream &m_err;
  const char *m_what;
  uint64_t m_total;
  bool m_shown;
  bool m_active = false;
};

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
  SecureBytes bytes;
  {
    std::vector<uint8_t> raw = readFile(path);
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
  if (!ok) throw CliError("key file " + path + " must hold 16 bytes, raw or as 32 hex digits");
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

int runRandom(CommandContext &context) {
  const std::vector<std::string> &words = context.args.positionals();
  int count = 0;
  if (words.size() != 1 || !parseIndex(words[0], count) || count > kMaxRandom) {
    throw UsageError("random needs one byte count, 0 to " + std::to_string(kMaxRandom));
  }
  const bool toFile = context.args.has("output");
  if (!toFile && count > (1 << 20))
    throw UsageError("more than 1 MiB of random bytes needs -o FILE");

  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  Bytes piece(count < static_cast<int>(kPieceSize) ? static_cast<size_t>(count) : kPieceSize);
  std::string hex;
  std::unique_ptr<OutputStream> file;
  if (toFile) file.reset(new OutputStream(context.args.value("output")));
  for (int done = 0; done < count;) {
    const int n = count - done < static_cast<int>(piece.size()) ? count - done
                                                                : static_cast<int>(piece.size());
    if (api.DeviceGenerateRandom(device, n, piece.data()) != ORVEL_PKI_OK) {
      throw CliError("DeviceGenerateRandom failed");
    }
    if (file) {
      file->write(piece.data(), size_t(n));
    } else {
      hex += hexText(piece.data(), size_t(n));
    }
    done += n;
  }
  if (file) {
    file->commit();
    if (context.args.value("output") == "-") return 0;  // raw bytes went to standard output
    context.out.record({{"output", context.args.value("output")}, {"bytes", count}});
  } else if (context.out.json()) {
    context.out.record({{"bytes", count}, {"random", hex}});
  } else {
    context.out.note(hex);
  }
  return 0;
}

int runHash(CommandContext &context) {
  const std::string input = requiredOption(context.args, "input", "-i <file>");
  InputStream in(input);
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  HashRef hash(api, api.DeviceNewHash(device, ORVEL_PKI_ALGORITHM_SM3));
  if (hash.get() == nullptr) throw CliError("DeviceNewHash failed");

  Progress progress(context.err, "hash", in.size());
  Bytes piece(kPieceSize);
  uint64_t total = 0;
  for (size_t n; (n = in.read(piece.data(), piece.size())) > 0;) {
    const int rv = api.DeviceHashUpdate(hash.get(), piece.data(), static_cast<int>(n));
    if (rv != ORVEL_PKI_OK) throw CliError("DeviceHashUpdate failed (" + std::to_string(rv) + ")");
    total += n;
    progress.advance(total);
  }
  uint8_t digest[32];
  int len = 0;
  const int rv = api.DeviceHashFinal(hash.get(), digest, sizeof digest, &len);
  if (rv != ORVEL_PKI_OK || len != 32) {
    throw CliError("DeviceHashFinal failed (" + std::to_string(rv) + ")");
  }
  context.out.record({{"input", input},
                      {"algorithm", "SM3"},
                      {"bytes", static_cast<int64_t>(total)},
                      {"digest", hexText(digest, sizeof digest)}});
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
  const std::string output = requiredOption(context.args, "output", "-o <file>");
  const bool pad = context.args.has("pad");
  uint8_t iv[kBlock] = {};
  if (cbc && !parseHex(context.args.value("iv"), iv, kBlock)) {
    throw UsageError("sm4-cbc needs --iv with 32 hexadecimal digits");
  }
  if (!cbc && context.args.has("iv")) throw UsageError("sm4-ecb takes no --iv");
  SecureArray<kBlock> key;
  readKeyFile(keyPath, key.data());

  InputStream in(input);
  if (!pad && in.size() % kBlock != 0) {
    throw CliError(input + " is " + std::to_string(in.size()) +
                   " bytes, not a multiple of 16: SM4 works on whole 16-byte blocks (add --pad "
                   "for PKCS #7 padding)");
  }
  ProviderSession session;
  const ProviderApi &api = session.api();
  SPI_DEVICE_HANDLE device = session.device(context.deviceIndex);
  CipherRef cipher(
      api, api.DeviceNewCipher(device, encrypt ? 1 : 0,
                               cbc ? ORVEL_PKI_ALGORITHM_SMS4_CBC : ORVEL_PKI_ALGORITHM_SMS4_ECB,
                               key.data(), int(kBlock), iv));
  if (cipher.get() == nullptr) throw CliError("DeviceNewCipher failed");
  OutputStream out(output);
  Progress progress(context.err, words[0].c_str(), in.size());

  // One piece ahead: the last piece is known only when the next read comes
  // back empty, and padding is added to (or taken from) that piece alone.
  SecureBytes current(kPieceSize + kBlock), next(kPieceSize + kBlock), result(kPieceSize + kBlock);
  size_t have = in.read(current.data(), kPieceSize);
  uint64_t total = 0, written = 0;
  for (;;) {
    const size_t following = have == kPieceSize ? in.read(next.data(), kPieceSize) : 0;
    const bool last = following == 0;
    total += have;
    if (last && pad && encrypt) {
      const uint8_t fill = static_cast<uint8_t>(kBlock - have % kBlock);
      memset(current.data() + have, fill, fill);
      have += fill;
    }
    if (have % kBlock != 0) {
      throw CliError(input + " is " + std::to_string(total) +
                     " bytes, not a multiple of 16: SM4 works on whole 16-byte blocks" +
                     (encrypt ? " (add --pad for PKCS #7 padding)" : ""));
    }
    int len = 0;
    const int rv = api.DeviceCipherUpdate(cipher.get(), current.data(), int(have), result.data(),
                                          int(result.size()), &len);
    if (rv != ORVEL_PKI_OK) {
      throw CliError("DeviceCipherUpdate failed (" + std::to_string(rv) + ")");
    }
    size_t keep = size_t(len);
    if (last && pad && !encrypt) {
      const uint8_t fill = keep > 0 ? result[keep - 1] : 0;
      bool ok = fill >= 1 && fill <= kBlock && fill <= keep;
      for (size_t i = 0; ok && i < fill; ++i) ok = result[keep - 1 - i] == fill;
      if (!ok)
        throw CliError("the decrypted data does not end in PKCS #7 padding (wrong key or IV?)");
      keep -= fill;
    }
    out.write(result.data(), keep);
    written += keep;
    progress.advance(total);
    if (last) break;
    std::swap(current, next);
    have = following;
  }
  out.commit();
  if (output == "-") return 0;  // the data went to standard output: no record to mix in
  context.out.record({{"operation", words[0]},
                      {"algorithm", cbc ? "SM4-CBC" : "SM4-ECB"},
                      {"output", output},
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
