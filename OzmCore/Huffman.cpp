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
    m_pool[next] = {frequencies[s], static_cast<int32_t>(s), nullptr, nullptr};
    m_queue.push(QueueItem(m_pool[next], next));
    ++next;
  }

  const size_t leaves = next;
  for (size_t i = 1; i < leaves; ++i) {
    TreeNode* a = &m_pool[static_cast<uint32_t>(m_queue.top())];
    m_queue.pop();
    TreeNode* b = &m_pool[static_cast<uint32_t>(m_queue.top())];
    m_queue.pop();
    if (a->frequency > b->frequency) std::swap(a, b);
    m_pool[next] = {WrappingSum(a->frequency, b->frequency), -1, a, b};
    m_queue.push(QueueItem(m_pool[next], next));
    ++next;
  }

  if (root) *root = m_queue.empty() ? nullptr : &m_pool[static_cast<uint32_t>(m_queue.top())];
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
  // Every entry is written: each prefix of m_tableBits bits ends in a leaf or passes an inner node
  // at that depth.
  m_table.resize(size_t{1} << m_tableBits);
  Fill(m_root, 0, 0);
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

HRESULT HuffmanDecoder::Check(const void* bits, uint32_t numBits, const uint8_t* out, size_t maxSymbols,
                              bool* empty) const {
  *empty = numBits == 0;
  if (*empty) return S_OK;
  if (m_root == kNone) {
    OZM_ASSERT_MSG(false, "a Huffman tree without leaves has no codes");
    return E_UNEXPECTED;
  }
  if (m_root < 0) {
    OZM_ASSERT_MSG(false, "a Huffman tree of one leaf has no coded bits");
    return E_UNEXPECTED;
  }
  if (!OZM_ASSERT(bits) || !OZM_ASSERT(out || maxSymbols == 0)) return E_POINTER;
  return S_OK;
}

// One stream being decoded.
struct HuffmanStream {
  HuffmanStream(const HuffmanDecoder& d, const uint8_t* bytes, uint32_t bits, uint8_t* output, size_t outStride,
                size_t limit)
      : decoder(d),
        table(d.m_table.data()),
        shift(64 - d.m_tableBits),
        in{bytes, 0, 32ull * Ozm::WordCount(bits)},
        numBits(bits),
        out(output),
        stride(outStride),
        maxSymbols(limit) {}

  // True while the quick path may be taken: 64 or more bits left (a code found in the table lies
  // in the words) and room for a symbol.
  bool Roomy() const { return in.pos + 64 <= numBits && count < maxSymbols; }

  // The next symbol when its code is in the table; false otherwise, with nothing consumed. Works on
  // a position and a count held by the caller, so that a loop over several streams keeps them in
  // registers.
  bool DecodeQuick(uint64_t& pos, size_t& n) const {
    const uint32_t entry = table[(Ozm::LoadBigEndian64(in.data + (pos >> 3)) << (pos & 7)) >> shift];
    if (!(entry & HuffmanDecoder::kLeafFlag)) return false;
    pos += (entry >> 16) & 0xFF;
    out[n * stride] = static_cast<uint8_t>(entry);
    ++n;
    return true;
  }

  // Up to four symbols from one load (four table codes fit in a peek), so that the table look-ups
  // follow each other without a load of the stream in between. Stops early, with pos and n past
  // what was decoded, at a code that is not in the table and returns false then.
  bool DecodeQuick4(uint64_t& pos, size_t& n) const {
    static_assert(4 * HuffmanDecoder::kMaxTableBits <= Ozm::kPeekBits, "four table codes fit in a peek");
    const uint64_t bits = Ozm::LoadBigEndian64(in.data + (pos >> 3)) << (pos & 7);
    uint32_t used = 0;
    for (int k = 0; k < 4; ++k) {
      const uint32_t entry = table[(bits << used) >> shift];
      if (!(entry & HuffmanDecoder::kLeafFlag)) {
        pos += used;
        return false;
      }
      used += (entry >> 16) & 0xFF;
      out[n * stride] = static_cast<uint8_t>(entry);
      ++n;
    }
    pos += used;
    return true;
  }

  // The next symbol, however long its code; sets truncated when the code runs past the last word.
  void DecodeAny() {
    const uint32_t entry = table[in.Peek() >> shift];
    const uint32_t length = (entry >> 16) & 0xFF;
    if (length > in.Left()) {
      truncated = true;
      return;
    }
    in.pos += length;
    int32_t ref = static_cast<int32_t>(entry & 0xFFFF);
    if (!(entry & HuffmanDecoder::kLeafFlag)) {
      // A code longer than the table: go on bit by bit from the node the table reached.
      while (ref >= 0) {
        if (in.Left() == 0) {
          truncated = true;
          return;
        }
        const std::pair<int32_t, int32_t>& children = decoder.m_children[static_cast<size_t>(ref)];
        ref = (in.Peek() >> 63) ? children.second : children.first;
        ++in.pos;
      }
      ref = ~ref;
    }
    out[count * stride] = static_cast<uint8_t>(ref);
    ++count;
  }

  // Decodes the rest of the stream and returns Decode's result.
  HRESULT Finish() {
    while (!truncated) {
      uint64_t pos = in.pos;
      size_t n = count;
      while (pos + 64 <= numBits && n < maxSymbols && DecodeQuick(pos, n)) {
      }
      in.pos = pos;
      count = n;
      if (in.pos >= numBits) break;
      if (count == maxSymbols) {
        limited = true;
        break;
      }
      DecodeAny();
    }
    if (limited) OZM_ASSERT_MSG(false, "symbolCount < maxSymbols");
    if (truncated) OZM_ASSERT_MSG(false, "bitIndex / 32 < numWords");
    return limited || truncated ? E_FAIL : S_OK;
  }

  const HuffmanDecoder& decoder;
  const uint32_t* table;
  uint32_t shift;
  Ozm::BitCursor in;
  uint32_t numBits;
  uint8_t* out;
  size_t stride;
  size_t maxSymbols;
  size_t count = 0;
  bool limited = false;
  bool truncated = false;
};

HRESULT HuffmanDecoder::Decode(const uint32_t* words, uint32_t numBits, uint8_t* out, size_t stride, size_t maxSymbols,
                               size_t* decoded) const {
  if (decoded) *decoded = 0;
  bool empty = false;
  HRESULT hr = Check(words, numBits, out, maxSymbols, &empty);
  if (OZM_FAILED(hr) || empty) return hr;
  std::vector<uint8_t> bytes;
  Ozm::BitStreamFromWords(words, Ozm::WordCount(numBits), bytes);
  HuffmanStream stream(*this, bytes.data(), numBits, out, stride, maxSymbols);
  hr = stream.Finish();
  if (decoded) *decoded = stream.count;
  return hr;
}

void HuffmanDecoder::DecodeAxes(const Axis axes[3], HRESULT result[3], size_t decoded[3]) {
  bool active[3];
  for (int a = 0; a < 3; ++a) {
    decoded[a] = 0;
    bool empty = false;
    result[a] = axes[a].decoder->Check(axes[a].bytes, axes[a].numBits, axes[a].out, axes[a].maxSymbols, &empty);
    active[a] = OZM_SUCCEEDED(result[a]) && !empty;
  }
  if (!active[0] || !active[1] || !active[2]) {
    for (int a = 0; a < 3; ++a) {
      if (!active[a]) continue;
      HuffmanStream s(*axes[a].decoder, axes[a].bytes, axes[a].numBits, axes[a].out, axes[a].stride,
                      axes[a].maxSymbols);
      result[a] = s.Finish();
      decoded[a] = s.count;
    }
    return;
  }
  HuffmanStream s[3] = {
      {*axes[0].decoder, axes[0].bytes, axes[0].numBits, axes[0].out, axes[0].stride, axes[0].maxSymbols},
      {*axes[1].decoder, axes[1].bytes, axes[1].numBits, axes[1].out, axes[1].stride, axes[1].maxSymbols},
      {*axes[2].decoder, axes[2].bytes, axes[2].numBits, axes[2].out, axes[2].stride, axes[2].maxSymbols}};
  // While every stream has room no code found in a table can run past its words. A longer code
  // leaves the loop, is decoded the careful way (which may find the stream cut short: its Finish
  // reports that) and the loop goes on.
  for (;;) {
    uint64_t p0 = s[0].in.pos, p1 = s[1].in.pos, p2 = s[2].in.pos;
    size_t n0 = s[0].count, n1 = s[1].count, n2 = s[2].count;
    const uint64_t end0 = s[0].numBits, end1 = s[1].numBits, end2 = s[2].numBits;
    const size_t max0 = s[0].maxSymbols, max1 = s[1].maxSymbols, max2 = s[2].maxSymbols;
    bool quick = true;
    // With 64 bits left at the start, every code of a group of four begins inside the stream.
    while (p0 + 64 <= end0 && p1 + 64 <= end1 && p2 + 64 <= end2 && n0 + 4 <= max0 && n1 + 4 <= max1 &&
           n2 + 4 <= max2) {
      quick = s[0].DecodeQuick4(p0, n0);
      quick = s[1].DecodeQuick4(p1, n1) && quick;
      quick = s[2].DecodeQuick4(p2, n2) && quick;
      if (!quick) break;
    }
    s[0].in.pos = p0, s[1].in.pos = p1, s[2].in.pos = p2;
    s[0].count = n0, s[1].count = n1, s[2].count = n2;
    if (quick) break;
    bool stop = false;
    for (HuffmanStream& one : s) {
      if (!one.Roomy()) continue;
      uint64_t p = one.in.pos;
      size_t n = one.count;
      if (one.DecodeQuick(p, n)) {
        one.in.pos = p;
        one.count = n;
      } else {
        one.DecodeAny();
      }
      stop = stop || one.truncated;
    }
    if (stop) break;
  }
  for (int a = 0; a < 3; ++a) {
    result[a] = s[a].Finish();
    decoded[a] = s[a].count;
  }
}
