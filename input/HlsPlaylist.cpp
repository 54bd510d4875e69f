#include "input/HlsPlaylist.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

// Builds the segment list line by line.
class PlaylistBuilder {
 public:
  void Line(const char* line, size_t length) {
    if (m_expectUri) {
      m_expectUri = false;
      HlsSegment segment;
      // The line without its line end.
      size_t end = length;
      if (end > 0 && line[end - 1] == '\n') --end;
      if (end > 0 && line[end - 1] == '\r') --end;
      segment.uri.assign(line, end);
      segment.duration = m_duration;
      segment.startTime = m_startTime;
      m_startTime += m_duration;
      m_segments.push_back(std::move(segment));
      return;
    }
    const std::string text(line, length);
    if (text.find("#EXTINF") == std::string::npos) return;
    m_duration = 0;
    static const char kTag[] = "#EXTINF:";
    if (text.compare(0, sizeof kTag - 1, kTag) == 0) {
      const char* number = text.c_str() + sizeof kTag - 1;
      char* end = nullptr;
      const double value = std::strtod(number, &end);
      // A duration that does not read, or one that is not a finite length of time, counts as 0.
      if (end != number && std::isfinite(value) && value > 0) m_duration = value;
    }
    m_expectUri = true;
  }

  std::vector<HlsSegment> Take() { return std::move(m_segments); }

 private:
  std::vector<HlsSegment> m_segments;
  double m_startTime = 0;
  double m_duration = 0;
  bool m_expectUri = false;
};

}  // namespace

std::vector<HlsSegment> ParseHlsPlaylist(FILE* file) {
  PlaylistBuilder builder;
  if (!file) return {};
  char line[kHlsLineBuffer];
  while (std::fgets(line, sizeof line, file)) builder.Line(line, std::strlen(line));
  return builder.Take();
}

std::vector<HlsSegment> ParseHlsPlaylistText(const std::string& text) {
  // Cut as fgets cuts: at each line end, and after kHlsLineBuffer - 1 bytes of a longer line. A NUL
  // inside the text ends the piece for the parser, as it would for a C string.
  PlaylistBuilder builder;
  size_t position = 0;
  while (position < text.size()) {
    const size_t limit = std::min(text.size(), position + kHlsLineBuffer - 1);
    size_t end = position;
    while (end < limit && text[end] != '\n') ++end;
    if (end < limit) ++end;  // keep the line end with its line
    const size_t length = std::strlen(std::string(text, position, end - position).c_str());
    builder.Line(text.data() + position, length);
    position = end;
  }
  return builder.Take();
}
