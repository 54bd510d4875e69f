// Inter frames: the byte-delta stage shared by the temporal codings, and plain byte-delta frames.
#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>
#include <vector>

#include "OzmCore/Huffman.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/Quantization.h"
#include "OzmCore/StreamRead.h"
#include "platform/Log.h"

namespace Ozm {
namespace {

enum class Layout { Short12, Short20, Float20, Float32 };

Layout LayoutOf(unsigned flags) {
  const bool floats = (flags & NReaderFlags::c_FloatVertices) != 0;
  const bool normal = (flags & NReaderFlags::c_WithNormals) != 0;
  if (floats) return normal ? Layout::Float32 : Layout::Float20;
  return normal ? Layout::Short20 : Layout::Short12;
}

// The per-axis offset of each delta byte: (b / 255) * (max - min) + min, in float32. A table gives the
// very same values as computing it per vertex.
struct AxisTable {
  float offset[256];
  void Fill(float min, float max) {
    const float range = max - min;
    for (int b = 0; b < 256; ++b) offset[b] = (static_cast<float>(b) / 255.0f) * range + min;
  }
};

inline void StoreFloat(uint8_t* p, float f) { std::memcpy(p, &f, 4); }
inline void StoreShort(uint8_t* p, int16_t v) { std::memcpy(p, &v, 2); }

// The key vertices' texture coordinates as floats, computed once per key frame.
const float* KeyTexCoords(COzmMeshReaderCtx* ctx) {
  const size_t n = ctx->m_pKeyVertices.size();
  if (ctx->m_keyTexCoords.size() != 2 * n) {
    ctx->m_keyTexCoords.resize(2 * n);
    for (size_t i = 0; i < n; ++i) {
      ctx->m_keyTexCoords[2 * i] = DequantizeTexCoord(ctx->m_pKeyVertices[i].u);
      ctx->m_keyTexCoords[2 * i + 1] = DequantizeTexCoord(ctx->m_pKeyVertices[i].v);
    }
  }
  return ctx->m_keyTexCoords.data();
}

inline float Clamp1(float v, float lo, float hi) { return std::min(std::max(v, lo), hi); }

// Writes output vertex i from a position already clamped to the box and the key frame's texture
// coordinates (uvs: the float pairs of all vertices, for float layouts), in the reader's layout.
// Fields are stored straight into the output, and the coordinates come as named scalars: arrays of
// three floats made the compiler spill them to the stack and read them back as wider words, which
// stalled the loops on store forwarding.
template <Layout L>
inline void WriteVertex(uint8_t* out, uint32_t i, float c0, float c1, float c2, const SKeyVertex& key, const float* uvs,
                        const float* lo, const float* hi) {
  if (L == Layout::Float20 || L == Layout::Float32) {
    constexpr size_t kStride = L == Layout::Float32 ? 32 : 20;
    uint8_t* v = out + static_cast<size_t>(i) * kStride;
    StoreFloat(v, c0);
    StoreFloat(v + 4, c1);
    StoreFloat(v + 8, c2);
    if (L == Layout::Float32) {
      StoreFloat(v + 12, 0.0f);
      StoreFloat(v + 16, 0.0f);
      StoreFloat(v + 20, 0.0f);
    }
    StoreFloat(v + kStride - 8, uvs[2 * static_cast<size_t>(i)]);
    StoreFloat(v + kStride - 4, uvs[2 * static_cast<size_t>(i) + 1]);
  } else {
    constexpr size_t kStride = L == Layout::Short20 ? 20 : 12;
    uint8_t* v = out + static_cast<size_t>(i) * kStride;
    StoreShort(v, RequantizePosition(c0, lo[0], hi[0]));
    StoreShort(v + 2, RequantizePosition(c1, lo[1], hi[1]));
    StoreShort(v + 4, RequantizePosition(c2, lo[2], hi[2]));
    StoreShort(v + 6, 0);
    if (L == Layout::Short20) std::memset(v + 8, 0, 8);
    StoreShort(v + kStride - 4, key.u);
    StoreShort(v + kStride - 2, key.v);
  }
}

// Adds the delta bytes to the prediction (the previous position, or its linear extrapolation from
// the two before), keeps the unclamped result as history and writes the output vertex clamped to the
// box. Axis a of vertex i is in.axis[a][i * in.stride].
template <Layout L, bool kPredictLinear>
void DecodeVertices(uint32_t n, const DeltaBytes& in, const AxisTable* axes, const __vector4* prev, __vector4* older,
                    const SKeyVertex* keys, const float* uvs, const float* lo, const float* hi, uint8_t* out) {
  const uint8_t* d0 = in.axis[0];
  const uint8_t* d1 = in.axis[1];
  const uint8_t* d2 = in.axis[2];
  const size_t step = in.stride;
  const float* t0 = axes[0].offset;
  const float* t1 = axes[1].offset;
  const float* t2 = axes[2].offset;
  const float lo0 = lo[0], lo1 = lo[1], lo2 = lo[2], hi0 = hi[0], hi1 = hi[1], hi2 = hi[2];
  for (uint32_t i = 0; i < n; ++i) {
    const __vector4& p = prev[i];
    float q0 = p.x, q1 = p.y, q2 = p.z;
    if (kPredictLinear) {
      const __vector4& o = older[i];
      q0 = p.x + (p.x - o.x);
      q1 = p.y + (p.y - o.y);
      q2 = p.z + (p.z - o.z);
    }
    const size_t at = static_cast<size_t>(i) * step;
    const float x0 = q0 + t0[d0[at]];
    const float x1 = q1 + t1[d1[at]];
    const float x2 = q2 + t2[d2[at]];
    // The history keeps the unclamped position; only the output is held inside the box.
    older[i].x = x0;
    older[i].y = x1;
    older[i].z = x2;
    WriteVertex<L>(out, i, Clamp1(x0, lo0, hi0), Clamp1(x1, lo1, hi1), Clamp1(x2, lo2, hi2), keys[i], uvs, lo, hi);
  }
}

// Calls f with the layout of the reader flags as a compile-time constant, so the per-vertex loops
// are specialised for each layout.
template <typename F>
auto WithLayout(unsigned flags, F&& f) {
  switch (LayoutOf(flags)) {
    case Layout::Short12: return f(std::integral_constant<Layout, Layout::Short12>{});
    case Layout::Short20: return f(std::integral_constant<Layout, Layout::Short20>{});
    case Layout::Float20: return f(std::integral_constant<Layout, Layout::Float20>{});
    default: return f(std::integral_constant<Layout, Layout::Float32>{});
  }
}

template <Layout L>
void DecodeVerticesFor(bool linear, uint32_t n, const DeltaBytes& in, const AxisTable* axes, const __vector4* prev,
                       __vector4* older, const SKeyVertex* keys, const float* uvs, const float* lo, const float* hi,
                       uint8_t* out) {
  if (linear) {
    DecodeVertices<L, true>(n, in, axes, prev, older, keys, uvs, lo, hi, out);
  } else {
    DecodeVertices<L, false>(n, in, axes, prev, older, keys, uvs, lo, hi, out);
  }
}

}  // namespace

HRESULT COzmMeshReader::DecodeDeltas(COzmMeshReaderCtx* ctx, const CStreamingMeshHeader* header, const uint8_t* deltas,
                                     uint32_t len, float minx, float miny, float minz, float maxx, float maxy,
                                     float maxz, IOzmBuffer** out) {
  const DeltaBytes in = InterleavedDeltas(deltas, len / 3);
  const float range[6] = {minx, miny, minz, maxx, maxy, maxz};
  return DecodeDeltas(ctx, header, in, range, out);
}

HRESULT COzmMeshReader::DecodeDeltas(COzmMeshReaderCtx* ctx, const CStreamingMeshHeader* header, const DeltaBytes& in,
                                     const float range[6], IOzmBuffer** out) {
  if (!OZM_ASSERT_MSG(header != nullptr, "pHeader") || !OZM_ASSERT_MSG(out != nullptr, "ppBuffer") || !ctx) {
    return E_POINTER;
  }
  if (!OZM_ASSERT_MSG(ctx->m_pPrevMesh != nullptr, "pCtx->m_pPrevMesh")) return E_POINTER;
  if (!OZM_ASSERT_MSG(header->m_numVertices == ctx->m_pPrevMesh->size(),
                      "pHeader->m_numVertices == pCtx->m_pPrevMesh->size()")) {
    return E_UNEXPECTED;
  }
  const uint32_t n = header->m_numVertices;
  const bool hasOlder = ctx->m_pOlderMesh != nullptr;
  std::vector<__vector4>* older = hasOlder ? ctx->m_pOlderMesh : &ctx->m_workMesh;
  if (n > in.count) {
    OZM_ASSERT_MSG(false, "!\"Mesh size doesn't match compressed size\"");
    return E_UNEXPECTED;
  }
  // The key frame sized both history arrays and the key records; anything else is a broken context.
  if (older->size() != n || ctx->m_pKeyVertices.size() != n) {
    OZM_LOGE("DecodeDeltas: history of %zu positions and %zu key vertices for %u vertices", older->size(),
             ctx->m_pKeyVertices.size(), n);
    return E_UNEXPECTED;
  }
  OZMCORE::CComPtr<IOzmBuffer> buffer;
  OzmLockedMemory locked{};
  HRESULT hr = AllocateVertices(n, buffer, locked);
  if (OZM_FAILED(hr)) return hr;
  ctx->m_pOlderMesh = older;

  AxisTable axes[3];
  for (int a = 0; a < 3; ++a) axes[a].Fill(range[a], range[3 + a]);
  const __vector4* prev = ctx->m_pPrevMesh->data();
  const SKeyVertex* keys = ctx->m_pKeyVertices.data();
  const float* lo = header->m_bboxMin;
  const float* hi = header->m_bboxMax;
  uint8_t* dst = locked.pData;
  const float* uvs = (m_flags & NReaderFlags::c_FloatVertices) ? KeyTexCoords(ctx) : nullptr;
  WithLayout(m_flags, [&](auto layout) {
    DecodeVerticesFor<decltype(layout)::value>(hasOlder, n, in, axes, prev, older->data(), keys, uvs, lo, hi, dst);
  });

  std::swap(ctx->m_pPrevMesh, ctx->m_pOlderMesh);
  buffer->UnlockBuffer();
  *out = buffer.Detach();
  return hr;
}

HRESULT COzmMeshReader::ReadCompressedVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                               IOzmBuffer** out) {
  if (!OZM_ASSERT_MSG(out != nullptr, "ppBuffer") || !ctx || !stream || !header) return E_POINTER;
  float range[6];
  HRESULT hr = ReadDeltaRange(stream, range);
  if (OZM_FAILED(hr)) return hr;
  const uint32_t n = header->m_numVertices;
  if (n > c_MaxMeshElements) {
    OZM_LOGE("ReadCompressedVertices: %u vertices is beyond any mesh", n);
    return E_UNEXPECTED;
  }
  std::vector<uint8_t> deltas;
  hr = ReadBlock(stream, 3ull * n, deltas);
  if (OZM_FAILED(hr)) return hr;
  OZM_ASSERT_MSG(deltas.size() == 3ull * n, "numBytes == bytesRead");
  hr = DecodeDeltas(ctx, header, deltas.data(), static_cast<uint32_t>(deltas.size()), range[0], range[1], range[2],
                    range[3], range[4], range[5], out);
  if (OZM_FAILED(hr)) return hr;
  return ReadNormals(stream, header, *out);
}

}  // namespace Ozm

// --- Transform-delta frames ------------------------------------------------------------------------

namespace Ozm {
namespace {

// Fetches the next 32-bit little-endian word of the block from the stream, only when the bit reader
// needs it, so the stream ends up right after the last word used.
struct StreamWords {
  IStream* stream;
  HRESULT* result;
  bool operator()(uint32_t& word) const {
    uint8_t b[4] = {0, 0, 0, 0};
    unsigned int got = 0;
    const HRESULT hr = stream->Read(b, 4, &got);
    if (OZM_FAILED(hr)) *result = hr;
    word = static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 | static_cast<uint32_t>(b[2]) << 16 |
           static_cast<uint32_t>(b[3]) << 24;
    return OZM_SUCCEEDED(hr) && got == 4;
  }
};
// The same from the unread bytes of a stream in memory, without a call per word.
struct MemoryWords {
  const uint8_t* data;
  uint32_t words;
  uint32_t next = 0;
  bool operator()(uint32_t& word) {
    if (next == words) return false;
    const uint8_t* b = data + 4 * static_cast<size_t>(next++);
    word = static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 | static_cast<uint32_t>(b[2]) << 16 |
           static_cast<uint32_t>(b[3]) << 24;
    return true;
  }
};

template <class Bits>
float ReadFloat(Bits& bits) {
  const uint32_t v = bits.ReadBits(32);
  float f;
  std::memcpy(&f, &v, 4);
  return f;
}

// A rigid transform kept as 16 floats, column by column.
struct Matrix {
  float m[16];
};

template <Layout L, class Bits>
HRESULT DecodeTransformDeltas(Bits& bits, uint32_t n, const std::vector<uint8_t>& transformOf,
                              const std::vector<Matrix>& transforms, uint32_t rigidMask,
                              const std::vector<std::array<float, 3>>& table, const HuffmanDecoder& decoder,
                              __vector4* prev, const SKeyVertex* keys, const float* uvs, const float* lo,
                              const float* hi, uint8_t* out) {
  const uint32_t numDeltas = static_cast<uint32_t>(table.size());
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t t = transformOf[i];
    if (t >= transforms.size()) {
      OZM_LOGE("ReadTransformDeltaVertices: vertex %u uses transform %u of %zu", i, t, transforms.size());
      return E_UNEXPECTED;
    }
    const float* M = transforms[t].m;
    __vector4& p = prev[i];
    float x0 = ((p.z * M[8] + M[12]) + p.y * M[4]) + p.x * M[0];
    float x1 = ((p.z * M[9] + M[13]) + p.y * M[5]) + p.x * M[1];
    float x2 = ((p.z * M[10] + M[14]) + p.y * M[6]) + p.x * M[2];
    if (!(rigidMask >> t & 1)) {
      OZM_ASSERT_MSG(numDeltas > 0, "numDeltas > 0");
      const uint32_t symbol = static_cast<uint32_t>(decoder.DecodeSymbol(bits));
      if (symbol == numDeltas) {
        x0 -= ReadFloat(bits);
        x1 -= ReadFloat(bits);
        x2 -= ReadFloat(bits);
      } else if (symbol < numDeltas) {
        const std::array<float, 3>& d = table[symbol];
        x0 -= d[0];
        x1 -= d[1];
        x2 -= d[2];
      } else {
        OZM_LOGE("ReadTransformDeltaVertices: symbol %u beyond %u deltas", symbol, numDeltas);
        return E_UNEXPECTED;
      }
      if (bits.Exhausted()) break;
    }
    WriteVertex<L>(out, i, Clamp1(x0, lo[0], hi[0]), Clamp1(x1, lo[1], hi[1]), Clamp1(x2, lo[2], hi[2]), keys[i], uvs,
                   lo, hi);
    // The history is updated in place, unclamped.
    p.x = x0;
    p.y = x1;
    p.z = x2;
  }
  return S_OK;
}

}  // namespace

HRESULT COzmMeshReader::ReadTransformDeltaVertices(COzmMeshReaderCtx* ctx, IStream* stream,
                                                   CStreamingMeshHeader* header, IOzmBuffer** out) {
  if (!OZM_ASSERT_MSG(header != nullptr, "pHeader") || !OZM_ASSERT_MSG(out != nullptr, "ppBuffer") || !ctx || !stream) {
    return E_POINTER;
  }
  const uint32_t n = header->m_numVertices;
  if (!ctx->m_pPrevMesh || ctx->m_pPrevMesh->size() != n || ctx->m_pKeyVertices.size() != n) {
    OZM_LOGE("ReadTransformDeltaVertices: no history of %u vertices to move", n);
    return E_UNEXPECTED;
  }
  HRESULT streamResult = S_OK;
  void* memory = nullptr;
  if (OZM_SUCCEEDED(stream->QueryInterface(IID_IOzmMemoryStream, &memory)) && memory) {
    // Read in place, then move the stream past the words used, as reading them one by one would.
    IOzmMemoryStream* bytes = static_cast<IOzmMemoryStream*>(memory);
    uint32_t count = 0;
    const uint8_t* data = bytes->UnreadBytes(&count);
    LazyBitReader<MemoryWords> bits(MemoryWords{data, count / 4});
    const HRESULT hr = DecodeTransformDeltaBlock(ctx, header, bits, streamResult, out);
    const uint64_t used = 4 * bits.WordsFetched();
    bytes->SkipBytes(used < count ? static_cast<uint32_t>(used) : count);
    return hr;
  }
  LazyBitReader<StreamWords> bits(StreamWords{stream, &streamResult});
  return DecodeTransformDeltaBlock(ctx, header, bits, streamResult, out);
}

template <class Bits>
HRESULT COzmMeshReader::DecodeTransformDeltaBlock(COzmMeshReaderCtx* ctx, CStreamingMeshHeader* header, Bits& bits,
                                                  const HRESULT& streamResult, IOzmBuffer** out) {
  const uint32_t n = header->m_numVertices;
  const uint32_t rigidMask = bits.ReadBits(32);
  std::vector<uint8_t> transformOf(n);
  for (uint32_t i = 0; i < n; ++i) transformOf[i] = static_cast<uint8_t>(bits.ReadBits(5));

  // Transform 0 is the identity; the stream gives rows of the others. Only 32 can be addressed.
  const uint32_t count = bits.ReadBits(32);
  std::vector<Matrix> transforms(1, Matrix{{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}});
  for (uint32_t t = 1; t < count && !bits.Exhausted(); ++t) {
    Matrix m{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 4; ++c) m.m[4 * c + r] = ReadFloat(bits);
    }
    if (transforms.size() < 32) transforms.push_back(m);
  }
  const uint32_t numDeltas = bits.ReadBits(9);
  std::vector<std::array<float, 3>> table(numDeltas);
  for (auto& d : table) {
    for (float& f : d) f = ReadFloat(bits);
  }
  std::vector<int> frequencies(numDeltas + 1);
  for (int& f : frequencies) f = static_cast<int>(bits.ReadBits(32));
  if (bits.Exhausted()) {
    OZM_LOGE("ReadTransformDeltaVertices: the block ends inside its tables");
    return OZM_FAILED(streamResult) ? streamResult : E_FAIL;
  }
  HuffmanEncoding::TreeNode* root = nullptr;
  m_scratch.huffman.BuildTree(frequencies, &root);
  if (!root) {
    OZM_LOGE("ReadTransformDeltaVertices: no delta symbols");
    return E_UNEXPECTED;
  }
  const HuffmanDecoder decoder(root);

  OZMCORE::CComPtr<IOzmBuffer> buffer;
  OzmLockedMemory locked{};
  HRESULT hr = AllocateVertices(n, buffer, locked);
  if (OZM_FAILED(hr)) return hr;
  __vector4* prev = ctx->m_pPrevMesh->data();
  const SKeyVertex* keys = ctx->m_pKeyVertices.data();
  const float* lo = header->m_bboxMin;
  const float* hi = header->m_bboxMax;
  const float* uvs = (m_flags & NReaderFlags::c_FloatVertices) ? KeyTexCoords(ctx) : nullptr;
  hr = WithLayout(m_flags, [&](auto layout) {
    return DecodeTransformDeltas<decltype(layout)::value>(bits, n, transformOf, transforms, rigidMask, table, decoder,
                                                          prev, keys, uvs, lo, hi, locked.pData);
  });
  if (OZM_SUCCEEDED(hr) && bits.Exhausted()) {
    OZM_LOGE("ReadTransformDeltaVertices: the block ends before its %u vertices", n);
    hr = OZM_FAILED(streamResult) ? streamResult : E_FAIL;
  }
  buffer->UnlockBuffer();
  if (OZM_FAILED(hr)) return hr;
  *out = buffer.Detach();
  return S_OK;
}

}  // namespace Ozm
