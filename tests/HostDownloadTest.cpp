// The host backend's downloads against a loopback server: where segments land and what they hold,
// the thread their completions come on, the failures a transfer meets, requests made from inside
// the completion (as the streaming input chains and retries them), cancellation, and the playlist.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "tests/LoopbackHttpServer.h"

namespace OzmPlatform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using OzmTest::LoopbackHttpServer;
using OzmTest::LoopbackServerOptions;
using OzmTest::LoopbackServerStats;
using Clock = std::chrono::steady_clock;

constexpr auto kWait = 15s;            // for a completion that must come
constexpr auto kQuiet = 300ms;         // for one that must not
constexpr auto kPromptCancel = 400ms;  // a cancel returns within this
constexpr int kSegments = 6;
constexpr size_t kSegmentBytes = 48 * 1024;

std::string Bytes(int seed, size_t size) {
  std::string bytes(size, '\0');
  uint32_t x = 2463534242u + static_cast<uint32_t>(seed) * 7919u;
  for (char& c : bytes) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = static_cast<char>(x);
  }
  return bytes;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

// Every regular file below `folder`.
std::vector<std::string> FilesBelow(const fs::path& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    if (it->is_regular_file()) files.push_back(it->path().string());
  }
  return files;
}

struct Completion {
  bool ok = false;
  std::string path;
  void* handle = nullptr;
  std::thread::id thread;
};

// Records the completions the platform reports and, when asked, reacts to each from inside the
// report, as the streaming input does.
class Recorder {
 public:
  using Reaction = std::function<void(const char* path, void* handle)>;

  void Add(const char* path, void* handle) {
    Reaction react;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_events.push_back({path != nullptr, path ? path : "", handle, std::this_thread::get_id()});
      react = m_react;
    }
    m_changed.notify_all();
    if (react) react(path, handle);
  }

  void React(Reaction react) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_react = std::move(react);
  }

  // Waits until `count` completions have come; all of them so far.
  std::vector<Completion> WaitFor(size_t count, std::chrono::milliseconds limit = kWait) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, limit, [&] { return m_events.size() >= count; });
    return m_events;
  }

  std::vector<Completion> Events() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Completion> m_events;
  Reaction m_react;
};

Recorder* g_recorder = nullptr;

void OnDownloadComplete(const char* path, void* handle) { g_recorder->Add(path, handle); }

class HostDownloadTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_folder = fs::temp_directory_path() / ("ozm-download-test-" + std::to_string(::getpid()));
    for (int i = 0; i < kSegments; ++i) {
      WriteFile(Served() / ("seg" + std::to_string(i) + ".ts"), Bytes(i, kSegmentBytes));
    }
    WriteFile(Served() / "sub" / "seg1.ts", Bytes(100, kSegmentBytes));
    WriteFile(Served() / "slow.ts", Bytes(200, 1 << 20));
    WriteFile(Served() / "list.m3u8", "#EXTM3U\n#EXTINF:1.0,\nseg0.ts\n#EXT-X-ENDLIST\n");
    ::setenv("OZM_DOWNLOAD_DIR", Root().c_str(), 1);
  }

  static void TearDownTestSuite() {
    ::unsetenv("OZM_DOWNLOAD_DIR");
    fs::remove_all(s_folder);
  }

  static fs::path Served() { return s_folder / "served"; }
  static fs::path Root() { return s_folder / "downloads"; }

  void SetUp() override {
    g_recorder = &m_recorder;
    SetDownloadCompleteHandler(OnDownloadComplete);
  }

  void TearDown() override {
    // Once every stream is cancelled nothing of this test is being reported or will be.
    for (int& stream : m_streams) GetPlatform().CancelDownload(&stream);
    SetDownloadCompleteHandler(nullptr);
    g_recorder = nullptr;
    fs::remove_all(Root());
  }

  void StartServer(LoopbackServerOptions options = {}) {
    options.root = Served().string();
    options.maxSeconds = 90;
    std::string error;
    ASSERT_TRUE(m_server.Start(options, &error)) << error;
  }

  void* Stream(int i) { return &m_streams[i]; }

  void Download(int stream, const std::string& path, const std::string& playlist = "clip") {
    GetPlatform().DownloadFileFromUrl(playlist, m_server.Url(path), path, Stream(stream));
  }

  static std::string ServedBytes(const std::string& path) { return ReadFile((Served() / path).string()); }

  static inline fs::path s_folder;
  LoopbackHttpServer m_server;
  Recorder m_recorder;
  int m_streams[3] = {};
};

TEST_F(HostDownloadTest, SegmentsArriveInOrderInTheirStreamsFolderWithTheirBytes) {
  StartServer();
  struct Case {
    std::string uri;
    std::string served;    // the file behind it
    std::string fileName;  // what it is saved as
  };
  const Case cases[] = {
      {"seg0.ts", "seg0.ts", "seg0.ts"},
      {"sub/seg1.ts", "sub/seg1.ts", "seg1.ts"},
      {"seg2.ts?session=7", "seg2.ts", "seg2.ts"},
      // Another segment of the same name does not overwrite the first one.
      {"seg3.ts", "seg3.ts", "seg3.ts"},
      {"seg3.ts?again", "seg3.ts", "seg3-2.ts"},
  };
  for (const Case& c : cases) Download(0, c.uri);
  // The same playlist name for another stream: a folder of its own.
  Download(1, "seg4.ts");
  const size_t count = std::size(cases) + 1;

  const std::vector<Completion> done = m_recorder.WaitFor(count);
  ASSERT_EQ(done.size(), count);
  fs::path folder;
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].uri);
    ASSERT_TRUE(done[i].ok);
    EXPECT_EQ(done[i].handle, Stream(0));
    EXPECT_NE(done[i].thread, std::this_thread::get_id());
    const fs::path path = done[i].path;
    EXPECT_EQ(path.filename(), cases[i].fileName);
    EXPECT_EQ(path.parent_path().parent_path(), Root());
    EXPECT_EQ(path.parent_path().filename().string().rfind("clip-", 0), 0u) << path;
    if (i == 0) folder = path.parent_path();
    EXPECT_EQ(path.parent_path(), folder);
    EXPECT_TRUE(ReadFile(path.string()) == ServedBytes(cases[i].served));
  }
  ASSERT_TRUE(done.back().ok);
  EXPECT_EQ(done.back().handle, Stream(1));
  EXPECT_NE(fs::path(done.back().path).parent_path(), folder);
  EXPECT_TRUE(ReadFile(done.back().path) == ServedBytes("seg4.ts"));
}

TEST_F(HostDownloadTest, FailedTransfersReportNoPathAndLeaveNoFile) {
  struct Case {
    const char* name;
    std::string failKinds;  // empty: the server does not fail on purpose
    std::string path;
    int LoopbackServerStats::*counted;  // what the server counted, if it was reached
    bool serverGone = false;
    bool fileUrl = false;
  };
  const Case cases[] = {
      {"HTTP 500", "500", "seg0.ts", &LoopbackServerStats::failed500},
      {"HTTP 404", "", "missing.ts", &LoopbackServerStats::notFound},
      {"connection reset", "reset", "seg0.ts", &LoopbackServerStats::failedReset},
      {"body shorter than its length", "truncated", "seg0.ts", &LoopbackServerStats::failedTruncated},
      {"connection refused", "", "seg0.ts", nullptr, true},
      {"not http", "", "seg0.ts", nullptr, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackServerOptions options;
    options.failShare = c.failKinds.empty() ? 0 : 1;
    options.failKinds = c.failKinds;
    StartServer(options);
    std::string url = m_server.Url(c.path);
    if (c.serverGone) m_server.Stop();
    if (c.fileUrl) url = "file://" + (Served() / c.path).string();
    const size_t before = m_recorder.Events().size();
    GetPlatform().DownloadFileFromUrl("clip", url, c.path, Stream(0));

    const std::vector<Completion> done = m_recorder.WaitFor(before + 1);
    ASSERT_EQ(done.size(), before + 1);
    EXPECT_FALSE(done.back().ok);
    EXPECT_EQ(done.back().handle, Stream(0));
    EXPECT_EQ(FilesBelow(Root()), std::vector<std::string>{});
    if (c.counted) {
      const LoopbackServerStats stats = m_server.Stats();
      ASSERT_TRUE(stats.valid);
      EXPECT_EQ(stats.*c.counted, 1);
      EXPECT_EQ(stats.requests, 1);
    }
    m_server.Stop();
    // A fresh start: no pause for earlier failures.
    GetPlatform().CancelDownload(Stream(0));
  }
}

TEST_F(HostDownloadTest, RequestsFromInsideTheCompletionChainAndRetryUntilEverySegmentArrives) {
  LoopbackServerOptions options;
  options.failShare = 0.3;
  options.seed = 3;  // five failures before six successes: every kind
  StartServer(options);
  // As the streaming input does: the next segment after a success, the same one after a failure.
  std::mutex mutex;
  int next = 0;
  int failures = 0;
  std::vector<std::string> paths;
  m_recorder.React([&](const char* path, void*) {
    std::string request;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (path) {
        paths.push_back(path);
        ++next;
      } else {
        ++failures;
      }
      if (next < kSegments) request = "seg" + std::to_string(next) + ".ts";
    }
    if (!request.empty()) Download(0, request);
  });
  Download(0, "seg0.ts");

  const auto deadline = Clock::now() + 2 * kWait;
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (next == kSegments || Clock::now() > deadline) break;
    }
    std::this_thread::sleep_for(10ms);
  }
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(next, kSegments);
  for (int i = 0; i < kSegments; ++i) {
    EXPECT_EQ(fs::path(paths[i]).filename(), "seg" + std::to_string(i) + ".ts");
    EXPECT_TRUE(ReadFile(paths[i]) == ServedBytes("seg" + std::to_string(i) + ".ts")) << paths[i];
  }
  // Every injected failure was reported as one, but for resets of a kept-alive connection before
  // any answer, whose request libcurl repeats once by itself; each kind occurred.
  const LoopbackServerStats stats = m_server.Stats();
  ASSERT_TRUE(stats.valid);
  const int injected = stats.failed500 + stats.failedReset + stats.failedTruncated;
  EXPECT_LE(failures, injected);
  EXPECT_GE(failures, injected - stats.failedReset);
  EXPECT_EQ(stats.ok, kSegments);
  EXPECT_GT(stats.failed500, 0);
  EXPECT_GT(stats.failedReset, 0);
  EXPECT_GT(stats.failedTruncated, 0);
  EXPECT_EQ(FilesBelow(Root()).size(), static_cast<size_t>(kSegments));
  m_recorder.React(nullptr);
}

TEST_F(HostDownloadTest, CancelIsPromptAndFinal) {
  struct Case {
    const char* name;
    double bytesPerSecond;
    double firstByteDelaySeconds;
    bool queuedBehindAnother;  // stream 0's request waits behind stream 1's slow one
  };
  const Case cases[] = {
      {"while the body trickles in", 20000, 0, false},
      {"while the server has not answered yet", 0, 30, false},
      {"while queued behind another stream", 20000, 0, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackServerOptions options;
    options.bytesPerSecond = c.bytesPerSecond;
    options.firstByteDelaySeconds = c.firstByteDelaySeconds;
    StartServer(options);
    if (c.queuedBehindAnother) Download(1, "slow.ts");
    Download(0, "slow.ts");
    std::this_thread::sleep_for(kQuiet);

    const auto start = Clock::now();
    GetPlatform().CancelDownload(Stream(0));
    const auto took = Clock::now() - start;
    EXPECT_LT(took, kPromptCancel);
    std::printf("[ cancel   ] %s: %.1f ms\n", c.name, std::chrono::duration<double, std::milli>(took).count());
    GetPlatform().CancelDownload(Stream(1));

    std::this_thread::sleep_for(kQuiet);
    EXPECT_EQ(m_recorder.Events().size(), 0u);
    EXPECT_EQ(FilesBelow(Root()), std::vector<std::string>{});
    const LoopbackServerStats stats = m_server.Stats();
    ASSERT_TRUE(stats.valid);
    // One transfer reached the server; a cancelled request that was still queued never does.
    EXPECT_EQ(stats.requests, 1);
    m_server.Stop();
  }
}

TEST_F(HostDownloadTest, CancelWaitsForItsOwnReportOnlyAndMayRunInsideAnother) {
  StartServer();
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<int> reports{0};
  m_recorder.React([&](const char*, void* handle) {
    if (handle != Stream(0) || reports++ != 0) return;
    entered.set_value();
    // Cancelling another stream from inside a report returns.
    GetPlatform().CancelDownload(Stream(2));
    released.wait_for(kWait);
  });
  Download(0, "seg0.ts");
  ASSERT_EQ(entered.get_future().wait_for(kWait), std::future_status::ready);

  // Another stream's cancel does not wait for this report; the reported stream's does.
  const auto start = Clock::now();
  GetPlatform().CancelDownload(Stream(1));
  EXPECT_LT(Clock::now() - start, kPromptCancel);
  auto cancel = std::async(std::launch::async, [this] { GetPlatform().CancelDownload(Stream(0)); });
  EXPECT_EQ(cancel.wait_for(kQuiet), std::future_status::timeout);
  release.set_value();
  EXPECT_EQ(cancel.wait_for(kWait), std::future_status::ready);
  m_recorder.React(nullptr);
}

TEST_F(HostDownloadTest, PlaylistIsFetchedOnTheCallersThread) {
  StartServer();
  struct Case {
    std::string path;
    bool found;
  };
  const Case cases[] = {{"list.m3u8", true}, {"__redirect/list.m3u8", true}, {"missing.m3u8", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const std::string path = GetPlatform().DownloadFileFromUrlBlocking(m_server.Url(c.path));
    if (!c.found) {
      EXPECT_EQ(path, "");
      continue;
    }
    ASSERT_NE(path, "");
    EXPECT_EQ(fs::path(path).parent_path(), Root());
    EXPECT_EQ(fs::path(path).extension(), ".m3u8");
    EXPECT_EQ(ReadFile(path), ServedBytes("list.m3u8"));
    fs::remove(path);
  }
  EXPECT_EQ(FilesBelow(Root()), std::vector<std::string>{});
  EXPECT_EQ(m_recorder.Events().size(), 0u);
}

}  // namespace
}  // namespace OzmPlatform
