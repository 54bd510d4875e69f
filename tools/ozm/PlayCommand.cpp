// The "play" subcommand: plays a clip through a built plug-in's C functions the way an engine does
// (the headless engine: its own GL context, texture and buffers, a render event every 16 ms) and
// checks every frame the engine draws: the picture in the texture, the frame information and the
// mesh in the buffers must all be the same frame of the clip. After each render event that made a
// new frame current, it draws what the engine holds (the mesh in its buffers with its texture) from
// a camera turning around the clip, into an MP4, PNG pictures or a contact sheet.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "OzmCore/MeshPayload.h"
#include "engine/HeadlessEngine.h"
#include "engine/PluginApi.h"
#include "tools/ozm/Commands.h"
#include "tools/ozm/Format.h"
#include "tools/ozm/FrameRange.h"
#include "tools/ozm/MeshRenderer.h"
#include "tools/ozm/OrbitCamera.h"
#include "tools/ozm/PairingCheck.h"
#include "tools/ozm/PlayOutput.h"
#include "tools/ozm/Progress.h"
#include "tools/ozm/media/Av.h"
#include "tools/ozm/media/ClipAudio.h"

namespace OzmTool {
namespace {

using Clock = std::chrono::steady_clock;

// How long playback may go without a new frame before the tool gives up on it.
constexpr double kStallSeconds = 10;
// The plug-in linked into the tool, for streams that the shipped plug-in's address check refuses.
constexpr const char* kLinkedPlugin = "linked";

struct PlayCommandLine {
  std::string path;
  std::string plugin = OZM_DEFAULT_PLUGIN_LIBRARY;
  bool pluginGiven = false;
  int loops = 0;  // 0: once, until the end-of-stream flag; N: N passes with auto-looping
  float clockScale = 1;
  bool noAudio = false;
  bool json = false;
  std::string size = "960x540";
  std::string out;
  std::string contactSheet;
  std::string frames;
  CameraOptions camera;
  double fixedAngle = std::numeric_limits<double>::quiet_NaN();
};

struct TimeStats {
  double median = 0, p95 = 0, max = 0;
};

TimeStats Measure(std::vector<double> v) {
  TimeStats t;
  if (v.empty()) return t;
  std::sort(v.begin(), v.end());
  t.median = v[v.size() / 2];
  t.p95 = v[std::min(v.size() - 1, static_cast<size_t>(std::ceil(0.95 * static_cast<double>(v.size()))) - 1)];
  t.max = v.back();
  return t;
}

struct PlaySummary {
  std::string file;
  std::string plugin;
  size_t clipFrames = 0;
  int passes = 1;
  bool looping = false;
  bool completed = false;  // reached the end of the clip (or of the frames asked for), or of the last pass
  std::string incomplete;  // why not
  OzmEngine::PlayerStats stats;
  uint64_t repeated = 0;
  uint64_t dropped = 0;
  TimeStats events;          // every render event
  TimeStats newFrameEvents;  // the events that made a new frame current
  double firstFrameMs = -1;  // from Open to the first paired frame drawn
  double wallSeconds = 0;

  // Rendering.
  int width = 0, height = 0;
  int fps = 30;
  FrameRange range;
  uint64_t rendered = 0;
  uint64_t renderedRepeats = 0;
  uint64_t renderedBlank = 0;  // frames whose buffers could not be trusted: drawn without the mesh
  std::vector<uint32_t> renderedIds;
  TimeStats drawMs;
  std::string renderError;
  std::array<double, 6> box{};
  std::string boxSource;
  CameraOptions camera;
  double cameraDistance = 0;
  std::array<double, 3> cameraTarget{};

  // Outputs.
  std::string video, folder, sheet;
  uint64_t written = 0;
  std::string audio;  // what the video's audio is
  int64_t audioPackets = 0;
  std::vector<uint32_t> sheetIds;
  std::string outputError;

  bool Passed() const {
    return completed && stats.framesDrawn > 0 && stats.mismatched == 0 && stats.paired == stats.framesDrawn &&
           stats.glErrors == 0 && renderError.empty() && outputError.empty();
  }
};

// The engine keeps only the longest render event of a player. For the statistics the tool times
// every event itself: the engine gets a render-event function that calls the plug-in's and notes
// how long it took. The engine has one render thread and the tool one engine.
namespace EventTimes {
OzmRenderEventFunc (*g_getPluginEvent)() = nullptr;
OzmRenderEventFunc g_pluginEvent = nullptr;
std::mutex g_mutex;
std::vector<double> g_ms;

void Timed(int eventId) {
  const auto start = Clock::now();
  g_pluginEvent(eventId);
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  std::lock_guard<std::mutex> lock(g_mutex);
  g_ms.push_back(ms);
}

OzmRenderEventFunc GetTimed() {
  g_pluginEvent = g_getPluginEvent();
  return g_pluginEvent ? &Timed : nullptr;
}

void Install(OzmEngine::PluginApi* api) {
  g_getPluginEvent = api->GetUnityRenderModeEventFunc;
  api->GetUnityRenderModeEventFunc = &GetTimed;
}

std::vector<double> Taken() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_ms;
}
}  // namespace EventTimes

// The frame ids drawn, split where they go back (a new pass over the clip).
std::vector<std::vector<uint32_t>> Passes(const std::vector<uint32_t>& ids) {
  std::vector<std::vector<uint32_t>> passes;
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i == 0 || ids[i] < ids[i - 1]) passes.emplace_back();
    passes.back().push_back(ids[i]);
  }
  return passes;
}

// Position of a frame in the clip, -1 for an id the clip does not have.
int64_t IndexOf(const PairingCheck::Clip& clip, uint32_t frameId) {
  const PairingCheck::ExpectedFrame* f = clip.ByFrameId(frameId);
  return f ? f->index : -1;
}

// Whether the playback asked for is over: the end-of-stream flag when the whole clip plays once,
// else the last frame wanted (`lastIndex`) drawn in the last pass, or the pass after it begun.
bool Finished(const OzmEngine::PlayerStats& s, int loops, const PairingCheck::Clip& clip, int64_t lastIndex) {
  const bool wholeClip = lastIndex + 1 >= static_cast<int64_t>(clip.Frames().size());
  if (loops == 0 && wholeClip) return s.endOfStreamFlags > 0;
  const auto passes = Passes(s.FrameIds());
  const size_t n = static_cast<size_t>(std::max(loops, 1));
  if (passes.size() > n) return true;
  if (passes.size() < n) return false;
  for (uint32_t id : passes.back()) {
    if (IndexOf(clip, id) >= lastIndex) return true;
  }
  return false;
}

// Repeated: frames shown again (the same frame id once more in a pass, or a later pass without
// looping). Dropped: frames of the passes played, up to the last one wanted, that were never drawn.
void CountRepeatedAndDropped(const std::vector<uint32_t>& ids, int passesWanted, bool looping,
                             const std::function<bool(uint32_t)>& wanted, uint64_t wantedEachPass, uint64_t* repeated,
                             uint64_t* dropped) {
  const auto passes = Passes(ids);
  const size_t n = static_cast<size_t>(passesWanted);
  for (size_t p = 0; p < passes.size(); ++p) {
    if (p >= n) {
      // Without looping, a later pass is the clip shown again; with it, the next pass had begun.
      if (!looping) *repeated += passes[p].size();
      continue;
    }
    const std::set<uint32_t> distinct(passes[p].begin(), passes[p].end());
    *repeated += passes[p].size() - distinct.size();
    if (dropped) {
      uint64_t seen = 0;
      for (uint32_t id : distinct) seen += wanted(id) ? 1 : 0;
      *dropped += wantedEachPass - std::min(wantedEachPass, seen);
    }
  }
  if (dropped && passes.size() < n) *dropped += (n - passes.size()) * wantedEachPass;
}

// The frames' render loop on the engine's render thread: after each render event that made a new
// frame current, the frame is drawn and handed to the outputs.
class FrameRenderer {
 public:
  // now: the engine's clock.
  FrameRenderer(const PairingCheck::Clip& clip, const FrameRange& range, int width, int height, int fps,
                PlayOutput* output, std::function<double()> now)
      : m_clip(clip), m_range(range), m_renderer(width, height), m_fps(fps), m_output(output), m_now(std::move(now)) {
    // Indices that point past their frame's vertices are never drawn.
    for (const PairingCheck::ExpectedFrame& f : clip.Frames()) {
      const size_t vertices = f.vertices.size() / 32;
      if (std::all_of(f.indices.begin(), f.indices.end(), [&](uint32_t i) { return i < vertices; })) {
        m_drawable.insert(f.frameId);
      }
    }
  }

  void SetCamera(std::shared_ptr<const OrbitCamera> camera) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_camera = std::move(camera);
  }

  // The headless engine's after-event hook.
  void After(const OzmEngine::AfterEvent& e) {
    if (!e.newFrame) return;
    if (e.verdict == 1 && m_firstPaired.load() < 0) m_firstPaired.store(m_now());
    const int64_t index = IndexOf(m_clip, e.info.frameId);
    if (index < 0 || !m_range.Contains(index)) return;
    std::shared_ptr<const OrbitCamera> camera;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      camera = m_camera;
      if (!m_error.empty()) return;
    }
    if (!camera) return;
    // The engine's buffers are drawn when the check found them to hold the frame (whose indices are
    // known to be in range); otherwise the picture shows the background only.
    const bool trusted = e.verdict == 1 && m_drawable.count(e.info.frameId) > 0;
    const CameraView view = camera->At(static_cast<double>(m_next) / m_fps);
    std::vector<uint8_t> rgba;
    std::string error;
    const auto start = Clock::now();
    const bool drawn =
        m_renderer.Draw(*e.targets, trusted ? e.info.indexCount : 0, view, m_output ? &rgba : nullptr, &error);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (!drawn) {
        m_error = error;
        return;
      }
      m_drawMs.push_back(ms);
      m_ids.push_back(e.info.frameId);
      if (!trusted) ++m_blank;
    }
    if (m_output) {
      RenderedFrame frame;
      frame.output = m_next;
      frame.frameId = e.info.frameId;
      frame.clipFrame = index;
      frame.rgba = std::move(rgba);
      m_output->Push(std::move(frame));
    }
    ++m_next;
    m_rendered.store(m_next);
  }

  // Makes the GL objects and draws once into the empty buffers (on the render thread, before the
  // playback): the GL driver compiles its code for the drawing the first time, which may take longer
  // than an engine frame, and the player would skip the pictures that come meanwhile.
  void WarmUp(const OzmEngine::EngineTargets& targets) {
    const OrbitCamera camera({-1, -1, -1, 1, 1, 1}, CameraOptions(), 1);
    std::vector<uint8_t> rgba;
    std::string error;
    if (!m_renderer.Draw(targets, 3, camera.At(0), m_output ? &rgba : nullptr, &error)) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_error = error;
    }
  }

  // Deletes the GL objects (on the render thread).
  void Release() { m_renderer.Release(); }

  uint64_t Rendered() const { return m_rendered.load(); }
  double FirstPaired() const { return m_firstPaired.load(); }
  std::vector<uint32_t> Ids() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_ids;
  }
  std::vector<double> DrawMs() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_drawMs;
  }
  uint64_t Blank() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_blank;
  }
  std::string Error() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_error;
  }

 private:
  const PairingCheck::Clip& m_clip;
  FrameRange m_range;
  MeshRenderer m_renderer;  // render thread only
  int m_fps;
  PlayOutput* m_output;
  std::function<double()> m_now;
  std::set<uint32_t> m_drawable;
  uint64_t m_next = 0;  // render thread only
  std::atomic<uint64_t> m_rendered{0};
  std::atomic<double> m_firstPaired{-1};

  mutable std::mutex m_mutex;
  std::shared_ptr<const OrbitCamera> m_camera;
  std::vector<uint32_t> m_ids;
  std::vector<double> m_drawMs;
  uint64_t m_blank = 0;
  std::string m_error;
};

nlohmann::json TimesJson(const TimeStats& t) { return {{"median", t.median}, {"p95", t.p95}, {"max", t.max}}; }

nlohmann::json SummaryJson(const PlaySummary& r) {
  const OzmEngine::PlayerStats& s = r.stats;
  std::vector<std::string> problems = s.problems;
  if (!r.incomplete.empty()) problems.insert(problems.begin(), r.incomplete);
  if (!r.renderError.empty()) problems.push_back("rendering: " + r.renderError);
  if (!r.outputError.empty()) problems.push_back("output: " + r.outputError);
  auto orNull = [](const std::string& text) { return text.empty() ? nlohmann::json() : nlohmann::json(text); };
  nlohmann::json outputs = {{"video", orNull(r.video)},
                            {"png_folder", orNull(r.folder)},
                            {"contact_sheet", orNull(r.sheet)},
                            {"frames_written", r.written},
                            {"audio", orNull(r.audio)},
                            {"audio_packets", r.audioPackets},
                            {"contact_sheet_frame_ids", r.sheetIds}};
  nlohmann::json frames = {{"first", r.range.first}};
  frames["last"] = r.range.last == INT64_MAX ? nlohmann::json() : nlohmann::json(r.range.last);
  return {{"file", r.file},
          {"plugin", r.plugin},
          {"clip_frames", r.clipFrames},
          {"passes", r.passes},
          {"completed", r.completed},
          {"drawn", s.framesDrawn},
          {"paired", s.paired},
          {"mismatched", s.mismatched},
          {"repeated", r.repeated},
          {"dropped", r.dropped},
          {"end_of_stream_flags", s.endOfStreamFlags},
          {"gl_errors", s.glErrors},
          {"render_events", s.renderEvents},
          {"render_event_ms",
           {{"median", r.events.median},
            {"median_new_frame", r.newFrameEvents.median},
            {"max", r.events.max},
            {"p95", r.events.p95},
            {"p95_new_frame", r.newFrameEvents.p95},
            {"max_new_frame", r.newFrameEvents.max}}},
          {"first_frame_ms", r.firstFrameMs < 0 ? nlohmann::json() : nlohmann::json(r.firstFrameMs)},
          {"wall_seconds", r.wallSeconds},
          {"frames", frames},
          {"rendered",
           {{"frames", r.rendered},
            {"repeats", r.renderedRepeats},
            {"without_mesh", r.renderedBlank},
            {"width", r.width},
            {"height", r.height},
            {"fps", r.fps},
            {"frame_ids", r.renderedIds},
            {"draw_ms", TimesJson(r.drawMs)}}},
          {"camera",
           {{"box_min", {r.box[0], r.box[1], r.box[2]}},
            {"box_max", {r.box[3], r.box[4], r.box[5]}},
            {"box_from", r.boxSource},
            {"target", r.cameraTarget},
            {"distance", r.cameraDistance},
            {"field_of_view_degrees", OrbitCamera::kFieldOfViewDegrees},
            {"angle_degrees", r.camera.angleDegrees},
            {"turn_degrees_per_second", r.camera.turnDegreesPerSecond},
            {"elevation_degrees", r.camera.elevationDegrees},
            {"distance_scale", r.camera.distanceScale}}},
          {"outputs", outputs},
          {"problems", problems},
          {"passed", r.Passed()}};
}

void PrintSummary(const PlaySummary& r) {
  const OzmEngine::PlayerStats& s = r.stats;
  std::printf("%s: %zu frames, %llu drawn, %llu paired, %llu mismatched, %llu repeated, %llu dropped\n", r.file.c_str(),
              r.clipFrames, static_cast<unsigned long long>(s.framesDrawn), static_cast<unsigned long long>(s.paired),
              static_cast<unsigned long long>(s.mismatched), static_cast<unsigned long long>(r.repeated),
              static_cast<unsigned long long>(r.dropped));
  std::printf(
      "%d pass%s, wall time %.2f s; %llu render events: median %.3f ms (%.3f ms with a new frame), max %.3f ms\n",
      r.passes, r.passes == 1 ? "" : "es", r.wallSeconds, static_cast<unsigned long long>(s.renderEvents),
      r.events.median, r.newFrameEvents.median, r.events.max);
  std::printf("render step with a new frame: median %.3f ms, p95 %.3f ms, max %.3f ms; all events: p95 %.3f ms\n",
              r.newFrameEvents.median, r.newFrameEvents.p95, r.newFrameEvents.max, r.events.p95);
  if (r.firstFrameMs >= 0) {
    std::printf("first paired frame drawn %.0f ms after Open\n", r.firstFrameMs);
  } else {
    std::printf("no paired frame drawn\n");
  }
  std::string which = "frames";
  if (r.range.first > 0 || r.range.last != INT64_MAX) {
    which = "frames " + std::to_string(r.range.first) + " to " +
            (r.range.last == INT64_MAX ? std::string("the end") : std::to_string(r.range.last));
  }
  // One picture for each engine frame that made a frame current: a frame the engine showed again is
  // in the output again.
  std::printf(
      "rendered %llu %s at %dx%d, one for each engine frame that made a frame current (%llu of them %s), "
      "drawing median %.1f ms, p95 %.1f ms%s\n",
      static_cast<unsigned long long>(r.rendered), which.c_str(), r.width, r.height,
      static_cast<unsigned long long>(r.renderedRepeats),
      r.renderedRepeats == 1 ? "repeats a frame shown before" : "repeat a frame shown before", r.drawMs.median,
      r.drawMs.p95,
      r.video.empty() && r.folder.empty() && r.sheet.empty() ? " (not written: no --out or --contact-sheet)" : "");
  if (r.renderedBlank) {
    std::printf("  %llu of them without the mesh (the engine's buffers did not hold their frame)\n",
                static_cast<unsigned long long>(r.renderedBlank));
  }
  const double turn = r.camera.turnDegreesPerSecond;
  char camera[256];
  if (turn == 0) {
    std::snprintf(camera, sizeof camera, "fixed at %.0f degrees", r.camera.angleDegrees);
  } else {
    std::snprintf(camera, sizeof camera, "turning %g degrees a second from %.0f", turn, r.camera.angleDegrees);
  }
  std::printf("camera %s, %.0f degrees up, %.3g from the centre (%.3g, %.3g, %.3g) of the box from %s\n", camera,
              r.camera.elevationDegrees, r.cameraDistance, r.cameraTarget[0], r.cameraTarget[1], r.cameraTarget[2],
              r.boxSource.c_str());
  if (!r.video.empty()) {
    std::printf("wrote %s: H.264, %d fps, %llu frames, %s\n", r.video.c_str(), r.fps,
                static_cast<unsigned long long>(r.written), r.audio.c_str());
  }
  if (!r.folder.empty()) {
    std::printf("wrote %llu PNG pictures to %s\n", static_cast<unsigned long long>(r.written), r.folder.c_str());
  }
  if (!r.sheet.empty()) {
    std::string ids;
    for (uint32_t id : r.sheetIds) ids += " " + std::to_string(id);
    std::printf("wrote %s: %zu frames (frame ids%s)\n", r.sheet.c_str(), r.sheetIds.size(), ids.c_str());
  }
  if (s.glErrors) std::printf("%llu GL errors\n", static_cast<unsigned long long>(s.glErrors));
  if (!r.incomplete.empty()) std::printf("incomplete: %s\n", r.incomplete.c_str());
  if (!r.renderError.empty()) std::printf("rendering failed: %s\n", r.renderError.c_str());
  if (!r.outputError.empty()) std::printf("output failed: %s\n", r.outputError.c_str());
  for (const std::string& p : s.problems) std::printf("  %s\n", p.c_str());
}

int Fail(const std::string& message) {
  std::fprintf(stderr, "ozm play: %s\n", message.c_str());
  return 2;
}

bool IsUrl(const std::string& path) { return path.rfind("http://", 0) == 0 || path.rfind("https://", 0) == 0; }

// Streams that the shipped plug-in's address check refuses but a host build can play: playlists on
// this machine and servers on the loopback interface.
bool IsLocalStream(const std::string& path) {
  if (!IsPlaylist(path)) return false;
  if (!IsUrl(path)) return true;
  static const std::regex loopback(R"(^https?://(127\.0\.0\.1|localhost|\[::1\])([:/].*)?$)");
  return std::regex_match(path, loopback);
}

bool ParseSize(const std::string& text, int* width, int* height) {
  std::smatch m;
  if (!std::regex_match(text, m, std::regex(R"((\d{1,5})x(\d{1,5}))"))) return false;
  *width = std::stoi(m[1]);
  *height = std::stoi(m[2]);
  return *width >= 16 && *height >= 16 && *width <= 8192 && *height <= 8192 && *width % 2 == 0 && *height % 2 == 0;
}

// Keeps the memory that is freed for the next allocation instead of returning it to the system at
// once. Rendering allocates and frees buffers of megabytes every frame (the GL driver's vertex and
// pixel buffers, the read-back pictures); from fresh pages each time, the page faults alone took
// longer than the drawing (on a virtual machine, five times longer).
void KeepFreedMemory() {
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
}

int Run(const PlayCommandLine& c) {
  if (!(c.clockScale > 0 && std::isfinite(c.clockScale))) {
    char text[96];
    std::snprintf(text, sizeof text, "--clock-scale takes a speed above 0, not %g", static_cast<double>(c.clockScale));
    return Fail(text);
  }
  PlaySummary r;
  if (!ParseSize(c.size, &r.width, &r.height)) {
    return Fail("--size takes WIDTHxHEIGHT, even numbers from 16 to 8192, not " + c.size);
  }
  try {
    if (!c.frames.empty()) r.range = ParseFrameRange(c.frames);
  } catch (const ToolError& e) {
    return Fail(e.what());
  }
  r.camera = c.camera;
  if (!std::isnan(c.fixedAngle)) {
    r.camera.angleDegrees = c.fixedAngle;
    r.camera.turnDegreesPerSecond = 0;
  }
  for (double v : {r.camera.angleDegrees, r.camera.turnDegreesPerSecond, r.camera.elevationDegrees}) {
    if (!std::isfinite(v)) return Fail("camera angles must be finite numbers");
  }
  if (!(r.camera.distanceScale > 0 && std::isfinite(r.camera.distanceScale))) {
    return Fail("--distance-scale takes a number above 0");
  }

  std::error_code ec;
  if (!c.out.empty()) {
    if (EndsWithNoCase(c.out, ".mp4")) {
      r.video = c.out;
    } else if (c.out.back() == '/' || std::filesystem::is_directory(c.out, ec)) {
      r.folder = c.out;
    } else {
      return Fail("--out takes FILE.mp4 (a video) or FOLDER/ (PNG pictures), not " + c.out);
    }
  }
  if (!c.contactSheet.empty()) {
    if (!EndsWithNoCase(c.contactSheet, ".png"))
      return Fail("--contact-sheet takes a .png file, not " + c.contactSheet);
    r.sheet = c.contactSheet;
  }

  if (!IsUrl(c.path) && !std::filesystem::is_regular_file(c.path, ec)) {
    return Fail("cannot open " + c.path + ": no such file");
  }

  KeepFreedMemory();
  std::string error;
  OzmEngine::PluginApi api;
  if (IsLocalStream(c.path) && !c.pluginGiven) {
#ifdef OZM_TEST_HOOKS
    // The shipped plug-in plays streams from its deployment's addresses only; the copy linked into
    // the tool is the same player, with the host build's admission of streams on this machine.
    api = OzmEngine::PluginApi::Linked();
    OzmCrossPlatform::AllowLoopbackStreamingURLs(true);
#else
    return Fail("this build cannot play streams from this machine (it was built without OZM_TEST_HOOKS)");
#endif
  } else {
    api = OzmEngine::PluginApi::Load(c.plugin, &error);
    if (!api.Complete()) return Fail(error.empty() ? "cannot load " + c.plugin : error);
  }
  EventTimes::Install(&api);

  // What the engine must receive, decoded by our own readers; it also sizes the engine's objects.
  Av::QuietLibraryLogs();
  const PairingCheck::Clip clip(c.path);
  if (!clip.Error().empty()) return Fail("cannot play " + c.path + ": " + clip.Error());

  r.file = c.path;
  r.plugin = api.Origin() == kLinkedPlugin ? std::string("linked into the tool") : c.plugin;
  r.clipFrames = clip.Frames().size();
  r.passes = std::max(c.loops, 1);
  r.looping = c.loops > 0;
  if (r.range.first >= static_cast<int64_t>(r.clipFrames)) {
    return Fail("--frames " + c.frames + ": the clip has " + std::to_string(r.clipFrames) + " frames (0 to " +
                std::to_string(r.clipFrames - 1) + ")");
  }
  const int64_t lastIndex = std::min<int64_t>(r.range.last, static_cast<int64_t>(r.clipFrames) - 1);
  const uint64_t wantedEachPass = static_cast<uint64_t>(lastIndex) + 1;  // playback starts at the first frame
  const uint64_t renderedEachPass = static_cast<uint64_t>(lastIndex - r.range.first) + 1;
  r.fps = std::max(1, static_cast<int>(std::lround(clip.FrameRate())));

  // The clip's own audio track, copied into the video.
  std::unique_ptr<ClipAudio> audio;
  if (!r.video.empty()) {
    r.audio = "no audio (the clip has none)";
    if (c.noAudio) {
      r.audio = "no audio (--no-audio)";
    } else {
      try {
        audio = ClipAudio::Load(c.path);
        if (audio) r.audio = "the clip's audio copied (" + audio->Description() + ")";
      } catch (const ToolError& e) {
        r.audio = std::string("no audio (") + e.what() + ")";
      }
    }
  }

  std::unique_ptr<PlayOutput> output;
  if (!r.video.empty() || !r.folder.empty() || !r.sheet.empty()) {
    OutputSettings settings;
    settings.width = r.width;
    settings.height = r.height;
    settings.fps = r.fps;
    settings.video = r.video;
    settings.folder = r.folder;
    settings.sheet = r.sheet;
    settings.expectedFrames = renderedEachPass * static_cast<uint64_t>(r.passes);
    settings.audio = audio.get();
    try {
      output = std::make_unique<PlayOutput>(settings);
    } catch (const ToolError& e) {
      return Fail(e.what());
    }
  }

  // Made before the engine, whose render thread calls it until the engine stops.
  const OzmEngine::HeadlessEngine* engineClock = nullptr;
  FrameRenderer renderer(clip, r.range, r.width, r.height, r.fps, output.get(),
                         [&engineClock] { return engineClock->Now(); });
  OzmEngine::HeadlessEngine engine(api, OzmEngine::EngineOptions{16, true});
  engineClock = &engine;
  if (!engine.Start(&error)) return Fail("the headless engine does not start: " + error);
  const int id = api.CreateLumoObject();
  if (id < 0) return Fail("CreateLumoObject returned " + std::to_string(id));
  OzmEngine::PlayerSetup setup;
  setup.textureWidth = clip.Width();
  setup.textureHeight = clip.Height();
  setup.vertexCapacity = std::max(clip.MaxVertices(), 1u);
  setup.indexCapacity = std::max(clip.MaxIndices(), 1u);
  setup.check = clip.Checker();
  setup.afterEvent = [&renderer](const OzmEngine::AfterEvent& e) { renderer.After(e); };
  const auto targets = engine.AddPlayer(id, setup, &error);
  if (!targets) {
    api.DestroyLumoObject(id);
    return Fail("the engine cannot make the player's texture and buffers: " + error);
  }
  api.SetUnityBuffers(id, targets->texture, targets->textureWidth, targets->textureHeight, targets->vertexBuffer,
                      targets->vertexCapacity, targets->indexBuffer, targets->indexCapacity);
  const OzmEngine::EngineTargets engineTargets = *targets;
  engine.RunOnRenderThread([&renderer, &engineTargets] { renderer.WarmUp(engineTargets); });

  OzmOpenInfo open{};
  open.audioDisabled = c.noAudio ? 1 : 0;
  open.autoLooping = c.loops > 0 ? 1 : 0;
  // The plug-in takes paths that are not absolute for names of the application's assets.
  const std::string where = IsUrl(c.path) ? c.path : std::filesystem::absolute(c.path, ec).string();
  const double openedAt = engine.Now();
  if (api.OpenLumoObject(id, where.c_str(), &open) != 1) {
    engine.RemovePlayer(id);
    api.DestroyLumoObject(id);
    std::string why = "the plug-in cannot open " + c.path;
    if (IsLocalStream(c.path) && c.pluginGiven) {
      why +=
          " (a built plug-in plays streams only from its deployment's addresses; without --plugin, the plug-in "
          "linked into the tool plays streams on this machine)";
    }
    return Fail(why);
  }
  OzmFileInfo info{};
  api.GetLumoObjectFileInfo(id, &info);
  if (c.clockScale != 1) api.SetClockScale(id, c.clockScale);

  // The camera looks at the box of the file information; a stream has none, and then the box around
  // the decoded meshes stands in.
  r.box = {info.bboxMin[0], info.bboxMin[1], info.bboxMin[2], info.bboxMax[0], info.bboxMax[1], info.bboxMax[2]};
  r.boxSource = "the file information";
  bool boxUsable = true;
  for (int a = 0; a < 3; ++a) boxUsable = boxUsable && std::isfinite(r.box[a]) && std::isfinite(r.box[3 + a]);
  boxUsable = boxUsable && (r.box[3] > r.box[0] || r.box[4] > r.box[1] || r.box[5] > r.box[2]);
  if (!boxUsable) {
    r.box = clip.Box();
    r.boxSource = "the decoded meshes";
  }
  auto camera = std::make_shared<const OrbitCamera>(r.box, r.camera, static_cast<double>(r.width) / r.height);
  r.cameraTarget = camera->Target();
  r.cameraDistance = camera->Distance();
  renderer.SetCamera(camera);

  const double clipSeconds = static_cast<double>(info.duration) / 1e7;
  const auto start = Clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  const int played = api.PlayLumoObject(id);
  Progress progress("playing", static_cast<long>(wantedEachPass * static_cast<uint64_t>(r.passes)));
  uint64_t lastDrawn = 0;
  double lastNewFrame = 0;
  // Allow for the clip's length at the chosen speed several times over.
  const double limit =
      30 + 3 * std::max(clipSeconds, static_cast<double>(r.clipFrames) / r.fps) * r.passes / c.clockScale;
  while (played == 1) {
    engine.WaitUntil([&] { return Finished(engine.Stats(id), c.loops, clip, lastIndex); }, 0.25);
    const OzmEngine::PlayerStats s = engine.Stats(id);
    progress.Update(static_cast<long>(std::min<uint64_t>(s.framesDrawn, wantedEachPass * r.passes)));
    if (Finished(s, c.loops, clip, lastIndex)) {
      // The end-of-stream flag may come before the last frame is drawn; a few more engine frames
      // show it (and a second flag, were there one).
      if (c.loops == 0 && lastIndex + 1 >= static_cast<int64_t>(r.clipFrames)) engine.WaitFrames(10, 5);
      api.PauseLumoObject(id);
      r.completed = true;
      break;
    }
    if (s.framesDrawn != lastDrawn) {
      lastDrawn = s.framesDrawn;
      lastNewFrame = elapsed();
    }
    const std::string stuck = engine.Stuck(kStallSeconds);
    if (!stuck.empty()) {
      // The render thread cannot be stopped while it is inside the plug-in.
      progress.Finish();
      std::fprintf(stderr, "ozm play: %s\n", stuck.c_str());
      std::fflush(nullptr);
      _exit(1);
    }
    if (elapsed() - lastNewFrame > kStallSeconds) {
      r.incomplete = "no new frame for " + std::to_string(static_cast<int>(kStallSeconds)) +
                     " s; the player's state is " + std::to_string(api.GetLumoState(id));
      break;
    }
    if (elapsed() > limit) {
      r.incomplete = "not finished after " + std::to_string(static_cast<int>(limit)) + " s";
      break;
    }
  }
  if (played != 1) r.incomplete = "PlayLumoObject returned " + std::to_string(played);
  r.wallSeconds = elapsed();
  progress.Finish();

  // As an engine ends a player: close it, give the plug-in render events to let go of the engine's
  // objects, delete them, destroy the player.
  api.CloseLumoObject(id);
  engine.WaitFrames(2, 5);
  r.stats = engine.Stats(id);
  engine.RunOnRenderThread([&renderer] { renderer.Release(); });
  engine.RemovePlayer(id);
  api.DestroyLumoObject(id);
  engine.Stop();
#ifdef OZM_TEST_HOOKS
  if (api.Origin() == kLinkedPlugin) OzmCrossPlatform::AllowLoopbackStreamingURLs(false);
#endif

  const std::vector<double> times = EventTimes::Taken();
  r.events = Measure(times);
  // The engine numbers a player's events from 1, and this player had every event.
  std::vector<double> newFrame;
  for (const OzmEngine::DrawnRecord& d : r.stats.drawn) {
    if (d.event >= 1 && d.event <= times.size()) newFrame.push_back(times[d.event - 1]);
  }
  r.newFrameEvents = Measure(newFrame);
  if (renderer.FirstPaired() >= 0) r.firstFrameMs = (renderer.FirstPaired() - openedAt) * 1000;
  auto inPlayedRange = [&](uint32_t frameId) {
    const int64_t index = IndexOf(clip, frameId);
    return index >= 0 && index <= lastIndex;
  };
  CountRepeatedAndDropped(r.stats.FrameIds(), r.passes, r.looping, inPlayedRange, wantedEachPass, &r.repeated,
                          &r.dropped);
  r.renderedIds = renderer.Ids();
  r.rendered = r.renderedIds.size();
  CountRepeatedAndDropped(r.renderedIds, r.passes, r.looping, inPlayedRange, 0, &r.renderedRepeats, nullptr);
  r.renderedBlank = renderer.Blank();
  r.drawMs = Measure(renderer.DrawMs());
  r.renderError = renderer.Error();

  if (output) {
    try {
      output->Finish();
    } catch (const ToolError& e) {
      r.outputError = e.what();
    }
    r.written = output->Written();
    r.sheetIds = output->SheetFrameIds();
    r.audioPackets = output->AudioPackets();
  }
  if (c.json) {
    std::printf("%s\n", SummaryJson(r).dump(2).c_str());
  } else {
    PrintSummary(r);
  }
  return r.Passed() ? 0 : 1;
}

}  // namespace

void AddPlayCommand(CLI::App& app, std::function<int()>* run) {
  auto c = std::make_shared<PlayCommandLine>();
  CLI::App* cmd = app.add_subcommand(
      "play",
      "Play a clip through the plug-in's C functions in a headless engine, check every drawn frame and render it");
  cmd->add_option("clip", c->path, "Volumetric clip: an .mp4 file or an HLS playlist (.m3u8, a file or an http(s) URL)")
      ->required();
  cmd->add_option("--plugin", c->plugin, "The plug-in library to load")->capture_default_str();
  cmd->add_option("--loops", c->loops, "Play N passes with auto-looping (default: once, to the end of the clip)")
      ->check(CLI::Range(1, 1000000));
  cmd->add_option("--clock-scale", c->clockScale, "Playback speed (SetClockScale)")->capture_default_str();
  cmd->add_flag("--no-audio", c->noAudio, "Open the clip with audio declined (and write the video without sound)");
  cmd->add_flag("--json", c->json, "Print the summary as JSON");
  cmd->add_option("-o,--out", c->out, "Write what is rendered: FILE.mp4 (H.264) or FOLDER/ (PNG pictures)");
  cmd->add_option("--contact-sheet", c->contactSheet, "Write a 4x2 grid of evenly spaced rendered frames (.png)");
  cmd->add_option("--size", c->size, "Size of the rendered pictures, WIDTHxHEIGHT")->capture_default_str();
  cmd->add_option("--frames", c->frames,
                  "Render only the frames A:B of the clip (counted from 0); playback still starts at the first frame");
  auto* angle =
      cmd->add_option("--angle", c->camera.angleDegrees,
                      "Camera: degrees around the upright axis at the first rendered frame (0: the front, +z)")
          ->capture_default_str();
  auto* turn = cmd->add_option("--turn-degrees-per-second", c->camera.turnDegreesPerSecond,
                               "Camera: how fast it turns around the clip, over the output video's time")
                   ->capture_default_str();
  cmd->add_option("--fixed-angle", c->fixedAngle,
                  "Camera: stay at this angle (the same as --angle A --turn-degrees-per-second 0)")
      ->excludes(angle)
      ->excludes(turn);
  cmd->add_option("--elevation", c->camera.elevationDegrees, "Camera: degrees above the box's centre")
      ->capture_default_str()
      ->check(CLI::Range(-90.0, 90.0));
  cmd->add_option("--distance-scale", c->camera.distanceScale,
                  "Camera: distance, where 1 fits the bounding box's sphere into the picture's height")
      ->capture_default_str();
  cmd->callback([run, c, cmd] {
    c->pluginGiven = cmd->count("--plugin") > 0;
    *run = [c] { return Run(*c); };
  });
  cmd->footer(
      "Each drawn frame is read back from the engine's texture and buffers and paired when the picture's "
      "number (clips of the built-in sample show one), the frame id and the mesh's vertex and index bytes are "
      "one frame of the clip. After every render event that made a new frame current, the mesh in the engine's "
      "buffers is drawn with the engine's texture from a camera turning around the clip's bounding box; each "
      "such engine frame is one frame of the output (a frame the engine showed twice appears twice).\n"
      "The video runs at the clip's frame rate and carries the clip's own audio track, copied packet by packet "
      "for the frames shown.\n"
      "HLS streams on this machine or on a loopback server are played by the plug-in linked into the tool (the "
      "shipped library plays only its deployment's addresses), unless --plugin is given.\n"
      "Exits with 0 when playback finished, every drawn frame paired and the outputs were written, 1 when some "
      "frame did not pair (or playback stalled, or GL errors, or an output failed), 2 when the command line, the "
      "plug-in, the engine or the clip is unusable.");
}

}  // namespace OzmTool
