// Host audio track: a PCM sink with no device behind it. It keeps the count of frames written and
// lets the wall clock play them at the playback rate, so that Write blocks the way a streaming
// track does when its buffer is full. Optionally it records what it was given to a WAV file.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Log.h"
#include "platform/host/HostPlatform.h"

namespace OzmPlatform {
namespace {

// Android's AudioTrack error codes.
constexpr int kErrorBadValue = -2;
constexpr int kErrorInvalidOperation = -3;

constexpr int kMinSampleRate = 4000;
constexpr int kMaxSampleRate = 768000;
constexpr int kMaxChannels = 8;
// How much audio the track holds before Write blocks.
constexpr double kBufferSeconds = 0.1;

std::atomic<int> g_trackCount{0};

using Clock = std::chrono::steady_clock;

void PutLe16(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

void PutLe32(uint8_t* at, uint32_t value) {
  PutLe16(at, value & 0xffff);
  PutLe16(at + 2, value >> 16);
}

// A 16-bit PCM WAV file whose sizes are filled in when it is closed.
class WavWriter {
 public:
  static constexpr size_t kHeaderSize = 44;

  bool Open(const std::string& path, int sampleRate, int channels) {
    m_file = std::fopen(path.c_str(), "wb");
    if (!m_file) return false;
    m_sampleRate = static_cast<uint32_t>(sampleRate);
    m_channels = static_cast<uint32_t>(channels);
    return WriteHeader();
  }

  void Append(const uint8_t* data, size_t size) {
    if (!m_file) return;
    // The data chunk cannot grow past what its 32-bit size field can say.
    const uint64_t room = 0xffffffffull - kHeaderSize - m_dataBytes;
    const size_t n = static_cast<size_t>(std::min<uint64_t>(size, room));
    if (std::fwrite(data, 1, n, m_file) != n) OZM_LOGE("Audio track: writing the capture file failed");
    m_dataBytes += n;
  }

  void Close() {
    if (!m_file) return;
    if (std::fseek(m_file, 0, SEEK_SET) != 0 || !WriteHeader()) OZM_LOGE("Audio track: finishing the WAV file failed");
    std::fclose(m_file);
    m_file = nullptr;
  }

 private:
  bool WriteHeader() {
    uint8_t h[kHeaderSize];
    const uint32_t blockAlign = m_channels * 2;
    std::memcpy(h, "RIFF", 4);
    PutLe32(h + 4, static_cast<uint32_t>(kHeaderSize - 8 + m_dataBytes));
    std::memcpy(h + 8, "WAVEfmt ", 8);
    PutLe32(h + 16, 16);
    PutLe16(h + 20, 1);  // PCM
    PutLe16(h + 22, m_channels);
    PutLe32(h + 24, m_sampleRate);
    PutLe32(h + 28, m_sampleRate * blockAlign);
    PutLe16(h + 32, blockAlign);
    PutLe16(h + 34, 16);
    std::memcpy(h + 36, "data", 4);
    PutLe32(h + 40, static_cast<uint32_t>(m_dataBytes));
    return std::fwrite(h, 1, sizeof(h), m_file) == sizeof(h) && std::fseek(m_file, 0, SEEK_END) == 0;
  }

  std::FILE* m_file = nullptr;
  uint32_t m_sampleRate = 0;
  uint32_t m_channels = 0;
  uint64_t m_dataBytes = 0;
};

class HostAudioTrack final : public AudioTrack {
 public:
  HostAudioTrack(int sampleRateHz, int channels)
      : m_frameBytes(static_cast<size_t>(channels) * 2),
        m_capacityFrames(static_cast<int64_t>(sampleRateHz * kBufferSeconds)),
        m_rate(sampleRateHz) {
    const int index = g_trackCount.fetch_add(1);
    const std::string folder = HostSettings::AudioCaptureFolder();
    if (!folder.empty()) {
      const std::string path = folder + "/audio-" + std::to_string(index) + ".wav";
      if (!m_wav.Open(path, sampleRateHz, channels)) OZM_LOGE("Audio track: cannot write %s", path.c_str());
    }
  }

  ~HostAudioTrack() override {
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_released = true;
      ++m_interruptions;
      m_changed.notify_all();
      // A writer woken above leaves without touching the track again once it has counted itself out.
      m_changed.wait(lock, [this] { return m_writers == 0; });
    }
    CloseCapture();
  }

  int Write(const uint8_t* data, size_t size) override {
    if (size == 0) return 0;
    if (!data || size % m_frameBytes != 0 || size > static_cast<size_t>(INT32_MAX)) {
      OZM_LOGE("Audio track: write of %zu bytes is not a whole number of %zu-byte frames", size, m_frameBytes);
      return kErrorBadValue;
    }
    const int64_t frames = static_cast<int64_t>(size / m_frameBytes);
    int64_t taken = 0;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      if (m_released) return kErrorInvalidOperation;
      ++m_writers;
      const uint64_t interruptions = m_interruptions;
      while (taken < frames && m_interruptions == interruptions) {
        const Clock::time_point now = Clock::now();
        Advance(now);
        const int64_t room = m_capacityFrames - (m_written - static_cast<int64_t>(m_played));
        if (room > 0) {
          const int64_t n = std::min(room, frames - taken);
          m_written += n;
          taken += n;
          continue;
        }
        if (m_playing) {
          // Until the rest of this write fits, looking again at least every 10 ms and at most
          // every millisecond.
          const double seconds = std::clamp(static_cast<double>(frames - taken) / m_rate, 0.001, 0.01);
          m_changed.wait_until(
              lock, now + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
        } else {
          m_changed.wait(lock);
        }
      }
    }
    const size_t bytes = static_cast<size_t>(taken) * m_frameBytes;
    if (bytes > 0) {
      std::lock_guard<std::mutex> lock(m_captureMutex);
      m_wav.Append(data, bytes);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    // The destructor waits for every writer to have counted itself out.
    if (--m_writers == 0 && m_released) m_changed.notify_all();
    if (taken == 0 && m_released) return kErrorInvalidOperation;
    return static_cast<int>(bytes);
  }

  void Play() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_released || m_playing) return;
    m_playing = true;
    m_anchor = Clock::now();
    m_changed.notify_all();
  }

  void Pause() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_playing) return;
    Advance(Clock::now());
    m_playing = false;
  }

  // What was written is taken as played out, and the track waits for Play again.
  void Stop() override { Interrupt(false); }

  void Flush() override { Interrupt(true); }

  void Release() override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_released) return;
      m_released = true;
      m_playing = false;
      ++m_interruptions;
      m_changed.notify_all();
    }
    CloseCapture();
  }

  int SetVolume(float volume) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_released) return kErrorInvalidOperation;
    m_volume = volume;
    return 0;
  }

  int SetPlaybackRate(int sampleRateHz) override {
    if (sampleRateHz <= 0 || sampleRateHz > kMaxSampleRate) {
      OZM_LOGE("Audio track: playback rate %d Hz is out of range", sampleRateHz);
      return kErrorBadValue;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_released) return kErrorInvalidOperation;
    Advance(Clock::now());
    m_rate = sampleRateHz;
    m_changed.notify_all();
    return 0;
  }

 private:
  // Plays what the wall clock allows since the last call. An empty buffer holds the position.
  void Advance(Clock::time_point now) {
    if (m_playing) {
      m_played += std::chrono::duration<double>(now - m_anchor).count() * m_rate;
      if (m_played > static_cast<double>(m_written)) m_played = static_cast<double>(m_written);
    }
    m_anchor = now;
  }

  void Interrupt(bool flushOnly) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_released) return;
    if (!flushOnly) m_playing = false;
    // Android flushes only a track that is not playing; a playing track just drops its buffer here.
    m_played = static_cast<double>(m_written);
    m_anchor = Clock::now();
    ++m_interruptions;
    m_changed.notify_all();
  }

  void CloseCapture() {
    std::lock_guard<std::mutex> lock(m_captureMutex);
    m_wav.Close();
  }

  const size_t m_frameBytes;
  const int64_t m_capacityFrames;

  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_rate;
  bool m_playing = false;
  bool m_released = false;
  float m_volume = 1.0f;
  int64_t m_written = 0;  // frames taken since the track was made
  double m_played = 0;    // frames the clock has played of them
  Clock::time_point m_anchor{};
  // Counts Stop, Flush and Release calls, which end every Write in progress.
  uint64_t m_interruptions = 0;
  int m_writers = 0;

  std::mutex m_captureMutex;
  WavWriter m_wav;
};

}  // namespace

std::unique_ptr<AudioTrack> NewHostAudioTrack(int sampleRateHz, int channelCount) {
  if (sampleRateHz < kMinSampleRate || sampleRateHz > kMaxSampleRate || channelCount < 1 ||
      channelCount > kMaxChannels) {
    OZM_LOGE("Audio track: %d Hz with %d channels is not supported", sampleRateHz, channelCount);
    return nullptr;
  }
  return std::make_unique<HostAudioTrack>(sampleRateHz, channelCount);
}

}  // namespace OzmPlatform
