// The Android platform object: the Java parts of OzmJni::JavaPlatform, plus what needs the NDK:
// media through AMediaExtractor and AMediaCodec, native windows over the Java surfaces that video
// decoders render into, application assets, and the default EGL display.
#include <EGL/egl.h>
#include <android/native_window.h>
#include <android/native_window_jni.h>

#include "platform/Log.h"
#include "platform/android/AndroidBackend.h"
#include "platform/jni/JavaBridge.h"

namespace OzmPlatform {

// The platform of this backend (PlatformCommon.cpp asks for it).
Platform& BackendPlatform();

AndroidNativeWindow::~AndroidNativeWindow() { ANativeWindow_release(m_window); }

namespace {

class AndroidPlatform final : public OzmJni::JavaPlatform {
 public:
  std::unique_ptr<MediaExtractor> NewMediaExtractor() override {
    std::unique_ptr<MediaExtractor> extractor = NewAndroidMediaExtractor();
    if (!extractor) OZM_LOGE("AMediaExtractor_new returned null");
    return extractor;
  }

  std::unique_ptr<MediaCodec> CreateDecoderByType(const char* mime) override { return NewAndroidMediaCodec(mime); }

  // The window is made from the Java Surface of the texture, on a thread attached to the Java VM
  // (the player's mesh thread). ANativeWindow_fromSurface takes a reference of its own on the
  // surface behind the Java object, and a decoder configured with the window takes another, so the
  // Java Surface is not needed to keep the window alive: its global reference is dropped at once.
  // Releasing the window later then needs no Java environment on whatever thread lets it go last.
  std::shared_ptr<NativeWindow> CreateSurfaceTextureSurface(SurfaceTexture& texture) override {
    JNIEnv* env = OzmJni::JavaBridge::Get().CurrentEnv();
    if (!env) {
      OZM_LOGE("cannot make the video surface: the calling thread is not attached to the Java VM");
      return nullptr;
    }
    const jobject surface = CreateJavaSurface(env, texture);
    if (!surface) return nullptr;
    ANativeWindow* window = ANativeWindow_fromSurface(env, surface);
    env->DeleteGlobalRef(surface);
    if (!window) {
      OZM_LOGE("ANativeWindow_fromSurface returned null");
      return nullptr;
    }
    return std::make_shared<AndroidNativeWindow>(window);
  }

  std::unique_ptr<Asset> OpenAsset(const char* path) override { return OpenAndroidAsset(path); }

  // The engine's context lives on the default display, the only one an application has.
  void* CaptureEglDisplay() override {
    const EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    if (display == EGL_NO_DISPLAY) OZM_LOGE("eglGetDisplay(EGL_DEFAULT_DISPLAY) returned no display");
    return display;
  }
};

}  // namespace

Platform& BackendPlatform() {
  static AndroidPlatform platform;
  return platform;
}

}  // namespace OzmPlatform
