// Whole key-frame payloads: header, index block, vertex block and normals block, decoded into every
// output vertex format by the same reader calls the player makes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "OzmCore/CComPtr.h"
#include "OzmCore/OzmMeshReader.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  if (size < 1) return 0;
  // The first byte picks the reader's output format; the rest is the mesh payload.
  const unsigned flags = (data[0] & 1 ? 0x02u : 0u) | (data[0] & 2 ? 0x08u : 0u);
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
      OzmCrossPlatform::Stream::CopyOf(data + 1, static_cast<uint32_t>(size - 1)));

  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  Ozm::COzmMeshReader reader;
  reader.Initialize(allocator, flags);
  CStreamingMeshHeader header;
  if (OZM_FAILED(header.Read(stream))) return 0;
  Ozm::COzmMeshReaderCtx* ctx = reader.Context(header.m_subMeshId);
  OZMCORE::CComPtr<IOzmBuffer> vertices, indices;
  HRESULT hr;
  if (header.m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_IndicesFirst) {
    hr = reader.ReadIndices(ctx, stream, &header, &indices);
    if (OZM_SUCCEEDED(hr)) hr = reader.ReadVertices(ctx, stream, &header, &vertices);
  } else {
    hr = reader.ReadVertices(ctx, stream, &header, &vertices);
    if (OZM_SUCCEEDED(hr)) hr = reader.ReadIndices(ctx, stream, &header, &indices);
  }
  if (OZM_SUCCEEDED(hr) && vertices) reader.ReadNormals(stream, &header, vertices);

  // What the reader hands out is consistent: every index names a vertex.
  if (OZM_SUCCEEDED(hr) && indices && vertices) {
    OzmLockedMemory ib{}, vb{};
    indices->LockBuffer(&ib);
    vertices->LockBuffer(&vb);
    const uint32_t count = vb.size / reader.VertexStride();
    for (uint32_t i = 0; i < ib.size / 4; ++i) {
      uint32_t index;
      std::memcpy(&index, ib.pData + 4 * i, 4);
      FUZZ_CHECK(index < count);
    }
  }
  return 0;
}
