// The HLS muxer for one video track: a media playlist and MPEG-TS segments next to it, named after
// the playlist (clip.m3u8: clip_00000.ts, clip_00001.ts, ...). Packets in Annex B go in, each access
// unit beginning with its delimiter; a segment begins exactly at the packets the caller marks as
// segment starts, which must be key frames.
#pragma once

#include <string>
#include <vector>

#include "tools/ozm/media/Av.h"

namespace OzmTool {

class HlsWriter {
 public:
  // Writes the header for a video track with the encoder's parameters; segmentSeconds is the
  // nominal length of a segment (what the caller's segment starts make it).
  HlsWriter(const std::string& playlist, const AVCodecContext* video, double segmentSeconds);
  ~HlsWriter();
  HlsWriter(const HlsWriter&) = delete;
  HlsWriter& operator=(const HlsWriter&) = delete;

  // Writes one encoded packet (timestamps in the encoder's time base).
  void Write(AVPacket* packet, bool segmentStart);
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
  bool m_finished = false;
  std::vector<std::string> m_segments;
};

}  // namespace OzmTool
