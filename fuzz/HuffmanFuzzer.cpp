// Huffman trees from any frequency table and bitstreams of any content: the bulk decoder and the
// one-symbol-at-a-time decoder are checked against the walk from the root, and the code table
// against the tree.
//   bytes 0-1: number of frequencies (little-endian, up to 299: more than a tree takes);
//   byte 2: bytes per frequency (1, 2 or 4; 4 gives any int32, negative and huge ones included);
//   byte 3: output stride (1 to 4); byte 4: bits cut off the last word; byte 5: symbol limit (0 to
//   254, 255 for none); then the frequencies; the rest: little-endian words.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "OzmCore/Huffman.h"
#include "fuzz/FuzzSupport.h"
#include "tests/EntropyReference.h"

namespace {

using TreeNode = HuffmanEncoding::TreeNode;

struct WordSource {
  const std::vector<uint32_t>* words;
  size_t next;
  bool operator()(uint32_t& w) {
    if (next >= words->size()) return false;
    w = (*words)[next++];
    return true;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  if (size < 6) return 0;
  const size_t count = (data[0] | data[1] << 8) % 300;
  const size_t width = data[2] % 3 == 0 ? 1 : data[2] % 3 == 1 ? 2 : 4;
  const size_t stride = 1 + data[3] % 4;
  size_t at = 6;
  if (size < at + count * width) return 0;
  std::vector<int> frequencies(count);
  for (int& f : frequencies) {
    uint32_t v = 0;
    std::memcpy(&v, data + at, width);
    f = static_cast<int>(v);
    at += width;
  }
  std::vector<uint32_t> words((size - at) / 4);
  if (!words.empty()) std::memcpy(words.data(), data + at, words.size() * 4);
  const uint32_t numBits = words.empty() ? 0 : static_cast<uint32_t>(words.size() * 32 - data[4] % 32);
  const size_t maxSymbols = data[5] == 255 ? numBits + size_t{1} : data[5];

  HuffmanEncoding encoding;
  TreeNode* root = nullptr;
  encoding.BuildTree(frequencies, &root);
  const HuffmanDecoder decoder(root);
  FUZZ_CHECK(decoder.HasLeaves() == (root != nullptr));

  // Bulk decoding against the walk.
  const EntropyReference::HuffmanResult expected =
      EntropyReference::DecodeHuffman(root, words.data(), numBits, maxSymbols);
  std::vector<uint8_t> out(maxSymbols * stride, 0xEE);
  size_t decoded = 0;
  const HRESULT hr = decoder.Decode(words.data(), numBits, out.data(), stride, maxSymbols, &decoded);
  using Status = EntropyReference::HuffmanResult;
  FUZZ_CHECK(hr == (expected.status == Status::kComplete         ? S_OK
                    : expected.status == Status::kNoBitsConsumed ? E_UNEXPECTED
                                                                 : E_FAIL));
  FUZZ_CHECK(decoded == expected.symbols.size());
  for (size_t k = 0; k < out.size(); ++k) {
    const bool written = k % stride == 0 && k / stride < decoded;
    FUZZ_CHECK(out[k] == (written ? static_cast<uint8_t>(expected.symbols[k / stride]) : 0xEE));
  }

  // One symbol at a time from words that arrive on demand, past their end too.
  if (root) {
    LazyBitReader<WordSource> reader(WordSource{&words, 0});
    std::vector<uint32_t> padded = words;
    padded.resize(words.size() + 16, 0);
    EntropyReference::BitCursor cursor(padded.data(), padded.size());
    for (int i = 0; i < 64 && cursor.Position() + 300 < padded.size() * 32; ++i) {
      const TreeNode* node = root;
      uint32_t bit = 0;
      while (node->left && cursor.Next(bit)) node = bit ? node->right : node->left;
      FUZZ_CHECK(decoder.DecodeSymbol(reader) == node->index);
      FUZZ_CHECK(reader.WordsFetched() == (cursor.Position() + 31) / 32);
    }
  } else {
    LazyBitReader<WordSource> reader(WordSource{&words, 0});
    FUZZ_CHECK(decoder.DecodeSymbol(reader) == -1 && reader.WordsFetched() == 0);
  }

  // Every code of the table leads to its own leaf.
  std::vector<HuffmanEncoding::HuffmanCode> codes;
  if (encoding.BuildTable(frequencies, codes) && root && root->left) {
    const HuffmanDecoder rebuilt(root);
    for (size_t s = 0; s < codes.size(); ++s) {
      if (codes[s].numbits == 0) continue;
      const uint32_t word = static_cast<uint32_t>(static_cast<uint64_t>(codes[s].code) << (32 - codes[s].numbits));
      uint8_t symbol = 0;
      size_t n = 0;
      FUZZ_CHECK(rebuilt.Decode(&word, codes[s].numbits, &symbol, 1, 1, &n) == S_OK);
      FUZZ_CHECK(n == 1 && symbol == static_cast<uint8_t>(s));
    }
  }
  return 0;
}
