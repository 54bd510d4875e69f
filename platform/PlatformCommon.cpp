// The process-wide platform object, the frame-available and download-complete handlers, and the
// defaults of a platform without downloads.
#include <atomic>

#include "platform/Log.h"
#include "platform/Platform.h"

namespace OzmPlatform {

// Each backend defines the platform it provides.
Platform& BackendPlatform();

namespace {

std::atomic<Platform*> g_override{nullptr};
std::atomic<FrameAvailableHandler> g_frameAvailable{nullptr};
std::atomic<DownloadCompleteHandler> g_downloadComplete{nullptr};

}  // namespace

Platform& GetPlatform() {
  Platform* chosen = g_override.load(std::memory_order_acquire);
  return chosen ? *chosen : BackendPlatform();
}

Platform* SetPlatform(Platform* platform) { return g_override.exchange(platform, std::memory_order_acq_rel); }

void SetFrameAvailableHandler(FrameAvailableHandler handler) {
  g_frameAvailable.store(handler, std::memory_order_release);
}

void NotifyFrameAvailable(const void* platformObject) {
  const FrameAvailableHandler handler = g_frameAvailable.load(std::memory_order_acquire);
  if (handler) handler(platformObject);
}

void SetDownloadCompleteHandler(DownloadCompleteHandler handler) {
  g_downloadComplete.store(handler, std::memory_order_release);
}

void NotifyDownloadComplete(const char* localPath, void* nativeHandle) {
  const DownloadCompleteHandler handler = g_downloadComplete.load(std::memory_order_acquire);
  if (handler) handler(localPath, nativeHandle);
}

void Platform::DownloadFileFromUrl(const std::string&, const std::string& url, const std::string&, void*) {
  OZM_LOGE("this platform cannot download %s", url.c_str());
}

std::string Platform::DownloadFileFromUrlBlocking(const std::string&) { return {}; }

void Platform::CancelDownload(void*) {}

}  // namespace OzmPlatform
