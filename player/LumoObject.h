// One volumetric-video player: input stream, picture and audio decoders, the mesh, playback, video
// and audio threads, the queue of decoded mesh frames and the GL objects of its render step.
//
// Threads: the engine's script thread calls Open, Play, Pause, Rewind, Close and destroys the
// player; the engine's render thread runs OnUnityRender/OnUnrealRender; the worker threads are the
// player's own. No lock is held while another is taken, and none across a GL copy.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshFrame.h"
#include "OzmCore/OzmMeshReader.h"
#include "input/ConcurrentQueue.h"
#include "input/MediaInputStream.h"
#include "platform/Platform.h"
#include "player/GraphicsResources.h"
#include "plugin/OzmPluginApi.h"

enum LumoState : int {
  Empty = 0,
  Initialized = 1,
  Opened = 2,
  Playing = 3,
  Paused = 4,
  Closed = 5,
};

class LumoObject {
 public:
  explicit LumoObject(int id);
  ~LumoObject();
  LumoObject(const LumoObject&) = delete;
  LumoObject& operator=(const LumoObject&) = delete;

  int Id() const { return m_id; }
  int State() const { return m_state.load(); }
  void SetState(int state) { m_state.store(state); }

  int Open(const char* path, const OzmOpenInfo* info);
  int Play();
  int Pause();
  int Rewind();
  int Close();
  void SetClockScale(float scale);
  int SetAudioVolume(float volume);
  void SetComputeNormals(int computeNormals);
  int GetFrameInfo(OzmFrameInfo* out);
  // Fills the cached file information from the input and copies it out; false without input.
  bool GetFileInfo(OzmFileInfo* out);
  void SetUnityBuffers(unsigned int texture, int width, int height, unsigned int vertexBuffer,
                       unsigned int vertexCapacity, unsigned int indexBuffer, unsigned int indexCapacity);

  // Render thread, once per engine frame.
  void OnUnityRender();
  void OnUnrealRender(void* vertexData, void* indexData, int vertexCapacity, int indexCapacity, unsigned int texture,
                      int width, int height);

  // The player is being destroyed: an Open still waiting gives up, also one waiting inside its input
  // stream (for the network). Its destructor runs once the last call into it returned.
  void AbortOpen() {
    m_abortOpen.store(true);
    CancelStream();
  }

  // Called by the platform (any thread) when the player's surface texture, `platformObject`, has
  // a new picture.
  void OnFrameAvailable(const void* platformObject);
  OzmPlatform::SurfaceTexture* SurfaceTexture() const { return m_surfaceTexture.get(); }

  // How long Rewind and Close wait for a worker to fall asleep before going on without it.
  static constexpr int kWorkerWaitMs = 3000;

 private:
  // One worker's control block: hold, asleep and exit flags with their mutexes and conditions.
  struct Worker {
    const char* name;  // "Playback", "Video", "Audio": used in log lines
    std::thread thread;
    std::atomic<uint8_t> exit{0};
    std::atomic<uint8_t> hold{1};
    bool asleep = false;
    std::mutex asleepMutex;
    std::condition_variable asleepCondition;
    std::mutex wakeMutex;
    std::condition_variable wakeCondition;

    explicit Worker(const char* n) : name(n) {}
    // Sets the hold flag and wakes the worker from a timed sleep, so that it reaches its loop top.
    void Hold();
    // Sets the hold flag unless `keepGoing` says otherwise, both under the wake mutex: a Release
    // that comes in between (Play) is never undone.
    template <typename Predicate>
    bool HoldUnless(Predicate keepGoing) {
      std::lock_guard<std::mutex> lock(wakeMutex);
      if (keepGoing()) return false;
      hold.store(1);
      return true;
    }
    // Clears the hold flag and wakes the worker.
    void Release();
    // Sleeps while the hold flag is set (logs "<Name> thread sleeping" / "is awake").
    void Sleep(int playerId);
    bool IsAsleep();
    // Waits until the worker is asleep, at most timeoutMs; false on time-out.
    bool WaitAsleep(int timeoutMs);
  };

  // Threads.
  void PlaybackThreadFunc();
  void VideoThreadFunc();
  void AudioThreadFunc();
  void MeshThreadFunc();
  void PumpStep();
  void PumpEndOfInput(int64_t presentationTimeUs);
  void RestartAfterEndOfInput();
  void QueueEndOfStream(OzmPlatform::MediaCodec& codec, Worker& worker, int64_t presentationTimeUs);
  bool PumpAudioSample(int64_t presentationTimeUs);
  bool PumpVideoSample(int64_t presentationTimeUs);
  bool TakeMeshSlot();
  void GiveMeshSlot();
  void ReadMeshFrame(const OZMCORE::CComPtr<OzmCrossPlatform::Stream>& stream, uint32_t generation);
  std::shared_ptr<OzmPlatform::MediaCodec> VideoCodec();
  std::shared_ptr<OzmPlatform::MediaCodec> AudioCodec();
  // Sleeps up to `us` microseconds, waking early when the worker is held or told to exit.
  static void SleepUnlessHeld(Worker& worker, int64_t us);
  int64_t PresentationTime(int64_t sampleTime);
  void StartMeshThread();
  void WaitAsleep(Worker& worker, const char* during);
  // Empties the decoded-frame queue and the current frame; with newGeneration, frames of decode
  // jobs queued before are thrown away when they arrive.
  void ClearMeshFrames(bool newGeneration = false);
  // Pictures released so far have no meshes any more (rewind, close): none of them is paired.
  void ForgetTimeBases();
  void TearDownAudioTrack();
  bool StreamCarriesMeshes();

  // Makes a blocking call of the current input stream give up; the stream is discarded afterwards.
  void CancelStream();
  // Render step shared by both variants. Returns the frame to copy (its timestamp equals the
  // latched picture's), or null when nothing is to be copied.
  std::shared_ptr<Ozm::MeshFrame> LatchAndMatch(const char* variant, int64_t restartThreshold);

  // Identity and state.
  Ozm::COzmMeshReader m_meshReader;
  int m_id;
  std::atomic<int> m_state{Empty};
  std::atomic<bool> m_pendingOpen{false};
  // Raised by Close and the destructor so that an Open waiting for the video surface gives up.
  std::atomic<bool> m_abortOpen{false};
  // Set by the mesh thread when it could not make the video surface; Open then fails.
  std::atomic<bool> m_surfaceFailed{false};
  OzmOpenInfo m_openInfo{};
  OzmFileInfo m_fileInfo{};
  std::mutex m_fileInfoMutex;  // the cached file information: script thread writes, render thread reads

  // Media.
  std::shared_ptr<MediaInputStream> m_stream;
  // Guards m_stream: the playback thread holds it around each use, Close and Open around replacing it.
  std::mutex m_streamMutex;
  // The stream being opened or in use, reachable while another thread holds m_streamMutex inside a
  // blocking call of the stream, so that Close and Destroy can make that call give up.
  std::shared_ptr<MediaInputStream> m_cancellableStream;
  std::mutex m_cancellableMutex;
  std::shared_ptr<OzmPlatform::MediaCodec> m_videoCodec;
  std::shared_ptr<OzmPlatform::MediaCodec> m_audioCodec;
  std::mutex m_codecMutex;  // guards the two codec pointers (the workers take copies)
  std::shared_ptr<OzmPlatform::NativeWindow> m_nativeWindow;  // set once by the mesh thread, then m_windowReady
  std::atomic<bool> m_windowReady{false};
  std::shared_ptr<OzmPlatform::SurfaceTexture> m_surfaceTexture;
  std::atomic<int> m_videoFrameRate{30};
  std::atomic<int> m_videoWidth{0};
  std::atomic<int> m_videoHeight{0};
  std::shared_ptr<OzmPlatform::AudioTrack> m_audioTrack;  // callers copy it under the lock, call outside
  std::mutex m_audioTrackMutex;  // the track is made by the audio thread and used by the setters
  int m_audioSampleRate = 0;

  // Workers.
  Worker m_playback{"Playback"};
  Worker m_video{"Video"};
  Worker m_audio{"Audio"};
  std::thread m_meshThread;
  std::atomic<bool> m_inputEnd{false};
  std::atomic<uint8_t> m_videoOutputEnd{0};
  std::atomic<uint8_t> m_audioOutputEnd{0};
  std::atomic<bool> m_endOfStreamReport{false};

  // Clock (microseconds, except render start and texture timestamp in nanoseconds).
  std::mutex m_clockMutex;
  float m_clockScale = 1.0f;
  int64_t m_lastPresentationTime = 0;
  int64_t m_lastSampleTime = 0;
  int64_t m_presentationOffset = 0;
  int64_t m_sampleBase = 0;
  std::atomic<int64_t> m_renderStart{-1};  // -1 asks the video thread for a new time base
  // The time bases pictures were released with, published by the video thread: the current one,
  // the release time of its first picture, and the one before it. A picture released before the
  // current base began belongs to the previous base (the tail of a pass that was looped).
  struct TimeBases {
    int64_t current = -1;
    int64_t firstRelease = 0;
    int64_t previous = -1;
  };
  std::mutex m_timeBaseMutex;
  TimeBases m_timeBases;
  int64_t m_textureTimestamp = -1;  // render thread only

  // Mesh frames.
  ConcurrentQueue<std::function<void()>> m_meshWork;
  // Decode jobs carry the generation they were queued in; Rewind, Close and Open start a new one,
  // and the frames of older jobs are thrown away (their slots given back) instead of queued.
  std::atomic<uint32_t> m_meshGeneration{0};
  int m_meshSlots = 8;
  std::mutex m_slotsMutex;
  std::condition_variable m_slotsCondition;
  std::mutex m_meshFrameMutex;
  std::deque<std::shared_ptr<Ozm::MeshFrame>> m_meshFrames;
  std::shared_ptr<Ozm::MeshFrame> m_currentFrame;
  OZMCORE::CComPtr<IOzmBuffer> m_lastIndexBuffer;  // render thread and SetUnityBuffers, under m_engineMutex
  int m_indexReuseCount = 0;
  std::atomic<bool> m_pendingRestart{false};
  std::atomic<uint8_t> m_frameAvailable{0};
  std::atomic<uint8_t> m_computeNormals{1};

  // Engine resources.
  std::mutex m_engineMutex;
  unsigned int m_engineTexture = 0;
  int m_engineTextureWidth = 0;
  int m_engineTextureHeight = 0;
  unsigned int m_engineVertexBuffer = 0;
  unsigned int m_engineVertexCapacity = 0;
  unsigned int m_engineIndexBuffer = 0;
  unsigned int m_engineIndexCapacity = 0;

  GraphicsResources m_graphics;
};
