// The Android backend: the media ports on the NDK's AMediaFormat, AMediaExtractor and AMediaCodec,
// native windows made from the Java surfaces of the bridge, application assets through
// AAssetManager, and the default EGL display. The Java parts (thread attachment, surface textures,
// audio tracks, asset descriptors, downloads) come from OzmJni::JavaPlatform.
#pragma once

#include <media/NdkMediaFormat.h>

#include <map>
#include <memory>
#include <string>

#include "platform/Media.h"
#include "platform/Platform.h"

struct ANativeWindow;

namespace OzmPlatform {

// Deletes an AMediaFormat this backend owns.
struct AMediaFormatDeleter {
  void operator()(AMediaFormat* format) const;
};
using AMediaFormatPtr = std::unique_ptr<AMediaFormat, AMediaFormatDeleter>;

// A track or output format held as the system's AMediaFormat, which this object owns.
class AndroidMediaFormat final : public MediaFormat {
 public:
  // Takes ownership of `format` (not null).
  explicit AndroidMediaFormat(AMediaFormat* format);
  ~AndroidMediaFormat() override;
  AndroidMediaFormat(const AndroidMediaFormat&) = delete;
  AndroidMediaFormat& operator=(const AndroidMediaFormat&) = delete;

  bool GetInt32(const char* key, int32_t* out) const override;
  bool GetInt64(const char* key, int64_t* out) const override;
  bool GetFloat(const char* key, float* out) const override;
  bool GetString(const char* key, const char** out) const override;
  bool GetBuffer(const char* key, const void** data, size_t* size) const override;
  void SetInt32(const char* key, int32_t value) override;
  void SetInt64(const char* key, int64_t value) override;
  void SetFloat(const char* key, float value) override;
  void SetString(const char* key, const char* value) override;
  void SetBuffer(const char* key, const void* data, size_t size) override;
  const char* ToString() const override;

  // The system's object, still owned by this one.
  AMediaFormat* Handle() const { return m_format; }

 private:
  AMediaFormat* const m_format;
  // Texts handed out by GetString, by key. The system keeps only the text of the latest read of a
  // key, so a second read would pull the first one's text away; a copy here stays put until the
  // key is set again, as the port promises.
  mutable std::map<std::string, std::string> m_strings;
};

// A new AMediaFormat with every value of `format` under the keys the player and the stream inputs
// use (MediaKeys), whatever their type. Null when the system cannot make one.
AMediaFormatPtr CopyToAMediaFormat(const MediaFormat& format);

// The producer side of a Java surface texture as a native window; the reference taken by
// ANativeWindow_fromSurface is released on destruction.
class AndroidNativeWindow final : public NativeWindow {
 public:
  // Takes over one reference to `window` (not null).
  explicit AndroidNativeWindow(ANativeWindow* window) : m_window(window) {}
  ~AndroidNativeWindow() override;
  AndroidNativeWindow(const AndroidNativeWindow&) = delete;
  AndroidNativeWindow& operator=(const AndroidNativeWindow&) = delete;

  ANativeWindow* Window() const { return m_window; }

 private:
  ANativeWindow* const m_window;
};

// Null when the system cannot make an extractor.
std::unique_ptr<MediaExtractor> NewAndroidMediaExtractor();
// Null when no decoder handles `mime`.
std::unique_ptr<MediaCodec> NewAndroidMediaCodec(const char* mime);
// Null when there is no such asset (the caller reports that), or, with an error in the log, when
// the asset manager cannot be reached.
std::unique_ptr<Asset> OpenAndroidAsset(const char* path);

}  // namespace OzmPlatform
