// Mesh files in and out: frames read with assimp (OBJ, PLY, glTF and whatever else it knows) for the
// encoder, and decoded frames written as PLY, OBJ (with its material file) or glTF for export.
//
// Texture coordinates inside the tool have v = 0 on the picture's top row. OBJ and PLY count v from
// the bottom row, so their files hold 1 - v; glTF counts from the top, like the tool.
#pragma once

#include <string>
#include <vector>

#include "OzmCore/MeshFrame.h"
#include "OzmCore/encode/Mesh.h"

namespace OzmTool {

struct ImportedMesh {
  OzmEncode::Mesh mesh;
  bool hadTexCoords = false;    // false: the coordinates are a front projection made here
  bool hadNormals = false;      // false: computed from the triangles (only when asked for)
  size_t texCoordsOutside = 0;  // coordinates outside [0, 1], which the coding clamps
};

// Reads one frame: all meshes of the file in their world placement, merged, triangles only.
// Throws ToolError with the importer's message when the file cannot be read.
ImportedMesh ImportMesh(const std::string& path, bool normals);

// The mesh files of a folder (by extension), in natural order: frame2 before frame10.
std::vector<std::string> ListMeshFiles(const std::string& folder);
// The picture files of a folder (PNG, JPEG, ...), in natural order.
std::vector<std::string> ListPictureFiles(const std::string& folder);
bool IsPictureFile(const std::string& path);

// One decoded frame in the engine's vertex layout.
struct ExportFrame {
  std::vector<Ozm::EngineVertex> vertices;
  std::vector<uint32_t> indices;
};

enum class ExportFormat { Ply, Obj, Gltf };

// Writes the frame as `base` + extension (.ply; .obj and .mtl; .gltf and, unless embedded, .bin),
// textured by the PNG picture `png` (file name relative to the mesh file; with embed, the PNG bytes
// go into the glTF file and pngBytes must hold them). Returns the files written.
std::vector<std::string> WriteFrame(ExportFormat format, const std::string& base, const ExportFrame& frame,
                                    const std::string& png, bool embed, const std::vector<uint8_t>& pngBytes);

}  // namespace OzmTool
