#include "tools/ozm/Sample.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "tests/data/TestMeshFiles.h"
#include "tools/ozm/ToolError.h"

#ifndef OZM_DEFAULT_TEST_DATA_DIR
#define OZM_DEFAULT_TEST_DATA_DIR "build/test-data"
#endif

namespace OzmTool {
namespace {

constexpr double kPi = 3.14159265358979323846;

// 3x5 digits, one row a string, '#' for a set pixel.
const char* const kDigits[10][5] = {
    {"###", "#.#", "#.#", "#.#", "###"}, {".#.", "##.", ".#.", ".#.", "###"}, {"###", "..#", "###", "#..", "###"},
    {"###", "..#", "###", "..#", "###"}, {"#.#", "#.#", "###", "..#", "..#"}, {"###", "#..", "###", "..#", "###"},
    {"###", "#..", "###", "#.#", "###"}, {"###", "..#", "..#", "..#", "..#"}, {"###", "#.#", "###", "#.#", "###"},
    {"###", "#.#", "###", "..#", "###"},
};

void Fill(int x0, int y0, int x1, int y1, const uint8_t color[3], int width, int height, std::vector<uint8_t>* rgb) {
  x0 = std::max(x0, 0);
  y0 = std::max(y0, 0);
  x1 = std::min(x1, width);
  y1 = std::min(y1, height);
  for (int y = y0; y < y1; ++y) {
    for (int x = x0; x < x1; ++x) {
      uint8_t* p = &(*rgb)[(static_cast<size_t>(y) * width + x) * 3];
      p[0] = color[0];
      p[1] = color[1];
      p[2] = color[2];
    }
  }
}

// Hue in [0, 1), saturation and value in [0, 1] to RGB.
void Hsv(double h, double s, double v, uint8_t out[3]) {
  const double k[3] = {5, 3, 1};
  for (int i = 0; i < 3; ++i) {
    const double n = std::fmod(k[i] + h * 6.0, 6.0);
    const double c = v - v * s * std::max(0.0, std::min({n, 4.0 - n, 1.0}));
    out[i] = static_cast<uint8_t>(std::lround(std::clamp(c, 0.0, 1.0) * 255.0));
  }
}

}  // namespace

NumberPlacement Sample::NumberAt(int width, int height) {
  return {width / 2, height * 9 / 20, std::max(1, std::min(width, height) / 40)};
}

std::string Sample::DefaultMeshPath() {
  if (const char* env = std::getenv("OZM_TEST_DATA_DIR"); env && *env) return std::string(env) + "/bunny-loop2.mesh";
  return std::string(OZM_DEFAULT_TEST_DATA_DIR) + "/bunny-loop2.mesh";
}

Sample::Sample(const std::string& meshPath) {
  TestMeshFiles::Mesh mesh;
  if (!TestMeshFiles::ReadMesh(meshPath, &mesh) || mesh.positions.empty()) {
    throw ToolError("cannot read the sample mesh " + meshPath + " (scripts/test-data.sh makes it)");
  }
  for (const auto& f : mesh.faces) {
    for (uint32_t v : f) {
      if (v >= mesh.positions.size()) throw ToolError(meshPath + ": a face refers to a vertex that is not there");
    }
    m_faces.push_back({{f[0], f[1], f[2]}});
  }
  for (int a = 0; a < 3; ++a) m_lo[a] = m_hi[a] = mesh.positions[0][a];
  for (const auto& p : mesh.positions) {
    m_rest.insert(m_rest.end(), p.begin(), p.end());
    for (int a = 0; a < 3; ++a) {
      m_lo[a] = std::min(m_lo[a], p[a]);
      m_hi[a] = std::max(m_hi[a], p[a]);
    }
  }
  // Front projection of the rest pose: x across, y up (the top of the model on the picture's top row).
  const float w = std::max(m_hi[0] - m_lo[0], 1e-9f), h = std::max(m_hi[1] - m_lo[1], 1e-9f);
  for (const auto& p : mesh.positions) {
    m_uvs.push_back((p[0] - m_lo[0]) / w);
    m_uvs.push_back(1.0f - (p[1] - m_lo[1]) / h);
  }
}

OzmEncode::Mesh Sample::Frame(int index, bool normals) const {
  OzmEncode::Mesh m;
  m.faces = m_faces;
  m.uvs = m_uvs;
  m.positions.resize(m_rest.size());
  // The loop: a twist about the upright axis that grows towards the top, a breathing radial scale
  // and a vertical ripple, all periodic over kFrames.
  const double phase = 2 * kPi * (index % kFrames) / kFrames;
  const double twist = 0.6 * std::sin(phase);
  const double breath = 1 + 0.06 * std::sin(2 * phase);
  const double cx = 0.5 * (m_lo[0] + m_hi[0]), cz = 0.5 * (m_lo[2] + m_hi[2]);
  const double height = std::max(m_hi[1] - m_lo[1], 1e-9f);
  for (size_t v = 0; v < m_rest.size() / 3; ++v) {
    const float* p = &m_rest[3 * v];
    const double up = (p[1] - m_lo[1]) / height;
    const double angle = twist * up * up;
    const double x = (p[0] - cx) * breath, z = (p[2] - cz) * breath;
    m.positions[3 * v] = static_cast<float>(cx + x * std::cos(angle) - z * std::sin(angle));
    m.positions[3 * v + 1] =
        static_cast<float>(m_lo[1] + (p[1] - m_lo[1]) * (1 + 0.03 * std::sin(2 * phase + up * kPi)));
    m.positions[3 * v + 2] = static_cast<float>(cz + x * std::sin(angle) + z * std::cos(angle));
  }
  if (normals) m.normals = VertexNormals(m.positions, m.faces);
  return m;
}

void Sample::Texture(int index, int width, int height, std::vector<uint8_t>* rgb) {
  rgb->assign(static_cast<size_t>(width) * height * 3, 0);
  const double t = static_cast<double>(index) / kFrames;
  // Checker cells whose colours drift through the hues, crossed by a band that sweeps down once a
  // loop, so that every frame's picture differs. Colours come from a table of hues at the four
  // brightness levels used.
  constexpr int kHues = 1024;
  static const std::vector<uint8_t> palette = [] {
    const double values[4] = {0.7, 0.95, 0.7 * 0.45, 0.95 * 0.45};
    std::vector<uint8_t> table(4 * kHues * 3);
    for (int level = 0; level < 4; ++level) {
      for (int h = 0; h < kHues; ++h)
        Hsv(static_cast<double>(h) / kHues, 0.55, values[level], &table[(level * kHues + h) * 3]);
    }
    return table;
  }();
  const int bandCentre = static_cast<int>(std::lround((t + 0.5 - std::floor(t + 0.5)) * height));
  const int bandHalf = static_cast<int>(0.03 * height);
  const int shift = static_cast<int>(t * kHues);
  for (int y = 0; y < height; ++y) {
    const int cellY = y * 16 / height;
    int distance = std::abs(y - bandCentre);
    distance = std::min(distance, height - distance);  // the band wraps around
    const int band = distance < bandHalf ? 2 : 0;
    const int hueY = static_cast<int>(0.3 * kHues * y / height) + shift;
    uint8_t* row = &(*rgb)[static_cast<size_t>(y) * width * 3];
    for (int x = 0; x < width; ++x) {
      const int level = band + ((x * 16 / width + cellY) & 1);
      const int hue = (static_cast<int>(0.6 * kHues * x / width) + hueY) & (kHues - 1);
      const uint8_t* c = &palette[(level * kHues + hue) * 3];
      row[3 * x] = c[0];
      row[3 * x + 1] = c[1];
      row[3 * x + 2] = c[2];
    }
  }
  const NumberPlacement at = NumberAt(width, height);
  const uint8_t white[3] = {255, 255, 255};
  DrawNumber(static_cast<uint32_t>(index), at.cx, at.cy, at.scale, white, width, height, rgb);
}

void DrawNumber(uint32_t number, int cx, int cy, int scale, const uint8_t color[3], int width, int height,
                std::vector<uint8_t>* rgb) {
  std::string text = std::to_string(number);
  if (text.size() < 3) text.insert(0, 3 - text.size(), '0');
  const int digits = static_cast<int>(text.size());
  const int cols = digits * 4 - 1;
  const int x0 = cx - cols * scale / 2, y0 = cy - 5 * scale / 2;
  // A dark plate one font pixel wider on every side keeps the digits legible on any background.
  const uint8_t plate[3] = {16, 16, 16};
  Fill(x0 - scale, y0 - scale, x0 + (cols + 1) * scale, y0 + 6 * scale, plate, width, height, rgb);
  for (int d = 0; d < digits; ++d) {
    const char* const* glyph = kDigits[text[static_cast<size_t>(d)] - '0'];
    for (int r = 0; r < 5; ++r) {
      for (int c = 0; c < 3; ++c) {
        if (glyph[r][c] != '#') continue;
        const int px = x0 + (d * 4 + c) * scale, py = y0 + r * scale;
        Fill(px, py, px + scale, py + scale, color, width, height, rgb);
      }
    }
  }
}

int ReadNumber(int cx, int cy, int scale, int digits, int width, int height, const std::vector<uint8_t>& rgb) {
  const int cols = digits * 4 - 1;
  const int x0 = cx - cols * scale / 2, y0 = cy - 5 * scale / 2;
  int number = 0;
  for (int d = 0; d < digits; ++d) {
    int found = -1;
    for (int k = 0; k < 10 && found < 0; ++k) {
      bool match = true;
      for (int r = 0; r < 5 && match; ++r) {
        for (int c = 0; c < 3 && match; ++c) {
          const int x = x0 + (d * 4 + c) * scale + scale / 2, y = y0 + r * scale + scale / 2;
          if (x < 0 || y < 0 || x >= width || y >= height) return -1;
          const uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
          const bool lit = p[0] + p[1] + p[2] > 3 * 128;
          match = lit == (kDigits[k][r][c] == '#');
        }
      }
      if (match) found = k;
    }
    if (found < 0) return -1;
    number = number * 10 + found;
  }
  return number;
}

std::vector<float> VertexNormals(const std::vector<float>& positions, const std::vector<WelmMeshFace>& faces) {
  std::vector<float> n(positions.size(), 0.0f);
  for (const WelmMeshFace& f : faces) {
    const float* a = &positions[3 * f.v[0]];
    const float* b = &positions[3 * f.v[1]];
    const float* c = &positions[3 * f.v[2]];
    const float e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, e2[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
    const float cross[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                            e1[0] * e2[1] - e1[1] * e2[0]};
    for (uint32_t v : f.v) {
      for (int k = 0; k < 3; ++k) n[3 * v + k] += cross[k];
    }
  }
  for (size_t v = 0; v < n.size() / 3; ++v) {
    float* p = &n[3 * v];
    const float len = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    if (len > 0) {
      for (int k = 0; k < 3; ++k) p[k] /= len;
    } else {
      p[0] = p[1] = 0.0f;
      p[2] = 1.0f;
    }
  }
  return n;
}

}  // namespace OzmTool
