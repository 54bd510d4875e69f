// The attribute block at the end of a file: searched for, never parsed past its bounds.
#include <cstddef>
#include <cstdint>

#include "OzmCore/CComPtr.h"
#include "OzmCore/OzmAttributes.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  OZMCORE::CComPtr<OzmCrossPlatform::Buffer> attributes(new OzmCrossPlatform::Buffer(0));
  const bool ok = OzmCrossPlatform::ReadXtraAttributes(data, size, static_cast<IOzmAttributesCore*>(attributes.Get()));
  if (ok) {
    unsigned int frames = 0;
    FUZZ_CHECK(attributes->GetUINT32(OzmAttrib_FrameCount, &frames) == S_OK);
    double maxZ = 0;
    FUZZ_CHECK(attributes->GetDouble(OzmAttrib_BBoxMaxZ, &maxZ) == S_OK);
  }
  return 0;
}
