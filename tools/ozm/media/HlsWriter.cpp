#include "tools/ozm/media/HlsWriter.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace OzmTool {
namespace {

namespace fs = std::filesystem;

constexpr int kSegmentDigits = 5;

std::string SegmentPath(const std::string& prefix, int number) {
  char digits[16];
  std::snprintf(digits, sizeof(digits), "%0*d.ts", kSegmentDigits, number);
  return prefix + digits;
}

// A literal '%' in a name given to the muxer's file name template.
std::string EscapePercent(const std::string& s) {
  std::string out;
  for (char c : s) {
    out += c;
    if (c == '%') out += '%';
  }
  return out;
}

}  // namespace

HlsWriter::HlsWriter(const std::string& playlist, const AVCodecContext* video, double segmentSeconds,
                     const AVCodecContext* audio)
    : m_path(playlist), m_encoderTimeBase(video->time_base) {
  const fs::path path(playlist);
  const fs::path folder = path.parent_path().empty() ? fs::path(".") : path.parent_path();
  std::error_code ec;
  if (!fs::is_directory(folder, ec)) throw ToolError("cannot write " + playlist + ": no folder " + folder.string());
  m_segmentPrefix = (path.parent_path() / path.stem()).string() + "_";

  AVFormatContext* raw = nullptr;
  Av::Check(avformat_alloc_output_context2(&raw, nullptr, "hls", playlist.c_str()), "cannot make an HLS muxer");
  m_output.reset(raw);
  AVStream* stream = avformat_new_stream(raw, nullptr);
  if (!stream) throw ToolError("out of memory (HLS track)");
  Av::Check(avcodec_parameters_from_context(stream->codecpar, video), "HLS track parameters");
  stream->time_base = video->time_base;
  stream->avg_frame_rate = video->framerate;
  if (audio) {
    AVStream* sound = avformat_new_stream(raw, nullptr);
    if (!sound) throw ToolError("out of memory (HLS track)");
    Av::Check(avcodec_parameters_from_context(sound->codecpar, audio), "HLS audio track parameters");
    sound->time_base = audio->time_base;
    m_audioTimeBase = audio->time_base;
  }

  AVDictionary* options = nullptr;
  // The muxer cuts at the first key frame at or after each multiple of hls_time; Write() passes on
  // the key-frame mark only at segment starts, and a threshold half a frame short of the segment
  // length makes every one of them cut, whatever the rounding of the timestamps.
  const double halfFrame = 0.5 * av_q2d(video->time_base);
  char seconds[32];
  std::snprintf(seconds, sizeof(seconds), "%.6f", segmentSeconds > halfFrame ? segmentSeconds - halfFrame : halfFrame);
  av_dict_set(&options, "hls_time", seconds, 0);
  av_dict_set(&options, "hls_list_size", "0", 0);  // every segment stays listed
  av_dict_set(&options, "hls_playlist_type", "vod", 0);
  av_dict_set(&options, "hls_segment_type", "mpegts", 0);
  av_dict_set(&options, "hls_flags", "independent_segments", 0);
  const std::string pattern = EscapePercent(m_segmentPrefix) + "%0" + std::to_string(kSegmentDigits) + "d.ts";
  av_dict_set(&options, "hls_segment_filename", pattern.c_str(), 0);
  const int written = avformat_write_header(raw, &options);
  av_dict_free(&options);
  if (written < 0) {
    m_output.reset();
    RemoveOutput();
    throw ToolError("cannot write the HLS stream " + playlist + ": " + Av::ErrorText(written));
  }
}

HlsWriter::~HlsWriter() {
  // An unfinished stream (an error on the way) is incomplete: remove it rather than leave it
  // looking valid.
  if (!m_finished && m_output) {
    m_output.reset();
    RemoveOutput();
  }
}

void HlsWriter::RemoveOutput() const {
  std::error_code ec;
  fs::remove(m_path, ec);
  fs::remove(m_path + ".tmp", ec);
  for (int i = 0; fs::remove(SegmentPath(m_segmentPrefix, i), ec); ++i) {
  }
}

void HlsWriter::Write(AVPacket* packet, bool segmentStart) {
  const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
  if (segmentStart && !key) throw ToolError("an HLS segment would start without a key frame");
  // Key frames inside a segment are still IDR pictures with mesh key frames; only the muxer is not
  // told, so that it cuts nowhere else.
  if (!segmentStart) packet->flags &= ~AV_PKT_FLAG_KEY;
  AVStream* stream = m_output->streams[0];
  av_packet_rescale_ts(packet, m_encoderTimeBase, stream->time_base);
  packet->stream_index = 0;
  Av::Check(av_write_frame(m_output.get(), packet), "cannot write a packet to " + m_path);
}

void HlsWriter::WriteAudio(AVPacket* packet) {
  if (m_output->nb_streams < 2) throw ToolError(m_path + " has no audio track");
  AVStream* stream = m_output->streams[1];
  av_packet_rescale_ts(packet, m_audioTimeBase, stream->time_base);
  packet->stream_index = 1;
  Av::Check(av_write_frame(m_output.get(), packet), "cannot write audio to " + m_path);
}

void HlsWriter::Finish() {
  Av::Check(av_write_trailer(m_output.get()), "cannot finish " + m_path);
  m_output.reset();
  m_finished = true;
  // The segments as the playlist lists them, relative to its folder. The muxer rounds the target
  // duration to the nearest second, which makes it 0 for segments under half a second; players
  // expect at least 1, which still covers every segment.
  std::ifstream in(m_path);
  if (!in) throw ToolError("the HLS muxer wrote no playlist " + m_path);
  const fs::path folder = fs::path(m_path).parent_path();
  std::string text, line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line == "#EXT-X-TARGETDURATION:0") line = "#EXT-X-TARGETDURATION:1";
    if (!line.empty() && line[0] != '#') m_segments.push_back((folder / line).string());
    text += line + '\n';
  }
  in.close();
  if (m_segments.empty()) throw ToolError(m_path + ": the muxer listed no segments");
  std::ofstream out(m_path, std::ios::trunc);
  out << text;
  if (!out.flush()) throw ToolError("cannot write " + m_path);
}

}  // namespace OzmTool
