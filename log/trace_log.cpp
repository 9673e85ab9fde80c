// The trace log writer. No lock: each line is one formatted write followed
// by a flush, and the first open is unguarded (two threads opening at once
// may both open the file; the stream stored last is kept). The stream
// pointer is atomic only so that this benign race is well defined.
#include "log/trace_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "platform/win_compat.h"

namespace {

const char kLevelVariable[] = "TEMBRA_KEY_PROV_LOG_LEVEL";
const char kPathVariable[] = "TEMBRA_KEY_PROV_LOG_PATH";
const DWORD kPathBufferSize = 260;

// Open at the first line that could be written, then kept (never closed) for
// the life of the process; its path never changes afterwards.
std::atomic<FILE *> g_logStream{nullptr};

// The default path is the temporary directory plus the file name, computed
// even when the path variable overrides it. A temporary directory too long
// for the buffer leaves only the file name.
FILE *openLogStream() {
  char defaultPath[kPathBufferSize] = {0};
  DWORD length = GetTempPathA(kPathBufferSize, defaultPath);
  if (length >= kPathBufferSize) defaultPath[0] = '\0';
  strncat(defaultPath, TEMBRA_LOG_FILE_SUFFIX, sizeof defaultPath - strlen(defaultPath) - 1);
  const char *path = getenv(kPathVariable);
  FILE *stream = openLogFile(path != nullptr ? path : defaultPath);
  if (stream != nullptr) g_logStream.store(stream);
  return stream;
}

bool localTime(time_t now, struct tm *out) {
#ifdef _WIN32
  return localtime_s(out, &now) == 0;
#else
  return localtime_r(&now, out) != nullptr;
#endif
}

}  // namespace

bool logLevelEnabled(LogLevel level) {
  const char *value = getenv(kLevelVariable);
  if (value == nullptr) return level <= LOG_LEVEL_INFO;
  return atoi(value) >= static_cast<int>(level);
}

void writeLog(const char *format, const char *levelTag, const char *function, ...) {
  FILE *stream = g_logStream.load();
  if (stream == nullptr) stream = openLogStream();
  if (stream == nullptr || format == nullptr) return;

  char timeText[200] = {0};
  struct tm local;
  if (localTime(time(nullptr), &local))
    strftime(timeText, sizeof timeText, "%Y-%m-%d %H:%M:%S", &local);

  va_list args;
  va_start(args, function);
  va_list measure;
  va_copy(measure, args);
  int length = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  char *message =
      length >= 0 ? static_cast<char *>(calloc(static_cast<size_t>(length) + 1, 1)) : nullptr;
  if (message == nullptr) {
    va_end(args);
    return;
  }
  vsnprintf(message, static_cast<size_t>(length) + 1, format, args);
  va_end(args);

  fprintf(stream, "%ld %s %s [%s] %s \n", static_cast<long>(GetCurrentThreadId()), timeText,
          levelTag != nullptr ? levelTag : "", function != nullptr ? function : "", message);
  free(message);
  fflush(stream);
}

int hexEncode(const unsigned char *in, int len, char *out) {
  static const char kDigits[] = "0123456789ABCDEF";
  if (in == nullptr || out == nullptr || len == 0) return 0;
  if (len < 0) return 1;
  for (int i = 0; i < len; ++i) {
    out[2 * i] = kDigits[in[i] >> 4];
    out[2 * i + 1] = kDigits[in[i] & 0x0F];
  }
  return 1;
}

void logHexDump(const char *function, const char *name, const unsigned char *data, int len) {
  if (!logLevelEnabled(LOG_LEVEL_VERBOSE)) return;
  size_t hexSize = len > 0 ? 2 * static_cast<size_t>(len) + 1 : 1;
  char *hex = static_cast<char *>(calloc(hexSize, 1));
  if (hex == nullptr) return;
  hexEncode(data, len, hex);
  writeLog("%s[length:%d]: %s", "[VERBOSE]", function, name != nullptr ? name : "", len, hex);
  free(hex);
}

call_stack_tracer::call_stack_tracer(const char *name) {
  try {
    m_name = name != nullptr ? name : "";
  } catch (...) {
    // Out of memory: trace with an empty name rather than throw.
  }
  LOG_DEBUG_AS("call_stack_tracer::call_stack_tracer", ">>>>> %s", m_name.c_str());
}

call_stack_tracer::~call_stack_tracer() {
  LOG_DEBUG_AS("call_stack_tracer::~call_stack_tracer", "<<<<< %s", m_name.c_str());
}
