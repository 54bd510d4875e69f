// Transport-stream bytes of any content, cut into 188-byte packets (a short tail is padded with
// stuffing) and demultiplexed twice: following the program tables, and by PES start codes alone.
// Whatever the packets say, every sample range must lie inside its stream's buffer, video ranges
// must follow one another, and the number of streams and their buffers stay within their limits.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>

#include "fuzz/FuzzSupport.h"
#include "input/MpegTsDemuxer.h"

namespace {

void CheckStreams(const MpegTsDemuxer& demuxer) {
  FUZZ_CHECK(demuxer.Streams().size() <= kMaxStreams);
  for (const auto& entry : demuxer.Streams()) {
    const Stream& s = *entry.second;
    FUZZ_CHECK(s.Pid() == entry.first);
    FUZZ_CHECK(s.Size() <= s.Capacity() && s.Capacity() <= kMaxStreamBuffer);
    int64_t previousEnd = 0;
    for (const SampleRange& r : s.ranges) {
      FUZZ_CHECK(0 <= r.start && r.start <= r.end && r.end <= int64_t{s.Size()});
      if (s.IsVideo()) {
        FUZZ_CHECK(r.start == previousEnd);
        previousEnd = r.end;
      }
    }
  }
}

void Demux(const uint8_t* data, size_t size, bool psi) {
  MpegTsDemuxer demuxer(psi);
  Packet packet;
  for (size_t at = 0; at < size; at += kTsPacketSize) {
    const size_t n = size - at < kTsPacketSize ? size - at : kTsPacketSize;
    std::memset(packet.data, 0xFF, kTsPacketSize);
    std::memcpy(packet.data, data + at, n);
    demuxer.DecodePacket(packet);
  }
  CheckStreams(demuxer);
  demuxer.OnEOF();
  FUZZ_CHECK(demuxer.IsEOF());
  CheckStreams(demuxer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Rejections are written as text lines; while fuzzing they are noise.
  static std::ostream discard(nullptr);
  static const bool silenced = [] {
    SetMpegTsDiagnostics(&discard, &discard);
    return true;
  }();
  (void)silenced;
  Demux(data, size, true);
  Demux(data, size, false);
  return 0;
}
