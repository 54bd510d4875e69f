// One decoded mesh waiting to be shown, and its copy into the engine's vertex and index buffers.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/OzmMediaObjects.h"
#include "OzmCore/OzmMeshReader.h"

namespace Ozm {

// Where a frame is copied to: engine memory given as pointers, or (in the player) GL buffer objects.
// The frame does the work; a target only moves bytes.
class IMeshCopyTarget {
 public:
  virtual ~IMeshCopyTarget() = default;
  // Writes count indices starting at index position first.
  virtual void WriteIndices(const uint32_t* indices, uint32_t first, uint32_t count) = 0;
  // Memory for the first `bytes` bytes of the vertex buffer, or null when it cannot be had;
  // EndVertices commits what was written.
  virtual void* BeginVertices(uint32_t bytes) = 0;
  virtual void EndVertices() = 0;
};

// The engine's vertex layout: 32 bytes, all float32.
struct EngineVertex {
  float x, y, z;
  float nx, ny, nz;
  float u, v;
};
static_assert(sizeof(EngineVertex) == 32, "engine vertices are 32 bytes");

class MeshFrame {
 public:
  MeshFrame(const OZMCORE::CComPtr<IOzmBuffer>& vertexBuffer, const OZMCORE::CComPtr<IOzmBuffer>& indexBuffer,
            long long timestamp);

  // Copies into engine memory: indices (then zeros up to the capacity) to indexMemory, vertices in
  // the engine layout to vertexMemory. With computeNormals the decoded vertices are x, y, z, u, v and
  // the normals are computed from the triangles; otherwise they already are in the engine layout.
  // A frame is copied at most once: its buffers are released afterwards.
  void CopyToNativeBuffers(void* vertexMemory, void* indexMemory, unsigned int indexCapacity,
                           unsigned int vertexCapacity, bool computeNormals, bool updateIndices);
  // The same steps into any target; the GL copy of the player uses this with GL buffer objects.
  void CopyTo(IMeshCopyTarget& target, unsigned int indexCapacity, unsigned int vertexCapacity, bool computeNormals,
              bool updateIndices);

  long long Timestamp() const { return m_timestamp; }
  uint32_t NumVertices() const { return m_numVertices; }
  uint32_t NumIndices() const { return m_numIndices; }
  uint32_t FrameId() const { return m_frameId; }
  bool IsKeyFrame() const { return m_isKeyFrame != 0; }
  const double* BBoxMin() const { return m_bboxMin; }
  const double* BBoxMax() const { return m_bboxMax; }
  bool Copied() const { return !m_vertexBuffer && !m_indexBuffer; }
  // The index buffer object: frames that share their topology share it. Null once copied.
  IOzmBuffer* IndexBuffer() const { return m_indexBuffer.Get(); }
  // Counts one more showing of the frame and returns how often it was shown before.
  uint32_t AddDraw() { return m_drawCount.fetch_add(1); }
  uint32_t DrawCount() const { return m_drawCount.load(); }

 private:
  OZMCORE::CComPtr<IOzmBuffer> m_vertexBuffer;
  OZMCORE::CComPtr<IOzmBuffer> m_indexBuffer;
  std::vector<uint32_t> m_zeros;  // pads the engine's index buffer
  uint32_t m_numVertices = 0;
  uint32_t m_numIndices = 0;
  uint32_t m_frameId = 0;
  double m_bboxMin[3] = {0, 0, 0};
  double m_bboxMax[3] = {0, 0, 0};
  long long m_timestamp = 0;  // nanoseconds, as the sample had it
  std::atomic<uint32_t> m_drawCount{0};  // read by the script thread, counted by the render thread
  uint32_t m_isKeyFrame = 0;
};

// Decodes one mesh stream (timestamp in nanoseconds) into a frame; null when the reader fails, in
// which case nothing is shown for that sample.
std::shared_ptr<MeshFrame> DecodeMeshFrame(COzmMeshReader& reader, const OZMCORE::CComPtr<OzmCrossPlatform::Stream>& stream);

}  // namespace Ozm
