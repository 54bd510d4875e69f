#include "OzmCore/StreamingMeshHeader.h"

#include "platform/Log.h"

namespace {

constexpr uint32_t MakeVersionWord(uint8_t vertex, uint8_t flags, uint8_t header, uint8_t index) {
  return static_cast<uint32_t>(vertex) | static_cast<uint32_t>(flags) << 8 | static_cast<uint32_t>(header) << 16 |
         static_cast<uint32_t>(index) << 24;
}

}  // namespace

LegacyUpgrade UpgradeLegacyVersionWord(uint32_t word) {
  const uint8_t vertex = word & 0xFF;
  const uint8_t header = (word >> 16) & 0xFF;
  using namespace NWelmStudioVertexVersion;
  if (vertex == c_LegacyPackedVertexVersion && header == 2) return {MakeVersionWord(3, 0x01, 6, 2), true};
  if (header == 3 && vertex == c_LegacyPackedVertexVersion) return {MakeVersionWord(4, 0x01, 6, 2), true};
  if (header == 1) return {MakeVersionWord(2, 0x01, 5, 2), true};
  if (header == 0) return {MakeVersionWord(2, 0x01, 5, 1), true};
  return {word, false};
}

HRESULT CStreamingMeshHeader::Read(IStream* stream) {
  if (!stream) return E_POINTER;
  unsigned int got = 0;
  const HRESULT versionResult = stream->Read(&m_Version, 4, &got);

  if (m_Version.v.m_VertexVersion == NWelmStudioVertexVersion::c_HiResVertexVersion) {
    OZM_ASSERT_MSG(false, "!\"Unsupported format! We no longer support the hi-res mesh\"");
    return E_UNEXPECTED;
  }

  // Legacy layouts: the expectations are checked (and logged) but never stop the parse, so that a
  // legacy mesh with slightly wrong flags still plays.
  const uint8_t headerVersion = m_Version.v.m_MeshHeaderVersion;
  const uint8_t vertexVersion = m_Version.v.m_VertexVersion;
  if (vertexVersion == NWelmStudioVertexVersion::c_LegacyPackedVertexVersion &&
      (headerVersion == 2 || headerVersion == 3)) {
    OZM_ASSERT(m_Version.v.m_FormatFlags == 0);
  } else if (headerVersion == 0 || headerVersion == 1) {
    OZM_ASSERT(m_Version.v.m_FormatFlags == 0);
    OZM_ASSERT(m_Version.v.m_VertexVersion == NWelmStudioVertexVersion::c_Deprecated_UnwrappedVertexVersion);
  } else if (headerVersion < NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame) {
    OZM_ASSERT_MSG(false,
                   "m_Version.v.m_MeshHeaderVersion >= NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame && "
                   "\"Unknown old format encountered\"");
  }
  const LegacyUpgrade upgrade = UpgradeLegacyVersionWord(m_Version.word);
  m_Version.word = upgrade.word;
  m_upgradedFromLegacy = upgrade.upgraded;
  if (OZM_FAILED(versionResult)) return versionResult;

  HRESULT hr = stream->Read(m_bboxMin, 12, &got);
  if (OZM_FAILED(hr)) return hr;
  hr = stream->Read(m_bboxMax, 12, &got);
  if (OZM_FAILED(hr)) return hr;

  if (m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_HasSubMeshId) {
    hr = stream->Read(&m_subMeshId, 4, &got);
    if (OZM_FAILED(hr)) return hr;
  }
  if (m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_HasFrameId) {
    hr = stream->Read(&m_frameId, 4, &got);
    if (OZM_FAILED(hr)) return hr;
  }

  const uint8_t version = m_Version.v.m_MeshHeaderVersion;
  if (version < NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame) {
    OZM_ASSERT_MSG(false,
                   "m_Version.v.m_MeshHeaderVersion >= NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame && "
                   "\"Mesh is in old format. Need to re-export!\"");
  }
  if (version == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal) {
    hr = stream->Read(&m_numSubMeshes, 4, &got);
    if (OZM_FAILED(hr)) return hr;
  }
  if (version == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame ||
      version == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal) {
    hr = stream->Read(&m_numVertices, 4, &got);
    if (OZM_FAILED(hr)) return hr;
    hr = stream->Read(&m_numFaces, 4, &got);
    if (OZM_FAILED(hr)) return hr;
    if (m_upgradedFromLegacy) {
      m_numIndices = 3 * m_numFaces;
    } else {
      hr = stream->Read(&m_numIndices, 4, &got);
    }
  }
  return hr;
}
