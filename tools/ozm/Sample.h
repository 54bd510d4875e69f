// The built-in animated sample: the Loop-subdivided bunny of the generated test data, twisting and
// breathing in a ten-second loop, textured through a front projection with a picture that changes
// every frame and shows the frame number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "OzmCore/encode/Mesh.h"

namespace OzmTool {

// Texture coordinates refer to the picture with v = 0 on its top row, as the picture is stored.

// Where a picture shows its frame number: the centre and the size of one font pixel.
struct NumberPlacement {
  int cx, cy, scale;
};

class Sample {
 public:
  static constexpr int kFrames = 300;
  static constexpr int kFps = 30;

  // Where the sample mesh is looked for: $OZM_TEST_DATA_DIR/bunny-loop2.mesh, else the generated
  // test data of the source tree.
  static std::string DefaultMeshPath();

  // Reads the rest mesh (the test-data mesh format); throws ToolError when it cannot.
  explicit Sample(const std::string& meshPath);

  // Frame `index` of the loop; normals (area-weighted, from the triangles) only when asked for.
  OzmEncode::Mesh Frame(int index, bool normals) const;

  // The texture of frame `index` as packed RGB rows; it shows the frame number (three digits) at
  // NumberAt(width, height).
  static void Texture(int index, int width, int height, std::vector<uint8_t>* rgb);
  static NumberPlacement NumberAt(int width, int height);

  size_t VertexCount() const { return m_rest.size() / 3; }
  size_t FaceCount() const { return m_faces.size(); }

 private:
  std::vector<float> m_rest;  // x, y, z per vertex
  std::vector<float> m_uvs;   // fixed to the surface: the projection of the rest pose
  std::vector<WelmMeshFace> m_faces;
  float m_lo[3] = {0, 0, 0}, m_hi[3] = {0, 0, 0};
};

// Area-weighted vertex normals of a triangle mesh (unit length; +z for unused vertices).
std::vector<float> VertexNormals(const std::vector<float>& positions, const std::vector<WelmMeshFace>& faces);

// Draws a decimal number (at least three digits, zero-padded) with the built-in 3x5 digit font, each font pixel a
// square of `scale` picture pixels, centred on (cx, cy).
void DrawNumber(uint32_t number, int cx, int cy, int scale, const uint8_t color[3], int width, int height,
                std::vector<uint8_t>* rgb);

// Reads the number that DrawNumber put at (cx, cy) with the given scale back out of a picture, or -1
// when the digits cannot be told apart (used by the tests on decoded pictures).
int ReadNumber(int cx, int cy, int scale, int digits, int width, int height, const std::vector<uint8_t>& rgb);

}  // namespace OzmTool
