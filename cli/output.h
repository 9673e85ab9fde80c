// Results of `tembra` commands as text for people or JSON for programs
// (--json). A command describes its result as records of named fields; the
// Output decides how they look.
#ifndef TEMBRA_CLI_OUTPUT_H
#define TEMBRA_CLI_OUTPUT_H

#include <stdint.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace tembra {
namespace cli {

class Value {
 public:
  enum class Kind { Text, Integer, Boolean };
  Value(const std::string &text) : m_kind(Kind::Text), m_text(text) {}
  Value(const char *text) : m_kind(Kind::Text), m_text(text) {}
  Value(int64_t number) : m_kind(Kind::Integer), m_number(number) {}
  Value(int number) : m_kind(Kind::Integer), m_number(number) {}
  Value(bool flag) : m_kind(Kind::Boolean), m_number(flag ? 1 : 0) {}

  std::string text() const;  // as shown in text mode
  std::string json() const;  // as a JSON value

 private:
  Kind m_kind;
  std::string m_text;
  int64_t m_number = 0;
};

using Record = std::vector<std::pair<std::string, Value>>;

// JSON string literal of text (quotes, backslashes and control characters
// escaped; other bytes passed through as UTF-8).
std::string jsonString(const std::string &text);

class Output {
 public:
  Output(std::ostream &out, bool json) : m_out(out), m_json(json) {}
  bool json() const { return m_json; }

  // One result: "name: value" lines, or one JSON object.
  void record(const Record &fields);
  // Several results of the same shape: an aligned table with a header, or
  // a JSON array of objects (an empty list prints "(none)" or []).
  void table(const std::vector<Record> &rows);
  // A line for people (progress, notes); nothing in JSON mode.
  void note(const std::string &line);

 private:
  std::ostream &m_out;
  bool m_json;
};

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_OUTPUT_H
