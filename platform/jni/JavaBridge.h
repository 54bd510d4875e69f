// The plug-in's Java side as the native code sees it. The Java class com.OzmUnityPlugin.JavaPlugin
// calls onCreated once with itself and the asset manager; from then on the bridge holds the Java VM,
// global references to both objects, and every method and field id the native side calls. On top
// of that sit the Java-backed ports: surface textures, audio tracks, asset file descriptors and
// downloads, and JavaPlatform, a Platform whose Java parts are done here.
//
// Everything in this folder is portable C++ over <jni.h> and nothing else of Android: the Android
// backend builds on it, and it also builds for a desktop JVM, where tests load it and check every
// id and every call against a Java class with the same methods.
#pragma once

#include <jni.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace OzmJni {

// One method or field the native side looks up, and whether it was found. The bridge keeps the
// list of everything it looked up, so a signature typo shows as a missing entry (and an error in
// the log) instead of a crash at the first call.
struct MemberLookup {
  std::string owner;  // JNI class name, "com/OzmUnityPlugin/JavaPlugin" for the plug-in's own methods
  std::string name;
  std::string signature;
  bool field = false;
  bool found = false;
};

class JavaBridge {
 public:
  static JavaBridge& Get();

  // The body of Java_com_OzmUnityPlugin_JavaPlugin_onCreated. The plug-in methods are looked up on
  // `pluginClass`; a member that is missing is logged and recorded (Lookups) and its id stays null,
  // and the calls that need it fail with an error. A second call replaces the references and ids.
  void OnCreated(JNIEnv* env, jclass pluginClass, jobject plugin, jobject assetManager, jint useObb);
  // The body of Java_com_OzmUnityPlugin_JavaPlugin_onFrameAvailableNative: fills the surface
  // texture's ids on the first call, then hands the Java object to the frame-available handler
  // (OzmPlatform::NotifyFrameAvailable), which finds the player whose texture IsSameObject.
  void OnFrameAvailable(JNIEnv* env, jobject surfaceTexture);
  // The body of Java_com_OzmUnityPlugin_JavaPlugin_onDownloadComplete: the path (null when the
  // download failed) goes to OzmPlatform::NotifyDownloadComplete with the handle.
  void OnDownloadComplete(JNIEnv* env, jstring localPath, jlong nativeHandle);

  // True once onCreated has run and found the VM.
  bool Ready() const;
  JavaVM* Vm() const;
  // Global references made by onCreated (null before), valid until the next onCreated.
  jobject Plugin() const;
  jobject AssetManager() const;
  // Whether onCreated was told an expansion archive is in use (and found its method).
  bool HasObbRoute() const;

  // The calling thread's environment, attaching it to the VM when it is not yet; null without a
  // VM or when attaching fails. An attachment made here stays until DetachCurrentThread, or until
  // the thread exits, which detaches it.
  JNIEnv* AttachCurrentThread();
  // Detaches the calling thread if AttachCurrentThread attached it; a thread that was attached
  // otherwise (a Java thread) stays attached.
  void DetachCurrentThread();
  // The calling thread's environment if it is attached, else null (never attaches).
  JNIEnv* CurrentEnv() const;

  // Everything looked up so far (onCreated, the first frame callback, the first audio track), in
  // the order of the lookups.
  std::vector<MemberLookup> Lookups() const;

  JavaBridge(const JavaBridge&) = delete;
  JavaBridge& operator=(const JavaBridge&) = delete;

 private:
  JavaBridge();
  ~JavaBridge();
  struct State;
  std::unique_ptr<State> m_state;
  friend struct JavaCalls;
};

// A Platform whose Java parts go through the plug-in's Java object: thread attachment, surface
// textures (createSurfaceTexture, releaseSurfaceTexture, updateTexImage, getTimestamp), audio
// tracks (createAudioTrack and the AudioTrack methods), asset file descriptors
// (getAssetFileDescriptorAndroid10, getAssetFileDescriptorFromObb) and downloads
// (downloadFileFromUrl, downloadFileFromUrlBlocking, cancelDownload). What needs more than JNI
// (media, native windows, assets, EGL) is left to the backend that derives from it.
class JavaPlatform : public OzmPlatform::Platform {
 public:
  bool AttachCurrentThread() override;
  void DetachCurrentThread() override;
  std::shared_ptr<OzmPlatform::SurfaceTexture> CreateSurfaceTexture(unsigned int externalTexture) override;
  void ReleaseSurfaceTexture(OzmPlatform::SurfaceTexture& texture) override;
  std::unique_ptr<OzmPlatform::AudioTrack> CreateAudioTrack(int sampleRateHz, int channelCount) override;
  bool HasObbRoute() override;
  bool GetAssetFileDescriptorFromObb(const char* path, OzmPlatform::AssetFileDescriptor* out) override;
  bool GetAssetFileDescriptorAndroid10(const char* path, OzmPlatform::AssetFileDescriptor* out) override;
  void DownloadFileFromUrl(const std::string& playlistName, const std::string& url, const std::string& uri,
                           void* nativeHandle) override;
  std::string DownloadFileFromUrlBlocking(const std::string& url) override;
  void CancelDownload(void* nativeHandle) override;

 protected:
  // The Java Surface of a surface texture made by CreateSurfaceTexture
  // (createSurfaceTextureSurface), as a global reference the caller deletes; null on failure. The
  // Android backend makes its native window from it.
  jobject CreateJavaSurface(JNIEnv* env, OzmPlatform::SurfaceTexture& texture);
  // The descriptor number inside a java.io.FileDescriptor (its int field "descriptor" on Android);
  // -1 when it cannot be read.
  virtual int DescriptorOf(JNIEnv* env, jobject fileDescriptor);

 private:
  // Both asset-descriptor routes: the Java call with the path, then the descriptor, its range, and a
  // duplicate of the descriptor that the caller owns.
  bool OpenJavaDescriptor(bool obb, const char* path, OzmPlatform::AssetFileDescriptor* out);
};

// The Java SurfaceTexture behind a surface texture made by JavaPlatform (a global reference owned
// by it), or null for one made otherwise or already released (ReleaseSurfaceTexture).
jobject JavaObjectOf(const OzmPlatform::SurfaceTexture& texture);

}  // namespace OzmJni
