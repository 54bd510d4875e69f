// "ozm unit make" builds an access unit that carries one mesh NAL unit around a generated mesh
// payload; "ozm unit read" finds the mesh unit in an access unit and prints its header.
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/StreamingMeshHeader.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "OzmCore/encode/MeshNalWriter.h"
#include "tools/ozm/Commands.h"
#include "tools/ozm/MeshNames.h"

namespace OzmTool {
namespace {

struct MakeOptions {
  std::string out;
  uint32_t vertices = 2500;
  uint32_t faces = 4800;
  int32_t subMeshId = -1;
  int64_t frameId = -1;
  uint32_t payloadBytes = 4096;
  uint32_t seed = 1;
  bool type21 = false;
};

int Make(const MakeOptions& o) {
  CStreamingMeshHeader header;
  header.m_Version.v.m_VertexVersion = NWelmStudioVertexVersion::c_UnwrappedXYZUV;
  header.m_Version.v.m_FormatFlags = NWelmStudioFormatFlags::c_TriangleList;
  header.m_Version.v.m_MeshHeaderVersion = NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame;
  header.m_Version.v.m_IndexVersion = NWelmStudioIndexVersion::c_EdgeBreakerIndices;
  if (o.subMeshId >= 0) {
    header.m_Version.v.m_FormatFlags |= NWelmStudioFormatFlags::c_HasSubMeshId;
    header.m_subMeshId = o.subMeshId;
  }
  if (o.frameId >= 0) {
    header.m_Version.v.m_FormatFlags |= NWelmStudioFormatFlags::c_HasFrameId;
    header.m_frameId = static_cast<uint32_t>(o.frameId);
  }
  const float bboxMin[3] = {-0.5f, 0.0f, -0.4f};
  const float bboxMax[3] = {0.5f, 1.8f, 0.4f};
  for (int i = 0; i < 3; ++i) {
    header.m_bboxMin[i] = bboxMin[i];
    header.m_bboxMax[i] = bboxMax[i];
  }
  header.m_numVertices = o.vertices;
  header.m_numFaces = o.faces;
  header.m_numIndices = 3 * o.faces;

  std::vector<uint8_t> mesh;
  OzmEncode::WriteStreamingMeshHeader(header, mesh);
  // Stand-in for the coded mesh: random bytes with the zero runs and small values that escaping
  // has to handle.
  std::mt19937 rng(o.seed);
  for (uint32_t i = 0; i < o.payloadBytes; ++i) {
    const uint32_t r = rng();
    mesh.push_back(r % 4 == 0 ? 0 : static_cast<uint8_t>(r >> 8) % (r % 3 == 0 ? 4 : 256));
  }

  // An access-unit delimiter in front, as an encoder writes it.
  std::vector<uint8_t> unit = {0x00, 0x00, 0x00, 0x01, 0x09, 0xF0};
  if (!OzmEncode::AppendMeshNalUnit(mesh.data(), mesh.size(), unit, o.type21 ? 0x15 : 0x18)) {
    std::fprintf(stderr, "ozm: mesh payload too large\n");
    return 1;
  }
  std::ofstream file(o.out, std::ios::binary);
  file.write(reinterpret_cast<const char*>(unit.data()), static_cast<std::streamsize>(unit.size()));
  if (!file) {
    std::fprintf(stderr, "ozm: cannot write %s\n", o.out.c_str());
    return 1;
  }
  std::printf("wrote %s: %zu bytes (mesh bitstream %zu bytes: %zu header + %u payload)\n", o.out.c_str(), unit.size(),
              mesh.size(), mesh.size() - o.payloadBytes, o.payloadBytes);
  return 0;
}

int Read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "ozm: cannot open %s\n", path.c_str());
    return 1;
  }
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
      OzmCrossPlatform::FindCompressedMesh(bytes.data(), static_cast<unsigned int>(bytes.size())));
  if (!stream) {
    std::fprintf(stderr, "ozm: %s: no mesh unit found\n", path.c_str());
    return 2;
  }
  CStreamingMeshHeader header;
  const HRESULT hr = header.Read(stream);
  if (OZM_FAILED(hr)) {
    std::fprintf(stderr, "ozm: %s: mesh header rejected (0x%08" PRIX32 ")\n", path.c_str(), static_cast<uint32_t>(hr));
    return 2;
  }
  const auto& v = header.m_Version.v;
  std::printf("%s: %zu bytes, mesh bitstream %u bytes\n", path.c_str(), bytes.size(), stream->GetSize() - 8);
  std::printf("  version word   0x%08" PRIX32 "\n", header.m_Version.word);
  std::printf("  vertices       %u (%s)\n", v.m_VertexVersion, VertexVersionName(v.m_VertexVersion));
  std::printf("  header         %u (%s)\n", v.m_MeshHeaderVersion, HeaderVersionName(v.m_MeshHeaderVersion));
  std::printf("  indices        %u (%s)\n", v.m_IndexVersion, IndexVersionName(v.m_IndexVersion));
  std::printf("  flags          0x%02X\n", v.m_FormatFlags);
  std::printf("  bounding box   (%g, %g, %g) .. (%g, %g, %g)\n", header.m_bboxMin[0], header.m_bboxMin[1],
              header.m_bboxMin[2], header.m_bboxMax[0], header.m_bboxMax[1], header.m_bboxMax[2]);
  if (v.m_FormatFlags & NWelmStudioFormatFlags::c_HasSubMeshId)
    std::printf("  sub-mesh id    %d\n", header.m_subMeshId);
  if (v.m_FormatFlags & NWelmStudioFormatFlags::c_HasFrameId) std::printf("  frame id       %u\n", header.m_frameId);
  std::printf("  counts         %u vertices, %u faces, %u indices\n", header.m_numVertices, header.m_numFaces,
              header.m_numIndices);
  std::printf("  coded data     %u bytes after the header\n", stream->GetSize() - stream->GetPosition());
  return 0;
}

}  // namespace

void AddUnitCommands(CLI::App& app, std::function<int()>* run) {
  CLI::App* unit = app.add_subcommand("unit", "Mesh NAL units inside access units");
  unit->require_subcommand(1);

  auto make = std::make_shared<MakeOptions>();
  CLI::App* makeCmd = unit->add_subcommand("make", "Write an access unit carrying a generated mesh payload");
  makeCmd->add_option("--out", make->out, "Output file")->required();
  makeCmd->add_option("--vertices", make->vertices, "Vertex count in the header");
  makeCmd->add_option("--faces", make->faces, "Triangle count in the header");
  makeCmd->add_option("--submesh-id", make->subMeshId, "Sub-mesh id (written when not negative)");
  makeCmd->add_option("--frame-id", make->frameId, "Frame id (written when not negative)");
  makeCmd->add_option("--payload-bytes", make->payloadBytes, "Generated bytes after the header")
      ->check(CLI::Range(0u, 64u << 20));
  makeCmd->add_option("--seed", make->seed, "Seed of the generated payload");
  makeCmd->add_flag("--type21", make->type21, "Use NAL header byte 0x15 instead of 0x18");
  makeCmd->callback([run, make] { *run = [make] { return Make(*make); }; });

  auto path = std::make_shared<std::string>();
  CLI::App* readCmd = unit->add_subcommand("read", "Find the mesh unit in an access unit and print its header");
  readCmd->add_option("file", *path, "Access unit (Annex B)")->required();
  readCmd->callback([run, path] { *run = [path] { return Read(*path); }; });
}

}  // namespace OzmTool
