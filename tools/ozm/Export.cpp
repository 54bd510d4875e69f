#include "tools/ozm/Export.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshFrame.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/OzmMeshReader.h"
#include "platform/host/LogCapture.h"
#include "tools/ozm/Format.h"
#include "tools/ozm/MeshStream.h"
#include "tools/ozm/Sample.h"
#include "tools/ozm/media/Png.h"
#include "tools/ozm/media/StreamReader.h"
#include "tools/ozm/media/VolumetricReader.h"

namespace OzmTool {
namespace {

namespace fs = std::filesystem;

OZMCORE::CComPtr<IOzmBufferAllocator> NewAllocator() {
  return OZMCORE::CComPtr<IOzmBufferAllocator>(new OzmCrossPlatform::BufferAllocator);
}

// Frames without stored normals carry a placeholder; those get normals from their triangles.
bool FixNormals(ExportFrame* frame) {
  bool stored = true;
  for (const Ozm::EngineVertex& v : frame->vertices) {
    const float len = std::sqrt(v.nx * v.nx + v.ny * v.ny + v.nz * v.nz);
    if (!(len > 0.9f && len < 1.1f)) {
      stored = false;
      break;
    }
  }
  if (stored) {
    for (Ozm::EngineVertex& v : frame->vertices) {
      const float len = std::sqrt(v.nx * v.nx + v.ny * v.ny + v.nz * v.nz);
      v.nx /= len;
      v.ny /= len;
      v.nz /= len;
    }
    return false;
  }
  std::vector<float> positions;
  positions.reserve(frame->vertices.size() * 3);
  for (const Ozm::EngineVertex& v : frame->vertices) positions.insert(positions.end(), {v.x, v.y, v.z});
  std::vector<WelmMeshFace> faces;
  for (size_t t = 0; t + 3 <= frame->indices.size(); t += 3) {
    const uint32_t a = frame->indices[t], b = frame->indices[t + 1], c = frame->indices[t + 2];
    if (a < frame->vertices.size() && b < frame->vertices.size() && c < frame->vertices.size()) {
      faces.push_back({{a, b, c}});
    }
  }
  const std::vector<float> normals = VertexNormals(positions, faces);
  for (size_t i = 0; i < frame->vertices.size(); ++i) {
    frame->vertices[i].nx = normals[3 * i];
    frame->vertices[i].ny = normals[3 * i + 1];
    frame->vertices[i].nz = normals[3 * i + 2];
  }
  return true;
}

std::string FrameBase(int64_t index) {
  char name[32];
  std::snprintf(name, sizeof(name), "frame_%06" PRId64, index);
  return name;
}

// An MP4 file through libavformat; an HLS playlist through the player's own HLS input.
std::unique_ptr<AccessUnitSource> OpenClip(const ExportOptions& o) {
  if (IsPlaylist(o.path)) return std::make_unique<StreamReader>(o.path, o.timeoutSeconds);
  return std::make_unique<VolumetricReader>(o.path);
}

}  // namespace

ExportResult Export(const ExportOptions& o) {
  if (o.outDir.empty()) throw ToolError("no output folder (--out)");
  ExportResult result;

  // First pass, without decoding: where the key frames before the range are, and that the range is
  // inside the file.
  int64_t meshStart = -1, pictureStart = 0;
  {
    const std::unique_ptr<AccessUnitSource> scan = OpenClip(o);
    AccessUnit au;
    while (scan->Next(&au)) {
      result.frameCount = au.index + 1;
      if (au.index <= o.frames.first) {
        if (au.keyFrame) pictureStart = au.index;
        if (StartsMeshGroup(au.annexB)) meshStart = au.index;
      }
      if (au.index >= o.frames.last) break;
    }
    if (result.frameCount <= o.frames.first || (o.frames.last != INT64_MAX && result.frameCount <= o.frames.last)) {
      throw ToolError(o.path + " has " + std::to_string(result.frameCount) + " frames (0 to " +
                      std::to_string(result.frameCount - 1) + "); frames " + std::to_string(o.frames.first) + " to " +
                      (o.frames.last == INT64_MAX ? std::string("the end") : std::to_string(o.frames.last)) +
                      " asked for");
    }
    if (meshStart < 0) {
      throw ToolError(o.path + ": no mesh key frame at or before frame " + std::to_string(o.frames.first));
    }
  }
  result.meshesFrom = meshStart;
  result.picturesFrom = pictureStart;

  std::error_code ec;
  fs::create_directories(o.outDir, ec);
  if (!fs::is_directory(o.outDir, ec)) throw ToolError("cannot make the output folder " + o.outDir);

  // Second pass: meshes from their key frame with the player's reader and layout, pictures from
  // theirs; a frame is written once both of its halves are there.
  const std::unique_ptr<AccessUnitSource> reader = OpenClip(o);
  const std::unique_ptr<PictureDecoder> decoder = reader->Pictures();
  PictureDecoder& pictures = *decoder;
  Ozm::COzmMeshReader meshReader;
  meshReader.Initialize(NewAllocator(), 0x0F);
  std::map<int64_t, int64_t> frameOfPts;
  std::map<int64_t, ExportFrame> meshes;
  std::map<int64_t, ExportedFrame> info;

  auto onPicture = [&](int64_t pts, const std::vector<uint8_t>& rgb) {
    auto at = frameOfPts.find(pts);
    if (at == frameOfPts.end() || !o.frames.Contains(at->second)) return;
    const int64_t index = at->second;
    auto mesh = meshes.find(index);
    if (mesh == meshes.end()) throw ToolError("frame " + std::to_string(index) + ": a picture without its mesh");
    const std::string base = (fs::path(o.outDir) / FrameBase(index)).string();
    const std::string png = FrameBase(index) + ".png";
    ExportedFrame& done = info[index];
    std::vector<uint8_t> pngBytes = EncodePng(pictures.Width(), pictures.Height(), rgb.data(), pictures.Width() * 3);
    const bool embed = o.embed && o.format == ExportFormat::Gltf;
    done.files = WriteFrame(o.format, base, mesh->second, png, embed, pngBytes);
    if (!embed) {
      const std::string pngPath = (fs::path(o.outDir) / png).string();
      std::FILE* file = std::fopen(pngPath.c_str(), "wb");
      const bool ok = file && std::fwrite(pngBytes.data(), 1, pngBytes.size(), file) == pngBytes.size();
      if (!file || std::fclose(file) != 0 || !ok) throw ToolError("cannot write " + pngPath);
      done.files.push_back(pngPath);
    }
    meshes.erase(mesh);
    result.frames.push_back(done);
  };

  AccessUnit au;
  const int64_t from = std::min(meshStart, pictureStart);
  while (reader->Next(&au)) {
    if (au.index > o.frames.last) break;
    if (au.index < from) continue;
    frameOfPts[au.pts] = au.index;
    if (!au.damage.empty()) throw ToolError("frame " + std::to_string(au.index) + ": " + au.damage);
    if (au.index >= meshStart) {
      OzmPlatform::ScopedLogCapture log;
      OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
          OzmCrossPlatform::FindCompressedMesh(au.annexB.data(), static_cast<unsigned int>(au.annexB.size())));
      if (!stream) throw ToolError("frame " + std::to_string(au.index) + " has no mesh unit");
      stream->SetTimestamp(static_cast<int64_t>(au.seconds * 1e9));
      const std::shared_ptr<Ozm::MeshFrame> frame = Ozm::DecodeMeshFrame(meshReader, stream);
      if (!frame) {
        const std::string why = LastLogLine(log);
        throw ToolError("frame " + std::to_string(au.index) + ": the mesh does not decode" +
                        (why.empty() ? "" : " (" + why + ")"));
      }
      if (o.frames.Contains(au.index)) {
        ExportFrame out;
        out.vertices.resize(frame->NumVertices());
        out.indices.resize(frame->NumIndices());
        frame->CopyToNativeBuffers(out.vertices.data(), out.indices.data(), frame->NumIndices(), frame->NumVertices(),
                                   false, true);
        ExportedFrame& done = info[au.index];
        done.index = au.index;
        done.vertices = frame->NumVertices();
        done.triangles = frame->NumIndices() / 3;
        done.computedNormals = FixNormals(&out);
        meshes[au.index] = std::move(out);
      }
    }
    if (au.index >= pictureStart) pictures.Send(au.packet.get(), onPicture);
  }
  pictures.Send(nullptr, onPicture);
  if (!meshes.empty()) {
    throw ToolError("frame " + std::to_string(meshes.begin()->first) + ": its picture could not be decoded");
  }
  return result;
}

}  // namespace OzmTool
