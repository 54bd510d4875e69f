// What the end-to-end playback tests share: the one headless engine of the test program, its
// watchdog, the clips and what the engine must receive from them, players as an engine's scripts
// hold them, and the checks of what the engine drew.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/HeadlessEngine.h"
#include "engine/PluginApi.h"
#include "platform/Log.h"
#include "platform/host/LogCapture.h"
#include "tests/ClipFixtures.h"
#include "tools/ozm/PairingCheck.h"

namespace PlaybackSupport {

namespace fs = std::filesystem;
using OzmEngine::HeadlessEngine;
using OzmEngine::PlayerStats;
using OzmEngine::PluginApi;
using OzmEngine::RenderPath;

// Sanitizer builds run several times slower; waits grow with them (they stay bounded).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kSlowness = 8;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr double kSlowness = 8;
#else
constexpr double kSlowness = 1;
#endif
#else
constexpr double kSlowness = 1;
#endif

inline double Seconds(double plain) { return plain * kSlowness; }

constexpr double kFps = 30;
// The longest a Close or Destroy may take, in any state.
constexpr double kPromptSeconds = 2;

inline const PluginApi& Api() {
  static const PluginApi api = PluginApi::Linked();
  return api;
}

// One engine for the whole program, as an engine process has one graphics device.
inline std::unique_ptr<HeadlessEngine>& EngineSlot() {
  static std::unique_ptr<HeadlessEngine> engine;
  return engine;
}

inline HeadlessEngine* Engine() {
  static std::string error;
  auto& engine = EngineSlot();
  if (!engine && error.empty()) {
    engine = std::make_unique<HeadlessEngine>(Api());
    if (!engine->Start(&error)) engine.reset();
  }
  if (!engine) {
    ADD_FAILURE() << "the headless engine does not start: " << error;
    return nullptr;
  }
  // A render event that never returned leaves the engine without frames for every later test.
  const std::string stuck = engine->Stuck(Seconds(5));
  if (!stuck.empty()) {
    ADD_FAILURE() << "the engine is stuck: " << stuck;
    return nullptr;
  }
  return engine.get();
}

class EngineEnvironment : public ::testing::Environment {
 public:
  void TearDown() override { EngineSlot().reset(); }
};
inline auto* const g_engineEnvironment = ::testing::AddGlobalTestEnvironment(new EngineEnvironment);

// A test that runs far longer than its waits allow is stuck in a plug-in call: the watchdog names
// it and ends the program, rather than leave it hanging until an outer time limit.
class Watchdog : public ::testing::EmptyTestEventListener {
 public:
  static constexpr double kLimitSeconds = 60 * kSlowness;

  Watchdog() : m_thread([this] { Watch(); }) {}
  ~Watchdog() override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_quit = true;
    }
    m_cv.notify_all();
    m_thread.join();
  }
  void OnTestStart(const ::testing::TestInfo& test) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_test = std::string(test.test_suite_name()) + "." + test.name();
    m_deadline = std::chrono::steady_clock::now() + std::chrono::seconds(static_cast<int>(kLimitSeconds));
    m_armed = true;
    m_cv.notify_all();
  }
  void OnTestEnd(const ::testing::TestInfo&) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_armed = false;
  }

 private:
  void Watch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_quit) {
      if (m_armed && std::chrono::steady_clock::now() >= m_deadline) {
        std::fprintf(stderr, "\n%s has run for %.0f s: a plug-in call does not return; giving up\n", m_test.c_str(),
                     kLimitSeconds);
        std::fflush(stderr);
        std::abort();
      }
      m_cv.wait_for(lock, std::chrono::milliseconds(250));
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::string m_test;
  std::chrono::steady_clock::time_point m_deadline;
  bool m_armed = false;
  bool m_quit = false;
  std::thread m_thread;
};

inline const bool g_watchdogInstalled = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
  return true;
}();

inline bool HaveTestData() {
  if (ClipFixtures::HaveSampleMesh()) return true;
  if (!TestMeshFiles::MissingDataAllowed()) {
    ADD_FAILURE() << "missing " << ClipFixtures::MeshPath("bunny") << "; run scripts/test-data.sh";
  }
  return false;
}

#define REQUIRE_TEST_DATA()                              \
  do {                                                   \
    if (!HaveTestData()) GTEST_SKIP() << "no test data"; \
  } while (0)

inline ClipFixtures::ClipContent Content(OzmTool::VideoCodec codec, int interCoding, bool temporal = false,
                                         bool audio = false, int frames = 24) {
  ClipFixtures::ClipContent s;
  s.codec = codec;
  s.interCoding = interCoding;
  s.temporal = temporal;
  s.audio = audio;
  s.frames = frames;
  return s;
}
const auto kH264 = OzmTool::VideoCodec::H264;
const auto kHevc = OzmTool::VideoCodec::Hevc;

// The clip and what the engine must receive from it (decoded once per program).
inline std::shared_ptr<const PairingCheck::Clip> ExpectedClip(const ClipFixtures::ClipContent& content) {
  auto clip = PairingCheck::Expected(ClipFixtures::Clip(content));
  EXPECT_EQ(clip->Error(), "") << content.Name();
  EXPECT_EQ(clip->Frames().size(), static_cast<size_t>(content.frames)) << content.Name();
  return clip;
}

// The clip a player is checked against; switched when the player opens another clip.
class ClipSlot {
 public:
  void Set(std::shared_ptr<const PairingCheck::Clip> clip, bool damaged = false) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clip = std::move(clip);
    m_damaged = damaged;
  }
  static OzmEngine::FrameCheck Checker(const std::shared_ptr<ClipSlot>& slot) {
    return [slot](const OzmEngine::DrawnFrame& frame, std::string* why) {
      std::shared_ptr<const PairingCheck::Clip> clip;
      bool damaged;
      {
        std::lock_guard<std::mutex> lock(slot->m_mutex);
        clip = slot->m_clip;
        damaged = slot->m_damaged;
      }
      if (!clip) {
        *why = "a frame was drawn with no clip open";
        return false;
      }
      return damaged ? clip->CheckDamaged(frame, why) : clip->Check(frame, why);
    };
  }

 private:
  std::mutex m_mutex;
  std::shared_ptr<const PairingCheck::Clip> m_clip;
  bool m_damaged = false;
};

inline OzmOpenInfo OpenOptions(bool audioDisabled = false, bool autoLooping = false) {
  OzmOpenInfo o{};
  o.audioDisabled = audioDisabled ? 1 : 0;
  o.autoLooping = autoLooping ? 1 : 0;
  return o;
}

// A player as the engine's scripts hold it: its id and the engine objects registered with it.
struct TestPlayer {
  int id = -1;  // ids count from 0
  OzmEngine::EngineTargets targets;
  std::shared_ptr<ClipSlot> slot = std::make_shared<ClipSlot>();
};

// Creates a player, makes its engine objects and registers them (Unity path) with the plug-in.
inline bool NewPlayer(HeadlessEngine& engine, int size, TestPlayer* player, RenderPath path = RenderPath::Unity) {
  const PluginApi& api = engine.Api();
  player->id = api.CreateLumoObject();
  if (player->id < 0) {
    ADD_FAILURE() << "CreateLumoObject returned " << player->id;
    return false;
  }
  if (api.GetLumoState(player->id) != kLumoStateInitialized) {
    ADD_FAILURE() << "a new player is in state " << api.GetLumoState(player->id);
  }
  OzmEngine::PlayerSetup setup;
  setup.textureWidth = setup.textureHeight = size;
  setup.path = path;
  setup.check = ClipSlot::Checker(player->slot);
  std::string error;
  auto targets = engine.AddPlayer(player->id, setup, &error);
  if (!targets) {
    ADD_FAILURE() << "the engine cannot take player " << player->id << ": " << error;
    return false;
  }
  player->targets = *targets;
  if (path == RenderPath::Unity) {
    const auto& t = player->targets;
    api.SetUnityBuffers(player->id, t.texture, t.textureWidth, t.textureHeight, t.vertexBuffer, t.vertexCapacity,
                        t.indexBuffer, t.indexCapacity);
  }
  return true;
}

inline double Elapsed(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Closes and destroys a player, each within the prompt time, then takes it out of the engine (which
// went on issuing render events for it meanwhile, as an engine's render thread lags its scripts).
inline void EndPlayer(HeadlessEngine& engine, const TestPlayer& player, bool close = true) {
  const PluginApi& api = engine.Api();
  if (close) {
    const auto start = std::chrono::steady_clock::now();
    api.CloseLumoObject(player.id);
    EXPECT_LT(Elapsed(start), kPromptSeconds) << "CloseLumoObject(" << player.id << ")";
    EXPECT_EQ(api.GetLumoState(player.id), kLumoStateClosed);
  }
  const auto start = std::chrono::steady_clock::now();
  api.DestroyLumoObject(player.id);
  EXPECT_LT(Elapsed(start), kPromptSeconds) << "DestroyLumoObject(" << player.id << ")";
  EXPECT_EQ(api.GetLumoState(player.id), kLumoStateUnknownId);
  // Render events for an id that is gone must do nothing harmful.
  EXPECT_TRUE(engine.WaitFrames(3, Seconds(5)));
  EXPECT_TRUE(engine.RemovePlayer(player.id));
}

inline bool Ended(const HeadlessEngine& engine, int id) { return engine.Stats(id).endOfStreamFlags > 0; }

// Waits for the end of the clip, then a few more engine frames so that a second end-of-stream flag
// would show.
inline bool PlayToEnd(HeadlessEngine& engine, int id, double clipSeconds) {
  const bool ended = engine.WaitUntil([&] { return Ended(engine, id); }, Seconds(10 + 3 * clipSeconds));
  engine.WaitFrames(10, Seconds(5));
  return ended;
}

inline size_t CountContaining(const OzmPlatform::ScopedLogCapture& log, const std::string& part) {
  size_t n = 0;
  for (const std::string& line : log.Texts()) n += line.find(part) != std::string::npos ? 1 : 0;
  return n;
}

inline size_t CountErrors(const OzmPlatform::ScopedLogCapture& log) {
  size_t n = 0;
  for (const OzmPlatform::LogLine& line : log.Lines()) n += line.priority >= OzmPlatform::kLogError ? 1 : 0;
  return n;
}

inline std::string LastLines(const OzmPlatform::ScopedLogCapture& log, size_t count = 25) {
  const std::vector<OzmPlatform::LogLine> lines = log.Lines();
  std::string out;
  for (size_t i = lines.size() > count ? lines.size() - count : 0; i < lines.size(); ++i) {
    out += "\n  [" + std::to_string(lines[i].priority) + "] " + lines[i].text;
  }
  return out.empty() ? " (no log lines)" : out;
}

// The player's report of a picture whose mesh was not decoded by the time it was due.
constexpr const char* kMismatchedTimestamps = "MISMATCHED TIMESTAMPS";

// Pictures of player `id` that the player could not pair, by its log.
inline size_t ReportedUnpaired(const OzmPlatform::ScopedLogCapture& log, int id) {
  return CountContaining(log, "[" + std::to_string(id) + "] **** " + kMismatchedTimestamps);
}

// Every frame the engine judged shows the picture and the mesh of one sample. A picture whose mesh
// is not decoded yet when it falls due is not copied (the player logs it), and the engine then reads
// the previous contents under the new frame information. At full speed the mesh is decoded well
// ahead of its picture and that never happens; the sanitizers slow the mesh decoder several times
// over while the video decoder runs uninstrumented, and on a loaded machine the mesh can fall behind
// there. So under the sanitizers frames the player reported are allowed, and nothing else: a copy of
// the wrong mesh or a stale texture the player did not see still fails. Without the player's log (a
// separately loaded library logs on its own) a quarter of the frames drawn may be such frames.
inline void ExpectPaired(const PlayerStats& s, const OzmPlatform::ScopedLogCapture* log, int id,
                         const std::string& what) {
  if (kSlowness == 1) {
    EXPECT_EQ(s.mismatched, 0u) << what;
    if (log) {
      EXPECT_EQ(ReportedUnpaired(*log, id), 0u) << what << LastLines(*log);
    }
    return;
  }
  const uint64_t allowed = log ? ReportedUnpaired(*log, id) : s.framesDrawn / 4;
  EXPECT_LE(s.mismatched, allowed) << "unpaired frames the player did not report: " << what;
  if (s.mismatched > 0) {
    std::printf("[ info     ] %llu frames unpaired, reported late\n", static_cast<unsigned long long>(s.mismatched));
  }
}

// One pass over a clip as the engine saw it: every drawn frame paired, ascending frame ids, most
// frames drawn.
inline void ExpectCleanPass(const std::vector<uint32_t>& ids, const PairingCheck::Clip& clip, const std::string& what,
                            double share = 0.9) {
  // Frames are dropped, correctly, whenever the engine is slower than the clip: under the
  // sanitizers the first copies (shader compilation) take a few hundred milliseconds, so there only
  // pairing, order and the last frame are held to, and a handful of frames drawn.
  if (kSlowness > 1) share = std::min(share, 0.1);
  const size_t frames = clip.Frames().size();
  EXPECT_GE(static_cast<double>(ids.size()), share * static_cast<double>(frames))
      << what << ": fewer than " << share * 100 << "% of " << frames << " frames drawn";
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()) && std::adjacent_find(ids.begin(), ids.end()) == ids.end())
      << what << ": frame ids not strictly ascending";
  if (!ids.empty()) {
    EXPECT_EQ(ids.back(), clip.Frames().back().frameId) << what << ": the last frame was not drawn";
  }
}

// The drawn frame ids split where they go back (a restart of the clip).
inline std::vector<std::vector<uint32_t>> Passes(const std::vector<uint32_t>& ids) {
  std::vector<std::vector<uint32_t>> passes(1);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0 && ids[i] < ids[i - 1]) passes.emplace_back();
    passes.back().push_back(ids[i]);
  }
  return passes;
}

}  // namespace PlaybackSupport
