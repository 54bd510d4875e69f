// Reading a stream of 32-bit words bit by bit, most significant bit first, through a 64-bit
// buffer. Used by the bulk entropy decoders, which have all words in memory.
#pragma once

#include <cstdint>

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

}  // namespace Ozm
