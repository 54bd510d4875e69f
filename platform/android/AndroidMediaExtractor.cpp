// The media extractor port on the system's AMediaExtractor.
//
// Samples are handed on exactly as the system reads them. Its MP4 extractor already rewrites the
// length-prefixed H.264 and HEVC NAL units of the file into Annex B form (start codes), which is
// what the mesh payload is cut from and what AMediaCodec takes. The parameter sets are not repeated
// in front of key frames; they travel as csd-0 (and csd-1 for H.264) of the track format, which the
// decoder is configured with and which it replays by itself after every flush. So the decoder gets
// everything a stream with the sets in front of its key frames would give it, and the samples need
// no rewriting here.
#include <media/NdkMediaExtractor.h>

#include "platform/Log.h"
#include "platform/android/AndroidBackend.h"
#include "platform/jni/JavaBridge.h"

namespace OzmPlatform {
namespace {

static_assert(kMediaOk == AMEDIA_OK && kMediaErrorUnknown == AMEDIA_ERROR_UNKNOWN &&
                  kMediaErrorMalformed == AMEDIA_ERROR_MALFORMED &&
                  kMediaErrorUnsupported == AMEDIA_ERROR_UNSUPPORTED &&
                  kMediaErrorInvalidObject == AMEDIA_ERROR_INVALID_OBJECT &&
                  kMediaErrorInvalidParameter == AMEDIA_ERROR_INVALID_PARAMETER &&
                  kMediaErrorInvalidOperation == AMEDIA_ERROR_INVALID_OPERATION,
              "the port's status codes are the system's media_status_t");

// The system's seek modes are a global type of the same name as the port's.
::SeekMode ToSystemSeekMode(SeekMode mode) {
  switch (mode) {
    case SeekMode::PreviousSync: return AMEDIAEXTRACTOR_SEEK_PREVIOUS_SYNC;
    case SeekMode::NextSync: return AMEDIAEXTRACTOR_SEEK_NEXT_SYNC;
    case SeekMode::ClosestSync: return AMEDIAEXTRACTOR_SEEK_CLOSEST_SYNC;
  }
  return AMEDIAEXTRACTOR_SEEK_CLOSEST_SYNC;
}

class AndroidMediaExtractor final : public MediaExtractor {
 public:
  explicit AndroidMediaExtractor(AMediaExtractor* extractor) : m_extractor(extractor) {}
  ~AndroidMediaExtractor() override { AMediaExtractor_delete(m_extractor); }
  AndroidMediaExtractor(const AndroidMediaExtractor&) = delete;
  AndroidMediaExtractor& operator=(const AndroidMediaExtractor&) = delete;

  int SetDataSource(const char* path) override {
    if (!path) return kMediaErrorInvalidParameter;
    // Opening by path goes through the Java media services on the calling thread, and the oldest
    // releases crash instead of failing on a thread that is not attached to the Java VM.
    if (!OzmJni::JavaBridge::Get().CurrentEnv()) {
      OZM_LOGE("AMediaExtractor_setDataSource: the calling thread is not attached to the Java VM");
      return kMediaErrorInvalidOperation;
    }
    return AMediaExtractor_setDataSource(m_extractor, path);
  }

  int SetDataSourceFd(int fd, int64_t offset, int64_t length) override {
    if (fd < 0 || offset < 0 || length < 0) return kMediaErrorInvalidParameter;
    return AMediaExtractor_setDataSourceFd(m_extractor, fd, static_cast<off64_t>(offset), static_cast<off64_t>(length));
  }

  size_t GetTrackCount() override { return AMediaExtractor_getTrackCount(m_extractor); }

  std::unique_ptr<MediaFormat> GetTrackFormat(size_t track) override {
    // The system makes a format around nothing for an index out of range, which crashes when read.
    if (track >= GetTrackCount()) return nullptr;
    AMediaFormat* format = AMediaExtractor_getTrackFormat(m_extractor, track);
    if (!format) return nullptr;
    return std::make_unique<AndroidMediaFormat>(format);
  }

  int SelectTrack(size_t track) override {
    if (track >= GetTrackCount()) return kMediaErrorInvalidParameter;
    return AMediaExtractor_selectTrack(m_extractor, track);
  }

  ssize_t ReadSampleData(uint8_t* buffer, size_t capacity) override {
    if (!buffer) return -1;
    return AMediaExtractor_readSampleData(m_extractor, buffer, capacity);
  }

  int GetSampleTrackIndex() override { return AMediaExtractor_getSampleTrackIndex(m_extractor); }

  int64_t GetSampleTime() override { return AMediaExtractor_getSampleTime(m_extractor); }

  bool Advance() override { return AMediaExtractor_advance(m_extractor); }

  int SeekTo(int64_t timeUs, SeekMode mode) override {
    return AMediaExtractor_seekTo(m_extractor, timeUs, ToSystemSeekMode(mode));
  }

 private:
  AMediaExtractor* const m_extractor;
};

}  // namespace

std::unique_ptr<MediaExtractor> NewAndroidMediaExtractor() {
  AMediaExtractor* extractor = AMediaExtractor_new();
  if (!extractor) return nullptr;
  return std::make_unique<AndroidMediaExtractor>(extractor);
}

}  // namespace OzmPlatform
