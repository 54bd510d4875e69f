// The host extractor: libavformat reads the container through an I/O context of our own over a
// file descriptor (pread, so the descriptor's offset is never touched), and the mp4toannexb
// bitstream filters turn H.264 and HEVC samples into Annex B access units with the parameter sets
// in front of key frames, as the device's extractor hands them out.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/mem.h>
}

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/host/HostPlatform.h"

namespace OzmPlatform {
namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
constexpr int kIoBufferSize = 64 * 1024;
// Demuxers of the containers a device reads; anything else FFmpeg might recognise in a file is
// refused rather than parsed.
constexpr const char* kAllowedContainers = "mov,mp4,m4a,3gp,3g2,mj2,mpegts,matroska,webm,mp3,aac,ogg,wav,flac,amr";
// Damaged packets in a row that are skipped before the rest of the file is given up.
constexpr int kMaxSkippedPackets = 64;

struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct BsfFree {
  void operator()(AVBSFContext* b) const { av_bsf_free(&b); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfFree>;

// A byte range of a regular file read with pread.
struct FdRange {
  int fd = -1;
  int64_t offset = 0;
  int64_t length = 0;
  int64_t position = 0;  // relative to offset

  static int Read(void* opaque, uint8_t* buffer, int size) {
    FdRange& r = *static_cast<FdRange*>(opaque);
    const int64_t left = r.length - r.position;
    if (left <= 0 || size <= 0) return AVERROR_EOF;
    const size_t want = static_cast<size_t>(std::min<int64_t>(left, size));
    ssize_t got;
    do {
      got = ::pread(r.fd, buffer, want, static_cast<off_t>(r.offset + r.position));
    } while (got < 0 && errno == EINTR);
    if (got < 0) return AVERROR(errno);
    if (got == 0) return AVERROR_EOF;
    r.position += got;
    return static_cast<int>(got);
  }

  static int64_t Seek(void* opaque, int64_t offset, int whence) {
    FdRange& r = *static_cast<FdRange*>(opaque);
    whence &= ~AVSEEK_FORCE;
    int64_t target;
    switch (whence) {
      case AVSEEK_SIZE: return r.length;
      case SEEK_SET: target = offset; break;
      case SEEK_CUR: target = r.position + offset; break;
      case SEEK_END: target = r.length + offset; break;
      default: return AVERROR(EINVAL);
    }
    if (target < 0) return AVERROR(EINVAL);
    r.position = target;
    return target;
  }
};

// A demuxer reading through an FdRange. The I/O context and its buffer are ours to free.
class Demuxer {
 public:
  ~Demuxer() {
    avformat_close_input(&m_format);
    if (m_io) {
      av_freep(&m_io->buffer);
      avio_context_free(&m_io);
    }
  }

  // 0, or a kMediaError code.
  int Open(const FdRange& range) {
    m_range = range;
    m_range.position = 0;
    uint8_t* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferSize));
    if (!buffer) return kMediaErrorUnknown;
    m_io = avio_alloc_context(buffer, kIoBufferSize, 0, &m_range, &FdRange::Read, nullptr, &FdRange::Seek);
    if (!m_io) {
      av_free(buffer);
      return kMediaErrorUnknown;
    }
    m_format = avformat_alloc_context();
    if (!m_format) return kMediaErrorUnknown;
    m_format->pb = m_io;
    m_format->format_whitelist = av_strdup(kAllowedContainers);
    // On failure avformat_open_input frees the context (not the I/O context: that is custom).
    int status = avformat_open_input(&m_format, nullptr, nullptr, nullptr);
    if (status < 0) {
      OZM_LOGE("extractor: not a readable media file (%i)", status);
      return kMediaErrorMalformed;
    }
    if (m_format->nb_streams == 0) {
      OZM_LOGE("extractor: the file has no tracks");
      return kMediaErrorMalformed;
    }
    // Containers with a full header (MP4) describe every track without reading samples; the others
    // are probed by decoding a little of each stream.
    if (NeedsProbing() && (status = avformat_find_stream_info(m_format, nullptr)) < 0) {
      OZM_LOGE("extractor: cannot read the tracks' parameters (%i)", status);
      return kMediaErrorMalformed;
    }
    return kMediaOk;
  }

  AVFormatContext* Format() const { return m_format; }

 private:
  bool NeedsProbing() const {
    for (unsigned i = 0; i < m_format->nb_streams; ++i) {
      const AVCodecParameters* par = m_format->streams[i]->codecpar;
      if (par->codec_id == AV_CODEC_ID_NONE) return true;
      if (par->codec_type == AVMEDIA_TYPE_VIDEO && (par->width <= 0 || par->height <= 0)) return true;
      if (par->codec_type == AVMEDIA_TYPE_AUDIO && (par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0)) {
        return true;
      }
    }
    return false;
  }

  FdRange m_range;
  AVIOContext* m_io = nullptr;
  AVFormatContext* m_format = nullptr;
};

const char* MimeOf(const AVCodecParameters& par) {
  switch (par.codec_id) {
    case AV_CODEC_ID_H264: return "video/avc";
    case AV_CODEC_ID_HEVC: return "video/hevc";
    case AV_CODEC_ID_AAC: return "audio/mp4a-latm";
    case AV_CODEC_ID_MPEG4: return "video/mp4v-es";
    case AV_CODEC_ID_H263: return "video/3gpp";
    case AV_CODEC_ID_VP8: return "video/x-vnd.on2.vp8";
    case AV_CODEC_ID_VP9: return "video/x-vnd.on2.vp9";
    case AV_CODEC_ID_AV1: return "video/av01";
    case AV_CODEC_ID_MP3: return "audio/mpeg";
    case AV_CODEC_ID_OPUS: return "audio/opus";
    case AV_CODEC_ID_VORBIS: return "audio/vorbis";
    case AV_CODEC_ID_FLAC: return "audio/flac";
    case AV_CODEC_ID_AC3: return "audio/ac3";
    case AV_CODEC_ID_EAC3: return "audio/eac3";
    default: return nullptr;
  }
}

std::string FallbackMime(const AVCodecParameters& par) {
  const char* type = "application";
  if (par.codec_type == AVMEDIA_TYPE_VIDEO) type = "video";
  if (par.codec_type == AVMEDIA_TYPE_AUDIO) type = "audio";
  if (par.codec_type == AVMEDIA_TYPE_SUBTITLE) type = "text";
  return std::string(type) + "/x-ffmpeg-" + avcodec_get_name(par.codec_id);
}

bool IsAnnexB(const uint8_t* data, size_t size) {
  return (size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) ||
         (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1);
}

void AppendNal(std::vector<uint8_t>* out, const uint8_t* nal, size_t size) {
  out->insert(out->end(), kStartCode, kStartCode + 4);
  out->insert(out->end(), nal, nal + size);
}

// Calls visit(nal, size) for every NAL unit of an Annex B byte string.
template <typename Visit>
void ForEachAnnexBNal(const uint8_t* data, size_t size, Visit visit) {
  size_t i = 0;
  auto nextStart = [&](size_t from) {
    for (size_t k = from; k + 3 <= size; ++k) {
      if (data[k] == 0 && data[k + 1] == 0 && data[k + 2] == 1) return k;
    }
    return size;
  };
  i = nextStart(0);
  while (i < size) {
    const size_t begin = i + 3;
    size_t next = nextStart(begin);
    size_t end = next;
    while (end > begin && data[end - 1] == 0) --end;  // zero bytes of a four-byte start code
    if (end > begin) visit(data + begin, end - begin);
    i = next;
  }
}

// H.264 parameter sets as the device gives them: every SPS in csd-0 and every PPS in csd-1, each
// with a start code. The container's record is avcC, or Annex B in streams that carry it that way.
void AvcCodecData(const uint8_t* data, size_t size, std::vector<uint8_t>* sps, std::vector<uint8_t>* pps) {
  if (IsAnnexB(data, size)) {
    ForEachAnnexBNal(data, size, [&](const uint8_t* nal, size_t n) {
      const int type = nal[0] & 0x1f;
      if (type == 7) AppendNal(sps, nal, n);
      if (type == 8) AppendNal(pps, nal, n);
    });
    return;
  }
  if (size < 7 || data[0] != 1) return;
  size_t pos = 5;
  for (int list = 0; list < 2 && pos < size; ++list) {
    const int count = list == 0 ? (data[pos] & 0x1f) : data[pos];
    ++pos;
    for (int k = 0; k < count; ++k) {
      if (pos + 2 > size) return;
      const size_t n = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
      pos += 2;
      if (n == 0 || pos + n > size) return;
      AppendNal(list == 0 ? sps : pps, data + pos, n);
      pos += n;
    }
  }
}

// HEVC: all parameter sets (VPS, SPS, PPS and any SEI of the record) in csd-0, each with a start
// code. The container's record is hvcC, or Annex B.
void HevcCodecData(const uint8_t* data, size_t size, std::vector<uint8_t>* csd) {
  if (IsAnnexB(data, size)) {
    ForEachAnnexBNal(data, size, [&](const uint8_t* nal, size_t n) { AppendNal(csd, nal, n); });
    return;
  }
  if (size < 23) return;
  const int arrays = data[22];
  size_t pos = 23;
  for (int a = 0; a < arrays; ++a) {
    if (pos + 3 > size) return;
    const size_t count = (static_cast<size_t>(data[pos + 1]) << 8) | data[pos + 2];
    pos += 3;
    for (size_t k = 0; k < count; ++k) {
      if (pos + 2 > size) return;
      const size_t n = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
      pos += 2;
      if (n == 0 || pos + n > size) return;
      AppendNal(csd, data + pos, n);
      pos += n;
    }
  }
}

// An AAC AudioSpecificConfig for a stream that carries none (ADTS): object type, rate, channels.
std::vector<uint8_t> AacConfig(int profile, int sampleRate, int channels) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  int rateIndex = 15;
  for (int i = 0; i < 13; ++i) {
    if (kRates[i] == sampleRate) rateIndex = i;
  }
  const int objectType = profile >= 0 && profile < 31 ? profile + 1 : 2;  // FF_PROFILE_AAC_* + 1
  std::vector<uint8_t> config;
  if (rateIndex == 15) {
    // Explicit 24-bit rate: 5 + 4 + 24 + 4 bits.
    const uint64_t bits = (static_cast<uint64_t>(objectType) << 35) | (15ull << 31) |
                          (static_cast<uint64_t>(sampleRate & 0xffffff) << 7) |
                          (static_cast<uint64_t>(channels & 0xf) << 3);
    for (int shift = 32; shift >= 0; shift -= 8) config.push_back(static_cast<uint8_t>(bits >> shift));
  } else {
    const unsigned bits = (static_cast<unsigned>(objectType) << 11) | (static_cast<unsigned>(rateIndex) << 7) |
                          (static_cast<unsigned>(channels & 0xf) << 3);
    config.push_back(static_cast<uint8_t>(bits >> 8));
    config.push_back(static_cast<uint8_t>(bits));
  }
  return config;
}

// Length of the ADTS header in front of an AAC frame, or 0 when there is none.
size_t AdtsHeaderSize(const uint8_t* data, size_t size) {
  if (size < 7 || data[0] != 0xff || (data[1] & 0xf6) != 0xf0) return 0;
  const size_t header = (data[1] & 1) ? 7 : 9;  // protection_absent
  return header < size ? header : 0;
}

int64_t ToMicroseconds(int64_t t, AVRational timeBase) {
  return av_rescale_q_rnd(t, timeBase, AVRational{1, 1000000},
                          static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

class HostMediaExtractor final : public MediaExtractor {
 public:
  HostMediaExtractor() : m_packet(av_packet_alloc()), m_sample(av_packet_alloc()) {}

  ~HostMediaExtractor() override { Close(); }

  int SetDataSource(const char* path) override {
    Close();
    if (!path || !*path) return kMediaErrorInvalidParameter;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      OZM_LOGE("extractor: cannot open %s: %s", path, std::strerror(errno));
      return kMediaErrorInvalidParameter;
    }
    m_ownedFd = fd;
    const int status = OpenRange(fd, 0, std::numeric_limits<int64_t>::max());
    if (status != kMediaOk) Close();
    return status;
  }

  int SetDataSourceFd(int fd, int64_t offset, int64_t length) override {
    Close();
    if (fd < 0 || offset < 0) return kMediaErrorInvalidParameter;
    const int status = OpenRange(fd, offset, length);
    if (status != kMediaOk) Close();
    return status;
  }

  size_t GetTrackCount() override { return m_tracks.size(); }

  std::unique_ptr<MediaFormat> GetTrackFormat(size_t track) override {
    if (track >= m_tracks.size() || !m_demuxer) return nullptr;
    const AVStream* stream = m_demuxer->Format()->streams[track];
    const AVCodecParameters& par = *stream->codecpar;
    std::unique_ptr<MediaFormat> format = NewMediaFormat();
    if (const char* mime = MimeOf(par)) {
      format->SetString(MediaKeys::kMime, mime);
    } else {
      format->SetString(MediaKeys::kMime, FallbackMime(par).c_str());
    }

    int64_t durationUs = -1;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0) {
      durationUs = ToMicroseconds(stream->duration, stream->time_base);
    } else if (m_demuxer->Format()->duration != AV_NOPTS_VALUE && m_demuxer->Format()->duration > 0) {
      durationUs = m_demuxer->Format()->duration;  // AV_TIME_BASE is microseconds
    }
    if (durationUs >= 0) format->SetInt64(MediaKeys::kDurationUs, durationUs);
    if (m_tracks[track].maxSampleSize > 0) format->SetInt32(MediaKeys::kMaxInputSize, m_tracks[track].maxSampleSize);

    const uint8_t* extra = par.extradata;
    const size_t extraSize = par.extradata && par.extradata_size > 0 ? static_cast<size_t>(par.extradata_size) : 0;
    if (par.codec_type == AVMEDIA_TYPE_VIDEO) {
      format->SetInt32(MediaKeys::kWidth, par.width);
      format->SetInt32(MediaKeys::kHeight, par.height);
      AVRational rate = stream->avg_frame_rate;
      if (rate.num <= 0 || rate.den <= 0) rate = stream->r_frame_rate;
      if (rate.num > 0 && rate.den > 0) {
        format->SetInt32(MediaKeys::kFrameRate, static_cast<int32_t>(std::lround(av_q2d(rate))));
      }
      if (par.codec_id == AV_CODEC_ID_H264) {
        std::vector<uint8_t> sps, pps;
        AvcCodecData(extra, extraSize, &sps, &pps);
        if (!sps.empty()) format->SetBuffer(MediaKeys::kCsd0, sps.data(), sps.size());
        if (!pps.empty()) format->SetBuffer(MediaKeys::kCsd1, pps.data(), pps.size());
      } else if (par.codec_id == AV_CODEC_ID_HEVC) {
        std::vector<uint8_t> csd;
        HevcCodecData(extra, extraSize, &csd);
        if (!csd.empty()) format->SetBuffer(MediaKeys::kCsd0, csd.data(), csd.size());
      } else if (extraSize > 0) {
        format->SetBuffer(MediaKeys::kCsd0, extra, extraSize);
      }
    } else if (par.codec_type == AVMEDIA_TYPE_AUDIO) {
      format->SetInt32(MediaKeys::kSampleRate, par.sample_rate);
      format->SetInt32(MediaKeys::kChannelCount, par.ch_layout.nb_channels);
      if (extraSize > 0) {
        format->SetBuffer(MediaKeys::kCsd0, extra, extraSize);
      } else if (par.codec_id == AV_CODEC_ID_AAC && par.sample_rate > 0) {
        const std::vector<uint8_t> config = AacConfig(par.profile, par.sample_rate, par.ch_layout.nb_channels);
        format->SetBuffer(MediaKeys::kCsd0, config.data(), config.size());
      }
    }
    return format;
  }

  int SelectTrack(size_t track) override {
    if (track >= m_tracks.size()) return kMediaErrorInvalidParameter;
    m_tracks[track].selected = true;
    return kMediaOk;
  }

  ssize_t ReadSampleData(uint8_t* buffer, size_t capacity) override {
    if (!Current()) return -1;
    const size_t size = m_sampleSize;
    if (size > capacity || (!buffer && size > 0)) return -1;
    if (size > 0) std::memcpy(buffer, m_sampleData, size);
    return static_cast<ssize_t>(size);
  }

  int GetSampleTrackIndex() override { return Current() ? m_sampleTrack : -1; }

  int64_t GetSampleTime() override { return Current() ? m_sampleTimeUs : -1; }

  bool Advance() override {
    if (!Current()) return false;
    DropSample();
    return Current();
  }

  int SeekTo(int64_t timeUs, SeekMode mode) override {
    if (!m_demuxer) return kMediaErrorInvalidOperation;
    DropSample();
    if (timeUs <= 0) {
      // The start: the file is opened afresh, which gives exactly the sample sequence of the first
      // reading (a time-based seek would skip samples before time 0, such as AAC priming).
      auto demuxer = std::make_unique<Demuxer>();
      const int status = demuxer->Open(m_range);
      if (status != kMediaOk) return status;
      m_demuxer = std::move(demuxer);
      m_lastTimeUs = 0;
      return ResetFilters();
    }
    int64_t lo = std::numeric_limits<int64_t>::min(), hi = std::numeric_limits<int64_t>::max();
    if (mode == SeekMode::PreviousSync) hi = timeUs;
    if (mode == SeekMode::NextSync) lo = timeUs;
    int status = avformat_seek_file(m_demuxer->Format(), -1, lo, timeUs, hi, 0);
    if (status < 0 && mode == SeekMode::NextSync) {
      // No sync sample after the time: the end.
      status = avformat_seek_file(m_demuxer->Format(), -1, lo, std::numeric_limits<int64_t>::max(), hi, 0);
    }
    for (Track& t : m_tracks) {
      if (t.filter) av_bsf_flush(t.filter.get());
    }
    if (status < 0) {
      OZM_LOGE("extractor: cannot seek to %lld us (%i)", static_cast<long long>(timeUs), status);
      return kMediaErrorUnknown;
    }
    return kMediaOk;
  }

 private:
  struct Track {
    bool selected = false;
    BsfPtr filter;  // H.264 and HEVC: to Annex B
    bool stripAdts = false;
    int32_t maxSampleSize = 0;
  };

  int OpenRange(int fd, int64_t offset, int64_t length) {
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return kMediaErrorInvalidParameter;
    const int64_t fileSize = st.st_size;
    if (offset > fileSize) return kMediaErrorInvalidParameter;
    if (length <= 0 || length > fileSize - offset) length = fileSize - offset;
    m_range = FdRange{fd, offset, length, 0};
    auto demuxer = std::make_unique<Demuxer>();
    const int status = demuxer->Open(m_range);
    if (status != kMediaOk) return status;
    m_demuxer = std::move(demuxer);
    m_tracks.clear();
    m_tracks.resize(m_demuxer->Format()->nb_streams);
    for (size_t i = 0; i < m_tracks.size(); ++i) m_tracks[i].maxSampleSize = MaxSampleSize(i);
    return ResetFilters();
  }

  // The largest sample of a track from the container's index, with room for the parameter sets
  // and start codes the Annex B form adds.
  int32_t MaxSampleSize(size_t track) const {
    AVStream* stream = m_demuxer->Format()->streams[track];
    int64_t largest = 0;
    const int entries = avformat_index_get_entries_count(stream);
    for (int i = 0; i < entries; ++i) {
      if (const AVIndexEntry* e = avformat_index_get_entry(stream, i)) largest = std::max<int64_t>(largest, e->size);
    }
    if (largest <= 0) return 0;
    const AVCodecParameters& par = *stream->codecpar;
    if (par.codec_id == AV_CODEC_ID_H264 || par.codec_id == AV_CODEC_ID_HEVC) {
      // Short NAL length fields grow by up to three bytes per unit; units are at least a byte or two.
      largest += largest / 2 + 2 * std::max(par.extradata_size, 0) + 64;
    }
    return static_cast<int32_t>(std::min<int64_t>(largest, std::numeric_limits<int32_t>::max()));
  }

  // Bitstream filters in their initial state, for the tracks of the current demuxer.
  int ResetFilters() {
    for (size_t i = 0; i < m_tracks.size(); ++i) {
      Track& t = m_tracks[i];
      const AVStream* stream = m_demuxer->Format()->streams[i];
      const AVCodecParameters* par = stream->codecpar;
      t.filter.reset();
      t.stripAdts = par->codec_id == AV_CODEC_ID_AAC && par->extradata_size <= 0;
      const char* name = nullptr;
      if (par->codec_id == AV_CODEC_ID_H264) name = "h264_mp4toannexb";
      if (par->codec_id == AV_CODEC_ID_HEVC) name = "hevc_mp4toannexb";
      if (!name) continue;
      const AVBitStreamFilter* bsf = av_bsf_get_by_name(name);
      AVBSFContext* raw = nullptr;
      if (!bsf || av_bsf_alloc(bsf, &raw) < 0) return kMediaErrorUnknown;
      BsfPtr filter(raw);
      if (avcodec_parameters_copy(raw->par_in, par) < 0) return kMediaErrorUnknown;
      raw->time_base_in = stream->time_base;
      if (av_bsf_init(raw) < 0) {
        // A parameter set record the filter cannot read: the samples go out as they are.
        OZM_LOGW("extractor: track %zu: %s does not accept the track's parameter sets", i, name);
        continue;
      }
      t.filter = std::move(filter);
    }
    return kMediaOk;
  }

  void Close() {
    DropSample();
    m_tracks.clear();
    m_demuxer.reset();
    if (m_ownedFd >= 0) ::close(m_ownedFd);
    m_ownedFd = -1;
    m_lastTimeUs = 0;
  }

  void DropSample() {
    av_packet_unref(m_sample.get());
    m_sampleData = nullptr;
    m_sampleSize = 0;
    m_sampleTrack = -1;
    m_haveSample = false;
    m_fetched = false;
  }

  // True when there is a current sample; reads it from the file the first time it is asked for.
  bool Current() {
    if (!m_fetched) {
      m_fetched = true;
      m_haveSample = m_demuxer && Fetch();
    }
    return m_haveSample;
  }

  bool Fetch() {
    AVFormatContext* format = m_demuxer->Format();
    int skipped = 0;
    for (;;) {
      av_packet_unref(m_packet.get());
      const int read = av_read_frame(format, m_packet.get());
      if (read == AVERROR(EAGAIN) || read == AVERROR_INVALIDDATA) {
        if (++skipped > kMaxSkippedPackets) return false;
        continue;
      }
      if (read < 0) return false;  // the end, or the file cannot be read further
      const int index = m_packet->stream_index;
      if (index < 0 || static_cast<size_t>(index) >= m_tracks.size() || !m_tracks[index].selected) continue;
      Track& track = m_tracks[index];
      const AVStream* stream = format->streams[index];
      const int64_t t = m_packet->pts != AV_NOPTS_VALUE ? m_packet->pts : m_packet->dts;
      if (t != AV_NOPTS_VALUE) m_lastTimeUs = ToMicroseconds(t, stream->time_base);
      m_sampleTimeUs = m_lastTimeUs;
      m_sampleTrack = index;
      if (track.filter) {
        // One sample in, one access unit out; on failure the sample goes out unchanged.
        PacketPtr original(av_packet_clone(m_packet.get()));
        int status = av_bsf_send_packet(track.filter.get(), m_packet.get());
        if (status >= 0) status = av_bsf_receive_packet(track.filter.get(), m_sample.get());
        if (status < 0) {
          av_bsf_flush(track.filter.get());
          av_packet_unref(m_sample.get());
          if (!original) continue;
          av_packet_move_ref(m_sample.get(), original.get());
        }
      } else {
        av_packet_move_ref(m_sample.get(), m_packet.get());
      }
      m_sampleData = m_sample->data;
      m_sampleSize = m_sample->size > 0 ? static_cast<size_t>(m_sample->size) : 0;
      if (track.stripAdts) {
        const size_t header = AdtsHeaderSize(m_sampleData, m_sampleSize);
        m_sampleData += header;
        m_sampleSize -= header;
      }
      return true;
    }
  }

  int m_ownedFd = -1;
  FdRange m_range;
  std::unique_ptr<Demuxer> m_demuxer;
  std::vector<Track> m_tracks;
  PacketPtr m_packet;
  // The current sample.
  PacketPtr m_sample;
  const uint8_t* m_sampleData = nullptr;
  size_t m_sampleSize = 0;
  int m_sampleTrack = -1;
  int64_t m_sampleTimeUs = -1;
  int64_t m_lastTimeUs = 0;
  bool m_fetched = false;
  bool m_haveSample = false;
};

}  // namespace

std::unique_ptr<MediaExtractor> NewHostMediaExtractor() { return std::make_unique<HostMediaExtractor>(); }

}  // namespace OzmPlatform
