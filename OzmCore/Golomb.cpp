#include "OzmCore/Golomb.h"

#include <algorithm>

#include "OzmCore/BitDecoding.h"
#include "platform/Log.h"

namespace {

// Streams shorter than this decode faster without building the table first.
constexpr uint32_t kTableMinBits = 16 * Ozm::kWindowCount;

}  // namespace

void CGolombDecompressor::PrepareTable(uint8_t M, uint8_t center) {
  const int key = M << 8 | center;
  if (key == m_tableKey) return;
  // Every code of at most kWindowBits bits, shortest first: q ones and a zero, then the remainder
  // bits; a remainder r below the cutoff stands alone, any other is followed by either extra bit.
  const OzmGolomb::Parameters p = OzmGolomb::ParametersFor(M);
  const uint32_t leading = p.b > 1 ? p.b - 1 : 0;
  std::vector<Ozm::ShortCode> codes;
  for (uint32_t q = 0; q + 1 + leading <= Ozm::kWindowBits; ++q) {
    const uint32_t unary = ((1u << q) - 1) << 1;
    for (uint32_t r = 0; r < (1u << leading); ++r) {
      if (r < p.cutoff) {
        const uint32_t v = q * M + r;
        codes.push_back(
            {unary << leading | r, q + 1 + leading, static_cast<uint8_t>(center + OzmGolomb::ZigzagToByte(v))});
        continue;
      }
      if (q + 2 + leading > Ozm::kWindowBits) continue;
      for (uint32_t x = 0; x < 2; ++x) {
        const uint32_t v = q * M + 2 * r + x - p.cutoff;
        codes.push_back({(unary << leading | r) << 1 | x, q + 2 + leading,
                         static_cast<uint8_t>(center + OzmGolomb::ZigzagToByte(v))});
      }
    }
  }
  std::stable_sort(codes.begin(), codes.end(),
                   [](const Ozm::ShortCode& a, const Ozm::ShortCode& b) { return a.length < b.length; });
  m_table.resize(Ozm::kWindowCount);
  Ozm::BuildMultiCodeTable(codes, m_table.data());
  m_tableKey = key;
}

HRESULT CGolombDecompressor::Decompress(const uint32_t* words, uint32_t numBits, uint8_t M, uint8_t center,
                                        std::vector<uint8_t>& out) {
  out.clear();
  if (numBits == 0) return S_OK;
  if (!OZM_ASSERT_MSG(M != 0, "M != 0")) return E_UNEXPECTED;
  if (!OZM_ASSERT(words)) return E_POINTER;

  const OzmGolomb::Parameters p = OzmGolomb::ParametersFor(M);
  // With b = 0 (M = 1) the one bit after the run behaves exactly like b = 1: there are no leading
  // remainder bits, r = 0 is never below the cutoff 0, and the extra bit is the remainder. So every
  // code ends with `width` bits, the last of which is not part of the code when r < cutoff.
  const uint32_t width = p.b > 0 ? p.b : 1;
  const uint32_t cutoff = p.cutoff;
  const uint32_t shortestCode = width + (cutoff == 0 ? 1 : 0);

  const uint64_t* table = nullptr;
  if (numBits >= kTableMinBits) {
    PrepareTable(M, center);
    table = m_table.data();
  }

  // Symbol k starts at bit k * shortestCode or later, and before numBits. Two more bytes take the
  // unused bytes of a table entry.
  out.resize(numBits / shortestCode + 3);
  uint8_t* const dst = out.data();
  size_t count = 0;
  Ozm::WordBitBuffer in(words, Ozm::WordCount(numBits));
  bool truncated = false;

  while (in.Consumed() < numBits) {
    in.Refill();
    // A window that ends before numBits lies in the words and every code that starts in it starts
    // before numBits.
    if (table && in.Consumed() + Ozm::kWindowBits <= numBits) {
      const uint64_t entry = table[in.m_bits >> (64 - Ozm::kWindowBits)];
      const uint32_t codes = (entry >> 8) & 0xFF;
      if (codes != 0) {
        dst[count] = static_cast<uint8_t>(entry >> 16);
        dst[count + 1] = static_cast<uint8_t>(entry >> 24);
        dst[count + 2] = static_cast<uint8_t>(entry >> 32);
        count += codes;
        in.Skip(entry & 0xFF);
        continue;
      }
    }
    // Quotient: the run of 1 bits at the top. A run longer than the buffer is rare; it is added up
    // a buffer at a time.
    uint32_t q = 0;
    uint32_t ones = static_cast<uint32_t>(__builtin_clzll(~in.m_bits));
    while (ones == in.m_count) {
      q += ones;
      in.Skip(ones);
      in.Refill();
      if (in.m_count == 0) break;
      ones = static_cast<uint32_t>(__builtin_clzll(~in.m_bits));
    }
    if (in.m_count == 0) {
      truncated = true;
      break;
    }
    q += ones;
    in.Skip(ones + 1);

    // Remainder: peek `width` bits (zeros past the end of the words), then make sure the bits the
    // code actually uses were there.
    if (in.m_count < width) in.Refill();
    const uint32_t top = static_cast<uint32_t>(in.m_bits >> (64 - width));
    const uint32_t r = top >> 1;
    const bool shortCode = r < cutoff;
    const uint32_t length = shortCode ? width - 1 : width;
    if (length > in.m_count) {
      truncated = true;
      break;
    }
    in.Skip(length);
    // Wrapping arithmetic is fine: only v modulo 512 decides the output byte.
    const uint32_t v = q * M + (shortCode ? r : top - cutoff);
    dst[count++] = static_cast<uint8_t>(center + OzmGolomb::ZigzagToByte(v));
  }

  if (truncated) OZM_ASSERT_MSG(false, "bitIndex / 32 < numWords");
  out.resize(count);
  return S_OK;
}
