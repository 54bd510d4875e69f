#include "tools/ozm/PairingCheck.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshFrame.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/OzmMeshReader.h"
#include "platform/host/LogCapture.h"
#include "tools/ozm/Format.h"
#include "tools/ozm/Sample.h"
#include "tools/ozm/ToolError.h"
#include "tools/ozm/media/StreamReader.h"
#include "tools/ozm/media/VolumetricReader.h"

namespace PairingCheck {
namespace {

// The player's reader flags: 20-byte float vertices (x, y, z, u, v), normals computed at copy time.
constexpr unsigned int kPlayerReaderFlags = 0xd;
constexpr size_t kVertexBytes = 32;

int NumberInRgb(const std::vector<uint8_t>& rgb, int width, int height) {
  const OzmTool::NumberPlacement at = OzmTool::Sample::NumberAt(width, height);
  return OzmTool::ReadNumber(at.cx, at.cy, at.scale, 3, width, height, rgb);
}

// Packed RGB of an RGBA readback, with the rows in the order given or reversed.
std::vector<uint8_t> ToRgb(const std::vector<uint8_t>& rgba, int width, int height, bool upsideDown) {
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
  for (int y = 0; y < height; ++y) {
    const int from = upsideDown ? height - 1 - y : y;
    const uint8_t* in = &rgba[static_cast<size_t>(from) * width * 4];
    uint8_t* out = &rgb[static_cast<size_t>(y) * width * 3];
    for (int x = 0; x < width; ++x) {
      out[x * 3 + 0] = in[x * 4 + 0];
      out[x * 3 + 1] = in[x * 4 + 1];
      out[x * 3 + 2] = in[x * 4 + 2];
    }
  }
  return rgb;
}

}  // namespace

int TextureNumber(const OzmEngine::DrawnFrame& frame, bool* upsideDown) {
  if (frame.width <= 0 || frame.height <= 0 ||
      frame.rgba.size() != static_cast<size_t>(frame.width) * frame.height * 4) {
    return -1;
  }
  for (bool flip : {false, true}) {
    const int n = NumberInRgb(ToRgb(frame.rgba, frame.width, frame.height, flip), frame.width, frame.height);
    if (n >= 0) {
      if (upsideDown) *upsideDown = flip;
      return n;
    }
  }
  return -1;
}

Clip::Clip(const std::string& path) : m_path(path) {
  try {
    OzmPlatform::ScopedLogCapture quiet;
    std::unique_ptr<OzmTool::AccessUnitSource> source;
    if (OzmTool::IsPlaylist(path)) {
      source = std::make_unique<OzmTool::StreamReader>(path);
    } else {
      source = std::make_unique<OzmTool::VolumetricReader>(path);
    }
    OzmTool::AccessUnitSource& reader = *source;
    const std::unique_ptr<OzmTool::PictureDecoder> decoder = reader.Pictures();
    OzmTool::PictureDecoder& pictures = *decoder;
    OZMCORE::CComPtr<IOzmBufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
    Ozm::COzmMeshReader meshReader;
    meshReader.Initialize(allocator, kPlayerReaderFlags);

    std::map<int64_t, size_t> byPts;
    std::map<int64_t, int> numberOfPts;
    auto onPicture = [&](int64_t pts, const std::vector<uint8_t>& rgb) {
      m_width = pictures.Width();
      m_height = pictures.Height();
      numberOfPts[pts] = NumberInRgb(rgb, m_width, m_height);
    };

    OzmTool::AccessUnit au;
    while (reader.Next(&au)) {
      const std::string at = path + " frame " + std::to_string(au.index);
      if (!au.damage.empty()) throw OzmTool::ToolError(at + ": " + au.damage);
      OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(
          OzmCrossPlatform::FindCompressedMesh(au.annexB.data(), static_cast<unsigned int>(au.annexB.size())));
      if (!stream) throw OzmTool::ToolError(at + ": no mesh unit");
      stream->SetTimestamp(static_cast<int64_t>(au.seconds * 1e9));
      const std::shared_ptr<Ozm::MeshFrame> mesh = Ozm::DecodeMeshFrame(meshReader, stream);
      if (!mesh) throw OzmTool::ToolError(at + ": the mesh does not decode");

      ExpectedFrame f;
      f.index = au.index;
      f.seconds = au.seconds;
      f.frameId = mesh->FrameId();
      f.vertices.assign(static_cast<size_t>(mesh->NumVertices()) * kVertexBytes, 0);
      f.indices.assign(mesh->NumIndices(), 0);
      mesh->CopyToNativeBuffers(f.vertices.data(), f.indices.data(), mesh->NumIndices(), mesh->NumVertices(),
                                /*computeNormals*/ true, true);
      m_maxVertices = std::max(m_maxVertices, mesh->NumVertices());
      m_maxIndices = std::max(m_maxIndices, mesh->NumIndices());
      if (m_byFrameId.count(f.frameId))
        throw OzmTool::ToolError(at + ": frame id " + std::to_string(f.frameId) + " again");
      m_byFrameId[f.frameId] = m_frames.size();
      byPts[au.pts] = m_frames.size();
      m_frames.push_back(std::move(f));
      pictures.Send(au.packet.get(), onPicture);
    }
    pictures.Send(nullptr, onPicture);
    for (const auto& [pts, number] : numberOfPts) {
      auto frame = byPts.find(pts);
      if (frame != byPts.end()) m_frames[frame->second].pictureNumber = number;
    }
    if (m_frames.empty()) {
      m_error = path + ": no frames";
    } else {
      MeasureFrames();
    }
  } catch (const std::exception& e) {
    m_error = e.what();
  }
}

void Clip::MeasureFrames() {
  std::vector<double> intervals;
  for (size_t i = 1; i < m_frames.size(); ++i) intervals.push_back(m_frames[i].seconds - m_frames[i - 1].seconds);
  if (!intervals.empty()) {
    std::nth_element(intervals.begin(), intervals.begin() + static_cast<std::ptrdiff_t>(intervals.size() / 2),
                     intervals.end());
    const double interval = intervals[intervals.size() / 2];
    if (interval > 0) {
      // Whole rates stay whole despite the rounding of the container's time base.
      const double rate = 1 / interval;
      m_frameRate = std::fabs(rate - std::round(rate)) < 0.01 ? std::round(rate) : rate;
    }
  }
  bool any = false;
  for (const ExpectedFrame& f : m_frames) {
    for (size_t at = 0; at + kVertexBytes <= f.vertices.size(); at += kVertexBytes) {
      float p[3];
      std::memcpy(p, &f.vertices[at], sizeof p);
      if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
      for (int a = 0; a < 3; ++a) {
        m_box[a] = any ? std::min(m_box[a], static_cast<double>(p[a])) : p[a];
        m_box[3 + a] = any ? std::max(m_box[3 + a], static_cast<double>(p[a])) : p[a];
      }
      any = true;
    }
  }
}

const ExpectedFrame* Clip::ByFrameId(uint32_t frameId) const {
  auto at = m_byFrameId.find(frameId);
  return at == m_byFrameId.end() ? nullptr : &m_frames[at->second];
}

bool Clip::Check(const OzmEngine::DrawnFrame& frame, std::string* why) const {
  const uint32_t id = frame.info.frameId;
  bool upsideDown = false;
  const int number = TextureNumber(frame, &upsideDown);
  if (number >= 0) (upsideDown ? m_readUpsideDown : m_readAsReturned).fetch_add(1);

  // Which expected frame the engine's vertices are, for the message when they are not frame id's.
  auto verticesOf = [&]() -> std::string {
    for (const ExpectedFrame& f : m_frames) {
      if (f.vertices == frame.vertices) return "those of frame id " + std::to_string(f.frameId);
    }
    return "those of no frame of the clip";
  };

  const ExpectedFrame* expected = ByFrameId(id);
  std::string problem;
  if (!expected) {
    problem = "the clip has no frame id " + std::to_string(id);
  } else if (number != expected->pictureNumber) {
    problem = number < 0 ? "the texture shows no readable number"
                         : "the texture shows picture " + std::to_string(number) + ", frame id " + std::to_string(id) +
                               " has picture " + std::to_string(expected->pictureNumber);
  } else if (frame.info.vertexCount * kVertexBytes != expected->vertices.size() ||
             frame.info.indexCount != expected->indices.size()) {
    problem = "frame information says " + std::to_string(frame.info.vertexCount) + " vertices and " +
              std::to_string(frame.info.indexCount) + " indices; the frame has " +
              std::to_string(expected->vertices.size() / kVertexBytes) + " and " +
              std::to_string(expected->indices.size());
  } else if (frame.vertices != expected->vertices) {
    size_t at = 0;
    while (at < frame.vertices.size() && frame.vertices[at] == expected->vertices[at]) ++at;
    problem = "the vertex buffer differs from byte " + std::to_string(at) + " (vertex " +
              std::to_string(at / kVertexBytes) + "); its vertices are " + verticesOf();
  } else if (frame.indices != expected->indices) {
    size_t at = 0;
    while (at < frame.indices.size() && frame.indices[at] == expected->indices[at]) ++at;
    problem = "the index buffer differs at index " + std::to_string(at);
  }
  if (problem.empty()) return true;
  if (why) *why = problem;
  return false;
}

bool Clip::CheckDamaged(const OzmEngine::DrawnFrame& frame, std::string* why) const {
  const uint32_t id = frame.info.frameId;
  const ExpectedFrame* expected = ByFrameId(id);
  const int number = TextureNumber(frame, nullptr);
  std::string problem;
  if (!expected) {
    problem = "the clip has no frame id " + std::to_string(id);
  } else if (number >= 0 && number != expected->pictureNumber) {
    // A number is a whole picture of the sample; damage does not make one.
    for (const ExpectedFrame& f : m_frames) {
      if (f.pictureNumber == number) problem = "the texture shows picture " + std::to_string(number);
    }
  }
  if (problem.empty() && frame.vertices != expected->vertices) {
    for (const ExpectedFrame& f : m_frames) {
      if (f.frameId != id && !f.vertices.empty() && f.vertices == frame.vertices) {
        problem = "the vertex buffer holds frame id " + std::to_string(f.frameId);
      }
    }
  }
  if (problem.empty()) return true;
  if (why) *why = problem + " (damaged clip)";
  return false;
}

OzmEngine::FrameCheck Clip::Checker(bool damaged) const {
  if (damaged) return [this](const OzmEngine::DrawnFrame& frame, std::string* why) { return CheckDamaged(frame, why); };
  return [this](const OzmEngine::DrawnFrame& frame, std::string* why) { return Check(frame, why); };
}

std::shared_ptr<const Clip> Expected(const std::string& path) {
  static std::mutex mutex;
  static std::map<std::string, std::shared_ptr<const Clip>> clips;
  std::lock_guard<std::mutex> lock(mutex);
  auto& clip = clips[path];
  if (!clip) clip = std::make_shared<const Clip>(path);
  return clip;
}

}  // namespace PairingCheck
