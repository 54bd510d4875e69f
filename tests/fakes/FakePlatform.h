// Fake ports for unit tests of the player's threads and state machines: a scripted extractor, a
// decoder with fixed buffer pools that hands every input back as output with its time, a surface
// texture that latches the picture last released to its window, and an audio track that only counts.
// Everything the player does to them is counted, so tests can check what happened and when.
//
// Install with OzmPlatform::SetPlatform(&fake) and restore with SetPlatform(nullptr) before the fake
// goes away; players that used it must be destroyed first.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace FakePorts {

struct TrackSpec {
  std::string mime;
  int32_t width = 0;
  int32_t height = 0;
  int32_t frameRate = 0;
  int64_t durationUs = 0;
  int32_t sampleRate = 0;
  int32_t channelCount = 0;
};

struct SampleSpec {
  int track = 0;
  int64_t timeUs = 0;
  std::vector<uint8_t> bytes;
};

// What every extractor made by the platform reads: the tracks and the samples in presentation order.
struct ClipScript {
  std::vector<TrackSpec> tracks;
  std::vector<SampleSpec> samples;
};

struct ClipOptions {
  int videoFrames = 12;
  int64_t firstTimeUs = 0;
  int64_t frameStepUs = 10000;
  // When not empty, the times of the video samples (videoFrames is then ignored).
  std::vector<int64_t> videoTimesUs;
  bool audio = false;  // an audio track with one sample per video frame, interleaved by time
  int32_t width = 64;
  int32_t height = 32;
  int32_t frameRate = 100;
};

// A clip whose video sample k is a slice NAL unit followed by a mesh unit holding a key frame of a
// small mesh, distinct per frame, with frame id k + 1.
ClipScript MakeClip(const ClipOptions& options);

// A real file for the input's fopen (it reads the file's tail); removed on destruction.
class TempFile {
 public:
  explicit TempFile(const char* extension);
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

// A surface texture whose window receives the pictures a decoder releases. A released picture is
// available at once: the next UpdateTexImage latches the newest one, and its timestamp is the time
// it was released at.
class FakeSurfaceTexture final : public OzmPlatform::SurfaceTexture {
 public:
  void UpdateTexImage() override;
  int64_t GetTimestamp() override;

  // A decoder released the picture of sample time ptsUs at timestampNs; announces it.
  void Post(int64_t timestampNs, int64_t ptsUs);
  void MarkReleased();

  bool Released() const;
  int Posted() const;
  // Sample time of the latched picture, -1 before the first latch.
  int64_t LatchedPtsUs() const;

 private:
  mutable std::mutex m_mutex;
  bool m_released = false;
  bool m_pending = false;
  int64_t m_pendingNs = 0;
  int64_t m_pendingPtsUs = -1;
  int64_t m_latchedNs = 0;
  int64_t m_latchedPtsUs = -1;
  int m_posted = 0;
};

// Counters of one decoder, kept by the platform after the player dropped the decoder.
struct CodecStats {
  int starts = 0;
  int stops = 0;
  int flushes = 0;
  int eosInputs = 0;
  int eosOutputs = 0;
  std::vector<int64_t> inputTimesUs;  // non-empty inputs, in queueing order
};

class FakeCodecCore;

class FakePlatform final : public OzmPlatform::Platform {
 public:
  FakePlatform();
  ~FakePlatform() override;
  FakePlatform(const FakePlatform&) = delete;
  FakePlatform& operator=(const FakePlatform&) = delete;

  // Script and knobs; set them before the player uses the platform.
  void SetClip(ClipScript clip);
  const ClipScript& Clip() const { return m_clip; }
  void SetCodecPools(size_t inputs, size_t outputs);
  // Video decoders made afterwards hold this many pictures back until more input (or the end of
  // stream) comes, like a decoder that reorders frames (the input pool must be larger).
  void SetVideoDecoderDelay(size_t pictures);
  // CreateSurfaceTextureSurface takes this long (it gives up early when the platform goes away).
  void SetSurfaceDelayMs(int ms);

  // Observations (any thread).
  int ReadCount(size_t sampleIndex) const;
  int ExtractorsMade() const;
  int LiveExtractors() const;
  int Seeks() const;
  int DecodersMade(const std::string& mimePrefix) const;
  // Counters of the decoders made for mimes with the given prefix, summed.
  CodecStats Stats(const std::string& mimePrefix) const;
  int SurfaceTexturesMade() const;
  int SurfaceTexturesReleased() const;
  int SurfaceCreationsStarted() const;
  std::shared_ptr<FakeSurfaceTexture> LastSurfaceTexture() const;
  int AudioTracksMade() const;
  int64_t AudioBytesWritten() const;

  // Ports.
  bool AttachCurrentThread() override { return true; }
  void DetachCurrentThread() override {}
  std::unique_ptr<OzmPlatform::MediaExtractor> NewMediaExtractor() override;
  std::unique_ptr<OzmPlatform::MediaCodec> CreateDecoderByType(const char* mime) override;
  std::shared_ptr<OzmPlatform::SurfaceTexture> CreateSurfaceTexture(unsigned int externalTexture) override;
  std::shared_ptr<OzmPlatform::NativeWindow> CreateSurfaceTextureSurface(OzmPlatform::SurfaceTexture& texture) override;
  void ReleaseSurfaceTexture(OzmPlatform::SurfaceTexture& texture) override;
  std::unique_ptr<OzmPlatform::AudioTrack> CreateAudioTrack(int sampleRateHz, int channelCount) override;
  bool HasObbRoute() override { return false; }
  bool GetAssetFileDescriptorFromObb(const char*, OzmPlatform::AssetFileDescriptor*) override { return false; }
  bool GetAssetFileDescriptorAndroid10(const char*, OzmPlatform::AssetFileDescriptor*) override { return false; }
  std::unique_ptr<OzmPlatform::Asset> OpenAsset(const char*) override { return nullptr; }
  void* CaptureEglDisplay() override { return nullptr; }

  // For the fake objects.
  void NoteRead(size_t sampleIndex);
  void NoteSeek();
  void NoteExtractorGone();
  void NoteAudioBytes(size_t bytes);

 private:
  ClipScript m_clip;
  mutable std::mutex m_mutex;
  std::condition_variable m_shutdown;  // wakes a slow surface creation when the platform goes away
  bool m_closing = false;
  size_t m_inputPool = 4;
  size_t m_outputPool = 4;
  size_t m_videoDelay = 0;
  int m_surfaceDelayMs = 0;
  std::map<size_t, int> m_reads;
  int m_extractorsMade = 0;
  int m_liveExtractors = 0;
  int m_seeks = 0;
  std::vector<std::pair<std::string, std::shared_ptr<FakeCodecCore>>> m_codecs;
  std::vector<std::shared_ptr<FakeSurfaceTexture>> m_textures;
  int m_texturesReleased = 0;
  int m_surfaceCreations = 0;
  int m_audioTracks = 0;
  int64_t m_audioBytes = 0;
};

}  // namespace FakePorts
