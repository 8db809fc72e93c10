/// @file
/// Holds back what the library prints on standard output (C stdio on file
/// descriptor 1) while a tool runs a call whose chatter the user did not ask
/// for, such as the parser's echo of each camera's calibration under -q.
#pragma once

#include <unistd.h>

#include <cstdio>

namespace zot_sim {

/// While active, standard output goes to a scratch file; end() restores it
/// and, when asked, prints what was held back (say, because the call failed
/// and its messages explain why). Inactive captures do nothing.
class StdoutCapture {
 public:
  explicit StdoutCapture(bool active) : m_file(active ? tmpfile() : nullptr) {
    if (m_file == nullptr) return;
    fflush(stdout);
    m_saved = dup(1);
    dup2(fileno(m_file), 1);
  }
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;
  ~StdoutCapture() { end(false); }

  /// Restores standard output; with `show` the held-back text follows.
  void end(bool show) {
    if (m_file == nullptr) return;
    fflush(stdout);
    dup2(m_saved, 1);
    close(m_saved);
    if (show) {
      rewind(m_file);
      for (int ch; (ch = fgetc(m_file)) != EOF;) putchar(ch);
    }
    fclose(m_file);
    m_file = nullptr;
  }

 private:
  FILE* m_file;
  int m_saved = -1;
};

}  // namespace zot_sim
