// The process-wide platform object and the frame-available handler.
#include <atomic>

#include "platform/Platform.h"

namespace OzmPlatform {

// Each backend defines the platform it provides.
Platform& BackendPlatform();

namespace {

std::atomic<Platform*> g_override{nullptr};
std::atomic<FrameAvailableHandler> g_frameAvailable{nullptr};

}  // namespace

Platform& GetPlatform() {
  Platform* chosen = g_override.load(std::memory_order_acquire);
  return chosen ? *chosen : BackendPlatform();
}

Platform* SetPlatform(Platform* platform) { return g_override.exchange(platform, std::memory_order_acq_rel); }

void SetFrameAvailableHandler(FrameAvailableHandler handler) {
  g_frameAvailable.store(handler, std::memory_order_release);
}

void NotifyFrameAvailable(SurfaceTexture* texture) {
  const FrameAvailableHandler handler = g_frameAvailable.load(std::memory_order_acquire);
  if (handler) handler(texture);
}

}  // namespace OzmPlatform
