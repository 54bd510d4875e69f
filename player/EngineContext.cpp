#include "player/EngineContext.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "player/LumoObject.h"

namespace {

std::mutex g_graphicsMutex;
EngineGraphics g_graphics;

// The table is short (one entry per player) and kept in insertion order.
std::mutex g_tableMutex;
std::vector<std::pair<OzmPlatform::SurfaceTexture*, LumoObject*>> g_table;

}  // namespace

void SetEngineGraphics(const EngineGraphics& graphics) {
  std::lock_guard<std::mutex> lock(g_graphicsMutex);
  g_graphics = graphics;
}

EngineGraphics GetEngineGraphics() {
  std::lock_guard<std::mutex> lock(g_graphicsMutex);
  return g_graphics;
}

void AddSurfaceTextureEntry(OzmPlatform::SurfaceTexture* texture, LumoObject* player) {
  std::lock_guard<std::mutex> lock(g_tableMutex);
  g_table.emplace_back(texture, player);
}

bool RemoveSurfaceTextureEntry(OzmPlatform::SurfaceTexture* texture) {
  std::lock_guard<std::mutex> lock(g_tableMutex);
  auto it = std::find_if(g_table.begin(), g_table.end(), [&](const auto& e) { return e.first == texture; });
  if (it == g_table.end()) return false;
  g_table.erase(it);
  return true;
}

bool SignalFrameAvailable(OzmPlatform::SurfaceTexture* texture) {
  // The flag is set under the table lock, so a player cannot be destroyed between the look-up and
  // the store: its mesh thread removes the entry (under this lock) before the player goes away.
  std::lock_guard<std::mutex> lock(g_tableMutex);
  for (const auto& entry : g_table) {
    if (entry.first == texture) {
      entry.second->OnFrameAvailable();
      return true;
    }
  }
  return false;
}

std::vector<LumoObject*> SurfaceTexturePlayers() {
  std::lock_guard<std::mutex> lock(g_tableMutex);
  std::vector<LumoObject*> players;
  for (const auto& entry : g_table) players.push_back(entry.second);
  return players;
}
