// Plain bit-by-bit decoders of the Golomb and Huffman bitstreams, written straight from the
// definition of the formats, for the tests and fuzz targets to check the fast decoders against;
// and the packing of bits written as text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "OzmCore/Huffman.h"

namespace EntropyReference {

// Bit i of a word array, bit 31 of word 0 first. Reading stops (Next returns false) at the end of
// the words.
class BitCursor {
 public:
  BitCursor(const uint32_t* words, uint64_t numWords) : m_words(words), m_numWords(numWords) {}
  bool Next(uint32_t& bit) {
    if (m_position / 32 >= m_numWords) return false;
    bit = (m_words[m_position / 32] >> (31 - m_position % 32)) & 1;
    ++m_position;
    return true;
  }
  uint64_t Position() const { return m_position; }

 private:
  const uint32_t* m_words;
  uint64_t m_numWords;
  uint64_t m_position = 0;
};

inline uint64_t WordCount(uint32_t numBits) { return (static_cast<uint64_t>(numBits) + 31) / 32; }

struct BitString {
  std::vector<uint32_t> words;
  uint32_t numBits = 0;
};

// "0 10 110" -> the bits in order (other characters ignored), from bit 31 of the first word down.
inline BitString Pack(const std::string& text) {
  BitString s;
  for (char c : text) {
    if (c != '0' && c != '1') continue;
    if (s.numBits % 32 == 0) s.words.push_back(0);
    if (c == '1') s.words.back() |= 1u << (31 - s.numBits % 32);
    ++s.numBits;
  }
  return s;
}

// Decodes Golomb codes with parameter M >= 1 until numBits bits are consumed; a symbol that needs
// a bit beyond the last word is dropped and ends the decode (*truncated set).
inline std::vector<uint8_t> DecodeGolomb(const uint32_t* words, uint32_t numBits, uint8_t M, uint8_t center,
                                         bool* truncated = nullptr) {
  std::vector<uint8_t> out;
  if (truncated) *truncated = false;
  uint32_t b = 0;
  while ((1u << b) < M) ++b;
  const uint32_t cutoff = (1u << b) - M;
  BitCursor in(words, WordCount(numBits));
  while (in.Position() < numBits) {
    uint32_t bit = 0;
    uint64_t q = 0;
    bool ok = true;
    while ((ok = in.Next(bit)) && bit == 1) ++q;
    uint64_t r = 0;
    for (uint32_t i = 1; ok && i < b; ++i) {
      ok = in.Next(bit);
      r = r * 2 + bit;
    }
    uint64_t v = q * M + r;
    if (ok && r >= cutoff) {
      ok = in.Next(bit);
      v = q * M + (2 * r + bit) - cutoff;
    }
    if (!ok) {
      if (truncated) *truncated = true;
      break;
    }
    const int64_t delta = v % 2 == 0 ? static_cast<int64_t>(v / 2) : -static_cast<int64_t>((v + 1) / 2);
    out.push_back(static_cast<uint8_t>(center + delta));
  }
  return out;
}

struct HuffmanResult {
  enum Status { kComplete, kSymbolLimit, kTruncated, kNoBitsConsumed } status = kComplete;
  std::vector<int32_t> symbols;
};

// Walks the tree for every code until numBits bits are consumed, at most maxSymbols symbols.
inline HuffmanResult DecodeHuffman(const HuffmanEncoding::TreeNode* root, const uint32_t* words, uint32_t numBits,
                                   size_t maxSymbols) {
  HuffmanResult result;
  if (numBits == 0) return result;
  if (!root || !root->left) {
    result.status = HuffmanResult::kNoBitsConsumed;
    return result;
  }
  BitCursor in(words, WordCount(numBits));
  while (in.Position() < numBits) {
    if (result.symbols.size() == maxSymbols) {
      result.status = HuffmanResult::kSymbolLimit;
      break;
    }
    const HuffmanEncoding::TreeNode* node = root;
    uint32_t bit = 0;
    while (node->left && in.Next(bit)) node = bit ? node->right : node->left;
    if (node->left) {
      result.status = HuffmanResult::kTruncated;
      break;
    }
    result.symbols.push_back(node->index);
  }
  return result;
}

}  // namespace EntropyReference
