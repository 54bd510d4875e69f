// Small helpers for reading fixed fields and coded blocks from an IStream.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "OzmCore/OzmMediaObjects.h"

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

}  // namespace Ozm
