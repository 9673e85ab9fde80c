#include "crypto/der.h"

#include <string.h>

#include <algorithm>

namespace tembra {
namespace der {

namespace {

void appendLength(Bytes &out, size_t len) {
  if (len < 0x80) {
    out.push_back(static_cast<uint8_t>(len));
    return;
  }
  uint8_t bytes[sizeof(size_t)];
  size_t count = 0;
  for (size_t v = len; v != 0; v >>= 8) bytes[count++] = static_cast<uint8_t>(v & 0xFF);
  out.push_back(static_cast<uint8_t>(0x80 | count));
  while (count > 0) out.push_back(bytes[--count]);
}

// Civil date of a day count since 1970-01-01 (proleptic Gregorian).
void civilFromDays(int64_t days, int64_t &year, unsigned &month, unsigned &day) {
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
  day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
  month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
  year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
}

struct BrokenDownTime {
  int64_t year;
  unsigned month, day, hour, minute, second;
};

BrokenDownTime breakDown(int64_t t) {
  int64_t days = t / 86400;
  int64_t rest = t % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  BrokenDownTime out{};
  civilFromDays(days, out.year, out.month, out.day);
  out.hour = static_cast<unsigned>(rest / 3600);
  out.minute = static_cast<unsigned>(rest / 60 % 60);
  out.second = static_cast<unsigned>(rest % 60);
  return out;
}

void appendDigits(std::string &text, int64_t value, int width) {
  std::string digits(static_cast<size_t>(width), '0');
  for (int i = width - 1; i >= 0; --i) {
    digits[static_cast<size_t>(i)] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  text += digits;
}

Bytes timeString(uint8_t tag, const BrokenDownTime &t, int yearDigits) {
  std::string text;
  appendDigits(text, yearDigits == 2 ? t.year % 100 : t.year, yearDigits);
  appendDigits(text, t.month, 2);
  appendDigits(text, t.day, 2);
  appendDigits(text, t.hour, 2);
  appendDigits(text, t.minute, 2);
  appendDigits(text, t.second, 2);
  text += 'Z';
  return tlv(tag, reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

void appendBase128(Bytes &out, uint64_t value) {
  uint8_t groups[10];
  size_t count = 0;
  do {
    groups[count++] = static_cast<uint8_t>(value & 0x7F);
    value >>= 7;
  } while (value != 0);
  while (count > 1) out.push_back(static_cast<uint8_t>(groups[--count] | 0x80));
  out.push_back(groups[0]);
}

bool isPrintable(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return strchr(" '()+,-./:=?", c) != nullptr && c != '\0';
}

}  // namespace

// ---- Writer ---------------------------------------------------------------

Bytes tlv(uint8_t tag, const uint8_t *content, size_t len) {
  Bytes out;
  out.reserve(len + 10);
  out.push_back(tag);
  appendLength(out, len);
  if (len > 0) out.insert(out.end(), content, content + len);
  return out;
}

Bytes tlv(uint8_t tag, const Bytes &content) {
  return tlv(tag, content.data(), content.size());
}

Bytes sequence(std::initializer_list<Bytes> elements) {
  return sequence(std::vector<Bytes>(elements));
}

Bytes sequence(const std::vector<Bytes> &elements) {
  Bytes content;
  for (const Bytes &e : elements) content.insert(content.end(), e.begin(), e.end());
  return tlv(kTagSequence, content);
}

Bytes setOf(std::vector<Bytes> elements) {
  std::sort(elements.begin(), elements.end());
  Bytes content;
  for (const Bytes &e : elements) content.insert(content.end(), e.begin(), e.end());
  return tlv(kTagSet, content);
}

Bytes integer(const uint8_t *bigEndian, size_t len) {
  while (len > 0 && bigEndian[0] == 0) {
    ++bigEndian;
    --len;
  }
  Bytes content;
  content.reserve(len + 1);
  if (len == 0 || (bigEndian[0] & 0x80) != 0) content.push_back(0x00);
  if (len > 0) content.insert(content.end(), bigEndian, bigEndian + len);
  return tlv(kTagInteger, content);
}

Bytes integer(const Bytes &bigEndian) {
  return integer(bigEndian.data(), bigEndian.size());
}

Bytes integer(int64_t value) {
  uint8_t bytes[8];
  for (int i = 7; i >= 0; --i) {
    bytes[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) & 0xFF);
    value = static_cast<int64_t>(static_cast<uint64_t>(value) >> 8);
  }
  // Minimal two's complement: drop a leading byte while the next byte's top
  // bit still carries the sign.
  size_t start = 0;
  while (start < 7 && ((bytes[start] == 0x00 && (bytes[start + 1] & 0x80) == 0) ||
                       (bytes[start] == 0xFF && (bytes[start + 1] & 0x80) != 0))) {
    ++start;
  }
  return tlv(kTagInteger, bytes + start, 8 - start);
}

Bytes boolean(bool value) {
  const uint8_t content = value ? 0xFF : 0x00;
  return tlv(kTagBoolean, &content, 1);
}

Bytes null() {
  return Bytes{kTagNull, 0x00};
}

Bytes octetString(const uint8_t *data, size_t len) {
  return tlv(kTagOctetString, data, len);
}
Bytes octetString(const Bytes &data) {
  return tlv(kTagOctetString, data);
}

Bytes bitString(const uint8_t *data, size_t len, uint8_t unusedBits) {
  Bytes content;
  content.reserve(len + 1);
  content.push_back(len == 0 ? 0 : static_cast<uint8_t>(unusedBits & 7));
  if (len > 0) content.insert(content.end(), data, data + len);
  return tlv(kTagBitString, content);
}

Bytes bitString(const Bytes &data, uint8_t unusedBits) {
  return bitString(data.data(), data.size(), unusedBits);
}

Bytes utf8String(const std::string &text) {
  return tlv(kTagUtf8String, reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

bool printableString(const std::string &text, Bytes &out) {
  for (char c : text) {
    if (!isPrintable(c)) return false;
  }
  out = tlv(kTagPrintableString, reinterpret_cast<const uint8_t *>(text.data()), text.size());
  return true;
}

Bytes ia5String(const std::string &text) {
  return tlv(kTagIa5String, reinterpret_cast<const uint8_t *>(text.data()), text.size());
}

bool oid(const char *dotted, Bytes &out) {
  if (dotted == nullptr) return false;
  std::vector<uint64_t> arcs;
  const char *p = dotted;
  while (true) {
    if (*p < '0' || *p > '9') return false;
    uint64_t arc = 0;
    while (*p >= '0' && *p <= '9') {
      if (arc > (UINT64_MAX - 9) / 10) return false;
      arc = arc * 10 + static_cast<uint64_t>(*p - '0');
      ++p;
    }
    arcs.push_back(arc);
    if (*p == '\0') break;
    if (*p != '.') return false;
    ++p;
  }
  if (arcs.size() < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] > 39)) return false;
  if (arcs[1] > UINT64_MAX - 80) return false;
  Bytes content;
  appendBase128(content, arcs[0] * 40 + arcs[1]);
  for (size_t i = 2; i < arcs.size(); ++i) appendBase128(content, arcs[i]);
  out = tlv(kTagOid, content);
  return true;
}

Bytes oidFromContent(const Bytes &content) {
  return tlv(kTagOid, content);
}

bool utcTime(int64_t secondsSinceEpoch, Bytes &out) {
  const BrokenDownTime t = breakDown(secondsSinceEpoch);
  if (t.year < 1950 || t.year > 2049) return false;
  out = timeString(kTagUtcTime, t, 2);
  return true;
}

bool generalizedTime(int64_t secondsSinceEpoch, Bytes &out) {
  // Bound the input first so that the day arithmetic cannot overflow.
  constexpr int64_t kLimit = INT64_C(400000) * 366 * 86400;
  if (secondsSinceEpoch > kLimit || secondsSinceEpoch < -kLimit) return false;
  const BrokenDownTime t = breakDown(secondsSinceEpoch);
  if (t.year < 0 || t.year > 9999) return false;
  out = timeString(kTagGeneralizedTime, t, 4);
  return true;
}

bool timeChoice(int64_t secondsSinceEpoch, Bytes &out) {
  constexpr int64_t kLimit = INT64_C(400000) * 366 * 86400;
  if (secondsSinceEpoch > kLimit || secondsSinceEpoch < -kLimit) return false;
  return utcTime(secondsSinceEpoch, out) || generalizedTime(secondsSinceEpoch, out);
}

Bytes explicitTag(unsigned n, const Bytes &element) {
  return tlv(contextTag(n, true), element);
}

Bytes implicitTag(unsigned n, bool constructed, const Bytes &content) {
  return tlv(contextTag(n, constructed), content);
}

// ---- Reader ---------------------------------------------------------------

Reader::Reader(const uint8_t *data, size_t len) : m_data(data), m_len(data != nullptr ? len : 0) {
  if (data == nullptr && len != 0) m_failed = true;
}

bool Reader::peekTag(uint8_t &tag) const {
  if (m_failed || m_pos >= m_len) return false;
  tag = m_data[m_pos];
  return true;
}

bool Reader::next(Element &element) {
  if (m_failed || m_pos >= m_len) return fail();
  const size_t start = m_pos;
  size_t pos = m_pos;
  const uint8_t tag = m_data[pos++];
  if ((tag & 0x1F) == 0x1F) return fail();  // high tag numbers are never used here
  if (pos >= m_len) return fail();
  const uint8_t first = m_data[pos++];
  size_t length = 0;
  if (first < 0x80) {
    length = first;
  } else {
    const size_t count = first & 0x7F;
    // 0x80 (indefinite) and lengths wider than size_t are refused.
    if (count == 0 || count > sizeof(size_t) || count > m_len - pos) return fail();
    if (m_data[pos] == 0) return fail();  // leading zero: not minimal
    for (size_t i = 0; i < count; ++i) length = (length << 8) | m_data[pos++];
    if (length < 0x80) return fail();  // long form for a short length
  }
  if (length > m_len - pos) return fail();
  element.tag = tag;
  element.content = m_data + pos;
  element.length = length;
  element.encoding = m_data + start;
  element.encodingLength = pos + length - start;
  m_pos = pos + length;
  return true;
}

bool Reader::expect(uint8_t tag, Element &element) {
  uint8_t actual = 0;
  if (!peekTag(actual) || actual != tag) return fail();
  return next(element);
}

bool Reader::optional(uint8_t tag, Element &element) {
  uint8_t actual = 0;
  if (!peekTag(actual) || actual != tag) return false;
  return next(element);
}

bool Reader::enter(uint8_t tag, Reader &inner) {
  Element element;
  if (!expect(tag, element)) return false;
  inner = Reader(element);
  return true;
}

bool Reader::readUnsignedInteger(Bytes &value) {
  Element element;
  if (!expect(kTagInteger, element)) return false;
  const uint8_t *p = element.content;
  size_t len = element.length;
  if (len == 0 || (p[0] & 0x80) != 0) return fail();
  if (len > 1 && p[0] == 0 && (p[1] & 0x80) == 0) return fail();
  if (len > 1 && p[0] == 0) {
    ++p;
    --len;
  }
  value.assign(p, p + len);
  return true;
}

bool Reader::readUnsignedInteger(uint8_t *out, size_t width) {
  Bytes value;
  if (out == nullptr || !readUnsignedInteger(value)) return fail();
  if (value.size() > width) return fail();
  memset(out, 0, width - value.size());
  memcpy(out + (width - value.size()), value.data(), value.size());
  return true;
}

bool Reader::readSmallInteger(int64_t &value) {
  Element element;
  if (!expect(kTagInteger, element)) return false;
  const uint8_t *p = element.content;
  const size_t len = element.length;
  if (len == 0 || len > 8) return fail();
  if (len > 1 && ((p[0] == 0x00 && (p[1] & 0x80) == 0) || (p[0] == 0xFF && (p[1] & 0x80) != 0))) {
    return fail();
  }
  uint64_t v = (p[0] & 0x80) != 0 ? UINT64_MAX : 0;
  for (size_t i = 0; i < len; ++i) v = (v << 8) | p[i];
  value = static_cast<int64_t>(v);
  return true;
}

bool Reader::readOid(Bytes &content) {
  Element element;
  if (!expect(kTagOid, element)) return false;
  std::string ignored;
  if (!oidToText(element.content, element.length, ignored)) return fail();
  content = element.contentBytes();
  return true;
}

bool Reader::readNull() {
  Element element;
  if (!expect(kTagNull, element)) return false;
  return element.length == 0 ? true : fail();
}

bool Reader::readOctetString(Bytes &value) {
  Element element;
  if (!expect(kTagOctetString, element)) return false;
  value = element.contentBytes();
  return true;
}

bool Reader::readBitString(Bytes &value) {
  Element element;
  if (!expect(kTagBitString, element)) return false;
  if (element.length == 0 || element.content[0] != 0) return fail();
  value.assign(element.content + 1, element.content + element.length);
  return true;
}

bool oidToText(const uint8_t *content, size_t len, std::string &dotted) {
  if (content == nullptr || len == 0) return false;
  std::string text;
  size_t pos = 0;
  bool firstArc = true;
  while (pos < len) {
    if (content[pos] == 0x80) return false;  // non-minimal arc
    uint64_t value = 0;
    while (true) {
      if (pos >= len) return false;  // arc runs off the end
      if (value > (UINT64_MAX >> 7)) return false;
      const uint8_t b = content[pos++];
      value = (value << 7) | (b & 0x7F);
      if ((b & 0x80) == 0) break;
    }
    if (firstArc) {
      const uint64_t first = value < 40 ? 0 : value < 80 ? 1 : 2;
      text = std::to_string(first) + "." + std::to_string(value - first * 40);
      firstArc = false;
    } else {
      text += "." + std::to_string(value);
    }
  }
  dotted = text;
  return true;
}

}  // namespace der
}  // namespace tembra
