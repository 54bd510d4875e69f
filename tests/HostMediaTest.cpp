// The host backend's media ports on clips from our encoder: the extractor's tracks and samples
// against FFmpeg's own reading of the same files, descriptor ranges and bad files; the decoders'
// pictures (their frame numbers read back), buffer protocol, back-pressure, flush and stop from
// other threads, damaged input, and AAC.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshPayload.h"
#include "platform/host/HostPlatform.h"
#include "tests/ClipFixtures.h"
#include "tools/ozm/Sample.h"
#include "tools/ozm/media/Av.h"
#include "tools/ozm/media/NalUnits.h"

namespace OzmPlatform {
namespace {

using namespace std::chrono_literals;
using OzmTool::VideoCodec;

constexpr int kFrames = 24;
constexpr int kSize = 192;
constexpr int kKeyInterval = 12;

int64_t FrameTimeUs(int frame) { return std::llround(frame * 1e6 / 30); }

struct ClipCase {
  const char* name;
  VideoCodec codec;
  bool audio;
};
const ClipCase kClipCases[] = {
    {"H264", VideoCodec::H264, false},
    {"H264Audio", VideoCodec::H264, true},
    {"Hevc", VideoCodec::Hevc, false},
    {"HevcAudio", VideoCodec::Hevc, true},
};
std::string CaseName(const ::testing::TestParamInfo<ClipCase>& info) { return info.param.name; }

std::string ClipPath(VideoCodec codec, bool audio) {
  EXPECT_TRUE(ClipFixtures::HaveSampleMesh()) << "run scripts/test-data.sh first";
  ClipFixtures::ClipContent clip;
  clip.frames = kFrames;
  clip.size = kSize;
  clip.codec = codec;
  clip.audio = audio;
  clip.keyInterval = kKeyInterval;
  return ClipFixtures::Clip(clip);
}

// A name in the temporary folder for this process; the test removes what it makes there.
std::string TempPath(const std::string& name) {
  return (std::filesystem::temp_directory_path() / ("ozm-host-media-" + std::to_string(::getpid()) + "-" + name))
      .string();
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> RandomBytes(size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(n);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
  return bytes;
}

// ---------------------------------------------------------------------------------------------
// Extractor

struct Sample {
  int track = -1;
  int64_t timeUs = 0;
  std::vector<uint8_t> bytes;
  bool operator==(const Sample& o) const { return track == o.track && timeUs == o.timeUs && bytes == o.bytes; }
};

// Every remaining sample of the selected tracks (stops at a bound so that a looping extractor fails
// instead of hanging).
std::vector<Sample> ReadAll(MediaExtractor& extractor, size_t bound = 10000) {
  std::vector<Sample> samples;
  std::vector<uint8_t> buffer(4 << 20);
  while (samples.size() < bound) {
    Sample s;
    s.track = extractor.GetSampleTrackIndex();
    if (s.track < 0) break;
    s.timeUs = extractor.GetSampleTime();
    const ssize_t n = extractor.ReadSampleData(buffer.data(), buffer.size());
    EXPECT_GE(n, 0) << "sample " << samples.size();
    if (n > 0) s.bytes.assign(buffer.begin(), buffer.begin() + n);
    samples.push_back(std::move(s));
    extractor.Advance();
  }
  return samples;
}

std::unique_ptr<MediaExtractor> OpenAllTracks(const std::string& path) {
  std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
  EXPECT_EQ(extractor->SetDataSource(path.c_str()), kMediaOk);
  for (size_t i = 0; i < extractor->GetTrackCount(); ++i) EXPECT_EQ(extractor->SelectTrack(i), kMediaOk);
  return extractor;
}

// What FFmpeg reads from the file: the track and time (microseconds) of every packet, in file order.
std::vector<std::pair<int, int64_t>> ReferenceOrder(const std::string& path) {
  OzmTool::Av::InputPtr input = OzmTool::Av::OpenInput(path);
  OzmTool::Av::PacketPtr packet = OzmTool::Av::NewPacket();
  std::vector<std::pair<int, int64_t>> order;
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    const AVStream* stream = input->streams[packet->stream_index];
    order.emplace_back(packet->stream_index, av_rescale_q(packet->pts, stream->time_base, AVRational{1, 1000000}));
    av_packet_unref(packet.get());
  }
  return order;
}

std::vector<int> NalTypes(VideoCodec codec, const std::vector<uint8_t>& au) {
  std::vector<int> types;
  for (const OzmTool::NalSpan& span : OzmTool::SplitAnnexB(au.data(), au.size())) {
    types.push_back(OzmTool::NalType(codec, au[span.begin]));
  }
  return types;
}

bool StartsWithStartCode(const void* data, size_t size) {
  const uint8_t* b = static_cast<const uint8_t*>(data);
  return size >= 4 && b[0] == 0 && b[1] == 0 && ((b[2] == 0 && b[3] == 1) || b[2] == 1);
}

class ExtractorClipTest : public ::testing::TestWithParam<ClipCase> {};

TEST_P(ExtractorClipTest, TrackFormats) {
  const ClipCase& c = GetParam();
  std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
  ASSERT_EQ(extractor->SetDataSource(ClipPath(c.codec, c.audio).c_str()), kMediaOk);
  ASSERT_EQ(extractor->GetTrackCount(), c.audio ? 2u : 1u);
  EXPECT_EQ(extractor->GetTrackFormat(extractor->GetTrackCount()), nullptr);

  std::unique_ptr<MediaFormat> video = extractor->GetTrackFormat(0);
  ASSERT_NE(video, nullptr);
  const char* mime = nullptr;
  ASSERT_TRUE(video->GetString(MediaKeys::kMime, &mime));
  EXPECT_STREQ(mime, c.codec == VideoCodec::H264 ? "video/avc" : "video/hevc");
  int32_t width = 0, height = 0, rate = 0, maxInput = 0;
  int64_t durationUs = 0;
  EXPECT_TRUE(video->GetInt32(MediaKeys::kWidth, &width));
  EXPECT_TRUE(video->GetInt32(MediaKeys::kHeight, &height));
  EXPECT_TRUE(video->GetInt32(MediaKeys::kFrameRate, &rate));
  EXPECT_TRUE(video->GetInt64(MediaKeys::kDurationUs, &durationUs));
  EXPECT_TRUE(video->GetInt32(MediaKeys::kMaxInputSize, &maxInput));
  EXPECT_EQ(width, kSize);
  EXPECT_EQ(height, kSize);
  EXPECT_EQ(rate, 30);
  EXPECT_NEAR(static_cast<double>(durationUs), FrameTimeUs(kFrames), 1.0);
  EXPECT_GT(maxInput, 0);

  // Parameter sets with start codes: H.264 SPS in csd-0 and PPS in csd-1; HEVC VPS, SPS and PPS in csd-0.
  const void* csd = nullptr;
  size_t csdSize = 0;
  ASSERT_TRUE(video->GetBuffer(MediaKeys::kCsd0, &csd, &csdSize));
  ASSERT_TRUE(StartsWithStartCode(csd, csdSize));
  const uint8_t* csd0 = static_cast<const uint8_t*>(csd);
  const std::vector<int> csd0Types = NalTypes(c.codec, std::vector<uint8_t>(csd0, csd0 + csdSize));
  if (c.codec == VideoCodec::H264) {
    EXPECT_EQ(csd0Types, std::vector<int>({7}));
    ASSERT_TRUE(video->GetBuffer(MediaKeys::kCsd1, &csd, &csdSize));
    ASSERT_TRUE(StartsWithStartCode(csd, csdSize));
    const uint8_t* csd1 = static_cast<const uint8_t*>(csd);
    EXPECT_EQ(NalTypes(c.codec, std::vector<uint8_t>(csd1, csd1 + csdSize)), std::vector<int>({8}));
  } else {
    // The record's SEI (the encoder's) may follow.
    ASSERT_GE(csd0Types.size(), 3u);
    EXPECT_EQ(std::vector<int>(csd0Types.begin(), csd0Types.begin() + 3), std::vector<int>({32, 33, 34}));
    EXPECT_FALSE(video->GetBuffer(MediaKeys::kCsd1, &csd, &csdSize));
  }

  if (!c.audio) return;
  std::unique_ptr<MediaFormat> audio = extractor->GetTrackFormat(1);
  ASSERT_NE(audio, nullptr);
  ASSERT_TRUE(audio->GetString(MediaKeys::kMime, &mime));
  EXPECT_STREQ(mime, "audio/mp4a-latm");
  int32_t sampleRate = 0, channels = 0;
  EXPECT_TRUE(audio->GetInt32(MediaKeys::kSampleRate, &sampleRate));
  EXPECT_TRUE(audio->GetInt32(MediaKeys::kChannelCount, &channels));
  EXPECT_TRUE(audio->GetInt64(MediaKeys::kDurationUs, &durationUs));
  EXPECT_EQ(sampleRate, 48000);
  EXPECT_EQ(channels, 1);
  EXPECT_NEAR(static_cast<double>(durationUs), FrameTimeUs(kFrames), 30000.0);
  // The AudioSpecificConfig: AAC LC (object type 2), 48 kHz (index 3), one channel.
  ASSERT_TRUE(audio->GetBuffer(MediaKeys::kCsd0, &csd, &csdSize));
  ASSERT_GE(csdSize, 2u);
  const uint8_t* asc = static_cast<const uint8_t*>(csd);
  EXPECT_EQ(asc[0] >> 3, 2);
  EXPECT_EQ(((asc[0] & 7) << 1) | (asc[1] >> 7), 3);
  EXPECT_EQ((asc[1] >> 3) & 0xf, 1);
}

TEST_P(ExtractorClipTest, SamplesInFileOrderAsAnnexBWithMeshes) {
  const ClipCase& c = GetParam();
  const std::string path = ClipPath(c.codec, c.audio);
  std::unique_ptr<MediaExtractor> extractor = OpenAllTracks(path);
  const std::vector<Sample> samples = ReadAll(*extractor);
  EXPECT_FALSE(extractor->Advance());
  EXPECT_EQ(extractor->GetSampleTime(), -1);
  uint8_t byte = 0;
  EXPECT_LT(extractor->ReadSampleData(&byte, 1), 0);

  const std::vector<std::pair<int, int64_t>> reference = ReferenceOrder(path);
  ASSERT_EQ(samples.size(), reference.size());
  int frame = 0;
  for (size_t i = 0; i < samples.size(); ++i) {
    const Sample& s = samples[i];
    SCOPED_TRACE("sample " + std::to_string(i));
    EXPECT_EQ(s.track, reference[i].first);
    EXPECT_EQ(s.timeUs, reference[i].second);
    if (s.track == 1) {
      // Raw AAC frames: no ADTS sync word.
      ASSERT_GE(s.bytes.size(), 2u);
      EXPECT_FALSE(s.bytes[0] == 0xff && (s.bytes[1] & 0xf0) == 0xf0);
      continue;
    }
    ASSERT_EQ(s.track, 0);
    EXPECT_NEAR(static_cast<double>(s.timeUs), FrameTimeUs(frame), 1.0);
    ASSERT_TRUE(StartsWithStartCode(s.bytes.data(), s.bytes.size()));
    // Key frames carry the parameter sets in front of their first slice.
    const std::vector<int> types = NalTypes(c.codec, s.bytes);
    const std::vector<int> parameterSets =
        c.codec == VideoCodec::H264 ? std::vector<int>{7, 8} : std::vector<int>{32, 33, 34};
    if (frame % kKeyInterval == 0) {
      size_t at = 0;
      for (const OzmTool::NalSpan& span : OzmTool::SplitAnnexB(s.bytes.data(), s.bytes.size())) {
        if (OzmTool::IsPictureUnit(c.codec, s.bytes.data() + span.begin, span.end - span.begin)) break;
        ++at;
      }
      for (int type : parameterSets) {
        EXPECT_NE(std::find(types.begin(), types.begin() + static_cast<std::ptrdiff_t>(at), type),
                  types.begin() + static_cast<std::ptrdiff_t>(at))
            << "parameter set " << type << " before the first slice of key frame " << frame;
      }
    }
    OZMCORE::CComPtr<OzmCrossPlatform::Stream> mesh(
        OzmCrossPlatform::FindCompressedMesh(s.bytes.data(), static_cast<unsigned>(s.bytes.size())));
    EXPECT_NE(mesh.Get(), nullptr) << "no mesh in frame " << frame;
    ++frame;
  }
  EXPECT_EQ(frame, kFrames);

  // Back to the start: the same sequence again, byte for byte.
  ASSERT_EQ(extractor->SeekTo(0, SeekMode::ClosestSync), kMediaOk);
  EXPECT_TRUE(ReadAll(*extractor) == samples);
}

INSTANTIATE_TEST_SUITE_P(Clips, ExtractorClipTest, ::testing::ValuesIn(kClipCases), CaseName);

TEST(HostExtractorTest, OnlySelectedTracksDeliverSamples) {
  const std::string path = ClipPath(VideoCodec::H264, true);
  std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
  ASSERT_EQ(extractor->SetDataSource(path.c_str()), kMediaOk);
  EXPECT_EQ(extractor->GetSampleTrackIndex(), -1);  // nothing selected
  EXPECT_EQ(extractor->SelectTrack(2), kMediaErrorInvalidParameter);

  ASSERT_EQ(extractor->SetDataSource(path.c_str()), kMediaOk);
  ASSERT_EQ(extractor->SelectTrack(1), kMediaOk);
  std::vector<Sample> audio = ReadAll(*extractor);
  EXPECT_GT(audio.size(), 30u);
  for (const Sample& s : audio) EXPECT_EQ(s.track, 1);

  ASSERT_EQ(extractor->SetDataSource(path.c_str()), kMediaOk);
  ASSERT_EQ(extractor->SelectTrack(0), kMediaOk);
  std::vector<Sample> video = ReadAll(*extractor);
  EXPECT_EQ(video.size(), static_cast<size_t>(kFrames));
  for (const Sample& s : video) EXPECT_EQ(s.track, 0);
}

TEST(HostExtractorTest, TooSmallABufferDoesNotAdvance) {
  std::unique_ptr<MediaExtractor> extractor = OpenAllTracks(ClipPath(VideoCodec::H264, false));
  const int64_t time = extractor->GetSampleTime();
  std::vector<uint8_t> buffer(1 << 20);
  const ssize_t size = extractor->ReadSampleData(buffer.data(), buffer.size());
  ASSERT_GT(size, 1);
  EXPECT_LT(extractor->ReadSampleData(buffer.data(), static_cast<size_t>(size - 1)), 0);
  EXPECT_EQ(extractor->GetSampleTime(), time);
  EXPECT_EQ(extractor->ReadSampleData(buffer.data(), static_cast<size_t>(size)), size);
}

TEST(HostExtractorTest, SeeksToSyncSamples) {
  struct Case {
    int64_t timeUs;
    SeekMode mode;
    int firstFrame;
  };
  const Case cases[] = {
      {FrameTimeUs(15), SeekMode::PreviousSync, 12}, {FrameTimeUs(13), SeekMode::ClosestSync, 12},
      {FrameTimeUs(3), SeekMode::NextSync, 12},      {FrameTimeUs(12), SeekMode::NextSync, 12},
      {FrameTimeUs(8), SeekMode::PreviousSync, 0},
  };
  std::unique_ptr<MediaExtractor> extractor = OpenAllTracks(ClipPath(VideoCodec::H264, false));
  for (const Case& c : cases) {
    SCOPED_TRACE("seek to " + std::to_string(c.timeUs));
    ASSERT_EQ(extractor->SeekTo(c.timeUs, c.mode), kMediaOk);
    EXPECT_NEAR(static_cast<double>(extractor->GetSampleTime()), FrameTimeUs(c.firstFrame), 1.0);
    EXPECT_EQ(ReadAll(*extractor).size(), static_cast<size_t>(kFrames - c.firstFrame));
  }
}

TEST(HostExtractorTest, ReadsARangeOfADescriptor) {
  const std::string path = ClipPath(VideoCodec::Hevc, true);
  const std::vector<uint8_t> clip = ReadFile(path);
  std::vector<uint8_t> bigger = RandomBytes(5000, 1);
  bigger.insert(bigger.end(), clip.begin(), clip.end());
  const std::vector<uint8_t> tail = RandomBytes(3000, 2);
  bigger.insert(bigger.end(), tail.begin(), tail.end());
  const std::string biggerPath = TempPath("range.bin");
  WriteFile(biggerPath, bigger);

  const std::vector<Sample> expected = ReadAll(*OpenAllTracks(path));
  const int fd = ::open(biggerPath.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  {
    std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
    ASSERT_EQ(extractor->SetDataSourceFd(fd, 5000, static_cast<int64_t>(clip.size())), kMediaOk);
    ASSERT_EQ(extractor->GetTrackCount(), 2u);
    extractor->SelectTrack(0);
    extractor->SelectTrack(1);
    EXPECT_TRUE(ReadAll(*extractor) == expected);
    ASSERT_EQ(extractor->SeekTo(0, SeekMode::ClosestSync), kMediaOk);
    EXPECT_TRUE(ReadAll(*extractor) == expected);
  }
  // The descriptor is the caller's: still open, its offset untouched.
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 0);
  EXPECT_EQ(::close(fd), 0);
  std::filesystem::remove(biggerPath);
}

TEST(HostExtractorTest, BadSourcesFailCleanly) {
  const std::vector<uint8_t> clip = ReadFile(ClipPath(VideoCodec::H264, true));
  ASSERT_GT(clip.size(), 1000u);
  const std::string dir = TempPath("bad");
  std::filesystem::create_directories(dir);
  struct Case {
    const char* name;
    std::vector<uint8_t> bytes;
    bool mayOpen;  // a clip cut short keeps its header: it opens, and reading stops early
  };
  const Case cases[] = {
      {"empty", {}, false},
      {"header-only", std::vector<uint8_t>(clip.begin(), clip.begin() + 64), false},
      {"half", std::vector<uint8_t>(clip.begin(), clip.begin() + static_cast<std::ptrdiff_t>(clip.size() / 2)), true},
      {"random", RandomBytes(64 << 10, 3), false},
      {"mp4-tag-then-random",
       [] {
         std::vector<uint8_t> b = RandomBytes(8 << 10, 4);
         const uint8_t tag[] = {0, 0, 0, 0x20, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm'};
         std::memcpy(b.data(), tag, sizeof(tag));
         return b;
       }(),
       false},
  };
  const std::vector<Sample> full = ReadAll(*OpenAllTracks(ClipPath(VideoCodec::H264, true)));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir + "/" + c.name + ".mp4";
    WriteFile(path, c.bytes);
    std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
    const int status = extractor->SetDataSource(path.c_str());
    if (!c.mayOpen) {
      EXPECT_LT(status, 0);
      EXPECT_EQ(extractor->GetTrackCount(), 0u);
      EXPECT_EQ(extractor->GetSampleTrackIndex(), -1);
      EXPECT_EQ(extractor->GetTrackFormat(0), nullptr);
      continue;
    }
    if (status != kMediaOk) continue;
    for (size_t i = 0; i < extractor->GetTrackCount(); ++i) extractor->SelectTrack(i);
    EXPECT_LT(ReadAll(*extractor).size(), full.size());
  }

  std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
  EXPECT_EQ(extractor->SetDataSource((dir + "/missing.mp4").c_str()), kMediaErrorInvalidParameter);
  EXPECT_LT(extractor->SetDataSource(dir.c_str()), 0);
  EXPECT_LT(extractor->SetDataSource(nullptr), 0);
  EXPECT_EQ(extractor->SetDataSourceFd(-1, 0, 100), kMediaErrorInvalidParameter);
  const int fd = ::open((dir + "/half.mp4").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_LT(extractor->SetDataSourceFd(fd, 1 << 30, 100), 0);
  EXPECT_LT(extractor->SetDataSourceFd(fd, 100, 1000), 0);  // a range that misses the header
  ::close(fd);
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  EXPECT_LT(extractor->SetDataSourceFd(pipeFds[0], 0, 100), 0);
  ::close(pipeFds[0]);
  ::close(pipeFds[1]);
  std::filesystem::remove_all(dir);
}

// ---------------------------------------------------------------------------------------------
// Decoders

// A window that keeps what it is given.
class FakeWindow : public HostNativeWindow {
 public:
  void QueuePicture(HostPicture picture, int64_t timestampNs) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pictures.emplace_back(std::move(picture), timestampNs);
  }
  std::vector<std::pair<HostPicture, int64_t>> Take() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::move(m_pictures);
  }

 private:
  std::mutex m_mutex;
  std::vector<std::pair<HostPicture, int64_t>> m_pictures;
};

// The frame number drawn into a decoded picture.
int NumberIn(const uint8_t* rgba, int width, int height) {
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
  for (size_t i = 0, n = static_cast<size_t>(width) * height; i < n; ++i) std::memcpy(&rgb[i * 3], &rgba[i * 4], 3);
  const OzmTool::NumberPlacement at = OzmTool::Sample::NumberAt(width, height);
  return OzmTool::ReadNumber(at.cx, at.cy, at.scale, 3, width, height, rgb);
}

struct Picture {
  int64_t timeUs;
  int number;
};

struct Decoded {
  std::vector<Picture> pictures;
  int formatChanges = 0;
  int endOfStream = 0;
  int32_t width = 0, height = 0, sampleRate = 0, channels = 0;
  size_t pcmBytes = 0;
  bool timedOut = false;
};

std::vector<Sample> TrackSamples(const std::string& path, size_t track) {
  std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
  EXPECT_EQ(extractor->SetDataSource(path.c_str()), kMediaOk);
  EXPECT_EQ(extractor->SelectTrack(track), kMediaOk);
  return ReadAll(*extractor);
}

std::unique_ptr<MediaCodec> StartedCodec(const std::string& path, size_t track, NativeWindow* window) {
  std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
  EXPECT_EQ(extractor->SetDataSource(path.c_str()), kMediaOk);
  std::unique_ptr<MediaFormat> format = extractor->GetTrackFormat(track);
  const char* mime = nullptr;
  if (!format || !format->GetString(MediaKeys::kMime, &mime)) return nullptr;
  std::unique_ptr<MediaCodec> codec = NewHostMediaCodec(mime);
  if (!codec) return nullptr;
  EXPECT_EQ(codec->Configure(*format, window, 0), kMediaOk);
  EXPECT_EQ(codec->Start(), kMediaOk);
  return codec;
}

// Queues the samples (then the end of stream) and drains the output on the same thread until the
// end of stream comes out; pictures are read from the window when there is one.
// Queues one sample; false when no input buffer came within the time.
bool QueueSample(MediaCodec& codec, const Sample& s, int64_t timeoutUs) {
  const ssize_t index = codec.DequeueInputBuffer(timeoutUs);
  if (index < 0) return false;
  size_t capacity = 0;
  uint8_t* buffer = codec.GetInputBuffer(static_cast<size_t>(index), &capacity);
  EXPECT_TRUE(buffer && s.bytes.size() <= capacity);
  const bool fits = buffer && s.bytes.size() <= capacity;
  if (fits && !s.bytes.empty()) std::memcpy(buffer, s.bytes.data(), s.bytes.size());
  return codec.QueueInputBuffer(static_cast<size_t>(index), 0, fits ? s.bytes.size() : 0, s.timeUs, 0) == kMediaOk;
}

// `announces`: whether the codec is to announce its output format first (it does after
// configuration and start, not again after a flush).
Decoded Decode(MediaCodec& codec, const std::vector<Sample>& samples, FakeWindow* window, bool announces = true) {
  Decoded d;
  if (!announces) {
    std::unique_ptr<MediaFormat> known = codec.GetOutputFormat();
    EXPECT_NE(known, nullptr);
    if (known) {
      known->GetInt32(MediaKeys::kWidth, &d.width);
      known->GetInt32(MediaKeys::kHeight, &d.height);
      known->GetInt32(MediaKeys::kSampleRate, &d.sampleRate);
      known->GetInt32(MediaKeys::kChannelCount, &d.channels);
    }
  }
  size_t next = 0;
  bool inputDone = false;
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  std::unique_ptr<MediaFormat> format;
  while (d.endOfStream == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      d.timedOut = true;
      break;
    }
    if (!inputDone && next < samples.size()) {
      if (QueueSample(codec, samples[next], 0)) ++next;
    } else if (!inputDone) {
      const ssize_t index = codec.DequeueInputBuffer(0);
      if (index >= 0) {
        EXPECT_EQ(codec.QueueInputBuffer(static_cast<size_t>(index), 0, 0, 0, kBufferFlagEndOfStream), kMediaOk);
        inputDone = true;
      }
    }
    BufferInfo info;
    const ssize_t index = codec.DequeueOutputBuffer(&info, inputDone ? 10000 : 1000);
    if (index == kInfoOutputFormatChanged) {
      ++d.formatChanges;
      format = codec.GetOutputFormat();
      EXPECT_NE(format, nullptr);
      const char* mime = nullptr;
      if (format) {
        EXPECT_TRUE(format->GetString(MediaKeys::kMime, &mime));
        EXPECT_STREQ(mime, format->GetInt32(MediaKeys::kWidth, nullptr) ? "video/raw" : "audio/raw");
        format->GetInt32(MediaKeys::kWidth, &d.width);
        format->GetInt32(MediaKeys::kHeight, &d.height);
        format->GetInt32(MediaKeys::kSampleRate, &d.sampleRate);
        format->GetInt32(MediaKeys::kChannelCount, &d.channels);
      }
      continue;
    }
    if (index == kInfoTryAgainLater) continue;
    EXPECT_GE(index, 0);
    if (index < 0) break;
    const size_t buffer = static_cast<size_t>(index);
    if (info.flags & kBufferFlagEndOfStream) {
      ++d.endOfStream;
      EXPECT_EQ(codec.ReleaseOutputBuffer(buffer, false), kMediaOk);
      break;
    }
    EXPECT_EQ(d.formatChanges, announces ? 1 : 0) << "the format comes before the first buffer";
    size_t size = 0;
    const uint8_t* data = codec.GetOutputBuffer(buffer, &size);
    if (d.sampleRate > 0) {
      EXPECT_NE(data, nullptr);
      d.pcmBytes += static_cast<size_t>(info.size);
      d.pictures.push_back({info.presentationTimeUs, -1});
      EXPECT_EQ(codec.ReleaseOutputBuffer(buffer, false), kMediaOk);
      continue;
    }
    EXPECT_EQ(info.size, d.width * d.height * 4);
    if (window) {
      EXPECT_EQ(data, nullptr);
      EXPECT_EQ(codec.ReleaseOutputBuffer(buffer, true), kMediaOk);
      for (auto& [picture, timestampNs] : window->Take()) {
        EXPECT_EQ(picture.width, d.width);
        EXPECT_EQ(picture.height, d.height);
        EXPECT_EQ(timestampNs, info.presentationTimeUs * 1000);
        EXPECT_EQ(picture.rgba->size(), static_cast<size_t>(info.size));
        d.pictures.push_back({timestampNs / 1000, NumberIn(picture.rgba->data(), picture.width, picture.height)});
      }
    } else {
      EXPECT_NE(data, nullptr);
      EXPECT_EQ(size, static_cast<size_t>(info.size));
      d.pictures.push_back({info.presentationTimeUs, data ? NumberIn(data, d.width, d.height) : -1});
      EXPECT_EQ(codec.ReleaseOutputBuffer(buffer, false), kMediaOk);
    }
  }
  return d;
}

// Every picture of the clip once, in order, with its time and the frame number drawn in it.
void ExpectAllPictures(const Decoded& d, int firstFrame = 0) {
  EXPECT_FALSE(d.timedOut);
  EXPECT_EQ(d.endOfStream, 1);
  EXPECT_EQ(d.width, kSize);
  EXPECT_EQ(d.height, kSize);
  ASSERT_EQ(d.pictures.size(), static_cast<size_t>(kFrames - firstFrame));
  for (size_t i = 0; i < d.pictures.size(); ++i) {
    const int frame = firstFrame + static_cast<int>(i);
    EXPECT_NEAR(static_cast<double>(d.pictures[i].timeUs), FrameTimeUs(frame), 1.0) << "picture " << i;
    EXPECT_EQ(d.pictures[i].number, frame) << "picture " << i;
  }
}

struct DecodeCase {
  const char* name;
  VideoCodec codec;
  bool surface;
};
std::string DecodeCaseName(const ::testing::TestParamInfo<DecodeCase>& info) { return info.param.name; }
class DecoderPictureTest : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(DecoderPictureTest, EveryPictureOnceInOrderWithItsTimeAndNumber) {
  const DecodeCase& c = GetParam();
  const std::string path = ClipPath(c.codec, true);
  FakeWindow window;
  std::unique_ptr<MediaCodec> codec = StartedCodec(path, 0, c.surface ? &window : nullptr);
  ASSERT_NE(codec, nullptr);
  const std::vector<Sample> samples = TrackSamples(path, 0);
  const Decoded first = Decode(*codec, samples, c.surface ? &window : nullptr);
  ExpectAllPictures(first);
  EXPECT_EQ(first.formatChanges, 1);
  // Nothing after the end of stream.
  BufferInfo info;
  EXPECT_EQ(codec->DequeueOutputBuffer(&info, 50000), kInfoTryAgainLater);

  // After the end of stream, a flush, and the clip again from its first sample.
  ASSERT_EQ(codec->Flush(), kMediaOk);
  const Decoded again = Decode(*codec, samples, c.surface ? &window : nullptr, false);
  ExpectAllPictures(again);
  EXPECT_EQ(again.formatChanges, 0);
}

INSTANTIATE_TEST_SUITE_P(Codecs, DecoderPictureTest,
                         ::testing::Values(DecodeCase{"H264ToSurface", VideoCodec::H264, true},
                                           DecodeCase{"H264ToBuffers", VideoCodec::H264, false},
                                           DecodeCase{"HevcToSurface", VideoCodec::Hevc, true},
                                           DecodeCase{"HevcToBuffers", VideoCodec::Hevc, false}),
                         DecodeCaseName);

TEST(HostDecoderTest, BackPressureReachesTheInputSide) {
  const std::string path = ClipPath(VideoCodec::H264, false);
  std::unique_ptr<MediaCodec> codec = StartedCodec(path, 0, nullptr);
  ASSERT_NE(codec, nullptr);
  const std::vector<Sample> samples = TrackSamples(path, 0);
  size_t queued = 0;
  // Each wait is long enough for the worker to take what it can, even on a loaded machine.
  while (queued < samples.size() && QueueSample(*codec, samples[queued], 1000000)) ++queued;
  // Eight inputs waiting behind the pictures in the output buffers and inside the decoder (on an
  // idle machine 13 or more in all; fewer when the worker got little time).
  EXPECT_LT(queued, samples.size());
  EXPECT_GT(queued, 8u);
  EXPECT_EQ(codec->DequeueInputBuffer(200000), kInfoTryAgainLater);

  // Draining one picture lets the decoder go on, which frees an input.
  BufferInfo info;
  EXPECT_EQ(codec->DequeueOutputBuffer(&info, 1000000), kInfoOutputFormatChanged);
  const ssize_t out = codec->DequeueOutputBuffer(&info, 1000000);
  ASSERT_GE(out, 0);
  EXPECT_EQ(info.presentationTimeUs, samples[0].timeUs);
  EXPECT_EQ(codec->ReleaseOutputBuffer(static_cast<size_t>(out), false), kMediaOk);
  EXPECT_GE(codec->DequeueInputBuffer(2000000), 0);
}

// Flush and Stop from another thread wake a caller blocked in a dequeue without limit.
TEST(HostDecoderTest, FlushAndStopWakeBlockedCallers) {
  const std::string path = ClipPath(VideoCodec::H264, false);
  std::unique_ptr<MediaCodec> codec = StartedCodec(path, 0, nullptr);
  ASSERT_NE(codec, nullptr);
  auto blockedDequeue = [&] {
    return std::async(std::launch::async, [&] {
      BufferInfo info;
      return codec->DequeueOutputBuffer(&info, -1);
    });
  };
  std::future<ssize_t> waiting = blockedDequeue();
  EXPECT_EQ(waiting.wait_for(100ms), std::future_status::timeout);
  ASSERT_EQ(codec->Flush(), kMediaOk);
  ASSERT_EQ(waiting.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(waiting.get(), kInfoTryAgainLater);

  waiting = blockedDequeue();
  EXPECT_EQ(waiting.wait_for(100ms), std::future_status::timeout);
  ASSERT_EQ(codec->Stop(), kMediaOk);
  ASSERT_EQ(waiting.wait_for(5s), std::future_status::ready);
  EXPECT_LT(waiting.get(), kInfoOutputBuffersChanged);

  // Stopped: dequeues fail at once, even without a time limit.
  std::future<ssize_t> afterStop = blockedDequeue();
  ASSERT_EQ(afterStop.wait_for(5s), std::future_status::ready);
  EXPECT_LT(afterStop.get(), kInfoOutputBuffersChanged);
  EXPECT_LT(codec->DequeueInputBuffer(-1), kInfoOutputBuffersChanged);
  EXPECT_EQ(codec->Flush(), kMediaErrorInvalidOperation);

  // And started again, it decodes the whole clip.
  ASSERT_EQ(codec->Start(), kMediaOk);
  const Decoded d = Decode(*codec, TrackSamples(path, 0), nullptr);
  ExpectAllPictures(d);
  EXPECT_EQ(d.formatChanges, 1);
}

// A player's threads at once: a pump feeding input (from the first sample again after every
// flush, as the player seeks), an output thread rendering, and a control thread flushing. Then,
// flushed with output pending, the clip decodes cleanly from its start; and the codec goes away
// while its worker waits for a free output buffer.
TEST(HostDecoderTest, ConcurrentPumpOutputAndFlushes) {
  const std::string path = ClipPath(VideoCodec::H264, false);
  FakeWindow window;
  std::unique_ptr<MediaCodec> codec = StartedCodec(path, 0, &window);
  ASSERT_NE(codec, nullptr);
  const std::vector<Sample> samples = TrackSamples(path, 0);
  std::atomic<bool> stop{false};
  std::atomic<int> flushes{0};
  std::atomic<int> rendered{0};
  std::thread pump([&] {
    int seen = 0;
    size_t i = 0;
    while (!stop.load()) {
      if (flushes.load() != seen) {
        seen = flushes.load();
        i = 0;
      }
      if (QueueSample(*codec, samples[i], 10000)) i = (i + 1) % samples.size();
    }
  });
  std::thread output([&] {
    while (!stop.load()) {
      BufferInfo info;
      const ssize_t index = codec->DequeueOutputBuffer(&info, -1);
      if (index < 0) continue;
      codec->ReleaseOutputBufferAtTime(static_cast<size_t>(index), info.presentationTimeUs * 1000);
      rendered.fetch_add(1);
    }
  });
  for (int i = 0; i < 10; ++i) {
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(codec->Flush(), kMediaOk);
    flushes.fetch_add(1);
  }
  // Pictures come out once the flushes stop.
  for (int i = 0; i < 500 && rendered.load() == 0; ++i) std::this_thread::sleep_for(10ms);
  stop.store(true);
  pump.join();
  EXPECT_EQ(codec->Flush(), kMediaOk);  // wakes the output thread
  output.join();
  ASSERT_GT(rendered.load(), 0);
  window.Take();

  ASSERT_EQ(codec->Flush(), kMediaOk);
  ExpectAllPictures(Decode(*codec, samples, &window, false));

  // Input without output drained: the worker ends up waiting for an output buffer.
  size_t fed = 0;
  while (fed < samples.size() && QueueSample(*codec, samples[fed], 100000)) ++fed;
  const auto before = std::chrono::steady_clock::now();
  codec.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
}

TEST(HostDecoderTest, DamagedSamplesAreSkipped) {
  const std::string path = ClipPath(VideoCodec::H264, false);
  std::unique_ptr<MediaCodec> codec = StartedCodec(path, 0, nullptr);
  ASSERT_NE(codec, nullptr);
  std::vector<Sample> samples;
  const std::vector<Sample> clip = TrackSamples(path, 0);
  for (size_t i = 0; i < clip.size(); ++i) {
    if (i == 5) {
      Sample empty;  // a sample the pump could not read goes in empty
      empty.timeUs = 999000;
      samples.push_back(empty);
      Sample noise;  // bytes without a single NAL unit
      noise.timeUs = 998000;
      noise.bytes = RandomBytes(3000, 5);
      samples.push_back(noise);
      Sample slice;  // a slice NAL unit of garbage
      slice.timeUs = 997000;
      slice.bytes = {0, 0, 0, 1, 0x41};
      const std::vector<uint8_t> garbage = RandomBytes(3000, 6);
      slice.bytes.insert(slice.bytes.end(), garbage.begin(), garbage.end());
      samples.push_back(slice);
    }
    samples.push_back(clip[i]);
  }
  const Decoded d = Decode(*codec, samples, nullptr);
  ExpectAllPictures(d);
}

TEST(HostDecoderTest, AacGivesPcmOfTheClipsLength) {
  const std::string path = ClipPath(VideoCodec::H264, true);
  std::unique_ptr<MediaCodec> codec = StartedCodec(path, 1, nullptr);
  ASSERT_NE(codec, nullptr);
  const std::vector<Sample> samples = TrackSamples(path, 1);
  const Decoded d = Decode(*codec, samples, nullptr);
  EXPECT_FALSE(d.timedOut);
  EXPECT_EQ(d.endOfStream, 1);
  EXPECT_EQ(d.formatChanges, 1);
  EXPECT_EQ(d.sampleRate, 48000);
  EXPECT_EQ(d.channels, 1);
  ASSERT_EQ(d.pictures.size(), samples.size());
  for (size_t i = 0; i < samples.size(); ++i) EXPECT_EQ(d.pictures[i].timeUs, samples[i].timeUs);
  const double seconds = static_cast<double>(d.pcmBytes) / 2.0 / 48000.0;
  EXPECT_NEAR(seconds, kFrames / 30.0, 0.05);
}

TEST(HostDecoderTest, BadFormatsAndTypesAreRefused) {
  EXPECT_EQ(NewHostMediaCodec(nullptr), nullptr);
  EXPECT_EQ(NewHostMediaCodec("video/x-vnd.on2.vp9"), nullptr);
  EXPECT_EQ(NewHostMediaCodec("audio/opus"), nullptr);

  struct Case {
    const char* name;
    const char* mime;
    int32_t width, height, sampleRate, channels;  // 0: key left out
  };
  const Case cases[] = {
      {"video without a size", "video/avc", 0, 0, 0, 0},
      {"negative width", "video/avc", -4, 192, 0, 0},
      {"huge height", "video/hevc", 192, 1 << 20, 0, 0},
      {"audio without a rate", "audio/mp4a-latm", 0, 0, 0, 2},
      {"audio without channels", "audio/mp4a-latm", 0, 0, 48000, 0},
      {"too many channels", "audio/mp4a-latm", 0, 0, 48000, 99},
      {"odd rate and no configuration", "audio/mp4a-latm", 0, 0, 12345, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<MediaFormat> format = NewMediaFormat();
    format->SetString(MediaKeys::kMime, c.mime);
    if (c.width) format->SetInt32(MediaKeys::kWidth, c.width);
    if (c.height) format->SetInt32(MediaKeys::kHeight, c.height);
    if (c.sampleRate) format->SetInt32(MediaKeys::kSampleRate, c.sampleRate);
    if (c.channels) format->SetInt32(MediaKeys::kChannelCount, c.channels);
    std::unique_ptr<MediaCodec> codec = NewHostMediaCodec(c.mime);
    ASSERT_NE(codec, nullptr);
    EXPECT_LT(codec->Configure(*format, nullptr, 0), 0);
    EXPECT_EQ(codec->Start(), kMediaErrorInvalidOperation);
    BufferInfo info;
    EXPECT_LT(codec->DequeueOutputBuffer(&info, -1), kInfoOutputBuffersChanged);
  }

  // A surface that is not a host window.
  class OtherWindow : public NativeWindow {};
  OtherWindow other;
  std::unique_ptr<MediaFormat> format = NewMediaFormat();
  format->SetInt32(MediaKeys::kWidth, 64);
  format->SetInt32(MediaKeys::kHeight, 64);
  EXPECT_EQ(NewHostMediaCodec("video/avc")->Configure(*format, &other, 0), kMediaErrorInvalidParameter);
  // Sizes alone (no parameter sets, as built by other code) are enough.
  EXPECT_EQ(NewHostMediaCodec("video/avc")->Configure(*format, nullptr, 0), kMediaOk);
}

TEST(HostDecoderTest, BufferProtocolMisuseGetsErrors) {
  const std::string path = ClipPath(VideoCodec::Hevc, false);
  std::unique_ptr<MediaCodec> codec = StartedCodec(path, 0, nullptr);
  ASSERT_NE(codec, nullptr);
  std::unique_ptr<MediaExtractor> extractor = NewHostMediaExtractor();
  ASSERT_EQ(extractor->SetDataSource(path.c_str()), kMediaOk);
  EXPECT_EQ(codec->Configure(*extractor->GetTrackFormat(0), nullptr, 0), kMediaErrorInvalidOperation);
  EXPECT_EQ(codec->Start(), kMediaErrorInvalidOperation);

  size_t capacity = 0;
  EXPECT_EQ(codec->GetInputBuffer(0, &capacity), nullptr);  // not dequeued
  EXPECT_EQ(codec->QueueInputBuffer(0, 0, 10, 0, 0), kMediaErrorInvalidParameter);
  EXPECT_EQ(codec->QueueInputBuffer(99, 0, 10, 0, 0), kMediaErrorInvalidParameter);
  EXPECT_EQ(codec->ReleaseOutputBuffer(0, true), kMediaErrorInvalidParameter);
  EXPECT_EQ(codec->ReleaseOutputBufferAtTime(99, 0), kMediaErrorInvalidParameter);

  const ssize_t index = codec->DequeueInputBuffer(0);
  ASSERT_GE(index, 0);
  ASSERT_NE(codec->GetInputBuffer(static_cast<size_t>(index), &capacity), nullptr);
  EXPECT_GE(capacity, size_t{1} << 20);
  EXPECT_EQ(codec->QueueInputBuffer(static_cast<size_t>(index), 1, capacity, 0, 0), kMediaErrorInvalidParameter);

  // A buffer held across a flush is stale: queueing it fails, and it goes back to the pool.
  ASSERT_EQ(codec->Flush(), kMediaOk);
  EXPECT_EQ(codec->QueueInputBuffer(static_cast<size_t>(index), 0, 10, 0, 0), kMediaErrorInvalidOperation);
  int available = 0;
  while (codec->DequeueInputBuffer(0) >= 0) ++available;
  EXPECT_EQ(available, 8);
}

}  // namespace
}  // namespace OzmPlatform
