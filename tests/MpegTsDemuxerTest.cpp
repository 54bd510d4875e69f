// The transport-stream demultiplexer on streams made by FFmpeg (scripts/test-data-streams.sh),
// checked against what ffprobe lists for the same files, on a segment of our own encoder, and on
// hand-built packets for the cases real streams do not show.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "input/MpegTsDemuxer.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

const std::string kStreams = std::string(OZM_TEST_DATA_DIR) + "/streams/";

Bytes ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Collects the demuxer's diagnostics for the test's lifetime.
class Diagnostics {
 public:
  Diagnostics() { SetMpegTsDiagnostics(&m_errors, &m_warnings); }
  ~Diagnostics() { SetMpegTsDiagnostics(nullptr, nullptr); }
  std::string Errors() const { return m_errors.str(); }
  std::string Warnings() const { return m_warnings.str(); }

 private:
  std::ostringstream m_errors, m_warnings;
};

// --- Hand-built packets

constexpr uint16_t kPmtPid = 0x100;
constexpr uint16_t kVideoPid = 0x101;
constexpr uint16_t kAudioPid = 0x102;

// A packet whose payload is exactly `payload`: shorter ones are preceded by adaptation-field
// stuffing (PES), or followed by 0xFF (tables, `tableFill`).
Packet MakePacket(uint16_t pid, bool start, const Bytes& payload, bool tableFill = false) {
  Packet p;
  std::memset(p.data, 0xFF, sizeof(p.data));
  p.data[0] = 0x47;
  p.data[1] = static_cast<uint8_t>((start ? 0x40 : 0) | (pid >> 8));
  p.data[2] = static_cast<uint8_t>(pid);
  size_t at = 4;
  const size_t n = std::min<size_t>(payload.size(), 184);
  if (n < 184 && !tableFill) {
    p.data[3] = 0x30;
    p.data[4] = static_cast<uint8_t>(183 - n);
    if (n < 183) p.data[5] = 0;  // adaptation flags, then stuffing
    at = 188 - n;
  } else {
    p.data[3] = 0x10;
  }
  std::memcpy(p.data + at, payload.data(), n);
  return p;
}

Bytes Pat(uint16_t pmtPid = kPmtPid, uint8_t pointer = 0) {
  Bytes b(1 + pointer, 0);
  b[0] = pointer;
  const Bytes section = {0x00,
                         0xB0,
                         13,
                         0x00,
                         0x01,
                         0xC1,
                         0x00,
                         0x00,
                         0x00,
                         0x01,
                         static_cast<uint8_t>(0xE0 | (pmtPid >> 8)),
                         static_cast<uint8_t>(pmtPid),
                         0x12,
                         0x34,
                         0x56,
                         0x78};
  b.insert(b.end(), section.begin(), section.end());
  return b;
}

struct EsEntry {
  uint8_t type;
  uint16_t pid;
};

Bytes Pmt(const std::vector<EsEntry>& entries, uint16_t program = 1, uint8_t lengthHighBits = 0) {
  Bytes b = {0x00,
             0x02,
             static_cast<uint8_t>(0xB0 | lengthHighBits),
             static_cast<uint8_t>(13 + 5 * entries.size()),
             static_cast<uint8_t>(program >> 8),
             static_cast<uint8_t>(program),
             0xC1,
             0x00,
             0x00,
             0xE1,
             0x01,
             0xF0,
             0x00};
  for (const EsEntry& e : entries) {
    b.insert(b.end(), {e.type, static_cast<uint8_t>(0xE0 | (e.pid >> 8)), static_cast<uint8_t>(e.pid), 0xF0, 0x00});
  }
  b.insert(b.end(), {0x12, 0x34, 0x56, 0x78});
  return b;
}

void PutTime(Bytes& b, uint8_t prefix, int64_t t) {
  b.push_back(static_cast<uint8_t>(prefix | ((t >> 29) & 0x0E) | 1));
  b.push_back(static_cast<uint8_t>(t >> 22));
  b.push_back(static_cast<uint8_t>(((t >> 14) & 0xFE) | 1));
  b.push_back(static_cast<uint8_t>(t >> 7));
  b.push_back(static_cast<uint8_t>((t << 1) | 1));
}

constexpr int64_t kNone = -2;  // no time in the PES header

// A PES header (stream id, a PTS, optionally a DTS) followed by `data`.
Bytes Pes(uint8_t streamId, int64_t pts, const Bytes& data, int64_t dts = kNone) {
  Bytes b = {0x00, 0x00, 0x01, streamId, 0x00, 0x00, 0x80};
  if (pts == kNone) {
    b.insert(b.end(), {0x00, 0x00});
  } else if (dts == kNone) {
    b.insert(b.end(), {0x80, 5});
    PutTime(b, 0x20, pts);
  } else {
    b.insert(b.end(), {0xC0, 10});
    PutTime(b, 0x30, pts);
    PutTime(b, 0x10, dts);
  }
  b.insert(b.end(), data.begin(), data.end());
  return b;
}

// An H.264 access unit: delimiter, then filler bytes that contain no start code.
Bytes H264Unit(size_t size = 40) {
  Bytes b = {0x00, 0x00, 0x00, 0x01, 0x09, 0xF0};
  b.resize(size, 0xAB);
  return b;
}

Bytes AdtsFrame(size_t length, uint8_t profile = 1, uint8_t frequencyIndex = 3, uint8_t channels = 2) {
  Bytes b = {0xFF,
             0xF1,
             static_cast<uint8_t>((profile << 6) | (frequencyIndex << 2) | (channels >> 2)),
             static_cast<uint8_t>(((channels & 3) << 6) | ((length >> 11) & 3)),
             static_cast<uint8_t>(length >> 3),
             static_cast<uint8_t>(((length & 7) << 5) | 0x1F),
             0xFC};
  b.resize(std::max<size_t>(length, 7), 0x11);
  return b;
}

struct Range {
  int64_t start, end, pts;
  bool operator==(const Range& o) const { return start == o.start && end == o.end && pts == o.pts; }
};
std::ostream& operator<<(std::ostream& os, const Range& r) {
  return os << "[" << r.start << ", " << r.end << ") @" << r.pts;
}

std::vector<Range> Ranges(const Stream& s) {
  std::vector<Range> out;
  for (const SampleRange& r : s.ranges) out.push_back({r.start, r.end, r.pts});
  return out;
}

// --- Access units and ADTS frames as a Stream cuts its writes.

struct WriteCase {
  const char* name;
  bool video;
  uint8_t streamType;
  std::vector<int64_t> times;
  std::vector<Bytes> writes;
  std::vector<Range> expected;  // after OnEOF
};

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
  return b;
}

const Bytes kHevcAud = {0x00, 0x00, 0x01, 0x46, 0x01, 0x50};
const Bytes kH264Aud = {0x00, 0x00, 0x01, 0x09, 0xF0};

std::vector<WriteCase> WriteCases() {
  const Bytes filler(20, 0xAB);
  Bytes cutFrame = Join({AdtsFrame(20), AdtsFrame(60)});
  cutFrame.resize(55);
  return {
      {"AccessUnitsSplitAtDelimiters",
       true,
       0x1B,
       {100, 200, 300},
       {H264Unit(40), H264Unit(30), H264Unit(25)},
       // each range ends with the next delimiter's start code and the next begins at its NAL header
       {{0, 44, 100}, {44, 74, 200}, {74, 95, 300}}},
      {"TwoDelimitersInOneWriteCloseOneUnit",
       true,
       0x1B,
       {1, 2, 3},
       {Join({H264Unit(20), H264Unit(20), H264Unit(20)})},
       {{0, 24, 1}, {24, 60, 2}}},
      {"DelimiterInTheLastFourBytesOfAWriteIsNotSeen",
       true,
       0x1B,
       {1, 2},
       {Join({H264Unit(20), {0x00, 0x00, 0x01, 0x09}}), filler},
       {{0, 44, 1}}},
      {"DelimiterStraddlingTwoWritesIsNotSeen",
       true,
       0x1B,
       {1, 2},
       {Join({H264Unit(20), {0x00, 0x00}}), Join({{0x01, 0x09, 0xF0}, filler})},
       {{0, 45, 1}}},
      {"PrivateDataTypeIsScannedAsHevc",
       true,
       0x06,
       {1, 2},
       {Join({kHevcAud, filler, kH264Aud, filler, kHevcAud, filler})},
       {{0, 54, 1}, {54, 77, 2}}},
      {"HevcTypeIgnoresH264Delimiters",
       true,
       0x24,
       {1, 2},
       {Join({kHevcAud, filler, kH264Aud, filler}), Join({kHevcAud, filler})},
       {{0, 54, 1}, {54, 77, 2}}},
      {"H264TypeIgnoresHevcDelimiters", true, 0x1B, {1}, {Join({kH264Aud, filler, kHevcAud, filler})}, {{0, 51, 1}}},
      {"UnitWithoutTimeTakesNoTimestamp",
       true,
       0x1B,
       {7},
       {H264Unit(40), H264Unit(30), H264Unit(25)},
       {{0, 44, 7}, {44, 74, kNoTimestamp}, {74, 95, kNoTimestamp}}},
      {"AdtsFramesShareThePesTime",
       false,
       0x0F,
       {900},
       {Join({AdtsFrame(30), AdtsFrame(40), AdtsFrame(20)})},
       {{7, 30, 900}, {37, 70, 900}, {77, 90, 900}}},
      {"AdtsFrameWithCrcHasANineByteHeader",
       false,
       0x0F,
       {5},
       {Join({{0xFF, 0xF0, 0x50, 0x80, 0x03, 0xDF, 0xFC, 0x00, 0x00}, Bytes(21, 0x22), AdtsFrame(20)})},
       {{9, 30, 5}, {37, 50, 5}}},
      {"AdtsGarbageBeforeAFrameIsSkipped",
       false,
       0x0F,
       {5},
       {Join({{0x00, 0xFF, 0x12, 0x34}, AdtsFrame(20), AdtsFrame(20)})},
       {{11, 24, 5}, {31, 44, 5}}},
      // A header announcing a frame shorter than itself is skipped, not taken: no inverted range, no
      // endless scan.
      {"AdtsFrameLengthZeroIsNoFrame",
       false,
       0x0F,
       {5},
       {Join({AdtsFrame(0), AdtsFrame(3), Bytes(4, 0x00), AdtsFrame(20), AdtsFrame(20)})},
       {{25, 38, 5}, {45, 58, 5}}},
      {"AdtsFrameCutByTheEndRunsToTheEnd", false, 0x0F, {5}, {cutFrame}, {{7, 20, 5}, {27, 55, 5}}},
  };
}

class MpegTsStreamWrite : public ::testing::TestWithParam<WriteCase> {};

TEST_P(MpegTsStreamWrite, CutsSamplesAsDescribed) {
  const WriteCase& c = GetParam();
  Stream s(64, 0x100, 1, c.video, c.streamType);  // small: the writes make it grow
  for (int64_t t : c.times) s.AddTimestamp(t);
  // An audio stream keeps only the latest time; give it before the writes.
  for (const Bytes& w : c.writes) ASSERT_TRUE(s.Write(w.data(), w.data() + w.size()));
  s.OnEOF();
  EXPECT_EQ(Ranges(s), c.expected);
  uint32_t total = 0;
  for (const Bytes& w : c.writes) total += static_cast<uint32_t>(w.size());
  ASSERT_EQ(s.Size(), total);
  uint32_t at = 0;
  for (const Bytes& w : c.writes) {
    EXPECT_EQ(0, std::memcmp(s.Data() + at, w.data(), w.size()));
    at += static_cast<uint32_t>(w.size());
  }
}

INSTANTIATE_TEST_SUITE_P(MpegTs, MpegTsStreamWrite, ::testing::ValuesIn(WriteCases()),
                         [](const auto& p) { return std::string(p.param.name); });

TEST(MpegTsStream, AdtsHeaderFieldsAreKept) {
  Stream s(0x400000, 0x101, 1, false, 0x0F);
  const Bytes b = Join({AdtsFrame(20, 1, 3, 2), AdtsFrame(20, 2, 11, 6)});
  ASSERT_TRUE(s.Write(b.data(), b.data() + b.size()));
  EXPECT_EQ(s.Profile(), 2);
  EXPECT_EQ(s.SamplingFrequencyIndex(), 11);
  EXPECT_EQ(s.ChannelConfiguration(), 6);
}

TEST(MpegTsStream, BufferNeverGrowsBeyondItsLimit) {
  Stream s(16, 0x101, 1, true, 0x1B, 64);
  const Bytes forty = H264Unit(40), one(1, 0xAB);
  EXPECT_TRUE(s.Write(forty.data(), forty.data() + forty.size()));
  EXPECT_TRUE(s.Write(forty.data(), forty.data() + 24));
  EXPECT_EQ(s.Capacity(), 64u);
  EXPECT_FALSE(s.Write(one.data(), one.data() + one.size()));
  EXPECT_EQ(s.Size(), 64u);
  EXPECT_EQ(0, std::memcmp(s.Data(), forty.data(), forty.size()));
}

// --- Packets through the demuxer

struct PacketStep {
  Packet packet;
  bool ok;
};

struct DemuxCase {
  const char* name;
  std::vector<PacketStep> steps;
  std::string error;    // must appear among the error lines ("" : no error at all)
  std::string warning;  // likewise for warnings
  // Per stream PID: the ranges after OnEOF (a PID absent here must have no stream).
  std::map<uint16_t, std::vector<Range>> ranges;
};

PacketStep Ok(const Packet& p) { return {p, true}; }
PacketStep Fails(const Packet& p) { return {p, false}; }

Packet PatPacket(uint8_t pointer = 0) { return MakePacket(0, true, Pat(kPmtPid, pointer), true); }
Packet PmtPacket(const std::vector<EsEntry>& entries = {{0x1B, kVideoPid}, {0x0F, kAudioPid}}) {
  return MakePacket(kPmtPid, true, Pmt(entries), true);
}
Packet VideoPes(int64_t pts, const Bytes& data, int64_t dts = kNone, uint16_t pid = kVideoPid) {
  return MakePacket(pid, true, Pes(0xE0, pts, data, dts));
}

std::vector<DemuxCase> DemuxCases() {
  const Packet pat = PatPacket(), pmt = PmtPacket();
  Packet noSync = pat;
  noSync.data[0] = 0x46;
  Packet longAdaptation = VideoPes(0, H264Unit());
  longAdaptation.data[4] = 184;
  Packet patTableId = pat;
  patTableId.data[5] = 0x42;
  Packet pmtTableId = pmt;
  pmtTableId.data[5] = 0x41;
  Packet patReserved = pat;
  patReserved.data[15] = 0x01;  // the program entry's PMT PID without its reserved bits
  Packet esdReserved = PmtPacket({{0x1B, kVideoPid}});
  esdReserved.data[4 + 1 + 12 + 3] = 0x00;        // ES info length without its reserved bits
  const Bytes headerToTheEnd = Pes(0xE0, 1, {});  // nothing after the header: it ends with the packet
  Bytes pmtUnknownProgram = Pmt({{0x1B, kVideoPid}}, 7);
  return {
      {"TablesRegisterTheAnnouncedStreams",
       {Ok(pat), Ok(pmt), Ok(VideoPes(3000, H264Unit())), Ok(VideoPes(6000, H264Unit()))},
       "",
       "",
       {{kVideoPid, {{0, 44, 3000}, {44, 80, 6000}}}, {kAudioPid, {}}}},
      {"PatSectionEndingBeforeTheLastByteIsRead",
       {Ok(PatPacket(166)), Ok(pmt)},
       "",
       "",
       {{kVideoPid, {}}, {kAudioPid, {}}}},
      // the same section one byte later reaches exactly to byte 188 and is refused
      {"PatSectionEndingAtTheLastByteIsRefused", {Fails(PatPacket(167)), Ok(pmt)}, " PAT bad section length.", "", {}},
      {"PmtLengthHighBitsAreRefused",
       {Ok(pat), Fails(MakePacket(kPmtPid, true, Pmt({{0x1B, kVideoPid}}, 1, 1), true))},
       " PMT bad section length.",
       "",
       {}},
      {"PmtOfAnUnknownProgramIsRefused",
       {Ok(pat), Fails(MakePacket(kPmtPid, true, pmtUnknownProgram, true))},
       " PMT references non existing PROGRAM=7",
       "",
       {}},
      {"PatWithAnotherTableIdIsRefused", {Fails(patTableId)}, " Expected PAT SECTION=0 found B", "", {}},
      {"PatEntryWithoutReservedBitsIsRefused", {Fails(patReserved)}, " PAT reserved bits not set.", "", {}},
      {"OtherTableOnThePmtPidIsLetPass", {Ok(pat), Ok(pmtTableId)}, "", "Expected PMT SECTION=2 found A", {}},
      {"EsInfoLengthWithoutReservedBitsIsRefused",
       {Ok(pat), Fails(esdReserved)},
       "PKT#2ESD reserved bits not set.",
       "",
       {}},
      {"PesWithPtsAndDtsGivesNoTime",
       {Ok(pat), Ok(pmt), Ok(VideoPes(3000, H264Unit(), 1000)), Ok(VideoPes(6000, H264Unit())),
        Ok(VideoPes(9000, H264Unit()))},
       "",
       "",
       {{kVideoPid, {{0, 44, 6000}, {44, 84, 9000}, {84, 120, kNoTimestamp}}}, {kAudioPid, {}}}},
      {"PtsKeepsItsLow32BitsAsASignedValue",
       {Ok(pat), Ok(pmt), Ok(VideoPes((int64_t{1} << 31) + 7, H264Unit())),
        Ok(VideoPes((int64_t{1} << 32) + 90000, H264Unit())), Ok(VideoPes((int64_t{1} << 33) - 2, H264Unit()))},
       "",
       "",
       {{kVideoPid, {{0, 44, -(int64_t{1} << 31) + 7}, {44, 84, 90000}, {84, 120, -2}}}, {kAudioPid, {}}}},
      {"TwoDelimitersInOnePacketCloseOneUnit",
       {Ok(pat), Ok(pmt), Ok(VideoPes(1, Join({H264Unit(20), H264Unit(20), H264Unit(20)}))),
        Ok(VideoPes(2, H264Unit()))},
       "",
       "",
       {{kVideoPid, {{0, 24, 1}, {24, 64, 2}, {64, 100, kNoTimestamp}}}, {kAudioPid, {}}}},
      {"PrivateDataStreamIsScannedAsHevc",
       {Ok(pat), Ok(PmtPacket({{0x06, kVideoPid}})), Ok(VideoPes(1, Join({kHevcAud, Bytes(20, 0xAB)}))),
        Ok(VideoPes(2, Join({kH264Aud, Bytes(20, 0xAB)}))), Ok(VideoPes(3, Join({kHevcAud, Bytes(20, 0xAB)})))},
       "",
       "",
       {{kVideoPid, {{0, 54, 1}, {54, 77, 2}}}}},
      // The last frame of a PES is closed by the bytes of the next, whose time it then takes.
      {"AdtsFrameClosedByTheNextPesTakesItsTime",
       {Ok(pat), Ok(pmt), Ok(MakePacket(kAudioPid, true, Pes(0xC0, 100, Join({AdtsFrame(30), AdtsFrame(30)})))),
        Ok(MakePacket(kAudioPid, true, Pes(0xC0, 200, AdtsFrame(30))))},
       "",
       "",
       {{kVideoPid, {}}, {kAudioPid, {{7, 30, 100}, {37, 60, 200}, {67, 90, 200}}}}},
      {"UnannouncedPidIsTakenUpByItsStartCode",
       {Ok(MakePacket(0x300, false, H264Unit())), Ok(MakePacket(0x301, true, H264Unit())),
        Ok(VideoPes(5, H264Unit(), kNone, 0x302)), Ok(MakePacket(0x302, false, H264Unit()))},
       "",
       "",
       {{0x302, {{0, 44, 5}, {44, 80, kNoTimestamp}}}}},
      {"PesWithAnotherStreamIdIsRefused",
       {Fails(MakePacket(0x300, true, Pes(0xBE, 1, H264Unit())))},
       " Expected audio/video packets only. FOUND=be",
       "",
       {}},
      {"PesHeaderReachingThePacketEndIsRefused",
       {Ok(pat), Ok(pmt), Fails(MakePacket(kVideoPid, true, headerToTheEnd))},
       " PES Invalid length.3",
       "",
       {{kVideoPid, {}}, {kAudioPid, {}}}},
      {"PesWithoutStartCodeOnAStreamPidIsRefused",
       {Ok(pat), Ok(pmt), Fails(MakePacket(kVideoPid, true, H264Unit()))},
       " Expected PES start sequence.",
       "",
       {{kVideoPid, {}}, {kAudioPid, {}}}},
      {"MissingSyncByteIsRefused", {Fails(noSync), Ok(pat)}, "[ERROR]: PKT#1 Sync byte not found.", "", {}},
      {"AdaptationFieldBeyondThePacketIsRefused",
       {Fails(longAdaptation)},
       " Adaptation field longer than the packet.",
       "",
       {}},
  };
}

class MpegTsDemux : public ::testing::TestWithParam<DemuxCase> {};

TEST_P(MpegTsDemux, HandlesPackets) {
  const DemuxCase& c = GetParam();
  Diagnostics diagnostics;
  MpegTsDemuxer demuxer(true);
  for (size_t i = 0; i < c.steps.size(); ++i) {
    EXPECT_EQ(demuxer.DecodePacket(c.steps[i].packet), c.steps[i].ok) << "packet " << i + 1;
  }
  demuxer.OnEOF();
  if (c.error.empty()) {
    EXPECT_EQ(diagnostics.Errors(), "");
  } else {
    EXPECT_NE(diagnostics.Errors().find(c.error), std::string::npos) << diagnostics.Errors();
  }
  if (c.warning.empty()) {
    EXPECT_EQ(diagnostics.Warnings(), "");
  } else {
    EXPECT_NE(diagnostics.Warnings().find(c.warning), std::string::npos) << diagnostics.Warnings();
  }
  EXPECT_EQ(demuxer.Streams().size(), c.ranges.size());
  for (const auto& [pid, expected] : c.ranges) {
    const auto it = demuxer.Streams().find(pid);
    ASSERT_NE(it, demuxer.Streams().end()) << "no stream on PID " << pid;
    EXPECT_EQ(Ranges(*it->second), expected) << "PID " << pid;
  }
}

INSTANTIATE_TEST_SUITE_P(MpegTs, MpegTsDemux, ::testing::ValuesIn(DemuxCases()),
                         [](const auto& p) { return std::string(p.param.name); });

TEST(MpegTsDemuxer, StreamsFoundWithoutTablesHaveNoProgramAndNoType) {
  MpegTsDemuxer demuxer(false);
  EXPECT_TRUE(demuxer.DecodePacket(MakePacket(kAudioPid, true, Pes(0xC0, 9, AdtsFrame(30)))));
  ASSERT_EQ(demuxer.Streams().size(), 1u);
  const Stream& s = *demuxer.Streams().begin()->second;
  EXPECT_FALSE(s.IsVideo());
  EXPECT_EQ(s.StreamType(), 0);
  EXPECT_EQ(s.ProgramNumber(), 0x1FFF);
  // A PMT naming it later moves it into its program, with a warning.
  Diagnostics diagnostics;
  MpegTsDemuxer tables(true);
  ASSERT_TRUE(tables.DecodePacket(PatPacket()));
  ASSERT_TRUE(tables.DecodePacket(MakePacket(kVideoPid, true, Pes(0xE0, 1, H264Unit()))));
  ASSERT_TRUE(tables.DecodePacket(PmtPacket()));
  EXPECT_EQ(tables.Streams().at(kVideoPid)->ProgramNumber(), 1);
  EXPECT_EQ(tables.Streams().at(kVideoPid)->StreamType(), 0);
  EXPECT_EQ(diagnostics.Warnings(), "[WARNING]: PKT#3 STREAM=257 PROGRAM=8191 appeared in PROGRAM=1\n");
}

TEST(MpegTsDemuxer, KeepsAtMostItsNumberOfStreams) {
  Diagnostics diagnostics;
  MpegTsDemuxer demuxer(false);
  for (uint16_t pid = 0x200; pid < 0x200 + 40; ++pid) {
    for (int repeat = 0; repeat < 2; ++repeat) {
      EXPECT_TRUE(demuxer.DecodePacket(MakePacket(pid, true, Pes(0xE0, 1, H264Unit()))));
    }
  }
  EXPECT_EQ(demuxer.Streams().size(), kMaxStreams);
  // One warning per ignored PID, not per packet.
  const std::string w = diagnostics.Warnings();
  EXPECT_EQ(static_cast<size_t>(std::count(w.begin(), w.end(), '\n')), 40 - kMaxStreams) << w;
}

// --- Files

struct FileCase {
  const char* name;
  Bytes bytes;
  size_t packets;
  bool failed;
  std::string error;
};

TEST(MpegTsBitStream, ReadsWholePacketsAndStopsAtTheFirstFault) {
  Bytes good;
  for (int i = 0; i < 100; ++i) {  // more than one read buffer
    const Packet p = MakePacket(0x100 + i % 3, false, H264Unit());
    good.insert(good.end(), p.data, p.data + kTsPacketSize);
  }
  Bytes truncated = good;
  truncated.resize(kTsPacketSize * 99 + 100);
  Bytes badSync = good;
  badSync[kTsPacketSize * 90] = 0x00;
  const std::vector<FileCase> cases = {
      {"whole", good, 100, false, ""},
      {"truncated", truncated, 99, true, "[ERROR]: Expected 188 bytes, found 100\n"},
      {"badSync", badSync, 90, true, "[ERROR]: Sync byte not found.\n"},
      {"empty", {}, 0, false, ""},
  };
  const fs::path dir = fs::temp_directory_path() / ("mpegts-test-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  for (const FileCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = (dir / c.name).string();
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(c.bytes.data()), c.bytes.size());
    Diagnostics diagnostics;
    MpegTsBitStream in(path);
    Packet p;
    size_t n = 0;
    while (in.GetPacket(p)) {
      EXPECT_EQ(0, std::memcmp(p.data, c.bytes.data() + n * kTsPacketSize, kTsPacketSize));
      ++n;
    }
    EXPECT_EQ(n, c.packets);
    EXPECT_EQ(in.Failed(), c.failed);
    EXPECT_FALSE(in.GetPacket(p));  // stays stopped
    EXPECT_EQ(diagnostics.Errors(), c.error);
  }
  fs::remove_all(dir);
  Diagnostics diagnostics;
  MpegTsBitStream missing((dir / "none.ts").string());
  Packet p;
  EXPECT_FALSE(missing.GetPacket(p));
  EXPECT_TRUE(missing.Failed());
  EXPECT_EQ(diagnostics.Errors(), "[ERROR]: can't open file '" + (dir / "none.ts").string() + "'\n");
}

// Demultiplexes a whole file as the HLS reader does.
struct Demuxed {
  std::unique_ptr<MpegTsDemuxer> demuxer = std::make_unique<MpegTsDemuxer>(true);
  size_t packets = 0;
  bool allDecoded = true;
  const Stream* video = nullptr;
  const Stream* audio = nullptr;
};

Demuxed DemuxFile(const std::string& path) {
  Demuxed d;
  MpegTsBitStream in(path);
  Packet p;
  while (in.GetPacket(p)) {
    ++d.packets;
    d.allDecoded = d.demuxer->DecodePacket(p) && d.allDecoded;
  }
  EXPECT_TRUE(in.AtEnd());
  EXPECT_FALSE(in.Failed());
  d.demuxer->OnEOF();
  for (const auto& [pid, s] : d.demuxer->Streams()) (s->IsVideo() ? d.video : d.audio) = s.get();
  return d;
}

// --- Streams made by FFmpeg, against ffprobe's packet list of the same file

struct ProbedPacket {
  int64_t pts, dts, size;
};

class MpegTsFFmpegStream : public ::testing::TestWithParam<const char*> {};

TEST_P(MpegTsFFmpegStream, MatchesFFprobe) {
  const std::string base = kStreams + GetParam();
  for (const char* ext : {".ts", ".es", ".packets.json"}) {
    ASSERT_TRUE(fs::exists(base + ext)) << base + ext << " is missing: run scripts/test-data-streams.sh";
  }
  std::vector<ProbedPacket> video, audio;
  const nlohmann::json probe = nlohmann::json::parse(std::ifstream(base + ".packets.json"));
  for (const auto& p : probe.at("packets")) {
    const ProbedPacket probed{p["pts"].get<int64_t>(), p["dts"].get<int64_t>(),
                              std::stoll(p["size"].get<std::string>())};
    (p["codec_type"] == "video" ? video : audio).push_back(probed);
  }
  const bool hasAudio = std::string(GetParam()).find("aac") != std::string::npos;

  Diagnostics diagnostics;
  const Demuxed d = DemuxFile(base + ".ts");
  EXPECT_TRUE(d.allDecoded);
  EXPECT_EQ(diagnostics.Errors(), "");
  EXPECT_EQ(diagnostics.Warnings(), "");
  EXPECT_EQ(d.demuxer->Streams().size(), hasAudio ? 2u : 1u);
  ASSERT_NE(d.video, nullptr);

  // Video: the buffer is the elementary stream; one range per access unit, each ending with the
  // next unit's start code, so that all but the first and the last have the unit's size.
  const Bytes es = ReadFile(base + ".es");
  ASSERT_EQ(d.video->Size(), es.size());
  EXPECT_EQ(0, std::memcmp(d.video->Data(), es.data(), es.size()));
  const std::vector<Range> ranges = Ranges(*d.video);
  ASSERT_EQ(ranges.size(), video.size());
  // Times: a PES carrying PTS and DTS gives none, so a unit takes the oldest time given by a
  // PTS-only PES not yet used (the units of PTS+DTS PES, and those after the times run out, shift).
  std::deque<int64_t> waiting;
  std::vector<int64_t> times;
  const auto next = [&] {
    if (waiting.empty()) return kNoTimestamp;
    const int64_t t = waiting.front();
    waiting.pop_front();
    return t;
  };
  for (size_t i = 0; i < video.size(); ++i) {
    if (video[i].pts == video[i].dts) waiting.push_back(video[i].pts);  // the PES header of unit i
    if (i > 0) times.push_back(next());                                 // its delimiter closes unit i - 1
  }
  times.push_back(next());  // the end of the file closes the last
  for (size_t i = 0; i < ranges.size(); ++i) {
    SCOPED_TRACE("access unit " + std::to_string(i));
    if (i > 0) {
      EXPECT_EQ(ranges[i].start, ranges[i - 1].end);
    }
    if (i > 0 && i + 1 < ranges.size()) {
      EXPECT_EQ(ranges[i].end - ranges[i].start, video[i].size);
    }
    EXPECT_EQ(ranges[i].pts, times[i]);
  }
  EXPECT_EQ(ranges.back().end, int64_t{d.video->Size()});

  if (!hasAudio) return;
  ASSERT_NE(d.audio, nullptr);
  const std::vector<Range> frames = Ranges(*d.audio);
  ASSERT_EQ(frames.size(), audio.size());
  EXPECT_EQ(d.audio->Profile(), 1);                 // AAC LC
  EXPECT_EQ(d.audio->SamplingFrequencyIndex(), 3);  // 48 kHz
  EXPECT_EQ(d.audio->ChannelConfiguration(), 2);
  // A frame's time is that of the latest PES when it was closed: its own PES's, or, for the last
  // frame of a PES (closed by the bytes of the next), the next PES's. ffprobe's first frame of each
  // PES carries the PES time.
  std::vector<int64_t> pesTimes;
  for (const Range& f : frames) {
    if (pesTimes.empty() || f.pts != pesTimes.back()) pesTimes.push_back(f.pts);
  }
  ASSERT_FALSE(pesTimes.empty());
  for (size_t i = 0; i < frames.size(); ++i) {
    SCOPED_TRACE("ADTS frame " + std::to_string(i));
    EXPECT_EQ(frames[i].end - frames[i].start + 7, audio[i].size);  // without its 7-byte header
    int64_t expected = pesTimes.back();
    if (i + 1 < frames.size()) {
      for (int64_t t : pesTimes) {
        if (t <= audio[i + 1].pts) expected = t;
      }
    }
    EXPECT_EQ(frames[i].pts, expected);
    EXPECT_NE(std::find_if(audio.begin(), audio.end(), [&](const ProbedPacket& a) { return a.pts == frames[i].pts; }),
              audio.end());
  }
}

INSTANTIATE_TEST_SUITE_P(MpegTs, MpegTsFFmpegStream,
                         ::testing::Values("h264_aac_1920x1080_30", "h264_854x480_25", "h264_aac_1000x562_30000-1001",
                                           "h264_640x360_24000-1001_bframes", "hevc_aac_1920x1080_30",
                                           "hevc_854x480_25", "hevc_aac_1000x562_30000-1001"),
                         [](const auto& p) {
                           std::string name = p.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

// --- A segment of our own encoder: every video access unit carries its mesh NAL unit.

bool HasMeshNal(const uint8_t* p, size_t n) {
  for (size_t i = 0; i + 8 <= n; ++i) {
    if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1 && (p[i + 3] == 0x18 || p[i + 3] == 0x15) &&
        std::memcmp(p + i + 4, "WELM", 4) == 0) {
      return true;
    }
  }
  return false;
}

TEST(MpegTsOzmSegment, EveryAccessUnitCarriesItsMesh) {
  const char* env = std::getenv("OZM_TOOL");
  const std::string tool = env && *env ? env : std::string(OZM_TEST_DATA_DIR) + "/../host/tools/ozm";
  if (!fs::exists(tool)) GTEST_SKIP() << "the ozm tool is not built at " << tool << " (set OZM_TOOL)";
  const fs::path dir = fs::temp_directory_path() / ("mpegts-ozm-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const std::string command = "'" + tool + "' encode --sample --sample-audio --frames 30 --size 256x256 " +
                              "--preset ultrafast --out '" + (dir / "s.m3u8").string() + "' >/dev/null 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  const std::string segment = (dir / "s_00000.ts").string();
  ASSERT_TRUE(fs::exists(segment));

  Diagnostics diagnostics;
  const Demuxed d = DemuxFile(segment);
  fs::remove_all(dir);
  EXPECT_TRUE(d.allDecoded);
  EXPECT_EQ(diagnostics.Errors(), "");
  ASSERT_NE(d.video, nullptr);
  ASSERT_NE(d.audio, nullptr);
  EXPECT_EQ(d.video->StreamType(), 0x1B);
  ASSERT_EQ(d.video->ranges.size(), 30u);
  for (const SampleRange& r : d.video->ranges) {
    EXPECT_TRUE(HasMeshNal(d.video->Data() + r.start, static_cast<size_t>(r.end - r.start))) << r.start;
    EXPECT_NE(r.pts, kNoTimestamp);
  }
  EXPECT_EQ(d.audio->SamplingFrequencyIndex(), 3);
  EXPECT_EQ(d.audio->ChannelConfiguration(), 1);
  EXPECT_FALSE(d.audio->ranges.empty());
}

}  // namespace
