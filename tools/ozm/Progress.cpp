#include "tools/ozm/Progress.h"

#include <unistd.h>

#include <cstdio>

namespace OzmTool {

Progress::Progress(std::string label, long total)
    : m_label(std::move(label)),
      m_total(total),
      m_enabled(isatty(STDERR_FILENO) != 0 && total > 0),
      m_start(std::chrono::steady_clock::now()) {}

Progress::~Progress() { Finish(); }

void Progress::Update(long done) {
  if (!m_enabled) return;
  const auto now = std::chrono::steady_clock::now();
  if (m_shown && done < m_total && now - m_lastDraw < std::chrono::milliseconds(100)) return;
  m_lastDraw = now;
  m_shown = true;
  const double elapsed = std::chrono::duration<double>(now - m_start).count();
  const double fraction = static_cast<double>(done) / static_cast<double>(m_total);
  constexpr int kWidth = 30;
  const int filled = static_cast<int>(fraction * kWidth);
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kWidth, '.');
  std::fprintf(stderr, "\r%s [%s] %3d%% %ld/%ld", m_label.c_str(), bar.c_str(), static_cast<int>(fraction * 100), done,
               m_total);
  // Rates settle after a moment.
  if (elapsed >= 0.5 && done > 0) {
    const double rate = done / elapsed;
    std::fprintf(stderr, "  %.1f/s  %.0f s left ", rate, (m_total - done) / rate);
  }
  std::fflush(stderr);
}

void Progress::Finish() {
  if (!m_shown) return;
  std::fprintf(stderr, "\r\033[K");
  std::fflush(stderr);
  m_shown = false;
}

}  // namespace OzmTool
