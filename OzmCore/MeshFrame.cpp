#include "OzmCore/MeshFrame.h"

#include <cmath>
#include <cstring>

#include "OzmCore/OzmAttributes.h"
#include "platform/Log.h"

namespace Ozm {
namespace {

class NativeTarget final : public IMeshCopyTarget {
 public:
  NativeTarget(void* vertices, void* indices) : m_vertices(vertices), m_indices(static_cast<uint32_t*>(indices)) {}
  void WriteIndices(const uint32_t* indices, uint32_t first, uint32_t count) override {
    if (m_indices && count) std::memcpy(m_indices + first, indices, static_cast<size_t>(count) * 4);
  }
  void* BeginVertices(uint32_t) override { return m_vertices; }
  void EndVertices() override {}

 private:
  void* m_vertices;
  uint32_t* m_indices;
};

// Decoded layout when normals are computed at copy time: position and texture coordinates.
struct PlainVertex {
  float x, y, z, u, v;
};

}  // namespace

MeshFrame::MeshFrame(const OZMCORE::CComPtr<IOzmBuffer>& vertexBuffer, const OZMCORE::CComPtr<IOzmBuffer>& indexBuffer,
                     long long timestamp)
    : m_vertexBuffer(vertexBuffer), m_indexBuffer(indexBuffer), m_timestamp(timestamp) {
  if (!m_vertexBuffer) return;
  IOzmAttributesCore* a = nullptr;
  if (OZM_FAILED(m_vertexBuffer->QueryInterface(IID_IOzmAttributesCore, reinterpret_cast<void**>(&a))) || !a) return;
  OZMCORE::CComPtr<IOzmAttributesCore> attributes;
  attributes.Attach(a);
  // Missing attributes leave zeros.
  attributes->GetDouble(OzmAttrib_BBoxMinX, &m_bboxMin[0]);
  attributes->GetDouble(OzmAttrib_BBoxMaxX, &m_bboxMax[0]);
  attributes->GetDouble(OzmAttrib_BBoxMinY, &m_bboxMin[1]);
  attributes->GetDouble(OzmAttrib_BBoxMaxY, &m_bboxMax[1]);
  attributes->GetDouble(OzmAttrib_BBoxMinZ, &m_bboxMin[2]);
  attributes->GetDouble(OzmAttrib_BBoxMaxZ, &m_bboxMax[2]);
  attributes->GetUINT32(OzmAttrib_NumIndices, &m_numIndices);
  attributes->GetUINT32(OzmAttrib_NumVertices, &m_numVertices);
  attributes->GetUINT32(OzmAttrib_FrameId, &m_frameId);
  attributes->GetUINT32(OzmAttrib_IsKeyFrame, &m_isKeyFrame);
}

void MeshFrame::CopyToNativeBuffers(void* vertexMemory, void* indexMemory, unsigned int indexCapacity,
                                    unsigned int vertexCapacity, bool computeNormals, bool updateIndices) {
  NativeTarget target(vertexMemory, indexMemory);
  CopyTo(target, indexCapacity, vertexCapacity, computeNormals, updateIndices);
}

void MeshFrame::CopyTo(IMeshCopyTarget& target, unsigned int indexCapacity, unsigned int vertexCapacity,
                       bool computeNormals, bool updateIndices) {
  OzmLockedMemory ib{}, vb{};
  const bool haveIndices = m_indexBuffer && OZM_SUCCEEDED(m_indexBuffer->LockBuffer(&ib));
  // Counts never reach past what the buffers hold, whatever the attributes say.
  const uint32_t numIndices = haveIndices ? std::min(m_numIndices, ib.size / 4) : 0;
  const uint32_t* indices = haveIndices ? LockedWords(ib.pData) : nullptr;

  if (haveIndices && updateIndices) {
    const uint32_t n = std::min(numIndices, indexCapacity);
    if (indexCapacity != 0) target.WriteIndices(indices, 0, n);
    if (n < indexCapacity) {
      // The rest of the engine's index buffer becomes degenerate triangles.
      if (m_zeros.size() < indexCapacity - n) m_zeros.resize(indexCapacity - n, 0);
      target.WriteIndices(m_zeros.data(), n, indexCapacity - n);
    }
  }

  if (m_vertexBuffer && OZM_SUCCEEDED(m_vertexBuffer->LockBuffer(&vb))) {
    const uint32_t sourceStride = computeNormals ? sizeof(PlainVertex) : sizeof(EngineVertex);
    const uint32_t numVertices = std::min(m_numVertices, vb.size / sourceStride);
    const uint32_t v = std::min(numVertices, vertexCapacity);
    if (!computeNormals) {
      if (v != 0) {
        void* dst = target.BeginVertices(v * 32);
        if (dst) {
          std::memcpy(dst, vb.pData, static_cast<size_t>(v) * 32);
          target.EndVertices();
        }
      }
    } else {
      std::vector<EngineVertex> out(numVertices);
      for (uint32_t i = 0; i < numVertices; ++i) {
        PlainVertex p;
        std::memcpy(&p, vb.pData + static_cast<size_t>(i) * sizeof(PlainVertex), sizeof(p));
        out[i] = {p.x, p.y, p.z, 0.0f, 0.0f, 0.0f, p.u, p.v};
      }
      // Area-weighted face normals summed per vertex.
      for (uint32_t t = 0; t + 3 <= numIndices; t += 3) {
        const uint32_t a = indices[t], b = indices[t + 1], c = indices[t + 2];
        if (a >= numVertices || b >= numVertices || c >= numVertices) {
          OZM_LOGW("Out of bounds in normal calculation at %i: %i %i limit %i", static_cast<int>(a),
                   static_cast<int>(b), static_cast<int>(c), static_cast<int>(numVertices));
          continue;
        }
        EngineVertex& A = out[a];
        EngineVertex& B = out[b];
        EngineVertex& C = out[c];
        const float e1[3] = {B.x - A.x, B.y - A.y, B.z - A.z};
        const float e2[3] = {C.x - A.x, C.y - A.y, C.z - A.z};
        const float n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
        for (EngineVertex* w : {&A, &B, &C}) {
          w->nx += n[0];
          w->ny += n[1];
          w->nz += n[2];
        }
      }
      // Deliberately unguarded: a vertex that no triangle uses ends up with a non-number normal.
      for (EngineVertex& w : out) {
        const float scale = 1.0f / std::sqrt(w.nx * w.nx + w.ny * w.ny + w.nz * w.nz);
        w.nx *= scale;
        w.ny *= scale;
        w.nz *= scale;
      }
      if (v != 0) {
        void* dst = target.BeginVertices(v * 32);
        if (dst) {
          std::memcpy(dst, out.data(), static_cast<size_t>(v) * 32);
          target.EndVertices();
        }
      }
    }
    m_vertexBuffer->UnlockBuffer();
  }
  if (haveIndices) m_indexBuffer->UnlockBuffer();
  m_vertexBuffer.Release();
  m_indexBuffer.Release();
}

std::shared_ptr<MeshFrame> DecodeMeshFrame(COzmMeshReader& reader,
                                           const OZMCORE::CComPtr<OzmCrossPlatform::Stream>& stream) {
  OZMCORE::CComPtr<IOzmBuffer> vertices, indices;
  const long long timestamp = stream ? stream->GetTimestamp() : 0;
  const HRESULT hr = reader.ReadMesh(stream.Get(), timestamp / 100, &vertices, &indices);
  if (OZM_FAILED(hr)) return nullptr;
  return std::make_shared<MeshFrame>(vertices, indices, timestamp);
}

}  // namespace Ozm
