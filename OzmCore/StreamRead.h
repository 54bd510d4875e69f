// Small helpers for reading fixed fields and coded blocks from an IStream.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "OzmCore/OzmMediaObjects.h"
#include "platform/Log.h"

namespace Ozm {

// Reads up to n bytes; *got receives the count. The stream's result code is returned.
inline HRESULT ReadBytes(IStream* stream, void* dst, uint32_t n, uint32_t* got) {
  unsigned int count = 0;
  const HRESULT hr = stream->Read(dst, n, &count);
  *got = count;
  return hr;
}

// Reads a little-endian value; a short read leaves the missing bytes zero and clears *complete.
template <typename T>
HRESULT ReadValue(IStream* stream, T* value, bool* complete = nullptr) {
  uint8_t bytes[sizeof(T)] = {};
  uint32_t got = 0;
  const HRESULT hr = ReadBytes(stream, bytes, sizeof(T), &got);
  std::memcpy(value, bytes, sizeof(T));
  if (complete) *complete = got == sizeof(T);
  return hr;
}

// Reads a coded block of the announced size into out. The block is read in pieces, so that a
// corrupt size cannot make us allocate more than the stream actually holds; out ends up with the
// bytes that were there.
inline HRESULT ReadBlock(IStream* stream, uint64_t size, std::vector<uint8_t>& out) {
  out.clear();
  constexpr uint32_t kPiece = 1u << 16;
  while (out.size() < size) {
    const uint32_t want = static_cast<uint32_t>(size - out.size() < kPiece ? size - out.size() : kPiece);
    const size_t at = out.size();
    out.resize(at + want);
    uint32_t got = 0;
    const HRESULT hr = ReadBytes(stream, out.data() + at, want, &got);
    out.resize(at + got);
    if (OZM_FAILED(hr)) return hr;
    if (got < want) break;
  }
  return S_OK;
}

// The per-axis delta range in front of every byte-delta block: minx, miny, minz, maxx, maxy, maxz.
// Short reads are only logged (the missing bytes read as zero); a failing stream is returned.
inline HRESULT ReadDeltaRange(IStream* stream, float range[6]) {
  static const char* const kChecks[6] = {"bytesRead == sizeof(minx)", "bytesRead == sizeof(miny)",
                                         "bytesRead == sizeof(minz)", "bytesRead == sizeof(maxx)",
                                         "bytesRead == sizeof(maxy)", "SUCCEEDED(hr) && bytesRead == sizeof(maxz)"};
  for (int k = 0; k < 6; ++k) {
    bool complete = false;
    const HRESULT hr = ReadValue(stream, &range[k], &complete);
    OZM_ASSERT_MSG(complete, kChecks[k]);
    if (OZM_FAILED(hr)) return hr;
  }
  return S_OK;
}

}  // namespace Ozm
