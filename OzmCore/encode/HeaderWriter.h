// Writes a CStreamingMeshHeader in its wire layout.
#pragma once

#include <cstdint>
#include <vector>

#include "OzmCore/StreamingMeshHeader.h"

namespace OzmEncode {

// Appends the header. The fields written follow from the version word exactly as the reader
// interprets it, legacy words included (after their upgrade): the optional ids by flag, the
// sub-mesh count for temporal meshes, and the counts for key frames and temporal meshes, without
// the index count for upgraded legacy layouts.
void WriteStreamingMeshHeader(const CStreamingMeshHeader& header, std::vector<uint8_t>& out);

// The byte size WriteStreamingMeshHeader produces for this version word.
size_t StreamingMeshHeaderSize(uint32_t versionWord);

}  // namespace OzmEncode
