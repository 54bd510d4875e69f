#include "OzmCore/encode/HuffmanEncoder.h"

#include <algorithm>
#include <limits>

#include "OzmCore/encode/BitWriter.h"

namespace OzmEncode {
namespace {

uint32_t Depth(const HuffmanEncoding::TreeNode* node) {
  if (!node || !node->left) return 0;
  return 1 + std::max(Depth(node->left), Depth(node->right));
}

}  // namespace

bool MakeHuffmanCodes(std::vector<int>& frequencies, std::vector<HuffmanEncoding::HuffmanCode>& codes) {
  if (frequencies.size() > HuffmanEncoding::c_MaxUniqueDeltas) return false;
  HuffmanEncoding encoding;
  for (;;) {
    HuffmanEncoding::TreeNode* root = nullptr;
    encoding.BuildTree(frequencies, &root);
    if (Depth(root) <= 32) break;
    for (int& f : frequencies) {
      if (f > 1) f = f / 2 + f % 2;
    }
  }
  return encoding.BuildTable(frequencies, codes);
}

bool EncodeHuffman(const uint8_t* symbols, size_t n, size_t stride, HuffmanAxis& out) {
  if (n >= static_cast<size_t>(std::numeric_limits<int>::max())) return false;
  std::vector<int> frequencies(256, 0);
  for (size_t i = 0; i < n; ++i) ++frequencies[symbols[i * stride]];

  size_t used = 0;
  int lastUsed = 0;
  for (int s = 0; s < 256; ++s) {
    if (frequencies[s] > 0) {
      ++used;
      lastUsed = s;
    }
  }
  if (used == 0 || (used == 1 && lastUsed == 0)) {
    out.frequencies = std::move(frequencies);
    out.words.clear();
    out.numBits = 0;
    return true;
  }
  if (used == 1) frequencies[lastUsed == 255 ? 254 : lastUsed + 1] = 1;

  std::vector<HuffmanEncoding::HuffmanCode> codes;
  MakeHuffmanCodes(frequencies, codes);
  uint64_t bits = 0;
  for (size_t i = 0; i < n; ++i) bits += codes[symbols[i * stride]].numbits;
  if (bits > std::numeric_limits<uint32_t>::max()) return false;

  WordBitWriter writer;
  for (size_t i = 0; i < n; ++i) {
    const HuffmanEncoding::HuffmanCode& code = codes[symbols[i * stride]];
    writer.Put(code.code, code.numbits);
  }
  out.frequencies = std::move(frequencies);
  out.words = writer.Words();
  out.numBits = static_cast<uint32_t>(bits);
  return true;
}

}  // namespace OzmEncode
