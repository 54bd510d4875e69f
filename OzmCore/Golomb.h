// Golomb decoding of one axis of a Golomb-coded temporal frame.
//
// Each symbol is a Golomb code with parameter M of a zigzag-mapped delta:
//   - b = ceil(log2 M) and cutoff = 2^b - M;
//   - a unary quotient q: 1 bits ended by a 0 bit;
//   - a remainder r of b - 1 bits (none when b < 2), most significant first; when r >= cutoff one
//     more bit x follows and the remainder becomes 2r + x - cutoff (with M = 1 that bit is always
//     there, so a symbol is q + x);
//   - v = q * M + remainder, mapped back to a delta 0, -1, 1, -2, 2 ... (even v: v / 2, odd v:
//     -(v + 1) / 2), and the output byte is center + delta modulo 256.
// Bits are read from bit 31 down to bit 0 of each 32-bit word, word after word. Symbols are read
// while fewer than numBits bits have been consumed; the symbol that starts before that limit is
// completed even when it runs past it into the unused bits of the last word.
#pragma once

#include <cstdint>
#include <vector>

#include "OzmCore/OzmTypes.h"

class CGolombDecompressor {
 public:
  // Decodes the numBits-bit stream held by words into out (cleared first).
  //   words: (numBits + 31) / 32 host-order words (the caller converts from little-endian); no
  //          word beyond those is ever read.
  // Returns S_OK, also when a symbol would need bits beyond the last word: that symbol is dropped,
  // decoding stops there and an assertion is logged. M = 0 with numBits > 0 gives E_UNEXPECTED and
  // no output, a null words pointer with numBits > 0 gives E_POINTER. The output never holds more
  // than numBits / 2 + 1 bytes, since every code is at least two bits long.
  HRESULT Decompress(const uint32_t* words, uint32_t numBits, uint8_t M, uint8_t center, std::vector<uint8_t>& out);

 private:
  // Long streams are decoded several short codes at a time through a table made for their M and
  // center, kept for the next stream with the same two.
  void PrepareTable(uint8_t M, uint8_t center);

  std::vector<uint64_t> m_table;
  int m_tableKey = -1;  // M << 8 | center of m_table
};

namespace OzmGolomb {

// The code parameters derived from M (M >= 1).
struct Parameters {
  uint32_t b;       // ceil(log2 M)
  uint32_t cutoff;  // 2^b - M: remainders below it are coded with b - 1 bits, the others with b
};

inline Parameters ParametersFor(uint8_t M) {
  uint32_t b = 0;
  while ((1u << b) < M) ++b;
  return {b, (1u << b) - M};
}

// Zigzag order: 0, -1, 1, -2, 2 ... for v = 0, 1, 2, 3, 4 ...; only the low byte matters here.
inline uint8_t ZigzagToByte(uint32_t v) { return static_cast<uint8_t>((v >> 1) ^ (0u - (v & 1))); }

}  // namespace OzmGolomb
