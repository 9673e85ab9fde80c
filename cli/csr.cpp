#include "cli/csr.h"

#include <string.h>

#include "cli/session.h"
#include "crypto/der.h"
#include "crypto/key_formats.h"

namespace tembra {
namespace cli {
namespace {

enum class StringKind { Utf8, Printable, Ia5 };

struct AttributeType {
  const char *name;
  const char *oid;
  StringKind kind;
};

const AttributeType kTypes[] = {
    {"CN", "2.5.4.3", StringKind::Utf8},
    {"O", "2.5.4.10", StringKind::Utf8},
    {"OU", "2.5.4.11", StringKind::Utf8},
    {"C", "2.5.4.6", StringKind::Printable},
    {"L", "2.5.4.7", StringKind::Utf8},
    {"ST", "2.5.4.8", StringKind::Utf8},
    {"serialNumber", "2.5.4.5", StringKind::Printable},
    {"emailAddress", "1.2.840.113549.1.9.1", StringKind::Ia5},
};

der::Bytes oid(const char *dotted) {
  der::Bytes out;
  der::oid(dotted, out);  // the table's OIDs are constants
  return out;
}

der::Bytes attribute(const std::string &type, const std::string &value) {
  for (const AttributeType &known : kTypes) {
    if (type != known.name) continue;
    if (value.empty()) throw UsageError("empty value for " + type + " in the subject");
    der::Bytes encoded;
    if (known.kind == StringKind::Printable) {
      if (!der::printableString(value, encoded)) {
        throw UsageError(type + " must be printable text (letters, digits, ' ()+,-./:=?)");
      }
    } else if (known.kind == StringKind::Ia5) {
      for (unsigned char c : value) {
        if (c > 0x7F) throw UsageError(type + " must be ASCII text");
      }
      encoded = der::ia5String(value);
    } else {
      encoded = der::utf8String(value);
    }
    return der::setOf({der::sequence({oid(known.oid), encoded})});
  }
  throw UsageError("unknown attribute '" + type + "' in the subject (CN, O, OU, C, L, ST, " +
                   "serialNumber, emailAddress)");
}

}  // namespace

std::vector<uint8_t> subjectName(const std::string &text) {
  if (text.empty() || text[0] != '/') throw UsageError("the subject must look like /CN=name/O=org");
  std::vector<der::Bytes> names;
  std::string type;
  std::string value;
  bool inValue = false;
  auto finish = [&] {
    if (!inValue) throw UsageError("subject component '" + type + "' has no '='");
    names.push_back(attribute(type, value));
    type.clear();
    value.clear();
    inValue = false;
  };
  for (size_t i = 1; i < text.size(); ++i) {
    char c = text[i];
    if (c == '\\') {
      if (++i == text.size()) throw UsageError("the subject ends in a lone backslash");
      (inValue ? value : type) += text[i];
    } else if (c == '/') {
      finish();
    } else if (c == '=' && !inValue) {
      inValue = true;
    } else {
      (inValue ? value : type) += c;
    }
  }
  finish();
  return der::sequence(names);
}

std::vector<uint8_t> certificationRequestInfo(const std::vector<uint8_t> &subject,
                                              const std::vector<uint8_t> &spki) {
  return der::sequence(
      {der::integer(int64_t(0)), subject, spki, der::implicitTag(0, true, der::Bytes())});
}

std::vector<uint8_t> certificationRequest(const std::vector<uint8_t> &info, bool sm2,
                                          const std::vector<uint8_t> &signature) {
  der::Bytes algorithm = sm2 ? der::sequence({oid(crypto::kOidSm2WithSm3)})
                             : der::sequence({oid(crypto::kOidSha256WithRsa), der::null()});
  return der::sequence({info, algorithm, der::bitString(signature)});
}

}  // namespace cli
}  // namespace tembra
