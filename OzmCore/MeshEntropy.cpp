// Inter frames whose per-axis delta bytes are entropy coded: Golomb and Huffman.
#include <cstring>
#include <vector>

#include "OzmCore/BitDecoding.h"
#include "OzmCore/Golomb.h"
#include "OzmCore/Huffman.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/StreamRead.h"
#include "platform/Log.h"

namespace Ozm {
namespace {

// Reads the ceil(numBits / 32) little-endian words of a coded stream as the bytes BitCursor reads
// (Ozm::BitStreamFromStoredWords). A stream cut short is refused.
HRESULT ReadBitStream(IStream* stream, uint32_t numBits, std::vector<uint8_t>& bits) {
  const uint64_t count = 4 * ((static_cast<uint64_t>(numBits) + 31) / 32);
  std::vector<uint8_t> stored;
  const HRESULT hr = ReadBlock(stream, count, stored);
  if (OZM_FAILED(hr)) return hr;
  if (stored.size() < count) {
    OZM_LOGE("entropy-coded axis: %zu of %llu bytes present", stored.size(), static_cast<unsigned long long>(count));
    return E_FAIL;
  }
  BitStreamFromStoredWords(stored.data(), stored.size(), bits);
  return S_OK;
}

}  // namespace

HRESULT COzmMeshReader::ReadGolombCodedVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                                IOzmBuffer** out) {
  if (!OZM_ASSERT_MSG(out != nullptr, "ppBuffer") || !ctx || !stream || !header) return E_POINTER;
  float range[6];
  HRESULT hr = ReadDeltaRange(stream, range);
  if (OZM_FAILED(hr)) return hr;
  uint8_t center[3], median[3];
  uint32_t numBits[3];
  for (uint8_t& c : center) {
    bool complete = false;
    hr = ReadValue(stream, &c, &complete);
    OZM_ASSERT_MSG(complete, "bytesRead == sizeof(deltaCenter[i])");
    if (OZM_FAILED(hr)) return hr;
  }
  for (uint8_t& m : median) {
    bool complete = false;
    hr = ReadValue(stream, &m, &complete);
    OZM_ASSERT_MSG(complete, "bytesRead == sizeof(deltaMedian[i])");
    if (OZM_FAILED(hr)) return hr;
  }
  for (uint32_t& b : numBits) {
    bool complete = false;
    hr = ReadValue(stream, &b, &complete);
    OZM_ASSERT_MSG(complete, "bytesRead == sizeof(numBits[i])");
    if (OZM_FAILED(hr)) return hr;
  }

  std::vector<uint8_t>* axes = m_scratch.axes;
  CGolombDecompressor::Axis coded[3];
  for (int a = 0; a < 3; ++a) {
    hr = ReadBitStream(stream, numBits[a], m_scratch.bits[a]);
    if (OZM_FAILED(hr)) return hr;
    coded[a] = {m_scratch.bits[a].data(), numBits[a], median[a], center[a], &axes[a]};
  }
  hr = m_scratch.golomb.DecompressAxes(coded);
  if (OZM_FAILED(hr)) return hr;
  const size_t len = axes[0].size();
  OZM_ASSERT_MSG(len == axes[1].size() && len == axes[2].size(),
                 "len == decompressedDataSingleAxis[1].size() && len == decompressedDataSingleAxis[2].size()");
  if (axes[1].size() < len || axes[2].size() < len) {
    // Shorter y or z streams would leave the vertices half made: refuse the frame.
    return E_UNEXPECTED;
  }
  const DeltaBytes in{{axes[0].data(), axes[1].data(), axes[2].data()}, 1, static_cast<uint32_t>(len)};
  hr = DecodeDeltas(ctx, header, in, range, out);
  if (OZM_FAILED(hr)) return hr;
  return ReadNormals(stream, header, *out);
}

HRESULT COzmMeshReader::ReadHuffmanCodedVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                                 IOzmBuffer** out) {
  if (!OZM_ASSERT_MSG(out != nullptr, "ppBuffer") || !ctx || !stream || !header) return E_POINTER;
  float range[6];
  HRESULT hr = ReadDeltaRange(stream, range);
  if (OZM_FAILED(hr)) return hr;
  uint32_t numBits[3];
  for (uint32_t& b : numBits) {
    bool complete = false;
    hr = ReadValue(stream, &b, &complete);
    OZM_ASSERT_MSG(complete, "bytesRead == sizeof(numBits[i])");
    if (OZM_FAILED(hr)) return hr;
  }
  const uint32_t n = header->m_numVertices;
  if (n > c_MaxMeshElements) {
    OZM_LOGE("ReadHuffmanCodedVertices: %u vertices is beyond any mesh", n);
    return E_UNEXPECTED;
  }
  std::vector<uint8_t>& deltas = m_scratch.axes[0];
  deltas.assign(3ull * n, 0);
  std::vector<uint8_t> table;
  HuffmanDecoder::Axis coded[3];
  for (int a = 0; a < 3; ++a) {
    hr = ReadBlock(stream, 1024, table);
    if (OZM_FAILED(hr)) return hr;
    if (table.size() < 1024) {
      OZM_LOGE("ReadHuffmanCodedVertices: frequency table cut off");
      return E_FAIL;
    }
    std::vector<int> frequencies(256);
    std::memcpy(frequencies.data(), table.data(), 1024);
    hr = ReadBitStream(stream, numBits[a], m_scratch.bits[a]);
    if (OZM_FAILED(hr)) return hr;
    HuffmanDecoder& decoder = m_scratch.huffmanDecoders[a];
    decoder.Reset(nullptr);
    if (numBits[a] != 0 && n != 0) {
      HuffmanEncoding::TreeNode* root = nullptr;
      m_scratch.huffman.BuildTree(frequencies, &root);
      decoder.Reset(root);
    }
    // A stream left out (no bits or no vertices) decodes nothing.
    const uint32_t bits = n != 0 ? numBits[a] : 0;
    coded[a] = {&decoder, m_scratch.bits[a].data(), bits, n ? deltas.data() + a : nullptr, 3, n};
  }
  HRESULT results[3];
  size_t decoded[3];
  HuffmanDecoder::DecodeAxes(coded, results, decoded);
  for (int a = 0; a < 3; ++a) {
    if (OZM_FAILED(results[a])) {
      OZM_LOGE("ReadHuffmanCodedVertices: axis %d does not decode", a);
      return results[a];
    }
  }
  const DeltaBytes in = InterleavedDeltas(deltas.data(), n);
  hr = DecodeDeltas(ctx, header, in, range, out);
  if (OZM_FAILED(hr)) return hr;
  return ReadNormals(stream, header, *out);
}

}  // namespace Ozm
