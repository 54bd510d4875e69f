// HLS input: a media playlist of MPEG-TS segments read as one input stream. The segments are
// downloaded one after another through the platform (or read in place when the playlist is a local
// file); a reader thread demultiplexes each downloaded segment into two sample queues, video and
// audio, and Advance interleaves them for the player.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "input/ConcurrentQueue.h"
#include "input/HlsPlaylist.h"
#include "input/HlsTrackFormats.h"
#include "input/MediaInputStream.h"

class MpegTsDemuxer;
class Stream;

class HLSStream final : public MediaInputStream {
 public:
  using Segment = HlsSegment;

  // One demultiplexed sample; moved, never copied.
  struct Sample {
    std::unique_ptr<uint8_t[]> data;
    uint32_t size = 0;
    int64_t time = 0;  // video: ns; audio: the transport stream's 90 kHz ticks
    int32_t trackIndex = -1;
  };

  explicit HLSStream(int playerId);
  ~HLSStream() override;
  HLSStream(const HLSStream&) = delete;
  HLSStream& operator=(const HLSStream&) = delete;

  // Reads the playlist, downloads the first segment, builds the track formats from it, starts the
  // reader and returns once the downloads are likely to keep ahead of playback.
  bool Open(const char* path, const OzmOpenInfo& openInfo) override;
  // The reader starts over at the first segment (already downloaded) with empty queues.
  bool Rewind() override;
  bool GetFileInfo(OzmFileInfo& info) override;
  int32_t GetSampleTrackIndex() override;
  int32_t GetTrackCount() override;
  std::unique_ptr<OzmPlatform::MediaFormat> GetTrackFormat(int32_t track) override;
  int64_t GetSampleTime() override;
  bool Advance() override;
  ssize_t ReadSampleData(uint8_t* buffer, uint32_t capacity) override;
  void Cancel() override;

  // A segment download ended: the local file, or null when it failed. On a thread of the platform.
  void OnSegmentDownloadComplete(const char* localPath);

 private:
  void DownloadNextSegment();
  // With m_downloadMutex held.
  bool IsLikelyToPlayThrough();
  bool ReadFirstSegment(const std::string& path);
  bool ReadVideoFormatDescriptor(const uint8_t* data, size_t size);
  std::vector<uint8_t> ReadVideoRange(const uint8_t* data, size_t size) const;
  bool WaitOpened();

  void StartReader();
  void StopReader();
  void ReaderThreadFunc();
  void ReadSegment(const std::string& path);
  // Moves the finished ranges of the demultiplexer's streams into the queues while credits last;
  // true when anything moved.
  bool MoveRanges(MpegTsDemuxer& demuxer);
  bool TakeCredit(int track);
  void GiveCredit(int track);
  bool Stopping() const { return m_cancelled.load() || m_readerStop.load(); }
  void WakeAll();
  void RemoveDownloads();

  const int m_playerId;

  // Downloads: the segment list and the download chain, under m_downloadMutex; `newData` wakes
  // whoever waits for a segment.
  std::mutex m_downloadMutex;
  std::condition_variable m_newDataCondition;
  bool m_newData = false;
  std::vector<Segment> m_segments;
  int m_nextDownloadIndex = 0;
  double m_downloadRate = 0;
  double m_percentBuffered = 0;
  int64_t m_downloadStartNs = 0;
  std::atomic<bool> m_downloadInFlight{false};
  std::atomic<int> m_readIndex{0};
  std::string m_baseUrl;
  std::string m_playlistName;
  std::string m_playlistFile;  // the downloaded playlist, removed with the stream
  bool m_remote = false;

  std::mutex m_bufferingMutex;
  std::condition_variable m_bufferingCondition;
  bool m_bufferingComplete = false;

  std::mutex m_openedMutex;
  std::condition_variable m_openedCondition;
  bool m_opened = false;

  std::atomic<bool> m_cancelled{false};
  std::atomic<bool> m_opening{false};
  OzmOpenInfo m_openInfo{};
  OzmFileInfo m_fileInfo{};

  // Track formats, built from the first segment (or a later access unit that carries them).
  std::mutex m_formatsMutex;
  std::condition_variable m_formatsCondition;
  bool m_formatsReady = false;
  ParameterSets m_parameterSets;
  VideoParameters m_video;
  bool m_hevc = false;
  std::atomic<bool> m_hasAudio{false};
  int m_audioProfile = 1;
  int m_audioSamplingFrequencyIndex = 3;
  int m_audioChannelConfiguration = 2;
  std::atomic<int> m_frameRate{30};

  // The reader and the sample queues. Each credit counter says how many more samples its queue may
  // take; Advance gives one back per sample it takes out.
  std::thread m_reader;
  std::atomic<bool> m_readerStop{false};
  std::atomic<bool> m_readerDone{false};
  ConcurrentQueue<Sample> m_videoQueue;
  ConcurrentQueue<Sample> m_audioQueue;
  std::mutex m_creditMutex;
  std::condition_variable m_creditCondition;
  int m_videoCredits = 0;
  int m_audioCredits = 0;

  // The consumer's side (the player's playback thread).
  Sample m_current;
  int64_t m_videoClock = 0;
  int64_t m_audioClock = 0;
};

// Makes the HLS input of a player.
std::unique_ptr<MediaInputStream> CreateHLSStream(int playerId);
