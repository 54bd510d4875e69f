#include "tools/ozm/media/PictureReader.h"

namespace OzmTool {

PictureReader::PictureReader(const std::string& path)
    : m_path(path), m_input(Av::OpenInput(path)), m_packet(Av::NewPacket()), m_frame(Av::NewFrame()) {
  const AVCodec* codec = nullptr;
  m_stream = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  if (m_stream < 0 || !codec) throw ToolError(path + ": no picture in this file");
  m_decoder.reset(avcodec_alloc_context3(codec));
  if (!m_decoder) throw ToolError("out of memory (decoder)");
  Av::Check(avcodec_parameters_to_context(m_decoder.get(), m_input->streams[m_stream]->codecpar),
            path + ": decoder parameters");
  Av::Check(avcodec_open2(m_decoder.get(), codec, nullptr), path + ": cannot open the " + codec->name + " decoder");
}

const AVFrame* PictureReader::Next() {
  for (;;) {
    av_frame_unref(m_frame.get());
    const int got = avcodec_receive_frame(m_decoder.get(), m_frame.get());
    if (got == 0) return m_frame.get();
    if (got == AVERROR_EOF) return nullptr;
    if (got != AVERROR(EAGAIN)) Av::Check(got, m_path + ": cannot decode a picture");
    if (m_flushed) return nullptr;
    // Feed the next packet of the picture stream, or the end of stream.
    int read;
    while ((read = av_read_frame(m_input.get(), m_packet.get())) >= 0 && m_packet->stream_index != m_stream) {
      av_packet_unref(m_packet.get());
    }
    if (read < 0) {
      if (read != AVERROR_EOF) Av::Check(read, m_path + ": cannot read");
      m_flushed = true;
      Av::Check(avcodec_send_packet(m_decoder.get(), nullptr), m_path + ": decoder");
    } else {
      const int sent = avcodec_send_packet(m_decoder.get(), m_packet.get());
      av_packet_unref(m_packet.get());
      Av::Check(sent, m_path + ": cannot decode a picture");
    }
  }
}

}  // namespace OzmTool
