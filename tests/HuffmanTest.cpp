#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "OzmCore/Huffman.h"
#include "OzmCore/encode/HuffmanEncoder.h"
#include "platform/host/LogCapture.h"
#include "tests/EntropyReference.h"

using Bytes = std::vector<uint8_t>;
using TreeNode = HuffmanEncoding::TreeNode;
using HuffmanCode = HuffmanEncoding::HuffmanCode;
using EntropyReference::HuffmanResult;

namespace {

size_t CountStartingWith(const OzmPlatform::ScopedLogCapture& log, const std::string& prefix) {
  size_t n = 0;
  for (const std::string& line : log.Texts()) n += line.rfind(prefix, 0) == 0 ? 1 : 0;
  return n;
}

std::string CodeString(const HuffmanCode& c) {
  std::string s;
  for (uint32_t i = c.numbits; i-- > 0;) s += (c.code >> i) & 1 ? '1' : '0';
  return s;
}

// symbol -> code, for the symbols that have a leaf.
std::map<int, std::string> CodeMap(const std::vector<HuffmanCode>& codes, const std::vector<int>& frequencies) {
  std::map<int, std::string> m;
  for (size_t s = 0; s < frequencies.size() && s < codes.size(); ++s) {
    if (frequencies[s] > 0) m[static_cast<int>(s)] = CodeString(codes[s]);
  }
  return m;
}

TEST(HuffmanTable, BuildsTheCodesOfSmallTables) {
  struct Case {
    const char* name;
    std::vector<int> frequencies;
    std::map<int, std::string> codes;
  };
  const std::vector<Case> cases = {
      {"two equal counts: the first symbol goes left", {5, 5}, {{0, "0"}, {1, "1"}}},
      {"three equal counts: the last leaf pairs with the first inner node",
       {1, 1, 1},
       {{0, "10"}, {1, "11"}, {2, "0"}}},
      {"the smaller count always goes left", {9, 2}, {{0, "1"}, {1, "0"}}},
      {"zero and negative counts get no leaf", {0, -3, 4, 0, 4}, {{2, "0"}, {4, "1"}}},
      {"a lone leaf has a code of no bits", {0, 0, 7}, {{2, ""}}},
      {"a leaf and an inner node of equal count: the leaf, at the top, comes out first",
       {1, 1, 2},
       {{0, "10"}, {1, "11"}, {2, "0"}}},
      {"four equal counts: a pop takes the right child on a tie",
       {3, 3, 3, 3},
       {{0, "00"}, {1, "10"}, {2, "01"}, {3, "11"}}},
      {"the symbol after 255 is a symbol too",
       [] {
         std::vector<int> f(257, 0);
         f[256] = 1;
         f[3] = 1;
         return f;
       }(),
       {{3, "0"}, {256, "1"}}},
  };
  for (Case c : cases) {
    OzmPlatform::ScopedLogCapture log;
    HuffmanEncoding encoding;
    std::vector<HuffmanCode> codes;
    EXPECT_TRUE(encoding.BuildTable(c.frequencies, codes)) << c.name;
    ASSERT_EQ(codes.size(), HuffmanEncoding::c_MaxUniqueDeltas) << c.name;
    EXPECT_EQ(CodeMap(codes, c.frequencies), c.codes) << c.name;
    EXPECT_TRUE(log.Lines().empty()) << c.name;
  }
}

TEST(HuffmanTable, AnEmptyTableHasNoRoot) {
  for (std::vector<int> frequencies : {std::vector<int>{}, std::vector<int>(256, 0)}) {
    HuffmanEncoding encoding;
    TreeNode stale{};
    TreeNode* root = &stale;
    encoding.BuildTree(frequencies, &root);
    EXPECT_EQ(root, nullptr);
    std::vector<HuffmanCode> codes(3, HuffmanCode{5, 5});
    EXPECT_TRUE(encoding.BuildTable(frequencies, codes));
    EXPECT_EQ(codes.size(), HuffmanEncoding::c_MaxUniqueDeltas);
    for (const HuffmanCode& c : codes) EXPECT_EQ(c.numbits, 0u);
  }
}

// The heap rules written out plainly: a min-heap on frequency in an array; push moves the new
// entry up past strictly greater parents; pop moves the hole down to the bottom, into the smaller
// child or into the right one on a tie, then the last entry fills the hole and moves up.
struct ReferenceHeap {
  std::vector<const TreeNode*> a;

  void SiftUp(size_t i, const TreeNode* x) {
    while (i > 0 && a[(i - 1) / 2]->frequency > x->frequency) {
      a[i] = a[(i - 1) / 2];
      i = (i - 1) / 2;
    }
    a[i] = x;
  }
  void Push(const TreeNode* x) {
    a.push_back(x);
    SiftUp(a.size() - 1, x);
  }
  const TreeNode* Pop() {
    const TreeNode* top = a[0];
    const TreeNode* last = a.back();
    a.pop_back();
    if (a.empty()) return top;
    size_t hole = 0;
    for (;;) {
      const size_t l = 2 * hole + 1, r = 2 * hole + 2;
      size_t child;
      if (r < a.size()) {
        child = a[r]->frequency <= a[l]->frequency ? r : l;
      } else if (l < a.size()) {
        child = l;
      } else {
        break;
      }
      a[hole] = a[child];
      hole = child;
    }
    SiftUp(hole, last);
    return top;
  }
};

// Codes from the reference heap, as strings ("" for a lone leaf).
std::map<int, std::string> ReferenceCodes(const std::vector<int>& frequencies) {
  std::vector<TreeNode> nodes;
  nodes.reserve(HuffmanEncoding::c_NodePoolSize);
  ReferenceHeap heap;
  for (size_t s = 0; s < frequencies.size() && s < HuffmanEncoding::c_MaxUniqueDeltas; ++s) {
    if (frequencies[s] < 1) continue;
    nodes.push_back({frequencies[s], static_cast<int32_t>(s), nullptr, nullptr});
    heap.Push(&nodes.back());
  }
  const size_t leaves = nodes.size();
  for (size_t i = 1; i < leaves; ++i) {
    const TreeNode* a = heap.Pop();
    const TreeNode* b = heap.Pop();
    const int64_t sum = int64_t{a->frequency} + b->frequency;
    nodes.push_back({static_cast<int32_t>(sum), -1, const_cast<TreeNode*>(a), const_cast<TreeNode*>(b)});
    heap.Push(&nodes.back());
  }
  std::map<int, std::string> codes;
  std::vector<std::pair<const TreeNode*, std::string>> stack;
  if (!heap.a.empty()) stack.push_back({heap.a[0], ""});
  while (!stack.empty()) {
    auto [node, code] = stack.back();
    stack.pop_back();
    if (!node->left) {
      codes[node->index] = code;
    } else {
      stack.push_back({node->left, code + "0"});
      stack.push_back({node->right, code + "1"});
    }
  }
  return codes;
}

std::vector<int> RandomFrequencies(std::mt19937& rng) {
  const size_t n = 2 + rng() % 256;
  std::vector<int> f(n);
  switch (rng() % 4) {
    case 0:  // many ties
      for (int& x : f) x = static_cast<int>(rng() % 4);
      break;
    case 1:  // ties at every level of the tree
      for (int& x : f) x = 1 << (rng() % 5);
      break;
    case 2:  // a peak, as the deltas of a smooth motion give
      for (size_t i = 0; i < n; ++i) f[i] = static_cast<int>(100000 / (1 + (i > n / 2 ? i - n / 2 : n / 2 - i)));
      break;
    default:
      for (int& x : f) x = static_cast<int>(rng() % 1000000);
      break;
  }
  return f;
}

TEST(HuffmanTable, FollowsTheHeapOrderOnRandomTables) {
  std::mt19937 rng(5);
  HuffmanEncoding encoding;  // reused, as a reader reuses one per frame
  for (int trial = 0; trial < 1000; ++trial) {
    std::vector<int> frequencies = RandomFrequencies(rng);
    std::vector<HuffmanCode> codes;
    ASSERT_TRUE(encoding.BuildTable(frequencies, codes));
    ASSERT_EQ(CodeMap(codes, frequencies), ReferenceCodes(frequencies)) << "trial " << trial;

    // Whatever the tie-breaks, a Huffman code is optimal: compare its cost with a plain merge of
    // the two smallest weights.
    std::multiset<int64_t> weights;
    uint64_t cost = 0, optimal = 0;
    for (size_t s = 0; s < frequencies.size(); ++s) {
      if (frequencies[s] < 1) continue;
      weights.insert(frequencies[s]);
      cost += uint64_t(frequencies[s]) * codes[s].numbits;
    }
    while (weights.size() > 1) {
      const int64_t a = *weights.begin();
      weights.erase(weights.begin());
      const int64_t b = *weights.begin();
      weights.erase(weights.begin());
      optimal += uint64_t(a + b);
      weights.insert(a + b);
    }
    ASSERT_EQ(cost, optimal) << "trial " << trial;
  }
}

TEST(HuffmanHeap, HandsOutEqualEntriesInTheOrderOfTheRules) {
  std::mt19937 rng(9);
  for (int trial = 0; trial < 300; ++trial) {
    std::vector<TreeNode> items(400);
    ozmstl::priority_queue<TreeNode*, std::vector<TreeNode*>, HuffmanEncoding::CompareTree> heap;
    ReferenceHeap reference;
    size_t next = 0;
    for (int op = 0; op < 600; ++op) {
      if (next < items.size() && (reference.a.empty() || rng() % 3 != 0)) {
        items[next] = {static_cast<int32_t>(rng() % 6), static_cast<int32_t>(next), nullptr, nullptr};
        heap.push(&items[next]);
        reference.Push(&items[next]);
        ++next;
      } else if (!reference.a.empty()) {
        ASSERT_EQ(heap.top(), reference.Pop()) << "trial " << trial << " op " << op;
        heap.pop();
      }
      ASSERT_EQ(heap.size(), reference.a.size());
    }
  }
}

TEST(HuffmanTree, IgnoresFrequenciesBeyondTheLargestAlphabet) {
  OzmPlatform::ScopedLogCapture log;
  std::vector<int> frequencies(600, 1);
  HuffmanEncoding encoding;
  std::vector<HuffmanCode> codes;
  EXPECT_TRUE(encoding.BuildTable(frequencies, codes));
  EXPECT_EQ(CountStartingWith(log, "ASSERT FAILED: 'frequencies.size() <= c_MaxUniqueDeltas' at OzmCore/Huffman line"),
            1u);
  std::vector<int> first(frequencies.begin(), frequencies.begin() + HuffmanEncoding::c_MaxUniqueDeltas);
  EXPECT_EQ(CodeMap(codes, first), ReferenceCodes(first));
}

// 1, 1, 2, 3, 5 ...: every merge takes the previous inner node, so the tree is a path.
std::vector<int> Fibonacci(size_t n) {
  std::vector<int> f(n, 1);
  for (size_t i = 2; i < n; ++i) f[i] = f[i - 1] + f[i - 2];
  return f;
}

TEST(HuffmanTable, ReportsCodesLongerThan32Bits) {
  struct Case {
    size_t symbols;
    bool fits;
  };
  for (const Case c : {Case{33, true}, Case{34, false}, Case{45, false}}) {
    OzmPlatform::ScopedLogCapture log;
    std::vector<int> frequencies = Fibonacci(c.symbols);
    HuffmanEncoding encoding;
    std::vector<HuffmanCode> codes;
    EXPECT_EQ(encoding.BuildTable(frequencies, codes), c.fits) << c.symbols;
    EXPECT_EQ(CountStartingWith(log, "ASSERT FAILED: 'numbits <= 32' at OzmCore/Huffman line"), c.fits ? 0u : 1u);
    if (c.fits) {
      EXPECT_EQ(CodeMap(codes, frequencies), ReferenceCodes(frequencies));
    }
  }
}

// Codes from the tree itself, of any length.
void TreeCodes(const TreeNode* node, const std::string& prefix, std::map<int, std::string>& codes) {
  if (!node->left) {
    codes[node->index] = prefix;
    return;
  }
  TreeCodes(node->left, prefix + "0", codes);
  TreeCodes(node->right, prefix + "1", codes);
}

// Random bits, or the codes of random symbols, cut at a random bit (a cut inside a code is a
// truncated stream).
EntropyReference::BitString RandomStream(std::mt19937& rng, const std::map<int, std::string>& codes) {
  std::string bits;
  if (rng() % 2) {
    const size_t n = rng() % 700;
    const double ones[] = {0.05, 0.5, 0.95};
    std::bernoulli_distribution bit(ones[rng() % 3]);
    for (size_t i = 0; i < n; ++i) bits += bit(rng) ? '1' : '0';
  } else {
    std::vector<const std::string*> all;
    for (const auto& entry : codes) all.push_back(&entry.second);
    const size_t n = rng() % 300;
    for (size_t i = 0; i < n; ++i) bits += *all[std::min(rng() % all.size(), rng() % all.size())];
    if (!bits.empty() && rng() % 3 == 0) bits.resize(rng() % bits.size());
  }
  return EntropyReference::Pack(bits);
}

HRESULT ExpectedResult(HuffmanResult::Status status) {
  switch (status) {
    case HuffmanResult::kComplete: return S_OK;
    case HuffmanResult::kNoBitsConsumed: return E_UNEXPECTED;
    default: return E_FAIL;
  }
}

std::vector<int> TreeFrequencies(std::mt19937& rng) {
  switch (rng() % 4) {
    case 0: return Fibonacci(2 + rng() % 44);  // codes beyond the table and beyond 32 bits
    case 1: return {1 + static_cast<int>(rng() % 3), 1 + static_cast<int>(rng() % 3)};
    default: return RandomFrequencies(rng);
  }
}

TEST(HuffmanDecoder, MatchesTheTreeWalk) {
  std::mt19937 rng(13);
  for (int trial = 0; trial < 1500; ++trial) {
    std::vector<int> frequencies = TreeFrequencies(rng);
    HuffmanEncoding encoding;
    TreeNode* root = nullptr;
    encoding.BuildTree(frequencies, &root);
    if (!root || !root->left) continue;
    std::map<int, std::string> codes;
    TreeCodes(root, "", codes);
    const EntropyReference::BitString s = RandomStream(rng, codes);
    const size_t stride = 1 + rng() % 3;
    const size_t maxSymbols = rng() % 4 ? s.numBits + 1 : rng() % 50;

    const HuffmanDecoder decoder(root);
    const HuffmanResult expected = EntropyReference::DecodeHuffman(root, s.words.data(), s.numBits, maxSymbols);
    OzmPlatform::ScopedLogCapture log;
    Bytes out(stride * (maxSymbols + 1), 0xEE);
    size_t decoded = 99;
    ASSERT_EQ(decoder.Decode(s.words.data(), s.numBits, out.data(), stride, maxSymbols, &decoded),
              ExpectedResult(expected.status))
        << "trial " << trial;
    ASSERT_EQ(decoded, expected.symbols.size()) << "trial " << trial;
    for (size_t k = 0; k < out.size(); ++k) {
      const bool written = k % stride == 0 && k / stride < decoded;
      ASSERT_EQ(out[k], written ? static_cast<uint8_t>(expected.symbols[k / stride]) : 0xEE) << "trial " << trial;
    }
    ASSERT_EQ(log.Lines().size(), expected.status == HuffmanResult::kComplete ? 0u : 1u) << "trial " << trial;
  }
}

TEST(HuffmanDecoder, RefusesTreesThatReadNoBits) {
  struct Case {
    const char* name;
    std::vector<int> frequencies;
    uint32_t numBits;
    HRESULT result;
  };
  const std::vector<Case> cases = {
      {"no leaf, no bits", {0, 0}, 0, S_OK},
      {"no leaf, bits", {0, 0}, 10, E_UNEXPECTED},
      {"one leaf, no bits", {0, 4}, 0, S_OK},
      {"one leaf, bits", {0, 4}, 10, E_UNEXPECTED},
  };
  for (Case c : cases) {
    OzmPlatform::ScopedLogCapture log;
    HuffmanEncoding encoding;
    TreeNode* root = nullptr;
    encoding.BuildTree(c.frequencies, &root);
    const HuffmanDecoder decoder(root);
    const std::vector<uint32_t> words = {0, 0};
    Bytes out(4, 0xEE);
    size_t decoded = 99;
    EXPECT_EQ(decoder.Decode(words.data(), c.numBits, out.data(), 1, out.size(), &decoded), c.result) << c.name;
    EXPECT_EQ(decoded, 0u) << c.name;
    EXPECT_EQ(out, Bytes(4, 0xEE)) << c.name;
    EXPECT_EQ(log.Lines().size(), c.result == S_OK ? 0u : 1u) << c.name;

    // One symbol at a time, a lone leaf is decoded without taking a word.
    int fetched = 0;
    LazyBitReader reader([&](uint32_t& w) {
      w = 0;
      return ++fetched > 0;
    });
    EXPECT_EQ(decoder.DecodeSymbol(reader), root ? 1 : -1) << c.name;
    EXPECT_EQ(fetched, 0) << c.name;
  }
}

// A reader over a word array that counts the words it hands out, and a plain reference cursor.
struct CountingSource {
  const std::vector<uint32_t>* words;
  size_t* next;
  bool operator()(uint32_t& w) {
    if (*next >= words->size()) return false;
    w = (*words)[(*next)++];
    return true;
  }
};

TEST(LazyBitReader, TakesWordsOnlyWhenABitIsNeeded) {
  std::mt19937 rng(17);
  for (int trial = 0; trial < 1500; ++trial) {
    std::vector<int> frequencies = TreeFrequencies(rng);
    HuffmanEncoding encoding;
    TreeNode* root = nullptr;
    encoding.BuildTree(frequencies, &root);
    if (!root) continue;
    const HuffmanDecoder decoder(root);
    const size_t numWords = rng() % 12;
    std::vector<uint32_t> words(numWords);
    for (uint32_t& w : words) w = rng() % 3 ? static_cast<uint32_t>(rng()) : (rng() % 2 ? 0u : ~0u);

    size_t handedOut = 0;
    LazyBitReader reader(CountingSource{&words, &handedOut});
    // The reference reads the same words followed by zeros.
    std::vector<uint32_t> padded = words;
    padded.resize(words.size() + 64, 0);
    EntropyReference::BitCursor cursor(padded.data(), padded.size());
    for (int op = 0; op < 60; ++op) {
      if (rng() % 2) {
        const uint32_t n = rng() % 4 == 0 ? 32 : rng() % 12;
        uint32_t expected = 0, bit = 0;
        for (uint32_t i = 0; i < n; ++i) {
          cursor.Next(bit);
          expected = expected << 1 | bit;
        }
        ASSERT_EQ(reader.ReadBits(n), expected) << "trial " << trial << " op " << op;
      } else {
        const TreeNode* node = root;
        uint32_t bit = 0;
        while (node->left && cursor.Next(bit)) node = bit ? node->right : node->left;
        ASSERT_EQ(decoder.DecodeSymbol(reader), node->index) << "trial " << trial << " op " << op;
      }
      const uint64_t wordsNeeded = (cursor.Position() + 31) / 32;
      ASSERT_EQ(reader.WordsFetched(), wordsNeeded) << "trial " << trial << " op " << op;
      ASSERT_EQ(handedOut, std::min<uint64_t>(wordsNeeded, words.size()));
      ASSERT_EQ(reader.Exhausted(), wordsNeeded > words.size());
      ASSERT_LE(reader.Available(), 32u);
    }
  }
}

struct Distribution {
  const char* name;
  Bytes symbols;
};

std::vector<Distribution> Distributions() {
  std::mt19937 rng(21);
  Bytes uniform(5000), peaked(5000), twoValued(5000);
  for (uint8_t& s : uniform) s = static_cast<uint8_t>(rng());
  std::normal_distribution<double> motion(128.0, 4.0);
  for (uint8_t& s : peaked) s = static_cast<uint8_t>(std::clamp(static_cast<int>(motion(rng)), 0, 255));
  for (uint8_t& s : twoValued) s = rng() % 5 ? 3 : 250;
  return {{"uniform", uniform},          {"peaked", peaked},
          {"two values", twoValued},     {"constant 0", Bytes(300, 0)},
          {"constant 7", Bytes(300, 7)}, {"constant 255", Bytes(300, 255)},
          {"one symbol", Bytes{9}},      {"empty", Bytes{}}};
}

TEST(HuffmanEncoder, RoundTripsThroughTheDecoder) {
  for (const Distribution& d : Distributions()) {
    for (size_t stride : {1, 3}) {
      const size_t n = d.symbols.size();
      Bytes interleaved(n * stride, 0x55);
      for (size_t i = 0; i < n; ++i) interleaved[i * stride] = d.symbols[i];
      OzmEncode::HuffmanAxis axis;
      ASSERT_TRUE(OzmEncode::EncodeHuffman(interleaved.data(), n, stride, axis)) << d.name;
      ASSERT_EQ(axis.frequencies.size(), 256u);
      ASSERT_EQ(axis.words.size(), EntropyReference::WordCount(axis.numBits));

      // What the reader does: a zeroed output, and no decode for an axis of 0 bits.
      HuffmanEncoding encoding;
      TreeNode* root = nullptr;
      encoding.BuildTree(axis.frequencies, &root);
      Bytes out(n * stride, 0);
      size_t decoded = 0;
      if (axis.numBits > 0) {
        ASSERT_EQ(HuffmanDecoder(root).Decode(axis.words.data(), axis.numBits, out.data(), stride, n, &decoded), S_OK);
        EXPECT_EQ(decoded, n) << d.name;
      }
      for (size_t i = 0; i < n; ++i) ASSERT_EQ(out[i * stride], d.symbols[i]) << d.name << " symbol " << i;
    }
  }
}

TEST(HuffmanEncoder, ShortensCodesThatWouldNotFit) {
  std::vector<int> frequencies = Fibonacci(45);
  frequencies[10] = 0;
  const std::vector<int> original = frequencies;
  std::vector<HuffmanCode> codes;
  ASSERT_TRUE(OzmEncode::MakeHuffmanCodes(frequencies, codes));
  for (size_t s = 0; s < original.size(); ++s) {
    EXPECT_EQ(frequencies[s] > 0, original[s] > 0) << s;
    EXPECT_LE(codes[s].numbits, 32u);
  }
  EXPECT_EQ(CodeMap(codes, frequencies), ReferenceCodes(frequencies));
}

}  // namespace
