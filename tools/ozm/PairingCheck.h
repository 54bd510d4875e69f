// What the engine must receive for each frame of a clip, and the check that a drawn frame got it:
// picture, mesh and frame information all of the same frame. The playback tests and `ozm play` use it.
//
// The expected meshes come from our own reader, run the way the player runs it (one reader over the
// whole clip, flags 0xd: 20-byte vertices, normals computed when copied to the engine layout), so the
// vertex bytes the engine receives must be identical. The picture is recognised by the frame number
// the sample draws into it; pictures without one (clips of other textures) leave only the frame id
// and the mesh to check.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/HeadlessEngine.h"

namespace PairingCheck {

struct ExpectedFrame {
  int64_t index = 0;              // position in the video track
  double seconds = 0;             // its time, from the first frame's
  uint32_t frameId = 0;           // the mesh's frame id
  int pictureNumber = -1;         // the number read from the decoded picture, -1 when unreadable
                                  // (the sample numbers pictures from 0, mesh frame ids from 1)
  std::vector<uint8_t> vertices;  // engine layout, 32 bytes a vertex
  std::vector<uint32_t> indices;
};

class Clip {
 public:
  // Decodes the clip's meshes and pictures: an MP4 file, or an HLS playlist (a file or an http(s)
  // address) read through the player's own HLS input. Error() says what failed.
  explicit Clip(const std::string& path);

  const std::string& Path() const { return m_path; }
  const std::string& Error() const { return m_error; }
  const std::vector<ExpectedFrame>& Frames() const { return m_frames; }
  // The frame with the mesh frame id, or null.
  const ExpectedFrame* ByFrameId(uint32_t frameId) const;
  uint32_t MaxVertices() const { return m_maxVertices; }
  uint32_t MaxIndices() const { return m_maxIndices; }
  int Width() const { return m_width; }
  int Height() const { return m_height; }
  // Frames a second, from the frames' times (30 for a clip of one frame).
  double FrameRate() const { return m_frameRate; }
  // The box around every vertex of every frame: x, y, z of the least and of the greatest corner.
  const std::array<double, 6>& Box() const { return m_box; }

  // Says whether a drawn frame is paired: the number in the engine's texture, the frame id of the
  // frame information and the frame whose vertices (byte for byte) and indices the engine's buffers
  // hold are one and the same. Runs on the engine's render thread; the clip must outlive its use.
  bool Check(const OzmEngine::DrawnFrame& frame, std::string* why) const;
  // For a damaged copy of the clip, whose pictures and meshes may decode to anything: a frame is
  // only mismatched on evidence of wrong pairing, a readable number of another frame or the
  // vertices of another frame.
  bool CheckDamaged(const OzmEngine::DrawnFrame& frame, std::string* why) const;
  OzmEngine::FrameCheck Checker(bool damaged = false) const;

  // How the texture numbers read so far: rows as glReadPixels returned them (texture row 0 as the
  // picture's top row) or turned upside down. The player's copy reads as returned: it puts the
  // picture's top row into texture row 0, where texture coordinate v = 0 is.
  uint64_t ReadAsReturned() const { return m_readAsReturned.load(); }
  uint64_t ReadUpsideDown() const { return m_readUpsideDown.load(); }

 private:
  void MeasureFrames();

  std::string m_path;
  std::string m_error;
  std::vector<ExpectedFrame> m_frames;
  std::map<uint32_t, size_t> m_byFrameId;
  uint32_t m_maxVertices = 0, m_maxIndices = 0;
  int m_width = 0, m_height = 0;
  double m_frameRate = 30;
  std::array<double, 6> m_box{};
  mutable std::atomic<uint64_t> m_readAsReturned{0};
  mutable std::atomic<uint64_t> m_readUpsideDown{0};
};

// The clip decoded once per program (the tests share their clips).
std::shared_ptr<const Clip> Expected(const std::string& path);

// The frame number shown in an engine texture (RGBA readback), trying the rows as returned and then
// upside down; -1 when it reads neither way. upsideDown says which way read.
int TextureNumber(const OzmEngine::DrawnFrame& frame, bool* upsideDown);

}  // namespace PairingCheck
