// The trace log: one text file that every entry point writes to.
//
// A line reads "<thread id> <local time> <[LEVEL]> [<function>] <message> \n".
// The level gate reads TEMBRA_KEY_PROV_LOG_LEVEL at every statement (no
// cache): error, warning and information are written when it is unset or at
// least their threshold; debug and verbose only when it is set and at least
// 4 or 5. The log never fails a call: an unopenable file drops the line.
#ifndef TEMBRA_LOG_TRACE_LOG_H
#define TEMBRA_LOG_TRACE_LOG_H

#include <string>

enum LogLevel {
  LOG_LEVEL_ERROR = 1,
  LOG_LEVEL_WARN = 2,
  LOG_LEVEL_INFO = 3,
  LOG_LEVEL_DEBUG = 4,
  LOG_LEVEL_VERBOSE = 5,
};

// The level gate, evaluated anew at every call.
bool logLevelEnabled(LogLevel level);

// Writes one line with the given level tag ("[ERROR]", "[INFO]", ...) and
// function-name field. Does not consult the gate: callers use the macros.
void writeLog(const char *format, const char *levelTag, const char *function, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 4)))
#endif
    ;

// Upper-case hex of `len` bytes into `out` (2 * len characters, no NUL).
// 0 for a null pointer or len 0; 1 without writing for a negative len.
int hexEncode(const unsigned char *in, int len, char *out);

// Writes "<name>[length:%d]: <hex>" at level verbose, the hex dump built only
// when the line is written. `name` is the text before "[length".
void logHexDump(const char *function, const char *name, const unsigned char *data, int len);

// Scoped entry and exit trace of an entry point (debug level).
class call_stack_tracer {
 public:
  explicit call_stack_tracer(const char *name);
  ~call_stack_tracer();
  call_stack_tracer(const call_stack_tracer &) = delete;
  call_stack_tracer &operator=(const call_stack_tracer &) = delete;

 private:
  std::string m_name;
};

// The value behind an int pointer for a log line, 0 for a null pointer: a
// trace line never reads through a pointer the host left null.
inline int logValueAt(const int *p) { return p ? *p : 0; }

// LOG_ERROR("fmt", args...) writes with the enclosing function's name;
// the _AS forms name the function-name field explicitly.
#define LOG_ERROR_AS(function, format, ...) \
  do { if (logLevelEnabled(LOG_LEVEL_ERROR)) writeLog(format, "[ERROR]", function, ##__VA_ARGS__); } while (0)
#define LOG_WARN_AS(function, format, ...) \
  do { if (logLevelEnabled(LOG_LEVEL_WARN)) writeLog(format, "[WARN]", function, ##__VA_ARGS__); } while (0)
#define LOG_INFO_AS(function, format, ...) \
  do { if (logLevelEnabled(LOG_LEVEL_INFO)) writeLog(format, "[INFO]", function, ##__VA_ARGS__); } while (0)
#define LOG_DEBUG_AS(function, format, ...) \
  do { if (logLevelEnabled(LOG_LEVEL_DEBUG)) writeLog(format, "[DEBUG]", function, ##__VA_ARGS__); } while (0)
#define LOG_VERBOSE_AS(function, format, ...) \
  do { if (logLevelEnabled(LOG_LEVEL_VERBOSE)) writeLog(format, "[VERBOSE]", function, ##__VA_ARGS__); } while (0)

#define LOG_ERROR(format, ...) LOG_ERROR_AS(__func__, format, ##__VA_ARGS__)
#define LOG_WARN(format, ...) LOG_WARN_AS(__func__, format, ##__VA_ARGS__)
#define LOG_INFO(format, ...) LOG_INFO_AS(__func__, format, ##__VA_ARGS__)
#define LOG_DEBUG(format, ...) LOG_DEBUG_AS(__func__, format, ##__VA_ARGS__)
#define LOG_VERBOSE(format, ...) LOG_VERBOSE_AS(__func__, format, ##__VA_ARGS__)

#endif  // TEMBRA_LOG_TRACE_LOG_H
