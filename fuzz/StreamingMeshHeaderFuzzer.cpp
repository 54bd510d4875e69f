// Mesh headers: any bytes parse without harm, and a parsed header written back parses the same.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/StreamingMeshHeader.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "fuzz/FuzzSupport.h"

namespace {

OZMCORE::CComPtr<OzmCrossPlatform::Stream> StreamOver(const uint8_t* data, size_t size) {
  return OZMCORE::CComPtr<OzmCrossPlatform::Stream>(
      OzmCrossPlatform::Stream::CopyOf(data, static_cast<uint32_t>(size)));
}

bool SameFields(const CStreamingMeshHeader& a, const CStreamingMeshHeader& b) {
  return a.m_Version.word == b.m_Version.word && std::memcmp(a.m_bboxMin, b.m_bboxMin, 12) == 0 &&
         std::memcmp(a.m_bboxMax, b.m_bboxMax, 12) == 0 && a.m_numVertices == b.m_numVertices &&
         a.m_numFaces == b.m_numFaces && a.m_numIndices == b.m_numIndices && a.m_numSubMeshes == b.m_numSubMeshes &&
         a.m_subMeshId == b.m_subMeshId && a.m_frameId == b.m_frameId;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  if (size > 256) return 0;  // a header is at most 52 bytes; longer inputs add nothing
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream = StreamOver(data, size);
  CStreamingMeshHeader header;
  const HRESULT hr = header.Read(stream);
  FUZZ_CHECK(stream->GetPosition() <= 52 && stream->GetPosition() <= size);
  if (OZM_FAILED(hr)) return 0;

  std::vector<uint8_t> written;
  OzmEncode::WriteStreamingMeshHeader(header, written);
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> again = StreamOver(written.data(), written.size());
  CStreamingMeshHeader reread;
  FUZZ_CHECK(OZM_SUCCEEDED(reread.Read(again)));
  FUZZ_CHECK(again->GetPosition() == written.size());
  FUZZ_CHECK(SameFields(header, reread));
  return 0;
}
