// HLS streams played through the plug-in in the headless engine, served over HTTP by the loopback
// test server (a process of its own on 127.0.0.1, started and stopped by each benchmark), on the
// demo's content encoded as 2-second segments:
//
//   Playback/Hls/FirstFrame/10s   Open, then Play, then the first frame the engine receives, read
//                                 back and checked against the MP4 file of the same content; new
//                                 players one after another, the server and the files staying
//   Playback/Hls/FirstFrame/mp4   the same for that MP4 file, for reference
//   Playback/Hls/Memory/10s, 60s  peak resident memory of a child process (this program run with
//                                 --playback-child=URL) that plays the stream to its end
//
// Registered with the other playback benchmarks, only when --benchmark_filter names "Playback".
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OzmCore/MeshPayload.h"
#include "bench/Benchmarks.h"
#include "bench/PlaybackSupport.h"
#include "bench/Results.h"
#include "engine/HeadlessEngine.h"
#include "engine/PluginApi.h"
#include "tests/LoopbackHttpServer.h"
#include "tools/ozm/PairingCheck.h"

namespace OzmBench {
namespace {

namespace fs = std::filesystem;
using OzmEngine::HeadlessEngine;
using OzmEngine::PlayerStats;
using OzmEngine::PluginApi;
using OzmTest::LoopbackHttpServer;
using OzmTest::LoopbackServerOptions;

constexpr int kFirstFrameRuns = 5;
constexpr double kFirstFrameLimitSeconds = 30;  // per player, Open to the first frame
// The engine's frames while waiting for the first frame: often enough that their pace does not
// hide the plug-in's (an engine at 60 fps would add up to 16 ms).
constexpr int kEngineIntervalMs = 1;
// The server's own deadline: well past what the benchmark needs, in case it is left behind.
constexpr double kServerFirstFrameSeconds = 300;
constexpr double kServerMemorySeconds = 400;  // the child's playback is bounded at 240 s
constexpr double kMaxMemoryRatio = 1.1;

const char* const kFirstFrameHls = "Playback/Hls/FirstFrame/10s";
const char* const kFirstFrameMp4 = "Playback/Hls/FirstFrame/mp4";

std::string MemoryName(int frames) { return "Playback/Hls/Memory/" + std::to_string(frames / 30) + "s"; }

// Streams may be played only from the loopback interface while one of these lives, and their
// downloads go to a folder of this run that is removed at the end. The folder is given to child
// processes too ($OZM_DOWNLOAD_DIR).
class StreamingScope {
 public:
  StreamingScope() {
    if (const char* previous = std::getenv("OZM_DOWNLOAD_DIR")) m_previous = previous;
    std::error_code ec;
    m_folder = fs::temp_directory_path(ec) / ("ozm-bench-hls-" + std::to_string(::getpid()));
    fs::create_directories(m_folder, ec);
    ::setenv("OZM_DOWNLOAD_DIR", m_folder.c_str(), 1);
#ifdef OZM_TEST_HOOKS
    OzmCrossPlatform::AllowLoopbackStreamingURLs(true);
#endif
  }
  ~StreamingScope() {
#ifdef OZM_TEST_HOOKS
    OzmCrossPlatform::AllowLoopbackStreamingURLs(false);
#endif
    if (m_previous) {
      ::setenv("OZM_DOWNLOAD_DIR", m_previous->c_str(), 1);
    } else {
      ::unsetenv("OZM_DOWNLOAD_DIR");
    }
    std::error_code ec;
    fs::remove_all(m_folder, ec);
  }
  StreamingScope(const StreamingScope&) = delete;
  StreamingScope& operator=(const StreamingScope&) = delete;

 private:
  fs::path m_folder;
  std::optional<std::string> m_previous;
};

// Serves the stream's folder; false (with the reason in the state) when the server does not start.
bool Serve(benchmark::State& state, const std::string& playlist, double maxSeconds, LoopbackHttpServer* server) {
  LoopbackServerOptions options;
  options.root = fs::path(playlist).parent_path().string();
  options.maxSeconds = maxSeconds;
  std::string error;
  if (server->Start(options, &error)) return true;
  state.SkipWithError(("the loopback server does not start: " + error).c_str());
  return false;
}

// Segments the server sent, and how often the most requested one was asked for.
void SetServerCounters(benchmark::State& state, const LoopbackHttpServer& server) {
  const OzmTest::LoopbackServerStats stats = server.Stats();
  if (!stats.valid) return;
  int segments = 0, mostRequests = 0;
  for (const auto& [path, count] : stats.requestsByPath) {
    if (path.size() > 3 && path.compare(path.size() - 3, 3, ".ts") == 0) {
      ++segments;
      mostRequests = std::max(mostRequests, count);
    }
  }
  state.counters["segments"] = segments;
  state.counters["max_requests_per_segment"] = mostRequests;
  state.counters["served_MiB"] = static_cast<double>(stats.bytes) / (1 << 20);
}

struct FirstFrame {
  double openSeconds = 0;   // OpenLumoObject alone
  double frameSeconds = 0;  // from the call of OpenLumoObject to the first frame, read back and checked
  double playToFrameSeconds = 0;
  uint32_t frameId = 0;
};

// A new player: engine objects made and registered, then Open, Play and the wait for the first
// frame with a mesh, which the engine reads back and checks. The player is closed, destroyed and
// taken out of the engine afterwards. Empty error on success.
std::string TimeFirstFrame(HeadlessEngine& engine, const std::string& path, const PairingCheck::Clip& clip,
                           FirstFrame* out) {
  const PluginApi& api = engine.Api();
  const int id = api.CreateLumoObject();
  if (id < 0) return "CreateLumoObject returned " + std::to_string(id);
  OzmEngine::PlayerSetup setup;
  setup.textureWidth = clip.Width();
  setup.textureHeight = clip.Height();
  setup.vertexCapacity = clip.MaxVertices();
  setup.indexCapacity = clip.MaxIndices();
  setup.inspect = OzmEngine::Inspect::Readback;
  setup.check = clip.Checker();
  std::string error;
  const std::optional<OzmEngine::EngineTargets> targets = engine.AddPlayer(id, setup, &error);
  if (targets) {
    const OzmEngine::EngineTargets& t = *targets;
    api.SetUnityBuffers(id, t.texture, t.textureWidth, t.textureHeight, t.vertexBuffer, t.vertexCapacity, t.indexBuffer,
                        t.indexCapacity);
    OzmOpenInfo open{};
    open.audioDisabled = 1;
    const double t0 = engine.Now();
    const bool opened = api.OpenLumoObject(id, path.c_str(), &open) == 1;
    const double t1 = engine.Now();
    const bool playing = opened && api.PlayLumoObject(id) == 1;
    const double t2 = engine.Now();
    // The engine's counts as they were when it had seen its first frame: that frame is judged
    // (read back and checked) before it is counted.
    PlayerStats s;
    const bool seen = playing && engine.WaitUntil(
                                     [&] {
                                       s = engine.Stats(id);
                                       return s.framesDrawn > 0;
                                     },
                                     kFirstFrameLimitSeconds);
    if (!opened) {
      error = "the plug-in does not open " + path + ": " + LogProblems();
    } else if (!playing) {
      error = "PlayLumoObject failed: " + LogProblems();
    } else if (!seen || s.drawn.empty()) {
      error = "no frame within " + std::to_string(static_cast<int>(kFirstFrameLimitSeconds)) + " s: " + s.Summary() +
              " " + LogProblems();
    } else if (s.mismatched > 0 || s.paired != s.framesDrawn) {
      error = "the first frame is not paired: " + s.Summary();
    } else {
      out->openSeconds = t1 - t0;
      out->frameSeconds = s.drawn.front().seconds - t0;
      out->playToFrameSeconds = s.drawn.front().seconds - t2;
      out->frameId = s.drawn.front().frameId;
    }
  } else {
    error = "the engine cannot take the player: " + error;
  }
  api.CloseLumoObject(id);
  api.DestroyLumoObject(id);
  if (targets) engine.RemovePlayer(id);
  return error;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

void FirstFrameBenchmark(benchmark::State& state, Container container) {
#ifndef OZM_TEST_HOOKS
  return state.SkipWithError("streams on the loopback interface need a build with OZM_TEST_HOOKS");
#endif
  QuietPluginLog();
  std::string error;
  // The MP4 file is what the engine must receive either way.
  const std::string mp4 = Clip(kShortFrames, &error);
  const std::string playlist =
      error.empty() && container == Container::Hls ? Clip(kShortFrames, &error, container) : "";
  if (!error.empty()) return state.SkipWithError(error.c_str());
  const std::shared_ptr<const PairingCheck::Clip> clip = PairingCheck::Expected(mp4);
  if (!clip->Error().empty()) return state.SkipWithError(("the MP4 file does not decode: " + clip->Error()).c_str());

  StreamingScope streaming;
  LoopbackHttpServer server;
  if (container == Container::Hls && !Serve(state, playlist, kServerFirstFrameSeconds, &server)) return;
  const std::string path = container == Container::Hls ? server.Url("clip.m3u8") : mp4;
  ScopedEngine engine;
  if (!engine.Get()) return state.SkipWithError(("the headless engine does not start: " + engine.Error()).c_str());
  engine.Get()->SetInterval(kEngineIntervalMs);

  for (auto _ : state) {
    std::vector<double> openMs, frameMs, playMs;
    std::string each;  // every run's figures, for the log
    int fromFirst = 0;
    for (int run = 0; run < kFirstFrameRuns; ++run) {
      FirstFrame f;
      error = TimeFirstFrame(*engine.Get(), path, *clip, &f);
      if (!error.empty()) return state.SkipWithError(error.c_str());
      openMs.push_back(1e3 * f.openSeconds);
      frameMs.push_back(1e3 * f.frameSeconds);
      playMs.push_back(1e3 * f.playToFrameSeconds);
      fromFirst += f.frameId == 1 ? 1 : 0;
      char line[96];
      std::snprintf(line, sizeof line, " %.1f/%.1f/%u", openMs.back(), frameMs.back(), f.frameId);
      each += line;
    }
    std::fprintf(stderr, "playback: %s, open ms / first frame ms / its frame id:%s\n",
                 container == Container::Hls ? kFirstFrameHls : kFirstFrameMp4, each.c_str());
    state.SetIterationTime(Median(frameMs) / 1e3);
    state.counters["runs"] = kFirstFrameRuns;
    state.counters["open_ms"] = Median(openMs);
    state.counters["open_min_ms"] = *std::min_element(openMs.begin(), openMs.end());
    state.counters["open_max_ms"] = *std::max_element(openMs.begin(), openMs.end());
    state.counters["first_frame_ms"] = Median(frameMs);
    state.counters["first_frame_min_ms"] = *std::min_element(frameMs.begin(), frameMs.end());
    state.counters["first_frame_max_ms"] = *std::max_element(frameMs.begin(), frameMs.end());
    state.counters["play_to_frame_ms"] = Median(playMs);
    // Players whose first frame was the clip's first (the others dropped the pictures before it).
    state.counters["from_frame_1"] = fromFirst;
  }
  if (container == Container::Hls) SetServerCounters(state, server);
}

// Runs this program again as a child that plays the stream from the server and reports its peak
// memory.
void MemoryBenchmark(benchmark::State& state, int frames) {
#ifndef OZM_TEST_HOOKS
  return state.SkipWithError("streams on the loopback interface need a build with OZM_TEST_HOOKS");
#endif
  QuietPluginLog();
  std::string error;
  const std::string playlist = Clip(frames, &error, Container::Hls);
  if (!error.empty()) return state.SkipWithError(error.c_str());
  StreamingScope streaming;
  LoopbackHttpServer server;
  if (!Serve(state, playlist, kServerMemorySeconds, &server)) return;
  for (auto _ : state) {
    ChildReport report;
    if (!RunPlaybackChild(server.Url("clip.m3u8"), &report, &error)) return state.SkipWithError(error.c_str());
    SetMemoryCounters(state, report);
  }
  SetServerCounters(state, server);
}

void AddGoals() {
  AddGoal([](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
    const Measured* shortStream = FindRun(runs, MemoryName(kShortFrames));
    const Measured* longStream = FindRun(runs, MemoryName(kLongFrames));
    if (!shortStream || !longStream || shortStream->Counter("hwm_MiB") <= 0) return std::nullopt;
    const double ratio = longStream->Counter("hwm_MiB") / shortStream->Counter("hwm_MiB");
    return nlohmann::json{{"goal", "HLS peak memory 60 s stream / 10 s stream <= 1.1"},
                          {"subject", "VmHWM, one process each, loopback HTTP"},
                          {"measured", ratio},
                          {"unit", "x"},
                          {"target", "<= 1.1 x"},
                          {"met", ratio <= kMaxMemoryRatio},
                          {"hwm_10s_MiB", shortStream->Counter("hwm_MiB")},
                          {"hwm_60s_MiB", longStream->Counter("hwm_MiB")}};
  });
}

}  // namespace

void RegisterHlsBenchmarks() {
  // Only when asked for by name, as the other playback benchmarks: they encode their streams first.
  if (benchmark::GetBenchmarkFilter().find("Playback") == std::string::npos) return;
  Once(benchmark::RegisterBenchmark(kFirstFrameHls, FirstFrameBenchmark, Container::Hls));
  Once(benchmark::RegisterBenchmark(kFirstFrameMp4, FirstFrameBenchmark, Container::Mp4));
  Once(benchmark::RegisterBenchmark(MemoryName(kShortFrames).c_str(), MemoryBenchmark, kShortFrames));
  Once(benchmark::RegisterBenchmark(MemoryName(kLongFrames).c_str(), MemoryBenchmark, kLongFrames));
  AddGoals();
}

}  // namespace OzmBench
