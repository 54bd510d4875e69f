// A loopback HTTP server for tests and benchmarks: a separate process (loopback_http_server.py)
// serving a folder on 127.0.0.1 at an ephemeral port, with faults injected into transport-stream
// segments (paths ending in ".ts") on request. The server is stopped by Stop or the destructor,
// exits by itself after a maximum lifetime, and exits when this process goes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

namespace OzmTest {

struct LoopbackServerOptions {
  std::string root;  // the folder served
  // Share of segment requests that fail (0 to 1), drawn with a generator seeded by `seed`; the
  // failures take the kinds of `failKinds` in turn: "500" (an HTTP 500 response), "reset" (the
  // connection is reset without a response), "truncated" (the full Content-Length, half the body,
  // then the connection closes).
  double failShare = 0;
  std::string failKinds = "500,reset,truncated";
  uint32_t seed = 1;
  double bytesPerSecond = 0;         // rate limit of segment bodies; 0: as fast as possible
  double firstByteDelaySeconds = 0;  // pause before each segment's response
  double maxSeconds = 120;           // the server exits by itself after this long
};

// What the server did so far; requests of /__stats are not counted.
struct LoopbackServerStats {
  bool valid = false;  // false when the server could not be asked
  int requests = 0, ok = 0, notFound = 0, failed500 = 0, failedReset = 0, failedTruncated = 0;
  int64_t bytes = 0;  // body bytes sent, truncated bodies included
  std::map<std::string, int> requestsByPath;
};

class LoopbackHttpServer {
 public:
  LoopbackHttpServer() = default;
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;
  ~LoopbackHttpServer() { Stop(); }

  // Starts the server and waits until it listens. False (and *error says why) when it did not.
  bool Start(const LoopbackServerOptions& options, std::string* error);
  // SIGTERM, then SIGKILL when it has not gone within two seconds; the process is always reaped.
  void Stop();

  bool Running() const { return m_pid > 0; }
  int Port() const { return m_port; }
  // "http://127.0.0.1:<port>/<path>"
  std::string Url(const std::string& path) const;
  LoopbackServerStats Stats() const;

 private:
  pid_t m_pid = -1;
  int m_port = 0;
  int m_lifeline = -1;  // the server's standard input: it exits when this closes
};

}  // namespace OzmTest
