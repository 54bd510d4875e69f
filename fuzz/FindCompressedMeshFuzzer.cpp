// Access units in, mesh payload out: the scan, the bounds and the unescape.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/StreamingMeshHeader.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
      OzmCrossPlatform::FindCompressedMesh(data, static_cast<unsigned int>(size)));
  if (!stream) return 0;
  // Unescaping never grows the payload, and the payload lies inside the sample.
  FUZZ_CHECK(stream->GetSize() + 26 <= size);
  CStreamingMeshHeader header;
  header.Read(stream);
  std::vector<uint8_t> rest(stream->GetSize());
  unsigned int got = 0;
  stream->Read(rest.data(), static_cast<unsigned int>(rest.size()), &got);
  FUZZ_CHECK(stream->GetPosition() <= stream->GetSize() || got == 0);
  return 0;
}
