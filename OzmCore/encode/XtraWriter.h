// Writes the "Xtra" attribute block that closes a volumetric MP4 file.
#pragma once

#include <cstdint>
#include <vector>

#include "OzmCore/OzmTypes.h"

namespace OzmEncode {

struct XtraAttributes {
  uint32_t frameCount = 0;
  uint32_t maxVertexCount = 0;
  uint32_t maxIndexCount = 0;
  double bboxMin[3] = {0, 0, 0};
  double bboxMax[3] = {0, 0, 0};
  bool writeHasVertexNormals = true;  // the normals property is optional
  uint32_t hasVertexNormals = 0;
};

// One property of the block: the attribute's GUID as text, one value of the given type.
struct XtraProperty {
  _GUID key;
  uint16_t type;          // 19: 32-bit unsigned, 5: double
  uint64_t valueBits;     // the value's bytes, little-endian (4 or 8 of them are written)
  bool wideType = false;  // write the type in the alternative form (00 41, then a 16-bit LE type)
};

// A complete atom: 32-bit big-endian size, "Xtra", then the properties.
std::vector<uint8_t> WriteXtraAtom(const std::vector<XtraProperty>& properties);

// The properties of a file, in the order the reader looks for them.
std::vector<XtraProperty> XtraPropertiesOf(const XtraAttributes& attributes);

inline std::vector<uint8_t> WriteXtraBlock(const XtraAttributes& attributes) {
  return WriteXtraAtom(XtraPropertiesOf(attributes));
}

}  // namespace OzmEncode
