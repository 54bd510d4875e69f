// Demultiplexing of MPEG-2 transport streams (the segments of an HLS stream).
//
// MpegTsBitStream reads a segment file one 188-byte packet at a time; MpegTsDemuxer follows the
// program tables (PAT, PMT), keeps one Stream per audio or video PID, strips the PES headers and
// appends the payload to the Stream's buffer; each Stream cuts its buffer into SampleRanges: one
// video access unit (split at access-unit delimiters) or one ADTS frame each, with its
// presentation time in 90 kHz ticks.
//
// The parser is strict about reserved bits and lenient about the rest: continuity counters are
// recorded but never compared, CRCs are skipped unread. It reads hostile bytes: every offset taken
// from a length field is checked against the packet before use, the number of streams and the size
// of a stream's buffer are capped (kMaxStreams, kMaxStreamBuffer), and a rejected packet leaves the
// demuxer usable.
//
// Diagnostics are text lines on two standard streams, errors on std::cerr and warnings on std::cout,
// "[ERROR]: PKT#<n> ..." and "[WARNING]: PKT#<n> ..."; SetMpegTsDiagnostics redirects them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

constexpr size_t kTsPacketSize = 188;

// Capacity of a new Stream's buffer. It grows by half when full. The buffers of destroyed streams are
// kept for the next ones (a few, of bounded total size), so that the streams of the next segment
// write into memory the process already has.
constexpr uint32_t kStreamCapacity = 0x400000;
// A stream's buffer never grows beyond this: a write that would need more is refused, so that a
// hostile stream cannot make the process allocate without bound.
constexpr uint32_t kMaxStreamBuffer = 256u << 20;
// At most this many streams per demuxer: a PID found beyond them is ignored (with one warning), so a
// stream announcing thousands of PIDs costs at most kMaxStreams buffers of kStreamCapacity bytes.
constexpr size_t kMaxStreams = 16;
// The time of a range closed while no presentation time was waiting for it.
constexpr int64_t kNoTimestamp = -1;

// Where the demuxer's diagnostics go: errors and warnings, each a text line. Null restores the
// default (std::cerr for errors, std::cout for warnings). Meant for tests and tools; the streams
// must outlive their use.
void SetMpegTsDiagnostics(std::ostream* errors, std::ostream* warnings);

struct Packet {
  uint8_t data[kTsPacketSize];
};
static_assert(sizeof(Packet) == kTsPacketSize, "a packet is exactly its bytes");

struct PacketHeader {
  bool transportError = false;
  bool payloadUnitStart = false;
  bool transportPriority = false;
  uint16_t pid = 0;  // 13 bits
  bool adaptationField = false;
  bool payload = false;
  uint8_t continuityCounter = 0;  // 4 bits, recorded only
};

struct PacketSection {
  uint16_t tableIdExtension = 0;  // transport stream id in a PAT, program number in a PMT
  uint8_t version = 0;            // 5 bits
  uint8_t currentNext = 0;        // 1 bit
  uint8_t sectionNumber = 0;
  uint8_t lastSectionNumber = 0;
};

struct Program {
  uint16_t programNumber = 0;
  uint16_t pmtPid = 0;
};

// What the packets of a PID are read as.
enum class DemuxerEvents : uint8_t { PMT = 1, PES = 2, PAT = 3, Ignore = 4 };

// One sample in a Stream's buffer: bytes [start, end), presentation time in 90 kHz ticks.
struct SampleRange {
  int64_t start;
  int64_t end;
  int64_t pts;
};

// The elementary stream of one PID: its payload bytes, cut into samples as they arrive.
class Stream {
 public:
  // `maxSize` bounds the buffer's growth; the demuxer leaves it at kMaxStreamBuffer.
  Stream(uint32_t capacity, uint16_t pid, uint16_t programNumber, bool isVideo, uint8_t streamType,
         uint32_t maxSize = kMaxStreamBuffer);
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // Appends the bytes and closes the samples they complete. Returns false, appending nothing, when
  // the buffer would have to grow beyond its limit.
  bool Write(const uint8_t* begin, const uint8_t* end);
  // Closes the last sample.
  void OnEOF();

  // A presentation time for the samples to come. An audio stream keeps only the latest one: all
  // ADTS frames of a PES share its time.
  void AddTimestamp(int64_t pts);

  std::deque<SampleRange> ranges;  // finished samples, oldest first; the reader pops them

  const uint8_t* Data() const { return m_buffer; }
  uint32_t Size() const { return m_size; }
  uint32_t Capacity() const { return m_capacity; }
  bool IsVideo() const { return m_isVideo; }
  uint8_t StreamType() const { return m_streamType; }
  uint16_t Pid() const { return m_pid; }
  uint16_t ProgramNumber() const { return m_programNumber; }
  void SetProgramNumber(uint16_t programNumber) { m_programNumber = programNumber; }
  // The fields of the last ADTS header seen (0 before any).
  int Profile() const { return m_profile; }
  int SamplingFrequencyIndex() const { return m_samplingFrequencyIndex; }
  int ChannelConfiguration() const { return m_channelConfiguration; }
  // Presentation times not yet given to a sample, oldest first.
  const std::deque<int64_t>& Timestamps() const { return timestamps; }

 private:
  bool Reserve(uint64_t needed);
  void ScanVideo(int64_t from);
  void ScanAudio();
  int64_t TakeTimestamp();
  int64_t PeekTimestamp() const;

  int m_channelConfiguration = 0;
  int m_profile = 0;
  int m_samplingFrequencyIndex = 0;
  int64_t m_accessUnitStart = 0;  // video
  int64_t m_scanPosition = 0;     // audio
  int64_t m_framePayloadStart = -1;
  int64_t m_frameEnd = -1;
  std::deque<int64_t> timestamps;
  uint8_t* m_buffer = nullptr;  // malloc'd, or taken from the pool of finished streams' buffers
  uint32_t m_capacity = 0;
  uint32_t m_size = 0;
  uint32_t m_maxSize = 0;
  uint8_t m_streamType;
  uint16_t m_pid;
  uint16_t m_programNumber;
  bool m_isVideo;
};

class MpegTsDemuxer {
 public:
  // With `psi`, the program tables are followed from PID 0 on; without, streams are found by their
  // PES start codes alone.
  explicit MpegTsDemuxer(bool psi);
  MpegTsDemuxer(const MpegTsDemuxer&) = delete;
  MpegTsDemuxer& operator=(const MpegTsDemuxer&) = delete;

  // True when the packet was handled or harmlessly skipped, false on a parse error (written to the
  // error stream). The demuxer stays usable after a failure.
  bool DecodePacket(const Packet& packet);
  // Closes the last sample of every stream, once.
  void OnEOF();
  bool IsEOF() const { return m_eof; }

  const std::map<uint16_t, std::unique_ptr<Stream>>& Streams() const { return m_streams; }
  const std::map<uint16_t, Program>& Programs() const { return m_programs; }
  const std::map<uint16_t, DemuxerEvents>& Filters() const { return m_filters; }
  int64_t PacketCount() const { return m_packetCount; }

 private:
  bool ReadHeader(const Packet& packet, PacketHeader& header, size_t& payloadStart);
  bool ReadPAT(const Packet& packet, size_t pos);
  bool ReadPMT(const Packet& packet, size_t pos);
  bool ReadSection(const Packet& packet, size_t& pos, PacketSection& section);
  bool ReadPrograms(const Packet& packet, size_t& pos);
  bool ReadESD(const Packet& packet, size_t& pos, uint16_t programNumber);
  bool ReadPES(const Packet& packet, const PacketHeader& header, size_t pos);
  void RegisterProgram(uint16_t programNumber, uint16_t pmtPid);
  Stream* RegisterStream(uint16_t pid, uint16_t programNumber, bool isVideo, uint8_t streamType);
  bool WriteToStream(Stream& stream, const uint8_t* begin, const uint8_t* end);

  bool Error(const std::string& message) const;
  void Warning(const std::string& message) const;

  std::map<uint16_t, std::unique_ptr<Stream>> m_streams;
  std::map<uint16_t, Program> m_programs;
  std::map<uint16_t, DemuxerEvents> m_filters;
  int64_t m_packetCount = 0;
  bool m_psi;
  bool m_eof = false;
};

// Reads a transport-stream file packet by packet, through a read buffer of 16 KiB. It stops for good
// at the first failure (missing sync byte, truncated last packet).
class MpegTsBitStream {
 public:
  explicit MpegTsBitStream(const std::string& path);
  ~MpegTsBitStream();
  MpegTsBitStream(const MpegTsBitStream&) = delete;
  MpegTsBitStream& operator=(const MpegTsBitStream&) = delete;

  // True when a whole packet was read into `packet`.
  bool GetPacket(Packet& packet);
  bool AtEnd() const { return m_endOfData; }  // the end-of-data flag
  bool Failed() const { return m_failed; }

 private:
  static constexpr uint32_t kReadBufferSize = 16384;
  void FillFileBuffer();

  FILE* m_file = nullptr;
  std::vector<uint8_t> m_buffer;
  size_t m_position = 0;
  uint32_t m_fileSize = 0;
  uint32_t m_consumed = 0;  // bytes of the file read into the buffer so far
  bool m_endOfData = false;
  bool m_failed = false;
};
