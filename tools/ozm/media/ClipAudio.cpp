#include "tools/ozm/media/ClipAudio.h"

#include <algorithm>
#include <chrono>

namespace OzmTool {
namespace {

// Reading a stream (an HLS playlist over http) is given up after this long.
constexpr double kReadSeconds = 60;

struct Deadline {
  std::chrono::steady_clock::time_point at;
};

int PastDeadline(void* opaque) { return std::chrono::steady_clock::now() > static_cast<Deadline*>(opaque)->at ? 1 : 0; }

int64_t TimeOf(const AVPacket* packet) { return packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts; }

}  // namespace

std::unique_ptr<ClipAudio> ClipAudio::Load(const std::string& path) {
  Deadline deadline{std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                           std::chrono::duration<double>(kReadSeconds))};
  AVFormatContext* raw = avformat_alloc_context();
  if (!raw) throw ToolError("out of memory (reading " + path + ")");
  raw->interrupt_callback.callback = &PastDeadline;
  raw->interrupt_callback.opaque = &deadline;
  const int opened = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
  if (opened < 0) throw ToolError("cannot read the audio of " + path + ": " + Av::ErrorText(opened));
  Av::InputPtr input(raw);
  Av::Check(avformat_find_stream_info(raw, nullptr), "cannot read the audio of " + path);
  const int audioIndex = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  if (audioIndex < 0) return nullptr;
  const int videoIndex = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (videoIndex < 0) throw ToolError(path + " has no video track");
  const AVStream* audio = raw->streams[audioIndex];
  const AVStream* video = raw->streams[videoIndex];

  std::unique_ptr<ClipAudio> clip(new ClipAudio);
  clip->m_timeBase = audio->time_base;

  // AAC from a transport stream comes with ADTS headers, which an MP4 track keeps in its sample
  // description instead; the filter moves them there (and passes packets without them unchanged).
  Av::BsfPtr filter;
  if (audio->codecpar->codec_id == AV_CODEC_ID_AAC) {
    const AVBitStreamFilter* adts = av_bsf_get_by_name("aac_adtstoasc");
    if (!adts) throw ToolError("this FFmpeg has no aac_adtstoasc filter");
    AVBSFContext* bsf = nullptr;
    Av::Check(av_bsf_alloc(adts, &bsf), "audio filter");
    filter.reset(bsf);
    Av::Check(avcodec_parameters_copy(bsf->par_in, audio->codecpar), "audio filter");
    bsf->time_base_in = audio->time_base;
    Av::Check(av_bsf_init(bsf), "audio filter");
  }

  Av::PacketPtr packet = Av::NewPacket();
  auto keep = [&](AVPacket* p) {
    av_packet_free_side_data(p);
    Av::PacketPtr copy = Av::NewPacket();
    Av::Check(av_packet_ref(copy.get(), p), "audio packet");
    clip->m_packets.push_back(std::move(copy));
  };
  auto drain = [&] {
    for (;;) {
      const int got = av_bsf_receive_packet(filter.get(), packet.get());
      if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return;
      Av::Check(got, "audio filter");
      keep(packet.get());
      av_packet_unref(packet.get());
    }
  };
  for (;;) {
    const int read = av_read_frame(raw, packet.get());
    if (read == AVERROR_EOF) break;
    if (read < 0) {
      if (PastDeadline(&deadline)) {
        throw ToolError("reading the audio of " + path + " took longer than " +
                        std::to_string(static_cast<int>(kReadSeconds)) + " s");
      }
      throw ToolError("cannot read the audio of " + path + ": " + Av::ErrorText(read));
    }
    if (packet->stream_index == videoIndex && TimeOf(packet.get()) != AV_NOPTS_VALUE) {
      clip->m_videoTimes.push_back(av_rescale_q(TimeOf(packet.get()), video->time_base, clip->m_timeBase));
    } else if (packet->stream_index == audioIndex && TimeOf(packet.get()) != AV_NOPTS_VALUE) {
      if (filter) {
        Av::Check(av_bsf_send_packet(filter.get(), packet.get()), "audio filter");
        drain();
      } else {
        keep(packet.get());
      }
    }
    av_packet_unref(packet.get());
  }
  if (filter) {
    Av::Check(av_bsf_send_packet(filter.get(), nullptr), "audio filter");
    drain();
  }
  if (clip->m_packets.empty()) return nullptr;
  if (clip->m_videoTimes.empty()) throw ToolError(path + " has no video frames");

  AVCodecParameters* parameters = avcodec_parameters_alloc();
  if (!parameters) throw ToolError("out of memory (audio parameters)");
  clip->m_parameters.reset(parameters);
  Av::Check(avcodec_parameters_copy(parameters, filter ? filter->par_out : audio->codecpar), "audio parameters");
  parameters->codec_tag = 0;

  std::stable_sort(clip->m_packets.begin(), clip->m_packets.end(),
                   [](const Av::PacketPtr& a, const Av::PacketPtr& b) { return TimeOf(a.get()) < TimeOf(b.get()); });
  const size_t n = clip->m_videoTimes.size();
  if (n >= 2) {
    clip->m_frameTicks = clip->m_videoTimes[n - 1] - clip->m_videoTimes[n - 2];
  } else if (video->avg_frame_rate.num > 0) {
    clip->m_frameTicks = av_rescale_q(1, av_inv_q(video->avg_frame_rate), clip->m_timeBase);
  }
  if (clip->m_frameTicks <= 0) clip->m_frameTicks = av_rescale_q(1, AVRational{1, 30}, clip->m_timeBase);
  return clip;
}

std::string ClipAudio::Description() const {
  const char* name = avcodec_get_name(m_parameters->codec_id);
  std::string text = name ? name : "audio";
  if (text == "aac") text = "AAC";
  text += ", " + std::to_string(m_parameters->sample_rate) + " Hz";
  const int channels = m_parameters->ch_layout.nb_channels;
  text += channels == 1 ? ", mono" : channels == 2 ? ", stereo" : ", " + std::to_string(channels) + " channels";
  return text;
}

void ClipAudio::Follow(int64_t output, int64_t clipFrame, int fps, const std::function<void(AVPacket*)>& write) {
  if (clipFrame < 0 || clipFrame >= VideoFrames() || fps <= 0) return;
  const size_t c = static_cast<size_t>(clipFrame);
  const int64_t start = m_videoTimes[c];
  const int64_t end = c + 1 < m_videoTimes.size() ? m_videoTimes[c + 1] : start + m_frameTicks;
  if (!m_inRun || clipFrame != m_lastClipFrame + 1) {
    m_offset = av_rescale_q(output, AVRational{1, fps}, m_timeBase) - start;
    m_cursor = 0;
    if (clipFrame > 0) {
      m_cursor = static_cast<size_t>(
          std::lower_bound(m_packets.begin(), m_packets.end(), start,
                           [](const Av::PacketPtr& p, int64_t time) { return TimeOf(p.get()) < time; }) -
          m_packets.begin());
    }
    m_inRun = true;
  }
  m_lastClipFrame = clipFrame;
  Av::PacketPtr copy = Av::NewPacket();
  for (; m_cursor < m_packets.size() && TimeOf(m_packets[m_cursor].get()) < end; ++m_cursor) {
    const int64_t at = TimeOf(m_packets[m_cursor].get()) + m_offset;
    // Where runs meet, a packet that would not come after the last one written is left out.
    if (m_anyWritten && at <= m_lastWritten) continue;
    Av::Check(av_packet_ref(copy.get(), m_packets[m_cursor].get()), "audio packet");
    copy->pts = copy->dts = at;
    copy->stream_index = 0;
    write(copy.get());
    av_packet_unref(copy.get());
    m_anyWritten = true;
    m_lastWritten = at;
    ++m_written;
  }
}

}  // namespace OzmTool
