// A media playlist of an HLS stream: the segments it lists, in order. Only "#EXTINF" entries carry
// meaning here (a duration, and the segment on the line that follows); every other tag is ignored.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

struct HlsSegment {
  std::string uri;        // the line after its "#EXTINF" line, relative to the playlist's folder
  std::string localPath;  // the downloaded (or local) file; empty until there is one
  double startTime = 0;   // seconds: the durations of all earlier segments
  double duration = 0;    // seconds, from its "#EXTINF" line (0 when it does not read)
  int64_t sizeBytes = 0;  // of the downloaded file; 0 until known
};

// Playlist lines are read in pieces of at most this many bytes less one; a longer line continues as
// the next line.
constexpr size_t kHlsLineBuffer = 4096;

// Parses a playlist read from `file`.
std::vector<HlsSegment> ParseHlsPlaylist(FILE* file);
// The same, from the playlist's text.
std::vector<HlsSegment> ParseHlsPlaylistText(const std::string& text);
