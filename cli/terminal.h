// The terminal for `tembra`: whether a standard stream is one, and the
// progress bar drawn on standard error while a large input is read.
#ifndef TEMBRA_CLI_TERMINAL_H
#define TEMBRA_CLI_TERMINAL_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace tembra {
namespace cli {

bool stdinIsTerminal();
bool stdoutIsTerminal();
bool stderrIsTerminal();

// "[#####.....]  42% of 1.0 GiB" on standard error, redrawn in place at most
// once per percent; shown only when standard error is a terminal and the
// total exceeds kProgressThreshold. The line is cleared when done.
class ProgressBar {
 public:
  static const uint64_t kProgressThreshold = 4u << 20;

  ProgressBar(const std::string &what, uint64_t total);
  ~ProgressBar();
  ProgressBar(const ProgressBar &) = delete;
  ProgressBar &operator=(const ProgressBar &) = delete;

  void advance(uint64_t bytes);

 private:
  void draw();

  std::string m_what;
  uint64_t m_total;
  uint64_t m_done = 0;
  int m_shownPercent = -1;
  size_t m_width = 0;  // of the longest line drawn
  bool m_visible;
};

}  // namespace cli
}  // namespace tembra

#endif  // TEMBRA_CLI_TERMINAL_H
