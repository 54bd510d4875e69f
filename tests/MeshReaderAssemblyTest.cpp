#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "OzmCore/MeshFrame.h"
#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/encode/BitWriter.h"
#include "OzmCore/encode/ByteWriter.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "OzmCore/encode/KeyFrameWriter.h"
#include "OzmCore/encode/VertexWriter.h"
#include "platform/host/LogCapture.h"
#include "tests/MeshTestUtil.h"

using Bytes = std::vector<uint8_t>;
using MeshTest::StreamOver;

namespace {

using MeshTest::Reader;

struct Mesh {
  HRESULT hr;
  OZMCORE::CComPtr<IOzmBuffer> vertices, indices;
};

Mesh Read(Ozm::COzmMeshReader& reader, const Bytes& payload, long long timestamp = 0) {
  Mesh m;
  OzmPlatform::ScopedLogCapture quiet;
  m.hr = reader.ReadMesh(payload.empty() ? nullptr : StreamOver(payload).Get(), timestamp, &m.vertices, &m.indices);
  return m;
}

uint32_t U32(IOzmBuffer* b, const _GUID& key) {
  unsigned int v = 0xFFFFFFFF;
  b->GetUINT32(key, &v);
  return v;
}

Bytes KeyFrame(const OzmEncode::Mesh& mesh, int subMeshId = 0, uint32_t frameId = 0) {
  OzmEncode::KeyFrameOptions o;
  o.indexVersion = NWelmStudioIndexVersion::c_VarIntDeltaEncodedIndices;
  o.subMeshId = subMeshId;
  if (frameId) o.frameId = frameId;
  OzmEncode::EncodedKeyFrame k;
  EXPECT_TRUE(OzmEncode::EncodeKeyFrame(mesh, o, &k));
  return k.bytes;
}

// An inter frame coded as plain byte deltas: header, delta range, one byte triple per vertex.
Bytes ByteDeltaFrame(int subMeshId, const float lo[3], const float hi[3], const float range[6], const Bytes& deltas) {
  CStreamingMeshHeader h;
  h.m_Version.v = {NWelmStudioVertexVersion::c_CompressedXYZUV, 0x09, 6, 0};
  h.m_subMeshId = subMeshId;
  std::memcpy(h.m_bboxMin, lo, 12);
  std::memcpy(h.m_bboxMax, hi, 12);
  Bytes out;
  OzmEncode::WriteStreamingMeshHeader(h, out);
  OzmEncode::ByteWriter w(out);
  for (int k = 0; k < 6; ++k) w.F32LE(range[k]);
  w.Bytes(deltas.data(), deltas.size());
  return out;
}

// A temporal mesh whose sub-meshes are the given payloads, identity transforms.
Bytes Temporal(const std::vector<Bytes>& subs, uint32_t vertices, uint32_t indices) {
  CStreamingMeshHeader h;
  h.m_Version.v = {2, 0x01, 7, 0};
  for (int a = 0; a < 3; ++a) {
    h.m_bboxMin[a] = -10;
    h.m_bboxMax[a] = 10;
  }
  h.m_numSubMeshes = static_cast<uint32_t>(subs.size());
  h.m_numVertices = vertices;
  h.m_numIndices = indices;
  h.m_numFaces = indices / 3;
  Bytes out;
  OzmEncode::WriteStreamingMeshHeader(h, out);
  OzmEncode::WriteTransformBlock(std::vector<OzmEncode::TexTransform>(subs.size()), out);
  for (const Bytes& s : subs) out.insert(out.end(), s.begin(), s.end());
  return out;
}

TEST(ReadMesh, FrameIdComesFromTheHeaderOrFromTheTimestampAt30Fps) {
  const OzmEncode::Mesh mesh = MeshTest::Grid(2, 2);
  struct Case {
    uint32_t headerFrameId;
    long long timestamp;
    uint32_t expected;
  };
  for (const Case& c : {Case{0, 0, 1}, Case{0, 333333, 2}, Case{0, 10000000, 31}, Case{42, 10000000, 42}}) {
    Reader r(0x0F);
    const Mesh m = Read(r.reader, KeyFrame(mesh, 0, c.headerFrameId), c.timestamp);
    ASSERT_EQ(m.hr, S_OK);
    EXPECT_EQ(U32(m.vertices, OzmAttrib_FrameId), c.expected) << c.timestamp;
    EXPECT_EQ(U32(m.indices, OzmAttrib_FrameId), c.expected);
    unsigned long long ts = 0;
    m.vertices->GetUINT64(OzmAttrib_FrameTimestamp, &ts);
    EXPECT_EQ(ts, static_cast<unsigned long long>(c.timestamp));
    EXPECT_EQ(U32(m.vertices, OzmAttrib_IsKeyFrame), 1u);
    EXPECT_EQ(U32(m.vertices, OzmAttrib_VertHasNormals), 1u);
    EXPECT_EQ(U32(m.vertices, OzmAttrib_NumVertices), 9u);
  }
}

TEST(ReadMesh, NullStreamGivesTheQuadInEveryFormat) {
  for (unsigned flags : {0x00u, 0x02u, 0x0Du, 0x0Fu}) {
    Reader r(flags);
    Mesh m;
    ASSERT_EQ(r.reader.ReadMesh(nullptr, 0, &m.vertices, &m.indices), S_OK);
    EXPECT_EQ(MeshTest::Indices(m.indices), (std::vector<uint32_t>{0, 1, 3, 3, 1, 2, 0, 3, 1, 3, 2, 1}));
    EXPECT_EQ(MeshTest::Contents(m.vertices).size(), 4u * r.reader.VertexStride());
    EXPECT_EQ(U32(m.vertices, OzmAttrib_IsKeyFrame), 0u);
    EXPECT_EQ(U32(m.vertices, OzmAttrib_NumVertices), 4u);
    EXPECT_EQ(U32(m.vertices, OzmAttrib_NumIndices), 12u);
    EXPECT_EQ(U32(m.vertices, OzmAttrib_FrameId), 1u);
    // The quad is copyable as an engine frame.
    if (flags == 0x0F) {
      Ozm::MeshFrame frame(m.vertices, m.indices, 0);
      std::vector<Ozm::EngineVertex> out(4);
      std::vector<uint32_t> idx(12);
      frame.CopyToNativeBuffers(out.data(), idx.data(), 12, 4, false, true);
      EXPECT_EQ(out[2].x, 1.0f);
      EXPECT_EQ(out[2].v, 1.0f);
    }
  }
}

TEST(ReadMesh, InterFramesPredictFromTheirSubMeshHistory) {
  // Key frame of sub-mesh 5, then byte-delta frames: the first predicts from the key frame's
  // positions, the second extrapolates linearly from the two frames before it.
  OzmEncode::Mesh mesh = MeshTest::Grid(1, 1);
  const OzmEncode::Box box = OzmEncode::BoundsOf(mesh.positions);
  Reader r(0x0A);
  Ozm::COzmMeshReader& reader = r.reader;
  ASSERT_EQ(Read(reader, KeyFrame(mesh, 5)).hr, S_OK);
  const std::vector<Ozm::__vector4> key = *reader.Context(5)->m_pPrevMesh;
  const float lo[3] = {-100, -100, -100}, hi[3] = {100, 100, 100};
  const float range[6] = {-1, -1, -1, 1, 1, 1};
  const Bytes step(12, 255);  // +1 on every axis
  const Mesh first = Read(reader, ByteDeltaFrame(5, lo, hi, range, step));
  ASSERT_EQ(first.hr, S_OK);
  const Mesh second = Read(reader, ByteDeltaFrame(5, lo, hi, range, Bytes(12, 0)));  // -1
  ASSERT_EQ(second.hr, S_OK);
  const std::vector<uint8_t> a = MeshTest::Contents(first.vertices), b = MeshTest::Contents(second.vertices);
  ASSERT_EQ(a.size(), 4u * 32);
  for (size_t i = 0; i < 4; ++i) {
    float pa[3], pb[3];
    std::memcpy(pa, &a[32 * i], 12);
    std::memcpy(pb, &b[32 * i], 12);
    EXPECT_FLOAT_EQ(pa[0], key[i].x + 1);
    EXPECT_FLOAT_EQ(pb[0], key[i].x + 2 - 1);  // 2p - o, then the delta
    EXPECT_EQ(U32(first.vertices, OzmAttrib_IsKeyFrame), 0u);
  }
  // Inter frames share the key frame's index buffer.
  EXPECT_EQ(first.indices.Get(), second.indices.Get());
  (void)box;
}

TEST(ReadMesh, OutputIsClampedToTheBoxButTheHistoryIsNot) {
  OzmEncode::Mesh mesh = MeshTest::Grid(1, 1);
  Reader r(0x0A);
  ASSERT_EQ(Read(r.reader, KeyFrame(mesh)).hr, S_OK);
  const float x0 = (*r.reader.Context(0)->m_pPrevMesh)[0].x;
  const float lo[3] = {-1, -1, -1}, hi[3] = {1, 1, 1};
  const float range[6] = {5, 0, 0, 5, 0, 0};  // every vertex moves 5 along x
  const Mesh m = Read(r.reader, ByteDeltaFrame(0, lo, hi, range, Bytes(12, 0)));
  ASSERT_EQ(m.hr, S_OK);
  float p[3];
  std::memcpy(p, MeshTest::Contents(m.vertices).data(), 12);
  EXPECT_EQ(p[0], 1.0f);
  EXPECT_FLOAT_EQ((*r.reader.Context(0)->m_pPrevMesh)[0].x, x0 + 5);
}

TEST(ReadMesh, BrokenInterFramesFailWithoutTouchingTheHistory) {
  OzmEncode::Mesh mesh = MeshTest::Grid(1, 1);
  const float lo[3] = {-1, -1, -1}, hi[3] = {1, 1, 1}, range[6] = {0, 0, 0, 1, 1, 1};
  struct Case {
    const char* name;
    int subMeshId;
    Bytes deltas;
    HRESULT hr;
  };
  const Case cases[] = {
      {"too few delta bytes", 0, Bytes(11, 1), E_UNEXPECTED},
      {"more delta bytes than vertices is fine", 0, Bytes(20, 1), S_OK},
      {"sub-mesh never seen: no history", 9, Bytes(12, 1), E_POINTER},
  };
  for (const Case& c : cases) {
    Reader r(0x0A);
    ASSERT_EQ(Read(r.reader, KeyFrame(mesh)).hr, S_OK);
    const Mesh m = Read(r.reader, ByteDeltaFrame(c.subMeshId, lo, hi, range, c.deltas));
    EXPECT_EQ(m.hr, c.hr) << c.name;
    EXPECT_EQ(m.vertices.Get() == nullptr, c.hr != S_OK) << c.name;
    EXPECT_EQ(r.reader.Context(0)->m_pOlderMesh == nullptr, c.hr != S_OK) << c.name;
  }
}

// A transform-delta frame for the 4 vertices of a 1 x 1 grid, written field by field.
struct TransformDeltaBlock {
  uint32_t rigidMask = 0;
  std::vector<uint32_t> transformOf = {0, 0, 0, 0};
  uint32_t transforms = 1;
  std::vector<std::array<float, 3>> table;
  std::vector<uint32_t> frequencies = {1};  // table entries, then the escape
  std::vector<uint32_t> codes;              // one-bit codes, one per moving vertex
  std::vector<std::array<float, 3>> escapes;

  Bytes Frame() const {
    CStreamingMeshHeader h;
    h.m_Version.v = {NWelmStudioVertexVersion::c_TransformDeltaXYZUV, 0x01, 6, 0};
    for (int a = 0; a < 3; ++a) {
      h.m_bboxMin[a] = -10;
      h.m_bboxMax[a] = 10;
    }
    Bytes out;
    OzmEncode::WriteStreamingMeshHeader(h, out);
    OzmEncode::WordBitWriter w;
    auto putFloat = [&w](float f) {
      uint32_t bits;
      std::memcpy(&bits, &f, 4);
      w.Put(bits, 32);
    };
    w.Put(rigidMask, 32);
    for (uint32_t t : transformOf) w.Put(t, 5);
    w.Put(transforms, 32);
    w.Put(static_cast<uint32_t>(table.size()), 9);
    for (const auto& d : table) {
      for (float f : d) putFloat(f);
    }
    for (uint32_t f : frequencies) w.Put(f, 32);
    size_t escape = 0;
    for (uint32_t c : codes) {
      w.Put(c, 1);
      if (c == 0 && table.size() == 1) {  // with counts {3, 1} the escape is the left leaf
        for (float f : escapes[escape++]) putFloat(f);
      }
    }
    OzmEncode::ByteWriter bytes(out);
    for (uint32_t word : w.Words()) bytes.U32LE(word);
    return out;
  }
};

TEST(ReadMesh, TransformDeltaFramesMoveTheHistoryAndRejectBrokenTables) {
  struct Case {
    const char* name;
    TransformDeltaBlock block;
    HRESULT hr;
    float dx0, dx3;  // expected change of vertex 0 and 3 along x
  };
  TransformDeltaBlock rigid;
  rigid.rigidMask = 1;  // the identity moves nothing and needs no deltas
  TransformDeltaBlock deltas;  // a table of one delta (symbol 0) and the escape (symbol 1)
  deltas.table = {{{0.5f, 0, 0}}};
  deltas.frequencies = {3, 1};
  deltas.codes = {1, 1, 1, 0};
  deltas.escapes = {{{-2.0f, 0, 0}}};
  TransformDeltaBlock noSymbols;
  noSymbols.rigidMask = 1;
  noSymbols.frequencies = {0};
  TransformDeltaBlock badTransform = rigid;
  badTransform.transformOf = {0, 7, 0, 0};
  const Case cases[] = {
      {"rigid identity", rigid, S_OK, 0, 0},
      {"table delta and escape, subtracted", deltas, S_OK, -0.5f, 2.0f},
      {"no symbols at all", noSymbols, E_UNEXPECTED, 0, 0},
      {"transform beyond the table", badTransform, E_UNEXPECTED, 0, 0},
  };
  for (const Case& c : cases) {
    Reader r(0x0A);
    ASSERT_EQ(Read(r.reader, KeyFrame(MeshTest::Grid(1, 1))).hr, S_OK);
    const std::vector<Ozm::__vector4> before = *r.reader.Context(0)->m_pPrevMesh;
    const Mesh m = Read(r.reader, c.block.Frame());
    EXPECT_EQ(m.hr, c.hr) << c.name;
    if (c.hr != S_OK) continue;
    const std::vector<Ozm::__vector4>& after = *r.reader.Context(0)->m_pPrevMesh;
    EXPECT_FLOAT_EQ(after[0].x, before[0].x + c.dx0) << c.name;
    EXPECT_FLOAT_EQ(after[3].x, before[3].x + c.dx3) << c.name;
    EXPECT_FLOAT_EQ(after[3].y, before[3].y) << c.name;
    const std::vector<uint8_t> vertices = MeshTest::Contents(m.vertices);
    ASSERT_EQ(vertices.size(), 4u * 32);  // written in the reader's layout
    float x3;
    std::memcpy(&x3, &vertices[3 * 32], 4);
    EXPECT_FLOAT_EQ(x3, before[3].x + c.dx3) << c.name;
  }
}

TEST(ReadMesh, TemporalMeshMergesSubMeshesAndDropsThoseThatDisappear) {
  const OzmEncode::Mesh a = MeshTest::Grid(1, 1), b = MeshTest::Grid(2, 1);
  Reader r(0x0A);
  const Mesh both = Read(r.reader, Temporal({KeyFrame(a, 1), KeyFrame(b, 3)}, 4 + 6, 6 + 12));
  ASSERT_EQ(both.hr, S_OK);
  EXPECT_TRUE(r.reader.HasContext(3));
  const std::vector<uint32_t> indices = MeshTest::Indices(both.indices);
  ASSERT_EQ(indices.size(), 18u);
  EXPECT_EQ(*std::max_element(indices.begin(), indices.begin() + 6), 3u);
  EXPECT_EQ(*std::min_element(indices.begin() + 6, indices.end()), 4u);  // rebased past sub-mesh 1
  EXPECT_EQ(*std::max_element(indices.begin() + 6, indices.end()), 9u);

  // The next temporal frame has only sub-mesh 1: the state of 3 is gone.
  ASSERT_EQ(Read(r.reader, Temporal({KeyFrame(a, 1)}, 4, 6)).hr, S_OK);
  EXPECT_TRUE(r.reader.HasContext(1));
  EXPECT_FALSE(r.reader.HasContext(3));

  // A sub-mesh bigger than the frame says is refused, not written past the frame's buffers.
  EXPECT_EQ(Read(r.reader, Temporal({KeyFrame(b, 3)}, 4, 6)).hr, E_UNEXPECTED);
}

}  // namespace
