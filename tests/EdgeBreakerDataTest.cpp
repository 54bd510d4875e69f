// The EdgeBreaker codec on the bunny and its Loop-subdivided versions (scripts/test-data.sh makes
// them): exact round trips, the bit rate, vertex splits, and the decoder's speed.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "OzmCore/EdgeBreaker.h"
#include "tests/EdgeBreakerCheck.h"
#include "tests/data/TestMeshFiles.h"

namespace {

using Clock = std::chrono::steady_clock;

double Milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Reads a generated file; a missing one fails the test (or skips it where that is allowed).
#define READ_OR_STOP(reader, path, out)                                                      \
  do {                                                                                       \
    if (!TestMeshFiles::reader(path, &(out))) {                                              \
      if (TestMeshFiles::MissingDataAllowed()) GTEST_SKIP() << "no test data at " << (path); \
      FAIL() << "no test data at " << (path) << ": run scripts/test-data.sh "                \
             << "(or set OZM_ALLOW_MISSING_TEST_DATA=1 to skip)";                            \
    }                                                                                        \
  } while (0)

std::vector<WelmMeshFace> Faces(const TestMeshFiles::Mesh& mesh) {
  std::vector<WelmMeshFace> faces;
  faces.reserve(mesh.faces.size());
  for (const auto& f : mesh.faces) faces.push_back(WelmMeshFace{{f[0], f[1], f[2]}});
  return faces;
}

class EdgeBreakerOnBunny : public testing::TestWithParam<const char*> {};

TEST_P(EdgeBreakerOnBunny, RoundTripsAtAboutTwoBitsPerTriangleWithoutSplits) {
  TestMeshFiles::Mesh mesh;
  READ_OR_STOP(ReadMesh, TestMeshFiles::Folder() + "/" + GetParam(), mesh);
  const std::vector<WelmMeshFace> faces = Faces(mesh);

  EdgeBreaker::CEdgeBreaker codec;
  std::vector<int> order;
  std::vector<uint8_t> bits;
  const auto t0 = Clock::now();
  ASSERT_TRUE(codec.Compress(faces, &order, &bits));
  const auto t1 = Clock::now();
  std::vector<WelmMeshFace> decoded;
  constexpr int kRuns = 5;
  for (int run = 0; run < kRuns; ++run) {
    decoded.clear();
    std::vector<uint8_t> stream = bits;
    ASSERT_TRUE(codec.Decompress(stream, &decoded));
  }
  const auto t2 = Clock::now();

  EXPECT_EQ(EdgeBreakerCheck::CompareWithInput(faces, decoded, order), "");
  // The bunny is closed and of genus 0: one edge opens it, and no vertex needs to be split.
  const size_t splits = EdgeBreakerCheck::SplitVertices(faces, order);
  EXPECT_EQ(splits, 0u);
  const double bitsPerTriangle = 8.0 * bits.size() / faces.size();
  EXPECT_LE(bitsPerTriangle, 2.1);
  std::printf("  %s: %zu triangles, %.4f bits/triangle, %zu split vertices, encode %.1f ms, decode %.2f ms\n",
              GetParam(), faces.size(), bitsPerTriangle, splits, Milliseconds(t1 - t0), Milliseconds(t2 - t1) / kRuns);
}

INSTANTIATE_TEST_SUITE_P(Meshes, EdgeBreakerOnBunny,
                         testing::Values("bunny.mesh", "bunny-loop2.mesh", "bunny-loop3.mesh"),
                         [](const testing::TestParamInfo<const char*>& param) {
                           const std::string name = param.param;
                           return name == "bunny.mesh" ? std::string("Bunny")
                                                       : "Loop" + name.substr(name.size() - 6, 1);
                         });

TEST(TestData, AnimationKeepsTheBunnysTopologyAndMovesSmoothly) {
  TestMeshFiles::Mesh bunny;
  READ_OR_STOP(ReadMesh, TestMeshFiles::Folder() + "/bunny.mesh", bunny);
  TestMeshFiles::Animation anim;
  READ_OR_STOP(ReadAnimation, TestMeshFiles::Folder() + "/bunny-anim.anim", anim);
  ASSERT_EQ(anim.frames.size(), 300u);
  ASSERT_EQ(anim.vertexCount, bunny.positions.size());
  EXPECT_EQ(anim.faces, bunny.faces);
  // Neighbouring frames differ by little; frames half a period apart by a lot.
  auto largestMove = [&](size_t a, size_t b) {
    float most = 0;
    for (size_t v = 0; v < anim.vertexCount; ++v) {
      for (int i = 0; i < 3; ++i) most = std::max(most, std::abs(anim.Position(a, v)[i] - anim.Position(b, v)[i]));
    }
    return most;
  };
  const float height = anim.boxMax[1] - anim.boxMin[1];
  EXPECT_LT(largestMove(10, 11), 0.02f * height);
  EXPECT_LT(largestMove(299, 0), 0.02f * height);  // it loops
  EXPECT_GT(largestMove(75, 225), 0.1f * height);
}

}  // namespace
