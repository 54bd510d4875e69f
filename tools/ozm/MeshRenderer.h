// Draws what an engine received from the plug-in the way an engine shows it: the mesh in the
// engine's vertex and index buffers (32-byte vertices: position, normal, texture coordinates; 32-bit
// indices) textured with the engine's texture, lit from its normals, depth-tested, into a picture of
// its own (an offscreen framebuffer), then reads the picture back.
//
// Runs on the engine's render thread with the engine's context current (the headless engine's
// after-event hook). Its GL objects are made on first use and must be deleted there with Release().
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/HeadlessEngine.h"
#include "tools/ozm/OrbitCamera.h"

namespace OzmTool {

class MeshRenderer {
 public:
  // The colour around the mesh (RGB).
  static constexpr uint8_t kBackground[3] = {30, 33, 40};

  MeshRenderer(int width, int height) : m_width(width), m_height(height) {}
  MeshRenderer(const MeshRenderer&) = delete;
  MeshRenderer& operator=(const MeshRenderer&) = delete;

  int Width() const { return m_width; }
  int Height() const { return m_height; }

  // Draws `indexCount` indices of the engine's buffers (none: the background only) and, when rgba is
  // given, reads the picture into it (width * height * 4 bytes, rows from the bottom up, as
  // glReadPixels gives them). False, saying why, when GL fails; the GL state is restored either way.
  bool Draw(const OzmEngine::EngineTargets& targets, uint32_t indexCount, const CameraView& view,
            std::vector<uint8_t>* rgba, std::string* error);

  // Deletes the GL objects.
  void Release();

 private:
  bool Prepare(const OzmEngine::EngineTargets& targets, std::string* error);

  int m_width, m_height;
  unsigned int m_program = 0;
  unsigned int m_framebuffer = 0, m_color = 0, m_depth = 0;
  unsigned int m_vertexArray = 0;
  unsigned int m_vertexBuffer = 0, m_indexBuffer = 0;  // the engine's, bound to the vertex array
  int m_viewProjection = -1, m_eye = -1, m_light = -1, m_texture = -1;
  bool m_failed = false;
  std::string m_failure;
};

}  // namespace OzmTool
