// The media playlist: which lines make segments, their names, durations and start times.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "input/HlsPlaylist.h"

namespace {

struct Expected {
  std::string uri;
  double startTime;
  double duration;
};

struct PlaylistCase {
  const char* name;
  std::string text;
  std::vector<Expected> segments;
};

const std::string kLongName(5000, 'a');

const PlaylistCase kCases[] = {
    {"WhatTheEncoderWrites",
     "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:0\n#EXTINF:2.000000,\nclip_00000.ts\n"
     "#EXTINF:2.000000,\nclip_00001.ts\n#EXTINF:0.8,\nclip_00002.ts\n#EXT-X-ENDLIST\n",
     {{"clip_00000.ts", 0, 2}, {"clip_00001.ts", 2, 2}, {"clip_00002.ts", 4, 0.8}}},
    {"NoSegments", "#EXTM3U\n#EXT-X-ENDLIST\n", {}},
    // Windows line ends and a last line without one: the name is the line without its line end.
    {"LineEnds", "#EXTINF:1.5,\r\nseg0.ts\r\n#EXTINF:2.5\nseg1.ts", {{"seg0.ts", 0, 1.5}, {"seg1.ts", 1.5, 2.5}}},
    // A duration that does not read counts as 0; the segment still counts.
    {"DurationsThatDoNotRead",
     "#EXTINF:,\na.ts\n#EXTINF:nan\nb.ts\n#EXTINF:-4\nc.ts\n x#EXTINF:3\nd.ts\n",
     {{"a.ts", 0, 0}, {"b.ts", 0, 0}, {"c.ts", 0, 0}, {"d.ts", 0, 0}}},
    // Lines are read 4095 bytes at a time: the rest of a longer line is the next line.
    {"LongLineSplits", "#EXTINF:1\n" + kLongName + "\n", {{kLongName.substr(0, kHlsLineBuffer - 1), 0, 1}}},
    {"DanglingTag", "#EXTINF:1\nx.ts\n#EXTINF:2\n", {{"x.ts", 0, 1}}},
};

class HlsPlaylist : public ::testing::TestWithParam<PlaylistCase> {};

TEST_P(HlsPlaylist, ListsTheSegments) {
  const PlaylistCase& c = GetParam();
  std::vector<std::vector<HlsSegment>> parsed;
  parsed.push_back(ParseHlsPlaylistText(c.text));
  FILE* file = fmemopen(const_cast<char*>(c.text.data()), c.text.size(), "rb");
  ASSERT_NE(file, nullptr);
  parsed.push_back(ParseHlsPlaylist(file));
  std::fclose(file);
  for (const std::vector<HlsSegment>& segments : parsed) {
    ASSERT_EQ(segments.size(), c.segments.size());
    for (size_t i = 0; i < segments.size(); ++i) {
      EXPECT_EQ(segments[i].uri, c.segments[i].uri) << "segment " << i;
      EXPECT_DOUBLE_EQ(segments[i].startTime, c.segments[i].startTime) << "segment " << i;
      EXPECT_DOUBLE_EQ(segments[i].duration, c.segments[i].duration) << "segment " << i;
      EXPECT_TRUE(segments[i].localPath.empty());
      EXPECT_EQ(segments[i].sizeBytes, 0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Playlists, HlsPlaylist, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<PlaylistCase>& param) {
                           return std::string(param.param.name);
                         });

}  // namespace
