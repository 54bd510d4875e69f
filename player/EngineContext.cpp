#include "player/EngineContext.h"

#include <GLES3/gl3.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "player/LumoObject.h"

namespace {

// Made on first use. The registry touches it while it is made itself, so that this object is
// destroyed after the registry (static objects go in the reverse order of their making), whose
// destructor tears down the players left at library unload.
struct Shared {
  std::mutex retiredMutex;
  std::vector<RetiredGLObjects> retired;
  std::mutex graphicsMutex;
  EngineGraphics graphics;
  // Short (one entry per player) and kept in insertion order.
  std::mutex tableMutex;
  std::vector<std::pair<OzmPlatform::SurfaceTexture*, LumoObject*>> table;
};

Shared& Get() {
  static Shared shared;
  return shared;
}

}  // namespace

void InitializeEngineContext() { Get(); }

void SetEngineGraphics(const EngineGraphics& graphics) {
  std::lock_guard<std::mutex> lock(Get().graphicsMutex);
  Get().graphics = graphics;
}

EngineGraphics GetEngineGraphics() {
  std::lock_guard<std::mutex> lock(Get().graphicsMutex);
  return Get().graphics;
}

void RetireGLObjects(const RetiredGLObjects& objects) {
  std::lock_guard<std::mutex> lock(Get().retiredMutex);
  Get().retired.push_back(objects);
}

void DeleteRetiredGLObjects() {
  std::vector<RetiredGLObjects> retired;
  {
    std::lock_guard<std::mutex> lock(Get().retiredMutex);
    if (Get().retired.empty()) return;
    retired.swap(Get().retired);
  }
  for (const RetiredGLObjects& o : retired) {
    if (o.buffer) glDeleteBuffers(1, &o.buffer);
    if (o.program) glDeleteProgram(o.program);
    if (o.fragmentShader) glDeleteShader(o.fragmentShader);
    if (o.vertexShader) glDeleteShader(o.vertexShader);
    if (o.texture) glDeleteTextures(1, &o.texture);
  }
}

void AddSurfaceTextureEntry(OzmPlatform::SurfaceTexture* texture, LumoObject* player) {
  std::lock_guard<std::mutex> lock(Get().tableMutex);
  Get().table.emplace_back(texture, player);
}

bool RemoveSurfaceTextureEntry(OzmPlatform::SurfaceTexture* texture) {
  std::lock_guard<std::mutex> lock(Get().tableMutex);
  auto it = std::find_if(Get().table.begin(), Get().table.end(), [&](const auto& e) { return e.first == texture; });
  if (it == Get().table.end()) return false;
  Get().table.erase(it);
  return true;
}

bool SignalFrameAvailable(const void* platformObject) {
  // The flag is set under the table lock, so a player cannot be destroyed between the look-up and
  // the store: its mesh thread removes the entry (under this lock) before the player goes away.
  std::lock_guard<std::mutex> lock(Get().tableMutex);
  for (const auto& entry : Get().table) {
    if (entry.first->IsSameObject(platformObject)) {
      entry.second->OnFrameAvailable(platformObject);
      return true;
    }
  }
  return false;
}

std::vector<LumoObject*> SurfaceTexturePlayers() {
  std::lock_guard<std::mutex> lock(Get().tableMutex);
  std::vector<LumoObject*> players;
  for (const auto& entry : Get().table) players.push_back(entry.second);
  return players;
}
