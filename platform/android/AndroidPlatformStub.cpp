// Placeholder backend for Android builds until the NDK and JNI backend exists: every port reports
// failure, so the plug-in loads and refuses to open anything rather than misbehave.
#include "platform/Platform.h"

namespace OzmPlatform {
namespace {

class UnavailablePlatform final : public Platform {
 public:
  bool AttachCurrentThread() override { return false; }
  void DetachCurrentThread() override {}
  std::unique_ptr<MediaExtractor> NewMediaExtractor() override { return nullptr; }
  std::unique_ptr<MediaCodec> CreateDecoderByType(const char*) override { return nullptr; }
  std::shared_ptr<SurfaceTexture> CreateSurfaceTexture(unsigned int) override { return nullptr; }
  std::shared_ptr<NativeWindow> CreateSurfaceTextureSurface(SurfaceTexture&) override { return nullptr; }
  void ReleaseSurfaceTexture(SurfaceTexture&) override {}
  std::unique_ptr<AudioTrack> CreateAudioTrack(int, int) override { return nullptr; }
  bool HasObbRoute() override { return false; }
  bool GetAssetFileDescriptorFromObb(const char*, AssetFileDescriptor*) override { return false; }
  bool GetAssetFileDescriptorAndroid10(const char*, AssetFileDescriptor*) override { return false; }
  std::unique_ptr<Asset> OpenAsset(const char*) override { return nullptr; }
  void* CaptureEglDisplay() override { return nullptr; }
};

}  // namespace

Platform& BackendPlatform() {
  static UnavailablePlatform platform;
  return platform;
}

}  // namespace OzmPlatform
