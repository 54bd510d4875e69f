// Paths and addresses cross the bridge as standard UTF-8 on the native side and UTF-16 in Java.
#include <vector>

#include "platform/Log.h"
#include "platform/jni/JavaInternal.h"

namespace OzmJni {
namespace {

// Decodes one code point at `in[i]`, advancing `i`; false on an invalid sequence (truncated,
// overlong, a surrogate, or beyond U+10FFFF).
bool DecodeUtf8(const std::string& in, size_t& i, char32_t& out) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(in[k]); };
  const unsigned char lead = byte(i);
  size_t extra = 0;
  char32_t value = 0;
  char32_t minimum = 0;
  if (lead < 0x80) {
    out = lead;
    ++i;
    return true;
  } else if ((lead & 0xE0) == 0xC0) {
    extra = 1;
    value = lead & 0x1F;
    minimum = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2;
    value = lead & 0x0F;
    minimum = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3;
    value = lead & 0x07;
    minimum = 0x10000;
  } else {
    return false;
  }
  if (i + extra >= in.size()) return false;
  for (size_t k = 1; k <= extra; ++k) {
    const unsigned char next = byte(i + k);
    if ((next & 0xC0) != 0x80) return false;
    value = (value << 6) | (next & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
  out = value;
  i += extra + 1;
  return true;
}

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

jstring NewJavaString(JNIEnv* env, const std::string& utf8) {
  std::vector<jchar> units;
  units.reserve(utf8.size());
  for (size_t i = 0; i < utf8.size();) {
    char32_t c = 0;
    if (!DecodeUtf8(utf8, i, c)) {
      OZM_LOGE("JNI: text is not valid UTF-8 at byte %zu", i);
      return nullptr;
    }
    if (c >= 0x10000) {
      c -= 0x10000;
      units.push_back(static_cast<jchar>(0xD800 + (c >> 10)));
      units.push_back(static_cast<jchar>(0xDC00 + (c & 0x3FF)));
    } else {
      units.push_back(static_cast<jchar>(c));
    }
  }
  jstring text = env->NewString(units.data(), static_cast<jsize>(units.size()));
  if (!CallSucceeded(env, "NewString") || !text) return nullptr;
  return text;
}

std::string ToUtf8(JNIEnv* env, jstring text) {
  if (!text) return {};
  const jsize length = env->GetStringLength(text);
  std::vector<jchar> units(static_cast<size_t>(length));
  if (length > 0) env->GetStringRegion(text, 0, length, units.data());
  if (!CallSucceeded(env, "GetStringRegion")) return {};
  std::string out;
  out.reserve(units.size());
  for (size_t i = 0; i < units.size(); ++i) {
    char32_t c = units[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (units[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    AppendUtf8(out, c);
  }
  return out;
}

}  // namespace OzmJni
