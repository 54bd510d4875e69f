// Reads the video track of a volumetric file access unit by access unit, each both as stored (for
// the picture decoder) and as Annex B with start codes (what the player searches for the mesh unit;
// made by FFmpeg's mp4toannexb bitstream filters), and decodes pictures to RGB.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/ozm/media/Av.h"
#include "tools/ozm/media/NalUnits.h"

namespace OzmTool {

struct AccessUnit {
  int64_t index = 0;  // position in the track, from 0
  int64_t pts = 0;    // in the track's time base
  double seconds = 0;
  bool keyFrame = false;
  std::vector<uint8_t> annexB;
  Av::PacketPtr packet;  // as stored
  std::string damage;    // why the sample could not be turned into Annex B (annexB is empty then)
};

class PictureDecoder;

// The video track of a clip, whatever its container: an MP4 file (VolumetricReader) or an HLS
// stream (StreamReader).
class AccessUnitSource {
 public:
  virtual ~AccessUnitSource() = default;
  virtual VideoCodec Codec() const = 0;
  // The next access unit of the video track; false after the last one. A sample that cannot be
  // read as NAL units is returned with its damage described, and reading goes on after it.
  virtual bool Next(AccessUnit* au) = 0;
  // A decoder for the track's pictures, taking the packets of the access units.
  virtual std::unique_ptr<PictureDecoder> Pictures() const = 0;
};

class VolumetricReader final : public AccessUnitSource {
 public:
  explicit VolumetricReader(const std::string& path);

  AVFormatContext* Format() const { return m_input.get(); }
  const AVStream* Video() const { return m_input->streams[m_stream]; }
  VideoCodec Codec() const override { return m_codec; }
  bool Next(AccessUnit* au) override;
  std::unique_ptr<PictureDecoder> Pictures() const override;

 private:
  std::string m_path;
  Av::InputPtr m_input;
  int m_stream = -1;
  VideoCodec m_codec = VideoCodec::H264;
  Av::BsfPtr m_annexB;
  Av::PacketPtr m_packet;
  int64_t m_count = 0;
};

// Decodes the pictures of a track into packed RGB.
class PictureDecoder {
 public:
  explicit PictureDecoder(const AVStream* stream);
  // For a track known by its codec and its parameter sets in Annex B form (start codes), with
  // packet times in `timeBase`.
  PictureDecoder(VideoCodec codec, const std::vector<uint8_t>& parameterSets, AVRational timeBase);

  // Sends a stored packet (null at the end); each picture that comes out is handed to sink with its
  // pts and its RGB rows (width * 3 bytes each, no padding).
  void Send(const AVPacket* packet, const std::function<void(int64_t pts, const std::vector<uint8_t>& rgb)>& sink);
  int Width() const { return m_decoder->width; }
  int Height() const { return m_decoder->height; }

 private:
  void Open(const AVCodecParameters* parameters, AVRational timeBase);

  Av::CodecPtr m_decoder;
  Av::FramePtr m_frame;
  std::vector<uint8_t> m_rgb;
  Av::SwsPtr m_sws;
};

}  // namespace OzmTool
