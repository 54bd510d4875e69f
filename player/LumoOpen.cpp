// LumoObject::Open: choosing the input by the path's extension, starting the workers, and
// configuring one decoder per track.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "OzmCore/MeshPayload.h"
#include "input/HLSStream.h"
#include "input/MediaExFileStream.h"
#include "platform/Log.h"
#include "player/LumoObject.h"

using OzmPlatform::GetPlatform;
namespace Keys = OzmPlatform::MediaKeys;

namespace {

// Clears the pending-open flag on every way out of Open.
class PendingOpen {
 public:
  explicit PendingOpen(std::atomic<bool>& flag) : m_flag(flag) { m_flag.store(true); }
  ~PendingOpen() { m_flag.store(false); }
  PendingOpen(const PendingOpen&) = delete;
  PendingOpen& operator=(const PendingOpen&) = delete;

 private:
  std::atomic<bool>& m_flag;
};

bool StartsWith(const char* text, const char* prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

}  // namespace

bool LumoObject::StreamCarriesMeshes() {
  // The first video sample must hold a mesh unit: a plain video has nothing to show in an engine.
  // Reading a sample does not advance the stream; skipping audio in front of it does, and then the
  // stream goes back to its start.
  std::lock_guard<std::mutex> lock(m_streamMutex);
  if (!m_stream) return false;
  constexpr int kSamplesToLookAt = 64;
  bool advanced = false;
  bool found = false;
  for (int i = 0; i < kSamplesToLookAt; ++i) {
    const int32_t track = m_stream->GetSampleTrackIndex();
    if (track < 0) break;
    if (track == 0) {
      std::vector<uint8_t> sample(4 << 20);
      const ssize_t size = m_stream->ReadSampleData(sample.data(), static_cast<uint32_t>(sample.size()));
      OZMCORE::CComPtr<OzmCrossPlatform::Stream> mesh(
          size > 0 ? OzmCrossPlatform::FindCompressedMesh(sample.data(), static_cast<unsigned int>(size)) : nullptr);
      found = mesh.Get() != nullptr;
      break;
    }
    m_stream->Advance();
    advanced = true;
  }
  if (advanced) m_stream->Rewind();
  return found;
}

int LumoObject::Open(const char* path, const OzmOpenInfo* info) {
  OZM_LOGI("[%i] LumoObject::Open called with path = %s", m_id, path ? path : "(null)");
  if (m_state.load() == Playing) {
    // A playing player is paused or closed before it opens something else.
    OZM_LOGE("[%i] Error in LumoObject::Open: must be in Initialized(%d) state. Current state is (%d).", m_id,
             Initialized, Playing);
    return 0;
  }
  bool haveStream = false;
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    haveStream = m_stream != nullptr;
  }
  if (haveStream) {
    if (!Close()) {
      OZM_LOGE("[%i] LumoObject::Open: Closing existing file failed", m_id);
      return 0;
    }
    m_pendingRestart.store(true);
  }
  PendingOpen pending(m_pendingOpen);
  const int state = m_state.load();
  if (state != Initialized && state != Closed) {
    OZM_LOGE("[%i] Error in LumoObject::Open: must be in Initialized(%d) state. Current state is (%d).", m_id,
             Initialized, state);
    return 0;
  }
  if (!path || !info) {
    OZM_LOGE("[%i] Error in LumoObject::Open: no path or no open options", m_id);
    return 0;
  }
  if (!GetPlatform().AttachCurrentThread()) return 0;

  const char* dot = std::strrchr(path, '.');
  if (!dot) {
    OZM_LOGI("No file extension found in path %s", path);
    return 0;
  }
  std::shared_ptr<MediaInputStream> stream;
  if (std::strcmp(dot, ".mp4") == 0) {
    stream = std::make_shared<MediaExFileStream>(m_id);
  } else if (std::strcmp(dot, ".m3u8") == 0) {
    if (!OzmCrossPlatform::IsValidStreamingURL(path)) {
      OZM_LOGE("[%i] Error in LumoObject::Open: invalid streaming url", m_id);
      return 0;
    }
    stream = CreateHLSStream(m_id);
  } else {
    OZM_LOGE("[%i] Error in LumoObject::Open: unrecognized file extension %s", m_id, dot);
    return 0;
  }
  if (!stream) {
    OZM_LOGE("[%i] failed to create input stream\n", m_id);
    return 0;
  }
  {
    std::lock_guard<std::mutex> lock(m_cancellableMutex);
    m_cancellableStream = stream;
  }
  // A Destroy that came in before the stream could be reached above still stops its Open.
  if (m_abortOpen.load()) stream->Cancel();
  int tracks = 0;
  {
    // The stream is used under its lock everywhere, also here: another thread may ask for the file
    // information while the stream opens.
    std::lock_guard<std::mutex> lock(m_streamMutex);
    m_stream = std::move(stream);
    if (!m_stream->Open(path, *info)) return 0;
    tracks = m_stream->GetTrackCount();
  }
  std::memcpy(&m_openInfo, info, sizeof(m_openInfo));
  if (tracks < 1) {
    OZM_LOGE("[%i] Error in LumoObject::Open: the input has no tracks", m_id);
    return 0;
  }
  if (!StreamCarriesMeshes()) {
    OZM_LOGE("[%i] Error in LumoObject::Open: the first track is not a video track with meshes", m_id);
    return 0;
  }
  ClearMeshFrames(true);

  StartMeshThread();
  while (!m_windowReady.load()) {
    if (m_surfaceFailed.load()) {
      OZM_LOGE("[%i] LumoObject::Open: no video surface", m_id);
      return 0;
    }
    if (m_abortOpen.load()) {
      OZM_LOGE("[%i] Open aborted (shutting down)", m_id);
      return 0;
    }
    OZM_LOGI("[%i] LumoObject::Open waiting for nativeWindow...", m_id);
    usleep(10000);
  }

  if (m_abortOpen.load()) {
    OZM_LOGE("[%i] Open aborted (shutting down)", m_id);
    return 0;
  }
  m_playback.Hold();
  if (!m_playback.thread.joinable()) m_playback.thread = std::thread(&LumoObject::PlaybackThreadFunc, this);
  m_video.Hold();
  m_audio.Hold();
  if (!m_video.thread.joinable()) m_video.thread = std::thread(&LumoObject::VideoThreadFunc, this);

  OZM_LOGI("[%i] input has %d tracks", m_id, tracks);
  for (int track = 0; track < tracks; ++track) {
    std::unique_ptr<OzmPlatform::MediaFormat> format;
    {
      std::lock_guard<std::mutex> lock(m_streamMutex);
      if (m_stream) format = m_stream->GetTrackFormat(track);
    }
    if (!format) {
      OZM_LOGE("[%i] no format for track %d", m_id, track);
      return 0;
    }
    OZM_LOGI("[%i] track %d format: %s", m_id, track, format->ToString());
    const char* mime = nullptr;
    if (!format->GetString(Keys::kMime, &mime) || !mime) {
      OZM_LOGE("[%i] no mime type", m_id);
      return 0;
    }
    if (StartsWith(mime, "video/")) {
      OZM_LOGI("[%i] configure video track", m_id);
      int32_t width = 0, height = 0, frameRate = 0;
      format->GetInt32(Keys::kWidth, &width);
      format->GetInt32(Keys::kHeight, &height);
      m_videoWidth.store(width);
      m_videoHeight.store(height);
      if (format->GetInt32(Keys::kFrameRate, &frameRate) && frameRate != 0) {
        m_videoFrameRate.store(frameRate);
        OZM_LOGI("[%i] video frame rate = %i", m_id, frameRate);
      }
      std::shared_ptr<OzmPlatform::MediaCodec> codec = GetPlatform().CreateDecoderByType(mime);
      if (!codec) {
        OZM_LOGE("[%i] no decoder for %s", m_id, mime);
        return 0;
      }
      int status = codec->Configure(*format, m_nativeWindow.get(), 0);
      if (status != OzmPlatform::kMediaOk) {
        OZM_LOGE("[%i] AMediaCodec_configure (video) = %i, retry with width/height = 1024", m_id, status);
        format->SetInt32(Keys::kWidth, 1024);
        format->SetInt32(Keys::kHeight, 1024);
        status = codec->Configure(*format, m_nativeWindow.get(), 0);
        if (status != OzmPlatform::kMediaOk) {
          OZM_LOGE("[%i] AMediaCodec_configure (video) = %i", m_id, status);
          return 0;
        }
      }
      status = codec->Start();
      if (status != OzmPlatform::kMediaOk) {
        OZM_LOGE("[%i] AMediaCodec_start (video) = %i", m_id, status);
        return 0;
      }
      m_textureTimestamp = -1;
      {
        std::lock_guard<std::mutex> lock(m_clockMutex);
        m_lastPresentationTime = m_lastSampleTime = m_presentationOffset = m_sampleBase = 0;
      }
      {
        std::lock_guard<std::mutex> lock(m_codecMutex);
        m_videoCodec = codec;
      }
      m_renderStart.store(-1);
      m_inputEnd.store(false);
      m_videoOutputEnd.store(0);
    } else if (StartsWith(mime, "audio/") && m_openInfo.audioDisabled == 0) {
      OZM_LOGI("[%i] configure audio track", m_id);
      std::shared_ptr<OzmPlatform::MediaCodec> codec = GetPlatform().CreateDecoderByType(mime);
      if (!codec) {
        OZM_LOGE("[%i] no decoder for %s", m_id, mime);
        return 0;
      }
      int status = codec->Configure(*format, nullptr, 0);
      if (status != OzmPlatform::kMediaOk) {
        OZM_LOGE("[%i] AMediaCodec_configure (audio) = %i", m_id, status);
        return 0;
      }
      status = codec->Start();
      if (status != OzmPlatform::kMediaOk) {
        OZM_LOGE("[%i] AMediaCodec_start (audio) = %i", m_id, status);
        return 0;
      }
      {
        std::lock_guard<std::mutex> lock(m_codecMutex);
        m_audioCodec = codec;
      }
      m_audioOutputEnd.store(0);
      if (!m_audio.thread.joinable()) m_audio.thread = std::thread(&LumoObject::AudioThreadFunc, this);
    }
  }
  if (!VideoCodec()) {
    OZM_LOGE("[%i] Error in LumoObject::Open: no video decoder", m_id);
    return 0;
  }
  m_playback.Release();
  m_state.store(Opened);
  return 1;
}
