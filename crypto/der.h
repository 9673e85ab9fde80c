// A small DER writer and a strict DER reader, enough for public keys,
// signatures, private keys and certificates.
//
// Writer: free functions that each return one complete TLV; compose them by
// nesting (sequence({integer(...), oid(...)})). Only low tag numbers (0..30)
// are written.
//
// Reader: walks TLVs inside a byte range it does not own. Every read checks
// lengths against the enclosing range; indefinite lengths, non-minimal length
// forms and high tag numbers are refused. A failed read leaves the reader
// failed: every later read fails too, so a parser may check once at the end.
#ifndef TEMBRA_CRYPTO_DER_H
#define TEMBRA_CRYPTO_DER_H

#include <stddef.h>
#include <stdint.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace tembra {
namespace der {

using Bytes = std::vector<uint8_t>;

// Universal tags.
constexpr uint8_t kTagBoolean = 0x01;
constexpr uint8_t kTagInteger = 0x02;
constexpr uint8_t kTagBitString = 0x03;
constexpr uint8_t kTagOctetString = 0x04;
constexpr uint8_t kTagNull = 0x05;
constexpr uint8_t kTagOid = 0x06;
constexpr uint8_t kTagUtf8String = 0x0C;
constexpr uint8_t kTagPrintableString = 0x13;
constexpr uint8_t kTagIa5String = 0x16;
constexpr uint8_t kTagUtcTime = 0x17;
constexpr uint8_t kTagGeneralizedTime = 0x18;
constexpr uint8_t kTagSequence = 0x30;
constexpr uint8_t kTagSet = 0x31;

// Context-specific tags: [n] EXPLICIT (constructed) and [n] IMPLICIT.
constexpr uint8_t contextTag(unsigned n, bool constructed) {
  return static_cast<uint8_t>(0x80 | (constructed ? 0x20 : 0x00) | (n & 0x1F));
}

// ---- Writer ---------------------------------------------------------------

// One TLV with the given tag and content.
Bytes tlv(uint8_t tag, const uint8_t *content, size_t len);
Bytes tlv(uint8_t tag, const Bytes &content);

// Constructed values from already-encoded elements, in the given order.
Bytes sequence(std::initializer_list<Bytes> elements);
Bytes sequence(const std::vector<Bytes> &elements);
// SET OF: the elements are sorted by their encodings, as DER requires.
Bytes setOf(std::vector<Bytes> elements);

// INTEGER of a non-negative big-endian number: leading zero bytes are
// stripped and one 0x00 is added when the top bit is set. Empty input
// encodes zero.
Bytes integer(const uint8_t *bigEndian, size_t len);
Bytes integer(const Bytes &bigEndian);
// INTEGER of a small signed value (versions, counts).
Bytes integer(int64_t value);

Bytes boolean(bool value);
Bytes null();
Bytes octetString(const uint8_t *data, size_t len);
Bytes octetString(const Bytes &data);
// BIT STRING; unusedBits (0..7) must be 0 when data is empty.
Bytes bitString(const uint8_t *data, size_t len, uint8_t unusedBits = 0);
Bytes bitString(const Bytes &data, uint8_t unusedBits = 0);
Bytes utf8String(const std::string &text);
// PrintableString; false if text holds a character outside its alphabet.
bool printableString(const std::string &text, Bytes &out);
Bytes ia5String(const std::string &text);

// OBJECT IDENTIFIER from dotted text ("1.2.840.10045.2.1"); false for
// malformed text (fewer than two arcs, first arc above 2, second arc above 39
// under arcs 0 and 1, empty or non-digit arcs, overflow).
bool oid(const char *dotted, Bytes &out);
// OBJECT IDENTIFIER from its content octets (the part after tag and length).
Bytes oidFromContent(const Bytes &content);

// Times as seconds since 1970-01-01 UTC. UTCTime "YYMMDDHHMMSSZ" covers the
// years 1950..2049, GeneralizedTime "YYYYMMDDHHMMSSZ" the years 0..9999;
// false outside. timeChoice picks UTCTime where it can, as X.509 asks.
bool utcTime(int64_t secondsSinceEpoch, Bytes &out);
bool generalizedTime(int64_t secondsSinceEpoch, Bytes &out);
bool timeChoice(int64_t secondsSinceEpoch, Bytes &out);

// [n] EXPLICIT around one encoded element.
Bytes explicitTag(unsigned n, const Bytes &element);
// [n] IMPLICIT: the content of the replaced element under the context tag.
Bytes implicitTag(unsigned n, bool constructed, const Bytes &content);

// ---- Reader ---------------------------------------------------------------

// One element as read: its tag, its content and its whole encoding. The
// pointers point into the reader's input.
struct Element {
  uint8_t tag = 0;
  const uint8_t *content = nullptr;
  size_t length = 0;
  const uint8_t *encoding = nullptr;
  size_t encodingLength = 0;

  Bytes contentBytes() const { return Bytes(content, content + length); }
  Bytes encodingBytes() const { return Bytes(encoding, encoding + encodingLength); }
};

class Reader {
 public:
  Reader() = default;
  Reader(const uint8_t *data, size_t len);
  explicit Reader(const Bytes &data) : Reader(data.data(), data.size()) {}
  // The reader keeps pointers into its input: a temporary would dangle.
  explicit Reader(Bytes &&) = delete;
  // A reader over the content of a constructed element.
  explicit Reader(const Element &element) : Reader(element.content, element.length) {}

  bool ok() const { return !m_failed; }
  bool atEnd() const { return m_pos == m_len; }
  // True once every byte is consumed and no read failed: use it where a
  // structure must end.
  bool finished() const { return ok() && atEnd(); }

  // Tag of the next element without consuming it; false at the end.
  bool peekTag(uint8_t &tag) const;
  // The next element, of any tag.
  bool next(Element &element);
  // The next element, which must carry `tag`.
  bool expect(uint8_t tag, Element &element);
  // The next element if it carries `tag`; otherwise nothing is consumed and
  // false is returned without failing the reader.
  bool optional(uint8_t tag, Element &element);

  // A constructed element's content as a new reader.
  bool enter(uint8_t tag, Reader &inner);
  bool enterSequence(Reader &inner) { return enter(kTagSequence, inner); }

  // A non-negative INTEGER in minimal DER form, returned as big-endian bytes
  // without leading zeros (zero gives one 0x00 byte). Negative values fail.
  bool readUnsignedInteger(Bytes &value);
  // A non-negative INTEGER that must fit `width` bytes; written
  // right-aligned into out[width].
  bool readUnsignedInteger(uint8_t *out, size_t width);
  // A small INTEGER (at most 8 content bytes, signed).
  bool readSmallInteger(int64_t &value);
  bool readOid(Bytes &content);
  bool readNull();
  bool readOctetString(Bytes &value);
  // BIT STRING with zero unused bits.
  bool readBitString(Bytes &value);

 private:
  bool fail() {
    m_failed = true;
    return false;
  }
  const uint8_t *m_data = nullptr;
  size_t m_len = 0;
  size_t m_pos = 0;
  bool m_failed = false;
};

// Dotted text of OBJECT IDENTIFIER content octets; false when malformed.
bool oidToText(const uint8_t *content, size_t len, std::string &dotted);

}  // namespace der
}  // namespace tembra

#endif  // TEMBRA_CRYPTO_DER_H
