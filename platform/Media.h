// Media ports: track formats, the container extractor and the decoders. Their semantics copy the
// Android media services they stand for (AMediaFormat, AMediaExtractor, AMediaCodec), so the player
// reads like the behaviour it implements: the same keys, status codes, info codes and flags.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace OzmPlatform {

// Status codes of the media calls: 0 is success, anything else a failure (Android's media_status_t).
constexpr int kMediaOk = 0;
constexpr int kMediaErrorUnknown = -10000;
constexpr int kMediaErrorMalformed = -10001;
constexpr int kMediaErrorUnsupported = -10002;
constexpr int kMediaErrorInvalidObject = -10003;
constexpr int kMediaErrorInvalidParameter = -10004;
constexpr int kMediaErrorInvalidOperation = -10005;

// Format keys, as Android names them.
namespace MediaKeys {
constexpr const char* kMime = "mime";
constexpr const char* kWidth = "width";
constexpr const char* kHeight = "height";
constexpr const char* kFrameRate = "frame-rate";
constexpr const char* kDurationUs = "durationUs";
constexpr const char* kSampleRate = "sample-rate";
constexpr const char* kChannelCount = "channel-count";
constexpr const char* kCsd0 = "csd-0";
constexpr const char* kCsd1 = "csd-1";
constexpr const char* kMaxInputSize = "max-input-size";
}  // namespace MediaKeys

// A set of typed key/value pairs describing a track or a decoder's output.
class MediaFormat {
 public:
  virtual ~MediaFormat() = default;
  virtual bool GetInt32(const char* key, int32_t* out) const = 0;
  virtual bool GetInt64(const char* key, int64_t* out) const = 0;
  virtual bool GetFloat(const char* key, float* out) const = 0;
  // The text stays valid while the format lives and the key is not set again.
  virtual bool GetString(const char* key, const char** out) const = 0;
  virtual bool GetBuffer(const char* key, const void** data, size_t* size) const = 0;
  virtual void SetInt32(const char* key, int32_t value) = 0;
  virtual void SetInt64(const char* key, int64_t value) = 0;
  virtual void SetFloat(const char* key, float value) = 0;
  virtual void SetString(const char* key, const char* value) = 0;
  virtual void SetBuffer(const char* key, const void* data, size_t size) = 0;
  // Text form for log lines, "mime: string(video/avc), width: int32(1024), ...". Valid while the
  // format lives and is not changed.
  virtual const char* ToString() const = 0;
};

// A portable format (a map of values); the host backend and the stream parsers use it, and every
// backend's codec accepts it.
std::unique_ptr<MediaFormat> NewMediaFormat();

// Seek modes of MediaExtractor::SeekTo.
enum class SeekMode : int { PreviousSync = 0, NextSync = 1, ClosestSync = 2 };

// Demultiplexes a container into timed samples of the selected tracks, in presentation order.
class MediaExtractor {
 public:
  virtual ~MediaExtractor() = default;
  virtual int SetDataSource(const char* path) = 0;
  // Reads [offset, offset + length) of an open descriptor, which stays owned by the caller.
  virtual int SetDataSourceFd(int fd, int64_t offset, int64_t length) = 0;
  virtual size_t GetTrackCount() = 0;
  // Null for a track index out of range.
  virtual std::unique_ptr<MediaFormat> GetTrackFormat(size_t track) = 0;
  virtual int SelectTrack(size_t track) = 0;
  // Copies the current sample; negative when no sample is left or it does not fit.
  // Video samples are in Annex B form (start codes), with the parameter sets in front of key frames.
  virtual ssize_t ReadSampleData(uint8_t* buffer, size_t capacity) = 0;
  // Track of the current sample, -1 at the end.
  virtual int GetSampleTrackIndex() = 0;
  // Presentation time of the current sample in microseconds, -1 at the end.
  virtual int64_t GetSampleTime() = 0;
  // Steps to the next sample; false when there is none.
  virtual bool Advance() = 0;
  virtual int SeekTo(int64_t timeUs, SeekMode mode) = 0;
};

// What a video decoder renders into: the producer side of a surface texture.
class NativeWindow {
 public:
  virtual ~NativeWindow() = default;
};

struct BufferInfo {
  int32_t offset = 0;
  int32_t size = 0;
  int64_t presentationTimeUs = 0;
  uint32_t flags = 0;
};

constexpr uint32_t kBufferFlagEndOfStream = 4;
// Results of DequeueOutputBuffer besides buffer indices.
constexpr ssize_t kInfoTryAgainLater = -1;
constexpr ssize_t kInfoOutputFormatChanged = -2;
constexpr ssize_t kInfoOutputBuffersChanged = -3;

// A decoder with the buffer-index protocol of Android's codecs: the caller dequeues an input buffer,
// fills and queues it; decoded output is dequeued by index and released (rendered to the surface
// at a time, or dropped). The pools are fixed, so a caller that does not drain output eventually
// gets no input buffer. Flush returns every buffer and wakes callers blocked in a dequeue.
class MediaCodec {
 public:
  virtual ~MediaCodec() = default;
  virtual int Configure(const MediaFormat& format, NativeWindow* surface, uint32_t flags) = 0;
  virtual int Start() = 0;
  virtual int Stop() = 0;
  virtual int Flush() = 0;
  // A timeout of -1 waits without limit, 0 does not wait. Returns an index or kInfoTryAgainLater.
  virtual ssize_t DequeueInputBuffer(int64_t timeoutUs) = 0;
  virtual uint8_t* GetInputBuffer(size_t index, size_t* capacity) = 0;
  virtual int QueueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs, uint32_t flags) = 0;
  // Returns an index, or one of the kInfo codes (negative).
  virtual ssize_t DequeueOutputBuffer(BufferInfo* info, int64_t timeoutUs) = 0;
  // Null for pictures that go to a surface.
  virtual uint8_t* GetOutputBuffer(size_t index, size_t* size) = 0;
  virtual std::unique_ptr<MediaFormat> GetOutputFormat() = 0;
  virtual int ReleaseOutputBuffer(size_t index, bool render) = 0;
  // Renders the picture to the surface; it is shown at the given monotonic time (nanoseconds),
  // which becomes its surface timestamp.
  virtual int ReleaseOutputBufferAtTime(size_t index, int64_t timestampNs) = 0;
};

}  // namespace OzmPlatform
