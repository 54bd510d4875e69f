#include "OzmCore/encode/GolombEncoder.h"

#include <array>
#include <limits>

#include "OzmCore/Golomb.h"
#include "OzmCore/encode/BitWriter.h"

namespace OzmEncode {
namespace {

// The value v that decodes to the delta symbol - center: 0, -1, 1, -2, 2 ... for v = 0, 1, 2 ...
uint32_t ZigzagValue(uint8_t symbol, uint8_t center) {
  const int delta = static_cast<int8_t>(static_cast<uint8_t>(symbol - center));
  return delta >= 0 ? static_cast<uint32_t>(2 * delta) : static_cast<uint32_t>(-2 * delta - 1);
}

// How the decoder reads v with parameter M: q ones and a zero, then `width` bits of which the last
// is left out when the leading width - 1 bits (r) are below the cutoff.
struct Code {
  uint32_t q;
  uint32_t tail;  // right-aligned
  uint32_t tailBits;
};

Code CodeOf(uint32_t v, uint8_t M) {
  const OzmGolomb::Parameters p = OzmGolomb::ParametersFor(M);
  const uint32_t width = p.b > 0 ? p.b : 1;
  const uint32_t q = v / M;
  const uint32_t r = v % M;
  if (r < p.cutoff) return {q, r, width - 1};
  return {q, r + p.cutoff, width};
}

uint32_t CodeLength(uint32_t v, uint8_t M) {
  const Code c = CodeOf(v, M);
  return c.q + 1 + c.tailBits;
}

std::array<uint64_t, 256> ZigzagHistogram(const uint8_t* symbols, size_t n, size_t stride, uint8_t center) {
  std::array<uint64_t, 256> histogram{};
  for (size_t i = 0; i < n; ++i) ++histogram[ZigzagValue(symbols[i * stride], center)];
  return histogram;
}

uint64_t CodedBits(const std::array<uint64_t, 256>& histogram, uint8_t M) {
  uint64_t bits = 0;
  for (uint32_t v = 0; v < 256; ++v) bits += histogram[v] * CodeLength(v, M);
  return bits;
}

}  // namespace

bool EncodeGolomb(const uint8_t* symbols, size_t n, size_t stride, uint8_t M, uint8_t center, GolombAxis& out) {
  if (M == 0 || GolombCodedBits(symbols, n, stride, M, center) > std::numeric_limits<uint32_t>::max()) return false;
  WordBitWriter writer;
  for (size_t i = 0; i < n; ++i) {
    const Code c = CodeOf(ZigzagValue(symbols[i * stride], center), M);
    writer.PutOnes(c.q);
    writer.Put(0, 1);
    writer.Put(c.tail, c.tailBits);
  }
  out.words = writer.Words();
  out.numBits = static_cast<uint32_t>(writer.BitCount());
  return true;
}

uint64_t GolombCodedBits(const uint8_t* symbols, size_t n, size_t stride, uint8_t M, uint8_t center) {
  if (M == 0) return 0;
  return CodedBits(ZigzagHistogram(symbols, n, stride, center), M);
}

uint8_t ChooseGolombParameter(const uint8_t* symbols, size_t n, size_t stride, uint8_t center) {
  // Only 255 candidates over 256 histogram bins: trying them all is cheap and exact.
  const std::array<uint64_t, 256> histogram = ZigzagHistogram(symbols, n, stride, center);
  uint8_t best = 1;
  uint64_t bestBits = CodedBits(histogram, 1);
  for (uint32_t M = 2; M <= 255; ++M) {
    const uint64_t bits = CodedBits(histogram, static_cast<uint8_t>(M));
    if (bits < bestBits) {
      bestBits = bits;
      best = static_cast<uint8_t>(M);
    }
  }
  return best;
}

uint8_t ChooseGolombCenter(const uint8_t* symbols, size_t n, size_t stride) {
  std::array<uint64_t, 256> histogram{};
  for (size_t i = 0; i < n; ++i) ++histogram[symbols[i * stride]];
  uint8_t best = 0;
  uint64_t bestCost = std::numeric_limits<uint64_t>::max();
  for (uint32_t c = 0; c < 256; ++c) {
    uint64_t cost = 0;
    for (uint32_t s = 0; s < 256; ++s)
      cost += histogram[s] * ZigzagValue(static_cast<uint8_t>(s), static_cast<uint8_t>(c));
    if (cost < bestCost) {
      bestCost = cost;
      best = static_cast<uint8_t>(c);
    }
  }
  return best;
}

}  // namespace OzmEncode
