// The render step: on the engine's render thread, latch the newest picture, find the mesh frame of
// exactly the same timestamp, and copy both into the engine's texture and buffers.
#include "platform/Log.h"
#include "player/FrameMatcher.h"
#include "player/LumoObject.h"

std::shared_ptr<Ozm::MeshFrame> LumoObject::LatchAndMatch(const char* variant, int64_t restartThreshold) {
  // No new picture since the last step: nothing to latch, copy or draw.
  uint8_t expected = 1;
  if (!m_frameAvailable.compare_exchange_strong(expected, 0)) return nullptr;
  if (!OzmPlatform::GetPlatform().AttachCurrentThread()) return nullptr;
  OzmPlatform::SurfaceTexture* texture = m_surfaceTexture.get();
  if (!texture) return nullptr;
  texture->UpdateTexImage();
  const int64_t released = texture->GetTimestamp();
  int64_t renderStart = -1;
  {
    // The picture's own time base: the tail of a looped pass still shows with the base it was
    // released with while the next pass has already begun.
    std::lock_guard<std::mutex> lock(m_timeBaseMutex);
    renderStart = released >= m_timeBases.firstRelease ? m_timeBases.current : m_timeBases.previous;
  }
  m_textureTimestamp = released - renderStart;
  // Without a base (nothing released yet) or before it, there is no mesh to pair the picture with.
  if (renderStart < 0 || m_textureTimestamp < 0) return nullptr;
  const int state = m_state.load();
  if (state != Playing) {
    OZM_LOGI("[%i] %s: state = %i, bailing", m_id, variant, state);
    int dropped = 0;
    {
      std::lock_guard<std::mutex> lock(m_meshFrameMutex);
      dropped = DropUnshownFrames(m_meshFrames, m_currentFrame, m_textureTimestamp, m_pendingRestart.load(),
                                  restartThreshold);
    }
    for (int i = 0; i < dropped; ++i) GiveMeshSlot();
    return nullptr;
  }

  std::shared_ptr<Ozm::MeshFrame> current;
  int queued = 0;
  FrameAdvance advance;
  {
    std::lock_guard<std::mutex> lock(m_meshFrameMutex);
    advance = AdvanceToPicture(m_meshFrames, m_currentFrame, m_textureTimestamp, m_pendingRestart.load(),
                               restartThreshold);
    if (advance.restartHandled) {
      OZM_LOGI("[%i] %s: handling pending restart, discard %i mesh frames", m_id, variant, advance.discarded);
      m_pendingRestart.store(false);
    }
    current = m_currentFrame;
    queued = static_cast<int>(m_meshFrames.size());
  }
  for (int i = 0; i < advance.slotsBack; ++i) GiveMeshSlot();
  if (!current) return nullptr;
  if (current->Timestamp() != m_textureTimestamp) {
    OZM_LOGW("[%i] **** MISMATCHED TIMESTAMPS **** texture = %lli, mesh = %lli (mesh frames = %i)", m_id,
             static_cast<long long>(m_textureTimestamp), static_cast<long long>(current->Timestamp()), queued);
    return nullptr;
  }
  return current;
}

void LumoObject::OnUnityRender() {
  const int frameRate = m_videoFrameRate.load();
  const int64_t threshold = (1000000000LL / (frameRate > 0 ? frameRate : 30)) * 10;
  std::shared_ptr<Ozm::MeshFrame> frame = LatchAndMatch("OnUnityRender", threshold);
  if (!frame) return;

  unsigned int texture = 0, vertexBuffer = 0, vertexCapacity = 0, indexBuffer = 0, indexCapacity = 0;
  int width = 0, height = 0;
  OZMCORE::CComPtr<IOzmBuffer> lastIndexBuffer;
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    texture = m_engineTexture;
    width = m_engineTextureWidth;
    height = m_engineTextureHeight;
    vertexBuffer = m_engineVertexBuffer;
    vertexCapacity = m_engineVertexCapacity;
    indexBuffer = m_engineIndexBuffer;
    indexCapacity = m_engineIndexCapacity;
    lastIndexBuffer = m_lastIndexBuffer;
  }
  // The mesh goes first: writing the buffers after the texture draw was queued would make the
  // driver finish that draw before it maps them. A frame shown again costs only the texture copy.
  if (frame->AddDraw() == 0) {
    const bool computeNormals = m_computeNormals.load() != 0;
    IOzmBuffer* indices = frame->IndexBuffer();
    if (indices && indices == lastIndexBuffer.Get()) {
      CopyToGLBuffers(*frame, vertexBuffer, indexBuffer, indexCapacity, vertexCapacity, computeNormals, false);
      std::lock_guard<std::mutex> lock(m_engineMutex);
      ++m_indexReuseCount;
    } else {
      {
        std::lock_guard<std::mutex> lock(m_engineMutex);
        m_lastIndexBuffer = indices;
        m_indexReuseCount = 0;
      }
      CopyToGLBuffers(*frame, vertexBuffer, indexBuffer, indexCapacity, vertexCapacity, computeNormals, true);
    }
  }
  m_graphics.CopyTexture(texture, width, height, m_videoWidth.load(), m_videoHeight.load());
}

void LumoObject::OnUnrealRender(void* vertexData, void* indexData, int vertexCapacity, int indexCapacity,
                                unsigned int texture, int width, int height) {
  std::shared_ptr<Ozm::MeshFrame> frame = LatchAndMatch("OnUnrealRender", 300000000LL);
  if (!frame) return;
  OZMCORE::CComPtr<IOzmBuffer> lastIndexBuffer;
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    lastIndexBuffer = m_lastIndexBuffer;
  }
  m_graphics.CopyTexture(texture, width, height, m_videoWidth.load(), m_videoHeight.load());
  if (frame->AddDraw() != 0) return;
  const bool computeNormals = m_computeNormals.load() != 0;
  const unsigned int vertices = vertexCapacity > 0 ? static_cast<unsigned int>(vertexCapacity) : 0;
  const unsigned int indexCount = indexCapacity > 0 ? static_cast<unsigned int>(indexCapacity) : 0;
  IOzmBuffer* indices = frame->IndexBuffer();
  const bool reuse = indices && indices == lastIndexBuffer.Get();
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    if (reuse) {
      ++m_indexReuseCount;
    } else {
      m_lastIndexBuffer = indices;
      m_indexReuseCount = 0;
    }
  }
  frame->CopyToNativeBuffers(vertexData, indexData, indexCount, vertices, computeNormals, !reuse);
}
