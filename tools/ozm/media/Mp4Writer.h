// The MP4 muxer for one video track (track 0) and an optional audio track (track 1): video packets
// in Annex B go in (libavformat stores them length-prefixed, one NAL unit after the other), and once
// the file is complete whole top-level atoms can be appended after everything the muxer wrote.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/ozm/media/Av.h"

namespace OzmTool {

class Mp4Writer {
 public:
  // Opens the file and writes the header for a video track with the encoder's parameters, and an
  // audio track after it when audio is given.
  Mp4Writer(const std::string& path, const AVCodecContext* video, const AVCodecContext* audio = nullptr);
  // The same with an audio track copied from another file: its parameters and its packets' time base.
  Mp4Writer(const std::string& path, const AVCodecContext* video, const AVCodecParameters* audio,
            AVRational audioTimeBase);
  ~Mp4Writer();
  Mp4Writer(const Mp4Writer&) = delete;
  Mp4Writer& operator=(const Mp4Writer&) = delete;

  // Writes one encoded packet (timestamps in the encoder's time base).
  void Write(AVPacket* packet);
  // Writes one audio packet (timestamps in the audio encoder's time base).
  void WriteAudio(AVPacket* packet);
  // Writes the index and closes the file.
  void Finish();

  // Appends bytes (a whole atom) to the end of a finished file.
  static void Append(const std::string& path, const std::vector<uint8_t>& bytes);

 private:
  void Open(const AVCodecContext* video, const AVCodecParameters* audio, AVRational audioTimeBase);

  std::string m_path;
  Av::OutputPtr m_output;
  AVRational m_encoderTimeBase;
  AVRational m_audioTimeBase{0, 1};
  bool m_finished = false;
};

}  // namespace OzmTool
