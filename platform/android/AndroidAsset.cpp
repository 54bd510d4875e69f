// Application assets through the system's asset manager, reached from the Java AssetManager that
// the plug-in's Java class handed over when it was created.
#include <android/asset_manager.h>
#include <android/asset_manager_jni.h>

#include <climits>

#include "platform/Log.h"
#include "platform/android/AndroidBackend.h"
#include "platform/jni/JavaBridge.h"

namespace OzmPlatform {
namespace {

// The 64-bit forms of the descriptor and seek calls: off_t is 32 bits on 32-bit devices, which
// would cut offsets into assets packed beyond 2 GiB of an archive.
class AndroidAsset final : public Asset {
 public:
  explicit AndroidAsset(AAsset* asset) : m_asset(asset) {}
  ~AndroidAsset() override { AAsset_close(m_asset); }
  AndroidAsset(const AndroidAsset&) = delete;
  AndroidAsset& operator=(const AndroidAsset&) = delete;

  int OpenFileDescriptor(int64_t* start, int64_t* length) override {
    off64_t assetStart = 0, assetLength = 0;
    const int fd = AAsset_openFileDescriptor64(m_asset, &assetStart, &assetLength);
    if (fd >= 0) {
      if (start) *start = assetStart;
      if (length) *length = assetLength;
    }
    return fd;
  }

  int64_t Seek(int64_t offset, int whence) override {
    const off64_t at = AAsset_seek64(m_asset, static_cast<off64_t>(offset), whence);
    return at < 0 ? -1 : static_cast<int64_t>(at);
  }

  int Read(void* buffer, size_t count) override {
    if (!buffer) return -1;
    if (count > static_cast<size_t>(INT_MAX)) count = static_cast<size_t>(INT_MAX);
    return AAsset_read(m_asset, buffer, count);
  }

 private:
  AAsset* const m_asset;
};

}  // namespace

std::unique_ptr<Asset> OpenAndroidAsset(const char* path) {
  if (!path || !*path) return nullptr;
  OzmJni::JavaBridge& bridge = OzmJni::JavaBridge::Get();
  const jobject javaManager = bridge.AssetManager();
  if (!javaManager) {
    OZM_LOGE("cannot open asset %s: no asset manager yet (the Java plug-in has not been created)", path);
    return nullptr;
  }
  JNIEnv* env = bridge.CurrentEnv();
  if (!env) {
    OZM_LOGE("cannot open asset %s: the calling thread is not attached to the Java VM", path);
    return nullptr;
  }
  AAssetManager* manager = AAssetManager_fromJava(env, javaManager);
  if (!manager) {
    OZM_LOGE("cannot open asset %s: AAssetManager_fromJava returned null", path);
    return nullptr;
  }
  // A missing asset is the caller's to report.
  AAsset* asset = AAssetManager_open(manager, path, AASSET_MODE_UNKNOWN);
  if (!asset) return nullptr;
  return std::make_unique<AndroidAsset>(asset);
}

}  // namespace OzmPlatform
