// Little-endian byte writer and bounds-checked reader for the store's record
// files. A reader never reads past its input: every getter answers false
// instead, and the reader stays failed.
#ifndef TEMBRA_SOFTSKF_STORE_SERIAL_H
#define TEMBRA_SOFTSKF_STORE_SERIAL_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "crypto/secure_bytes.h"

namespace tembra {
namespace softskf {

class ByteWriter {
 public:
  // The writer may hold secrets in transit: its buffer is wiped on destruction.
  ~ByteWriter() { wipe(); }
  void u8(uint8_t v) { m_out.push_back(v); }
  void u32(uint32_t v);
  void raw(const uint8_t *p, size_t n) { m_out.insert(m_out.end(), p, p + n); }
  // A u32 length, then the bytes.
  void bytes(const uint8_t *p, size_t n);
  void bytes(const std::vector<uint8_t> &v) { bytes(v.data(), v.size()); }
  void bytes(const SecureBytes &v) { bytes(v.data(), v.size()); }
  void text(const std::string &s) { bytes(reinterpret_cast<const uint8_t *>(s.data()), s.size()); }
  const std::vector<uint8_t> &data() const { return m_out; }
  std::vector<uint8_t> &data() { return m_out; }

 private:
  void wipe();
  std::vector<uint8_t> m_out;
};

class ByteReader {
 public:
  ByteReader(const uint8_t *p, size_t n) : m_p(p), m_n(n) {}
  bool u8(uint8_t &v);
  bool u32(uint32_t &v);
  bool raw(uint8_t *out, size_t n);
  // A u32 length (at most maxLen), then the bytes.
  bool bytes(std::vector<uint8_t> &v, size_t maxLen);
  bool bytes(SecureBytes &v, size_t maxLen);
  bool text(std::string &s, size_t maxLen);
  bool atEnd() const { return m_ok && m_pos == m_n; }
  bool ok() const { return m_ok; }

 private:
  bool take(size_t n, const uint8_t *&p);
  const uint8_t *m_p;
  size_t m_n;
  size_t m_pos = 0;
  bool m_ok = true;
};

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_STORE_SERIAL_H
