#include "engine/HeadlessEngine.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl3.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace OzmEngine {
namespace {

// The plug-in's device type and device events for a GLES 3 engine.
constexpr int kDeviceTypeGles3 = 8;
constexpr int kDeviceEventInitialize = 0;
constexpr int kDeviceEventShutdown = 1;

// A render thread that stays inside one plug-in call this long is hung; the engine cannot recover a
// thread stuck in foreign code, so it says where it hangs and ends the program rather than block.
constexpr double kStuckSeconds = 60;

constexpr size_t kMaxProblems = 16;
constexpr size_t kVertexBytes = 32;

std::string Hex(unsigned int value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04x", value);
  return text;
}

std::string EglError(const char* what) { return std::string(what) + " failed (EGL error " + Hex(eglGetError()) + ")"; }

}  // namespace

struct HeadlessEngine::Player {
  int id = 0;
  PlayerSetup setup;
  EngineTargets targets;
  GLuint framebuffer = 0;
  // Engine memory of the Unreal path.
  std::vector<uint8_t> vertexMemory;
  std::vector<uint32_t> indexMemory;
  OzmFrameInfo last{};
  bool haveLast = false;
  uint64_t events = 0;
};

struct HeadlessEngine::Task {
  std::function<void()> run;
  bool started = false;
  bool done = false;
  bool cancelled = false;  // never ran: the engine stopped, or the caller gave up waiting first
};

std::vector<uint32_t> PlayerStats::FrameIds() const {
  std::vector<uint32_t> ids;
  ids.reserve(drawn.size());
  for (const DrawnRecord& d : drawn) ids.push_back(d.frameId);
  return ids;
}

std::string PlayerStats::Summary() const {
  char text[512];
  std::snprintf(text, sizeof text,
                "events %" PRIu64 ", frames drawn %" PRIu64 ", paired %" PRIu64 ", mismatched %" PRIu64
                ", end-of-stream flags %" PRIu64 ", GL errors %" PRIu64 ", longest event %.1f ms (event %" PRIu64
                "), last frame id %u (timestamp %" PRId64 ", %u vertices, %u indices)",
                renderEvents, framesDrawn, paired, mismatched, endOfStreamFlags, glErrors, longestEventMs, longestEvent,
                lastInfo.frameId, static_cast<int64_t>(lastInfo.timestamp), lastInfo.vertexCount, lastInfo.indexCount);
  std::string out = text;
  std::string ids;
  for (const DrawnRecord& d : drawn) ids += (ids.empty() ? "" : " ") + std::to_string(d.frameId);
  out += "; frame ids drawn: [" + ids + "]";
  for (const std::string& p : problems) out += "; " + p;
  return out;
}

HeadlessEngine::HeadlessEngine(PluginApi api, EngineOptions options)
    : m_api(std::move(api)),
      m_options(options),
      m_intervalMs(options.intervalMs),
      m_epoch(std::chrono::steady_clock::now()) {}

HeadlessEngine::~HeadlessEngine() { Stop(); }

double HeadlessEngine::Now() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_epoch).count();
}

bool HeadlessEngine::Start(std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error) *error = why;
    return false;
  };
  if (m_running.load()) return true;
  if (m_thread.joinable()) return fail("the engine has been stopped; make a new one");
  if (!m_api.Complete()) return fail("the plug-in API is incomplete");

  // On the script thread, as an engine loads a native plug-in.
  m_api.UnityPluginLoad(nullptr);
  m_renderEvent = m_api.GetUnityRenderModeEventFunc();
  if (!m_renderEvent) return fail("GetUnityRenderModeEventFunc returned no function");

  std::promise<bool> started;
  std::future<bool> result = started.get_future();
  std::string startError;
  m_running.store(true);
  m_thread = std::thread(&HeadlessEngine::RenderThread, this, &startError, &started);
  if (result.wait_for(std::chrono::duration<double>(kStuckSeconds)) != std::future_status::ready) {
    std::fprintf(stderr, "HeadlessEngine: the render thread did not start within %.0f s (inside %s)\n", kStuckSeconds,
                 m_currentCall.load() ? m_currentCall.load() : "the engine");
    std::abort();
  }
  if (!result.get()) {
    m_thread.join();
    return fail(startError);
  }
  return true;
}

void HeadlessEngine::Stop() {
  if (!m_thread.joinable()) return;
  std::unique_lock<std::mutex> lock(m_taskMutex);
  m_stop = true;
  m_taskCv.notify_all();
  const bool ended =
      m_taskCv.wait_for(lock, std::chrono::duration<double>(kStuckSeconds), [&] { return !m_running.load(); });
  lock.unlock();
  if (!ended) {
    std::fprintf(stderr, "HeadlessEngine: the render thread did not stop within %.0f s (inside %s for player %d)\n",
                 kStuckSeconds, m_currentCall.load() ? m_currentCall.load() : "the engine", m_currentPlayer.load());
    std::abort();
  }
  m_thread.join();
}

#if defined(__SANITIZE_THREAD__)
namespace {
// Under ThreadSanitizer Mesa's software rasteriser draws on the calling thread. Its own worker
// threads are not instrumented, and destroying a context while they wound down has crashed inside
// the driver there (about once in a few hundred runs). Set before main, while the process has one
// thread, and only when the environment does not choose already.
[[maybe_unused]] const bool kRasteriserOnCallingThread = [] { return setenv("LP_NUM_THREADS", "0", 0) == 0; }();
}  // namespace
#endif

bool HeadlessEngine::MakeContext(std::string* error) {
  auto getPlatformDisplay =
      reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (!getPlatformDisplay) {
    *error = "EGL has no eglGetPlatformDisplayEXT";
    return false;
  }
  EGLDisplay display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
  if (display == EGL_NO_DISPLAY) {
    *error = EglError("eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA)");
    return false;
  }
  EGLint major = 0, minor = 0;
  if (!eglInitialize(display, &major, &minor)) {
    *error = EglError("eglInitialize");
    return false;
  }
  if (!eglBindAPI(EGL_OPENGL_ES_API)) {
    *error = EglError("eglBindAPI(EGL_OPENGL_ES_API)");
    return false;
  }
  const EGLint configAttributes[] = {EGL_SURFACE_TYPE,
                                     EGL_PBUFFER_BIT,
                                     EGL_RENDERABLE_TYPE,
                                     EGL_OPENGL_ES3_BIT,
                                     EGL_RED_SIZE,
                                     8,
                                     EGL_GREEN_SIZE,
                                     8,
                                     EGL_BLUE_SIZE,
                                     8,
                                     EGL_ALPHA_SIZE,
                                     8,
                                     EGL_NONE};
  EGLConfig config = nullptr;
  EGLint count = 0;
  if (!eglChooseConfig(display, configAttributes, &config, 1, &count) || count < 1) {
    *error = "no EGL config for a GLES 3 pbuffer (EGL error " + Hex(eglGetError()) + ")";
    return false;
  }
  const EGLint surfaceAttributes[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
  EGLSurface surface = eglCreatePbufferSurface(display, config, surfaceAttributes);
  if (surface == EGL_NO_SURFACE) {
    *error = EglError("eglCreatePbufferSurface");
    return false;
  }
  const EGLint contextAttributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_NONE};
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
  if (context == EGL_NO_CONTEXT) {
    *error = EglError("eglCreateContext(GLES 3)");
    eglDestroySurface(display, surface);
    return false;
  }
  if (!eglMakeCurrent(display, surface, surface, context)) {
    *error = EglError("eglMakeCurrent");
    eglDestroyContext(display, context);
    eglDestroySurface(display, surface);
    return false;
  }
  m_display = display;
  m_surface = surface;
  m_context = context;
  return true;
}

void HeadlessEngine::DestroyContext() {
  if (!m_display) return;
  eglMakeCurrent(m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  if (m_context) eglDestroyContext(m_display, m_context);
  if (m_surface) eglDestroySurface(m_display, m_surface);
  // The display stays initialised: it is the process's one surfaceless display, which the plug-in
  // and other engines in the process may still be using.
  eglReleaseThread();
  m_context = m_surface = m_display = nullptr;
}

void HeadlessEngine::RenderThread(std::string* startError, std::promise<bool>* started) {
  bool ok = MakeContext(startError);
  if (ok) {
    m_callStart.store(Now());
    m_currentCall.store("UnitySetGraphicsDevice");
    m_api.UnitySetGraphicsDevice(nullptr, kDeviceTypeGles3, kDeviceEventInitialize);
    m_currentCall.store(nullptr);
    while (glGetError() != GL_NO_ERROR) {
    }
  }
  if (!ok) {
    {
      std::lock_guard<std::mutex> lock(m_statsMutex);
      m_running.store(false);
    }
    started->set_value(false);
    return;
  }
  started->set_value(true);

  auto next = std::chrono::steady_clock::now();
  for (;;) {
    RunTasks();
    {
      std::lock_guard<std::mutex> lock(m_taskMutex);
      if (m_stop) break;
    }
    RenderFrame();
    const auto interval = std::chrono::milliseconds(std::max(0, m_intervalMs.load()));
    const auto now = std::chrono::steady_clock::now();
    // Frames that came late are not made up for with a burst of events.
    next = std::max(next + interval, now - interval);
    std::unique_lock<std::mutex> lock(m_taskMutex);
    m_taskCv.wait_until(lock, next, [&] { return m_stop || !m_tasks.empty(); });
  }

  for (auto& entry : m_players) DeletePlayerObjects(*entry.second);
  m_players.clear();
  if (m_options.shutdownEvent) {
    m_callStart.store(Now());
    m_currentCall.store("UnitySetGraphicsDevice");
    m_api.UnitySetGraphicsDevice(nullptr, kDeviceTypeGles3, kDeviceEventShutdown);
    m_currentCall.store(nullptr);
  }
  DestroyContext();

  {
    std::lock_guard<std::mutex> lock(m_taskMutex);
    for (auto& task : m_tasks) task->cancelled = true;
    m_tasks.clear();
    m_running.store(false);
    m_taskCv.notify_all();
  }
  std::lock_guard<std::mutex> lock(m_statsMutex);
  m_statsCv.notify_all();
}

void HeadlessEngine::RunTasks() {
  for (;;) {
    std::shared_ptr<Task> task;
    {
      std::lock_guard<std::mutex> lock(m_taskMutex);
      if (m_tasks.empty()) return;
      task = m_tasks.front();
      m_tasks.pop_front();
      task->started = true;
    }
    task->run();
    std::lock_guard<std::mutex> lock(m_taskMutex);
    task->done = true;
    m_taskCv.notify_all();
  }
}

bool HeadlessEngine::RunOnRenderThread(const std::function<void()>& run, double seconds) {
  if (std::this_thread::get_id() == m_thread.get_id()) {
    run();
    return true;
  }
  auto task = std::make_shared<Task>();
  task->run = run;
  std::unique_lock<std::mutex> lock(m_taskMutex);
  if (!m_running.load() || m_stop) return false;
  m_tasks.push_back(task);
  m_taskCv.notify_all();
  auto finished = [&] { return task->done || task->cancelled; };
  if (m_taskCv.wait_for(lock, std::chrono::duration<double>(seconds), finished)) return task->done;
  if (!task->started) {
    // The render thread is busy elsewhere (inside a render event); the task must not run later with
    // what the caller is about to free.
    m_tasks.erase(std::find(m_tasks.begin(), m_tasks.end(), task));
    return false;
  }
  // It runs now: wait for it, since it may use the caller's data.
  if (!m_taskCv.wait_for(lock, std::chrono::duration<double>(kStuckSeconds), finished)) {
    std::fprintf(stderr, "HeadlessEngine: a render-thread task has not finished within %.0f s\n", kStuckSeconds);
    std::abort();
  }
  return task->done;
}

std::optional<EngineTargets> HeadlessEngine::AddPlayer(int id, const PlayerSetup& setup, std::string* error) {
  auto fail = [&](const std::string& why) -> std::optional<EngineTargets> {
    if (error) *error = why;
    return std::nullopt;
  };
  if (setup.textureWidth <= 0 || setup.textureHeight <= 0 || setup.vertexCapacity == 0 || setup.indexCapacity == 0 ||
      setup.vertexCapacity > (1u << 24) || setup.indexCapacity > (1u << 26)) {
    return fail("bad texture size or buffer capacity");
  }
  std::optional<EngineTargets> made;
  std::string why;
  auto create = [&] {
    if (m_players.count(id)) {
      why = "player " + std::to_string(id) + " is already in the engine";
      return;
    }
    auto player = std::make_unique<Player>();
    player->id = id;
    player->setup = setup;
    EngineTargets& t = player->targets;
    t.textureWidth = setup.textureWidth;
    t.textureHeight = setup.textureHeight;
    t.vertexCapacity = setup.vertexCapacity;
    t.indexCapacity = setup.indexCapacity;
    while (glGetError() != GL_NO_ERROR) {
    }
    glGenTextures(1, &t.texture);
    glBindTexture(GL_TEXTURE_2D, t.texture);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA8, setup.textureWidth, setup.textureHeight);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glBindTexture(GL_TEXTURE_2D, 0);
    glGenFramebuffers(1, &player->framebuffer);
    if (setup.path == RenderPath::Unity) {
      glGenBuffers(1, &t.vertexBuffer);
      glBindBuffer(GL_ARRAY_BUFFER, t.vertexBuffer);
      glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(setup.vertexCapacity) * kVertexBytes, nullptr,
                   GL_DYNAMIC_DRAW);
      glBindBuffer(GL_ARRAY_BUFFER, 0);
      glGenBuffers(1, &t.indexBuffer);
      glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, t.indexBuffer);
      glBufferData(GL_ELEMENT_ARRAY_BUFFER, static_cast<GLsizeiptr>(setup.indexCapacity) * 4, nullptr, GL_DYNAMIC_DRAW);
      glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, 0);
    } else {
      player->vertexMemory.assign(static_cast<size_t>(setup.vertexCapacity) * kVertexBytes, 0);
      player->indexMemory.assign(setup.indexCapacity, 0);
    }
    // Other contexts (the plug-in's own, if it has one) see the objects once the commands are flushed.
    glFlush();
    const GLenum glError = glGetError();
    if (glError != GL_NO_ERROR) {
      why = "GL error " + Hex(glError) + " while making the engine objects";
      DeletePlayerObjects(*player);
      return;
    }
    made = t;
    {
      std::lock_guard<std::mutex> lock(m_statsMutex);
      m_stats[id] = PlayerStats();
    }
    m_players[id] = std::move(player);
  };
  if (!RunOnRenderThread(create)) return fail("the engine is not running or its render thread is busy");
  if (!made) return fail(why);
  return made;
}

bool HeadlessEngine::RemovePlayer(int id) {
  return RunOnRenderThread([&] {
    auto at = m_players.find(id);
    if (at == m_players.end()) return;
    DeletePlayerObjects(*at->second);
    m_players.erase(at);
  });
}

void HeadlessEngine::DeletePlayerObjects(Player& player) {
  EngineTargets& t = player.targets;
  if (player.framebuffer) glDeleteFramebuffers(1, &player.framebuffer);
  if (t.texture) glDeleteTextures(1, &t.texture);
  if (t.vertexBuffer) glDeleteBuffers(1, &t.vertexBuffer);
  if (t.indexBuffer) glDeleteBuffers(1, &t.indexBuffer);
  player.framebuffer = 0;
  t.texture = t.vertexBuffer = t.indexBuffer = 0;
}

void HeadlessEngine::ResetStats(int id) {
  std::lock_guard<std::mutex> lock(m_statsMutex);
  auto at = m_stats.find(id);
  if (at != m_stats.end()) at->second = PlayerStats();
}

PlayerStats HeadlessEngine::Stats(int id) const {
  std::lock_guard<std::mutex> lock(m_statsMutex);
  auto at = m_stats.find(id);
  return at == m_stats.end() ? PlayerStats() : at->second;
}

uint64_t HeadlessEngine::EngineFrames() const {
  std::lock_guard<std::mutex> lock(m_statsMutex);
  return m_frames;
}

bool HeadlessEngine::WaitUntil(const std::function<bool()>& pred, double seconds) const {
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
  for (;;) {
    if (pred()) return true;
    std::unique_lock<std::mutex> lock(m_statsMutex);
    const uint64_t seen = m_frames;
    const bool advanced = m_statsCv.wait_until(lock, deadline, [&] { return m_frames != seen || !m_running.load(); });
    const bool running = m_running.load();
    lock.unlock();
    if (!advanced || !running) return pred();
  }
}

std::string HeadlessEngine::Stuck(double seconds) const {
  const char* call = m_currentCall.load();
  const double since = m_callStart.load();
  if (!call || Now() - since < seconds || call != m_currentCall.load()) return "";
  char text[160];
  std::snprintf(text, sizeof text, "the render thread has been inside %s for player %d for %.1f s", call,
                m_currentPlayer.load(), Now() - since);
  return text;
}

bool HeadlessEngine::WaitFrames(uint64_t frames, double seconds) const {
  const uint64_t target = EngineFrames() + frames;
  return WaitUntil([&] { return EngineFrames() >= target; }, seconds);
}

void HeadlessEngine::RenderFrame() {
  for (auto& entry : m_players) RenderPlayer(*entry.second);
  std::lock_guard<std::mutex> lock(m_statsMutex);
  ++m_frames;
  m_statsCv.notify_all();
}

void HeadlessEngine::RenderPlayer(Player& player) {
  const PlayerSetup& s = player.setup;
  const EngineTargets& t = player.targets;
  m_currentPlayer.store(player.id);
  const auto start = std::chrono::steady_clock::now();
  if (s.path == RenderPath::Unity) {
    m_callStart.store(Now());
    m_currentCall.store("the render event");
    m_renderEvent(player.id);
  } else {
    m_callStart.store(Now());
    m_currentCall.store("OnUnrealRenderEvent");
    m_api.OnUnrealRenderEvent(player.id, player.vertexMemory.data(), player.indexMemory.data(),
                              static_cast<int>(t.vertexCapacity), static_cast<int>(t.indexCapacity), t.texture,
                              t.textureWidth, t.textureHeight);
  }
  m_currentCall.store(nullptr);
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  ++player.events;

  uint64_t glErrors = 0;
  std::string glProblem;
  for (GLenum e = glGetError(); e != GL_NO_ERROR && glErrors < 16; e = glGetError()) {
    if (glErrors++ == 0) glProblem = "GL error " + Hex(e) + " after render event " + std::to_string(player.events);
  }
  {
    std::lock_guard<std::mutex> lock(m_statsMutex);
    PlayerStats& stats = m_stats[player.id];
    ++stats.renderEvents;
    if (ms > stats.longestEventMs) {
      stats.longestEventMs = ms;
      stats.longestEvent = player.events;
    }
    stats.glErrors += glErrors;
    if (!glProblem.empty() && stats.problems.size() < kMaxProblems) stats.problems.push_back(glProblem);
  }
  if (s.inspect == Inspect::None) return;
  AfterEvent seen;
  InspectFrame(player, &seen);
  if (s.afterEvent) {
    seen.player = player.id;
    seen.targets = &player.targets;
    seen.event = player.events;
    s.afterEvent(seen);
  }
}

void HeadlessEngine::InspectFrame(Player& player, AfterEvent* seen) {
  OzmFrameInfo info{};
  m_callStart.store(Now());
  m_currentCall.store("GetLumoObjectFrameInfo");
  m_api.GetLumoObjectFrameInfo(player.id, &info);
  m_currentCall.store(nullptr);

  // Before its first frame a player reports an empty frame.
  const bool hasFrame = info.vertexCount > 0 || info.indexCount > 0;
  const bool changed =
      hasFrame && (!player.haveLast || info.timestamp != player.last.timestamp || info.frameId != player.last.frameId);
  if (hasFrame) {
    player.last = info;
    player.haveLast = true;
  }

  int verdict = -1;  // -1 not judged, 0 mismatched, 1 paired
  std::string why;
  if (changed && player.setup.inspect == Inspect::Readback) {
    DrawnFrame frame;
    if (!ReadBack(player, info, &frame, &why)) {
      verdict = 0;
    } else if (player.setup.check) {
      verdict = player.setup.check(frame, &why) ? 1 : 0;
    }
  }

  seen->info = info;
  seen->newFrame = changed;
  seen->verdict = verdict;
  std::lock_guard<std::mutex> lock(m_statsMutex);
  PlayerStats& stats = m_stats[player.id];
  stats.lastInfo = info;
  if (info.endOfStream) ++stats.endOfStreamFlags;
  if (changed) {
    ++stats.framesDrawn;
    stats.drawn.push_back({info.frameId, static_cast<int64_t>(info.timestamp), player.events, Now()});
  }
  if (verdict == 1) ++stats.paired;
  if (verdict == 0) {
    ++stats.mismatched;
    if (stats.problems.size() < kMaxProblems) {
      stats.problems.push_back("frame id " + std::to_string(info.frameId) + " (event " + std::to_string(player.events) +
                               "): " + (why.empty() ? "mismatched" : why));
    }
  }
}

bool HeadlessEngine::ReadBack(Player& player, const OzmFrameInfo& info, DrawnFrame* frame, std::string* why) {
  const EngineTargets& t = player.targets;
  frame->player = player.id;
  frame->info = info;
  frame->width = t.textureWidth;
  frame->height = t.textureHeight;
  while (glGetError() != GL_NO_ERROR) {
  }

  // The texture, through a framebuffer of the engine's own.
  frame->rgba.assign(static_cast<size_t>(t.textureWidth) * t.textureHeight * 4, 0);
  glBindFramebuffer(GL_FRAMEBUFFER, player.framebuffer);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, t.texture, 0);
  const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
  if (status != GL_FRAMEBUFFER_COMPLETE) {
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    *why = "the engine texture cannot be read (framebuffer status " + Hex(status) + ")";
    return false;
  }
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, t.textureWidth, t.textureHeight, GL_RGBA, GL_UNSIGNED_BYTE, frame->rgba.data());
  glBindFramebuffer(GL_FRAMEBUFFER, 0);

  const uint32_t vertices = std::min(info.vertexCount, t.vertexCapacity);
  const uint32_t indices = std::min(info.indexCount, t.indexCapacity);
  frame->vertices.assign(static_cast<size_t>(vertices) * kVertexBytes, 0);
  frame->indices.assign(indices, 0);
  if (player.setup.path == RenderPath::Unreal) {
    std::memcpy(frame->vertices.data(), player.vertexMemory.data(), frame->vertices.size());
    std::memcpy(frame->indices.data(), player.indexMemory.data(), frame->indices.size() * 4);
  } else {
    auto read = [&](GLuint buffer, void* out, size_t bytes) {
      if (bytes == 0) return true;
      glBindBuffer(GL_COPY_READ_BUFFER, buffer);
      const void* mapped = glMapBufferRange(GL_COPY_READ_BUFFER, 0, static_cast<GLsizeiptr>(bytes), GL_MAP_READ_BIT);
      if (mapped) {
        std::memcpy(out, mapped, bytes);
        glUnmapBuffer(GL_COPY_READ_BUFFER);
      }
      glBindBuffer(GL_COPY_READ_BUFFER, 0);
      return mapped != nullptr;
    };
    if (!read(t.vertexBuffer, frame->vertices.data(), frame->vertices.size()) ||
        !read(t.indexBuffer, frame->indices.data(), frame->indices.size() * 4)) {
      *why = "the engine buffers cannot be mapped (GL error " + Hex(glGetError()) + ")";
      return false;
    }
  }
  const GLenum glError = glGetError();
  if (glError != GL_NO_ERROR) {
    *why = "GL error " + Hex(glError) + " while reading back";
    return false;
  }
  return true;
}

}  // namespace OzmEngine
