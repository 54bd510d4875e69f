#include "plugin/Registry.h"

#include "platform/Log.h"
#include "platform/Platform.h"
#include "player/EngineContext.h"

namespace OzmPlugin {
namespace {

// Interface GUID of the engine's graphics device (two 64-bit halves); kept, never queried.
struct InterfaceGuid {
  unsigned long long high;
  unsigned long long low;
};
[[maybe_unused]] const InterfaceGuid kGraphicsInterfaceGuid = {0x7CBA0A9CA4DDB544ULL, 0x8C5AD4926EB17B11ULL};

void OnFrameAvailable(const void* surfaceTexture) {
  if (!SignalFrameAvailable(surfaceTexture)) {
    OZM_LOGE("couldn't find LumoObject for surfaceTexture = %p", surfaceTexture);
  }
}

// Made before any export is called; players left at library unload are destroyed with it.
struct RegistryHolder {
  RegistryHolder() {
    // Made before the registry is, so that they outlive the players it tears down at unload.
    OzmPlatform::GetPlatform();
    InitializeEngineContext();
    OzmPlatform::SetFrameAvailableHandler(&OnFrameAvailable);
  }
  Registry registry;
};

RegistryHolder g_holder;

}  // namespace

Registry& GetRegistry() { return g_holder.registry; }

int Registry::Create() {
  int id = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    id = m_nextId++;
  }
  auto player = std::make_shared<LumoObject>(id);
  OZM_LOGI("CreateLumoObject with id = %i", id);
  if (player->State() != Empty) {
    OZM_LOGE("[%i] LumoObject::Initialize: must be in Empty(%d) state. Current state is (%d)", id, Empty,
             player->State());
    return -1;
  }
  player->SetState(Initialized);
  std::lock_guard<std::mutex> lock(m_mutex);
  auto inserted = m_players.emplace(id, std::move(player));
  return inserted.first->first;
}

bool Registry::Destroy(int id) {
  std::shared_ptr<LumoObject> player;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_players.find(id);
    if (it == m_players.end()) return false;
    // Taken out of the map before it is destroyed, so that a look-up never finds a player that is
    // being torn down.
    player = std::move(it->second);
    m_players.erase(it);
  }
  player->AbortOpen();
  player.reset();
  return true;
}

std::shared_ptr<LumoObject> Registry::Find(int id) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_players.find(id);
  return it == m_players.end() ? nullptr : it->second;
}

}  // namespace OzmPlugin
