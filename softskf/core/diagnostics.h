// Test support: the call record (one line per SKF call) and the fault switch
// (make a named SKF function answer a chosen result without acting). Guarded
// by the token mutex like everything else.
#ifndef TEMBRA_SOFTSKF_CORE_DIAGNOSTICS_H
#define TEMBRA_SOFTSKF_CORE_DIAGNOSTICS_H

#include <stddef.h>

#include <map>
#include <string>
#include <vector>

#include "platform/skf.h"

namespace tembra {
namespace softskf {

class CallRecord {
 public:
  void start();  // clears the record and starts recording
  void stop();   // stops recording; the lines stay readable
  bool recording() const { return m_recording; }
  // Appends a line if recording; answers its index (or -1).
  long append(const std::string &line);
  // Adds text to a line appended earlier.
  void extend(long index, const std::string &text);
  // All lines, each ending in '\n'.
  std::string text() const;

 private:
  bool m_recording = false;
  std::vector<std::string> m_lines;
};

class FaultSwitch {
 public:
  // times: -1 always, 0 clears, n > 0 the next n calls.
  void set(const std::string &function, ULONG result, int times);
  void clear() { m_faults.clear(); }
  bool empty() const { return m_faults.empty(); }
  // True (with the result) if the function is to fail now; counts down.
  bool take(const std::string &function, ULONG &result);

 private:
  struct Fault {
    ULONG result;
    int remaining;
  };
  std::map<std::string, Fault> m_faults;
};

// True for the names of the SKF functions this library exports.
bool isSkfFunctionName(const char *name);

}  // namespace softskf
}  // namespace tembra

#endif  // TEMBRA_SOFTSKF_CORE_DIAGNOSTICS_H
