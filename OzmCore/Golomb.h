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

  // One stream of DecompressAxes, its words as made by Ozm::BitStreamFromStoredWords (padding
  // included).
  struct Axis {
    const uint8_t* bytes;
    uint32_t numBits;
    uint8_t M;
    uint8_t center;
    std::vector<uint8_t>* out;
  };
  // Decodes three independent streams (the axes of a frame) into their outputs with exactly the
  // results of Decompress on each. When the arguments of one are refused (as by Decompress), its
  // result code is returned and the outputs are not to be used. The streams' symbols are decoded in
  // step, which lets the processor work on the three at once.
  HRESULT DecompressAxes(const Axis axes[3]);

  // Codes of up to kTableBits bits are looked up: entry = output byte before the center is added |
  // code length << 8, or 0 for a longer code.
  static constexpr uint32_t kTableBits = 11;

 private:
  // The table of M, made on first use. Tables of the last few M are kept, since a sequence uses
  // few; keep one decompressor for many streams.
  const uint16_t* TableFor(uint8_t M);

  struct Table {
    uint8_t M = 0;
    uint64_t lastUse = 0;
    std::vector<uint16_t> entries;  // empty until made
  };
  static constexpr size_t kTables = 16;
  Table m_tables[kTables];
  uint64_t m_uses = 0;
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
