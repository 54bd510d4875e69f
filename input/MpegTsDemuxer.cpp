#include "input/MpegTsDemuxer.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sstream>
#include <utility>

namespace {

constexpr size_t kPacketEnd = kTsPacketSize;
constexpr uint8_t kSyncByte = 0x47;
constexpr uint16_t kNullPid = 0x1FFF;
// The program number of a stream found by its PES start code, before any PMT named it.
constexpr uint16_t kNoProgram = 0x1FFF;
constexpr uint8_t kStuffing = 0xFF;

std::atomic<std::ostream*> g_errors{nullptr};
std::atomic<std::ostream*> g_warnings{nullptr};
// One line at a time, whole, even with several demuxers on several threads.
std::mutex g_diagnosticsMutex;

void WriteLine(std::ostream& out, const std::string& line) {
  std::lock_guard<std::mutex> lock(g_diagnosticsMutex);
  out << line << '\n';
  out.flush();
}

void ErrorLine(const std::string& text) {
  std::ostream* sink = g_errors.load();
  WriteLine(sink ? *sink : std::cerr, "[ERROR]: " + text);
}

void WarningLine(const std::string& text) {
  std::ostream* sink = g_warnings.load();
  WriteLine(sink ? *sink : std::cout, "[WARNING]: " + text);
}

std::string Hex(unsigned value) {
  std::ostringstream text;
  text << std::hex << value;
  return text.str();
}

// Table ids are shown as the byte itself.
std::string RawByte(uint8_t byte) { return std::string(1, static_cast<char>(byte)); }

bool IsStartCode(const uint8_t* p) { return p[0] == 0 && p[1] == 0 && p[2] == 1; }

// Buffers of finished streams, kept for the streams of the next segment: its payload then lands in
// memory the process already has instead of in fresh pages, whose first touch costs more than the
// demultiplexing itself. Only buffers of at least kStreamCapacity are kept, at most kPooledBuffers
// of them and kPooledBytes in all; the rest is freed.
class BufferPool {
 public:
  static constexpr size_t kPooledBuffers = 4;
  static constexpr uint64_t kPooledBytes = 64u << 20;

  // The largest kept buffer of `least` to `most` bytes (its size in `capacity`), or null.
  uint8_t* Take(uint32_t least, uint32_t most, uint32_t& capacity) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto best = m_buffers.end();
    for (auto it = m_buffers.begin(); it != m_buffers.end(); ++it) {
      if (it->second >= least && it->second <= most && (best == m_buffers.end() || it->second > best->second))
        best = it;
    }
    if (best == m_buffers.end()) return nullptr;
    uint8_t* buffer = best->first;
    capacity = best->second;
    m_bytes -= capacity;
    m_buffers.erase(best);
    return buffer;
  }

  void Give(uint8_t* buffer, uint32_t capacity) {
    if (!buffer) return;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (capacity >= kStreamCapacity && m_buffers.size() < kPooledBuffers && m_bytes + capacity <= kPooledBytes) {
        m_buffers.emplace_back(buffer, capacity);
        m_bytes += capacity;
        return;
      }
    }
    std::free(buffer);
  }

 private:
  std::mutex m_mutex;
  std::vector<std::pair<uint8_t*, uint32_t>> m_buffers;
  uint64_t m_bytes = 0;
};

// Never destroyed, so that streams that outlive static destruction can still give their buffers back.
BufferPool& Pool() {
  static BufferPool* pool = new BufferPool;
  return *pool;
}

}  // namespace

// The buffer is not cleared: nothing beyond its fill size is ever read.
Stream::Stream(uint32_t capacity, uint16_t pid, uint16_t programNumber, bool isVideo, uint8_t streamType,
               uint32_t maxSize)
    : m_streamType(streamType), m_pid(pid), m_programNumber(programNumber), m_isVideo(isVideo) {
  capacity = std::max<uint32_t>(capacity, 1);
  m_buffer = Pool().Take(capacity, std::max(capacity, maxSize), m_capacity);
  if (!m_buffer) {
    m_buffer = static_cast<uint8_t*>(std::malloc(capacity));
    m_capacity = m_buffer ? capacity : 0;
  }
  m_maxSize = std::max(maxSize, m_capacity);
}

Stream::~Stream() { Pool().Give(m_buffer, m_capacity); }

bool Stream::Reserve(uint64_t needed) {
  if (needed <= m_capacity) return true;
  if (needed > m_maxSize) return false;
  // By half again: one step is enough for a packet's payload; the larger size covers direct writes
  // of more.
  uint64_t capacity = std::max<uint64_t>(uint64_t{m_capacity} * 3 / 2, needed);
  capacity = std::min<uint64_t>(capacity, m_maxSize);
  // realloc keeps the contents; a large buffer is moved by remapping its pages, not by copying.
  auto* grown = static_cast<uint8_t*>(std::realloc(m_buffer, capacity));
  if (!grown) return false;
  m_buffer = grown;
  m_capacity = static_cast<uint32_t>(capacity);
  return true;
}

bool Stream::Write(const uint8_t* begin, const uint8_t* end) {
  if (!begin || end <= begin) return true;
  const auto count = static_cast<size_t>(end - begin);
  if (!Reserve(uint64_t{m_size} + count)) return false;
  const int64_t from = m_size;
  std::memcpy(m_buffer + m_size, begin, count);
  m_size += static_cast<uint32_t>(count);
  if (m_isVideo) {
    ScanVideo(from);
  } else {
    ScanAudio();
  }
  return true;
}

// Looks for the next access-unit delimiter in the bytes of one write, from its first byte up to,
// not including, its last four: a delimiter whose start code straddles two writes, or lies in the
// last four bytes of one, is not seen. At most one access unit is closed per write: the range runs
// from the current unit's first byte up to the delimiter's NAL header byte, so that it ends with
// the delimiter's start code and the next range begins at its NAL header.
void Stream::ScanVideo(int64_t from) {
  const uint8_t* bytes = m_buffer;
  const int64_t limit = int64_t{m_size} - 4;  // start codes begin before this
  // Stream type 0x06 (PES private data) is read as HEVC too.
  const bool hevc = m_streamType == 0x24 || m_streamType == 0x06;
  // The 01 of a start code beginning at i sits at i + 2: search for it, then look back.
  int64_t one = from + 2;
  const int64_t oneEnd = limit + 2;
  while (one < oneEnd) {
    const void* hit = std::memchr(bytes + one, 1, static_cast<size_t>(oneEnd - one));
    if (!hit) return;
    one = static_cast<const uint8_t*>(hit) - bytes;
    if (bytes[one - 1] == 0 && bytes[one - 2] == 0) {
      const int64_t nal = one + 1;  // below m_size: the start code began before the last four bytes
      const uint8_t header = bytes[nal];
      const bool delimiter = hevc ? (header & 0x7E) == 0x46 : (header & 0x1F) == 9;
      if (delimiter && nal >= m_accessUnitStart + 5) {
        ranges.push_back({m_accessUnitStart, nal, TakeTimestamp()});
        m_accessUnitStart = nal;
        return;
      }
    }
    ++one;
  }
}

// ADTS frames: a header is looked for only while more than 9 bytes follow the scan position, and a
// frame is closed once the scan has moved that far past its end, so a frame is usually closed by
// the write that brings the next header. All frames of a PES share its time.
void Stream::ScanAudio() {
  const uint8_t* bytes = m_buffer;
  const int64_t size = m_size;
  while (m_scanPosition + 9 < size) {
    if (m_frameEnd >= 0) {
      if (m_frameEnd > size) return;
      ranges.push_back({m_framePayloadStart, m_frameEnd, PeekTimestamp()});
      m_framePayloadStart = m_frameEnd = -1;
      continue;
    }
    const uint8_t* h = bytes + m_scanPosition;
    if (h[0] == 0xFF && (h[1] & 0xF0) == 0xF0) {
      const int headerLength = (h[1] & 1) ? 7 : 9;  // protection absent: no CRC
      const int frameLength = ((h[3] & 3) << 11) | (h[4] << 3) | (h[5] >> 5);
      // A frame shorter than its own header is no frame: taking it would make an inverted range
      // and, at length 0, never move the scan on.
      if (frameLength >= headerLength) {
        m_profile = h[2] >> 6;
        m_samplingFrequencyIndex = (h[2] >> 2) & 0x0F;
        m_channelConfiguration = ((h[2] & 1) << 2) | (h[3] >> 6);
        m_framePayloadStart = m_scanPosition + headerLength;
        m_frameEnd = m_scanPosition + frameLength;
        m_scanPosition = m_frameEnd;
        continue;
      }
    }
    ++m_scanPosition;
  }
}

// The last access unit runs to the end of the buffer (nothing is added for an empty one); a
// pending ADTS frame likewise takes everything after its header.
void Stream::OnEOF() {
  if (m_isVideo) {
    if (m_size > m_accessUnitStart) ranges.push_back({m_accessUnitStart, m_size, TakeTimestamp()});
    m_accessUnitStart = m_size;
  } else if (m_frameEnd >= 0) {
    ranges.push_back({std::min<int64_t>(m_framePayloadStart, m_size), m_size, PeekTimestamp()});
    m_framePayloadStart = m_frameEnd = -1;
  }
}

void Stream::AddTimestamp(int64_t pts) {
  if (!m_isVideo && !timestamps.empty()) timestamps.pop_front();
  timestamps.push_back(pts);
}

// A range closed with no time waiting (a PES without PTS, or with PTS and DTS, which gives none)
// gets kNoTimestamp.
int64_t Stream::TakeTimestamp() {
  if (timestamps.empty()) return kNoTimestamp;
  const int64_t pts = timestamps.front();
  timestamps.pop_front();
  return pts;
}

int64_t Stream::PeekTimestamp() const { return timestamps.empty() ? kNoTimestamp : timestamps.front(); }

void SetMpegTsDiagnostics(std::ostream* errors, std::ostream* warnings) {
  g_errors.store(errors);
  g_warnings.store(warnings);
}

// --- MpegTsDemuxer

MpegTsDemuxer::MpegTsDemuxer(bool psi) : m_psi(psi) {
  if (m_psi) {
    m_filters[kNullPid] = DemuxerEvents::Ignore;
    m_filters[0] = DemuxerEvents::PAT;
  }
}

bool MpegTsDemuxer::Error(const std::string& message) const {
  ErrorLine("PKT#" + std::to_string(m_packetCount) + message);
  return false;
}

void MpegTsDemuxer::Warning(const std::string& message) const {
  WarningLine("PKT#" + std::to_string(m_packetCount) + message);
}

bool MpegTsDemuxer::DecodePacket(const Packet& packet) {
  ++m_packetCount;
  PacketHeader header;
  size_t payload = 0;
  if (!ReadHeader(packet, header, payload)) return false;
  const auto filter = m_filters.find(header.pid);
  if (filter != m_filters.end()) {
    switch (filter->second) {
      case DemuxerEvents::PMT: return ReadPMT(packet, payload);
      case DemuxerEvents::PES: return ReadPES(packet, header, payload);
      case DemuxerEvents::PAT: return ReadPAT(packet, payload);
      case DemuxerEvents::Ignore: return true;
    }
    WarningLine("PID=" + std::to_string(header.pid) + " filtered but not handled.");
    return true;
  }
  // A PES on a PID that no table announced is taken up by its start code; anything else is skipped.
  if (header.payloadUnitStart && payload + 3 <= kPacketEnd && IsStartCode(packet.data + payload)) {
    return ReadPES(packet, header, payload);
  }
  return true;
}

bool MpegTsDemuxer::ReadHeader(const Packet& packet, PacketHeader& header, size_t& payloadStart) {
  const uint8_t* d = packet.data;
  if (d[0] != kSyncByte) return Error(" Sync byte not found.");
  header.transportError = (d[1] & 0x80) != 0;
  header.payloadUnitStart = (d[1] & 0x40) != 0;
  header.transportPriority = (d[1] & 0x20) != 0;
  header.pid = static_cast<uint16_t>(((d[1] & 0x1F) << 8) | d[2]);
  header.adaptationField = (d[3] & 0x20) != 0;
  header.payload = (d[3] & 0x10) != 0;
  header.continuityCounter = d[3] & 0x0F;
  payloadStart = 4;
  if (header.adaptationField) {
    payloadStart += 1 + size_t{d[4]};
    // 183 bytes of adaptation field fill the packet (no payload); more cannot be.
    if (payloadStart > kPacketEnd) return Error(" Adaptation field longer than the packet.");
  }
  return true;
}

bool MpegTsDemuxer::ReadPAT(const Packet& packet, size_t pos) {
  const uint8_t* d = packet.data;
  if (pos >= kPacketEnd) return Error(" PAT PSI not enough data.");
  pos += 1 + size_t{d[pos]};  // pointer field
  int sections = 0;
  do {
    if (pos >= kPacketEnd) return Error(" PAT PSI not enough data.");
    const uint8_t tableId = d[pos];
    if (tableId == kStuffing) return sections > 0 ? true : Error(" Empty PAT packet.");
    if (tableId != 0) return Error(" Expected PAT SECTION=0 found " + RawByte(tableId));
    if (pos + 1 >= kPacketEnd) return Error(" PAT PSI not enough data.");
    const uint8_t flags = d[pos + 1];
    if (!(flags & 0x80)) return Error(" PAT section syntax indicator not set.");
    if (flags & 0x40) return Error(" PAT private bit is set.");
    if ((flags & 0x30) != 0x30) return Error(" PAT PSI reserved bits not set.");
    if (pos + 2 >= kPacketEnd) return Error(" PAT PSI not enough data.");
    const size_t sectionLength = (size_t{flags & 3u} << 8) | d[pos + 2];
    pos += 3;
    // The section must end before the packet does: one reaching exactly to its last byte is refused.
    if (pos + sectionLength >= kPacketEnd) return Error(" PAT bad section length.");
    PacketSection section;
    if (!ReadSection(packet, pos, section)) return false;
    if (!ReadPrograms(packet, pos)) return false;
    pos += 4;  // CRC, not checked
    ++sections;
  } while (pos < kPacketEnd);
  return true;
}

bool MpegTsDemuxer::ReadSection(const Packet& packet, size_t& pos, PacketSection& section) {
  const uint8_t* d = packet.data;
  if (pos + 5 > kPacketEnd) return Error(" not enough data in PSI section.");
  section.tableIdExtension = static_cast<uint16_t>((d[pos] << 8) | d[pos + 1]);
  const uint8_t versionByte = d[pos + 2];
  if ((versionByte & 0xC0) != 0xC0) return Error(" Section reserved bits not set.");
  section.version = (versionByte >> 1) & 0x1F;
  section.currentNext = versionByte & 1;
  section.sectionNumber = d[pos + 3];
  section.lastSectionNumber = d[pos + 4];
  pos += 5;
  return true;
}

// The program entries are read up to the packet's end, not the section's: after the first one, an
// entry followed by 0xFF is taken for the CRC with the stuffing behind it, and ends the list.
bool MpegTsDemuxer::ReadPrograms(const Packet& packet, size_t& pos) {
  const uint8_t* d = packet.data;
  int programs = 0;
  while (pos + 4 <= kPacketEnd) {
    if (programs > 0 && pos + 4 < kPacketEnd && d[pos + 4] == kStuffing) break;
    if ((d[pos + 2] & 0xE0) != 0xE0) return Error(" PAT reserved bits not set.");
    const auto programNumber = static_cast<uint16_t>((d[pos] << 8) | d[pos + 1]);
    const auto pmtPid = static_cast<uint16_t>(((d[pos + 2] & 0x1F) << 8) | d[pos + 3]);
    RegisterProgram(programNumber, pmtPid);
    ++programs;
    pos += 4;
  }
  if (programs == 0) return Error(" PAT can't find programs.");
  return true;
}

void MpegTsDemuxer::RegisterProgram(uint16_t programNumber, uint16_t pmtPid) {
  const auto known = m_programs.find(programNumber);
  if (known != m_programs.end()) {
    if (known->second.pmtPid == pmtPid) return;
    Warning(" PROGRAM=" + std::to_string(programNumber) + " PMT=" + std::to_string(known->second.pmtPid) +
            " appeared with PMT=" + std::to_string(pmtPid));
    known->second.pmtPid = pmtPid;
  } else {
    m_programs[programNumber] = Program{programNumber, pmtPid};
  }
  m_filters.emplace(pmtPid, DemuxerEvents::PMT);  // a PID that has a filter keeps it
}

bool MpegTsDemuxer::ReadPMT(const Packet& packet, size_t pos) {
  const uint8_t* d = packet.data;
  if (pos >= kPacketEnd) return Error(" Not enough data in PMT table.");
  pos += 1 + size_t{d[pos]};  // pointer field
  int sections = 0;
  do {
    if (pos >= kPacketEnd) return Error(" Not enough data in PMT table.");
    const uint8_t tableId = d[pos];
    if (tableId == kStuffing) return sections > 0 ? true : Error(" No data in PMT table.");
    if (tableId != 2) {
      // Another table on a PMT PID is let pass.
      Warning("Expected PMT SECTION=2 found " + RawByte(tableId));
      return true;
    }
    if (pos + 1 >= kPacketEnd) return Error(" Not enough data in PMT table.");
    const uint8_t flags = d[pos + 1];
    if (!(flags & 0x80)) return Error(" PMT section syntax indicator not set.");
    if (flags & 0x40) return Error(" PMT private bit is set.");
    if ((flags & 0x30) != 0x30) return Error(" PMT PSI reserved bits not set.");
    if (pos + 2 >= kPacketEnd) return Error(" Not enough data in PMT table.");
    // The length's two high bits are shifted by 10, not 8: a PMT section that uses them is judged
    // four times longer than it is, and refused.
    const size_t sectionLength = (size_t{flags & 3u} << 10) | d[pos + 2];
    pos += 3;
    if (pos + sectionLength >= kPacketEnd) return Error(" PMT bad section length.");
    PacketSection section;
    if (!ReadSection(packet, pos, section)) return false;
    const uint16_t programNumber = section.tableIdExtension;
    if (m_programs.find(programNumber) == m_programs.end()) {
      return Error(" PMT references non existing PROGRAM=" + std::to_string(programNumber));
    }
    if (pos + 4 > kPacketEnd) return Error(" Not enough data in PMT table.");
    if (d[pos] < 0xE0) return Error(" PMT reserved bits not set.");  // before the PCR PID
    if ((d[pos + 2] & 0xF0) != 0xF0) return Error(" PMT reserved bits not set.");
    const size_t infoLength = (size_t{d[pos + 2] & 3u} << 8) | d[pos + 3];
    pos += 4;
    if (pos + infoLength >= kPacketEnd) return Error(" PMT bad program info length.");
    pos += infoLength;
    if (!ReadESD(packet, pos, programNumber)) return false;
    pos += 4;  // CRC, not checked
    ++sections;
  } while (pos < kPacketEnd);
  return true;
}

// Elementary stream entries (type, PID, info length, info), up to the packet's end; the CRC is
// recognised as for the program list, by the 0xFF at its fifth byte.
bool MpegTsDemuxer::ReadESD(const Packet& packet, size_t& pos, uint16_t programNumber) {
  const uint8_t* d = packet.data;
  int entries = 0;
  while (pos + 4 <= kPacketEnd) {
    if (pos + 4 < kPacketEnd && d[pos + 4] == kStuffing) {
      if (entries > 0) break;
      return Error(" Empty ESD section.");
    }
    if (pos + 5 > kPacketEnd) return Error(" ESD invalid info length.");
    const uint8_t streamType = d[pos];
    if (d[pos + 1] < 0xE0) return Error(" ESD reserved bits not set.");
    if ((d[pos + 3] & 0xF0) != 0xF0) return Error("ESD reserved bits not set.");
    const auto pid = static_cast<uint16_t>(((d[pos + 1] & 0x1F) << 8) | d[pos + 2]);
    const size_t infoLength = (size_t{d[pos + 3] & 3u} << 8) | d[pos + 4];
    pos += 5;
    if (pos + infoLength >= kPacketEnd) return Error(" ESD invalid info length.");
    pos += infoLength;
    ++entries;
    switch (streamType) {
      // MPEG-1/2 video, PES private data (read as HEVC), MPEG-4 part 2, H.264, HEVC.
      case 0x01:
      case 0x02:
      case 0x06:
      case 0x10:
      case 0x1B:
      case 0x24: RegisterStream(pid, programNumber, true, streamType); break;
      // MPEG-1/2 audio, AAC in ADTS, AC-3.
      case 0x03:
      case 0x04:
      case 0x0F:
      case 0x81: RegisterStream(pid, programNumber, false, streamType); break;
      default: break;  // other types are not played
    }
  }
  return true;
}

Stream* MpegTsDemuxer::RegisterStream(uint16_t pid, uint16_t programNumber, bool isVideo, uint8_t streamType) {
  const auto known = m_streams.find(pid);
  if (known != m_streams.end()) {
    Stream& stream = *known->second;
    if (stream.ProgramNumber() != programNumber && programNumber != kNoProgram) {
      Warning(" STREAM=" + std::to_string(pid) + " PROGRAM=" + std::to_string(stream.ProgramNumber()) +
              " appeared in PROGRAM=" + std::to_string(programNumber));
      stream.SetProgramNumber(programNumber);
    }
    return &stream;
  }
  if (m_streams.size() >= kMaxStreams) {
    // Ignored from now on, with one warning; a PID that has another filter keeps it.
    if (m_filters.emplace(pid, DemuxerEvents::Ignore).second) {
      Warning(" STREAM=" + std::to_string(pid) + " ignored: more than " + std::to_string(kMaxStreams) + " streams.");
    }
    return nullptr;
  }
  auto stream = std::make_unique<Stream>(kStreamCapacity, pid, programNumber, isVideo, streamType);
  Stream* added = stream.get();
  m_streams.emplace(pid, std::move(stream));
  m_filters[pid] = DemuxerEvents::PES;
  return added;
}

bool MpegTsDemuxer::ReadPES(const Packet& packet, const PacketHeader& header, size_t pos) {
  const uint8_t* d = packet.data;
  const uint16_t pid = header.pid;
  if (!header.payloadUnitStart) {
    // The rest of a PES begun in an earlier packet.
    const auto known = m_streams.find(pid);
    if (known == m_streams.end()) return Error(" Invalid STREAM=" + std::to_string(pid));
    return WriteToStream(*known->second, d + pos, d + kPacketEnd);
  }
  const std::string invalidLength = " PES Invalid length." + std::to_string(m_packetCount);
  if (pos + 3 > kPacketEnd || !IsStartCode(d + pos)) return Error(" Expected PES start sequence.");
  if (pos + 4 > kPacketEnd) return Error(invalidLength);
  const uint8_t streamId = d[pos + 3];
  const bool video = streamId >= 0xE0 && streamId <= 0xEF;
  const bool audio = streamId >= 0xC0 && streamId <= 0xDF;
  if (!video && !audio && streamId != 0xBD) {
    return Error(" Expected audio/video packets only. FOUND=" + Hex(streamId));
  }
  Stream* stream = nullptr;
  const auto known = m_streams.find(pid);
  if (known != m_streams.end()) {
    stream = known->second.get();
  } else {
    stream = RegisterStream(pid, kNoProgram, video, 0);
    if (!stream) return true;  // beyond the number of streams kept: ignored
  }
  // Start code and stream id, packet length (2), flags (2), header data length.
  if (pos + 9 > kPacketEnd) return Error(invalidLength);
  const uint8_t ptsDtsFlags = d[pos + 7] & 0xC0;
  const size_t headerLength = d[pos + 8];
  // Only a PES with a PTS alone gives a time; one with PTS and DTS gives none.
  if (ptsDtsFlags == 0x80) {
    if (pos + 14 > kPacketEnd) return Error(invalidLength);
    const uint8_t* t = d + pos + 9;
    if (t[0] & 0x20) {
      // Bits 31..0 of the 33-bit PTS, read as a signed 32-bit value: bit 32 is dropped and times
      // from 2^31 ticks (about 6.6 hours) on come out negative.
      const uint32_t low = (uint32_t{t[0] & 0x06u} << 29) | (uint32_t{t[1]} << 22) | ((uint32_t{t[2]} >> 1) << 15) |
                           (uint32_t{t[3]} << 7) | (uint32_t{t[4]} >> 1);
      const int64_t pts = (low & 0x80000000u) ? int64_t{low} - (int64_t{1} << 32) : int64_t{low};
      stream->AddTimestamp(pts);
    }
  }
  const size_t payload = pos + 9 + headerLength;
  if (payload >= kPacketEnd) return Error(invalidLength);
  return WriteToStream(*stream, d + payload, d + kPacketEnd);
}

bool MpegTsDemuxer::WriteToStream(Stream& stream, const uint8_t* begin, const uint8_t* end) {
  if (stream.Write(begin, end)) return true;
  return Error(" STREAM=" + std::to_string(stream.Pid()) + " is full: its buffer may not grow beyond " +
               std::to_string(kMaxStreamBuffer) + " bytes.");
}

void MpegTsDemuxer::OnEOF() {
  if (m_eof) return;
  for (auto& entry : m_streams) entry.second->OnEOF();
  m_eof = true;
}

// --- MpegTsBitStream

MpegTsBitStream::MpegTsBitStream(const std::string& path) {
  m_file = std::fopen(path.c_str(), "rb");
  if (!m_file) {
    ErrorLine("can't open file '" + path + "'");
    m_failed = true;
    return;
  }
  if (std::fseek(m_file, 0, SEEK_END) == 0) {
    const long size = std::ftell(m_file);
    if (size > 0)
      m_fileSize = static_cast<uint32_t>(std::min<unsigned long>(static_cast<unsigned long>(size), UINT32_MAX));
  }
  std::fseek(m_file, 0, SEEK_SET);
}

MpegTsBitStream::~MpegTsBitStream() {
  if (m_file) std::fclose(m_file);
}

void MpegTsBitStream::FillFileBuffer() {
  const uint32_t left = m_fileSize > m_consumed ? m_fileSize - m_consumed : 0;
  m_buffer.resize(std::min(kReadBufferSize, left));
  const size_t got = m_buffer.empty() ? 0 : std::fread(m_buffer.data(), 1, m_buffer.size(), m_file);
  m_buffer.resize(got);
  m_consumed += static_cast<uint32_t>(got);
  m_position = 0;
  if (got == 0) m_endOfData = true;
}

bool MpegTsBitStream::GetPacket(Packet& packet) {
  if (!m_file || m_endOfData || m_failed) return false;
  size_t copied = 0;
  while (copied < kTsPacketSize) {
    if (m_position >= m_buffer.size()) {
      FillFileBuffer();
      if (m_buffer.empty()) {
        if (copied > 0) {
          ErrorLine("Expected " + std::to_string(kTsPacketSize) + " bytes, found " + std::to_string(copied));
          m_failed = true;
        }
        return false;
      }
    }
    const size_t n = std::min(kTsPacketSize - copied, m_buffer.size() - m_position);
    std::memcpy(packet.data + copied, m_buffer.data() + m_position, n);
    m_position += n;
    if (copied == 0 && packet.data[0] != kSyncByte) {
      // No resynchronisation: the file is given up.
      ErrorLine("Sync byte not found.");
      m_failed = true;
      return false;
    }
    copied += n;
  }
  return true;
}
