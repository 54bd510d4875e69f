#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "OzmCore/MeshFrame.h"
#include "OzmCore/OzmAttributes.h"
#include "platform/host/LogCapture.h"

using Ozm::EngineVertex;
using Ozm::MeshFrame;

namespace {

OZMCORE::CComPtr<IOzmBuffer> BufferOf(const void* data, size_t bytes) {
  OZMCORE::CComPtr<IOzmBuffer> b(new OzmCrossPlatform::Buffer(static_cast<unsigned>(bytes)));
  OzmLockedMemory locked{};
  b->LockBuffer(&locked);
  if (bytes) std::memcpy(locked.pData, data, bytes);
  return b;
}

// A frame whose decoded vertices are the given floats (stride floats per vertex).
MeshFrame Frame(const std::vector<float>& vertices, const std::vector<uint32_t>& indices, uint32_t numVertices,
                uint32_t numIndices) {
  OZMCORE::CComPtr<IOzmBuffer> vb = BufferOf(vertices.data(), vertices.size() * 4);
  OZMCORE::CComPtr<IOzmBuffer> ib = BufferOf(indices.data(), indices.size() * 4);
  vb->SetUINT32(OzmAttrib_NumVertices, numVertices);
  vb->SetUINT32(OzmAttrib_NumIndices, numIndices);
  vb->SetUINT32(OzmAttrib_FrameId, 77);
  vb->SetUINT32(OzmAttrib_IsKeyFrame, 1);
  vb->SetDouble(OzmAttrib_BBoxMinY, -2.5);
  vb->SetDouble(OzmAttrib_BBoxMaxZ, 4.0);
  return MeshFrame(vb, ib, 123456789);
}

std::vector<float> EngineVertices(uint32_t n) {
  std::vector<float> v(8 * n);
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(i);
  return v;
}

TEST(MeshFrame, ReadsItsAttributesFromTheVertexBuffer) {
  MeshFrame f = Frame(EngineVertices(4), {0, 1, 2}, 4, 3);
  EXPECT_EQ(f.NumVertices(), 4u);
  EXPECT_EQ(f.NumIndices(), 3u);
  EXPECT_EQ(f.FrameId(), 77u);
  EXPECT_TRUE(f.IsKeyFrame());
  EXPECT_EQ(f.BBoxMin()[1], -2.5);
  EXPECT_EQ(f.BBoxMax()[2], 4.0);
  EXPECT_EQ(f.BBoxMin()[0], 0.0);  // missing attributes stay zero
  EXPECT_EQ(f.Timestamp(), 123456789);
}

TEST(MeshFrame, CopiesIndicesPaddingAndVerticesUpToTheCapacities) {
  struct Case {
    uint32_t indexCapacity, vertexCapacity;
    bool updateIndices;
    uint32_t indexBytes, zeroBytes, vertexBytes;
  };
  const Case cases[] = {
      {12, 10, true, 24, 24, 128},  // room to spare: the rest of the index buffer becomes degenerate
      {4, 2, true, 16, 0, 64},      // capacities smaller than the frame: cut
      {12, 10, false, 0, 0, 128},   // indices unchanged since the last frame
      {0, 0, true, 0, 0, 0},
  };
  for (const Case& c : cases) {
    MeshFrame f = Frame(EngineVertices(4), {1, 2, 3, 3, 2, 0}, 4, 6);
    std::vector<uint8_t> vmem(400, 0xEE), imem(100, 0xEE);
    f.CopyToNativeBuffers(vmem.data(), imem.data(), c.indexCapacity, c.vertexCapacity, false, c.updateIndices);
    const uint32_t expected[6] = {1, 2, 3, 3, 2, 0};
    EXPECT_EQ(std::memcmp(imem.data(), expected, c.indexBytes), 0);
    for (uint32_t i = c.indexBytes; i < c.indexBytes + c.zeroBytes; ++i) ASSERT_EQ(imem[i], 0) << i;
    for (uint32_t i = c.indexBytes + c.zeroBytes; i < imem.size(); ++i) ASSERT_EQ(imem[i], 0xEE) << i;
    const std::vector<float> source = EngineVertices(4);
    EXPECT_EQ(std::memcmp(vmem.data(), source.data(), c.vertexBytes), 0);
    for (uint32_t i = c.vertexBytes; i < vmem.size(); ++i) ASSERT_EQ(vmem[i], 0xEE) << i;
    EXPECT_TRUE(f.Copied());
  }
}

TEST(MeshFrame, IsCopiedAtMostOnce) {
  MeshFrame f = Frame(EngineVertices(4), {0, 1, 2}, 4, 3);
  std::vector<uint8_t> vmem(128), imem(12);
  f.CopyToNativeBuffers(vmem.data(), imem.data(), 3, 4, false, true);
  std::vector<uint8_t> again(128, 0xEE), againIdx(12, 0xEE);
  f.CopyToNativeBuffers(again.data(), againIdx.data(), 3, 4, false, true);
  EXPECT_EQ(again, std::vector<uint8_t>(128, 0xEE));
  EXPECT_EQ(againIdx, std::vector<uint8_t>(12, 0xEE));
}

TEST(MeshFrame, ComputesAreaWeightedNormalsAndSkipsBadTriangles) {
  OzmPlatform::ScopedLogCapture log;
  // x, y, z, u, v: a right triangle in the z = 0 plane, a larger one tilted, and an unused vertex.
  const std::vector<float> plain = {0, 0, 0, 0.1f, 0.2f,  1, 0, 0, 0.3f, 0.4f, 0, 1, 0, 0.5f, 0.6f,
                                    0, 0, 2, 0.7f, 0.8f, 9, 9, 9, 0.9f, 1.0f};
  MeshFrame f = Frame(plain, {0, 1, 2, 0, 1, 7, 0, 3, 1}, 5, 9);
  std::vector<EngineVertex> out(5);
  std::vector<uint32_t> indices(9);
  f.CopyToNativeBuffers(out.data(), indices.data(), 9, 5, true, true);

  ASSERT_EQ(log.Texts(), std::vector<std::string>{"Out of bounds in normal calculation at 0: 1 7 limit 5"});
  EXPECT_EQ(log.Lines()[0].priority, OzmPlatform::kLogWarn);
  EXPECT_EQ(indices[5], 7u);  // indices are copied as they are
  // Vertex 2 only touches the first triangle: (0, 0, 1).
  EXPECT_FLOAT_EQ(out[2].nx, 0);
  EXPECT_FLOAT_EQ(out[2].ny, 0);
  EXPECT_FLOAT_EQ(out[2].nz, 1);
  // Vertex 3 only the last: (B - A) x (C - A) with A = 0, B = (0, 0, 2), C = (1, 0, 0) is (0, 2, 0).
  EXPECT_FLOAT_EQ(out[3].ny, 1);
  // Vertex 0 sums (0, 0, 1) and (0, 2, 0): the larger triangle weighs more.
  EXPECT_FLOAT_EQ(out[0].ny, 2 / std::sqrt(5.0f));
  EXPECT_FLOAT_EQ(out[0].nz, 1 / std::sqrt(5.0f));
  EXPECT_TRUE(std::isnan(out[4].nx));  // used by no triangle
  EXPECT_FLOAT_EQ(out[1].u, 0.3f);
  EXPECT_FLOAT_EQ(out[1].v, 0.4f);
}

TEST(MeshFrame, NeverReadsPastBuffersSmallerThanTheirAttributesClaim) {
  // Attributes claim 1000 vertices and 3000 indices; the buffers hold 2 and 3.
  MeshFrame f = Frame(EngineVertices(2), {0, 1, 1}, 1000, 3000);
  std::vector<EngineVertex> out(1000);
  std::vector<uint32_t> indices(3000, 0xEEEEEEEE);
  f.CopyToNativeBuffers(out.data(), indices.data(), 3000, 1000, false, true);
  EXPECT_EQ(indices[2], 1u);
  EXPECT_EQ(indices[3], 0u);
  MeshFrame g = Frame(EngineVertices(2), {0, 1, 1}, 1000, 3000);
  g.CopyToNativeBuffers(out.data(), indices.data(), 3000, 1000, true, true);
}

}  // namespace
