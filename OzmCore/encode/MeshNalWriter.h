// Wraps a mesh bitstream into the NAL unit that travels inside each video access unit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace OzmEncode {

// Escapes a payload for the mesh unit. The result unescapes (by the reader's rule: 00 00 03 xx with
// xx <= 3 stands for 00 00 xx, the xx being consumed with the 03) to exactly the input, and never
// contains 00 00 01 or 00 00 02, so no start code can appear inside the unit.
std::vector<uint8_t> EscapeMeshPayload(const uint8_t* data, size_t size);

// The inverse of EscapeMeshPayload, by the reader's rule. For tests and tools.
std::vector<uint8_t> UnescapeMeshPayload(const uint8_t* data, size_t size);

// Appends a complete mesh NAL unit: start code 00 00 01, the header byte (0x18 for type 24, or 0x15),
// "WELM", the payload size around its separator, and the escaped payload, which is an 8-byte prefix
// followed by the mesh bitstream. Bytes that the reader does not interpret are 0xFF, so they can
// never complete a start code; for the same reason a payload that would end in a zero byte is
// followed by one 0xFF outside its counted size. Returns false (appending nothing) when the escaped
// payload would not fit the 31-bit size field.
bool AppendMeshNalUnit(const uint8_t* mesh, size_t size, std::vector<uint8_t>& out, uint8_t nalHeaderByte = 0x18);

}  // namespace OzmEncode
