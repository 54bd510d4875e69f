// The "encode" subcommand: command line, progress and the summary (text or JSON).
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "tools/ozm/Commands.h"
#include "tools/ozm/Encode.h"
#include "tools/ozm/Format.h"
#include "tools/ozm/Progress.h"
#include "tools/ozm/media/Av.h"

namespace OzmTool {
namespace {

struct EncodeCommandLine {
  EncodeOptions options;
  std::string codec = "h264";
  std::string size;
  std::string inter = "auto";
  bool json = false;
};

const char* CodecName(VideoCodec c) { return c == VideoCodec::H264 ? "h264" : "hevc"; }

// Inter frames per coding: every coding, so that readers find a count for each.
int InterFrames(const EncodeSummary& s, int coding) {
  const auto it = s.interFrames.find(coding);
  return it == s.interFrames.end() ? 0 : it->second;
}

constexpr int kCodingsShown[] = {7, 4, 5, 3};

nlohmann::json MeshFramesJson(const EncodeSummary& s) {
  nlohmann::json j = {{"key", s.meshKeyFrames}, {"placed_key", s.placedKeyFrames}};
  for (int coding : kCodingsShown) j[InterCodingName(coding)] = InterFrames(s, coding);
  return j;
}

// "300 (key 10, huffman 251, golomb 30, transform 9, bytes 0)"; placed key frames are counted apart.
std::string MeshFramesText(const EncodeSummary& s) {
  std::string text = std::to_string(s.frames) + " (key " + std::to_string(s.meshKeyFrames);
  if (s.placedKeyFrames) text += " of which " + std::to_string(s.placedKeyFrames) + " placed";
  for (int coding : kCodingsShown) {
    text += std::string(", ") + InterCodingName(coding) + " " + std::to_string(InterFrames(s, coding));
  }
  return text + ")";
}

nlohmann::json ToJson(const EncodeSummary& s) {
  const double meshBits = 8.0 * static_cast<double>(s.meshBytes);
  nlohmann::json j = {
      {"file", s.path},
      {"frames", s.frames},
      {"fps", s.fps},
      {"duration_seconds", s.durationSeconds},
      {"texture", {{"codec", CodecName(s.codec)}, {"width", s.width}, {"height", s.height}}},
      {"bytes",
       {{"file", s.fileBytes},
        {"pictures", s.pictureBytes},
        {"meshes", s.meshBytes},
        {"attributes", s.attributeBytes},
        {"container", s.containerBytes}}},
      {"mesh",
       {{"key_frames", s.meshKeyFrames},
        {"triangles", s.triangles},
        {"vertices", s.vertices},
        {"max_vertices", s.maxVertices},
        {"max_indices", s.maxIndices},
        {"bits_per_triangle", s.triangles ? meshBits / static_cast<double>(s.triangles) : 0.0},
        {"bytes_per_vertex", s.vertices ? static_cast<double>(s.meshBytes) / static_cast<double>(s.vertices) : 0.0},
        {"frames", MeshFramesJson(s)},
        {"max_error", s.maxError},
        {"max_step", s.maxStep},
        {"bbox_min", {s.bboxMin[0], s.bboxMin[1], s.bboxMin[2]}},
        {"bbox_max", {s.bboxMax[0], s.bboxMax[1], s.bboxMax[2]}}}},
      {"seconds", s.seconds},
  };
  if (s.audio) {
    j["audio"] = {{"codec", "aac"},
                  {"sample_rate", s.audioRate},
                  {"channels", s.audioChannels},
                  {"duration_seconds", s.audioSeconds}};
    j["bytes"]["audio"] = s.audioBytes;
  }
  if (s.hls) {
    j["segments"] = {{"files", s.segments}, {"frames_each", s.segmentFrames}};
    j["bytes"].erase("attributes");
  }
  return j;
}

void PrintSummary(const EncodeSummary& s) {
  const double seconds = s.durationSeconds > 0 ? s.durationSeconds : 1;
  auto mbps = [seconds](uint64_t bytes) { return 8.0 * static_cast<double>(bytes) / seconds / 1e6; };
  std::printf("wrote %s: %d frames, %.2f s at %d fps, %s texture %dx%d\n", s.path.c_str(), s.frames, s.durationSeconds,
              s.fps, s.codec == VideoCodec::H264 ? "H.264" : "HEVC", s.width, s.height);
  if (s.hls) {
    std::printf("  segments    %14zu         %d frames (%.2f s) each, next to the playlist\n", s.segments.size(),
                s.segmentFrames, static_cast<double>(s.segmentFrames) / s.fps);
    std::printf("  files       %14s bytes  (the playlist and its segments)\n", Thousands(s.fileBytes).c_str());
  } else {
    std::printf("  file        %14s bytes\n", Thousands(s.fileBytes).c_str());
  }
  std::printf("  pictures    %14s bytes  %6.2f Mbit/s\n", Thousands(s.pictureBytes).c_str(), mbps(s.pictureBytes));
  std::printf("  meshes      %14s bytes  %6.2f Mbit/s, %d key frames\n", Thousands(s.meshBytes).c_str(),
              mbps(s.meshBytes), s.meshKeyFrames);
  std::printf("  mesh frames %s\n", MeshFramesText(s).c_str());
  if (s.audio) {
    std::printf("  audio       %14s bytes  %6.2f Mbit/s, AAC %d Hz %s, %.2f s\n", Thousands(s.audioBytes).c_str(),
                mbps(s.audioBytes), s.audioRate, s.audioChannels == 1 ? "mono" : "stereo", s.audioSeconds);
  }
  if (!s.hls) {
    std::printf("  attributes  %14s bytes  (the block at the end of the file)\n", Thousands(s.attributeBytes).c_str());
  }
  std::printf("  container   %14s bytes\n", Thousands(s.containerBytes).c_str());
  if (s.triangles && s.vertices) {
    std::printf(
        "  mesh coding %.2f bits per triangle, %.2f bytes per vertex (%s triangles, %s vertices a frame at most)\n",
        8.0 * static_cast<double>(s.meshBytes) / static_cast<double>(s.triangles),
        static_cast<double>(s.meshBytes) / static_cast<double>(s.vertices), Thousands(s.maxIndices / 3).c_str(),
        Thousands(s.maxVertices).c_str());
  }
  std::printf("  accuracy    largest position error %.3g (quantisation step %.3g)\n", s.maxError, s.maxStep);
  std::printf("  time        %.1f s (%.1f frames per second)\n", s.seconds, s.seconds > 0 ? s.frames / s.seconds : 0.0);
}

int Run(const EncodeCommandLine& c) {
  EncodeOptions o = c.options;
  try {
    o.codec = c.codec == "hevc" ? VideoCodec::Hevc : VideoCodec::H264;
    o.interCoding = ParseInterCoding(c.inter);
    if (!c.size.empty()) {
      std::smatch m;
      if (!std::regex_match(c.size, m, std::regex(R"((\d{1,5})x(\d{1,5}))"))) {
        throw ToolError("--size takes WIDTHxHEIGHT, e.g. 1024x1024, not " + c.size);
      }
      o.width = std::stoi(m[1]);
      o.height = std::stoi(m[2]);
      if (o.width < 16 || o.height < 16 || o.width > 8192 || o.height > 8192) {
        throw ToolError("the texture size must be 16 to 8192 pixels a side");
      }
    }
    Av::QuietLibraryLogs();
    std::unique_ptr<Progress> progress;
    const EncodeSummary summary = Encode(o, [&progress](int done, int total) {
      if (!progress) progress = std::make_unique<Progress>("encoding", total);
      progress->Update(done);
    });
    if (progress) progress->Finish();
    if (c.json) {
      std::printf("%s\n", ToJson(summary).dump(2).c_str());
    } else {
      if (summary.projectedTexCoords) std::printf("note: frames without texture coordinates got a front projection\n");
      if (summary.texCoordsOutside) {
        std::printf("note: %s texture coordinates outside [0, 1] were clamped\n",
                    Thousands(summary.texCoordsOutside).c_str());
      }
      PrintSummary(summary);
    }
    return 0;
  } catch (const ToolError& e) {
    std::fprintf(stderr, "ozm encode: %s\n", e.what());
    return 1;
  }
}

}  // namespace

void AddEncodeCommand(CLI::App& app, std::function<int()>* run) {
  auto c = std::make_shared<EncodeCommandLine>();
  EncodeOptions& o = c->options;
  CLI::App* cmd =
      app.add_subcommand("encode", "Encode a mesh sequence and its texture into a volumetric MP4 or HLS stream");
  cmd->add_option("input", o.input, "Folder of mesh frames (OBJ, PLY, glTF, ...), read in natural order");
  cmd->add_flag("--sample", o.sample, "Encode the built-in animated sample instead (300 frames at 30 fps)");
  cmd->add_option("--sample-mesh", o.sampleMesh, "Mesh file of the sample (default: the generated test data)");
  cmd->add_option("-o,--out", o.out, "Output file: .mp4, or .m3u8 for HLS (MPEG-TS segments next to the playlist)")
      ->required();
  cmd->add_option("--texture", o.texture,
                  "Texture: one picture, a folder of pictures (one a frame) or a video; default: generated");
  cmd->add_option("--frames", o.frames, "Number of frames to encode (default: all)")->check(CLI::NonNegativeNumber);
  cmd->add_option("--fps", o.fps, "Frames per second")->capture_default_str()->check(CLI::Range(1, 240));
  cmd->add_option("--key-interval", o.keyInterval, "Frames from one key frame to the next (mesh and picture)")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  cmd->add_option("--index-coding", o.indexCoding,
                  "Key-frame indices: 1 raw, 2 fixed-byte deltas, 3 varint deltas, 4 EdgeBreaker")
      ->capture_default_str()
      ->check(CLI::IsMember({1, 2, 3, 4}));
  cmd->add_option("--inter,--inter-coding", c->inter,
                  "Inter-frame vertices: auto (per frame the smallest of the others), huffman (7), golomb (4), "
                  "bytes (3, byte deltas), transform (5, rigid transforms and deltas), none (0, key frames only)")
      ->capture_default_str();
  cmd->add_option("--key-share", o.keyFrameShare,
                  "With --inter auto: an inter frame larger than this share of a key frame becomes a key frame "
                  "(0: only group starts and topology changes)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1.0));
  cmd->add_flag("--temporal", o.temporal, "Temporal meshes: every frame made of its connected parts");
  cmd->add_flag("--normals", o.normals, "Store vertex normals");
  cmd->add_option("--texture-codec", c->codec, "Picture codec")
      ->capture_default_str()
      ->check(CLI::IsMember({"h264", "hevc"}));
  cmd->add_option("--size", c->size, "Texture size WIDTHxHEIGHT (default: the texture input's, 1024x1024 generated)");
  cmd->add_option("--bitrate", o.bitrateKbps, "Picture bit rate in kbit/s (default: constant quality)")
      ->check(CLI::Range(1, 500000));
  cmd->add_option("--crf", o.crf, "Constant quality of the pictures, 0 (best) to 51")
      ->capture_default_str()
      ->check(CLI::Range(0, 51));
  cmd->add_option("--preset", o.preset, "Picture encoder speed preset")
      ->capture_default_str()
      ->check(CLI::IsMember(
          {"ultrafast", "superfast", "veryfast", "faster", "fast", "medium", "slow", "slower", "veryslow", "placebo"}));
  cmd->add_option("--audio", o.audio,
                  "AAC audio track from the audio of this file (any audio or video file), cut to the video's length");
  cmd->add_flag("--sample-audio", o.sampleAudio,
                "With --sample: an audio track that beeps at the start of every second");
  cmd->add_option("--segment-seconds", o.segmentSeconds,
                  "HLS segment length, rounded to whole key-frame intervals (at least one)")
      ->capture_default_str()
      ->check(CLI::Range(0.001, 3600.0));
  cmd->add_flag("--json", c->json, "Print the summary as JSON");
  cmd->callback([run, c] { *run = [c] { return Run(*c); }; });
}

}  // namespace OzmTool
