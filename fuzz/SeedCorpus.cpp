// Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/) from the encoders, so that
// fuzzing starts from well-formed inputs of every layout. Run: fuzz_seed_corpus <fuzz/corpus>.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "OzmCore/StreamingMeshHeader.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "OzmCore/encode/KeyFrameWriter.h"
#include "OzmCore/encode/SequenceEncoder.h"
#include "OzmCore/encode/MeshNalWriter.h"
#include "OzmCore/encode/XtraWriter.h"

namespace {

using Bytes = std::vector<uint8_t>;

void Write(const std::filesystem::path& dir, const std::string& name, const Bytes& bytes) {
  std::filesystem::create_directories(dir);
  std::ofstream file(dir / name, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes Header(uint8_t vertex, uint8_t flags, uint8_t version, uint8_t index) {
  CStreamingMeshHeader h;
  h.m_Version.v = {vertex, flags, version, index};
  const float lo[3] = {-1, 0, -0.5f}, hi[3] = {1, 2, 0.5f};
  for (int i = 0; i < 3; ++i) {
    h.m_bboxMin[i] = lo[i];
    h.m_bboxMax[i] = hi[i];
  }
  h.m_subMeshId = 3;
  h.m_frameId = 17;
  h.m_numSubMeshes = 2;
  h.m_numVertices = 300;
  h.m_numFaces = 500;
  h.m_numIndices = 1500;
  Bytes out;
  OzmEncode::WriteStreamingMeshHeader(h, out);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
    return 2;
  }
  const std::filesystem::path root = argv[1];

  struct Layout {
    const char* name;
    uint8_t vertex, flags, version, index;
  };
  const Layout layouts[] = {
      {"key", 2, 0x01, 5, 4},      {"key-ids-normals", 2, 0x39, 5, 3},
      {"delta", 3, 0x01, 6, 2},    {"golomb", 4, 0x11, 6, 1},
      {"temporal", 7, 0x19, 7, 4}, {"legacy0", 19, 0, 0, 0},
      {"legacy1", 19, 0, 1, 0},    {"legacy2", 23, 0, 2, 0},
      {"legacy3", 23, 0, 3, 0},    {"strips", 2, 0x02, 5, 1},
      {"hires", 22, 0, 5, 1},
  };
  for (const Layout& l : layouts) {
    const Bytes header = Header(l.vertex, l.flags, l.version, l.index);
    Write(root / "streaming_mesh_header", std::string(l.name) + ".bin", header);

    // The same header inside a mesh unit inside an access unit, followed by bytes that need escaping.
    Bytes mesh = header;
    const uint8_t tricky[] = {0, 0, 0, 1, 0, 0, 3, 0, 0, 2, 9, 0, 0, 0, 0, 3, 1, 0};
    mesh.insert(mesh.end(), tricky, tricky + sizeof(tricky));
    Bytes sample = {0, 0, 0, 1, 0x09, 0xF0};
    OzmEncode::AppendMeshNalUnit(mesh.data(), mesh.size(), sample, l.index % 2 ? 0x15 : 0x18);
    sample.insert(sample.end(), {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x00});
    Write(root / "find_compressed_mesh", std::string(l.name) + ".bin", sample);
  }

  // Key frames of a small grid in every index coding, record layout and block order; the first byte
  // selects the reader's output format.
  OzmEncode::Mesh grid;
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      grid.positions.insert(grid.positions.end(), {float(x), float(y), float(x * y) * 0.1f});
      grid.uvs.insert(grid.uvs.end(), {x / 3.0f, y / 3.0f});
      grid.normals.insert(grid.normals.end(), {0.0f, 0.0f, 1.0f});
    }
  }
  for (uint32_t y = 0; y < 3; ++y) {
    for (uint32_t x = 0; x < 3; ++x) {
      const uint32_t a = y * 4 + x;
      grid.faces.push_back({{a, a + 1, a + 5}});
      grid.faces.push_back({{a, a + 5, a + 4}});
    }
  }
  for (uint8_t index = 1; index <= 4; ++index) {
    for (int variant = 0; variant < 2; ++variant) {
      OzmEncode::KeyFrameOptions options;
      options.indexVersion = index;
      options.normalsInRecords = variant == 1;
      options.indicesFirst = variant == 1;
      options.subMeshId = variant;
      OzmEncode::EncodedKeyFrame frame;
      if (!OzmEncode::EncodeKeyFrame(grid, options, &frame)) continue;
      Bytes input = {static_cast<uint8_t>(index + variant)};
      input.insert(input.end(), frame.bytes.begin(), frame.bytes.end());
      Write(root / "key_frame", "index" + std::to_string(index) + "-" + std::to_string(variant) + ".bin", input);
    }
  }

  // Short sequences of the same grid moving: a key frame and inter frames in every coding, as plain
  // and as temporal meshes. Each payload is preceded by its 16-bit length.
  const OzmEncode::InterCoding codings[] = {OzmEncode::InterCoding::ByteDelta, OzmEncode::InterCoding::Golomb,
                                            OzmEncode::InterCoding::Huffman, OzmEncode::InterCoding::TransformDelta};
  for (OzmEncode::InterCoding coding : codings) {
    for (int temporal = 0; temporal < 2; ++temporal) {
      OzmEncode::SequenceOptions options;
      options.inter = coding;
      options.temporalSubMeshes = temporal == 1;
      options.normals = temporal == 0;
      options.indexVersion = 3;
      OzmEncode::SequenceEncoder encoder(options);
      Bytes input = {static_cast<uint8_t>(temporal ? 3 : 0)};
      for (int t = 0; t < 4; ++t) {
        OzmEncode::Mesh frame = grid;
        for (size_t i = 2; i < frame.positions.size(); i += 3) frame.positions[i] += 0.05f * t * float(i % 7);
        OzmEncode::EncodedFrame encoded;
        if (!encoder.Encode(frame, static_cast<uint32_t>(t + 1), &encoded) || encoded.payload.size() > 65535) break;
        input.push_back(static_cast<uint8_t>(encoded.payload.size()));
        input.push_back(static_cast<uint8_t>(encoded.payload.size() >> 8));
        input.insert(input.end(), encoded.payload.begin(), encoded.payload.end());
      }
      Write(root / "mesh_sequence",
            "coding" + std::to_string(static_cast<int>(coding)) + (temporal ? "-temporal" : "") + ".bin", input);
    }
  }

  OzmEncode::XtraAttributes a;
  a.frameCount = 300;
  a.maxVertexCount = 30000;
  a.maxIndexCount = 180000;
  a.bboxMin[0] = -0.5;
  a.bboxMax[1] = 1.8;
  a.hasVertexNormals = 1;
  Bytes tail(64, 0x42);
  Bytes block = OzmEncode::WriteXtraBlock(a);
  Write(root / "xtra_attributes", "full.bin", [&] {
    Bytes b = tail;
    b.insert(b.end(), block.begin(), block.end());
    return b;
  }());
  a.writeHasVertexNormals = false;
  Write(root / "xtra_attributes", "no-normals.bin", OzmEncode::WriteXtraBlock(a));
  std::vector<OzmEncode::XtraProperty> wide = OzmEncode::XtraPropertiesOf(a);
  for (auto& p : wide) p.wideType = true;
  Write(root / "xtra_attributes", "wide-types.bin", OzmEncode::WriteXtraAtom(wide));
  std::printf("seed corpora written under %s\n", root.string().c_str());
  return 0;
}
