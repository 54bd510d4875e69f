// Helpers shared by the mesh codec tests: procedural meshes, decoding a key frame, comparisons.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/encode/Mesh.h"

namespace MeshTest {

// A w x h grid of quads in the z = f(x, y) surface, with texture coordinates spanning the grid and
// unit normals.
inline OzmEncode::Mesh Grid(int w, int h, uint32_t seed = 1) {
  OzmEncode::Mesh m;
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> jitter(-0.01f, 0.01f);
  for (int y = 0; y <= h; ++y) {
    for (int x = 0; x <= w; ++x) {
      const float fx = static_cast<float>(x) / w, fy = static_cast<float>(y) / h;
      m.positions.insert(m.positions.end(), {fx * 2 - 1 + jitter(rng), fy * 1.5f, std::sin(fx * 3) * 0.2f});
      m.uvs.insert(m.uvs.end(), {fx, fy});
      const float nz = 1.0f, nx = -std::cos(fx * 3) * 0.3f;
      const float len = std::sqrt(nx * nx + nz * nz);
      m.normals.insert(m.normals.end(), {nx / len, 0.0f, nz / len});
    }
  }
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const uint32_t a = static_cast<uint32_t>(y * (w + 1) + x), b = a + 1, c = a + static_cast<uint32_t>(w) + 1,
                     d = c + 1;
      m.faces.push_back({{a, b, d}});
      m.faces.push_back({{a, d, c}});
    }
  }
  return m;
}

// A reader with its own allocator, producing the given output layout.
struct Reader {
  explicit Reader(unsigned flags) {
    OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
    reader.Initialize(allocator, flags);
  }
  Ozm::COzmMeshReader reader;
};

inline OZMCORE::CComPtr<OzmCrossPlatform::Stream> StreamOver(const std::vector<uint8_t>& bytes) {
  return OZMCORE::CComPtr<OzmCrossPlatform::Stream>(
      OzmCrossPlatform::Stream::CopyOf(bytes.data(), static_cast<uint32_t>(bytes.size())));
}

inline std::vector<uint8_t> Contents(IOzmBuffer* buffer) {
  if (!buffer) return {};
  OzmLockedMemory locked{};
  buffer->LockBuffer(&locked);
  std::vector<uint8_t> bytes(locked.pData, locked.pData + locked.size);
  buffer->UnlockBuffer();
  return bytes;
}

inline std::vector<uint32_t> Indices(IOzmBuffer* buffer) {
  const std::vector<uint8_t> bytes = Contents(buffer);
  std::vector<uint32_t> out(bytes.size() / 4);
  if (!out.empty()) std::memcpy(out.data(), bytes.data(), out.size() * 4);
  return out;
}

struct DecodedKeyFrame {
  HRESULT hr = E_FAIL;
  CStreamingMeshHeader header;
  std::vector<uint8_t> vertices;
  std::vector<uint32_t> indices;
  uint32_t unreadBytes = 0;
};

// Parses the header, then the index and vertex blocks in the order the header says.
inline DecodedKeyFrame DecodeKeyFrame(Ozm::COzmMeshReader& reader, const std::vector<uint8_t>& bytes,
                                      int subMeshId = 0) {
  DecodedKeyFrame d;
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream = StreamOver(bytes);
  d.hr = d.header.Read(stream);
  if (OZM_FAILED(d.hr)) return d;
  Ozm::COzmMeshReaderCtx* ctx = reader.Context(subMeshId);
  OZMCORE::CComPtr<IOzmBuffer> vb, ib;
  if (d.header.m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_IndicesFirst) {
    d.hr = reader.ReadIndices(ctx, stream, &d.header, &ib);
    if (OZM_SUCCEEDED(d.hr)) d.hr = reader.ReadVertices(ctx, stream, &d.header, &vb);
  } else {
    d.hr = reader.ReadVertices(ctx, stream, &d.header, &vb);
    if (OZM_SUCCEEDED(d.hr)) d.hr = reader.ReadIndices(ctx, stream, &d.header, &ib);
  }
  d.vertices = Contents(vb);
  d.indices = Indices(ib);
  d.unreadBytes = stream->GetSize() - stream->GetPosition();
  return d;
}

// The faces as a sorted list of rotations starting at their smallest index, for comparing
// triangle sets regardless of face order and of where each face starts.
inline std::vector<std::array<uint32_t, 3>> Canonical(const std::vector<std::array<uint32_t, 3>>& faces) {
  std::vector<std::array<uint32_t, 3>> out;
  for (auto f : faces) {
    while (!(f[0] <= f[1] && f[0] <= f[2])) f = {f[1], f[2], f[0]};
    out.push_back(f);
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace MeshTest
