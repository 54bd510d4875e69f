// A sequence of mesh payloads fed to one reader, as the mesh thread does: key frames, inter frames
// of every coding and temporal meshes, whose state carries from one payload to the next. Input: one
// byte of reader flags, then payloads each preceded by its 16-bit little-endian length.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshFrame.h"
#include "OzmCore/OzmMeshReader.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  if (size < 1) return 0;
  const unsigned flags = (data[0] & 1 ? 0x02u : 0u) | (data[0] & 2 ? 0x08u : 0u) | 0x05u;
  const bool computeNormals = (data[0] & 4) != 0;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  Ozm::COzmMeshReader reader;
  reader.Initialize(allocator, flags);
  size_t at = 1;
  long long timestamp = 0;
  while (at + 2 <= size) {
    const size_t length = std::min<size_t>(data[at] | data[at + 1] << 8, size - at - 2);
    at += 2;
    OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
        OzmCrossPlatform::Stream::CopyOf(data + at, static_cast<uint32_t>(length)));
    at += length;
    if (!stream) continue;
    stream->SetTimestamp(timestamp);
    timestamp += 33333333;
    // Every frame the reader accepts must copy into engine memory without reading out of bounds.
    std::shared_ptr<Ozm::MeshFrame> frame = Ozm::DecodeMeshFrame(reader, stream);
    if (!frame) continue;
    const uint32_t vertices = std::min(frame->NumVertices(), 4096u), indices = std::min(frame->NumIndices(), 12288u);
    std::unique_ptr<Ozm::EngineVertex[]> vb(new Ozm::EngineVertex[vertices + 1]);
    std::unique_ptr<uint32_t[]> ib(new uint32_t[indices + 1]);
    frame->CopyToNativeBuffers(vb.get(), ib.get(), indices, vertices, computeNormals, true);
  }
  return 0;
}
