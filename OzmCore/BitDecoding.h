// Shared by the bulk entropy decoders, which have all words of a stream in memory: reading the
// words bit by bit (from bit 31 down to bit 0) through a 64-bit buffer, and tables that decode
// several short codes with one look-up.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Ozm {

// The bits not yet consumed sit at the top of m_bits, the bits below them are zero. Refill appends
// one word whenever fewer than 32 bits are left, so there are between 32 and 63 bits after it
// (fewer only at the end of the words). Keeping the count below 64 makes every shift by up to the
// count well defined and leaves the lowest bit zero, so the complement of the buffer is never 0.
class WordBitBuffer {
 public:
  WordBitBuffer(const uint32_t* words, uint32_t numWords) : m_words(words), m_numWords(numWords) {}

  void Refill() {
    if (m_count < 32 && m_next < m_numWords) {
      m_bits |= static_cast<uint64_t>(m_words[m_next++]) << (32 - m_count);
      m_count += 32;
    }
  }
  // n <= m_count, hence below 64.
  void Skip(uint32_t n) {
    m_bits <<= n;
    m_count -= n;
  }
  uint64_t Consumed() const { return static_cast<uint64_t>(m_next) * 32 - m_count; }

  uint64_t m_bits = 0;
  uint32_t m_count = 0;

 private:
  const uint32_t* m_words;
  uint32_t m_numWords;
  uint32_t m_next = 0;
};

// The number of words holding numBits bits.
inline uint32_t WordCount(uint32_t numBits) { return numBits / 32 + (numBits % 32 != 0 ? 1 : 0); }

// Several short codes decoded with one look-up. A window is the next kWindowBits bits of the
// stream; its entry tells how many whole codes lie at its start (up to three), the bits they use
// and their output bytes:
//   bits 0..7 the bits used, 8..15 the number of codes, 16..23, 24..31, 32..39 the bytes in order.
// An entry with no code means the first code is longer than the window; the caller then decodes
// it the slow way.
constexpr uint32_t kWindowBits = 11;
constexpr uint32_t kWindowCount = 1u << kWindowBits;

// A code of at most kWindowBits bits and the byte it decodes to.
struct ShortCode {
  uint32_t bits;  // right-aligned
  uint32_t length;
  uint8_t byte;
};

namespace detail {

// Fills the windows that start with `prefix` (`used` bits, `count` codes so far): first all of
// them with the codes so far, then, code by code, those in which one more code follows.
inline void FillWindows(const std::vector<ShortCode>& codes, uint32_t prefix, uint32_t used, uint64_t count,
                        uint64_t bytes, uint64_t* table) {
  const uint32_t spare = kWindowBits - used;
  std::fill_n(table + (static_cast<size_t>(prefix) << spare), size_t{1} << spare, used | count << 8 | bytes << 16);
  if (count == 3) return;
  for (const ShortCode& c : codes) {
    if (c.length > spare) break;
    FillWindows(codes, prefix << c.length | c.bits, used + c.length, count + 1,
                bytes | static_cast<uint64_t>(c.byte) << (8 * count), table);
  }
}

}  // namespace detail

// codes: every code of at most kWindowBits bits, shortest first. table receives kWindowCount
// entries; the work is proportional to the entries written.
inline void BuildMultiCodeTable(const std::vector<ShortCode>& codes, uint64_t* table) {
  detail::FillWindows(codes, 0, 0, 0, 0, table);
}

}  // namespace Ozm
