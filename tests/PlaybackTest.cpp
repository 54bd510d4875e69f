// The player end to end, as an engine uses it: through the plug-in's C functions only, driven by the
// headless engine (its own EGL context, texture and buffers, a render event every 16 ms) on clips made
// by our encoder. Every frame the engine draws is read back and checked against what the clip holds:
// the number in the picture, the frame id of the frame information, and the mesh (vertex bytes and
// indices as our reader decodes them) must all be the same frame.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
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

namespace {

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

double Seconds(double plain) { return plain * kSlowness; }

constexpr double kFps = 30;
// The longest a Close or Destroy may take, in any state.
constexpr double kPromptSeconds = 2;

const PluginApi& Api() {
  static const PluginApi api = PluginApi::Linked();
  return api;
}

// One engine for the whole program, as an engine process has one graphics device.
std::unique_ptr<HeadlessEngine>& EngineSlot() {
  static std::unique_ptr<HeadlessEngine> engine;
  return engine;
}

HeadlessEngine* Engine() {
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
[[maybe_unused]] auto* const g_engineEnvironment = ::testing::AddGlobalTestEnvironment(new EngineEnvironment);

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

const bool g_watchdogInstalled = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
  return true;
}();

bool HaveTestData() {
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

ClipFixtures::ClipContent Content(OzmTool::VideoCodec codec, int interCoding, bool temporal = false, bool audio = false,
                            int frames = 24) {
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
std::shared_ptr<const PairingCheck::Clip> ExpectedClip(const ClipFixtures::ClipContent& content) {
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

OzmOpenInfo OpenOptions(bool audioDisabled = false, bool autoLooping = false) {
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
bool NewPlayer(HeadlessEngine& engine, int size, TestPlayer* player, RenderPath path = RenderPath::Unity) {
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

double Elapsed(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Closes and destroys a player, each within the prompt time, then takes it out of the engine (which
// went on issuing render events for it meanwhile, as an engine's render thread lags its scripts).
void EndPlayer(HeadlessEngine& engine, const TestPlayer& player, bool close = true) {
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

bool Ended(const HeadlessEngine& engine, int id) { return engine.Stats(id).endOfStreamFlags > 0; }

// Waits for the end of the clip, then a few more engine frames so that a second end-of-stream flag
// would show.
bool PlayToEnd(HeadlessEngine& engine, int id, double clipSeconds) {
  const bool ended = engine.WaitUntil([&] { return Ended(engine, id); }, Seconds(10 + 3 * clipSeconds));
  engine.WaitFrames(10, Seconds(5));
  return ended;
}

size_t CountContaining(const OzmPlatform::ScopedLogCapture& log, const std::string& part) {
  size_t n = 0;
  for (const std::string& line : log.Texts()) n += line.find(part) != std::string::npos ? 1 : 0;
  return n;
}

size_t CountErrors(const OzmPlatform::ScopedLogCapture& log) {
  size_t n = 0;
  for (const OzmPlatform::LogLine& line : log.Lines()) n += line.priority >= OzmPlatform::kLogError ? 1 : 0;
  return n;
}

std::string LastLines(const OzmPlatform::ScopedLogCapture& log, size_t count = 25) {
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
size_t ReportedUnpaired(const OzmPlatform::ScopedLogCapture& log, int id) {
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
void ExpectPaired(const PlayerStats& s, const OzmPlatform::ScopedLogCapture* log, int id, const std::string& what) {
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
void ExpectCleanPass(const std::vector<uint32_t>& ids, const PairingCheck::Clip& clip, const std::string& what,
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
std::vector<std::vector<uint32_t>> Passes(const std::vector<uint32_t>& ids) {
  std::vector<std::vector<uint32_t>> passes(1);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0 && ids[i] < ids[i - 1]) passes.emplace_back();
    passes.back().push_back(ids[i]);
  }
  return passes;
}

// ---------------------------------------------------------------------------------------------------
// Every kind of clip plays to its end with every drawn frame paired.

struct ClipCase {
  const char* name;
  ClipFixtures::ClipContent content;
  bool audioDisabled;
  RenderPath path;
};

void PrintTo(const ClipCase& c, std::ostream* os) { *os << c.name; }

class PlaysToTheEnd : public ::testing::TestWithParam<ClipCase> {};

TEST_P(PlaysToTheEnd, EveryDrawnFramePaired) {
  REQUIRE_TEST_DATA();
  const ClipCase& c = GetParam();
  auto clip = ExpectedClip(c.content);
  ASSERT_EQ(clip->Error(), "");
  // The sample numbers its pictures from 0 and the encoder its mesh frames from 1.
  for (const PairingCheck::ExpectedFrame& f : clip->Frames()) {
    ASSERT_EQ(f.pictureNumber, f.index) << "the picture number of frame " << f.index << " does not read";
    ASSERT_EQ(f.frameId, f.index + 1) << "mesh frame id of frame " << f.index;
  }
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);
  const PluginApi& api = engine->Api();

  OzmPlatform::ScopedLogCapture log;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(*engine, c.content.size, &player, c.path));
  player.slot->Set(clip);
  const OzmOpenInfo open = OpenOptions(c.audioDisabled);
  ASSERT_EQ(api.OpenLumoObject(player.id, clip->Path().c_str(), &open), 1) << LastLines(log);
  EXPECT_EQ(api.GetLumoState(player.id), kLumoStateOpened);
  ASSERT_EQ(api.PlayLumoObject(player.id), 1);
  EXPECT_EQ(api.GetLumoState(player.id), kLumoStatePlaying);

  const bool ended = PlayToEnd(*engine, player.id, c.content.frames / kFps);
  const PlayerStats s = engine->Stats(player.id);
  EXPECT_TRUE(ended) << "no end of stream: " << s.Summary() << LastLines(log);
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
  ExpectPaired(s, &log, player.id, s.Summary());
  EXPECT_EQ(s.paired + s.mismatched, s.framesDrawn) << s.Summary();
  EXPECT_EQ(s.glErrors, 0u) << s.Summary();
  ExpectCleanPass(s.FrameIds(), *clip, s.Summary());
  // The texture reads the same way up every time.
  std::printf("[ info     ] texture numbers read with rows as returned %llu times, upside down %llu times\n",
              static_cast<unsigned long long>(clip->ReadAsReturned()),
              static_cast<unsigned long long>(clip->ReadUpsideDown()));
  EXPECT_TRUE(clip->ReadAsReturned() == 0 || clip->ReadUpsideDown() == 0)
      << "texture rows as returned " << clip->ReadAsReturned() << " times, upside down " << clip->ReadUpsideDown();
  EndPlayer(*engine, player);
}

const ClipCase kClipCases[] = {
    {"H264InterCoding7", Content(kH264, 7), false, RenderPath::Unity},
    {"H264KeyFramesOnly", Content(kH264, 0), false, RenderPath::Unity},
    {"H264InterCoding3Temporal", Content(kH264, 3, true), false, RenderPath::Unity},
    {"HevcInterCoding4", Content(kHevc, 4), false, RenderPath::Unity},
    {"HevcInterCoding5Temporal", Content(kHevc, 5, true), false, RenderPath::Unity},
    {"H264WithAudio", Content(kH264, 7, false, true), false, RenderPath::Unity},
    {"HevcWithAudioDeclined", Content(kHevc, 0, false, true), true, RenderPath::Unity},
    {"H264IntoEngineMemory", Content(kH264, 7), false, RenderPath::Unreal},
};
INSTANTIATE_TEST_SUITE_P(Clips, PlaysToTheEnd, ::testing::ValuesIn(kClipCases),
                         [](const ::testing::TestParamInfo<ClipCase>& param) { return std::string(param.param.name); });

// ---------------------------------------------------------------------------------------------------
// Playback control.

// A player playing a clip, with the log captured, for the tests of playback control.
class Playback : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_TEST_DATA();
    m_engine = Engine();
    ASSERT_NE(m_engine, nullptr);
  }
  void TearDown() override {
    if (m_engine && m_player.id >= 0 && m_engine->Api().GetLumoState(m_player.id) != kLumoStateUnknownId) {
      EndPlayer(*m_engine, m_player);
    }
  }

  const PluginApi& Api() const { return m_engine->Api(); }
  PlayerStats Stats() const { return m_engine->Stats(m_player.id); }

  // Makes the player and opens the clip.
  void Open(const std::shared_ptr<const PairingCheck::Clip>& clip, const OzmOpenInfo& open = OpenOptions()) {
    ASSERT_EQ(clip->Error(), "");
    if (m_player.id < 0) {
      ASSERT_TRUE(NewPlayer(*m_engine, clip->Width(), &m_player));
    }
    m_player.slot->Set(clip);
    ASSERT_EQ(Api().OpenLumoObject(m_player.id, clip->Path().c_str(), &open), 1) << LastLines(m_log);
  }
  bool WaitDrawn(uint64_t frames, double seconds) {
    return m_engine->WaitUntil([&] { return Stats().framesDrawn >= frames; }, Seconds(seconds));
  }

  OzmPlatform::ScopedLogCapture m_log;
  HeadlessEngine* m_engine = nullptr;
  TestPlayer m_player;
};

TEST_F(Playback, AutoLoopingPlaysThreePassesPaired) {
  auto clip = ExpectedClip(Content(kH264, 7));
  ASSERT_NO_FATAL_FAILURE(Open(clip, OpenOptions(false, true)));
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  // Three whole passes: the fourth has begun.
  const bool looped =
      m_engine->WaitUntil([&] { return Passes(Stats().FrameIds()).size() >= 4; }, Seconds(10 + 4 * 24 / kFps));
  const PlayerStats s = Stats();
  ASSERT_TRUE(looped) << s.Summary() << LastLines(m_log);
  const auto passes = Passes(s.FrameIds());
  for (size_t p = 0; p < 3; ++p) {
    ExpectCleanPass(passes[p], *clip, "pass " + std::to_string(p + 1));
  }
  for (size_t p = 1; p < passes.size(); ++p) {
    EXPECT_EQ(passes[p].front(), clip->Frames().front().frameId) << "pass " << p + 1 << " did not begin at the start";
  }
  ExpectPaired(s, &m_log, m_player.id, s.Summary());
  EXPECT_EQ(Api().GetLumoState(m_player.id), kLumoStatePlaying);
}

TEST_F(Playback, RewindThenPlayStartsFromTheBeginning) {
  auto clip = ExpectedClip(Content(kH264, 4));
  ASSERT_NO_FATAL_FAILURE(Open(clip));
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);

  // Midway through the clip.
  ASSERT_TRUE(WaitDrawn(8, 10)) << Stats().Summary() << LastLines(m_log);
  m_engine->ResetStats(m_player.id);
  Api().RewindLumoObject(m_player.id);
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  ASSERT_TRUE(PlayToEnd(*m_engine, m_player.id, 24 / kFps)) << Stats().Summary() << LastLines(m_log);
  PlayerStats s = Stats();
  // Frames of the first run may still be drawn before the rewind shows; then the clip from its start.
  auto passes = Passes(s.FrameIds());
  ASSERT_GE(passes.size(), 1u);
  if (passes.size() > 1) passes.erase(passes.begin());
  ASSERT_EQ(passes.size(), 1u) << s.Summary();
  EXPECT_EQ(passes[0].front(), clip->Frames().front().frameId) << s.Summary();
  ExpectCleanPass(passes[0], *clip, "after a rewind midway: " + s.Summary());
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
  ExpectPaired(s, &m_log, m_player.id, s.Summary());

  // After the end.
  m_engine->ResetStats(m_player.id);
  Api().RewindLumoObject(m_player.id);
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  ASSERT_TRUE(PlayToEnd(*m_engine, m_player.id, 24 / kFps)) << Stats().Summary() << LastLines(m_log);
  s = Stats();
  ASSERT_FALSE(s.drawn.empty());
  EXPECT_EQ(s.drawn.front().frameId, clip->Frames().front().frameId) << s.Summary();
  ExpectCleanPass(s.FrameIds(), *clip, "after a rewind at the end: " + s.Summary());
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
  ExpectPaired(s, &m_log, m_player.id, s.Summary());
}

TEST_F(Playback, PauseHoldsTheFrameAndPlayResumes) {
  auto clip = ExpectedClip(Content(kHevc, 7, false, false, 48));
  ASSERT_NO_FATAL_FAILURE(Open(clip));
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  ASSERT_TRUE(WaitDrawn(6, 10)) << Stats().Summary() << LastLines(m_log);
  ASSERT_EQ(Api().PauseLumoObject(m_player.id), 1);
  EXPECT_EQ(Api().GetLumoState(m_player.id), kLumoStatePaused);
  // A frame already on its way may still show; then nothing moves.
  m_engine->WaitFrames(5, Seconds(5));
  const PlayerStats paused = Stats();
  m_engine->WaitFrames(30, Seconds(10));
  const PlayerStats later = Stats();
  EXPECT_EQ(later.framesDrawn, paused.framesDrawn) << "frames advanced while paused: " << later.Summary();
  EXPECT_GE(later.renderEvents, paused.renderEvents + 30);
  EXPECT_EQ(later.endOfStreamFlags, 0u);

  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  EXPECT_EQ(Api().GetLumoState(m_player.id), kLumoStatePlaying);
  ASSERT_TRUE(PlayToEnd(*m_engine, m_player.id, 48 / kFps)) << Stats().Summary() << LastLines(m_log);
  const PlayerStats s = Stats();
  ExpectCleanPass(s.FrameIds(), *clip, "paused and resumed: " + s.Summary());
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
  ExpectPaired(s, &m_log, m_player.id, s.Summary());
}

TEST_F(Playback, CloseThenOpenAnotherClipPlaysIt) {
  auto first = ExpectedClip(Content(kH264, 7));
  auto second = ExpectedClip(Content(kHevc, 5, false, false, 36));
  ASSERT_NO_FATAL_FAILURE(Open(first));
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  ASSERT_TRUE(WaitDrawn(5, 10)) << Stats().Summary() << LastLines(m_log);
  const auto start = std::chrono::steady_clock::now();
  Api().CloseLumoObject(m_player.id);
  EXPECT_LT(Elapsed(start), kPromptSeconds);
  EXPECT_EQ(Api().GetLumoState(m_player.id), kLumoStateClosed);
  ExpectPaired(Stats(), &m_log, m_player.id, Stats().Summary());

  m_engine->ResetStats(m_player.id);
  ASSERT_NO_FATAL_FAILURE(Open(second));
  EXPECT_EQ(Api().GetLumoState(m_player.id), kLumoStateOpened);
  OzmFileInfo info{};
  Api().GetLumoObjectFileInfo(m_player.id, &info);
  EXPECT_EQ(info.frameCount, 36u);
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  ASSERT_TRUE(PlayToEnd(*m_engine, m_player.id, 36 / kFps)) << Stats().Summary() << LastLines(m_log);
  const PlayerStats s = Stats();
  ExpectCleanPass(s.FrameIds(), *second, "the second clip: " + s.Summary());
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
  ExpectPaired(s, &m_log, m_player.id, s.Summary());
}

// The clip's timestamps against the engine's clock while it plays: the clock scale is their ratio.
class ClockScale : public Playback, public ::testing::WithParamInterface<float> {};

TEST_P(ClockScale, PlaysAtThatSpeed) {
  const float scale = GetParam();
  // At twice the speed the clip shows 60 frames a second: the engine draws more often than that.
  m_engine->SetInterval(8);
  struct RestoreInterval {
    HeadlessEngine* engine;
    ~RestoreInterval() { engine->SetInterval(16); }
  } restore{m_engine};
  auto clip = ExpectedClip(Content(kH264, 7, false, false, 48));
  ASSERT_NO_FATAL_FAILURE(Open(clip));
  ASSERT_EQ(Api().SetClockScale(m_player.id, scale), 1);
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  const double clipSeconds = 48 / kFps;
  ASSERT_TRUE(PlayToEnd(*m_engine, m_player.id, clipSeconds / scale)) << Stats().Summary() << LastLines(m_log);
  const PlayerStats s = Stats();
  ASSERT_GE(s.drawn.size(), 10u) << s.Summary();
  // Over the second half of the frames drawn (the start may stall while the first copy compiles its
  // shader), in the clip's own time: frame ids count its frames, whereas the timestamps of the frame
  // information are presentation times, which the scale already stretched.
  const auto& from = s.drawn[s.drawn.size() / 2];
  const double media = (s.drawn.back().frameId - from.frameId) / kFps;
  const double wall = s.drawn.back().seconds - from.seconds;
  ASSERT_GT(wall, 0);
  EXPECT_NEAR(media / wall, scale, 0.25 * scale) << "media " << media << " s in " << wall << " s; " << s.Summary();
  // At twice the speed a late frame is rather skipped than shown late; sanitizer builds fall behind
  // more often.
  const double share = scale <= 1 ? 0.9 : kSlowness > 1 ? 0.5 : 0.8;
  ExpectCleanPass(s.FrameIds(), *clip, "at clock scale " + std::to_string(scale) + ": " + s.Summary(), share);
  ExpectPaired(s, &m_log, m_player.id, s.Summary());
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
}

INSTANTIATE_TEST_SUITE_P(Scales, ClockScale, ::testing::Values(2.0f, 0.5f),
                         [](const ::testing::TestParamInfo<float>& param) {
                           return param.param > 1 ? std::string("TwiceAsFast") : std::string("HalfSpeed");
                         });

TEST(Players, FourPlayDifferentClipsAtOnce) {
  REQUIRE_TEST_DATA();
  const ClipFixtures::ClipContent contents[] = {Content(kH264, 7), Content(kHevc, 4), Content(kH264, 0, false, true, 30),
                                          Content(kHevc, 3, true, false, 36)};
  std::vector<std::shared_ptr<const PairingCheck::Clip>> clips;
  for (const auto& content : contents) clips.push_back(ExpectedClip(content));
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);
  const PluginApi& api = engine->Api();
  OzmPlatform::ScopedLogCapture log;

  std::vector<TestPlayer> players(clips.size());
  for (size_t i = 0; i < clips.size(); ++i) {
    ASSERT_EQ(clips[i]->Error(), "");
    ASSERT_TRUE(NewPlayer(*engine, clips[i]->Width(), &players[i]));
    players[i].slot->Set(clips[i]);
    const OzmOpenInfo open = OpenOptions();
    ASSERT_EQ(api.OpenLumoObject(players[i].id, clips[i]->Path().c_str(), &open), 1) << LastLines(log);
  }
  for (const TestPlayer& p : players) ASSERT_EQ(api.PlayLumoObject(p.id), 1);
  const bool ended = engine->WaitUntil(
      [&] {
        return std::all_of(players.begin(), players.end(), [&](const TestPlayer& p) { return Ended(*engine, p.id); });
      },
      Seconds(20));
  engine->WaitFrames(10, Seconds(5));
  for (size_t i = 0; i < players.size(); ++i) {
    const PlayerStats s = engine->Stats(players[i].id);
    const std::string what = contents[i].Name() + ": " + s.Summary();
    EXPECT_TRUE(ended) << what;
    EXPECT_EQ(s.endOfStreamFlags, 1u) << what;
    ExpectPaired(s, &log, players[i].id, what);
    ExpectCleanPass(s.FrameIds(), *clips[i], what);
  }
  for (const TestPlayer& p : players) EndPlayer(*engine, p);
}

// ---------------------------------------------------------------------------------------------------
// File information.

struct FileInfoCase {
  const char* name;
  ClipFixtures::ClipContent content;
};

void PrintTo(const FileInfoCase& c, std::ostream* os) { *os << c.name; }

class FileInfo : public ::testing::TestWithParam<FileInfoCase> {};

TEST_P(FileInfo, DescribesTheOpenedClip) {
  REQUIRE_TEST_DATA();
  const FileInfoCase& c = GetParam();
  auto clip = ExpectedClip(c.content);
  ASSERT_EQ(clip->Error(), "");
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);
  const PluginApi& api = engine->Api();
  OzmPlatform::ScopedLogCapture log;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(*engine, clip->Width(), &player));
  player.slot->Set(clip);
  const OzmOpenInfo open = OpenOptions();
  ASSERT_EQ(api.OpenLumoObject(player.id, clip->Path().c_str(), &open), 1) << LastLines(log);

  OzmFileInfo info{};
  EXPECT_EQ(api.GetLumoObjectFileInfo(player.id, &info), 0);
  EXPECT_EQ(info.frameCount, static_cast<uint32_t>(c.content.frames));
  EXPECT_EQ(info.textureWidth, c.content.size);
  EXPECT_EQ(info.textureHeight, c.content.size);
  EXPECT_EQ(info.hasAudio != 0, c.content.audio);
  EXPECT_NEAR(static_cast<double>(info.duration) / 1e7, c.content.frames / kFps, 2 / kFps);
  EXPECT_GE(info.maxVertexCount, clip->MaxVertices());
  EXPECT_GE(info.maxIndexCount, clip->MaxIndices());
  EXPECT_GT(info.fileSizeMB, 0.0f);
  // The box holds every vertex of every frame (give or take a quantisation step).
  float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
  for (const PairingCheck::ExpectedFrame& f : clip->Frames()) {
    for (size_t v = 0; v + 32 <= f.vertices.size(); v += 32) {
      float p[3];
      std::memcpy(p, &f.vertices[v], sizeof p);
      for (int a = 0; a < 3; ++a) {
        lo[a] = std::min(lo[a], p[a]);
        hi[a] = std::max(hi[a], p[a]);
      }
    }
  }
  for (int a = 0; a < 3; ++a) {
    ASSERT_LT(info.bboxMin[a], info.bboxMax[a]) << "axis " << a;
    const double slack = 0.01 * (info.bboxMax[a] - info.bboxMin[a]);
    EXPECT_LE(info.bboxMin[a], lo[a] + slack) << "axis " << a;
    EXPECT_GE(info.bboxMax[a], hi[a] - slack) << "axis " << a;
  }
  EndPlayer(*engine, player);
}

const FileInfoCase kFileInfoCases[] = {
    {"H264", Content(kH264, 7)},
    {"HevcWithAudio", Content(kHevc, 0, false, true)},
};
INSTANTIATE_TEST_SUITE_P(Clips, FileInfo, ::testing::ValuesIn(kFileInfoCases),
                         [](const ::testing::TestParamInfo<FileInfoCase>& param) {
                           return std::string(param.param.name);
                         });

// ---------------------------------------------------------------------------------------------------
// Bad input: refused with an error line, or (damage deep inside) played without crashing, and
// never a hang.

fs::path BadInputFolder() {
  const fs::path dir = ClipFixtures::Folder() / "bad-input";
  fs::create_directories(dir);
  return dir;
}

// Writes a file under a temporary name and renames it, so that concurrent test processes only ever
// see whole files.
std::string Publish(const fs::path& path, const std::function<bool(const std::string& part)>& write) {
  if (fs::exists(path)) return path.string();
  const std::string part = path.string() + ".part" + std::to_string(::getpid());
  if (!write(part)) {
    fs::remove(part);
    return "";
  }
  fs::rename(part, path);
  return path.string();
}

std::vector<char> ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteAll(const std::string& path, const char* data, size_t size) {
  std::ofstream out(path, std::ios::binary);
  out.write(data, static_cast<std::streamsize>(size));
  return static_cast<bool>(out);
}

bool Ffmpeg(const std::string& args, const std::string& out) {
  // The output format is named since the file name ends in ".part...".
  const std::string command = "ffmpeg -nostdin -v error -y " + args + " -f mp4 '" + out + "' 2>&1";
  return std::system(command.c_str()) == 0;
}

struct BadInput {
  const char* name;
  // Makes the file from a good clip; returns its path (empty when it cannot be made).
  std::function<std::string(const std::string& good)> make;
  bool mayPlay;  // damage deep inside: opening may succeed
};

const BadInput kBadInputs[] = {
    {"MissingFile", [](const std::string&) { return (BadInputFolder() / "not-there.mp4").string(); }, false},
    {"EmptyFile",
     [](const std::string&) {
       return Publish(BadInputFolder() / "empty.mp4", [](const std::string& p) { return WriteAll(p, "", 0); });
     },
     false},
    {"TruncatedToItsFirstHalf",
     [](const std::string& good) {
       return Publish(BadInputFolder() / "first-half.mp4", [&](const std::string& p) {
         const std::vector<char> bytes = ReadAll(good);
         return !bytes.empty() && WriteAll(p, bytes.data(), bytes.size() / 2);
       });
     },
     true},
    {"BitsFlippedAllOver",
     [](const std::string& good) {
       return Publish(BadInputFolder() / "flipped.mp4", [&](const std::string& p) {
         std::vector<char> bytes = ReadAll(good);
         // One byte in 97 inverted, from the file's first bytes to its last.
         for (size_t i = 5; i < bytes.size(); i += 97) bytes[i] = static_cast<char>(~bytes[i]);
         return !bytes.empty() && WriteAll(p, bytes.data(), bytes.size());
       });
     },
     true},
    {"PlainVideoWithoutMeshes",
     [](const std::string&) {
       return Publish(BadInputFolder() / "plain-video.mp4", [](const std::string& p) {
         return Ffmpeg("-f lavfi -i testsrc=size=128x128:rate=30 -t 1 -c:v libx264 -pix_fmt yuv420p", p);
       });
     },
     false},
    {"AudioOnly",
     [](const std::string&) {
       return Publish(BadInputFolder() / "audio-only.mp4", [](const std::string& p) {
         return Ffmpeg("-f lavfi -i sine=frequency=440:duration=1 -c:a aac", p);
       });
     },
     false},
    {"MovExtension",
     [](const std::string& good) {
       return Publish(BadInputFolder() / "clip.mov", [&](const std::string& p) { return fs::copy_file(good, p); });
     },
     false},
    {"UpperCaseExtension",
     [](const std::string& good) {
       return Publish(BadInputFolder() / "clip.MP4", [&](const std::string& p) { return fs::copy_file(good, p); });
     },
     false},
};

void PrintTo(const BadInput& c, std::ostream* os) { *os << c.name; }

class BadInputTest : public ::testing::TestWithParam<BadInput> {};

TEST_P(BadInputTest, IsRefusedOrPlayedSafely) {
  REQUIRE_TEST_DATA();
  const BadInput& c = GetParam();
  auto good = ExpectedClip(Content(kH264, 7));
  ASSERT_EQ(good->Error(), "");
  const std::string path = c.make(good->Path());
  ASSERT_FALSE(path.empty()) << "cannot make the file";
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);
  const PluginApi& api = engine->Api();
  OzmPlatform::ScopedLogCapture log;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(*engine, good->Width(), &player));
  player.slot->Set(good, /*damaged*/ true);

  const OzmOpenInfo open = OpenOptions();
  const auto start = std::chrono::steady_clock::now();
  const int opened = api.OpenLumoObject(player.id, path.c_str(), &open);
  EXPECT_LT(Elapsed(start), Seconds(5)) << "OpenLumoObject took long";
  if (!c.mayPlay) {
    EXPECT_EQ(opened, 0) << path;
  }
  if (opened == 0) {
    EXPECT_NE(api.GetLumoState(player.id), kLumoStateOpened);
    EXPECT_NE(api.GetLumoState(player.id), kLumoStatePlaying);
    EXPECT_GE(CountErrors(log), 1u) << "no error line for " << path << LastLines(log);
    // Playing a player that did not open does nothing harmful.
    api.PlayLumoObject(player.id);
    EXPECT_TRUE(engine->WaitFrames(5, Seconds(5)));
    EXPECT_EQ(engine->Stats(player.id).framesDrawn, 0u) << engine->Stats(player.id).Summary();
  } else {
    EXPECT_EQ(api.PlayLumoObject(player.id), 1);
    // It may end early, or stall on damage: either way it is closed after the clip's time.
    engine->WaitUntil([&] { return Ended(*engine, player.id); }, Seconds(5));
    engine->WaitFrames(5, Seconds(5));
    const PlayerStats s = engine->Stats(player.id);
    // A damaged mesh leaves its picture unpaired, which the player reports; the engine never sees a
    // wrong pair the player did not report (at full speed, none at all).
    EXPECT_LE(s.mismatched, kSlowness == 1 ? 0u : ReportedUnpaired(log, player.id)) << s.Summary();
    EXPECT_LE(s.endOfStreamFlags, 1u) << s.Summary();
    std::printf("[ info     ] %s opened and played: %s\n", c.name, s.Summary().c_str());
  }
  EndPlayer(*engine, player);
}

INSTANTIATE_TEST_SUITE_P(Files, BadInputTest, ::testing::ValuesIn(kBadInputs),
                         [](const ::testing::TestParamInfo<BadInput>& param) { return std::string(param.param.name); });

// ---------------------------------------------------------------------------------------------------
// Close and Destroy return promptly in every state.

enum class Reached { Initialized, Opened, Playing, Paused, Ended };

struct EndCase {
  const char* name;
  Reached state;
  bool close;  // Close before Destroy, or Destroy alone
};

void PrintTo(const EndCase& c, std::ostream* os) { *os << c.name; }

class Ending : public ::testing::TestWithParam<EndCase> {};

TEST_P(Ending, ReturnsPromptly) {
  REQUIRE_TEST_DATA();
  const EndCase& c = GetParam();
  auto clip = ExpectedClip(Content(kH264, 7));
  ASSERT_EQ(clip->Error(), "");
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);
  const PluginApi& api = engine->Api();
  OzmPlatform::ScopedLogCapture log;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(*engine, clip->Width(), &player));
  player.slot->Set(clip);
  const OzmOpenInfo open = OpenOptions();
  int expected = kLumoStateInitialized;
  if (c.state != Reached::Initialized) {
    ASSERT_EQ(api.OpenLumoObject(player.id, clip->Path().c_str(), &open), 1) << LastLines(log);
    expected = kLumoStateOpened;
  }
  if (c.state >= Reached::Playing) {
    ASSERT_EQ(api.PlayLumoObject(player.id), 1);
    expected = kLumoStatePlaying;
    ASSERT_TRUE(engine->WaitUntil([&] { return engine->Stats(player.id).framesDrawn >= 3; }, Seconds(10)))
        << engine->Stats(player.id).Summary() << LastLines(log);
  }
  if (c.state == Reached::Paused) {
    ASSERT_EQ(api.PauseLumoObject(player.id), 1);
    expected = kLumoStatePaused;
  }
  if (c.state == Reached::Ended) {
    ASSERT_TRUE(PlayToEnd(*engine, player.id, 24 / kFps)) << engine->Stats(player.id).Summary();
    expected = api.GetLumoState(player.id);
  }
  EXPECT_EQ(api.GetLumoState(player.id), expected);
  EndPlayer(*engine, player, c.close);
  ExpectPaired(engine->Stats(player.id), &log, player.id, engine->Stats(player.id).Summary());
}

const EndCase kEndCases[] = {
    {"CloseWhenInitialized", Reached::Initialized, true}, {"DestroyWhenInitialized", Reached::Initialized, false},
    {"CloseWhenOpened", Reached::Opened, true},           {"DestroyWhenOpened", Reached::Opened, false},
    {"CloseWhenPlaying", Reached::Playing, true},         {"DestroyWhenPlaying", Reached::Playing, false},
    {"CloseWhenPaused", Reached::Paused, true},           {"DestroyWhenPaused", Reached::Paused, false},
    {"CloseAfterTheEnd", Reached::Ended, true},           {"DestroyAfterTheEnd", Reached::Ended, false},
};
INSTANTIATE_TEST_SUITE_P(States, Ending, ::testing::ValuesIn(kEndCases),
                         [](const ::testing::TestParamInfo<EndCase>& param) { return std::string(param.param.name); });

// ---------------------------------------------------------------------------------------------------
// The built shared library, loaded as an engine loads it.

TEST(LoadedPlugin, PlaysAClipPaired) {
  REQUIRE_TEST_DATA();
  auto clip = ExpectedClip(Content(kHevc, 7));
  ASSERT_EQ(clip->Error(), "");
  std::string error;
  const PluginApi api = PluginApi::Load(OZM_PLUGIN_LIBRARY, &error);
  ASSERT_TRUE(api.Complete()) << error;
  EXPECT_NE(std::string(api.getPlatformABI()).find("ABI"), std::string::npos);
  // A second copy of the plug-in with its own engine and graphics device.
  HeadlessEngine engine(api);
  ASSERT_TRUE(engine.Start(&error)) << error;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(engine, clip->Width(), &player));
  player.slot->Set(clip);
  const OzmOpenInfo open = OpenOptions();
  ASSERT_EQ(api.OpenLumoObject(player.id, clip->Path().c_str(), &open), 1);
  ASSERT_EQ(api.PlayLumoObject(player.id), 1);
  const bool ended = PlayToEnd(engine, player.id, 24 / kFps);
  const PlayerStats s = engine.Stats(player.id);
  EXPECT_TRUE(ended) << s.Summary();
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
  ExpectPaired(s, nullptr, player.id, s.Summary());
  ExpectCleanPass(s.FrameIds(), *clip, s.Summary());
  EndPlayer(engine, player);
  engine.Stop();
}

TEST(LoadedPlugin, ALibraryWithoutTheFunctionsIsRefused) {
  std::string error;
  EXPECT_FALSE(PluginApi::Load("/nonexistent/libOzmUnityPlugin.so", &error).Complete());
  EXPECT_NE(error.find("cannot load"), std::string::npos) << error;
  error.clear();
  EXPECT_FALSE(PluginApi::Load("libc.so.6", &error).Complete());
  EXPECT_NE(error.find("does not export CreateLumoObject"), std::string::npos) << error;
}

}  // namespace
