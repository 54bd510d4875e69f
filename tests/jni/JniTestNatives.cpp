// Native methods of ozmtest.JniTestNatives: what the desktop-JVM test of the Java bridge needs to
// reach from Java. A test platform (the bridge's JavaPlatform with the host's media extractor and
// no decoders) drives the plug-in's Java stand-in; the player, the registry and the HLS input are
// the real ones.
#include <jni.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "input/HLSStream.h"
#include "platform/Platform.h"
#include "platform/host/HostPlatform.h"
#include "platform/host/LogCapture.h"
#include "platform/jni/JavaBridge.h"
#include "platform/jni/JavaInternal.h"
#include "player/EngineContext.h"
#include "plugin/OzmPluginApi.h"
#include "plugin/Registry.h"

namespace {

using OzmJni::JavaBridge;

// A native window over the Java Surface, as the Android backend makes one.
class TestWindow final : public OzmPlatform::NativeWindow {
 public:
  explicit TestWindow(jobject surface) : m_surface(surface) {}
  ~TestWindow() override {
    if (JNIEnv* env = JavaBridge::Get().AttachCurrentThread()) env->DeleteGlobalRef(m_surface);
  }
  TestWindow(const TestWindow&) = delete;
  TestWindow& operator=(const TestWindow&) = delete;

 private:
  jobject m_surface;
};

class TestPlatform final : public OzmJni::JavaPlatform {
 public:
  std::unique_ptr<OzmPlatform::MediaExtractor> NewMediaExtractor() override {
    return OzmPlatform::NewHostMediaExtractor();
  }
  // Without decoders Open stops once the player's surface texture and window exist, which is all
  // the frame tests need.
  std::unique_ptr<OzmPlatform::MediaCodec> CreateDecoderByType(const char*) override { return nullptr; }
  std::shared_ptr<OzmPlatform::NativeWindow> CreateSurfaceTextureSurface(
      OzmPlatform::SurfaceTexture& texture) override {
    JNIEnv* env = JavaBridge::Get().AttachCurrentThread();
    jobject surface = env ? CreateJavaSurface(env, texture) : nullptr;
    return surface ? std::make_shared<TestWindow>(surface) : nullptr;
  }
  std::unique_ptr<OzmPlatform::Asset> OpenAsset(const char*) override { return nullptr; }
  void* CaptureEglDisplay() override { return nullptr; }

  // A desktop JDK's java.io.FileDescriptor keeps its number in "fd", not Android's "descriptor".
  // With the detour off, the bridge's own field is used (and is missing here).
  int DescriptorOf(JNIEnv* env, jobject fileDescriptor) override {
    if (!useFdField) return JavaPlatform::DescriptorOf(env, fileDescriptor);
    jclass type = env->GetObjectClass(fileDescriptor);
    jfieldID field = env->GetFieldID(type, "fd", "I");
    env->DeleteLocalRef(type);
    if (!field) {
      env->ExceptionClear();
      return -1;
    }
    return env->GetIntField(fileDescriptor, field);
  }

  using JavaPlatform::CreateJavaSurface;
  bool useFdField = true;
};

// A surface texture not made through Java.
class OtherTexture final : public OzmPlatform::SurfaceTexture {
 public:
  void UpdateTexImage() override {}
  int64_t GetTimestamp() override { return 0; }
};

TestPlatform& Platform() {
  static TestPlatform* platform = new TestPlatform();
  return *platform;
}

std::mutex g_logMutex;
std::unique_ptr<OzmPlatform::ScopedLogCapture> g_log;

// Table entries the test added itself, with what keeps them alive.
struct TestEntry {
  std::shared_ptr<OzmPlatform::SurfaceTexture> texture;
  std::shared_ptr<LumoObject> player;
};
std::mutex g_entriesMutex;
std::vector<TestEntry> g_entries;

// The HLS stream under test and the thread that opens it.
struct HlsRun {
  std::unique_ptr<MediaInputStream> stream;
  std::thread opener;
  std::future<bool> opened;
};
std::unique_ptr<HlsRun> g_hls;

std::string Bytes(JNIEnv* env, jbyteArray bytes) {
  if (!bytes) return {};
  const jsize length = env->GetArrayLength(bytes);
  std::string text(static_cast<size_t>(length), '\0');
  env->GetByteArrayRegion(bytes, 0, length, reinterpret_cast<jbyte*>(&text[0]));
  return text;
}

jbyteArray ToBytes(JNIEnv* env, const std::string& text) {
  jbyteArray bytes = env->NewByteArray(static_cast<jsize>(text.size()));
  if (bytes)
    env->SetByteArrayRegion(bytes, 0, static_cast<jsize>(text.size()), reinterpret_cast<const jbyte*>(text.data()));
  return bytes;
}

jobjectArray ToStrings(JNIEnv* env, const std::vector<std::string>& lines) {
  jclass stringClass = env->FindClass("java/lang/String");
  jobjectArray array = env->NewObjectArray(static_cast<jsize>(lines.size()), stringClass, nullptr);
  for (size_t i = 0; i < lines.size(); ++i) {
    jstring line = OzmJni::NewJavaString(env, lines[i]);
    if (!line) line = env->NewStringUTF("(not UTF-8)");
    env->SetObjectArrayElement(array, static_cast<jsize>(i), line);
    env->DeleteLocalRef(line);
  }
  env->DeleteLocalRef(stringClass);
  return array;
}

std::string Text(JNIEnv* env, jstring text) {
  if (!text) return {};
  const char* chars = env->GetStringUTFChars(text, nullptr);
  std::string out(chars ? chars : "");
  if (chars) env->ReleaseStringUTFChars(text, chars);
  return out;
}

}  // namespace

#define TEST_NATIVE(type, name) extern "C" JNIEXPORT type JNICALL Java_ozmtest_JniTestNatives_##name

// --- set-up and observation ------------------------------------------------------------------

TEST_NATIVE(void, install)(JNIEnv*, jclass) {
  OzmPlatform::SetPlatform(&Platform());
  std::lock_guard<std::mutex> lock(g_logMutex);
  if (!g_log) g_log = std::make_unique<OzmPlatform::ScopedLogCapture>();
}

// Every line logged since the last call, as "<priority> <text>".
TEST_NATIVE(jobjectArray, takeLog)(JNIEnv* env, jclass) {
  std::vector<std::string> lines;
  {
    std::lock_guard<std::mutex> lock(g_logMutex);
    if (g_log) {
      for (const OzmPlatform::LogLine& line : g_log->Lines())
        lines.push_back(std::to_string(line.priority) + " " + line.text);
      g_log->Clear();
    }
  }
  return ToStrings(env, lines);
}

// The bridge's lookups as "owner name signature method|field found|missing".
TEST_NATIVE(jobjectArray, lookups)(JNIEnv* env, jclass) {
  std::vector<std::string> lines;
  for (const OzmJni::MemberLookup& m : JavaBridge::Get().Lookups()) {
    lines.push_back(m.owner + " " + m.name + " " + m.signature + " " + (m.field ? "field" : "method") + " " +
                    (m.found ? "found" : "missing"));
  }
  return ToStrings(env, lines);
}

// onCreated with any class; true when no exception is left pending.
TEST_NATIVE(jboolean, onCreatedWith)
(JNIEnv* env, jclass, jclass pluginClass, jobject plugin, jobject assets, jint obb) {
  JavaBridge::Get().OnCreated(env, pluginClass, plugin, assets, obb);
  return env->ExceptionCheck() ? JNI_FALSE : JNI_TRUE;
}

TEST_NATIVE(jboolean, hasObbRoute)(JNIEnv*, jclass) { return Platform().HasObbRoute() ? JNI_TRUE : JNI_FALSE; }

TEST_NATIVE(jboolean, pluginIs)(JNIEnv* env, jclass, jobject plugin) {
  return env->IsSameObject(JavaBridge::Get().Plugin(), plugin);
}

TEST_NATIVE(jboolean, assetManagerIs)(JNIEnv* env, jclass, jobject assets) {
  return env->IsSameObject(JavaBridge::Get().AssetManager(), assets);
}

// --- players and the surface-texture table --------------------------------------------------

TEST_NATIVE(jint, createPlayer)(JNIEnv*, jclass) { return CreateLumoObject(); }

TEST_NATIVE(jint, openPlayer)(JNIEnv* env, jclass, jint id, jstring path) {
  OzmOpenInfo info{};
  return OpenLumoObject(id, Text(env, path).c_str(), &info);
}

TEST_NATIVE(jint, destroyPlayer)(JNIEnv*, jclass, jint id) { return DestroyLumoObject(id); }

TEST_NATIVE(void, renderEvent)(JNIEnv*, jclass, jint id) { OnUnityRenderModeEvent(id); }

TEST_NATIVE(jintArray, tablePlayers)(JNIEnv* env, jclass) {
  std::vector<jint> ids;
  for (LumoObject* player : SurfaceTexturePlayers()) ids.push_back(player->Id());
  jintArray array = env->NewIntArray(static_cast<jsize>(ids.size()));
  env->SetIntArrayRegion(array, 0, static_cast<jsize>(ids.size()), ids.data());
  return array;
}

// Makes a Java surface texture through the plug-in and adds (it, player) to the table; returns the
// Java object, or null.
TEST_NATIVE(jobject, addEntry)(JNIEnv* env, jclass, jint playerId, jint textureName) {
  std::shared_ptr<LumoObject> player = OzmPlugin::GetRegistry().Find(playerId);
  std::shared_ptr<OzmPlatform::SurfaceTexture> texture =
      Platform().CreateSurfaceTexture(static_cast<unsigned int>(textureName));
  if (!player || !texture) return nullptr;
  AddSurfaceTextureEntry(texture.get(), player.get());
  {
    std::lock_guard<std::mutex> lock(g_entriesMutex);
    g_entries.push_back({texture, player});
  }
  return env->NewLocalRef(OzmJni::JavaObjectOf(*texture));
}

TEST_NATIVE(jboolean, removeEntry)(JNIEnv* env, jclass, jobject javaTexture) {
  TestEntry entry;
  {
    std::lock_guard<std::mutex> lock(g_entriesMutex);
    for (auto it = g_entries.begin(); it != g_entries.end(); ++it) {
      if (env->IsSameObject(OzmJni::JavaObjectOf(*it->texture), javaTexture)) {
        entry = *it;
        g_entries.erase(it);
        break;
      }
    }
  }
  if (!entry.texture) return JNI_FALSE;
  const bool removed = RemoveSurfaceTextureEntry(entry.texture.get());
  Platform().ReleaseSurfaceTexture(*entry.texture);
  return removed ? JNI_TRUE : JNI_FALSE;
}

// --- the ports, called as the player calls them ---------------------------------------------

// Surface texture: create, make its Surface, latch, read the time, release, then latch again
// (nothing reaches Java after the release). Returns the timestamp; -1 when a step failed.
TEST_NATIVE(jlong, surfaceScenario)(JNIEnv* env, jclass, jint textureName) {
  TestPlatform& platform = Platform();
  std::shared_ptr<OzmPlatform::SurfaceTexture> texture =
      platform.CreateSurfaceTexture(static_cast<unsigned int>(textureName));
  if (!texture || !OzmJni::JavaObjectOf(*texture)) return -1;
  jobject surface = platform.CreateJavaSurface(env, *texture);
  if (!surface) return -1;
  env->DeleteGlobalRef(surface);
  texture->UpdateTexImage();
  const int64_t timestamp = texture->GetTimestamp();
  platform.ReleaseSurfaceTexture(*texture);
  if (OzmJni::JavaObjectOf(*texture)) return -1;
  texture->UpdateTexImage();
  OtherTexture other;
  if (OzmJni::JavaObjectOf(other)) return -1;
  platform.ReleaseSurfaceTexture(other);
  return timestamp;
}

// Audio track: create, play, two writes, volume, rate, pause, then either the player's teardown
// (stop, flush, release) or none (the track's destruction does it). Returns the results of the two
// writes, setVolume and setPlaybackRate; null when no track was made.
TEST_NATIVE(jintArray, audioScenario)
(JNIEnv* env, jclass, jint rate, jint channels, jbyteArray first, jbyteArray second, jboolean tearDown) {
  std::unique_ptr<OzmPlatform::AudioTrack> track = Platform().CreateAudioTrack(rate, channels);
  if (!track) return nullptr;
  const std::string a = Bytes(env, first);
  const std::string b = Bytes(env, second);
  track->Play();
  jint results[4];
  results[0] = track->Write(reinterpret_cast<const uint8_t*>(a.data()), a.size());
  results[1] = track->Write(reinterpret_cast<const uint8_t*>(b.data()), b.size());
  results[2] = track->SetVolume(0.5f);
  results[3] = track->SetPlaybackRate(rate / 2);
  track->Pause();
  if (tearDown) {
    track->Stop();
    track->Flush();
    track->Release();
    track->Release();
  }
  track.reset();
  jintArray out = env->NewIntArray(4);
  env->SetIntArrayRegion(out, 0, 4, results);
  return out;
}

// An asset descriptor route: {1, fd, start, length} or {0}. The descriptor is the caller's to close.
TEST_NATIVE(jlongArray, descriptorRoute)(JNIEnv* env, jclass, jbyteArray path, jboolean obb, jboolean useFdField) {
  TestPlatform& platform = Platform();
  platform.useFdField = useFdField == JNI_TRUE;
  const std::string text = Bytes(env, path);
  OzmPlatform::AssetFileDescriptor descriptor;
  const bool ok = obb ? platform.GetAssetFileDescriptorFromObb(text.c_str(), &descriptor)
                      : platform.GetAssetFileDescriptorAndroid10(text.c_str(), &descriptor);
  platform.useFdField = true;
  const jlong values[4] = {ok ? 1 : 0, descriptor.fd, descriptor.startOffset, descriptor.length};
  jlongArray out = env->NewLongArray(ok ? 4 : 1);
  env->SetLongArrayRegion(out, 0, ok ? 4 : 1, values);
  return out;
}

TEST_NATIVE(jint, readByteAt)(JNIEnv*, jclass, jint fd, jlong offset) {
  unsigned char byte = 0;
  return pread(fd, &byte, 1, static_cast<off_t>(offset)) == 1 ? byte : -1;
}

TEST_NATIVE(void, closeFd)(JNIEnv*, jclass, jint fd) { close(fd); }

// The blocking download with the address as UTF-8 bytes; the path as UTF-8 bytes, null when empty.
TEST_NATIVE(jbyteArray, downloadBlocking)(JNIEnv* env, jclass, jbyteArray url) {
  const std::string path = Platform().DownloadFileFromUrlBlocking(Bytes(env, url));
  return path.empty() ? nullptr : ToBytes(env, path);
}

TEST_NATIVE(void, download)(JNIEnv* env, jclass, jbyteArray playlist, jbyteArray url, jbyteArray uri, jlong handle) {
  Platform().DownloadFileFromUrl(Bytes(env, playlist), Bytes(env, url), Bytes(env, uri),
                                 reinterpret_cast<void*>(static_cast<intptr_t>(handle)));
}

TEST_NATIVE(void, cancelDownload)(JNIEnv*, jclass, jlong handle) {
  Platform().CancelDownload(reinterpret_cast<void*>(static_cast<intptr_t>(handle)));
}

// --- thread attachment -----------------------------------------------------------------------

// On a native thread: attach (an environment), detach (none), attach again and exit attached.
// Returns whether the first two held; the exit's detachment is checked from Java.
TEST_NATIVE(jboolean, nativeThreadAttachment)(JNIEnv*, jclass) {
  bool ok = false;
  std::thread thread([&ok] {
    JavaBridge& bridge = JavaBridge::Get();
    const bool before = bridge.CurrentEnv() == nullptr;
    const bool attached = Platform().AttachCurrentThread() && bridge.CurrentEnv() != nullptr;
    const bool again = bridge.AttachCurrentThread() == bridge.CurrentEnv();
    Platform().DetachCurrentThread();
    const bool detached = bridge.CurrentEnv() == nullptr;
    ok = before && attached && again && detached && Platform().AttachCurrentThread();
  });
  thread.join();
  return ok ? JNI_TRUE : JNI_FALSE;
}

// Detaching a Java thread is not ours to do: it stays attached.
TEST_NATIVE(jboolean, detachJavaThread)(JNIEnv* env, jclass) {
  Platform().DetachCurrentThread();
  return JavaBridge::Get().CurrentEnv() == env && Platform().AttachCurrentThread() ? JNI_TRUE : JNI_FALSE;
}

// --- HLS input -------------------------------------------------------------------------------

// Opens an HLS stream on a native thread (Open blocks until buffering completes); returns the
// stream's handle, the one its downloads carry.
TEST_NATIVE(jlong, hlsStart)(JNIEnv* env, jclass, jstring url) {
  g_hls = std::make_unique<HlsRun>();
  g_hls->stream = CreateHLSStream(7);
  MediaInputStream* stream = g_hls->stream.get();
  std::promise<bool> opened;
  g_hls->opened = opened.get_future();
  g_hls->opener = std::thread([stream, path = Text(env, url), result = std::move(opened)]() mutable {
    const OzmOpenInfo info{};
    result.set_value(stream->Open(path.c_str(), info));
  });
  return static_cast<jlong>(reinterpret_cast<intptr_t>(static_cast<HLSStream*>(stream)));
}

// 1 opened, 0 failed, -1 still opening after the time-out.
TEST_NATIVE(jint, hlsWait)(JNIEnv*, jclass, jint timeoutMs) {
  if (!g_hls || !g_hls->opened.valid()) return 0;
  if (g_hls->opened.wait_for(std::chrono::milliseconds(timeoutMs)) != std::future_status::ready) return -1;
  return g_hls->opened.get() ? 1 : 0;
}

TEST_NATIVE(void, hlsDestroy)(JNIEnv*, jclass) {
  if (!g_hls) return;
  g_hls->stream->Cancel();
  if (g_hls->opener.joinable()) g_hls->opener.join();
  g_hls.reset();
}
