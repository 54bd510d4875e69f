// The playback thread: the pump of a player. It reads samples from the input, gives each its
// presentation time through the player's clock, feeds the decoders, hands every video sample to the
// mesh thread as a decode job, and starts the pipeline over at the end when auto-looping is on.
#include <cstring>
#include <vector>

#include "OzmCore/MeshPayload.h"
#include "platform/Log.h"
#include "player/LumoObject.h"

namespace {

// How long the pump waits for a decoder input buffer before it looks at its flags again.
constexpr int64_t kInputWaitUs = 10000;

}  // namespace

void LumoObject::PlaybackThreadFunc() {
  OZM_LOGI("[%i] Playback thread starting", m_id);
  while (!m_playback.exit.load()) {
    if (m_playback.hold.load()) m_playback.Sleep(m_id);
    if (m_playback.exit.load()) break;
    int state = Playing;
    if (m_playback.HoldUnless([&] { return (state = m_state.load()) == Playing; })) {
      OZM_LOGI("[%i] playback thread going to sleep (m_state = %i)", m_id, state);
      continue;
    }
    PumpStep();
  }
  OZM_LOGI("[%i] playback thread exiting", m_id);
}

void LumoObject::PumpStep() {
  int track = -1;
  int64_t sampleTime = -1;
  bool haveStream = false;
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    haveStream = m_stream != nullptr;
    if (haveStream) {
      track = m_stream->GetSampleTrackIndex();
      sampleTime = m_stream->GetSampleTime();
    }
  }
  if (!haveStream) {
    m_playback.Hold();
    return;
  }
  if (track < 0) {
    // The end of input has no sample time: the end-of-stream buffers take the last one.
    int64_t last = 0;
    {
      std::lock_guard<std::mutex> lock(m_clockMutex);
      last = m_lastPresentationTime;
    }
    PumpEndOfInput(last);
    return;
  }
  const int64_t presentationTime = PresentationTime(sampleTime);
  if (track == 1) {
    PumpAudioSample(presentationTime);
  } else if (track == 0) {
    PumpVideoSample(presentationTime);
  }
  // Any other track: nothing is done; the same sample comes back in the next round.
}

void LumoObject::QueueEndOfStream(OzmPlatform::MediaCodec& codec, Worker& worker, int64_t presentationTimeUs) {
  // The decoder frees an input buffer as it decodes; a held or exiting pump stops trying.
  while (!m_playback.exit.load()) {
    const ssize_t index = codec.DequeueInputBuffer(kInputWaitUs);
    if (index >= 0) {
      codec.QueueInputBuffer(static_cast<size_t>(index), 0, 0, presentationTimeUs,
                             OzmPlatform::kBufferFlagEndOfStream);
      return;
    }
    if (index < OzmPlatform::kInfoOutputBuffersChanged) return;  // stopped or broken
    if (m_playback.hold.load() && worker.hold.load()) return;
  }
}

void LumoObject::PumpEndOfInput(int64_t presentationTimeUs) {
  m_inputEnd.store(true);
  OZM_LOGI("[%i] input EOS", m_id);
  if (auto video = VideoCodec()) QueueEndOfStream(*video, m_video, presentationTimeUs);
  if (auto audio = AudioCodec()) QueueEndOfStream(*audio, m_audio, presentationTimeUs);
  if (m_openInfo.autoLooping == 0) {
    m_playback.Hold();
    return;
  }
  RestartAfterEndOfInput();
}

void LumoObject::RestartAfterEndOfInput() {
  OZM_LOGI("[%i] AutoLooping: waiting for output eos", m_id);
  // The output threads sleep once their end of stream came out. The waits give up when the player
  // is paused, rewound, closed or destroyed meanwhile.
  auto waitFor = [this](Worker& worker) {
    while (!worker.WaitAsleep(50)) {
      if (m_playback.hold.load() || m_playback.exit.load()) return false;
    }
    return true;
  };
  if (!waitFor(m_video)) return;
  const std::shared_ptr<OzmPlatform::MediaCodec> audio = AudioCodec();
  if (audio && !waitFor(m_audio)) return;
  OZM_LOGI("[%i] AutoLooping: restarting", m_id);
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (m_stream) m_stream->Rewind();
  }
  if (auto video = VideoCodec()) OZM_LOGI("video codec flush returned %i", video->Flush());
  if (audio) OZM_LOGI("audio codec flush returned %i", audio->Flush());
  m_inputEnd.store(false);
  m_audioOutputEnd.store(0);
  m_videoOutputEnd.store(0);
  m_renderStart.store(-1);
  {
    // The last sample goes too: a scale set between here and the first sample of the new pass
    // re-bases the clock there, and a base at the end of the old pass would put the new samples
    // before it.
    std::lock_guard<std::mutex> lock(m_clockMutex);
    m_presentationOffset = 0;
    m_sampleBase = 0;
    m_lastPresentationTime = 0;
    m_lastSampleTime = 0;
  }
  m_pendingRestart.store(true);
  if (audio) m_audio.Release();
  m_video.Release();
}

bool LumoObject::PumpAudioSample(int64_t presentationTimeUs) {
  const std::shared_ptr<OzmPlatform::MediaCodec> audio = AudioCodec();
  if (!audio) {
    // Audio declined or not decodable: the sample is skipped.
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (m_stream) m_stream->Advance();
    return false;
  }
  const ssize_t index = audio->DequeueInputBuffer(kInputWaitUs);
  if (index < 0) return false;
  size_t capacity = 0;
  uint8_t* buffer = audio->GetInputBuffer(static_cast<size_t>(index), &capacity);
  ssize_t size = -1;
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (m_stream && buffer) size = m_stream->ReadSampleData(buffer, static_cast<uint32_t>(capacity));
    if (m_stream) m_stream->Advance();
  }
  // A buffer that got nothing goes back empty.
  audio->QueueInputBuffer(static_cast<size_t>(index), 0, size > 0 ? static_cast<size_t>(size) : 0,
                          presentationTimeUs, 0);
  return size > 0;
}

bool LumoObject::PumpVideoSample(int64_t presentationTimeUs) {
  const std::shared_ptr<OzmPlatform::MediaCodec> video = VideoCodec();
  if (!video) {
    m_playback.Hold();
    return false;
  }
  // Back-pressure: at most eight video samples between here and the render step.
  if (!TakeMeshSlot()) return false;
  const ssize_t index = video->DequeueInputBuffer(kInputWaitUs);
  if (index < 0) {
    GiveMeshSlot();
    return false;
  }
  size_t capacity = 0;
  uint8_t* buffer = video->GetInputBuffer(static_cast<size_t>(index), &capacity);
  ssize_t size = -1;
  {
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (m_stream && buffer) size = m_stream->ReadSampleData(buffer, static_cast<uint32_t>(capacity));
    if (size <= 0 && m_stream) m_stream->Advance();
  }
  if (size <= 0) {
    GiveMeshSlot();
    video->QueueInputBuffer(static_cast<size_t>(index), 0, 0, presentationTimeUs, 0);
    return false;
  }
  auto copy = std::make_shared<std::vector<uint8_t>>(buffer, buffer + size);
  const int64_t timestampNs = presentationTimeUs * 1000;
  const uint32_t generation = m_meshGeneration.load();
  const unsigned int bytes = static_cast<unsigned int>(size);
  m_meshWork.Enqueue([this, copy, timestampNs, bytes, generation] {
    OZMCORE::CComPtr<OzmCrossPlatform::Stream> mesh(OzmCrossPlatform::FindCompressedMesh(copy->data(), bytes));
    if (!mesh) {
      OZM_LOGE("FindCompressedMesh returned null");
      // Nothing will be drawn for this sample, so its slot is given back here.
      GiveMeshSlot();
      return;
    }
    mesh->SetTimestamp(timestampNs);
    ReadMeshFrame(mesh, generation);
  });
  const int queued = video->QueueInputBuffer(static_cast<size_t>(index), 0, static_cast<size_t>(size),
                                             presentationTimeUs, 0);
  if (queued != 0) OZM_LOGE("AMediaCodec_queueInputBuffer returned %i", queued);
  std::lock_guard<std::mutex> lock(m_streamMutex);
  if (m_stream) m_stream->Advance();
  return true;
}

void LumoObject::ReadMeshFrame(const OZMCORE::CComPtr<OzmCrossPlatform::Stream>& stream, uint32_t generation) {
  std::shared_ptr<Ozm::MeshFrame> frame = Ozm::DecodeMeshFrame(m_meshReader, stream);
  {
    // The generation changes under the same lock, so a frame from before a rewind or close can
    // never slip in after the queue was cleared.
    std::lock_guard<std::mutex> lock(m_meshFrameMutex);
    if (frame && generation == m_meshGeneration.load()) {
      m_meshFrames.push_back(std::move(frame));
      return;
    }
  }
  // A mesh that failed to decode, or one from before a rewind or close, is never drawn.
  GiveMeshSlot();
}
