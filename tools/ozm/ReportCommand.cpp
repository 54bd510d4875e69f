// The "inspect" subcommand: prints an InspectReport as text or JSON.
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/ozm/Commands.h"
#include "tools/ozm/Format.h"
#include "tools/ozm/FrameRange.h"
#include "tools/ozm/ClipReport.h"
#include "tools/ozm/MeshNames.h"
#include "tools/ozm/media/Av.h"

namespace OzmTool {
namespace {

struct InspectCommandLine {
  std::string path;
  std::string frames;
  bool json = false;
  bool summaryOnly = false;
  double timeout = kStreamTimeoutSeconds;
};

using NFlags = uint8_t;

bool HasFlag(const CStreamingMeshHeader& h, NFlags flag) { return (h.m_Version.v.m_FormatFlags & flag) != 0; }

nlohmann::json FrameJson(const FrameInfo& f) {
  nlohmann::json j = {{"index", f.index},
                      {"seconds", f.seconds},
                      {"picture_key", f.pictureKey},
                      {"sample_bytes", f.sampleBytes},
                      {"mesh", f.meshFound}};
  if (f.meshFound) j["mesh_bytes"] = f.meshBytes;
  if (f.headerRead) {
    const CStreamingMeshHeader& h = f.header;
    const auto& v = h.m_Version.v;
    nlohmann::json header = {{"version_word", h.m_Version.word},
                             {"header_version", v.m_MeshHeaderVersion},
                             {"header_kind", HeaderVersionName(v.m_MeshHeaderVersion)},
                             {"vertex_coding", v.m_VertexVersion},
                             {"vertex_coding_name", VertexVersionName(v.m_VertexVersion)},
                             {"index_coding", v.m_IndexVersion},
                             {"flags", v.m_FormatFlags},
                             {"bbox_min", {h.m_bboxMin[0], h.m_bboxMin[1], h.m_bboxMin[2]}},
                             {"bbox_max", {h.m_bboxMax[0], h.m_bboxMax[1], h.m_bboxMax[2]}},
                             {"vertices", h.m_numVertices},
                             {"faces", h.m_numFaces},
                             {"indices", h.m_numIndices}};
    if (v.m_IndexVersion) header["index_coding_name"] = IndexVersionName(v.m_IndexVersion);
    if (HasFlag(h, NWelmStudioFormatFlags::c_HasFrameId)) header["frame_id"] = h.m_frameId;
    if (HasFlag(h, NWelmStudioFormatFlags::c_HasSubMeshId)) header["submesh_id"] = h.m_subMeshId;
    if (v.m_MeshHeaderVersion == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal) {
      header["submeshes"] = h.m_numSubMeshes;
    }
    j["header"] = header;
  }
  if (f.decoded) j["decoded"] = {{"key_frame", f.meshKey}, {"vertices", f.vertices}, {"indices", f.indices}};
  if (!f.problem.empty()) j["problem"] = f.problem;
  return j;
}

nlohmann::json ReportJson(const InspectReport& r, const FrameRange& range) {
  nlohmann::json tracks = nlohmann::json::array();
  for (const TrackInfo& t : r.tracks) {
    nlohmann::json j = {{"index", t.index}, {"type", t.type}, {"codec", t.codec}};
    if (!t.profile.empty()) j["profile"] = t.profile;
    if (t.type == "video") {
      j["width"] = t.width;
      j["height"] = t.height;
      j["fps"] = t.fps;
    }
    if (t.type == "audio") {
      j["sample_rate"] = t.sampleRate;
      j["channels"] = t.channels;
    }
    j["frames"] = t.frames;
    j["seconds"] = t.seconds;
    j["bit_rate"] = t.bitRate;
    tracks.push_back(j);
  }
  nlohmann::json attributes = nullptr;
  const AttributeInfo& a = r.attributes;
  if (a.found) {
    attributes = {{"block_bytes", a.blockBytes},
                  {"at_end", a.blockBytes > 0},
                  {"frame_count", a.frameCount},
                  {"max_vertex_count", a.maxVertexCount},
                  {"max_index_count", a.maxIndexCount},
                  {"bbox_min", {a.bboxMin[0], a.bboxMin[1], a.bboxMin[2]}},
                  {"bbox_max", {a.bboxMax[0], a.bboxMax[1], a.bboxMax[2]}}};
    if (a.normalsKnown) attributes["has_vertex_normals"] = a.hasNormals;
  }
  nlohmann::json frames = nlohmann::json::array();
  for (const FrameInfo& f : r.frames) {
    if (range.Contains(f.index)) frames.push_back(FrameJson(f));
  }
  return {
      {"file", r.path},
      {"bytes", r.fileBytes},
      {"format", r.format},
      {"seconds", r.seconds},
      {"texture", {{"codec", r.codec == VideoCodec::H264 ? "h264" : "hevc"}, {"width", r.width}, {"height", r.height}}},
      {"tracks", tracks},
      {"attributes", attributes},
      {"summary",
       {{"access_units", r.frames.size()},
        {"with_mesh", r.framesWithMesh},
        {"mesh_key_frames", r.meshKeyFrames},
        {"mesh_bytes", r.meshBytes},
        {"problems", r.problems}}},
      {"frames", frames}};
}

void PrintReport(const InspectReport& r, const FrameRange& range, bool summaryOnly) {
  std::printf("%s: %s bytes, %s, %.3f s\n", r.path.c_str(), Thousands(r.fileBytes).c_str(), r.format.c_str(),
              r.seconds);
  std::printf("tracks\n");
  for (const TrackInfo& t : r.tracks) {
    std::printf("  #%d %-6s %s", t.index, t.type.c_str(), t.codec.c_str());
    if (!t.profile.empty()) std::printf(" (%s)", t.profile.c_str());
    if (t.type == "video") std::printf(", %dx%d, %.3g fps", t.width, t.height, t.fps);
    if (t.type == "audio") std::printf(", %d Hz, %d channels", t.sampleRate, t.channels);
    std::printf(", %" PRId64 " frames, %.3f s, %.2f Mbit/s\n", t.frames, t.seconds,
                static_cast<double>(t.bitRate) / 1e6);
  }
  std::printf("texture %dx%d (%s)\n", r.width, r.height, r.codec == VideoCodec::H264 ? "H.264" : "HEVC");
  const AttributeInfo& a = r.attributes;
  if (r.stream) {
    std::printf("attribute block: none (an HLS stream carries none)\n");
  } else if (!a.found) {
    std::printf("attribute block: not found in the last kilobyte\n");
  } else {
    if (a.blockBytes) {
      std::printf("attribute block: %s bytes at the end of the file\n", Thousands(a.blockBytes).c_str());
    } else {
      std::printf("attribute block: found in the last kilobyte, but not as the atom that ends the file\n");
    }
    std::printf("  frames %u, largest mesh %s vertices and %s indices", a.frameCount,
                Thousands(a.maxVertexCount).c_str(), Thousands(a.maxIndexCount).c_str());
    if (a.normalsKnown) std::printf(", normals %s", a.hasNormals ? "yes" : "no");
    std::printf("\n  bounding box (%g, %g, %g) .. (%g, %g, %g)\n", a.bboxMin[0], a.bboxMin[1], a.bboxMin[2],
                a.bboxMax[0], a.bboxMax[1], a.bboxMax[2]);
  }
  std::printf("meshes: %d of %zu access units carry one, %d key frames, %s bytes of mesh data", r.framesWithMesh,
              r.frames.size(), r.meshKeyFrames, Thousands(r.meshBytes).c_str());
  std::printf(r.problems ? ", %d frames with problems\n" : ", all decode\n", r.problems);
  if (summaryOnly) return;
  std::printf("%6s %9s %4s %9s  %-13s %-15s %-12s %5s %8s  %9s %9s  %s\n", "frame", "time", "pic", "bytes", "header",
              "vertices", "indices", "flags", "frame id", "vertices", "triangles", "");
  for (const FrameInfo& f : r.frames) {
    if (!range.Contains(f.index)) continue;
    std::printf("%6" PRId64 " %9.3f %4s ", f.index, f.seconds, f.pictureKey ? "key" : "");
    if (!f.headerRead) {
      std::printf("%9s  %s\n", f.meshFound ? Thousands(f.meshBytes).c_str() : "-", f.problem.c_str());
      continue;
    }
    const CStreamingMeshHeader& h = f.header;
    const auto& v = h.m_Version.v;
    const bool temporal = v.m_MeshHeaderVersion == NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_Temporal;
    std::string kind = HeaderVersionName(v.m_MeshHeaderVersion);
    if (temporal) kind = "temporal/" + std::to_string(h.m_numSubMeshes);
    const std::string frameId = HasFlag(h, NWelmStudioFormatFlags::c_HasFrameId) ? std::to_string(h.m_frameId) : "-";
    std::printf("%9s  %-13s %-15s %-12s  0x%02X %8s  ", Thousands(f.meshBytes).c_str(), kind.c_str(),
                temporal ? "-" : VertexVersionName(v.m_VertexVersion),
                v.m_IndexVersion ? IndexVersionName(v.m_IndexVersion) : "-", v.m_FormatFlags, frameId.c_str());
    if (f.decoded) {
      std::printf("%9s %9s  %s\n", Thousands(f.vertices).c_str(), Thousands(f.indices / 3).c_str(),
                  f.meshKey ? "key" : "");
    } else {
      std::printf("%s\n", f.problem.c_str());
    }
  }
}

int Run(const InspectCommandLine& c) {
  try {
    const FrameRange range = c.frames.empty() ? FrameRange{} : ParseFrameRange(c.frames);
    Av::QuietLibraryLogs();
    const InspectReport report = Inspect(c.path, c.timeout);
    if (c.json) {
      std::printf("%s\n", ReportJson(report, range).dump(2).c_str());
    } else {
      PrintReport(report, range, c.summaryOnly);
    }
    if (report.frames.empty() || report.problems) {
      std::fprintf(stderr, "ozm inspect: %s: %d of %zu frames have no readable mesh\n", c.path.c_str(), report.problems,
                   report.frames.size());
      return 1;
    }
    return 0;
  } catch (const ToolError& e) {
    std::fprintf(stderr, "ozm inspect: %s\n", e.what());
    return 1;
  }
}

}  // namespace

void AddInspectCommand(CLI::App& app, std::function<int()>* run) {
  auto c = std::make_shared<InspectCommandLine>();
  CLI::App* cmd =
      app.add_subcommand("inspect", "Show the tracks, the attribute block and every frame's mesh of a volumetric clip");
  cmd->add_option("file", c->path, "Volumetric clip: an .mp4 file or an HLS playlist (.m3u8, a file or an http(s) URL)")
      ->required();
  cmd->add_option("--frames", c->frames, "Frames to list, FIRST:LAST or N (counted from 0; default: all)");
  cmd->add_option("--timeout", c->timeout, "HLS: seconds to wait for the stream before giving up")
      ->check(CLI::PositiveNumber);
  cmd->add_flag("--summary", c->summaryOnly, "Leave out the per-frame table");
  cmd->add_flag("--json", c->json, "Print the report as JSON");
  cmd->footer("Exits with 1 when the file cannot be read or some frame has no readable mesh.");
  cmd->callback([run, c] { *run = [c] { return Run(*c); }; });
}

}  // namespace OzmTool
