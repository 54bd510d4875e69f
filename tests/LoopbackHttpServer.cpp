// Starts the loopback server as a child process, reads its port from the first line it prints, and
// stops and reaps it. Statistics are read over HTTP with libcurl.
#include "tests/LoopbackHttpServer.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

extern char** environ;

namespace OzmTest {
namespace {

constexpr int kStartTimeoutMs = 20000;  // Python starts slowly on a loaded machine
constexpr int kStopGraceMs = 2000;
constexpr long kStatsTimeoutSeconds = 5;

std::string Number(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

// Reads the first line the server prints ("PORT <n>"); 0 when none comes in time.
int ReadPort(int fd) {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
  while (line.find('\n') == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) return 0;
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return 0;
    char buffer[256];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return 0;  // the server ended before it listened
    line.append(buffer, static_cast<size_t>(n));
  }
  int port = 0;
  return std::sscanf(line.c_str(), "PORT %d", &port) == 1 && port > 0 && port < 65536 ? port : 0;
}

size_t AppendBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

}  // namespace

bool LoopbackHttpServer::Start(const LoopbackServerOptions& options, std::string* error) {
  Stop();
  auto fail = [&](const std::string& why) {
    Stop();
    if (error) *error = why;
    return false;
  };
  // Both pipes close on exec: only the descriptors given to the server reach it.
  int output[2];
  int input[2];
  if (::pipe2(output, O_CLOEXEC) != 0) return fail(std::string("pipe: ") + std::strerror(errno));
  if (::pipe2(input, O_CLOEXEC) != 0) {
    ::close(output[0]);
    ::close(output[1]);
    return fail(std::string("pipe: ") + std::strerror(errno));
  }

  std::vector<std::string> args = {OZM_PYTHON3,
                                   OZM_LOOPBACK_SERVER_SCRIPT,
                                   "--root",
                                   options.root,
                                   "--fail-share",
                                   Number(options.failShare),
                                   "--fail-kinds",
                                   options.failKinds,
                                   "--seed",
                                   std::to_string(options.seed),
                                   "--bytes-per-second",
                                   Number(options.bytesPerSecond),
                                   "--first-byte-delay",
                                   Number(options.firstByteDelaySeconds),
                                   "--max-seconds",
                                   Number(options.maxSeconds),
                                   "--exit-with-stdin"};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, OZM_PYTHON3, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(input[0]);
  ::close(output[1]);
  if (spawned != 0) {
    ::close(input[1]);
    ::close(output[0]);
    return fail(std::string("cannot start " OZM_PYTHON3 ": ") + std::strerror(spawned));
  }
  m_pid = pid;
  m_lifeline = input[1];

  m_port = ReadPort(output[0]);
  ::close(output[0]);
  if (m_port == 0) return fail("the server did not report its port (its standard error says why)");
  return true;
}

void LoopbackHttpServer::Stop() {
  if (m_pid > 0) {
    ::kill(m_pid, SIGTERM);
    bool reaped = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStopGraceMs);
    while (!reaped && std::chrono::steady_clock::now() < deadline) {
      const pid_t result = ::waitpid(m_pid, nullptr, WNOHANG);
      if (result == m_pid || (result < 0 && errno != EINTR)) {
        reaped = true;
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
    if (!reaped) {
      ::kill(m_pid, SIGKILL);
      while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
    m_pid = -1;
  }
  if (m_lifeline >= 0) ::close(m_lifeline);
  m_lifeline = -1;
  m_port = 0;
}

std::string LoopbackHttpServer::Url(const std::string& path) const {
  const size_t start = path.find_first_not_of('/');
  return "http://127.0.0.1:" + std::to_string(m_port) + "/" + (start == std::string::npos ? "" : path.substr(start));
}

LoopbackServerStats LoopbackHttpServer::Stats() const {
  LoopbackServerStats stats;
  if (m_pid <= 0) return stats;
  static const bool curlReady = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  CURL* easy = curlReady ? curl_easy_init() : nullptr;
  if (!easy) return stats;
  std::string body;
  const std::string url = Url("__stats");
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, AppendBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, kStatsTimeoutSeconds);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_FAILONERROR, 1L);
  const CURLcode code = curl_easy_perform(easy);
  curl_easy_cleanup(easy);
  if (code != CURLE_OK) return stats;
  const nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
  if (!json.is_object()) return stats;
  stats.requests = json.value("requests", 0);
  stats.ok = json.value("ok", 0);
  stats.notFound = json.value("notFound", 0);
  stats.failed500 = json.value("failed500", 0);
  stats.failedReset = json.value("failedReset", 0);
  stats.failedTruncated = json.value("failedTruncated", 0);
  stats.bytes = json.value("bytes", int64_t{0});
  if (json.contains("byPath") && json["byPath"].is_object()) {
    for (const auto& [path, count] : json["byPath"].items()) {
      if (count.is_number_integer()) stats.requestsByPath[path] = count.get<int>();
    }
  }
  stats.valid = true;
  return stats;
}

}  // namespace OzmTest
