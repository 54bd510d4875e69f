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

Rigid FitRigid(const std::vector<Vec3>& p, const std::vector<Vec3>& q) {
  double pc[3] = {0, 0, 0}, qc[3] = {0, 0, 0};
  for (size_t i = 0; i < p.size(); ++i) {
    for (int a = 0; a < 3; ++a) {
      pc[a] += p[i][a];
      qc[a] += q[i][a];
    }
  }
  for (int a = 0; a < 3; ++a) {
    pc[a] /= static_cast<double>(p.size());
    qc[a] /= static_cast<double>(p.size());
  }
  // M = sum (q - qc)(p - pc)^T; its orthogonal polar factor is the best rotation.
  double M[3][3] = {};
  for (size_t i = 0; i < p.size(); ++i) {
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) M[r][c] += (q[i][r] - qc[r]) * (p[i][c] - pc[c]);
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

  // Rigid transforms per spatial cell of the previous positions, and per vertex a delta from a
  // Huffman-coded table of quantised residuals or, for the rare ones, the exact residual.
  bool WriteTransformDeltaBlock(const std::vector<Vec3>& targets, const Ozm::COzmMeshReaderCtx& ctx,
                                std::vector<uint8_t>& out, float step[3]) const {
    const std::vector<Ozm::__vector4>& prev = *ctx.m_pPrevMesh;
    const size_t n = targets.size();
    // Cells: the longest axis of the previous positions cut into slabs.
    float lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
    for (size_t i = 0; i < n; ++i) {
      const float p[3] = {prev[i].x, prev[i].y, prev[i].z};
      for (int a = 0; a < 3; ++a) {
        lo[a] = i ? std::min(lo[a], p[a]) : p[a];
        hi[a] = i ? std::max(hi[a], p[a]) : p[a];
      }
    }
    int axis = 0;
    for (int a = 1; a < 3; ++a) {
      if (hi[a] - lo[a] > hi[axis] - lo[axis]) axis = a;
    }
    const uint32_t cells = std::clamp<uint32_t>(options.maxTransforms, 1, 31);
    const float extent = std::max(hi[axis] - lo[axis], 1e-20f);
    std::vector<uint8_t> cellOf(n);
    std::vector<std::vector<Vec3>> from(cells), to(cells);
    for (size_t i = 0; i < n; ++i) {
      const float p[3] = {prev[i].x, prev[i].y, prev[i].z};
      const uint32_t c = std::min<uint32_t>(cells - 1, static_cast<uint32_t>((p[axis] - lo[axis]) / extent * cells));
      cellOf[i] = static_cast<uint8_t>(c);
      from[c].push_back({p[0], p[1], p[2]});
      to[c].push_back(targets[i]);
    }
    std::vector<Rigid> transforms(1, Rigid{{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}});
    std::vector<uint8_t> transformOf(n, 0);
    std::vector<uint8_t> transformOfCell(cells, 0);
    for (uint32_t c = 0; c < cells; ++c) {
      if (from[c].size() < 4) continue;  // too few points to pin a motion down: identity
      transformOfCell[c] = static_cast<uint8_t>(transforms.size());
      transforms.push_back(FitRigid(from[c], to[c]));
    }
    for (size_t i = 0; i < n; ++i) transformOf[i] = transformOfCell[cellOf[i]];

    // Residuals the decoder subtracts, and their quantisation grid (the byte-delta step of the frame).
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
    for (int a = 0; a < 3; ++a) step[a] = (rhi[a] - rlo[a]) / 255.0f;
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
  const bool key = !sameTopology || o.inter == InterCoding::KeyFramesOnly || s.frameInGroup >= o.keyFrameInterval;
  if (key) {
    s.started = true;
    s.frameInGroup = 0;
    s.groupFaces = frame.faces;
    s.groupVertices = numVertices;
    s.parts = o.temporalSubMeshes ? Components(frame) : std::vector<Part>{WholeMesh(frame)};
    if (o.temporalSubMeshes) {
      for (Part& p : s.parts) FitTexTransform(frame, p);
    }
  }
  ++s.frameInGroup;

  using namespace NWelmStudioFormatFlags;
  std::vector<std::vector<uint8_t>> partPayloads;
  std::vector<std::vector<Vec3>> partTargets;
  uint32_t totalVertices = 0, totalFaces = 0;
  float frameStep[3] = {0, 0, 0};
  for (Part& part : s.parts) {
    // The part's own mesh: positions, texture coordinates (in its own rectangle when it has one) and
    // normals, in local vertex numbers.
    Mesh local;
    local.faces = part.faces;
    for (uint32_t v : part.vertices) {
      local.positions.insert(local.positions.end(), frame.positions.begin() + 3 * v, frame.positions.begin() + 3 * v + 3);
      float u = frame.uvs[2 * v], t = frame.uvs[2 * v + 1];
      if (part.uvTransform.present) {
        u = (u - part.uvOrigin[0]) / part.uvSize[0];
        t = (t - part.uvOrigin[1]) / part.uvSize[1];
      }
      local.uvs.insert(local.uvs.end(), {u, t});
      if (o.normals) local.normals.insert(local.normals.end(), frame.normals.begin() + 3 * v, frame.normals.begin() + 3 * v + 3);
    }

    std::vector<uint8_t> bytes;
    if (key) {
      KeyFrameOptions k;
      k.indexVersion = o.indexVersion;
      k.indicesFirst = o.indicesFirst;
      k.normalsInRecords = o.normals;
      if (o.temporalSubMeshes) k.subMeshId = part.id;
      if (frameId && !o.temporalSubMeshes) k.frameId = frameId;
      EncodedKeyFrame encoded;
      if (!EncodeKeyFrame(local, k, &encoded)) return false;
      part.order = encoded.vertexOrder;
      bytes = std::move(encoded.bytes);
      const Box box = BoundsOf(local.positions);
      for (int a = 0; a < 3; ++a) frameStep[a] = std::max(frameStep[a], (box.max[a] - box.min[a]) / 65535.0f);
    } else {
      const Ozm::COzmMeshReaderCtx* ctx = s.reader.Context(part.id);
      std::vector<Vec3> targets(part.order.size());
      for (size_t k = 0; k < part.order.size(); ++k) {
        const size_t v = static_cast<size_t>(part.order[k]);
        targets[k] = {local.positions[3 * v], local.positions[3 * v + 1], local.positions[3 * v + 2]};
      }
      CStreamingMeshHeader h;
      const bool normalsBlock = o.normals && o.inter != InterCoding::TransformDelta;
      h.m_Version.v = {static_cast<uint8_t>(o.inter),
                       static_cast<uint8_t>(c_TriangleList | (o.temporalSubMeshes ? c_HasSubMeshId : 0) |
                                            (frameId && !o.temporalSubMeshes ? c_HasFrameId : 0) |
                                            (normalsBlock ? c_HasNormals : 0)),
                       NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_DeltaFrame, 0};
      h.m_subMeshId = part.id;
      h.m_frameId = frameId;
      const Box box = BoundsOf(local.positions);
      std::memcpy(h.m_bboxMin, box.min, 12);
      std::memcpy(h.m_bboxMax, box.max, 12);
      WriteStreamingMeshHeader(h, bytes);
      bool ok = true;
      if (o.inter == InterCoding::TransformDelta) {
        float step[3];
        ok = s.WriteTransformDeltaBlock(targets, *ctx, bytes, step);
        for (int a = 0; a < 3; ++a) frameStep[a] = std::max(frameStep[a], step[a]);
      } else {
        const State::Deltas d = s.QuantizeResiduals(targets, *ctx);
        for (int a = 0; a < 3; ++a) frameStep[a] = std::max(frameStep[a], (d.max[a] - d.min[a]) / 255.0f);
        switch (o.inter) {
          case InterCoding::ByteDelta: ok = s.WriteByteDeltaBlock(d, bytes); break;
          case InterCoding::Golomb: ok = s.WriteGolombBlock(d, bytes); break;
          default: ok = s.WriteHuffmanBlock(d, bytes); break;
        }
        if (normalsBlock) WriteNormalsBlock(local.normals, part.order, bytes);
      }
      if (!ok) return false;
    }
    totalVertices += static_cast<uint32_t>(part.order.size());
    totalFaces += static_cast<uint32_t>(part.faces.size());
    partPayloads.push_back(std::move(bytes));
    std::vector<Vec3> targets(part.order.size());
    for (size_t k = 0; k < part.order.size(); ++k) {
      const size_t v = part.vertices[static_cast<size_t>(part.order[k])];
      targets[k] = {frame.positions[3 * v], frame.positions[3 * v + 1], frame.positions[3 * v + 2]};
    }
    partTargets.push_back(std::move(targets));
  }

  out->payload.clear();
  if (o.temporalSubMeshes) {
    CStreamingMeshHeader h;
    h.m_Version.v = {NWelmStudioVertexVersion::c_UnwrappedXYZUV,
                     static_cast<uint8_t>(c_TriangleList | (frameId ? c_HasFrameId : 0)),
                     NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal, 0};
    h.m_frameId = frameId;
    const Box box = BoundsOf(frame.positions);
    std::memcpy(h.m_bboxMin, box.min, 12);
    std::memcpy(h.m_bboxMax, box.max, 12);
    h.m_numSubMeshes = static_cast<uint32_t>(s.parts.size());
    h.m_numVertices = totalVertices;
    h.m_numFaces = totalFaces;
    h.m_numIndices = 3 * totalFaces;
    WriteStreamingMeshHeader(h, out->payload);
    std::vector<TexTransform> transforms;
    for (const Part& p : s.parts) transforms.push_back(p.uvTransform);
    WriteTransformBlock(transforms, out->payload);
  }
  for (const auto& bytes : partPayloads) out->payload.insert(out->payload.end(), bytes.begin(), bytes.end());

  // Closed loop: decode what was made, exactly as a player will, to advance the history.
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
      OzmCrossPlatform::Stream::CopyOf(out->payload.data(), static_cast<uint32_t>(out->payload.size())));
  OZMCORE::CComPtr<IOzmBuffer> vb, ib;
  if (!stream || OZM_FAILED(s.reader.ReadMesh(stream, 0, &vb, &ib))) {
    OZM_LOGE("SequenceEncoder: the decoder refused frame %u", frameId);
    return false;
  }

  out->keyFrame = key;
  out->sourceVertex.clear();
  for (const Part& part : s.parts) {
    for (int k : part.order) out->sourceVertex.push_back(part.vertices[static_cast<size_t>(k)]);
  }
  out->vertices = totalVertices;
  out->faces = totalFaces;
  out->maxError = 0;
  for (size_t p = 0; p < s.parts.size(); ++p) {
    const std::vector<Ozm::__vector4>& decoded = *s.reader.Context(s.parts[p].id)->m_pPrevMesh;
    for (size_t k = 0; k < partTargets[p].size() && k < decoded.size(); ++k) {
      const float d[3] = {decoded[k].x, decoded[k].y, decoded[k].z};
      for (int a = 0; a < 3; ++a) out->maxError = std::max(out->maxError, std::fabs(static_cast<double>(d[a]) - partTargets[p][k][a]));
    }
  }
  out->step = std::max({frameStep[0], frameStep[1], frameStep[2]});
  return true;
}

}  // namespace OzmEncode
