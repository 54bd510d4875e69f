#include "OzmCore/Golomb.h"

#include "OzmCore/WordBitBuffer.h"
#include "platform/Log.h"

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

  // Symbol k starts at bit k * shortestCode or later, and before numBits.
  out.resize(numBits / shortestCode + 1);
  uint8_t* const dst = out.data();
  size_t count = 0;
  Ozm::WordBitBuffer in(words, Ozm::WordCount(numBits));
  bool truncated = false;

  while (in.Consumed() < numBits) {
    in.Refill();
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
