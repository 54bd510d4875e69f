// The Linux host backend: FFmpeg decoders and demuxers, a surface texture that uploads pictures
// through an EGLImage, a paced PCM sink for audio, and assets in a folder.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace OzmPlatform {

// One decoded picture, packed RGBA rows (width * 4 bytes each, no padding).
struct HostPicture {
  std::shared_ptr<const std::vector<uint8_t>> rgba;
  int width = 0;
  int height = 0;
};

// The host's native window: what a host video decoder releases its pictures to.
class HostNativeWindow : public NativeWindow {
 public:
  // The picture becomes available at the monotonic time timestampNs (at once when that is past),
  // and is then the texture's newest picture with that timestamp.
  virtual void QueuePicture(HostPicture picture, int64_t timestampNs) = 0;
};

// Media parts (platform/host/HostMediaExtractor.cpp, HostMediaCodec.cpp).
std::unique_ptr<MediaExtractor> NewHostMediaExtractor();
// "video/avc", "video/hevc", "audio/mp4a-latm"; null for anything else.
std::unique_ptr<MediaCodec> NewHostMediaCodec(const char* mime);

// Output parts (platform/host/HostSurfaceTexture.cpp, HostAudioTrack.cpp).
std::shared_ptr<SurfaceTexture> NewHostSurfaceTexture(unsigned int externalTexture);
// The window of a surface texture made by NewHostSurfaceTexture (null for any other).
std::shared_ptr<NativeWindow> HostSurfaceOf(SurfaceTexture& texture);
// Stops delivering pictures; pending ones are dropped.
void ReleaseHostSurfaceTexture(SurfaceTexture& texture);
// 16-bit interleaved PCM with channelCount channels; null for an unsupported rate or channel count.
std::unique_ptr<AudioTrack> NewHostAudioTrack(int sampleRateHz, int channelCount = 2);

// The backend's platform object.
Platform& HostPlatform();

// Host-only settings for tools and tests (never on Android).
namespace HostSettings {
// Relative paths given to Open are looked up here as application assets (empty: no assets).
void SetAssetsRoot(const std::string& folder);
std::string AssetsRoot();
// Every audio track also writes what it plays to a WAV file in this folder, one file per track,
// named audio-<n>.wav (empty: no files).
void SetAudioCaptureFolder(const std::string& folder);
std::string AudioCaptureFolder();
}  // namespace HostSettings

}  // namespace OzmPlatform
