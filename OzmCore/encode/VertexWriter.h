// Vertex-side encoders of key frames: plain 16-bit records, the normals block, the transform block.
#pragma once

#include <cstdint>
#include <vector>

#include "OzmCore/encode/Mesh.h"

namespace OzmEncode {

// Key-frame records in the given order (an empty order means input order): 12 bytes (x, y, z, 0, u,
// v) or, with normals, 20 bytes (x, y, z, 0, normal x, y, z, 0, u, v), all 16-bit little-endian.
void WritePlainVertices(const Mesh& mesh, const Box& box, bool withNormals, const std::vector<int>& order,
                        std::vector<uint8_t>& out);

// The normals block: three unsigned 16-bit values per vertex, in the given order.
void WriteNormalsBlock(const std::vector<float>& normals, const std::vector<int>& order, std::vector<uint8_t>& out);

// A texture-coordinate transform of a sub-mesh as the encoder sees it: the sub-mesh's texture
// coordinates are (a b; c d) (u, v) + (tx, ty) of the frame's. Absent means identity.
struct TexTransform {
  bool present = false;
  float a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
};

// One flag byte per sub-mesh, followed by the six floats for a present transform.
void WriteTransformBlock(const std::vector<TexTransform>& transforms, std::vector<uint8_t>& out);

}  // namespace OzmEncode
