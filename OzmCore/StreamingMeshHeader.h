// The header in front of every compressed mesh (and of every sub-mesh of a temporal mesh).
#pragma once

#include <cstdint>

#include "OzmCore/OzmMediaObjects.h"
#include "OzmCore/OzmTypes.h"

namespace NWelmStudioVertexVersion {
constexpr uint8_t c_UnwrappedXYZUV = 2;
constexpr uint8_t c_CompressedXYZUV = 3;
constexpr uint8_t c_GolombCodedXYZUV = 4;
constexpr uint8_t c_TransformDeltaXYZUV = 5;
constexpr uint8_t c_HuffmanCodedXYZUV = 7;
constexpr uint8_t c_Deprecated_UnwrappedVertexVersion = 19;
constexpr uint8_t c_HiResVertexVersion = 22;
constexpr uint8_t c_LegacyPackedVertexVersion = 23;
}  // namespace NWelmStudioVertexVersion

namespace NWelmStudioMeshHeaderVersion {
constexpr uint8_t c_MeshHeaderVersion_KeyFrame = 5;
constexpr uint8_t c_MeshHeaderVersion_DeltaFrame = 6;
constexpr uint8_t c_MeshHeaderVersion_Temporal = 7;
}  // namespace NWelmStudioMeshHeaderVersion

namespace NWelmStudioIndexVersion {
constexpr uint8_t c_UncompressedIndices = 1;
constexpr uint8_t c_FixedByteDeltaEncodedIndices = 2;
constexpr uint8_t c_VarIntDeltaEncodedIndices = 3;
constexpr uint8_t c_EdgeBreakerIndices = 4;
}  // namespace NWelmStudioIndexVersion

namespace NWelmStudioFormatFlags {
constexpr uint8_t c_TriangleList = 0x01;
constexpr uint8_t c_TriangleStrips = 0x02;  // only when the whole flag byte is exactly 0x02
constexpr uint8_t c_IndicesFirst = 0x04;
constexpr uint8_t c_HasSubMeshId = 0x08;
constexpr uint8_t c_HasFrameId = 0x10;
constexpr uint8_t c_HasNormals = 0x20;
constexpr uint8_t c_UnsignedUVs = 0x40;
}  // namespace NWelmStudioFormatFlags

struct CStreamingMeshHeader {
  union Version {
    uint32_t word;  // byte 0 is the least significant byte
    struct Bytes {
      uint8_t m_VertexVersion;
      uint8_t m_FormatFlags;
      uint8_t m_MeshHeaderVersion;
      uint8_t m_IndexVersion;
    } v;
  };

  Version m_Version{};
  float m_bboxMin[3] = {0, 0, 0};
  float m_bboxMax[3] = {0, 0, 0};
  uint32_t m_numVertices = 0;
  uint32_t m_numFaces = 0;
  uint32_t m_numIndices = 0;
  uint32_t m_numSubMeshes = 0;
  int32_t m_subMeshId = 0;
  uint32_t m_frameId = 0;

  // Parses the header from the stream, upgrading legacy layouts in place. The record must be zeroed
  // first: fields that a short stream does not supply keep their values. Returns the failure code
  // of a read, E_UNEXPECTED for the unsupported high-resolution format, else S_OK.
  HRESULT Read(IStream* stream);

  // True when Read upgraded a legacy layout (header versions 0 to 3).
  bool m_upgradedFromLegacy = false;
};

static_assert(sizeof(CStreamingMeshHeader::Version) == 4, "the version word is four bytes");

// Legacy version words are rewritten to their current equivalent; shared by the reader and writer so
// that both agree on which optional fields a given word implies.
struct LegacyUpgrade {
  uint32_t word;  // the version word after the upgrade
  bool upgraded;  // header versions 0 to 3: the index count is derived, not read
};
LegacyUpgrade UpgradeLegacyVersionWord(uint32_t word);
