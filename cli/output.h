// Results of `tembra` commands as text for people or JSON for programs
// (--json). A command describes its result as records of named fields; the
// Output decides how they look and where they go. Binary results (a
// signature, a ciphertext, a DER key) go through writeResult: to a file, or to
// standard output when no file or "-" is named; the human summary then moves
// to standard error so that a pipeline gets the bytes alone.
#ifndef TEMBRA_CLI_OUTPUT_H
#define TEMBRA_CLI_OUTPUT_H

#include <stdint.h>
#include <stdio.h>

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

// How the Output routes: the two standard streams, whether standard output
// is a terminal, and the global flags --json, --quiet and --force.
struct OutputSettings {
  bool json = false;
  bool quiet = false;  // no summaries, no notes
  bool force = false;  // binary to a terminal all the same
  bool stdoutIsTerminal = false;
};

class Output {
 public:
  Output(std::ostream &out, bool json) : m_out(out), m_err(out) { m_settings.json = json; }
  Output(std::ostream &out, std::ostream &err, const OutputSettings &settings)
      : m_out(out), m_err(err), m_settings(settings) {}
  bool json() const { return m_settings.json; }
  bool force() const { return m_settings.force; }

  // Writes a command's result bytes to path, or to standard output when path
  // is empty or "-". Binary bytes (printable false) are refused on a
  // terminal unless --force; once anything goes to standard output, every
  // later record and note goes to standard error. Throws CliError with the
  // OS reason when the file cannot be written.
  void writeResult(const std::string &path, const uint8_t *data, size_t len,
                   bool printable = false);
  // True once writeResult has written to standard output.
  bool resultOnStdout() const { return m_resultOnStdout; }
  // Standard output made ready for result bytes, with the same refusal of
  // binary bytes on a terminal; summaries move to standard error from here.
  std::ostream &resultStream(bool printable);

  // One result: "name: value" lines, or one JSON object; a summary, so
  // nothing with --quiet.
  void record(const Record &fields);
  // Several results of the same shape: an aligned table with a header, or
  // a JSON array of objects (an empty list prints "(none)" or []).
  void table(const std::vector<Record> &rows);
  // A line for people (progress, notes); nothing in JSON mode or with --quiet.
  void note(const std::string &line);

 private:
  std::ostream &summaries() { return m_resultOnStdout ? m_err : m_out; }

  std::ostream &m_out;
  std::ostream &m_err;
  OutputSettings m_settings;
  bool m_resultOnStdout = false;
};

// A result written in pieces, for results too large to hold (cipher output,
// many random bytes): to the file path, or to standard output as
// writeResult does. A file that is not finished (the command failed half
// way) is removed again, so no truncated result stays behind.
class ResultStream {
 public:
  ResultStream(Output &output, const std::string &path, bool printable = false);
  ~ResultStream();
  ResultStream(const ResultStream &) = delete;
  ResultStream &operator=(const ResultStream &) = delete;

  void write(const uint8_t *data, size_t len);
  void finish();
  // "standard output" or the file's path, for the summary.
  std::string name() const;

 private:
  std::string m_path;
  FILE *m_file = nullptr;  // a file, else standard output through m_stdout
  std::ostream *m_stdout = nullptr;
  bool m_finished = false;
};

// "1 try left", "3 tries left".
std::string triesLeftText(int tries);

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_OUTPUT_H
