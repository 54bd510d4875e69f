// The bridge's process-wide state: the VM, the global references onCreated hands over, every method
// and field id, the record of the lookups, and thread attachment.
#include "platform/jni/JavaBridge.h"

#include <pthread.h>

#include <atomic>
#include <initializer_list>
#include <mutex>

#include "platform/Log.h"
#include "platform/jni/JavaInternal.h"

namespace OzmJni {
namespace {

constexpr const char* kPluginClassName = "com/OzmUnityPlugin/JavaPlugin";
constexpr const char* kDescriptorClassName = "android/content/res/AssetFileDescriptor";
constexpr const char* kFileDescriptorClassName = "java/io/FileDescriptor";
constexpr const char* kSurfaceTextureClassName = "android/graphics/SurfaceTexture";
constexpr const char* kAudioTrackClassName = "android/media/AudioTrack";

// One entry of a lookup table: a method (method set) or a field (field set) and where its id goes.
struct MemberSpec {
  const char* name;
  const char* signature;
  jmethodID* method;
  jfieldID* field;
};

MemberSpec Method(const char* name, const char* signature, jmethodID* id) { return {name, signature, id, nullptr}; }
MemberSpec Field(const char* name, const char* signature, jfieldID* id) { return {name, signature, nullptr, id}; }

// The one routine every lookup goes through. A member that is missing leaves NoSuchMethodError or
// NoSuchFieldError pending, and the next JNI call made with an exception pending would abort the
// VM: it is cleared here, the id stays null, and the log names class, member and signature.
void LookUp(JNIEnv* env, jclass owner, const std::string& ownerName, std::initializer_list<MemberSpec> members,
            std::vector<MemberLookup>& record) {
  for (const MemberSpec& member : members) {
    MemberLookup entry{ownerName, member.name, member.signature, member.field != nullptr, false};
    if (owner) {
      if (member.field) {
        *member.field = env->GetFieldID(owner, member.name, member.signature);
        entry.found = *member.field != nullptr;
      } else {
        *member.method = env->GetMethodID(owner, member.name, member.signature);
        entry.found = *member.method != nullptr;
      }
      if (env->ExceptionCheck()) {
        env->ExceptionClear();
        entry.found = false;
      }
    }
    if (!entry.found) {
      if (member.field) *member.field = nullptr;
      if (member.method) *member.method = nullptr;
      OZM_LOGE("JNI: %s %s.%s with signature %s not found", entry.field ? "field" : "method", ownerName.c_str(),
               member.name, member.signature);
    }
    record.push_back(std::move(entry));
  }
}

// A class by name through the caller's class loader (the plug-in's, when called from onCreated);
// null with an error when there is none.
LocalRef FindClass(JNIEnv* env, const char* name) {
  jclass found = env->FindClass(name);
  if (env->ExceptionCheck()) {
    env->ExceptionClear();
    found = nullptr;
  }
  if (!found) OZM_LOGE("JNI: class %s not found", name);
  return LocalRef(env, found);
}

// The JNI name of a class ("com/OzmUnityPlugin/JavaPlugin"), or `fallback` when Java cannot say.
std::string ClassName(JNIEnv* env, jclass type, const char* fallback) {
  if (!type) return fallback;
  LocalRef classClass(env, env->GetObjectClass(type));
  jmethodID getName =
      classClass ? env->GetMethodID(static_cast<jclass>(classClass.get()), "getName", "()Ljava/lang/String;") : nullptr;
  if (env->ExceptionCheck()) {
    env->ExceptionClear();
    getName = nullptr;
  }
  if (!getName) return fallback;
  LocalRef name(env, env->CallObjectMethod(type, getName));
  if (!CallSucceeded(env, "Class.getName") || !name) return fallback;
  std::string text = ToUtf8(env, static_cast<jstring>(name.get()));
  for (char& c : text) {
    if (c == '.') c = '/';
  }
  return text.empty() ? fallback : text;
}

jclass NewGlobalClass(JNIEnv* env, jobject type) {
  return type ? static_cast<jclass>(env->NewGlobalRef(type)) : nullptr;
}

// Threads that exit while still attached by us are detached on their way out: a VM keeps waiting
// for (desktop) or aborts on (Android) a thread that went away attached.
void DetachAtThreadExit(void* vm) { static_cast<JavaVM*>(vm)->DetachCurrentThread(); }

// AttachCurrentThread takes JNIEnv** in Android's jni.h and void** in the desktop JDK's.
struct EnvOut {
  JNIEnv** env;
  operator JNIEnv**() const { return env; }
  operator void**() const { return reinterpret_cast<void**>(env); }
};

}  // namespace

struct JavaBridge::State {
  std::atomic<JavaVM*> vm{nullptr};
  // Per thread: the VM when this bridge attached the thread, else null.
  pthread_key_t attachedKey{};
  bool haveKey = false;

  // Everything below under `mutex`, which is never held across a JNI call that could call back.
  mutable std::mutex mutex;
  jobject plugin = nullptr;
  jobject assetManager = nullptr;
  // Global references to the classes the ids belong to, which keep those classes (and so the ids)
  // alive.
  jclass pluginClass = nullptr;
  jclass descriptorClass = nullptr;
  jclass fileDescriptorClass = nullptr;
  PluginMethods methods;
  DescriptorIds descriptors;
  std::vector<MemberLookup> createdLookups;

  jclass surfaceTextureClass = nullptr;
  bool haveSurfaceTextureIds = false;
  bool surfaceTextureLookedUp = false;
  SurfaceTextureIds surfaceTextureIds;
  jclass audioTrackClass = nullptr;
  bool haveAudioTrackIds = false;
  bool audioTrackLookedUp = false;
  AudioTrackIds audioTrackIds;
  std::vector<MemberLookup> laterLookups;
};

JavaBridge& JavaBridge::Get() {
  // Never destroyed: at process exit the VM may already be gone, and nothing may call into it then.
  static JavaBridge* bridge = new JavaBridge();
  return *bridge;
}

JavaBridge::JavaBridge() : m_state(new State) {
  m_state->haveKey = pthread_key_create(&m_state->attachedKey, &DetachAtThreadExit) == 0;
  if (!m_state->haveKey) OZM_LOGE("JNI: no thread-local key, threads attached here stay attached");
}

JavaBridge::~JavaBridge() = default;

void JavaBridge::OnCreated(JNIEnv* env, jclass pluginClass, jobject plugin, jobject assetManager, jint useObb) {
  OZM_LOGI("OzmUnityPlugin_JavaPlugin_onCreated");
  if (!env) return;
  JavaVM* vm = nullptr;
  if (env->GetJavaVM(&vm) == JNI_OK && vm) {
    OZM_LOGI("Got JavaVM from JNIEnv");
  } else {
    OZM_LOGE("onCreated: GetJavaVM failed");
    vm = nullptr;
  }

  // The plug-in methods are looked up on the class that declared onCreated (or the object's own
  // class when none is given).
  LocalRef objectClass;
  if (!pluginClass && plugin) {
    objectClass = LocalRef(env, env->GetObjectClass(plugin));
    pluginClass = static_cast<jclass>(objectClass.get());
  }
  const std::string pluginName = ClassName(env, pluginClass, kPluginClassName);
  PluginMethods methods;
  std::vector<MemberLookup> lookups;
  LookUp(env, pluginClass, pluginName,
         {Method("createSurfaceTexture", "(I)Landroid/graphics/SurfaceTexture;", &methods.createSurfaceTexture),
          Method("releaseSurfaceTexture", "(Landroid/graphics/SurfaceTexture;)V", &methods.releaseSurfaceTexture),
          Method("createSurfaceTextureSurface", "(Landroid/graphics/SurfaceTexture;)Landroid/view/Surface;",
                 &methods.createSurfaceTextureSurface),
          Method("createAudioTrack", "(I)Landroid/media/AudioTrack;", &methods.createAudioTrack),
          Method("getAssetFileDescriptorAndroid10", "(Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;",
                 &methods.getAssetFileDescriptorAndroid10)},
         lookups);
  // Without an expansion archive the id stays null, which tells the file input not to try one.
  if (useObb != 0) {
    LookUp(env, pluginClass, pluginName,
           {Method("getAssetFileDescriptorFromObb", "(Ljava/lang/String;)Landroid/content/res/AssetFileDescriptor;",
                   &methods.getAssetFileDescriptorFromObb)},
           lookups);
  }
  LookUp(env, pluginClass, pluginName,
         {Method("downloadFileFromUrl", "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;J)V",
                 &methods.downloadFileFromUrl),
          Method("downloadFileFromUrlBlocking", "(Ljava/lang/String;)Ljava/lang/String;",
                 &methods.downloadFileFromUrlBlocking),
          Method("cancelDownload", "(J)V", &methods.cancelDownload)},
         lookups);
  // Ids of one class called on an object of another are undefined behaviour: refuse them instead.
  if (!plugin) {
    OZM_LOGE("onCreated: no plug-in object");
    methods = PluginMethods{};
  } else if (pluginClass && !env->IsInstanceOf(plugin, pluginClass)) {
    OZM_LOGE("onCreated: the plug-in object is not a %s", pluginName.c_str());
    methods = PluginMethods{};
  }

  DescriptorIds descriptors;
  LocalRef descriptorClass = FindClass(env, kDescriptorClassName);
  LookUp(env, static_cast<jclass>(descriptorClass.get()), kDescriptorClassName,
         {Method("getFileDescriptor", "()Ljava/io/FileDescriptor;", &descriptors.getFileDescriptor),
          Method("getStartOffset", "()J", &descriptors.getStartOffset),
          Method("getLength", "()J", &descriptors.getLength)},
         lookups);
  LocalRef fileDescriptorClass = FindClass(env, kFileDescriptorClassName);
  LookUp(env, static_cast<jclass>(fileDescriptorClass.get()), kFileDescriptorClassName,
         {Field("descriptor", "I", &descriptors.descriptor)}, lookups);

  // Publish; the references of an earlier onCreated are deleted once nobody can take them any more
  // (users take local references under the lock, see JavaCalls::Plugin).
  State& s = *m_state;
  jobject newPlugin = plugin ? env->NewGlobalRef(plugin) : nullptr;
  jobject newAssets = assetManager ? env->NewGlobalRef(assetManager) : nullptr;
  jclass newPluginClass = NewGlobalClass(env, pluginClass);
  jclass newDescriptorClass = NewGlobalClass(env, descriptorClass.get());
  jclass newFileDescriptorClass = NewGlobalClass(env, fileDescriptorClass.get());
  jobject old[5] = {};
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    old[0] = s.plugin;
    old[1] = s.assetManager;
    old[2] = s.pluginClass;
    old[3] = s.descriptorClass;
    old[4] = s.fileDescriptorClass;
    s.plugin = newPlugin;
    s.assetManager = newAssets;
    s.pluginClass = newPluginClass;
    s.descriptorClass = newDescriptorClass;
    s.fileDescriptorClass = newFileDescriptorClass;
    s.methods = methods;
    s.descriptors = descriptors;
    s.createdLookups = std::move(lookups);
  }
  s.vm.store(vm, std::memory_order_release);
  for (jobject ref : old) {
    if (ref) env->DeleteGlobalRef(ref);
  }
}

void JavaBridge::OnFrameAvailable(JNIEnv* env, jobject surfaceTexture) {
  // The render step calls updateTexImage and getTimestamp on this texture later, on its own thread.
  if (env && surfaceTexture) JavaCalls::SurfaceTexture(env, surfaceTexture);
  OzmPlatform::NotifyFrameAvailable(surfaceTexture);
}

void JavaBridge::OnDownloadComplete(JNIEnv* env, jstring localPath, jlong nativeHandle) {
  void* handle = reinterpret_cast<void*>(static_cast<intptr_t>(nativeHandle));
  if (!env || !localPath) {
    OzmPlatform::NotifyDownloadComplete(nullptr, handle);
    return;
  }
  const std::string path = ToUtf8(env, localPath);
  OzmPlatform::NotifyDownloadComplete(path.c_str(), handle);
}

bool JavaBridge::Ready() const { return Vm() != nullptr; }

JavaVM* JavaBridge::Vm() const { return m_state->vm.load(std::memory_order_acquire); }

jobject JavaBridge::Plugin() const {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->plugin;
}

jobject JavaBridge::AssetManager() const {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->assetManager;
}

bool JavaBridge::HasObbRoute() const {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->methods.getAssetFileDescriptorFromObb != nullptr;
}

JNIEnv* JavaBridge::AttachCurrentThread() {
  JavaVM* vm = Vm();
  if (!vm) return nullptr;
  JNIEnv* env = nullptr;
  const jint status = vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6);
  if (status == JNI_OK && env) return env;
  if (status != JNI_EDETACHED) {
    OZM_LOGE("JNI: GetEnv failed (%d)", static_cast<int>(status));
    return nullptr;
  }
  char name[] = "OzmUnityPlugin native";
  JavaVMAttachArgs args{JNI_VERSION_1_6, name, nullptr};
  env = nullptr;
  if (vm->AttachCurrentThread(EnvOut{&env}, &args) != JNI_OK || !env) {
    OZM_LOGE("JNI: AttachCurrentThread failed");
    return nullptr;
  }
  if (m_state->haveKey) pthread_setspecific(m_state->attachedKey, vm);
  return env;
}

void JavaBridge::DetachCurrentThread() {
  // Only what this bridge attached: detaching a thread that Java made (or one with Java frames
  // below) is fatal.
  if (!m_state->haveKey) return;
  void* vm = pthread_getspecific(m_state->attachedKey);
  if (!vm) return;
  pthread_setspecific(m_state->attachedKey, nullptr);
  static_cast<JavaVM*>(vm)->DetachCurrentThread();
}

JNIEnv* JavaBridge::CurrentEnv() const {
  JavaVM* vm = Vm();
  if (!vm) return nullptr;
  JNIEnv* env = nullptr;
  if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) return nullptr;
  return env;
}

std::vector<MemberLookup> JavaBridge::Lookups() const {
  std::lock_guard<std::mutex> lock(m_state->mutex);
  std::vector<MemberLookup> all = m_state->createdLookups;
  all.insert(all.end(), m_state->laterLookups.begin(), m_state->laterLookups.end());
  return all;
}

// ---------------------------------------------------------------------------------------------

LocalRef JavaCalls::Plugin(JNIEnv* env) {
  JavaBridge::State& s = *JavaBridge::Get().m_state;
  std::lock_guard<std::mutex> lock(s.mutex);
  return LocalRef(env, s.plugin ? env->NewLocalRef(s.plugin) : nullptr);
}

PluginMethods JavaCalls::Methods() {
  JavaBridge::State& s = *JavaBridge::Get().m_state;
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.methods;
}

DescriptorIds JavaCalls::Descriptors() {
  JavaBridge::State& s = *JavaBridge::Get().m_state;
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.descriptors;
}

SurfaceTextureIds JavaCalls::SurfaceTexture(JNIEnv* env, jobject texture) {
  JavaBridge::State& s = *JavaBridge::Get().m_state;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.haveSurfaceTextureIds) return s.surfaceTextureIds;
  }
  SurfaceTextureIds ids;
  if (!env || !texture) return ids;
  LocalRef type(env, env->GetObjectClass(texture));
  const std::string owner = ClassName(env, static_cast<jclass>(type.get()), kSurfaceTextureClassName);
  std::vector<MemberLookup> record;
  LookUp(env, static_cast<jclass>(type.get()), owner,
         {Method("updateTexImage", "()V", &ids.updateTexImage), Method("getTimestamp", "()J", &ids.getTimestamp)},
         record);
  const bool complete = ids.updateTexImage && ids.getTimestamp;
  jclass global = complete ? NewGlobalClass(env, type.get()) : nullptr;
  {
    // Threads that looked up at the same time agree on the first one's ids; the record holds the
    // first attempt only.
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.surfaceTextureLookedUp) {
      s.surfaceTextureLookedUp = true;
      s.laterLookups.insert(s.laterLookups.end(), record.begin(), record.end());
    }
    if (s.haveSurfaceTextureIds) {
      ids = s.surfaceTextureIds;
    } else if (complete) {
      s.haveSurfaceTextureIds = true;
      s.surfaceTextureIds = ids;
      s.surfaceTextureClass = global;
      global = nullptr;
    }
  }
  if (global) env->DeleteGlobalRef(global);
  return ids;
}

AudioTrackIds JavaCalls::AudioTrack(JNIEnv* env, jobject track) {
  JavaBridge::State& s = *JavaBridge::Get().m_state;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.haveAudioTrackIds) return s.audioTrackIds;
  }
  AudioTrackIds ids;
  if (!env || !track) return ids;
  LocalRef type(env, env->GetObjectClass(track));
  const std::string owner = ClassName(env, static_cast<jclass>(type.get()), kAudioTrackClassName);
  std::vector<MemberLookup> record;
  LookUp(
      env, static_cast<jclass>(type.get()), owner,
      {Method("write", "([BII)I", &ids.write), Method("release", "()V", &ids.release), Method("stop", "()V", &ids.stop),
       Method("pause", "()V", &ids.pause), Method("play", "()V", &ids.play), Method("flush", "()V", &ids.flush),
       Method("setVolume", "(F)I", &ids.setVolume), Method("setPlaybackRate", "(I)I", &ids.setPlaybackRate)},
      record);
  const bool complete = ids.write && ids.release && ids.stop && ids.pause && ids.play && ids.flush && ids.setVolume &&
                        ids.setPlaybackRate;
  jclass global = complete ? NewGlobalClass(env, type.get()) : nullptr;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.audioTrackLookedUp) {
      s.audioTrackLookedUp = true;
      s.laterLookups.insert(s.laterLookups.end(), record.begin(), record.end());
    }
    if (s.haveAudioTrackIds) {
      ids = s.audioTrackIds;
    } else if (complete) {
      s.haveAudioTrackIds = true;
      s.audioTrackIds = ids;
      s.audioTrackClass = global;
      global = nullptr;
    }
  }
  if (global) env->DeleteGlobalRef(global);
  return ids;
}

bool CallSucceeded(JNIEnv* env, const char* what) {
  if (!env->ExceptionCheck()) return true;
  OZM_LOGE("JNI: %s threw an exception", what);
  env->ExceptionDescribe();
  env->ExceptionClear();
  return false;
}

}  // namespace OzmJni
