// What the playback benchmarks share: the plug-in's log kept quiet, the demo's content encoded once
// into build/bench-data (as an MP4 file or as an HLS stream), an engine per benchmark, and this
// program run again as a child process that plays a clip or a stream and reports its peak memory.
#pragma once

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/BenchData.h"
#include "bench/Results.h"
#include "engine/HeadlessEngine.h"
#include "engine/PluginApi.h"
#include "platform/Log.h"
#include "platform/host/LogCapture.h"
#include "tools/ozm/Encode.h"
#include "tools/ozm/media/Av.h"

namespace OzmBench {

constexpr int kTextureSize = 1024;
constexpr int kShortFrames = 300;  // 10 s at 30 fps: one loop of the sample's animation
constexpr int kLongFrames = 1800;  // 60 s: six loops

// The child process: this program with --playback-child=CLIP prints one line beginning with
// kChildLine.
constexpr const char* kChildFlag = "--playback-child=";
constexpr const char* kChildLine = "playback-child";

// A field of /proc/self/status in kB (VmHWM, VmRSS); -1 when it cannot be read.
inline long StatusKb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t n = std::strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':') return std::atol(line.c_str() + n + 1);
  }
  return -1;
}

// --- The plug-in's log: warnings and errors are kept (the first few) and counted, the rest dropped.

struct LogTally {
  std::mutex mutex;
  uint64_t warnings = 0, errors = 0;
  std::vector<std::string> first;
};

inline LogTally& Tally() {
  static LogTally* tally = new LogTally;
  return *tally;
}

inline void QuietPluginLog() {
  static const bool installed = [] {
    // $OZM_BENCH_PLUGIN_LOG=1 leaves the plug-in's log on standard error, for a run that fails.
    const char* keep = std::getenv("OZM_BENCH_PLUGIN_LOG");
    if (keep && std::strcmp(keep, "1") == 0) return true;
    OzmPlatform::SetLogSink([](int priority, const std::string& text) {
      if (priority < OzmPlatform::kLogWarn) return;
      LogTally& t = Tally();
      std::lock_guard<std::mutex> lock(t.mutex);
      ++(priority >= OzmPlatform::kLogError ? t.errors : t.warnings);
      if (t.first.size() < 8) t.first.push_back(text);
    });
    OzmTool::Av::QuietLibraryLogs();
    return true;
  }();
  (void)installed;
}

inline std::string LogProblems() {
  LogTally& t = Tally();
  std::lock_guard<std::mutex> lock(t.mutex);
  std::string out;
  for (const std::string& line : t.first) out += (out.empty() ? "" : " | ") + line;
  return out;
}

// --- Clips: the sample encoded once per length and container into build/bench-data.

inline std::string BenchDataFolder() {
  const char* env = std::getenv("OZM_BENCH_DATA_DIR");
  return env && *env ? env : OZM_BENCH_DATA_DIR;
}

inline std::string ClipName(int frames) { return "sample-loop2-h264-s1024-c7-f" + std::to_string(frames); }

// An MP4 file, or an HLS stream: a folder of its own holding the playlist "clip.m3u8" and its
// 2-second segments (60 frames, two key-frame intervals, each segment beginning with a key frame).
enum class Container { Mp4, Hls };

// The clip's path (for HLS, its playlist's), encoding it first when it is missing: the built-in
// sample with the bunny-loop2 mesh, the demo's coding (H.264 at constant quality, key frames every
// 30, Huffman inter frames) but the "ultrafast" preset, which keeps the 60 s clip to a minute or two.
// The same frames either way, so a stream's drawn frames can be checked against the MP4 file.
// Concurrent runs wait for each other through a lock file; the clip is written under another name
// and renamed when done.
inline std::string Clip(int frames, std::string* error, Container container = Container::Mp4) {
  namespace fs = std::filesystem;
  const bool hls = container == Container::Hls;
  const std::string name = ClipName(frames) + (hls ? "-hls" : "");
  const fs::path folder = BenchDataFolder();
  // HLS: the stream's folder and the folder it is encoded into; MP4: the file and its partial file.
  const fs::path done = folder / (hls ? name : name + ".mp4");
  const fs::path part = folder / (hls ? name + ".part" : name + ".part.mp4");
  const fs::path path = hls ? done / "clip.m3u8" : done;
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) {
    *error = "cannot make " + folder.string() + ": " + ec.message();
    return "";
  }
  const std::string lockPath = (folder / (name + ".lock")).string();
  const int lock = ::open(lockPath.c_str(), O_CREAT | O_RDWR, 0644);
  if (lock >= 0) ::flock(lock, LOCK_EX);
  if (!fs::exists(path)) {
    const std::string mesh = DataFolder() + "/bunny-loop2.mesh";
    if (!fs::exists(mesh)) {
      *error = "missing " + mesh + " (run scripts/test-data.sh)";
    } else {
      try {
        QuietPluginLog();
        OzmTool::EncodeOptions o;
        if (hls) {
          fs::remove_all(part, ec);  // what an interrupted run left
          fs::create_directories(part);
          o.out = (part / "clip.m3u8").string();
          o.segmentSeconds = 2;
        } else {
          o.out = part.string();
        }
        o.sample = true;
        o.sampleMesh = mesh;
        o.frames = frames;
        o.fps = 30;
        o.width = o.height = kTextureSize;
        o.codec = OzmTool::VideoCodec::H264;
        o.interCoding = 7;
        o.keyInterval = 30;
        o.preset = "ultrafast";
        std::fprintf(stderr, "playback: encoding %s (%d frames), once ...\n", path.c_str(), frames);
        const OzmTool::EncodeSummary s = OzmTool::Encode(o);
        std::fprintf(stderr, "playback: encoded in %.1f s (%" PRIu64 " triangles a frame)\n", s.seconds,
                     s.frames ? s.triangles / static_cast<uint64_t>(s.frames) : 0);
        fs::rename(part, done, ec);
        if (ec) *error = "cannot rename " + part.string() + ": " + ec.message();
      } catch (const std::exception& e) {
        *error = std::string("encoding the clip failed: ") + e.what();
        fs::remove_all(part, ec);
      }
    }
  }
  if (lock >= 0) {
    ::flock(lock, LOCK_UN);
    ::close(lock);
  }
  return error->empty() ? path.string() : "";
}

// --- An engine for one benchmark: started here, stopped (with the device shutdown event) at the end.
// The playback benchmarks issue the render events themselves, on the engine's render thread; the
// engine's own frames are rare and, with Inspect::None, never read the frame information.
class ScopedEngine {
 public:
  ScopedEngine() {
    QuietPluginLog();
    OzmEngine::EngineOptions options;
    options.intervalMs = 250;
    m_engine = std::make_unique<OzmEngine::HeadlessEngine>(OzmEngine::PluginApi::Linked(), options);
    if (!m_engine->Start(&m_error)) m_engine.reset();
  }
  ~ScopedEngine() {
    if (m_engine) m_engine->Stop();
  }
  OzmEngine::HeadlessEngine* Get() const { return m_engine.get(); }
  const std::string& Error() const { return m_error; }

 private:
  std::unique_ptr<OzmEngine::HeadlessEngine> m_engine;
  std::string m_error;
};

// --- The child process that plays a clip (a file, or a stream's URL) and reports its memory.

struct ChildReport {
  unsigned frames = 0, drawn = 0;
  double seconds = 0;   // Play to the end-of-stream flag
  long hwmKb = 0;       // VmHWM at the end
  long baseKb = 0;      // VmRSS before Open
  long hwmAt300Kb = 0;  // VmHWM when frame 300 was drawn (-1: never)
  long rssEndKb = 0;
};

// Runs this program again with --playback-child=CLIP and reads its report. False, with the reason,
// when the child failed.
inline bool RunPlaybackChild(const std::string& clip, ChildReport* r, std::string* error) {
  char self[4096] = {};
  const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) {
    *error = "cannot find this program (/proc/self/exe)";
    return false;
  }
  const std::string command = "'" + std::string(self, static_cast<size_t>(n)) + "' '" + kChildFlag + clip + "'";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) {
    *error = "cannot start the child process";
    return false;
  }
  char line[512];
  std::string report;
  while (std::fgets(line, sizeof(line), pipe)) {
    if (std::strncmp(line, kChildLine, std::strlen(kChildLine)) == 0) report = line;
  }
  const int status = ::pclose(pipe);
  if (status != 0 ||
      std::sscanf(report.c_str(),
                  "playback-child frames=%u drawn=%u seconds=%lf hwm_kb=%ld base_kb=%ld hwm300_kb=%ld "
                  "rss_end_kb=%ld",
                  &r->frames, &r->drawn, &r->seconds, &r->hwmKb, &r->baseKb, &r->hwmAt300Kb, &r->rssEndKb) != 7) {
    *error = "the child process failed (status " + std::to_string(status) + "): " + report;
    return false;
  }
  return true;
}

inline void SetMemoryCounters(benchmark::State& state, const ChildReport& r) {
  state.SetIterationTime(r.seconds);
  state.counters["frames"] = r.frames;
  state.counters["drawn"] = r.drawn;
  state.counters["hwm_MiB"] = r.hwmKb / 1024.0;
  state.counters["base_MiB"] = r.baseKb / 1024.0;
  state.counters["hwm_at300_MiB"] = r.hwmAt300Kb > 0 ? r.hwmAt300Kb / 1024.0 : 0;
  state.counters["rss_end_MiB"] = r.rssEndKb / 1024.0;
}

// --- Registration and results.

// One iteration, one repetition, the benchmark's own time: the playback benchmarks repeat inside.
inline benchmark::internal::Benchmark* Once(benchmark::internal::Benchmark* b) {
  return b->Iterations(1)->Repetitions(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}

// A benchmark registered with Once by the name it was registered with (the run's name adds its
// settings).
inline const Measured* FindRun(const MeasuredRuns& runs, const std::string& name) {
  for (const auto& [runName, measured] : runs) {
    if (runName.compare(0, name.size() + 1, name + "/") == 0 &&
        runName.compare(name.size() + 1, std::string::npos, "iterations:1/repeats:1/manual_time") == 0) {
      return &measured;
    }
  }
  return nullptr;
}

}  // namespace OzmBench
