// Reads an HLS stream (a playlist of MPEG-TS segments, a local file or an http(s) address) exactly
// the way the player reads it: through the player's own HLS input, its downloads and its
// transport-stream demultiplexer, access unit by access unit in the records VolumetricReader gives
// for a file. What the input logs, and what the demultiplexer reports, is kept off the terminal and
// put into the error message when the stream cannot be read.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "input/MediaInputStream.h"
#include "platform/host/LogCapture.h"
#include "tools/ozm/media/VolumetricReader.h"

namespace OzmTool {

// How long a stream may keep the tool waiting (for its playlist, its first segment, or the next
// sample) before reading it is given up.
constexpr double kStreamTimeoutSeconds = 30;

// A track as the stream describes it, with what was read of it so far.
struct StreamTrack {
  bool video = false;
  std::string codec;  // FFmpeg's name: "h264", "hevc", "aac"
  std::string profile;
  int width = 0, height = 0, frameRate = 0;
  int sampleRate = 0, channels = 0;
  int64_t samples = 0;  // samples read
  uint64_t bytes = 0;   // bytes of the samples read
  int64_t frames = 0;   // video: pictures; audio: AAC frames of 1024 samples each
  double seconds = 0;   // covered by the samples read
};

class StreamReader final : public AccessUnitSource {
 public:
  // Opens the stream; throws ToolError when it cannot be opened within `timeoutSeconds`.
  explicit StreamReader(const std::string& path, double timeoutSeconds = kStreamTimeoutSeconds);
  ~StreamReader() override;
  StreamReader(const StreamReader&) = delete;
  StreamReader& operator=(const StreamReader&) = delete;

  VideoCodec Codec() const override { return m_codec; }
  // Access units with their times in microseconds (pts) and in seconds from the first one.
  bool Next(AccessUnit* au) override;
  std::unique_ptr<PictureDecoder> Pictures() const override;

  // Track 0 is the video, track 1 (when there is one) the audio.
  const std::vector<StreamTrack>& Tracks() const { return m_tracks; }
  const OzmFileInfo& FileInfo() const { return m_fileInfo; }
  bool Remote() const { return m_remote; }

 private:
  // Holds the watchdog armed over the blocking calls of the stream: past the time-out, the stream is
  // cancelled, which makes the call return.
  class Watch;
  void WatchdogLoop();
  void Arm();
  void Disarm();

  void Open();
  // Stops the watchdog and destroys the stream (its threads and downloads with it).
  void Close();
  // Closes, then throws a ToolError with `what` and the reasons logged.
  [[noreturn]] void Fail(const std::string& what);
  // The warnings and errors logged and the demultiplexer's errors, joined into one line.
  std::string Why();

  std::string m_path;
  std::chrono::steady_clock::duration m_timeout;
  bool m_remote = false;
  // Declared before the stream: the stream's threads log until it is destroyed.
  OzmPlatform::ScopedLogCapture m_log;
  // The demultiplexer's lines: errors explain a failure; warnings would otherwise go to standard
  // output, among the report.
  std::ostringstream m_demuxerErrors, m_demuxerWarnings;
  std::unique_ptr<MediaInputStream> m_stream;

  std::thread m_watchdog;
  std::mutex m_watchMutex;
  std::condition_variable m_watchCondition;
  std::chrono::steady_clock::time_point m_deadline = std::chrono::steady_clock::time_point::max();
  bool m_watchStop = false;
  std::atomic<bool> m_timedOut{false};

  VideoCodec m_codec = VideoCodec::H264;
  std::vector<uint8_t> m_parameterSets;  // csd-0 then csd-1
  std::vector<StreamTrack> m_tracks;
  OzmFileInfo m_fileInfo{};
  std::vector<uint8_t> m_buffer;
  int64_t m_count = 0;
  int64_t m_firstTime = 0, m_lastTime = 0;
};

// The picture is one decoding can start at: an IDR picture (H.264) or an IRAP picture (HEVC).
bool HoldsRandomAccessPicture(VideoCodec codec, const std::vector<uint8_t>& annexB);

}  // namespace OzmTool
