#include "tools/ozm/media/StreamReader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "input/HLSStream.h"
#include "input/MpegTsDemuxer.h"
#include "platform/Log.h"

namespace OzmTool {
namespace {

namespace Keys = OzmPlatform::MediaKeys;
using Clock = std::chrono::steady_clock;

// Samples are read into a buffer that doubles until the sample fits, up to this size.
constexpr size_t kFirstSampleBuffer = size_t{1} << 20;
constexpr size_t kMaxSampleBytes = size_t{1} << 28;
constexpr int kMaxReasons = 4;

bool StartsWith(const std::string& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

std::vector<uint8_t> Buffer(const OzmPlatform::MediaFormat& format, const char* key) {
  const void* data = nullptr;
  size_t size = 0;
  if (!format.GetBuffer(key, &data, &size) || !data) return {};
  const auto* bytes = static_cast<const uint8_t*>(data);
  return std::vector<uint8_t>(bytes, bytes + size);
}

int Int(const OzmPlatform::MediaFormat& format, const char* key) {
  int32_t value = 0;
  return format.GetInt32(key, &value) ? value : 0;
}

// The profile named in the sequence parameter set of the codec data, as FFmpeg names it.
std::string ProfileOf(VideoCodec codec, const std::vector<uint8_t>& csd) {
  for (const NalSpan& unit : SplitAnnexB(csd.data(), csd.size())) {
    const uint8_t* nal = &csd[unit.begin];
    const size_t size = unit.end - unit.begin;
    if (codec == VideoCodec::H264 && NalType(codec, nal[0]) == 7 && size >= 3) {
      int profile = nal[1];
      constexpr int kConstrained = 1 << 9;  // FFmpeg's flag for constraint_set1 on Baseline
      if (profile == 66 && (nal[2] & 0x40)) profile |= kConstrained;
      const char* name = avcodec_profile_name(AV_CODEC_ID_H264, profile);
      return name ? name : "";
    }
    if (codec == VideoCodec::Hevc && NalType(codec, nal[0]) == 33 && size >= 4) {
      // After the two header bytes: parameter-set id, sub-layers and nesting flag in one byte, then
      // profile space, tier flag and profile in the next.
      const char* name = avcodec_profile_name(AV_CODEC_ID_HEVC, nal[3] & 0x1F);
      return name ? name : "";
    }
  }
  return "";
}

// The profile, sampling rate and channels of an AAC AudioSpecificConfig; false when it does not read.
bool ReadAudioConfig(const std::vector<uint8_t>& config, std::string* profile, int* rate, int* channels) {
  static const int kRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                 22050, 16000, 12000, 11025, 8000,  7350};
  if (config.size() < 2) return false;
  const int index = (config[0] & 0x07) << 1 | config[1] >> 7;
  const int layout = (config[1] >> 3) & 0x0F;
  if (index >= 13 || layout < 1 || layout > 7) return false;
  *rate = kRates[index];
  *channels = layout == 7 ? 8 : layout;
  // FFmpeg numbers AAC profiles by the audio object type less one.
  const char* name = avcodec_profile_name(AV_CODEC_ID_AAC, (config[0] >> 3) - 1);
  *profile = name ? name : "";
  return true;
}

std::string WithoutPlayerId(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  if (text.size() > 2 && text[0] == '[') {
    const size_t close = text.find("] ");
    if (close != std::string::npos && text.find_first_not_of("-0123456789", 1) == close) text.erase(0, close + 2);
  }
  return text;
}

// Counts the AAC frames of an audio sample (1024 PCM samples each) into the track: one raw frame,
// or the frames of its ADTS headers when it still has them.
void CountAacFrames(const uint8_t* data, size_t size, StreamTrack* track) {
  StreamTrack& audio = *track;
  const auto adts = [&](size_t at) { return at + 7 <= size && data[at] == 0xFF && (data[at + 1] & 0xF6) == 0xF0; };
  if (!adts(0)) {
    audio.frames += size > 0 ? 1 : 0;
  }
  for (size_t at = 0; adts(at);) {
    const size_t length = static_cast<size_t>(data[at + 3] & 0x03) << 11 | data[at + 4] << 3 | data[at + 5] >> 5;
    if (length < 7) break;
    audio.frames += (data[at + 6] & 0x03) + 1;
    at += length;
  }
  if (audio.sampleRate > 0) audio.seconds = static_cast<double>(audio.frames) * 1024 / audio.sampleRate;
}

}  // namespace

bool HoldsRandomAccessPicture(VideoCodec codec, const std::vector<uint8_t>& annexB) {
  for (const NalSpan& unit : SplitAnnexB(annexB.data(), annexB.size())) {
    if (!IsPictureUnit(codec, &annexB[unit.begin], unit.end - unit.begin)) continue;
    const int type = NalType(codec, annexB[unit.begin]);
    if (codec == VideoCodec::H264 ? type == 5 : (type >= 16 && type <= 23)) return true;
  }
  return false;
}

class StreamReader::Watch {
 public:
  explicit Watch(StreamReader& reader) : m_reader(reader) { m_reader.Arm(); }
  ~Watch() { m_reader.Disarm(); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

 private:
  StreamReader& m_reader;
};

StreamReader::StreamReader(const std::string& path, double timeoutSeconds)
    : m_path(path),
      m_timeout(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds))),
      m_remote(StartsWith(path, "http://") || StartsWith(path, "https://")),
      m_buffer(kFirstSampleBuffer) {
  SetMpegTsDiagnostics(&m_demuxerErrors, &m_demuxerWarnings);
  m_stream = CreateHLSStream(0);
  m_watchdog = std::thread(&StreamReader::WatchdogLoop, this);
  try {
    Open();
  } catch (...) {
    Close();
    throw;
  }
}

StreamReader::~StreamReader() { Close(); }

void StreamReader::Open() {
  OzmOpenInfo openInfo{};
  bool opened = false;
  {
    Watch watch(*this);
    opened = m_stream->Open(m_path.c_str(), openInfo);
  }
  if (!opened) Fail("cannot open " + m_path);

  std::vector<std::unique_ptr<OzmPlatform::MediaFormat>> formats;
  {
    Watch watch(*this);
    const int32_t count = m_stream->GetTrackCount();
    for (int32_t track = 0; track < count; ++track) formats.push_back(m_stream->GetTrackFormat(track));
    m_stream->GetFileInfo(m_fileInfo);
  }
  if (m_timedOut.load() || formats.empty() || !formats[0]) Fail(m_path + ": no video track");

  for (size_t track = 0; track < formats.size(); ++track) {
    if (!formats[track]) continue;
    const OzmPlatform::MediaFormat& format = *formats[track];
    const char* mimeText = nullptr;
    const std::string mime = format.GetString(Keys::kMime, &mimeText) && mimeText ? mimeText : "";
    StreamTrack t;
    t.video = track == 0;
    if (t.video) {
      if (mime == "video/avc") {
        m_codec = VideoCodec::H264;
        t.codec = "h264";
      } else if (mime == "video/hevc") {
        m_codec = VideoCodec::Hevc;
        t.codec = "hevc";
      } else {
        Fail(m_path + ": the video track is " + (mime.empty() ? "of no known type" : mime) +
             "; volumetric clips are H.264 or HEVC");
      }
      t.width = Int(format, Keys::kWidth);
      t.height = Int(format, Keys::kHeight);
      t.frameRate = Int(format, Keys::kFrameRate);
      m_parameterSets = Buffer(format, Keys::kCsd0);
      const std::vector<uint8_t> csd1 = Buffer(format, Keys::kCsd1);
      m_parameterSets.insert(m_parameterSets.end(), csd1.begin(), csd1.end());
      t.profile = ProfileOf(m_codec, m_parameterSets);
    } else {
      t.codec = mime == "audio/mp4a-latm" ? "aac" : mime;
      // The codec data says what the stream holds; the format's own keys are what a decoder is
      // configured with before it reads that.
      if (!ReadAudioConfig(Buffer(format, Keys::kCsd0), &t.profile, &t.sampleRate, &t.channels)) {
        t.sampleRate = Int(format, Keys::kSampleRate);
        t.channels = Int(format, Keys::kChannelCount);
      }
    }
    m_tracks.push_back(t);
  }
}

void StreamReader::Close() {
  {
    std::lock_guard<std::mutex> lock(m_watchMutex);
    m_watchStop = true;
  }
  m_watchCondition.notify_all();
  if (m_watchdog.joinable()) m_watchdog.join();
  // Stops the stream's reader and downloads: nothing writes to the captures after this.
  m_stream.reset();
  SetMpegTsDiagnostics(nullptr, nullptr);
}

void StreamReader::Fail(const std::string& what) {
  const bool timedOut = m_timedOut.load();
  Close();
  const std::string why = Why();
  if (timedOut) {
    char seconds[32];
    std::snprintf(seconds, sizeof(seconds), "%g", std::chrono::duration<double>(m_timeout).count());
    throw ToolError(what + ": nothing came from the stream for " + seconds + " s" +
                    (why.empty() ? "" : " (" + why + ")"));
  }
  throw ToolError(what + (why.empty() ? "" : ": " + why));
}

std::string StreamReader::Why() {
  std::vector<std::string> reasons;
  auto add = [&reasons](const std::string& line) {
    std::string text = WithoutPlayerId(line);
    while (!text.empty() && text.back() == '.') text.pop_back();
    if (!text.empty() && std::find(reasons.begin(), reasons.end(), text) == reasons.end()) reasons.push_back(text);
  };
  // What the demultiplexer could not read comes first: the input's own errors follow from it.
  std::istringstream demuxer(m_demuxerErrors.str());
  for (std::string line; std::getline(demuxer, line);) {
    const std::string tag = "[ERROR]: ";
    add(line.compare(0, tag.size(), tag) == 0 ? line.substr(tag.size()) : line);
  }
  for (const OzmPlatform::LogLine& line : m_log.Lines()) {
    if (line.priority >= OzmPlatform::kLogWarn) add(line.text);
  }
  if (reasons.size() > static_cast<size_t>(kMaxReasons)) reasons.erase(reasons.begin(), reasons.end() - kMaxReasons);
  std::string text;
  for (const std::string& reason : reasons) text += (text.empty() ? "" : "; ") + reason;
  return text;
}

void StreamReader::WatchdogLoop() {
  std::unique_lock<std::mutex> lock(m_watchMutex);
  while (!m_watchStop) {
    if (m_deadline == Clock::time_point::max()) {
      m_watchCondition.wait(lock);
    } else if (m_watchCondition.wait_until(lock, m_deadline) == std::cv_status::timeout && Clock::now() >= m_deadline &&
               !m_watchStop) {
      m_timedOut.store(true);
      m_deadline = Clock::time_point::max();
      // The stream is destroyed only after this thread has been joined.
      m_stream->Cancel();
    }
  }
}

void StreamReader::Arm() {
  {
    std::lock_guard<std::mutex> lock(m_watchMutex);
    m_deadline = Clock::now() + m_timeout;
  }
  m_watchCondition.notify_all();
}

void StreamReader::Disarm() {
  std::lock_guard<std::mutex> lock(m_watchMutex);
  m_deadline = Clock::time_point::max();
}

bool StreamReader::Next(AccessUnit* au) {
  while (m_stream) {
    int32_t track = -1;
    int64_t time = 0;
    ssize_t size = -1;
    {
      Watch watch(*this);
      track = m_stream->GetSampleTrackIndex();
      if (track >= 0) {
        time = m_stream->GetSampleTime();
        for (;;) {
          size = m_stream->ReadSampleData(m_buffer.data(), static_cast<uint32_t>(m_buffer.size()));
          if (size < 0 || static_cast<size_t>(size) < m_buffer.size() || m_buffer.size() >= kMaxSampleBytes) break;
          m_buffer.resize(m_buffer.size() * 2);
        }
      }
    }
    if (track < 0) {
      if (m_timedOut.load()) Fail(m_path + ": reading stopped after " + std::to_string(m_count) + " frames");
      return false;
    }
    const size_t bytes = size > 0 ? static_cast<size_t>(size) : 0;
    if (track != 0) {
      if (track < static_cast<int32_t>(m_tracks.size())) {
        StreamTrack& audio = m_tracks[static_cast<size_t>(track)];
        ++audio.samples;
        audio.bytes += bytes;
        CountAacFrames(m_buffer.data(), bytes, &audio);
      }
    } else {
      if (m_count == 0) m_firstTime = time;
      m_lastTime = time;
      au->index = m_count++;
      au->pts = time;
      au->seconds = static_cast<double>(time - m_firstTime) / 1e6;
      au->annexB.assign(m_buffer.data(), m_buffer.data() + bytes);
      au->keyFrame = HoldsRandomAccessPicture(m_codec, au->annexB);
      au->damage.clear();
      if (bytes == 0) au->damage = "the sample is empty";
      if (bytes == kMaxSampleBytes) au->damage = "the sample is larger than the tool reads";
      au->packet = Av::NewPacket();
      Av::Check(av_new_packet(au->packet.get(), static_cast<int>(bytes)), "packet");
      if (bytes) std::memcpy(au->packet->data, m_buffer.data(), bytes);
      au->packet->pts = au->packet->dts = time;
      if (au->keyFrame) au->packet->flags |= AV_PKT_FLAG_KEY;
      StreamTrack& video = m_tracks[0];
      ++video.samples;
      ++video.frames;
      video.bytes += bytes;
      video.seconds =
          static_cast<double>(m_lastTime - m_firstTime) / 1e6 + (video.frameRate > 0 ? 1.0 / video.frameRate : 0);
    }
    {
      Watch watch(*this);
      m_stream->Advance();
    }
    if (track == 0) return true;
  }
  return false;
}

std::unique_ptr<PictureDecoder> StreamReader::Pictures() const {
  // Sample times are microseconds.
  return std::make_unique<PictureDecoder>(m_codec, m_parameterSets, AVRational{1, 1000000});
}

}  // namespace OzmTool
