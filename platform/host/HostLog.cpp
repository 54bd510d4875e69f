// Host backend of the logging port: standard error, or a sink installed through LogCapture.h.
#include <cstdio>
#include <mutex>
#include <string>

#include "platform/Log.h"
#include "platform/host/LogCapture.h"

namespace OzmPlatform {
namespace {

std::mutex& SinkMutex() {
  static std::mutex mutex;
  return mutex;
}

LogSink& Sink() {
  static LogSink sink;
  return sink;
}

char PriorityLetter(int priority) {
  switch (priority) {
    case kLogInfo: return 'I';
    case kLogWarn: return 'W';
    case kLogError: return 'E';
    default: return '?';
  }
}

}  // namespace

void LogPrintV(int priority, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(needed > 0 ? static_cast<size_t>(needed) : 0, '\0');
  if (needed > 0) std::vsnprintf(&text[0], text.size() + 1, format, args);

  std::lock_guard<std::mutex> lock(SinkMutex());
  if (Sink()) {
    Sink()(priority, text);
    return;
  }
  // Messages often carry their own trailing newline, as on Android; print exactly one.
  const bool hasNewline = !text.empty() && text.back() == '\n';
  std::fprintf(stderr, "%c/%s: %s%s", PriorityLetter(priority), kLogTag, text.c_str(), hasNewline ? "" : "\n");
}

LogSink SetLogSink(LogSink sink) {
  std::lock_guard<std::mutex> lock(SinkMutex());
  LogSink previous = std::move(Sink());
  Sink() = std::move(sink);
  return previous;
}

ScopedLogCapture::ScopedLogCapture() {
  m_previous = SetLogSink([this](int priority, const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back({priority, text});
  });
}

ScopedLogCapture::~ScopedLogCapture() { SetLogSink(std::move(m_previous)); }

std::vector<LogLine> ScopedLogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

std::vector<std::string> ScopedLogCapture::Texts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : Lines()) texts.push_back(line.text);
  return texts;
}

bool ScopedLogCapture::Contains(const std::string& text) const { return Count(text) > 0; }

size_t ScopedLogCapture::Count(const std::string& text) const {
  size_t n = 0;
  for (const LogLine& line : Lines()) n += line.text == text ? 1 : 0;
  return n;
}

void ScopedLogCapture::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

}  // namespace OzmPlatform
