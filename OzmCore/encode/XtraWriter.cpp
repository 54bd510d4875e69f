#include "OzmCore/encode/XtraWriter.h"

#include <cstring>
#include <string>

#include "OzmCore/OzmAttributes.h"
#include "OzmCore/encode/ByteWriter.h"

namespace OzmEncode {
namespace {

uint64_t DoubleBits(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, 8);
  return bits;
}

void AppendProperty(ByteWriter& w, const XtraProperty& property) {
  using OzmCrossPlatform::kXtraTypeUInt32;
  const std::string name = OzmCrossPlatform::GuidToString(property.key);
  const size_t valueSize = property.type == kXtraTypeUInt32 ? 4 : 8;
  const size_t typeSize = property.wideType ? 6 : 2;
  const uint32_t valueEntrySize = static_cast<uint32_t>(4 + typeSize + valueSize);
  const uint32_t entrySize = static_cast<uint32_t>(4 + 4 + name.size() + 2 + 4 + valueEntrySize);

  w.U32BE(entrySize);
  w.U32BE(static_cast<uint32_t>(name.size()));
  w.Bytes(name.data(), name.size());
  w.U16BE(0);  // name terminator, not interpreted
  w.U32BE(1);  // number of values
  w.U32BE(valueEntrySize);
  if (property.wideType) {
    w.U16BE(0x0041);
    w.U16LE(property.type);
    w.U16LE(0);
  } else {
    w.U16BE(property.type);
  }
  w.Bytes(&property.valueBits, valueSize);  // little-endian targets: the low bytes come first
}

}  // namespace

std::vector<uint8_t> WriteXtraAtom(const std::vector<XtraProperty>& properties) {
  std::vector<uint8_t> out;
  ByteWriter w(out);
  w.U32BE(0);  // size, patched below
  w.Bytes("Xtra", 4);
  for (const XtraProperty& property : properties) AppendProperty(w, property);
  const uint32_t size = static_cast<uint32_t>(out.size());
  out[0] = static_cast<uint8_t>(size >> 24);
  out[1] = static_cast<uint8_t>(size >> 16);
  out[2] = static_cast<uint8_t>(size >> 8);
  out[3] = static_cast<uint8_t>(size);
  return out;
}

std::vector<XtraProperty> XtraPropertiesOf(const XtraAttributes& a) {
  using OzmCrossPlatform::kXtraTypeDouble;
  using OzmCrossPlatform::kXtraTypeUInt32;
  std::vector<XtraProperty> properties = {
      {OzmAttrib_FrameCount, kXtraTypeUInt32, a.frameCount},
      {OzmAttrib_MaxVertexCount, kXtraTypeUInt32, a.maxVertexCount},
      {OzmAttrib_MaxIndexCount, kXtraTypeUInt32, a.maxIndexCount},
      {OzmAttrib_BBoxMinX, kXtraTypeDouble, DoubleBits(a.bboxMin[0])},
      {OzmAttrib_BBoxMaxX, kXtraTypeDouble, DoubleBits(a.bboxMax[0])},
      {OzmAttrib_BBoxMinY, kXtraTypeDouble, DoubleBits(a.bboxMin[1])},
      {OzmAttrib_BBoxMaxY, kXtraTypeDouble, DoubleBits(a.bboxMax[1])},
      {OzmAttrib_BBoxMinZ, kXtraTypeDouble, DoubleBits(a.bboxMin[2])},
      {OzmAttrib_BBoxMaxZ, kXtraTypeDouble, DoubleBits(a.bboxMax[2])},
  };
  if (a.writeHasVertexNormals) properties.push_back({OzmAttrib_HasVertexNormals, kXtraTypeUInt32, a.hasVertexNormals});
  return properties;
}

}  // namespace OzmEncode
