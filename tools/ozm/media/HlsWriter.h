// The HLS muxer for one video track and an optional audio track: a media playlist and MPEG-TS
// segments next to it, named after the playlist (clip.m3u8: clip_00000.ts, clip_00001.ts, ...).
// Packets in Annex B go in, each access unit beginning with its delimiter; a segment begins exactly
// at the packets the caller marks as segment starts, which must be key frames. Audio, when there is
// any, is a second elementary stream of the same segments.
#pragma once

#include <string>
#include <vector>

#include "tools/ozm/media/Av.h"

namespace OzmTool {

class HlsWriter {
 public:
  // Writes the header for a video track with the encoder's parameters; segmentSeconds is the
  // nominal length of a segment (what the caller's segment starts make it); with audio, a second
  // elementary stream for it.
  HlsWriter(const std::string& playlist, const AVCodecContext* video, double segmentSeconds,
            const AVCodecContext* audio = nullptr);
  ~HlsWriter();
  HlsWriter(const HlsWriter&) = delete;
  HlsWriter& operator=(const HlsWriter&) = delete;

  // Writes one encoded packet (timestamps in the encoder's time base).
  void Write(AVPacket* packet, bool segmentStart);
  // Writes one audio packet (timestamps in the audio encoder's time base); it goes into the segment
  // of the pictures written last.
  void WriteAudio(AVPacket* packet);
  // Closes the last segment and writes the final playlist.
  void Finish();

  // The segment files the playlist lists, in order (after Finish).
  const std::vector<std::string>& Segments() const { return m_segments; }

 private:
  void RemoveOutput() const;
  std::string m_path;
  std::string m_segmentPrefix;  // the segment path up to its number
  Av::OutputPtr m_output;
  AVRational m_encoderTimeBase;
  AVRational m_audioTimeBase{0, 1};
  bool m_finished = false;
  std::vector<std::string> m_segments;
};

}  // namespace OzmTool
