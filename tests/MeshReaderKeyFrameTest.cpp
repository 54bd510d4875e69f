#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/Quantization.h"
#include "OzmCore/encode/ByteWriter.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "OzmCore/encode/KeyFrameWriter.h"
#include "OzmCore/encode/VertexWriter.h"
#include "platform/host/LogCapture.h"
#include "tests/MeshTestUtil.h"

using Bytes = std::vector<uint8_t>;
using MeshTest::DecodeKeyFrame;
using MeshTest::StreamOver;

namespace {

using MeshTest::Reader;

// A key-frame header with the given index coding and counts, followed by a hand-made index block.
Bytes IndexFrame(uint8_t flags, uint8_t indexVersion, uint32_t vertices, uint32_t faces, uint32_t indices,
                 const Bytes& block) {
  CStreamingMeshHeader h;
  h.m_Version.v = {2, static_cast<uint8_t>(flags | NWelmStudioFormatFlags::c_IndicesFirst), 5, indexVersion};
  if (flags == NWelmStudioFormatFlags::c_TriangleStrips) h.m_Version.v.m_FormatFlags = flags;
  h.m_numVertices = vertices;
  h.m_numFaces = faces;
  h.m_numIndices = indices;
  Bytes out;
  OzmEncode::WriteStreamingMeshHeader(h, out);
  out.insert(out.end(), block.begin(), block.end());
  return out;
}

Bytes Sized(const Bytes& block) {
  Bytes out;
  OzmEncode::ByteWriter(out).Raw64(static_cast<int64_t>(block.size()));
  out.insert(out.end(), block.begin(), block.end());
  return out;
}

struct IndexRead {
  HRESULT hr;
  std::vector<uint32_t> indices;
  uint32_t triList;
  std::vector<std::string> log;
};

IndexRead ReadIndexBlock(const Bytes& frame) {
  OzmPlatform::ScopedLogCapture log;
  Reader r(0x0F);
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream = StreamOver(frame);
  CStreamingMeshHeader h;
  h.Read(stream);
  OZMCORE::CComPtr<IOzmBuffer> ib;
  IndexRead out{r.reader.ReadIndices(r.reader.Context(0), stream, &h, &ib), MeshTest::Indices(ib), 99, {}};
  if (ib) ib->GetUINT32(OzmAttrib_UseTriList, &out.triList);
  out.log = log.Texts();
  return out;
}

TEST(ReadIndices, HandMadeBlocksDecodeAsTheCodingsSay) {
  using namespace NWelmStudioIndexVersion;
  constexpr uint8_t kList = NWelmStudioFormatFlags::c_TriangleList;
  constexpr uint8_t kStrips = NWelmStudioFormatFlags::c_TriangleStrips;
  struct Case {
    const char* name;
    Bytes frame;
    HRESULT hr;
    std::vector<uint32_t> indices;  // checked on success
    uint32_t triList;
  };
  const std::vector<Case> cases = {
      {"fixed-byte deltas against the previous face",
       IndexFrame(kList, c_FixedByteDeltaEncodedIndices, 5, 2, 6, Sized({0x00, 1, 2, 3, 0x00, 0, 0, 1})), S_OK,
       {1, 2, 3, 1, 2, 4}, 1},
      {"fixed-byte deltas of 2, 3 and 4 bytes",
       IndexFrame(kList, c_FixedByteDeltaEncodedIndices, 70001, 1, 3,
                  Sized({0x39, 0x10, 0x27, 0x70, 0x11, 0x01, 0x05, 0x00, 0x00, 0x00})),
       S_OK, {10000, 70000, 5}, 1},
      {"negative fixed-byte delta",
       IndexFrame(kList, c_FixedByteDeltaEncodedIndices, 9, 2, 6, Sized({0x00, 8, 8, 8, 0x00, 0xFF, 0xFE, 0x00})),
       S_OK, {8, 8, 8, 7, 6, 8}, 1},
      {"varint zig-zag deltas", IndexFrame(kList, c_VarIntDeltaEncodedIndices, 4, 1, 3, Sized({0x02, 0x04, 0x06})),
       S_OK, {1, 2, 3}, 1},
      {"multi-byte varint", IndexFrame(kList, c_VarIntDeltaEncodedIndices, 200, 1, 3, Sized({0x90, 0x01, 0x00, 0x03})),
       S_OK, {72, 0, 0}, 0},  // the third delta (-2) lands below zero: rejected below
      {"raw indices", IndexFrame(kList, c_UncompressedIndices, 3, 1, 3, {2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}), S_OK,
       {2, 0, 1}, 1},
      {"strip deltas are big-endian with a length byte",
       IndexFrame(kStrips, c_FixedByteDeltaEncodedIndices, 8, 2, 4,
                  [] {
                    Bytes b = Sized({1, 5, 2, 0xFF, 0xFE, 1, 1, 4, 0, 0, 0, 1});
                    b.insert(b.begin() + 8, {4, 0, 0, 0});  // the word after the size
                    return b;
                  }()),
       S_OK, {5, 3, 4, 5}, 0},
      {"raw strip", IndexFrame(kStrips, c_UncompressedIndices, 4, 1, 3, {3, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0}), S_OK,
       {3, 1, 2}, 0},
      {"strips with varints are not a thing", IndexFrame(kStrips, c_VarIntDeltaEncodedIndices, 4, 1, 3, Sized({2})),
       E_UNEXPECTED, {}, 0},
      {"unknown index coding", IndexFrame(kList, 9, 4, 1, 3, {}), E_UNEXPECTED, {}, 0},
      {"block ends inside a face",
       IndexFrame(kList, c_FixedByteDeltaEncodedIndices, 5, 2, 6, Sized({0x00, 1, 2, 3, 0x3F, 0, 0})), E_FAIL, {}, 0},
      {"varint runs out", IndexFrame(kList, c_VarIntDeltaEncodedIndices, 5, 1, 3, Sized({0x02, 0x84})), E_FAIL, {}, 0},
      {"varint longer than 32 bits",
       IndexFrame(kList, c_VarIntDeltaEncodedIndices, 5, 1, 3, Sized({0x80, 0x80, 0x80, 0x80, 0x80, 0x01, 0, 0})),
       E_FAIL, {}, 0},
      {"announced size beyond the stream",
       IndexFrame(kList, c_FixedByteDeltaEncodedIndices, 5, 1, 3, {0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0, 0x00, 1}),
       E_FAIL, {}, 0},
      {"index beyond the vertices", IndexFrame(kList, c_UncompressedIndices, 2, 1, 3, {2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}),
       E_UNEXPECTED, {}, 0},
      {"more faces than indices", IndexFrame(kList, c_FixedByteDeltaEncodedIndices, 5, 3, 6, Sized(Bytes(12, 0))),
       E_UNEXPECTED, {}, 0},
      {"counts beyond what the block can hold",
       IndexFrame(kList, c_VarIntDeltaEncodedIndices, 5, 4000000, 12000000, Sized({2, 4, 6})), E_FAIL, {}, 0},
      {"absurd counts", IndexFrame(kList, c_UncompressedIndices, 5, 1, 0xFFFFFFFF, {}), E_UNEXPECTED, {}, 0},
  };
  for (const Case& c : cases) {
    const IndexRead r = ReadIndexBlock(c.frame);
    const HRESULT expected = std::string(c.name) == "multi-byte varint" ? E_UNEXPECTED : c.hr;
    EXPECT_EQ(r.hr, expected) << c.name << ": " << ::testing::PrintToString(r.log);
    if (expected != S_OK) continue;
    EXPECT_EQ(r.indices, c.indices) << c.name;
    EXPECT_EQ(r.triList, c.triList) << c.name;
  }
}

TEST(ReadIndices, RunningOutOfVarintInputLogsBothAssertions) {
  const IndexRead r = ReadIndexBlock(
      IndexFrame(NWelmStudioFormatFlags::c_TriangleList, NWelmStudioIndexVersion::c_VarIntDeltaEncodedIndices, 5, 1,
                 3, Sized({0x02, 0x84, 0x80})));
  EXPECT_EQ(r.hr, E_FAIL);
  ASSERT_EQ(r.log.size(), 2u);
  EXPECT_EQ(r.log[0].rfind("ASSERT FAILED: '!\"Out of input\"' at OzmCore/MeshIndices line ", 0), 0u) << r.log[0];
  EXPECT_EQ(r.log[1].rfind("ASSERT FAILED: '!\"Read past end of buffer. This should never happen!\"'", 0), 0u);
}

// Vertex records dequantise with the box; the key records and history are seeded for inter frames.
TEST(ReadVertices, DequantisesIntoEveryOutputFormat) {
  // Two records (12 bytes each): the box corners and the middle.
  CStreamingMeshHeader h;
  h.m_Version.v = {2, 0x01, 5, 1};
  const float lo[3] = {-1.0f, 0.0f, 2.0f}, hi[3] = {1.0f, 4.0f, 3.0f};
  std::memcpy(h.m_bboxMin, lo, 12);
  std::memcpy(h.m_bboxMax, hi, 12);
  h.m_numVertices = 3;
  h.m_numFaces = 1;
  h.m_numIndices = 3;
  Bytes frame;
  OzmEncode::WriteStreamingMeshHeader(h, frame);
  OzmEncode::ByteWriter w(frame);
  const int16_t records[3][6] = {{-32768, -32768, -32768, 77, -32768, 32767}, {32767, 32767, 32767, 77, 0, 0},
                                 {0, 0, 0, 77, 100, -100}};
  for (const auto& r : records) {
    for (int16_t v : r) w.U16LE(static_cast<uint16_t>(v));
  }
  for (uint32_t i : {0u, 1u, 2u}) w.U32LE(i);

  struct Case {
    unsigned flags;
    uint32_t stride;
  };
  for (const Case& c : {Case{0x00, 12}, Case{0x02, 20}, Case{0x08, 20}, Case{0x0A, 32}}) {
    Reader r(c.flags);
    const MeshTest::DecodedKeyFrame d = DecodeKeyFrame(r.reader, frame);
    ASSERT_EQ(d.hr, S_OK) << c.flags;
    ASSERT_EQ(d.vertices.size(), 3u * c.stride) << c.flags;
    EXPECT_EQ(d.unreadBytes, 0u);
    if (c.flags & 0x08) {
      std::vector<float> f(d.vertices.size() / 4);
      std::memcpy(f.data(), d.vertices.data(), d.vertices.size());
      const size_t k = c.stride / 4;
      EXPECT_EQ(f[0], -1.0f);
      EXPECT_EQ(f[1], 0.0f);
      EXPECT_EQ(f[2], 2.0f);
      EXPECT_EQ(f[k + 0], 1.0f);
      EXPECT_EQ(f[k + 1], 4.0f);
      EXPECT_EQ(f[k + 2], 3.0f);
      EXPECT_GT(f[2 * k], 0.0f);  // q = 0 is just above the middle
      EXPECT_LT(f[2 * k], 1.0f / 65535.0f * 2);
      const size_t uv = k - 2;
      EXPECT_EQ(f[uv], 0.0f);
      EXPECT_EQ(f[uv + 1], 1.0f);
      if (c.flags & 0x02) {  // 12-byte records carry no normal: placeholder (-1, -1, -1)
        EXPECT_EQ(f[3], -1.0f);
        EXPECT_EQ(f[4], -1.0f);
        EXPECT_EQ(f[5], -1.0f);
      }
    } else {
      std::vector<int16_t> s(d.vertices.size() / 2);
      std::memcpy(s.data(), d.vertices.data(), d.vertices.size());
      const size_t k = c.stride / 2;
      EXPECT_EQ(s[2 * k + 0], 0);
      EXPECT_EQ(s[k + 2], 32767);
      EXPECT_EQ(s[3], c.stride == 12 ? 77 : 0);  // records of the output layout are taken as they are
      EXPECT_EQ(s[k - 2], -32768);
      EXPECT_EQ(s[2 * k + k - 1], -100);
      if (c.stride == 20) {
        EXPECT_EQ(s[4], 0);  // the normal area waits for a normals block
      }
    }
    const Ozm::COzmMeshReaderCtx* ctx = r.reader.Context(0);
    ASSERT_NE(ctx->m_pPrevMesh, nullptr);
    EXPECT_EQ(ctx->m_pOlderMesh, nullptr);
    ASSERT_EQ(ctx->m_pPrevMesh->size(), 3u);
    EXPECT_EQ((*ctx->m_pPrevMesh)[1].y, 4.0f);
    ASSERT_EQ(ctx->m_pKeyVertices.size(), 3u);
    // Float output keeps texture coordinates requantised from the floats, by truncation.
    const int tolerance = (c.flags & 0x08) ? 1 : 0;
    EXPECT_NEAR(ctx->m_pKeyVertices[2].u, 100, tolerance) << c.flags;
    EXPECT_NEAR(ctx->m_pKeyVertices[2].v, -100, tolerance) << c.flags;
    EXPECT_EQ(ctx->m_workMesh.size(), 3u);
  }
}

TEST(ReadVertices, EmptyMeshGivesEmptyBufferAndHistory) {
  CStreamingMeshHeader h;
  h.m_Version.v = {2, 0x01, 5, 1};
  Bytes frame;
  OzmEncode::WriteStreamingMeshHeader(h, frame);
  Reader r(0x0A);
  const MeshTest::DecodedKeyFrame d = DecodeKeyFrame(r.reader, frame);
  EXPECT_EQ(d.hr, S_OK);
  EXPECT_TRUE(d.vertices.empty());
  EXPECT_TRUE(d.indices.empty());
  EXPECT_TRUE(r.reader.Context(0)->m_pPrevMesh->empty());
}

// Whole key frames from the encoder: every index coding, both record layouts, every output format,
// both block orders. Positions come back within half a quantisation step, texture coordinates and
// normals likewise, and the triangles are the input's under the encoder's renumbering.
TEST(KeyFrame, EncodeDecodeRoundTripsInEveryConfiguration) {
  const OzmEncode::Mesh mesh = MeshTest::Grid(13, 9);
  const OzmEncode::Box box = OzmEncode::BoundsOf(mesh.positions);
  for (uint8_t indexVersion = 1; indexVersion <= 4; ++indexVersion) {
    for (bool normalsInRecords : {false, true}) {
      for (bool indicesFirst : {false, true}) {
        OzmEncode::KeyFrameOptions options;
        options.indexVersion = indexVersion;
        options.normalsInRecords = normalsInRecords;
        options.indicesFirst = indicesFirst;
        options.frameId = 12;
        OzmEncode::EncodedKeyFrame encoded;
        ASSERT_TRUE(OzmEncode::EncodeKeyFrame(mesh, options, &encoded));
        const std::vector<int>& order = encoded.vertexOrder;

        for (unsigned flags : {0x00u, 0x02u, 0x08u, 0x0Au}) {
          SCOPED_TRACE(::testing::Message() << "index coding " << int(indexVersion) << ", normals "
                                            << normalsInRecords << ", indices first " << indicesFirst
                                            << ", reader flags " << flags);
          Reader r(flags);
          const MeshTest::DecodedKeyFrame d = DecodeKeyFrame(r.reader, encoded.bytes);
          ASSERT_EQ(d.hr, S_OK);
          EXPECT_EQ(d.unreadBytes, 0u);
          EXPECT_EQ(d.header.m_frameId, 12u);
          const uint32_t stride = r.reader.VertexStride();
          ASSERT_EQ(d.vertices.size(), order.size() * stride);

          for (size_t k = 0; k < order.size(); ++k) {
            const size_t i = static_cast<size_t>(order[k]);
            const uint8_t* v = d.vertices.data() + k * stride;
            float p[3], uv[2], n[3] = {0, 0, 0};
            bool hasNormal = false;
            if (flags & 0x08) {
              std::memcpy(p, v, 12);
              std::memcpy(uv, v + stride - 8, 8);
              if (flags & 0x02) {
                std::memcpy(n, v + 12, 12);
                hasNormal = normalsInRecords;
              }
            } else {
              int16_t q[3], s[2];
              std::memcpy(q, v, 6);
              std::memcpy(s, v + stride - 4, 4);
              for (int a = 0; a < 3; ++a) p[a] = Ozm::DequantizePosition(q[a], box.min[a], box.max[a]);
              for (int a = 0; a < 2; ++a) uv[a] = Ozm::DequantizeTexCoord(s[a]);
              if ((flags & 0x02) && normalsInRecords) {
                uint16_t nq[3];
                std::memcpy(nq, v + 8, 6);
                for (int a = 0; a < 3; ++a) n[a] = 2.0f * (nq[a] / 65535.0f) - 1.0f;
                hasNormal = true;
              }
            }
            for (int a = 0; a < 3; ++a) {
              const float step = (box.max[a] - box.min[a]) / 65535.0f;
              ASSERT_NEAR(p[a], mesh.positions[3 * i + a], step * 0.5f + 1e-6f) << "vertex " << k;
              if (hasNormal) {
                ASSERT_NEAR(n[a], mesh.normals[3 * i + a], 2.0f / 65535.0f);
              }
            }
            for (int a = 0; a < 2; ++a) ASSERT_NEAR(uv[a], mesh.uvs[2 * i + a], 1.0f / 65535.0f);
          }

          std::vector<std::array<uint32_t, 3>> expected, got;
          for (const WelmMeshFace& f : mesh.faces) expected.push_back({f.v[0], f.v[1], f.v[2]});
          ASSERT_EQ(d.indices.size(), 3 * mesh.faces.size());
          for (size_t t = 0; t < d.indices.size(); t += 3) {
            got.push_back({static_cast<uint32_t>(order[d.indices[t]]), static_cast<uint32_t>(order[d.indices[t + 1]]),
                           static_cast<uint32_t>(order[d.indices[t + 2]])});
          }
          ASSERT_EQ(MeshTest::Canonical(got), MeshTest::Canonical(expected));
        }
      }
    }
  }
}

TEST(KeyFrame, StripsRoundTripWithBothCodings) {
  const OzmEncode::Mesh mesh = MeshTest::Grid(4, 1);
  const std::vector<uint32_t> strip = {0, 5, 1, 6, 2, 7, 3, 8, 4, 9};
  for (uint8_t version : {uint8_t(1), uint8_t(2)}) {
    OzmEncode::KeyFrameOptions options;
    options.indexVersion = version;
    options.strip = &strip;
    OzmEncode::EncodedKeyFrame encoded;
    ASSERT_TRUE(OzmEncode::EncodeKeyFrame(mesh, options, &encoded));
    Reader r(0x0A);
    const MeshTest::DecodedKeyFrame d = DecodeKeyFrame(r.reader, encoded.bytes);
    ASSERT_EQ(d.hr, S_OK);
    EXPECT_EQ(d.indices, strip);
    EXPECT_EQ(d.header.m_numFaces, 8u);
  }
  OzmEncode::KeyFrameOptions varint;
  varint.indexVersion = 3;
  varint.strip = &strip;
  OzmEncode::EncodedKeyFrame unused;
  EXPECT_FALSE(OzmEncode::EncodeKeyFrame(mesh, varint, &unused));
}

TEST(ReadNormals, FillsTheNormalSlotsOfEachLayoutOnlyWhenAsked) {
  Bytes block;
  OzmEncode::ByteWriter w(block);
  for (uint16_t v : {0, 32768, 65535, 65535, 0, 0}) w.U16LE(v);
  struct Case {
    unsigned flags;
    uint8_t headerFlags;
    uint32_t consumed;
    std::vector<uint8_t> expectedVertex0;  // bytes of the normal slot, empty when untouched
  };
  auto floats = [](std::initializer_list<float> f) {
    Bytes b(f.size() * 4);
    std::memcpy(b.data(), f.begin(), b.size());
    return b;
  };
  const Case cases[] = {
      {0x0A, 0x21, 12, floats({-1.0f, 32768 / 65535.0f * 2 - 1, 1.0f})},
      {0x02, 0x21, 12, {0, 0, 0, 0x80, 0xFF, 0xFF, 0, 0}},
      {0x08, 0x21, 12, {}},  // the reader wants no normals: read and dropped
      {0x0A, 0x01, 0, {}},   // no normals block in the stream
  };
  for (const Case& c : cases) {
    Reader r(c.flags);
    const uint32_t stride = r.reader.VertexStride();
    OZMCORE::CComPtr<OzmCrossPlatform::Buffer> vb(new OzmCrossPlatform::Buffer(2 * stride));
    OzmLockedMemory locked{};
    vb->LockBuffer(&locked);
    std::memset(locked.pData, 0xAA, locked.size);
    CStreamingMeshHeader h;
    h.m_Version.v.m_FormatFlags = c.headerFlags;
    h.m_numVertices = 2;
    OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream = StreamOver(block);
    EXPECT_EQ(r.reader.ReadNormals(stream, &h, vb), S_OK);
    EXPECT_EQ(stream->GetPosition(), c.consumed) << c.flags;
    const size_t slot = (c.flags & 0x08) ? 12 : 8;
    const Bytes got(locked.pData + slot, locked.pData + slot + (c.expectedVertex0.empty() ? 4 : c.expectedVertex0.size()));
    if (c.expectedVertex0.empty()) {
      EXPECT_EQ(got, Bytes(4, 0xAA)) << c.flags;
    } else {
      EXPECT_EQ(got, c.expectedVertex0) << c.flags;
    }
  }
}

TEST(ReadTransforms, InvertsTheStoredMappingAsTheDecoderExpects) {
  Bytes block;
  OzmEncode::ByteWriter w(block);
  w.U8(2);  // identity, one byte
  w.U8(1);
  for (float f : {2.0f, 0.0f, 0.0f, 2.0f, 0.0f, 0.0f}) w.F32LE(f);
  w.U8(1);
  for (float f : {1.0f, 0.0f, 0.0f, 1.0f, 0.25f, 0.5f}) w.F32LE(f);
  w.U8(0);
  CStreamingMeshHeader h;
  h.m_numSubMeshes = 4;
  Reader r(0x0A);
  std::vector<Ozm::STransform> t;
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream = StreamOver(block);
  ASSERT_EQ(r.reader.ReadTransforms(stream, h, &t), S_OK);
  ASSERT_EQ(t.size(), 4u);
  EXPECT_EQ(stream->GetPosition(), block.size());
  EXPECT_EQ(t[0].m00, 1.0f);
  EXPECT_EQ(t[0].m11, 1.0f);
  EXPECT_EQ(t[1].m00, 0.5f);
  EXPECT_EQ(t[1].m11, 0.125f);  // divided twice: kept as the format has it
  EXPECT_EQ(t[2].tx, -0.25f);
  EXPECT_EQ(t[2].ty, -0.5f);
  EXPECT_EQ(t[3].m00, 1.0f);

  // A corrupt count against a short stream ends with a failure, not billions of identities.
  OzmPlatform::ScopedLogCapture quiet;
  h.m_numSubMeshes = 0xFFFFFFF0;
  std::vector<Ozm::STransform> many;
  EXPECT_EQ(r.reader.ReadTransforms(StreamOver({2, 2}), h, &many), E_FAIL);
  EXPECT_EQ(many.size(), 2u);
}

}  // namespace
