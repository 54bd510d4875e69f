// Media formats on the system's AMediaFormat, and the copy of any format into one for a decoder.
#include <cstdint>

#include "platform/Log.h"
#include "platform/android/AndroidBackend.h"

namespace OzmPlatform {

void AMediaFormatDeleter::operator()(AMediaFormat* format) const {
  if (format) AMediaFormat_delete(format);
}

AndroidMediaFormat::AndroidMediaFormat(AMediaFormat* format) : m_format(format) {}

AndroidMediaFormat::~AndroidMediaFormat() { AMediaFormat_delete(m_format); }

// The system dereferences names and values without checking them, so null ones stop here.

bool AndroidMediaFormat::GetInt32(const char* key, int32_t* out) const {
  int32_t value = 0;
  if (!key || !AMediaFormat_getInt32(m_format, key, &value)) return false;
  if (out) *out = value;
  return true;
}

bool AndroidMediaFormat::GetInt64(const char* key, int64_t* out) const {
  int64_t value = 0;
  if (!key || !AMediaFormat_getInt64(m_format, key, &value)) return false;
  if (out) *out = value;
  return true;
}

bool AndroidMediaFormat::GetFloat(const char* key, float* out) const {
  float value = 0;
  if (!key || !AMediaFormat_getFloat(m_format, key, &value)) return false;
  if (out) *out = value;
  return true;
}

bool AndroidMediaFormat::GetString(const char* key, const char** out) const {
  const char* value = nullptr;
  if (!key || !AMediaFormat_getString(m_format, key, &value) || !value) return false;
  auto it = m_strings.find(key);
  if (it == m_strings.end()) {
    it = m_strings.emplace(key, value).first;
  } else if (it->second != value) {
    // Only a change of the value itself moves the text; an unchanged one keeps its address.
    it->second = value;
  }
  if (out) *out = it->second.c_str();
  return true;
}

bool AndroidMediaFormat::GetBuffer(const char* key, const void** data, size_t* size) const {
  void* bytes = nullptr;
  size_t length = 0;
  if (!key || !AMediaFormat_getBuffer(m_format, key, &bytes, &length)) return false;
  if (data) *data = bytes;
  if (size) *size = length;
  return true;
}

void AndroidMediaFormat::SetInt32(const char* key, int32_t value) {
  if (!key) return;
  m_strings.erase(key);
  AMediaFormat_setInt32(m_format, key, value);
}

void AndroidMediaFormat::SetInt64(const char* key, int64_t value) {
  if (!key) return;
  m_strings.erase(key);
  AMediaFormat_setInt64(m_format, key, value);
}

void AndroidMediaFormat::SetFloat(const char* key, float value) {
  if (!key) return;
  m_strings.erase(key);
  AMediaFormat_setFloat(m_format, key, value);
}

void AndroidMediaFormat::SetString(const char* key, const char* value) {
  if (!key) return;
  m_strings.erase(key);
  AMediaFormat_setString(m_format, key, value ? value : "");
}

void AndroidMediaFormat::SetBuffer(const char* key, const void* data, size_t size) {
  if (!key) return;
  m_strings.erase(key);
  static const uint8_t kNothing = 0;
  if (!data) size = 0;
  AMediaFormat_setBuffer(m_format, key, data ? data : &kNothing, size);
}

const char* AndroidMediaFormat::ToString() const { return AMediaFormat_toString(m_format); }

namespace {

// Every key a format that reaches a decoder may carry: the tracks of the system's extractor keep
// theirs in the AMediaFormat itself, while the stream inputs build portable formats with these
// (input/HLSStream.cpp: mime, size, frame rate and codec configuration of the video track; mime,
// channel count, sample rate and audio configuration of the audio track). The portable format
// cannot list its keys, so a key new to the player must be added here too.
constexpr const char* kCopiedKeys[] = {
    MediaKeys::kMime,       MediaKeys::kWidth,        MediaKeys::kHeight,       MediaKeys::kFrameRate,
    MediaKeys::kDurationUs, MediaKeys::kSampleRate,   MediaKeys::kChannelCount, MediaKeys::kCsd0,
    MediaKeys::kCsd1,       MediaKeys::kMaxInputSize,
};

}  // namespace

AMediaFormatPtr CopyToAMediaFormat(const MediaFormat& format) {
  AMediaFormatPtr copy(AMediaFormat_new());
  if (!copy) {
    OZM_LOGE("AMediaFormat_new failed");
    return nullptr;
  }
  // A key holds a value of one type, so at most one of the reads below finds it (the frame rate,
  // for one, is an integer in some formats and a float in others).
  for (const char* key : kCopiedKeys) {
    int32_t i32 = 0;
    int64_t i64 = 0;
    float real = 0;
    const char* text = nullptr;
    const void* data = nullptr;
    size_t size = 0;
    if (format.GetString(key, &text)) {
      AMediaFormat_setString(copy.get(), key, text ? text : "");
    } else if (format.GetBuffer(key, &data, &size)) {
      static const uint8_t kNothing = 0;
      AMediaFormat_setBuffer(copy.get(), key, data ? data : &kNothing, data ? size : 0);
    } else if (format.GetInt32(key, &i32)) {
      AMediaFormat_setInt32(copy.get(), key, i32);
    } else if (format.GetInt64(key, &i64)) {
      AMediaFormat_setInt64(copy.get(), key, i64);
    } else if (format.GetFloat(key, &real)) {
      AMediaFormat_setFloat(copy.get(), key, real);
    }
  }
  return copy;
}

}  // namespace OzmPlatform
