// Encodes a whole key frame: header, index block and vertex block.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "OzmCore/StreamingMeshHeader.h"
#include "OzmCore/encode/Mesh.h"

namespace OzmEncode {

struct KeyFrameOptions {
  uint8_t indexVersion = NWelmStudioIndexVersion::c_EdgeBreakerIndices;
  bool indicesFirst = false;     // index block before the vertex block
  bool normalsInRecords = false; // 20-byte vertex records carrying the normal
  bool unsignedUVs = false;      // only flags the texture coordinates as unsigned
  std::optional<int32_t> subMeshId;
  std::optional<uint32_t> frameId;
  std::optional<Box> box;        // quantisation box; the mesh's bounds when absent
  // Triangle strips instead of a triangle list: the index sequence of the strips, with index
  // coding 1 or 2. The header's flag byte is then exactly 0x02 (no other option applies).
  const std::vector<uint32_t>* strip = nullptr;
};

struct EncodedKeyFrame {
  CStreamingMeshHeader header;
  std::vector<uint8_t> bytes;
  // Decoded vertex k is input vertex vertexOrder[k] (EdgeBreaker renumbers and may split vertices);
  // the identity for the other codings.
  std::vector<int> vertexOrder;
};

// Returns false when the mesh cannot be coded with these options (bad index coding for strips,
// indices beyond the vertices, more elements than a frame may hold).
bool EncodeKeyFrame(const Mesh& mesh, const KeyFrameOptions& options, EncodedKeyFrame* out);

}  // namespace OzmEncode
