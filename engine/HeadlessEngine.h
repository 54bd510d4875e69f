// A headless engine for the plug-in: what a game engine does with it, without a window. It owns a
// render thread with its own EGL context (surfaceless Mesa display, a 16x16 pbuffer, GLES 3), makes
// each player's texture and vertex and index buffers there, and issues the plug-in's render event for
// every player once per engine frame. After an event it can look at what the player made current and
// read back what the engine received (texture pixels, vertices, indices) for a caller's check.
//
// Threads: the caller is the engine's "script" thread and calls the plug-in's player functions itself
// (Create, SetUnityBuffers, Open, Play, ...); the engine only makes the calls a render thread makes.
// Everything here is plain use of the C interface; the engine knows nothing of the plug-in's insides.
//
//   HeadlessEngine engine(PluginApi::Linked());
//   engine.Start(&error);                          // UnityPluginLoad, then UnitySetGraphicsDevice
//   int id = api.CreateLumoObject();
//   auto targets = engine.AddPlayer(id, setup);    // GL objects made on the render thread
//   api.SetUnityBuffers(id, targets->texture, ...);
//   api.OpenLumoObject(id, path, &open); api.PlayLumoObject(id);
//   engine.WaitUntil([&] { return engine.Stats(id).endOfStreamFlags > 0; }, 30);
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "engine/PluginApi.h"

namespace OzmEngine {

// How a player's frames reach the engine.
enum class RenderPath {
  Unity,   // the render event function; GL texture, GL vertex and index buffers (SetUnityBuffers)
  Unreal,  // OnUnrealRenderEvent: GL texture, vertices and indices into engine (CPU) memory
};

// What the engine does after each render event of a player.
enum class Inspect {
  None,       // nothing: the caller may read the frame information itself
  FrameInfo,  // reads the frame information and counts frames and end-of-stream flags
  Readback,   // also reads back texture, vertices and indices of every new frame for the check
};

// What the engine received for a frame that a render event made current.
struct DrawnFrame {
  int player = 0;
  OzmFrameInfo info{};
  int width = 0, height = 0;
  // The texture as glReadPixels returns it: RGBA, rows from the bottom of the GL texture up (the
  // first row is texture row 0, which is the first row the plug-in uploaded).
  std::vector<uint8_t> rgba;
  std::vector<uint8_t> vertices;  // info.vertexCount vertices of 32 bytes (at most the capacity)
  std::vector<uint32_t> indices;  // the first info.indexCount indices (at most the capacity)
};

// Says whether a drawn frame is right (its picture, mesh and frame information belong together);
// when not, may say why. Runs on the render thread.
using FrameCheck = std::function<bool(const DrawnFrame& frame, std::string* why)>;

struct EngineTargets;

// What the engine saw after a render event of a player, for the player's after-event hook.
struct AfterEvent {
  int player = 0;
  const EngineTargets* targets = nullptr;  // the player's texture and buffers
  OzmFrameInfo info{};                     // the frame information read after the event
  bool newFrame = false;                   // the event made a new frame current
  int verdict = -1;                        // of that frame's check: 1 paired, 0 mismatched, -1 not checked
  uint64_t event = 0;                      // the player's render event, from 1
};

// Runs on the render thread after each render event of a player and its inspection, with the engine's
// context current: where an engine draws its scene with what the plug-in gave it. It may draw with
// the player's texture and buffers, and must leave the GL bindings and state as it found them.
using AfterEventHook = std::function<void(const AfterEvent& event)>;

struct PlayerSetup {
  int textureWidth = 128;
  int textureHeight = 128;
  unsigned int vertexCapacity = 1 << 16;  // vertices
  unsigned int indexCapacity = 1 << 18;   // indices
  RenderPath path = RenderPath::Unity;
  Inspect inspect = Inspect::Readback;
  FrameCheck check;  // with Inspect::Readback; without one, drawn frames are neither paired nor mismatched
  // With Inspect::FrameInfo or Inspect::Readback.
  AfterEventHook afterEvent;
};

// The engine objects of a player: GL names in the engine's context, to be registered with
// SetUnityBuffers. On the Unreal path the buffers are engine memory and their names are 0.
struct EngineTargets {
  unsigned int texture = 0;
  int textureWidth = 0;
  int textureHeight = 0;
  unsigned int vertexBuffer = 0;
  unsigned int vertexCapacity = 0;
  unsigned int indexBuffer = 0;
  unsigned int indexCapacity = 0;
};

// One frame that became current.
struct DrawnRecord {
  uint32_t frameId = 0;
  int64_t timestamp = 0;  // 100 ns units
  uint64_t event = 0;     // the player's render event that made it current, from 1
  double seconds = 0;     // engine time when it was seen
};

// What the engine saw of a player since AddPlayer or ResetStats.
struct PlayerStats {
  uint64_t renderEvents = 0;
  uint64_t framesDrawn = 0;  // distinct current frames seen
  uint64_t paired = 0;
  uint64_t mismatched = 0;
  uint64_t endOfStreamFlags = 0;
  uint64_t glErrors = 0;  // GL errors pending after a render event
  double longestEventMs = 0;
  uint64_t longestEvent = 0;  // which event that was, from 1
  std::vector<DrawnRecord> drawn;
  std::vector<std::string> problems;  // why frames mismatched and GL errors, the first few
  OzmFrameInfo lastInfo{};

  std::vector<uint32_t> FrameIds() const;
  std::string Summary() const;  // one line for test failure messages
};

struct EngineOptions {
  int intervalMs = 16;        // between engine frames; 0 runs them back to back
  bool shutdownEvent = true;  // Stop() tells the plug-in that the graphics device goes away
};

class HeadlessEngine {
 public:
  explicit HeadlessEngine(PluginApi api, EngineOptions options = {});
  ~HeadlessEngine();
  HeadlessEngine(const HeadlessEngine&) = delete;
  HeadlessEngine& operator=(const HeadlessEngine&) = delete;

  // Calls UnityPluginLoad, starts the render thread, makes its EGL context current there and calls
  // UnitySetGraphicsDevice on it. False (with the reason) when the API is incomplete or EGL fails.
  bool Start(std::string* error);
  // Stops the render events, frees every player's GL objects, sends the device shutdown event and
  // ends the render thread. Safe to call more than once.
  void Stop();
  bool Running() const { return m_running.load(); }
  const PluginApi& Api() const { return m_api; }

  // Makes the player's texture and buffers on the render thread; render events for the player begin
  // with the next engine frame. Null (with the reason) when the engine is not running or GL fails.
  std::optional<EngineTargets> AddPlayer(int id, const PlayerSetup& setup, std::string* error = nullptr);
  // Ends the render events of a player and deletes its GL objects; its counts stay readable. False
  // when the render thread could not do it (not running, or stuck in a render event).
  bool RemovePlayer(int id);
  // Zeroes a player's counts (for example before playing it again).
  void ResetStats(int id);
  PlayerStats Stats(int id) const;
  uint64_t EngineFrames() const;

  // Waits until pred() holds, testing it after every engine frame (never under the engine's locks).
  // False when seconds pass first or the engine stops.
  bool WaitUntil(const std::function<bool()>& pred, double seconds) const;
  // Waits for `frames` further engine frames.
  bool WaitFrames(uint64_t frames, double seconds) const;

  // Runs a function on the render thread with the engine's context current, between engine frames.
  // False when the engine is not running or the function does not finish within the time.
  bool RunOnRenderThread(const std::function<void()>& task, double seconds = 10);

  void SetInterval(int intervalMs) { m_intervalMs.store(intervalMs); }

  // When the render thread has been inside one plug-in call for longer than seconds, says which
  // call and for which player; empty otherwise.
  std::string Stuck(double seconds) const;
  // Engine time in seconds, the clock of DrawnRecord::seconds.
  double Now() const;

 private:
  struct Player;
  struct Task;

  void RenderThread(std::string* startError, std::promise<bool>* started);
  bool MakeContext(std::string* error);
  void DestroyContext();
  void RunTasks();
  void RenderFrame();
  void RenderPlayer(Player& player);
  void InspectFrame(Player& player, AfterEvent* seen);
  bool ReadBack(Player& player, const OzmFrameInfo& info, DrawnFrame* frame, std::string* why);
  void DeletePlayerObjects(Player& player);

  PluginApi m_api;
  EngineOptions m_options;
  std::atomic<int> m_intervalMs;
  OzmRenderEventFunc m_renderEvent = nullptr;

  std::thread m_thread;
  std::atomic<bool> m_running{false};
  std::atomic<const char*> m_currentCall{nullptr};  // the plug-in function the render thread is in
  std::atomic<int> m_currentPlayer{0};
  std::atomic<double> m_callStart{0};  // engine time when the current call began

  // Render thread only.
  void* m_display = nullptr;
  void* m_surface = nullptr;
  void* m_context = nullptr;
  std::map<int, std::unique_ptr<Player>> m_players;

  // Tasks for the render thread, and the stop request.
  mutable std::mutex m_taskMutex;
  std::condition_variable m_taskCv;
  std::deque<std::shared_ptr<Task>> m_tasks;
  bool m_stop = false;

  // Counts, read by any thread.
  mutable std::mutex m_statsMutex;
  mutable std::condition_variable m_statsCv;
  std::map<int, PlayerStats> m_stats;
  uint64_t m_frames = 0;

  std::chrono::steady_clock::time_point m_epoch;
};

}  // namespace OzmEngine
