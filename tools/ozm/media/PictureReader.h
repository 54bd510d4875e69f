// Decodes the pictures of an image or video file in order (texture input of the encoder).
#pragma once

#include <string>

#include "tools/ozm/media/Av.h"

namespace OzmTool {

class PictureReader {
 public:
  explicit PictureReader(const std::string& path);

  // The next picture, or null after the last one. It stays valid until the next call.
  const AVFrame* Next();
  int Width() const { return m_decoder->width; }
  int Height() const { return m_decoder->height; }
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
  Av::InputPtr m_input;
  Av::CodecPtr m_decoder;
  int m_stream = -1;
  Av::PacketPtr m_packet;
  Av::FramePtr m_frame;
  bool m_flushed = false;
};

}  // namespace OzmTool
