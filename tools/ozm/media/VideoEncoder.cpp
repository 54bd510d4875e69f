#include "tools/ozm/media/VideoEncoder.h"

namespace OzmTool {

VideoEncoder::VideoEncoder(const VideoSettings& s) : m_settings(s), m_packet(Av::NewPacket()) {
  const char* name = s.codec == VideoCodec::H264 ? "libx264" : "libx265";
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  if (!codec) throw ToolError(std::string("this FFmpeg has no ") + name + " encoder");
  if (s.width <= 0 || s.height <= 0 || s.width % 2 || s.height % 2) {
    throw ToolError("the texture size must be positive and even, not " + std::to_string(s.width) + "x" +
                    std::to_string(s.height));
  }
  m_context.reset(avcodec_alloc_context3(codec));
  if (!m_context) throw ToolError("out of memory (encoder)");
  AVCodecContext* c = m_context.get();
  c->width = s.width;
  c->height = s.height;
  c->pix_fmt = AV_PIX_FMT_YUV420P;
  c->time_base = AVRational{1, s.fps};
  c->framerate = AVRational{s.fps, 1};
  c->gop_size = s.keyInterval;
  c->keyint_min = s.keyInterval;
  c->max_b_frames = 0;
  if (s.globalHeader) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (s.bitrateKbps > 0) {
    c->bit_rate = static_cast<int64_t>(s.bitrateKbps) * 1000;
    c->rc_max_rate = c->bit_rate * 3 / 2;
    c->rc_buffer_size = static_cast<int>(c->bit_rate * 2);
  } else {
    av_opt_set_double(c->priv_data, "crf", s.crf, 0);
  }
  Av::Check(av_opt_set(c->priv_data, "preset", s.preset.c_str(), 0), std::string(name) + " preset " + s.preset);
  // A requested key frame is an IDR picture, and the encoder adds none of its own between them.
  av_opt_set_int(c->priv_data, "forced-idr", 1, 0);
  if (s.codec == VideoCodec::H264) {
    av_opt_set(c->priv_data, "x264-params", "scenecut=0:bframes=0", 0);
  } else {
    av_opt_set(c->priv_data, "x265-params", "scenecut=0:bframes=0:log-level=error", 0);
  }
  Av::Check(avcodec_open2(c, codec, nullptr), std::string("cannot open the ") + name + " encoder");
}

void VideoEncoder::Send(AVFrame* picture, bool keyFrame, const std::function<void(AVPacket*)>& sink) {
  if (picture) {
    picture->pict_type = keyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    picture->key_frame = keyFrame ? 1 : 0;
  }
  Av::Check(avcodec_send_frame(m_context.get(), picture), "picture encoder");
  Drain(sink);
}

void VideoEncoder::Drain(const std::function<void(AVPacket*)>& sink) {
  for (;;) {
    const int got = avcodec_receive_packet(m_context.get(), m_packet.get());
    if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return;
    Av::Check(got, "picture encoder");
    sink(m_packet.get());
    av_packet_unref(m_packet.get());
  }
}

}  // namespace OzmTool
