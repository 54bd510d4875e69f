// Golomb bitstreams of any content and length, decoded with any parameters and checked against the
// bit-by-bit definition; what decodes is coded again and must come back unchanged.
//   byte 0: M, byte 1: center, byte 2: bits cut off the last word, byte 3: how many times the words
//   are repeated (up to 4096 words: long streams take the table path); the rest: little-endian
//   words.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "OzmCore/Golomb.h"
#include "OzmCore/encode/GolombEncoder.h"
#include "fuzz/FuzzSupport.h"
#include "tests/EntropyReference.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SilenceLogOnce();
  if (size < 4) return 0;
  const uint8_t M = data[0];
  const uint8_t center = data[1];
  const size_t pieceWords = (size - 4) / 4;
  const size_t repeats = 1 + data[3] % 32;
  std::vector<uint32_t> words(pieceWords * repeats < 4096 ? pieceWords * repeats : 4096);
  for (size_t i = 0; i < words.size(); ++i) std::memcpy(&words[i], data + 4 + 4 * (i % pieceWords), 4);
  const uint32_t numBits = words.empty() ? 0 : static_cast<uint32_t>(words.size() * 32 - data[2] % 32);

  CGolombDecompressor decompressor;
  std::vector<uint8_t> out;
  const HRESULT hr = decompressor.Decompress(words.data(), numBits, M, center, out);
  if (M == 0) {
    FUZZ_CHECK(out.empty() && hr == (numBits == 0 ? S_OK : E_UNEXPECTED));
    return 0;
  }
  FUZZ_CHECK(hr == S_OK);
  FUZZ_CHECK(out == EntropyReference::DecodeGolomb(words.data(), numBits, M, center));
  FUZZ_CHECK(out.size() <= numBits / 2 + 1);

  // The same object again: its table is reused and must give the same bytes.
  std::vector<uint8_t> again;
  decompressor.Decompress(words.data(), numBits, M, center, again);
  FUZZ_CHECK(again == out);

  OzmEncode::GolombAxis coded;
  FUZZ_CHECK(OzmEncode::EncodeGolomb(out.data(), out.size(), 1, M, center, coded));
  std::vector<uint8_t> back;
  FUZZ_CHECK(decompressor.Decompress(coded.words.data(), coded.numBits, M, center, back) == S_OK);
  FUZZ_CHECK(back == out);
  return 0;
}
