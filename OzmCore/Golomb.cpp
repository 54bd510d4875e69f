#include "OzmCore/Golomb.h"

#include <algorithm>

#include "OzmCore/BitDecoding.h"
#include "platform/Log.h"

namespace {

// One stream being decoded: its bits, its code parameters and its output.
struct AxisDecoder {
  AxisDecoder(const uint8_t* bytes, uint32_t bits, uint8_t m, uint8_t c)
      : in{bytes, 0, 32ull * Ozm::WordCount(bits)}, numBits(bits), M(m), center(c) {
    const OzmGolomb::Parameters p = OzmGolomb::ParametersFor(M);
    // With b = 0 (M = 1) the one bit after the run behaves exactly like b = 1: there are no leading
    // remainder bits, r = 0 is never below the cutoff 0, and the extra bit is the remainder. So
    // every code ends with `width` bits, the last of which is not part of the code when r < cutoff.
    width = p.b > 0 ? p.b : 1;
    cutoff = p.cutoff;
  }

  // Symbol k starts at bit k * shortestCode or later, and before numBits.
  size_t MaxSymbols() const { return numBits / (width + (cutoff == 0 ? 1 : 0)) + 1; }

  void Put(uint32_t v) {
    // Wrapping arithmetic is fine: only v modulo 512 decides the output byte.
    dst[count++] = static_cast<uint8_t>(center + OzmGolomb::ZigzagToByte(v));
  }

  // True while the quick path may be taken: 64 or more bits of the stream left, so that a code
  // found in one peek lies in the words.
  bool Roomy() const { return in.pos + 64 <= numBits; }

  // The next symbol when its code lies in one peek, which is all but always so; false otherwise,
  // with nothing consumed. Works on a position and an output pointer held by the caller, so that
  // a loop over several streams keeps them in registers. Whether the remainder has its extra bit
  // is decided without a branch: it is a coin toss for the processor's predictor.
  bool DecodeQuick(uint64_t& pos, uint8_t*& out) const {
    const uint64_t bits = Ozm::LoadBigEndian64(in.data + (pos >> 3)) << (pos & 7);
    const uint16_t entry = table[bits >> (64 - CGolombDecompressor::kTableBits)];
    if (entry != 0) {
      pos += entry >> 8;
      *out++ = static_cast<uint8_t>(center + entry);
      return true;
    }
    const uint32_t ones = static_cast<uint32_t>(__builtin_clzll(~bits | 1));
    if (ones + 1 + width > Ozm::kPeekBits) return false;
    const uint32_t top = static_cast<uint32_t>((bits << (ones + 1)) >> (64 - width));
    const uint32_t r = top >> 1;
    const uint32_t extra = r >= cutoff ? 1u : 0u;
    const uint32_t mask = 0u - extra;
    pos += ones + width + extra;
    const uint32_t v = ones * M + ((r & ~mask) | ((top - cutoff) & mask));
    *out++ = static_cast<uint8_t>(center + OzmGolomb::ZigzagToByte(v));
    return true;
  }

  // Up to four symbols from one load: the table's codes take at most kTableBits each, and four of
  // them fit in a peek. Table look-ups then follow each other without a load of the stream in
  // between, which shortens the chain of dependent steps per symbol. A code that is not in the
  // table goes to DecodeQuick after the symbols before it, if 64 bits are still left (DecodeQuick's
  // condition); the result is then DecodeQuick's, false otherwise, with pos and out advanced past
  // everything decoded.
  bool DecodeQuick4(uint64_t& pos, uint8_t*& out) const {
    static_assert(4 * CGolombDecompressor::kTableBits <= Ozm::kPeekBits, "four table codes fit in a peek");
    const uint64_t bits = Ozm::LoadBigEndian64(in.data + (pos >> 3)) << (pos & 7);
    uint32_t used = 0;
    for (int k = 0; k < 4; ++k) {
      const uint16_t entry = table[(bits << used) >> (64 - CGolombDecompressor::kTableBits)];
      if (entry == 0) {
        pos += used;
        return pos + 64 <= numBits && DecodeQuick(pos, out);
      }
      used += entry >> 8;
      *out++ = static_cast<uint8_t>(center + entry);
    }
    pos += used;
    return true;
  }

  // The next symbol, however long its code. When the code runs past the last word, nothing is
  // written and failed is set.
  void DecodeAny() {
    // Quotient: the run of 1 bits. A run longer than a peek is added up a peek at a time.
    uint32_t q = 0;
    for (;;) {
      const uint64_t left = in.Left();
      const uint32_t ones = static_cast<uint32_t>(__builtin_clzll(~in.Peek() | 1));
      // Past the end the bits are zeros, so a run that reaches the end stops there.
      if (ones >= left) {
        failed = true;
        return;
      }
      if (ones < Ozm::kPeekBits) {
        q += ones;
        in.pos += ones + 1;
        break;
      }
      q += Ozm::kPeekBits;
      in.pos += Ozm::kPeekBits;
    }
    // Remainder: peek `width` bits (zeros past the end of the words), then make sure the bits the
    // code actually uses were there.
    const uint32_t top = static_cast<uint32_t>(in.Peek() >> (64 - width));
    const uint32_t r = top >> 1;
    const bool shortCode = r < cutoff;
    const uint32_t length = shortCode ? width - 1 : width;
    if (length > in.Left()) {
      failed = true;
      return;
    }
    in.pos += length;
    Put(q * M + (shortCode ? r : top - cutoff));
  }

  // Decodes the rest of the stream; false when a code ran past the last word.
  bool Finish() {
    uint64_t pos = in.pos;
    uint8_t* out = dst + count;
    for (;;) {
      while (pos + 64 <= numBits && DecodeQuick(pos, out)) {
      }
      in.pos = pos;
      count = static_cast<size_t>(out - dst);
      if (in.pos >= numBits) break;
      DecodeAny();
      if (failed) break;
      pos = in.pos;
      out = dst + count;
    }
    return !failed;
  }

  Ozm::BitCursor in;
  const uint16_t* table = nullptr;  // of M, see CGolombDecompressor::TableFor
  uint32_t numBits;
  uint32_t M;
  uint8_t center;
  uint32_t width = 1;
  uint32_t cutoff = 0;
  uint8_t* dst = nullptr;
  size_t count = 0;
  bool failed = false;
};

// Checks the arguments of one stream; *empty is set when there is nothing to decode.
HRESULT Check(const void* words, uint32_t numBits, uint8_t M, bool* empty) {
  *empty = numBits == 0;
  if (*empty) return S_OK;
  if (!OZM_ASSERT_MSG(M != 0, "M != 0")) return E_UNEXPECTED;
  if (!OZM_ASSERT(words)) return E_POINTER;
  return S_OK;
}

void Start(AxisDecoder& d, std::vector<uint8_t>& out) {
  out.resize(d.MaxSymbols());
  d.dst = out.data();
}

void End(AxisDecoder& d, bool complete, std::vector<uint8_t>& out) {
  if (!complete) OZM_ASSERT_MSG(false, "bitIndex / 32 < numWords");
  out.resize(d.count);
}

}  // namespace

const uint16_t* CGolombDecompressor::TableFor(uint8_t M) {
  ++m_uses;
  Table* unused = &m_tables[0];
  for (Table& t : m_tables) {
    if (t.M == M && !t.entries.empty()) {
      t.lastUse = m_uses;
      return t.entries.data();
    }
    if (t.lastUse < unused->lastUse) unused = &t;
  }
  // The table unused for longest makes room: never one of the streams being decoded, since there
  // are more tables than streams.
  Table& t = *unused;
  t.lastUse = m_uses;
  t.M = M;
  t.entries.assign(size_t{1} << kTableBits, 0);
  // Every code of at most kTableBits bits fills the entries that start with it: q ones and a zero,
  // then the remainder bits; a remainder r below the cutoff stands alone, any other is followed by
  // either extra bit.
  const OzmGolomb::Parameters p = OzmGolomb::ParametersFor(M);
  const uint32_t leading = p.b > 1 ? p.b - 1 : 0;
  auto fill = [&t](uint32_t code, uint32_t length, uint32_t v) {
    const uint32_t spare = kTableBits - length;
    std::fill_n(t.entries.begin() + (static_cast<ptrdiff_t>(code) << spare), size_t{1} << spare,
                static_cast<uint16_t>(length << 8 | OzmGolomb::ZigzagToByte(v)));
  };
  for (uint32_t q = 0; q + 1 + leading <= kTableBits; ++q) {
    const uint32_t unary = ((1u << q) - 1) << 1;
    for (uint32_t r = 0; r < (1u << leading); ++r) {
      if (r < p.cutoff) {
        fill(unary << leading | r, q + 1 + leading, q * M + r);
      } else if (q + 2 + leading <= kTableBits) {
        for (uint32_t x = 0; x < 2; ++x)
          fill((unary << leading | r) << 1 | x, q + 2 + leading, q * M + 2 * r + x - p.cutoff);
      }
    }
  }
  return t.entries.data();
}

HRESULT CGolombDecompressor::Decompress(const uint32_t* words, uint32_t numBits, uint8_t M, uint8_t center,
                                        std::vector<uint8_t>& out) {
  out.clear();
  bool empty = false;
  const HRESULT hr = Check(words, numBits, M, &empty);
  if (OZM_FAILED(hr) || empty) return hr;
  std::vector<uint8_t> bytes;
  Ozm::BitStreamFromWords(words, Ozm::WordCount(numBits), bytes);
  AxisDecoder d(bytes.data(), numBits, M, center);
  d.table = TableFor(M);
  Start(d, out);
  End(d, d.Finish(), out);
  return S_OK;
}

HRESULT CGolombDecompressor::DecompressAxes(const Axis axes[3]) {
  bool active[3];
  for (int a = 0; a < 3; ++a) {
    axes[a].out->clear();
    active[a] = true;
  }
  for (int a = 0; a < 3; ++a) {
    bool empty = false;
    const HRESULT hr = Check(axes[a].bytes, axes[a].numBits, axes[a].M, &empty);
    if (OZM_FAILED(hr)) return hr;
    active[a] = !empty;
  }
  AxisDecoder d[3] = {{axes[0].bytes, axes[0].numBits, axes[0].M, axes[0].center},
                      {axes[1].bytes, axes[1].numBits, axes[1].M, axes[1].center},
                      {axes[2].bytes, axes[2].numBits, axes[2].M, axes[2].center}};
  for (int a = 0; a < 3; ++a) {
    if (active[a]) {
      d[a].table = TableFor(axes[a].M);
      Start(d[a], *axes[a].out);
    }
  }
  if (active[0] && active[1] && active[2]) {
    // While every stream has room no code can run past its words, so none fails. A long code
    // leaves the loop, is decoded the careful way and the loop goes on.
    for (;;) {
      uint64_t p0 = d[0].in.pos, p1 = d[1].in.pos, p2 = d[2].in.pos;
      uint8_t* o0 = d[0].dst + d[0].count;
      uint8_t* o1 = d[1].dst + d[1].count;
      uint8_t* o2 = d[2].dst + d[2].count;
      const uint64_t n0 = d[0].numBits, n1 = d[1].numBits, n2 = d[2].numBits;
      bool quick = true;
      // With 64 bits left at the start, every code of a group of four begins inside the stream.
      while (p0 + 64 <= n0 && p1 + 64 <= n1 && p2 + 64 <= n2) {
        quick = d[0].DecodeQuick4(p0, o0);
        quick = d[1].DecodeQuick4(p1, o1) && quick;
        quick = d[2].DecodeQuick4(p2, o2) && quick;
        if (!quick) break;
      }
      const uint64_t pos[3] = {p0, p1, p2};
      uint8_t* const out[3] = {o0, o1, o2};
      for (int a = 0; a < 3; ++a) {
        d[a].in.pos = pos[a];
        d[a].count = static_cast<size_t>(out[a] - d[a].dst);
      }
      if (quick) break;
      // Each stream takes its next symbol, the long code the careful way. A stream with 64 bits
      // left holds the start of its next code; one whose long code runs past its words fails, and
      // its Finish reports that.
      bool failed = false;
      for (int a = 0; a < 3; ++a) {
        if (!d[a].Roomy()) continue;
        uint64_t p = d[a].in.pos;
        uint8_t* o = d[a].dst + d[a].count;
        if (d[a].DecodeQuick(p, o)) {
          d[a].in.pos = p;
          d[a].count = static_cast<size_t>(o - d[a].dst);
        } else {
          d[a].DecodeAny();
        }
        failed = failed || d[a].failed;
      }
      if (failed) break;
    }
  }
  for (int a = 0; a < 3; ++a) {
    if (active[a]) End(d[a], d[a].Finish(), *axes[a].out);
  }
  return S_OK;
}
