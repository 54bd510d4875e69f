// The players' C functions: each looks the id up in the registry, logs and fails when it is
// unknown, and otherwise forwards to the player.
#include "platform/Log.h"
#include "platform/Platform.h"
#include "plugin/OzmPluginApi.h"
#include "plugin/PluginVersion.h"
#include "plugin/Registry.h"

using OzmPlugin::GetRegistry;

namespace {

std::shared_ptr<LumoObject> FindOrLog(int id, const char* function) {
  std::shared_ptr<LumoObject> player = GetRegistry().Find(id);
  if (!player) OZM_LOGE("%s: player object with id = %i not found", function, id);
  return player;
}

}  // namespace

OZM_API_EXPORT int CreateLumoObject(void) { return GetRegistry().Create(); }

OZM_API_EXPORT int DestroyLumoObject(int id) {
  if (!GetRegistry().Find(id)) {
    OZM_LOGE("DestroyLumoObject: player object with id = %i not found", id);
    return 0;
  }
  OZM_LOGI("DestroyLumoObject: for with id = %i", id);
  return GetRegistry().Destroy(id) ? 1 : 0;
}

OZM_API_EXPORT int OpenLumoObject(int id, const char* path, const OzmOpenInfo* info) {
  // Deliberately silent about unknown ids.
  const std::shared_ptr<LumoObject> player = GetRegistry().Find(id);
  return player ? player->Open(path, info) : 0;
}

OZM_API_EXPORT int PlayLumoObject(int id) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "PlayLumoObject");
  return player ? player->Play() : 0;
}

OZM_API_EXPORT int PauseLumoObject(int id) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "PauseLumoObject");
  return player ? player->Pause() : 0;
}

OZM_API_EXPORT int RewindLumoObject(int id) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "RewindLumoObject");
  return player ? player->Rewind() : 0;
}

OZM_API_EXPORT int CloseLumoObject(int id) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "CloseLumoObject");
  return player ? player->Close() : 0;
}

OZM_API_EXPORT int GetLumoState(int id) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "GetLumoState");
  return player ? player->State() : kLumoStateUnknownId;
}

OZM_API_EXPORT int GetLumoObjectFileInfo(int id, OzmFileInfo* out) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "GetLumoObjectFileInfo");
  // Always 0, also on success: callers judge the record by its content.
  if (player && out) player->GetFileInfo(out);
  return 0;
}

OZM_API_EXPORT int GetLumoObjectFrameInfo(int id, OzmFrameInfo* out) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "GetLumoObjectFrameInfo");
  return player && out ? player->GetFrameInfo(out) : 0;
}

OZM_API_EXPORT int SetClockScale(int id, float scale) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "SetClockScale");
  if (!player) return 0;
  player->SetClockScale(scale);
  return 1;
}

OZM_API_EXPORT int SetAudioVolume(int id, float volume) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "SetAudioVolume");
  return player ? player->SetAudioVolume(volume) : 0;
}

OZM_API_EXPORT int SetComputeNormals(int id, int computeNormals) {
  const std::shared_ptr<LumoObject> player = FindOrLog(id, "SetComputeNormals");
  if (!player) return 0;
  player->SetComputeNormals(computeNormals);
  return 1;
}

// Kept so that engine-side bindings find them; they do nothing.
OZM_API_EXPORT int SetLumoObjectAudio3DPosition(int, float, float, float) { return 1; }
OZM_API_EXPORT int SetUseGPU(int, int) { return 1; }
OZM_API_EXPORT int TestUnityBuffersValid(int) { return 1; }
OZM_API_EXPORT int ReleaseUnityBuffers(int) { return 1; }

OZM_API_EXPORT int SetUnityBuffers(int id, unsigned int texture, int textureWidth, int textureHeight,
                                   unsigned int vertexBuffer, unsigned int vertexCapacity, unsigned int indexBuffer,
                                   unsigned int indexCapacity) {
  const std::shared_ptr<LumoObject> player = GetRegistry().Find(id);
  if (!player) return 0;
  player->SetUnityBuffers(texture, textureWidth, textureHeight, vertexBuffer, vertexCapacity, indexBuffer,
                          indexCapacity);
  return 1;
}

OZM_API_EXPORT const char* getPlatformABI(void) {
  OZM_LOGI("This dynamic shared library is compiled with ABI: %s", OzmPlugin::kAbiName);
  // The "%s" is part of the text the engine-side binding expects; it is not a format.
  return "This native library is compiled with ABI: %s" OZM_ABI_NAME ".";
}
