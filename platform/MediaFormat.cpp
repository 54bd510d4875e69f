// The portable media format: typed values by key, with Android's text form for log lines.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "platform/Media.h"

namespace OzmPlatform {
namespace {

class MapMediaFormat final : public MediaFormat {
 public:
  bool GetInt32(const char* key, int32_t* out) const override {
    const Value* v = Find(key, Type::Int32);
    if (v && out) *out = static_cast<int32_t>(v->integer);
    return v != nullptr;
  }
  bool GetInt64(const char* key, int64_t* out) const override {
    const Value* v = Find(key, Type::Int64);
    if (v && out) *out = v->integer;
    return v != nullptr;
  }
  bool GetFloat(const char* key, float* out) const override {
    const Value* v = Find(key, Type::Float);
    if (v && out) *out = v->real;
    return v != nullptr;
  }
  bool GetString(const char* key, const char** out) const override {
    const Value* v = Find(key, Type::String);
    if (v && out) *out = v->text.c_str();
    return v != nullptr;
  }
  bool GetBuffer(const char* key, const void** data, size_t* size) const override {
    const Value* v = Find(key, Type::Buffer);
    if (v) {
      if (data) *data = v->bytes.data();
      if (size) *size = v->bytes.size();
    }
    return v != nullptr;
  }
  void SetInt32(const char* key, int32_t value) override { Set(key).SetInteger(Type::Int32, value); }
  void SetInt64(const char* key, int64_t value) override { Set(key).SetInteger(Type::Int64, value); }
  void SetFloat(const char* key, float value) override {
    Value& v = Set(key);
    v.type = Type::Float;
    v.real = value;
  }
  void SetString(const char* key, const char* value) override {
    Value& v = Set(key);
    v.type = Type::String;
    v.text = value ? value : "";
  }
  void SetBuffer(const char* key, const void* data, size_t size) override {
    Value& v = Set(key);
    v.type = Type::Buffer;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    v.bytes.assign(bytes, bytes + (bytes ? size : 0));
  }

  const char* ToString() const override {
    std::string text;
    char number[64];
    for (const auto& [key, v] : m_values) {
      if (!text.empty()) text += ", ";
      text += key + ": ";
      switch (v.type) {
        case Type::Int32:
          std::snprintf(number, sizeof(number), "int32(%lld)", static_cast<long long>(v.integer));
          text += number;
          break;
        case Type::Int64:
          std::snprintf(number, sizeof(number), "int64(%lld)", static_cast<long long>(v.integer));
          text += number;
          break;
        case Type::Float:
          std::snprintf(number, sizeof(number), "float(%f)", static_cast<double>(v.real));
          text += number;
          break;
        case Type::String: text += "string(" + v.text + ")"; break;
        case Type::Buffer:
          std::snprintf(number, sizeof(number), "data[%zu]", v.bytes.size());
          text += number;
          break;
      }
    }
    m_text = text;
    return m_text.c_str();
  }

 private:
  enum class Type { Int32, Int64, Float, String, Buffer };
  struct Value {
    Type type = Type::Int32;
    int64_t integer = 0;
    float real = 0;
    std::string text;
    std::vector<uint8_t> bytes;
    void SetInteger(Type t, int64_t value) {
      type = t;
      integer = value;
    }
  };

  const Value* Find(const char* key, Type type) const {
    if (!key) return nullptr;
    auto it = m_values.find(key);
    return it != m_values.end() && it->second.type == type ? &it->second : nullptr;
  }
  Value& Set(const char* key) {
    Value& v = m_values[key ? key : ""];
    v = Value{};
    return v;
  }

  std::map<std::string, Value> m_values;
  mutable std::string m_text;
};

}  // namespace

std::unique_ptr<MediaFormat> NewMediaFormat() { return std::make_unique<MapMediaFormat>(); }

}  // namespace OzmPlatform
