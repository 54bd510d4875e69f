// Demultiplexing speed of a transport-stream segment against libavformat.
//
//   MpegTs/Demux/Ours         MpegTsDemuxer::DecodePacket on every 188-byte packet of the segment,
//                             then OnEOF and every sample range popped, as the HLS reader does
//   MpegTs/Demux/libavformat  its MPEG-TS demuxer over the same bytes in memory (an AVIOContext
//                             over the buffer, format given, no stream-info probing), every packet
//                             read with av_read_frame; its parsers cut the video into access units
//                             and the audio into ADTS frames, as ours does
//
// The segment, about 6 MB (4 s of 1920x1080 H.264 testsrc2 at 12 Mbit/s with access-unit
// delimiters, and 128 kbit/s AAC), is made once with the ffmpeg program into build/bench-data/
// ($OZM_BENCH_DATA_DIR overrides it). Both read it from memory; the time per segment is CPU time,
// with MB/s as bytes_per_second. Goal: ours at least as fast as libavformat.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/Results.h"
#include "input/MpegTsDemuxer.h"
#include "tools/ozm/media/Av.h"

namespace OzmBench {
namespace {

const char* const kOurs = "MpegTs/Demux/Ours";
const char* const kPeer = "MpegTs/Demux/libavformat";
constexpr double kMinRatio = 1.0;
constexpr const char* kSegmentName = "mpegts-1080p-h264-aac-12M-4s.ts";

std::string BenchDataFolder() {
  const char* env = std::getenv("OZM_BENCH_DATA_DIR");
  return env && *env ? env : OZM_BENCH_DATA_DIR;
}

// The segment's bytes, made on first use; empty with `error` set when it cannot be.
const std::vector<uint8_t>& Segment(std::string* error) {
  static std::vector<uint8_t> bytes;
  static std::string failure;
  if (bytes.empty() && failure.empty()) {
    namespace fs = std::filesystem;
    const fs::path folder = BenchDataFolder();
    const fs::path path = folder / kSegmentName;
    if (!fs::exists(path)) {
      std::error_code ec;
      fs::create_directories(folder, ec);
      const fs::path part = folder / (std::string(kSegmentName) + ".part");
      const std::string command =
          "ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc2=size=1920x1080:rate=30 "
          "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 4 -map 0:v -map 1:a "
          "-c:v libx264 -preset ultrafast -b:v 12M -maxrate 12M -bufsize 4M -pix_fmt yuv420p "
          "-x264-params aud=1:keyint=30 -c:a aac -b:a 128k -f mpegts '" +
          part.string() + "'";
      if (std::system(command.c_str()) != 0) {
        failure = "ffmpeg could not make the segment: " + command;
      } else {
        fs::rename(part, path, ec);
        if (ec) failure = "cannot rename " + part.string();
      }
    }
    if (failure.empty()) {
      std::ifstream in(path, std::ios::binary);
      bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      if (bytes.size() < kTsPacketSize) failure = "cannot read " + path.string();
    }
  }
  if (error) *error = failure;
  return bytes;
}

void SetCounters(benchmark::State& state, size_t bytes, int64_t video, int64_t audio) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
  state.counters["frames"] = 1;  // one segment an iteration
  state.counters["bytes"] = static_cast<double>(bytes);
  state.counters["video_units"] = static_cast<double>(video);
  state.counters["audio_frames"] = static_cast<double>(audio);
}

void Ours(benchmark::State& state) {
  std::string error;
  const std::vector<uint8_t>& bytes = Segment(&error);
  if (!error.empty()) return state.SkipWithError(error.c_str());
  // The packets as the reader holds them, one copy made before timing.
  std::vector<Packet> packets(bytes.size() / kTsPacketSize);
  std::memcpy(packets.data(), bytes.data(), packets.size() * kTsPacketSize);
  int64_t video = 0, audio = 0;
  for (auto _ : state) {
    video = audio = 0;
    MpegTsDemuxer demuxer(true);
    for (const Packet& p : packets) demuxer.DecodePacket(p);
    demuxer.OnEOF();
    for (const auto& entry : demuxer.Streams()) {
      Stream& s = *entry.second;
      int64_t& count = s.IsVideo() ? video : audio;
      while (!s.ranges.empty()) {
        benchmark::DoNotOptimize(s.Data() + s.ranges.front().start);
        s.ranges.pop_front();
        ++count;
      }
    }
  }
  SetCounters(state, bytes.size(), video, audio);
}

struct MemoryReader {
  const uint8_t* data;
  size_t size;
  size_t position = 0;
};

int ReadMemory(void* opaque, uint8_t* buffer, int capacity) {
  auto* r = static_cast<MemoryReader*>(opaque);
  const size_t n = std::min(static_cast<size_t>(capacity), r->size - r->position);
  if (n == 0) return AVERROR_EOF;
  std::memcpy(buffer, r->data + r->position, n);
  r->position += n;
  return static_cast<int>(n);
}

void LibAvFormat(benchmark::State& state) {
  std::string error;
  const std::vector<uint8_t>& bytes = Segment(&error);
  if (!error.empty()) return state.SkipWithError(error.c_str());
  OzmTool::Av::QuietLibraryLogs();
  const AVInputFormat* format = av_find_input_format("mpegts");
  if (!format) return state.SkipWithError("libavformat has no mpegts demuxer");
  int64_t video = 0, audio = 0;
  for (auto _ : state) {
    video = audio = 0;
    MemoryReader reader{bytes.data(), bytes.size()};
    constexpr int kIoBuffer = 64 * 1024;
    auto* ioBuffer = static_cast<uint8_t*>(av_malloc(kIoBuffer));
    AVIOContext* io = avio_alloc_context(ioBuffer, kIoBuffer, 0, &reader, ReadMemory, nullptr, nullptr);
    AVFormatContext* context = avformat_alloc_context();
    context->pb = io;
    context->flags |= AVFMT_FLAG_CUSTOM_IO;
    if (avformat_open_input(&context, nullptr, format, nullptr) < 0) {
      av_freep(&io->buffer);
      avio_context_free(&io);
      return state.SkipWithError("libavformat cannot open the segment");
    }
    OzmTool::Av::PacketPtr packet(av_packet_alloc());
    while (av_read_frame(context, packet.get()) >= 0) {
      const AVMediaType type = context->streams[packet->stream_index]->codecpar->codec_type;
      if (type == AVMEDIA_TYPE_VIDEO) ++video;
      if (type == AVMEDIA_TYPE_AUDIO) ++audio;
      benchmark::DoNotOptimize(packet->data);
      av_packet_unref(packet.get());
    }
    avformat_close_input(&context);
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
  SetCounters(state, bytes.size(), video, audio);
}

// Registered with the other families at start-up; the segment is made only when one of them runs.
[[maybe_unused]] const bool kRegistered = [] {
  benchmark::RegisterBenchmark(kOurs, Ours)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark(kPeer, LibAvFormat)->Unit(benchmark::kMillisecond);
  AddComparison({"transport stream, 6 MB segment", "MpegTsDemuxer", kOurs, "libavformat mpegts", kPeer});
  AddGoal([](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
    const Measured* ours = Find(runs, kOurs);
    const Measured* peer = Find(runs, kPeer);
    if (!ours || !peer) return std::nullopt;
    const double ratio = peer->NsPerFrame() / ours->NsPerFrame();  // = our MB/s over theirs
    return nlohmann::json{{"goal", "transport-stream demultiplexing >= libavformat's speed"},
                          {"subject", "6 MB 1080p H.264 + AAC segment"},
                          {"measured", ratio},
                          {"unit", "x"},
                          {"target", ">= 1 x"},
                          {"met", ratio >= kMinRatio},
                          {"ours_MB_per_s", ours->Counter("bytes_per_second") / 1e6},
                          {"libavformat_MB_per_s", peer->Counter("bytes_per_second") / 1e6}};
  });
  return true;
}();

}  // namespace
}  // namespace OzmBench
