#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "OzmCore/EdgeBreaker.h"
#include "platform/host/LogCapture.h"
#include "tests/EdgeBreakerCheck.h"

using Bytes = std::vector<uint8_t>;
using Faces = std::vector<WelmMeshFace>;
using EdgeBreaker::CEdgeBreaker;
using EdgeBreaker::EEdgeCode;

namespace {

// Packs codes by the table of the format, most significant bit first (independent of the encoder).
Bytes Pack(const std::vector<EEdgeCode>& codes) {
  static const char* const kBits[] = {"0", "110", "101", "111", "1000", "1001"};
  Bytes out;
  int used = 0;
  for (const EEdgeCode code : codes) {
    for (const char* b = kBits[code]; *b; ++b) {
      if (used == 0) out.push_back(0);
      if (*b == '1') out.back() |= static_cast<uint8_t>(0x80 >> used);
      used = (used + 1) % 8;
    }
  }
  return out;
}

WelmMeshFace F(uint32_t a, uint32_t b, uint32_t c) { return WelmMeshFace{{a, b, c}}; }

std::string Show(const Faces& faces) {
  std::string s;
  for (const WelmMeshFace& f : faces) {
    s += "(" + std::to_string(f.v[0]) + "," + std::to_string(f.v[1]) + "," + std::to_string(f.v[2]) + ")";
  }
  return s;
}

bool StartsWith(const std::vector<std::string>& lines, const std::string& prefix) {
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
}

using namespace EdgeBreaker;

TEST(EdgeBreakerDecoder, DecodesTheDocumentedStreams) {
  struct Case {
    const char* name;
    Bytes stream;
    Faces faces;
  };
  const std::vector<Case> cases = {
      {"0x99 is two Ends and no triangle", {0x99}, {}},
      {"one triangle: E, End", Pack({E, End, End}), {F(2, 0, 1)}},
      {"a leading lone End does not end the stream", Pack({End, E, End, End}), {F(2, 0, 1)}},
      {"the second submesh numbers on", Pack({E, End, E, End, End}), {F(2, 0, 1), F(5, 3, 4)}},
      {"R then E on a loop of four", Pack({R, E, End, End}), {F(3, 0, 1), F(3, 1, 2)}},
      {"a fan: C, R, R, E straddling bytes",
       Pack({C, R, R, E, End, End}),
       {F(3, 0, 4), F(4, 0, 1), F(4, 1, 2), F(4, 2, 3)}},
      {"L closes on the vertex before the gate", Pack({L, E, End, End}), {F(3, 0, 2), F(2, 0, 1)}},
      {"S splits the pentagon at its third vertex", Pack({S, E, E, End, End}), {F(4, 0, 2), F(2, 0, 1), F(4, 2, 3)}},
      {"codes after the last End are never read",
       [] {
         Bytes b = Pack({E, End, End});
         b.push_back(0xFF);
         return b;
       }(),
       {F(2, 0, 1)}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes stream = c.stream;
    Faces faces;
    CEdgeBreaker codec;
    EXPECT_TRUE(codec.Decompress(stream, &faces));
    EXPECT_EQ(Show(faces), Show(c.faces));
  }
}

TEST(EdgeBreakerDecoder, PaddingBitsBeyondTheLastByteAreNeverRead) {
  // E, End, End takes 11 bits; a single C more would still fit the second byte but is never read.
  Bytes stream = Pack({E, End, End});
  ASSERT_EQ(stream.size(), 2u);
  stream[1] |= 0x1F;
  Faces faces;
  EXPECT_TRUE(CEdgeBreaker().Decompress(stream, &faces));
  EXPECT_EQ(faces.size(), 1u);
}

TEST(EdgeBreakerDecoder, BitsInCodeFollowsTheTableAndLogsOtherValues) {
  OzmPlatform::ScopedLogCapture log;
  const int expected[] = {1, 3, 3, 3, 4, 4};
  for (int code = C; code <= End; ++code)
    EXPECT_EQ(CEdgeBreaker::BitsInCode(static_cast<EEdgeCode>(code)), expected[code]);
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(CEdgeBreaker::BitsInCode(static_cast<EEdgeCode>(6)), 0);
  EXPECT_EQ(CEdgeBreaker::BitsInCode(static_cast<EEdgeCode>(-1)), 0);
  EXPECT_EQ(log.Lines().size(), 2u);
  EXPECT_TRUE(StartsWith(log.Texts(), "ASSERT FAILED: 'false' at OzmCore/EdgeBreaker line "));
}

TEST(EdgeBreakerDecoder, StopsOnCorruptStreamsWithTheLoggedAssertion) {
  struct Case {
    const char* name;
    Bytes stream;
    size_t faces;     // what is decoded before stopping
    const char* log;  // text of the logged assertion
  };
  const char* pastEnd = "p <= &compressedIndices[compressedIndices.size() - 1]";
  const std::vector<Case> cases = {
      {"empty", {}, 0, pastEnd},
      {"no closing End", Pack({E, End}), 1, pastEnd},
      // The complete first submesh is decoded; the cut-off second one is not.
      {"cut inside the second submesh", Pack({E, End, C, R}), 1, pastEnd},
      {"cut inside a code", {0xFF}, 0, pastEnd},  // E, E, then two bits of a third code
      {"E with an empty gate stack", Pack({E, E, End, End}), 1, "gate != nullptr"},
      {"loop of no vertex", Pack({C, C, End, End}), 0, "initial loop length > 0"},
      {"S whose loop never closes", Pack({R, R, R, R, S, End, End}), 4, "split offset known"},
      {"S past the end of its loop", Pack({S, E, C, C, E, End, End}), 0, "split target inside the loop"},
      {"S with a huge offset",
       [] {
         std::vector<EEdgeCode> codes = {S};
         codes.insert(codes.end(), 1000, R);
         codes.push_back(E);
         codes.insert(codes.end(), 1000, C);
         codes.insert(codes.end(), {E, End, End});
         return Pack(codes);
       }(),
       0, "split target inside the loop"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    OzmPlatform::ScopedLogCapture log;
    Bytes stream = c.stream;
    Faces faces;
    EXPECT_FALSE(CEdgeBreaker().Decompress(stream, &faces));
    EXPECT_EQ(faces.size(), c.faces);
    EXPECT_TRUE(StartsWith(log.Texts(), std::string("ASSERT FAILED: '") + c.log + "' at OzmCore/EdgeBreaker line "))
        << (log.Texts().empty() ? "nothing logged" : log.Texts()[0]);
  }
}

TEST(EdgeBreakerDecoder, SubmeshWithoutItsEndStopsAtTheLastCode) {
  OzmPlatform::ScopedLogCapture log;
  std::vector<EEdgeCode> codes = {S, R};
  Faces faces;
  int next = 7;
  EXPECT_FALSE(CEdgeBreaker().DecompressSubmesh(codes.data(), static_cast<int>(codes.size()), &faces, next));
  EXPECT_TRUE(StartsWith(log.Texts(), "ASSERT FAILED: 'codeIndex < codeLen' at OzmCore/EdgeBreaker line "));
  std::vector<EEdgeCode> empty = {End};
  EXPECT_TRUE(CEdgeBreaker().DecompressSubmesh(empty.data(), 1, &faces, next));
  EXPECT_EQ(next, 7);
  EXPECT_TRUE(faces.empty());
}

TEST(EdgeBreakerDecoder, SubmeshSkipsUnknownCodeValuesInBothPasses) {
  OzmPlatform::ScopedLogCapture log;
  std::vector<EEdgeCode> codes = {static_cast<EEdgeCode>(9), E, End};
  Faces faces;
  int next = 10;
  EXPECT_TRUE(CEdgeBreaker().DecompressSubmesh(codes.data(), static_cast<int>(codes.size()), &faces, next));
  EXPECT_EQ(Show(faces), Show({F(12, 10, 11)}));
  EXPECT_EQ(next, 13);
  const std::vector<std::string> lines = log.Texts();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& l) {
                            return l.rfind("ASSERT FAILED: 'false' at OzmCore/EdgeBreaker line ", 0) == 0;
                          }),
            2);
}

// Random bytes, and valid streams with bits flipped or cut short: whatever comes out, the decoder
// neither reads nor writes out of bounds (checked under AddressSanitizer), stays within a face per
// code and returns.
TEST(EdgeBreakerDecoder, SurvivesRandomAndDamagedStreams) {
  OzmPlatform::ScopedLogCapture log;
  std::mt19937 rng(7);
  Faces grid;
  for (uint32_t y = 0; y < 12; ++y) {
    for (uint32_t x = 0; x < 12; ++x) {
      const uint32_t a = y * 13 + x;
      grid.push_back(F(a, a + 1, a + 14));
      grid.push_back(F(a, a + 14, a + 13));
    }
  }
  std::vector<int> order;
  Bytes valid;
  ASSERT_TRUE(CEdgeBreaker().Compress(grid, &order, &valid));
  for (int round = 0; round < 3000; ++round) {
    Bytes stream;
    if (round % 3 == 0) {
      stream.resize(rng() % 64);
      for (uint8_t& b : stream) b = static_cast<uint8_t>(rng());
    } else {
      stream = valid;
      const int flips = 1 + static_cast<int>(rng() % 4);
      for (int i = 0; i < flips; ++i) stream[rng() % stream.size()] ^= static_cast<uint8_t>(1u << (rng() % 8));
      if (round % 3 == 2) stream.resize(rng() % stream.size());
    }
    Faces faces;
    CEdgeBreaker().Decompress(stream, &faces);
    EXPECT_LE(faces.size(), stream.size() * 8);
  }
  // A megabyte of noise: bounded work and memory.
  Bytes noise(1 << 20);
  for (uint8_t& b : noise) b = static_cast<uint8_t>(rng());
  Faces faces;
  CEdgeBreaker().Decompress(noise, &faces);
  EXPECT_LE(faces.size(), noise.size() * 8);
}

// ---- Round trips --------------------------------------------------------------------------------

// A grid of w x h quads, two triangles each, without the quads that skip() names. With wrapX (or
// wrapY) the last column (row) of vertices is the first one: a cylinder, or with both a torus.
Faces Grid(int w, int h, const std::function<bool(int, int)>& skip = nullptr, bool wrapX = false, bool wrapY = false) {
  const int columns = wrapX ? w : w + 1;
  auto id = [&](int x, int y) { return static_cast<uint32_t>((wrapX ? x % w : x) + columns * (wrapY ? y % h : y)); };
  Faces faces;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (skip && skip(x, y)) continue;
      faces.push_back(F(id(x, y), id(x + 1, y), id(x + 1, y + 1)));
      faces.push_back(F(id(x, y), id(x + 1, y + 1), id(x, y + 1)));
    }
  }
  return faces;
}

// A closed surface: a slab over the grid cells that keep() names, top, bottom and walls. Each hole
// in the cell pattern becomes a handle, so a slab with k holes has genus k.
Faces Slab(int w, int h, const std::function<bool(int, int)>& keep) {
  const uint32_t layer = static_cast<uint32_t>((w + 1) * (h + 1));
  auto top = [&](int x, int y) { return static_cast<uint32_t>(x + (w + 1) * y); };
  Faces faces;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (!keep(x, y)) continue;
      const uint32_t a = top(x, y), b = top(x + 1, y), c = top(x + 1, y + 1), d = top(x, y + 1);
      faces.push_back(F(a, b, c));
      faces.push_back(F(a, c, d));
      faces.push_back(F(a + layer, c + layer, b + layer));
      faces.push_back(F(a + layer, d + layer, c + layer));
      // A wall on each side without a kept neighbour, facing away from the cell.
      auto wall = [&](uint32_t u, uint32_t v) {  // u -> v runs along the top face's edge
        faces.push_back(F(v, u, u + layer));
        faces.push_back(F(v, u + layer, v + layer));
      };
      if (y == 0 || !keep(x, y - 1)) wall(a, b);
      if (x == w - 1 || !keep(x + 1, y)) wall(b, c);
      if (y == h - 1 || !keep(x, y + 1)) wall(c, d);
      if (x == 0 || !keep(x - 1, y)) wall(d, a);
    }
  }
  return faces;
}

// A latitude-longitude sphere: poles of valence `segments`, closed and consistently oriented.
Faces Sphere(int segments, int rings) {
  auto ring = [&](int r, int s) { return static_cast<uint32_t>(2 + (r - 1) * segments + s % segments); };
  Faces faces;
  for (int s = 0; s < segments; ++s) {
    faces.push_back(F(0, ring(1, s), ring(1, s + 1)));
    for (int r = 1; r + 1 < rings; ++r) {
      faces.push_back(F(ring(r, s), ring(r + 1, s), ring(r + 1, s + 1)));
      faces.push_back(F(ring(r, s), ring(r + 1, s + 1), ring(r, s + 1)));
    }
    faces.push_back(F(1, ring(rings - 1, s + 1), ring(rings - 1, s)));
  }
  return faces;
}

// A closed cone: apex, a ring of n vertices and a centre for the base.
Faces Cone(uint32_t apex, uint32_t first, int n) {
  Faces faces;
  const uint32_t centre = first + static_cast<uint32_t>(n);
  for (int s = 0; s < n; ++s) {
    const uint32_t a = first + static_cast<uint32_t>(s), b = first + static_cast<uint32_t>((s + 1) % n);
    faces.push_back(F(apex, a, b));
    faces.push_back(F(centre, b, a));
  }
  return faces;
}

Faces Concat(std::vector<Faces> parts) {
  Faces all;
  uint32_t offset = 0;
  for (const Faces& part : parts) {
    uint32_t top = 0;
    for (const WelmMeshFace& f : part) {
      all.push_back(F(f.v[0] + offset, f.v[1] + offset, f.v[2] + offset));
      top = std::max({top, f.v[0] + 1, f.v[1] + 1, f.v[2] + 1});
    }
    offset += top;
  }
  return all;
}

Faces Soup(int triangles, uint32_t vertices, unsigned seed) {
  std::mt19937 rng(seed);
  Faces faces;
  for (int i = 0; i < triangles; ++i) faces.push_back(F(rng() % vertices, rng() % vertices, rng() % vertices));
  return faces;
}

struct RoundTrip {
  Faces decoded;
  std::vector<int> order;
  Bytes bits;
  size_t splits = 0;
};

// Encodes and decodes, checking the round-trip property.
RoundTrip EncodeAndDecode(const Faces& faces) {
  RoundTrip r;
  EXPECT_TRUE(CEdgeBreaker().Compress(faces, &r.order, &r.bits));
  Bytes stream = r.bits;
  EXPECT_TRUE(CEdgeBreaker().Decompress(stream, &r.decoded));
  EXPECT_EQ(EdgeBreakerCheck::CompareWithInput(faces, r.decoded, r.order), "");
  uint32_t top = 0;
  for (const WelmMeshFace& f : r.decoded) top = std::max({top, f.v[0] + 1, f.v[1] + 1, f.v[2] + 1});
  EXPECT_EQ(top, r.order.size()) << "every decoded vertex is used";
  r.splits = EdgeBreakerCheck::SplitVertices(faces, r.order);
  return r;
}

TEST(EdgeBreakerRoundTrip, GivesBackEveryMeshUnderTheVertexOrder) {
  struct Case {
    const char* name;
    Faces faces;
    long maxSplits;  // -1: no bound (non-manifold input splits wherever it must)
  };
  // Quads (x, y) of a 20 x 12 grid left out: three separate holes.
  auto holes = [](int x, int y) {
    return (x >= 3 && x < 6 && y >= 3 && y < 5) || (x >= 10 && x < 12 && y >= 6 && y < 9) || (x == 16 && y == 2);
  };
  Faces degenerate = Grid(6, 6);
  degenerate[4] = F(degenerate[4].v[0], degenerate[4].v[0], degenerate[4].v[1]);
  degenerate[9] = F(degenerate[9].v[2], degenerate[9].v[2], degenerate[9].v[2]);
  degenerate[17] = F(degenerate[17].v[0], degenerate[17].v[1], degenerate[17].v[1]);
  degenerate.push_back(degenerate[20]);  // the same triangle twice
  Faces flipped = Grid(10, 10);
  for (size_t i = 0; i < flipped.size(); i += 7) std::swap(flipped[i].v[1], flipped[i].v[2]);
  Faces moebius;  // a strip of 12 quads whose ends meet with a half twist
  for (uint32_t i = 0; i < 12; ++i) {
    const uint32_t a = i, b = (i + 1) % 12, c = 12 + i, d = 12 + (i + 1) % 12;
    const bool last = i == 11;
    moebius.push_back(F(a, last ? 12 : b, c));
    moebius.push_back(F(last ? 12 : b, last ? 0 : d, c));
  }

  const std::vector<Case> cases = {
      {"empty", {}, 0},
      {"single triangle", {F(0, 1, 2)}, 0},
      {"disc: 8 x 6 grid", Grid(8, 6), 0},
      {"grid with three holes", Grid(20, 12, holes), 12},
      {"cylinder: two boundaries", Grid(12, 4, nullptr, true), 5},
      {"sphere", Sphere(16, 10), 0},
      {"box", Slab(4, 3, [](int, int) { return true; }), 0},
      // The shortest cut of a w x h torus: two loops of w and h edges through one vertex.
      {"torus 12 x 8", Grid(12, 8, nullptr, true, true), 12 + 8 + 1},
      {"slab with one hole (genus 1)", Slab(5, 5, [](int x, int y) { return !(x == 2 && y == 2); }), -1},
      {"double torus", Slab(7, 3, [](int x, int y) { return !(y == 1 && (x == 1 || x == 5)); }), -1},
      {"genus 5", Slab(11, 3, [](int x, int y) { return !(y == 1 && x % 2 == 1); }), -1},
      {"three components", Concat({Sphere(8, 6), Grid(5, 5, holes), {F(0, 1, 2)}, Grid(6, 6, nullptr, true, true)}),
       -1},
      {"book: five triangles on one edge", {F(0, 1, 2), F(1, 0, 3), F(0, 1, 4), F(1, 0, 5), F(0, 1, 6)}, -1},
      {"two cones touching at the apex",
       [] {
         Faces f = Cone(0, 1, 7);  // vertices 0..8
         const Faces g = Cone(0, 9, 5);
         f.insert(f.end(), g.begin(), g.end());
         return f;
       }(),
       1},
      {"bow tie", {F(0, 1, 2), F(0, 3, 4)}, 1},
      {"two boxes sharing an edge",
       [] {
         Faces a = Slab(1, 1, [](int, int) { return true; });  // vertices 0..7
         Faces b = Concat({{}, a});
         for (WelmMeshFace& f : b) {
           for (uint32_t& v : f.v) v = v == 0 ? 3 : v == 4 ? 7 : v + 8;  // glue one vertical edge
         }
         a.insert(a.end(), b.begin(), b.end());
         return a;
       }(),
       -1},
      {"degenerate and repeated triangles", degenerate, -1},
      {"some triangles flipped", flipped, -1},
      {"Moebius strip", moebius, -1},
      {"sparse vertex numbers", {F(5, 4000000000u / 2, 77), F(77, 4000000000u / 2, 123456789)}, 0},
      {"soup of 60 triangles on 12 vertices", Soup(60, 12, 1), -1},
      {"soup of 400 triangles on 100 vertices", Soup(400, 100, 2), -1},
      {"soup of 2000 triangles on 3000 vertices", Soup(2000, 3000, 3), -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const RoundTrip r = EncodeAndDecode(c.faces);
    if (c.maxSplits >= 0) {
      EXPECT_LE(static_cast<long>(r.splits), c.maxSplits);
    }
    std::printf("  %-42s %6zu triangles %6.3f bits/triangle %5zu split vertices\n", c.name, c.faces.size(),
                c.faces.empty() ? 0.0 : 8.0 * r.bits.size() / static_cast<double>(c.faces.size()), r.splits);
  }
}

TEST(EdgeBreakerRoundTrip, RejectsIndicesBeyondTheFormat) {
  std::vector<int> order{1, 2};
  Bytes bits{1};
  EXPECT_FALSE(CEdgeBreaker().Compress({F(0, 1, 0x80000000u)}, &order, &bits));
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(bits.empty());
}

TEST(EdgeBreakerRoundTrip, EmptyMeshIsTwoEnds) {
  std::vector<int> order;
  Bytes bits;
  ASSERT_TRUE(CEdgeBreaker().Compress({}, &order, &bits));
  EXPECT_EQ(bits, Bytes{0x99});
  EXPECT_TRUE(order.empty());
}

}  // namespace
