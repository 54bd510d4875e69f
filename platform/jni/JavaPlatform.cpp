// The Java-backed ports: thread attachment, surface textures, audio tracks, asset file descriptors
// and downloads, each a call of the plug-in's Java object (or of the Java object it made) through
// the ids the bridge looked up. Every call is followed by an exception check, so that no Java
// exception stays pending in native code or escapes into the VM.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/Log.h"
#include "platform/jni/JavaBridge.h"
#include "platform/jni/JavaInternal.h"

namespace OzmJni {
namespace {

// The plug-in object and one of its method ids, for one call on this thread's environment.
class PluginCall {
 public:
  PluginCall(JNIEnv* env, jmethodID PluginMethods::*method, const char* name)
      : m_plugin(JavaCalls::Plugin(env)), m_method(JavaCalls::Methods().*method) {
    if (!m_plugin) {
      OZM_LOGE("JavaPlugin.%s: no plug-in object (onCreated has not run)", name);
    } else if (!m_method) {
      OZM_LOGE("JavaPlugin.%s is not available", name);
    }
  }
  explicit operator bool() const { return m_plugin && m_method; }
  jobject Plugin() const { return m_plugin.get(); }
  jmethodID Method() const { return m_method; }

 private:
  LocalRef m_plugin;
  jmethodID m_method;
};

JNIEnv* Env() { return JavaBridge::Get().AttachCurrentThread(); }

jlong HandleToJava(void* handle) { return static_cast<jlong>(reinterpret_cast<intptr_t>(handle)); }

// ---------------------------------------------------------------------------------------------
// Surface texture.

class JavaSurfaceTexture final : public OzmPlatform::SurfaceTexture {
 public:
  explicit JavaSurfaceTexture(jobject texture) : m_texture(texture) {}
  ~JavaSurfaceTexture() override {
    jobject texture = m_texture.exchange(nullptr);
    if (!texture) return;
    if (JNIEnv* env = Env()) env->DeleteGlobalRef(texture);
  }
  JavaSurfaceTexture(const JavaSurfaceTexture&) = delete;
  JavaSurfaceTexture& operator=(const JavaSurfaceTexture&) = delete;

  void UpdateTexImage() override {
    JNIEnv* env = Env();
    if (!env) return;
    LocalRef texture = Local(env);
    if (!texture) return;
    const SurfaceTextureIds ids = JavaCalls::SurfaceTexture(env, texture.get());
    if (!ids.updateTexImage) return;
    env->CallVoidMethod(texture.get(), ids.updateTexImage);
    CallSucceeded(env, "SurfaceTexture.updateTexImage");
  }

  int64_t GetTimestamp() override {
    JNIEnv* env = Env();
    if (!env) return 0;
    LocalRef texture = Local(env);
    if (!texture) return 0;
    const SurfaceTextureIds ids = JavaCalls::SurfaceTexture(env, texture.get());
    if (!ids.getTimestamp) return 0;
    const jlong timestamp = env->CallLongMethod(texture.get(), ids.getTimestamp);
    return CallSucceeded(env, "SurfaceTexture.getTimestamp") ? static_cast<int64_t>(timestamp) : 0;
  }

  // Called by the frame callback on its own (attached) thread, while the texture's entry is in the
  // player table. The texture is released only after its entry left the table (under the table's
  // lock, which this call runs under), so the reference read here is not deleted while in use.
  bool IsSameObject(const void* platformObject) const override {
    jobject texture = m_texture.load();
    if (!texture || !platformObject) return false;
    JNIEnv* env = JavaBridge::Get().CurrentEnv();
    if (!env) return false;
    return env->IsSameObject(texture, static_cast<jobject>(const_cast<void*>(platformObject))) == JNI_TRUE;
  }

  // The global reference (null once released).
  jobject Object() const { return m_texture.load(); }

  // Hands the global reference over to the caller (who deletes it); null when already released.
  // Callers on other threads hold local references of their own, taken under the lock.
  jobject Take() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_texture.exchange(nullptr);
  }

 private:
  LocalRef Local(JNIEnv* env) {
    std::lock_guard<std::mutex> lock(m_mutex);
    jobject texture = m_texture.load();
    return LocalRef(env, texture ? env->NewLocalRef(texture) : nullptr);
  }

  std::mutex m_mutex;
  std::atomic<jobject> m_texture;
};

// ---------------------------------------------------------------------------------------------
// Audio track.

class JavaAudioTrack final : public OzmPlatform::AudioTrack {
 public:
  // The plug-in's Java tracks are stereo: PCM of another channel count is turned into stereo on
  // its way (mono doubled, the first two channels of more), or it would play at the wrong speed.
  JavaAudioTrack(jobject track, const AudioTrackIds& ids, int channelCount)
      : m_track(track), m_ids(ids), m_channels(channelCount > 0 ? channelCount : 2) {}

  // A track dropped without Release is torn down here (stop, flush, release), so that Java does not
  // keep playing a track nobody holds.
  ~JavaAudioTrack() override {
    JNIEnv* env = Env();
    if (!env) return;
    if (!m_released.load()) {
      Call(env, m_ids.stop, "AudioTrack.stop");
      Call(env, m_ids.flush, "AudioTrack.flush");
      Call(env, m_ids.release, "AudioTrack.release");
    }
    if (m_buffer) env->DeleteGlobalRef(m_buffer);
    env->DeleteGlobalRef(m_track);
  }
  JavaAudioTrack(const JavaAudioTrack&) = delete;
  JavaAudioTrack& operator=(const JavaAudioTrack&) = delete;

  // One thread writes (the player's audio thread). The Java array is kept and reused while it is
  // large enough: a new array for every decoded buffer would give the collector work at audio rate.
  int Write(const uint8_t* data, size_t size) override {
    if (size == 0) return 0;
    if (!data || size > static_cast<size_t>(INT_MAX / 2)) return -1;
    if (m_channels != 2) {
      const size_t frameBytes = 2 * static_cast<size_t>(m_channels);
      const size_t frames = size / frameBytes;
      m_stereo.resize(frames * 4);
      for (size_t i = 0; i < frames; ++i) {
        const uint8_t* in = data + i * frameBytes;
        uint8_t* out = m_stereo.data() + i * 4;
        std::memcpy(out, in, 2);
        std::memcpy(out + 2, m_channels == 1 ? in : in + 2, 2);
      }
      if (frames == 0) return static_cast<int>(size);
      const int written = WriteStereo(m_stereo.data(), m_stereo.size());
      if (written < 0) return written;
      // What was taken, in the caller's bytes (a trailing partial frame counts as taken).
      return written == static_cast<int>(m_stereo.size()) ? static_cast<int>(size)
                                                          : static_cast<int>(written / 4 * frameBytes);
    }
    return WriteStereo(data, size);
  }

  int WriteStereo(const uint8_t* data, size_t size) {
    JNIEnv* env = Env();
    if (!env || !m_ids.write) return -1;
    const jsize length = static_cast<jsize>(size);
    if (!m_buffer || m_bufferSize < length) {
      if (m_buffer) env->DeleteGlobalRef(m_buffer);
      m_buffer = nullptr;
      m_bufferSize = 0;
      LocalRef array(env, env->NewByteArray(length));
      if (!CallSucceeded(env, "NewByteArray") || !array) return -1;
      m_buffer = static_cast<jbyteArray>(env->NewGlobalRef(array.get()));
      if (!m_buffer) return -1;
      m_bufferSize = length;
    }
    env->SetByteArrayRegion(m_buffer, 0, length, reinterpret_cast<const jbyte*>(data));
    if (!CallSucceeded(env, "SetByteArrayRegion")) return -1;
    const jint written = env->CallIntMethod(m_track, m_ids.write, m_buffer, 0, length);
    return CallSucceeded(env, "AudioTrack.write") ? static_cast<int>(written) : -1;
  }

  void Play() override { Call(Env(), m_ids.play, "AudioTrack.play"); }
  void Pause() override { Call(Env(), m_ids.pause, "AudioTrack.pause"); }
  void Stop() override { Call(Env(), m_ids.stop, "AudioTrack.stop"); }
  void Flush() override { Call(Env(), m_ids.flush, "AudioTrack.flush"); }
  void Release() override {
    if (m_released.exchange(true)) return;
    Call(Env(), m_ids.release, "AudioTrack.release");
  }

  int SetVolume(float volume) override {
    JNIEnv* env = Env();
    if (!env || !m_ids.setVolume) return -1;
    const jint result = env->CallIntMethod(m_track, m_ids.setVolume, static_cast<jfloat>(volume));
    return CallSucceeded(env, "AudioTrack.setVolume") ? static_cast<int>(result) : -1;
  }

  int SetPlaybackRate(int sampleRateHz) override {
    JNIEnv* env = Env();
    if (!env || !m_ids.setPlaybackRate) return -1;
    const jint result = env->CallIntMethod(m_track, m_ids.setPlaybackRate, static_cast<jint>(sampleRateHz));
    return CallSucceeded(env, "AudioTrack.setPlaybackRate") ? static_cast<int>(result) : -1;
  }

 private:
  void Call(JNIEnv* env, jmethodID method, const char* name) {
    if (!env) return;
    if (!method) {
      OZM_LOGE("%s is not available", name);
      return;
    }
    env->CallVoidMethod(m_track, method);
    CallSucceeded(env, name);
  }

  const jobject m_track;  // global reference
  const AudioTrackIds m_ids;
  const int m_channels;
  std::vector<uint8_t> m_stereo;  // Write only
  std::atomic<bool> m_released{false};
  jbyteArray m_buffer = nullptr;  // global reference, Write only
  jsize m_bufferSize = 0;
};

}  // namespace

jobject JavaObjectOf(const OzmPlatform::SurfaceTexture& texture) {
  const auto* java = dynamic_cast<const JavaSurfaceTexture*>(&texture);
  return java ? java->Object() : nullptr;
}

bool JavaPlatform::AttachCurrentThread() { return JavaBridge::Get().AttachCurrentThread() != nullptr; }

void JavaPlatform::DetachCurrentThread() { JavaBridge::Get().DetachCurrentThread(); }

std::shared_ptr<OzmPlatform::SurfaceTexture> JavaPlatform::CreateSurfaceTexture(unsigned int externalTexture) {
  JNIEnv* env = Env();
  if (!env) return nullptr;
  PluginCall call(env, &PluginMethods::createSurfaceTexture, "createSurfaceTexture");
  if (!call) return nullptr;
  LocalRef texture(env, env->CallObjectMethod(call.Plugin(), call.Method(), static_cast<jint>(externalTexture)));
  if (!CallSucceeded(env, "JavaPlugin.createSurfaceTexture")) return nullptr;
  if (!texture) {
    OZM_LOGE("JavaPlugin.createSurfaceTexture(%u) returned null", externalTexture);
    return nullptr;
  }
  jobject global = env->NewGlobalRef(texture.get());
  if (!global) return nullptr;
  return std::make_shared<JavaSurfaceTexture>(global);
}

void JavaPlatform::ReleaseSurfaceTexture(OzmPlatform::SurfaceTexture& texture) {
  auto* java = dynamic_cast<JavaSurfaceTexture*>(&texture);
  if (!java) return;
  JNIEnv* env = Env();
  if (!env) return;
  jobject object = java->Take();
  if (!object) return;
  PluginCall call(env, &PluginMethods::releaseSurfaceTexture, "releaseSurfaceTexture");
  if (call) {
    env->CallVoidMethod(call.Plugin(), call.Method(), object);
    CallSucceeded(env, "JavaPlugin.releaseSurfaceTexture");
  }
  env->DeleteGlobalRef(object);
}

jobject JavaPlatform::CreateJavaSurface(JNIEnv* env, OzmPlatform::SurfaceTexture& texture) {
  jobject object = JavaObjectOf(texture);
  if (!env || !object) return nullptr;
  PluginCall call(env, &PluginMethods::createSurfaceTextureSurface, "createSurfaceTextureSurface");
  if (!call) return nullptr;
  LocalRef surface(env, env->CallObjectMethod(call.Plugin(), call.Method(), object));
  if (!CallSucceeded(env, "JavaPlugin.createSurfaceTextureSurface")) return nullptr;
  if (!surface) {
    OZM_LOGE("JavaPlugin.createSurfaceTextureSurface returned null");
    return nullptr;
  }
  return env->NewGlobalRef(surface.get());
}

std::unique_ptr<OzmPlatform::AudioTrack> JavaPlatform::CreateAudioTrack(int sampleRateHz, int channelCount) {
  JNIEnv* env = Env();
  if (!env) return nullptr;
  PluginCall call(env, &PluginMethods::createAudioTrack, "createAudioTrack");
  if (!call) return nullptr;
  LocalRef track(env, env->CallObjectMethod(call.Plugin(), call.Method(), static_cast<jint>(sampleRateHz)));
  if (!CallSucceeded(env, "JavaPlugin.createAudioTrack")) return nullptr;
  if (!track) {
    OZM_LOGE("JavaPlugin.createAudioTrack(%i) returned null", sampleRateHz);
    return nullptr;
  }
  const AudioTrackIds ids = JavaCalls::AudioTrack(env, track.get());
  jobject global = env->NewGlobalRef(track.get());
  if (!global) return nullptr;
  return std::make_unique<JavaAudioTrack>(global, ids, channelCount);
}

bool JavaPlatform::HasObbRoute() { return JavaBridge::Get().HasObbRoute(); }

bool JavaPlatform::GetAssetFileDescriptorFromObb(const char* path, OzmPlatform::AssetFileDescriptor* out) {
  return OpenJavaDescriptor(true, path, out);
}

bool JavaPlatform::GetAssetFileDescriptorAndroid10(const char* path, OzmPlatform::AssetFileDescriptor* out) {
  return OpenJavaDescriptor(false, path, out);
}

bool JavaPlatform::OpenJavaDescriptor(bool obb, const char* path, OzmPlatform::AssetFileDescriptor* out) {
  if (!path || !out) return false;
  JNIEnv* env = Env();
  if (!env) return false;
  const char* name = obb ? "getAssetFileDescriptorFromObb" : "getAssetFileDescriptorAndroid10";
  PluginCall call(
      env, obb ? &PluginMethods::getAssetFileDescriptorFromObb : &PluginMethods::getAssetFileDescriptorAndroid10, name);
  if (!call) return false;
  LocalRef javaPath(env, NewJavaString(env, path));
  if (!javaPath) return false;
  LocalRef asset(env, env->CallObjectMethod(call.Plugin(), call.Method(), javaPath.get()));
  if (!CallSucceeded(env, name) || !asset) return false;

  const DescriptorIds ids = JavaCalls::Descriptors();
  if (!ids.getFileDescriptor || !ids.getStartOffset || !ids.getLength) {
    OZM_LOGE("%s: AssetFileDescriptor methods are not available", name);
    return false;
  }
  LocalRef fileDescriptor(env, env->CallObjectMethod(asset.get(), ids.getFileDescriptor));
  if (!CallSucceeded(env, "AssetFileDescriptor.getFileDescriptor")) return false;
  const jlong start = env->CallLongMethod(asset.get(), ids.getStartOffset);
  if (!CallSucceeded(env, "AssetFileDescriptor.getStartOffset")) return false;
  const jlong length = env->CallLongMethod(asset.get(), ids.getLength);
  if (!CallSucceeded(env, "AssetFileDescriptor.getLength")) return false;
  const int fd = fileDescriptor ? DescriptorOf(env, fileDescriptor.get()) : -1;
  if (fd < 0) {
    OZM_LOGE("%s: no file descriptor in the AssetFileDescriptor", name);
    return false;
  }
  // The Java object owns `fd` and closes it when it is collected, while the extractor reads the file
  // for as long as the player plays it. So the native side keeps a descriptor of its own: a
  // duplicate, which the input stream owns from here on.
  const int own = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (own < 0) {
    OZM_LOGE("%s: could not duplicate file descriptor %i (%s)", name, fd, std::strerror(errno));
    return false;
  }
  out->fd = own;
  out->startOffset = static_cast<int64_t>(start);
  out->length = static_cast<int64_t>(length);
  return true;
}

int JavaPlatform::DescriptorOf(JNIEnv* env, jobject fileDescriptor) {
  const DescriptorIds ids = JavaCalls::Descriptors();
  if (!ids.descriptor) {
    OZM_LOGE("java/io/FileDescriptor.descriptor is not available");
    return -1;
  }
  const jint fd = env->GetIntField(fileDescriptor, ids.descriptor);
  return CallSucceeded(env, "FileDescriptor.descriptor") ? static_cast<int>(fd) : -1;
}

void JavaPlatform::DownloadFileFromUrl(const std::string& playlistName, const std::string& url, const std::string& uri,
                                       void* nativeHandle) {
  JNIEnv* env = Env();
  if (!env) return;
  PluginCall call(env, &PluginMethods::downloadFileFromUrl, "downloadFileFromUrl");
  if (!call) return;
  LocalRef javaPlaylist(env, NewJavaString(env, playlistName));
  LocalRef javaUrl(env, NewJavaString(env, url));
  LocalRef javaUri(env, NewJavaString(env, uri));
  if (!javaPlaylist || !javaUrl || !javaUri) return;
  env->CallVoidMethod(call.Plugin(), call.Method(), javaPlaylist.get(), javaUrl.get(), javaUri.get(),
                      HandleToJava(nativeHandle));
  CallSucceeded(env, "JavaPlugin.downloadFileFromUrl");
}

std::string JavaPlatform::DownloadFileFromUrlBlocking(const std::string& url) {
  JNIEnv* env = Env();
  if (!env) return {};
  PluginCall call(env, &PluginMethods::downloadFileFromUrlBlocking, "downloadFileFromUrlBlocking");
  if (!call) return {};
  LocalRef javaUrl(env, NewJavaString(env, url));
  if (!javaUrl) return {};
  LocalRef path(env, env->CallObjectMethod(call.Plugin(), call.Method(), javaUrl.get()));
  if (!CallSucceeded(env, "JavaPlugin.downloadFileFromUrlBlocking") || !path) return {};
  return ToUtf8(env, static_cast<jstring>(path.get()));
}

void JavaPlatform::CancelDownload(void* nativeHandle) {
  JNIEnv* env = Env();
  if (!env) return;
  PluginCall call(env, &PluginMethods::cancelDownload, "cancelDownload");
  if (!call) return;
  env->CallVoidMethod(call.Plugin(), call.Method(), HandleToJava(nativeHandle));
  CallSucceeded(env, "JavaPlugin.cancelDownload");
}

}  // namespace OzmJni
