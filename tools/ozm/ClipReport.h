// ozm inspect: what a volumetric clip holds. Its tracks, the attribute block at the end of an MP4
// file, and every access unit's mesh, found in the Annex B sample and decoded exactly as the player
// does it. HLS streams (local or http(s) playlists) are read through the player's own HLS input.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "OzmCore/StreamingMeshHeader.h"
#include "tools/ozm/media/NalUnits.h"
#include "tools/ozm/media/StreamReader.h"

namespace OzmTool {

struct TrackInfo {
  int index = 0;
  std::string type;  // "video", "audio", ...
  std::string codec;
  std::string profile;
  int width = 0, height = 0;
  double fps = 0;
  int64_t frames = 0;
  double seconds = 0;
  int64_t bitRate = 0;
  int sampleRate = 0, channels = 0;
};

struct AttributeInfo {
  bool found = false;       // every required property was read
  uint64_t blockBytes = 0;  // size of the "Xtra" atom that ends the file (0: none there)
  uint32_t frameCount = 0, maxVertexCount = 0, maxIndexCount = 0;
  double bboxMin[3] = {0, 0, 0}, bboxMax[3] = {0, 0, 0};
  bool normalsKnown = false;
  uint32_t hasNormals = 0;
};

struct FrameInfo {
  int64_t index = 0;
  double seconds = 0;
  bool pictureKey = false;
  uint64_t sampleBytes = 0;  // the access unit in Annex B
  bool meshFound = false;
  uint32_t meshBytes = 0;  // the mesh bitstream
  bool headerRead = false;
  CStreamingMeshHeader header;
  bool decoded = false;
  bool meshKey = false;
  uint32_t vertices = 0, indices = 0;
  std::string problem;  // empty when the frame is fine
};

struct InspectReport {
  std::string path;
  uint64_t fileBytes = 0;
  std::string format;
  bool stream = false;  // an HLS stream, which has no attribute block
  double seconds = 0;
  std::vector<TrackInfo> tracks;
  VideoCodec codec = VideoCodec::H264;
  int width = 0, height = 0;
  AttributeInfo attributes;
  std::vector<FrameInfo> frames;
  int framesWithMesh = 0, meshKeyFrames = 0, problems = 0;
  uint64_t meshBytes = 0;
};

// Reads the attribute block out of the file's last kilobyte with the player's reader.
AttributeInfo ReadAttributes(const std::string& path);

// Throws ToolError when the clip cannot be read at all, or an HLS stream keeps the tool waiting
// longer than `timeoutSeconds`; problems of single frames are recorded in the report.
InspectReport Inspect(const std::string& path, double timeoutSeconds = kStreamTimeoutSeconds);

}  // namespace OzmTool
