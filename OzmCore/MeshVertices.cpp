// Plain (16-bit quantised) vertices of a key frame, into every output vertex format.
#include <cstring>
#include <vector>

#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/Quantization.h"
#include "OzmCore/StreamRead.h"
#include "platform/Log.h"

namespace Ozm {
namespace {

inline int16_t I16(const uint8_t* p) {
  int16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

inline uint16_t U16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

}  // namespace

HRESULT COzmMeshReader::ReadVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                     IOzmBuffer** out) {
  if (!OZM_ASSERT_MSG(header != nullptr, "pHeader") || !OZM_ASSERT_MSG(out != nullptr, "ppBuffer") || !ctx ||
      !stream) {
    return E_POINTER;
  }
  *out = nullptr;
  const uint32_t n = header->m_numVertices;
  if (n > c_MaxMeshElements) {
    OZM_LOGE("ReadVertices: %u vertices is beyond any mesh", n);
    return E_UNEXPECTED;
  }
  const bool recordHasNormal = (header->m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_HasNormals) != 0;
  const uint32_t recordSize = recordHasNormal ? 20 : 12;
  const uint32_t uvOffset = recordHasNormal ? 16 : 8;
  const bool floats = (m_flags & NReaderFlags::c_FloatVertices) != 0;
  const bool withNormal = (m_flags & NReaderFlags::c_WithNormals) != 0;
  const uint32_t stride = VertexStride();

  // The records are read before the output is allocated, so a header claiming more vertices than
  // the stream holds costs nothing.
  std::vector<uint8_t> records;
  HRESULT hr = ReadBlock(stream, static_cast<uint64_t>(recordSize) * n, records);
  if (OZM_FAILED(hr)) return hr;
  if (records.size() < static_cast<uint64_t>(recordSize) * n) {
    OZM_LOGE("ReadVertices: %zu of %u vertex bytes present", records.size(), recordSize * n);
    return E_FAIL;
  }
  OZMCORE::CComPtr<IOzmBuffer> buffer;
  OzmLockedMemory locked{};
  hr = AllocateVertices(n, buffer, locked);
  if (OZM_FAILED(hr)) return hr;
  uint8_t* dst = locked.pData;
  // 16-bit output whose layout is the record layout takes the records as they are.
  const bool direct = !floats && recordSize == stride;
  if (direct && n) std::memcpy(dst, records.data(), records.size());

  ctx->m_pKeyVertices.resize(n);
  ctx->m_keyTexCoords.clear();
  ctx->m_keyMesh.resize(n);
  ctx->m_workMesh.resize(n);
  ctx->m_pPrevMesh = &ctx->m_keyMesh;
  ctx->m_pOlderMesh = nullptr;

  const float* lo = header->m_bboxMin;
  const float* hi = header->m_bboxMax;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t* r = records.data() + static_cast<size_t>(i) * recordSize;
    const int16_t q[3] = {I16(r), I16(r + 2), I16(r + 4)};
    const int16_t s = I16(r + uvOffset), t = I16(r + uvOffset + 2);
    const float p[3] = {DequantizePosition(q[0], lo[0], hi[0]), DequantizePosition(q[1], lo[1], hi[1]),
                        DequantizePosition(q[2], lo[2], hi[2])};
    ctx->m_keyMesh[i] = {p[0], p[1], p[2], 0.0f};
    SKeyVertex& key = ctx->m_pKeyVertices[i];
    uint8_t* v = dst + static_cast<size_t>(i) * stride;

    if (floats) {
      // Fields go straight into the output: position, the normal when the layout has one, u, v.
      auto store = [v](size_t offset, float f) { std::memcpy(v + offset, &f, 4); };
      store(0, p[0]);
      store(4, p[1]);
      store(8, p[2]);
      if (withNormal) {
        for (int a = 0; a < 3; ++a) {
          // 12-byte records carry no normal: a fixed placeholder marks it.
          store(12 + 4 * a, recordHasNormal ? 2.0f * (U16(r + 8 + 2 * a) / 65535.0f) - 1.0f : -1.0f);
        }
      }
      const float u = DequantizeTexCoord(s), w = DequantizeTexCoord(t);
      store(stride - 8, u);
      store(stride - 4, w);
      // Inter frames read only u and v of the key records, requantised from the floats; the
      // positions of the records are never read in float output and are left zero.
      key = {0, 0, 0, 0, RequantizeTexCoord(u), RequantizeTexCoord(w)};
    } else {
      key = {q[0], q[1], q[2], 0, s, t};
      if (!direct) {
        if (stride == 20) {  // 12-byte record into the layout with a normal area (left zero)
          const int16_t words[10] = {q[0], q[1], q[2], 0, 0, 0, 0, 0, s, t};
          std::memcpy(v, words, 20);
        } else {  // 20-byte record into the 12-byte layout
          const int16_t words[6] = {q[0], q[1], q[2], 0, s, t};
          std::memcpy(v, words, 12);
        }
      }
    }
  }

  buffer->UnlockBuffer();
  *out = buffer.Detach();
  return S_OK;
}

}  // namespace Ozm
