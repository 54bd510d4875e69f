// An uncompressed mesh as the encoders take it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "OzmCore/EdgeBreaker.h"

namespace OzmEncode {

struct Mesh {
  std::vector<float> positions;  // x, y, z per vertex
  std::vector<float> uvs;        // u, v per vertex, in [0, 1]
  std::vector<float> normals;    // x, y, z per vertex, unit length; may be empty
  std::vector<WelmMeshFace> faces;

  size_t VertexCount() const { return positions.size() / 3; }
};

struct Box {
  float min[3] = {0, 0, 0};
  float max[3] = {0, 0, 0};
};

// The axis-aligned bounds of the positions (all zero for an empty mesh).
Box BoundsOf(const std::vector<float>& positions);

// 16-bit quantisation matching the decoders' dequantisation, rounded to the nearest step.
int16_t QuantizePosition(float p, float min, float max);
int16_t QuantizeTexCoord(float s);
uint16_t QuantizeNormal(float n);

}  // namespace OzmEncode
