#include "OzmCore/Huffman.h"

#include <algorithm>

#include "OzmCore/BitDecoding.h"
#include "platform/Log.h"

namespace {

using TreeNode = HuffmanEncoding::TreeNode;
using HuffmanCode = HuffmanEncoding::HuffmanCode;

// Counts add up as 32-bit integers; a table of huge counts wraps instead of overflowing.
int32_t WrappingSum(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// Stores the code of every leaf below node. Codes that would not fit in 32 bits clear `fits` and
// are left out.
void AssignCodes(const TreeNode* node, uint32_t code, uint32_t numbits, std::vector<HuffmanCode>& codes, bool& fits) {
  if (node->left) {
    if (numbits == 32) {
      fits = false;
      return;
    }
    AssignCodes(node->left, code << 1, numbits + 1, codes, fits);
    if (OZM_ASSERT_MSG(node->right, "root->right")) AssignCodes(node->right, code << 1 | 1, numbits + 1, codes, fits);
    return;
  }
  OZM_ASSERT_MSG(node->right == nullptr, "root->right == nullptr");
  HuffmanCode& entry = codes[static_cast<size_t>(node->index)];
  OZM_ASSERT_MSG(entry.numbits == 0, "codes[root->index].numbits == 0");
  entry.numbits = numbits;
  entry.code = code;
}

// The codes of at most Ozm::kWindowBits bits below ref (see HuffmanDecoder for the references).
void CollectShortCodes(const std::vector<std::pair<int32_t, int32_t>>& children, int32_t ref, uint32_t depth,
                       uint32_t code, std::vector<Ozm::ShortCode>& codes) {
  if (ref < 0) {
    codes.push_back({code, depth, static_cast<uint8_t>(~ref)});
  } else if (depth < Ozm::kWindowBits) {
    const std::pair<int32_t, int32_t> node = children[static_cast<size_t>(ref)];
    CollectShortCodes(children, node.first, depth + 1, code << 1, codes);
    CollectShortCodes(children, node.second, depth + 1, code << 1 | 1, codes);
  }
}

}  // namespace

void HuffmanEncoding::BuildTree(std::vector<int>& frequencies, TreeNode** root) {
  m_pool.resize(c_NodePoolSize);
  m_queue.clear();
  size_t symbols = frequencies.size();
  if (!OZM_ASSERT_MSG(symbols <= c_MaxUniqueDeltas, "frequencies.size() <= c_MaxUniqueDeltas")) {
    symbols = c_MaxUniqueDeltas;
  }

  size_t next = 0;
  for (size_t s = 0; s < symbols; ++s) {
    if (frequencies[s] < 1) continue;
    TreeNode* leaf = &m_pool[next++];
    *leaf = {frequencies[s], static_cast<int32_t>(s), nullptr, nullptr};
    m_queue.push(leaf);
  }

  const size_t leaves = next;
  for (size_t i = 1; i < leaves; ++i) {
    TreeNode* a = m_queue.top();
    m_queue.pop();
    TreeNode* b = m_queue.top();
    m_queue.pop();
    if (a->frequency > b->frequency) std::swap(a, b);
    TreeNode* inner = &m_pool[next++];
    *inner = {WrappingSum(a->frequency, b->frequency), -1, a, b};
    m_queue.push(inner);
  }

  if (root) *root = m_queue.empty() ? nullptr : m_queue.top();
}

bool HuffmanEncoding::BuildTable(std::vector<int>& frequencies, std::vector<HuffmanCode>& codes) {
  TreeNode* root = nullptr;
  BuildTree(frequencies, &root);
  codes.assign(c_MaxUniqueDeltas, HuffmanCode{0, 0});
  bool fits = true;
  if (root) AssignCodes(root, 0, 0, codes, fits);
  return OZM_ASSERT_MSG(fits, "numbits <= 32");
}

void HuffmanDecoder::Reset(const HuffmanEncoding::TreeNode* root) {
  m_root = kNone;
  m_tableBits = 0;
  m_maxDepth = 0;
  m_children.clear();
  m_table.clear();
  m_multiTable.clear();
  if (!root) return;

  bool ok = true;
  const int32_t flat = Flatten(root, 0, ok);
  if (!OZM_ASSERT_MSG(ok, "the Huffman tree is well formed")) {
    m_children.clear();
    m_maxDepth = 0;
    return;
  }
  m_root = flat;
  if (m_root < 0) return;  // a lone leaf needs no table

  m_tableBits = std::min(m_maxDepth, kMaxTableBits);
  m_table.assign(size_t{1} << m_tableBits, 0);
  Fill(m_root, 0, 0);

  std::vector<Ozm::ShortCode> codes;
  CollectShortCodes(m_children, m_root, 0, 0, codes);
  std::stable_sort(codes.begin(), codes.end(),
                   [](const Ozm::ShortCode& a, const Ozm::ShortCode& b) { return a.length < b.length; });
  m_multiTable.resize(Ozm::kWindowCount);
  Ozm::BuildMultiCodeTable(codes, m_multiTable.data());
}

int32_t HuffmanDecoder::Flatten(const HuffmanEncoding::TreeNode* node, uint32_t depth, bool& ok) {
  if (!ok) return kNone;
  if (!node->left) {
    if (node->index < 0 || static_cast<size_t>(node->index) >= HuffmanEncoding::c_MaxUniqueDeltas) {
      ok = false;
      return kNone;
    }
    m_maxDepth = std::max(m_maxDepth, depth);
    return ~node->index;
  }
  // Inner nodes are at most as many as a pool holds, which also ends the walk of a malformed
  // structure that loops.
  if (!node->right || m_children.size() >= HuffmanEncoding::c_NodePoolSize) {
    ok = false;
    return kNone;
  }
  const size_t self = m_children.size();
  m_children.emplace_back(kNone, kNone);
  const int32_t left = Flatten(node->left, depth + 1, ok);
  const int32_t right = Flatten(node->right, depth + 1, ok);
  m_children[self] = {left, right};
  return static_cast<int32_t>(self);
}

void HuffmanDecoder::Fill(int32_t ref, uint32_t depth, uint32_t code) {
  if (ref < 0) {
    const uint32_t spare = m_tableBits - depth;
    const uint32_t entry = kLeafFlag | depth << 16 | static_cast<uint32_t>(~ref);
    std::fill_n(m_table.begin() + (static_cast<ptrdiff_t>(code) << spare), size_t{1} << spare, entry);
  } else if (depth == m_tableBits) {
    m_table[code] = depth << 16 | static_cast<uint32_t>(ref);
  } else {
    const std::pair<int32_t, int32_t> children = m_children[static_cast<size_t>(ref)];
    Fill(children.first, depth + 1, code << 1);
    Fill(children.second, depth + 1, code << 1 | 1);
  }
}

HRESULT HuffmanDecoder::Decode(const uint32_t* words, uint32_t numBits, uint8_t* out, size_t stride, size_t maxSymbols,
                               size_t* decoded) const {
  size_t count = 0;
  if (decoded) *decoded = 0;
  if (numBits == 0) return S_OK;
  if (m_root == kNone) {
    OZM_ASSERT_MSG(false, "a Huffman tree without leaves has no codes");
    return E_UNEXPECTED;
  }
  if (m_root < 0) {
    OZM_ASSERT_MSG(false, "a Huffman tree of one leaf has no coded bits");
    return E_UNEXPECTED;
  }
  if (!OZM_ASSERT(words) || !OZM_ASSERT(out || maxSymbols == 0)) return E_POINTER;

  const uint32_t* const table = m_table.data();
  const uint64_t* const multiTable = m_multiTable.data();
  uint8_t spare = 0;
  const uint32_t shift = 64 - m_tableBits;
  Ozm::WordBitBuffer in(words, Ozm::WordCount(numBits));
  // Windows that end before numBits lie in the words, and every code that starts in one starts
  // before numBits: those are decoded up to three codes at a time. Bytes of codes an entry does not
  // hold go to `spare`, so that out is written only where a symbol is decoded.
  const uint64_t lastFullWindow = numBits >= Ozm::kWindowBits ? numBits - Ozm::kWindowBits : 0;
  const bool windows = numBits >= Ozm::kWindowBits;
  bool limited = false;
  bool truncated = false;
  for (;;) {
    while (windows && in.Consumed() <= lastFullWindow && maxSymbols - count >= 3) {
      in.Refill();
      const uint64_t multi = multiTable[in.m_bits >> (64 - Ozm::kWindowBits)];
      const uint32_t codes = (multi >> 8) & 0xFF;
      if (codes == 0) break;  // a code longer than the window
      uint8_t* const at = out + count * stride;
      at[0] = static_cast<uint8_t>(multi >> 16);
      *(codes > 1 ? at + stride : &spare) = static_cast<uint8_t>(multi >> 24);
      *(codes > 2 ? at + 2 * stride : &spare) = static_cast<uint8_t>(multi >> 32);
      count += codes;
      in.Skip(multi & 0xFF);
    }

    // One code at a time near the ends and for long codes.
    if (in.Consumed() >= numBits) break;
    if (count == maxSymbols) {
      limited = true;
      break;
    }
    in.Refill();
    const uint32_t entry = table[in.m_bits >> shift];
    const uint32_t length = (entry >> 16) & 0xFF;
    if (length > in.m_count) {
      truncated = true;
      break;
    }
    in.Skip(length);
    int32_t ref = static_cast<int32_t>(entry & 0xFFFF);
    if (!(entry & kLeafFlag)) {
      // A code longer than the table: go on bit by bit from the node the table reached.
      while (ref >= 0) {
        if (in.m_count == 0) {
          in.Refill();
          if (in.m_count == 0) break;
        }
        const std::pair<int32_t, int32_t>& children = m_children[static_cast<size_t>(ref)];
        ref = (in.m_bits >> 63) ? children.second : children.first;
        in.Skip(1);
      }
      if (ref >= 0) {
        truncated = true;
        break;
      }
      ref = ~ref;
    }
    out[count * stride] = static_cast<uint8_t>(ref);
    ++count;
  }
  if (limited) OZM_ASSERT_MSG(false, "symbolCount < maxSymbols");
  if (truncated) OZM_ASSERT_MSG(false, "bitIndex / 32 < numWords");
  if (decoded) *decoded = count;
  return limited || truncated ? E_FAIL : S_OK;
}
