// The process-wide registry of players, addressed by id. The engine creates and destroys players on
// its script thread and looks them up on its render thread too; the map has a lock of its own, held
// only for the look-up or the change itself.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "player/LumoObject.h"

namespace OzmPlugin {

class Registry {
 public:
  // A new player in state Initialized; -1 on failure.
  int Create();
  bool Destroy(int id);
  // The caller's reference keeps the player alive for the call even if it is destroyed meanwhile
  // (then its last reference goes when the call ends).
  std::shared_ptr<LumoObject> Find(int id) const;

 private:
  mutable std::mutex m_mutex;
  std::map<int, std::shared_ptr<LumoObject>> m_players;
  int m_nextId = 0;
};

Registry& GetRegistry();

}  // namespace OzmPlugin
