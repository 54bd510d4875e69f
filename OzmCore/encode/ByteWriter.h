// Appending little- and big-endian values to a byte vector.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace OzmEncode {

class ByteWriter {
 public:
  explicit ByteWriter(std::vector<uint8_t>& out) : m_out(out) {}

  void U8(uint8_t v) { m_out.push_back(v); }
  void U16LE(uint16_t v) { Raw(&v, 2); }
  void U32LE(uint32_t v) { Raw(&v, 4); }
  void I32LE(int32_t v) { Raw(&v, 4); }
  void F32LE(float v) { Raw(&v, 4); }
  void F64LE(double v) { Raw(&v, 8); }
  void Raw64(int64_t v) { Raw(&v, 8); }
  void U16BE(uint16_t v) {
    U8(static_cast<uint8_t>(v >> 8));
    U8(static_cast<uint8_t>(v));
  }
  void U32BE(uint32_t v) {
    U16BE(static_cast<uint16_t>(v >> 16));
    U16BE(static_cast<uint16_t>(v));
  }
  void Bytes(const void* data, size_t n) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    m_out.insert(m_out.end(), p, p + n);
  }
  void Fill(uint8_t value, size_t n) { m_out.insert(m_out.end(), n, value); }
  size_t Size() const { return m_out.size(); }

 private:
  // The formats are little-endian and so are all targets (x86-64, ARM), so the bytes of a value are
  // copied as they stand in memory.
  void Raw(const void* v, size_t n) { Bytes(v, n); }

  std::vector<uint8_t>& m_out;
};

}  // namespace OzmEncode
