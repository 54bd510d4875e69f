// What the files of the Java bridge share and nobody else needs: the method and field ids, a local
// reference that deletes itself, the check after every Java call, and the string conversions.
#pragma once

#include <jni.h>

#include <string>

#include "platform/jni/JavaBridge.h"

namespace OzmJni {

// The plug-in's own methods (null when onCreated did not find them, or was told there is no
// expansion archive for getAssetFileDescriptorFromObb).
struct PluginMethods {
  jmethodID createSurfaceTexture = nullptr;
  jmethodID releaseSurfaceTexture = nullptr;
  jmethodID createSurfaceTextureSurface = nullptr;
  jmethodID createAudioTrack = nullptr;
  jmethodID getAssetFileDescriptorAndroid10 = nullptr;
  jmethodID getAssetFileDescriptorFromObb = nullptr;
  jmethodID downloadFileFromUrl = nullptr;
  jmethodID downloadFileFromUrlBlocking = nullptr;
  jmethodID cancelDownload = nullptr;
};

// android/content/res/AssetFileDescriptor and the int inside java/io/FileDescriptor.
struct DescriptorIds {
  jmethodID getFileDescriptor = nullptr;
  jmethodID getStartOffset = nullptr;
  jmethodID getLength = nullptr;
  jfieldID descriptor = nullptr;
};

// android/graphics/SurfaceTexture, taken from the class of the first texture that needs them.
struct SurfaceTextureIds {
  jmethodID updateTexImage = nullptr;
  jmethodID getTimestamp = nullptr;
};

// android/media/AudioTrack, taken from the class of the first track made.
struct AudioTrackIds {
  jmethodID write = nullptr;
  jmethodID release = nullptr;
  jmethodID stop = nullptr;
  jmethodID pause = nullptr;
  jmethodID play = nullptr;
  jmethodID flush = nullptr;
  jmethodID setVolume = nullptr;
  jmethodID setPlaybackRate = nullptr;
};

// A local reference, deleted when it goes out of scope. Threads attached from native code have no
// Java frame that would free their local references, so every one of them is deleted explicitly.
class LocalRef {
 public:
  LocalRef() = default;
  LocalRef(JNIEnv* env, jobject object) : m_env(env), m_object(object) {}
  ~LocalRef() { Reset(); }
  LocalRef(LocalRef&& other) noexcept : m_env(other.m_env), m_object(other.m_object) { other.m_object = nullptr; }
  LocalRef& operator=(LocalRef&& other) noexcept {
    if (this != &other) {
      Reset();
      m_env = other.m_env;
      m_object = other.m_object;
      other.m_object = nullptr;
    }
    return *this;
  }
  LocalRef(const LocalRef&) = delete;
  LocalRef& operator=(const LocalRef&) = delete;

  jobject get() const { return m_object; }
  explicit operator bool() const { return m_object != nullptr; }
  void Reset() {
    if (m_env && m_object) m_env->DeleteLocalRef(m_object);
    m_object = nullptr;
  }

 private:
  JNIEnv* m_env = nullptr;
  jobject m_object = nullptr;
};

// The bridge's state as the Java-backed ports need it. Each accessor copies under the bridge's lock
// and takes no other lock; the lazily filled id groups are looked up without the lock held and
// published by the first thread that finishes.
struct JavaCalls {
  // A local reference to the plug-in object (empty before onCreated). Taken under the lock, so a
  // second onCreated replacing the global reference cannot pull it away from under a call.
  static LocalRef Plugin(JNIEnv* env);
  static PluginMethods Methods();
  static DescriptorIds Descriptors();
  // The ids of `texture`'s class, looked up on first use; null ids when they could not be found.
  static SurfaceTextureIds SurfaceTexture(JNIEnv* env, jobject texture);
  static AudioTrackIds AudioTrack(JNIEnv* env, jobject track);
};

// After a Java call: true when it returned normally. When it threw, the exception is described
// (stack trace to the log), cleared, and an error names the call: no Java exception may stay
// pending once native code returns to the VM or makes its next JNI call.
bool CallSucceeded(JNIEnv* env, const char* what);

// A Java string with the text of `utf8`; null (and an error logged) when it is not valid UTF-8 or
// Java could not make the string. Built from UTF-16, because NewStringUTF expects Java's modified
// UTF-8 and rejects (or, with JNI checks on, aborts on) characters outside the basic plane.
jstring NewJavaString(JNIEnv* env, const std::string& utf8);
// The text of a Java string as standard UTF-8 (a lone surrogate becomes U+FFFD); empty for null.
std::string ToUtf8(JNIEnv* env, jstring text);

}  // namespace OzmJni
