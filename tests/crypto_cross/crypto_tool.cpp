// crypto_tool: the crypto backend behind a command line, built once per
// backend (crypto_tool_openssl, crypto_tool_gcrypt), so that what one backend
// produces can be checked by the other. Keys, data and results are raw files:
//
//   sm2-keygen PRIV PUB                   PRIV: d (32 bytes), PUB: x || y
//   sm2-sign PRIV DIGEST SIG              SIG: r || s
//   sm2-verify PUB DIGEST SIG
//   sm2-encrypt PUB IN OUT                OUT: 04 || x || y || C2 || C3
//   sm2-decrypt PRIV IN OUT
//   rsa-keygen BITS KEY                   KEY: n e d p q dp dq qinv, each a
//                                         4-byte big-endian length and bytes
//   rsa-sign KEY IN SIG | rsa-verify KEY IN SIG
//   rsa-encrypt KEY IN OUT | rsa-decrypt KEY IN OUT
//   sm3 IN OUT
//   sm4 ecb|cbc enc|dec|rawenc KEY IV IN OUT
//                                         PKCS#7 padding (none for rawenc, which
//                                         takes whole blocks); IV ignored for ecb
//
// Exit status: 0 success, 1 the operation failed (a signature that does not
// verify, a ciphertext that does not open), 2 bad usage or unreadable files.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/backend.h"

namespace {

using tembra::SecureBytes;
using Bytes = std::vector<uint8_t>;
namespace crypto = tembra::crypto;

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

bool readFile(const char *path, Bytes &out) {
  FILE *file = fopen(path, "rb");
  if (file == nullptr) return false;
  out.clear();
  uint8_t chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) out.insert(out.end(), chunk, chunk + got);
  const bool ok = ferror(file) == 0;
  fclose(file);
  return ok;
}

bool writeFile(const char *path, const uint8_t *data, size_t len) {
  FILE *file = fopen(path, "wb");
  if (file == nullptr) return false;
  const bool ok = (len == 0 || fwrite(data, 1, len, file) == len);
  return fclose(file) == 0 && ok;
}

template <typename Buffer>
void appendField(Bytes &out, const Buffer &field) {
  const size_t len = field.size();
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(len >> shift));
  out.insert(out.end(), field.data(), field.data() + len);
}

template <typename Buffer>
bool takeField(const Bytes &in, size_t &pos, Buffer &field) {
  if (in.size() - pos < 4) return false;
  size_t len = 0;
  for (int i = 0; i < 4; ++i) len = (len << 8) | in[pos++];
  if (in.size() - pos < len) return false;
  field.resize(len);
  if (len > 0) memcpy(field.data(), in.data() + pos, len);
  pos += len;
  return true;
}

bool readRsaKey(const char *path, crypto::RsaPrivateKey &key) {
  Bytes file;
  if (!readFile(path, file)) return false;
  size_t pos = 0;
  return takeField(file, pos, key.publicKey.n) && takeField(file, pos, key.publicKey.e) &&
         takeField(file, pos, key.d) && takeField(file, pos, key.p) &&
         takeField(file, pos, key.q) && takeField(file, pos, key.dp) &&
         takeField(file, pos, key.dq) && takeField(file, pos, key.qinv) && pos == file.size();
}

bool readFixed(const char *path, uint8_t *out, size_t len) {
  Bytes file;
  if (!readFile(path, file) || file.size() != len) return false;
  memcpy(out, file.data(), len);
  return true;
}

int sm2Command(const std::string &command, char **args) {
  if (command == "sm2-keygen") {
    crypto::Sm2KeyPair pair;
    if (!crypto::sm2Generate(pair)) return kFailed;
    uint8_t pub[64];
    memcpy(pub, pair.publicKey.x, 32);
    memcpy(pub + 32, pair.publicKey.y, 32);
    return writeFile(args[0], pair.d.data(), 32) && writeFile(args[1], pub, 64) ? kOk : kUsage;
  }
  tembra::SecureArray<32> d;
  crypto::Sm2PublicKey pub{};
  const bool usesPrivate = command == "sm2-sign" || command == "sm2-decrypt";
  if (usesPrivate) {
    if (!readFixed(args[0], d.data(), 32)) return kUsage;
  } else {
    uint8_t xy[64];
    if (!readFixed(args[0], xy, 64)) return kUsage;
    memcpy(pub.x, xy, 32);
    memcpy(pub.y, xy + 32, 32);
  }
  Bytes in;
  if (!readFile(args[1], in)) return kUsage;
  if (command == "sm2-sign") {
    uint8_t rs[64];
    if (in.size() != 32 || !crypto::sm2Sign(d.data(), in.data(), rs, rs + 32)) return kFailed;
    return writeFile(args[2], rs, 64) ? kOk : kUsage;
  }
  if (command == "sm2-verify") {
    uint8_t rs[64];
    if (!readFixed(args[2], rs, 64)) return kUsage;
    return in.size() == 32 && crypto::sm2Verify(pub, in.data(), rs, rs + 32) ? kOk : kFailed;
  }
  if (command == "sm2-encrypt") {
    Bytes cipher;
    if (!crypto::sm2Encrypt(pub, in.data(), in.size(), cipher)) return kFailed;
    return writeFile(args[2], cipher.data(), cipher.size()) ? kOk : kUsage;
  }
  if (command == "sm2-decrypt") {
    SecureBytes plain;
    if (!crypto::sm2Decrypt(d.data(), in.data(), in.size(), plain)) return kFailed;
    return writeFile(args[2], plain.data(), plain.size()) ? kOk : kUsage;
  }
  return kUsage;
}

int rsaCommand(const std::string &command, char **args) {
  if (command == "rsa-keygen") {
    crypto::RsaPrivateKey key;
    if (!crypto::rsaGenerate(atoi(args[0]), key)) return kFailed;
    Bytes out;
    appendField(out, key.publicKey.n);
    appendField(out, key.publicKey.e);
    appendField(out, key.d);
    appendField(out, key.p);
    appendField(out, key.q);
    appendField(out, key.dp);
    appendField(out, key.dq);
    appendField(out, key.qinv);
    return writeFile(args[1], out.data(), out.size()) ? kOk : kUsage;
  }
  crypto::RsaPrivateKey key;
  Bytes in;
  if (!readRsaKey(args[0], key) || !readFile(args[1], in)) return kUsage;
  if (command == "rsa-sign") {
    Bytes signature;
    if (!crypto::rsaSignPkcs1(key, in.data(), in.size(), signature)) return kFailed;
    return writeFile(args[2], signature.data(), signature.size()) ? kOk : kUsage;
  }
  if (command == "rsa-verify") {
    Bytes signature;
    if (!readFile(args[2], signature)) return kUsage;
    return crypto::rsaVerifyPkcs1(key.publicKey, in.data(), in.size(), signature.data(),
                                  signature.size())
               ? kOk
               : kFailed;
  }
  if (command == "rsa-encrypt") {
    Bytes cipher;
    if (!crypto::rsaEncryptPkcs1(key.publicKey, in.data(), in.size(), cipher)) return kFailed;
    return writeFile(args[2], cipher.data(), cipher.size()) ? kOk : kUsage;
  }
  if (command == "rsa-decrypt") {
    SecureBytes plain;
    if (!crypto::rsaDecryptPkcs1(key, in.data(), in.size(), plain)) return kFailed;
    return writeFile(args[2], plain.data(), plain.size()) ? kOk : kUsage;
  }
  return kUsage;
}

int sm4Command(char **args) {
  const std::string mode = args[0];
  const std::string direction = args[1];
  if ((mode != "ecb" && mode != "cbc") ||
      (direction != "enc" && direction != "dec" && direction != "rawenc")) {
    return kUsage;
  }
  uint8_t key[crypto::kSm4KeySize];
  uint8_t iv[crypto::kSm4BlockSize];
  Bytes in;
  if (!readFixed(args[2], key, sizeof key) || !readFixed(args[3], iv, sizeof iv) ||
      !readFile(args[4], in)) {
    return kUsage;
  }
  if (direction == "rawenc") {
    Bytes out(in.size());
    const bool done = mode == "ecb"
                          ? crypto::sm4Ecb(true, key, in.data(), in.size(), out.data())
                          : crypto::sm4Cbc(true, key, iv, in.data(), in.size(), out.data());
    if (!done) return kFailed;
    return writeFile(args[5], out.data(), out.size()) ? kOk : kUsage;
  }
  const bool encrypt = direction == "enc";
  SecureBytes out;
  const bool done = mode == "ecb"
                        ? crypto::sm4EcbPadded(encrypt, key, in.data(), in.size(), out)
                        : crypto::sm4CbcPadded(encrypt, key, iv, in.data(), in.size(), out);
  if (!done) return kFailed;
  return writeFile(args[5], out.data(), out.size()) ? kOk : kUsage;
}

struct Command {
  const char *name;
  int argumentCount;
};

const Command kCommands[] = {
    {"sm2-keygen", 2},  {"sm2-sign", 3},    {"sm2-verify", 3}, {"sm2-encrypt", 3},
    {"sm2-decrypt", 3}, {"rsa-keygen", 2},  {"rsa-sign", 3},   {"rsa-verify", 3},
    {"rsa-encrypt", 3}, {"rsa-decrypt", 3}, {"sm3", 2},        {"sm4", 6},
};

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s COMMAND ARGS... (see crypto_tool.cpp)\n", argv[0]);
    return kUsage;
  }
  const std::string command = argv[1];
  bool known = false;
  for (const Command &entry : kCommands) {
    if (command == entry.name) {
      if (argc != entry.argumentCount + 2) {
        fprintf(stderr, "%s: %s takes %d arguments\n", argv[0], entry.name, entry.argumentCount);
        return kUsage;
      }
      known = true;
    }
  }
  if (!known) {
    fprintf(stderr, "%s: unknown command %s\n", argv[0], command.c_str());
    return kUsage;
  }
  char **args = argv + 2;
  if (command == "sm3") {
    Bytes in;
    uint8_t digest[crypto::kSm3DigestSize];
    if (!readFile(args[0], in)) return kUsage;
    if (!crypto::sm3(in.data(), in.size(), digest)) return kFailed;
    return writeFile(args[1], digest, sizeof digest) ? kOk : kUsage;
  }
  if (command == "sm4") return sm4Command(args);
  if (command.compare(0, 4, "sm2-") == 0) return sm2Command(command, args);
  return rsaCommand(command, args);
}
