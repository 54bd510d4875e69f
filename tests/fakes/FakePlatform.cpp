#include "tests/fakes/FakePlatform.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <stdexcept>

#include "OzmCore/encode/KeyFrameWriter.h"
#include "OzmCore/encode/MeshNalWriter.h"
#include "tests/MeshTestUtil.h"

namespace FakePorts {

using OzmPlatform::BufferInfo;
using OzmPlatform::kBufferFlagEndOfStream;
using OzmPlatform::kInfoOutputFormatChanged;
using OzmPlatform::kInfoTryAgainLater;
using OzmPlatform::kMediaErrorInvalidOperation;
using OzmPlatform::kMediaErrorInvalidParameter;
using OzmPlatform::kMediaOk;
namespace Keys = OzmPlatform::MediaKeys;

// ---------------------------------------------------------------------------------------------
// Content.

namespace {

std::vector<uint8_t> VideoSample(int frame) {
  // Every frame a different place in space, so that its decoded vertices differ from the others'.
  OzmEncode::Mesh mesh = MeshTest::Grid(3, 2, static_cast<uint32_t>(frame + 1));
  for (size_t i = 0; i < mesh.positions.size(); i += 3) mesh.positions[i + 2] += 0.25f * static_cast<float>(frame);
  OzmEncode::KeyFrameOptions options;
  options.frameId = static_cast<uint32_t>(frame + 1);
  OzmEncode::EncodedKeyFrame key;
  if (!OzmEncode::EncodeKeyFrame(mesh, options, &key)) throw std::runtime_error("EncodeKeyFrame failed");
  // A slice NAL unit stands for the picture; the decoder fake does not look at it.
  std::vector<uint8_t> sample = {0, 0, 0, 1, 0x65, 0x88, 0x84, static_cast<uint8_t>(frame)};
  if (!OzmEncode::AppendMeshNalUnit(key.bytes.data(), key.bytes.size(), sample)) {
    throw std::runtime_error("AppendMeshNalUnit failed");
  }
  return sample;
}

}  // namespace

ClipScript MakeClip(const ClipOptions& options) {
  std::vector<int64_t> times = options.videoTimesUs;
  if (times.empty()) {
    for (int k = 0; k < options.videoFrames; ++k) times.push_back(options.firstTimeUs + k * options.frameStepUs);
  }
  ClipScript clip;
  TrackSpec video;
  video.mime = "video/avc";
  video.width = options.width;
  video.height = options.height;
  video.frameRate = options.frameRate;
  video.durationUs = times.empty() ? 0 : times.back() + options.frameStepUs;
  clip.tracks.push_back(video);
  if (options.audio) {
    TrackSpec audio;
    audio.mime = "audio/mp4a-latm";
    audio.sampleRate = 48000;
    audio.channelCount = 2;
    audio.durationUs = video.durationUs;
    clip.tracks.push_back(audio);
  }
  for (size_t k = 0; k < times.size(); ++k) {
    clip.samples.push_back({0, times[k], VideoSample(static_cast<int>(k))});
    if (options.audio) clip.samples.push_back({1, times[k], std::vector<uint8_t>(256, static_cast<uint8_t>(k))});
  }
  return clip;
}

TempFile::TempFile(const char* extension) {
  char pattern[] = "/tmp/ozm-player-XXXXXX";
  const int fd = mkstemp(pattern);
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  close(fd);
  m_path = std::string(pattern) + extension;
  std::rename(pattern, m_path.c_str());
  // Bigger than the tail the input reads; no attributes in it.
  if (FILE* file = std::fopen(m_path.c_str(), "wb")) {
    const std::vector<uint8_t> zeros(4096, 0);
    std::fwrite(zeros.data(), 1, zeros.size(), file);
    std::fclose(file);
  }
}

TempFile::~TempFile() { std::remove(m_path.c_str()); }

// ---------------------------------------------------------------------------------------------
// Extractor.

namespace {

class FakeExtractor final : public OzmPlatform::MediaExtractor {
 public:
  FakeExtractor(FakePlatform& platform, const ClipScript& clip) : m_platform(platform), m_clip(clip) {}
  ~FakeExtractor() override { m_platform.NoteExtractorGone(); }

  int SetDataSource(const char*) override { return kMediaOk; }
  int SetDataSourceFd(int, int64_t, int64_t) override { return kMediaOk; }
  size_t GetTrackCount() override { return m_clip.tracks.size(); }
  std::unique_ptr<OzmPlatform::MediaFormat> GetTrackFormat(size_t track) override {
    if (track >= m_clip.tracks.size()) return nullptr;
    const TrackSpec& t = m_clip.tracks[track];
    std::unique_ptr<OzmPlatform::MediaFormat> format = OzmPlatform::NewMediaFormat();
    format->SetString(Keys::kMime, t.mime.c_str());
    format->SetInt64(Keys::kDurationUs, t.durationUs);
    if (t.width) format->SetInt32(Keys::kWidth, t.width);
    if (t.height) format->SetInt32(Keys::kHeight, t.height);
    if (t.frameRate) format->SetInt32(Keys::kFrameRate, t.frameRate);
    if (t.sampleRate) format->SetInt32(Keys::kSampleRate, t.sampleRate);
    if (t.channelCount) format->SetInt32(Keys::kChannelCount, t.channelCount);
    return format;
  }
  int SelectTrack(size_t track) override {
    if (track >= m_clip.tracks.size()) return kMediaErrorInvalidParameter;
    m_selected.resize(m_clip.tracks.size(), false);
    m_selected[track] = true;
    return kMediaOk;
  }
  ssize_t ReadSampleData(uint8_t* buffer, size_t capacity) override {
    const size_t i = Current();
    if (i >= m_clip.samples.size()) return -1;
    const std::vector<uint8_t>& bytes = m_clip.samples[i].bytes;
    if (bytes.size() > capacity) return -1;
    std::memcpy(buffer, bytes.data(), bytes.size());
    m_platform.NoteRead(i);
    return static_cast<ssize_t>(bytes.size());
  }
  int GetSampleTrackIndex() override {
    const size_t i = Current();
    return i < m_clip.samples.size() ? m_clip.samples[i].track : -1;
  }
  int64_t GetSampleTime() override {
    const size_t i = Current();
    return i < m_clip.samples.size() ? m_clip.samples[i].timeUs : -1;
  }
  bool Advance() override {
    const size_t i = Current();
    if (i >= m_clip.samples.size()) return false;
    m_position = i + 1;
    return Current() < m_clip.samples.size();
  }
  int SeekTo(int64_t timeUs, OzmPlatform::SeekMode) override {
    m_platform.NoteSeek();
    m_position = 0;
    while (m_position < m_clip.samples.size() && m_clip.samples[m_position].timeUs < timeUs) ++m_position;
    return kMediaOk;
  }

 private:
  // The first sample of a selected track at or after the position.
  size_t Current() const {
    size_t i = m_position;
    while (i < m_clip.samples.size()) {
      const size_t track = static_cast<size_t>(m_clip.samples[i].track);
      if (track < m_selected.size() && m_selected[track]) break;
      ++i;
    }
    return i;
  }

  FakePlatform& m_platform;
  const ClipScript m_clip;
  std::vector<bool> m_selected;
  size_t m_position = 0;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Decoder.

// The shared state of a decoder: the player owns the codec object, the platform keeps this core
// for its counters. Inputs are decoded as soon as an output buffer is free.
class FakeCodecCore {
 public:
  FakeCodecCore(bool video, size_t inputs, size_t outputs, size_t delay)
      : m_video(video),
        m_delay(delay),
        m_inputs(inputs, std::vector<uint8_t>(video ? 256 * 1024 : 16 * 1024)),
        m_inputState(inputs, Slot::Free),
        m_outputs(outputs),
        m_outputState(outputs, Slot::Free) {}

  CodecStats Stats() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
  }

  int Configure(const OzmPlatform::MediaFormat& format, OzmPlatform::NativeWindow* surface);
  int Start();
  int Stop();
  int Flush();
  ssize_t DequeueInputBuffer(int64_t timeoutUs);
  uint8_t* GetInputBuffer(size_t index, size_t* capacity);
  int QueueInputBuffer(size_t index, size_t size, int64_t timeUs, uint32_t flags);
  ssize_t DequeueOutputBuffer(BufferInfo* info, int64_t timeoutUs);
  uint8_t* GetOutputBuffer(size_t index, size_t* size);
  std::unique_ptr<OzmPlatform::MediaFormat> GetOutputFormat();
  int ReleaseOutput(size_t index, bool render, int64_t timestampNs, bool atTime);

 private:
  enum class Slot { Free, Dequeued, Queued, Ready };
  struct Output {
    BufferInfo info;
    std::vector<uint8_t> data;
  };
  struct Pending {
    size_t input;
    BufferInfo info;
  };

  // Resets every buffer to free (start, stop, flush). Caller holds the lock.
  void ResetPools();
  // Moves queued inputs to free outputs. Caller holds the lock.
  void Decode();
  // Waits on the condition until the predicate holds, the decoder stops or is flushed, or the
  // timeout (negative: none) passes. Caller holds the lock; returns the predicate's value.
  template <typename Predicate>
  bool Wait(std::unique_lock<std::mutex>& lock, int64_t timeoutUs, Predicate predicate);

  const bool m_video;
  const size_t m_delay;  // pictures held back while no end of stream is queued
  std::mutex m_mutex;
  std::condition_variable m_condition;
  bool m_started = false;
  bool m_formatPending = false;
  uint64_t m_flushes = 0;
  std::string m_mime;
  int32_t m_width = 0, m_height = 0, m_sampleRate = 0, m_channels = 0;
  std::shared_ptr<FakeSurfaceTexture> m_surface;
  std::vector<std::vector<uint8_t>> m_inputs;
  std::vector<Slot> m_inputState;
  std::deque<Pending> m_pending;
  std::vector<Output> m_outputs;
  std::vector<Slot> m_outputState;
  std::deque<size_t> m_ready;
  CodecStats m_stats;
};

namespace {

class FakeWindow final : public OzmPlatform::NativeWindow {
 public:
  explicit FakeWindow(std::shared_ptr<FakeSurfaceTexture> surfaceTexture) : texture(std::move(surfaceTexture)) {}
  const std::shared_ptr<FakeSurfaceTexture> texture;
};

class FakeCodec final : public OzmPlatform::MediaCodec {
 public:
  explicit FakeCodec(std::shared_ptr<FakeCodecCore> core) : m_core(std::move(core)) {}
  int Configure(const OzmPlatform::MediaFormat& format, OzmPlatform::NativeWindow* surface, uint32_t) override {
    return m_core->Configure(format, surface);
  }
  int Start() override { return m_core->Start(); }
  int Stop() override { return m_core->Stop(); }
  int Flush() override { return m_core->Flush(); }
  ssize_t DequeueInputBuffer(int64_t timeoutUs) override { return m_core->DequeueInputBuffer(timeoutUs); }
  uint8_t* GetInputBuffer(size_t index, size_t* capacity) override { return m_core->GetInputBuffer(index, capacity); }
  int QueueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs, uint32_t flags) override {
    if (offset != 0) return kMediaErrorInvalidParameter;
    return m_core->QueueInputBuffer(index, size, timeUs, flags);
  }
  ssize_t DequeueOutputBuffer(BufferInfo* info, int64_t timeoutUs) override {
    return m_core->DequeueOutputBuffer(info, timeoutUs);
  }
  uint8_t* GetOutputBuffer(size_t index, size_t* size) override { return m_core->GetOutputBuffer(index, size); }
  std::unique_ptr<OzmPlatform::MediaFormat> GetOutputFormat() override { return m_core->GetOutputFormat(); }
  int ReleaseOutputBuffer(size_t index, bool render) override { return m_core->ReleaseOutput(index, render, 0, false); }
  int ReleaseOutputBufferAtTime(size_t index, int64_t timestampNs) override {
    return m_core->ReleaseOutput(index, true, timestampNs, true);
  }

 private:
  std::shared_ptr<FakeCodecCore> m_core;
};

}  // namespace

int FakeCodecCore::Configure(const OzmPlatform::MediaFormat& format, OzmPlatform::NativeWindow* surface) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const char* mime = nullptr;
  if (!format.GetString(Keys::kMime, &mime) || !mime) return kMediaErrorInvalidParameter;
  m_mime = mime;
  format.GetInt32(Keys::kWidth, &m_width);
  format.GetInt32(Keys::kHeight, &m_height);
  format.GetInt32(Keys::kSampleRate, &m_sampleRate);
  format.GetInt32(Keys::kChannelCount, &m_channels);
  if (const FakeWindow* window = dynamic_cast<const FakeWindow*>(surface)) m_surface = window->texture;
  if (m_video && !m_surface) return kMediaErrorInvalidParameter;
  return kMediaOk;
}

void FakeCodecCore::ResetPools() {
  std::fill(m_inputState.begin(), m_inputState.end(), Slot::Free);
  std::fill(m_outputState.begin(), m_outputState.end(), Slot::Free);
  m_pending.clear();
  m_ready.clear();
}

int FakeCodecCore::Start() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_started = true;
    m_formatPending = true;
    ResetPools();
    ++m_stats.starts;
  }
  m_condition.notify_all();
  return kMediaOk;
}

int FakeCodecCore::Stop() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_started = false;
    ResetPools();
    ++m_stats.stops;
  }
  m_condition.notify_all();
  return kMediaOk;
}

int FakeCodecCore::Flush() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_started) return kMediaErrorInvalidOperation;
    ResetPools();
    ++m_flushes;
    ++m_stats.flushes;
  }
  m_condition.notify_all();
  return kMediaOk;
}

template <typename Predicate>
bool FakeCodecCore::Wait(std::unique_lock<std::mutex>& lock, int64_t timeoutUs, Predicate predicate) {
  const uint64_t flushes = m_flushes;
  auto done = [&] { return predicate() || !m_started || m_flushes != flushes; };
  if (timeoutUs < 0) {
    m_condition.wait(lock, done);
  } else {
    m_condition.wait_for(lock, std::chrono::microseconds(timeoutUs), done);
  }
  return m_started && m_flushes == flushes && predicate();
}

ssize_t FakeCodecCore::DequeueInputBuffer(int64_t timeoutUs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_started) return kMediaErrorInvalidOperation;
  auto freeInput = [this] { return std::find(m_inputState.begin(), m_inputState.end(), Slot::Free); };
  if (!Wait(lock, timeoutUs, [&] { return freeInput() != m_inputState.end(); })) {
    return m_started ? kInfoTryAgainLater : kMediaErrorInvalidOperation;
  }
  const auto it = freeInput();
  *it = Slot::Dequeued;
  return it - m_inputState.begin();
}

uint8_t* FakeCodecCore::GetInputBuffer(size_t index, size_t* capacity) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (index >= m_inputs.size() || m_inputState[index] != Slot::Dequeued) return nullptr;
  if (capacity) *capacity = m_inputs[index].size();
  return m_inputs[index].data();
}

int FakeCodecCore::QueueInputBuffer(size_t index, size_t size, int64_t timeUs, uint32_t flags) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_started || index >= m_inputs.size() || m_inputState[index] != Slot::Dequeued) {
      return kMediaErrorInvalidOperation;
    }
    if (size > m_inputs[index].size()) return kMediaErrorInvalidParameter;
    BufferInfo info;
    info.size = static_cast<int32_t>(size);
    info.presentationTimeUs = timeUs;
    info.flags = flags;
    if (flags & kBufferFlagEndOfStream) {
      ++m_stats.eosInputs;
    } else if (size == 0) {
      // An empty buffer decodes to nothing.
      m_inputState[index] = Slot::Free;
      m_condition.notify_all();
      return kMediaOk;
    } else {
      m_stats.inputTimesUs.push_back(timeUs);
    }
    m_inputState[index] = Slot::Queued;
    m_pending.push_back({index, info});
    Decode();
  }
  m_condition.notify_all();
  return kMediaOk;
}

void FakeCodecCore::Decode() {
  const bool draining = std::any_of(m_pending.begin(), m_pending.end(),
                                    [](const Pending& p) { return (p.info.flags & kBufferFlagEndOfStream) != 0; });
  while (!m_pending.empty() && (draining || m_pending.size() > m_delay)) {
    const auto out = std::find(m_outputState.begin(), m_outputState.end(), Slot::Free);
    if (out == m_outputState.end()) return;
    const Pending p = m_pending.front();
    m_pending.pop_front();
    const size_t o = static_cast<size_t>(out - m_outputState.begin());
    Output& output = m_outputs[o];
    output.info = p.info;
    output.data.assign(m_inputs[p.input].begin(), m_inputs[p.input].begin() + p.info.size);
    *out = Slot::Ready;
    m_ready.push_back(o);
    m_inputState[p.input] = Slot::Free;
  }
}

ssize_t FakeCodecCore::DequeueOutputBuffer(BufferInfo* info, int64_t timeoutUs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_started) return kMediaErrorInvalidOperation;
  if (m_formatPending) {
    m_formatPending = false;
    return kInfoOutputFormatChanged;
  }
  if (!Wait(lock, timeoutUs, [this] { return !m_ready.empty(); })) {
    return m_started ? kInfoTryAgainLater : kMediaErrorInvalidOperation;
  }
  const size_t o = m_ready.front();
  m_ready.pop_front();
  m_outputState[o] = Slot::Dequeued;
  *info = m_outputs[o].info;
  if (info->flags & kBufferFlagEndOfStream) ++m_stats.eosOutputs;
  return static_cast<ssize_t>(o);
}

uint8_t* FakeCodecCore::GetOutputBuffer(size_t index, size_t* size) {
  std::lock_guard<std::mutex> lock(m_mutex);
  // Pictures go to the surface.
  if (m_surface || index >= m_outputs.size() || m_outputState[index] != Slot::Dequeued) return nullptr;
  if (size) *size = m_outputs[index].data.size();
  return m_outputs[index].data.data();
}

std::unique_ptr<OzmPlatform::MediaFormat> FakeCodecCore::GetOutputFormat() {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::unique_ptr<OzmPlatform::MediaFormat> format = OzmPlatform::NewMediaFormat();
  format->SetString(Keys::kMime, m_video ? "video/raw" : "audio/raw");
  if (m_video) {
    format->SetInt32(Keys::kWidth, m_width);
    format->SetInt32(Keys::kHeight, m_height);
  } else {
    format->SetInt32(Keys::kSampleRate, m_sampleRate);
    format->SetInt32(Keys::kChannelCount, m_channels);
  }
  return format;
}

int FakeCodecCore::ReleaseOutput(size_t index, bool render, int64_t timestampNs, bool atTime) {
  std::shared_ptr<FakeSurfaceTexture> surface;
  int64_t ptsUs = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Buffers handed out before a flush or stop are no longer the caller's.
    if (index >= m_outputs.size() || m_outputState[index] != Slot::Dequeued) return kMediaErrorInvalidOperation;
    m_outputState[index] = Slot::Free;
    ptsUs = m_outputs[index].info.presentationTimeUs;
    if (render && m_surface && m_outputs[index].info.size > 0) surface = m_surface;
    if (!atTime) timestampNs = ptsUs * 1000;
    Decode();
  }
  m_condition.notify_all();
  // Outside the decoder's lock: the announcement runs the plug-in's handler.
  if (surface) surface->Post(timestampNs, ptsUs);
  return kMediaOk;
}

// ---------------------------------------------------------------------------------------------
// Surface texture and audio track.

void FakeSurfaceTexture::UpdateTexImage() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_pending) return;
  m_pending = false;
  m_latchedNs = m_pendingNs;
  m_latchedPtsUs = m_pendingPtsUs;
}

int64_t FakeSurfaceTexture::GetTimestamp() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_latchedNs;
}

void FakeSurfaceTexture::Post(int64_t timestampNs, int64_t ptsUs) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_released) return;
    m_pending = true;
    m_pendingNs = timestampNs;
    m_pendingPtsUs = ptsUs;
    ++m_posted;
  }
  OzmPlatform::NotifyFrameAvailable(this);
}

void FakeSurfaceTexture::MarkReleased() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_released = true;
}

bool FakeSurfaceTexture::Released() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_released;
}

int FakeSurfaceTexture::Posted() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_posted;
}

int64_t FakeSurfaceTexture::LatchedPtsUs() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_latchedPtsUs;
}

namespace {

class FakeAudioTrack final : public OzmPlatform::AudioTrack {
 public:
  explicit FakeAudioTrack(FakePlatform& platform) : m_platform(platform) {}
  int Write(const uint8_t*, size_t size) override {
    m_platform.NoteAudioBytes(size);
    return static_cast<int>(size);
  }
  void Play() override {}
  void Pause() override {}
  void Stop() override {}
  void Flush() override {}
  void Release() override {}
  int SetVolume(float) override { return 0; }
  int SetPlaybackRate(int) override { return 0; }

 private:
  FakePlatform& m_platform;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Platform.

FakePlatform::FakePlatform() = default;

FakePlatform::~FakePlatform() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closing = true;
  }
  m_shutdown.notify_all();
}

void FakePlatform::SetClip(ClipScript clip) { m_clip = std::move(clip); }

void FakePlatform::SetCodecPools(size_t inputs, size_t outputs) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_inputPool = inputs;
  m_outputPool = outputs;
}

void FakePlatform::SetVideoDecoderDelay(size_t pictures) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_videoDelay = pictures;
}

void FakePlatform::SetSurfaceDelayMs(int ms) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_surfaceDelayMs = ms;
}

int FakePlatform::ReadCount(size_t sampleIndex) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto it = m_reads.find(sampleIndex);
  return it == m_reads.end() ? 0 : it->second;
}

int FakePlatform::ExtractorsMade() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_extractorsMade;
}

int FakePlatform::LiveExtractors() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_liveExtractors;
}

int FakePlatform::Seeks() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_seeks;
}

int FakePlatform::DecodersMade(const std::string& mimePrefix) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<int>(std::count_if(m_codecs.begin(), m_codecs.end(),
                                        [&](const auto& c) { return c.first.rfind(mimePrefix, 0) == 0; }));
}

CodecStats FakePlatform::Stats(const std::string& mimePrefix) const {
  std::vector<std::shared_ptr<FakeCodecCore>> cores;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& c : m_codecs) {
      if (c.first.rfind(mimePrefix, 0) == 0) cores.push_back(c.second);
    }
  }
  CodecStats sum;
  for (const auto& core : cores) {
    const CodecStats s = core->Stats();
    sum.starts += s.starts;
    sum.stops += s.stops;
    sum.flushes += s.flushes;
    sum.eosInputs += s.eosInputs;
    sum.eosOutputs += s.eosOutputs;
    sum.inputTimesUs.insert(sum.inputTimesUs.end(), s.inputTimesUs.begin(), s.inputTimesUs.end());
  }
  return sum;
}

int FakePlatform::SurfaceTexturesMade() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<int>(m_textures.size());
}

int FakePlatform::SurfaceTexturesReleased() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_texturesReleased;
}

int FakePlatform::SurfaceCreationsStarted() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_surfaceCreations;
}

std::shared_ptr<FakeSurfaceTexture> FakePlatform::LastSurfaceTexture() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_textures.empty() ? nullptr : m_textures.back();
}

int FakePlatform::AudioTracksMade() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_audioTracks;
}

int64_t FakePlatform::AudioBytesWritten() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_audioBytes;
}

void FakePlatform::NoteRead(size_t sampleIndex) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ++m_reads[sampleIndex];
}

void FakePlatform::NoteSeek() {
  std::lock_guard<std::mutex> lock(m_mutex);
  ++m_seeks;
}

void FakePlatform::NoteExtractorGone() {
  std::lock_guard<std::mutex> lock(m_mutex);
  --m_liveExtractors;
}

void FakePlatform::NoteAudioBytes(size_t bytes) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_audioBytes += static_cast<int64_t>(bytes);
}

std::unique_ptr<OzmPlatform::MediaExtractor> FakePlatform::NewMediaExtractor() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_extractorsMade;
    ++m_liveExtractors;
  }
  return std::make_unique<FakeExtractor>(*this, m_clip);
}

std::unique_ptr<OzmPlatform::MediaCodec> FakePlatform::CreateDecoderByType(const char* mime) {
  const std::string type = mime ? mime : "";
  const bool video = type.rfind("video/", 0) == 0;
  if (!video && type.rfind("audio/", 0) != 0) return nullptr;
  std::lock_guard<std::mutex> lock(m_mutex);
  auto core = std::make_shared<FakeCodecCore>(video, m_inputPool, m_outputPool, video ? m_videoDelay : 0);
  m_codecs.emplace_back(type, core);
  return std::make_unique<FakeCodec>(core);
}

std::shared_ptr<OzmPlatform::SurfaceTexture> FakePlatform::CreateSurfaceTexture(unsigned int) {
  auto texture = std::make_shared<FakeSurfaceTexture>();
  std::lock_guard<std::mutex> lock(m_mutex);
  m_textures.push_back(texture);
  return texture;
}

std::shared_ptr<OzmPlatform::NativeWindow> FakePlatform::CreateSurfaceTextureSurface(
    OzmPlatform::SurfaceTexture& texture) {
  std::unique_lock<std::mutex> lock(m_mutex);
  ++m_surfaceCreations;
  if (m_surfaceDelayMs > 0) {
    m_shutdown.wait_for(lock, std::chrono::milliseconds(m_surfaceDelayMs), [this] { return m_closing; });
  }
  for (const auto& made : m_textures) {
    if (made.get() == &texture) return std::make_shared<FakeWindow>(made);
  }
  return nullptr;
}

void FakePlatform::ReleaseSurfaceTexture(OzmPlatform::SurfaceTexture& texture) {
  std::shared_ptr<FakeSurfaceTexture> found;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& made : m_textures) {
      if (made.get() == &texture) found = made;
    }
    ++m_texturesReleased;
  }
  if (found) found->MarkReleased();
}

std::unique_ptr<OzmPlatform::AudioTrack> FakePlatform::CreateAudioTrack(int, int) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_audioTracks;
  }
  return std::make_unique<FakeAudioTrack>(*this);
}

}  // namespace FakePorts
