// The files of the generated test data (scripts/test-data.sh writes them to build/test-data/), and
// where the tests find them.
//
// Mesh file (*.mesh), little-endian:
//   char[8]  "OZMMESH1"
//   uint32   vertex count V, face count F
//   float32  positions[V][3]
//   uint32   faces[F][3]        counter-clockwise seen from outside
//
// Animation file (*.anim), little-endian: one topology, every frame's positions quantised to 16 bits
// in a box that holds all frames:
//   char[8]  "OZMANIM1"
//   uint32   vertex count V, face count F, frame count N
//   float32  box minimum[3], box maximum[3]
//   uint32   faces[F][3]
//   uint16   frames[N][V][3]    position = minimum + q / 65535 * (maximum - minimum)
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace TestMeshFiles {

struct Mesh {
  std::vector<std::array<float, 3>> positions;
  std::vector<std::array<uint32_t, 3>> faces;
};

struct Animation {
  std::vector<std::array<uint32_t, 3>> faces;
  std::array<float, 3> boxMin{}, boxMax{};
  uint32_t vertexCount = 0;
  std::vector<std::vector<std::array<uint16_t, 3>>> frames;

  std::array<float, 3> Position(size_t frame, size_t vertex) const {
    std::array<float, 3> p{};
    for (int i = 0; i < 3; ++i) p[i] = boxMin[i] + frames[frame][vertex][i] / 65535.0f * (boxMax[i] - boxMin[i]);
    return p;
  }
};

// The folder: $OZM_TEST_DATA_DIR, else the one the build was configured with.
inline std::string Folder() {
  if (const char* env = std::getenv("OZM_TEST_DATA_DIR"); env && *env) return env;
#ifdef OZM_TEST_DATA_DIR
  return OZM_TEST_DATA_DIR;
#else
  return "build/test-data";
#endif
}

// Tests that need the data fail without it, unless OZM_ALLOW_MISSING_TEST_DATA=1 lets them skip.
inline bool MissingDataAllowed() {
  const char* env = std::getenv("OZM_ALLOW_MISSING_TEST_DATA");
  return env && std::strcmp(env, "1") == 0;
}

namespace detail {

template <typename T>
void Put(std::ofstream& out, const T* values, size_t count) {
  out.write(reinterpret_cast<const char*>(values), static_cast<std::streamsize>(sizeof(T) * count));
}

template <typename T>
bool Get(std::ifstream& in, T* values, size_t count) {
  in.read(reinterpret_cast<char*>(values), static_cast<std::streamsize>(sizeof(T) * count));
  return static_cast<bool>(in);
}

inline bool Magic(std::ifstream& in, const char* magic) {
  char head[8];
  return Get(in, head, 8) && std::memcmp(head, magic, 8) == 0;
}

}  // namespace detail

// The hosts that run the tests are little-endian, like the files, so values are copied as they are.
inline bool WriteMesh(const std::string& path, const Mesh& mesh) {
  std::ofstream out(path, std::ios::binary);
  const uint32_t counts[2] = {static_cast<uint32_t>(mesh.positions.size()), static_cast<uint32_t>(mesh.faces.size())};
  out.write("OZMMESH1", 8);
  detail::Put(out, counts, 2);
  detail::Put(out, mesh.positions.data(), mesh.positions.size());
  detail::Put(out, mesh.faces.data(), mesh.faces.size());
  return static_cast<bool>(out);
}

inline bool ReadMesh(const std::string& path, Mesh* mesh) {
  std::ifstream in(path, std::ios::binary);
  uint32_t counts[2];
  if (!detail::Magic(in, "OZMMESH1") || !detail::Get(in, counts, 2)) return false;
  mesh->positions.resize(counts[0]);
  mesh->faces.resize(counts[1]);
  return detail::Get(in, mesh->positions.data(), counts[0]) && detail::Get(in, mesh->faces.data(), counts[1]);
}

inline bool WriteAnimation(const std::string& path, const Animation& anim) {
  std::ofstream out(path, std::ios::binary);
  const uint32_t counts[3] = {anim.vertexCount, static_cast<uint32_t>(anim.faces.size()),
                              static_cast<uint32_t>(anim.frames.size())};
  out.write("OZMANIM1", 8);
  detail::Put(out, counts, 3);
  detail::Put(out, anim.boxMin.data(), 3);
  detail::Put(out, anim.boxMax.data(), 3);
  detail::Put(out, anim.faces.data(), anim.faces.size());
  for (const auto& frame : anim.frames) detail::Put(out, frame.data(), frame.size());
  return static_cast<bool>(out);
}

inline bool ReadAnimation(const std::string& path, Animation* anim) {
  std::ifstream in(path, std::ios::binary);
  uint32_t counts[3];
  if (!detail::Magic(in, "OZMANIM1") || !detail::Get(in, counts, 3)) return false;
  anim->vertexCount = counts[0];
  anim->faces.resize(counts[1]);
  anim->frames.assign(counts[2], std::vector<std::array<uint16_t, 3>>(counts[0]));
  if (!detail::Get(in, anim->boxMin.data(), 3) || !detail::Get(in, anim->boxMax.data(), 3) ||
      !detail::Get(in, anim->faces.data(), counts[1])) {
    return false;
  }
  for (auto& frame : anim->frames) {
    if (!detail::Get(in, frame.data(), frame.size())) return false;
  }
  return true;
}

}  // namespace TestMeshFiles
