// The "play" subcommand: plays a clip through a built plug-in's C functions the way an engine does
// (the headless engine: its own GL context, texture and buffers, a render event every 16 ms) and
// checks every frame the engine draws: the picture in the texture, the frame information and the
// mesh in the buffers must all be the same frame of the clip.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "engine/HeadlessEngine.h"
#include "engine/PluginApi.h"
#include "tools/ozm/Commands.h"
#include "tools/ozm/PairingCheck.h"
#include "tools/ozm/media/Av.h"

namespace OzmTool {
namespace {

using Clock = std::chrono::steady_clock;

// How long playback may go without a new frame before the tool gives up on it.
constexpr double kStallSeconds = 10;

struct PlayCommandLine {
  std::string path;
  std::string plugin = OZM_DEFAULT_PLUGIN_LIBRARY;
  int loops = 0;  // 0: once, until the end-of-stream flag; N: N passes with auto-looping
  float clockScale = 1;
  bool noAudio = false;
  bool json = false;
};

struct PlaySummary {
  std::string file;
  std::string plugin;
  size_t clipFrames = 0;
  int passes = 1;
  bool looping = false;
  bool completed = false;  // reached the end of the clip, or of the last pass
  std::string incomplete;  // why not
  OzmEngine::PlayerStats stats;
  uint64_t repeated = 0;
  uint64_t dropped = 0;
  double eventMedianMs = 0;
  double newFrameMedianMs = 0;  // of the events that made a new frame current
  double eventMaxMs = 0;
  double wallSeconds = 0;

  bool Passed() const {
    return completed && stats.framesDrawn > 0 && stats.mismatched == 0 && stats.paired == stats.framesDrawn &&
           stats.glErrors == 0;
  }
};

// The engine keeps only the longest render event of a player. For the median the tool times every
// event itself: the engine gets a render-event function that calls the plug-in's and notes how long
// it took. The engine has one render thread and the tool one engine.
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

// Whether the playback asked for is over: the end-of-stream flag, or the last frame of the last
// pass drawn (or the pass after it begun, when that frame was dropped).
bool Finished(const OzmEngine::PlayerStats& s, int loops, uint32_t lastFrameId) {
  if (loops == 0) return s.endOfStreamFlags > 0;
  const auto passes = Passes(s.FrameIds());
  const size_t n = static_cast<size_t>(loops);
  return passes.size() > n || (passes.size() == n && passes.back().back() == lastFrameId);
}

// Repeated: frames drawn again (the same frame id once more, or an earlier frame without looping).
// Dropped: frames of the passes played that were never drawn.
void CountRepeatedAndDropped(PlaySummary* out) {
  const auto passes = Passes(out->stats.FrameIds());
  const size_t wanted = static_cast<size_t>(out->passes);
  for (size_t p = 0; p < passes.size(); ++p) {
    if (p >= wanted) {
      // Without looping, a later pass is the clip shown again; with it, the next pass had begun.
      if (!out->looping) out->repeated += passes[p].size();
      continue;
    }
    const std::set<uint32_t> distinct(passes[p].begin(), passes[p].end());
    out->repeated += passes[p].size() - distinct.size();
    out->dropped += out->clipFrames - std::min(out->clipFrames, distinct.size());
  }
  if (passes.size() < wanted) out->dropped += (wanted - passes.size()) * out->clipFrames;
}

// One line on standard error, only on a terminal.
class ProgressLine {
 public:
  explicit ProgressLine(uint64_t total) : m_total(total), m_enabled(isatty(STDERR_FILENO) != 0) {}
  ~ProgressLine() { Finish(); }
  void Update(uint64_t drawn, double seconds) {
    if (!m_enabled) return;
    std::fprintf(stderr, "\rplaying: %llu/%llu frames drawn, %.1f s ", static_cast<unsigned long long>(drawn),
                 static_cast<unsigned long long>(m_total), seconds);
    std::fflush(stderr);
    m_shown = true;
  }
  void Finish() {
    if (!m_shown) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    m_shown = false;
  }

 private:
  uint64_t m_total;
  bool m_enabled;
  bool m_shown = false;
};

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  const size_t mid = v.size() / 2;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(mid), v.end());
  return v[mid];
}

nlohmann::json SummaryJson(const PlaySummary& r) {
  const OzmEngine::PlayerStats& s = r.stats;
  std::vector<std::string> problems = s.problems;
  if (!r.incomplete.empty()) problems.insert(problems.begin(), r.incomplete);
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
           {{"median", r.eventMedianMs}, {"median_new_frame", r.newFrameMedianMs}, {"max", r.eventMaxMs}}},
          {"wall_seconds", r.wallSeconds},
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
      r.eventMedianMs, r.newFrameMedianMs, r.eventMaxMs);
  if (s.glErrors) std::printf("%llu GL errors\n", static_cast<unsigned long long>(s.glErrors));
  if (!r.incomplete.empty()) std::printf("incomplete: %s\n", r.incomplete.c_str());
  for (const std::string& p : s.problems) std::printf("  %s\n", p.c_str());
}

int Fail(const std::string& message) {
  std::fprintf(stderr, "ozm play: %s\n", message.c_str());
  return 2;
}

int Run(const PlayCommandLine& c) {
  if (!(c.clockScale > 0 && std::isfinite(c.clockScale))) {
    char text[96];
    std::snprintf(text, sizeof text, "--clock-scale takes a speed above 0, not %g", static_cast<double>(c.clockScale));
    return Fail(text);
  }
  std::error_code ec;
  if (!std::filesystem::is_regular_file(c.path, ec)) return Fail("cannot open " + c.path + ": no such file");

  std::string error;
  OzmEngine::PluginApi api = OzmEngine::PluginApi::Load(c.plugin, &error);
  if (!api.Complete()) return Fail(error.empty() ? "cannot load " + c.plugin : error);
  EventTimes::Install(&api);

  // What the engine must receive, decoded by our own readers; it also sizes the engine's objects.
  Av::QuietLibraryLogs();
  const PairingCheck::Clip clip(c.path);
  if (!clip.Error().empty()) return Fail("cannot play " + c.path + ": " + clip.Error());

  PlaySummary r;
  r.file = c.path;
  r.plugin = c.plugin;
  r.clipFrames = clip.Frames().size();
  r.passes = std::max(c.loops, 1);
  r.looping = c.loops > 0;

  OzmEngine::HeadlessEngine engine(api, OzmEngine::EngineOptions{16, true});
  if (!engine.Start(&error)) return Fail("the headless engine does not start: " + error);
  const int id = api.CreateLumoObject();
  if (id < 0) return Fail("CreateLumoObject returned " + std::to_string(id));
  OzmEngine::PlayerSetup setup;
  setup.textureWidth = clip.Width();
  setup.textureHeight = clip.Height();
  setup.vertexCapacity = std::max(clip.MaxVertices(), 1u);
  setup.indexCapacity = std::max(clip.MaxIndices(), 1u);
  setup.check = clip.Checker();
  const auto targets = engine.AddPlayer(id, setup, &error);
  if (!targets) return Fail("the engine cannot make the player's texture and buffers: " + error);
  api.SetUnityBuffers(id, targets->texture, targets->textureWidth, targets->textureHeight, targets->vertexBuffer,
                      targets->vertexCapacity, targets->indexBuffer, targets->indexCapacity);

  OzmOpenInfo open{};
  open.audioDisabled = c.noAudio ? 1 : 0;
  open.autoLooping = c.loops > 0 ? 1 : 0;
  // The plug-in takes paths that are not absolute for names of the application's assets.
  const std::string absolute = std::filesystem::absolute(c.path, ec).string();
  if (api.OpenLumoObject(id, absolute.c_str(), &open) != 1) {
    api.DestroyLumoObject(id);
    return Fail("the plug-in cannot open " + c.path);
  }
  OzmFileInfo info{};
  api.GetLumoObjectFileInfo(id, &info);
  if (c.clockScale != 1) api.SetClockScale(id, c.clockScale);

  const uint32_t lastFrameId = clip.Frames().back().frameId;
  const double clipSeconds = static_cast<double>(info.duration) / 1e7;
  const auto start = Clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  const int played = api.PlayLumoObject(id);
  ProgressLine progress(r.clipFrames * static_cast<uint64_t>(r.passes));
  uint64_t lastDrawn = 0;
  double lastNewFrame = 0;
  // Allow for the clip's length at the chosen speed several times over.
  const double limit = 30 + 3 * clipSeconds * r.passes / c.clockScale;
  while (played == 1) {
    engine.WaitUntil([&] { return Finished(engine.Stats(id), c.loops, lastFrameId); }, 0.25);
    const OzmEngine::PlayerStats s = engine.Stats(id);
    progress.Update(s.framesDrawn, elapsed());
    if (Finished(s, c.loops, lastFrameId)) {
      // The end-of-stream flag may come before the last frame is drawn; a few more engine frames
      // show it (and a second flag, were there one).
      if (c.loops == 0) engine.WaitFrames(10, 5);
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
  engine.RemovePlayer(id);
  api.DestroyLumoObject(id);
  engine.Stop();

  const std::vector<double> times = EventTimes::Taken();
  r.eventMedianMs = Median(times);
  // The engine numbers a player's events from 1, and this player had every event.
  std::vector<double> newFrame;
  for (const OzmEngine::DrawnRecord& d : r.stats.drawn) {
    if (d.event >= 1 && d.event <= times.size()) newFrame.push_back(times[d.event - 1]);
  }
  r.newFrameMedianMs = Median(newFrame);
  r.eventMaxMs = times.empty() ? 0 : *std::max_element(times.begin(), times.end());
  CountRepeatedAndDropped(&r);
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
      "play", "Play a clip through the plug-in's C functions in a headless engine and check every drawn frame");
  cmd->add_option("clip", c->path, "Volumetric clip (.mp4)")->required();
  cmd->add_option("--plugin", c->plugin, "The plug-in library to load")->capture_default_str();
  cmd->add_option("--loops", c->loops, "Play N passes with auto-looping (default: once, to the end of the clip)")
      ->check(CLI::Range(1, 1000000));
  cmd->add_option("--clock-scale", c->clockScale, "Playback speed (SetClockScale)")->capture_default_str();
  cmd->add_flag("--no-audio", c->noAudio, "Open the clip with audio declined");
  cmd->add_flag("--json", c->json, "Print the summary as JSON");
  cmd->footer(
      "Each drawn frame is read back from the engine's texture and buffers and paired when the picture's "
      "number (clips of the built-in sample show one), the frame id and the mesh's vertex and index bytes are "
      "one frame of the clip.\n"
      "Exits with 0 when playback finished and every drawn frame paired, 1 when some frame did not (or "
      "playback stalled, or GL errors), 2 when the command line, the plug-in, the engine or the clip is "
      "unusable.");
  cmd->callback([run, c] { *run = [c] { return Run(*c); }; });
}

}  // namespace OzmTool
