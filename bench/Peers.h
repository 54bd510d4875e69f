// The general mesh codecs we compare against, driven the way their documentation recommends, with
// outputs converted into the same 32-byte vertices and 32-bit indices our reader produces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "OzmCore/encode/Mesh.h"
#include "bench/BenchData.h"

namespace OzmBench {

// --- Draco: edgebreaker, 16-bit positions and texture coordinates, default speed settings. -------

// Encodes the mesh (positions, and texture coordinates when withUVs). Every input vertex is its own
// point, so nothing is merged. Returns false when the encoder refuses the mesh.
bool DracoEncode(const OzmEncode::Mesh& mesh, bool withUVs, std::vector<uint8_t>* out);

// The bytes Draco spends on connectivity, bounded from above: the encoding of the same triangles
// whose positions all coincide, so that the one attribute carries no information.
bool DracoConnectivityBytes(const OzmEncode::Mesh& mesh, size_t* bytes);

// Decodes a mesh made by DracoEncode into output vertices (normal zero) and indices. The vectors
// are resized to fit and may be reused between calls.
bool DracoDecode(const std::vector<uint8_t>& bytes, std::vector<OutputVertex>* vertices,
                 std::vector<uint32_t>* indices);

// --- meshoptimizer: index codec and vertex codec on 16-bit quantised vertices. --------------------

// A quantised vertex as both sides store it: x, y, z in the mesh's box, a pad, u, v.
struct QuantizedVertex {
  int16_t x, y, z, pad;
  int16_t u, v;
};
static_assert(sizeof(QuantizedVertex) == 12, "quantised vertices are 12 bytes");

// A key frame for meshoptimizer: the vertex order optimised for the vertex cache and for vertex
// fetch, then both buffers encoded.
struct MeshoptKeyFrame {
  std::vector<uint8_t> indexBytes, vertexBytes;
  size_t indexCount = 0, vertexCount = 0;
  OzmEncode::Box box;
  // remap[input vertex] = vertex in the optimised order (the order of the encoded vertex buffer).
  std::vector<uint32_t> remap;
  // The optimised index buffer, for the inter frames that reuse this order.
  std::vector<uint32_t> indices;
};

bool MeshoptEncodeKeyFrame(const OzmEncode::Mesh& mesh, MeshoptKeyFrame* out);

// Work buffers of a decode, kept between calls so that no allocation is timed on this side.
struct MeshoptScratch {
  std::vector<QuantizedVertex> records;
  std::vector<int16_t> positions;  // 4 per vertex, for inter frames
};

bool MeshoptDecodeIndices(const MeshoptKeyFrame& frame, std::vector<uint32_t>* indices);
bool MeshoptDecodeKeyFrame(const MeshoptKeyFrame& frame, MeshoptScratch* scratch, std::vector<OutputVertex>* vertices,
                           std::vector<uint32_t>* indices);

// An inter frame for meshoptimizer: the frame's positions quantised to 16 bits in its own box,
// 8 bytes a vertex (x, y, z, pad) in the key frame's optimised order, encoded alone. Texture
// coordinates do not change within a sequence and are not sent again.
struct MeshoptPositions {
  std::vector<uint8_t> bytes;
  OzmEncode::Box box;
  double maxError = 0;  // largest distance on any axis of a dequantised position from the input
};

bool MeshoptEncodePositions(const std::vector<float>& positions, const std::vector<uint32_t>& remap,
                            MeshoptPositions* out);
// Decodes the positions and writes the output vertices with the texture coordinates given per
// vertex (2 floats each, optimised order).
bool MeshoptDecodePositions(const MeshoptPositions& frame, size_t vertexCount, const std::vector<float>& uvs,
                            MeshoptScratch* scratch, std::vector<OutputVertex>* vertices);

}  // namespace OzmBench
