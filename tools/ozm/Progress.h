// A one-line progress bar on standard error, shown only when standard error is a terminal.
#pragma once

#include <chrono>
#include <string>

namespace OzmTool {

class Progress {
 public:
  Progress(std::string label, long total);
  ~Progress();
  void Update(long done);
  // Clears the line.
  void Finish();

 private:
  std::string m_label;
  long m_total;
  bool m_enabled;
  bool m_shown = false;
  std::chrono::steady_clock::time_point m_start, m_lastDraw;
};

}  // namespace OzmTool
