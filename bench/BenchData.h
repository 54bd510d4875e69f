// What the benchmarks decode: the generated test meshes (scripts/test-data.sh) with texture
// coordinates, animations of them, and a stream over bytes in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "OzmCore/OzmMediaObjects.h"
#include "OzmCore/encode/Mesh.h"

namespace OzmBench {

// The output vertex every decoder in the comparisons produces: the engine's 32-byte layout.
struct OutputVertex {
  float x, y, z;
  float nx, ny, nz;
  float u, v;
};
static_assert(sizeof(OutputVertex) == 32, "output vertices are 32 bytes");

// Reader flags of every measured decode: float vertices with room for the normal (32 bytes).
constexpr unsigned int kReaderFlags = 0x0A;

// The folder of the generated meshes: $OZM_TEST_DATA_DIR, else build/test-data of the source tree.
std::string DataFolder();

// A mesh file of the test data ("bunny", "bunny-loop2", "bunny-loop3") with texture coordinates
// from SphericalUVs. Returns false when the file is missing or unreadable.
bool LoadMesh(const std::string& name, OzmEncode::Mesh* mesh);

// Deterministic texture coordinates: a spherical projection about the centre of the mesh's box
// (u from the angle about the upright y axis, v from the elevation).
void SphericalUVs(OzmEncode::Mesh* mesh);

// One topology, moving positions.
struct Animation {
  OzmEncode::Mesh rest;                    // faces and texture coordinates; positions of the rest pose
  std::vector<std::vector<float>> frames;  // x, y, z per vertex, per frame

  size_t VertexCount() const { return rest.VertexCount(); }
  // Frame f as the encoders take it.
  OzmEncode::Mesh Frame(size_t f) const;
};

// The first `frames` frames of bunny-anim.anim, texture coordinates from the bunny's rest pose.
bool LoadBunnyAnimation(size_t frames, Animation* anim);

// A subdivided bunny ("bunny-loop2", "bunny-loop3") moved by the motion that made bunny-anim.anim
// (a twist about the upright axis that grows towards the top, and breathing), evaluated at every
// vertex for the first `frames` of its 300 frames. The motion's parameters come from the plain
// bunny's box, so the subdivided surfaces move exactly like the surface they refine.
bool MakeSubdividedAnimation(const std::string& mesh, size_t frames, Animation* anim);

// A read-only stream over bytes owned by someone else, rewound before every decode; the benchmarks
// use it so that no copy of the payload is timed. It is never reference counted.
class SpanStream final : public IStream, public IOzmMemoryStream {
 public:
  explicit SpanStream(const std::vector<uint8_t>& bytes) : m_data(bytes.data()), m_size(bytes.size()) {}
  virtual ~SpanStream() = default;

  // In memory, like the player's own streams.
  HRESULT QueryInterface(const _GUID& iid, void** out) override {
    if (!out) return E_POINTER;
    *out = iid == IID_IOzmMemoryStream ? static_cast<IOzmMemoryStream*>(this) : nullptr;
    return *out ? S_OK : E_NOINTERFACE;
  }
  const uint8_t* UnreadBytes(uint32_t* count) const override {
    if (count) *count = static_cast<uint32_t>(m_size - m_position);
    return m_data + m_position;
  }
  void SkipBytes(uint32_t n) override { m_position += n < m_size - m_position ? n : m_size - m_position; }
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  HRESULT Read(void* dst, unsigned int n, unsigned int* got) override {
    const size_t count = n < m_size - m_position ? n : m_size - m_position;
    if (count) std::memcpy(dst, m_data + m_position, count);
    m_position += count;
    if (got) *got = static_cast<unsigned int>(count);
    return S_OK;
  }
  void Rewind() { m_position = 0; }
  size_t Unread() const { return m_size - m_position; }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_position = 0;
};

}  // namespace OzmBench
