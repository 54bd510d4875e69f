// HLS streams played end to end as an engine plays them: through the plug-in's C functions, in the
// headless engine, served by a real HTTP server process on the loopback interface (or read from a
// local playlist). The streams are our encoder's HLS output; what the engine must receive comes from
// the same content encoded as an MP4, so every drawn frame is checked exactly as in the MP4 tests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>

#include "OzmCore/MeshPayload.h"
#include "tests/LoopbackHttpServer.h"
#include "tests/PlaybackSupport.h"

namespace {

using namespace PlaybackSupport;
using OzmTest::LoopbackHttpServer;
using OzmTest::LoopbackServerOptions;

constexpr int kFrames = 48;

// Where the host backend keeps downloaded files during these tests: a folder of the test's own, so
// that the test can see the stream clean up after itself.
std::filesystem::path DownloadFolder() {
  static const std::filesystem::path folder = [] {
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("ozm-hls-test-" + std::to_string(::getpid()));
    std::filesystem::create_directories(path);
    ::setenv("OZM_DOWNLOAD_DIR", path.c_str(), 1);
    return path;
  }();
  return folder;
}

class HlsEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    DownloadFolder();
    OzmCrossPlatform::AllowLoopbackStreamingURLs(true);
  }
  void TearDown() override {
    OzmCrossPlatform::AllowLoopbackStreamingURLs(false);
    std::error_code error;
    std::filesystem::remove_all(DownloadFolder(), error);
  }
};
[[maybe_unused]] auto* const g_hlsEnvironment = ::testing::AddGlobalTestEnvironment(new HlsEnvironment);

// Segments of six frames (a fifth of a second), each beginning with a key frame: eight of them.
ClipFixtures::ClipContent HlsContent(OzmTool::VideoCodec codec, bool audio) {
  ClipFixtures::ClipContent content = Content(codec, 7, false, audio, kFrames);
  content.keyInterval = 6;
  content.container = "m3u8";
  content.segmentSeconds = 0.2;
  return content;
}

// The same frames as one MP4: what the engine must receive.
std::shared_ptr<const PairingCheck::Clip> ExpectedFrames(ClipFixtures::ClipContent content) {
  content.container = "mp4";
  content.segmentSeconds = 2;
  return ExpectedClip(content);
}

size_t FilesIn(const std::filesystem::path& folder) {
  size_t count = 0;
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(folder, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    count += it->is_regular_file() ? 1 : 0;
  }
  return count;
}

// Plays `path` to its end in a new player and checks every drawn frame; returns the engine's view.
PlayerStats PlayStream(HeadlessEngine& engine, const std::string& path,
                       const std::shared_ptr<const PairingCheck::Clip>& clip, const OzmPlatform::ScopedLogCapture& log,
                       const OzmOpenInfo& open = OpenOptions()) {
  TestPlayer player;
  if (!NewPlayer(engine, clip->Width(), &player)) return {};
  player.slot->Set(clip);
  const PluginApi& api = engine.Api();
  EXPECT_EQ(api.OpenLumoObject(player.id, path.c_str(), &open), 1) << LastLines(log);
  EXPECT_EQ(api.PlayLumoObject(player.id), 1);
  const bool ended = PlayToEnd(engine, player.id, kFrames / kFps);
  const PlayerStats s = engine.Stats(player.id);
  EXPECT_TRUE(ended) << "no end of stream: " << s.Summary() << LastLines(log);
  EXPECT_EQ(s.endOfStreamFlags, 1u) << s.Summary();
  EXPECT_EQ(s.paired + s.mismatched, s.framesDrawn) << s.Summary();
  ExpectPaired(s, &log, player.id, s.Summary());
  ExpectCleanPass(s.FrameIds(), *clip, s.Summary());
  EndPlayer(engine, player);
  return s;
}

// ---------------------------------------------------------------------------------------------------
// Every kind of stream plays to its end over HTTP, each segment downloaded once.

struct StreamCase {
  const char* name;
  OzmTool::VideoCodec codec;
  bool audio;
};

class OverHttp : public ::testing::TestWithParam<StreamCase> {};

TEST_P(OverHttp, PlaysToTheEndWithEveryDrawnFramePaired) {
  REQUIRE_TEST_DATA();
  const StreamCase& c = GetParam();
  const ClipFixtures::ClipContent content = HlsContent(c.codec, c.audio);
  const std::filesystem::path playlist = ClipFixtures::Clip(content);
  auto clip = ExpectedFrames(content);
  ASSERT_EQ(clip->Error(), "");
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);

  LoopbackHttpServer server;
  LoopbackServerOptions options;
  options.root = playlist.parent_path().string();
  std::string error;
  ASSERT_TRUE(server.Start(options, &error)) << error;
  OzmPlatform::ScopedLogCapture log;
  PlayStream(*engine, server.Url("clip.m3u8"), clip, log);

  const OzmTest::LoopbackServerStats stats = server.Stats();
  ASSERT_TRUE(stats.valid);
  EXPECT_EQ(stats.requestsByPath.count("/clip.m3u8") ? stats.requestsByPath.at("/clip.m3u8") : 0, 1);
  size_t segments = 0;
  for (const auto& [path, count] : stats.requestsByPath) {
    if (path.size() > 3 && path.compare(path.size() - 3, 3, ".ts") == 0) {
      ++segments;
      EXPECT_EQ(count, 1) << path << " requested " << count << " times";
    }
  }
  EXPECT_EQ(segments, 8u);
  // The stream took its downloads with it.
  EXPECT_EQ(FilesIn(DownloadFolder()), 0u);
}

const StreamCase kStreamCases[] = {
    {"H264", kH264, false},
    {"H264WithAudio", kH264, true},
    {"Hevc", kHevc, false},
    {"HevcWithAudio", kHevc, true},
};
INSTANTIATE_TEST_SUITE_P(Streams, OverHttp, ::testing::ValuesIn(kStreamCases),
                         [](const ::testing::TestParamInfo<StreamCase>& param) {
                           return std::string(param.param.name);
                         });

// ---------------------------------------------------------------------------------------------------
// A bad network.

TEST(HlsNetwork, EverySegmentArrivesWhenAThirdOfTheRequestsFail) {
  REQUIRE_TEST_DATA();
  const ClipFixtures::ClipContent content = HlsContent(kH264, true);
  const std::filesystem::path playlist = ClipFixtures::Clip(content);
  auto clip = ExpectedFrames(content);
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);

  LoopbackHttpServer server;
  LoopbackServerOptions options;
  options.root = playlist.parent_path().string();
  options.failShare = 0.3;
  options.seed = 7;
  std::string error;
  ASSERT_TRUE(server.Start(options, &error)) << error;
  OzmPlatform::ScopedLogCapture log;
  const PlayerStats s = PlayStream(*engine, server.Url("clip.m3u8"), clip, log);

  const OzmTest::LoopbackServerStats stats = server.Stats();
  ASSERT_TRUE(stats.valid);
  const int failed = stats.failed500 + stats.failedReset + stats.failedTruncated;
  EXPECT_GT(failed, 0) << "no request failed: the faults were not injected";
  // A request that failed on a connection kept open from the one before is made again by the HTTP
  // client itself; every other failure is retried by the stream.
  const size_t retried = CountContaining(log, "download failed, retrying");
  EXPECT_GE(retried, 1u) << LastLines(log);
  EXPECT_LE(retried, static_cast<size_t>(failed)) << LastLines(log);
  std::printf(
      "[ info     ] %d requests, %d failed (HTTP 500: %d, reset: %d, truncated: %d), %zu retried by the "
      "stream; %llu frames drawn, %llu paired\n",
      stats.requests, failed, stats.failed500, stats.failedReset, stats.failedTruncated, retried,
      static_cast<unsigned long long>(s.framesDrawn), static_cast<unsigned long long>(s.paired));
}

TEST(HlsNetwork, ASlowServerHoldsOpenUntilTheStreamCanPlayThrough) {
  REQUIRE_TEST_DATA();
  const ClipFixtures::ClipContent content = HlsContent(kHevc, false);
  const std::filesystem::path playlist = ClipFixtures::Clip(content);
  auto clip = ExpectedFrames(content);
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);

  // Served at two thirds of the rate the media plays at.
  uintmax_t bytes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(playlist.parent_path())) {
    if (entry.path().extension() == ".ts") bytes += entry.file_size();
  }
  const double mediaRate = static_cast<double>(bytes) / (kFrames / kFps);
  LoopbackHttpServer server;
  LoopbackServerOptions options;
  options.root = playlist.parent_path().string();
  options.bytesPerSecond = mediaRate * 2 / 3;
  std::string error;
  ASSERT_TRUE(server.Start(options, &error)) << error;

  OzmPlatform::ScopedLogCapture log;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(*engine, clip->Width(), &player));
  player.slot->Set(clip);
  const OzmOpenInfo open = OpenOptions();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(engine->Api().OpenLumoObject(player.id, server.Url("clip.m3u8").c_str(), &open), 1) << LastLines(log);
  const double openSeconds = Elapsed(start);
  // Downloading the rest falls behind playing it by a third of the stream's length: Open returns once
  // that much is buffered, not after the first segment.
  EXPECT_GE(CountContaining(log, "estimated buffering time"), 1u) << LastLines(log);
  EXPECT_GE(openSeconds, 0.3) << LastLines(log);
  EXPECT_EQ(CountContaining(log, "buffering complete (1 segments)"), 0u) << LastLines(log);
  std::printf("[ info     ] Open returned after %.2f s; the whole stream downloads in %.2f s\n", openSeconds,
              static_cast<double>(bytes) / options.bytesPerSecond);

  ASSERT_EQ(engine->Api().PlayLumoObject(player.id), 1);
  ASSERT_TRUE(PlayToEnd(*engine, player.id, 2 * kFrames / kFps)) << engine->Stats(player.id).Summary();
  const PlayerStats s = engine->Stats(player.id);
  ExpectPaired(s, &log, player.id, s.Summary());
  ExpectCleanPass(s.FrameIds(), *clip, s.Summary(), 0.8);
  EndPlayer(*engine, player);
}

TEST(HlsNetwork, DestroyWhileOpenWaitsForTheFirstSegmentReturnsAtOnce) {
  REQUIRE_TEST_DATA();
  const ClipFixtures::ClipContent content = HlsContent(kH264, false);
  const std::filesystem::path playlist = ClipFixtures::Clip(content);
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);
  LoopbackHttpServer server;
  LoopbackServerOptions options;
  options.root = playlist.parent_path().string();
  options.firstByteDelaySeconds = 60;
  std::string error;
  ASSERT_TRUE(server.Start(options, &error)) << error;

  OzmPlatform::ScopedLogCapture log;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(*engine, 128, &player));
  const PluginApi& api = engine->Api();
  const std::string url = server.Url("clip.m3u8");
  auto opened = std::async(std::launch::async, [&] {
    const OzmOpenInfo open = OpenOptions();
    return api.OpenLumoObject(player.id, url.c_str(), &open);
  });
  ASSERT_TRUE(engine->WaitUntil([&] { return CountContaining(log, "downloading clip_00000.ts") > 0; }, Seconds(10)))
      << LastLines(log);
  EXPECT_EQ(opened.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout) << "Open did not wait";

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(api.DestroyLumoObject(player.id), 1);
  EXPECT_LT(Elapsed(start), kPromptSeconds);
  ASSERT_EQ(opened.wait_for(std::chrono::seconds(static_cast<int>(Seconds(5)))), std::future_status::ready);
  EXPECT_EQ(opened.get(), 0);
  EXPECT_GE(CountContaining(log, "Open aborted (shutting down)"), 1u) << LastLines(log);
  EXPECT_TRUE(engine->WaitFrames(3, Seconds(5)));
  EXPECT_TRUE(engine->RemovePlayer(player.id));
  EXPECT_EQ(FilesIn(DownloadFolder()), 0u);
}

// ---------------------------------------------------------------------------------------------------
// A playlist on this machine: read in place, and played twice over (the reader starts over).

TEST(HlsLocal, APlaylistOnThisMachineLoopsWithoutDownloading) {
  REQUIRE_TEST_DATA();
  const ClipFixtures::ClipContent content = HlsContent(kHevc, true);
  const std::string playlist = std::filesystem::absolute(ClipFixtures::Clip(content)).string();
  auto clip = ExpectedFrames(content);
  HeadlessEngine* engine = Engine();
  ASSERT_NE(engine, nullptr);

  OzmPlatform::ScopedLogCapture log;
  TestPlayer player;
  ASSERT_TRUE(NewPlayer(*engine, clip->Width(), &player));
  player.slot->Set(clip);
  const OzmOpenInfo open = OpenOptions(false, true);
  ASSERT_EQ(engine->Api().OpenLumoObject(player.id, playlist.c_str(), &open), 1) << LastLines(log);
  OzmFileInfo info{};
  engine->Api().GetLumoObjectFileInfo(player.id, &info);
  EXPECT_EQ(info.hasAudio, 1);
  EXPECT_EQ(info.frameCount, static_cast<uint32_t>(kFrames));
  EXPECT_EQ(info.textureWidth, clip->Width());
  EXPECT_GT(info.maxVertexCount, 0u);
  ASSERT_EQ(engine->Api().PlayLumoObject(player.id), 1);
  const bool looped = engine->WaitUntil([&] { return Passes(engine->Stats(player.id).FrameIds()).size() >= 3; },
                                        Seconds(10 + 3 * kFrames / kFps));
  const PlayerStats s = engine->Stats(player.id);
  ASSERT_TRUE(looped) << s.Summary() << LastLines(log);
  const auto passes = Passes(s.FrameIds());
  for (size_t p = 0; p < 2; ++p) ExpectCleanPass(passes[p], *clip, "pass " + std::to_string(p + 1));
  EXPECT_EQ(passes[1].front(), clip->Frames().front().frameId) << "the second pass did not begin at the start";
  ExpectPaired(s, &log, player.id, s.Summary());
  EXPECT_EQ(CountContaining(log, "downloading"), 0u);
  EndPlayer(*engine, player);
}

}  // namespace
