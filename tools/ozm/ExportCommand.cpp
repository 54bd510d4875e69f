// The "export" subcommand.
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "tools/ozm/Commands.h"
#include "tools/ozm/Export.h"
#include "tools/ozm/media/Av.h"

namespace OzmTool {
namespace {

struct ExportCommandLine {
  std::string path;
  std::string frames = "0";
  std::string format = "ply";
  std::string out;
  bool embed = false;
  double timeout = kStreamTimeoutSeconds;
};

int Run(const ExportCommandLine& c) {
  try {
    ExportOptions o;
    o.path = c.path;
    o.frames = ParseFrameRange(c.frames);
    o.format = c.format == "obj" ? ExportFormat::Obj : c.format == "gltf" ? ExportFormat::Gltf : ExportFormat::Ply;
    o.outDir = c.out;
    o.embed = c.embed;
    o.timeoutSeconds = c.timeout;
    Av::QuietLibraryLogs();
    const ExportResult r = Export(o);
    std::printf("exported %zu frames of %s to %s (meshes decoded from key frame %" PRId64 ", pictures from %" PRId64
                ")\n",
                r.frames.size(), c.path.c_str(), c.out.c_str(), r.meshesFrom, r.picturesFrom);
    for (const ExportedFrame& f : r.frames) {
      std::printf("  frame %" PRId64 ": %u vertices, %u triangles%s\n", f.index, f.vertices, f.triangles,
                  f.computedNormals ? ", normals computed from the triangles" : "");
      for (const std::string& file : f.files) std::printf("    %s\n", file.c_str());
    }
    return 0;
  } catch (const ToolError& e) {
    std::fprintf(stderr, "ozm export: %s\n", e.what());
    return 1;
  }
}

}  // namespace

void AddExportCommand(CLI::App& app, std::function<int()>* run) {
  auto c = std::make_shared<ExportCommandLine>();
  CLI::App* cmd =
      app.add_subcommand("export", "Write decoded frames as PLY, OBJ or glTF meshes with their pictures as PNG");
  cmd->add_option("file", c->path, "Volumetric clip: an .mp4 file or an HLS playlist (.m3u8, a file or an http(s) URL)")
      ->required();
  cmd->add_option("--frames", c->frames, "Frames to export, FIRST:LAST or N (counted from 0; default 0)");
  cmd->add_option("--format", c->format, "Mesh file format")->check(CLI::IsMember({"ply", "obj", "gltf"}));
  cmd->add_option("-o,--out", c->out, "Output folder (made when missing)")->required();
  cmd->add_flag("--embed", c->embed, "glTF: put the buffer and the picture inside the .gltf file");
  cmd->add_option("--timeout", c->timeout, "HLS: seconds to wait for the stream before giving up")
      ->check(CLI::PositiveNumber);
  cmd->callback([run, c] { *run = [c] { return Run(*c); }; });
}

}  // namespace OzmTool
