// The audio track of a clip, copied as it is stored (no decoding, no encoding) into a video that
// shows the clip's frames: for each picture of the video, the audio packets of the clip frame it
// shows, at that picture's time.
//
// The clip is read with libavformat (an MP4 file, or an HLS playlist on disk or at an http(s)
// address): its audio packets and the times of its video frames, both on the clip's own timeline.
// A run of pictures showing consecutive clip frames gets the clip's audio of those frames unchanged;
// a run that starts at the clip's first frame also gets what comes before it (the encoder's priming
// frame, which the muxer then cuts off with an edit list, as in the clip). Where a run breaks (a new
// pass over the clip, a frame shown twice, a frame never shown), the audio jumps with the pictures.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/ozm/media/Av.h"

namespace OzmTool {

class ClipAudio {
 public:
  // Reads the clip's first audio track and its video frames' times. Null when the clip has no
  // audio track; throws ToolError when the clip cannot be read.
  static std::unique_ptr<ClipAudio> Load(const std::string& path);

  // For the muxer: the track's parameters (AAC with its configuration) and its packets' time base.
  const AVCodecParameters* Parameters() const { return m_parameters.get(); }
  AVRational TimeBase() const { return m_timeBase; }
  int64_t VideoFrames() const { return static_cast<int64_t>(m_videoTimes.size()); }
  std::string Description() const;

  // The packets that go with picture `output` of a video at `fps` frames a second, which shows the
  // clip's frame `clipFrame` (its position in the video track, from 0); timestamps in TimeBase().
  // Pictures are given in order, each once.
  void Follow(int64_t output, int64_t clipFrame, int fps, const std::function<void(AVPacket*)>& write);
  // Packets handed to Follow's writer so far.
  int64_t PacketsWritten() const { return m_written; }

 private:
  ClipAudio() = default;

  struct ParametersFree {
    void operator()(AVCodecParameters* p) const { avcodec_parameters_free(&p); }
  };
  std::unique_ptr<AVCodecParameters, ParametersFree> m_parameters;
  AVRational m_timeBase{1, 1};
  std::vector<Av::PacketPtr> m_packets;  // in time order
  std::vector<int64_t> m_videoTimes;     // of the video frames in track order, in m_timeBase
  int64_t m_frameTicks = 0;              // one video frame's length in m_timeBase

  // Where the current run stands.
  bool m_inRun = false;
  int64_t m_lastClipFrame = -1;
  int64_t m_offset = 0;  // output time minus clip time of the run
  size_t m_cursor = 0;   // next packet of the run
  bool m_anyWritten = false;
  int64_t m_lastWritten = 0;
  int64_t m_written = 0;
};

}  // namespace OzmTool
