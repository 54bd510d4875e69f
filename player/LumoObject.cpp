// LumoObject: construction and destruction, the state changes driven by the engine (Play, Pause,
// Rewind, Close), the clock scale, and the information records.
#include "player/LumoObject.h"

#include <unistd.h>

#include <chrono>
#include <cstring>

#include "platform/Log.h"
#include "player/FrameMatcher.h"

using std::chrono::milliseconds;

// ---------------------------------------------------------------------------------------------
// Worker control.

void LumoObject::OnFrameAvailable(const void* platformObject) {
  // The table entry that led here was added after m_surfaceTexture was set, under the table's lock,
  // which the caller holds.
  OzmPlatform::SurfaceTexture* own = m_surfaceTexture.get();
  if (!own) {
    OZM_LOGE("[%i] OnFrameAvailable m_surfaceTexture is null", m_id);
    return;
  }
  if (!own->IsSameObject(platformObject)) {
    OZM_LOGI("ASSERT FAILED: '%s' at %s line %i", "env->IsSameObject(surfaceTexture, m_surfaceTexture)",
             "OzmUnityPluginAndroid", 2017);
  }
  m_frameAvailable.store(1);
}

void LumoObject::Worker::Hold() {
  {
    std::lock_guard<std::mutex> lock(wakeMutex);
    hold.store(1);
  }
  wakeCondition.notify_all();
}

void LumoObject::Worker::Release() {
  {
    // Cleared under the wake mutex so that a worker about to wait cannot miss it.
    std::lock_guard<std::mutex> lock(wakeMutex);
    hold.store(0);
  }
  wakeCondition.notify_all();
}

void LumoObject::Worker::Sleep(int playerId) {
  OZM_LOGI("[%i] %s thread sleeping", playerId, name);
  {
    std::lock_guard<std::mutex> lock(asleepMutex);
    asleep = true;
  }
  asleepCondition.notify_all();
  {
    std::unique_lock<std::mutex> lock(wakeMutex);
    while (hold.load() && !exit.load()) wakeCondition.wait_for(lock, milliseconds(100));
  }
  OZM_LOGI("[%i] %s thread is awake", playerId, name);
  std::lock_guard<std::mutex> lock(asleepMutex);
  asleep = false;
}

bool LumoObject::Worker::IsAsleep() {
  std::lock_guard<std::mutex> lock(asleepMutex);
  return asleep;
}

bool LumoObject::Worker::WaitAsleep(int timeoutMs) {
  std::unique_lock<std::mutex> lock(asleepMutex);
  return asleepCondition.wait_for(lock, milliseconds(timeoutMs), [this] { return asleep; });
}

void LumoObject::WaitAsleep(Worker& worker, const char* during) {
  if (!worker.thread.joinable() || worker.IsAsleep()) return;
  if (!worker.WaitAsleep(kWorkerWaitMs)) {
    OZM_LOGW("[%i] %s: the %s thread did not go to sleep within %i ms; going on without it", m_id, during,
             worker.name, kWorkerWaitMs);
  }
}

void LumoObject::SleepUnlessHeld(Worker& worker, int64_t us) {
  std::unique_lock<std::mutex> lock(worker.wakeMutex);
  worker.wakeCondition.wait_for(lock, std::chrono::microseconds(us),
                                [&worker] { return worker.hold.load() || worker.exit.load(); });
}

std::shared_ptr<OzmPlatform::MediaCodec> LumoObject::VideoCodec() {
  std::lock_guard<std::mutex> lock(m_codecMutex);
  return m_videoCodec;
}

std::shared_ptr<OzmPlatform::MediaCodec> LumoObject::AudioCodec() {
  std::lock_guard<std::mutex> lock(m_codecMutex);
  return m_audioCodec;
}

// ---------------------------------------------------------------------------------------------
// Life cycle.

LumoObject::LumoObject(int id) : m_id(id) {}

LumoObject::~LumoObject() {
  OZM_LOGI("[%i] ~LumoObject() (m_state = %i)", m_id, m_state.load());
  m_abortOpen.store(true);
  CancelStream();
  while (m_pendingOpen.load()) {
    OZM_LOGI("[%i] ~LumoObject() cancelling Open", m_id);
    usleep(1000);
  }
  m_meshGeneration.fetch_add(1);
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    m_stream.reset();
  }
  // Stopped decoders wake workers that wait for a buffer, so that every worker reaches the top of
  // its loop and sees its exit flag.
  if (auto video = VideoCodec()) video->Stop();
  if (auto audio = AudioCodec()) audio->Stop();
  for (Worker* worker : {&m_video, &m_audio, &m_playback}) {
    if (!worker->thread.joinable()) continue;
    worker->exit.store(1);
    worker->Release();
    worker->thread.join();
  }
  m_meshWork.Abort();
  if (m_meshThread.joinable()) m_meshThread.join();
  std::shared_ptr<OzmPlatform::MediaCodec> video, audio;
  {
    std::lock_guard<std::mutex> lock(m_codecMutex);
    video.swap(m_videoCodec);
    audio.swap(m_audioCodec);
  }
}

void LumoObject::CancelStream() {
  std::shared_ptr<MediaInputStream> stream;
  {
    std::lock_guard<std::mutex> lock(m_cancellableMutex);
    stream.swap(m_cancellableStream);
  }
  if (stream) stream->Cancel();
}

int LumoObject::Play() {
  OZM_LOGI("[%i] LumoObject::Play", m_id);
  const int state = m_state.load();
  if (state != Opened && state != Closed && state != Paused) return 0;
  if (state == Paused) m_renderStart.store(-1);
  m_state.store(Playing);
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (!m_stream) {
      OZM_LOGI("[%i] LumoObject::Play stream is null", m_id);
      return 0;
    }
  }
  m_playback.Release();
  m_video.Release();
  if (AudioCodec()) m_audio.Release();
  return 1;
}

int LumoObject::Pause() {
  OZM_LOGI("[%i] LumoObject::Pause", m_id);
  if (m_state.load() != Playing) return 0;
  m_state.store(Paused);
  m_video.Hold();
  m_audio.Hold();
  m_playback.Hold();
  return 1;
}

int LumoObject::Rewind() {
  OZM_LOGI("[%i] LumoObject::Rewind", m_id);
  m_playback.Hold();
  m_video.Hold();
  m_audio.Hold();
  m_state.store(Paused);
  ClearMeshFrames();
  WaitAsleep(m_playback, "Rewind");
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (m_stream) m_stream->Rewind();
  }
  // Samples read before the pump fell asleep may still be on their way through the mesh thread.
  ClearMeshFrames(true);
  ForgetTimeBases();
  if (auto video = VideoCodec()) video->Flush();
  WaitAsleep(m_video, "Rewind");
  if (auto audio = AudioCodec()) {
    audio->Flush();
    WaitAsleep(m_audio, "Rewind");
  }
  m_inputEnd.store(false);
  m_audioOutputEnd.store(0);
  m_videoOutputEnd.store(0);
  m_pendingRestart.store(true);
  m_renderStart.store(-1);
  {
    // The clock starts over with the first sample; a base left where the scale last changed would
    // put the first samples before it.
    std::lock_guard<std::mutex> lock(m_clockMutex);
    m_presentationOffset = 0;
    m_sampleBase = 0;
    m_lastPresentationTime = 0;
    m_lastSampleTime = 0;
  }
  return 1;
}

int LumoObject::Close() {
  m_state.store(Closed);
  OZM_LOGI("[%i] LumoObject::Close release resources (m_state = %i)", m_id, m_state.load());
  m_abortOpen.store(true);
  // The stream goes with the Close: whatever waits inside it (an Open, or the playback thread's
  // Advance waiting for the network) gives up now.
  CancelStream();
  while (m_pendingOpen.load()) {
    OZM_LOGI("[%i] LumoObject::Close waiting for pending Open", m_id);
    usleep(1000);
  }
  m_abortOpen.store(false);
  if (m_playback.thread.joinable()) {
    m_playback.Hold();
    ClearMeshFrames();
    WaitAsleep(m_playback, "Close");
    ClearMeshFrames(true);
  }
  ForgetTimeBases();
  {
    std::shared_ptr<MediaInputStream> stream;
    {
      std::lock_guard<std::mutex> lock(m_streamMutex);
      stream = std::move(m_stream);
    }
  }
  m_video.Hold();
  m_audio.Hold();
  if (auto video = VideoCodec()) {
    video->Flush();
    video->Stop();
    WaitAsleep(m_video, "Close");
    std::lock_guard<std::mutex> lock(m_codecMutex);
    m_videoCodec.reset();  // the last reference goes with `video`, after the lock
  }
  if (auto audio = AudioCodec()) {
    audio->Flush();
    audio->Stop();
    WaitAsleep(m_audio, "Close");
    std::lock_guard<std::mutex> lock(m_codecMutex);
    m_audioCodec.reset();  // the last reference goes with `audio`, after the lock
  }
  ClearMeshFrames();
  return 1;
}

void LumoObject::ClearMeshFrames(bool newGeneration) {
  std::deque<std::shared_ptr<Ozm::MeshFrame>> dropped;
  {
    std::lock_guard<std::mutex> lock(m_meshFrameMutex);
    if (newGeneration) m_meshGeneration.fetch_add(1);
    m_currentFrame.reset();
    OZM_LOGI("[%i] Clearing %i old mesh frames", m_id, static_cast<int>(m_meshFrames.size()));
    dropped.swap(m_meshFrames);
  }
  for (size_t i = 0; i < dropped.size(); ++i) GiveMeshSlot();
}

void LumoObject::ForgetTimeBases() {
  std::lock_guard<std::mutex> lock(m_timeBaseMutex);
  m_timeBases.current = -1;
  m_timeBases.previous = -1;
}

bool LumoObject::TakeMeshSlot() {
  std::unique_lock<std::mutex> lock(m_slotsMutex);
  // Bounded waits: a held or exiting playback thread gives up and comes back in its next round.
  while (m_meshSlots == 0) {
    if (m_playback.hold.load() || m_playback.exit.load()) return false;
    m_slotsCondition.wait_for(lock, milliseconds(20));
  }
  --m_meshSlots;
  return true;
}

void LumoObject::GiveMeshSlot() {
  {
    std::lock_guard<std::mutex> lock(m_slotsMutex);
    ++m_meshSlots;
  }
  m_slotsCondition.notify_one();
}

// ---------------------------------------------------------------------------------------------
// Settings and information.

void LumoObject::SetClockScale(float scale) {
  OZM_LOGI("[%i] SetClockScale = %f", m_id, static_cast<double>(scale));
  {
    std::lock_guard<std::mutex> lock(m_clockMutex);
    m_clockScale = scale;
    m_presentationOffset = m_lastPresentationTime;
    m_sampleBase = m_lastSampleTime;
  }
  std::shared_ptr<OzmPlatform::AudioTrack> track;
  int rate = 0;
  {
    std::lock_guard<std::mutex> lock(m_audioTrackMutex);
    track = m_audioTrack;
    rate = m_audioSampleRate;
  }
  if (track && OzmPlatform::GetPlatform().AttachCurrentThread()) {
    track->SetPlaybackRate(static_cast<int>(scale * static_cast<float>(rate)));
  }
}

int64_t LumoObject::PresentationTime(int64_t sampleTime) {
  std::lock_guard<std::mutex> lock(m_clockMutex);
  m_lastSampleTime = sampleTime;
  m_lastPresentationTime = ScaledPresentationTime(sampleTime, m_sampleBase, m_presentationOffset, m_clockScale);
  return m_lastPresentationTime;
}

int LumoObject::SetAudioVolume(float volume) {
  std::shared_ptr<OzmPlatform::AudioTrack> track;
  {
    std::lock_guard<std::mutex> lock(m_audioTrackMutex);
    track = m_audioTrack;
  }
  if (!track) return 0;
  if (!OzmPlatform::GetPlatform().AttachCurrentThread()) return 0;
  return track->SetVolume(volume) == 0 ? 1 : 0;
}

void LumoObject::SetComputeNormals(int computeNormals) {
  OZM_LOGI("[%i] SetComputeNormals called with computeNormals = %i", m_id, computeNormals);
  m_computeNormals.store(static_cast<uint8_t>(computeNormals & 0xFF));
}

int LumoObject::GetFrameInfo(OzmFrameInfo* out) {
  std::memset(out, 0, sizeof(*out));
  int32_t width = 0, height = 0;
  {
    std::lock_guard<std::mutex> lock(m_fileInfoMutex);
    width = m_fileInfo.textureWidth;
    height = m_fileInfo.textureHeight;
  }
  std::lock_guard<std::mutex> lock(m_meshFrameMutex);
  if (const std::shared_ptr<Ozm::MeshFrame>& frame = m_currentFrame) {
    out->timestamp = frame->Timestamp() / 100;
    for (int i = 0; i < 3; ++i) {
      out->bboxMin[i] = frame->BBoxMin()[i];
      out->bboxMax[i] = frame->BBoxMax()[i];
    }
    out->frameId = frame->FrameId();
    out->vertexCount = frame->NumVertices();
    out->indexCount = frame->NumIndices();
    out->repeated = frame->DrawCount() >= 2 ? 1 : 0;
    out->keyFrame = frame->IsKeyFrame() ? 1 : 0;
  }
  if (m_endOfStreamReport.exchange(false)) out->endOfStream = 1;
  out->textureWidth = static_cast<uint32_t>(width);
  out->textureHeight = static_cast<uint32_t>(height);
  return 1;
}

bool LumoObject::GetFileInfo(OzmFileInfo* out) {
  OzmFileInfo info;
  {
    std::lock_guard<std::mutex> lock(m_fileInfoMutex);
    info = m_fileInfo;
  }
  bool filled = false;
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (!m_stream) return false;
    filled = m_stream->GetFileInfo(info);
  }
  {
    std::lock_guard<std::mutex> lock(m_fileInfoMutex);
    m_fileInfo = info;
  }
  if (filled && out) *out = info;
  return filled;
}

void LumoObject::SetUnityBuffers(unsigned int texture, int width, int height, unsigned int vertexBuffer,
                                 unsigned int vertexCapacity, unsigned int indexBuffer, unsigned int indexCapacity) {
  {
    std::lock_guard<std::mutex> lock(m_engineMutex);
    m_engineTexture = texture;
    m_engineTextureWidth = width;
    m_engineTextureHeight = height;
    m_engineVertexBuffer = vertexBuffer;
    m_engineVertexCapacity = vertexCapacity;
    m_engineIndexBuffer = indexBuffer;
    m_engineIndexCapacity = indexCapacity;
    // The next drawn frame uploads its indices again, even when they are the same object.
    m_lastIndexBuffer.Release();
  }
  OZM_LOGI("[%i] SetUnityBuffers, vb = %i, ib = %i, tex = %i", m_id, static_cast<int>(vertexBuffer),
           static_cast<int>(indexBuffer), static_cast<int>(texture));
}
