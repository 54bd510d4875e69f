// EdgeBreaker: any bytes as a code stream; and, for short inputs, the bytes as a small triangle list
// that must survive encoding and decoding exactly.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "OzmCore/EdgeBreaker.h"
#include "fuzz/FuzzSupport.h"
#include "tests/EdgeBreakerCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  EdgeBreaker::CEdgeBreaker codec;
  std::vector<uint8_t> stream(data, data + size);
  std::vector<WelmMeshFace> faces;
  codec.Decompress(stream, &faces);
  FUZZ_CHECK(faces.size() <= 8 * size);

  // Round trip: the first byte picks how many vertices the triangles share (few, so that edges and
  // vertices are shared, repeated and non-manifold often), the rest are corner indices.
  if (size < 1 || size > 3 * 96 + 1) return 0;
  const uint32_t vertices = 1 + data[0] % 40;
  std::vector<WelmMeshFace> input;
  for (size_t i = 1; i + 3 <= size; i += 3) {
    input.push_back(WelmMeshFace{{data[i] % vertices, data[i + 1] % vertices, data[i + 2] % vertices}});
  }
  std::vector<int> order;
  std::vector<uint8_t> bits;
  FUZZ_CHECK(codec.Compress(input, &order, &bits));
  std::vector<WelmMeshFace> decoded;
  FUZZ_CHECK(codec.Decompress(bits, &decoded));
  FUZZ_CHECK(EdgeBreakerCheck::CompareWithInput(input, decoded, order).empty());
  return 0;
}
