#include "bench/BenchData.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "tests/data/TestMeshFiles.h"

namespace OzmBench {
namespace {

OzmEncode::Mesh FromFile(const TestMeshFiles::Mesh& file) {
  OzmEncode::Mesh mesh;
  mesh.positions.reserve(3 * file.positions.size());
  for (const auto& p : file.positions) mesh.positions.insert(mesh.positions.end(), p.begin(), p.end());
  mesh.faces.reserve(file.faces.size());
  for (const auto& f : file.faces) mesh.faces.push_back(WelmMeshFace{{f[0], f[1], f[2]}});
  return mesh;
}

bool ReadMeshFile(const std::string& name, TestMeshFiles::Mesh* file) {
  return TestMeshFiles::ReadMesh(DataFolder() + "/" + name + ".mesh", file) && !file->positions.empty();
}

}  // namespace

std::string DataFolder() { return TestMeshFiles::Folder(); }

void SphericalUVs(OzmEncode::Mesh* mesh) {
  const OzmEncode::Box box = OzmEncode::BoundsOf(mesh->positions);
  const double c[3] = {0.5 * (box.min[0] + box.max[0]), 0.5 * (box.min[1] + box.max[1]),
                       0.5 * (box.min[2] + box.max[2])};
  const size_t n = mesh->VertexCount();
  mesh->uvs.resize(2 * n);
  for (size_t i = 0; i < n; ++i) {
    const double d[3] = {mesh->positions[3 * i] - c[0], mesh->positions[3 * i + 1] - c[1],
                         mesh->positions[3 * i + 2] - c[2]};
    const double r = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    const double u = 0.5 + std::atan2(d[2], d[0]) / (2 * M_PI);
    const double v = r > 0 ? 0.5 + std::asin(std::clamp(d[1] / r, -1.0, 1.0)) / M_PI : 0.5;
    mesh->uvs[2 * i] = static_cast<float>(std::clamp(u, 0.0, 1.0));
    mesh->uvs[2 * i + 1] = static_cast<float>(std::clamp(v, 0.0, 1.0));
  }
}

bool LoadMesh(const std::string& name, OzmEncode::Mesh* mesh) {
  TestMeshFiles::Mesh file;
  if (!ReadMeshFile(name, &file)) return false;
  *mesh = FromFile(file);
  SphericalUVs(mesh);
  return true;
}

OzmEncode::Mesh Animation::Frame(size_t f) const {
  OzmEncode::Mesh mesh;
  mesh.positions = frames[f];
  mesh.uvs = rest.uvs;
  mesh.faces = rest.faces;
  return mesh;
}

bool LoadBunnyAnimation(size_t frames, Animation* anim) {
  TestMeshFiles::Animation file;
  if (!LoadMesh("bunny", &anim->rest) || !TestMeshFiles::ReadAnimation(DataFolder() + "/bunny-anim.anim", &file) ||
      file.vertexCount != anim->rest.VertexCount() || file.faces.size() != anim->rest.faces.size()) {
    return false;
  }
  anim->frames.clear();
  for (size_t f = 0; f < frames && f < file.frames.size(); ++f) {
    std::vector<float> positions(3 * file.vertexCount);
    for (size_t v = 0; v < file.vertexCount; ++v) {
      const std::array<float, 3> p = file.Position(f, v);
      std::copy(p.begin(), p.end(), positions.begin() + 3 * static_cast<ptrdiff_t>(v));
    }
    anim->frames.push_back(std::move(positions));
  }
  return anim->frames.size() == frames;
}

bool MakeSubdividedAnimation(const std::string& name, size_t frames, Animation* anim) {
  TestMeshFiles::Mesh bunny;
  if (!ReadMeshFile("bunny", &bunny) || !LoadMesh(name, &anim->rest)) return false;
  // The parameters of the motion, from the plain bunny as in the generator of bunny-anim.anim.
  std::array<float, 3> lo = bunny.positions[0], hi = bunny.positions[0];
  for (const auto& p : bunny.positions) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], p[a]);
      hi[a] = std::max(hi[a], p[a]);
    }
  }
  constexpr int kLoopFrames = 300;
  const double cx = (lo[0] + hi[0]) / 2, cz = (lo[2] + hi[2]) / 2, height = hi[1] - lo[1];
  const std::vector<float>& rest = anim->rest.positions;
  const size_t n = anim->rest.VertexCount();
  anim->frames.assign(frames, std::vector<float>(3 * n));
  for (size_t f = 0; f < frames; ++f) {
    const double phase = 2 * M_PI * static_cast<double>(f) / kLoopFrames;
    const double twist = 0.6 * std::sin(phase);
    const double breath = 1 + 0.06 * std::sin(2 * phase);
    float* out = anim->frames[f].data();
    for (size_t v = 0; v < n; ++v) {
      const float* p = &rest[3 * v];
      const double up = (p[1] - lo[1]) / height;
      const double angle = twist * up * up;
      const double x = (p[0] - cx) * breath, z = (p[2] - cz) * breath;
      out[3 * v] = static_cast<float>(cx + x * std::cos(angle) - z * std::sin(angle));
      out[3 * v + 1] = static_cast<float>(p[1] * (1 + 0.03 * std::sin(2 * phase + up * M_PI)));
      out[3 * v + 2] = static_cast<float>(cz + x * std::sin(angle) + z * std::cos(angle));
    }
  }
  return true;
}

}  // namespace OzmBench
