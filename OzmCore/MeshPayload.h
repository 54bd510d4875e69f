// The mesh payload inside a video access unit, and the check of streaming addresses.
#pragma once

#include <cstddef>
#include <cstdint>

#include "OzmCore/OzmMediaObjects.h"

namespace OzmCrossPlatform {

// Layout of the mesh NAL unit, counted from the first byte of its three-byte start code.
namespace MeshNal {
constexpr uint8_t kHeaderByteType21 = 0x15;
constexpr uint8_t kHeaderByteType24 = 0x18;
constexpr size_t kTagOffset = 4;         // "WELM"
constexpr size_t kSizeLowOffset = 12;    // bits 0..15 at 12, 13
constexpr size_t kSeparatorOffset = 14;  // keeps the size bytes from forming a start code
constexpr size_t kSizeHighOffset = 15;   // bits 16..31 at 15, 16
constexpr size_t kPayloadOffset = 26;
constexpr size_t kIgnoredPrefixBytes = 8;  // unescaped payload bytes in front of the mesh header
}  // namespace MeshNal

// Finds the first mesh NAL unit in an access unit (Annex B, start codes included), removes the
// emulation prevention from its payload and returns a stream over the mesh bitstream, positioned
// after the 8-byte prefix. The stream's reference count is 0: the caller takes the first reference.
// Returns null when the access unit holds no complete mesh unit.
Stream* FindCompressedMesh(const unsigned char* data, unsigned int size);

// True when the URL contains one of the accepted streaming base addresses.
bool IsValidStreamingURL(const char* url);

#ifdef OZM_TEST_HOOKS
// Host builds only: also accept http(s) servers on the loopback interface and playlists given as
// absolute local paths, for tests and the host harness. Shipped plug-ins are built without this
// switch.
void AllowLoopbackStreamingURLs(bool allow);
#endif

}  // namespace OzmCrossPlatform
