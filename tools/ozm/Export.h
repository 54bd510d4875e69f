// ozm export: decoded frames of a volumetric clip (an MP4 file or an HLS stream) as mesh files (PLY,
// OBJ or glTF in the engine's vertex layout) with their decoded pictures as PNG textures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/ozm/FrameRange.h"
#include "tools/ozm/MeshFiles.h"
#include "tools/ozm/media/StreamReader.h"

namespace OzmTool {

struct ExportOptions {
  std::string path;
  FrameRange frames;
  ExportFormat format = ExportFormat::Ply;
  std::string outDir;
  bool embed = false;  // glTF: the buffer and the picture inside the JSON file
  // HLS: the longest wait for the stream (its playlist, its first segment, its next sample).
  double timeoutSeconds = kStreamTimeoutSeconds;
};

struct ExportedFrame {
  int64_t index = 0;
  std::vector<std::string> files;
  uint32_t vertices = 0, triangles = 0;
  bool computedNormals = false;  // the file has no normals; they were made from the triangles
};

struct ExportResult {
  std::vector<ExportedFrame> frames;
  int64_t meshesFrom = 0;    // the mesh key frame that decoding started at
  int64_t picturesFrom = 0;  // the picture key frame that decoding started at
  int64_t frameCount = 0;    // access units in the file up to the last exported one
};

// Throws ToolError on unreadable input, a range outside the file, or a frame that does not decode.
ExportResult Export(const ExportOptions& options);

}  // namespace OzmTool
