#include "tools/ozm/media/VolumetricReader.h"

#include <algorithm>

namespace OzmTool {

VolumetricReader::VolumetricReader(const std::string& path)
    : m_path(path), m_input(Av::OpenInput(path)), m_packet(Av::NewPacket()) {
  m_stream = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (m_stream < 0) throw ToolError(path + ": no video track");
  const AVCodecParameters* par = m_input->streams[m_stream]->codecpar;
  const char* filter = nullptr;
  if (par->codec_id == AV_CODEC_ID_H264) {
    m_codec = VideoCodec::H264;
    filter = "h264_mp4toannexb";
  } else if (par->codec_id == AV_CODEC_ID_HEVC) {
    m_codec = VideoCodec::Hevc;
    filter = "hevc_mp4toannexb";
  } else {
    throw ToolError(path + ": the video track is " + avcodec_get_name(par->codec_id) +
                    "; volumetric clips are H.264 or HEVC");
  }
  const AVBitStreamFilter* bsf = av_bsf_get_by_name(filter);
  if (!bsf) throw ToolError(std::string("this FFmpeg has no ") + filter + " filter");
  AVBSFContext* raw = nullptr;
  Av::Check(av_bsf_alloc(bsf, &raw), filter);
  m_annexB.reset(raw);
  Av::Check(avcodec_parameters_copy(raw->par_in, par), filter);
  raw->time_base_in = m_input->streams[m_stream]->time_base;
  Av::Check(av_bsf_init(raw), path + ": " + filter);
}

bool VolumetricReader::Next(AccessUnit* au) {
  int read;
  while ((read = av_read_frame(m_input.get(), m_packet.get())) >= 0 && m_packet->stream_index != m_stream) {
    av_packet_unref(m_packet.get());
  }
  if (read == AVERROR_EOF) return false;
  if (read < 0) throw ToolError(m_path + ": cannot read: " + Av::ErrorText(read));
  const AVStream* stream = m_input->streams[m_stream];
  au->index = m_count++;
  au->pts = m_packet->pts != AV_NOPTS_VALUE ? m_packet->pts : m_packet->dts;
  au->seconds = static_cast<double>(au->pts - (stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0)) *
                av_q2d(stream->time_base);
  au->keyFrame = (m_packet->flags & AV_PKT_FLAG_KEY) != 0;
  au->annexB.clear();
  au->damage.clear();
  au->packet = Av::NewPacket();
  Av::Check(av_packet_ref(au->packet.get(), m_packet.get()), "packet");
  // The filters turn one sample into one access unit; the filter takes the packet's reference.
  int done = av_bsf_send_packet(m_annexB.get(), m_packet.get());
  if (done >= 0) done = av_bsf_receive_packet(m_annexB.get(), m_packet.get());
  if (done >= 0) {
    au->annexB.assign(m_packet->data, m_packet->data + m_packet->size);
  } else {
    au->damage = "the sample is not a sequence of NAL units (" + Av::ErrorText(done) + ")";
    av_bsf_flush(m_annexB.get());
  }
  av_packet_unref(m_packet.get());
  return true;
}

std::unique_ptr<PictureDecoder> VolumetricReader::Pictures() const { return std::make_unique<PictureDecoder>(Video()); }

PictureDecoder::PictureDecoder(const AVStream* stream) : m_frame(Av::NewFrame()) {
  Open(stream->codecpar, stream->time_base);
}

PictureDecoder::PictureDecoder(VideoCodec codec, const std::vector<uint8_t>& parameterSets, AVRational timeBase)
    : m_frame(Av::NewFrame()) {
  struct ParametersFree {
    void operator()(AVCodecParameters* p) const { avcodec_parameters_free(&p); }
  };
  std::unique_ptr<AVCodecParameters, ParametersFree> parameters(avcodec_parameters_alloc());
  if (!parameters) throw ToolError("out of memory (decoder)");
  parameters->codec_type = AVMEDIA_TYPE_VIDEO;
  parameters->codec_id = codec == VideoCodec::H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC;
  if (!parameterSets.empty()) {
    // FFmpeg's H.264 and HEVC decoders take extradata in Annex B form as well as in avcC/hvcC form.
    parameters->extradata = static_cast<uint8_t*>(av_mallocz(parameterSets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!parameters->extradata) throw ToolError("out of memory (decoder)");
    std::copy(parameterSets.begin(), parameterSets.end(), parameters->extradata);
    parameters->extradata_size = static_cast<int>(parameterSets.size());
  }
  Open(parameters.get(), timeBase);
}

void PictureDecoder::Open(const AVCodecParameters* parameters, AVRational timeBase) {
  const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
  if (!codec) throw ToolError(std::string("this FFmpeg cannot decode ") + avcodec_get_name(parameters->codec_id));
  m_decoder.reset(avcodec_alloc_context3(codec));
  if (!m_decoder) throw ToolError("out of memory (decoder)");
  Av::Check(avcodec_parameters_to_context(m_decoder.get(), parameters), "decoder parameters");
  m_decoder->pkt_timebase = timeBase;
  Av::Check(avcodec_open2(m_decoder.get(), codec, nullptr), std::string("cannot open the ") + codec->name + " decoder");
}

void PictureDecoder::Send(const AVPacket* packet,
                          const std::function<void(int64_t pts, const std::vector<uint8_t>& rgb)>& sink) {
  const int sent = avcodec_send_packet(m_decoder.get(), packet);
  if (sent != AVERROR_EOF) Av::Check(sent, "cannot decode a picture");
  for (;;) {
    const int got = avcodec_receive_frame(m_decoder.get(), m_frame.get());
    if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return;
    Av::Check(got, "cannot decode a picture");
    const int w = m_frame->width, h = m_frame->height;
    m_sws.reset(sws_getCachedContext(m_sws.release(), w, h, static_cast<AVPixelFormat>(m_frame->format), w, h,
                                     AV_PIX_FMT_RGB24, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!m_sws) throw ToolError("cannot convert the decoded pictures to RGB");
    m_rgb.resize(static_cast<size_t>(w) * h * 3);
    uint8_t* planes[4] = {m_rgb.data(), nullptr, nullptr, nullptr};
    const int strides[4] = {w * 3, 0, 0, 0};
    sws_scale(m_sws.get(), m_frame->data, m_frame->linesize, 0, h, planes, strides);
    const int64_t pts =
        m_frame->best_effort_timestamp != AV_NOPTS_VALUE ? m_frame->best_effort_timestamp : m_frame->pts;
    av_frame_unref(m_frame.get());
    sink(pts, m_rgb);
  }
}

}  // namespace OzmTool
