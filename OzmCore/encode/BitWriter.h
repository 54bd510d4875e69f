// Appending bits to 32-bit words, the layout the entropy decoders read: each word is filled from
// bit 31 down to bit 0, the first bit written being the most significant.
#pragma once

#include <cstdint>
#include <vector>

namespace OzmEncode {

class WordBitWriter {
 public:
  // Appends the low n bits of value (n <= 32), most significant first.
  void Put(uint32_t value, uint32_t n) {
    if (n == 0) return;
    const uint64_t bits = n == 32 ? value : value & ((1u << n) - 1);
    m_pending = m_pending << n | bits;
    m_pendingBits += n;
    m_bitCount += n;
    if (m_pendingBits >= 32) {
      m_pendingBits -= 32;
      m_words.push_back(static_cast<uint32_t>(m_pending >> m_pendingBits));
      m_pending &= (uint64_t{1} << m_pendingBits) - 1;
    }
  }

  void PutOnes(uint64_t n) {
    for (; n >= 32; n -= 32) Put(0xFFFFFFFFu, 32);
    Put(0xFFFFFFFFu, static_cast<uint32_t>(n));
  }

  uint64_t BitCount() const { return m_bitCount; }

  // The words written so far, the last one completed with zero bits.
  std::vector<uint32_t> Words() const {
    std::vector<uint32_t> words = m_words;
    if (m_pendingBits > 0) words.push_back(static_cast<uint32_t>(m_pending << (32 - m_pendingBits)));
    return words;
  }

 private:
  std::vector<uint32_t> m_words;
  uint64_t m_pending = 0;  // fewer than 32 bits, right-aligned
  uint32_t m_pendingBits = 0;
  uint64_t m_bitCount = 0;
};

}  // namespace OzmEncode
