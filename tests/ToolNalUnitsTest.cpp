// Where the encoder puts the mesh unit in an access unit, and how access units split into NAL units.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/ozm/media/NalUnits.h"

namespace {

using OzmTool::VideoCodec;

// An access unit built from units given as (start code length, header bytes); each unit gets a
// short body that ends in a nonzero byte.
std::vector<uint8_t> Au(const std::vector<std::pair<int, std::vector<uint8_t>>>& units) {
  std::vector<uint8_t> au;
  for (const auto& [code, header] : units) {
    if (code == 4) au.push_back(0);
    au.insert(au.end(), {0, 0, 1});
    au.insert(au.end(), header.begin(), header.end());
    au.insert(au.end(), {0xAA, 0x00, 0x00, 0x03, 0x01, 0x80});
  }
  return au;
}

// The first header byte of every unit, in order.
std::vector<int> Headers(const std::vector<uint8_t>& au) {
  std::vector<int> out;
  for (const OzmTool::NalSpan& nal : OzmTool::SplitAnnexB(au.data(), au.size())) out.push_back(au[nal.begin]);
  return out;
}

const std::vector<uint8_t> kMesh = {0x00, 0x00, 0x01, 0x18, 'W', 'E', 'L', 'M', 0xFF};

TEST(ToolNalUnits, TheMeshUnitGoesInFrontOfTheFirstPictureUnit) {
  struct Case {
    const char* name;
    VideoCodec codec;
    std::vector<std::pair<int, std::vector<uint8_t>>> units;
    std::vector<int> expected;  // header bytes after insertion
  };
  const std::vector<Case> cases = {
      {"H.264 IDR with parameter sets and SEI",
       VideoCodec::H264,
       {{4, {0x09, 0xF0}}, {4, {0x67}}, {4, {0x68}}, {3, {0x06}}, {3, {0x65}}, {3, {0x65}}},
       {0x09, 0x67, 0x68, 0x06, 0x18, 0x65, 0x65}},
      {"H.264 P slice alone", VideoCodec::H264, {{4, {0x41}}}, {0x18, 0x41}},
      {"H.264 without a picture: appended", VideoCodec::H264, {{4, {0x06}}}, {0x06, 0x18}},
      {"HEVC IDR with VPS, SPS, PPS and SEI",
       VideoCodec::Hevc,
       {{4, {0x40, 0x01}}, {4, {0x42, 0x01}}, {4, {0x44, 0x01}}, {4, {0x4E, 0x01}}, {4, {0x28, 0x01}}},
       {0x40, 0x42, 0x44, 0x4E, 0x18, 0x28}},
      // A unit of type 12 on layer 10 (as the mesh unit reads in HEVC) is no picture of the base layer.
      {"HEVC: a unit of another layer is passed over",
       VideoCodec::Hevc,
       {{4, {0x18, 0x57}}, {3, {0x02, 0x01}}},
       {0x18, 0x18, 0x02}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<uint8_t> au = Au(c.units);
    const std::vector<uint8_t> out = OzmTool::InsertBeforeFirstPicture(c.codec, au.data(), au.size(), kMesh);
    EXPECT_EQ(Headers(out), c.expected);
    EXPECT_EQ(out.size(), au.size() + kMesh.size());
    // Taking the mesh unit out again gives the access unit back byte for byte.
    std::vector<uint8_t> back = out;
    const auto at = std::search(back.begin(), back.end(), kMesh.begin(), kMesh.end());
    ASSERT_NE(at, back.end());
    back.erase(at, at + static_cast<std::ptrdiff_t>(kMesh.size()));
    EXPECT_EQ(back, au);
  }
}

TEST(ToolNalUnits, SplittingAndStoredSizes) {
  struct Case {
    const char* name;
    std::vector<uint8_t> au;
    std::vector<size_t> lengths;  // unit lengths
  };
  const std::vector<Case> cases = {
      {"3- and 4-byte start codes", {0, 0, 0, 1, 0x67, 1, 2, 0, 0, 1, 0x68, 3}, {3, 2}},
      {"trailing zeros belong to no unit", {0, 0, 1, 0x65, 7, 0, 0, 0, 0, 0, 1, 0x41, 9, 0}, {2, 2}},
      {"zeros inside a unit stay", {0, 0, 1, 0x06, 0, 0, 3, 0, 5}, {6}},
      {"bytes before the first start code are no unit", {5, 6, 0, 0, 1, 0x09, 0xF0}, {2}},
      {"no start code", {1, 2, 3}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<size_t> lengths;
    size_t stored = 0;
    for (const auto& nal : OzmTool::SplitAnnexB(c.au.data(), c.au.size())) {
      lengths.push_back(nal.end - nal.begin);
      stored += 4 + nal.end - nal.begin;
    }
    EXPECT_EQ(lengths, c.lengths);
    EXPECT_EQ(OzmTool::StoredSize(c.au.data(), c.au.size()), stored);
  }
}

TEST(ToolNalUnits, LengthPrefixedSamplesSplitOrFailCleanly) {
  struct Case {
    const char* name;
    std::vector<uint8_t> sample;
    bool ok;
    std::vector<size_t> lengths;
  };
  const std::vector<Case> cases = {
      {"two units", {0, 0, 0, 2, 0x09, 0xF0, 0, 0, 0, 1, 0x18}, true, {2, 1}},
      {"empty sample", {}, true, {}},
      {"length past the end", {0, 0, 0, 9, 0x09, 0xF0}, false, {}},
      {"cut length field", {0, 0, 0, 1, 0x41, 0, 0}, false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<OzmTool::NalSpan> units;
    EXPECT_EQ(OzmTool::SplitLengthPrefixed(c.sample.data(), c.sample.size(), 4, &units), c.ok);
    if (!c.ok) continue;
    std::vector<size_t> lengths;
    for (const auto& u : units) lengths.push_back(u.end - u.begin);
    EXPECT_EQ(lengths, c.lengths);
  }
}

}  // namespace
