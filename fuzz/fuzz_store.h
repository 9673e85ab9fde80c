// A software token store of its own for the fuzz targets that drive the
// token: a fresh directory named in TEMBRA_SOFTSKF_DIR, provisioned once per
// process, and whole-file helpers.
#ifndef TEMBRA_FUZZ_FUZZ_STORE_H
#define TEMBRA_FUZZ_FUZZ_STORE_H

#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "softskf/provision/provision.h"

namespace fuzzstore {

inline std::vector<unsigned char> readAll(const std::string &path) {
  std::vector<unsigned char> bytes;
  FILE *file = fopen(path.c_str(), "rb");
  if (file == nullptr) return bytes;
  int c;
  while ((c = fgetc(file)) != EOF) bytes.push_back(static_cast<unsigned char>(c));
  fclose(file);
  return bytes;
}

// Written beside and renamed over, as the token writes: a new file each
// time, so the token's per-process cache sees the change whatever the clock.
inline void writeAll(const std::string &path, const unsigned char *data, size_t size) {
  const std::string temporary = path + ".fuzz";
  FILE *file = fopen(temporary.c_str(), "wb");
  if (file == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, file) != size) abort();
  fclose(file);
  if (rename(temporary.c_str(), path.c_str()) != 0) abort();
}

// Makes the store and provisions `layout` in it; aborts when that fails, as no
// input could then reach the code under test. Returns the store directory.
inline std::string provisionStore(const tembra::provision::DeviceSpec &layout) {
  char pattern[] = "/tmp/tembra_fuzz_store_XXXXXX";
  if (mkdtemp(pattern) == nullptr) abort();
  setenv("TEMBRA_SOFTSKF_DIR", pattern, 1);
  std::string error;
  if (tembra::provision::provisionDevice(layout, &error) != SAR_OK) {
    fprintf(stderr, "provisioning failed: %s\n", error.c_str());
    abort();
  }
  return pattern;
}

// Writes `prefix` followed by `bytes` as a seed file when
// TEMBRA_FUZZ_WRITE_SEEDS names a directory (how the seed corpora were made).
inline void writeSeed(const char *name, unsigned char prefix,
                      const std::vector<unsigned char> &bytes) {
  const char *dir = getenv("TEMBRA_FUZZ_WRITE_SEEDS");
  if (dir == nullptr) return;
  const std::string path = std::string(dir) + "/" + name;
  FILE *file = fopen(path.c_str(), "wb");
  if (file == nullptr || fputc(prefix, file) == EOF ||
      fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
    abort();
  }
  fclose(file);
}

}  // namespace fuzzstore

#endif  // TEMBRA_FUZZ_FUZZ_STORE_H
