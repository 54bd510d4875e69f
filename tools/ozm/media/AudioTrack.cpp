#include "tools/ozm/media/AudioTrack.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

namespace OzmTool {
namespace {

constexpr int kFallbackRate = 48000;
constexpr double kPi = 3.14159265358979323846;

struct SwrFree {
  void operator()(SwrContext* s) const { swr_free(&s); }
};
using SwrPtr = std::unique_ptr<SwrContext, SwrFree>;

const AVCodec* AacEncoder() {
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (!codec) throw ToolError("this FFmpeg has no AAC encoder");
  return codec;
}

// The input's rate when the encoder takes it, else 48 kHz.
int RateFor(int inputRate) {
  const int* rates = AacEncoder()->supported_samplerates;
  if (!rates) return inputRate > 0 ? inputRate : kFallbackRate;
  for (; *rates; ++rates) {
    if (*rates == inputRate) return inputRate;
  }
  return kFallbackRate;
}

}  // namespace

AudioTrack::AudioTrack(int sampleRate, int channels, double seconds)
    : m_limit(std::llround(seconds * sampleRate)), m_packet(Av::NewPacket()) {
  const AVCodec* codec = AacEncoder();
  m_encoder.reset(avcodec_alloc_context3(codec));
  if (!m_encoder) throw ToolError("out of memory (audio encoder)");
  AVCodecContext* c = m_encoder.get();
  c->sample_fmt = AV_SAMPLE_FMT_FLTP;
  c->sample_rate = sampleRate;
  av_channel_layout_default(&c->ch_layout, channels);
  c->bit_rate = channels == 1 ? 64000 : 128000;
  c->time_base = AVRational{1, sampleRate};
  // The AAC configuration in the extradata: the MP4 sample description needs it, and the
  // transport-stream muxer builds the ADTS headers from it.
  c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  Av::Check(avcodec_open2(c, codec, nullptr), "cannot open the AAC encoder");
  m_frame = Av::NewFrame();
  m_frame->format = c->sample_fmt;
  m_frame->nb_samples = c->frame_size;
  m_frame->sample_rate = sampleRate;
  Av::Check(av_channel_layout_copy(&m_frame->ch_layout, &c->ch_layout), "audio frame");
  Av::Check(av_frame_get_buffer(m_frame.get(), 0), "audio frame");
}

uint64_t AudioTrack::Bytes() const {
  uint64_t bytes = 0;
  for (const Av::PacketPtr& p : m_packets) bytes += static_cast<uint64_t>(p->size);
  return bytes;
}

bool AudioTrack::Add(const float* const* planes, int count) {
  const int channels = Channels();
  int at = 0;
  while (at < count && m_samples < m_limit) {
    if (m_filled == 0) Av::Check(av_frame_make_writable(m_frame.get()), "audio frame");
    const int take =
        static_cast<int>(std::min<int64_t>({count - at, m_encoder->frame_size - m_filled, m_limit - m_samples}));
    for (int ch = 0; ch < channels; ++ch) {
      std::copy(planes[ch] + at, planes[ch] + at + take, reinterpret_cast<float*>(m_frame->data[ch]) + m_filled);
    }
    at += take;
    m_filled += take;
    m_samples += take;
    if (m_filled == m_encoder->frame_size) EncodeFrame(m_filled);
  }
  return m_samples < m_limit;
}

void AudioTrack::EncodeFrame(int count) {
  // The last frame may be short: the encoder marks the packet's duration accordingly.
  m_frame->nb_samples = count;
  m_frame->pts = m_samples - count;
  Av::Check(avcodec_send_frame(m_encoder.get(), m_frame.get()), "cannot encode audio");
  m_filled = 0;
  Drain();
}

void AudioTrack::Drain() {
  for (;;) {
    const int got = avcodec_receive_packet(m_encoder.get(), m_packet.get());
    if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return;
    Av::Check(got, "cannot encode audio");
    Av::PacketPtr out = Av::NewPacket();
    av_packet_move_ref(out.get(), m_packet.get());
    m_packets.push_back(std::move(out));
  }
}

void AudioTrack::Finish() {
  if (m_filled > 0) EncodeFrame(m_filled);
  Av::Check(avcodec_send_frame(m_encoder.get(), nullptr), "cannot encode audio");
  Drain();
}

AudioTrack AudioTrack::Beeps(double seconds) {
  AudioTrack track(kFallbackRate, 1, seconds);
  const int rate = kFallbackRate;
  const int beep = rate / 10, fade = rate / 200;  // 100 ms, faded in and out over 5 ms
  std::vector<float> block(static_cast<size_t>(rate));
  for (int i = 0; i < beep; ++i) {
    const float envelope = std::min({1.0f, static_cast<float>(i) / fade, static_cast<float>(beep - i) / fade});
    block[static_cast<size_t>(i)] = 0.5f * envelope * static_cast<float>(std::sin(2 * kPi * 1000.0 * i / rate));
  }
  const float* planes[1] = {block.data()};
  while (track.Add(planes, rate)) {
  }
  track.Finish();
  return track;
}

AudioTrack AudioTrack::FromFile(const std::string& path, double seconds) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) throw ToolError("audio input " + path + " does not exist");
  Av::InputPtr input;
  try {
    input = Av::OpenInput(path);
  } catch (const ToolError& e) {
    throw ToolError(std::string("audio input: ") + e.what());
  }
  const AVCodec* codec = nullptr;
  const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  if (stream < 0 || !codec) throw ToolError(path + ": no audio in this file");
  Av::CodecPtr decoder(avcodec_alloc_context3(codec));
  if (!decoder) throw ToolError("out of memory (audio decoder)");
  Av::Check(avcodec_parameters_to_context(decoder.get(), input->streams[stream]->codecpar),
            path + ": audio decoder parameters");
  Av::Check(avcodec_open2(decoder.get(), codec, nullptr), path + ": cannot open the " + codec->name + " decoder");
  if (decoder->sample_rate <= 0 || decoder->ch_layout.nb_channels <= 0) {
    throw ToolError(path + ": the audio has no sample rate or no channels");
  }

  const int channels = decoder->ch_layout.nb_channels == 1 ? 1 : 2;
  AudioTrack track(RateFor(decoder->sample_rate), channels, seconds);
  SwrPtr swr;
  AVChannelLayout inLayout{};
  // Converts a decoded frame (or the resampler's tail, for null) into the track.
  std::vector<std::vector<float>> converted(static_cast<size_t>(channels));
  auto convert = [&](const AVFrame* frame) {
    const int inCount = frame ? frame->nb_samples : 0;
    const int room = swr_get_out_samples(swr.get(), inCount);
    if (room < 0) Av::Check(room, path + ": cannot resample the audio");
    float* planes[2] = {nullptr, nullptr};
    for (int ch = 0; ch < channels; ++ch) {
      converted[static_cast<size_t>(ch)].resize(static_cast<size_t>(std::max(room, 1)));
      planes[ch] = converted[static_cast<size_t>(ch)].data();
    }
    const int made = swr_convert(swr.get(), reinterpret_cast<uint8_t**>(planes), room,
                                 frame ? const_cast<const uint8_t**>(frame->extended_data) : nullptr, inCount);
    Av::Check(made, path + ": cannot resample the audio");
    return track.Add(planes, made);
  };
  // The resampler follows the decoded frames' format, which a stream may change on the way.
  auto setUp = [&](const AVFrame* frame) {
    AVChannelLayout layout{};
    const AVChannelOrder order = frame->ch_layout.order;
    const bool known =
        order == AV_CHANNEL_ORDER_NATIVE || order == AV_CHANNEL_ORDER_CUSTOM || order == AV_CHANNEL_ORDER_AMBISONIC;
    // Only a channel count: the usual layout for it.
    if (!known || frame->ch_layout.nb_channels <= 0) {
      av_channel_layout_default(
          &layout, frame->ch_layout.nb_channels > 0 ? frame->ch_layout.nb_channels : decoder->ch_layout.nb_channels);
    } else {
      Av::Check(av_channel_layout_copy(&layout, &frame->ch_layout), "audio layout");
    }
    if (swr && av_channel_layout_compare(&layout, &inLayout) == 0) {
      av_channel_layout_uninit(&layout);
      return;
    }
    if (swr) convert(nullptr);  // what the old resampler still holds
    av_channel_layout_uninit(&inLayout);
    inLayout = layout;
    SwrContext* raw = nullptr;
    Av::Check(swr_alloc_set_opts2(&raw, &track.m_encoder->ch_layout, AV_SAMPLE_FMT_FLTP, track.SampleRate(), &inLayout,
                                  static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr),
              path + ": cannot resample the audio");
    swr.reset(raw);
    Av::Check(swr_init(raw), path + ": cannot resample the audio from " + std::to_string(frame->sample_rate) + " Hz");
  };

  Av::PacketPtr packet = Av::NewPacket();
  Av::FramePtr frame = Av::NewFrame();
  bool more = true, flushed = false;
  int decoded = 0;
  while (more) {
    const int got = avcodec_receive_frame(decoder.get(), frame.get());
    if (got == 0) {
      ++decoded;
      setUp(frame.get());
      more = convert(frame.get());
      av_frame_unref(frame.get());
      continue;
    }
    if (got == AVERROR_EOF) break;
    if (got != AVERROR(EAGAIN)) Av::Check(got, path + ": cannot decode the audio");
    if (flushed) break;
    int read;
    while ((read = av_read_frame(input.get(), packet.get())) >= 0 && packet->stream_index != stream) {
      av_packet_unref(packet.get());
    }
    if (read < 0) {
      if (read != AVERROR_EOF) Av::Check(read, path + ": cannot read");
      flushed = true;
      Av::Check(avcodec_send_packet(decoder.get(), nullptr), path + ": audio decoder");
    } else {
      const int sent = avcodec_send_packet(decoder.get(), packet.get());
      av_packet_unref(packet.get());
      // A damaged packet loses its samples, not the track.
      if (sent < 0 && sent != AVERROR_INVALIDDATA) Av::Check(sent, path + ": cannot decode the audio");
    }
  }
  if (more && swr) convert(nullptr);
  av_channel_layout_uninit(&inLayout);
  if (decoded == 0) throw ToolError(path + ": no audio could be decoded");
  track.Finish();
  return track;
}

}  // namespace OzmTool
