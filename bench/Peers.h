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

// Settings of a Draco encoding besides the defaults above.
struct DracoOptions {
  // Positions: `positionBits` over the largest extent of the mesh's box (SetAttributeQuantization).
  // With `positionRange` above zero, over a cube of that side from the box's minimum corner
  // (SetAttributeExplicitQuantization), which sets the step to range / (2^bits - 1) directly; the
  // range must cover the box.
  int positionBits = 16;
  float positionRange = 0;
  // SetSpeedOptions for encoding and decoding alike, 0 (smallest) to 10; -1 leaves Draco's default.
  int speed = -1;
};

// Encodes the mesh (positions, and texture coordinates when withUVs). Every input vertex is its own
// point, so nothing is merged. Returns false when the encoder refuses the mesh.
bool DracoEncode(const OzmEncode::Mesh& mesh, bool withUVs, std::vector<uint8_t>* out,
                 const DracoOptions& options = {});

// Encodes the positions alone (DracoEncode(mesh, false, &out, options), its size in *bytes), decodes
// them and measures the largest distance, on any axis, of a decoded position from the input.
// Edgebreaker reorders the points, so the distances come from a second encoding that also carries
// each point's input vertex as a lossless integer attribute; returns false unless both decode to the
// same positions.
bool DracoPositionError(const OzmEncode::Mesh& mesh, const DracoOptions& options, double* maxError,
                        size_t* bytes);

// The bytes Draco spends on connectivity, bounded from above: the encoding of the same triangles
// whose positions all coincide, so that the one attribute carries no information.
bool DracoConnectivityBytes(const OzmEncode::Mesh& mesh, size_t* bytes, const DracoOptions& options = {});

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

// An inter frame for meshoptimizer: the frame's positions quantised to 16 bits (or fewer) in its own
// box, 8 bytes a vertex (x, y, z, pad) in the key frame's optimised order, encoded alone. Texture
// coordinates do not change within a sequence and are not sent again.
struct MeshoptPositions {
  std::vector<uint8_t> bytes;
  OzmEncode::Box box;
  int bits = 16;        // 2^bits steps on each axis; 16 is our own grid, fewer leave the high bits zero
  double maxError = 0;  // largest distance on any axis of a dequantised position from the input
};

// bits: 1 to 16.
bool MeshoptEncodePositions(const std::vector<float>& positions, const std::vector<uint32_t>& remap,
                            MeshoptPositions* out, int bits = 16);
// Decodes the positions and writes the output vertices with the texture coordinates given per
// vertex (2 floats each, optimised order).
bool MeshoptDecodePositions(const MeshoptPositions& frame, size_t vertexCount, const std::vector<float>& uvs,
                            MeshoptScratch* scratch, std::vector<OutputVertex>* vertices);

}  // namespace OzmBench
