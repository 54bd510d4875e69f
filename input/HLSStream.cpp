#include "input/HLSStream.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/StreamingMeshHeader.h"
#include "input/MpegTsDemuxer.h"
#include "platform/Log.h"
#include "platform/Platform.h"

namespace Keys = OzmPlatform::MediaKeys;

namespace {

// How many samples each queue may hold ahead of Advance: at least the pre-roll of 4 video and 8
// audio samples, and a little more to ride out a slow segment start.
constexpr int kVideoCredits = 8;
constexpr int kAudioCredits = 16;
constexpr size_t kPreRollVideo = 4;
constexpr size_t kPreRollAudio = 8;
// One AAC frame of 1024 samples at 48 kHz: the step of the audio clock, whatever the real rate.
constexpr int64_t kAudioFrameNs = 21333333;
constexpr int kQueueWaitMs = 10;

int64_t MonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t FileSize(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return -1;
  int64_t size = -1;
  if (std::fseek(file, 0, SEEK_END) == 0) size = std::ftell(file);
  std::fclose(file);
  return size;
}

bool IsHevcStreamType(uint8_t type) { return type == 0x24 || type == 0x06; }

// Every HLS stream of the process receives its download completions through here.
void OnDownloadComplete(const char* localPath, void* nativeHandle) {
  if (nativeHandle) static_cast<HLSStream*>(nativeHandle)->OnSegmentDownloadComplete(localPath);
}

}  // namespace

std::unique_ptr<MediaInputStream> CreateHLSStream(int playerId) {
  static const bool handlerSet = [] {
    OzmPlatform::SetDownloadCompleteHandler(&OnDownloadComplete);
    return true;
  }();
  (void)handlerSet;
  return std::make_unique<HLSStream>(playerId);
}

HLSStream::HLSStream(int playerId) : m_playerId(playerId) {}

HLSStream::~HLSStream() {
  Cancel();
  // A download may be running, or its completion being reported: once the platform returns from
  // the cancel, nothing reaches this object any more.
  OzmPlatform::Platform& platform = OzmPlatform::GetPlatform();
  if (m_remote && platform.AttachCurrentThread()) platform.CancelDownload(this);
  StopReader();
  RemoveDownloads();
}

void HLSStream::Cancel() {
  m_cancelled.store(true);
  if (m_opening.load()) OZM_LOGI("[%i] ~HLSStream cancelling Open", m_playerId);
  WakeAll();
}

void HLSStream::WakeAll() {
  // Each flag's waiters check it under its own mutex: taking the mutex once orders the wake after
  // any check in progress.
  { std::lock_guard<std::mutex> lock(m_downloadMutex); }
  m_newDataCondition.notify_all();
  { std::lock_guard<std::mutex> lock(m_bufferingMutex); }
  m_bufferingCondition.notify_all();
  { std::lock_guard<std::mutex> lock(m_openedMutex); }
  m_openedCondition.notify_all();
  { std::lock_guard<std::mutex> lock(m_formatsMutex); }
  m_formatsCondition.notify_all();
  { std::lock_guard<std::mutex> lock(m_creditMutex); }
  m_creditCondition.notify_all();
}

void HLSStream::RemoveDownloads() {
  if (!m_remote) return;
  // The files this stream was given, then their folders when nothing else is left in them (rmdir
  // leaves a folder that is not empty). Plain POSIX calls: the C++ runtime of older NDKs has no
  // std::filesystem.
  std::vector<std::string> files;
  {
    std::lock_guard<std::mutex> lock(m_downloadMutex);
    for (const Segment& segment : m_segments) {
      if (!segment.localPath.empty()) files.push_back(segment.localPath);
    }
  }
  if (!m_playlistFile.empty()) files.push_back(m_playlistFile);
  std::set<std::string> folders;
  for (const std::string& file : files) {
    ::unlink(file.c_str());
    const size_t slash = file.find_last_of('/');
    if (slash != std::string::npos && slash > 0) folders.insert(file.substr(0, slash));
  }
  for (const std::string& folder : folders) ::rmdir(folder.c_str());
}

// ---------------------------------------------------------------------------------------------
// Open, the download chain and the play-through rule.

bool HLSStream::Open(const char* path, const OzmOpenInfo& openInfo) {
  {
    std::lock_guard<std::mutex> lock(m_bufferingMutex);
    m_bufferingComplete = false;
  }
  m_readIndex.store(0);
  m_fileInfo = OzmFileInfo{};
  if (!path) return false;
  const std::string location(path);
  const size_t slash = location.find_last_of('/');
  m_baseUrl = slash == std::string::npos ? std::string() : location.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? location : location.substr(slash + 1);
  m_playlistName = name.size() >= 5 ? name.substr(0, name.size() - 5) : name;
  m_remote = location.compare(0, 7, "http://") == 0 || location.compare(0, 8, "https://") == 0;

  OzmPlatform::Platform& platform = OzmPlatform::GetPlatform();
  std::string playlist = location;
  if (m_remote) {
    if (!platform.AttachCurrentThread()) return false;
    playlist = platform.DownloadFileFromUrlBlocking(location);
    if (playlist.empty()) {
      OZM_LOGE("[%i] failed to download HLS playlist", m_playerId);
      return false;
    }
    m_playlistFile = playlist;
  }
  FILE* file = std::fopen(playlist.c_str(), "rb");
  if (!file) {
    OZM_LOGE("[%i] failed to open HLS playlist", m_playerId);
    return false;
  }
  std::vector<Segment> segments = ParseHlsPlaylist(file);
  std::fclose(file);
  std::memcpy(&m_openInfo, &openInfo, sizeof(m_openInfo));
  if (segments.empty()) {
    OZM_LOGE("[%i] the HLS playlist lists no segments", m_playerId);
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(m_downloadMutex);
    m_segments = std::move(segments);
    if (!m_remote) {
      for (Segment& segment : m_segments) {
        const bool absolute = segment.uri.find("://") != std::string::npos || segment.uri.compare(0, 1, "/") == 0;
        segment.localPath = absolute ? segment.uri : m_baseUrl + segment.uri;
        segment.sizeBytes = std::max<int64_t>(0, FileSize(segment.localPath));
      }
      m_nextDownloadIndex = static_cast<int>(m_segments.size());
    }
  }
  if (!m_remote) {
    {
      std::lock_guard<std::mutex> lock(m_bufferingMutex);
      m_bufferingComplete = true;
    }
    m_bufferingCondition.notify_all();
  } else {
    m_opening.store(true);
    DownloadNextSegment();
    std::unique_lock<std::mutex> lock(m_downloadMutex);
    m_newDataCondition.wait(lock, [this] { return m_cancelled.load() || !m_segments[0].localPath.empty(); });
    if (m_cancelled.load()) {
      OZM_LOGI("[%i] Open aborted (shutting down)", m_playerId);
      m_opening.store(false);
      return false;
    }
    m_opening.store(false);
  }

  std::string first;
  {
    std::lock_guard<std::mutex> lock(m_downloadMutex);
    first = m_segments[0].localPath;
  }
  OZM_LOGI("[%i] Reading segment : %s", m_playerId, first.c_str());
  if (!ReadFirstSegment(first)) return false;
  StartReader();
  OZM_LOGI("[%i] HLSStream::Open->streamOpened", m_playerId);
  {
    std::lock_guard<std::mutex> lock(m_openedMutex);
    m_opened = true;
  }
  m_openedCondition.notify_all();

  Advance();
  std::unique_lock<std::mutex> lock(m_bufferingMutex);
  m_bufferingCondition.wait(lock, [this] { return m_bufferingComplete || m_cancelled.load(); });
  if (!m_bufferingComplete) {
    OZM_LOGI("[%i] Open aborted (shutting down)", m_playerId);
    return false;
  }
  return true;
}

void HLSStream::DownloadNextSegment() {
  std::string uri;
  {
    std::lock_guard<std::mutex> lock(m_downloadMutex);
    if (m_nextDownloadIndex < 0 || m_nextDownloadIndex >= static_cast<int>(m_segments.size())) return;
    uri = m_segments[static_cast<size_t>(m_nextDownloadIndex)].uri;
    m_downloadStartNs = MonotonicNs();
  }
  OZM_LOGI("[%i] downloading %s", m_playerId, uri.c_str());
  OzmPlatform::Platform& platform = OzmPlatform::GetPlatform();
  if (!platform.AttachCurrentThread()) return;
  // A segment named by a whole address is fetched from there; others lie next to the playlist.
  const std::string url = uri.find("://") != std::string::npos ? uri : m_baseUrl + uri;
  m_downloadInFlight.store(true);
  platform.DownloadFileFromUrl(m_playlistName, url, uri, this);
}

void HLSStream::OnSegmentDownloadComplete(const char* localPath) {
  if (m_cancelled.load()) {
    m_downloadInFlight.store(false);
    return;
  }
  if (!localPath) {
    // Tried again at once, for as long as it takes: a stream only ends by being destroyed.
    m_downloadInFlight.store(false);
    OZM_LOGW("[%i] download failed, retrying", m_playerId);
    DownloadNextSegment();
    return;
  }
  bool more = false;
  bool playThrough = false;
  int downloaded = 0;
  {
    std::lock_guard<std::mutex> lock(m_downloadMutex);
    m_downloadInFlight.store(false);
    const int64_t now = MonotonicNs();
    if (m_nextDownloadIndex >= static_cast<int>(m_segments.size())) return;
    Segment& segment = m_segments[static_cast<size_t>(m_nextDownloadIndex)];
    segment.localPath = localPath;
    ++m_nextDownloadIndex;
    const int64_t size = FileSize(segment.localPath);
    if (size >= 0) segment.sizeBytes = size;
    const double seconds = static_cast<double>(now - m_downloadStartNs) / 1e9;
    m_downloadRate = seconds > 0 ? static_cast<double>(segment.sizeBytes) / 1048576.0 / seconds : 0;
    more = m_nextDownloadIndex < static_cast<int>(m_segments.size());
    playThrough = IsLikelyToPlayThrough();
    downloaded = m_nextDownloadIndex;
    m_newData = true;
  }
  if (more) DownloadNextSegment();
  if (playThrough) {
    bool announce = false;
    {
      std::lock_guard<std::mutex> lock(m_bufferingMutex);
      announce = !m_bufferingComplete;
      m_bufferingComplete = true;
    }
    if (announce) {
      m_bufferingCondition.notify_all();
      OZM_LOGI("[%i] buffering complete (%i segments)", m_playerId, downloaded);
    }
  }
  m_newDataCondition.notify_all();
}

bool HLSStream::IsLikelyToPlayThrough() {
  const int count = static_cast<int>(m_segments.size());
  if (count == 0 || m_nextDownloadIndex >= count) return true;
  if (!(m_downloadRate > 0)) return false;
  const int next = m_readIndex.load() + 1;
  if (next >= count) return false;
  double buffered = 0;
  for (int i = next; i < count && !m_segments[static_cast<size_t>(i)].localPath.empty(); ++i) {
    buffered += m_segments[static_cast<size_t>(i)].duration;
  }
  if (!(buffered > 0)) return false;
  double knownBytes = 0, knownSeconds = 0;
  for (const Segment& segment : m_segments) {
    if (segment.sizeBytes == 0) continue;
    knownBytes += static_cast<double>(segment.sizeBytes);
    knownSeconds += segment.duration;
  }
  const double mediaRate = knownSeconds > 0 ? knownBytes / 1048576.0 / knownSeconds : 0;
  double remaining = 0;
  for (int i = next; i < count; ++i) remaining += m_segments[static_cast<size_t>(i)].duration;
  const double bufferingTime = remaining * (mediaRate - m_downloadRate) / m_downloadRate;
  m_percentBuffered = std::max(0.0, buffered / bufferingTime);
  if (bufferingTime < buffered) return true;
  OZM_LOGI("[%i] estimated buffering time = %.2f sec", m_playerId, bufferingTime);
  OZM_LOGI("[%i] Percent buffered = %.2f", m_playerId, m_percentBuffered);
  return false;
}

// ---------------------------------------------------------------------------------------------
// Track formats and file information from the first segment.

bool HLSStream::ReadVideoFormatDescriptor(const uint8_t* data, size_t size) {
  ParameterSets sets;
  VideoParameters video;
  video.frameRate = m_frameRate.load();
  std::string error;
  const bool parsed = m_hevc ? ReadVideoFormatDescriptorHEVC(data, size, sets, video, &error)
                             : ReadVideoFormatDescriptorH264(data, size, sets, video, &error);
  if (!parsed) {
    if (!error.empty()) OZM_LOGE("[%i] video parameters not read: %s", m_playerId, error.c_str());
    return false;
  }
  if (video.frameRate > 0) m_frameRate.store(video.frameRate);
  {
    std::lock_guard<std::mutex> lock(m_formatsMutex);
    m_parameterSets = std::move(sets);
    m_video = video;
    m_formatsReady = true;
  }
  m_formatsCondition.notify_all();
  return true;
}

std::vector<uint8_t> HLSStream::ReadVideoRange(const uint8_t* data, size_t size) const {
  return m_hevc ? ReadVideoRangeHEVC(data, size) : ReadVideoRangeH264(data, size);
}

bool HLSStream::ReadFirstSegment(const std::string& path) {
  MpegTsBitStream bits(path);
  MpegTsDemuxer demuxer(true);
  Packet packet;
  while (!m_cancelled.load() && bits.GetPacket(packet)) demuxer.DecodePacket(packet);
  demuxer.OnEOF();

  const Stream* video = nullptr;
  const Stream* audio = nullptr;
  for (const auto& entry : demuxer.Streams()) {
    const Stream* stream = entry.second.get();
    if (stream->IsVideo() && !video) video = stream;
    if (!stream->IsVideo() && !audio) audio = stream;
  }
  if (!video || video->ranges.empty()) {
    OZM_LOGE("[%i] the first HLS segment has no video", m_playerId);
    return false;
  }
  m_hevc = IsHevcStreamType(video->StreamType());
  if (audio) {
    m_hasAudio.store(true);
    m_audioProfile = audio->Profile();
    m_audioSamplingFrequencyIndex = audio->SamplingFrequencyIndex();
    m_audioChannelConfiguration = audio->ChannelConfiguration();
  }

  // The video's parameters come from the first access unit that carries them; the mesh headers of
  // the segment's frames give the counts and the bounds an engine sizes its buffers with.
  bool formats = false;
  OzmFileInfo info{};
  bool anyMesh = false;
  for (const SampleRange& range : video->ranges) {
    if (range.start < 0 || range.end <= range.start || range.end > static_cast<int64_t>(video->Size())) continue;
    const uint8_t* data = video->Data() + range.start;
    const size_t size = static_cast<size_t>(range.end - range.start);
    if (!formats) formats = ReadVideoFormatDescriptor(data, size);
    OZMCORE::CComPtr<OzmCrossPlatform::Stream> mesh(
        OzmCrossPlatform::FindCompressedMesh(data, static_cast<unsigned int>(std::min<size_t>(size, 0xFFFFFFFFu))));
    if (!mesh) continue;
    CStreamingMeshHeader header;
    if (header.Read(mesh.Get()) != S_OK) continue;
    info.maxVertexCount = std::max(info.maxVertexCount, header.m_numVertices);
    info.maxIndexCount = std::max(info.maxIndexCount, header.m_numIndices);
    for (int axis = 0; axis < 3; ++axis) {
      const double low = header.m_bboxMin[axis], high = header.m_bboxMax[axis];
      info.bboxMin[axis] = anyMesh ? std::min(info.bboxMin[axis], low) : low;
      info.bboxMax[axis] = anyMesh ? std::max(info.bboxMax[axis], high) : high;
    }
    if (header.m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_HasNormals) info.hasNormals = 1;
    anyMesh = true;
  }

  double duration = 0;
  double bytes = 0;
  {
    std::lock_guard<std::mutex> lock(m_downloadMutex);
    for (const Segment& segment : m_segments) duration += segment.duration;
    if (!m_segments.empty() && m_segments[0].duration > 0) {
      // Every segment is taken to be as dense as the first.
      bytes = static_cast<double>(std::max<int64_t>(0, FileSize(path))) / m_segments[0].duration * duration;
    }
  }
  info.hasAudio = m_hasAudio.load() ? 1 : 0;
  info.duration = static_cast<int64_t>(duration * 1e7);
  info.frameCount = static_cast<uint32_t>(duration * m_frameRate.load() + 0.5);
  info.fileSizeMB = static_cast<float>(bytes / 1048576.0);
  info.bitrate = duration > 0 ? static_cast<float>(bytes * 8 / 1e6 / duration) : 0.0f;
  {
    std::lock_guard<std::mutex> lock(m_formatsMutex);
    info.textureWidth = m_video.width;
    info.textureHeight = m_video.height;
  }
  m_fileInfo = info;
  return true;
}

bool HLSStream::WaitOpened() {
  std::unique_lock<std::mutex> lock(m_openedMutex);
  m_openedCondition.wait(lock, [this] { return m_opened || m_cancelled.load(); });
  return m_opened && !m_cancelled.load();
}

bool HLSStream::GetFileInfo(OzmFileInfo& info) {
  if (!WaitOpened()) return false;
  info = m_fileInfo;
  return true;
}

int32_t HLSStream::GetTrackCount() {
  if (!WaitOpened()) return 0;
  return m_hasAudio.load() ? 2 : 1;
}

std::unique_ptr<OzmPlatform::MediaFormat> HLSStream::GetTrackFormat(int32_t track) {
  if (track < 0 || track > 1 || (track == 1 && !m_hasAudio.load())) return nullptr;
  std::unique_lock<std::mutex> lock(m_formatsMutex);
  m_formatsCondition.wait(lock, [this] { return m_formatsReady || m_cancelled.load(); });
  if (!m_formatsReady) return nullptr;
  std::unique_ptr<OzmPlatform::MediaFormat> format = OzmPlatform::NewMediaFormat();
  if (track == 1) {
    format->SetString(Keys::kMime, "audio/mp4a-latm");
    format->SetInt32(Keys::kChannelCount, 2);
    format->SetInt32(Keys::kSampleRate, 48000);
    const std::array<uint8_t, 2> config =
        AacAudioSpecificConfig(m_audioProfile, m_audioSamplingFrequencyIndex, m_audioChannelConfiguration);
    format->SetBuffer(Keys::kCsd0, config.data(), config.size());
    return format;
  }
  format->SetString(Keys::kMime, m_hevc ? "video/hevc" : "video/avc");
  format->SetInt32(Keys::kWidth, m_video.width);
  format->SetInt32(Keys::kHeight, m_video.height);
  format->SetInt32(Keys::kFrameRate, m_video.frameRate);
  if (m_hevc) {
    const std::vector<uint8_t> csd = HevcCsd0(m_parameterSets);
    format->SetBuffer(Keys::kCsd0, csd.data(), csd.size());
  } else {
    const std::vector<uint8_t> csd0 = H264Csd0(m_parameterSets);
    const std::vector<uint8_t> csd1 = H264Csd1(m_parameterSets);
    format->SetBuffer(Keys::kCsd0, csd0.data(), csd0.size());
    format->SetBuffer(Keys::kCsd1, csd1.data(), csd1.size());
  }
  return format;
}

// ---------------------------------------------------------------------------------------------
// The reader thread.

void HLSStream::StartReader() {
  {
    std::lock_guard<std::mutex> lock(m_creditMutex);
    m_videoCredits = kVideoCredits;
    m_audioCredits = kAudioCredits;
  }
  m_readerStop.store(false);
  m_readerDone.store(false);
  m_reader = std::thread(&HLSStream::ReaderThreadFunc, this);
}

void HLSStream::StopReader() {
  m_readerStop.store(true);
  WakeAll();
  if (m_reader.joinable()) m_reader.join();
}

void HLSStream::ReaderThreadFunc() {
  while (!Stopping()) {
    const int index = m_readIndex.load();
    std::string path;
    {
      std::unique_lock<std::mutex> lock(m_downloadMutex);
      if (index >= static_cast<int>(m_segments.size())) break;
      if (m_segments[static_cast<size_t>(index)].localPath.empty()) {
        OZM_LOGI("[%i] Reader thread waiting for more data", m_playerId);
        const int64_t since = MonotonicNs();
        m_newDataCondition.wait(
            lock, [&] { return Stopping() || !m_segments[static_cast<size_t>(index)].localPath.empty(); });
        OZM_LOGI("[%i] Reader thread was suspended for %f seconds", m_playerId,
                 static_cast<double>(MonotonicNs() - since) / 1e9);
        if (Stopping()) break;
      }
      path = m_segments[static_cast<size_t>(index)].localPath;
    }
    ReadSegment(path);
    if (Stopping()) break;
    m_readIndex.store(index + 1);
  }
  if (!Stopping()) {
    OZM_LOGI("[%i] Reader thread sleeping", m_playerId);
    m_readerDone.store(true);
  }
}

void HLSStream::ReadSegment(const std::string& path) {
  OZM_LOGI("[%i] Reading segment : %s", m_playerId, path.c_str());
  MpegTsBitStream bits(path);
  MpegTsDemuxer demuxer(true);
  Packet packet;
  bool more = true;
  while (!Stopping()) {
    if (more) {
      more = bits.GetPacket(packet);
      if (more) {
        demuxer.DecodePacket(packet);
      } else {
        demuxer.OnEOF();
        OZM_LOGI("[%i] segment input EOS", m_playerId);
      }
    }
    const bool moved = MoveRanges(demuxer);
    if (more) continue;
    bool left = false;
    for (const auto& entry : demuxer.Streams()) left = left || !entry.second->ranges.empty();
    if (!left) {
      OZM_LOGI("[%i] segment video EOS", m_playerId);
      if (m_hasAudio.load()) OZM_LOGI("[%i] segment audio EOS", m_playerId);
      break;
    }
    if (!moved) {
      // Both queues are full: wait for Advance to take a sample.
      std::unique_lock<std::mutex> lock(m_creditMutex);
      m_creditCondition.wait_for(lock, std::chrono::milliseconds(kQueueWaitMs));
    }
  }
}

bool HLSStream::MoveRanges(MpegTsDemuxer& demuxer) {
  bool moved = false;
  bool haveVideo = false, haveAudio = false;
  for (const auto& entry : demuxer.Streams()) {
    Stream& stream = *entry.second;
    // The first video and the first audio stream are the tracks; others are left alone.
    const bool video = stream.IsVideo();
    if (video ? haveVideo : haveAudio) {
      stream.ranges.clear();
      continue;
    }
    (video ? haveVideo : haveAudio) = true;
    if (!video && !m_hasAudio.load()) {
      stream.ranges.clear();
      continue;
    }
    const int track = video ? 0 : 1;
    while (!stream.ranges.empty() && !Stopping()) {
      const SampleRange range = stream.ranges.front();
      if (range.start < 0 || range.end < range.start || range.end > static_cast<int64_t>(stream.Size())) {
        stream.ranges.pop_front();
        continue;
      }
      if (!TakeCredit(track)) break;
      stream.ranges.pop_front();
      const uint8_t* data = stream.Data() + range.start;
      const size_t size = static_cast<size_t>(range.end - range.start);
      Sample sample;
      sample.trackIndex = track;
      if (video) {
        bool ready = false;
        {
          std::lock_guard<std::mutex> lock(m_formatsMutex);
          ready = m_formatsReady;
        }
        // Without parameter sets in the first segment, a later access unit may bring them.
        if (!ready) ReadVideoFormatDescriptor(data, size);
        std::vector<uint8_t> bytes = ReadVideoRange(data, size);
        sample.size = static_cast<uint32_t>(bytes.size());
        sample.data.reset(new uint8_t[bytes.size()]);
        std::memcpy(sample.data.get(), bytes.data(), bytes.size());
        sample.time = range.pts * 1000000000LL / 90000;
        m_videoQueue.Enqueue(std::move(sample));
      } else {
        sample.size = static_cast<uint32_t>(size);
        sample.data.reset(new uint8_t[size]);
        std::memcpy(sample.data.get(), data, size);
        sample.time = range.pts;
        m_audioQueue.Enqueue(std::move(sample));
      }
      moved = true;
      bool preRoll = false;
      {
        std::lock_guard<std::mutex> lock(m_openedMutex);
        preRoll = !m_opened && m_videoQueue.Size() == kPreRollVideo &&
                  (!m_hasAudio.load() || m_audioQueue.Size() == kPreRollAudio);
      }
      if (preRoll) {
        OZM_LOGI("sample queues are full, waiting for buffering to complete");
        std::unique_lock<std::mutex> lock(m_openedMutex);
        m_openedCondition.wait(lock, [this] { return m_opened || Stopping(); });
      }
    }
  }
  return moved;
}

bool HLSStream::TakeCredit(int track) {
  std::lock_guard<std::mutex> lock(m_creditMutex);
  int& credits = track == 0 ? m_videoCredits : m_audioCredits;
  if (credits <= 0) return false;
  --credits;
  return true;
}

void HLSStream::GiveCredit(int track) {
  {
    std::lock_guard<std::mutex> lock(m_creditMutex);
    ++(track == 0 ? m_videoCredits : m_audioCredits);
  }
  m_creditCondition.notify_all();
}

// ---------------------------------------------------------------------------------------------
// The consumer's side.

bool HLSStream::Advance() {
  if (!WaitOpened()) return false;
  m_current = Sample{};
  const bool hasAudio = m_hasAudio.load();
  const int frameRate = m_frameRate.load();
  const int64_t frameNs = 1000000000LL / (frameRate > 0 ? frameRate : 30);
  Sample next;
  while (!m_cancelled.load()) {
    // The end: the reader has queued the last segment's samples, and they have all been taken.
    if (m_readerDone.load() && m_videoQueue.Size() == 0 && m_audioQueue.Size() == 0) return false;
    const bool videoLeft = !m_readerDone.load() || m_videoQueue.Size() > 0;
    if (hasAudio && (m_audioClock < m_videoClock || !videoLeft)) {
      if (m_audioQueue.TryDequeue(next, kQueueWaitMs)) {
        GiveCredit(1);
        m_audioClock += kAudioFrameNs;
        break;
      }
    }
    if (m_videoQueue.TryDequeue(next, kQueueWaitMs)) {
      GiveCredit(0);
      m_videoClock += frameNs;
      break;
    }
  }
  if (next.trackIndex < 0) return false;
  m_current = std::move(next);
  return true;
}

int32_t HLSStream::GetSampleTrackIndex() {
  if (!WaitOpened()) return -1;
  return m_current.trackIndex;
}

int64_t HLSStream::GetSampleTime() { return static_cast<int64_t>(static_cast<uint64_t>(m_current.time) / 1000u); }

ssize_t HLSStream::ReadSampleData(uint8_t* buffer, uint32_t capacity) {
  if (!m_current.data || !buffer) return m_current.trackIndex < 0 ? -1 : 0;
  const uint32_t count = std::min(m_current.size, capacity);
  std::memcpy(buffer, m_current.data.get(), count);
  return static_cast<ssize_t>(count);
}

bool HLSStream::Rewind() {
  if (!WaitOpened()) return false;
  StopReader();
  Sample discarded;
  while (m_videoQueue.TryDequeue(discarded, 0)) {
  }
  while (m_audioQueue.TryDequeue(discarded, 0)) {
  }
  m_current = Sample{};
  m_videoClock = 0;
  m_audioClock = 0;
  m_readIndex.store(0);
  if (m_cancelled.load()) return false;
  StartReader();
  Advance();
  return true;
}
