#include "OzmCore/encode/KeyFrameWriter.h"

#include <numeric>

#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "OzmCore/encode/IndexWriter.h"
#include "OzmCore/encode/VertexWriter.h"

namespace OzmEncode {

bool EncodeKeyFrame(const Mesh& mesh, const KeyFrameOptions& o, EncodedKeyFrame* out) {
  using namespace NWelmStudioFormatFlags;
  const size_t numVertices = mesh.VertexCount();
  if (numVertices > Ozm::c_MaxMeshElements || 3 * mesh.faces.size() > Ozm::c_MaxMeshElements) return false;
  for (const WelmMeshFace& f : mesh.faces) {
    for (uint32_t v : f.v) {
      if (v >= numVertices) return false;
    }
  }

  CStreamingMeshHeader& h = out->header;
  h = CStreamingMeshHeader{};
  uint8_t flags = c_TriangleList;
  if (o.indicesFirst) flags |= c_IndicesFirst;
  if (o.subMeshId) flags |= c_HasSubMeshId;
  if (o.frameId) flags |= c_HasFrameId;
  if (o.normalsInRecords) flags |= c_HasNormals;
  if (o.unsignedUVs) flags |= c_UnsignedUVs;
  if (o.strip) {
    if (o.indexVersion != NWelmStudioIndexVersion::c_UncompressedIndices &&
        o.indexVersion != NWelmStudioIndexVersion::c_FixedByteDeltaEncodedIndices) {
      return false;
    }
    flags = c_TriangleStrips;
  }
  h.m_Version.v = {NWelmStudioVertexVersion::c_UnwrappedXYZUV, flags,
                   NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame, o.indexVersion};
  h.m_subMeshId = o.subMeshId.value_or(0);
  h.m_frameId = o.frameId.value_or(0);
  const Box box = o.box ? *o.box : BoundsOf(mesh.positions);
  for (int a = 0; a < 3; ++a) {
    h.m_bboxMin[a] = box.min[a];
    h.m_bboxMax[a] = box.max[a];
  }

  std::vector<uint8_t> indexBlock;
  out->vertexOrder.clear();
  if (o.strip) {
    h.m_numIndices = static_cast<uint32_t>(o.strip->size());
    h.m_numFaces = h.m_numIndices >= 2 ? h.m_numIndices - 2 : 0;
    if (o.indexVersion == NWelmStudioIndexVersion::c_UncompressedIndices) {
      WriteUncompressedIndices(*o.strip, indexBlock);
    } else {
      WriteStripDeltaIndices(*o.strip, indexBlock);
    }
  } else {
    h.m_numFaces = static_cast<uint32_t>(mesh.faces.size());
    h.m_numIndices = 3 * h.m_numFaces;
    switch (o.indexVersion) {
      case NWelmStudioIndexVersion::c_UncompressedIndices: {
        std::vector<uint32_t> flat;
        flat.reserve(h.m_numIndices);
        for (const WelmMeshFace& f : mesh.faces) flat.insert(flat.end(), f.v, f.v + 3);
        WriteUncompressedIndices(flat, indexBlock);
        break;
      }
      case NWelmStudioIndexVersion::c_FixedByteDeltaEncodedIndices:
        WriteFixedByteDeltaIndices(mesh.faces, indexBlock);
        break;
      case NWelmStudioIndexVersion::c_VarIntDeltaEncodedIndices:
        WriteVarIntDeltaIndices(mesh.faces, indexBlock);
        break;
      case NWelmStudioIndexVersion::c_EdgeBreakerIndices:
        if (!WriteEdgeBreakerIndices(mesh.faces, indexBlock, &out->vertexOrder)) return false;
        break;
      default:
        return false;
    }
  }
  if (out->vertexOrder.empty() && o.indexVersion != NWelmStudioIndexVersion::c_EdgeBreakerIndices) {
    out->vertexOrder.resize(numVertices);
    std::iota(out->vertexOrder.begin(), out->vertexOrder.end(), 0);
  }
  h.m_numVertices = static_cast<uint32_t>(out->vertexOrder.size());
  if (h.m_numVertices > Ozm::c_MaxMeshElements) return false;

  std::vector<uint8_t> vertexBlock;
  WritePlainVertices(mesh, box, o.normalsInRecords, out->vertexOrder, vertexBlock);
  if (o.normalsInRecords && mesh.normals.size() != 3 * numVertices) return false;

  out->bytes.clear();
  WriteStreamingMeshHeader(h, out->bytes);
  const std::vector<uint8_t>& first = o.indicesFirst ? indexBlock : vertexBlock;
  const std::vector<uint8_t>& second = o.indicesFirst ? vertexBlock : indexBlock;
  out->bytes.insert(out->bytes.end(), first.begin(), first.end());
  out->bytes.insert(out->bytes.end(), second.begin(), second.end());
  return true;
}

}  // namespace OzmEncode
