// The host decoders: libavcodec behind the buffer-index protocol of the device's codecs. The caller
// fills input buffers from a fixed pool and queues them; a worker thread of the codec takes them in
// order, decodes, converts (video to packed RGBA, audio to 16-bit interleaved PCM) and fills output
// buffers from a fixed pool, blocking while none is free, so a caller that does not drain output
// runs out of input buffers as on a device.
//
// All state is guarded by one mutex; the decoder context belongs to the worker while it runs and to
// the control calls (Configure, Stop, destruction) otherwise. Buffers the caller holds (dequeued and
// not yet queued or released) are never touched by anyone else: a flush or stop marks them stale,
// and they return to their pool when the caller hands them back.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/avutil.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "platform/host/HostPlatform.h"

namespace OzmPlatform {
namespace {

constexpr size_t kInputBuffers = 8;
constexpr size_t kVideoOutputBuffers = 4;
constexpr size_t kAudioOutputBuffers = 8;
constexpr size_t kMinInputCapacity = 1 << 20;
constexpr size_t kMaxInputCapacity = 64 << 20;
constexpr int32_t kMaxDimension = 16384;
constexpr int32_t kMaxChannels = 8;

struct CodecFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

enum class Kind { Avc, Hevc, Aac };

// What an output buffer holds: a picture's size or the audio's layout.
struct OutputShape {
  int width = 0, height = 0, sampleRate = 0, channels = 0;
  bool operator==(const OutputShape& o) const {
    return width == o.width && height == o.height && sampleRate == o.sampleRate && channels == o.channels;
  }
  bool operator!=(const OutputShape& o) const { return !(*this == o); }
};

int16_t ClampS16(float v) {
  const float s = v * 32768.0f;
  if (s >= 32767.0f) return 32767;
  if (s <= -32768.0f) return -32768;
  return static_cast<int16_t>(s);
}

// One sample of a decoded audio frame, as 16 bits.
int16_t SampleS16(const AVFrame& frame, AVSampleFormat format, int channel, int index, int channels) {
  const bool planar = av_sample_fmt_is_planar(format) != 0;
  const int plane = planar ? channel : 0;
  const int at = planar ? index : index * channels + channel;
  const uint8_t* data = frame.extended_data[plane];
  switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8: return static_cast<int16_t>((static_cast<int>(data[at]) - 128) << 8);
    case AV_SAMPLE_FMT_S16: return reinterpret_cast<const int16_t*>(data)[at];
    case AV_SAMPLE_FMT_S32: return static_cast<int16_t>(reinterpret_cast<const int32_t*>(data)[at] >> 16);
    case AV_SAMPLE_FMT_S64: return static_cast<int16_t>(reinterpret_cast<const int64_t*>(data)[at] >> 48);
    case AV_SAMPLE_FMT_FLT: return ClampS16(reinterpret_cast<const float*>(data)[at]);
    case AV_SAMPLE_FMT_DBL: return ClampS16(static_cast<float>(reinterpret_cast<const double*>(data)[at]));
    default: return 0;
  }
}

bool SupportedSampleFormat(AVSampleFormat format) {
  switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8:
    case AV_SAMPLE_FMT_S16:
    case AV_SAMPLE_FMT_S32:
    case AV_SAMPLE_FMT_S64:
    case AV_SAMPLE_FMT_FLT:
    case AV_SAMPLE_FMT_DBL: return true;
    default: return false;
  }
}

// An AAC AudioSpecificConfig (low complexity) for a format that only gives rate and channels.
std::vector<uint8_t> AacLcConfig(int sampleRate, int channels) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  int rateIndex = -1;
  for (int i = 0; i < 13; ++i) {
    if (kRates[i] == sampleRate) rateIndex = i;
  }
  if (rateIndex < 0) return {};
  const unsigned bits =
      (2u << 11) | (static_cast<unsigned>(rateIndex) << 7) | (static_cast<unsigned>(channels & 0xf) << 3);
  return {static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits)};
}

class HostMediaCodec final : public MediaCodec {
 public:
  HostMediaCodec(Kind kind, const char* mime) : m_kind(kind), m_mime(mime) {}

  ~HostMediaCodec() override {
    Stop();
    // Callers still inside a dequeue were woken by Stop; they leave before the object goes.
    std::unique_lock<std::mutex> lock(m_mutex);
    m_destroying = true;
    m_inputCv.notify_all();
    m_outputCv.notify_all();
    m_idleCv.wait(lock, [this] { return m_waiters == 0; });
    sws_freeContext(m_scaler);
  }

  int Configure(const MediaFormat& format, NativeWindow* surface, uint32_t /*flags*/) override {
    Settings settings;
    const int checked = ReadSettings(format, &settings);
    if (checked != kMediaOk) return checked;
    HostNativeWindow* window = IsVideo() ? dynamic_cast<HostNativeWindow*>(surface) : nullptr;
    if (IsVideo() && surface && !window) {
      OZM_LOGE("codec %s: the surface is not a host window", m_mime.c_str());
      return kMediaErrorInvalidParameter;
    }
    CodecPtr context = OpenDecoder(settings);
    if (!context) return kMediaErrorUnsupported;

    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == State::Running || m_state == State::Stopping) return kMediaErrorInvalidOperation;
    // Not running: the worker is gone, so the decoder and the pools are ours to replace.
    m_context = std::move(context);
    m_window = window;
    m_configured = settings;
    m_inputs.clear();
    m_inputs.resize(kInputBuffers);
    for (InputSlot& slot : m_inputs) {
      slot.data.reset(new (std::nothrow) uint8_t[settings.inputCapacity]);
      if (!slot.data) {
        m_inputs.clear();
        m_context.reset();
        m_state = State::Uninitialized;
        return kMediaErrorUnknown;
      }
    }
    m_outputs.clear();
    m_outputs.resize(IsVideo() ? kVideoOutputBuffers : kAudioOutputBuffers);
    ResetBuffersLocked();
    m_state = State::Configured;
    return kMediaOk;
  }

  int Start() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state != State::Configured) return kMediaErrorInvalidOperation;
    ResetBuffersLocked();
    // A new session announces its output format again.
    m_queuedShape = m_deliveredShape = OutputShape{};
    m_workerExit = false;
    m_state = State::Running;
    m_worker = std::thread(&HostMediaCodec::WorkerLoop, this);
    return kMediaOk;
  }

  int Stop() override {
    std::thread worker;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (m_state == State::Stopping) return kMediaErrorInvalidOperation;
      if (m_state != State::Running) return kMediaOk;
      m_state = State::Stopping;
      m_workerExit = true;
      ++m_epoch;
      worker = std::move(m_worker);
      m_inputCv.notify_all();
      m_outputCv.notify_all();
      m_workCv.notify_all();
    }
    if (worker.joinable()) worker.join();
    // The worker is gone: the decoder may be reset here.
    if (m_context) avcodec_flush_buffers(m_context.get());
    std::lock_guard<std::mutex> lock(m_mutex);
    ResetBuffersLocked();
    m_state = State::Configured;
    return kMediaOk;
  }

  int Flush() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state != State::Running) return kMediaErrorInvalidOperation;
    // The worker resets the decoder before it takes the next input of the new epoch.
    ++m_epoch;
    ResetBuffersLocked();
    m_inputCv.notify_all();
    m_outputCv.notify_all();
    m_workCv.notify_all();
    return kMediaOk;
  }

  ssize_t DequeueInputBuffer(int64_t timeoutUs) override {
    std::unique_lock<std::mutex> lock(m_mutex);
    const uint64_t epoch = m_epoch;
    const bool ready =
        Wait(lock, m_inputCv, timeoutUs, [&] { return !Running() || m_epoch != epoch || !m_freeInputs.empty(); });
    if (!Running()) return kMediaErrorInvalidOperation;
    if (!ready || m_epoch != epoch || m_freeInputs.empty()) return kInfoTryAgainLater;
    const size_t index = m_freeInputs.front();
    m_freeInputs.pop_front();
    m_inputs[index].state = SlotState::Caller;
    return static_cast<ssize_t>(index);
  }

  uint8_t* GetInputBuffer(size_t index, size_t* capacity) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (index >= m_inputs.size() || m_inputs[index].state != SlotState::Caller) {
      if (capacity) *capacity = 0;
      return nullptr;
    }
    if (capacity) *capacity = m_configured.inputCapacity;
    return m_inputs[index].data.get();
  }

  int QueueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs, uint32_t flags) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (index >= m_inputs.size() || m_inputs[index].state != SlotState::Caller) return kMediaErrorInvalidParameter;
    InputSlot& slot = m_inputs[index];
    if (slot.stale || !Running()) {
      // Dequeued before a flush or stop: it comes back to the pool, its content is dropped.
      slot.stale = false;
      slot.state = SlotState::Free;
      if (Running()) {
        m_freeInputs.push_back(index);
        m_inputCv.notify_one();
      }
      return kMediaErrorInvalidOperation;
    }
    if (offset > m_configured.inputCapacity || size > m_configured.inputCapacity - offset) {
      return kMediaErrorInvalidParameter;
    }
    slot.offset = offset;
    slot.size = size;
    slot.timeUs = timeUs;
    slot.flags = flags;
    slot.state = SlotState::Queued;
    m_queuedInputs.push_back(index);
    m_workCv.notify_all();
    return kMediaOk;
  }

  ssize_t DequeueOutputBuffer(BufferInfo* info, int64_t timeoutUs) override {
    std::unique_lock<std::mutex> lock(m_mutex);
    const uint64_t epoch = m_epoch;
    const bool ready =
        Wait(lock, m_outputCv, timeoutUs, [&] { return !Running() || m_epoch != epoch || !m_ready.empty(); });
    if (!Running()) return kMediaErrorInvalidOperation;
    if (!ready || m_epoch != epoch || m_ready.empty()) return kInfoTryAgainLater;
    const ReadyEntry entry = m_ready.front();
    m_ready.pop_front();
    if (entry.slot < 0) {
      m_deliveredShape = entry.shape;
      return kInfoOutputFormatChanged;
    }
    OutputSlot& slot = m_outputs[static_cast<size_t>(entry.slot)];
    slot.state = SlotState::Caller;
    if (info) *info = slot.info;
    return entry.slot;
  }

  uint8_t* GetOutputBuffer(size_t index, size_t* size) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (size) *size = 0;
    // Pictures that go to a surface are not handed out.
    if (m_window || index >= m_outputs.size() || m_outputs[index].state != SlotState::Caller) return nullptr;
    OutputSlot& slot = m_outputs[index];
    if (size) *size = slot.data.size();
    return slot.data.data();
  }

  std::unique_ptr<MediaFormat> GetOutputFormat() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == State::Uninitialized) return nullptr;
    std::unique_ptr<MediaFormat> format = NewMediaFormat();
    // Decoded output, as a device describes it.
    format->SetString(MediaKeys::kMime, IsVideo() ? "video/raw" : "audio/raw");
    const OutputShape& s = m_deliveredShape;
    if (IsVideo()) {
      format->SetInt32(MediaKeys::kWidth, s.width > 0 ? s.width : m_configured.width);
      format->SetInt32(MediaKeys::kHeight, s.height > 0 ? s.height : m_configured.height);
    } else {
      format->SetInt32(MediaKeys::kSampleRate, s.sampleRate > 0 ? s.sampleRate : m_configured.sampleRate);
      format->SetInt32(MediaKeys::kChannelCount, s.channels > 0 ? s.channels : m_configured.channels);
    }
    return format;
  }

  int ReleaseOutputBuffer(size_t index, bool render) override {
    int64_t timestampNs = 0;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (index >= m_outputs.size() || m_outputs[index].state != SlotState::Caller) return kMediaErrorInvalidParameter;
      timestampNs = m_outputs[index].info.presentationTimeUs * 1000;
    }
    return Release(index, render, timestampNs);
  }

  int ReleaseOutputBufferAtTime(size_t index, int64_t timestampNs) override {
    return Release(index, true, timestampNs);
  }

 private:
  enum class State { Uninitialized, Configured, Running, Stopping };
  // Free: in its pool. Caller: dequeued by the caller. Queued: an input waiting for the worker.
  // Worker: an output the worker is filling. Ready: an output waiting to be dequeued.
  enum class SlotState { Free, Caller, Queued, Worker, Ready };

  struct Settings {
    int32_t width = 0, height = 0, sampleRate = 0, channels = 0;
    size_t inputCapacity = kMinInputCapacity;
    std::vector<uint8_t> extradata;
  };
  struct InputSlot {
    std::unique_ptr<uint8_t[]> data;
    SlotState state = SlotState::Free;
    bool stale = false;
    size_t offset = 0, size = 0;
    int64_t timeUs = 0;
    uint32_t flags = 0;
  };
  struct OutputSlot {
    std::vector<uint8_t> data;
    SlotState state = SlotState::Free;
    bool stale = false;
    BufferInfo info;
    OutputShape shape;
  };
  // A filled output buffer, or (slot -1) the announcement of a new output format.
  struct ReadyEntry {
    int slot = -1;
    OutputShape shape;
  };

  bool IsVideo() const { return m_kind != Kind::Aac; }
  bool Running() const { return m_state == State::Running && !m_destroying; }

  // Waits on cv under lock until done() or the timeout (negative: no limit). Counts the waiter so
  // that destruction can wait for it to leave.
  template <typename Done>
  bool Wait(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, int64_t timeoutUs, Done done) {
    if (done()) return true;
    if (timeoutUs == 0) return false;
    ++m_waiters;
    bool result;
    if (timeoutUs < 0) {
      cv.wait(lock, done);
      result = true;
    } else {
      result = cv.wait_for(lock, std::chrono::microseconds(timeoutUs), done);
    }
    if (--m_waiters == 0) m_idleCv.notify_all();
    return result;
  }

  int ReadSettings(const MediaFormat& format, Settings* s) const {
    int32_t maxInput = 0;
    format.GetInt32(MediaKeys::kMaxInputSize, &maxInput);
    if (IsVideo()) {
      if (!format.GetInt32(MediaKeys::kWidth, &s->width) || !format.GetInt32(MediaKeys::kHeight, &s->height) ||
          s->width <= 0 || s->height <= 0 || s->width > kMaxDimension || s->height > kMaxDimension) {
        OZM_LOGE("codec %s: the format has no valid width and height", m_mime.c_str());
        return kMediaErrorInvalidParameter;
      }
      const size_t picture = static_cast<size_t>(s->width) * static_cast<size_t>(s->height) * 3 / 2 + (64 << 10);
      s->inputCapacity = maxInput > 0 ? static_cast<size_t>(maxInput) : picture;
    } else {
      if (!format.GetInt32(MediaKeys::kSampleRate, &s->sampleRate) ||
          !format.GetInt32(MediaKeys::kChannelCount, &s->channels) || s->sampleRate <= 0 || s->sampleRate > 384000 ||
          s->channels <= 0 || s->channels > kMaxChannels) {
        OZM_LOGE("codec %s: the format has no valid sample rate and channel count", m_mime.c_str());
        return kMediaErrorInvalidParameter;
      }
      if (maxInput > 0) s->inputCapacity = static_cast<size_t>(maxInput);
    }
    s->inputCapacity = std::clamp(s->inputCapacity, kMinInputCapacity, kMaxInputCapacity);
    // Codec-specific data (csd-0, csd-1: parameter sets with start codes, or the AAC configuration)
    // is the decoder's extradata.
    for (const char* key : {MediaKeys::kCsd0, MediaKeys::kCsd1}) {
      const void* data = nullptr;
      size_t size = 0;
      if (format.GetBuffer(key, &data, &size) && data && size > 0) {
        const uint8_t* bytes = static_cast<const uint8_t*>(data);
        s->extradata.insert(s->extradata.end(), bytes, bytes + size);
      }
      if (m_kind == Kind::Aac) break;
    }
    if (m_kind == Kind::Aac && s->extradata.empty()) {
      s->extradata = AacLcConfig(s->sampleRate, s->channels);
      if (s->extradata.empty()) {
        OZM_LOGE("codec %s: no csd-0 and no standard sample rate", m_mime.c_str());
        return kMediaErrorInvalidParameter;
      }
    }
    return kMediaOk;
  }

  CodecPtr OpenDecoder(const Settings& s) const {
    const AVCodecID id = m_kind == Kind::Avc    ? AV_CODEC_ID_H264
                         : m_kind == Kind::Hevc ? AV_CODEC_ID_HEVC
                                                : AV_CODEC_ID_AAC;
    const AVCodec* codec = avcodec_find_decoder(id);
    if (!codec) {
      OZM_LOGE("codec %s: this FFmpeg has no decoder", m_mime.c_str());
      return nullptr;
    }
    CodecPtr context(avcodec_alloc_context3(codec));
    if (!context) return nullptr;
    if (!s.extradata.empty()) {
      context->extradata = static_cast<uint8_t*>(av_mallocz(s.extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
      if (!context->extradata) return nullptr;
      std::memcpy(context->extradata, s.extradata.data(), s.extradata.size());
      context->extradata_size = static_cast<int>(s.extradata.size());
    }
    context->pkt_timebase = AVRational{1, 1000000};
    if (IsVideo()) {
      context->width = s.width;
      context->height = s.height;
      // Frame threads add a picture of latency; the end of stream drains them.
      context->thread_count = 2;
      context->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    } else {
      context->sample_rate = s.sampleRate;
      av_channel_layout_default(&context->ch_layout, s.channels);
    }
    const int status = avcodec_open2(context.get(), codec, nullptr);
    if (status < 0) {
      OZM_LOGE("codec %s: the decoder does not accept the format (%i)", m_mime.c_str(), status);
      return nullptr;
    }
    return context;
  }

  // Every buffer not held by the caller or the worker goes back to its pool; buffers the caller
  // holds become stale. Undelivered output (and any format announcement in it) is dropped.
  void ResetBuffersLocked() {
    m_freeInputs.clear();
    m_queuedInputs.clear();
    for (size_t i = 0; i < m_inputs.size(); ++i) {
      InputSlot& slot = m_inputs[i];
      if (slot.state == SlotState::Caller) {
        slot.stale = true;
        continue;
      }
      slot.state = SlotState::Free;
      slot.stale = false;
      m_freeInputs.push_back(i);
    }
    m_freeOutputs.clear();
    for (size_t i = 0; i < m_outputs.size(); ++i) {
      OutputSlot& slot = m_outputs[i];
      if (slot.state == SlotState::Caller) {
        slot.stale = true;
        continue;
      }
      if (slot.state == SlotState::Worker && m_state == State::Running) continue;  // the worker returns it
      slot.state = SlotState::Free;
      slot.stale = false;
      m_freeOutputs.push_back(i);
    }
    m_ready.clear();
    m_queuedShape = m_deliveredShape;
  }

  int Release(size_t index, bool render, int64_t timestampNs) {
    std::shared_ptr<std::vector<uint8_t>> picture;
    OutputShape shape;
    HostNativeWindow* window = nullptr;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (index >= m_outputs.size() || m_outputs[index].state != SlotState::Caller) return kMediaErrorInvalidParameter;
      OutputSlot& slot = m_outputs[index];
      if (!slot.stale && render && m_window && slot.info.size > 0) {
        // The slot is the caller's until it is returned below, so nobody writes it meanwhile; the
        // copy is made outside the lock.
        window = m_window;
        shape = slot.shape;
      } else {
        return ReturnOutputLocked(index);
      }
    }
    picture = std::make_shared<std::vector<uint8_t>>(m_outputs[index].data);
    HostPicture p;
    p.rgba = std::move(picture);
    p.width = shape.width;
    p.height = shape.height;
    window->QueuePicture(std::move(p), timestampNs);
    std::lock_guard<std::mutex> lock(m_mutex);
    return ReturnOutputLocked(index);
  }

  int ReturnOutputLocked(size_t index) {
    OutputSlot& slot = m_outputs[index];
    const bool stale = slot.stale;
    slot.stale = false;
    slot.state = SlotState::Free;
    // After a stop the pools are rebuilt on start.
    if (m_state == State::Running || m_state == State::Stopping) {
      m_freeOutputs.push_back(index);
      m_workCv.notify_all();
    }
    return stale ? kMediaErrorInvalidOperation : kMediaOk;
  }

  // ---- The worker thread ----

  struct Job {
    PacketPtr packet;
    bool endOfStream = false;
    int64_t timeUs = 0;
    uint64_t epoch = 0;
  };

  void WorkerLoop() {
    FramePtr frame(av_frame_alloc());
    uint64_t decoderEpoch = 0;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      decoderEpoch = m_epoch;
    }
    // The decoder holds state of an earlier epoch, or has drained: it is reset before the next input.
    bool reset = false;
    for (;;) {
      if (reset) {
        avcodec_flush_buffers(m_context.get());
        reset = false;
      }
      Job job;
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_workCv.wait(lock, [&] { return m_workerExit || !m_queuedInputs.empty() || m_epoch != decoderEpoch; });
        if (m_workerExit) break;
        if (m_epoch != decoderEpoch) {
          decoderEpoch = m_epoch;
          reset = true;
          continue;
        }
        const size_t index = m_queuedInputs.front();
        m_queuedInputs.pop_front();
        InputSlot& slot = m_inputs[index];
        job.endOfStream = (slot.flags & kBufferFlagEndOfStream) != 0;
        job.timeUs = slot.timeUs;
        job.epoch = m_epoch;
        if (slot.size > 0) {
          job.packet.reset(av_packet_alloc());
          if (job.packet && av_new_packet(job.packet.get(), static_cast<int>(slot.size)) == 0) {
            std::memcpy(job.packet->data, slot.data.get() + slot.offset, slot.size);
            job.packet->pts = slot.timeUs;
          } else {
            job.packet.reset();
          }
        }
        // The input is consumed: its buffer is free again whether or not it yields output.
        slot.state = SlotState::Free;
        m_freeInputs.push_back(index);
        m_inputCv.notify_one();
      }
      bool delivered = true;
      if (job.packet) delivered = Decode(job.packet.get(), frame.get(), job.epoch);
      if (job.endOfStream && delivered) {
        delivered = Decode(nullptr, frame.get(), job.epoch);
        if (delivered) PutEndOfStream(job.timeUs, job.epoch);
      }
      // After the end of stream, or a flush that cut the delivery short, the decoder starts afresh.
      reset = job.endOfStream || !delivered;
    }
    // The pools are rebuilt by Stop once this thread is joined.
  }

  // Sends a packet (null: drain) and delivers every frame that comes out. False when a flush or
  // stop interrupted the delivery.
  bool Decode(const AVPacket* packet, AVFrame* frame, uint64_t epoch) {
    AVCodecContext* context = m_context.get();
    for (int attempt = 0;; ++attempt) {
      const int sent = avcodec_send_packet(context, packet);
      if (sent == AVERROR(EAGAIN) && attempt == 0) {
        // Output first: receive what is pending, then send again.
        if (!ReceiveFrames(frame, epoch)) return false;
        continue;
      }
      if (sent < 0 && sent != AVERROR_EOF) {
        OZM_LOGW("codec %s: a sample could not be decoded (%i); skipped", m_mime.c_str(), sent);
        return true;
      }
      break;
    }
    return ReceiveFrames(frame, epoch);
  }

  bool ReceiveFrames(AVFrame* frame, uint64_t epoch) {
    for (;;) {
      const int got = avcodec_receive_frame(m_context.get(), frame);
      if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return true;
      if (got < 0) {
        OZM_LOGW("codec %s: decoding error (%i); the picture is skipped", m_mime.c_str(), got);
        return true;
      }
      const bool delivered = Deliver(*frame, epoch);
      av_frame_unref(frame);
      if (!delivered) return false;
    }
  }

  // Takes a free output slot, waiting while there is none. -1 when the epoch ended meanwhile.
  int TakeOutputSlot(uint64_t epoch) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_workCv.wait(lock, [&] { return m_workerExit || m_epoch != epoch || !m_freeOutputs.empty(); });
    if (m_workerExit || m_epoch != epoch) return -1;
    const size_t index = m_freeOutputs.front();
    m_freeOutputs.pop_front();
    m_outputs[index].state = SlotState::Worker;
    return static_cast<int>(index);
  }

  // Hands a filled slot to the caller's side (after a format announcement when its shape is new).
  bool PublishOutputSlot(size_t index, uint64_t epoch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    OutputSlot& slot = m_outputs[index];
    if (m_workerExit || m_epoch != epoch) {
      slot.state = SlotState::Free;
      if (!m_workerExit) m_freeOutputs.push_back(index);
      return false;
    }
    if (slot.info.size > 0 && slot.shape != m_queuedShape) {
      m_ready.push_back(ReadyEntry{-1, slot.shape});
      m_queuedShape = slot.shape;
    }
    slot.state = SlotState::Ready;
    m_ready.push_back(ReadyEntry{static_cast<int>(index), slot.shape});
    m_outputCv.notify_all();
    return true;
  }

  bool Deliver(const AVFrame& frame, uint64_t epoch) {
    OutputShape shape;
    if (IsVideo()) {
      if (frame.width <= 0 || frame.height <= 0) return true;
      shape.width = frame.width;
      shape.height = frame.height;
    } else {
      const AVSampleFormat format = static_cast<AVSampleFormat>(frame.format);
      if (frame.nb_samples <= 0 || frame.ch_layout.nb_channels <= 0 || !SupportedSampleFormat(format)) return true;
      shape.sampleRate = frame.sample_rate > 0 ? frame.sample_rate : m_configured.sampleRate;
      shape.channels = frame.ch_layout.nb_channels;
    }
    const int index = TakeOutputSlot(epoch);
    if (index < 0) return false;
    // The slot is the worker's until it is published: it is written without the lock.
    OutputSlot& slot = m_outputs[static_cast<size_t>(index)];
    bool converted = IsVideo() ? ToRgba(frame, &slot.data) : ToPcm(frame, &slot.data);
    slot.shape = shape;
    slot.info.offset = 0;
    slot.info.size = converted ? static_cast<int32_t>(slot.data.size()) : 0;
    slot.info.flags = 0;
    int64_t pts = frame.best_effort_timestamp != AV_NOPTS_VALUE ? frame.best_effort_timestamp : frame.pts;
    slot.info.presentationTimeUs = pts != AV_NOPTS_VALUE ? pts : 0;
    if (!converted) {
      std::lock_guard<std::mutex> lock(m_mutex);
      slot.state = SlotState::Free;
      if (!m_workerExit && m_epoch == epoch) m_freeOutputs.push_back(static_cast<size_t>(index));
      return m_epoch == epoch && !m_workerExit;
    }
    return PublishOutputSlot(static_cast<size_t>(index), epoch);
  }

  void PutEndOfStream(int64_t timeUs, uint64_t epoch) {
    const int index = TakeOutputSlot(epoch);
    if (index < 0) return;
    OutputSlot& slot = m_outputs[static_cast<size_t>(index)];
    slot.data.clear();
    slot.info = BufferInfo{};
    slot.info.presentationTimeUs = timeUs;
    slot.info.flags = kBufferFlagEndOfStream;
    PublishOutputSlot(static_cast<size_t>(index), epoch);
  }

  bool ToRgba(const AVFrame& frame, std::vector<uint8_t>* out) {
    const int w = frame.width, h = frame.height;
    m_scaler = sws_getCachedContext(m_scaler, w, h, static_cast<AVPixelFormat>(frame.format), w, h, AV_PIX_FMT_RGBA,
                                    SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!m_scaler) {
      OZM_LOGE("codec %s: cannot convert %dx%d pictures of format %d", m_mime.c_str(), w, h, frame.format);
      return false;
    }
    out->resize(static_cast<size_t>(w) * static_cast<size_t>(h) * 4);
    uint8_t* planes[4] = {out->data(), nullptr, nullptr, nullptr};
    const int strides[4] = {w * 4, 0, 0, 0};
    return sws_scale(m_scaler, frame.data, frame.linesize, 0, h, planes, strides) == h;
  }

  static bool ToPcm(const AVFrame& frame, std::vector<uint8_t>* out) {
    const AVSampleFormat format = static_cast<AVSampleFormat>(frame.format);
    const int channels = frame.ch_layout.nb_channels;
    const int samples = frame.nb_samples;
    out->resize(static_cast<size_t>(samples) * static_cast<size_t>(channels) * sizeof(int16_t));
    int16_t* pcm = reinterpret_cast<int16_t*>(out->data());
    for (int i = 0; i < samples; ++i) {
      for (int c = 0; c < channels; ++c) *pcm++ = SampleS16(frame, format, c, i, channels);
    }
    return true;
  }

  const Kind m_kind;
  const std::string m_mime;

  std::mutex m_mutex;
  std::condition_variable m_inputCv;   // a free input buffer, or a flush or stop
  std::condition_variable m_outputCv;  // a ready output, or a flush or stop
  std::condition_variable m_workCv;    // the worker: a queued input, a free output, a flush or stop
  std::condition_variable m_idleCv;    // the last waiter left (destruction)
  State m_state = State::Uninitialized;
  bool m_workerExit = false;
  bool m_destroying = false;
  int m_waiters = 0;
  uint64_t m_epoch = 0;  // advances on every flush and stop
  Settings m_configured;
  HostNativeWindow* m_window = nullptr;
  std::vector<InputSlot> m_inputs;
  std::vector<OutputSlot> m_outputs;
  std::deque<size_t> m_freeInputs, m_queuedInputs, m_freeOutputs;
  std::deque<ReadyEntry> m_ready;
  OutputShape m_queuedShape;     // the newest shape announced into m_ready
  OutputShape m_deliveredShape;  // the shape the caller got with kInfoOutputFormatChanged
  std::thread m_worker;

  // The worker's alone while it runs (the control calls' otherwise).
  CodecPtr m_context;
  SwsContext* m_scaler = nullptr;

 public:
  HostMediaCodec(const HostMediaCodec&) = delete;
  HostMediaCodec& operator=(const HostMediaCodec&) = delete;
};

}  // namespace

std::unique_ptr<MediaCodec> NewHostMediaCodec(const char* mime) {
  if (!mime) return nullptr;
  const std::string type(mime);
  if (type == "video/avc") return std::make_unique<HostMediaCodec>(Kind::Avc, mime);
  if (type == "video/hevc") return std::make_unique<HostMediaCodec>(Kind::Hevc, mime);
  if (type == "audio/mp4a-latm") return std::make_unique<HostMediaCodec>(Kind::Aac, mime);
  return nullptr;
}

}  // namespace OzmPlatform
