// Frame assembly: header dispatch, per sub-mesh contexts, temporal meshes made of sub-meshes, the
// attributes every output buffer carries, and the placeholder quad.
#include <cstring>
#include <vector>

#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/Quantization.h"
#include "platform/Log.h"

namespace Ozm {

HRESULT COzmMeshReader::ReadMesh(IStream* stream, long long timestamp, IOzmBuffer** ppVertexBuffer,
                                 IOzmBuffer** ppIndexBuffer) {
  if (!OZM_ASSERT_MSG(ppVertexBuffer != nullptr, "ppVertexBuffer")) return E_POINTER;
  if (!OZM_ASSERT_MSG(ppIndexBuffer != nullptr, "ppIndexBuffer")) return E_POINTER;
  *ppVertexBuffer = nullptr;
  *ppIndexBuffer = nullptr;
  if (!stream) return BuildSingleQuadMesh(timestamp, ppVertexBuffer, ppIndexBuffer);

  CStreamingMeshHeader header;
  HRESULT hr = header.Read(stream);
  if (OZM_FAILED(hr)) return hr;
  OZMCORE::CComPtr<IOzmBuffer> vertices, indices;
  if (header.m_Version.v.m_MeshHeaderVersion == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal) {
    hr = ReadTemporalMesh(stream, header, &vertices, &indices);
  } else {
    hr = ReadSubMesh(stream, header, &vertices, &indices);
  }
  if (OZM_FAILED(hr)) return hr;
  if (!vertices || !indices) {
    // An inter frame in a coding this reader does not know, or one without its key frame: there is
    // nothing to show, so the frame is dropped rather than handed on half made.
    OZM_LOGW("ReadMesh: frame %u has no %s, dropped", header.m_frameId, vertices ? "indices" : "vertices");
    return E_UNEXPECTED;
  }
  const bool hasNormals = (m_flags & NReaderFlags::c_WithNormals) != 0;
  hr = SetAttributes(vertices, &header, hasNormals, timestamp);
  if (OZM_SUCCEEDED(hr)) hr = SetAttributes(indices, &header, hasNormals, timestamp);
  if (OZM_FAILED(hr)) return hr;
  *ppVertexBuffer = vertices.Detach();
  *ppIndexBuffer = indices.Detach();
  return S_OK;
}

HRESULT COzmMeshReader::ReadSubMesh(IStream* stream, CStreamingMeshHeader& header, IOzmBuffer** ppVertexBuffer,
                                    IOzmBuffer** ppIndexBuffer) {
  COzmMeshReaderCtx* ctx = Context(header.m_subMeshId);
  ctx->m_usedInFrame = true;
  OZMCORE::CComPtr<IOzmBuffer> vertices, indices;
  HRESULT hr = S_OK;
  if (header.m_Version.v.m_MeshHeaderVersion != NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_DeltaFrame) {
    ctx->m_numIndices = header.m_numIndices;
    ctx->m_numVertices = header.m_numVertices;
    ctx->m_numFaces = header.m_numFaces;
    OZM_ASSERT(header.m_Version.v.m_VertexVersion == NWelmStudioVertexVersion::c_UnwrappedXYZUV);
    if (header.m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_IndicesFirst) {
      hr = ReadIndices(ctx, stream, &header, &indices);
      if (OZM_SUCCEEDED(hr)) hr = ReadVertices(ctx, stream, &header, &vertices);
    } else {
      hr = ReadVertices(ctx, stream, &header, &vertices);
      if (OZM_SUCCEEDED(hr)) hr = ReadIndices(ctx, stream, &header, &indices);
    }
  } else {
    header.m_numFaces = ctx->m_numFaces;
    header.m_numIndices = ctx->m_numIndices;
    header.m_numVertices = ctx->m_numVertices;
    switch (header.m_Version.v.m_VertexVersion) {
      case NWelmStudioVertexVersion::c_UnwrappedXYZUV: hr = ReadVertices(ctx, stream, &header, &vertices); break;
      case NWelmStudioVertexVersion::c_CompressedXYZUV: hr = ReadCompressedVertices(ctx, stream, &header, &vertices); break;
      case NWelmStudioVertexVersion::c_GolombCodedXYZUV: hr = ReadGolombCodedVertices(ctx, stream, &header, &vertices); break;
      case NWelmStudioVertexVersion::c_TransformDeltaXYZUV: hr = ReadTransformDeltaVertices(ctx, stream, &header, &vertices); break;
      case NWelmStudioVertexVersion::c_HuffmanCodedXYZUV: hr = ReadHuffmanCodedVertices(ctx, stream, &header, &vertices); break;
      default: OZM_ASSERT_MSG(false, "!\"Unsupported vertex format\""); break;
    }
    indices = ctx->m_indexBuffer.Get();
  }
  if (OZM_FAILED(hr)) return hr;
  *ppVertexBuffer = vertices.Detach();
  *ppIndexBuffer = indices.Detach();
  return S_OK;
}

HRESULT COzmMeshReader::ReadTemporalMesh(IStream* stream, CStreamingMeshHeader& header, IOzmBuffer** ppVertexBuffer,
                                         IOzmBuffer** ppIndexBuffer) {
  std::vector<STransform> transforms;
  HRESULT hr = ReadTransforms(stream, header, &transforms);
  if (OZM_FAILED(hr)) return hr;

  // The sub-meshes are decoded first and merged once all are known, so that the frame's buffers are
  // only allocated for counts that the sub-meshes really fill.
  struct SubMesh {
    CStreamingMeshHeader header;
    OZMCORE::CComPtr<IOzmBuffer> vertices, indices;
  };
  std::vector<SubMesh> subs;
  uint64_t vertexSum = 0, indexSum = 0;
  for (uint32_t i = 0; i < header.m_numSubMeshes && OZM_SUCCEEDED(hr); ++i) {
    SubMesh sub;
    hr = sub.header.Read(stream);
    if (OZM_FAILED(hr)) break;
    hr = ReadSubMesh(stream, sub.header, &sub.vertices, &sub.indices);
    if (OZM_FAILED(hr)) break;
    vertexSum += sub.header.m_numVertices;
    indexSum += sub.header.m_numIndices;
    subs.push_back(std::move(sub));
  }

  // A sub-mesh missing from this frame loses its state; the marks start afresh for the next one.
  for (auto it = m_contexts.begin(); it != m_contexts.end();) {
    if (!it->second->m_usedInFrame) {
      it = m_contexts.erase(it);
    } else {
      it->second->m_usedInFrame = false;
      ++it;
    }
  }
  if (OZM_FAILED(hr)) return hr;
  if (header.m_numVertices > vertexSum || header.m_numIndices > indexSum) {
    OZM_LOGE("ReadTemporalMesh: the frame claims %u vertices / %u indices, its sub-meshes hold %llu / %llu",
             header.m_numVertices, header.m_numIndices, static_cast<unsigned long long>(vertexSum),
             static_cast<unsigned long long>(indexSum));
    return E_UNEXPECTED;
  }

  const uint32_t stride = VertexStride();
  OZMCORE::CComPtr<IOzmBuffer> indices, vertices;
  hr = Allocate(header.m_numIndices * 4, 4, &indices);
  if (OZM_SUCCEEDED(hr)) hr = Allocate(header.m_numVertices * stride, stride, &vertices);
  if (OZM_FAILED(hr)) return hr;
  OzmLockedMemory ib{}, vb{};
  indices->LockBuffer(&ib);
  vertices->LockBuffer(&vb);
  std::memset(ib.pData, 0, ib.size);
  std::memset(vb.pData, 0, vb.size);
  uint32_t vertexCount = 0, indexCount = 0;
  for (size_t i = 0; i < subs.size() && OZM_SUCCEEDED(hr); ++i) {
    hr = MergeSubmesh(header, subs[i].header, transforms[i], subs[i].vertices, subs[i].indices, vb.pData,
                      LockedWords(ib.pData), vertexCount, indexCount);
  }
  indices->UnlockBuffer();
  vertices->UnlockBuffer();
  if (OZM_FAILED(hr)) return hr;
  *ppVertexBuffer = vertices.Detach();
  *ppIndexBuffer = indices.Detach();
  return S_OK;
}

HRESULT COzmMeshReader::MergeSubmesh(const CStreamingMeshHeader& frame, const CStreamingMeshHeader& sub,
                                     const STransform& t, IOzmBuffer* subVertices, IOzmBuffer* subIndices,
                                     uint8_t* frameVertices, uint32_t* frameIndices, uint32_t& vertexCount,
                                     uint32_t& indexCount) {
  if (!subVertices || !subIndices) {
    OZM_LOGE("MergeSubmesh: sub-mesh %d has no %s", sub.m_subMeshId, subVertices ? "indices" : "vertices");
    return E_UNEXPECTED;
  }
  const uint32_t stride = VertexStride();
  OzmLockedMemory sv{}, si{};
  subVertices->LockBuffer(&sv);
  subIndices->LockBuffer(&si);
  const uint32_t numVertices = std::min(sub.m_numVertices, sv.size / stride);
  const uint32_t numIndices = std::min(sub.m_numIndices, si.size / 4);
  HRESULT hr = S_OK;
  if (!OZM_ASSERT_MSG(indexCount + static_cast<uint64_t>(numIndices) <= frame.m_numIndices,
                      "numIndices <= header.m_numIndices") ||
      !OZM_ASSERT_MSG(vertexCount + static_cast<uint64_t>(numVertices) <= frame.m_numVertices,
                      "numVertices <= header.m_numVertices")) {
    hr = E_UNEXPECTED;
  } else {
    const uint32_t* in = LockedWords(si.pData);
    uint32_t* out = frameIndices + indexCount;
    for (uint32_t k = 0; k < numIndices; ++k) out[k] = in[k] + vertexCount;

    // Texture coordinates are mapped with V flipped on both sides.
    auto mapUV = [&t](float u, float v, float* mu, float* mv) {
      *mu = t.tx + u * t.m00 + (1.0f - v) * t.m10;
      *mv = 1.0f - (t.ty + u * t.m01 + (1.0f - v) * t.m11);
    };
    const bool floats = (m_flags & NReaderFlags::c_FloatVertices) != 0;
    uint8_t* dst = frameVertices + static_cast<size_t>(vertexCount) * stride;
    std::memcpy(dst, sv.pData, static_cast<size_t>(numVertices) * stride);
    for (uint32_t k = 0; k < numVertices; ++k) {
      uint8_t* v = dst + static_cast<size_t>(k) * stride;
      if (floats) {
        float uv[2];
        std::memcpy(uv, v + stride - 8, 8);
        mapUV(uv[0], uv[1], &uv[0], &uv[1]);
        std::memcpy(v + stride - 8, uv, 8);
      } else {
        int16_t q[3], s[2];
        std::memcpy(q, v, 6);
        std::memcpy(s, v + stride - 4, 4);
        for (int a = 0; a < 3; ++a) {
          const float p = DequantizePosition(q[a], sub.m_bboxMin[a], sub.m_bboxMax[a]);
          q[a] = RequantizePosition(p, frame.m_bboxMin[a], frame.m_bboxMax[a]);
        }
        float u, w;
        mapUV(DequantizeTexCoord(s[0]), DequantizeTexCoord(s[1]), &u, &w);
        s[0] = static_cast<int16_t>(TruncToInt32(u * 65535.0 - 32768.0));
        s[1] = static_cast<int16_t>(TruncToInt32(w * 65535.0 - 32768.0));
        std::memcpy(v, q, 6);
        std::memcpy(v + stride - 4, s, 4);
      }
    }
    vertexCount += numVertices;
    indexCount += numIndices;
  }
  subVertices->UnlockBuffer();
  subIndices->UnlockBuffer();
  return hr;
}

HRESULT COzmMeshReader::SetAttributes(IOzmBuffer* pBuffer, CStreamingMeshHeader* pHeader, bool hasNormals,
                                      long long timestamp) {
  if (!OZM_ASSERT_MSG(pBuffer != nullptr, "pBuffer") || !OZM_ASSERT_MSG(pHeader != nullptr, "pHeader")) {
    return E_POINTER;
  }
  IOzmAttributesCore* a = nullptr;
  HRESULT hr = pBuffer->QueryInterface(IID_IOzmAttributesCore, reinterpret_cast<void**>(&a));
  if (OZM_FAILED(hr)) return hr;
  OZMCORE::CComPtr<IOzmAttributesCore> attributes;
  attributes.Attach(a);
  const CStreamingMeshHeader& h = *pHeader;
  const uint8_t flags = h.m_Version.v.m_FormatFlags;
  const long long frameId = h.m_frameId != 0 ? h.m_frameId : (timestamp * 30 + 30) / 10000000 + 1;

  struct U32 {
    const _GUID* key;
    uint32_t value;
  };
  const std::pair<const _GUID*, double> doubles[] = {
      {&OzmAttrib_BBoxMinX, h.m_bboxMin[0]}, {&OzmAttrib_BBoxMinY, h.m_bboxMin[1]}, {&OzmAttrib_BBoxMinZ, h.m_bboxMin[2]},
      {&OzmAttrib_BBoxMaxX, h.m_bboxMax[0]}, {&OzmAttrib_BBoxMaxY, h.m_bboxMax[1]}, {&OzmAttrib_BBoxMaxZ, h.m_bboxMax[2]},
  };
  for (const auto& d : doubles) {
    hr = attributes->SetDouble(*d.first, d.second);
    if (OZM_FAILED(hr)) return hr;
  }
  const U32 words[] = {
      {&OzmAttrib_UseTriList, static_cast<uint32_t>(flags & NWelmStudioFormatFlags::c_TriangleList)},
      {&OzmAttrib_NumFaces, h.m_numFaces},
      {&OzmAttrib_NumIndices, h.m_numIndices},
      {&OzmAttrib_NumVertices, h.m_numVertices},
      {&OzmAttrib_VertHasNormals, hasNormals ? 1u : 0u},
      {&OzmAttrib_UseUnsignedUVs, (flags & NWelmStudioFormatFlags::c_UnsignedUVs) ? 1u : 0u},
      {&OzmAttrib_FrameId, static_cast<uint32_t>(frameId)},
  };
  for (const U32& w : words) {
    hr = attributes->SetUINT32(*w.key, w.value);
    if (OZM_FAILED(hr)) return hr;
  }
  hr = attributes->SetUINT64(OzmAttrib_FrameTimestamp, static_cast<unsigned long long>(timestamp));
  if (OZM_SUCCEEDED(hr)) hr = attributes->SetUINT32(OzmAttrib_VertexFormatFlags, h.m_Version.word);
  if (OZM_SUCCEEDED(hr)) {
    hr = attributes->SetUINT32(OzmAttrib_IsKeyFrame,
                               h.m_Version.v.m_VertexVersion == NWelmStudioVertexVersion::c_UnwrappedXYZUV ? 1 : 0);
  }
  return hr;
}

HRESULT COzmMeshReader::BuildSingleQuadMesh(long long timestamp, IOzmBuffer** ppVertexBuffer,
                                            IOzmBuffer** ppIndexBuffer) {
  static const uint32_t kIndices[12] = {0, 1, 3, 3, 1, 2, 0, 3, 1, 3, 2, 1};
  // The unit square's corners in the quad's box (-1..1), with texture coordinates on the corners.
  static const int16_t kCorners[4][5] = {{-32768, -32768, 0, -32768, -32768},
                                         {32767, -32768, 0, 32767, -32768},
                                         {32767, 32767, 0, 32767, 32767},
                                         {-32768, 32767, 0, -32768, 32767}};
  CStreamingMeshHeader header;
  for (int a = 0; a < 3; ++a) {
    header.m_bboxMin[a] = -1.0f;
    header.m_bboxMax[a] = 1.0f;
  }
  header.m_numVertices = 4;
  header.m_numFaces = 4;
  header.m_numIndices = 12;
  header.m_frameId = 1;

  const uint32_t stride = VertexStride();
  OZMCORE::CComPtr<IOzmBuffer> indices, vertices;
  HRESULT hr = Allocate(sizeof(kIndices), 4, &indices);
  if (OZM_SUCCEEDED(hr)) hr = Allocate(4 * stride, stride, &vertices);
  if (OZM_FAILED(hr)) return hr;
  OzmLockedMemory ib{}, vb{};
  indices->LockBuffer(&ib);
  std::memcpy(ib.pData, kIndices, sizeof(kIndices));
  indices->UnlockBuffer();
  vertices->LockBuffer(&vb);
  std::memset(vb.pData, 0, vb.size);
  const bool floats = (m_flags & NReaderFlags::c_FloatVertices) != 0;
  for (int k = 0; k < 4; ++k) {
    const int16_t* c = kCorners[k];
    uint8_t* v = vb.pData + k * stride;
    if (floats) {
      const float p[3] = {DequantizePosition(c[0], -1, 1), DequantizePosition(c[1], -1, 1), 0.0f};
      const float uv[2] = {DequantizeTexCoord(c[3]), DequantizeTexCoord(c[4])};
      std::memcpy(v, p, 12);
      std::memcpy(v + stride - 8, uv, 8);
    } else {
      std::memcpy(v, c, 6);
      std::memcpy(v + stride - 4, c + 3, 4);
    }
  }
  vertices->UnlockBuffer();

  hr = SetAttributes(vertices, &header, false, timestamp);
  if (OZM_SUCCEEDED(hr)) hr = SetAttributes(indices, &header, false, timestamp);
  if (OZM_FAILED(hr)) return hr;
  *ppVertexBuffer = vertices.Detach();
  *ppIndexBuffer = indices.Detach();
  return S_OK;
}

}  // namespace Ozm
