// Process-wide facts shared between the engine hooks and the players: the engine's EGL display,
// context and client version (taken when the engine hands over its graphics device), and the table
// that maps surface textures to the players they feed.
#pragma once

#include <vector>

#include "platform/Platform.h"

class LumoObject;

struct EngineGraphics {
  void* display = nullptr;
  void* context = nullptr;
  int clientVersion = 0;
};

// Makes the shared state now (the registry calls it first thing, see EngineContext.cpp).
void InitializeEngineContext();

void SetEngineGraphics(const EngineGraphics& graphics);
EngineGraphics GetEngineGraphics();

// GL objects of a player that the engine's context has used: deleting them from the player's own
// context while the engine's still holds its views of them is not safe on every driver, so the
// player hands them over and the next render event deletes them in the engine's context.
struct RetiredGLObjects {
  unsigned int program = 0;
  unsigned int vertexShader = 0;
  unsigned int fragmentShader = 0;
  unsigned int buffer = 0;
  unsigned int texture = 0;
};
void RetireGLObjects(const RetiredGLObjects& objects);
// Render thread, engine context current.
void DeleteRetiredGLObjects();

// Surface texture → player. Mesh threads add and remove their player's entry; the frame callback
// looks players up from a platform thread.
void AddSurfaceTextureEntry(OzmPlatform::SurfaceTexture* texture, LumoObject* player);
// False when the texture has no entry.
bool RemoveSurfaceTextureEntry(OzmPlatform::SurfaceTexture* texture);
// Raises the frame-available flag of the player whose texture is `platformObject` (the first in
// table order, see SurfaceTexture::IsSameObject); false when no player has it.
bool SignalFrameAvailable(const void* platformObject);
// The players in table order (for tests of the table).
std::vector<LumoObject*> SurfaceTexturePlayers();
