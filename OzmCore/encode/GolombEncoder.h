// Golomb coding of one axis of a Golomb-coded temporal frame: the inverse of CGolombDecompressor,
// and the choice of its parameters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace OzmEncode {

struct GolombAxis {
  std::vector<uint32_t> words;  // host-order words, (numBits + 31) / 32 of them
  uint32_t numBits = 0;
};

// Codes symbols[i * stride] for i < n with parameter M (1 to 255) around center, so that
// CGolombDecompressor gives the n symbols back. Returns false, with out untouched, when M is 0 or
// the stream would not fit in a 32-bit bit count.
bool EncodeGolomb(const uint8_t* symbols, size_t n, size_t stride, uint8_t M, uint8_t center, GolombAxis& out);

// The number of bits EncodeGolomb would produce.
uint64_t GolombCodedBits(const uint8_t* symbols, size_t n, size_t stride, uint8_t M, uint8_t center);

// The M (1 to 255) that codes the symbols around center in the fewest bits; the smallest of equals.
uint8_t ChooseGolombParameter(const uint8_t* symbols, size_t n, size_t stride, uint8_t center);

// A center that keeps the deltas small: the byte with the least sum of distances (modulo 256) to
// the symbols, i.e. a median on the circle of byte values; the smallest of equals.
uint8_t ChooseGolombCenter(const uint8_t* symbols, size_t n, size_t stride);

}  // namespace OzmEncode
