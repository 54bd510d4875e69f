#include "OzmCore/encode/SequenceEncoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <numeric>

#include "OzmCore/CComPtr.h"
#include "OzmCore/Huffman.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/encode/BitWriter.h"
#include "OzmCore/encode/ByteWriter.h"
#include "OzmCore/encode/GolombEncoder.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "OzmCore/encode/HuffmanEncoder.h"
#include "OzmCore/encode/KeyFrameWriter.h"
#include "OzmCore/encode/VertexWriter.h"
#include "platform/Log.h"

namespace OzmEncode {
namespace {

using Vec3 = std::array<float, 3>;

// One independently coded piece of the frame: the whole mesh, or one connected component when
// frames are temporal meshes.
struct Part {
  int id = 0;
  std::vector<uint32_t> vertices;   // input vertex of each local vertex
  std::vector<WelmMeshFace> faces;  // in local vertex numbers
  std::vector<int> order;           // local vertex of each decoded vertex
  TexTransform uvTransform;         // local texture space -> frame texture space
  float uvOrigin[2] = {0, 0}, uvSize[2] = {1, 1};
  // Connected component of each decoded vertex (set with the key frame), and their number: the
  // transform-delta coder starts its regions from them.
  std::vector<uint32_t> component;
  uint32_t components = 0;
};

// Groups the faces into connected components (faces sharing a vertex), in order of first face.
std::vector<Part> Components(const Mesh& mesh) {
  const size_t n = mesh.VertexCount();
  std::vector<uint32_t> parent(n);
  std::iota(parent.begin(), parent.end(), 0);
  auto find = [&parent](uint32_t v) {
    while (parent[v] != v) v = parent[v] = parent[parent[v]];
    return v;
  };
  for (const WelmMeshFace& f : mesh.faces) {
    const uint32_t a = find(f.v[0]);
    for (int k = 1; k < 3; ++k) {
      const uint32_t b = find(f.v[k]);
      if (a != b) parent[b] = a;
    }
  }
  std::map<uint32_t, size_t> partOfRoot;
  std::vector<Part> parts;
  std::vector<int64_t> local(n, -1);
  for (const WelmMeshFace& f : mesh.faces) {
    const uint32_t root = find(f.v[0]);
    auto it = partOfRoot.find(root);
    if (it == partOfRoot.end()) {
      it = partOfRoot.emplace(root, parts.size()).first;
      parts.emplace_back();
      parts.back().id = static_cast<int>(parts.size() - 1);
    }
    Part& part = parts[it->second];
    WelmMeshFace lf;
    for (int k = 0; k < 3; ++k) {
      if (local[f.v[k]] < 0) {
        local[f.v[k]] = static_cast<int64_t>(part.vertices.size());
        part.vertices.push_back(f.v[k]);
      }
      lf.v[k] = static_cast<uint32_t>(local[f.v[k]]);
    }
    part.faces.push_back(lf);
  }
  return parts;
}

Part WholeMesh(const Mesh& mesh) {
  Part part;
  part.vertices.resize(mesh.VertexCount());
  std::iota(part.vertices.begin(), part.vertices.end(), 0u);
  part.faces = mesh.faces;
  return part;
}

// The texture transform of a part: its texture coordinates are stored relative to their own
// rectangle, and the decoder maps them back. The stored matrix is inverted by the decoder with its
// own rule (m00 = d / det, m11 = m00 / det for a diagonal matrix), which these values undo.
void FitTexTransform(const Mesh& mesh, Part& part) {
  float lo[2] = {1, 1}, hi[2] = {0, 0};
  for (uint32_t v : part.vertices) {
    for (int a = 0; a < 2; ++a) {
      lo[a] = std::min(lo[a], mesh.uvs[2 * v + a]);
      hi[a] = std::max(hi[a], mesh.uvs[2 * v + a]);
    }
  }
  for (int a = 0; a < 2; ++a) {
    part.uvOrigin[a] = std::max(0.0f, lo[a]);
    part.uvSize[a] = std::max(hi[a] - part.uvOrigin[a], 1.0f / 4096);
  }
  const float su = part.uvSize[0], sv = part.uvSize[1], u0 = part.uvOrigin[0], v0 = part.uvOrigin[1];
  // Wanted: u' = u0 + u su and v' = v0 + v sv, with the decoder's u' = tx' + u m00 and
  // v' = 1 - (ty' + (1 - v) m11), where m00 = 1 / a, m11 = 1 / (a^2 d), tx' = -tx m00, ty' = -ty m11.
  TexTransform& t = part.uvTransform;
  t.present = true;
  t.a = 1.0f / su;
  t.b = t.c = 0;
  t.d = su * su / sv;
  t.tx = -u0 / su;
  t.ty = -(1.0f - sv - v0) / sv;
}

// Least-squares rigid motion (rotation and translation) taking points p to points q.
struct Rigid {
  float m[16];  // column by column, as the decoder keeps it
};

// The points are the previous positions p and the targets q of the vertices listed in members.
Rigid FitRigid(const std::vector<Ozm::__vector4>& p, const std::vector<Vec3>& q, const std::vector<uint32_t>& members) {
  double pc[3] = {0, 0, 0}, qc[3] = {0, 0, 0};
  for (uint32_t i : members) {
    const double pi[3] = {p[i].x, p[i].y, p[i].z};
    for (int a = 0; a < 3; ++a) {
      pc[a] += pi[a];
      qc[a] += q[i][a];
    }
  }
  for (int a = 0; a < 3; ++a) {
    pc[a] /= static_cast<double>(members.size());
    qc[a] /= static_cast<double>(members.size());
  }
  // M = sum (q - qc)(p - pc)^T; its orthogonal polar factor is the best rotation.
  double M[3][3] = {};
  for (uint32_t i : members) {
    const double pi[3] = {p[i].x - pc[0], p[i].y - pc[1], p[i].z - pc[2]};
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) M[r][c] += (q[i][r] - qc[r]) * pi[c];
    }
  }
  double R[3][3];
  std::memcpy(R, M, sizeof(R));
  auto det = [](const double A[3][3]) {
    return A[0][0] * (A[1][1] * A[2][2] - A[1][2] * A[2][1]) - A[0][1] * (A[1][0] * A[2][2] - A[1][2] * A[2][0]) +
           A[0][2] * (A[1][0] * A[2][1] - A[1][1] * A[2][0]);
  };
  bool rotation = std::fabs(det(R)) > 1e-12;
  for (int it = 0; rotation && it < 30; ++it) {  // Newton iteration R <- (R + R^-T) / 2
    const double d = det(R);
    if (std::fabs(d) < 1e-12) {
      rotation = false;
      break;
    }
    double invT[3][3];
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) {
        const int r1 = (r + 1) % 3, r2 = (r + 2) % 3, c1 = (c + 1) % 3, c2 = (c + 2) % 3;
        invT[r][c] = (R[r1][c1] * R[r2][c2] - R[r1][c2] * R[r2][c1]) / d;  // cofactor / det = (R^-1)^T
      }
    }
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) R[r][c] = 0.5 * (R[r][c] + invT[r][c]);
    }
  }
  if (!rotation || det(R) < 0.5) {  // flat, degenerate or mirrored: translation only
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) R[r][c] = r == c ? 1 : 0;
    }
  }
  Rigid out{};
  for (int r = 0; r < 3; ++r) {
    double t = qc[r];
    for (int c = 0; c < 3; ++c) {
      out.m[4 * c + r] = static_cast<float>(R[r][c]);
      t -= R[r][c] * pc[c];
    }
    out.m[12 + r] = static_cast<float>(t);
  }
  out.m[15] = 1;
  return out;
}

// The decoder's motion of a point, with its exact order of float operations.
inline Vec3 Move(const float* M, const Ozm::__vector4& p) {
  return {((p.z * M[8] + M[12]) + p.y * M[4]) + p.x * M[0], ((p.z * M[9] + M[13]) + p.y * M[5]) + p.x * M[1],
          ((p.z * M[10] + M[14]) + p.y * M[6]) + p.x * M[2]};
}

void PutFloat(WordBitWriter& w, float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  w.Put(bits, 32);
}

void AppendWords(const std::vector<uint32_t>& words, std::vector<uint8_t>& out) {
  ByteWriter w(out);
  for (uint32_t word : words) w.U32LE(word);
}

// The connected component of every decoded vertex of a part (faces sharing a vertex are connected).
void FindComponents(Part& part) {
  const size_t n = part.vertices.size();
  std::vector<uint32_t> parent(n);
  std::iota(parent.begin(), parent.end(), 0u);
  auto find = [&parent](uint32_t v) {
    while (parent[v] != v) v = parent[v] = parent[parent[v]];
    return v;
  };
  for (const WelmMeshFace& f : part.faces) {
    const uint32_t a = find(f.v[0]);
    for (int k = 1; k < 3; ++k) {
      const uint32_t b = find(f.v[k]);
      if (a != b) parent[b] = a;
    }
  }
  std::vector<int64_t> number(n, -1);
  part.components = 0;
  part.component.resize(part.order.size());
  for (size_t k = 0; k < part.order.size(); ++k) {
    const uint32_t root = find(static_cast<uint32_t>(part.order[k]));
    if (number[root] < 0) number[root] = part.components++;
    part.component[k] = static_cast<uint32_t>(number[root]);
  }
}

// The part's own mesh: positions, texture coordinates (in its own rectangle when it has one) and
// normals, in local vertex numbers.
Mesh LocalMesh(const Mesh& frame, const Part& part, bool normals) {
  Mesh local;
  local.faces = part.faces;
  local.positions.reserve(3 * part.vertices.size());
  local.uvs.reserve(2 * part.vertices.size());
  for (uint32_t v : part.vertices) {
    local.positions.insert(local.positions.end(), frame.positions.begin() + 3 * v, frame.positions.begin() + 3 * v + 3);
    float u = frame.uvs[2 * v], t = frame.uvs[2 * v + 1];
    if (part.uvTransform.present) {
      u = (u - part.uvOrigin[0]) / part.uvSize[0];
      t = (t - part.uvOrigin[1]) / part.uvSize[1];
    }
    local.uvs.insert(local.uvs.end(), {u, t});
    if (normals) local.normals.insert(local.normals.end(), frame.normals.begin() + 3 * v, frame.normals.begin() + 3 * v + 3);
  }
  return local;
}

// The input positions of a part's vertices in the order the decoder outputs them.
std::vector<Vec3> DecodedTargets(const Mesh& frame, const Part& part) {
  std::vector<Vec3> targets(part.order.size());
  for (size_t k = 0; k < part.order.size(); ++k) {
    const size_t v = part.vertices[static_cast<size_t>(part.order[k])];
    targets[k] = {frame.positions[3 * v], frame.positions[3 * v + 1], frame.positions[3 * v + 2]};
  }
  return targets;
}

// First regions of the transform-delta coder: each connected component (they often move apart from
// each other) cut into slabs along its longest axis, the budget of regions shared out by size. A
// component of fewer than 4 vertices cannot pin a motion down and starts on the identity (-1).
std::vector<int> SeedRegions(const std::vector<Ozm::__vector4>& prev, const Part& part, uint32_t budget,
                             uint32_t* regions) {
  const size_t n = prev.size();
  const bool known = part.component.size() == n && part.components > 0;
  const uint32_t components = known ? part.components : 1;
  auto componentOf = [&](size_t i) { return known ? part.component[i] : 0u; };
  std::vector<uint32_t> size(components, 0);
  std::vector<std::array<float, 3>> lo(components, {0, 0, 0}), hi(components, {0, 0, 0});
  for (size_t i = 0; i < n; ++i) {
    const uint32_t c = componentOf(i);
    const float p[3] = {prev[i].x, prev[i].y, prev[i].z};
    for (int a = 0; a < 3; ++a) {
      lo[c][a] = size[c] ? std::min(lo[c][a], p[a]) : p[a];
      hi[c][a] = size[c] ? std::max(hi[c][a], p[a]) : p[a];
    }
    ++size[c];
  }
  std::vector<uint32_t> bySize;
  uint64_t bigVertices = 0;
  for (uint32_t c = 0; c < components; ++c) {
    if (size[c] >= 4) {
      bySize.push_back(c);
      bigVertices += size[c];
    }
  }
  std::stable_sort(bySize.begin(), bySize.end(), [&size](uint32_t x, uint32_t y) { return size[x] > size[y]; });
  if (bySize.size() > budget) bySize.resize(budget);
  const uint32_t spare = budget - static_cast<uint32_t>(bySize.size());
  std::vector<uint32_t> slabs(components, 0), first(components, 0);
  uint32_t next = 0;
  for (uint32_t c : bySize) {
    slabs[c] = 1 + static_cast<uint32_t>(static_cast<uint64_t>(spare) * size[c] / std::max<uint64_t>(bigVertices, 1));
    first[c] = next;
    next += slabs[c];
  }
  *regions = next;
  std::vector<int> regionOf(n, -1);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t c = componentOf(i);
    if (!slabs[c]) continue;
    int axis = 0;
    for (int a = 1; a < 3; ++a) {
      if (hi[c][a] - lo[c][a] > hi[c][axis] - lo[c][axis]) axis = a;
    }
    const float p[3] = {prev[i].x, prev[i].y, prev[i].z};
    const float extent = std::max(hi[c][axis] - lo[c][axis], 1e-20f);
    const uint32_t slab =
        std::min<uint32_t>(slabs[c] - 1, static_cast<uint32_t>((p[axis] - lo[c][axis]) / extent * slabs[c]));
    regionOf[i] = static_cast<int>(first[c] + slab);
  }
  return regionOf;
}

inline float Distance2(const Vec3& a, const Vec3& b) {
  const float d[3] = {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
  return d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
}

}  // namespace

struct SequenceEncoder::State {
  SequenceOptions options;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator{new OzmCrossPlatform::BufferAllocator};
  Ozm::COzmMeshReader reader;  // mirrors the decoder
  std::vector<Part> parts;
  std::vector<WelmMeshFace> groupFaces;
  size_t groupVertices = 0;
  uint32_t frameInGroup = 0;
  bool started = false;
  size_t lastKeyBytes = 0;  // the last key frame without its normals, the measure of the key-frame share

  // Per-axis delta bytes of an inter frame, and the range they span.
  struct Deltas {
    std::vector<uint8_t> bytes;  // x, y, z per decoded vertex
    float min[3], max[3];
  };

  Deltas QuantizeResiduals(const std::vector<Vec3>& targets, const Ozm::COzmMeshReaderCtx& ctx) const {
    const size_t n = targets.size();
    const std::vector<Ozm::__vector4>& prev = *ctx.m_pPrevMesh;
    const bool linear = ctx.m_pOlderMesh != nullptr;
    std::vector<Vec3> prediction(n);
    Deltas d;
    for (int a = 0; a < 3; ++a) {
      d.min[a] = std::numeric_limits<float>::max();
      d.max[a] = -std::numeric_limits<float>::max();
    }
    for (size_t i = 0; i < n; ++i) {
      const Ozm::__vector4& p = prev[i];
      Vec3 q = {p.x, p.y, p.z};
      if (linear) {
        const Ozm::__vector4& o = (*ctx.m_pOlderMesh)[i];
        q = {p.x + (p.x - o.x), p.y + (p.y - o.y), p.z + (p.z - o.z)};
      }
      prediction[i] = q;
      for (int a = 0; a < 3; ++a) {
        const float r = targets[i][a] - q[a];
        d.min[a] = std::min(d.min[a], r);
        d.max[a] = std::max(d.max[a], r);
      }
    }
    if (n == 0) {
      std::fill(d.min, d.min + 3, 0.0f);
      std::fill(d.max, d.max + 3, 0.0f);
    }
    d.bytes.resize(3 * n);
    for (int a = 0; a < 3; ++a) {
      // The decoder adds (b / 255) * (max - min) + min in float32: pick the byte whose sum is nearest.
      const float range = d.max[a] - d.min[a];
      float offset[256];
      for (int b = 0; b < 256; ++b) offset[b] = (static_cast<float>(b) / 255.0f) * range + d.min[a];
      for (size_t i = 0; i < n; ++i) {
        const float r = targets[i][a] - prediction[i][a];
        int b = range > 0 ? static_cast<int>(std::lround((r - d.min[a]) / range * 255.0f)) : 0;
        b = std::clamp(b, 0, 255);
        float best = std::fabs(prediction[i][a] + offset[b] - targets[i][a]);
        for (int c : {b - 1, b + 1}) {
          if (c < 0 || c > 255) continue;
          const float e = std::fabs(prediction[i][a] + offset[c] - targets[i][a]);
          if (e < best) {
            best = e;
            b = c;
          }
        }
        d.bytes[3 * i + a] = static_cast<uint8_t>(b);
      }
    }
    return d;
  }

  void WriteDeltaRange(const Deltas& d, std::vector<uint8_t>& out) const {
    ByteWriter w(out);
    for (int a = 0; a < 3; ++a) w.F32LE(d.min[a]);
    for (int a = 0; a < 3; ++a) w.F32LE(d.max[a]);
  }

  bool WriteByteDeltaBlock(const Deltas& d, std::vector<uint8_t>& out) const {
    WriteDeltaRange(d, out);
    out.insert(out.end(), d.bytes.begin(), d.bytes.end());
    return true;
  }

  bool WriteGolombBlock(const Deltas& d, std::vector<uint8_t>& out) const {
    const size_t n = d.bytes.size() / 3;
    GolombAxis axes[3];
    uint8_t center[3], median[3];
    for (int a = 0; a < 3; ++a) {
      center[a] = ChooseGolombCenter(d.bytes.data() + a, n, 3);
      median[a] = ChooseGolombParameter(d.bytes.data() + a, n, 3, center[a]);
      if (!EncodeGolomb(d.bytes.data() + a, n, 3, median[a], center[a], axes[a])) return false;
    }
    WriteDeltaRange(d, out);
    ByteWriter w(out);
    w.Bytes(center, 3);
    w.Bytes(median, 3);
    for (const GolombAxis& axis : axes) w.U32LE(axis.numBits);
    for (const GolombAxis& axis : axes) AppendWords(axis.words, out);
    return true;
  }

  bool WriteHuffmanBlock(const Deltas& d, std::vector<uint8_t>& out) const {
    const size_t n = d.bytes.size() / 3;
    HuffmanAxis axes[3];
    for (int a = 0; a < 3; ++a) {
      if (!EncodeHuffman(d.bytes.data() + a, n, 3, axes[a])) return false;
    }
    WriteDeltaRange(d, out);
    ByteWriter w(out);
    for (const HuffmanAxis& axis : axes) w.U32LE(axis.numBits);
    for (const HuffmanAxis& axis : axes) {
      for (int f : axis.frequencies) w.I32LE(f);
      AppendWords(axis.words, out);
    }
    return true;
  }


  // The range, per axis, of what the byte-delta codings quantise: the input minus the decoder's
  // prediction (as in QuantizeResiduals, without making the bytes).
  static void PredictionResidualRange(const std::vector<Vec3>& targets, const Ozm::COzmMeshReaderCtx& ctx,
                                      float lo[3], float hi[3]) {
    const std::vector<Ozm::__vector4>& prev = *ctx.m_pPrevMesh;
    const std::vector<Ozm::__vector4>* older = ctx.m_pOlderMesh;
    for (int a = 0; a < 3; ++a) lo[a] = hi[a] = 0;
    for (size_t i = 0; i < targets.size(); ++i) {
      const Ozm::__vector4& p = prev[i];
      Vec3 q = {p.x, p.y, p.z};
      if (older) {
        const Ozm::__vector4& o = (*older)[i];
        q = {p.x + (p.x - o.x), p.y + (p.y - o.y), p.z + (p.z - o.z)};
      }
      for (int a = 0; a < 3; ++a) {
        const float r = targets[i][a] - q[a];
        lo[a] = i ? std::min(lo[a], r) : r;
        hi[a] = i ? std::max(hi[a], r) : r;
      }
    }
  }

  // Rigid transforms for regions of the mesh, and per vertex a delta from a Huffman-coded table of
  // quantised residuals or, for the rare ones, the exact residual. The regions start as slabs of the
  // connected components; then, a few times over, every region gets its least-squares motion and
  // every vertex moves to the transform that brings it closest (the transform number is written for
  // every vertex anyway, so the choice costs nothing). Residuals are quantised on a grid no finer than
  // minStep (the accuracy the frame asks for): a vertex that its transform brings within half a step
  // needs no delta bits, and a region whose vertices all do needs none at all.
  bool WriteTransformDeltaBlock(const std::vector<Vec3>& targets, const Ozm::COzmMeshReaderCtx& ctx, const Part& part,
                                float minStep, std::vector<uint8_t>& out, float step[3]) const {
    const std::vector<Ozm::__vector4>& prev = *ctx.m_pPrevMesh;
    const size_t n = targets.size();
    const Rigid identity{{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}};
    uint32_t regions = 0;
    std::vector<int> regionOf = SeedRegions(prev, part, std::clamp<uint32_t>(options.maxTransforms, 1, 31), &regions);
    std::vector<Rigid> transforms;
    std::vector<uint8_t> transformOf(n, 0);
    std::vector<std::vector<uint32_t>> members;
    constexpr int kRounds = 3;
    for (int round = 0; round < kRounds; ++round) {
      members.assign(regions, {});
      for (size_t i = 0; i < n; ++i) {
        if (regionOf[i] >= 0) members[static_cast<size_t>(regionOf[i])].push_back(static_cast<uint32_t>(i));
      }
      transforms.assign(1, identity);
      for (const std::vector<uint32_t>& m : members) {
        if (m.size() >= 4) transforms.push_back(FitRigid(prev, targets, m));  // fewer: too few to pin a motion down
      }
      std::vector<uint32_t> used(transforms.size(), 0);
      for (size_t i = 0; i < n; ++i) {
        uint8_t best = 0;
        float bestDistance = Distance2(Move(identity.m, prev[i]), targets[i]);
        for (size_t t = 1; t < transforms.size() && bestDistance > 0; ++t) {
          const float d = Distance2(Move(transforms[t].m, prev[i]), targets[i]);
          if (d < bestDistance) {
            bestDistance = d;
            best = static_cast<uint8_t>(t);
          }
        }
        transformOf[i] = best;
        ++used[best];
      }
      // Transforms nobody uses are dropped; the rest become the regions of the next round.
      std::vector<uint8_t> renumber(transforms.size(), 0);
      std::vector<Rigid> kept(1, identity);
      for (size_t t = 1; t < transforms.size(); ++t) {
        if (!used[t]) continue;
        renumber[t] = static_cast<uint8_t>(kept.size());
        kept.push_back(transforms[t]);
      }
      transforms.swap(kept);
      regions = static_cast<uint32_t>(transforms.size() - 1);
      for (size_t i = 0; i < n; ++i) {
        transformOf[i] = renumber[transformOf[i]];
        regionOf[i] = static_cast<int>(transformOf[i]) - 1;
      }
    }

    // Residuals the decoder subtracts, and their quantisation grid.
    std::vector<Vec3> residual(n);
    float rlo[3] = {0, 0, 0}, rhi[3] = {0, 0, 0};
    for (size_t i = 0; i < n; ++i) {
      const Vec3 moved = Move(transforms[transformOf[i]].m, prev[i]);
      for (int a = 0; a < 3; ++a) {
        residual[i][a] = moved[a] - targets[i][a];
        rlo[a] = i ? std::min(rlo[a], residual[i][a]) : residual[i][a];
        rhi[a] = i ? std::max(rhi[a], residual[i][a]) : residual[i][a];
      }
    }
    for (int a = 0; a < 3; ++a) step[a] = std::max(minStep, (rhi[a] - rlo[a]) / 255.0f);
    using Key = std::array<int32_t, 3>;
    std::vector<Key> keys(n);
    std::map<Key, uint32_t> counts;
    std::vector<bool> moving(transforms.size(), false);
    for (size_t i = 0; i < n; ++i) {
      for (int a = 0; a < 3; ++a) {
        keys[i][a] = step[a] > 0 ? static_cast<int32_t>(std::lround(residual[i][a] / step[a])) : 0;
      }
      if (keys[i] != Key{0, 0, 0}) moving[transformOf[i]] = true;
      ++counts[keys[i]];
    }
    // A transform whose vertices all land within half a step needs no deltas at all.
    uint32_t rigidMask = 0;
    for (size_t t = 0; t < transforms.size(); ++t) {
      if (!moving[t]) rigidMask |= 1u << t;
    }
    std::vector<std::pair<uint32_t, Key>> byCount;
    for (const auto& kv : counts) byCount.push_back({kv.second, kv.first});
    std::sort(byCount.begin(), byCount.end(), [](const auto& x, const auto& y) {
      return x.first != y.first ? x.first > y.first : x.second < y.second;
    });
    const size_t tableSize = std::min<size_t>(byCount.size(), HuffmanEncoding::c_MaxUniqueDeltas - 1);
    std::map<Key, uint32_t> symbolOf;
    std::vector<Vec3> table(tableSize);
    for (size_t s = 0; s < tableSize; ++s) {
      symbolOf[byCount[s].second] = static_cast<uint32_t>(s);
      for (int a = 0; a < 3; ++a) table[s][a] = static_cast<float>(byCount[s].second[a]) * step[a];
    }
    const uint32_t escape = static_cast<uint32_t>(tableSize);
    std::vector<int> frequencies(tableSize + 1, 0);
    std::vector<uint32_t> symbols(n, escape);
    for (size_t i = 0; i < n; ++i) {
      if (rigidMask >> transformOf[i] & 1) continue;
      const auto it = symbolOf.find(keys[i]);
      symbols[i] = it == symbolOf.end() ? escape : it->second;
      ++frequencies[symbols[i]];
    }
    frequencies[escape] += 1;  // the tree always has a root, even when no vertex needs a delta
    std::vector<HuffmanEncoding::HuffmanCode> codes;
    if (!MakeHuffmanCodes(frequencies, codes)) return false;

    WordBitWriter w;
    w.Put(rigidMask, 32);
    for (size_t i = 0; i < n; ++i) w.Put(transformOf[i], 5);
    w.Put(static_cast<uint32_t>(transforms.size()), 32);
    for (size_t t = 1; t < transforms.size(); ++t) {
      for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) PutFloat(w, transforms[t].m[4 * c + r]);
      }
    }
    w.Put(static_cast<uint32_t>(tableSize), 9);
    for (const Vec3& d : table) {
      for (float f : d) PutFloat(w, f);
    }
    for (int f : frequencies) w.Put(static_cast<uint32_t>(f), 32);
    for (size_t i = 0; i < n; ++i) {
      if (rigidMask >> transformOf[i] & 1) continue;
      const HuffmanEncoding::HuffmanCode& code = codes[symbols[i]];
      w.Put(code.code, code.numbits);
      if (symbols[i] == escape) {
        for (float f : residual[i]) PutFloat(w, f);
      }
    }
    AppendWords(w.Words(), out);
    return true;
  }

  // The frame payload from the parts' payloads: as it is, or behind the temporal mesh's header and
  // texture transforms.
  void Assemble(const Mesh& frame, uint32_t frameId, const std::vector<std::vector<uint8_t>>& partPayloads,
                std::vector<uint8_t>& payload) const {
    using namespace NWelmStudioFormatFlags;
    payload.clear();
    if (options.temporalSubMeshes) {
      uint32_t vertices = 0, faces = 0;
      for (const Part& p : parts) {
        vertices += static_cast<uint32_t>(p.order.size());
        faces += static_cast<uint32_t>(p.faces.size());
      }
      CStreamingMeshHeader h;
      h.m_Version.v = {NWelmStudioVertexVersion::c_UnwrappedXYZUV,
                       static_cast<uint8_t>(c_TriangleList | (frameId ? c_HasFrameId : 0)),
                       NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal, 0};
      h.m_frameId = frameId;
      const Box box = BoundsOf(frame.positions);
      std::memcpy(h.m_bboxMin, box.min, 12);
      std::memcpy(h.m_bboxMax, box.max, 12);
      h.m_numSubMeshes = static_cast<uint32_t>(parts.size());
      h.m_numVertices = vertices;
      h.m_numFaces = faces;
      h.m_numIndices = 3 * faces;
      WriteStreamingMeshHeader(h, payload);
      std::vector<TexTransform> transforms;
      for (const Part& p : parts) transforms.push_back(p.uvTransform);
      WriteTransformBlock(transforms, payload);
    }
    for (const auto& bytes : partPayloads) payload.insert(payload.end(), bytes.begin(), bytes.end());
  }

  // Closed loop: decodes the payload exactly as a player will, which advances the history, and
  // measures the largest error of the reconstruction against the targets.
  bool Reconstruct(const std::vector<uint8_t>& payload, const std::vector<std::vector<Vec3>>& targets, uint32_t frameId,
                   double* maxError) {
    OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
        OzmCrossPlatform::Stream::CopyOf(payload.data(), static_cast<uint32_t>(payload.size())));
    OZMCORE::CComPtr<IOzmBuffer> vb, ib;
    if (!stream || OZM_FAILED(reader.ReadMesh(stream, 0, &vb, &ib))) {
      OZM_LOGE("SequenceEncoder: the decoder refused frame %u", frameId);
      return false;
    }
    *maxError = 0;
    for (size_t p = 0; p < parts.size(); ++p) {
      const std::vector<Ozm::__vector4>& decoded = *reader.Context(parts[p].id)->m_pPrevMesh;
      for (size_t k = 0; k < targets[p].size() && k < decoded.size(); ++k) {
        const float d[3] = {decoded[k].x, decoded[k].y, decoded[k].z};
        for (int a = 0; a < 3; ++a) {
          *maxError = std::max(*maxError, std::fabs(static_cast<double>(d[a]) - targets[p][k][a]));
        }
      }
    }
    return true;
  }

  void Describe(EncodedFrame* out) const {
    out->sourceVertex.clear();
    out->vertices = out->faces = 0;
    for (const Part& part : parts) {
      for (int k : part.order) out->sourceVertex.push_back(part.vertices[static_cast<size_t>(k)]);
      out->vertices += static_cast<uint32_t>(part.order.size());
      out->faces += static_cast<uint32_t>(part.faces.size());
    }
  }

  bool EncodeKey(const Mesh& frame, uint32_t frameId, EncodedFrame* out) {
    const SequenceOptions& o = options;
    parts = o.temporalSubMeshes ? Components(frame) : std::vector<Part>{WholeMesh(frame)};
    std::vector<std::vector<uint8_t>> partPayloads;
    std::vector<std::vector<Vec3>> targets;
    float frameStep = 0;
    for (Part& part : parts) {
      if (o.temporalSubMeshes) FitTexTransform(frame, part);
      const Mesh local = LocalMesh(frame, part, o.normals);
      KeyFrameOptions k;
      k.indexVersion = o.indexVersion;
      k.indicesFirst = o.indicesFirst;
      k.normalsInRecords = o.normals;
      if (o.temporalSubMeshes) k.subMeshId = part.id;
      if (frameId && !o.temporalSubMeshes) k.frameId = frameId;
      EncodedKeyFrame encoded;
      if (!EncodeKeyFrame(local, k, &encoded)) return false;
      part.order = std::move(encoded.vertexOrder);
      FindComponents(part);
      partPayloads.push_back(std::move(encoded.bytes));
      const Box box = BoundsOf(local.positions);
      for (int a = 0; a < 3; ++a) frameStep = std::max(frameStep, (box.max[a] - box.min[a]) / 65535.0f);
      targets.push_back(DecodedTargets(frame, part));
    }
    Assemble(frame, frameId, partPayloads, out->payload);
    if (!Reconstruct(out->payload, targets, frameId, &out->maxError)) return false;
    // Normals are stored as they are in both kinds of frame (8 bytes a vertex in key records, 6 in the
    // inter frames' block): the key-frame share leaves them out on both sides.
    size_t vertices = 0;
    for (const Part& part : parts) vertices += part.order.size();
    lastKeyBytes = out->payload.size() - (o.normals ? std::min(out->payload.size(), 8 * vertices) : 0);
    out->keyFrame = true;
    out->coding = InterCoding::KeyFramesOnly;
    out->step = frameStep;
    Describe(out);
    return true;
  }

  // What a part's history arrays hold before an inter frame is tried, so that a rejected try can be
  // undone: the pointers, and the contents of the one array the coding overwrites (the byte-delta
  // codings write the older array, or the spare one when there is none; transform deltas the
  // previous one).
  struct Saved {
    Ozm::COzmMeshReaderCtx* ctx;
    std::vector<Ozm::__vector4>* prev;
    std::vector<Ozm::__vector4>* older;
    std::vector<Ozm::__vector4> contents;
  };

  std::vector<Saved> SaveHistory(InterCoding coding) {
    std::vector<Saved> saved;
    for (const Part& part : parts) {
      Ozm::COzmMeshReaderCtx* ctx = reader.Context(part.id);
      Saved s{ctx, ctx->m_pPrevMesh, ctx->m_pOlderMesh, {}};
      if (coding == InterCoding::TransformDelta) {
        s.contents = *ctx->m_pPrevMesh;
      } else if (ctx->m_pOlderMesh) {
        s.contents = *ctx->m_pOlderMesh;
      }
      saved.push_back(std::move(s));
    }
    return saved;
  }

  static void RestoreHistory(InterCoding coding, std::vector<Saved>& saved) {
    for (Saved& s : saved) {
      s.ctx->m_pPrevMesh = s.prev;
      s.ctx->m_pOlderMesh = s.older;
      if (coding == InterCoding::TransformDelta) {
        s.prev->swap(s.contents);
      } else if (s.older) {
        s.older->swap(s.contents);
      }
    }
  }

  // An inter frame in the chosen coding, or in each coding for Auto. Sets *asKey (and writes
  // nothing) when Auto finds a key frame the better choice.
  bool EncodeInter(const Mesh& frame, uint32_t frameId, EncodedFrame* out, bool* asKey) {
    using namespace NWelmStudioFormatFlags;
    const SequenceOptions& o = options;
    const bool chooses = o.inter == InterCoding::Auto;
    std::vector<InterCoding> codings;
    if (chooses) {
      codings.assign(std::begin(kInterCodings), std::end(kInterCodings));
    } else {
      codings.push_back(o.inter);
    }
    const bool byteCodings = std::any_of(codings.begin(), codings.end(),
                                         [](InterCoding c) { return c != InterCoding::TransformDelta; });

    // Per part: its mesh, its targets in decoded order, and (shared by the three byte-delta codings)
    // its quantised prediction residuals.
    std::vector<Mesh> locals;
    std::vector<std::vector<Vec3>> targets;
    std::vector<Deltas> deltas;
    // The frame's accuracy: half the byte-delta step (what the default codings give), or half the
    // 16-bit grid of the frame's box when that is coarser (finer than key frames themselves store
    // buys nothing a 16-bit output layout could show).
    float referenceStep = 0, gridStep = 0;
    for (const Part& part : parts) {
      locals.push_back(LocalMesh(frame, part, o.normals));
      targets.push_back(DecodedTargets(frame, part));
      const Ozm::COzmMeshReaderCtx& ctx = *reader.Context(part.id);
      float lo[3], hi[3];
      if (byteCodings) {
        deltas.push_back(QuantizeResiduals(targets.back(), ctx));
        std::copy(deltas.back().min, deltas.back().min + 3, lo);
        std::copy(deltas.back().max, deltas.back().max + 3, hi);
      } else {
        PredictionResidualRange(targets.back(), ctx, lo, hi);
      }
      const Box box = BoundsOf(locals.back().positions);
      for (int a = 0; a < 3; ++a) {
        gridStep = std::max(gridStep, (box.max[a] - box.min[a]) / 65535.0f);
        referenceStep = std::max({referenceStep, (hi[a] - lo[a]) / 255.0f, gridStep});
      }
    }
    double largest = 0;
    for (float p : frame.positions) largest = std::max(largest, std::fabs(static_cast<double>(p)));
    // Float rounding: the decoder's sums round at the magnitude of the coordinates.
    const double accuracy = 0.5 * referenceStep + 1e-5 + 1e-6 * largest;

    struct Candidate {
      InterCoding coding;
      std::vector<uint8_t> payload;
      float step = 0;
    };
    std::vector<Candidate> candidates;
    std::vector<std::vector<uint8_t>> partPayloads(parts.size());
    for (InterCoding coding : codings) {
      Candidate c{coding, {}, 0};
      for (size_t p = 0; p < parts.size(); ++p) {
        const Part& part = parts[p];
        std::vector<uint8_t>& bytes = partPayloads[p];
        bytes.clear();
        CStreamingMeshHeader h;
        const bool normalsBlock = o.normals && coding != InterCoding::TransformDelta;
        h.m_Version.v = {static_cast<uint8_t>(coding),
                         static_cast<uint8_t>(c_TriangleList | (o.temporalSubMeshes ? c_HasSubMeshId : 0) |
                                              (frameId && !o.temporalSubMeshes ? c_HasFrameId : 0) |
                                              (normalsBlock ? c_HasNormals : 0)),
                         NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_DeltaFrame, 0};
        h.m_subMeshId = part.id;
        h.m_frameId = frameId;
        const Box box = BoundsOf(locals[p].positions);
        std::memcpy(h.m_bboxMin, box.min, 12);
        std::memcpy(h.m_bboxMax, box.max, 12);
        WriteStreamingMeshHeader(h, bytes);
        bool ok = true;
        if (coding == InterCoding::TransformDelta) {
          float step[3];
          ok = WriteTransformDeltaBlock(targets[p], *reader.Context(part.id), part, referenceStep, bytes, step);
          c.step = std::max({c.step, step[0], step[1], step[2]});
        } else {
          const Deltas& d = deltas[p];
          for (int a = 0; a < 3; ++a) c.step = std::max(c.step, (d.max[a] - d.min[a]) / 255.0f);
          switch (coding) {
            case InterCoding::ByteDelta: ok = WriteByteDeltaBlock(d, bytes); break;
            case InterCoding::Golomb: ok = WriteGolombBlock(d, bytes); break;
            default: ok = WriteHuffmanBlock(d, bytes); break;
          }
          if (normalsBlock) WriteNormalsBlock(locals[p].normals, part.order, bytes);
        }
        if (!ok) return false;
      }
      Assemble(frame, frameId, partPayloads, c.payload);
      if (chooses) out->candidates.push_back({coding, c.payload.size()});
      candidates.push_back(std::move(c));
    }
    std::vector<size_t> order(candidates.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t x, size_t y) { return candidates[x].payload.size() < candidates[y].payload.size(); });

    // Key frame or inter frame: an inter frame is charged its bytes plus the bits it lacks to reach the
    // key frame's precision (per coordinate, log2 of its step over the key frame's grid, where
    // coarser), so that both are compared at the same accuracy. See SequenceOptions::keyFrameShare.
    if (chooses && o.keyFrameShare > 0 && lastKeyBytes > 0) {
      double cost = std::numeric_limits<double>::max();
      size_t vertices = 0;
      for (const Part& part : parts) vertices += part.order.size();
      for (const Candidate& c : candidates) {
        const double lacking = gridStep > 0 && c.step > gridStep ? std::log2(c.step / gridStep) : 0.0;
        const size_t normals = o.normals && c.coding != InterCoding::TransformDelta ? 6 * vertices : 0;
        cost = std::min(cost, static_cast<double>(c.payload.size() - std::min(normals, c.payload.size())) +
                                  3.0 * static_cast<double>(vertices) * lacking / 8);
      }
      if (cost > o.keyFrameShare * static_cast<double>(lastKeyBytes)) {
        *asKey = true;
        return true;
      }
    }
    // The smallest first; a try that misses the accuracy is undone and the next one tried. Only a
    // try that may be undone needs its history kept.
    for (size_t rank = 0; rank < order.size(); ++rank) {
      Candidate& c = candidates[order[rank]];
      std::vector<Saved> saved;
      if (chooses) saved = SaveHistory(c.coding);
      double error = 0;
      if (!Reconstruct(c.payload, targets, frameId, &error)) return false;
      if (chooses && error > accuracy) {
        OZM_LOGW("SequenceEncoder: frame %u in coding %d is off by %g, more than %g", frameId,
                 static_cast<int>(c.coding), error, accuracy);
        RestoreHistory(c.coding, saved);
        continue;
      }
      out->payload = std::move(c.payload);
      out->keyFrame = false;
      out->coding = c.coding;
      out->maxError = error;
      out->step = c.step;
      Describe(out);
      return true;
    }
    *asKey = true;  // no coding reached the accuracy: a key frame does
    return true;
  }
};

SequenceEncoder::SequenceEncoder(const SequenceOptions& options) : m_state(new State) {
  m_state->options = options;
  m_state->reader.Initialize(m_state->allocator, 0);
}

SequenceEncoder::~SequenceEncoder() = default;

bool SequenceEncoder::Encode(const Mesh& frame, uint32_t frameId, EncodedFrame* out) {
  State& s = *m_state;
  const SequenceOptions& o = s.options;
  const size_t numVertices = frame.VertexCount();
  if (frame.uvs.size() != 2 * numVertices || (o.normals && frame.normals.size() != 3 * numVertices)) return false;
  for (const WelmMeshFace& f : frame.faces) {
    for (uint32_t v : f.v) {
      if (v >= numVertices) return false;
    }
  }

  const bool sameTopology = s.started && numVertices == s.groupVertices && frame.faces.size() == s.groupFaces.size() &&
                            std::memcmp(frame.faces.data(), s.groupFaces.data(),
                                        frame.faces.size() * sizeof(WelmMeshFace)) == 0;
  const bool groupStart = !sameTopology || o.inter == InterCoding::KeyFramesOnly || s.frameInGroup >= o.keyFrameInterval;
  if (groupStart) {
    s.started = true;
    s.frameInGroup = 0;
    s.groupFaces = frame.faces;
    s.groupVertices = numVertices;
  }
  ++s.frameInGroup;
  out->candidates.clear();
  if (!groupStart) {
    bool asKey = false;
    if (!s.EncodeInter(frame, frameId, out, &asKey)) return false;
    if (!asKey) return true;
  }
  // Key frames placed inside a group keep the group's count: group starts stay where the pictures'
  // key frames are.
  return s.EncodeKey(frame, frameId, out);
}

}  // namespace OzmEncode
