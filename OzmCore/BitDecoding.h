// Shared by the bulk entropy decoders, which have all words of a stream in memory: reading the
// words bit by bit (from bit 31 down to bit 0) through a 64-bit buffer, and tables that decode
// several short codes with one look-up.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
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

// The bits of a coded stream as bytes in reading order (each 32-bit word of the format stored most
// significant byte first), followed by kBitStreamPadding zero bytes, so that 64 bits can be loaded
// at any bit position of the stream without a check. Past the end of the words the bits read as
// zeros, as they do from WordBitBuffer.
constexpr size_t kBitStreamPadding = 8;

inline uint64_t LoadBigEndian64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  v = __builtin_bswap64(v);
#endif
  return v;
}

// Makes the bytes of a stream from little-endian words as they are stored in a payload (count
// bytes, a multiple of 4); out receives count + kBitStreamPadding bytes.
inline void BitStreamFromStoredWords(const uint8_t* stored, size_t count, std::vector<uint8_t>& out) {
  out.resize(count + kBitStreamPadding);
  for (size_t i = 0; i + 4 <= count; i += 4) {
    out[i] = stored[i + 3];
    out[i + 1] = stored[i + 2];
    out[i + 2] = stored[i + 1];
    out[i + 3] = stored[i];
  }
  std::fill(out.begin() + static_cast<ptrdiff_t>(count), out.end(), uint8_t{0});
}

// The same from host-order words.
inline void BitStreamFromWords(const uint32_t* words, size_t numWords, std::vector<uint8_t>& out) {
  out.resize(4 * numWords + kBitStreamPadding);
  for (size_t w = 0; w < numWords; ++w) {
    out[4 * w] = static_cast<uint8_t>(words[w] >> 24);
    out[4 * w + 1] = static_cast<uint8_t>(words[w] >> 16);
    out[4 * w + 2] = static_cast<uint8_t>(words[w] >> 8);
    out[4 * w + 3] = static_cast<uint8_t>(words[w]);
  }
  std::fill(out.end() - static_cast<ptrdiff_t>(kBitStreamPadding), out.end(), uint8_t{0});
}

// A read position in such bytes. Peek() gives the next bits at the top of a 64-bit value: at least
// 57 of them are the stream's (zeros past its end), the lowest (pos & 7) are zero.
struct BitCursor {
  const uint8_t* data;
  uint64_t pos;    // bits consumed
  uint64_t total;  // bits in the words: reading beyond them is an error

  uint64_t Peek() const { return LoadBigEndian64(data + (pos >> 3)) << (pos & 7); }
  uint64_t Left() const { return pos < total ? total - pos : 0; }
};
constexpr uint32_t kPeekBits = 57;

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
