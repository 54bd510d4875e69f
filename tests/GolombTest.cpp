#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "OzmCore/Golomb.h"
#include "OzmCore/encode/GolombEncoder.h"
#include "platform/host/LogCapture.h"
#include "tests/EntropyReference.h"

using Bytes = std::vector<uint8_t>;

namespace {

constexpr const char* kPastTheWords = "ASSERT FAILED: 'bitIndex / 32 < numWords' at OzmCore/Golomb line";

using EntropyReference::BitString;
using EntropyReference::Pack;

size_t CountStartingWith(const OzmPlatform::ScopedLogCapture& log, const std::string& prefix) {
  size_t n = 0;
  for (const std::string& line : log.Texts()) n += line.rfind(prefix, 0) == 0 ? 1 : 0;
  return n;
}

TEST(GolombDecompress, DecodesCodesByTheirDefinition) {
  struct Case {
    const char* name;
    std::string bits;
    uint8_t M;
    uint8_t center;
    Bytes expected;
    int numBits = -1;  // the length of `bits` unless set
  };
  const std::vector<Case> cases = {
      {"M 3, 00 is v 0", "00", 3, 100, {100}},
      {"M 3, 010 is v 1", "010", 3, 100, {99}},
      {"M 3, 011 is v 2", "011", 3, 100, {101}},
      {"M 3, 100 is v 3", "100", 3, 100, {98}},
      {"M 3, one after the other", "00 010 011 100", 3, 100, {100, 99, 101, 98}},
      {"M 1 reads one bit after the run", "00 01 1101", 1, 10, {10, 9, 8}},
      {"M 2: the one bit is the remainder", "01 101", 2, 10, {9, 8}},
      {"M 4 has no cutoff: two remainder bits", "011 1000", 4, 10, {8, 12}},
      {"M 5: short and long remainders", "010 0110 0111", 5, 0, {1, 254, 2}},
      {"M 255: seven bits, then the extra bit", "0 0000000 0 0000001 0", 255, 7, {7, 6}},
      {"center plus delta wraps upward", std::string(20, '1') + "00", 1, 250, {4}},
      {"center plus delta wraps downward", std::string(9, '1') + "00", 1, 3, {254}},
      {"a run across a word boundary", std::string(40, '1') + "00 00", 1, 0, {20, 0}},
      {"no bits", "", 3, 5, {}},
      {"no bits, M 0", "", 0, 5, {}},
      {"a symbol started before the end is finished past it", "010", 3, 100, {99}, 1},
      {"the padding bits of the last word complete a symbol", "000", 3, 100, {100, 100}, 3},
  };
  for (const Case& c : cases) {
    OzmPlatform::ScopedLogCapture log;
    BitString s = Pack(c.bits);
    if (c.numBits >= 0) s.numBits = static_cast<uint32_t>(c.numBits);
    Bytes out = {1, 2, 3};
    EXPECT_EQ(CGolombDecompressor().Decompress(s.words.data(), s.numBits, c.M, c.center, out), S_OK) << c.name;
    EXPECT_EQ(out, c.expected) << c.name;
    EXPECT_TRUE(log.Lines().empty()) << c.name;
  }
}

TEST(GolombDecompress, StopsAtTheLastWord) {
  struct Case {
    const char* name;
    std::string bits;
    uint8_t M;
    Bytes expected;
  };
  const std::vector<Case> cases = {
      {"a run of ones to the end", std::string(32, '1'), 3, {}},
      {"a run of ones over two words", std::string(64, '1'), 1, {}},
      {"whole symbols, then a run to the end", "00 00 " + std::string(28, '1'), 3, {0, 0}},
      {"remainder bits missing", std::string(32, '0'), 64, {0, 0, 0, 0}},
      {"extra bit missing", "000000000000000000000 0110 0110 011", 5, {0, 0, 0, 0, 0, 0, 0, 254, 254}},
  };
  for (const Case& c : cases) {
    OzmPlatform::ScopedLogCapture log;
    const BitString s = Pack(c.bits);
    // Exactly the words the bit count covers, so that a read beyond them shows under ASan.
    const std::vector<uint32_t> words(s.words);
    Bytes out;
    EXPECT_EQ(CGolombDecompressor().Decompress(words.data(), s.numBits, c.M, 0, out), S_OK) << c.name;
    EXPECT_EQ(out, c.expected) << c.name;
    EXPECT_EQ(CountStartingWith(log, kPastTheWords), 1u) << c.name;
  }
}

TEST(GolombDecompress, RejectsParametersItCannotDecode) {
  OzmPlatform::ScopedLogCapture log;
  const BitString s = Pack("0101 1100");
  Bytes out = {9};
  EXPECT_EQ(CGolombDecompressor().Decompress(s.words.data(), s.numBits, 0, 0, out), E_UNEXPECTED);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(CountStartingWith(log, "ASSERT FAILED: 'M != 0'"), 1u);
  EXPECT_EQ(CGolombDecompressor().Decompress(nullptr, 8, 3, 0, out), E_POINTER);
  EXPECT_TRUE(out.empty());
}

// Random words with long runs of equal bits as well as noise, cut at any bit.
std::vector<uint32_t> RandomWords(std::mt19937& rng, size_t n) {
  const double ones[] = {0.02, 0.3, 0.5, 0.7, 0.97};
  std::bernoulli_distribution bit(ones[rng() % 5]);
  std::vector<uint32_t> words(n);
  for (uint32_t& w : words) {
    for (int i = 0; i < 32; ++i) w = w << 1 | (bit(rng) ? 1u : 0u);
  }
  return words;
}

TEST(GolombDecompress, MatchesTheBitByBitDefinitionOnRandomStreams) {
  std::mt19937 rng(7);
  for (int trial = 0; trial < 4000; ++trial) {
    // Long streams every so often: those are decoded several codes at a time.
    const size_t numWords = trial % 50 == 0 ? 1024 + rng() % 1024 : 1 + rng() % 24;
    const std::vector<uint32_t> words = RandomWords(rng, numWords);
    const uint32_t numBits = static_cast<uint32_t>((numWords - 1) * 32 + 1 + rng() % 32);
    const uint8_t M = static_cast<uint8_t>(1 + rng() % 255);
    const uint8_t center = static_cast<uint8_t>(rng());
    OzmPlatform::ScopedLogCapture log;
    bool truncated = false;
    const Bytes expected = EntropyReference::DecodeGolomb(words.data(), numBits, M, center, &truncated);
    Bytes out;
    ASSERT_EQ(CGolombDecompressor().Decompress(words.data(), numBits, M, center, out), S_OK);
    ASSERT_EQ(out, expected) << "trial " << trial << " M " << int(M) << " numBits " << numBits;
    ASSERT_EQ(CountStartingWith(log, kPastTheWords), truncated ? 1u : 0u) << "trial " << trial;
  }
}

// Symbol sets an encoder meets: a peak around a typical delta, the full range, one value, two.
struct Distribution {
  const char* name;
  Bytes symbols;
};

std::vector<Distribution> Distributions() {
  std::mt19937 rng(11);
  std::vector<Distribution> d;
  // The peaked and broad sets are long enough (over 32768 bits with any M) to be decoded through
  // the table of short codes; the others are decoded one code at a time.
  Bytes uniform(3000), peaked(17000), twoValued(3000), wide(17000);
  for (uint8_t& s : uniform) s = static_cast<uint8_t>(rng());
  std::normal_distribution<double> narrow(128.0, 3.0), broad(20.0, 40.0);
  for (uint8_t& s : peaked) s = static_cast<uint8_t>(static_cast<int>(narrow(rng)) & 0xFF);
  for (uint8_t& s : wide) s = static_cast<uint8_t>(static_cast<int>(broad(rng)) & 0xFF);  // wraps below 0
  for (uint8_t& s : twoValued) s = rng() % 4 ? 0 : 255;
  d.push_back({"uniform", uniform});
  d.push_back({"peaked", peaked});
  d.push_back({"broad and wrapping", wide});
  d.push_back({"two values", twoValued});
  d.push_back({"constant", Bytes(500, 77)});
  d.push_back({"one symbol", Bytes{200}});
  d.push_back({"empty", Bytes{}});
  return d;
}

// Decodes what EncodeGolomb made of the symbols and compares.
void ExpectRoundTrip(const Distribution& d, uint8_t M, uint8_t center) {
  OzmEncode::GolombAxis axis;
  ASSERT_TRUE(OzmEncode::EncodeGolomb(d.symbols.data(), d.symbols.size(), 1, M, center, axis));
  ASSERT_EQ(axis.words.size(), EntropyReference::WordCount(axis.numBits));
  EXPECT_EQ(axis.numBits, OzmEncode::GolombCodedBits(d.symbols.data(), d.symbols.size(), 1, M, center));
  Bytes out;
  ASSERT_EQ(CGolombDecompressor().Decompress(axis.words.data(), axis.numBits, M, center, out), S_OK);
  ASSERT_EQ(out, d.symbols) << d.name << " M " << int(M) << " center " << int(center);
}

TEST(GolombEncoder, RoundTripsWithEveryParameter) {
  for (const Distribution& d : Distributions()) {
    const uint8_t center = OzmEncode::ChooseGolombCenter(d.symbols.data(), d.symbols.size(), 1);
    for (int M = 1; M <= 255; ++M) ExpectRoundTrip(d, static_cast<uint8_t>(M), center);
    // A center far off the symbols: long unary runs.
    for (int M : {1, 2, 3, 4, 5, 7, 64, 127, 128, 129, 255}) {
      ExpectRoundTrip(d, static_cast<uint8_t>(M), static_cast<uint8_t>(center + 128));
    }
  }
}

TEST(GolombEncoder, CodesOneAxisOfInterleavedTriples) {
  std::mt19937 rng(3);
  Bytes triples(3 * 1000);
  for (size_t i = 0; i < triples.size(); ++i) triples[i] = static_cast<uint8_t>(i % 3 * 80 + rng() % 9);
  for (size_t axis = 0; axis < 3; ++axis) {
    const uint8_t* first = triples.data() + axis;
    const uint8_t center = OzmEncode::ChooseGolombCenter(first, 1000, 3);
    const uint8_t M = OzmEncode::ChooseGolombParameter(first, 1000, 3, center);
    OzmEncode::GolombAxis coded;
    ASSERT_TRUE(OzmEncode::EncodeGolomb(first, 1000, 3, M, center, coded));
    Bytes out;
    ASSERT_EQ(CGolombDecompressor().Decompress(coded.words.data(), coded.numBits, M, center, out), S_OK);
    ASSERT_EQ(out.size(), 1000u);
    for (size_t i = 0; i < 1000; ++i) ASSERT_EQ(out[i], triples[3 * i + axis]) << "axis " << axis << " vertex " << i;
  }
}

TEST(GolombEncoder, ChoosesTheParameterOfTheShortestStream) {
  for (const Distribution& d : Distributions()) {
    const uint8_t center = OzmEncode::ChooseGolombCenter(d.symbols.data(), d.symbols.size(), 1);
    const uint8_t chosen = OzmEncode::ChooseGolombParameter(d.symbols.data(), d.symbols.size(), 1, center);
    OzmEncode::GolombAxis best;
    ASSERT_TRUE(OzmEncode::EncodeGolomb(d.symbols.data(), d.symbols.size(), 1, chosen, center, best));
    for (int M = 1; M <= 255; ++M) {
      OzmEncode::GolombAxis other;
      ASSERT_TRUE(
          OzmEncode::EncodeGolomb(d.symbols.data(), d.symbols.size(), 1, static_cast<uint8_t>(M), center, other));
      EXPECT_LE(best.numBits, other.numBits) << d.name << ": M " << M << " beats " << int(chosen);
    }
  }
}

TEST(GolombEncoder, CentersOnTheMiddleOfTheDeltas) {
  struct Case {
    const char* name;
    Bytes symbols;
    uint8_t center;
  };
  const std::vector<Case> cases = {
      {"around zero, across the wrap", {254, 255, 255, 0, 0, 0, 1, 1, 2}, 0},
      {"a single value", {42, 42, 42}, 42},
      {"skewed: the median, not the mean", {10, 10, 10, 11, 200}, 10},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(OzmEncode::ChooseGolombCenter(c.symbols.data(), c.symbols.size(), 1), c.center) << c.name;
  }
}

}  // namespace
