// A player's own GL objects: an EGL context sharing objects with the engine's, a 16x16 pbuffer to
// make it current on, the external texture the video decoder fills, the copy program and a
// screen-covering triangle. CopyTexture draws the latched picture into the engine's 2D texture.
#pragma once

#include <cstdint>

class GraphicsResources {
 public:
  // Mesh thread: makes the context (sharing with engineContext) current on the calling thread and
  // creates the objects. Returns false when the context cannot be made current.
  bool Initialize(int playerId, void* display, void* engineContext, int engineClientVersion);
  // Mesh thread, at its end: deletes the objects and the context.
  void Cleanup();

  // Render thread, engine context current: draws the external texture into `texture` (a 2D
  // texture of width x height), scaling texture coordinates by the engine size over the video size.
  void CopyTexture(unsigned int texture, int width, int height, int videoWidth, int videoHeight);

  unsigned int ExternalTexture() const { return m_externalTexture; }

 private:
  unsigned int CompileShader(const char* source, unsigned int type);
  unsigned int LinkShader(unsigned int vertexShader, unsigned int fragmentShader);

  int m_playerId = -1;
  void* m_display = nullptr;
  void* m_surface = nullptr;
  void* m_context = nullptr;
  unsigned int m_program = 0;
  unsigned int m_vertexShader = 0;
  unsigned int m_fragmentShader = 0;
  unsigned int m_vertexBuffer = 0;
  unsigned int m_externalTexture = 0;
  int m_samplerLocation = -1;
  int m_uvScaleLocation = -1;
};

// Copies a mesh frame into the engine's GL buffer objects (render thread, engine context current).
namespace Ozm {
class MeshFrame;
}
void CopyToGLBuffers(Ozm::MeshFrame& frame, unsigned int vertexBufferName, unsigned int indexBufferName,
                     unsigned int indexCapacity, unsigned int vertexCapacity, bool computeNormals, bool updateIndices);
