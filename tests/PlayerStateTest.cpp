// The player through its C functions on fake ports: the registry, the state machine, the workers'
// flow control and shutdown, and the render step that pairs meshes with pictures.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "OzmCore/MeshFrame.h"
#include "OzmCore/MeshPayload.h"
#include "platform/Log.h"
#include "platform/host/LogCapture.h"
#include "player/FrameMatcher.h"
#include "plugin/OzmPluginApi.h"
#include "tests/MeshTestUtil.h"
#include "tests/fakes/FakePlatform.h"

using FakePorts::ClipOptions;
using FakePorts::FakePlatform;
using Ozm::MeshFrame;
using Clock = std::chrono::steady_clock;

namespace {

// The very first player of the process gets id 0, whatever test runs first.
class FirstIdEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    const int id = CreateLumoObject();
    EXPECT_EQ(id, 0);
    DestroyLumoObject(id);
  }
};
[[maybe_unused]] ::testing::Environment* const g_firstId = ::testing::AddGlobalTestEnvironment(new FirstIdEnvironment);

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 3000) {
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

double SecondsOf(const std::function<void()>& action) {
  const Clock::time_point start = Clock::now();
  action();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

int ThreadCount() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
  }
  return count;
}

OzmOpenInfo Options(bool audioDisabled = false, bool autoLooping = false) {
  OzmOpenInfo info{};
  info.audioDisabled = audioDisabled ? 1 : 0;
  info.autoLooping = autoLooping ? 1 : 0;
  return info;
}

ClipOptions Clip(int videoFrames, bool audio = false) {
  ClipOptions clip;
  clip.videoFrames = videoFrames;
  clip.audio = audio;
  return clip;
}

std::string Tagged(int id, const std::string& text) { return "[" + std::to_string(id) + "] " + text; }

enum class Start { Initialized, Opened, Playing, Paused, Closed, Ended };

const char* Name(Start s) {
  switch (s) {
    case Start::Initialized: return "Initialized";
    case Start::Opened: return "Opened";
    case Start::Playing: return "Playing";
    case Start::Paused: return "Paused";
    case Start::Closed: return "Closed";
    case Start::Ended: return "Ended";
  }
  return "?";
}

class PlayerTest : public ::testing::Test {
 protected:
  PlayerTest() {
    OzmPlatform::SetPlatform(&fake);
    UseClip(Clip(6));
  }
  ~PlayerTest() override {
    for (int id : m_players) DestroyLumoObject(id);
    OzmPlatform::SetPlatform(nullptr);
    if (HasFailure()) {
      const std::vector<std::string> texts = log.Texts();
      const size_t from = texts.size() > 150 ? texts.size() - 150 : 0;
      for (size_t i = from; i < texts.size(); ++i) std::fprintf(stderr, "  log: %s\n", texts[i].c_str());
    }
  }

  void UseClip(const ClipOptions& options) { fake.SetClip(FakePorts::MakeClip(options)); }

  int NewPlayer() {
    const int id = CreateLumoObject();
    m_players.push_back(id);
    return id;
  }
  void Destroyed(int id) { m_players.erase(std::remove(m_players.begin(), m_players.end(), id), m_players.end()); }

  int Open(int id, const OzmOpenInfo& info = Options()) { return OpenLumoObject(id, file.Path().c_str(), &info); }

  bool Logged(int id, const std::string& text) const { return log.Contains(Tagged(id, text)); }

  // A new player brought into the given state through the C functions.
  int PlayerIn(Start start, const OzmOpenInfo& info = Options()) {
    const int id = NewPlayer();
    if (start == Start::Initialized) return id;
    EXPECT_EQ(Open(id, info), 1) << Name(start);
    if (start == Start::Closed) {
      EXPECT_EQ(CloseLumoObject(id), 1);
    }
    if (start == Start::Playing || start == Start::Paused || start == Start::Ended) {
      EXPECT_EQ(PlayLumoObject(id), 1);
    }
    if (start == Start::Paused) {
      EXPECT_EQ(PauseLumoObject(id), 1);
    }
    if (start == Start::Ended) {
      EXPECT_TRUE(WaitUntil([&] { return Logged(id, "Video output EOS"); }));
    }
    return id;
  }

  OzmPlatform::ScopedLogCapture log;
  FakePlatform fake;
  FakePorts::TempFile file{".mp4"};

 private:
  std::vector<int> m_players;
};

// ---------------------------------------------------------------------------------------------
// Registry and information records.

TEST_F(PlayerTest, IdsCountUpAndUnknownIdsAreAnsweredAsDocumented) {
  const int a = NewPlayer();
  const int b = NewPlayer();
  EXPECT_EQ(b, a + 1);
  EXPECT_EQ(GetLumoState(b), kLumoStateInitialized);
  EXPECT_EQ(DestroyLumoObject(a), 1);
  Destroyed(a);
  EXPECT_EQ(NewPlayer(), b + 1);  // ids are never reused

  log.Clear();
  EXPECT_EQ(GetLumoState(a), kLumoStateUnknownId);
  const std::vector<OzmPlatform::LogLine> lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "GetLumoState: player object with id = " + std::to_string(a) + " not found");
  EXPECT_EQ(lines[0].priority, OzmPlatform::kLogError);

  // These two stay silent about unknown ids.
  log.Clear();
  const OzmOpenInfo info = Options();
  EXPECT_EQ(OpenLumoObject(a, file.Path().c_str(), &info), 0);
  EXPECT_EQ(SetUnityBuffers(a, 1, 64, 64, 2, 100, 3, 300), 0);
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(fake.ExtractorsMade(), 0);

  EXPECT_NE(std::string(getPlatformABI()).find("%s"), std::string::npos);
}

TEST_F(PlayerTest, FrameInfoBeforeTheFirstFrameCarriesOnlyTheTextureSizeOfTheFileInfo) {
  ClipOptions clip = Clip(4);
  clip.width = 96;
  clip.height = 48;
  UseClip(clip);
  const int id = PlayerIn(Start::Opened);
  const OzmFrameInfo zero{};
  OzmFrameInfo frame;
  std::memset(&frame, 0x5A, sizeof(frame));
  EXPECT_EQ(GetLumoObjectFrameInfo(id, &frame), 1);
  EXPECT_EQ(std::memcmp(&frame, &zero, sizeof(frame)), 0);

  OzmFileInfo fileInfo{};
  EXPECT_EQ(GetLumoObjectFileInfo(id, &fileInfo), 0);  // 0 although it filled the record
  EXPECT_EQ(fileInfo.textureWidth, 96);
  EXPECT_EQ(fileInfo.textureHeight, 48);

  std::memset(&frame, 0x5A, sizeof(frame));
  EXPECT_EQ(GetLumoObjectFrameInfo(id, &frame), 1);
  EXPECT_EQ(frame.textureWidth, 96u);
  EXPECT_EQ(frame.textureHeight, 48u);
  frame.textureWidth = frame.textureHeight = 0;
  EXPECT_EQ(std::memcmp(&frame, &zero, sizeof(frame)), 0);
}

// ---------------------------------------------------------------------------------------------
// State machine.

TEST_F(PlayerTest, StateChangesFollowTheTable) {
  enum class Action { Open, Play, Pause, Rewind, Close };
  struct Case {
    Start start;
    Action action;
    int result;
    int state;
  };
  const Case cases[] = {
      {Start::Initialized, Action::Play, 0, kLumoStateInitialized},
      {Start::Initialized, Action::Pause, 0, kLumoStateInitialized},
      {Start::Opened, Action::Play, 1, kLumoStatePlaying},
      {Start::Opened, Action::Pause, 0, kLumoStateOpened},
      {Start::Playing, Action::Open, 0, kLumoStatePlaying},
      {Start::Playing, Action::Play, 0, kLumoStatePlaying},
      {Start::Playing, Action::Pause, 1, kLumoStatePaused},
      {Start::Paused, Action::Play, 1, kLumoStatePlaying},
      {Start::Paused, Action::Pause, 0, kLumoStatePaused},
      {Start::Closed, Action::Open, 1, kLumoStateOpened},
      // The state changes although there is nothing to play.
      {Start::Closed, Action::Play, 0, kLumoStatePlaying},
      {Start::Closed, Action::Close, 1, kLumoStateClosed},
      {Start::Ended, Action::Pause, 1, kLumoStatePaused},
      {Start::Initialized, Action::Rewind, 1, kLumoStatePaused},
      {Start::Opened, Action::Rewind, 1, kLumoStatePaused},
      {Start::Playing, Action::Rewind, 1, kLumoStatePaused},
      {Start::Paused, Action::Rewind, 1, kLumoStatePaused},
      {Start::Closed, Action::Rewind, 1, kLumoStatePaused},
      {Start::Ended, Action::Rewind, 1, kLumoStatePaused},
  };
  for (const Case& c : cases) {
    const int id = PlayerIn(c.start);
    int result = -1;
    switch (c.action) {
      case Action::Open: result = Open(id); break;
      case Action::Play: result = PlayLumoObject(id); break;
      case Action::Pause: result = PauseLumoObject(id); break;
      case Action::Rewind: result = RewindLumoObject(id); break;
      case Action::Close: result = CloseLumoObject(id); break;
    }
    const int row = static_cast<int>(&c - cases);
    EXPECT_EQ(result, c.result) << "row " << row << " from " << Name(c.start);
    EXPECT_EQ(GetLumoState(id), c.state) << "row " << row << " from " << Name(c.start);
    EXPECT_EQ(DestroyLumoObject(id), 1);
    Destroyed(id);
  }
}

TEST_F(PlayerTest, ExtensionsAreExactAndCaseSensitive) {
  const int id = NewPlayer();
  const OzmOpenInfo info = Options();
  log.Clear();
  EXPECT_EQ(OpenLumoObject(id, "/tmp/clip.MP4", &info), 0);
  bool refused = false;
  for (const std::string& text : log.Texts()) refused |= text.find("unrecognized file extension") != std::string::npos;
  EXPECT_TRUE(refused);

  log.Clear();
  EXPECT_EQ(OpenLumoObject(id, "/tmp/clip", &info), 0);
  bool found = false;
  for (const OzmPlatform::LogLine& line : log.Lines()) {
    if (line.text == "No file extension found in path /tmp/clip") {
      found = true;
      EXPECT_EQ(line.priority, OzmPlatform::kLogInfo);
    }
  }
  EXPECT_TRUE(found);
  EXPECT_EQ(fake.ExtractorsMade(), 0);
  EXPECT_EQ(GetLumoState(id), kLumoStateInitialized);
  EXPECT_EQ(Open(id), 1);
}

TEST_F(PlayerTest, ReopenClosesTheOldInputAndStartsNoThreads) {
  UseClip(Clip(6, true));
  const int id = PlayerIn(Start::Opened);
  const int threads = ThreadCount();
  EXPECT_EQ(fake.LiveExtractors(), 1);

  EXPECT_EQ(Open(id), 1);
  EXPECT_EQ(GetLumoState(id), kLumoStateOpened);
  EXPECT_EQ(fake.ExtractorsMade(), 2);
  EXPECT_EQ(fake.LiveExtractors(), 1);
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_EQ(fake.SurfaceTexturesMade(), 1);

  // The new input plays from its first sample.
  EXPECT_EQ(PlayLumoObject(id), 1);
  EXPECT_TRUE(WaitUntil([&] { return fake.Stats("video/").eosInputs == 1; }));
  EXPECT_EQ(fake.Stats("video/").inputTimesUs.size(), 6u);
}

TEST_F(PlayerTest, DisabledAudioGetsNoAudioDecoder) {
  UseClip(Clip(4, true));
  const int muted = PlayerIn(Start::Opened, Options(true));
  EXPECT_EQ(fake.DecodersMade("audio/"), 0);
  EXPECT_EQ(PlayLumoObject(muted), 1);
  EXPECT_TRUE(WaitUntil([&] { return Logged(muted, "Video output EOS"); }));
  EXPECT_EQ(fake.AudioTracksMade(), 0);

  const int withAudio = PlayerIn(Start::Playing);
  EXPECT_EQ(fake.DecodersMade("audio/"), 1);
  EXPECT_TRUE(WaitUntil([&] { return Logged(withAudio, "Audio output EOS"); }));
  EXPECT_EQ(fake.AudioBytesWritten(), 4 * 256);
}

// ---------------------------------------------------------------------------------------------
// Workers.

TEST_F(PlayerTest, PumpHoldsBackTheNinthVideoSampleUntilTheRenderStepTakesFrames) {
  UseClip(Clip(14));
  fake.SetCodecPools(8, 8);
  const int id = PlayerIn(Start::Playing);
  ASSERT_TRUE(WaitUntil([&] { return fake.ReadCount(7) == 1; }));
  SleepMs(250);
  EXPECT_EQ(fake.ReadCount(8), 0);
  EXPECT_EQ(fake.Stats("video/").inputTimesUs.size(), 8u);
  EXPECT_EQ(GetLumoState(id), kLumoStatePlaying);
}

TEST_F(PlayerTest, EndOfFileQueuesOneEndOfStreamPerDecoderAndReportsItOnce) {
  UseClip(Clip(6, true));
  const int id = PlayerIn(Start::Playing);
  ASSERT_TRUE(WaitUntil([&] { return Logged(id, "input EOS"); }));
  int reports = 0;
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(400);
  while (Clock::now() < end) {
    OzmFrameInfo frame{};
    GetLumoObjectFrameInfo(id, &frame);
    reports += frame.endOfStream;
    SleepMs(3);
  }
  EXPECT_EQ(fake.Stats("video/").eosInputs, 1);
  EXPECT_EQ(fake.Stats("audio/").eosInputs, 1);
  EXPECT_EQ(fake.Stats("video/").eosOutputs, 1);
  EXPECT_EQ(reports, 1);
  EXPECT_EQ(log.Count(Tagged(id, "input EOS")), 1u);
  EXPECT_EQ(GetLumoState(id), kLumoStatePlaying);
  // The pump went to sleep after the end and stays there.
  const std::vector<std::string> texts = log.Texts();
  const auto eos = std::find(texts.begin(), texts.end(), Tagged(id, "input EOS"));
  EXPECT_NE(std::find(eos, texts.end(), Tagged(id, "Playback thread sleeping")), texts.end());
  EXPECT_EQ(std::find(eos, texts.end(), Tagged(id, "Playback thread is awake")), texts.end());
}

TEST_F(PlayerTest, AutoLoopingRestartsWithTheClockReset) {
  ClipOptions clip = Clip(6);
  clip.firstTimeUs = 5000;
  UseClip(clip);
  const int id = PlayerIn(Start::Playing, Options(false, true));
  // A scale set while playing re-bases the clock at the current sample.
  ASSERT_TRUE(WaitUntil([&] { return fake.ReadCount(3) > 0; }));
  EXPECT_EQ(SetClockScale(id, 1.0f), 1);
  ASSERT_TRUE(WaitUntil([&] { return fake.Stats("video/").inputTimesUs.size() > 6; }));
  const std::vector<int64_t> times = fake.Stats("video/").inputTimesUs;
  for (size_t k = 0; k < 6; ++k) EXPECT_EQ(times[k], 5000 + static_cast<int64_t>(k) * 10000) << k;
  EXPECT_EQ(times[6], 5000);
  EXPECT_GE(fake.Stats("video/").flushes, 1);
  EXPECT_EQ(GetLumoState(id), kLumoStatePlaying);
}

// A decoder that holds pictures back (reordering) and a pause that latched pictures without showing
// them: their meshes must not keep mesh-work slots, or the pump can never feed the decoder the
// pictures it needs before it puts out the next one.
TEST_F(PlayerTest, PlaysOnAfterAPauseLatchedPicturesItDidNotShow) {
  fake.SetCodecPools(12, 4);
  fake.SetVideoDecoderDelay(5);
  UseClip(Clip(20));
  const int id = PlayerIn(Start::Playing);
  std::vector<uint8_t> vertices(64 * 32);
  std::vector<uint32_t> indices(256);
  auto renderStep = [&] { OnUnrealRenderEvent(id, vertices.data(), indices.data(), 64, 256, 0, 64, 32); };
  // No render step yet: eight samples in, three pictures out (at 10 ms each), five in the decoder.
  ASSERT_TRUE(WaitUntil([&] { return fake.Stats("video/").inputTimesUs.size() == 8; }));
  SleepMs(100);
  EXPECT_EQ(PauseLumoObject(id), 1);
  renderStep();
  EXPECT_TRUE(Logged(id, "OnUnrealRender: state = 4, bailing"));
  OzmFrameInfo frame{};
  GetLumoObjectFrameInfo(id, &frame);
  EXPECT_EQ(frame.frameId, 0u) << "nothing was shown, so there is no frame to describe";

  EXPECT_EQ(PlayLumoObject(id), 1);
  const bool ended = WaitUntil([&] {
    renderStep();
    return Logged(id, "Video output EOS");
  });
  EXPECT_TRUE(ended) << "samples fed: " << fake.Stats("video/").inputTimesUs.size();
}

TEST_F(PlayerTest, RewindThenPlayStartsFromTheFirstSample) {
  UseClip(Clip(14));
  const int id = PlayerIn(Start::Playing);
  ASSERT_TRUE(WaitUntil([&] { return fake.Stats("video/").inputTimesUs.size() >= 4; }));
  // A scale set while playing re-bases the clock at the current sample; the rewound clip starts
  // over at its own times.
  EXPECT_EQ(SetClockScale(id, 1.0f), 1);
  EXPECT_EQ(RewindLumoObject(id), 1);
  EXPECT_EQ(GetLumoState(id), kLumoStatePaused);
  const size_t before = fake.Stats("video/").inputTimesUs.size();
  EXPECT_EQ(PlayLumoObject(id), 1);
  ASSERT_TRUE(WaitUntil([&] { return fake.Stats("video/").inputTimesUs.size() > before + 1; }));
  const std::vector<int64_t> times = fake.Stats("video/").inputTimesUs;
  EXPECT_EQ(times[before], 0);
  EXPECT_EQ(times[before + 1], 10000);
}

TEST_F(PlayerTest, CloseAndDestroyReturnPromptlyInEveryState) {
  for (const Start start : {Start::Initialized, Start::Opened, Start::Playing, Start::Paused, Start::Ended}) {
    for (const bool closeFirst : {true, false}) {
      // Playing: more frames than the pump may hand on, so that it blocks; the others reach the end.
      UseClip(Clip(start == Start::Playing ? 14 : 6, true));
      const int textures = fake.SurfaceTexturesMade();
      const int id = PlayerIn(start);
      if (start == Start::Playing) SleepMs(30);  // the pump is blocked on its eight frames by now
      if (closeFirst) {
        int closed = 0;
        EXPECT_LT(SecondsOf([&] { closed = CloseLumoObject(id); }), 2.0) << Name(start);
        EXPECT_EQ(closed, 1);
        EXPECT_EQ(CloseLumoObject(id), 1) << Name(start);
        EXPECT_EQ(GetLumoState(id), kLumoStateClosed);
      }
      EXPECT_LT(SecondsOf([&] { DestroyLumoObject(id); }), 2.0) << Name(start) << (closeFirst ? " closed" : "");
      Destroyed(id);
      if (start == Start::Initialized) {
        EXPECT_EQ(fake.SurfaceTexturesMade(), textures);
      }
    }
  }
  EXPECT_EQ(fake.LiveExtractors(), 0);
  EXPECT_EQ(fake.SurfaceTexturesReleased(), fake.SurfaceTexturesMade());
}

TEST_F(PlayerTest, CloseIsPromptWhileTheVideoThreadWaitsForALatePicture) {
  ClipOptions clip;
  clip.videoTimesUs = {0, 10000, 20000, 8000000};
  UseClip(clip);
  const int id = PlayerIn(Start::Playing);
  // Three pictures are out; the video thread now waits for the fourth, eight seconds later.
  ASSERT_TRUE(WaitUntil([&] { return fake.LastSurfaceTexture()->Posted() == 3; }));
  SleepMs(50);
  EXPECT_LT(SecondsOf([&] { CloseLumoObject(id); }), 2.0);
  EXPECT_LT(SecondsOf([&] { DestroyLumoObject(id); }), 2.0);
  Destroyed(id);
}

TEST_F(PlayerTest, DestroyWhileOpenWaitsForTheVideoSurface) {
  fake.SetSurfaceDelayMs(700);
  const int id = NewPlayer();
  int opened = -1;
  std::thread open([&] { opened = Open(id); });
  ASSERT_TRUE(WaitUntil([&] { return fake.SurfaceCreationsStarted() == 1; }));
  SleepMs(30);
  EXPECT_LT(SecondsOf([&] { DestroyLumoObject(id); }), 2.0);
  Destroyed(id);
  open.join();
  EXPECT_EQ(opened, 0);
  EXPECT_TRUE(Logged(id, "Open aborted (shutting down)"));
}

// The engine's script thread drives the player while its render thread runs both render steps and
// reads the records: nothing may race (ThreadSanitizer runs this too) and the player ends usable.
TEST_F(PlayerTest, ScriptAndRenderThreadsDriveThePlayerTogether) {
  UseClip(Clip(14, true));
  const int id = PlayerIn(Start::Opened);
  std::atomic<bool> stop{false};
  std::thread render([&] {
    std::vector<uint8_t> vertices(64 * 32);
    std::vector<uint32_t> indices(256);
    while (!stop.load()) {
      OnUnrealRenderEvent(id, vertices.data(), indices.data(), 64, 256, 0, 64, 32);
      OnUnityRenderModeEvent(id);
      OzmFrameInfo frame{};
      GetLumoObjectFrameInfo(id, &frame);
      OzmFileInfo info{};
      GetLumoObjectFileInfo(id, &info);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  const std::vector<std::function<int()>> steps = {
      [&] { return PlayLumoObject(id); },
      [&] { return SetClockScale(id, 2.0f); },
      [&] { return PauseLumoObject(id); },
      [&] { return PlayLumoObject(id); },
      [&] { return SetUnityBuffers(id, 0, 64, 32, 0, 64, 0, 256); },
      [&] { return RewindLumoObject(id); },
      [&] { return PlayLumoObject(id); },
      [&] { return SetAudioVolume(id, 0.5f); },
      [&] { return SetComputeNormals(id, 0); },
      [&] { return CloseLumoObject(id); },
      [&] { return Open(id); },
      [&] { return PlayLumoObject(id); },
  };
  for (const auto& step : steps) {
    EXPECT_EQ(step(), 1) << "step " << (&step - steps.data());
    SleepMs(25);
  }
  stop.store(true);
  render.join();
  EXPECT_EQ(GetLumoState(id), kLumoStatePlaying);
  EXPECT_LT(SecondsOf([&] { DestroyLumoObject(id); }), 2.0);
  Destroyed(id);
}

// ---------------------------------------------------------------------------------------------
// Render step.

// Mesh frames of the given timestamps (-1: none), and the timestamps of a queue.
std::deque<std::shared_ptr<MeshFrame>> FramesAt(const std::vector<long long>& ns) {
  std::deque<std::shared_ptr<MeshFrame>> queue;
  for (long long t : ns) queue.push_back(std::make_shared<MeshFrame>(nullptr, nullptr, t));
  return queue;
}
std::shared_ptr<MeshFrame> FrameAt(long long ns) {
  return ns < 0 ? nullptr : std::make_shared<MeshFrame>(nullptr, nullptr, ns);
}
std::vector<long long> TimestampsOf(const std::deque<std::shared_ptr<MeshFrame>>& queue) {
  std::vector<long long> ns;
  for (const auto& f : queue) ns.push_back(f->Timestamp());
  return ns;
}

TEST(FrameMatcher, AdvancesToThePictureAndThrowsAwayLeftoversAfterARestart) {
  const int64_t threshold = (1000000000LL / 30) * 10;
  ASSERT_EQ(threshold, 333333330);
  struct Case {
    const char* name;
    std::vector<long long> queueNs;
    long long currentNs;  // -1: no current frame
    long long pictureNs;
    bool pendingRestart;
    long long expectCurrentNs;  // -1: none
    std::vector<long long> expectQueueNs;
    int slotsBack;
    int discarded;
    bool restartHandled;
  };
  const Case cases[] = {
      {"older frames dropped", {0, 33000000, 66000000}, -1, 33000000, false, 33000000, {66000000}, 2, 0, false},
      {"current already there", {66000000}, 33000000, 33000000, false, 33000000, {66000000}, 0, 0, false},
      {"no exact match", {33000000, 66000000}, -1, 40000000, false, 66000000, {}, 2, 0, false},
      {"leftovers of the last pass", {10000000000, 0, 33333000}, 9966666000, 0, true, 0, {33333000}, 2, 2, true},
      {"restart with nothing queued", {}, 9966666000, 0, true, 9966666000, {}, 0, 0, false},
      {"restart, current within the threshold", {33333000}, 300000000, 0, true, 300000000, {33333000}, 0, 0, false},
  };
  for (const Case& c : cases) {
    std::deque<std::shared_ptr<MeshFrame>> queue = FramesAt(c.queueNs);
    std::shared_ptr<MeshFrame> current = FrameAt(c.currentNs);
    const FrameAdvance a = AdvanceToPicture(queue, current, c.pictureNs, c.pendingRestart, threshold);
    EXPECT_EQ(a.slotsBack, c.slotsBack) << c.name;
    EXPECT_EQ(a.discarded, c.discarded) << c.name;
    EXPECT_EQ(a.restartHandled, c.restartHandled) << c.name;
    EXPECT_EQ(current ? current->Timestamp() : -1, c.expectCurrentNs) << c.name;
    EXPECT_EQ(TimestampsOf(queue), c.expectQueueNs) << c.name;
  }
}

TEST(FrameMatcher, PicturesLatchedButNotShownGiveTheirMeshesSlotsBack) {
  const int64_t threshold = (1000000000LL / 30) * 10;
  struct Case {
    const char* name;
    std::vector<long long> queueNs;
    long long currentNs;  // -1: no current frame
    long long pictureNs;
    bool pendingRestart;
    std::vector<long long> expectQueueNs;
  };
  const Case cases[] = {
      {"the picture's mesh and older ones", {10, 20, 30, 40}, 0, 30, false, {40}},
      {"a later picture's mesh stays", {40, 50}, 0, 30, false, {40, 50}},
      {"nothing queued", {}, 0, 30, false, {}},
      {"no mesh for the picture", {20, 40}, -1, 30, false, {40}},
      {"leftovers of the last pass", {9966666000, 0, 33333000}, 9933333000, 0, true, {33333000}},
      {"the last pass's tail, new pass queued", {9966666000, 0}, 9933333000, 9966666000, true, {0}},
  };
  for (const Case& c : cases) {
    std::deque<std::shared_ptr<MeshFrame>> queue = FramesAt(c.queueNs);
    const std::shared_ptr<MeshFrame> current = FrameAt(c.currentNs);
    const int dropped = DropUnshownFrames(queue, current, c.pictureNs, c.pendingRestart, threshold);
    EXPECT_EQ(dropped, static_cast<int>(c.queueNs.size() - queue.size())) << c.name;
    EXPECT_EQ(current ? current->Timestamp() : -1, c.currentNs) << c.name << ": the shown frame stays current";
    EXPECT_EQ(TimestampsOf(queue), c.expectQueueNs) << c.name;
  }
}

TEST(FrameMatcher, ScaledPresentationTimeRebasesWhereTheScaleChanged) {
  EXPECT_EQ(ScaledPresentationTime(12000000, 10000000, 10000000, 2.0f), 11000000);
  EXPECT_EQ(ScaledPresentationTime(10000000, 10000000, 10000000, 2.0f), 10000000);
  EXPECT_EQ(ScaledPresentationTime(12000000, 10000000, 10000000, 0.5f), 14000000);
  // Exact while the time fits the float's 24-bit mantissa (16.7 s).
  for (int64_t t : {0LL, 1LL, 33333LL, 16777216LL}) EXPECT_EQ(ScaledPresentationTime(t, 0, 0, 1.0f), t) << t;
}

// The engine-memory variant of the render step over a whole clip: whenever a mesh is copied, it is
// the mesh of the latched picture, byte for byte.
TEST_F(PlayerTest, RenderStepCopiesExactlyTheMeshOfTheLatchedPicture) {
  constexpr int kFrames = 30;
  constexpr int kVertexCapacity = 64, kIndexCapacity = 256;
  UseClip(Clip(kFrames, true));

  // What each frame's copy must look like, made the way the player decodes (vertex format 0xd,
  // normals computed).
  std::vector<std::vector<uint8_t>> expected;
  {
    MeshTest::Reader reader(0xd);
    for (const FakePorts::SampleSpec& sample : fake.Clip().samples) {
      if (sample.track != 0) continue;
      OZMCORE::CComPtr<OzmCrossPlatform::Stream> mesh(
          OzmCrossPlatform::FindCompressedMesh(sample.bytes.data(), static_cast<unsigned int>(sample.bytes.size())));
      ASSERT_TRUE(mesh.Get());
      std::shared_ptr<MeshFrame> frame = Ozm::DecodeMeshFrame(reader.reader, mesh);
      ASSERT_TRUE(frame);
      std::vector<uint8_t> vertices(kVertexCapacity * 32, 0xEE);
      std::vector<uint32_t> indices(kIndexCapacity);
      frame->CopyToNativeBuffers(vertices.data(), indices.data(), kIndexCapacity, kVertexCapacity, true, true);
      vertices.resize(frame->NumVertices() * 32);
      expected.push_back(vertices);
    }
  }
  ASSERT_EQ(expected.size(), static_cast<size_t>(kFrames));
  ASSERT_NE(expected[0], expected[1]);

  const int id = PlayerIn(Start::Playing);
  std::vector<uint8_t> vertices(kVertexCapacity * 32);
  std::vector<uint32_t> indices(kIndexCapacity);
  std::vector<bool> copied(kFrames, false);
  int reports = 0;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(4);
  bool ended = false;
  Clock::time_point endedAt;
  while (Clock::now() < end && !(ended && Clock::now() > endedAt + std::chrono::milliseconds(150))) {
    std::fill(vertices.begin(), vertices.end(), 0xEE);
    OnUnrealRenderEvent(id, vertices.data(), indices.data(), kVertexCapacity, kIndexCapacity, 0, 64, 32);
    OzmFrameInfo info{};
    EXPECT_EQ(GetLumoObjectFrameInfo(id, &info), 1);
    reports += info.endOfStream;
    if (!ended && Logged(id, "Video output EOS")) {
      ended = true;
      endedAt = Clock::now();
    }
    if (vertices[0] == 0xEE && vertices[1] == 0xEE) {
      SleepMs(2);
      continue;
    }
    const int64_t latchedUs = fake.LastSurfaceTexture()->LatchedPtsUs();
    EXPECT_EQ(info.timestamp * 100, latchedUs * 1000);
    ASSERT_GE(info.frameId, 1u);
    ASSERT_LE(info.frameId, static_cast<uint32_t>(kFrames));
    const std::vector<uint8_t>& want = expected[info.frameId - 1];
    EXPECT_EQ(info.timestamp, static_cast<int64_t>(info.frameId - 1) * 100000);
    EXPECT_EQ(std::memcmp(vertices.data(), want.data(), want.size()), 0) << "frame " << info.frameId;
    EXPECT_FALSE(copied[info.frameId - 1]) << "frame " << info.frameId << " copied twice";
    copied[info.frameId - 1] = true;
  }
  EXPECT_TRUE(ended);
  EXPECT_GE(std::count(copied.begin(), copied.end(), true), kFrames / 2);
  EXPECT_EQ(reports, 1);
}

}  // namespace
