#include "OzmCore/encode/IndexWriter.h"

#include "OzmCore/encode/ByteWriter.h"

namespace OzmEncode {
namespace {

uint32_t BytesForSigned(int32_t d) {
  if (d >= -128 && d <= 127) return 1;
  if (d >= -32768 && d <= 32767) return 2;
  if (d >= -(1 << 23) && d < (1 << 23)) return 3;
  return 4;
}

int32_t Delta(uint32_t now, uint32_t before) { return static_cast<int32_t>(now - before); }

// Appends the 8-byte size and the block.
void AppendSized(const std::vector<uint8_t>& block, std::vector<uint8_t>& out) {
  ByteWriter w(out);
  w.Raw64(static_cast<int64_t>(block.size()));
  w.Bytes(block.data(), block.size());
}

}  // namespace

void WriteUncompressedIndices(const std::vector<uint32_t>& indices, std::vector<uint8_t>& out) {
  ByteWriter(out).Bytes(indices.data(), indices.size() * 4);
}

void WriteFixedByteDeltaIndices(const std::vector<WelmMeshFace>& faces, std::vector<uint8_t>& out) {
  std::vector<uint8_t> block;
  block.reserve(faces.size() * 5);
  uint32_t prev[3] = {0, 0, 0};
  for (const WelmMeshFace& f : faces) {
    int32_t d[3];
    uint32_t widths[3];
    uint8_t control = 0;
    for (int j = 0; j < 3; ++j) {
      d[j] = Delta(f.v[j], prev[j]);
      widths[j] = BytesForSigned(d[j]);
      control = static_cast<uint8_t>(control | (widths[j] - 1) << (2 * j));
      prev[j] = f.v[j];
    }
    block.push_back(control);
    for (int j = 0; j < 3; ++j) {
      const uint32_t v = static_cast<uint32_t>(d[j]);
      for (uint32_t b = 0; b < widths[j]; ++b) block.push_back(static_cast<uint8_t>(v >> (8 * b)));
    }
  }
  AppendSized(block, out);
}

void WriteVarIntDeltaIndices(const std::vector<WelmMeshFace>& faces, std::vector<uint8_t>& out) {
  std::vector<uint8_t> block;
  block.reserve(faces.size() * 4);
  uint32_t prev[3] = {0, 0, 0};
  for (const WelmMeshFace& f : faces) {
    for (int j = 0; j < 3; ++j) {
      const int32_t d = Delta(f.v[j], prev[j]);
      prev[j] = f.v[j];
      uint32_t z = (static_cast<uint32_t>(d) << 1) ^ static_cast<uint32_t>(d >> 31);
      while (z >= 0x80) {
        block.push_back(static_cast<uint8_t>(z | 0x80));
        z >>= 7;
      }
      block.push_back(static_cast<uint8_t>(z));
    }
  }
  AppendSized(block, out);
}

bool WriteEdgeBreakerIndices(const std::vector<WelmMeshFace>& faces, std::vector<uint8_t>& out,
                             std::vector<int>* vertexOrder) {
  std::vector<uint8_t> bits;
  EdgeBreaker::CEdgeBreaker codec;
  if (!codec.Compress(faces, vertexOrder, &bits)) return false;
  ByteWriter w(out);
  w.U32LE(static_cast<uint32_t>(bits.size()));
  w.Bytes(bits.data(), bits.size());
  return true;
}

void WriteStripDeltaIndices(const std::vector<uint32_t>& indices, std::vector<uint8_t>& out) {
  std::vector<uint8_t> block;
  uint32_t prev = 0;
  for (uint32_t index : indices) {
    const int32_t d = Delta(index, prev);
    prev = index;
    const uint32_t width = BytesForSigned(d);
    block.push_back(static_cast<uint8_t>(width));
    for (uint32_t b = width; b-- > 0;) block.push_back(static_cast<uint8_t>(static_cast<uint32_t>(d) >> (8 * b)));
  }
  ByteWriter w(out);
  w.Raw64(static_cast<int64_t>(block.size()));
  w.U32LE(static_cast<uint32_t>(indices.size()));
  w.Bytes(block.data(), block.size());
}

}  // namespace OzmEncode
