// The host backend's output side on a real Mesa context: the surface texture's timing, latching
// and pixels; the audio track's pacing, wake-ups and WAV capture; assets as files; and the
// platform object that hands them out.
#include <EGL/egl.h>
#include <EGL/eglext.h>
// gl2ext.h takes its types and calling convention from gl3.h, which must come first.
// clang-format off
#include <GLES3/gl3.h>
#include <GLES2/gl2ext.h>
// clang-format on
#include <fcntl.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "platform/host/HostPlatform.h"
#include "platform/host/LogCapture.h"

// Mesa's software rasterizer synchronises its worker threads in ways the thread sanitizer cannot
// follow (it is not instrumented); what it reports inside the driver is not ours to fix.
#if defined(__SANITIZE_THREAD__)
#define OZM_TSAN_BUILD 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OZM_TSAN_BUILD 1
#endif
#endif
#ifdef OZM_TSAN_BUILD
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "race:swrast_dri.so\n";
}
#endif

namespace OzmPlatform {
namespace {

using namespace std::chrono_literals;

int64_t NowNs() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

constexpr int64_t kMs = 1000000;

// ---------------------------------------------------------------------------------------------
// A surfaceless GLES 3 context with a pbuffer, and a way to read back an external texture.

class GlContext {
 public:
  GlContext() {
    auto getDisplay = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (!getDisplay) return;
    m_display = getDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (m_display == EGL_NO_DISPLAY || !eglInitialize(m_display, nullptr, nullptr)) return;
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
    if (!eglChooseConfig(m_display, configAttributes, &config, 1, &count) || count < 1) return;
    const EGLint pbufferAttributes[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
    m_surface = eglCreatePbufferSurface(m_display, config, pbufferAttributes);
    eglBindAPI(EGL_OPENGL_ES_API);
    const EGLint contextAttributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_NONE};
    m_context = eglCreateContext(m_display, config, EGL_NO_CONTEXT, contextAttributes);
    if (m_surface == EGL_NO_SURFACE || m_context == EGL_NO_CONTEXT) return;
    m_ok = MakeCurrent() && BuildReader();
  }

  bool Ok() const { return m_ok; }
  EGLDisplay Display() const { return m_display; }
  bool MakeCurrent() { return eglMakeCurrent(m_display, m_surface, m_surface, m_context) == EGL_TRUE; }
  static void ClearCurrent() { eglMakeCurrent(eglGetCurrentDisplay(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT); }

  static GLuint NewExternalTexture() {
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, 0);
    return texture;
  }

  // Draws the external texture into a width x height target and reads it back as RGBA rows,
  // bottom row first, which is the order the picture was uploaded in.
  std::vector<uint8_t> Read(GLuint external, int width, int height) {
    glBindTexture(GL_TEXTURE_2D, m_target);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    glBindTexture(GL_TEXTURE_2D, 0);
    glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, m_target, 0);
    glViewport(0, 0, width, height);
    glUseProgram(m_program);
    glUniform2f(glGetUniformLocation(m_program, "size"), static_cast<float>(width), static_cast<float>(height));
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, external);
    glDrawArrays(GL_TRIANGLES, 0, 3);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, 0);
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 4);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    return pixels;
  }

 private:
  bool BuildReader() {
    // One triangle that covers the target; the picture is sampled at the pixel centres.
    const std::string vertex300 = std::string("#version 300 es\n") + R"(
      void main() {
        vec2 p = vec2(float(gl_VertexID / 2) * 4.0 - 1.0, float(gl_VertexID % 2) * 4.0 - 1.0);
        gl_Position = vec4(p, 0.0, 1.0);
      })";
    const std::string fragment300 =
        std::string("#version 300 es\n#extension GL_OES_EGL_image_external_essl3 : require\n") +
        R"(
      precision mediump float;
      uniform samplerExternalOES picture;
      uniform vec2 size;
      out vec4 color;
      void main() { color = texture(picture, gl_FragCoord.xy / size); })";
    const GLuint vs = Compile(GL_VERTEX_SHADER, vertex300.c_str());
    const GLuint fs = Compile(GL_FRAGMENT_SHADER, fragment300.c_str());
    if (!vs || !fs) return false;
    m_program = glCreateProgram();
    glAttachShader(m_program, vs);
    glAttachShader(m_program, fs);
    glLinkProgram(m_program);
    glDeleteShader(vs);
    glDeleteShader(fs);
    GLint linked = 0;
    glGetProgramiv(m_program, GL_LINK_STATUS, &linked);
    if (!linked) return false;
    glUseProgram(m_program);
    glUniform1i(glGetUniformLocation(m_program, "picture"), 0);
    glUseProgram(0);
    glGenFramebuffers(1, &m_framebuffer);
    glGenTextures(1, &m_target);
    return true;
  }

  static GLuint Compile(GLenum type, const char* source) {
    const GLuint shader = glCreateShader(type);
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    GLint compiled = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    if (!compiled) {
      char log[1024] = {};
      glGetShaderInfoLog(shader, sizeof(log), nullptr, log);
      ADD_FAILURE() << "shader: " << log;
      glDeleteShader(shader);
      return 0;
    }
    return shader;
  }

  EGLDisplay m_display = EGL_NO_DISPLAY;
  EGLSurface m_surface = EGL_NO_SURFACE;
  EGLContext m_context = EGL_NO_CONTEXT;
  GLuint m_program = 0;
  GLuint m_framebuffer = 0;
  GLuint m_target = 0;
  bool m_ok = false;
};

// A test pattern that differs per pixel and per picture.
HostPicture Pattern(int width, int height, int seed) {
  auto rgba = std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = rgba->data() + (static_cast<size_t>(y) * width + x) * 4;
      p[0] = static_cast<uint8_t>(x * 13 + seed * 7);
      p[1] = static_cast<uint8_t>(y * 29 + seed * 3);
      p[2] = static_cast<uint8_t>(255 - x * 5 - y * 3 - seed);
      p[3] = 255;
    }
  }
  return HostPicture{rgba, width, height};
}

// Every frame-available call, with the thread it came on.
struct Announcement {
  SurfaceTexture* texture;
  std::thread::id thread;
  int64_t timeNs;
};

class Announcements {
 public:
  static Announcements& Get() {
    static Announcements instance;
    return instance;
  }

  // The host announces a picture with the surface texture itself.
  static void Handler(const void* platformObject) {
    auto* texture = static_cast<SurfaceTexture*>(const_cast<void*>(platformObject));
    Announcements& a = Get();
    {
      std::lock_guard<std::mutex> lock(a.m_mutex);
      a.m_list.push_back({texture, std::this_thread::get_id(), NowNs()});
    }
    a.m_changed.notify_all();
    if (a.m_releaseFromHandler) ReleaseHostSurfaceTexture(*texture);
  }

  void Reset(bool releaseFromHandler = false) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_list.clear();
    m_releaseFromHandler = releaseFromHandler;
  }

  std::vector<Announcement> For(SurfaceTexture* texture) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Announcement> out;
    for (const Announcement& a : m_list)
      if (a.texture == texture) out.push_back(a);
    return out;
  }

  // Waits (with a limit) until `count` announcements of the texture have come.
  bool WaitFor(SurfaceTexture* texture, size_t count, std::chrono::milliseconds limit = 2000ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] {
      return static_cast<size_t>(std::count_if(m_list.begin(), m_list.end(),
                                               [&](const Announcement& a) { return a.texture == texture; })) >= count;
    });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Announcement> m_list;
  std::atomic<bool> m_releaseFromHandler{false};
};

class SurfaceTextureTest : public ::testing::Test {
 protected:
  // One context for the process, never terminated: Mesa leaves a few objects of external-texture
  // draws behind when its display is terminated and the driver unloaded.
  static void SetUpTestSuite() {
    static GlContext* const shared = new GlContext();
    s_gl = shared;
  }

  void SetUp() override {
    ASSERT_TRUE(s_gl->Ok()) << "no surfaceless GLES 3 context";
    ASSERT_TRUE(s_gl->MakeCurrent());
    Announcements::Get().Reset();
    SetFrameAvailableHandler(&Announcements::Handler);
    m_external = GlContext::NewExternalTexture();
    m_texture = NewHostSurfaceTexture(m_external);
    ASSERT_TRUE(m_texture);
    m_window = std::dynamic_pointer_cast<HostNativeWindow>(HostSurfaceOf(*m_texture));
    ASSERT_TRUE(m_window);
  }

  void TearDown() override {
    s_gl->MakeCurrent();
    m_window.reset();
    m_texture.reset();
    glDeleteTextures(1, &m_external);
    GlContext::ClearCurrent();
    SetFrameAvailableHandler(nullptr);
  }

  std::vector<uint8_t> Shown(int width, int height) { return s_gl->Read(m_external, width, height); }

  static GlContext* s_gl;
  GLuint m_external = 0;
  std::shared_ptr<SurfaceTexture> m_texture;
  std::shared_ptr<HostNativeWindow> m_window;
};

GlContext* SurfaceTextureTest::s_gl = nullptr;

TEST_F(SurfaceTextureTest, PicturesBecomeAvailableAtTheirTimeOnAnotherThread) {
  const int64_t start = NowNs();
  const int64_t first = start + 150 * kMs;
  const int64_t second = start + 300 * kMs;
  m_window->QueuePicture(Pattern(8, 4, 1), first);
  m_window->QueuePicture(Pattern(8, 4, 2), second);

  // Before its time nothing is latched.
  m_texture->UpdateTexImage();
  EXPECT_EQ(m_texture->GetTimestamp(), 0);
  EXPECT_TRUE(Announcements::Get().For(m_texture.get()).empty());

  ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), 1));
  m_texture->UpdateTexImage();
  EXPECT_EQ(m_texture->GetTimestamp(), first);
  EXPECT_EQ(Shown(8, 4), *Pattern(8, 4, 1).rgba);

  ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), 2));
  m_texture->UpdateTexImage();
  EXPECT_EQ(m_texture->GetTimestamp(), second);
  EXPECT_EQ(Shown(8, 4), *Pattern(8, 4, 2).rgba);

  // Nothing new: the latched picture stays.
  m_texture->UpdateTexImage();
  EXPECT_EQ(m_texture->GetTimestamp(), second);
  EXPECT_EQ(Shown(8, 4), *Pattern(8, 4, 2).rgba);

  const std::vector<Announcement> seen = Announcements::Get().For(m_texture.get());
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_GE(seen[0].timeNs, first);
  EXPECT_GE(seen[1].timeNs, second);
  for (const Announcement& a : seen) EXPECT_NE(a.thread, std::this_thread::get_id());
}

// Pictures announce themselves in the order they were queued, none before its time (one due
// earlier than a picture queued before it waits for that one), and UpdateTexImage latches the
// newest one that is due.
TEST_F(SurfaceTextureTest, LatchesTheNewestDuePicture) {
  struct Case {
    const char* name;
    std::vector<int64_t> offsetsMs;  // from now, in queueing order; negative is in the past
    std::vector<int> expectedOrder;  // indices into offsetsMs, in announcement order
  };
  const Case cases[] = {
      {"all past", {-30, -20, -10}, {0, 1, 2}},
      {"due out of order", {60, 20, 40}, {0, 1, 2}},
      {"future before past", {40, -5}, {0, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Announcements::Get().Reset();  // the texture of the last case may have had the same address
    auto texture = NewHostSurfaceTexture(m_external);
    auto window = std::dynamic_pointer_cast<HostNativeWindow>(HostSurfaceOf(*texture));
    const int64_t now = NowNs();
    for (size_t i = 0; i < c.offsetsMs.size(); ++i)
      window->QueuePicture(Pattern(4, 4, static_cast<int>(i)), now + c.offsetsMs[i] * kMs);
    ASSERT_TRUE(Announcements::Get().WaitFor(texture.get(), c.offsetsMs.size()));
    const std::vector<Announcement> seen = Announcements::Get().For(texture.get());
    ASSERT_EQ(seen.size(), c.offsetsMs.size());
    for (size_t k = 0; k < seen.size(); ++k)
      EXPECT_GE(seen[k].timeNs, now + c.offsetsMs[static_cast<size_t>(c.expectedOrder[k])] * kMs);
    texture->UpdateTexImage();
    const int newest = c.expectedOrder.back();
    EXPECT_EQ(texture->GetTimestamp(), now + c.offsetsMs[static_cast<size_t>(newest)] * kMs);
    EXPECT_EQ(s_gl->Read(m_external, 4, 4), *Pattern(4, 4, newest).rgba);
    ReleaseHostSurfaceTexture(*texture);
    texture->UpdateTexImage();  // frees its GL objects
  }
}

// Size changes respecify the staging texture, equal sizes update it in place; either way the
// external texture shows the picture, and the caller's GL state is as it was.
TEST_F(SurfaceTextureTest, UploadsEverySizeAndRestoresGlState) {
  const int sizes[][2] = {{8, 4}, {8, 4}, {5, 3}, {16, 16}, {16, 16}, {1, 1}, {5, 3}};
  GLuint other[2] = {};
  glGenTextures(2, other);
  int seed = 0;
  for (const auto& size : sizes) {
    SCOPED_TRACE(std::to_string(size[0]) + "x" + std::to_string(size[1]));
    ++seed;
    const int64_t ts = NowNs() - seed;
    m_window->QueuePicture(Pattern(size[0], size[1], seed), ts);
    ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), static_cast<size_t>(seed)));
    glBindTexture(GL_TEXTURE_2D, other[0]);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, other[1]);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 3);
    m_texture->UpdateTexImage();
    GLint bound2D = 0, boundExternal = 0, alignment = 0, rowLength = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &bound2D);
    glGetIntegerv(GL_TEXTURE_BINDING_EXTERNAL_OES, &boundExternal);
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &rowLength);
    EXPECT_EQ(bound2D, static_cast<GLint>(other[0]));
    EXPECT_EQ(boundExternal, static_cast<GLint>(other[1]));
    EXPECT_EQ(alignment, 1);
    EXPECT_EQ(rowLength, 3);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(m_texture->GetTimestamp(), ts);
    EXPECT_EQ(Shown(size[0], size[1]), *Pattern(size[0], size[1], seed).rgba);
  }
  glDeleteTextures(2, other);
}

TEST_F(SurfaceTextureTest, BadPicturesAreDroppedWithAnError) {
  ScopedLogCapture log;
  const HostPicture bad[] = {
      HostPicture{nullptr, 4, 4},
      HostPicture{std::make_shared<std::vector<uint8_t>>(4 * 4 * 4 - 1), 4, 4},
      HostPicture{std::make_shared<std::vector<uint8_t>>(16), 0, 4},
      HostPicture{std::make_shared<std::vector<uint8_t>>(16), -2, -2},
  };
  for (const HostPicture& p : bad) m_window->QueuePicture(p, NowNs());
  m_window->QueuePicture(Pattern(2, 2, 9), NowNs());
  ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), 1));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(Announcements::Get().For(m_texture.get()).size(), 1u);
  EXPECT_EQ(log.Lines().size(), std::size(bad));
  m_texture->UpdateTexImage();
  EXPECT_EQ(Shown(2, 2), *Pattern(2, 2, 9).rgba);
}

TEST_F(SurfaceTextureTest, ReleaseDropsPendingPicturesAndIgnoresLaterOnes) {
  m_window->QueuePicture(Pattern(4, 4, 1), NowNs());
  ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), 1));
  m_texture->UpdateTexImage();
  const int64_t latched = m_texture->GetTimestamp();
  m_window->QueuePicture(Pattern(4, 4, 2), NowNs() + 30 * kMs);
  m_window->QueuePicture(Pattern(4, 4, 3), NowNs() + 60 * kMs);
  HostPlatform().ReleaseSurfaceTexture(*m_texture);
  m_window->QueuePicture(Pattern(4, 4, 4), NowNs());
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(Announcements::Get().For(m_texture.get()).size(), 1u);
  m_texture->UpdateTexImage();
  EXPECT_EQ(m_texture->GetTimestamp(), latched);
  // The window outlives the texture; queueing on it then does nothing.
  m_texture.reset();
  m_window->QueuePicture(Pattern(4, 4, 5), NowNs());
}

// The frame-available handler may release the texture it is told about.
TEST_F(SurfaceTextureTest, ReleaseFromTheHandler) {
  Announcements::Get().Reset(/*releaseFromHandler=*/true);
  m_window->QueuePicture(Pattern(4, 4, 1), NowNs());
  m_window->QueuePicture(Pattern(4, 4, 2), NowNs() + 20 * kMs);
  ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), 1));
  std::this_thread::sleep_for(60ms);
  EXPECT_EQ(Announcements::Get().For(m_texture.get()).size(), 1u);
  Announcements::Get().Reset();
}

// A texture with GL objects destroyed while no context is current leaves them to the context.
TEST_F(SurfaceTextureTest, DestroyedWithoutACurrentContext) {
  m_window->QueuePicture(Pattern(4, 4, 1), NowNs());
  ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), 1));
  m_texture->UpdateTexImage();
  m_window->QueuePicture(Pattern(4, 4, 2), NowNs());
  ASSERT_TRUE(Announcements::Get().WaitFor(m_texture.get(), 2));
  const int64_t latched = m_texture->GetTimestamp();
  GlContext::ClearCurrent();
  {
    ScopedLogCapture log;
    m_texture->UpdateTexImage();  // refused, with an error
    EXPECT_EQ(log.Lines().size(), 1u);
  }
  EXPECT_EQ(m_texture->GetTimestamp(), latched);
  m_texture.reset();
  ASSERT_TRUE(s_gl->MakeCurrent());
}

// Producer, timer, render thread and a releasing thread all at once (for the thread sanitizer).
TEST_F(SurfaceTextureTest, ConcurrentQueueUpdateAndRelease) {
  std::atomic<bool> done{false};
  std::thread producer([&] {
    for (int i = 0; i < 200 && !done; ++i) {
      m_window->QueuePicture(Pattern(4, 4, i), NowNs() + (i % 3) * kMs);
      std::this_thread::sleep_for(200us);
    }
  });
  std::thread releaser([&] {
    std::this_thread::sleep_for(30ms);
    ReleaseHostSurfaceTexture(*m_texture);
  });
  // Due times jump back and forth here, so latched timestamps need not grow; what matters is that
  // nothing breaks while all three threads work on the texture.
  int64_t last = 0;
  const auto end = std::chrono::steady_clock::now() + 60ms;
  while (std::chrono::steady_clock::now() < end) {
    m_texture->UpdateTexImage();
    last = std::max(last, m_texture->GetTimestamp());
  }
  done = true;
  producer.join();
  releaser.join();
  EXPECT_GT(last, 0);
}

TEST(HostPlatformTest, HandsOutTheHostParts) {
  Platform& platform = HostPlatform();
  EXPECT_EQ(&GetPlatform(), &platform);
  EXPECT_TRUE(platform.AttachCurrentThread());
  platform.DetachCurrentThread();
  EXPECT_FALSE(platform.HasObbRoute());
  AssetFileDescriptor afd;
  EXPECT_FALSE(platform.GetAssetFileDescriptorFromObb("a", &afd));
  EXPECT_FALSE(platform.GetAssetFileDescriptorAndroid10("a", &afd));
  EXPECT_EQ(platform.CaptureEglDisplay(), static_cast<void*>(EGL_NO_DISPLAY));

  auto texture = platform.CreateSurfaceTexture(0);
  ASSERT_TRUE(texture);
  EXPECT_TRUE(std::dynamic_pointer_cast<HostNativeWindow>(platform.CreateSurfaceTextureSurface(*texture)));
  EXPECT_TRUE(platform.CreateAudioTrack(48000, 2));
  ScopedLogCapture log;
  EXPECT_FALSE(platform.CreateAudioTrack(48000, 0));

  // A surface texture of another kind has no host window.
  struct OtherTexture : SurfaceTexture {
    void UpdateTexImage() override {}
    int64_t GetTimestamp() override { return 0; }
  } other;
  EXPECT_FALSE(platform.CreateSurfaceTextureSurface(other));
  platform.ReleaseSurfaceTexture(other);
}

TEST_F(SurfaceTextureTest, CaptureEglDisplayIsTheCurrentOne) {
  EXPECT_EQ(HostPlatform().CaptureEglDisplay(), static_cast<void*>(s_gl->Display()));
}

// ---------------------------------------------------------------------------------------------
// Audio track.

constexpr int kFrameBytes = 4;  // 16-bit stereo

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// After Play, writing beyond the buffer takes as long as the audio plays at the playback rate.
TEST(HostAudioTrackTest, PacesWritesAtThePlaybackRate) {
  struct Case {
    int sampleRate;
    int playbackRate;
    double seconds;  // of audio written after the buffer is full
  };
  const Case cases[] = {{48000, 48000, 0.3}, {48000, 96000, 0.3}, {44100, 22050, 0.1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.sampleRate) + " at " + std::to_string(c.playbackRate));
    auto track = NewHostAudioTrack(c.sampleRate);
    ASSERT_TRUE(track);
    ASSERT_EQ(track->SetPlaybackRate(c.playbackRate), 0);
    // Fills the buffer before playing starts, as the player does.
    std::vector<uint8_t> chunk(static_cast<size_t>(c.sampleRate / 100) * kFrameBytes);
    size_t prefilled = 0;
    auto fill = std::async(std::launch::async, [&] {
      while (true) {
        const int n = track->Write(chunk.data(), chunk.size());
        if (n <= 0) return;
        prefilled += static_cast<size_t>(n);
        if (static_cast<size_t>(n) < chunk.size()) return;
      }
    });
    EXPECT_EQ(fill.wait_for(150ms), std::future_status::timeout);  // blocks once full
    track->Stop();                                                 // wakes it
    ASSERT_EQ(fill.wait_for(1s), std::future_status::ready);
    const size_t capacity = static_cast<size_t>(c.sampleRate / 10) * kFrameBytes;
    EXPECT_NEAR(static_cast<double>(prefilled), static_cast<double>(capacity), chunk.size());
    track->Flush();

    // Now the timed part: buffer of 0.1 s is free at once, the rest plays at the playback rate.
    track->Play();
    const size_t total = static_cast<size_t>(c.sampleRate * (0.1 + c.seconds)) * kFrameBytes;
    const auto start = std::chrono::steady_clock::now();
    size_t written = 0;
    while (written < total) {
      const int n = track->Write(chunk.data(), std::min(chunk.size(), total - written));
      ASSERT_GT(n, 0);
      written += static_cast<size_t>(n);
    }
    const double expected = c.seconds * c.sampleRate / c.playbackRate;
    EXPECT_NEAR(SecondsSince(start), expected, expected * 0.3);
  }
}

// A Write blocked on a full buffer returns at once on Stop, Flush, Release or destruction, with
// what it took; later writes after Release fail.
TEST(HostAudioTrackTest, BlockedWriteWakesUp) {
  enum class Wake { Stop, Flush, Release, Destroy };
  const Wake wakes[] = {Wake::Stop, Wake::Flush, Wake::Release, Wake::Destroy};
  for (Wake wake : wakes) {
    SCOPED_TRACE(static_cast<int>(wake));
    auto track = NewHostAudioTrack(48000);
    ASSERT_TRUE(track);
    std::vector<uint8_t> audio(48000 / 5 * kFrameBytes);  // 0.2 s: twice the buffer
    AudioTrack* writer = track.get();
    auto write = std::async(std::launch::async, [&] { return writer->Write(audio.data(), audio.size()); });
    ASSERT_EQ(write.wait_for(100ms), std::future_status::timeout);
    const auto start = std::chrono::steady_clock::now();
    switch (wake) {
      case Wake::Stop: track->Stop(); break;
      case Wake::Flush: track->Flush(); break;
      case Wake::Release: track->Release(); break;
      case Wake::Destroy: track.reset(); break;
    }
    ASSERT_EQ(write.wait_for(2s), std::future_status::ready);
    EXPECT_LT(SecondsSince(start), 0.5);
    EXPECT_EQ(write.get(), 48000 / 10 * kFrameBytes);
    if (wake == Wake::Release) {
      EXPECT_LT(track->Write(audio.data(), kFrameBytes), 0);
      EXPECT_NE(track->SetVolume(0.5f), 0);
    }
  }
}

TEST(HostAudioTrackTest, RejectsBadInput) {
  ScopedLogCapture log;
  EXPECT_FALSE(NewHostAudioTrack(0));
  EXPECT_FALSE(NewHostAudioTrack(-48000));
  EXPECT_FALSE(NewHostAudioTrack(10000000));
  EXPECT_FALSE(NewHostAudioTrack(48000, 0));
  auto track = NewHostAudioTrack(48000, 1);
  ASSERT_TRUE(track);
  const uint8_t bytes[3] = {};
  EXPECT_EQ(track->Write(bytes, 0), 0);
  EXPECT_LT(track->Write(bytes, 3), 0);  // not whole 2-byte frames
  EXPECT_LT(track->Write(nullptr, 2), 0);
  EXPECT_EQ(track->Write(bytes, 2), 2);
  EXPECT_LT(track->SetPlaybackRate(0), 0);
  EXPECT_EQ(track->SetVolume(0.25f), 0);
}

// Each track writes what it was given to its own WAV file, completed when the track goes.
TEST(HostAudioTrackTest, CapturesToWavFiles) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::temp_directory_path() / ("ozm-audio-" + std::to_string(::getpid()));
  fs::remove_all(folder);
  fs::create_directories(folder);
  HostSettings::SetAudioCaptureFolder(folder.string());
  struct Case {
    int rate;
    int channels;
    size_t frames;
    bool release;  // else destroyed
  };
  const Case cases[] = {{44100, 2, 3000, true}, {22050, 1, 777, false}, {48000, 6, 0, true}};
  std::vector<std::vector<uint8_t>> written;
  for (const Case& c : cases) {
    auto track = NewHostAudioTrack(c.rate, c.channels);
    ASSERT_TRUE(track);
    std::vector<uint8_t> data(c.frames * c.channels * 2);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 31 + c.channels);
    track->Play();
    // In a few pieces, as the player writes.
    for (size_t at = 0; at < data.size();) {
      const size_t piece = std::min<size_t>(data.size() - at, 500 * c.channels * 2);
      ASSERT_EQ(track->Write(data.data() + at, piece), static_cast<int>(piece));
      at += piece;
    }
    if (c.release) track->Release();
    track.reset();
    written.push_back(std::move(data));
  }
  HostSettings::SetAudioCaptureFolder("");

  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(folder)) files.push_back(entry.path());
  std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) {
    return std::stoi(a.stem().string().substr(6)) < std::stoi(b.stem().string().substr(6));
  });
  ASSERT_EQ(files.size(), std::size(cases));
  for (size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(files[i].string());
    EXPECT_EQ(files[i].filename().string().rfind("audio-", 0), 0u);
    std::ifstream in(files[i], std::ios::binary);
    const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_GE(file.size(), 44u);
    auto u32 = [&](size_t at) {
      return static_cast<uint32_t>(file[at] | file[at + 1] << 8 | file[at + 2] << 16 | file[at + 3] << 24);
    };
    auto u16 = [&](size_t at) { return static_cast<uint32_t>(file[at] | file[at + 1] << 8); };
    const Case& c = cases[i];
    EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "RIFF");
    EXPECT_EQ(u32(4), file.size() - 8);
    EXPECT_EQ(std::string(file.begin() + 8, file.begin() + 16), "WAVEfmt ");
    EXPECT_EQ(u32(16), 16u);
    EXPECT_EQ(u16(20), 1u);
    EXPECT_EQ(u16(22), static_cast<uint32_t>(c.channels));
    EXPECT_EQ(u32(24), static_cast<uint32_t>(c.rate));
    EXPECT_EQ(u32(28), static_cast<uint32_t>(c.rate * c.channels * 2));
    EXPECT_EQ(u16(32), static_cast<uint32_t>(c.channels * 2));
    EXPECT_EQ(u16(34), 16u);
    EXPECT_EQ(std::string(file.begin() + 36, file.begin() + 40), "data");
    EXPECT_EQ(u32(40), written[i].size());
    EXPECT_TRUE(std::equal(file.begin() + 44, file.end(), written[i].begin(), written[i].end()));
  }
  fs::remove_all(folder);
}

// ---------------------------------------------------------------------------------------------
// Assets.

TEST(HostAssetTest, OpensFilesUnderTheAssetsRoot) {
  namespace fs = std::filesystem;
  const fs::path root = fs::temp_directory_path() / ("ozm-assets-" + std::to_string(::getpid()));
  fs::remove_all(root);
  fs::create_directories(root / "clips" / "folder");
  const std::string content = "0123456789abcdef";
  std::ofstream(root / "clips" / "a.bin", std::ios::binary) << content;
  Platform& platform = HostPlatform();

  EXPECT_FALSE(platform.OpenAsset("clips/a.bin"));  // no root yet
  HostSettings::SetAssetsRoot(root.string());
  EXPECT_EQ(HostSettings::AssetsRoot(), root.string());

  auto asset = platform.OpenAsset("clips/a.bin");
  ASSERT_TRUE(asset);
  char buffer[32] = {};
  EXPECT_EQ(asset->Read(buffer, 4), 4);
  EXPECT_EQ(std::string(buffer, 4), "0123");
  EXPECT_EQ(asset->Seek(10, SEEK_SET), 10);
  EXPECT_EQ(asset->Read(buffer, sizeof(buffer)), 6);
  EXPECT_EQ(std::string(buffer, 6), "abcdef");
  EXPECT_EQ(asset->Read(buffer, sizeof(buffer)), 0);
  EXPECT_EQ(asset->Seek(-3, SEEK_END), 13);
  EXPECT_EQ(asset->Seek(-100, SEEK_SET), -1);

  int64_t start = -1, length = -1;
  const int fd = asset->OpenFileDescriptor(&start, &length);
  ASSERT_GT(fd, 0);
  EXPECT_EQ(start, 0);
  EXPECT_EQ(length, static_cast<int64_t>(content.size()));
  EXPECT_EQ(::pread(fd, buffer, 3, 5), 3);
  EXPECT_EQ(std::string(buffer, 3), "567");
  asset.reset();
  EXPECT_EQ(::pread(fd, buffer, 2, 0), 2);  // the duplicate outlives the asset
  ::close(fd);

  const std::string absolute = (root / "clips" / "a.bin").string();
  for (const char* missing :
       {"clips/b.bin", "clips/folder", "clips", "../a.bin", "clips/../clips/a.bin", absolute.c_str(), ""}) {
    SCOPED_TRACE(missing);
    EXPECT_FALSE(platform.OpenAsset(missing));
  }
  EXPECT_FALSE(platform.OpenAsset(nullptr));
  HostSettings::SetAssetsRoot("");
  fs::remove_all(root);
}

}  // namespace
}  // namespace OzmPlatform
