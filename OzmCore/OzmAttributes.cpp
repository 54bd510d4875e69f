#include "OzmCore/OzmAttributes.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/Log.h"

namespace OzmCrossPlatform {
namespace {

struct XtraProperty {
  const _GUID* key;
  uint16_t type;
  bool required;
};

// The properties in the order they are read.
constexpr XtraProperty kXtraProperties[] = {
    {&OzmAttrib_FrameCount, kXtraTypeUInt32, true},    {&OzmAttrib_MaxVertexCount, kXtraTypeUInt32, true},
    {&OzmAttrib_MaxIndexCount, kXtraTypeUInt32, true}, {&OzmAttrib_BBoxMinX, kXtraTypeDouble, true},
    {&OzmAttrib_BBoxMaxX, kXtraTypeDouble, true},      {&OzmAttrib_BBoxMinY, kXtraTypeDouble, true},
    {&OzmAttrib_BBoxMaxY, kXtraTypeDouble, true},      {&OzmAttrib_BBoxMinZ, kXtraTypeDouble, true},
    {&OzmAttrib_BBoxMaxZ, kXtraTypeDouble, true},      {&OzmAttrib_HasVertexNormals, kXtraTypeUInt32, false},
};

// Layout of one property, relative to the first character of its name.
constexpr size_t kNameLength = 38;
constexpr size_t kCountOffset = 40;
constexpr size_t kEntrySizeOffset = 44;
constexpr size_t kTypeOffset = 48;
constexpr size_t kValueOffset = 50;
constexpr size_t kWideTypeValueOffset = 54;

uint32_t ReadBE32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
         p[3];
}

const uint8_t* Find(const uint8_t* begin, const uint8_t* end, const char* needle, size_t n) {
  const uint8_t* found = std::search(begin, end, needle, needle + n);
  return found == end ? nullptr : found;
}

}  // namespace

bool ReadXtraAttributes(const uint8_t* data, size_t size, IOzmAttributesCore* attributes) {
  if (!data || !attributes) size = 0;
  const uint8_t* end = data + size;
  const uint8_t* atom = size ? Find(data, end, "Xtra", 4) : nullptr;
  if (!atom) {
    OZM_LOGW("ReadXtraAttributes: didn't find Xtra atom\n");
    return false;
  }

  for (const XtraProperty& property : kXtraProperties) {
    const std::string name = GuidToString(*property.key);
    const uint8_t* entry = Find(atom, end, name.c_str(), kNameLength);
    if (!entry) {
      if (!property.required) continue;
      OZM_LOGW("ReadXtraAttributes: couldn't find attribute for guid %s\n", name.c_str());
      return false;
    }
    const size_t available = static_cast<size_t>(end - entry);
    if (available < kValueOffset) {
      OZM_LOGW("ReadXtraAttributes: attribute %s is cut off\n", name.c_str());
      return false;
    }
    if (ReadBE32(entry + kCountOffset) != 1 || ReadBE32(entry + kEntrySizeOffset) < 6) return false;

    uint16_t type = static_cast<uint16_t>(entry[kTypeOffset] << 8 | entry[kTypeOffset + 1]);
    size_t valueOffset = kValueOffset;
    if (type == 0x0041) {
      if (available < kWideTypeValueOffset) {
        OZM_LOGW("ReadXtraAttributes: attribute %s is cut off\n", name.c_str());
        return false;
      }
      type = static_cast<uint16_t>(entry[kValueOffset] | entry[kValueOffset + 1] << 8);
      valueOffset = kWideTypeValueOffset;
    }
    if (type != property.type) {
      OZM_LOGW("ReadXtraAttributes: expected type %i but got type %i for attribute %s\n", property.type, type,
               name.c_str());
      return false;
    }
    const size_t valueSize = type == kXtraTypeUInt32 ? 4 : 8;
    if (available < valueOffset + valueSize) {
      OZM_LOGW("ReadXtraAttributes: attribute %s is cut off\n", name.c_str());
      return false;
    }
    if (type == kXtraTypeUInt32) {
      uint32_t value;
      std::memcpy(&value, entry + valueOffset, 4);
      attributes->SetUINT32(*property.key, value);
    } else {
      double value;
      std::memcpy(&value, entry + valueOffset, 8);
      attributes->SetDouble(*property.key, value);
    }
  }
  return true;
}

}  // namespace OzmCrossPlatform
