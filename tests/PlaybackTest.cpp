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
#include "tests/PlaybackSupport.h"
#include "tools/ozm/PairingCheck.h"

namespace {

using namespace PlaybackSupport;

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
  // Each pass begins at the start. On a loaded machine the render thread may latch the second
  // picture of a pass before it saw the first (it shows the newest), so the first shown may be either.
  for (size_t p = 1; p < passes.size(); ++p) {
    EXPECT_LE(passes[p].front(), clip->Frames()[1].frameId) << "pass " << p + 1 << " did not begin at the start";
  }
  ExpectPaired(s, &m_log, m_player.id, s.Summary());
  EXPECT_EQ(Api().GetLumoState(m_player.id), kLumoStatePlaying);
}

TEST_F(Playback, RewindThenPlayStartsFromTheBeginning) {
  auto clip = ExpectedClip(Content(kH264, 4));
  ASSERT_NO_FATAL_FAILURE(Open(clip));
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);

  // Midway through the clip: a third of it shown. A loaded machine may skip frames, so this waits for
  // the frame shown rather than for a count of frames.
  ASSERT_TRUE(m_engine->WaitUntil(
      [&] {
        const PlayerStats s = Stats();
        return !s.drawn.empty() && s.drawn.back().frameId >= clip->Frames()[7].frameId;
      },
      Seconds(10)))
      << Stats().Summary() << LastLines(m_log);
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
  const double playedAt = m_engine->Now();
  ASSERT_EQ(Api().PlayLumoObject(m_player.id), 1);
  const double clipSeconds = 48 / kFps;
  ASSERT_TRUE(PlayToEnd(*m_engine, m_player.id, clipSeconds / scale)) << Stats().Summary() << LastLines(m_log);
  const PlayerStats s = Stats();
  ASSERT_GE(s.drawn.size(), 10u) << s.Summary();
  // The presentation time of every frame is the clip's time stretched by the scale.
  for (const OzmEngine::DrawnRecord& d : s.drawn) {
    EXPECT_NEAR(static_cast<double>(d.timestamp) * 1e-7 * scale, (d.frameId - 1) / kFps, 1e-3)
        << "frame id " << d.frameId << "; " << s.Summary();
  }
  // No picture shows before its time, counted from Play: the last one not before the clip's length
  // divided by the scale. Nor much later: a machine that is slow (the sanitizers) may be late, never
  // early.
  const double lastShown = s.drawn.back().seconds - playedAt;
  const double lastDue = static_cast<double>(s.drawn.back().timestamp) * 1e-7;
  EXPECT_GE(lastShown, lastDue - 0.005) << s.Summary();
  EXPECT_LE(lastShown, lastDue + Seconds(0.5)) << s.Summary();
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
  const ClipFixtures::ClipContent contents[] = {Content(kH264, 7), Content(kHevc, 4),
                                                Content(kH264, 0, false, true, 30), Content(kHevc, 3, true, false, 36)};
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
