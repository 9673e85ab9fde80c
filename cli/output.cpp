#include "cli/output.h"

#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <iostream>

#include "cli/files.h"
#include "cli/session.h"

namespace tembra {
namespace cli {

std::string Value::text() const {
  switch (m_kind) {
    case Kind::Text:
      return m_text;
    case Kind::Integer:
      return std::to_string(m_number);
    case Kind::Boolean:
      return m_number != 0 ? "yes" : "no";
  }
  return std::string();
}

std::string Value::json() const {
  switch (m_kind) {
    case Kind::Text:
      return jsonString(m_text);
    case Kind::Integer:
      return std::to_string(m_number);
    case Kind::Boolean:
      return m_number != 0 ? "true" : "false";
  }
  return "null";
}

std::string jsonString(const std::string &text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += char(c);
        }
    }
  }
  return out + "\"";
}

namespace {

std::string jsonObject(const Record &fields) {
  std::string out = "{";
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) out += ", ";
    out += jsonString(fields[i].first) + ": " + fields[i].second.json();
  }
  return out + "}";
}

}  // namespace

void Output::writeResult(const std::string &path, const uint8_t *data, size_t len, bool printable) {
  if (!path.empty() && path != "-") {
    writeFile(path, data, len);
    return;
  }
  std::ostream &stream = resultStream(printable);
  stream.write(reinterpret_cast<const char *>(data), std::streamsize(len));
  stream.flush();
  if (!stream) throw CliError("cannot write to standard output");
}

std::ostream &Output::resultStream(bool printable) {
  if (!printable && m_settings.stdoutIsTerminal && !m_settings.force) {
    throw CliError(
        "refusing to write binary data to the terminal: name a file with -o, pipe the output, "
        "or add --force");
  }
  if (&m_out == &std::cout) {
    m_out.flush();
    binaryStandardOutput();
  }
  m_resultOnStdout = true;
  return m_out;
}

ResultStream::ResultStream(Output &output, const std::string &path, bool printable) : m_path(path) {
  if (path.empty() || path == "-") {
    m_stdout = &output.resultStream(printable);
    return;
  }
  m_file = fopen(path.c_str(), "wb");
  if (m_file == nullptr) {
    const int reason = errno;
    struct stat status;
    throw CliError(
        fileError("cannot create", path,
                  stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? EISDIR : reason));
  }
}

ResultStream::~ResultStream() {
  if (m_file == nullptr) return;
  fclose(m_file);
  if (!m_finished) remove(m_path.c_str());
}

void ResultStream::write(const uint8_t *data, size_t len) {
  if (len == 0) return;
  if (m_stdout != nullptr) {
    m_stdout->write(reinterpret_cast<const char *>(data), std::streamsize(len));
    if (!*m_stdout) throw CliError("cannot write to standard output");
  } else if (fwrite(data, 1, len, m_file) != len) {
    throw CliError(fileError("cannot write", m_path, errno != 0 ? errno : EIO));
  }
}

void ResultStream::finish() {
  if (m_stdout != nullptr) {
    m_stdout->flush();
    if (!*m_stdout) throw CliError("cannot write to standard output");
  } else if (fflush(m_file) != 0) {
    throw CliError(fileError("cannot write", m_path, errno != 0 ? errno : EIO));
  }
  m_finished = true;
}

std::string ResultStream::name() const {
  return m_stdout != nullptr ? std::string("standard output") : m_path;
}

std::string triesLeftText(int tries) {
  return std::to_string(tries) + (tries == 1 ? " try left" : " tries left");
}

void Output::record(const Record &fields) {
  if (m_settings.quiet) return;
  std::ostream &stream = summaries();
  if (m_settings.json) {
    stream << jsonObject(fields) << "\n";
    return;
  }
  size_t width = 0;
  for (const auto &field : fields) width = std::max(width, field.first.size());
  for (const auto &field : fields) {
    stream << field.first << ":" << std::string(width - field.first.size() + 1, ' ')
           << field.second.text() << "\n";
  }
}

void Output::table(const std::vector<Record> &rows) {
  std::ostream &stream = summaries();
  if (m_settings.json) {
    stream << "[";
    for (size_t i = 0; i < rows.size(); ++i) {
      stream << (i > 0 ? ",\n " : "") << jsonObject(rows[i]);
    }
    stream << "]\n";
    return;
  }
  if (rows.empty()) {
    stream << "(none)\n";
    return;
  }
  const Record &header = rows.front();
  std::vector<size_t> widths(header.size());
  for (size_t c = 0; c < header.size(); ++c) widths[c] = header[c].first.size();
  for (const Record &row : rows) {
    for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
      widths[c] = std::max(widths[c], row[c].second.text().size());
    }
  }
  auto printRow = [&](const std::vector<std::string> &cells) {
    std::string line;
    for (size_t c = 0; c < cells.size(); ++c) {
      line += cells[c];
      if (c + 1 < cells.size()) line += std::string(widths[c] - cells[c].size() + 2, ' ');
    }
    stream << line << "\n";
  };
  std::vector<std::string> names;
  for (const auto &field : header) names.push_back(field.first);
  printRow(names);
  for (const Record &row : rows) {
    std::vector<std::string> cells;
    for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
      cells.push_back(row[c].second.text());
    }
    printRow(cells);
  }
}

void Output::note(const std::string &line) {
  if (!m_settings.json && !m_settings.quiet) summaries() << line << "\n";
}

}  // namespace cli
}  // namespace tembra
