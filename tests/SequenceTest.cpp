#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/Quantization.h"
#include "OzmCore/encode/SequenceEncoder.h"
#include "platform/host/LogCapture.h"
#include "tests/MeshTestUtil.h"
#include "tests/data/TestMeshFiles.h"

using OzmEncode::InterCoding;

namespace {

// A deforming mesh: two separate grids (so temporal meshes have two sub-meshes), waving and drifting
// over time, with normals that follow the surface roughly.
OzmEncode::Mesh AnimatedFrame(int t) {
  OzmEncode::Mesh a = MeshTest::Grid(12, 8, 3), b = MeshTest::Grid(6, 6, 4);
  const float time = static_cast<float>(t) / 30.0f;
  auto animate = [time](OzmEncode::Mesh& m, float shift, float speed) {
    for (size_t i = 0; i < m.VertexCount(); ++i) {
      float* p = &m.positions[3 * i];
      p[0] += shift + 0.05f * time;
      p[2] += 0.15f * std::sin(3.0f * p[0] + speed * time) * std::cos(2.0f * p[1] + time);
      p[1] += 0.02f * std::sin(speed * time);
    }
  };
  animate(a, 0.0f, 2.0f);
  animate(b, 3.0f, 5.0f);
  // b's texture coordinates live in the right half of the texture, a's in the left.
  for (float& u : a.uvs) u *= 0.5f;
  for (size_t i = 0; i < b.uvs.size(); i += 2) b.uvs[i] = 0.5f + 0.5f * b.uvs[i];
  const uint32_t offset = static_cast<uint32_t>(a.VertexCount());
  a.positions.insert(a.positions.end(), b.positions.begin(), b.positions.end());
  a.uvs.insert(a.uvs.end(), b.uvs.begin(), b.uvs.end());
  a.normals.insert(a.normals.end(), b.normals.begin(), b.normals.end());
  for (WelmMeshFace f : b.faces) {
    for (uint32_t& v : f.v) v += offset;
    a.faces.push_back(f);
  }
  return a;
}

struct Decoded {
  std::vector<float> positions, uvs, normals;  // per output vertex
  bool hasNormals = false;
};

// Reads the output vertices in any layout back as floats, with the frame's box for 16-bit ones.
Decoded Unpack(IOzmBuffer* vb, unsigned flags) {
  const std::vector<uint8_t> bytes = MeshTest::Contents(vb);
  double lo[3], hi[3];
  const _GUID* mins[3] = {&OzmAttrib_BBoxMinX, &OzmAttrib_BBoxMinY, &OzmAttrib_BBoxMinZ};
  const _GUID* maxs[3] = {&OzmAttrib_BBoxMaxX, &OzmAttrib_BBoxMaxY, &OzmAttrib_BBoxMaxZ};
  for (int a = 0; a < 3; ++a) {
    vb->GetDouble(*mins[a], &lo[a]);
    vb->GetDouble(*maxs[a], &hi[a]);
  }
  const bool floats = flags & 0x08, normals = flags & 0x02;
  const size_t stride = floats ? (normals ? 32 : 20) : (normals ? 20 : 12);
  Decoded d;
  d.hasNormals = normals;
  for (size_t off = 0; off + stride <= bytes.size(); off += stride) {
    const uint8_t* v = &bytes[off];
    if (floats) {
      float f[8];
      std::memcpy(f, v, stride);
      d.positions.insert(d.positions.end(), f, f + 3);
      if (normals) d.normals.insert(d.normals.end(), f + 3, f + 6);
      d.uvs.insert(d.uvs.end(), {f[stride / 4 - 2], f[stride / 4 - 1]});
    } else {
      int16_t s[10];
      std::memcpy(s, v, stride);
      for (int a = 0; a < 3; ++a) {
        d.positions.push_back(Ozm::DequantizePosition(s[a], static_cast<float>(lo[a]), static_cast<float>(hi[a])));
      }
      if (normals) {
        for (int a = 0; a < 3; ++a) d.normals.push_back(2.0f * (static_cast<uint16_t>(s[4 + a]) / 65535.0f) - 1.0f);
      }
      d.uvs.push_back(Ozm::DequantizeTexCoord(s[stride / 2 - 2]));
      d.uvs.push_back(Ozm::DequantizeTexCoord(s[stride / 2 - 1]));
    }
  }
  return d;
}

// Encodes the frames and decodes them into every output layout with a fresh reader: each frame stays
// within its quantisation error (the error of the frame before does not carry over), texture
// coordinates and normals come back, every index is there.
void CheckSequence(const std::vector<OzmEncode::Mesh>& frames, const OzmEncode::SequenceOptions& options) {
  OzmEncode::SequenceEncoder encoder(options);
  const int count = static_cast<int>(frames.size());
  std::vector<OzmEncode::EncodedFrame> encoded(frames.size());
  for (int t = 0; t < count; ++t) {
    ASSERT_TRUE(encoder.Encode(frames[t], static_cast<uint32_t>(t + 1), &encoded[t])) << "frame " << t;
    EXPECT_EQ(encoded[t].keyFrame, t % options.keyFrameInterval == 0) << t;
    ASSERT_LE(encoded[t].maxError, encoded[t].step * 0.5 + 1e-5) << "frame " << t;
  }
  const bool temporal = options.temporalSubMeshes;
  for (unsigned flags : {0x00u, 0x02u, 0x08u, 0x0Au}) {
    SCOPED_TRACE(::testing::Message() << "reader flags " << flags);
    OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
    Ozm::COzmMeshReader reader;
    reader.Initialize(allocator, flags);
    for (int t = 0; t < count; ++t) {
      const OzmEncode::EncodedFrame& e = encoded[t];
      OZMCORE::CComPtr<IOzmBuffer> vb, ib;
      ASSERT_EQ(reader.ReadMesh(MeshTest::StreamOver(e.payload), t * 333333, &vb, &ib), S_OK) << t;
      const Decoded d = Unpack(vb, flags);
      ASSERT_EQ(d.positions.size(), 3 * e.sourceVertex.size()) << t;
      const OzmEncode::Mesh& src = frames[t];
      const OzmEncode::Box box = OzmEncode::BoundsOf(src.positions);
      double boxStep = 0;
      for (int a = 0; a < 3; ++a) boxStep = std::max<double>(boxStep, (box.max[a] - box.min[a]) / 65535.0);
      // 16-bit output is requantised into a frame's box (twice for merged sub-meshes), by truncation.
      const double tolerance = e.step * 0.5 + 1e-5 + (flags & 0x08 ? 0 : (temporal ? 3 : 2) * boxStep);
      double worst = 0;
      const bool normalsKept =
          options.normals && d.hasNormals && !temporal && (e.keyFrame || e.coding != InterCoding::TransformDelta);
      for (size_t k = 0; k < e.sourceVertex.size(); ++k) {
        const uint32_t v = e.sourceVertex[k];
        for (int a = 0; a < 3; ++a) {
          worst = std::max<double>(worst, std::fabs(d.positions[3 * k + a] - src.positions[3 * v + a]));
        }
        for (int a = 0; a < 2; ++a) ASSERT_NEAR(d.uvs[2 * k + a], src.uvs[2 * v + a], 5e-4) << t << " " << k;
        if (normalsKept) {
          for (int a = 0; a < 3; ++a) ASSERT_NEAR(d.normals[3 * k + a], src.normals[3 * v + a], 1e-4) << t;
        }
      }
      ASSERT_LE(worst, tolerance) << "frame " << t;
      ASSERT_EQ(MeshTest::Indices(ib).size(), 3 * src.faces.size());
    }
  }
}

std::string Describe(const OzmEncode::SequenceOptions& o) {
  return "coding " + std::to_string(static_cast<int>(o.inter)) + (o.normals ? ", normals" : "") +
         (o.temporalSubMeshes ? ", temporal" : "");
}

// Every inter coding, with and without normals, as plain and as temporal meshes.
TEST(Sequence, EveryCodingRoundTripsIntoEveryLayoutWithinTheQuantisationStep) {
  std::vector<OzmEncode::Mesh> frames;
  for (int t = 0; t < 45; ++t) frames.push_back(AnimatedFrame(t));
  for (InterCoding coding : {InterCoding::ByteDelta, InterCoding::Golomb, InterCoding::Huffman,
                             InterCoding::TransformDelta, InterCoding::Auto}) {
    for (bool normals : {false, true}) {
      for (bool temporal : {false, true}) {
        OzmEncode::SequenceOptions options;
        options.inter = coding;
        options.normals = normals;
        options.temporalSubMeshes = temporal;
        options.keyFrameInterval = 20;
        options.indexVersion = temporal ? 3 : 4;
        SCOPED_TRACE(Describe(options));
        CheckSequence(frames, options);
      }
    }
  }
}

// The deforming bunny of the test data, 300 frames: texture coordinates by a spherical projection,
// normals from the triangles of each frame.
std::vector<OzmEncode::Mesh> BunnyFrames() {
  TestMeshFiles::Animation anim;
  if (!TestMeshFiles::ReadAnimation(TestMeshFiles::Folder() + "/bunny-anim.anim", &anim)) return {};
  std::vector<OzmEncode::Mesh> frames(anim.frames.size());
  for (size_t f = 0; f < anim.frames.size(); ++f) {
    OzmEncode::Mesh& m = frames[f];
    for (size_t v = 0; v < anim.vertexCount; ++v) {
      const std::array<float, 3> p = anim.Position(f, v);
      m.positions.insert(m.positions.end(), p.begin(), p.end());
      const std::array<float, 3> p0 = anim.Position(0, v);  // texture fixed to the surface
      const float cx = p0[0] - 0.5f * (anim.boxMin[0] + anim.boxMax[0]);
      const float cy = p0[1] - 0.5f * (anim.boxMin[1] + anim.boxMax[1]);
      const float cz = p0[2] - 0.5f * (anim.boxMin[2] + anim.boxMax[2]);
      const float r = std::sqrt(cx * cx + cy * cy + cz * cz) + 1e-9f;
      m.uvs.push_back(0.5f + std::atan2(cz, cx) / (2 * 3.14159265f));
      m.uvs.push_back(std::acos(std::max(-1.0f, std::min(1.0f, cy / r))) / 3.14159265f);
    }
    for (const auto& face : anim.faces) m.faces.push_back({{face[0], face[1], face[2]}});
    m.normals.assign(m.positions.size(), 0.0f);
    for (const WelmMeshFace& face : m.faces) {
      const float* a = &m.positions[3 * face.v[0]];
      const float* b = &m.positions[3 * face.v[1]];
      const float* c = &m.positions[3 * face.v[2]];
      const float e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, e2[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
      const float n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
      for (uint32_t v : face.v) {
        for (int k = 0; k < 3; ++k) m.normals[3 * v + k] += n[k];
      }
    }
    for (size_t v = 0; v < anim.vertexCount; ++v) {
      float* n = &m.normals[3 * v];
      const float len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
      for (int k = 0; k < 3; ++k) n[k] = len > 0 ? n[k] / len : (k == 2 ? 1.0f : 0.0f);
    }
  }
  return frames;
}

TEST(Sequence, DeformingBunnyRoundTripsInEveryCodingAndLayout) {
  const std::vector<OzmEncode::Mesh> frames = BunnyFrames();
  if (frames.empty()) {
    if (TestMeshFiles::MissingDataAllowed()) GTEST_SKIP() << "no test data in " << TestMeshFiles::Folder();
    FAIL() << "no test data in " << TestMeshFiles::Folder() << ": run scripts/test-data.sh";
  }
  ASSERT_EQ(frames.size(), 300u);
  for (InterCoding coding : {InterCoding::ByteDelta, InterCoding::Golomb, InterCoding::Huffman,
                             InterCoding::TransformDelta, InterCoding::Auto}) {
    for (bool normals : {false, true}) {
      OzmEncode::SequenceOptions options;
      options.inter = coding;
      options.normals = normals;
      options.keyFrameInterval = 30;
      SCOPED_TRACE(Describe(options));
      CheckSequence(frames, options);
    }
  }
  OzmEncode::SequenceOptions temporal;
  temporal.temporalSubMeshes = true;
  temporal.inter = InterCoding::Auto;
  SCOPED_TRACE(Describe(temporal));
  CheckSequence(frames, temporal);
}

TEST(Sequence, TopologyChangesForceAKeyFrame) {
  OzmEncode::SequenceOptions options;
  options.inter = InterCoding::Huffman;
  OzmEncode::SequenceEncoder encoder(options);
  OzmEncode::EncodedFrame e;
  ASSERT_TRUE(encoder.Encode(MeshTest::Grid(4, 4), 1, &e));
  EXPECT_TRUE(e.keyFrame);
  ASSERT_TRUE(encoder.Encode(MeshTest::Grid(4, 4), 2, &e));
  EXPECT_FALSE(e.keyFrame);
  ASSERT_TRUE(encoder.Encode(MeshTest::Grid(5, 4), 3, &e));
  EXPECT_TRUE(e.keyFrame);
  OzmEncode::Mesh broken = MeshTest::Grid(2, 2);
  broken.faces[0].v[1] = 1000;
  EXPECT_FALSE(encoder.Encode(broken, 4, &e));
}


// A ball of rings x segments quads between two poles, scaled per axis (an ellipsoid), with texture
// coordinates by latitude and longitude.
OzmEncode::Mesh Ball(int rings, int segments, const std::array<float, 3>& radii) {
  OzmEncode::Mesh m;
  const float pi = 3.14159265f;
  for (int r = 0; r <= rings; ++r) {
    const float lat = pi * static_cast<float>(r) / static_cast<float>(rings);
    for (int k = 0; k < segments; ++k) {
      const float lon = 2 * pi * static_cast<float>(k) / static_cast<float>(segments);
      const float n[3] = {std::sin(lat) * std::cos(lon), std::cos(lat), std::sin(lat) * std::sin(lon)};
      m.positions.insert(m.positions.end(), {radii[0] * n[0], radii[1] * n[1], radii[2] * n[2]});
      m.uvs.insert(m.uvs.end(), {static_cast<float>(k) / static_cast<float>(segments),
                                 static_cast<float>(r) / static_cast<float>(rings)});
      m.normals.insert(m.normals.end(), n, n + 3);
    }
  }
  for (int r = 0; r < rings; ++r) {
    for (int k = 0; k < segments; ++k) {
      const uint32_t a = static_cast<uint32_t>(r * segments + k);
      const uint32_t b = static_cast<uint32_t>(r * segments + (k + 1) % segments);
      const uint32_t c = a + static_cast<uint32_t>(segments), d = b + static_cast<uint32_t>(segments);
      m.faces.push_back({{a, c, d}});
      m.faces.push_back({{a, d, b}});
    }
  }
  return m;
}

// Rotation by angle about a unit axis, applied to p, then a translation.
std::array<float, 3> RotateMove(const std::array<float, 3>& p, const std::array<float, 3>& axis, float angle,
                                const std::array<float, 3>& move) {
  const float c = std::cos(angle), s = std::sin(angle);
  const float d = axis[0] * p[0] + axis[1] * p[1] + axis[2] * p[2];
  const std::array<float, 3> x = {axis[1] * p[2] - axis[2] * p[1], axis[2] * p[0] - axis[0] * p[2],
                                  axis[0] * p[1] - axis[1] * p[0]};
  std::array<float, 3> out;
  for (int a = 0; a < 3; ++a) out[a] = p[a] * c + x[a] * s + axis[a] * d * (1 - c) + move[a];
  return out;
}

// Four separate rigid pieces (ellipsoids), each turning about its own axis and drifting at its own,
// uneven pace: the motion of a rigid body, which linear prediction does not follow exactly.
std::vector<OzmEncode::Mesh> RigidPieces(int count) {
  struct Piece {
    std::array<float, 3> radii, centre, axis, drift;
    float spin;
  };
  const Piece pieces[] = {
      {{0.5f, 0.3f, 0.2f}, {-1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}, {0.010f, 0.002f, 0.0f}, 0.05f},
      {{0.3f, 0.6f, 0.3f}, {1.0f, 0.2f, 0.0f}, {0.6f, 0.0f, 0.8f}, {-0.006f, 0.004f, 0.003f}, -0.08f},
      {{0.4f, 0.2f, 0.4f}, {0.0f, 1.2f, 0.3f}, {0.0f, 0.6f, 0.8f}, {0.0f, -0.005f, 0.008f}, 0.03f},
      {{0.2f, 0.2f, 0.5f}, {0.0f, -1.1f, -0.2f}, {1.0f, 0.0f, 0.0f}, {0.004f, 0.0f, -0.006f}, 0.06f},
  };
  std::vector<OzmEncode::Mesh> frames(static_cast<size_t>(count));
  for (int t = 0; t < count; ++t) {
    const float time = static_cast<float>(t);
    OzmEncode::Mesh& frame = frames[static_cast<size_t>(t)];
    int index = 0;
    for (const Piece& piece : pieces) {
      OzmEncode::Mesh ball = Ball(24, 40, piece.radii);
      const float angle = piece.spin * time + 0.2f * std::sin(0.3f * time + static_cast<float>(index));
      std::array<float, 3> move;
      for (int a = 0; a < 3; ++a) move[a] = piece.centre[a] + piece.drift[a] * time * (1 + 0.02f * time);
      const uint32_t offset = static_cast<uint32_t>(frame.VertexCount());
      for (size_t v = 0; v < ball.VertexCount(); ++v) {
        const std::array<float, 3> p = RotateMove({ball.positions[3 * v], ball.positions[3 * v + 1],
                                                   ball.positions[3 * v + 2]},
                                                  piece.axis, angle, move);
        frame.positions.insert(frame.positions.end(), p.begin(), p.end());
        // Each piece has its quarter of the texture.
        frame.uvs.insert(frame.uvs.end(), {0.25f * (static_cast<float>(index) + ball.uvs[2 * v]), ball.uvs[2 * v + 1]});
      }
      frame.normals.insert(frame.normals.end(), ball.normals.begin(), ball.normals.end());
      for (WelmMeshFace f : ball.faces) {
        for (uint32_t& v : f.v) v += offset;
        frame.faces.push_back(f);
      }
      ++index;
    }
  }
  return frames;
}

// Sizes of an encoded sequence: every payload, and the inter frames per coding.
struct SequenceSizes {
  size_t total = 0, inter = 0;
  int keyFrames = 0;
  std::map<InterCoding, int> frames;
  std::vector<OzmEncode::EncodedFrame> encoded;
};

SequenceSizes EncodeAll(const std::vector<OzmEncode::Mesh>& frames, const OzmEncode::SequenceOptions& options) {
  SequenceSizes sizes;
  OzmEncode::SequenceEncoder encoder(options);
  sizes.encoded.resize(frames.size());
  for (size_t t = 0; t < frames.size(); ++t) {
    OzmEncode::EncodedFrame& e = sizes.encoded[t];
    if (!encoder.Encode(frames[t], static_cast<uint32_t>(t + 1), &e)) {
      ADD_FAILURE() << "frame " << t;
      return sizes;
    }
    sizes.total += e.payload.size();
    if (e.keyFrame) {
      ++sizes.keyFrames;
    } else {
      sizes.inter += e.payload.size();
      ++sizes.frames[e.coding];
    }
  }
  return sizes;
}

const char* Name(InterCoding c) {
  switch (c) {
    case InterCoding::ByteDelta: return "bytes";
    case InterCoding::Golomb: return "golomb";
    case InterCoding::TransformDelta: return "transform";
    case InterCoding::Huffman: return "huffman";
    case InterCoding::Auto: return "auto";
    default: return "key";
  }
}

// Auto against every single coding: on each sequence it keeps per frame the smallest candidate
// (only a transform-delta one may be passed over, for missing the accuracy), its total is no larger
// than the best single coding's, and it stays within the accuracy. On rigidly moving pieces
// transform deltas win most frames, by being smaller than every other coding there.
TEST(Sequence, AutoKeepsTheSmallestCodingPerFrame) {
  struct Case {
    const char* name;
    std::vector<OzmEncode::Mesh> frames;
    uint32_t keyFrameInterval;
    bool rigid;
  };
  std::vector<Case> cases;
  {
    std::vector<OzmEncode::Mesh> grids;
    for (int t = 0; t < 45; ++t) grids.push_back(AnimatedFrame(t));
    cases.push_back({"waving grids", std::move(grids), 20, false});
  }
  cases.push_back({"rigid pieces", RigidPieces(60), 30, true});
  std::vector<OzmEncode::Mesh> bunny = BunnyFrames();
  if (!bunny.empty()) cases.push_back({"deforming bunny", std::move(bunny), 30, false});

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    OzmEncode::SequenceOptions options;
    options.keyFrameInterval = c.keyFrameInterval;
    size_t bestSingle = SIZE_MAX;
    std::map<InterCoding, size_t> single;
    for (InterCoding coding : OzmEncode::kInterCodings) {
      options.inter = coding;
      const SequenceSizes s = EncodeAll(c.frames, options);
      single[coding] = s.total;
      bestSingle = std::min(bestSingle, s.total);
      std::printf("[ sizes    ] %-16s %-9s total %9zu inter %9zu\n", c.name, Name(coding), s.total, s.inter);
    }
    options.inter = InterCoding::Auto;
    const SequenceSizes s = EncodeAll(c.frames, options);
    std::printf("[ sizes    ] %-16s %-9s total %9zu inter %9zu key %d", c.name, "auto", s.total, s.inter, s.keyFrames);
    for (const auto& kv : s.frames) std::printf(", %s %d", Name(kv.first), kv.second);
    std::printf("\n");
    EXPECT_LE(s.total, bestSingle);

    int interFrames = 0;
    for (size_t t = 0; t < s.encoded.size(); ++t) {
      const OzmEncode::EncodedFrame& e = s.encoded[t];
      ASSERT_LE(e.maxError, e.step * 0.5 + 1e-5) << "frame " << t;
      if (e.keyFrame) {
        EXPECT_EQ(e.coding, InterCoding::KeyFramesOnly) << t;
        continue;
      }
      ++interFrames;
      ASSERT_EQ(e.candidates.size(), 4u) << t;
      for (const auto& [coding, bytes] : e.candidates) {
        if (coding == e.coding) {
          EXPECT_EQ(bytes, e.payload.size()) << t;
        } else if (bytes < e.payload.size()) {
          EXPECT_EQ(coding, InterCoding::TransformDelta) << "frame " << t << " kept " << Name(e.coding) << " over "
                                                         << Name(coding);
        }
      }
    }
    if (c.rigid) {
      const int transform = s.frames.count(InterCoding::TransformDelta) ? s.frames.at(InterCoding::TransformDelta) : 0;
      EXPECT_GT(2 * transform, interFrames);
      for (InterCoding coding : {InterCoding::ByteDelta, InterCoding::Golomb, InterCoding::Huffman}) {
        EXPECT_LT(single[InterCoding::TransformDelta], single[coding]) << Name(coding);
      }
    }
  }
}

// Frames that jump (every vertex somewhere else, the topology unchanged) make prediction useless:
// with Auto the encoder places a key frame there, and only there; group starts stay key frames.
TEST(Sequence, AutoPlacesKeyFramesWherePredictionStopsPaying) {
  enum class Jump { None, Scramble, Scatter };
  struct Case {
    const char* name;
    Jump jump;
    double share;
    bool keyAtJump;
  };
  const Case cases[] = {
      {"smooth", Jump::None, 1.0 / 3, false},
      {"scrambled", Jump::Scramble, 1.0 / 3, true},
      {"scattered", Jump::Scatter, 1.0 / 3, true},
      {"scrambled, no placed key frames", Jump::Scramble, 0.0, false},
  };
  constexpr int kJumpAt = 12, kInterval = 20;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<OzmEncode::Mesh> frames;
    std::mt19937 rng(7);
    std::vector<uint32_t> permutation;
    std::vector<float> offsets;
    for (int t = 0; t < 30; ++t) {
      OzmEncode::Mesh m = AnimatedFrame(t);
      const size_t n = m.VertexCount();
      if (permutation.empty()) {
        permutation.resize(n);
        std::iota(permutation.begin(), permutation.end(), 0u);
        std::shuffle(permutation.begin(), permutation.end(), rng);
        std::uniform_real_distribution<float> spread(-1.0f, 1.0f);
        for (size_t i = 0; i < 3 * n; ++i) offsets.push_back(spread(rng));
      }
      if (t >= kJumpAt && c.jump == Jump::Scramble) {
        const std::vector<float> p = m.positions;
        for (size_t v = 0; v < n; ++v) std::copy_n(&p[3 * permutation[v]], 3, &m.positions[3 * v]);
      } else if (t >= kJumpAt && c.jump == Jump::Scatter) {
        for (size_t i = 0; i < 3 * n; ++i) m.positions[i] += offsets[i];
      }
      frames.push_back(std::move(m));
    }
    OzmEncode::SequenceOptions options;
    options.inter = InterCoding::Auto;
    options.keyFrameInterval = kInterval;
    options.keyFrameShare = c.share;
    const SequenceSizes s = EncodeAll(frames, options);
    for (size_t t = 0; t < s.encoded.size(); ++t) {
      const OzmEncode::EncodedFrame& e = s.encoded[t];
      const bool expected = t % kInterval == 0 || (c.keyAtJump && t == kJumpAt);
      EXPECT_EQ(e.keyFrame, expected) << "frame " << t;
    }
  }
}

}  // namespace
