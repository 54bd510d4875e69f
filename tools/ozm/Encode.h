// ozm encode: a mesh sequence and its texture pictures become a volumetric MP4 or HLS stream. Every
// access unit of the video track carries that picture's mesh in one mesh NAL unit. An MP4 file ends
// with the attribute block; an HLS stream (out ends in .m3u8) is a media playlist with MPEG-TS
// segments that each start with a key frame of picture and mesh. An AAC audio track may come along:
// track 1 of the MP4, a second elementary stream of the HLS segments, cut to the video's length.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/ozm/media/NalUnits.h"

namespace OzmTool {

constexpr int kInterAuto = -1;

// The inter coding named on the command line: auto, huffman, golomb, bytes, transform or none, or
// the header values 7, 4, 3, 5 and 0. Throws ToolError for anything else.
int ParseInterCoding(const std::string& name);
// The name of a coding as ParseInterCoding takes it.
const char* InterCodingName(int coding);

struct EncodeOptions {
  std::string out;  // .mp4, or .m3u8 for HLS
  // Mesh input: the built-in sample (its mesh file may be given), or a folder of mesh files.
  bool sample = false;
  std::string sampleMesh;  // empty: Sample::DefaultMeshPath()
  std::string input;
  // Texture input: a picture, a folder of pictures (one a frame) or a video; empty: the sample's
  // generated pictures.
  std::string texture;
  int frames = 0;  // 0: every frame of the input
  int fps = 30;
  // Mesh coding.
  int keyInterval = 30;
  int indexCoding = 4;
  // Inter-frame vertices: a header value (3 byte deltas, 4 Golomb, 5 transform deltas, 7 Huffman,
  // 0 key frames only) or kInterAuto, per frame the smallest of the four.
  int interCoding = kInterAuto;
  double keyFrameShare = 1.0 / 3;  // auto: an inter frame larger than this share of a key frame becomes one
  bool temporal = false;
  bool normals = false;
  // Picture coding.
  VideoCodec codec = VideoCodec::H264;
  int width = 0, height = 0;  // 0: the texture input's size (1024x1024 for generated pictures)
  int bitrateKbps = 0;        // 0: constant quality
  int crf = 23;
  std::string preset = "medium";
  // Audio: the audio stream of a media file, or (with the sample) a beep every second; neither: none.
  std::string audio;
  bool sampleAudio = false;
  // HLS: the segment length, rounded to a whole number (at least one) of key-frame intervals.
  double segmentSeconds = 2;
};

struct EncodeSummary {
  std::string path;
  VideoCodec codec = VideoCodec::H264;
  int width = 0, height = 0, fps = 0;
  int frames = 0;
  int meshKeyFrames = 0;
  int placedKeyFrames = 0;  // key frames the encoder chose inside a group (auto), among meshKeyFrames
  // Inter frames per coding (header values 3, 4, 5, 7).
  std::map<int, int> interFrames;
  double durationSeconds = 0;
  bool hls = false;
  bool audio = false;
  int audioRate = 0, audioChannels = 0;
  double audioSeconds = 0;
  std::vector<std::string> segments;  // HLS: the segment files, in order
  int segmentFrames = 0;              // HLS: frames a segment (the last may have fewer)
  uint64_t fileBytes = 0;             // HLS: the playlist and its segments
  uint64_t pictureBytes = 0;          // picture units as stored (MP4: with length fields; HLS: with start codes)
  uint64_t meshBytes = 0;             // mesh units as stored
  uint64_t attributeBytes = 0;
  uint64_t audioBytes = 0;      // AAC frames as encoded
  uint64_t containerBytes = 0;  // everything else: sample tables, headers
  uint64_t triangles = 0;       // over all frames
  uint64_t vertices = 0;        // decoded vertices over all frames
  uint32_t maxVertices = 0, maxIndices = 0;
  double bboxMin[3] = {0, 0, 0}, bboxMax[3] = {0, 0, 0};
  double maxError = 0;  // largest position error of any decoded frame
  double maxStep = 0;   // largest quantisation step of any frame
  double seconds = 0;   // time taken
  size_t texCoordsOutside = 0;
  bool projectedTexCoords = false;
};

// Called after each frame with the number done and the total.
using ProgressFn = std::function<void(int done, int total)>;

// Throws ToolError with a clear message on bad input or a failing library; a partly written output
// file is removed.
EncodeSummary Encode(const EncodeOptions& options, const ProgressFn& progress = {});

}  // namespace OzmTool
