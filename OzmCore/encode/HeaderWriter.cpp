#include "OzmCore/encode/HeaderWriter.h"

#include "OzmCore/encode/ByteWriter.h"

namespace OzmEncode {
namespace {

struct Layout {
  bool subMeshId, frameId, subMeshCount, counts, indexCount;
};

Layout LayoutOf(uint32_t versionWord) {
  const LegacyUpgrade upgrade = UpgradeLegacyVersionWord(versionWord);
  CStreamingMeshHeader::Version v;
  v.word = upgrade.word;
  const uint8_t flags = v.v.m_FormatFlags;
  const uint8_t version = v.v.m_MeshHeaderVersion;
  using namespace NWelmStudioMeshHeaderVersion;
  const bool counts = version == c_MeshHeaderVersion_KeyFrame || version == c_MeshHeaderVersion_Temporal;
  return {(flags & NWelmStudioFormatFlags::c_HasSubMeshId) != 0, (flags & NWelmStudioFormatFlags::c_HasFrameId) != 0,
          version == c_MeshHeaderVersion_Temporal, counts, counts && !upgrade.upgraded};
}

}  // namespace

void WriteStreamingMeshHeader(const CStreamingMeshHeader& header, std::vector<uint8_t>& out) {
  ByteWriter w(out);
  w.U32LE(header.m_Version.word);
  for (float f : header.m_bboxMin) w.F32LE(f);
  for (float f : header.m_bboxMax) w.F32LE(f);
  const Layout layout = LayoutOf(header.m_Version.word);
  if (layout.subMeshId) w.I32LE(header.m_subMeshId);
  if (layout.frameId) w.U32LE(header.m_frameId);
  if (layout.subMeshCount) w.U32LE(header.m_numSubMeshes);
  if (layout.counts) {
    w.U32LE(header.m_numVertices);
    w.U32LE(header.m_numFaces);
  }
  if (layout.indexCount) w.U32LE(header.m_numIndices);
}

size_t StreamingMeshHeaderSize(uint32_t versionWord) {
  const Layout layout = LayoutOf(versionWord);
  return 28 + 4 * (layout.subMeshId + layout.frameId + layout.subMeshCount + 2 * layout.counts + layout.indexCount);
}

}  // namespace OzmEncode
