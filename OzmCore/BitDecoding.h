// Shared by the bulk entropy decoders, which have all words of a stream in memory: the words as
// bytes in reading order (bits are read from bit 31 down to bit 0 of each 32-bit word, word after
// word) and a read position in them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Ozm {

// The bits of a coded stream as bytes in reading order (each 32-bit word of the format stored most
// significant byte first), followed by kBitStreamPadding zero bytes, so that 64 bits can be loaded
// at any bit position of the stream without a check. Past the end of the words the bits read as
// zeros.
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

}  // namespace Ozm
