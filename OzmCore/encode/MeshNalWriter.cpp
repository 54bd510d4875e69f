#include "OzmCore/encode/MeshNalWriter.h"

#include <limits>

#include "OzmCore/MeshPayload.h"
#include "OzmCore/encode/ByteWriter.h"

namespace OzmEncode {

std::vector<uint8_t> EscapeMeshPayload(const uint8_t* data, size_t size) {
  std::vector<uint8_t> out;
  out.reserve(size + size / 64 + 4);
  // Zero runs stay literal: the reader only treats 00 00 03 as special. A byte of 1, 2 or 3 after two
  // or more zeros gets a 03 in front; the reader then consumes that byte together with the 03, which
  // is why this escape never starts from a zero that an earlier escape consumed (none is ever 0).
  size_t zeros = 0;
  for (size_t i = 0; i < size; ++i) {
    const uint8_t b = data[i];
    if (zeros >= 2 && b >= 1 && b <= 3) {
      out.push_back(3);
      out.push_back(b);
      zeros = 0;
      continue;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

std::vector<uint8_t> UnescapeMeshPayload(const uint8_t* in, size_t size) {
  std::vector<uint8_t> out;
  out.reserve(size);
  for (size_t i = 0; i < size;) {
    if (i + 3 < size && in[i] == 0 && in[i + 1] == 0 && in[i + 2] == 3 && in[i + 3] <= 3) {
      out.insert(out.end(), {0, 0, in[i + 3]});
      i += 4;
    } else {
      out.push_back(in[i++]);
    }
  }
  return out;
}

bool AppendMeshNalUnit(const uint8_t* mesh, size_t size, std::vector<uint8_t>& out, uint8_t nalHeaderByte) {
  using namespace OzmCrossPlatform::MeshNal;
  std::vector<uint8_t> payload(kIgnoredPrefixBytes, 0xFF);
  payload.insert(payload.end(), mesh, mesh + size);
  const std::vector<uint8_t> escaped = EscapeMeshPayload(payload.data(), payload.size());
  if (escaped.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return false;
  const uint32_t n = static_cast<uint32_t>(escaped.size());

  ByteWriter w(out);
  w.Bytes("\x00\x00\x01", 3);
  w.U8(nalHeaderByte);
  w.Bytes("WELM", 4);
  w.Fill(0xFF, 4);  // offsets 8..11
  w.U8(static_cast<uint8_t>(n));
  w.U8(static_cast<uint8_t>(n >> 8));
  w.U8(0xFF);  // separator
  w.U8(static_cast<uint8_t>(n >> 16));
  w.U8(static_cast<uint8_t>(n >> 24));
  w.Fill(0xFF, 9);  // offsets 17..25
  w.Bytes(escaped.data(), escaped.size());
  if (!escaped.empty() && escaped.back() == 0) w.U8(0xFF);
  return true;
}

}  // namespace OzmEncode
