// The input of a player: an abstract stream of timed, compressed samples whose operations mirror a
// media extractor. Track 0 is the video track (pictures and mesh payloads); track 1, when present,
// is the audio track. The file input and the HLS input implement it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "platform/Media.h"
#include "plugin/OzmPluginApi.h"

class MediaInputStream {
 public:
  virtual ~MediaInputStream() = default;
  // Back to the first sample.
  virtual bool Rewind() = 0;
  virtual bool Open(const char* path, const OzmOpenInfo& openInfo) = 0;
  virtual bool GetFileInfo(OzmFileInfo& info) = 0;
  // Track of the current sample, negative when no sample is left.
  virtual int32_t GetSampleTrackIndex() = 0;
  virtual int32_t GetTrackCount() = 0;
  // Owned by the caller; null for a track that does not exist.
  virtual std::unique_ptr<OzmPlatform::MediaFormat> GetTrackFormat(int32_t track) = 0;
  // Presentation time of the current sample in microseconds, negative when no sample is left.
  virtual int64_t GetSampleTime() = 0;
  virtual bool Advance() = 0;
  // Bytes copied, negative when no sample is left (or it does not fit).
  virtual ssize_t ReadSampleData(uint8_t* buffer, uint32_t capacity) = 0;
  // Makes a blocking call of another thread (Open waiting for the network, Advance waiting for
  // data) give up at once; the stream is of no further use then. Safe from any thread.
  virtual void Cancel() {}
};
