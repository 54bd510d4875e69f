// Playlist text of any content: parsed from memory and from a file, the two must agree, and every
// segment's times add up.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "input/HlsPlaylist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::vector<HlsSegment> segments = ParseHlsPlaylistText(text);
  double start = 0;
  for (const HlsSegment& segment : segments) {
    FUZZ_CHECK(std::isfinite(segment.duration) && segment.duration >= 0);
    FUZZ_CHECK(segment.startTime == start);
    FUZZ_CHECK(segment.uri.size() < kHlsLineBuffer);
    start += segment.duration;
  }
  FILE* file = fmemopen(const_cast<char*>(text.data()), text.size(), "rb");
  if (!file) return 0;
  const std::vector<HlsSegment> fromFile = ParseHlsPlaylist(file);
  std::fclose(file);
  FUZZ_CHECK(fromFile.size() == segments.size());
  for (size_t i = 0; i < segments.size(); ++i) {
    FUZZ_CHECK(fromFile[i].uri == segments[i].uri && fromFile[i].duration == segments[i].duration);
  }
  return 0;
}
