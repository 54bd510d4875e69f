// The mesh thread: the first worker of a player. It owns the player's GL context and the surface
// texture the video decoder renders into, and runs the mesh decode jobs of the playback thread.
#include <sys/resource.h>

#include "platform/Log.h"
#include "player/EngineContext.h"
#include "player/LumoObject.h"

void LumoObject::StartMeshThread() {
  if (!m_meshThread.joinable()) m_meshThread = std::thread(&LumoObject::MeshThreadFunc, this);
}

void LumoObject::MeshThreadFunc() {
  OZM_LOGI("[%i] Mesh thread starting", m_id);
  // Decoding must keep pace with playback.
  const int nice = getpriority(PRIO_PROCESS, 0);
  OZM_LOGI("nice returned %i", setpriority(PRIO_PROCESS, 0, nice - 10));
  const unsigned int format = m_computeNormals.load() ? 0xd : 0xf;
  OZM_LOGI("[%i] using ozm vertex format = 0x%x", m_id, format);
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator());
  m_meshReader.Initialize(allocator.Get(), format);

  const EngineGraphics engine = GetEngineGraphics();
  OzmPlatform::Platform& platform = OzmPlatform::GetPlatform();
  const bool graphics = m_graphics.Initialize(m_id, engine.display, engine.context, engine.clientVersion);
  const bool attached = platform.AttachCurrentThread();
  std::shared_ptr<OzmPlatform::SurfaceTexture> surfaceTexture;
  // Without GL the picture cannot be shown, but the pipeline still runs (and fails visibly).
  if (!graphics) OZM_LOGE("[%i] Mesh thread: no GL resources", m_id);
  if (attached) surfaceTexture = platform.CreateSurfaceTexture(m_graphics.ExternalTexture());
  if (surfaceTexture) {
    m_surfaceTexture = surfaceTexture;
    AddSurfaceTextureEntry(surfaceTexture.get(), this);
    m_nativeWindow = platform.CreateSurfaceTextureSurface(*surfaceTexture);
  }
  if (m_nativeWindow) {
    m_windowReady.store(true);
  } else {
    OZM_LOGE("[%i] Mesh thread: could not make the video surface", m_id);
    m_surfaceFailed.store(true);
  }

  std::function<void()> job;
  while (m_meshWork.Dequeue(job)) {
    job();
    job = nullptr;
  }

  if (surfaceTexture) {
    OZM_LOGI("[%i] Releasing surface texture %p", m_id, static_cast<void*>(surfaceTexture.get()));
    if (RemoveSurfaceTextureEntry(surfaceTexture.get())) {
      OZM_LOGI("[%i] removing suface texture %p from table", m_id, static_cast<void*>(surfaceTexture.get()));
    }
    m_frameAvailable.store(0);
    platform.ReleaseSurfaceTexture(*surfaceTexture);
  }
  if (attached) platform.DetachCurrentThread();
  ClearMeshFrames();
  m_graphics.Cleanup();
  OZM_LOGI("[%i] mesh thread exiting", m_id);
}
