// Sequence parameter sets, access units and demultiplexed video ranges of any content.
//   byte 0 % 4: 0 H.264 SPS, 1 HEVC SPS (the rest is the set's RBSP);
//               2 H.264 access unit, 3 HEVC access unit (the rest is scanned for parameter sets and
//               cut into a video sample).
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "input/HlsTrackFormats.h"
#include "input/SPSParser.h"

namespace {

constexpr int kPresetRate = 7;

void CheckParse(bool hevc, const uint8_t* data, size_t size) {
  const auto n = static_cast<unsigned short>(size < 65535 ? size : 65535);
  SPSParser parser;
  parser.m_frameRate = kPresetRate;
  const bool ok = hevc ? parser.ParseHEVC(data, n) : parser.ParseH264(data, n);
  if (!ok) {
    FUZZ_CHECK(!parser.m_error.empty());
    FUZZ_CHECK(parser.m_width == 0 && parser.m_height == 0 && parser.m_frameRate == kPresetRate);
    return;
  }
  FUZZ_CHECK(parser.m_error.empty());
  FUZZ_CHECK(parser.m_width > 0 && parser.m_width <= 32768 && parser.m_height > 0 && parser.m_height <= 32768);
  FUZZ_CHECK(parser.m_frameRate > 0);
}

std::vector<uint8_t> Cut(bool hevc, const uint8_t* data, size_t size) {
  return hevc ? ReadVideoRangeHEVC(data, size) : ReadVideoRangeH264(data, size);
}

void CheckAccessUnit(bool hevc, const uint8_t* data, size_t size) {
  ParameterSets sets;
  VideoParameters video;
  video.frameRate = kPresetRate;
  std::string error;
  const bool ok = hevc ? ReadVideoFormatDescriptorHEVC(data, size, sets, video, &error)
                       : ReadVideoFormatDescriptorH264(data, size, sets, video, &error);
  if (ok) {
    FUZZ_CHECK(!sets.sps.empty() && video.width > 0 && video.height > 0 && video.frameRate > 0);
  } else {
    FUZZ_CHECK(!error.empty() && video.width == 0 && video.frameRate == kPresetRate);
  }
  const size_t stored = sets.vps.size() + sets.sps.size() + sets.pps.size();
  FUZZ_CHECK(stored <= size);
  FUZZ_CHECK(HevcCsd0(sets).size() == stored + 12);
  FUZZ_CHECK(H264Csd0(sets).size() + H264Csd1(sets).size() == sets.sps.size() + sets.pps.size() + 8);

  // A sample is a run of 4-byte start codes, each followed by a unit that does not end in zero, and
  // cutting it again changes nothing.
  const std::vector<uint8_t> sample = Cut(hevc, data, size);
  FUZZ_CHECK(sample.size() <= size + size / 4 + 4);
  if (!sample.empty()) {
    FUZZ_CHECK(sample.size() > 4 && sample[0] == 0 && sample[1] == 0 && sample[2] == 0 && sample[3] == 1);
    FUZZ_CHECK(sample.back() != 0);
  }
  FUZZ_CHECK(Cut(hevc, sample.data(), sample.size()) == sample);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  if (size < 1) return 0;
  const int mode = data[0] % 4;
  const bool hevc = mode % 2 == 1;
  if (mode < 2) {
    CheckParse(hevc, data + 1, size - 1);
  } else {
    CheckAccessUnit(hevc, data + 1, size - 1);
  }
  return 0;
}
