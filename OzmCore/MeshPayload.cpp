#include "OzmCore/MeshPayload.h"

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "platform/Log.h"

#ifndef OZM_STREAMING_BASE_URL_0
#error "The streaming base addresses are set by the build (OZM_STREAMING_BASE_URLS)"
#endif

namespace OzmCrossPlatform {

Stream* FindCompressedMesh(const unsigned char* data, unsigned int size) {
  using namespace MeshNal;
  if (!data || size < 4) return nullptr;

  size_t unit = 0;
  bool found = false;
  for (size_t p = 0; p + 3 < size; ++p) {
    if (data[p] != 0 || data[p + 1] != 0 || data[p + 2] != 1) continue;
    if (data[p + 3] != kHeaderByteType21 && data[p + 3] != kHeaderByteType24) continue;
    if (p + kTagOffset + 4 > size || std::memcmp(data + p + kTagOffset, "WELM", 4) != 0) continue;
    unit = p;
    found = true;
    break;
  }
  if (!found) return nullptr;

  if (unit + kPayloadOffset > size) {
    OZM_LOGE("FindCompressedMesh: mesh unit header is cut off (%u bytes in the sample)", size);
    return nullptr;
  }
  const unsigned char* header = data + unit;
  const int32_t payloadSize = static_cast<int32_t>(
      static_cast<uint32_t>(header[kSizeLowOffset]) | static_cast<uint32_t>(header[kSizeLowOffset + 1]) << 8 |
      static_cast<uint32_t>(header[kSizeHighOffset]) << 16 | static_cast<uint32_t>(header[kSizeHighOffset + 1]) << 24);
  const size_t escapedSize = payloadSize > 0 ? static_cast<size_t>(payloadSize) : 0;
  if (escapedSize > size - (unit + kPayloadOffset)) {
    OZM_LOGE("FindCompressedMesh: mesh payload of %d bytes runs past the end of the %u-byte sample", payloadSize, size);
    return nullptr;
  }

  std::unique_ptr<uint8_t[]> out(new (std::nothrow) uint8_t[escapedSize > 0 ? escapedSize : 1]);
  if (!out) {
    OZM_LOGE("FindCompressedMesh: could not allocate %zu bytes", escapedSize);
    return nullptr;
  }

  // Emulation prevention: 00 00 03 xx with xx <= 3 stands for 00 00 xx. The byte after the 03 is
  // consumed with it and never starts the next pattern; the encoder relies on exactly this rule.
  const unsigned char* in = header + kPayloadOffset;
  size_t o = 0;
  for (size_t i = 0; i < escapedSize;) {
    if (i + 3 < escapedSize && in[i] == 0 && in[i + 1] == 0 && in[i + 2] == 3 && in[i + 3] <= 3) {
      out[o] = 0;
      out[o + 1] = 0;
      out[o + 2] = in[i + 3];
      o += 3;
      i += 4;
    } else {
      OZM_ASSERT_MSG(o < escapedSize, "outputIndex < meshSize");
      out[o++] = in[i++];
    }
  }

  Stream* stream = new (std::nothrow) Stream(std::move(out), static_cast<uint32_t>(o), kIgnoredPrefixBytes);
  if (!stream) OZM_LOGE("FindCompressedMesh: could not allocate the stream");
  return stream;
}

namespace {

// The accepted base addresses are assembled at run time from character codes, so that they do not
// stand in the binary as plain strings.
std::string CharsToString(int count, ...) {
  std::string text;
  va_list args;
  va_start(args, count);
  for (int i = 0; i < count; ++i) text.push_back(static_cast<char>(va_arg(args, int)));
  va_end(args);
  return text;
}

struct StreamingPrefixes {
  std::string urls[3];
};

const StreamingPrefixes& Prefixes() {
  static std::once_flag once;
  static StreamingPrefixes prefixes;
  std::call_once(once, [] {
    prefixes.urls[0] = CharsToString(OZM_STREAMING_BASE_URL_0);
    prefixes.urls[1] = CharsToString(OZM_STREAMING_BASE_URL_1);
    prefixes.urls[2] = CharsToString(OZM_STREAMING_BASE_URL_2);
  });
  return prefixes;
}

#ifdef OZM_TEST_HOOKS
std::atomic<bool> g_allowLoopback{false};

bool IsLoopbackURL(const char* url) {
  static const char* const kLoopback[] = {
      "http://127.0.0.1:", "http://127.0.0.1/",  "http://localhost:", "http://localhost/",
      "http://[::1]:",     "https://127.0.0.1:", "https://localhost:"};
  for (const char* prefix : kLoopback) {
    if (std::strncmp(url, prefix, std::strlen(prefix)) == 0) return true;
  }
  // A playlist on this machine.
  return url[0] == '/';
}
#endif

}  // namespace

#ifdef OZM_TEST_HOOKS
void AllowLoopbackStreamingURLs(bool allow) { g_allowLoopback = allow; }
#endif

bool IsValidStreamingURL(const char* url) {
  if (!url) return false;
  for (const std::string& prefix : Prefixes().urls) {
    if (!prefix.empty() && std::strstr(url, prefix.c_str()) != nullptr) return true;
  }
#ifdef OZM_TEST_HOOKS
  if (g_allowLoopback && IsLoopbackURL(url)) return true;
#endif
  return false;
}

}  // namespace OzmCrossPlatform
