// The output threads: the video thread releases each decoded picture to the surface texture at the
// time it is due, which becomes the picture's timestamp; the audio thread writes decoded PCM into the
// audio track.
#include <time.h>

#include <algorithm>
#include <vector>

#include "platform/Log.h"
#include "player/LumoObject.h"

namespace {

int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// The video thread wakes this long before a picture is due and lets the timed release do the rest.
constexpr int64_t kEarlyWakeNs = 33000000;

}  // namespace

void LumoObject::VideoThreadFunc() {
  OZM_LOGI("[%i] Video thread starting", m_id);
  int64_t lastRelease = 0;  // the latest time a picture was released at
  while (!m_video.exit.load()) {
    if (m_video.hold.load()) m_video.Sleep(m_id);
    if (m_video.exit.load()) break;
    if (m_videoOutputEnd.load()) {
      m_video.Hold();
      continue;
    }
    const std::shared_ptr<OzmPlatform::MediaCodec> codec = VideoCodec();
    if (!codec) {
      m_video.Hold();
      continue;
    }
    OzmPlatform::BufferInfo info;
    const ssize_t index = codec->DequeueOutputBuffer(&info, -1);
    if (index == OzmPlatform::kInfoOutputBuffersChanged) continue;
    if (index == OzmPlatform::kInfoOutputFormatChanged) {
      if (std::unique_ptr<OzmPlatform::MediaFormat> format = codec->GetOutputFormat()) {
        OZM_LOGI("[%i] video format changed to: %s", m_id, format->ToString());
        int32_t width = 0, height = 0;
        if (format->GetInt32(OzmPlatform::MediaKeys::kWidth, &width)) m_videoWidth.store(width);
        if (format->GetInt32(OzmPlatform::MediaKeys::kHeight, &height)) m_videoHeight.store(height);
      }
      continue;
    }
    if (index == OzmPlatform::kInfoTryAgainLater) {
      OZM_LOGI("[%i] video codec: no output buffer right now", m_id);
      continue;
    }
    if (index < 0) {
      OZM_LOGW("[%i] video codec: unexpected info code: %zd", m_id, index);
      // A stopped or broken decoder answers at once: wait to be held rather than spin.
      SleepUnlessHeld(m_video, 10000);
      continue;
    }
    const size_t buffer = static_cast<size_t>(index);
    if (info.flags & OzmPlatform::kBufferFlagEndOfStream) {
      OZM_LOGI("[%i] Video output EOS", m_id);
      m_videoOutputEnd.store(1);
      // The end is reported once both outputs ended; whichever ends last raises the report.
      if (m_audioOutputEnd.load() != 0 || !AudioCodec()) m_endOfStreamReport.store(true);
      m_video.Hold();
      codec->ReleaseOutputBuffer(buffer, false);
      continue;
    }
    const int64_t t = info.presentationTimeUs * 1000;
    const bool render = info.size != 0 && !m_videoOutputEnd.load();
    const int64_t now = MonotonicNs();
    int64_t renderStart = m_renderStart.load();
    if (renderStart < 0) {
      // A new time base (first picture, play after pause, rewind, loop). It starts no earlier than
      // one frame after the last picture already on its way to the surface: every picture of the
      // new base is later than every picture before it (so the render step can tell them apart),
      // and a loop goes on seamlessly, with the last picture of a pass shown for its full time.
      const int frameRate = m_videoFrameRate.load();
      const int64_t frameNs = 1000000000LL / (frameRate > 0 ? frameRate : 30);
      renderStart = std::max<int64_t>(now, lastRelease + frameNs) - t;
      {
        std::lock_guard<std::mutex> lock(m_timeBaseMutex);
        m_timeBases.previous = m_timeBases.current;
        m_timeBases.current = renderStart;
        m_timeBases.firstRelease = renderStart + t;
      }
      m_renderStart.store(renderStart);
      OZM_LOGI("[%i] renderstart = %lli", m_id, static_cast<long long>(renderStart));
    } else {
      const int64_t wait = renderStart + t - now;
      if (wait > kEarlyWakeNs) SleepUnlessHeld(m_video, (wait - kEarlyWakeNs) / 1000);
    }
    if (render) {
      lastRelease = std::max(lastRelease, renderStart + t);
      codec->ReleaseOutputBufferAtTime(buffer, renderStart + t);
    } else {
      codec->ReleaseOutputBuffer(buffer, false);
    }
  }
  OZM_LOGI("[%i] video thread exiting", m_id);
}

void LumoObject::TearDownAudioTrack() {
  std::shared_ptr<OzmPlatform::AudioTrack> track;
  {
    std::lock_guard<std::mutex> lock(m_audioTrackMutex);
    track.swap(m_audioTrack);
  }
  if (!track) return;
  track->Stop();
  track->Flush();
  track->Release();
}

void LumoObject::AudioThreadFunc() {
  OzmPlatform::Platform& platform = OzmPlatform::GetPlatform();
  const bool attached = platform.AttachCurrentThread();
  OZM_LOGI("[%i] Audio thread starting", m_id);
  while (!m_audio.exit.load()) {
    if (m_audio.hold.load()) m_audio.Sleep(m_id);
    if (m_audio.exit.load()) break;
    if (m_audioOutputEnd.load()) {
      m_audio.Hold();
      continue;
    }
    const std::shared_ptr<OzmPlatform::MediaCodec> codec = AudioCodec();
    if (!codec) {
      m_audio.Hold();
      continue;
    }
    OzmPlatform::BufferInfo info;
    const ssize_t index = codec->DequeueOutputBuffer(&info, -1);
    if (index >= 0) {
      const size_t buffer = static_cast<size_t>(index);
      if (info.flags & OzmPlatform::kBufferFlagEndOfStream) {
        OZM_LOGI("[%i] Audio output EOS", m_id);
        m_audio.Hold();
        m_audioOutputEnd.store(1);
        if (m_videoOutputEnd.load() != 0) m_endOfStreamReport.store(true);
        codec->ReleaseOutputBuffer(buffer, false);
        continue;
      }
      size_t size = 0;
      const uint8_t* data = codec->GetOutputBuffer(buffer, &size);
      std::shared_ptr<OzmPlatform::AudioTrack> track;
      {
        std::lock_guard<std::mutex> lock(m_audioTrackMutex);
        track = m_audioTrack;
      }
      if (data && track && info.size > 0 && static_cast<size_t>(info.offset) + static_cast<size_t>(info.size) <= size) {
        // The platform's write takes a copy of the bytes (a Java array on a device).
        std::vector<uint8_t> pcm(data + info.offset, data + info.offset + info.size);
        track->Write(pcm.data(), pcm.size());
      }
      codec->ReleaseOutputBuffer(buffer, false);
    } else if (index == OzmPlatform::kInfoOutputBuffersChanged) {
    } else if (index == OzmPlatform::kInfoTryAgainLater) {
      OZM_LOGI("[%i] audio codec: no output buffer right now", m_id);
    } else if (index == OzmPlatform::kInfoOutputFormatChanged) {
      std::unique_ptr<OzmPlatform::MediaFormat> format = codec->GetOutputFormat();
      OZM_LOGI("[%i] audio format changed to: %s", m_id, format ? format->ToString() : "(none)");
      TearDownAudioTrack();
      int32_t rate = 0, channels = 2;
      if (format) format->GetInt32(OzmPlatform::MediaKeys::kChannelCount, &channels);
      if (format && format->GetInt32(OzmPlatform::MediaKeys::kSampleRate, &rate)) {
        float scale = 1.0f;
        {
          std::lock_guard<std::mutex> lock(m_clockMutex);
          scale = m_clockScale;
        }
        std::unique_ptr<OzmPlatform::AudioTrack> track =
            platform.CreateAudioTrack(static_cast<int>(scale * static_cast<float>(rate)), channels);
        if (track) {
          OZM_LOGI("[%i] Created AudioTrack", m_id);
          track->Play();
          std::lock_guard<std::mutex> lock(m_audioTrackMutex);
          m_audioSampleRate = rate;
          m_audioTrack = std::move(track);
        }
      }
    } else {
      OZM_LOGW("[%i] audio codec: unexpected info code: %zd", m_id, index);
      SleepUnlessHeld(m_audio, 10000);
    }
  }
  TearDownAudioTrack();
  if (attached) platform.DetachCurrentThread();
  OZM_LOGI("[%i] audio thread exiting", m_id);
}
