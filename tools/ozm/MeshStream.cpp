#include "tools/ozm/MeshStream.h"

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/OzmMeshReader.h"

namespace OzmTool {

bool StartsMeshGroup(const std::vector<uint8_t>& annexB) {
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
      OzmCrossPlatform::FindCompressedMesh(annexB.data(), static_cast<unsigned int>(annexB.size())));
  if (!stream) return false;
  CStreamingMeshHeader header;
  if (OZM_FAILED(header.Read(stream))) return false;
  const uint8_t kind = header.m_Version.v.m_MeshHeaderVersion;
  if (kind == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame) return true;
  if (kind != NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal) return false;
  // The texture transforms come first, then the first sub-mesh's header.
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  Ozm::COzmMeshReader scratch;
  scratch.Initialize(allocator, 0);
  std::vector<Ozm::STransform> transforms;
  CStreamingMeshHeader first;
  if (OZM_FAILED(scratch.ReadTransforms(stream, header, &transforms)) || OZM_FAILED(first.Read(stream))) return false;
  return first.m_Version.v.m_MeshHeaderVersion == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame;
}

std::string LastLogLine(const OzmPlatform::ScopedLogCapture& capture) {
  const std::vector<std::string> lines = capture.Texts();
  std::string text = lines.empty() ? "" : lines.back();
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

}  // namespace OzmTool
