// Host downloads. One worker thread runs the segment transfers, in request order, through a libcurl
// multi handle that Cancel can wake; a callback thread reports their ends, so that the handler may
// queue the next request (or retry a failed one) from inside the report. One mutex guards all the
// shared state; nothing else is locked while it is held, and neither libcurl, the handler nor the log
// runs under it.
#include "platform/host/HostDownloads.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/Log.h"
#include "platform/Platform.h"

namespace OzmPlatform {
namespace {

// A transfer that moves less than kStallBytesPerSecond for kStallSeconds has stalled and fails, so
// that a server that stops answering cannot hold a stream forever.
constexpr long kStallBytesPerSecond = 1;
constexpr long kStallSeconds = 10;
constexpr long kConnectTimeoutSeconds = 5;
constexpr long kMaxRedirects = 10;
// The longest the worker stays inside libcurl before it looks at its abort flag again; Cancel wakes
// it at once anyway. libcurl's progress callback alone comes only about once a second while a
// server sends nothing.
constexpr int kPollMs = 100;
// A failed transfer is retried at once the first time, then after a pause that doubles up to a
// limit, so that a requester retrying without end does not spin against a dead server.
constexpr std::chrono::milliseconds kFirstRetryPause{50};
constexpr std::chrono::milliseconds kMaxRetryPause{2000};
// Names taken from playlists are cut to this length (their end, which holds the extension, is kept).
constexpr size_t kMaxNameLength = 100;

// $OZM_DOWNLOAD_DIR, else a folder of this process in the temporary folder.
std::string DefaultRoot() {
  std::error_code error;
  std::filesystem::path temp = std::filesystem::temp_directory_path(error);
  if (error) temp = "/tmp";
  return (temp / ("ozm-downloads-" + std::to_string(::getpid()))).string();
}

std::string DownloadRoot() {
  const char* configured = std::getenv("OZM_DOWNLOAD_DIR");
  return configured && *configured ? std::string(configured) : DefaultRoot();
}

// `name` usable as one component of a path: no separators or control characters, not empty, not
// "." or "..".
std::string SafeName(std::string name, const char* fallback) {
  for (char& c : name) {
    if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20) c = '_';
  }
  if (name.size() > kMaxNameLength) name.erase(0, name.size() - kMaxNameLength);
  if (name.empty() || name == "." || name == "..") return fallback;
  return name;
}

// The last path component of a URL or URI, without its query or fragment.
std::string FileNameOf(const std::string& uri, const char* fallback) {
  std::string path = uri.substr(0, uri.find_first_of("?#"));
  const size_t slash = path.find_last_of('/');
  if (slash != std::string::npos) path.erase(0, slash + 1);
  return SafeName(path, fallback);
}

// Splits "name.ext" into "name" and ".ext" (a leading dot is part of the name).
void SplitExtension(const std::string& name, std::string* stem, std::string* extension) {
  const size_t dot = name.find_last_of('.');
  const bool has = dot != std::string::npos && dot > 0;
  *stem = has ? name.substr(0, dot) : name;
  *extension = has ? name.substr(dot) : std::string();
}

FILE* OpenForWriting(int fd, const std::string& path) {
  FILE* file = ::fdopen(fd, "wb");
  if (!file) {
    ::close(fd);
    ::unlink(path.c_str());
  }
  return file;
}

// Creates folder/name for writing, or folder/<stem>-<n><extension> when that name is taken (two
// segments of one playlist may share a file name), and sets *path.
FILE* CreateSegmentFile(const std::string& folder, const std::string& name, std::string* path) {
  std::string stem, extension;
  SplitExtension(name, &stem, &extension);
  for (int n = 1; n <= 1000; ++n) {
    const std::string candidate = folder + "/" + (n == 1 ? name : stem + "-" + std::to_string(n) + extension);
    const int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
      *path = candidate;
      return OpenForWriting(fd, candidate);
    }
    if (errno != EEXIST) {
      OZM_LOGE("Download: cannot create %s: %s", candidate.c_str(), std::strerror(errno));
      return nullptr;
    }
  }
  OZM_LOGE("Download: no free file name for %s in %s", name.c_str(), folder.c_str());
  return nullptr;
}

// Creates <folder>/<stem>-XXXXXX<extension> with a unique middle part, and sets *path.
FILE* CreateUniqueFile(const std::string& folder, const std::string& name, std::string* path) {
  std::string stem, extension;
  SplitExtension(name, &stem, &extension);
  std::string pattern = folder + "/" + stem + "-XXXXXX" + extension;
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  const int fd = ::mkostemps(buffer.data(), static_cast<int>(extension.size()), O_CLOEXEC);
  if (fd < 0) {
    OZM_LOGE("Download: cannot create a file in %s: %s", folder.c_str(), std::strerror(errno));
    return nullptr;
  }
  *path = buffer.data();
  return OpenForWriting(fd, *path);
}

bool MakeFolder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    OZM_LOGE("Download: cannot create the folder %s: %s", folder.c_str(), error.message().c_str());
    return false;
  }
  return true;
}

// Where one transfer writes, and the flag that aborts it.
struct Sink {
  FILE* file = nullptr;
  bool writeFailed = false;
  const std::atomic<bool>* abort = nullptr;
  char error[CURL_ERROR_SIZE] = {};
};

size_t WriteBody(char* data, size_t size, size_t count, void* user) {
  Sink* sink = static_cast<Sink*>(user);
  const size_t bytes = size * count;
  if (std::fwrite(data, 1, bytes, sink->file) != bytes) {
    sink->writeFailed = true;
    return 0;  // libcurl ends the transfer with a write error
  }
  return bytes;
}

int CheckAbort(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  const Sink* sink = static_cast<const Sink*>(user);
  return sink->abort->load(std::memory_order_relaxed) ? 1 : 0;
}

// A handle for fetching `url` into `sink`; null when libcurl cannot make one.
CURL* NewTransfer(const std::string& url, Sink* sink) {
  CURL* easy = curl_easy_init();
  if (!easy) return nullptr;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, sink->error);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, WriteBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, sink);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, CheckAbort);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, sink);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
#if LIBCURL_VERSION_NUM >= 0x075500
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#else
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
  return easy;
}

// Closes the file of a finished transfer and keeps it when the whole body arrived with a success
// status; otherwise deletes it and logs why (except at the process's stop, when the log may be gone
// already). True when kept.
bool Finish(CURL* easy, CURLcode code, Sink* sink, bool aborted, bool stopping, const std::string& url,
            const std::string& path) {
  std::string failure;
  if (aborted) {
    failure = "cancelled";
  } else if (sink->writeFailed) {
    failure = "cannot write " + path;
  } else if (code != CURLE_OK) {
    failure = sink->error[0] ? sink->error : curl_easy_strerror(code);
  } else {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (status < 200 || status > 299) failure = "HTTP status " + std::to_string(status);
  }
  if (std::fclose(sink->file) != 0 && failure.empty()) failure = "cannot write " + path;
  sink->file = nullptr;
  if (failure.empty()) return true;
  ::unlink(path.c_str());
  if (stopping) {
    // quiet
  } else if (aborted) {
    OZM_LOGI("Download: %s cancelled", url.c_str());
  } else {
    OZM_LOGE("Download: %s failed: %s", url.c_str(), failure.c_str());
  }
  return false;
}

class Downloader {
 public:
  // Never destroyed: streams may still cancel their downloads while the process's statics go.
  static Downloader& Instance() {
    static Downloader* const downloader = new Downloader();
    return *downloader;
  }

  void Enqueue(const std::string& playlistName, const std::string& url, const std::string& uri, void* handle) {
    std::string failure;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stopping) {
        failure = "downloads have stopped";
      } else if (m_started || StartLocked(&failure)) {
        m_requests.push_back({playlistName, url, uri, handle});
        m_work.notify_one();
      }
    }
    if (!failure.empty()) OZM_LOGE("Download: cannot download %s: %s", url.c_str(), failure.c_str());
  }

  std::string Fetch(const std::string& url) {
    const std::string root = DownloadRoot();
    if (!MakeFolder(root)) return {};
    Sink sink;
    sink.abort = &m_stopFlag;
    std::string path;
    sink.file = CreateUniqueFile(root, FileNameOf(url, "playlist"), &path);
    if (!sink.file) return {};
    CURL* easy = NewTransfer(url, &sink);
    const CURLcode code = easy ? curl_easy_perform(easy) : CURLE_OUT_OF_MEMORY;
    const bool kept = Finish(easy, code, &sink, false, m_stopFlag, url, path);
    curl_easy_cleanup(easy);
    return kept ? path : std::string();
  }

  void Cancel(void* handle) {
    std::vector<std::string> unreported;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      const bool onReporter = std::this_thread::get_id() == m_reporterId;
      // Until nothing of this handle is queued, transferring or being reported. The handler being
      // reported may queue another request meanwhile; that one goes too.
      for (;;) {
        m_failures.erase(handle);
        m_requests.erase(std::remove_if(m_requests.begin(), m_requests.end(),
                                        [handle](const Request& r) { return r.handle == handle; }),
                         m_requests.end());
        for (auto it = m_completions.begin(); it != m_completions.end();) {
          if (it->handle != handle) {
            ++it;
            continue;
          }
          if (!it->path.empty()) unreported.push_back(it->path);
          it = m_completions.erase(it);
        }
        if (m_transferring == handle) {
          m_abort = true;
          m_work.notify_all();
          if (m_multi) curl_multi_wakeup(m_multi);
        } else if (m_reporting != handle || onReporter) {
          break;
        }
        m_settled.wait(lock);
      }
    }
    for (const std::string& path : unreported) ::unlink(path.c_str());
  }

  // Aborts what runs, drops what waits and stops both threads. For the process's exit.
  void Shutdown() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stopping) return;
      m_stopping = true;
      m_abort = true;
      m_stopFlag = true;
      m_work.notify_all();
      m_report.notify_all();
      m_settled.notify_all();
      if (m_multi) curl_multi_wakeup(m_multi);
    }
    for (std::thread* thread : {&m_worker, &m_reporter}) {
      if (!thread->joinable()) continue;
      // A handler that ends the process from inside a report cannot wait for itself.
      if (thread->get_id() == std::this_thread::get_id()) {
        thread->detach();
      } else {
        thread->join();
      }
    }
    std::vector<std::string> unreported;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_requests.clear();
      for (const Completion& c : m_completions) {
        if (!c.path.empty()) unreported.push_back(c.path);
      }
      m_completions.clear();
      if (m_multi) curl_multi_cleanup(m_multi);
      m_multi = nullptr;
    }
    for (const std::string& path : unreported) ::unlink(path.c_str());
    // The default root goes when the streams have taken their files away.
    ::rmdir(DefaultRoot().c_str());
  }

 private:
  struct Request {
    std::string playlistName;
    std::string url;
    std::string uri;
    void* handle = nullptr;
  };
  // An ended transfer; an empty path means it failed.
  struct Completion {
    std::string path;
    void* handle = nullptr;
  };

  Downloader() {
    const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (code != CURLE_OK) OZM_LOGE("Download: libcurl cannot start: %s", curl_easy_strerror(code));
  }

  bool StartLocked(std::string* failure) {
    m_multi = curl_multi_init();
    if (!m_multi) {
      *failure = "libcurl cannot make a transfer set";
      return false;
    }
    try {
      m_worker = std::thread([this] { WorkerLoop(); });
      m_reporter = std::thread([this] { ReporterLoop(); });
    } catch (const std::system_error& e) {
      // Without both threads nothing can be served; one that did start ends at once.
      m_stopping = true;
      m_work.notify_all();
      *failure = std::string("cannot start a thread: ") + e.what();
      return false;
    }
    m_reporterId = m_reporter.get_id();
    m_started = true;
    return true;
  }

  void WorkerLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      m_work.wait(lock, [this] { return m_stopping || !m_requests.empty(); });
      if (m_stopping) break;
      const Request request = std::move(m_requests.front());
      m_requests.pop_front();
      m_transferring = request.handle;
      m_abort = false;
      const auto failures = m_failures.find(request.handle);
      if (failures != m_failures.end() && failures->second >= 2) {
        const int doublings = std::min(failures->second - 2, 10);
        const auto pause = std::min<std::chrono::milliseconds>(kFirstRetryPause * (1 << doublings), kMaxRetryPause);
        m_work.wait_for(lock, pause, [this] { return m_abort.load() || m_stopping; });
      }
      std::string path;
      if (!m_abort) {
        lock.unlock();
        path = Transfer(request);
        lock.lock();
      }
      m_transferring = nullptr;
      if (m_abort) {
        // Cancelled after the body had arrived: nobody will take the file.
        if (!path.empty()) ::unlink(path.c_str());
      } else {
        if (path.empty()) {
          ++m_failures[request.handle];
        } else {
          m_failures.erase(request.handle);
        }
        m_completions.push_back({std::move(path), request.handle});
        m_report.notify_one();
      }
      m_settled.notify_all();
    }
  }

  void ReporterLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      m_report.wait(lock, [this] { return m_stopping || !m_completions.empty(); });
      if (m_stopping) break;
      const Completion completion = std::move(m_completions.front());
      m_completions.pop_front();
      m_reporting = completion.handle;
      lock.unlock();
      NotifyDownloadComplete(completion.path.empty() ? nullptr : completion.path.c_str(), completion.handle);
      lock.lock();
      m_reporting = nullptr;
      m_settled.notify_all();
    }
  }

  // Runs one transfer on the worker thread, without the lock. The local path, or empty when it
  // failed or was aborted.
  std::string Transfer(const Request& request) {
    char handleText[32];
    std::snprintf(handleText, sizeof handleText, "%" PRIxPTR, reinterpret_cast<uintptr_t>(request.handle));
    const std::string folder = DownloadRoot() + "/" + SafeName(request.playlistName, "stream") + "-" + handleText;
    if (!MakeFolder(folder)) return {};
    Sink sink;
    sink.abort = &m_abort;
    std::string path;
    sink.file = CreateSegmentFile(folder, FileNameOf(request.uri, "segment"), &path);
    if (!sink.file) return {};
    CURL* easy = NewTransfer(request.url, &sink);
    CURLcode code = CURLE_OUT_OF_MEMORY;
    if (easy && curl_multi_add_handle(m_multi, easy) == CURLM_OK) {
      code = CURLE_ABORTED_BY_CALLBACK;
      for (;;) {
        int running = 0;
        const CURLMcode step = curl_multi_perform(m_multi, &running);
        if (step != CURLM_OK) {
          std::snprintf(sink.error, sizeof sink.error, "%s", curl_multi_strerror(step));
          code = CURLE_RECV_ERROR;
          break;
        }
        int left = 0;
        bool done = false;
        while (const CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
          if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
            code = message->data.result;
            done = true;
          }
        }
        if (done || running == 0 || m_abort) break;
        curl_multi_poll(m_multi, nullptr, 0, kPollMs, nullptr);
      }
      curl_multi_remove_handle(m_multi, easy);
    }
    const bool kept = Finish(easy, code, &sink, m_abort, m_stopFlag, request.url, path);
    curl_easy_cleanup(easy);
    return kept ? path : std::string();
  }

  std::mutex m_mutex;
  std::condition_variable m_work;     // the worker: a request, an abort or the stop
  std::condition_variable m_report;   // the reporter: a completion or the stop
  std::condition_variable m_settled;  // Cancel: a transfer or a report has ended
  std::deque<Request> m_requests;
  std::deque<Completion> m_completions;
  std::unordered_map<void*, int> m_failures;  // consecutive failed transfers per handle
  void* m_transferring = nullptr;             // handle of the running transfer
  void* m_reporting = nullptr;                // handle whose completion is being reported
  std::atomic<bool> m_abort{false};           // aborts the running transfer
  std::atomic<bool> m_stopFlag{false};        // aborts playlist transfers at the stop
  bool m_started = false;
  bool m_stopping = false;
  CURLM* m_multi = nullptr;  // the worker's; kept across transfers so connections are reused
  std::thread m_worker;
  std::thread m_reporter;
  std::thread::id m_reporterId;
};

// Stops the downloader's threads when the process (or the library) goes.
struct StopAtExit {
  StopAtExit() = default;
  StopAtExit(const StopAtExit&) = delete;
  StopAtExit& operator=(const StopAtExit&) = delete;
  ~StopAtExit() { Downloader::Instance().Shutdown(); }
};

}  // namespace

void HostDownloadFileFromUrl(const std::string& playlistName, const std::string& url, const std::string& uri,
                             void* nativeHandle) {
  // The threads start with the first request; they stop when the process's statics go, while the
  // downloader stays for streams that cancel later.
  static StopAtExit stopAtExit;
  Downloader::Instance().Enqueue(playlistName, url, uri, nativeHandle);
}

std::string HostDownloadFileFromUrlBlocking(const std::string& url) { return Downloader::Instance().Fetch(url); }

void HostCancelDownload(void* nativeHandle) { Downloader::Instance().Cancel(nativeHandle); }

}  // namespace OzmPlatform
