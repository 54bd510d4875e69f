// The audio of a clip: the audio stream of any media file, or the sample's tone, decoded, resampled
// and encoded to AAC with FFmpeg's own encoder, cut to a given length. The whole track is encoded
// up front (it is small next to the pictures), so that a bad input fails before any output exists,
// and the muxers then take its packets interleaved with the pictures.
#pragma once

#include <string>
#include <vector>

#include "tools/ozm/media/Av.h"

namespace OzmTool {

class AudioTrack {
 public:
  // The first audio stream of `path`, at its own sample rate when AAC has it (48 kHz otherwise),
  // mono when it is mono and stereo otherwise. Throws ToolError when the file has no readable audio.
  static AudioTrack FromFile(const std::string& path, double seconds);
  // A 1 kHz beep of a tenth of a second at the start of every second, 48 kHz mono: it sounds in
  // step with the frame numbers of the sample's pictures.
  static AudioTrack Beeps(double seconds);

  // The encoder's parameters (with the AAC configuration as extradata), for the muxers.
  const AVCodecContext* Context() const { return m_encoder.get(); }
  // The packets in order, timestamps in 1/sample rate.
  std::vector<Av::PacketPtr>& Packets() { return m_packets; }
  int SampleRate() const { return m_encoder->sample_rate; }
  int Channels() const { return m_encoder->ch_layout.nb_channels; }
  int64_t Samples() const { return m_samples; }
  uint64_t Bytes() const;

 private:
  AudioTrack(int sampleRate, int channels, double seconds);
  // Encodes planar float samples (one pointer a channel) up to the track's length; returns false
  // once the length is reached.
  bool Add(const float* const* planes, int count);
  void Finish();
  void EncodeFrame(int count);
  void Drain();

  Av::CodecPtr m_encoder;
  Av::FramePtr m_frame;  // one encoder frame being filled
  int m_filled = 0;
  int64_t m_limit = 0;    // samples the track is cut to
  int64_t m_samples = 0;  // samples taken so far
  Av::PacketPtr m_packet;
  std::vector<Av::PacketPtr> m_packets;
};

}  // namespace OzmTool
