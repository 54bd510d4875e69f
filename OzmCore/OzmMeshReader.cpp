#include "OzmCore/OzmMeshReader.h"

#include "OzmCore/StreamRead.h"
#include "platform/Log.h"

namespace Ozm {

HRESULT COzmMeshReader::Initialize(IOzmBufferAllocator* allocator, unsigned int flags) {
  if (!OZM_ASSERT_MSG(allocator != nullptr, "pBufferAllocator")) return E_POINTER;
  m_allocator = allocator;
  m_flags = flags;
  return S_OK;
}

unsigned int COzmMeshReader::VertexStride() const {
  const bool withFloat = (m_flags & NReaderFlags::c_FloatVertices) != 0;
  const bool withNormal = (m_flags & NReaderFlags::c_WithNormals) != 0;
  if (withFloat) return withNormal ? 32 : 20;
  return withNormal ? 20 : 12;
}

COzmMeshReaderCtx* COzmMeshReader::Context(int subMeshId) {
  std::shared_ptr<COzmMeshReaderCtx>& ctx = m_contexts[subMeshId];
  if (!ctx) ctx = std::make_shared<COzmMeshReaderCtx>();
  return ctx.get();
}

HRESULT COzmMeshReader::Allocate(uint32_t size, uint32_t elementSize, IOzmBuffer** out) {
  *out = nullptr;
  if (!m_allocator) {
    OZM_LOGE("COzmMeshReader: used before Initialize");
    return E_POINTER;
  }
  return m_allocator->AllocateBuffer(size, elementSize, 0, out);
}

HRESULT COzmMeshReader::AllocateVertices(uint32_t count, OZMCORE::CComPtr<IOzmBuffer>& buffer,
                                         OzmLockedMemory& locked) {
  const uint32_t stride = VertexStride();
  buffer.Release();
  HRESULT hr = Allocate(stride * count, stride, &buffer);
  if (OZM_SUCCEEDED(hr)) hr = buffer->LockBuffer(&locked);
  return hr;
}

HRESULT COzmMeshReader::ReadNormals(IStream* stream, CStreamingMeshHeader* header, IOzmBuffer* buffer) {
  if (!stream || !header || !buffer) return E_POINTER;
  if (!(header->m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_HasNormals)) return S_OK;

  OzmLockedMemory locked{};
  HRESULT hr = buffer->LockBuffer(&locked);
  if (OZM_FAILED(hr)) return hr;

  const uint32_t count = header->m_numVertices;
  if (count > c_MaxMeshElements) {
    buffer->UnlockBuffer();
    OZM_LOGE("ReadNormals: %u vertices is beyond any mesh", count);
    return E_UNEXPECTED;
  }
  const bool write = (m_flags & NReaderFlags::c_WithNormals) != 0;
  const bool floats = (m_flags & NReaderFlags::c_FloatVertices) != 0;
  const uint32_t stride = floats ? 32 : 20;
  // Without room for the normals (a buffer from another reader layout) nothing is written.
  const uint64_t capacity = locked.size / stride;

  // The block is read whole: 6 bytes a vertex. Missing bytes read as zero.
  std::vector<uint8_t> block;
  hr = ReadBlock(stream, 6ull * count, block);
  if (block.size() < 6ull * count) OZM_LOGW("ReadNormals: %zu of %u normal bytes present", block.size(), 6 * count);
  if (write) {
    for (uint32_t i = 0; i < count && i < capacity; ++i) {
      uint16_t n[3] = {0, 0, 0};
      if (6ull * i + 6 <= block.size()) std::memcpy(n, &block[6ull * i], 6);
      uint8_t* vertex = locked.pData + static_cast<size_t>(i) * stride;
      if (floats) {
        const float f[3] = {n[0] / 65535.0f * 2 - 1, n[1] / 65535.0f * 2 - 1, n[2] / 65535.0f * 2 - 1};
        std::memcpy(vertex + 12, f, 12);
      } else {
        const uint16_t words[4] = {n[0], n[1], n[2], 0};
        std::memcpy(vertex + 8, words, 8);
      }
    }
  }
  buffer->UnlockBuffer();
  return hr;
}

HRESULT COzmMeshReader::ReadTransforms(IStream* stream, CStreamingMeshHeader& header,
                                       std::vector<STransform>* transforms) {
  if (!stream || !transforms) return E_POINTER;
  HRESULT hr = S_OK;
  for (uint32_t i = 0; i < header.m_numSubMeshes; ++i) {
    uint8_t flag = 0;
    bool complete = false;
    hr = ReadValue(stream, &flag, &complete);
    if (OZM_FAILED(hr)) return hr;
    if (!complete) {
      // A corrupt sub-mesh count must not make us append identities for billions of sub-meshes.
      OZM_LOGE("ReadTransforms: the stream ends after %u of %u transforms", i, header.m_numSubMeshes);
      return E_FAIL;
    }
    STransform t{1, 0, 0, 1, 0, 0};
    if (flag == 1) {
      float v[6];
      for (float& f : v) {
        hr = ReadValue(stream, &f);
        if (OZM_FAILED(hr)) return hr;
      }
      const float a = v[0], b = v[1], c = v[2], d = v[3], tx = v[4], ty = v[5];
      // The stored mapping goes from the sub-mesh's texture space back into the frame's. Note that
      // m11 divides the already divided m00 once more; encoders rely on this exact form.
      const float det = a * d - c * b;
      t.m00 = d / det;
      t.m01 = -b / det;
      t.m10 = -c / det;
      t.m11 = t.m00 / det;
      t.tx = -(tx * t.m00) - ty * t.m10;
      t.ty = -(tx * t.m01) - ty * t.m11;
    }
    transforms->push_back(t);
  }
  return hr;
}

}  // namespace Ozm
