// Index block encoders for key frames, one per index coding.
#pragma once

#include <cstdint>
#include <vector>

#include "OzmCore/EdgeBreaker.h"

namespace OzmEncode {

// Coding 1: the indices as they are.
void WriteUncompressedIndices(const std::vector<uint32_t>& indices, std::vector<uint8_t>& out);

// Coding 2: per face a control byte and three little-endian deltas against the previous face, each
// in the fewest bytes (1 to 4) that hold it; the block is preceded by its 8-byte size.
void WriteFixedByteDeltaIndices(const std::vector<WelmMeshFace>& faces, std::vector<uint8_t>& out);

// Coding 3: per face three zig-zag varint deltas against the previous face; preceded by the size.
void WriteVarIntDeltaIndices(const std::vector<WelmMeshFace>& faces, std::vector<uint8_t>& out);

// Coding 4: EdgeBreaker connectivity, preceded by its 4-byte size. vertexOrder receives, for each
// decoded vertex, the input vertex it stands for; the vertex block must follow that order. Returns
// false when the faces cannot be encoded.
bool WriteEdgeBreakerIndices(const std::vector<WelmMeshFace>& faces, std::vector<uint8_t>& out,
                             std::vector<int>* vertexOrder);

// Triangle strips with coding 2: 8-byte size, a 4-byte word (the index count), then per index a
// length byte and that many big-endian bytes of the delta to the previous index.
void WriteStripDeltaIndices(const std::vector<uint32_t>& indices, std::vector<uint8_t>& out);

}  // namespace OzmEncode
