// Playback: the plug-in end to end in the headless engine, through its C functions only, on the
// demo's content (the sample's Loop-subdivided bunny, 58,784 triangles, with 1024x1024 H.264
// pictures, Huffman inter frames, 30 fps; no audio):
//
//   Playback/Plugin/...      frames per second from Play to the end-of-stream flag, clock scale 50,
//                            render events issued back to back on the engine's render thread
//   Playback/FFmpeg/...      the same video track decoded by libavformat + libavcodec alone
//   Playback/RenderStep/...  the time of one render event that made a new frame current and of one
//                            that had nothing new, with parts of the copy left out to see what costs
//   Playback/Memory/...      peak resident memory while playing a 10 s and a 60 s clip, each in a
//                            child process of its own (this program run with --playback-child)
//
// The suite plays clips for a minute and encodes them first when they are not in build/bench-data
// yet, so it is registered only when --benchmark_filter names it (e.g. --benchmark_filter=Playback).
// Each benchmark is one Google Benchmark iteration and repeats its playback itself where that
// helps; the times are wall-clock time (the work runs on the plug-in's threads, not on the
// benchmark's), with the process's CPU time alongside.
#include <GLES3/gl3.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "OzmCore/MeshPayload.h"
#include "bench/BenchData.h"
#include "bench/Benchmarks.h"
#include "bench/PlaybackSupport.h"
#include "bench/Results.h"
#include "engine/HeadlessEngine.h"
#include "engine/PluginApi.h"
#include "platform/Log.h"
#include "platform/host/LogCapture.h"
#include "tools/ozm/Encode.h"
#include "tools/ozm/media/Av.h"

namespace OzmBench {
namespace {

using Clock = std::chrono::steady_clock;
using OzmEngine::HeadlessEngine;
using OzmEngine::PluginApi;
using OzmEngine::RenderPath;

constexpr float kClockScale = 50;
constexpr int kThroughputRuns = 3;  // the best run counts, the one the shared machine disturbed least
// After a render event that drew nothing, the paced runs leave the core to the decoders this long.
constexpr int kIdlePauseUs = 200;
constexpr double kRunLimitSeconds = 240;

constexpr double kMinRatioToFFmpeg = 0.8;
constexpr double kMaxRenderStepMs = 2;
constexpr double kMaxMemoryDifference = 0.05;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double ProcessCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// q-quantile of the values (nearest rank); 0 for none.
double Quantile(std::vector<double> values, double q) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t at = static_cast<size_t>(std::lround(q * static_cast<double>(values.size() - 1)));
  return values[std::min(at, values.size() - 1)];
}

// A uniform sample of at most kCapacity values out of any number (reservoir sampling), for the
// render events that drew nothing: hundreds of thousands of them when they run back to back. Its
// memory is taken up front and does not grow with the clip.
class Reservoir {
 public:
  static constexpr size_t kCapacity = 1 << 15;
  Reservoir() { m_values.reserve(kCapacity); }
  void Add(double v) {
    ++m_seen;
    if (m_values.size() < kCapacity) {
      m_values.push_back(v);
      return;
    }
    const uint64_t at = std::uniform_int_distribution<uint64_t>(0, m_seen - 1)(m_random);
    if (at < kCapacity) m_values[at] = v;
  }
  const std::vector<double>& Values() const { return m_values; }

 private:
  std::vector<double> m_values;
  uint64_t m_seen = 0;
  std::mt19937_64 m_random{12345};
};

// --- Playing a clip through the plug-in.

// What the render events copy: the plug-in leaves out whatever has no engine object.
enum class Copy { All, TextureOnly, MeshOnly, Nothing, TextureAndVertices, TextureAndIndices };

struct PlaySetup {
  std::string clip;
  RenderPath path = RenderPath::Unity;  // Unreal: vertices and indices into memory of ours
  Copy copy = Copy::All;
  bool finish = false;      // glFinish after every render event, timed apart: the work GL deferred
  int idlePauseUs = 0;      // pause after a render event that drew nothing; 0: events back to back
  uint32_t hwmAtFrame = 0;  // read VmHWM when a frame with this id or a later one is drawn (0: never)
};

struct PlayResult {
  std::string error;
  uint32_t clipFrames = 0;             // from the file information
  uint32_t vertices = 0, indices = 0;  // of the last frame drawn
  double seconds = 0;                  // Play to the end-of-stream flag
  double cpuSeconds = 0;               // of the whole process over the same time
  uint64_t events = 0, drawn = 0;
  std::vector<double> drawUs;    // render events that made a new frame current
  std::vector<double> finishUs;  // their glFinish (with PlaySetup::finish)
  Reservoir idleUs;              // render events that made nothing new current
  std::vector<double> idleFinishUs;
  long hwmAtFrameKb = -1;

  double Fps() const { return seconds > 0 ? clipFrames / seconds : 0; }
};

// Opens the clip in a new player, gives it engine objects the size its file information asks for,
// and plays it to the end of stream at the clock scale, issuing render events on the engine's
// render thread and timing each. Closes and destroys the player afterwards.
PlayResult Play(HeadlessEngine& engine, const PlaySetup& setup) {
  PlayResult r;
  const PluginApi& api = engine.Api();
  const int id = api.CreateLumoObject();
  if (id < 0) {
    r.error = "CreateLumoObject returned " + std::to_string(id);
    return r;
  }
  bool added = false;
  auto finish = [&] {
    api.CloseLumoObject(id);
    api.DestroyLumoObject(id);
    if (added) engine.RemovePlayer(id);
  };
  OzmOpenInfo open{};
  open.audioDisabled = 1;
  OzmFileInfo file{};
  const bool opened = api.OpenLumoObject(id, setup.clip.c_str(), &open) == 1;
  // The file information call answers 0 either way; the record tells whether there was one.
  if (opened) api.GetLumoObjectFileInfo(id, &file);
  if (!opened || file.frameCount == 0) {
    r.error = "the plug-in does not open " + setup.clip + ": " + LogProblems();
    finish();
    return r;
  }
  r.clipFrames = file.frameCount;
  OzmEngine::PlayerSetup ps;
  ps.textureWidth = ps.textureHeight = kTextureSize;
  ps.vertexCapacity = std::max(file.maxVertexCount, 1u);
  ps.indexCapacity = std::max(file.maxIndexCount, 1u);
  ps.path = setup.path;
  ps.inspect = OzmEngine::Inspect::None;
  std::string why;
  const std::optional<OzmEngine::EngineTargets> targets = engine.AddPlayer(id, ps, &why);
  if (!targets) {
    r.error = "the engine cannot take the player: " + why;
    finish();
    return r;
  }
  added = true;
  const OzmEngine::EngineTargets& t = *targets;
  const Copy c = setup.copy;
  const bool texture =
      c == Copy::All || c == Copy::TextureOnly || c == Copy::TextureAndVertices || c == Copy::TextureAndIndices;
  const bool mesh = c == Copy::All || c == Copy::MeshOnly;
  const bool vertices = mesh || c == Copy::TextureAndVertices;
  const bool indices = mesh || c == Copy::TextureAndIndices;
  if (setup.path == RenderPath::Unity) {
    api.SetUnityBuffers(id, texture ? t.texture : 0, t.textureWidth, t.textureHeight, vertices ? t.vertexBuffer : 0,
                        t.vertexCapacity, indices ? t.indexBuffer : 0, t.indexCapacity);
  }
  std::vector<uint8_t> vertexMemory(setup.path == RenderPath::Unreal ? size_t{t.vertexCapacity} * 32 : 0);
  std::vector<uint32_t> indexMemory(setup.path == RenderPath::Unreal ? t.indexCapacity : 0);
  api.SetClockScale(id, kClockScale);
  r.drawUs.reserve(file.frameCount + 16);
  r.finishUs.reserve(setup.finish ? file.frameCount + 16 : 0);
  r.idleFinishUs.reserve(setup.finish ? Reservoir::kCapacity : 0);

  std::atomic<bool> started{false};
  std::atomic<int64_t> playedAt{0};  // Clock ticks; 0 until Play was called
  double cpuAtPlay = 0;
  bool ended = false;
  auto renderLoop = [&] {
    const OzmRenderEventFunc event = api.GetUnityRenderModeEventFunc();
    OzmFrameInfo last{};
    bool haveLast = false;
    started.store(true);
    const Clock::time_point deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kRunLimitSeconds));
    for (;;) {
      const Clock::time_point t0 = Clock::now();
      if (setup.path == RenderPath::Unity) {
        event(id);
      } else {
        api.OnUnrealRenderEvent(id, mesh ? vertexMemory.data() : nullptr, mesh ? indexMemory.data() : nullptr,
                                mesh ? static_cast<int>(t.vertexCapacity) : 0,
                                mesh ? static_cast<int>(t.indexCapacity) : 0, texture ? t.texture : 0, t.textureWidth,
                                t.textureHeight);
      }
      const Clock::time_point t1 = Clock::now();
      if (setup.finish) glFinish();
      const Clock::time_point t2 = Clock::now();
      OzmFrameInfo info{};
      api.GetLumoObjectFrameInfo(id, &info);
      ++r.events;
      // As the engine tells frames apart: a frame with a mesh whose id or timestamp is new.
      const bool hasFrame = info.vertexCount > 0 || info.indexCount > 0;
      const bool changed = hasFrame && (!haveLast || info.timestamp != last.timestamp || info.frameId != last.frameId);
      if (hasFrame) {
        last = info;
        haveLast = true;
      }
      const double eventUs = 1e6 * Seconds(t1 - t0), finishUs = 1e6 * Seconds(t2 - t1);
      if (changed) {
        ++r.drawn;
        r.drawUs.push_back(eventUs);
        if (setup.finish) r.finishUs.push_back(finishUs);
        if (setup.hwmAtFrame && r.hwmAtFrameKb < 0 && info.frameId >= setup.hwmAtFrame) {
          r.hwmAtFrameKb = StatusKb("VmHWM");
        }
      } else {
        r.idleUs.Add(eventUs);
        if (setup.finish && r.idleFinishUs.size() < Reservoir::kCapacity) r.idleFinishUs.push_back(finishUs);
      }
      if (info.endOfStream) {
        const int64_t played = playedAt.load();
        r.seconds = played ? Seconds(Clock::now() - Clock::time_point(Clock::duration(played))) : 0;
        r.cpuSeconds = ProcessCpuSeconds() - cpuAtPlay;
        r.vertices = last.vertexCount;
        r.indices = last.indexCount;
        ended = true;
        return;
      }
      if (t2 > deadline) return;
      if (!changed && setup.idlePauseUs > 0) std::this_thread::sleep_for(std::chrono::microseconds(setup.idlePauseUs));
    }
  };
  bool ran = false;
  std::thread driver([&] { ran = engine.RunOnRenderThread(renderLoop, kRunLimitSeconds + 30); });
  const Clock::time_point waitUntil = Clock::now() + std::chrono::seconds(20);
  while (!started.load() && Clock::now() < waitUntil) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  if (started.load()) {
    cpuAtPlay = ProcessCpuSeconds();
    playedAt.store(Clock::now().time_since_epoch().count());
    if (api.PlayLumoObject(id) != 1) r.error = "PlayLumoObject failed";
  }
  driver.join();
  if (r.error.empty() && !ran) r.error = "the render loop did not run on the engine's render thread";
  if (r.error.empty() && !ended) {
    r.error = "no end of stream within " + std::to_string(static_cast<int>(kRunLimitSeconds)) + " s (" +
              std::to_string(r.drawn) + " frames drawn): " + LogProblems();
  }
  finish();
  return r;
}

// --- FFmpeg alone on the same video track.

struct PeerResult {
  std::string error;
  int frames = 0;
  double seconds = 0, cpuSeconds = 0;
  double Fps() const { return seconds > 0 ? frames / seconds : 0; }
};

// Demuxes and decodes the clip's video track (its mesh units are NAL units the decoder skips),
// converting each picture to packed RGBA as the plug-in's host decoder does (same scaler flags)
// when asked. threads 0: libavcodec picks (one more than the cores, as the ffmpeg program does);
// otherwise that many, frame and slice threads, as the plug-in's decoder is set up.
PeerResult FFmpegDecode(const std::string& path, bool toRgba, int threads) {
  PeerResult r;
  AVFormatContext* rawInput = nullptr;
  if (avformat_open_input(&rawInput, path.c_str(), nullptr, nullptr) < 0) {
    r.error = "FFmpeg cannot open " + path;
    return r;
  }
  std::unique_ptr<AVFormatContext, OzmTool::Av::InputClose> input(rawInput);
  if (avformat_find_stream_info(input.get(), nullptr) < 0) {
    r.error = "FFmpeg finds no stream information";
    return r;
  }
  const AVCodec* codec = nullptr;
  const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  if (stream < 0 || !codec) {
    r.error = "FFmpeg finds no video track";
    return r;
  }
  OzmTool::Av::CodecPtr context(avcodec_alloc_context3(codec));
  if (!context || avcodec_parameters_to_context(context.get(), input->streams[stream]->codecpar) < 0) {
    r.error = "FFmpeg cannot set the decoder up";
    return r;
  }
  context->thread_count = threads;
  if (threads > 0) context->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
  if (avcodec_open2(context.get(), codec, nullptr) < 0) {
    r.error = "FFmpeg cannot open the decoder";
    return r;
  }
  OzmTool::Av::PacketPtr packet(av_packet_alloc());
  OzmTool::Av::FramePtr frame(av_frame_alloc());
  std::unique_ptr<SwsContext, OzmTool::Av::SwsFree> scaler;
  std::vector<uint8_t> rgba;
  bool failed = false;
  auto drain = [&] {
    while (avcodec_receive_frame(context.get(), frame.get()) == 0) {
      ++r.frames;
      if (toRgba) {
        const int w = frame->width, h = frame->height;
        scaler.reset(sws_getCachedContext(scaler.release(), w, h, static_cast<AVPixelFormat>(frame->format), w, h,
                                          AV_PIX_FMT_RGBA, SWS_BILINEAR, nullptr, nullptr, nullptr));
        rgba.resize(static_cast<size_t>(w) * static_cast<size_t>(h) * 4);
        uint8_t* planes[4] = {rgba.data(), nullptr, nullptr, nullptr};
        const int strides[4] = {w * 4, 0, 0, 0};
        if (!scaler || sws_scale(scaler.get(), frame->data, frame->linesize, 0, h, planes, strides) != h) failed = true;
        benchmark::DoNotOptimize(rgba.data());
      }
      av_frame_unref(frame.get());
    }
  };
  const double cpu0 = ProcessCpuSeconds();
  const Clock::time_point t0 = Clock::now();
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    if (packet->stream_index == stream) {
      if (avcodec_send_packet(context.get(), packet.get()) < 0) failed = true;
      drain();
    }
    av_packet_unref(packet.get());
  }
  avcodec_send_packet(context.get(), nullptr);
  drain();
  r.seconds = Seconds(Clock::now() - t0);
  r.cpuSeconds = ProcessCpuSeconds() - cpu0;
  if (failed) r.error = "FFmpeg failed on a picture";
  return r;
}

// --- Benchmarks.

std::string ShortClip(benchmark::State& state) {
  std::string error;
  const std::string path = Clip(kShortFrames, &error);
  if (!error.empty()) state.SkipWithError(error.c_str());
  return path;
}

void SetEventCounters(benchmark::State& state, const PlayResult& r, bool finish) {
  state.counters["drawn"] = static_cast<double>(r.drawn);
  state.counters["events"] = static_cast<double>(r.events);
  state.counters["new_med_us"] = Quantile(r.drawUs, 0.5);
  state.counters["new_p95_us"] = Quantile(r.drawUs, 0.95);
  state.counters["idle_med_us"] = Quantile(r.idleUs.Values(), 0.5);
  state.counters["idle_p95_us"] = Quantile(r.idleUs.Values(), 0.95);
  if (finish) {
    std::vector<double> total(r.drawUs.size());
    for (size_t i = 0; i < total.size(); ++i) total[i] = r.drawUs[i] + r.finishUs[i];
    state.counters["new_fin_med_us"] = Quantile(total, 0.5);
    state.counters["new_fin_p95_us"] = Quantile(total, 0.95);
    state.counters["fin_med_us"] = Quantile(r.finishUs, 0.5);
    state.counters["idle_fin_p95_us"] = Quantile(r.idleFinishUs, 0.95);
  }
}

// The whole pipeline: the best of kThroughputRuns plays of the 10 s clip.
void PluginThroughput(benchmark::State& state, int idlePauseUs) {
  const std::string clip = ShortClip(state);
  if (clip.empty()) return;
  ScopedEngine engine;
  if (!engine.Get()) return state.SkipWithError(("the headless engine does not start: " + engine.Error()).c_str());
  for (auto _ : state) {
    std::vector<double> fps;
    std::unique_ptr<PlayResult> best;
    for (int run = 0; run < kThroughputRuns; ++run) {
      PlaySetup setup;
      setup.clip = clip;
      setup.idlePauseUs = idlePauseUs;
      auto r = std::make_unique<PlayResult>(Play(*engine.Get(), setup));
      if (!r->error.empty()) return state.SkipWithError(r->error.c_str());
      fps.push_back(r->Fps());
      if (!best || r->Fps() > best->Fps()) best = std::move(r);
    }
    state.SetIterationTime(best->seconds);
    state.counters["frames"] = best->clipFrames;
    state.counters["fps"] = best->Fps();
    state.counters["fps_med"] = Quantile(fps, 0.5);
    state.counters["cpu_ms_frame"] = 1e3 * best->cpuSeconds / best->clipFrames;
    state.counters["triangles"] = best->indices / 3.0;
    SetEventCounters(state, *best, false);
  }
}

void FFmpegThroughput(benchmark::State& state, bool toRgba, int threads) {
  const std::string clip = ShortClip(state);
  if (clip.empty()) return;
  QuietPluginLog();
  for (auto _ : state) {
    std::vector<double> fps;
    PeerResult best;
    for (int run = 0; run < kThroughputRuns; ++run) {
      const PeerResult r = FFmpegDecode(clip, toRgba, threads);
      if (!r.error.empty()) return state.SkipWithError(r.error.c_str());
      fps.push_back(r.Fps());
      if (r.Fps() > best.Fps()) best = r;
    }
    state.SetIterationTime(best.seconds);
    state.counters["frames"] = best.frames;
    state.counters["fps"] = best.Fps();
    state.counters["fps_med"] = Quantile(fps, 0.5);
    state.counters["cpu_ms_frame"] = 1e3 * best.cpuSeconds / best.frames;
  }
}

// Render events timed one by one, each followed by glFinish so that the GL work they leave queued
// (the texture draw) is counted too. Between events that drew nothing the loop pauses, so that
// the timings are of the render step and not of the decoders taking the core.
void RenderStep(benchmark::State& state, RenderPath path, Copy copy) {
  const std::string clip = ShortClip(state);
  if (clip.empty()) return;
  ScopedEngine engine;
  if (!engine.Get()) return state.SkipWithError(("the headless engine does not start: " + engine.Error()).c_str());
  for (auto _ : state) {
    PlaySetup setup;
    setup.clip = clip;
    setup.path = path;
    setup.copy = copy;
    setup.finish = true;
    setup.idlePauseUs = kIdlePauseUs;
    const PlayResult r = Play(*engine.Get(), setup);
    if (!r.error.empty()) return state.SkipWithError(r.error.c_str());
    state.SetIterationTime(r.seconds);
    state.counters["frames"] = r.clipFrames;
    SetEventCounters(state, r, true);
  }
}

// Runs this program again as a child that plays the clip and reports its peak memory.
void Memory(benchmark::State& state, int frames) {
  std::string error;
  const std::string clip = Clip(frames, &error);
  if (!error.empty()) return state.SkipWithError(error.c_str());
  for (auto _ : state) {
    ChildReport report;
    if (!RunPlaybackChild(clip, &report, &error)) return state.SkipWithError(error.c_str());
    SetMemoryCounters(state, report);
  }
}

std::string MemoryName(int frames) { return "Playback/Memory/" + std::to_string(frames / 30) + "s"; }

const char* const kOurs = "Playback/Plugin/10s";
const char* const kOursPaced = "Playback/Plugin/10s/paced";
const char* const kFFmpegRgba = "Playback/FFmpeg/decode+RGBA";
const char* const kFFmpegPlain = "Playback/FFmpeg/decode";
const char* const kFFmpegPlugin = "Playback/FFmpeg/decode+RGBA/2threads";
const char* const kStepAll = "Playback/RenderStep/all";

void AddGoals() {
  AddGoal([](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
    const Measured* ours = FindRun(runs, kOurs);
    const Measured* peer = FindRun(runs, kFFmpegRgba);
    if (!ours || !peer || peer->Counter("fps") <= 0) return std::nullopt;
    const double ratio = ours->Counter("fps") / peer->Counter("fps");
    const Measured* plain = FindRun(runs, kFFmpegPlain);
    return nlohmann::json{{"goal", "playback fps / FFmpeg decode+RGBA fps >= 0.8"},
                          {"subject", "10 s clip, clock scale 50"},
                          {"measured", ratio},
                          {"unit", "x"},
                          {"target", ">= 0.8 x"},
                          {"met", ratio >= kMinRatioToFFmpeg},
                          {"ours_fps", ours->Counter("fps")},
                          {"ours_frames_drawn", ours->Counter("drawn")},
                          {"ffmpeg_rgba_fps", peer->Counter("fps")},
                          {"ffmpeg_decode_fps", plain ? nlohmann::json(plain->Counter("fps")) : nlohmann::json()}};
  });
  AddGoal([](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
    const Measured* step = FindRun(runs, kStepAll);
    if (!step) return std::nullopt;
    const double p95 = step->Counter("new_fin_p95_us") / 1e3;
    return nlohmann::json{{"goal", "render step with a new frame, p95 <= 2 ms"},
                          {"subject", "texture + mesh copy, with glFinish"},
                          {"measured", p95},
                          {"unit", "ms"},
                          {"target", "<= 2 ms"},
                          {"met", p95 <= kMaxRenderStepMs},
                          {"median_ms", step->Counter("new_fin_med_us") / 1e3},
                          {"event_only_p95_ms", step->Counter("new_p95_us") / 1e3},
                          {"nothing_new_p95_ms", step->Counter("idle_p95_us") / 1e3}};
  });
  AddGoal([](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
    const Measured* shortClip = FindRun(runs, MemoryName(kShortFrames));
    const Measured* longClip = FindRun(runs, MemoryName(kLongFrames));
    if (!shortClip || !longClip || shortClip->Counter("hwm_MiB") <= 0) return std::nullopt;
    const double ratio = longClip->Counter("hwm_MiB") / shortClip->Counter("hwm_MiB");
    return nlohmann::json{{"goal", "peak memory 60 s clip / 10 s clip within 5%"},
                          {"subject", "VmHWM, one process each"},
                          {"measured", ratio},
                          {"unit", "x"},
                          {"target", "0.95 .. 1.05 x"},
                          {"met", std::fabs(ratio - 1) <= kMaxMemoryDifference},
                          {"hwm_10s_MiB", shortClip->Counter("hwm_MiB")},
                          {"hwm_60s_MiB", longClip->Counter("hwm_MiB")}};
  });
}

}  // namespace

void RegisterPlaybackBenchmarks() {
  // Only when asked for by name: the suite takes a minute and may encode its clips first.
  if (benchmark::GetBenchmarkFilter().find("Playback") == std::string::npos) return;
  Once(benchmark::RegisterBenchmark(kOurs, PluginThroughput, 0));
  Once(benchmark::RegisterBenchmark(kOursPaced, PluginThroughput, kIdlePauseUs));
  Once(benchmark::RegisterBenchmark(kFFmpegRgba, FFmpegThroughput, true, 0));
  Once(benchmark::RegisterBenchmark(kFFmpegPlain, FFmpegThroughput, false, 0));
  Once(benchmark::RegisterBenchmark(kFFmpegPlugin, FFmpegThroughput, true, 2));
  Once(benchmark::RegisterBenchmark(kStepAll, RenderStep, RenderPath::Unity, Copy::All));
  Once(benchmark::RegisterBenchmark("Playback/RenderStep/texture", RenderStep, RenderPath::Unity, Copy::TextureOnly));
  Once(benchmark::RegisterBenchmark("Playback/RenderStep/texture+vertices", RenderStep, RenderPath::Unity,
                                    Copy::TextureAndVertices));
  Once(benchmark::RegisterBenchmark("Playback/RenderStep/texture+indices", RenderStep, RenderPath::Unity,
                                    Copy::TextureAndIndices));
  Once(benchmark::RegisterBenchmark("Playback/RenderStep/mesh", RenderStep, RenderPath::Unity, Copy::MeshOnly));
  Once(benchmark::RegisterBenchmark("Playback/RenderStep/latch", RenderStep, RenderPath::Unity, Copy::Nothing));
  Once(benchmark::RegisterBenchmark("Playback/RenderStep/cpu-mesh", RenderStep, RenderPath::Unreal, Copy::All));
  Once(benchmark::RegisterBenchmark(MemoryName(kShortFrames).c_str(), Memory, kShortFrames));
  Once(benchmark::RegisterBenchmark(MemoryName(kLongFrames).c_str(), Memory, kLongFrames));
  AddGoals();
}

int PlaybackChild(int argc, char** argv) {
  const char* clip = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], kChildFlag, std::strlen(kChildFlag)) == 0) clip = argv[i] + std::strlen(kChildFlag);
  }
  if (!clip) return -1;
#ifdef OZM_TEST_HOOKS
  // The HLS benchmarks give the child a stream served on the loopback interface.
  OzmCrossPlatform::AllowLoopbackStreamingURLs(true);
#endif
  ScopedEngine engine;
  if (!engine.Get()) {
    std::fprintf(stderr, "playback child: the headless engine does not start: %s\n", engine.Error().c_str());
    return 1;
  }
  PlaySetup setup;
  setup.clip = clip;
  setup.hwmAtFrame = kShortFrames;
  const long base = StatusKb("VmRSS");
  const PlayResult r = Play(*engine.Get(), setup);
  if (!r.error.empty()) {
    std::fprintf(stderr, "playback child: %s\n", r.error.c_str());
    return 1;
  }
  std::printf("%s frames=%u drawn=%" PRIu64 " seconds=%.4f hwm_kb=%ld base_kb=%ld hwm300_kb=%ld rss_end_kb=%ld\n",
              kChildLine, r.clipFrames, r.drawn, r.seconds, StatusKb("VmHWM"), base, r.hwmAtFrameKb, StatusKb("VmRSS"));
  std::fflush(stdout);
  return 0;
}

}  // namespace OzmBench
