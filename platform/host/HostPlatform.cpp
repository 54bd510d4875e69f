// The host platform object: the media ports on FFmpeg, the surface texture and audio track of this
// folder, assets as plain files under a folder, and no Java VM.
#include "platform/host/HostPlatform.h"

#include <EGL/egl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>

#include "platform/Log.h"
#include "platform/host/HostDownloads.h"

namespace OzmPlatform {

// The platform of this backend (PlatformCommon.cpp asks for it).
Platform& BackendPlatform();

namespace {

struct Settings {
  std::mutex mutex;
  std::string assetsRoot;
  std::string audioCaptureFolder;
};

Settings& TheSettings() {
  static Settings settings;
  return settings;
}

// An asset is a regular file; the descriptor is closed with the asset.
class FileAsset final : public Asset {
 public:
  FileAsset(int fd, int64_t length) : m_fd(fd), m_length(length) {}
  ~FileAsset() override { ::close(m_fd); }
  FileAsset(const FileAsset&) = delete;
  FileAsset& operator=(const FileAsset&) = delete;

  int OpenFileDescriptor(int64_t* start, int64_t* length) override {
    const int fd = ::fcntl(m_fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
      OZM_LOGE("Asset: cannot duplicate its descriptor: %s", std::strerror(errno));
      return -1;
    }
    if (start) *start = 0;
    if (length) *length = m_length;
    return fd;
  }

  int64_t Seek(int64_t offset, int whence) override {
    const off_t at = ::lseek(m_fd, static_cast<off_t>(offset), whence);
    return at < 0 ? -1 : static_cast<int64_t>(at);
  }

  int Read(void* buffer, size_t count) override {
    if (count > static_cast<size_t>(INT_MAX)) count = static_cast<size_t>(INT_MAX);
    ssize_t n;
    do {
      n = ::read(m_fd, buffer, count);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : static_cast<int>(n);
  }

 private:
  const int m_fd;
  const int64_t m_length;
};

// Asset paths are relative and stay inside the assets folder.
bool IsAssetPath(const std::string& path) {
  if (path.empty() || path.front() == '/') return false;
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    if (path.compare(begin, end - begin, "..") == 0) return false;
    begin = end + 1;
  }
  return true;
}

class HostPlatformImpl final : public Platform {
 public:
  bool AttachCurrentThread() override { return true; }
  void DetachCurrentThread() override {}

  std::unique_ptr<MediaExtractor> NewMediaExtractor() override { return NewHostMediaExtractor(); }
  std::unique_ptr<MediaCodec> CreateDecoderByType(const char* mime) override {
    return mime ? NewHostMediaCodec(mime) : nullptr;
  }

  std::shared_ptr<SurfaceTexture> CreateSurfaceTexture(unsigned int externalTexture) override {
    return NewHostSurfaceTexture(externalTexture);
  }
  std::shared_ptr<NativeWindow> CreateSurfaceTextureSurface(SurfaceTexture& texture) override {
    return HostSurfaceOf(texture);
  }
  void ReleaseSurfaceTexture(SurfaceTexture& texture) override { ReleaseHostSurfaceTexture(texture); }
  std::unique_ptr<AudioTrack> CreateAudioTrack(int sampleRateHz, int channelCount) override {
    return NewHostAudioTrack(sampleRateHz, channelCount);
  }

  bool HasObbRoute() override { return false; }
  bool GetAssetFileDescriptorFromObb(const char*, AssetFileDescriptor*) override { return false; }
  bool GetAssetFileDescriptorAndroid10(const char*, AssetFileDescriptor*) override { return false; }

  std::unique_ptr<Asset> OpenAsset(const char* path) override {
    const std::string root = HostSettings::AssetsRoot();
    if (root.empty() || !path || !IsAssetPath(path)) return nullptr;
    const std::string full = root + "/" + path;
    const int fd = ::open(full.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat info;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
      ::close(fd);
      return nullptr;
    }
    return std::make_unique<FileAsset>(fd, static_cast<int64_t>(info.st_size));
  }

  void DownloadFileFromUrl(const std::string& playlistName, const std::string& url, const std::string& uri,
                           void* nativeHandle) override {
    HostDownloadFileFromUrl(playlistName, url, uri, nativeHandle);
  }
  std::string DownloadFileFromUrlBlocking(const std::string& url) override {
    return HostDownloadFileFromUrlBlocking(url);
  }
  void CancelDownload(void* nativeHandle) override { HostCancelDownload(nativeHandle); }

  void* CaptureEglDisplay() override { return eglGetCurrentDisplay(); }
};

}  // namespace

Platform& HostPlatform() {
  static HostPlatformImpl platform;
  return platform;
}

Platform& BackendPlatform() { return HostPlatform(); }

namespace HostSettings {

void SetAssetsRoot(const std::string& folder) {
  Settings& s = TheSettings();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.assetsRoot = folder;
}

std::string AssetsRoot() {
  Settings& s = TheSettings();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.assetsRoot;
}

void SetAudioCaptureFolder(const std::string& folder) {
  Settings& s = TheSettings();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.audioCaptureFolder = folder;
}

std::string AudioCaptureFolder() {
  Settings& s = TheSettings();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.audioCaptureFolder;
}

}  // namespace HostSettings

}  // namespace OzmPlatform
