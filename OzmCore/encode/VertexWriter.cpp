#include "OzmCore/encode/VertexWriter.h"

#include <algorithm>
#include <cmath>

#include "OzmCore/encode/ByteWriter.h"

namespace OzmEncode {

Box BoundsOf(const std::vector<float>& positions) {
  Box box;
  if (positions.size() < 3) return box;
  for (int a = 0; a < 3; ++a) box.min[a] = box.max[a] = positions[a];
  for (size_t i = 0; i + 2 < positions.size(); i += 3) {
    for (int a = 0; a < 3; ++a) {
      box.min[a] = std::min(box.min[a], positions[i + a]);
      box.max[a] = std::max(box.max[a], positions[i + a]);
    }
  }
  return box;
}

namespace {

int16_t QuantizeUnit(double t) {  // t in [0, 1] -> nearest of the 65536 steps
  const double q = std::floor(t * 65535.0 + 0.5) - 32768.0;
  return static_cast<int16_t>(std::clamp(q, -32768.0, 32767.0));
}

}  // namespace

int16_t QuantizePosition(float p, float min, float max) {
  if (!(max > min)) return -32768;
  return QuantizeUnit((static_cast<double>(p) - min) / (static_cast<double>(max) - min));
}

int16_t QuantizeTexCoord(float s) { return QuantizeUnit(std::clamp(static_cast<double>(s), 0.0, 1.0)); }

uint16_t QuantizeNormal(float n) {
  const double t = (std::clamp(static_cast<double>(n), -1.0, 1.0) + 1.0) * 0.5;
  return static_cast<uint16_t>(std::floor(t * 65535.0 + 0.5));
}

void WritePlainVertices(const Mesh& mesh, const Box& box, bool withNormals, const std::vector<int>& order,
                        std::vector<uint8_t>& out) {
  ByteWriter w(out);
  const size_t count = order.empty() ? mesh.VertexCount() : order.size();
  for (size_t k = 0; k < count; ++k) {
    const size_t i = order.empty() ? k : static_cast<size_t>(order[k]);
    for (int a = 0; a < 3; ++a) w.U16LE(static_cast<uint16_t>(QuantizePosition(mesh.positions[3 * i + a], box.min[a], box.max[a])));
    w.U16LE(0);
    if (withNormals) {
      for (int a = 0; a < 3; ++a) w.U16LE(mesh.normals.empty() ? 32768 : QuantizeNormal(mesh.normals[3 * i + a]));
      w.U16LE(0);
    }
    const float u = mesh.uvs.empty() ? 0 : mesh.uvs[2 * i], v = mesh.uvs.empty() ? 0 : mesh.uvs[2 * i + 1];
    w.U16LE(static_cast<uint16_t>(QuantizeTexCoord(u)));
    w.U16LE(static_cast<uint16_t>(QuantizeTexCoord(v)));
  }
}

void WriteNormalsBlock(const std::vector<float>& normals, const std::vector<int>& order, std::vector<uint8_t>& out) {
  ByteWriter w(out);
  const size_t count = order.empty() ? normals.size() / 3 : order.size();
  for (size_t k = 0; k < count; ++k) {
    const size_t i = order.empty() ? k : static_cast<size_t>(order[k]);
    for (int a = 0; a < 3; ++a) w.U16LE(QuantizeNormal(normals[3 * i + a]));
  }
}

void WriteTransformBlock(const std::vector<TexTransform>& transforms, std::vector<uint8_t>& out) {
  ByteWriter w(out);
  for (const TexTransform& t : transforms) {
    w.U8(t.present ? 1 : 0);
    if (!t.present) continue;
    for (float f : {t.a, t.b, t.c, t.d, t.tx, t.ty}) w.F32LE(f);
  }
}

}  // namespace OzmEncode
