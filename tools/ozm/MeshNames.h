// Names of the mesh header's codings, for printed reports.
#pragma once

#include <cstdint>

#include "OzmCore/StreamingMeshHeader.h"

namespace OzmTool {

inline const char* VertexVersionName(uint8_t v) {
  switch (v) {
    case NWelmStudioVertexVersion::c_UnwrappedXYZUV: return "plain";
    case NWelmStudioVertexVersion::c_CompressedXYZUV: return "byte delta";
    case NWelmStudioVertexVersion::c_GolombCodedXYZUV: return "Golomb";
    case NWelmStudioVertexVersion::c_TransformDeltaXYZUV: return "transform delta";
    case NWelmStudioVertexVersion::c_HuffmanCodedXYZUV: return "Huffman";
    default: return "unknown";
  }
}

inline const char* HeaderVersionName(uint8_t v) {
  switch (v) {
    case NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame: return "key frame";
    case NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_DeltaFrame: return "delta frame";
    case NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal: return "temporal mesh";
    default: return "legacy";
  }
}

inline const char* IndexVersionName(uint8_t v) {
  switch (v) {
    case NWelmStudioIndexVersion::c_UncompressedIndices: return "uncompressed";
    case NWelmStudioIndexVersion::c_FixedByteDeltaEncodedIndices: return "fixed-byte delta";
    case NWelmStudioIndexVersion::c_VarIntDeltaEncodedIndices: return "varint delta";
    case NWelmStudioIndexVersion::c_EdgeBreakerIndices: return "EdgeBreaker";
    default: return "unknown";
  }
}

}  // namespace OzmTool
