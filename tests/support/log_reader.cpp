// Reading the provider's trace log from a byte offset.
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "tests/support/provider_test_support.h"

namespace tembra {
namespace test {

namespace {

bool allDigits(const std::string &text, size_t from, size_t count) {
  if (from + count > text.size()) return false;
  for (size_t i = from; i < from + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

// Size of the log file now, 0 when it does not exist yet.
long long fileSize(const std::string &path) {
  FILE *file = fopen(path.c_str(), "rb");
  if (file == nullptr) return 0;
  long long size = 0;
  if (fseek(file, 0, SEEK_END) == 0) size = ftell(file);
  fclose(file);
  return size < 0 ? 0 : size;
}

// "<tid> YYYY-MM-DD HH:MM:SS <tag> [<fn>] <msg> " with nothing missing.
bool parseInto(const std::string &raw, LogLine &line) {
  line.raw = raw;
  size_t pos = 0;
  while (pos < raw.size() && raw[pos] >= '0' && raw[pos] <= '9') ++pos;
  if (pos == 0 || pos > 18 || pos >= raw.size() || raw[pos] != ' ') return false;
  line.threadId = atol(raw.substr(0, pos).c_str());
  ++pos;

  // Date and time: 19 characters, then a blank.
  if (raw.size() < pos + 20) return false;
  std::string time = raw.substr(pos, 19);
  if (!allDigits(time, 0, 4) || time[4] != '-' || !allDigits(time, 5, 2) || time[7] != '-' ||
      !allDigits(time, 8, 2) || time[10] != ' ' || !allDigits(time, 11, 2) || time[13] != ':' ||
      !allDigits(time, 14, 2) || time[16] != ':' || !allDigits(time, 17, 2) ||
      raw[pos + 19] != ' ') {
    return false;
  }
  line.time = time;
  pos += 20;

  size_t tagEnd = raw.find(' ', pos);
  if (tagEnd == std::string::npos || tagEnd == pos || raw[pos] != '[' || raw[tagEnd - 1] != ']') {
    return false;
  }
  line.level = raw.substr(pos, tagEnd - pos);
  pos = tagEnd + 1;

  if (pos >= raw.size() || raw[pos] != '[') return false;
  size_t functionEnd = raw.find("] ", pos);
  if (functionEnd == std::string::npos) return false;
  line.function = raw.substr(pos + 1, functionEnd - pos - 1);
  pos = functionEnd + 2;

  // The message is followed by one blank before the newline.
  if (raw.size() < pos + 1 || raw.back() != ' ') return false;
  line.message = raw.substr(pos, raw.size() - pos - 1);
  return true;
}

}  // namespace

std::string LogTail::logPath() {
  const char *path = getenv("TEMBRA_KEY_PROV_LOG_PATH");
  return path != nullptr ? path : "";
}

LogTail::LogTail() {
  mark();
}

void LogTail::mark() {
  m_offset = fileSize(logPath());
}

std::vector<LogLine> LogTail::lines() const {
  std::vector<LogLine> result;
  FILE *file = fopen(logPath().c_str(), "rb");
  if (file == nullptr) return result;
  std::string content;
  if (fseek(file, static_cast<long>(m_offset), SEEK_SET) == 0) {
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) content.append(chunk, got);
  }
  fclose(file);

  // Only complete lines; a line still being written is left for later.
  size_t start = 0;
  size_t end;
  while ((end = content.find('\n', start)) != std::string::npos) {
    std::string raw = content.substr(start, end - start);
    if (!raw.empty() && raw.back() == '\r') raw.pop_back();  // text mode on Windows
    LogLine line;
    if (!parseInto(raw, line)) {
      line = LogLine();  // an unparsable line keeps only its raw text
      line.raw = raw;
    }
    result.push_back(line);
    start = end + 1;
  }
  return result;
}

bool LogTail::has(const std::string &level, const std::string &function,
                  const std::string &message) const {
  for (const LogLine &line : lines()) {
    if (line.level == level && line.function == function && line.message == message) return true;
  }
  return false;
}

std::vector<std::string> LogTail::messages(const std::string &level) const {
  std::vector<std::string> result;
  for (const LogLine &line : lines()) {
    if (line.level == level) result.push_back(line.message);
  }
  return result;
}

}  // namespace test
}  // namespace tembra
