// The decoder port on the system's AMediaCodec. The port copies the system's buffer-index protocol,
// its status and info codes and its flags, so most calls pass straight through; what is added here
// keeps bad arguments from reaching a system call that would not check them.
#include <media/NdkMediaCodec.h>

#include <atomic>
#include <climits>

#include "platform/Log.h"
#include "platform/android/AndroidBackend.h"

namespace OzmPlatform {
namespace {

static_assert(kInfoTryAgainLater == AMEDIACODEC_INFO_TRY_AGAIN_LATER &&
                  kInfoOutputFormatChanged == AMEDIACODEC_INFO_OUTPUT_FORMAT_CHANGED &&
                  kInfoOutputBuffersChanged == AMEDIACODEC_INFO_OUTPUT_BUFFERS_CHANGED,
              "the port's info codes are the system's");
static_assert(kBufferFlagEndOfStream == AMEDIACODEC_BUFFER_FLAG_END_OF_STREAM,
              "the port's end-of-stream flag is the system's");
static_assert(kMediaOk == AMEDIA_OK && kMediaErrorInvalidParameter == AMEDIA_ERROR_INVALID_PARAMETER,
              "the port's status codes are the system's media_status_t");

class AndroidMediaCodec final : public MediaCodec {
 public:
  explicit AndroidMediaCodec(AMediaCodec* codec) : m_codec(codec) {}
  ~AndroidMediaCodec() override { AMediaCodec_delete(m_codec); }
  AndroidMediaCodec(const AndroidMediaCodec&) = delete;
  AndroidMediaCodec& operator=(const AndroidMediaCodec&) = delete;

  int Configure(const MediaFormat& format, NativeWindow* surface, uint32_t flags) override {
    ANativeWindow* window = nullptr;
    if (surface) {
      const AndroidNativeWindow* android = dynamic_cast<const AndroidNativeWindow*>(surface);
      if (!android) {
        OZM_LOGE("AMediaCodec_configure: the output surface is not a native window of this platform");
        return kMediaErrorInvalidParameter;
      }
      window = android->Window();
    }
    // A format read from the system's extractor goes as it is; a portable one (the stream inputs
    // make those) is copied into a format of the system's first.
    AMediaFormatPtr copy;
    const AMediaFormat* handle = nullptr;
    if (const AndroidMediaFormat* android = dynamic_cast<const AndroidMediaFormat*>(&format)) {
      handle = android->Handle();
    } else {
      copy = CopyToAMediaFormat(format);
      if (!copy) return kMediaErrorUnknown;
      handle = copy.get();
    }
    const media_status_t status = AMediaCodec_configure(m_codec, handle, window, nullptr, flags);
    if (status == AMEDIA_OK) m_toSurface.store(window != nullptr);
    return status;
  }

  int Start() override { return AMediaCodec_start(m_codec); }
  int Stop() override { return AMediaCodec_stop(m_codec); }
  int Flush() override { return AMediaCodec_flush(m_codec); }

  ssize_t DequeueInputBuffer(int64_t timeoutUs) override { return AMediaCodec_dequeueInputBuffer(m_codec, timeoutUs); }

  uint8_t* GetInputBuffer(size_t index, size_t* capacity) override {
    size_t size = 0;
    uint8_t* buffer = AMediaCodec_getInputBuffer(m_codec, index, &size);
    if (capacity) *capacity = buffer ? size : 0;
    return buffer;
  }

  int QueueInputBuffer(size_t index, size_t offset, size_t size, int64_t timeUs, uint32_t flags) override {
    // The offset is an off_t, 32 bits wide on 32-bit devices.
    if (offset > static_cast<size_t>(LONG_MAX)) return kMediaErrorInvalidParameter;
    // The system takes the time as unsigned; the bits are the same.
    return AMediaCodec_queueInputBuffer(m_codec, index, static_cast<off_t>(offset), size, static_cast<uint64_t>(timeUs),
                                        flags);
  }

  ssize_t DequeueOutputBuffer(BufferInfo* info, int64_t timeoutUs) override {
    AMediaCodecBufferInfo system{};
    const ssize_t index = AMediaCodec_dequeueOutputBuffer(m_codec, &system, timeoutUs);
    if (index >= 0 && info) {
      info->offset = system.offset;
      info->size = system.size;
      info->presentationTimeUs = system.presentationTimeUs;
      info->flags = system.flags;
    }
    return index;
  }

  uint8_t* GetOutputBuffer(size_t index, size_t* size) override {
    if (size) *size = 0;
    // Pictures rendered to a surface have no bytes to hand out (the system returns its own
    // bookkeeping for them rather than null).
    if (m_toSurface.load()) return nullptr;
    size_t capacity = 0;
    uint8_t* buffer = AMediaCodec_getOutputBuffer(m_codec, index, &capacity);
    if (buffer && size) *size = capacity;
    return buffer;
  }

  std::unique_ptr<MediaFormat> GetOutputFormat() override {
    AMediaFormat* format = AMediaCodec_getOutputFormat(m_codec);
    if (!format) return nullptr;
    return std::make_unique<AndroidMediaFormat>(format);
  }

  int ReleaseOutputBuffer(size_t index, bool render) override {
    return AMediaCodec_releaseOutputBuffer(m_codec, index, render);
  }

  int ReleaseOutputBufferAtTime(size_t index, int64_t timestampNs) override {
    return AMediaCodec_releaseOutputBufferAtTime(m_codec, index, timestampNs);
  }

 private:
  AMediaCodec* const m_codec;
  // Whether the codec was configured with an output surface; read by the output threads.
  std::atomic<bool> m_toSurface{false};
};

}  // namespace

std::unique_ptr<MediaCodec> NewAndroidMediaCodec(const char* mime) {
  if (!mime) return nullptr;
  AMediaCodec* codec = AMediaCodec_createDecoderByType(mime);
  if (!codec) return nullptr;
  return std::make_unique<AndroidMediaCodec>(codec);
}

}  // namespace OzmPlatform
