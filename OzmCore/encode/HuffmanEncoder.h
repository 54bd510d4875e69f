// Huffman coding of one axis of a Huffman-coded temporal frame, the inverse of HuffmanDecoder with
// the tree that HuffmanEncoding::BuildTree makes of the frequencies sent along.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "OzmCore/Huffman.h"

namespace OzmEncode {

struct HuffmanAxis {
  std::vector<int> frequencies;  // the 256 counts to send; the decoder builds its tree from them
  std::vector<uint32_t> words;   // host-order words, (numBits + 31) / 32 of them
  uint32_t numBits = 0;
};

// Codes symbols[i * stride] for i < n. The decoder writes nothing for an axis of 0 bits and a lone
// leaf decodes without bits, so an axis of one repeated byte is sent as follows: all zeros as 0
// bits (the decoder's output starts zeroed), any other byte with a second symbol of count 1 added
// to the table, which gives both symbols a 1-bit code. Returns false, with out untouched, when n
// does not fit in the 32-bit counts or the stream in a 32-bit bit count.
bool EncodeHuffman(const uint8_t* symbols, size_t n, size_t stride, HuffmanAxis& out);

// Builds the codes of the symbols with a non-zero count in frequencies (at most 257 entries).
// Codes longer than 32 bits, which extremely skewed counts would give, are avoided by halving the
// counts (rounding up, so no symbol is lost) until the tree is shallow enough; frequencies then
// holds the counts that the decoder must be given. Returns false for more than 257 entries.
bool MakeHuffmanCodes(std::vector<int>& frequencies, std::vector<HuffmanEncoding::HuffmanCode>& codes);

}  // namespace OzmEncode
