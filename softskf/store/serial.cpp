#include "softskf/store/serial.h"

#include <string.h>

#include "platform/secure_zero.h"

namespace tembra {
namespace softskf {

void ByteWriter::u32(uint32_t v) {
  for (int i = 0; i < 4; ++i) m_out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void ByteWriter::bytes(const uint8_t *p, size_t n) {
  u32(static_cast<uint32_t>(n));
  if (n > 0) raw(p, n);
}

void ByteWriter::wipe() {
  if (!m_out.empty()) secureZero(m_out.data(), m_out.size());
}

bool ByteReader::take(size_t n, const uint8_t *&p) {
  if (!m_ok || n > m_n - m_pos) {
    m_ok = false;
    return false;
  }
  p = m_p + m_pos;
  m_pos += n;
  return true;
}

bool ByteReader::u8(uint8_t &v) {
  const uint8_t *p;
  if (!take(1, p)) return false;
  v = *p;
  return true;
}

bool ByteReader::u32(uint32_t &v) {
  const uint8_t *p;
  if (!take(4, p)) return false;
  v = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
      static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
  return true;
}

bool ByteReader::raw(uint8_t *out, size_t n) {
  const uint8_t *p;
  if (!take(n, p)) return false;
  if (n > 0) memcpy(out, p, n);
  return true;
}

bool ByteReader::bytes(std::vector<uint8_t> &v, size_t maxLen) {
  uint32_t n = 0;
  const uint8_t *p;
  if (!u32(n) || n > maxLen || !take(n, p)) return m_ok = false;
  v.assign(p, p + n);
  return true;
}

bool ByteReader::bytes(SecureBytes &v, size_t maxLen) {
  uint32_t n = 0;
  const uint8_t *p;
  if (!u32(n) || n > maxLen || !take(n, p)) return m_ok = false;
  v.assign(p, n);
  return true;
}

bool ByteReader::text(std::string &s, size_t maxLen) {
  uint32_t n = 0;
  const uint8_t *p;
  if (!u32(n) || n > maxLen || !take(n, p)) return m_ok = false;
  s.assign(reinterpret_cast<const char *>(p), n);
  return true;
}

}  // namespace softskf
}  // namespace tembra
