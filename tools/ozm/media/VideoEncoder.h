// The picture encoder: libx264 or libx265 through libavcodec, with no B-frames (decode order is
// presentation order, so each access unit's mesh is that picture's) and key frames exactly where the
// caller asks for them.
#pragma once

#include <functional>
#include <string>

#include "tools/ozm/media/Av.h"
#include "tools/ozm/media/NalUnits.h"

namespace OzmTool {

struct VideoSettings {
  VideoCodec codec = VideoCodec::H264;
  int width = 1024;
  int height = 1024;
  int fps = 30;
  int keyInterval = 30;  // the longest run of pictures between key frames
  int bitrateKbps = 0;   // 0: constant quality (crf)
  int crf = 23;
  std::string preset = "medium";
  bool globalHeader = true;  // parameter sets in the codec's extradata (MP4), not in every key frame
};

class VideoEncoder {
 public:
  explicit VideoEncoder(const VideoSettings& settings);

  const AVCodecContext* Context() const { return m_context.get(); }
  const VideoSettings& Settings() const { return m_settings; }

  // Encodes a YUV 4:2:0 picture of the configured size (pts in 1/fps units), or drains the encoder
  // when picture is null. Every packet that comes out is handed to sink in order.
  void Send(AVFrame* picture, bool keyFrame, const std::function<void(AVPacket*)>& sink);

 private:
  void Drain(const std::function<void(AVPacket*)>& sink);
  VideoSettings m_settings;
  Av::CodecPtr m_context;
  Av::PacketPtr m_packet;
};

}  // namespace OzmTool
