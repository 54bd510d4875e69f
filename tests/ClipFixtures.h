// Volumetric clips for the player's tests, made with the ozm encoder from the built-in sample and
// kept in the build folder: a clip is encoded once per build and options, then reused by every test
// and test process that asks for the same one.
#pragma once

#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/data/TestMeshFiles.h"
#include "tools/ozm/Encode.h"
#include "tools/ozm/media/Av.h"

namespace ClipFixtures {

struct ClipContent {
  int frames = 24;
  int size = 128;  // square texture
  OzmTool::VideoCodec codec = OzmTool::VideoCodec::H264;
  int interCoding = 7;  // 0: key frames only
  bool temporal = false;
  bool normals = false;
  bool audio = false;
  int keyInterval = 12;
  std::string container = "mp4";  // or "m3u8"
  double segmentSeconds = 2;       // HLS: the segment length asked of the encoder
  std::string mesh = "bunny";     // a mesh of the generated test data: bunny, bunny-loop2, ...

  std::string Name() const {
    return std::string(codec == OzmTool::VideoCodec::H264 ? "h264" : "hevc") + "-f" + std::to_string(frames) + "-s" +
           std::to_string(size) + "-c" + std::to_string(interCoding) + (temporal ? "-t" : "") + (normals ? "-n" : "") +
           (audio ? "-a" : "") + "-k" + std::to_string(keyInterval) + "-" + mesh +
           (container == "mp4" ? "" : "-" + container + std::to_string(static_cast<int>(segmentSeconds * 1000)));
  }
};

// The plain bunny (3.7k triangles) keeps the clips quick to decode under the sanitizers; the
// benchmarks play the demo's subdivided one.
inline std::string MeshPath(const std::string& mesh) { return TestMeshFiles::Folder() + "/" + mesh + ".mesh"; }
inline bool HaveSampleMesh() { return std::filesystem::exists(MeshPath("bunny")); }

// Where the clips are kept.
inline std::filesystem::path Folder() { return std::filesystem::path(TestMeshFiles::Folder()) / "clips"; }

// The clip's path, encoding it first when it is not there yet. Concurrent test processes wait for
// each other through a lock file; a clip is written under a temporary name and renamed when done.
inline std::string Clip(const ClipContent& content) {
  namespace fs = std::filesystem;
  const fs::path dir = Folder() / content.Name();
  const fs::path path = dir / ("clip." + content.container);
  fs::create_directories(Folder());
  const std::string lockPath = (Folder() / (content.Name() + ".lock")).string();
  const int lock = ::open(lockPath.c_str(), O_CREAT | O_RDWR, 0644);
  if (lock >= 0) ::flock(lock, LOCK_EX);
  if (!fs::exists(path)) {
    const fs::path work = Folder() / (content.Name() + ".part");
    fs::remove_all(work);
    fs::create_directories(work);
    OzmTool::Av::QuietLibraryLogs();
    OzmTool::EncodeOptions o;
    o.out = (work / ("clip." + content.container)).string();
    o.sample = true;
    o.sampleMesh = MeshPath(content.mesh);
    o.frames = content.frames;
    o.width = o.height = content.size;
    o.codec = content.codec;
    o.interCoding = content.interCoding;
    o.temporal = content.temporal;
    o.normals = content.normals;
    o.sampleAudio = content.audio;
    o.keyInterval = content.keyInterval;
    o.segmentSeconds = content.segmentSeconds;
    o.preset = "ultrafast";
    OzmTool::Encode(o);
    fs::remove_all(dir);
    fs::rename(work, dir);
  }
  if (lock >= 0) {
    ::flock(lock, LOCK_UN);
    ::close(lock);
  }
  return path.string();
}

}  // namespace ClipFixtures
