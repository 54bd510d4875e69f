// EdgeBreaker connectivity decoder.
//
// The stream is a bare sequence of prefix codes, one per triangle, read most significant bit first.
// Each submesh is a disc whose boundary, the initial loop, is implied by the codes: the first pass
// over a submesh's codes computes the loop's length and, for every split, how far along the loop its
// third vertex lies. The second pass then grows the triangles from the loop: the gate is the loop
// edge (g.prev, g), every code takes the undecoded triangle on that edge, and the loops still to be
// worked on wait on the gate stack.
//
// Corrupt streams never read outside the code array or the node array and never walk a loop
// further than its length; decoding stops there and the call returns false.
#include "OzmCore/EdgeBreaker.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

#include "platform/Log.h"

namespace EdgeBreaker {

namespace {

// The prefix codes, looked up by the next four bits of the stream.
struct CodeEntry {
  EEdgeCode code;
  int bits;
};
constexpr CodeEntry kCodeByNibble[16] = {
    {C, 1}, {C, 1}, {C, 1}, {C, 1}, {C, 1}, {C, 1}, {C, 1}, {C, 1},  // 0xxx
    {S, 4}, {End, 4},                                                // 1000, 1001
    {R, 3}, {R, 3},                                                  // 101x
    {L, 3}, {L, 3},                                                  // 110x
    {E, 3}, {E, 3},                                                  // 111x
};

// One vertex of a boundary loop. Links are indices into the submesh's node array, so that every
// link, even one left behind by a corrupt stream, stays inside the array.
struct LoopNode {
  int32_t v;
  int32_t next;
  int32_t prev;
};

// A loop waiting on the gate stack: its gate node and its length. Only the top entry's length
// changes while the loop is worked on; its gate entry may be stale (R moves the gate without
// touching the stack) but is never used before the entry is replaced or popped.
struct PendingLoop {
  int32_t gate;
  int64_t length;
};

inline WelmMeshFace Face(int32_t a, int32_t b, int32_t c) {
  return WelmMeshFace{{static_cast<uint32_t>(a), static_cast<uint32_t>(b), static_cast<uint32_t>(c)}};
}

constexpr const char* kReadPastEnd = "p <= &compressedIndices[compressedIndices.size() - 1]";

}  // namespace

CEdgeBreaker::CEdgeBreaker() = default;
CEdgeBreaker::~CEdgeBreaker() = default;

int CEdgeBreaker::BitsInCode(EEdgeCode code) {
  static constexpr int kBits[] = {1, 3, 3, 3, 4, 4};
  if (code < C || code > End) {
    OZM_ASSERT_MSG(false, "false");
    return 0;
  }
  return kBits[code];
}

bool CEdgeBreaker::Decompress(std::vector<uint8_t>& compressedIndices, std::vector<WelmMeshFace>* faces) {
  if (!faces) return false;
  try {
    const uint8_t* p = compressedIndices.data();
    const uint8_t* const end = p + compressedIndices.size();

    // Codes take one to four bits; valid streams average about two, so this rarely grows.
    std::vector<EEdgeCode> codes;
    codes.reserve(compressedIndices.size() * 4 + 2);
    std::vector<std::pair<size_t, size_t>> submeshes;  // first code, code count (End included)

    uint64_t window = 0;  // the next unread bits, most significant first; zero below them
    int avail = 0;        // how many bits of window are stream bits
    size_t submeshStart = 0;
    size_t faceCount = 0;  // codes other than End in the submeshes found
    bool complete = false;
    for (;;) {
      if (avail < 4) {
        while (avail <= 56 && p != end) {
          window |= static_cast<uint64_t>(*p++) << (56 - avail);
          avail += 8;
        }
        if (avail == 0) {
          OZM_ASSERT_MSG(false, kReadPastEnd);
          break;
        }
      }
      const CodeEntry entry = kCodeByNibble[window >> 60];
      if (entry.bits > avail) {  // the last code is cut off
        OZM_ASSERT_MSG(false, kReadPastEnd);
        break;
      }
      window <<= entry.bits;
      avail -= entry.bits;
      codes.push_back(entry.code);
      if (entry.code == End) {
        const size_t count = codes.size() - submeshStart;
        submeshes.emplace_back(submeshStart, count);
        faceCount += count - 1;
        // A lone End closes the stream, except as the first submesh.
        if (count == 1 && submeshes.size() > 1) {
          complete = true;
          break;
        }
        submeshStart = codes.size();
      }
    }

    // One face per code other than End; the count is bounded by eight times the byte count.
    faces->reserve(faces->size() + faceCount);

    int nextVertex = 0;
    for (const auto& [first, count] : submeshes) {
      if (count > static_cast<size_t>(std::numeric_limits<int>::max())) return false;
      if (!DecompressSubmesh(codes.data() + first, static_cast<int>(count), faces, nextVertex)) return false;
    }
    return complete;
  } catch (const std::exception&) {
    // Allocation failures: the stream is beyond what this device can hold.
    OZM_LOGE("EdgeBreaker: out of memory decoding %zu bytes", compressedIndices.size());
    return false;
  }
}

bool CEdgeBreaker::DecompressSubmesh(EEdgeCode* codes, int codeLen, std::vector<WelmMeshFace>* faces,
                                     int& nextVertex) {
  if (!codes || !faces) return false;

  // First pass: e ends as the initial loop's length. A split pushes (e, split number); the E that
  // closes the loop it opened pops it and stores how far along the loop its third vertex lies.
  int64_t e = 0;
  int32_t splits = 0;
  int64_t newVertices = 0;
  int64_t depth = 0;
  std::vector<std::pair<int64_t, int32_t>> splitStack;
  std::vector<int64_t> offsets;
  for (int i = 0; depth >= 0;) {
    if (i >= codeLen) {
      OZM_ASSERT_MSG(false, "codeIndex < codeLen");
      return false;
    }
    switch (codes[i++]) {
      case C:
        ++newVertices;
        --e;
        break;
      case L:
      case R: ++e; break;
      case E:
        if (!splitStack.empty()) {
          const auto [e0, s0] = splitStack.back();
          splitStack.pop_back();
          if (static_cast<size_t>(s0) >= offsets.size()) offsets.resize(static_cast<size_t>(s0) + 1);
          offsets[static_cast<size_t>(s0)] = e + 1 - e0;
        }
        e += 3;
        --depth;
        break;
      case S:
        ++splits;
        --e;
        splitStack.emplace_back(e, splits);
        ++depth;
        break;
      case End:
        depth = -1;
        if (i == 1) return true;  // an empty submesh
        break;
      default: OZM_ASSERT_MSG(false, "false"); break;
    }
  }

  if (!OZM_ASSERT_MSG(e > 0, "initial loop length > 0")) return false;
  const int64_t nodeCount = e + newVertices + splits + 1;
  constexpr int64_t kMaxIndex = std::numeric_limits<int32_t>::max();
  if (!OZM_ASSERT_MSG(nodeCount <= kMaxIndex && nextVertex >= 0 && nextVertex + e + newVertices <= kMaxIndex,
                      "vertex count fits the index type")) {
    return false;
  }

  // The initial loop: node k holds vertex nextVertex + k.
  std::vector<LoopNode> nodes(static_cast<size_t>(nodeCount));
  const int32_t loopLength = static_cast<int32_t>(e);
  for (int32_t k = 0; k < loopLength; ++k) {
    nodes[k] = {nextVertex + k, k + 1 == loopLength ? 0 : k + 1, k == 0 ? loopLength - 1 : k - 1};
  }
  nextVertex += loopLength;
  int32_t used = loopLength;

  std::vector<PendingLoop> stack;
  stack.reserve(static_cast<size_t>(splits) + 1);
  stack.push_back({0, e});
  int32_t g = 0;  // the gate node; -1 once the outermost loop is closed
  int32_t split = 0;

  // Second pass: one triangle per code, on the gate edge (g.prev, g).
  for (int i = 0; i < codeLen; ++i) {
    switch (codes[i]) {
      case C: {
        if (g < 0) break;
        if (used == nodeCount) return false;
        LoopNode& gate = nodes[g];
        const int32_t before = gate.prev;
        faces->push_back(Face(nodes[before].v, gate.v, nextVertex));
        nodes[used] = {nextVertex, g, before};
        nodes[before].next = used;
        gate.prev = used;
        ++used;
        ++nextVertex;
        ++stack.back().length;
        break;
      }
      case L: {
        if (g < 0) break;
        LoopNode& gate = nodes[g];
        const int32_t before = gate.prev;
        const int32_t twoBefore = nodes[before].prev;
        faces->push_back(Face(nodes[before].v, gate.v, nodes[twoBefore].v));
        nodes[twoBefore].next = g;
        gate.prev = twoBefore;
        if (stack.back().length > 1) --stack.back().length;
        break;
      }
      case R: {
        if (g < 0) break;
        const LoopNode gate = nodes[g];
        faces->push_back(Face(nodes[gate.prev].v, gate.v, nodes[gate.next].v));
        nodes[gate.prev].next = gate.next;
        nodes[gate.next].prev = gate.prev;
        g = gate.next;
        if (stack.back().length > 1) --stack.back().length;
        break;
      }
      case E: {
        if (!OZM_ASSERT_MSG(g >= 0, "gate != nullptr")) return false;
        const LoopNode& gate = nodes[g];
        faces->push_back(Face(nodes[gate.prev].v, gate.v, nodes[gate.next].v));
        stack.pop_back();
        g = stack.empty() ? -1 : stack.back().gate;
        break;
      }
      case S: {
        if (g < 0) break;
        ++split;
        if (!OZM_ASSERT_MSG(static_cast<size_t>(split) < offsets.size(), "split offset known")) return false;
        const int64_t steps = std::max<int64_t>(1, offsets[static_cast<size_t>(split)] + 1);
        const int64_t length = stack.back().length;
        // The third vertex lies strictly between the gate and the vertex before it.
        if (!OZM_ASSERT_MSG(steps <= length - 2, "split target inside the loop")) return false;
        if (used == nodeCount) return false;
        // Walk the shorter way round: the same node as steps forward, at half the cost or less.
        int32_t t = g;
        if (steps <= length - steps) {
          for (int64_t k = 0; k < steps; ++k) t = nodes[t].next;
        } else {
          for (int64_t k = steps; k < length; ++k) t = nodes[t].prev;
        }
        LoopNode& gate = nodes[g];
        const int32_t before = gate.prev;
        const int32_t afterTarget = nodes[t].next;
        faces->push_back(Face(nodes[before].v, gate.v, nodes[t].v));
        // m opens the loop (g.prev, m = t, ..., old t.next), resumed after the loop (g, ..., t).
        const int32_t m = used++;
        nodes[m] = {nodes[t].v, afterTarget, before};
        nodes[before].next = m;
        nodes[afterTarget].prev = m;
        nodes[t].next = g;
        gate.prev = t;
        stack.back() = {m, length - steps};
        stack.push_back({g, steps + 1});
        break;
      }
      case End: break;
      default: OZM_ASSERT_MSG(false, "false"); break;
    }
  }
  return true;
}

}  // namespace EdgeBreaker
