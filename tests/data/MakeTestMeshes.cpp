// Builds the generated test meshes from the Stanford bunny (positions and cells as JSON, which
// scripts/test-data.sh extracts from the npm package "bunny"). Writes into the output folder:
//   bunny.mesh, bunny.obj   the bunny as it is (1839 vertices, 3674 triangles, closed)
//   bunny-loop2.mesh        two Loop subdivision steps (16 times the triangles)
//   bunny-loop3.mesh        three steps (64 times the triangles)
//   bunny-anim.anim         300 frames of the bunny twisting and breathing, one topology
// File layouts: tests/data/TestMeshFiles.h.
//   make_test_meshes <bunny.json> <output folder>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "tests/data/TestMeshFiles.h"

namespace {

using TestMeshFiles::Mesh;
using Vec = std::array<float, 3>;

Vec Add(const Vec& a, const Vec& b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }
Vec Scale(const Vec& a, double s) {
  return {static_cast<float>(a[0] * s), static_cast<float>(a[1] * s), static_cast<float>(a[2] * s)};
}

// One Loop subdivision step: every triangle becomes four. New edge points take 3/8 of the edge's
// ends and 1/8 of the two opposite corners (half of each end on a boundary edge); old vertices move
// to (1 - n beta) v + beta * (sum of their n neighbours), or to 3/4 v + 1/8 of their two boundary
// neighbours on a boundary. Vertices where the surface is not a disc or half-disc stay where they are.
Mesh LoopSubdivide(const Mesh& in) {
  struct Edge {
    uint32_t a, b;
    uint32_t opposite[2];
    int faces;
  };
  std::vector<Edge> edges;
  std::unordered_map<uint64_t, uint32_t> edgeOf;
  edgeOf.reserve(in.faces.size() * 2);
  std::vector<std::array<uint32_t, 3>> faceEdges(in.faces.size());
  for (size_t f = 0; f < in.faces.size(); ++f) {
    for (int j = 0; j < 3; ++j) {
      const uint32_t u = in.faces[f][j], v = in.faces[f][(j + 1) % 3], o = in.faces[f][(j + 2) % 3];
      const uint64_t key = static_cast<uint64_t>(std::min(u, v)) << 32 | std::max(u, v);
      auto [it, added] = edgeOf.emplace(key, static_cast<uint32_t>(edges.size()));
      if (added) edges.push_back({std::min(u, v), std::max(u, v), {o, o}, 0});
      Edge& e = edges[it->second];
      if (e.faces < 2) e.opposite[e.faces] = o;
      ++e.faces;
      faceEdges[f][j] = it->second;
    }
  }

  const size_t n = in.positions.size();
  std::vector<std::vector<uint32_t>> neighbours(n), boundaryNeighbours(n);
  for (const Edge& e : edges) {
    neighbours[e.a].push_back(e.b);
    neighbours[e.b].push_back(e.a);
    if (e.faces != 2) {
      boundaryNeighbours[e.a].push_back(e.b);
      boundaryNeighbours[e.b].push_back(e.a);
    }
  }

  Mesh out;
  out.positions.resize(n + edges.size());
  for (size_t v = 0; v < n; ++v) {
    const Vec& p = in.positions[v];
    const auto& ring = neighbours[v];
    const auto& rim = boundaryNeighbours[v];
    if (rim.size() == 2) {
      out.positions[v] = Add(Scale(p, 0.75), Scale(Add(in.positions[rim[0]], in.positions[rim[1]]), 0.125));
    } else if (rim.empty() && ring.size() >= 3) {
      const double k = static_cast<double>(ring.size());
      const double c = 0.375 + 0.25 * std::cos(2 * M_PI / k);
      const double beta = (0.625 - c * c) / k;
      Vec sum{0, 0, 0};
      for (const uint32_t w : ring) sum = Add(sum, in.positions[w]);
      out.positions[v] = Add(Scale(p, 1 - k * beta), Scale(sum, beta));
    } else {
      out.positions[v] = p;
    }
  }
  for (size_t i = 0; i < edges.size(); ++i) {
    const Edge& e = edges[i];
    const Vec ends = Add(in.positions[e.a], in.positions[e.b]);
    out.positions[n + i] =
        e.faces == 2
            ? Add(Scale(ends, 0.375), Scale(Add(in.positions[e.opposite[0]], in.positions[e.opposite[1]]), 0.125))
            : Scale(ends, 0.5);
  }
  out.faces.reserve(in.faces.size() * 4);
  for (size_t f = 0; f < in.faces.size(); ++f) {
    const auto& t = in.faces[f];
    const uint32_t ab = static_cast<uint32_t>(n) + faceEdges[f][0];
    const uint32_t bc = static_cast<uint32_t>(n) + faceEdges[f][1];
    const uint32_t ca = static_cast<uint32_t>(n) + faceEdges[f][2];
    out.faces.push_back({t[0], ab, ca});
    out.faces.push_back({ab, t[1], bc});
    out.faces.push_back({ca, bc, t[2]});
    out.faces.push_back({ab, bc, ca});
  }
  return out;
}

// 300 frames (ten seconds at 30 per second) that loop: the bunny twists about its upright axis (y),
// more towards the top, and breathes in and out around it.
TestMeshFiles::Animation Animate(const Mesh& mesh) {
  constexpr int kFrames = 300;
  Vec lo = mesh.positions[0], hi = mesh.positions[0];
  for (const Vec& p : mesh.positions) {
    for (int i = 0; i < 3; ++i) {
      lo[i] = std::min(lo[i], p[i]);
      hi[i] = std::max(hi[i], p[i]);
    }
  }
  const double cx = (lo[0] + hi[0]) / 2, cz = (lo[2] + hi[2]) / 2, height = hi[1] - lo[1];
  std::vector<std::vector<Vec>> frames(kFrames, std::vector<Vec>(mesh.positions.size()));
  for (int f = 0; f < kFrames; ++f) {
    const double phase = 2 * M_PI * f / kFrames;
    const double twist = 0.6 * std::sin(phase);            // radians at the top
    const double breath = 1 + 0.06 * std::sin(2 * phase);  // radial scale
    for (size_t v = 0; v < mesh.positions.size(); ++v) {
      const Vec& p = mesh.positions[v];
      const double up = (p[1] - lo[1]) / height;
      const double angle = twist * up * up;
      const double x = (p[0] - cx) * breath, z = (p[2] - cz) * breath;
      frames[f][v] = {static_cast<float>(cx + x * std::cos(angle) - z * std::sin(angle)),
                      static_cast<float>(p[1] * (1 + 0.03 * std::sin(2 * phase + up * M_PI))),
                      static_cast<float>(cz + x * std::sin(angle) + z * std::cos(angle))};
    }
  }

  TestMeshFiles::Animation anim;
  anim.faces = mesh.faces;
  anim.vertexCount = static_cast<uint32_t>(mesh.positions.size());
  anim.boxMin = anim.boxMax = frames[0][0];
  for (const auto& frame : frames) {
    for (const Vec& p : frame) {
      for (int i = 0; i < 3; ++i) {
        anim.boxMin[i] = std::min(anim.boxMin[i], p[i]);
        anim.boxMax[i] = std::max(anim.boxMax[i], p[i]);
      }
    }
  }
  for (const auto& frame : frames) {
    std::vector<std::array<uint16_t, 3>> q(frame.size());
    for (size_t v = 0; v < frame.size(); ++v) {
      for (int i = 0; i < 3; ++i) {
        const double span = anim.boxMax[i] - anim.boxMin[i];
        q[v][i] = static_cast<uint16_t>(std::lround(span > 0 ? (frame[v][i] - anim.boxMin[i]) / span * 65535 : 0));
      }
    }
    anim.frames.push_back(std::move(q));
  }
  return anim;
}

bool WriteObj(const std::string& path, const Mesh& mesh) {
  std::FILE* file = std::fopen(path.c_str(), "w");
  if (!file) return false;
  for (const Vec& p : mesh.positions) std::fprintf(file, "v %.6f %.6f %.6f\n", p[0], p[1], p[2]);
  for (const auto& f : mesh.faces) std::fprintf(file, "f %u %u %u\n", f[0] + 1, f[1] + 1, f[2] + 1);
  return std::fclose(file) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <bunny.json> <output folder>\n", argv[0]);
    return 2;
  }
  Mesh bunny;
  try {
    std::ifstream in(argv[1]);
    const nlohmann::json json = nlohmann::json::parse(in);
    for (const auto& p : json.at("positions")) bunny.positions.push_back({p.at(0), p.at(1), p.at(2)});
    for (const auto& c : json.at("cells")) bunny.faces.push_back({c.at(0), c.at(1), c.at(2)});
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[1], e.what());
    return 1;
  }
  for (const auto& f : bunny.faces) {
    for (const uint32_t v : f) {
      if (v >= bunny.positions.size()) {
        std::fprintf(stderr, "%s: vertex %u out of range\n", argv[1], v);
        return 1;
      }
    }
  }

  const std::string dir = argv[2];
  const Mesh loop1 = LoopSubdivide(bunny);
  const Mesh loop2 = LoopSubdivide(loop1);
  const Mesh loop3 = LoopSubdivide(loop2);
  const bool ok = TestMeshFiles::WriteMesh(dir + "/bunny.mesh", bunny) && WriteObj(dir + "/bunny.obj", bunny) &&
                  TestMeshFiles::WriteMesh(dir + "/bunny-loop2.mesh", loop2) &&
                  TestMeshFiles::WriteMesh(dir + "/bunny-loop3.mesh", loop3) &&
                  TestMeshFiles::WriteAnimation(dir + "/bunny-anim.anim", Animate(bunny));
  if (!ok) {
    std::fprintf(stderr, "could not write the meshes into %s\n", dir.c_str());
    return 1;
  }
  std::printf("bunny %zu triangles, loop2 %zu, loop3 %zu, animation 300 frames\n", bunny.faces.size(),
              loop2.faces.size(), loop3.faces.size());
  return 0;
}
