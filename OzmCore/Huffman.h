// Huffman coding of temporal frames: the tree that encoder and decoder both build from the symbol
// frequencies, the code table of the encoder, and a fast decoder.
//
// The tree must come out exactly as the encoder built it, tie-breaks included, so the order in
// which the min-heap hands out nodes of equal frequency is part of the format (see
// ozmstl::priority_queue). A code is read from the root: while the node has a left child, the next
// bit picks the child (1 = right, 0 = left). Bits are read from bit 31 down to bit 0 of each 32-bit
// word, word after word.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "OzmCore/OzmTypes.h"

namespace ozmstl {

// Binary heap kept in an array, `comp(a, b)` true when a must come out after b (so with a
// "greater than" comparison the top is the smallest element).
//   push: append, then move up while the parent must come out after the new element (ties stay).
//   pop:  take the last element out, move the hole from the root down to the bottom, each time into
//         the child that comes out first (the right one when neither comes first; the left one when
//         it is the only child), then put the element taken out into the hole and move it up as
//         in push.
// This order decides which of several equal elements comes out first, and the Huffman trees of
// the format depend on it.
template <class T, class Container = std::vector<T>, class Compare = std::less<T>>
class priority_queue {
 public:
  bool empty() const { return m_c.empty(); }
  size_t size() const { return m_c.size(); }
  const T& top() const { return m_c.front(); }
  void clear() { m_c.clear(); }

  void push(const T& value) {
    m_c.push_back(value);
    MoveUp(m_c.size() - 1, value);
  }

  void pop() {
    if (m_c.empty()) return;
    T last = std::move(m_c.back());
    m_c.pop_back();
    const size_t bottom = m_c.size();
    if (bottom == 0) return;
    size_t hole = 0;
    const size_t lastWithTwoChildren = (bottom - 1) / 2;
    while (hole < lastWithTwoChildren) {
      size_t child = 2 * hole + 2;
      if (m_comp(m_c[child], m_c[child - 1])) --child;
      m_c[hole] = std::move(m_c[child]);
      hole = child;
    }
    if (hole == lastWithTwoChildren && bottom % 2 == 0) {
      m_c[hole] = std::move(m_c[bottom - 1]);
      hole = bottom - 1;
    }
    MoveUp(hole, std::move(last));
  }

 private:
  void MoveUp(size_t hole, T value) {
    while (hole > 0) {
      const size_t parent = (hole - 1) / 2;
      if (!m_comp(m_c[parent], value)) break;
      m_c[hole] = std::move(m_c[parent]);
      hole = parent;
    }
    m_c[hole] = std::move(value);
  }

  Container m_c;
  Compare m_comp;
};

}  // namespace ozmstl

class HuffmanEncoding {
 public:
  struct TreeNode {
    int32_t frequency;  // the symbol's count, or the sum of the children's
    int32_t index;      // the symbol of a leaf (-1 in inner nodes)
    TreeNode* left;     // both children null in a leaf
    TreeNode* right;
  };

  struct HuffmanCode {
    uint32_t numbits;  // code length
    uint32_t code;     // the code bits right-aligned, first bit most significant
  };

  // The most symbols a tree can have, and its node pool: the leaves and the inner nodes.
  static constexpr size_t c_MaxUniqueDeltas = 257;
  static constexpr size_t c_NodePoolSize = 2 * c_MaxUniqueDeltas - 1;

  // Top of the heap = smallest frequency.
  struct CompareTree {
    bool operator()(const TreeNode* a, const TreeNode* b) const { return a->frequency > b->frequency; }
  };

  HuffmanEncoding() = default;
  // The tree points into the pool, so the object is not copied.
  HuffmanEncoding(const HuffmanEncoding&) = delete;
  HuffmanEncoding& operator=(const HuffmanEncoding&) = delete;

  // Builds the tree of the symbols 0, 1, ... with frequencies[s] >= 1 (the others get no leaf);
  // entries beyond c_MaxUniqueDeltas are logged and ignored. *root (if given) receives the root:
  // null without leaves, the leaf itself with one. The nodes live in this object until the next
  // BuildTree. Inner node frequencies are sums modulo 2^32, as 32-bit counts add up.
  void BuildTree(std::vector<int>& frequencies, TreeNode** root);

  // Builds the tree and fills codes (resized to c_MaxUniqueDeltas entries, zero for symbols
  // without a leaf; a lone leaf gets a code of length 0). Returns false, after logging, when a
  // code would be longer than 32 bits (possible only with extremely skewed counts); the table is
  // then unusable.
  bool BuildTable(std::vector<int>& frequencies, std::vector<HuffmanCode>& codes);

 private:
  // The heap holds each node's frequency beside its index in the pool, packed into one word (the
  // frequency, made unsigned-ordered, in the upper half), so that its comparisons (the same ones
  // CompareTree makes) need no load through a pointer and its moves are single words.
  struct CompareItem {
    bool operator()(uint64_t a, uint64_t b) const { return (a >> 32) > (b >> 32); }
  };
  static uint64_t QueueItem(const TreeNode& node, size_t index) {
    return static_cast<uint64_t>(static_cast<uint32_t>(node.frequency) ^ 0x80000000u) << 32 | index;
  }
  std::vector<TreeNode> m_pool;
  ozmstl::priority_queue<uint64_t, std::vector<uint64_t>, CompareItem> m_queue;
};

// Bits at the top of a 64-bit buffer, filled one 32-bit word at a time from a source that is
// asked for a word only when a read needs more bits than are left. Words are therefore taken at
// exactly the moments a bit-by-bit reader would take them, which matters when the words come from
// a stream that holds other data after the coded block.
//   Source: a callable `bool(uint32_t& word)` that stores the next host-order word and returns
//   true, or returns false when there is none; the missing bits then read as zeros and Exhausted()
//   turns true.
// Between reads at most 32 bits are buffered.
template <class Source>
class LazyBitReader {
 public:
  explicit LazyBitReader(Source source) : m_source(std::move(source)) {}

  // Reads n bits (0 to 32), most significant first.
  uint32_t ReadBits(uint32_t n) {
    if (n == 0) return 0;
    if (m_count < n) Fetch();
    const uint32_t value = static_cast<uint32_t>(m_bits >> (64 - n));
    Skip(n);
    return value;
  }

  // True once the source failed to deliver a word that was needed.
  bool Exhausted() const { return m_exhausted; }
  uint64_t WordsFetched() const { return m_wordsFetched; }

  // For decoders: the buffered bits, left-aligned with zeros below.
  uint32_t Available() const { return m_count; }
  uint64_t Peek() const { return m_bits; }
  void Skip(uint32_t n) {  // n <= Available()
    m_bits = n < 64 ? m_bits << n : 0;
    m_count -= n;
  }
  // Appends the next word; only when at most 32 bits are buffered.
  void Fetch() {
    uint32_t word = 0;
    if (!m_exhausted && !m_source(word)) m_exhausted = true;
    if (m_exhausted) word = 0;
    m_bits |= static_cast<uint64_t>(word) << (32 - m_count);
    m_count += 32;
    ++m_wordsFetched;
  }

 private:
  Source m_source;
  uint64_t m_bits = 0;
  uint32_t m_count = 0;
  uint64_t m_wordsFetched = 0;
  bool m_exhausted = false;
};

// Decodes the codes of a tree built by HuffmanEncoding::BuildTree, with the same result as the
// walk from the root, through a lookup table of up to 11 bits; longer codes finish with the walk.
// The decoder copies what it needs, so the HuffmanEncoding may go away afterwards.
class HuffmanDecoder {
 public:
  HuffmanDecoder() = default;
  // root: null for a tree without leaves. A tree that is not well formed (an inner node without
  // a right child, more nodes than a pool holds) is logged and treated as one without leaves.
  explicit HuffmanDecoder(const HuffmanEncoding::TreeNode* root) { Reset(root); }
  void Reset(const HuffmanEncoding::TreeNode* root);

  bool HasLeaves() const { return m_root != kNone; }
  // A lone leaf is a code of zero bits: every decode returns it and consumes nothing.
  bool IsSingleLeaf() const { return m_root < 0 && m_root != kNone; }

  // Decodes codes from words ((numBits + 31) / 32 host-order words, none read beyond) until
  // numBits bits are consumed (the last code may run on into the last word), writing the low byte
  // of symbol k to out[k * stride]. *decoded receives the number of symbols written.
  //   S_OK          all numBits bits decoded;
  //   E_FAIL        stopped early, with an assertion logged: maxSymbols symbols were written with
  //                 bits left, or a code ran past the last word (that symbol is not written);
  //   E_UNEXPECTED  numBits > 0 but the tree has no leaf or a single one, which consumes no bits;
  //   E_POINTER     numBits > 0 and words or out is null.
  // With numBits = 0 nothing is decoded and the result is S_OK.
  HRESULT Decode(const uint32_t* words, uint32_t numBits, uint8_t* out, size_t stride, size_t maxSymbols,
                 size_t* decoded) const;

  // One stream of DecodeAxes: its words as made by Ozm::BitStreamFromStoredWords (padding
  // included), its decoder, where its symbols go (out[k * stride]) and how many may.
  struct Axis {
    const HuffmanDecoder* decoder;
    const uint8_t* bytes;
    uint32_t numBits;
    uint8_t* out;
    size_t stride;
    size_t maxSymbols;
  };
  // Decodes three independent streams with exactly the results of Decode on each: result[a] and
  // decoded[a] are what Decode would return and count, with the same assertions logged. The
  // streams' symbols are decoded in step, which lets the processor work on the three at once.
  static void DecodeAxes(const Axis axes[3], HRESULT result[3], size_t decoded[3]);

  // Decodes one symbol from a reader with the interface of LazyBitReader and returns it (0 to
  // c_MaxUniqueDeltas - 1), or -1 when the tree has no leaf. Takes words from the reader only
  // when the code needs them; past the end of its source the reader supplies zero bits, so a
  // decode always ends.
  template <class Reader>
  int32_t DecodeSymbol(Reader& reader) const;

 private:
  // A node reference: >= 0 an inner node (index into m_children), < 0 the leaf of symbol ~ref.
  static constexpr int32_t kNone = INT32_MIN;
  // Table entry: the symbol, or the inner node reached after m_tableBits bits, in the low 16 bits;
  // the bits consumed in bits 16..23; bit 31 set for a symbol.
  static constexpr uint32_t kLeafFlag = 0x80000000u;
  static constexpr uint32_t kMaxTableBits = 11;

  int32_t Flatten(const HuffmanEncoding::TreeNode* node, uint32_t depth, bool& ok);
  void Fill(int32_t ref, uint32_t depth, uint32_t code);
  // Checks the arguments as Decode does; *empty is set when there is nothing to decode.
  HRESULT Check(const void* bits, uint32_t numBits, const uint8_t* out, size_t maxSymbols, bool* empty) const;
  friend struct HuffmanStream;

  int32_t m_root = kNone;
  uint32_t m_tableBits = 0;
  uint32_t m_maxDepth = 0;
  std::vector<std::pair<int32_t, int32_t>> m_children;  // left, right of each inner node
  std::vector<uint32_t> m_table;
};

template <class Reader>
int32_t HuffmanDecoder::DecodeSymbol(Reader& reader) const {
  if (m_root >= 0) {
    const uint32_t tableBits = m_tableBits;
    for (;;) {
      const uint32_t available = reader.Available();
      const uint32_t entry = m_table[static_cast<size_t>(reader.Peek() >> (64 - tableBits))];
      const uint32_t length = (entry >> 16) & 0xFF;
      // The bits below Available() are zeros, so a short buffer still finds every code that lies
      // entirely inside it; anything else needs the next word, exactly as a bit-by-bit walk would.
      if (length > available) {
        reader.Fetch();
        continue;
      }
      reader.Skip(length);
      if (entry & kLeafFlag) return static_cast<int32_t>(entry & 0xFFFF);
      int32_t ref = static_cast<int32_t>(entry & 0xFFFF);
      while (ref >= 0) {
        if (reader.Available() == 0) reader.Fetch();
        const bool right = (reader.Peek() >> 63) != 0;
        reader.Skip(1);
        ref = right ? m_children[static_cast<size_t>(ref)].second : m_children[static_cast<size_t>(ref)].first;
      }
      return ~ref;
    }
  }
  return m_root == kNone ? -1 : ~m_root;
}
