// Index block of a key frame: raw, fixed-byte delta, varint delta, EdgeBreaker, and triangle strips.
#include <algorithm>
#include <cstring>
#include <vector>

#include "OzmCore/EdgeBreaker.h"
#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/StreamRead.h"
#include "platform/Log.h"

static_assert(sizeof(WelmMeshFace) == 12, "faces are copied as three packed indices");

namespace Ozm {
namespace {

// Little-endian signed value of 1 to 4 bytes.
inline int32_t SignedLE(const uint8_t* p, uint32_t bytes) {
  switch (bytes) {
    case 1: return static_cast<int8_t>(p[0]);
    case 2: return static_cast<int16_t>(p[0] | p[1] << 8);
    case 3: {
      const uint32_t v = p[0] | p[1] << 8 | static_cast<uint32_t>(p[2]) << 16;
      return static_cast<int32_t>(v << 8) >> 8;
    }
    default: {
      uint32_t v;
      std::memcpy(&v, p, 4);
      return static_cast<int32_t>(v);
    }
  }
}

// Big-endian signed value of 1 to 4 bytes, as the strip coding writes them.
inline int32_t SignedBE(const uint8_t* p, uint32_t bytes) {
  uint32_t v = 0;
  for (uint32_t i = 0; i < bytes; ++i) v = v << 8 | p[i];
  const uint32_t shift = 32 - 8 * bytes;
  return static_cast<int32_t>(v << shift) >> shift;
}

// Faces coded as three deltas against the previous face, with a control byte giving each delta's
// width. Returns false when the block ends early.
bool DecodeFixedByteDeltas(const std::vector<uint8_t>& in, uint32_t numFaces, uint32_t* out) {
  const uint8_t* p = in.data();
  const uint8_t* end = p + in.size();
  uint32_t prev[3] = {0, 0, 0};
  for (uint32_t f = 0; f < numFaces; ++f) {
    if (p >= end) return false;
    const uint32_t c = *p++;
    const uint32_t w0 = (c & 3) + 1, w1 = ((c >> 2) & 3) + 1, w2 = ((c >> 4) & 3) + 1;
    if (static_cast<size_t>(end - p) < w0 + w1 + w2) return false;
    prev[0] += static_cast<uint32_t>(SignedLE(p, w0));
    p += w0;
    prev[1] += static_cast<uint32_t>(SignedLE(p, w1));
    p += w1;
    prev[2] += static_cast<uint32_t>(SignedLE(p, w2));
    p += w2;
    std::memcpy(out + 3 * static_cast<size_t>(f), prev, 12);
  }
  return true;
}

// Faces coded as three zig-zag varints (7 bits a byte, least significant group first) against the
// previous face. Returns false when the block ends inside a number or a number runs past 32 bits.
bool DecodeVarIntDeltas(const std::vector<uint8_t>& in, uint32_t numFaces, uint32_t* out) {
  const uint8_t* p = in.data();
  const uint8_t* end = p + in.size();
  uint32_t prev[3] = {0, 0, 0};
  for (uint32_t f = 0; f < numFaces; ++f) {
    for (int j = 0; j < 3; ++j) {
      uint32_t v = 0;
      uint32_t shift = 0;
      for (;;) {
        if (p >= end || shift > 28) return false;
        const uint8_t b = *p++;
        v |= static_cast<uint32_t>(b & 0x7F) << shift;
        shift += 7;
        if (!(b & 0x80)) break;
      }
      prev[j] += (v >> 1) ^ (0u - (v & 1));
    }
    std::memcpy(out + 3 * static_cast<size_t>(f), prev, 12);
  }
  return true;
}

// Strip indices: a length byte (1 to 4) and that many big-endian bytes of a signed delta.
bool DecodeStripDeltas(const std::vector<uint8_t>& in, uint32_t numIndices, uint32_t* out) {
  const uint8_t* p = in.data();
  const uint8_t* end = p + in.size();
  uint32_t index = 0;
  for (uint32_t i = 0; i < numIndices; ++i) {
    if (p >= end) return false;
    const uint32_t length = *p++;
    int32_t delta = 0;
    if (length >= 1 && length <= 4) {
      if (static_cast<size_t>(end - p) < length) return false;
      delta = SignedBE(p, length);
      p += length;
    } else {
      OZM_ASSERT_MSG(false, "!\"Incorrect number of bytes\"");
    }
    index += static_cast<uint32_t>(delta);
    out[i] = index;
  }
  return true;
}

// Reads the 8-byte signed size of a coded block and the block itself.
HRESULT ReadSizedBlock(IStream* stream, std::vector<uint8_t>& block) {
  int64_t size = 0;
  HRESULT hr = ReadValue(stream, &size);
  if (OZM_FAILED(hr)) return hr;
  return ReadBlock(stream, size > 0 ? static_cast<uint64_t>(size) : 0, block);
}

}  // namespace

HRESULT COzmMeshReader::ReadIndices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                    IOzmBuffer** out) {
  if (!ctx || !stream || !header || !out) return E_POINTER;
  *out = nullptr;
  OZM_ASSERT_MSG(header->m_Version.v.m_VertexVersion == NWelmStudioVertexVersion::c_UnwrappedXYZUV,
                 "pHeader->m_Version.v.m_VertexVersion == NWelmStudioVertexVersion::c_UnwrappedXYZUV");
  const uint32_t numIndices = header->m_numIndices;
  const uint32_t numFaces = header->m_numFaces;
  if (numIndices > c_MaxMeshElements || numFaces > c_MaxMeshElements) {
    OZM_LOGE("ReadIndices: %u indices / %u faces is beyond any mesh", numIndices, numFaces);
    return E_UNEXPECTED;
  }
  const uint8_t flags = header->m_Version.v.m_FormatFlags;
  const bool strips = flags == NWelmStudioFormatFlags::c_TriangleStrips;
  const uint8_t version = header->m_Version.v.m_IndexVersion;
  using namespace NWelmStudioIndexVersion;

  // The coded data is read first, so that the counts of the header can be checked against what the
  // stream really holds before any memory is committed to them.
  std::vector<uint8_t> block;
  std::vector<WelmMeshFace> faces;  // EdgeBreaker output
  HRESULT hr = S_OK;
  bool enough = true;
  if (strips && !OZM_ASSERT_MSG(version == c_FixedByteDeltaEncodedIndices || version == c_UncompressedIndices,
                                "pHeader->m_Version.v.m_IndexVersion == "
                                "NWelmStudioIndexVersion::c_FixedByteDeltaEncodedIndices || "
                                "pHeader->m_Version.v.m_IndexVersion == NWelmStudioIndexVersion::c_UncompressedIndices")) {
    return E_UNEXPECTED;
  }
  switch (version) {
    case c_UncompressedIndices:
      hr = ReadBlock(stream, 4ull * numIndices, block);
      enough = block.size() == 4ull * numIndices;
      break;
    case c_FixedByteDeltaEncodedIndices:
      if (strips) {
        int64_t size = 0;
        uint32_t reserved = 0;
        hr = ReadValue(stream, &size);
        if (OZM_SUCCEEDED(hr)) hr = ReadValue(stream, &reserved);
        if (OZM_SUCCEEDED(hr)) hr = ReadBlock(stream, size > 0 ? static_cast<uint64_t>(size) : 0, block);
        enough = block.size() >= 2ull * numIndices;  // a length byte and at least one value byte each
        break;
      }
      hr = ReadSizedBlock(stream, block);
      enough = block.size() >= 4ull * numFaces;  // a control byte and three deltas of a byte or more
      break;
    case c_VarIntDeltaEncodedIndices:
      hr = ReadSizedBlock(stream, block);
      enough = block.size() >= 3ull * numFaces;  // three numbers of a byte or more
      break;
    case c_EdgeBreakerIndices: {
      uint32_t size = 0;
      hr = ReadValue(stream, &size);
      if (OZM_SUCCEEDED(hr)) hr = ReadBlock(stream, size, block);
      if (OZM_FAILED(hr)) break;
      EdgeBreaker::CEdgeBreaker codec;
      if (block.size() < size || !codec.Decompress(block, &faces)) {
        OZM_LOGE("ReadIndices: EdgeBreaker block of %u bytes is corrupt", size);
        return E_FAIL;
      }
      OZM_ASSERT_MSG(3 * faces.size() <= numIndices, "3 * meshFaces.size() * sizeof(UINT) <= ibLen");
      break;
    }
    default:
      OZM_LOGE("ReadIndices: unknown index coding %u", version);
      return E_UNEXPECTED;
  }
  if (OZM_FAILED(hr)) return hr;
  if (!enough) {
    OZM_LOGE("ReadIndices: %zu bytes of index data cannot hold %u indices / %u faces", block.size(), numIndices,
             numFaces);
    return E_FAIL;
  }
  if (!strips && version != c_UncompressedIndices) {
    const uint64_t listed = 3ull * (version == c_EdgeBreakerIndices ? faces.size() : numFaces);
    if (version != c_EdgeBreakerIndices && listed > numIndices) {
      OZM_LOGE("ReadIndices: %u faces do not fit %u indices", numFaces, numIndices);
      return E_UNEXPECTED;
    }
    // Indices beyond the faces are padding; a header asking for far more than the faces give is bogus.
    if (numIndices > std::max<uint64_t>(listed, 3ull * numFaces) + 3) {
      OZM_LOGE("ReadIndices: %u indices for %llu coded ones", numIndices, static_cast<unsigned long long>(listed));
      return E_UNEXPECTED;
    }
  }

  OZMCORE::CComPtr<IOzmBuffer> buffer;
  hr = Allocate(numIndices * 4, 4, &buffer);
  if (OZM_FAILED(hr)) return hr;
  buffer->SetUINT32(OzmAttrib_UseTriList, strips ? 0 : 1);
  OzmLockedMemory locked{};
  hr = buffer->LockBuffer(&locked);
  if (OZM_FAILED(hr)) return hr;
  uint32_t* indices = LockedWords(locked.pData);
  std::memset(indices, 0, static_cast<size_t>(numIndices) * 4);

  switch (version) {
    case c_UncompressedIndices:
      if (numIndices) std::memcpy(indices, block.data(), 4ull * numIndices);
      break;
    case c_FixedByteDeltaEncodedIndices:
      if (strips ? !DecodeStripDeltas(block, numIndices, indices) : !DecodeFixedByteDeltas(block, numFaces, indices)) {
        OZM_LOGE("ReadIndices: index block of %zu bytes ends early", block.size());
        hr = E_FAIL;
      }
      break;
    case c_VarIntDeltaEncodedIndices:
      if (!DecodeVarIntDeltas(block, numFaces, indices)) {
        OZM_ASSERT_WIDE(!"Out of input");
        OZM_ASSERT_MSG(false, "!\"Read past end of buffer. This should never happen!\"");
        hr = E_FAIL;
      }
      break;
    default: {  // EdgeBreaker
      const size_t copied = std::min<size_t>(faces.size(), numIndices / 3);
      if (copied) std::memcpy(indices, faces.data(), copied * sizeof(WelmMeshFace));
      break;
    }
  }

  // Every index must name a vertex: the engine draws with them and computes normals from them.
  if (OZM_SUCCEEDED(hr)) {
    const uint32_t numVertices = header->m_numVertices;
    for (uint32_t i = 0; i < numIndices; ++i) {
      if (indices[i] >= numVertices) {
        OZM_LOGE("ReadIndices: index %u at %u is beyond the %u vertices", indices[i], i, numVertices);
        hr = E_UNEXPECTED;
        break;
      }
    }
  }
  buffer->UnlockBuffer();
  if (OZM_FAILED(hr)) return hr;
  ctx->m_indexBuffer = buffer;
  *out = buffer.Detach();
  return hr;
}

}  // namespace Ozm
