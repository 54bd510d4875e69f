// Host-only control of the logging port: lets tests and tools capture or silence log lines.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace OzmPlatform {

struct LogLine {
  int priority;
  std::string text;
};

// Receives every formatted line. Called under the logging lock: keep it short and never log from it.
using LogSink = std::function<void(int priority, const std::string& text)>;

// Installs a sink in place of standard error (null restores standard error). Returns the previous one.
LogSink SetLogSink(LogSink sink);

// Collects the lines logged during its lifetime (from any thread) instead of printing them.
class ScopedLogCapture {
 public:
  ScopedLogCapture();
  ~ScopedLogCapture();
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  std::vector<LogLine> Lines() const;
  std::vector<std::string> Texts() const;
  // True when some captured line equals the text exactly.
  bool Contains(const std::string& text) const;
  size_t Count(const std::string& text) const;
  void Clear();

 private:
  mutable std::mutex m_mutex;
  std::vector<LogLine> m_lines;
  LogSink m_previous;
};

}  // namespace OzmPlatform
