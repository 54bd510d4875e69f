#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "input/HlsTrackFormats.h"
#include "input/SPSParser.h"

using Bytes = std::vector<uint8_t>;

namespace {

const std::filesystem::path kStreams = std::filesystem::path(OZM_TEST_DATA_DIR) / "streams";

Bytes ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

// Writes the fields of a hand-built parameter set, most significant bit first; the last byte is
// padded with zero bits, so every field is needed to parse the set to its end.
class BitWriter {
 public:
  BitWriter& Bits(uint64_t value, int n) {
    for (int i = n - 1; i >= 0; --i) {
      if (m_bit == 0) m_bytes.push_back(0);
      if ((value >> i) & 1) m_bytes.back() |= static_cast<uint8_t>(0x80 >> m_bit);
      m_bit = (m_bit + 1) % 8;
    }
    return *this;
  }
  BitWriter& Flag(bool f) { return Bits(f ? 1 : 0, 1); }
  BitWriter& UE(uint32_t v) {
    const uint64_t x = uint64_t{v} + 1;
    int n = 0;
    while ((x >> (n + 1)) != 0) ++n;
    return Bits(0, n).Bits(x, n + 1);
  }
  BitWriter& SE(int32_t v) { return UE(v > 0 ? 2 * static_cast<uint32_t>(v) - 1 : 2 * static_cast<uint32_t>(-v)); }
  const Bytes& Done() const { return m_bytes; }

 private:
  Bytes m_bytes;
  int m_bit = 0;
};

// Puts 03 after every two zero bytes that are followed by a byte up to 3, as an encoder does.
Bytes Escape(const Bytes& rbsp) {
  Bytes out;
  int zeros = 0;
  for (uint8_t b : rbsp) {
    if (zeros >= 2 && b <= 3) {
      out.push_back(3);
      zeros = 0;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

struct H264Sps {
  uint32_t profileIdc = 100;
  uint32_t chromaFormatIdc = 1;
  bool scalingMatrix = false;
  uint32_t pocType = 0;
  uint32_t widthInMbs = 120, heightInMapUnits = 68;
  bool frameMbsOnly = true;
  std::array<uint32_t, 4> crop = {0, 0, 0, 0};  // left, right, top, bottom
  bool vui = true, vuiPictureFields = false, timing = true;
  uint32_t numUnitsInTick = 1, timeScale = 60;
};

Bytes Rbsp(const H264Sps& s, bool trailingBits = false) {
  BitWriter w;
  w.Bits(s.profileIdc, 8).Bits(0, 8).Bits(40, 8).UE(0);
  if (s.profileIdc == 100 || s.profileIdc == 244) {
    w.UE(s.chromaFormatIdc);
    if (s.chromaFormatIdc == 3) w.Flag(false);
    w.UE(0).UE(0).Flag(false).Flag(s.scalingMatrix);
    if (s.scalingMatrix) {
      for (int i = 0; i < (s.chromaFormatIdc != 3 ? 8 : 12); ++i) {
        const bool present = i % 3 != 1;
        w.Flag(present);
        if (!present) continue;
        if (i == 0) {
          w.SE(-8);  // the next scale becomes 0: no more deltas in this list
          continue;
        }
        for (int j = 0; j < (i < 6 ? 16 : 64); ++j) w.SE(j % 2 ? -3 : 4);
      }
    }
  }
  w.UE(0).UE(s.pocType);
  if (s.pocType == 0) w.UE(2);
  if (s.pocType == 1) {
    w.Flag(false).SE(-2).SE(1).UE(3).SE(5).SE(-5).SE(300);
  }
  w.UE(4).Flag(false).UE(s.widthInMbs - 1).UE(s.heightInMapUnits - 1).Flag(s.frameMbsOnly);
  if (!s.frameMbsOnly) w.Flag(true);
  w.Flag(true);
  const bool cropping = s.crop != std::array<uint32_t, 4>{0, 0, 0, 0};
  w.Flag(cropping);
  if (cropping) w.UE(s.crop[0]).UE(s.crop[1]).UE(s.crop[2]).UE(s.crop[3]);
  w.Flag(s.vui);
  if (s.vui) {
    w.Flag(s.vuiPictureFields);  // aspect ratio: Extended_SAR 4:3
    if (s.vuiPictureFields) w.Bits(255, 8).Bits(4, 16).Bits(3, 16);
    w.Flag(s.vuiPictureFields);  // overscan
    if (s.vuiPictureFields) w.Flag(true);
    w.Flag(s.vuiPictureFields);  // video signal type with colour description
    if (s.vuiPictureFields) w.Bits(5, 3).Flag(false).Flag(true).Bits(1, 8).Bits(1, 8).Bits(1, 8);
    w.Flag(s.vuiPictureFields);  // chroma location
    if (s.vuiPictureFields) w.UE(1).UE(2);
    w.Flag(s.timing);
    if (s.timing) w.Bits(s.numUnitsInTick, 32).Bits(s.timeScale, 32);
  }
  if (trailingBits) w.Flag(true);  // rbsp_stop_one_bit, as in a real set
  return w.Done();
}

struct HevcSps {
  uint32_t maxSubLayersMinus1 = 0;
  uint32_t chromaFormatIdc = 1;
  uint32_t width = 1920, height = 1088;
  std::array<uint32_t, 4> conf = {0, 0, 0, 4};  // left, right, top, bottom
  bool codingTools = false;                     // scaling lists, PCM, predicted RPS, long-term pictures
  bool vui = true, vuiPictureFields = false, timing = true;
  uint32_t numUnitsInTick = 1, timeScale = 30;
};

Bytes Rbsp(const HevcSps& s, bool trailingBits = false) {
  BitWriter w;
  w.Bits(0, 4).Bits(s.maxSubLayersMinus1, 3).Flag(true);
  // profile_tier_level: Main, level 4.1; every sub-layer with its profile and level.
  w.Bits(1, 8).Bits(0x60000000, 32).Bits(0xB0, 8).Bits(0, 40).Bits(123, 8);
  for (uint32_t i = 0; i < s.maxSubLayersMinus1; ++i) w.Flag(true).Flag(true);
  if (s.maxSubLayersMinus1 > 0) {
    for (uint32_t i = s.maxSubLayersMinus1; i < 8; ++i) w.Bits(0, 2);
  }
  for (uint32_t i = 0; i < s.maxSubLayersMinus1; ++i) w.Bits(1, 8).Bits(0x60000000, 32).Bits(0, 48).Bits(90, 8);
  w.UE(0).UE(s.chromaFormatIdc);
  if (s.chromaFormatIdc == 3) w.Flag(false);
  w.UE(s.width).UE(s.height);
  const bool window = s.conf != std::array<uint32_t, 4>{0, 0, 0, 0};
  w.Flag(window);
  if (window) w.UE(s.conf[0]).UE(s.conf[1]).UE(s.conf[2]).UE(s.conf[3]);
  w.UE(0).UE(0).UE(4).Flag(true);
  for (uint32_t i = 0; i <= s.maxSubLayersMinus1; ++i) w.UE(4).UE(2).UE(0);
  w.UE(0).UE(3).UE(0).UE(3).UE(1).UE(1);
  w.Flag(s.codingTools);  // scaling_list_enabled_flag
  if (s.codingTools) {
    w.Flag(true);
    for (int sizeId = 0; sizeId < 4; ++sizeId) {
      for (int matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
        const bool explicitList = (sizeId + matrixId) % 2 == 0;
        w.Flag(explicitList);
        if (!explicitList) {
          w.UE(matrixId > 0 ? 1 : 0);
          continue;
        }
        if (sizeId > 1) w.SE(8);
        for (int i = 0; i < (sizeId == 0 ? 16 : 64); ++i) w.SE(i % 2 ? 2 : -1);
      }
    }
  }
  w.Flag(true).Flag(true).Flag(s.codingTools);  // amp, sample adaptive offset, PCM
  if (s.codingTools) w.Bits(7, 4).Bits(7, 4).UE(0).UE(1).Flag(true);
  if (s.codingTools) {
    // Three short-term sets: one explicit with three pictures, then two predicted from the one before,
    // each with one used/use-delta pair per picture of that set plus one.
    w.UE(3);
    w.UE(2).UE(1).UE(0).Flag(true).UE(1).Flag(true).UE(0).Flag(false);
    w.Flag(true).Flag(false).UE(0);  // predicted from set 0 (3 pictures): 4 pairs, 3 kept
    w.Flag(true).Flag(false).Flag(true).Flag(false).Flag(false).Flag(true);
    w.Flag(true).Flag(true).UE(1);  // predicted from set 1 (3 pictures): 4 pairs
    w.Flag(false).Flag(false).Flag(true).Flag(false).Flag(true).Flag(false).Flag(true);
    w.Flag(true).UE(2).Bits(17, 8).Flag(true).Bits(200, 8).Flag(false);  // two long-term pictures
  } else {
    w.UE(1).UE(1).UE(0).UE(0).Flag(true).Flag(false);
  }
  w.Flag(true).Flag(true).Flag(s.vui);
  if (s.vui) {
    w.Flag(s.vuiPictureFields);
    if (s.vuiPictureFields) w.Bits(255, 8).Bits(4, 16).Bits(3, 16);
    w.Flag(s.vuiPictureFields);
    if (s.vuiPictureFields) w.Flag(true);
    w.Flag(s.vuiPictureFields);
    if (s.vuiPictureFields) w.Bits(5, 3).Flag(false).Flag(true).Bits(1, 8).Bits(1, 8).Bits(1, 8);
    w.Flag(s.vuiPictureFields);
    if (s.vuiPictureFields) w.UE(1).UE(2);
    w.Flag(false).Flag(false).Flag(false).Flag(s.vuiPictureFields);  // ..., default display window
    if (s.vuiPictureFields) w.UE(8).UE(8).UE(4).UE(4);
    w.Flag(s.timing);
    if (s.timing) w.Bits(s.numUnitsInTick, 32).Bits(s.timeScale, 32);
  }
  if (trailingBits) w.Flag(true);  // rbsp_stop_one_bit, as in a real set
  return w.Done();
}

// The frame rate a parse starts from; a set without usable timing leaves it in place.
constexpr int kPresetRate = 17;

struct ParseCase {
  const char* name;
  bool hevc;
  Bytes rbsp;
  int width, height, frameRate;
  const char* error;  // non-null: the parse fails with a reason that contains this text
};

H264Sps With(H264Sps s, void (*change)(H264Sps&)) {
  change(s);
  return s;
}
HevcSps With(HevcSps s, void (*change)(HevcSps&)) {
  change(s);
  return s;
}

// clang-format off
std::vector<ParseCase> ParseCases() {
  using H = H264Sps&;
  using V = HevcSps&;
  const H264Sps h;
  const HevcSps v;
  return {
      {"h264 1920x1088 coded with crop bottom 4", false, Rbsp(With(h, [](H s) { s.crop = {0, 0, 0, 4}; })), 1920, 1080, 30, nullptr},
      {"h264 crop unit is 2 for left, right and top too", false, Rbsp(With(h, [](H s) { s.crop = {1, 2, 3, 0}; })), 1914, 1082, 30, nullptr},
      {"h264 without VUI keeps the frame rate", false, Rbsp(With(h, [](H s) { s.vui = false; })), 1920, 1088, kPresetRate, nullptr},
      {"h264 VUI without timing keeps the frame rate", false,
       Rbsp(With(h, [](H s) { s.vuiPictureFields = true; s.timing = false; })), 1920, 1088, kPresetRate, nullptr},
      {"h264 VUI fields before the timing are skipped; 60000 / (2 x 1001) = 29", false,
       Rbsp(With(h, [](H s) { s.vuiPictureFields = true; s.numUnitsInTick = 1001; s.timeScale = 60000; })), 1920, 1088, 29, nullptr},
      {"h264 num_units_in_tick 0 keeps the frame rate", false, Rbsp(With(h, [](H s) { s.numUnitsInTick = 0; })), 1920, 1088, kPresetRate, nullptr},
      {"h264 under one frame a second keeps the frame rate", false, Rbsp(With(h, [](H s) { s.timeScale = 1; })), 1920, 1088, kPresetRate, nullptr},
      {"h264 baseline has no chroma and scaling fields", false, Rbsp(With(h, [](H s) { s.profileIdc = 66; })), 1920, 1088, 30, nullptr},
      {"h264 scaling matrix, one list ended by a zero scale", false, Rbsp(With(h, [](H s) { s.scalingMatrix = true; })), 1920, 1088, 30, nullptr},
      {"h264 4:4:4 has twelve scaling lists; the crop unit stays 2", false,
       Rbsp(With(h, [](H s) { s.profileIdc = 244; s.chromaFormatIdc = 3; s.scalingMatrix = true; s.crop = {0, 4, 0, 4}; })), 1912, 1080, 30, nullptr},
      {"h264 pic_order_cnt_type 1 with a cycle", false, Rbsp(With(h, [](H s) { s.pocType = 1; })), 1920, 1088, 30, nullptr},
      {"h264 field coding: map units are field macroblock pairs", false,
       Rbsp(With(h, [](H s) { s.frameMbsOnly = false; s.heightInMapUnits = 34; s.crop = {0, 0, 0, 4}; })), 1920, 1080, 30, nullptr},
      {"h264 pic_order_cnt_type 3 is refused", false, Rbsp(With(h, [](H s) { s.pocType = 3; })), 0, 0, 0, "pic_order_cnt_type 3"},
      {"h264 chroma_format_idc 4 is refused", false, Rbsp(With(h, [](H s) { s.chromaFormatIdc = 4; })), 0, 0, 0, "chroma_format_idc 4"},
      {"h264 cropped to nothing is refused", false, Rbsp(With(h, [](H s) { s.crop = {480, 480, 0, 0}; })), 0, 0, 0, "picture size 0x1088"},
      {"h264 Exp-Golomb code of 32 leading zeros is refused", false, Bytes{100, 0, 40, 0, 0, 0, 0, 0x80, 0xFF}, 0, 0, 0, "Exp-Golomb"},

      {"hevc 1000x568 coded 4:2:0, conformance bottom 3 (crop unit 2); 30000 / 1001 = 29", true,
       Rbsp(With(v, [](V s) { s.width = 1000; s.height = 568; s.conf = {0, 0, 0, 3}; s.numUnitsInTick = 1001; s.timeScale = 30000; })),
       1000, 562, 29, nullptr},
      {"hevc 4:4:4 crops in luma samples", true, Rbsp(With(v, [](V s) { s.chromaFormatIdc = 3; s.conf = {1, 2, 3, 4}; })), 1917, 1081, 30, nullptr},
      {"hevc 4:2:2 crops two across, one down", true, Rbsp(With(v, [](V s) { s.chromaFormatIdc = 2; s.conf = {1, 2, 3, 4}; })), 1914, 1081, 30, nullptr},
      {"hevc scaling lists, PCM, predicted and long-term reference pictures, all VUI fields", true,
       Rbsp(With(v, [](V s) { s.codingTools = true; s.vuiPictureFields = true; s.timeScale = 25; })), 1920, 1080, 25, nullptr},
      {"hevc without VUI keeps the frame rate", true, Rbsp(With(v, [](V s) { s.vui = false; })), 1920, 1080, kPresetRate, nullptr},
      {"hevc num_units_in_tick 0 keeps the frame rate", true, Rbsp(With(v, [](V s) { s.numUnitsInTick = 0; })), 1920, 1080, kPresetRate, nullptr},
      {"hevc two temporal sub-layers are refused", true, Rbsp(With(v, [](V s) { s.maxSubLayersMinus1 = 1; })), 0, 0, 0, "sps_max_sub_layers_minus1 == 0"},
      {"hevc conformance window wider than the picture is refused", true, Rbsp(With(v, [](V s) { s.conf = {500, 500, 0, 0}; })), 0, 0, 0, "picture size -80x1088"},
  };
}
// clang-format on

bool Parse(SPSParser& parser, bool hevc, const Bytes& rbsp, size_t size) {
  const auto n = static_cast<unsigned short>(size);
  return hevc ? parser.ParseHEVC(rbsp.data(), n) : parser.ParseH264(rbsp.data(), n);
}

TEST(SPSParser, HandBuiltSetsGiveSizeAndFrameRateOrAReason) {
  for (const ParseCase& c : ParseCases()) {
    SCOPED_TRACE(c.name);
    SPSParser parser;
    parser.m_frameRate = kPresetRate;
    const bool parsed = Parse(parser, c.hevc, c.rbsp, c.rbsp.size());
    if (c.error) {
      EXPECT_FALSE(parsed);
      EXPECT_NE(parser.m_error.find(c.error), std::string::npos) << parser.m_error;
      EXPECT_EQ(parser.m_width, 0);  // outputs untouched
      EXPECT_EQ(parser.m_frameRate, kPresetRate);
      continue;
    }
    ASSERT_TRUE(parsed) << parser.m_error;
    EXPECT_EQ(parser.m_width, c.width);
    EXPECT_EQ(parser.m_height, c.height);
    EXPECT_EQ(parser.m_frameRate, c.frameRate);
  }
}

// The hand-built sets end with the last field read, so every shorter prefix ends inside a field.
TEST(SPSParser, EveryTruncationOfAValidSetIsRefused) {
  for (const ParseCase& c : ParseCases()) {
    if (c.error) continue;
    SCOPED_TRACE(c.name);
    for (size_t size = 0; size < c.rbsp.size(); ++size) {
      SPSParser parser;
      EXPECT_FALSE(Parse(parser, c.hevc, c.rbsp, size)) << size << " of " << c.rbsp.size() << " bytes";
      EXPECT_NE(parser.m_error.find("data ends inside"), std::string::npos) << parser.m_error;
    }
  }
}

TEST(SPSParserTrackFormat, RemoveEmulationPreventionDropsEach03AfterTwoZeros) {
  const struct {
    Bytes in, out;
  } cases[] = {
      {{0, 0, 3, 1}, {0, 0, 1}},
      {{0, 0, 3, 0, 0, 3}, {0, 0, 0, 0}},
      {{0, 0, 3, 3}, {0, 0, 3}},  // the byte after a removed 03 is kept as it stands
      {{0, 3, 0, 0, 4, 3}, {0, 3, 0, 0, 4, 3}},
      {{0, 0, 1, 0, 0, 2}, {0, 0, 1, 0, 0, 2}},  // only 03 is an emulation-prevention byte
      {{}, {}},
  };
  for (const auto& c : cases) EXPECT_EQ(RemoveEmulationPrevention(c.in.data(), c.in.size()), c.out);
}

// Parameter sets are stored as found; the SPS is parsed from its unescaped bytes.
TEST(SPSParserTrackFormat, FormatDescriptorStoresSetsAndParsesTheUnescapedSps) {
  H264Sps h264;
  h264.vuiPictureFields = true;  // SAR 4:3 and timing 1/60 give runs of zero bytes
  const Bytes h264Rbsp = Rbsp(h264, true);
  HevcSps hevc;
  hevc.vuiPictureFields = true;
  const Bytes hevcRbsp = Rbsp(hevc, true);
  ASSERT_NE(Escape(h264Rbsp), h264Rbsp);
  ASSERT_NE(Escape(hevcRbsp), hevcRbsp);

  const Bytes h264Sps = Cat({{0x67}, Escape(h264Rbsp)});
  const Bytes h264Au = Cat({{0x09, 0xF0, 0, 0, 0, 1},
                            {0x06, 0x05, 0x02, 0x67, 0x68, 0x80, 0, 0, 1},  // an SEI is passed over
                            h264Sps,
                            {0, 0, 1, 0x68, 0xEB, 0xE3, 0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65, 0x88, 0, 0, 1}});
  const Bytes hevcSps = Cat({{0x42, 0x01}, Escape(hevcRbsp)});
  const Bytes hevcAu = Cat({{0, 0, 0, 1, 0x40, 0x01, 0x0C, 0, 0, 1, 0x42, 0x41, 0x11},  // SPS of layer 8 passed over
                            {0, 0, 1},
                            hevcSps,
                            {0, 0, 0, 1, 0x44, 0x01, 0xC1, 0, 0, 1, 0x26, 0x01, 0xAF}});

  ParameterSets sets;
  VideoParameters video;
  std::string error;
  ASSERT_TRUE(ReadVideoFormatDescriptorH264(h264Au.data(), h264Au.size(), sets, video, &error)) << error;
  EXPECT_EQ(sets.sps, h264Sps);
  EXPECT_EQ(sets.pps, (Bytes{0x68, 0xEB, 0xE3}));  // the first PPS, without the zero of the next start code
  EXPECT_TRUE(sets.vps.empty());
  EXPECT_EQ(video.width, 1920);
  EXPECT_EQ(video.height, 1088);
  EXPECT_EQ(video.frameRate, 30);

  sets = ParameterSets();
  ASSERT_TRUE(ReadVideoFormatDescriptorHEVC(hevcAu.data(), hevcAu.size(), sets, video, &error)) << error;
  EXPECT_EQ(sets.vps, (Bytes{0x40, 0x01, 0x0C}));
  EXPECT_EQ(sets.sps, hevcSps);
  EXPECT_EQ(sets.pps, (Bytes{0x44, 0x01, 0xC1}));
  EXPECT_EQ(video.width, 1920);
  EXPECT_EQ(video.height, 1080);
  EXPECT_EQ(video.frameRate, 30);

  // An access unit without SPS, or with a broken one, leaves the picture facts alone.
  const Bytes noSps = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x68, 0xCE, 0, 0, 1, 0x65, 0x88};
  const Bytes brokenSps = {0, 0, 0, 1, 0x67, 0x64, 0x00};
  for (const Bytes& au : {noSps, brokenSps}) {
    VideoParameters before = video;
    error.clear();
    EXPECT_FALSE(ReadVideoFormatDescriptorH264(au.data(), au.size(), sets, video, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(video.width, before.width);
    EXPECT_EQ(video.frameRate, before.frameRate);
  }
}

TEST(SPSParserTrackFormat, CodecSpecificDataAndAacConfig) {
  const ParameterSets sets{{0x40, 0x01}, {0x42, 0x01, 0x01}, {0x44, 0x01}};
  EXPECT_EQ(HevcCsd0(sets), (Bytes{0, 0, 0, 1, 0x40, 0x01, 0, 0, 0, 1, 0x42, 0x01, 0x01, 0, 0, 0, 1, 0x44, 0x01}));
  EXPECT_EQ(H264Csd0(sets), (Bytes{0, 0, 0, 1, 0x42, 0x01, 0x01}));
  EXPECT_EQ(H264Csd1(sets), (Bytes{0, 0, 0, 1, 0x44, 0x01}));

  const struct {
    int profile, index, channels;
    std::array<uint8_t, 2> config;
  } cases[] = {
      {1, 3, 2, {0x11, 0x90}},   // LC, 48 kHz, stereo
      {1, 4, 2, {0x12, 0x10}},   // LC, 44.1 kHz, stereo
      {0, 11, 1, {0x0D, 0x88}},  // Main, 8 kHz, mono
      {3, 15, 7, {0x27, 0xB8}},  // every field at its widest: cut to 8 bits
  };
  for (const auto& c : cases) {
    EXPECT_EQ(AacAudioSpecificConfig(c.profile, c.index, c.channels), c.config) << c.profile << " " << c.index;
  }
}

// ---- Video samples ----

bool IsDelimiter(bool hevc, uint8_t header) { return hevc ? ((header >> 1) & 63) == 35 : (header & 31) == 9; }

// Splits a whole elementary stream at start codes: each unit without its start code and without the
// zero bytes in front of the next one.
std::vector<Bytes> NalUnits(const Bytes& es) {
  std::vector<size_t> starts;
  for (size_t i = 0; i + 2 < es.size(); ++i) {
    if (es[i] == 0 && es[i + 1] == 0 && es[i + 2] == 1) starts.push_back(i + 3);
  }
  std::vector<Bytes> units;
  for (size_t k = 0; k < starts.size(); ++k) {
    size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : es.size();
    while (end > starts[k] && es[end - 1] == 0) --end;
    units.emplace_back(es.begin() + static_cast<std::ptrdiff_t>(starts[k]),
                       es.begin() + static_cast<std::ptrdiff_t>(end));
  }
  return units;
}

// Cuts an elementary stream as the demultiplexer does: each range ends at the NAL header byte of the
// next access-unit delimiter (so with its start code), the next range begins at that byte.
std::vector<Bytes> DemuxerRanges(const Bytes& es, bool hevc) {
  std::vector<Bytes> ranges;
  size_t start = 0;
  for (size_t i = 0; i + 3 < es.size(); ++i) {
    if (es[i] == 0 && es[i + 1] == 0 && es[i + 2] == 1 && IsDelimiter(hevc, es[i + 3]) && i + 3 >= start + 5) {
      ranges.emplace_back(es.begin() + static_cast<std::ptrdiff_t>(start),
                          es.begin() + static_cast<std::ptrdiff_t>(i + 3));
      start = i + 3;
    }
  }
  ranges.emplace_back(es.begin() + static_cast<std::ptrdiff_t>(start), es.end());
  return ranges;
}

Bytes Sample(const std::vector<Bytes>& units) {
  Bytes sample;
  for (const Bytes& u : units) sample = Cat({sample, {0, 0, 0, 1}, u});
  return sample;
}

Bytes Cut(bool hevc, const Bytes& range) {
  return hevc ? ReadVideoRangeHEVC(range.data(), range.size()) : ReadVideoRangeH264(range.data(), range.size());
}

struct StreamCase {
  const char* name;
  bool hevc;
  int frameRate;
  const char* why;
};

// FFmpeg's x264 writes num_units_in_tick = den and time_scale = 2 x num of the rate num/den, x265
// writes den and num: both give the whole part of the rate by their codec's rule.
const StreamCase kStreamCases[] = {
    {"h264_aac_1920x1080_30", false, 30, "60 / (2 x 1)"},
    {"h264_854x480_25", false, 25, "50 / (2 x 1)"},
    {"h264_aac_1000x562_30000-1001", false, 29, "60000 / (2 x 1001) = 29.97, integer division"},
    {"h264_640x360_24000-1001_bframes", false, 23, "48000 / (2 x 1001) = 23.98, integer division"},
    {"hevc_aac_1920x1080_30", true, 30, "30 / 1"},
    {"hevc_854x480_25", true, 25, "25 / 1"},
    {"hevc_aac_1000x562_30000-1001", true, 29, "30000 / 1001 = 29.97, integer division"},
};

TEST(SPSParserStreams, FirstAccessUnitGivesWhatFFprobeReports) {
  for (const StreamCase& c : kStreamCases) {
    SCOPED_TRACE(std::string(c.name) + ": frame rate " + c.why);
    const Bytes es = ReadFile(kStreams / (std::string(c.name) + ".es"));
    std::ifstream jsonFile(kStreams / (std::string(c.name) + ".streams.json"));
    ASSERT_FALSE(es.empty() || !jsonFile) << "missing test data: run scripts/test-data-streams.sh";
    const nlohmann::json video = nlohmann::json::parse(jsonFile)["streams"][0];
    ASSERT_EQ(video["codec_type"], "video");

    const Bytes first = DemuxerRanges(es, c.hevc).front();
    ParameterSets sets;
    VideoParameters parsed;
    std::string error;
    const bool ok = c.hevc ? ReadVideoFormatDescriptorHEVC(first.data(), first.size(), sets, parsed, &error)
                           : ReadVideoFormatDescriptorH264(first.data(), first.size(), sets, parsed, &error);
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(parsed.width, video["width"].get<int>());
    EXPECT_EQ(parsed.height, video["height"].get<int>());
    EXPECT_EQ(parsed.frameRate, c.frameRate);
    // The same as ffprobe's rate, rounded down.
    const std::string rate = video["r_frame_rate"];
    const double num = std::stod(rate.substr(0, rate.find('/')));
    const double den = std::stod(rate.substr(rate.find('/') + 1));
    EXPECT_EQ(parsed.frameRate, static_cast<int>(std::floor(num / den))) << rate;
    EXPECT_EQ(sets.vps.empty(), !c.hevc);
    EXPECT_FALSE(sets.pps.empty());
  }
}

TEST(SPSParserVideoRange, EachSampleHoldsItsAccessUnitsNalUnitsWithoutDelimiters) {
  for (const StreamCase& c : kStreamCases) {
    SCOPED_TRACE(c.name);
    const Bytes es = ReadFile(kStreams / (std::string(c.name) + ".es"));
    ASSERT_FALSE(es.empty()) << "missing test data: run scripts/test-data-streams.sh";

    // The expected samples: the stream's units grouped at delimiters, delimiters left out.
    std::vector<std::vector<Bytes>> accessUnits;
    for (Bytes& unit : NalUnits(es)) {
      if (IsDelimiter(c.hevc, unit[0])) {
        accessUnits.emplace_back();
      } else {
        ASSERT_FALSE(accessUnits.empty());
        accessUnits.back().push_back(std::move(unit));
      }
    }
    const std::vector<Bytes> ranges = DemuxerRanges(es, c.hevc);
    ASSERT_EQ(ranges.size(), accessUnits.size());
    for (size_t k = 0; k < ranges.size(); ++k) {
      EXPECT_EQ(Cut(c.hevc, ranges[k]), Sample(accessUnits[k])) << "access unit " << k;
    }
  }
}

// The mesh unit as the encoder writes it: filler FF, size around its separator, an escaped payload.
Bytes MeshUnit(uint8_t header) {
  const Bytes payload = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 5, 0, 0, 3, 1, 0, 0, 3, 0, 7, 0, 0, 3, 3, 9};
  const auto n = static_cast<uint8_t>(payload.size());
  return Cat({{header, 'W', 'E', 'L', 'M', 0xFF, 0xFF, 0xFF, 0xFF, n, 0, 0xFF, 0, 0}, Bytes(9, 0xFF), payload});
}

TEST(SPSParserVideoRange, RangesOfAnyShapeGiveAnnexBSamples) {
  const Bytes sps = {0x67, 0x64, 0x00, 0x1F};
  const Bytes pps = {0x68, 0xEE, 0x3C, 0x80};
  const Bytes idr = {0x65, 0x88, 0x84, 0x00, 0x00, 0x03, 0x00, 0x21};  // escaped bytes stay escaped
  const Bytes trailN = {0x00, 0x01, 0xD0, 0x33};                       // HEVC header that begins with 00
  const Bytes mesh = MeshUnit(0x18);
  const Bytes mesh21 = MeshUnit(0x15);
  const Bytes sc4 = {0, 0, 0, 1}, sc3 = {0, 0, 1};
  const struct {
    const char* name;
    bool hevc;
    Bytes range, sample;
  } cases[] = {
      {"begins at the delimiter header, ends with the next 4-byte start code", false,
       Cat({{0x09, 0xF0}, sc4, sps, sc3, pps, sc3, idr, sc3, mesh, sc4}), Sample({sps, pps, idr, mesh})},
      {"first range: begins with a start code; 3-byte start code at the end", false,
       Cat({sc4, {0x09, 0x10}, sc4, sps, sc4, idr, sc4, mesh21, sc3}), Sample({sps, idr, mesh21})},
      {"mesh unit in front of the picture", false, Cat({{0x09, 0x30}, sc3, mesh, sc3, idr, sc4}), Sample({mesh, idr})},
      {"last range of a stream ends with the data", false, Cat({{0x09, 0x30}, sc3, idr, sc3, mesh}),
       Sample({idr, mesh})},
      {"zero padding in front of start codes is dropped", false, Cat({sc3, idr, {0, 0}, sc4, mesh, {0}, sc4}),
       Sample({idr, mesh})},
      {"hevc: delimiter dropped, a header beginning with 00 kept", true,
       Cat({{0x46, 0x01, 0x50}, sc4, {0x4E, 0x01, 0x05}, sc3, trailN, sc3, mesh, sc4}),
       Sample({{0x4E, 0x01, 0x05}, trailN, mesh})},
      {"hevc: type 21 mesh header is no delimiter", true, Cat({sc4, {0x46, 0x01, 0x10}, sc3, mesh21, sc3, trailN}),
       Sample({mesh21, trailN})},
      {"each codec drops only its own delimiters", false, Cat({sc3, {0x46, 0x01}, sc3, {0x09, 0x10}}),
       Sample({{0x46, 0x01}})},
      {"only a delimiter", true, Cat({{0x46, 0x01, 0x50}, sc4}), {}},
      {"bytes without start code are one unit", true, {0x26, 0x01, 0xAF}, Sample({{0x26, 0x01, 0xAF}})},
      {"empty", false, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Cut(c.hevc, c.range), c.sample);
  }
}

}  // namespace
