#include "cli/terminal.h"

#include <stdio.h>

#ifdef _WIN32
#include <io.h>

#include "platform/win_types.h"
#else
#include <unistd.h>
#endif

namespace tembra {
namespace cli {

namespace {

bool isTerminal(int fd) {
#ifdef _WIN32
  // _isatty answers yes for any character device, the NUL device included,
  // so `tembra ... <NUL` would wait for a PIN nobody types. Only a console
  // counts.
  const intptr_t handle = _get_osfhandle(fd);
  if (handle == -1) return false;
  DWORD mode = 0;
  return GetConsoleMode(reinterpret_cast<HANDLE>(handle), &mode) != 0;
#else
  return isatty(fd) != 0;
#endif
}

}  // namespace

bool stdinIsTerminal() {
  return isTerminal(0);
}

bool stdoutIsTerminal() {
  return isTerminal(1);
}

bool stderrIsTerminal() {
  return isTerminal(2);
}

namespace {

std::string sizeText(uint64_t bytes) {
  char text[32];
  if (bytes >= (uint64_t(1) << 30)) {
    snprintf(text, sizeof text, "%.1f GiB", double(bytes) / double(uint64_t(1) << 30));
  } else {
    snprintf(text, sizeof text, "%.1f MiB", double(bytes) / double(1 << 20));
  }
  return text;
}

}  // namespace

ProgressBar::ProgressBar(const std::string &what, uint64_t total)
    : m_what(what), m_total(total), m_visible(total > kProgressThreshold && stderrIsTerminal()) {
  if (m_visible) draw();
}

ProgressBar::~ProgressBar() {
  if (!m_visible) return;
  // Blanks over the bar rather than an escape sequence: every console
  // understands a carriage return.
  fprintf(stderr, "\r%s\r", std::string(m_width, ' ').c_str());
  fflush(stderr);
}

void ProgressBar::advance(uint64_t bytes) {
  m_done += bytes;
  if (m_visible) draw();
}

void ProgressBar::draw() {
  const uint64_t done = m_done < m_total ? m_done : m_total;
  const int percent = m_total == 0 ? 100 : int(done * 100 / m_total);
  if (percent == m_shownPercent) return;
  m_shownPercent = percent;
  const int width = 30;
  const int filled = percent * width / 100;
  char line[160];
  const int written = snprintf(line, sizeof line, "\r%s [%s%s] %3d%% of %s", m_what.c_str(),
                               std::string(size_t(filled), '#').c_str(),
                               std::string(size_t(width - filled), '.').c_str(), percent,
                               sizeText(m_total).c_str());
  if (written > 0 && size_t(written) > m_width) m_width = size_t(written);
  fputs(line, stderr);
  fflush(stderr);
}

}  // namespace cli
}  // namespace tembra
