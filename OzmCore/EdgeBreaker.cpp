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
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
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
    {C, 1}, {C, 1},   {C, 1}, {C, 1}, {C, 1}, {C, 1}, {C, 1}, {C, 1},  // 0xxx
    {S, 4}, {End, 4},                                                  // 1000, 1001
    {R, 3}, {R, 3},                                                    // 101x
    {L, 3}, {L, 3},                                                    // 110x
    {E, 3}, {E, 3},                                                    // 111x
};

// One vertex of a boundary loop. Links are indices into the submesh's node array, so that every
// link, even one left behind by a corrupt stream, stays inside the array.
struct LoopNode {
  int32_t v;
  int32_t next;
  int32_t prev;
};

// A loop waiting on the gate stack: its gate node and its length.
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

    // Every code takes at least one bit: eight per byte bound the array. Only what is written is
    // touched.
    const size_t maxCodes = compressedIndices.size() * 8;
    std::unique_ptr<EEdgeCode[]> codes(new EEdgeCode[maxCodes + 1]);
    size_t codeCount = 0;
    std::vector<std::pair<size_t, size_t>> submeshes;  // first code, code count (End included)

    uint64_t window = 0;  // the next unread bits, most significant first
    int avail = 0;        // how many bits of window are stream bits
    size_t submeshStart = 0;
    size_t faceCount = 0;  // codes other than End in the submeshes found
    bool complete = false;
    bool cutOff = false;
    while (!complete && !cutOff) {
      // Refill with whole bytes. Eight at once where there are that many; bits below avail then
      // already hold the next byte's first bits, which the next refill writes again unchanged.
      if (end - p >= 8) {
        uint64_t word;
        std::memcpy(&word, p, 8);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        word = __builtin_bswap64(word);
#endif
        window |= word >> avail;
        const int bytes = (63 - avail) >> 3;
        p += bytes;
        avail += 8 * bytes;
      } else {
        while (avail <= 56 && p != end) {
          window |= static_cast<uint64_t>(*p++) << (56 - avail);
          avail += 8;
        }
      }
      if (avail == 0) {
        OZM_ASSERT_MSG(false, kReadPastEnd);
        break;
      }
      // A code is at most four bits long, so with four bits at hand the next one is complete; at
      // the end of the stream, a code longer than the bits left is cut off.
      while (avail >= 4 || (p == end && avail > 0)) {
        const CodeEntry entry = kCodeByNibble[window >> 60];
        if (entry.bits > avail) {
          OZM_ASSERT_MSG(false, kReadPastEnd);
          cutOff = true;
          break;
        }
        window <<= entry.bits;
        avail -= entry.bits;
        codes[codeCount++] = entry.code;
        if (entry.code == End) {
          const size_t count = codeCount - submeshStart;
          submeshes.emplace_back(submeshStart, count);
          faceCount += count - 1;
          // A lone End closes the stream, except as the first submesh.
          if (count == 1 && submeshes.size() > 1) {
            complete = true;
            break;
          }
          submeshStart = codeCount;
        }
      }
    }

    // One face per code other than End; the count is bounded by eight times the byte count.
    faces->reserve(faces->size() + faceCount);

    int nextVertex = 0;
    for (const auto& [first, count] : submeshes) {
      if (count > static_cast<size_t>(std::numeric_limits<int>::max())) return false;
      if (!DecompressSubmesh(codes.get() + first, static_cast<int>(count), faces, nextVertex)) return false;
    }
    return complete;
  } catch (const std::exception&) {
    // Allocation failures: the stream is beyond what this device can hold.
    OZM_LOGE("EdgeBreaker: out of memory decoding %zu bytes", compressedIndices.size());
    return false;
  }
}

bool CEdgeBreaker::DecompressSubmesh(EEdgeCode* codes, int codeLen, std::vector<WelmMeshFace>* faces, int& nextVertex) {
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

  // The loop being worked on is (g, length); the loops waiting behind it are on the stack. An S
  // replaces the current loop's entry by m and pushes g: here, m waits and g goes on. An E pops.
  std::vector<PendingLoop> waiting;
  waiting.reserve(static_cast<size_t>(splits));
  int32_t g = 0;  // the gate node; -1 once the outermost loop is closed
  int64_t length = e;
  int32_t split = 0;
  LoopNode* const n = nodes.data();

  // Faces are written in place: at most one per code, the unused tail is cut off at the end.
  const size_t firstFace = faces->size();
  faces->resize(firstFace + static_cast<size_t>(codeLen));
  WelmMeshFace* const out = faces->data() + firstFace;
  WelmMeshFace* o = out;
  bool corrupt = false;

  // Second pass: one triangle per code, on the gate edge (g.prev, g).
  for (int i = 0; i < codeLen && !corrupt; ++i) {
    switch (codes[i]) {
      case C: {
        if (g < 0) break;
        if (used == nodeCount) {
          corrupt = true;
          break;
        }
        const int32_t before = n[g].prev;
        *o++ = Face(n[before].v, n[g].v, nextVertex);
        n[used] = {nextVertex, g, before};
        n[before].next = used;
        n[g].prev = used;
        ++used;
        ++nextVertex;
        ++length;
        break;
      }
      case L: {
        if (g < 0) break;
        const int32_t before = n[g].prev;
        const int32_t twoBefore = n[before].prev;
        *o++ = Face(n[before].v, n[g].v, n[twoBefore].v);
        n[twoBefore].next = g;
        n[g].prev = twoBefore;
        if (length > 1) --length;
        break;
      }
      case R: {
        if (g < 0) break;
        const LoopNode gate = n[g];
        *o++ = Face(n[gate.prev].v, gate.v, n[gate.next].v);
        n[gate.prev].next = gate.next;
        n[gate.next].prev = gate.prev;
        g = gate.next;
        if (length > 1) --length;
        break;
      }
      case E: {
        if (!OZM_ASSERT_MSG(g >= 0, "gate != nullptr")) {
          corrupt = true;
          break;
        }
        *o++ = Face(n[n[g].prev].v, n[g].v, n[n[g].next].v);
        if (waiting.empty()) {
          g = -1;
        } else {
          g = waiting.back().gate;
          length = waiting.back().length;
          waiting.pop_back();
        }
        break;
      }
      case S: {
        if (g < 0) break;
        ++split;
        if (!OZM_ASSERT_MSG(static_cast<size_t>(split) < offsets.size(), "split offset known")) {
          corrupt = true;
          break;
        }
        const int64_t steps = std::max<int64_t>(1, offsets[static_cast<size_t>(split)] + 1);
        // The third vertex lies strictly between the gate and the vertex before it.
        if (!OZM_ASSERT_MSG(steps <= length - 2, "split target inside the loop") || used == nodeCount) {
          corrupt = true;
          break;
        }
        // Walk the shorter way round: the same node as steps forward, at half the cost or less.
        int32_t t = g;
        if (steps <= length - steps) {
          for (int64_t k = 0; k < steps; ++k) t = n[t].next;
        } else {
          for (int64_t k = steps; k < length; ++k) t = n[t].prev;
        }
        const int32_t before = n[g].prev;
        const int32_t afterTarget = n[t].next;
        *o++ = Face(n[before].v, n[g].v, n[t].v);
        // m opens the loop (g.prev, m = t, ..., old t.next), resumed after the loop (g, ..., t).
        const int32_t m = used++;
        n[m] = {n[t].v, afterTarget, before};
        n[before].next = m;
        n[afterTarget].prev = m;
        n[t].next = g;
        n[g].prev = t;
        waiting.push_back({m, length - steps});
        length = steps + 1;
        break;
      }
      case End: break;
      default: OZM_ASSERT_MSG(false, "false"); break;
    }
  }
  faces->resize(firstFace + static_cast<size_t>(o - out));
  return !corrupt;
}

}  // namespace EdgeBreaker
