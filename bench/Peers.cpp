#include "bench/Peers.h"

#include <draco/compression/decode.h>
#include <draco/compression/encode.h>
#include <draco/mesh/mesh.h>
#include <meshoptimizer.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "OzmCore/Quantization.h"

namespace OzmBench {
namespace {

int AddFloatAttribute(draco::Mesh* mesh, draco::GeometryAttribute::Type type, int components, const float* values,
                      size_t count) {
  draco::GeometryAttribute attribute;
  attribute.Init(type, nullptr, static_cast<int8_t>(components), draco::DT_FLOAT32, false,
                 static_cast<int64_t>(sizeof(float)) * components, 0);
  const int id = mesh->AddAttribute(attribute, true, static_cast<uint32_t>(count));
  draco::PointAttribute* added = mesh->attribute(id);
  for (size_t i = 0; i < count; ++i) {
    added->SetAttributeValue(draco::AttributeValueIndex(static_cast<uint32_t>(i)), values + components * i);
  }
  return id;
}

// With sourceIds, a generic attribute holds each point's input vertex (integers: coded losslessly).
bool Encode(const OzmEncode::Mesh& mesh, bool withUVs, const float* positions, const DracoOptions& options,
            bool sourceIds, std::vector<uint8_t>* out) {
  draco::Mesh dm;
  const size_t n = mesh.VertexCount();
  dm.set_num_points(static_cast<uint32_t>(n));
  AddFloatAttribute(&dm, draco::GeometryAttribute::POSITION, 3, positions, n);
  if (withUVs) AddFloatAttribute(&dm, draco::GeometryAttribute::TEX_COORD, 2, mesh.uvs.data(), n);
  if (sourceIds) {
    draco::GeometryAttribute attribute;
    attribute.Init(draco::GeometryAttribute::GENERIC, nullptr, 1, draco::DT_UINT32, false, sizeof(uint32_t), 0);
    draco::PointAttribute* added = dm.attribute(dm.AddAttribute(attribute, true, static_cast<uint32_t>(n)));
    for (uint32_t i = 0; i < n; ++i) added->SetAttributeValue(draco::AttributeValueIndex(i), &i);
  }
  dm.SetNumFaces(mesh.faces.size());
  for (size_t f = 0; f < mesh.faces.size(); ++f) {
    const WelmMeshFace& t = mesh.faces[f];
    dm.SetFace(draco::FaceIndex(static_cast<uint32_t>(f)),
               {draco::PointIndex(t.v[0]), draco::PointIndex(t.v[1]), draco::PointIndex(t.v[2])});
  }
  draco::Encoder encoder;
  if (options.positionRange > 0) {
    const OzmEncode::Box box = OzmEncode::BoundsOf(mesh.positions);
    encoder.SetAttributeExplicitQuantization(draco::GeometryAttribute::POSITION, options.positionBits, 3, box.min,
                                             options.positionRange);
  } else {
    encoder.SetAttributeQuantization(draco::GeometryAttribute::POSITION, options.positionBits);
  }
  if (options.speed >= 0) encoder.SetSpeedOptions(options.speed, options.speed);
  encoder.SetAttributeQuantization(draco::GeometryAttribute::TEX_COORD, 16);
  encoder.SetEncodingMethod(draco::MESH_EDGEBREAKER_ENCODING);
  draco::EncoderBuffer buffer;
  if (!encoder.EncodeMeshToBuffer(dm, &buffer).ok()) return false;
  out->assign(buffer.data(), buffer.data() + buffer.size());
  return true;
}

// Copies one float attribute of every point into the output vertices, at a float offset.
void CopyAttribute(const draco::PointAttribute& attribute, uint32_t points, int components, size_t offset,
                   OutputVertex* out) {
  float* dst = reinterpret_cast<float*>(out) + offset;
  const size_t bytes = sizeof(float) * static_cast<size_t>(components);
  if (attribute.is_mapping_identity()) {
    const uint8_t* src = attribute.GetAddress(draco::AttributeValueIndex(0));
    const size_t stride = static_cast<size_t>(attribute.byte_stride());
    for (uint32_t i = 0; i < points; ++i) std::memcpy(dst + 8 * static_cast<size_t>(i), src + stride * i, bytes);
  } else {
    for (uint32_t i = 0; i < points; ++i) {
      std::memcpy(dst + 8 * static_cast<size_t>(i), attribute.GetAddressOfMappedIndex(draco::PointIndex(i)), bytes);
    }
  }
}

// Positions on a grid of 2^bits steps per axis of the box. 16 bits is our own grid; fewer bits use
// the non-negative steps 0 .. 2^bits - 1.
int16_t QuantizePosition(float p, float min, float max, int bits) {
  if (bits == 16) return OzmEncode::QuantizePosition(p, min, max);
  if (!(max > min)) return 0;
  const double steps = static_cast<double>((1 << bits) - 1);
  const double t = std::clamp((static_cast<double>(p) - min) / (static_cast<double>(max) - min), 0.0, 1.0);
  return static_cast<int16_t>(std::floor(t * steps + 0.5));
}

float DequantizePosition(int16_t q, float min, float max, int bits) {
  if (bits == 16) return Ozm::DequantizePosition(q, min, max);
  return min + (max - min) * (static_cast<float>(q) / static_cast<float>((1 << bits) - 1));
}

}  // namespace

bool DracoEncode(const OzmEncode::Mesh& mesh, bool withUVs, std::vector<uint8_t>* out,
                 const DracoOptions& options) {
  return Encode(mesh, withUVs, mesh.positions.data(), options, false, out);
}

bool DracoPositionError(const OzmEncode::Mesh& mesh, const DracoOptions& options, double* maxError,
                        size_t* bytes) {
  std::vector<uint8_t> plain, tagged;
  if (!Encode(mesh, false, mesh.positions.data(), options, false, &plain) ||
      !Encode(mesh, false, mesh.positions.data(), options, true, &tagged)) {
    return false;
  }
  *bytes = plain.size();
  std::vector<OutputVertex> vertices;
  std::vector<uint32_t> indices;
  if (!DracoDecode(plain, &vertices, &indices)) return false;
  std::vector<std::array<float, 3>> plainPositions, taggedPositions;
  for (const OutputVertex& v : vertices) plainPositions.push_back({v.x, v.y, v.z});

  draco::DecoderBuffer buffer;
  buffer.Init(reinterpret_cast<const char*>(tagged.data()), tagged.size());
  draco::Decoder decoder;
  auto decoded = decoder.DecodeMeshFromBuffer(&buffer);
  if (!decoded.ok()) return false;
  const std::unique_ptr<draco::Mesh> dm = std::move(decoded).value();
  const draco::PointAttribute* position = dm->GetNamedAttribute(draco::GeometryAttribute::POSITION);
  const draco::PointAttribute* source = dm->GetNamedAttribute(draco::GeometryAttribute::GENERIC);
  if (!position || position->data_type() != draco::DT_FLOAT32 || position->num_components() != 3 || !source ||
      source->data_type() != draco::DT_UINT32 || source->num_components() != 1) {
    return false;
  }
  std::vector<bool> seen(mesh.VertexCount(), false);  // every input vertex must come back
  *maxError = 0;
  for (uint32_t i = 0; i < dm->num_points(); ++i) {
    const draco::PointIndex point(i);
    uint32_t v = 0;
    std::array<float, 3> p;
    source->GetMappedValue(point, &v);
    position->GetMappedValue(point, p.data());
    if (v >= seen.size()) return false;
    seen[v] = true;
    taggedPositions.push_back(p);
    for (int a = 0; a < 3; ++a) {
      *maxError = std::max(*maxError, std::fabs(static_cast<double>(p[a]) - mesh.positions[3 * v + a]));
    }
  }
  std::sort(plainPositions.begin(), plainPositions.end());
  std::sort(taggedPositions.begin(), taggedPositions.end());
  return plainPositions == taggedPositions && std::find(seen.begin(), seen.end(), false) == seen.end();
}

bool DracoConnectivityBytes(const OzmEncode::Mesh& mesh, size_t* bytes, const DracoOptions& options) {
  const std::vector<float> still(mesh.positions.size(), 0.0f);
  std::vector<uint8_t> out;
  if (!Encode(mesh, false, still.data(), options, false, &out)) return false;
  *bytes = out.size();
  return true;
}

bool DracoDecode(const std::vector<uint8_t>& bytes, std::vector<OutputVertex>* vertices,
                 std::vector<uint32_t>* indices) {
  draco::DecoderBuffer buffer;
  buffer.Init(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  draco::Decoder decoder;
  auto decoded = decoder.DecodeMeshFromBuffer(&buffer);
  if (!decoded.ok()) return false;
  const std::unique_ptr<draco::Mesh> mesh = std::move(decoded).value();
  const draco::PointAttribute* position = mesh->GetNamedAttribute(draco::GeometryAttribute::POSITION);
  const draco::PointAttribute* uv = mesh->GetNamedAttribute(draco::GeometryAttribute::TEX_COORD);
  if (!position || position->data_type() != draco::DT_FLOAT32 || position->num_components() != 3) return false;
  if (uv && (uv->data_type() != draco::DT_FLOAT32 || uv->num_components() != 2)) return false;

  const uint32_t points = mesh->num_points();
  vertices->resize(points);
  OutputVertex* out = vertices->data();
  CopyAttribute(*position, points, 3, 0, out);
  for (uint32_t i = 0; i < points; ++i) out[i].nx = out[i].ny = out[i].nz = 0.0f;
  if (uv) {
    CopyAttribute(*uv, points, 2, 6, out);
  } else {
    for (uint32_t i = 0; i < points; ++i) out[i].u = out[i].v = 0.0f;
  }
  const uint32_t faces = mesh->num_faces();
  indices->resize(3 * static_cast<size_t>(faces));
  uint32_t* idx = indices->data();
  for (uint32_t f = 0; f < faces; ++f) {
    const draco::Mesh::Face& face = mesh->face(draco::FaceIndex(f));
    idx[3 * f] = face[0].value();
    idx[3 * f + 1] = face[1].value();
    idx[3 * f + 2] = face[2].value();
  }
  return true;
}

bool MeshoptEncodeKeyFrame(const OzmEncode::Mesh& mesh, MeshoptKeyFrame* out) {
  const size_t n = mesh.VertexCount();
  out->box = OzmEncode::BoundsOf(mesh.positions);
  const OzmEncode::Box& box = out->box;
  std::vector<QuantizedVertex> records(n);
  for (size_t i = 0; i < n; ++i) {
    const float* p = &mesh.positions[3 * i];
    records[i] = {OzmEncode::QuantizePosition(p[0], box.min[0], box.max[0]),
                  OzmEncode::QuantizePosition(p[1], box.min[1], box.max[1]),
                  OzmEncode::QuantizePosition(p[2], box.min[2], box.max[2]),
                  0,
                  OzmEncode::QuantizeTexCoord(mesh.uvs[2 * i]),
                  OzmEncode::QuantizeTexCoord(mesh.uvs[2 * i + 1])};
  }
  std::vector<uint32_t>& indices = out->indices;
  indices.clear();
  for (const WelmMeshFace& f : mesh.faces) indices.insert(indices.end(), f.v, f.v + 3);
  out->indexCount = indices.size();

  // The order the documentation recommends before encoding: vertex cache, then vertex fetch.
  meshopt_optimizeVertexCache(indices.data(), indices.data(), indices.size(), n);
  out->remap.assign(n, 0);
  const size_t used = meshopt_optimizeVertexFetchRemap(out->remap.data(), indices.data(), indices.size(), n);
  if (used != n) return false;  // every test mesh uses all its vertices
  meshopt_remapIndexBuffer(indices.data(), indices.data(), indices.size(), out->remap.data());
  std::vector<QuantizedVertex> ordered(n);
  meshopt_remapVertexBuffer(ordered.data(), records.data(), n, sizeof(QuantizedVertex), out->remap.data());
  out->vertexCount = n;

  meshopt_encodeIndexVersion(1);
  out->indexBytes.resize(meshopt_encodeIndexBufferBound(indices.size(), n));
  out->indexBytes.resize(
      meshopt_encodeIndexBuffer(out->indexBytes.data(), out->indexBytes.size(), indices.data(), indices.size()));
  out->vertexBytes.resize(meshopt_encodeVertexBufferBound(n, sizeof(QuantizedVertex)));
  out->vertexBytes.resize(meshopt_encodeVertexBuffer(out->vertexBytes.data(), out->vertexBytes.size(), ordered.data(),
                                                     n, sizeof(QuantizedVertex)));
  return !out->indexBytes.empty() && !out->vertexBytes.empty();
}

bool MeshoptDecodeIndices(const MeshoptKeyFrame& frame, std::vector<uint32_t>* indices) {
  indices->resize(frame.indexCount);
  return meshopt_decodeIndexBuffer(indices->data(), frame.indexCount, sizeof(uint32_t), frame.indexBytes.data(),
                                   frame.indexBytes.size()) == 0;
}

bool MeshoptDecodeKeyFrame(const MeshoptKeyFrame& frame, MeshoptScratch* scratch, std::vector<OutputVertex>* vertices,
                           std::vector<uint32_t>* indices) {
  if (!MeshoptDecodeIndices(frame, indices)) return false;
  const size_t n = frame.vertexCount;
  scratch->records.resize(n);
  if (meshopt_decodeVertexBuffer(scratch->records.data(), n, sizeof(QuantizedVertex), frame.vertexBytes.data(),
                                 frame.vertexBytes.size()) != 0) {
    return false;
  }
  vertices->resize(n);
  const float* lo = frame.box.min;
  const float* hi = frame.box.max;
  const QuantizedVertex* in = scratch->records.data();
  OutputVertex* out = vertices->data();
  for (size_t i = 0; i < n; ++i) {
    out[i] = {Ozm::DequantizePosition(in[i].x, lo[0], hi[0]),
              Ozm::DequantizePosition(in[i].y, lo[1], hi[1]),
              Ozm::DequantizePosition(in[i].z, lo[2], hi[2]),
              0.0f,
              0.0f,
              0.0f,
              Ozm::DequantizeTexCoord(in[i].u),
              Ozm::DequantizeTexCoord(in[i].v)};
  }
  return true;
}

bool MeshoptEncodePositions(const std::vector<float>& positions, const std::vector<uint32_t>& remap,
                            MeshoptPositions* out, int bits) {
  const size_t n = positions.size() / 3;
  if (remap.size() != n || bits < 1 || bits > 16) return false;
  out->box = OzmEncode::BoundsOf(positions);
  out->bits = bits;
  const float* lo = out->box.min;
  const float* hi = out->box.max;
  std::vector<int16_t> records(4 * n, 0);
  out->maxError = 0;
  for (size_t i = 0; i < n; ++i) {
    int16_t* r = &records[4 * static_cast<size_t>(remap[i])];
    for (int a = 0; a < 3; ++a) {
      r[a] = QuantizePosition(positions[3 * i + a], lo[a], hi[a], bits);
      const double back = DequantizePosition(r[a], lo[a], hi[a], bits);
      out->maxError = std::max(out->maxError, std::fabs(back - positions[3 * i + a]));
    }
  }
  out->bytes.resize(meshopt_encodeVertexBufferBound(n, 8));
  out->bytes.resize(meshopt_encodeVertexBuffer(out->bytes.data(), out->bytes.size(), records.data(), n, 8));
  return !out->bytes.empty();
}

bool MeshoptDecodePositions(const MeshoptPositions& frame, size_t vertexCount, const std::vector<float>& uvs,
                            MeshoptScratch* scratch, std::vector<OutputVertex>* vertices) {
  scratch->positions.resize(4 * vertexCount);
  if (meshopt_decodeVertexBuffer(scratch->positions.data(), vertexCount, 8, frame.bytes.data(), frame.bytes.size()) !=
      0) {
    return false;
  }
  vertices->resize(vertexCount);
  const float* lo = frame.box.min;
  const float* hi = frame.box.max;
  const int16_t* in = scratch->positions.data();
  OutputVertex* out = vertices->data();
  const int bits = frame.bits;
  for (size_t i = 0; i < vertexCount; ++i) {
    out[i] = {DequantizePosition(in[4 * i], lo[0], hi[0], bits),
              DequantizePosition(in[4 * i + 1], lo[1], hi[1], bits),
              DequantizePosition(in[4 * i + 2], lo[2], hi[2], bits),
              0.0f,
              0.0f,
              0.0f,
              uvs[2 * i],
              uvs[2 * i + 1]};
  }
  return true;
}

}  // namespace OzmBench
