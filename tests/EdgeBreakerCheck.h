// The round-trip property of the EdgeBreaker codec, shared by the tests and the fuzz target: the
// decoded triangles, renumbered through the encoder's vertex order, are the input triangles, each
// exactly once and with its orientation (any rotation of a triangle's corners is the same triangle).
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "OzmCore/EdgeBreaker.h"

namespace EdgeBreakerCheck {

using Triangle = std::array<uint32_t, 3>;

// The rotation of (a, b, c) that is smallest in lexicographic order.
inline Triangle Canonical(uint32_t a, uint32_t b, uint32_t c) {
  Triangle best{a, b, c};
  best = std::min(best, Triangle{b, c, a});
  best = std::min(best, Triangle{c, a, b});
  return best;
}

// Empty when decoded, renumbered by vertexOrder, equals input; otherwise what differs.
inline std::string CompareWithInput(const std::vector<WelmMeshFace>& input, const std::vector<WelmMeshFace>& decoded,
                                    const std::vector<int>& vertexOrder) {
  if (decoded.size() != input.size()) {
    return "decoded " + std::to_string(decoded.size()) + " triangles, expected " + std::to_string(input.size());
  }
  std::vector<Triangle> want, got;
  want.reserve(input.size());
  got.reserve(decoded.size());
  for (const WelmMeshFace& f : input) want.push_back(Canonical(f.v[0], f.v[1], f.v[2]));
  for (size_t i = 0; i < decoded.size(); ++i) {
    const WelmMeshFace& f = decoded[i];
    for (const uint32_t v : f.v) {
      if (v >= vertexOrder.size()) {
        return "decoded triangle " + std::to_string(i) + " uses vertex " + std::to_string(v) + " of " +
               std::to_string(vertexOrder.size());
      }
    }
    got.push_back(Canonical(static_cast<uint32_t>(vertexOrder[f.v[0]]), static_cast<uint32_t>(vertexOrder[f.v[1]]),
                            static_cast<uint32_t>(vertexOrder[f.v[2]])));
  }
  std::sort(want.begin(), want.end());
  std::sort(got.begin(), got.end());
  for (size_t i = 0; i < want.size(); ++i) {
    if (want[i] != got[i]) {
      const Triangle& w = want[i];
      return "first difference: expected (" + std::to_string(w[0]) + ", " + std::to_string(w[1]) + ", " +
             std::to_string(w[2]) + ")";
    }
  }
  return {};
}

// Decoded vertices that stand for an input vertex already represented by another decoded vertex.
inline size_t SplitVertices(const std::vector<WelmMeshFace>& input, const std::vector<int>& vertexOrder) {
  std::vector<uint32_t> used;
  used.reserve(input.size() * 3);
  for (const WelmMeshFace& f : input) used.insert(used.end(), f.v, f.v + 3);
  std::sort(used.begin(), used.end());
  used.erase(std::unique(used.begin(), used.end()), used.end());
  return vertexOrder.size() - used.size();
}

}  // namespace EdgeBreakerCheck
