// Host surface texture. Pictures queued on the window wait in a timer thread until their due time,
// then become the newest available picture and are announced through the frame-available handler.
// UpdateTexImage uploads the newest picture into a 2D staging texture of the render thread's
// context, whose EGLImage is the storage of the external texture, so the external texture shows
// each new picture without being rebound.
#include <EGL/egl.h>
#include <EGL/eglext.h>
// gl2ext.h takes its types and calling convention from gl3.h, which must come first.
// clang-format off
#include <GLES3/gl3.h>
#include <GLES2/gl2ext.h>
// clang-format on

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "platform/host/HostPlatform.h"

namespace OzmPlatform {
namespace {

// Pictures queued ahead of their time beyond this are dropped, earliest first, so that a producer
// that runs far ahead cannot pile up memory without limit.
constexpr size_t kMaxPendingPictures = 32;

struct TimedPicture {
  HostPicture picture;
  int64_t timestampNs = 0;
};

// The GL entry points of the image extensions, looked up once.
struct ImageFunctions {
  PFNEGLCREATEIMAGEKHRPROC createImage = nullptr;
  PFNEGLDESTROYIMAGEKHRPROC destroyImage = nullptr;
  PFNGLEGLIMAGETARGETTEXTURE2DOESPROC targetTexture = nullptr;

  bool Complete() const { return createImage && destroyImage && targetTexture; }
};

const ImageFunctions& Images() {
  static const ImageFunctions functions = [] {
    ImageFunctions f;
    f.createImage = reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    f.destroyImage = reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR"));
    f.targetTexture =
        reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    return f;
  }();
  return functions;
}

// What the consumer and the window share: the pictures on their way and the newest available one.
// The window keeps it alive, so a decoder may go on queueing after the texture is gone; the
// timer thread keeps it alive while it runs.
class SharedState {
 public:
  explicit SharedState(SurfaceTexture* owner) : m_owner(owner) {}

  void Queue(HostPicture picture, int64_t timestampNs) {
    if (!picture.rgba || picture.width <= 0 || picture.height <= 0 ||
        picture.rgba->size() < static_cast<size_t>(picture.width) * static_cast<size_t>(picture.height) * 4) {
      OZM_LOGE("Surface texture: picture %dx%d with %zu bytes is not packed RGBA; dropped", picture.width,
               picture.height, picture.rgba ? picture.rgba->size() : size_t{0});
      return;
    }
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stopped) return;
      // Pictures come out in the order they were queued, as from a buffer queue: one queued after
      // another never overtakes it, even when it is due earlier (after a restart the first picture of
      // the new pass is due before the last one of the old pass).
      m_pending.push_back(TimedPicture{std::move(picture), timestampNs});
      if (m_pending.size() > kMaxPendingPictures) m_pending.pop_front();
    }
    m_changed.notify_all();
  }

  // Ends deliveries: pending pictures are dropped and later ones ignored.
  void Stop() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopped = true;
      m_pending.clear();
      m_available.reset();
    }
    m_changed.notify_all();
  }

  bool Stopped() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopped;
  }

  // The newest available picture not latched yet, if any.
  std::optional<TimedPicture> TakeAvailable() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::optional<TimedPicture> taken = std::move(m_available);
    m_available.reset();
    return taken;
  }

  // The timer thread: waits for the earliest pending picture to fall due, makes it the available
  // picture and announces it, until stopped.
  void RunTimer() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopped) {
      if (m_pending.empty()) {
        m_changed.wait(lock);
        continue;
      }
      const std::chrono::steady_clock::time_point due{std::chrono::nanoseconds(m_pending.front().timestampNs)};
      if (std::chrono::steady_clock::now() < due) {
        m_changed.wait_until(lock, due);
        continue;
      }
      // An available picture that was not latched yet is replaced, as a newer one supersedes it.
      m_available = std::move(m_pending.front());
      m_pending.pop_front();
      lock.unlock();
      NotifyFrameAvailable(m_owner);
      lock.lock();
    }
  }

 private:
  SurfaceTexture* const m_owner;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<TimedPicture> m_pending;
  std::optional<TimedPicture> m_available;
  bool m_stopped = false;
};

class HostWindow final : public HostNativeWindow {
 public:
  explicit HostWindow(std::shared_ptr<SharedState> state) : m_state(std::move(state)) {}
  void QueuePicture(HostPicture picture, int64_t timestampNs) override {
    m_state->Queue(std::move(picture), timestampNs);
  }

 private:
  const std::shared_ptr<SharedState> m_state;
};

// Saves the texture bindings and unpack state that an upload changes, and puts them back.
class UnpackStateGuard {
 public:
  UnpackStateGuard() {
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &m_texture2D);
    glGetIntegerv(GL_TEXTURE_BINDING_EXTERNAL_OES, &m_textureExternal);
    glGetIntegerv(GL_PIXEL_UNPACK_BUFFER_BINDING, &m_unpackBuffer);
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &m_alignment);
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &m_rowLength);
    glGetIntegerv(GL_UNPACK_SKIP_ROWS, &m_skipRows);
    glGetIntegerv(GL_UNPACK_SKIP_PIXELS, &m_skipPixels);
    if (m_unpackBuffer != 0) glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    if (m_rowLength != 0) glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    if (m_skipRows != 0) glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
    if (m_skipPixels != 0) glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
  }
  ~UnpackStateGuard() {
    glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(m_texture2D));
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, static_cast<GLuint>(m_textureExternal));
    if (m_unpackBuffer != 0) glBindBuffer(GL_PIXEL_UNPACK_BUFFER, static_cast<GLuint>(m_unpackBuffer));
    glPixelStorei(GL_UNPACK_ALIGNMENT, m_alignment);
    if (m_rowLength != 0) glPixelStorei(GL_UNPACK_ROW_LENGTH, m_rowLength);
    if (m_skipRows != 0) glPixelStorei(GL_UNPACK_SKIP_ROWS, m_skipRows);
    if (m_skipPixels != 0) glPixelStorei(GL_UNPACK_SKIP_PIXELS, m_skipPixels);
  }
  UnpackStateGuard(const UnpackStateGuard&) = delete;
  UnpackStateGuard& operator=(const UnpackStateGuard&) = delete;

 private:
  GLint m_texture2D = 0;
  GLint m_textureExternal = 0;
  GLint m_unpackBuffer = 0;
  GLint m_alignment = 4;
  GLint m_rowLength = 0;
  GLint m_skipRows = 0;
  GLint m_skipPixels = 0;
};

class HostSurfaceTexture final : public SurfaceTexture {
 public:
  explicit HostSurfaceTexture(unsigned int externalTexture)
      : m_externalTexture(externalTexture),
        m_state(std::make_shared<SharedState>(this)),
        m_window(std::make_shared<HostWindow>(m_state)),
        m_timer([state = m_state] { state->RunTimer(); }),
        m_timerId(m_timer.get_id()) {}

  ~HostSurfaceTexture() override {
    m_state->Stop();
    if (std::this_thread::get_id() == m_timerId) {
      // Destroyed from the frame-available handler: the timer thread owns a reference to the
      // state and leaves its loop once the handler returns.
      if (m_timer.joinable()) m_timer.detach();
    } else if (!m_timerJoined.exchange(true)) {
      m_timer.join();
    }
    const EGLContext current = eglGetCurrentContext();
    if (current != EGL_NO_CONTEXT && current == m_context) {
      DeleteGlObjects();
    } else {
      // Without the context the texture name cannot be deleted; it goes with the context. The
      // image belongs to the display and can go now.
      DestroyImage();
    }
  }

  void UpdateTexImage() override {
    const EGLDisplay display = eglGetCurrentDisplay();
    const EGLContext context = eglGetCurrentContext();
    if (display == EGL_NO_DISPLAY || context == EGL_NO_CONTEXT) {
      OZM_LOGE("Surface texture: UpdateTexImage without a current GL context");
      return;
    }
    if (m_state->Stopped()) {
      if (context == m_context) DeleteGlObjects();
      return;
    }
    std::optional<TimedPicture> next = m_state->TakeAvailable();
    if (!next) return;
    Upload(next->picture, display, context);
    m_timestampNs.store(next->timestampNs, std::memory_order_release);
  }

  int64_t GetTimestamp() override { return m_timestampNs.load(std::memory_order_acquire); }

  std::shared_ptr<NativeWindow> Window() const { return m_window; }

  void Release() {
    m_state->Stop();
    // A release from the frame-available handler cannot wait for its own thread; the destructor
    // collects the thread then.
    if (std::this_thread::get_id() != m_timerId && !m_timerJoined.exchange(true)) m_timer.join();
  }

 private:
  void Upload(const HostPicture& picture, EGLDisplay display, EGLContext context) {
    const ImageFunctions& images = Images();
    if (!images.Complete()) {
      OZM_LOGE("Surface texture: the EGL image extensions are missing; picture not shown");
      return;
    }
    GLint maxSize = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maxSize);
    if (picture.width > maxSize || picture.height > maxSize) {
      OZM_LOGE("Surface texture: picture %dx%d exceeds the GL limit %d; not shown", picture.width, picture.height,
               maxSize);
      return;
    }
    if (m_display != EGL_NO_DISPLAY && m_display != display) {
      // A different display: the old objects cannot be reached from here any more.
      DestroyImage();
      m_staging = 0;
      m_width = m_height = 0;
    }
    m_display = display;
    if (m_context == EGL_NO_CONTEXT) m_context = context;

    UnpackStateGuard guard;
    if (m_staging == 0) glGenTextures(1, &m_staging);
    glBindTexture(GL_TEXTURE_2D, m_staging);
    const void* pixels = picture.rgba->data();
    if (picture.width != m_width || picture.height != m_height || m_image == EGL_NO_IMAGE_KHR) {
      DestroyImage();
      glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, picture.width, picture.height, 0, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
      m_width = picture.width;
      m_height = picture.height;
      const EGLint attributes[] = {EGL_GL_TEXTURE_LEVEL_KHR, 0, EGL_IMAGE_PRESERVED_KHR, EGL_TRUE, EGL_NONE};
      m_image = images.createImage(display, context, EGL_GL_TEXTURE_2D_KHR,
                                   reinterpret_cast<EGLClientBuffer>(static_cast<uintptr_t>(m_staging)), attributes);
      if (m_image == EGL_NO_IMAGE_KHR) {
        OZM_LOGE("Surface texture: eglCreateImageKHR failed (0x%x)", static_cast<unsigned>(eglGetError()));
        m_width = m_height = 0;
        return;
      }
      glBindTexture(GL_TEXTURE_EXTERNAL_OES, m_externalTexture);
      images.targetTexture(GL_TEXTURE_EXTERNAL_OES, static_cast<GLeglImageOES>(m_image));
    } else {
      glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, picture.width, picture.height, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
    }
  }

  void DestroyImage() {
    if (m_image != EGL_NO_IMAGE_KHR && Images().destroyImage) Images().destroyImage(m_display, m_image);
    m_image = EGL_NO_IMAGE_KHR;
  }

  // With the context that made them current.
  void DeleteGlObjects() {
    DestroyImage();
    if (m_staging != 0) glDeleteTextures(1, &m_staging);
    m_staging = 0;
    m_width = m_height = 0;
  }

  const GLuint m_externalTexture;
  const std::shared_ptr<SharedState> m_state;
  const std::shared_ptr<HostWindow> m_window;
  std::thread m_timer;
  const std::thread::id m_timerId;
  std::atomic<bool> m_timerJoined{false};
  std::atomic<int64_t> m_timestampNs{0};

  // Render thread only (UpdateTexImage and the destructor).
  EGLDisplay m_display = EGL_NO_DISPLAY;
  EGLContext m_context = EGL_NO_CONTEXT;
  EGLImageKHR m_image = EGL_NO_IMAGE_KHR;
  GLuint m_staging = 0;
  int m_width = 0;
  int m_height = 0;
};

}  // namespace

std::shared_ptr<SurfaceTexture> NewHostSurfaceTexture(unsigned int externalTexture) {
  return std::make_shared<HostSurfaceTexture>(externalTexture);
}

std::shared_ptr<NativeWindow> HostSurfaceOf(SurfaceTexture& texture) {
  auto* host = dynamic_cast<HostSurfaceTexture*>(&texture);
  return host ? host->Window() : nullptr;
}

void ReleaseHostSurfaceTexture(SurfaceTexture& texture) {
  if (auto* host = dynamic_cast<HostSurfaceTexture*>(&texture)) host->Release();
}

}  // namespace OzmPlatform
