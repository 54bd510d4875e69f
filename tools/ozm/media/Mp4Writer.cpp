#include "tools/ozm/media/Mp4Writer.h"

#include <cstdio>
#include <memory>

namespace OzmTool {

Mp4Writer::Mp4Writer(const std::string& path, const AVCodecContext* video, const AVCodecContext* audio)
    : m_path(path), m_encoderTimeBase(video->time_base) {
  if (!audio) {
    Open(video, nullptr, AVRational{0, 1});
    return;
  }
  struct ParametersFree {
    void operator()(AVCodecParameters* p) const { avcodec_parameters_free(&p); }
  };
  std::unique_ptr<AVCodecParameters, ParametersFree> parameters(avcodec_parameters_alloc());
  if (!parameters) throw ToolError("out of memory (MP4 track)");
  Av::Check(avcodec_parameters_from_context(parameters.get(), audio), "MP4 audio track parameters");
  Open(video, parameters.get(), audio->time_base);
}

Mp4Writer::Mp4Writer(const std::string& path, const AVCodecContext* video, const AVCodecParameters* audio,
                     AVRational audioTimeBase)
    : m_path(path), m_encoderTimeBase(video->time_base) {
  Open(video, audio, audioTimeBase);
}

void Mp4Writer::Open(const AVCodecContext* video, const AVCodecParameters* audio, AVRational audioTimeBase) {
  const std::string& path = m_path;
  AVFormatContext* raw = nullptr;
  Av::Check(avformat_alloc_output_context2(&raw, nullptr, "mp4", path.c_str()), "cannot make an MP4 muxer");
  m_output.reset(raw);
  AVStream* stream = avformat_new_stream(raw, nullptr);
  if (!stream) throw ToolError("out of memory (MP4 track)");
  Av::Check(avcodec_parameters_from_context(stream->codecpar, video), "MP4 track parameters");
  // HEVC as 'hvc1': parameter sets only in the sample description, which every player accepts.
  if (video->codec_id == AV_CODEC_ID_HEVC) stream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
  stream->time_base = video->time_base;
  stream->avg_frame_rate = video->framerate;
  if (audio) {
    AVStream* sound = avformat_new_stream(raw, nullptr);
    if (!sound) throw ToolError("out of memory (MP4 track)");
    Av::Check(avcodec_parameters_copy(sound->codecpar, audio), "MP4 audio track parameters");
    sound->codecpar->codec_tag = 0;
    sound->time_base = audioTimeBase;
    m_audioTimeBase = audioTimeBase;
  }
  const int opened = avio_open(&raw->pb, path.c_str(), AVIO_FLAG_WRITE);
  if (opened < 0) throw ToolError("cannot write " + path + ": " + Av::ErrorText(opened));
  AVDictionary* options = nullptr;
  // The index in front of the samples, so that playback can start before the whole file is there.
  av_dict_set(&options, "movflags", "+faststart", 0);
  const int written = avformat_write_header(raw, &options);
  av_dict_free(&options);
  Av::Check(written, "cannot write the MP4 header of " + path);
}

Mp4Writer::~Mp4Writer() {
  // An unfinished file (an error on the way) is incomplete: remove it rather than leave it looking valid.
  if (!m_finished && m_output) {
    m_output.reset();
    std::remove(m_path.c_str());
  }
}

void Mp4Writer::Write(AVPacket* packet) {
  AVStream* stream = m_output->streams[0];
  av_packet_rescale_ts(packet, m_encoderTimeBase, stream->time_base);
  packet->stream_index = 0;
  Av::Check(av_interleaved_write_frame(m_output.get(), packet), "cannot write a sample to " + m_path);
}

void Mp4Writer::WriteAudio(AVPacket* packet) {
  if (m_output->nb_streams < 2) throw ToolError(m_path + " has no audio track");
  AVStream* stream = m_output->streams[1];
  av_packet_rescale_ts(packet, m_audioTimeBase, stream->time_base);
  packet->stream_index = 1;
  Av::Check(av_interleaved_write_frame(m_output.get(), packet), "cannot write audio to " + m_path);
}

void Mp4Writer::Finish() {
  Av::Check(av_write_trailer(m_output.get()), "cannot finish " + m_path);
  m_output.reset();
  m_finished = true;
}

void Mp4Writer::Append(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "ab");
  if (!file) throw ToolError("cannot append to " + path);
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  if (std::fclose(file) != 0 || !ok) throw ToolError("cannot append to " + path);
}

}  // namespace OzmTool
