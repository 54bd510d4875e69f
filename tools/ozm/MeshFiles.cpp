#include "tools/ozm/MeshFiles.h"

#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <algorithm>
#include <assimp/Importer.hpp>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/ozm/Sample.h"
#include "tools/ozm/ToolError.h"

namespace OzmTool {
namespace fs = std::filesystem;
namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Natural order: runs of digits compare by value.
bool NaturalLess(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (std::isdigit(static_cast<unsigned char>(a[i])) && std::isdigit(static_cast<unsigned char>(b[j]))) {
      size_t ie = i, je = j;
      while (ie < a.size() && std::isdigit(static_cast<unsigned char>(a[ie]))) ++ie;
      while (je < b.size() && std::isdigit(static_cast<unsigned char>(b[je]))) ++je;
      std::string na = a.substr(i, ie - i), nb = b.substr(j, je - j);
      na.erase(0, std::min(na.find_first_not_of('0'), na.size()));
      nb.erase(0, std::min(nb.find_first_not_of('0'), nb.size()));
      if (na.size() != nb.size()) return na.size() < nb.size();
      if (na != nb) return na < nb;
      i = ie;
      j = je;
    } else {
      if (a[i] != b[j]) return a[i] < b[j];
      ++i;
      ++j;
    }
  }
  return a.size() - i < b.size() - j;
}

std::vector<std::string> ListFiles(const std::string& folder, const std::vector<std::string>& extensions) {
  std::error_code ec;
  if (!fs::is_directory(folder, ec)) throw ToolError(folder + " is not a folder");
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    if (!entry.is_regular_file(ec)) continue;
    const std::string ext = Lower(entry.path().extension().string());
    if (std::find(extensions.begin(), extensions.end(), ext) != extensions.end()) {
      names.push_back(entry.path().filename().string());
    }
  }
  if (ec) throw ToolError("cannot list " + folder + ": " + ec.message());
  std::sort(names.begin(), names.end(), NaturalLess);
  for (std::string& n : names) n = (fs::path(folder) / n).string();
  return names;
}

const std::vector<std::string> kMeshExtensions = {".obj", ".ply", ".gltf", ".glb", ".fbx", ".stl", ".off"};
const std::vector<std::string> kPictureExtensions = {".png", ".jpg", ".jpeg", ".bmp", ".tga", ".tif", ".tiff", ".webp"};

void WriteText(const std::string& path, const std::string& text) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) throw ToolError("cannot write " + path);
  const bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  if (std::fclose(file) != 0 || !ok) throw ToolError("cannot write " + path);
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  WriteText(path, std::string(bytes.begin(), bytes.end()));
}

std::string Base64(const uint8_t* data, size_t size) {
  static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (size_t i = 0; i < size; i += 3) {
    const uint32_t n = (static_cast<uint32_t>(data[i]) << 16) | (i + 1 < size ? data[i + 1] << 8 : 0) |
                       (i + 2 < size ? data[i + 2] : 0);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += i + 1 < size ? kAlphabet[(n >> 6) & 63] : '=';
    out += i + 2 < size ? kAlphabet[n & 63] : '=';
  }
  return out;
}

std::string FileName(const std::string& path) { return fs::path(path).filename().string(); }

std::vector<std::string> WritePly(const std::string& base, const ExportFrame& frame, const std::string& png) {
  const std::string path = base + ".ply";
  std::string text = "ply\nformat binary_little_endian 1.0\ncomment made by ozm export\ncomment TextureFile " + png +
                     "\nelement vertex " + std::to_string(frame.vertices.size()) +
                     "\nproperty float x\nproperty float y\nproperty float z\n"
                     "property float nx\nproperty float ny\nproperty float nz\n"
                     "property float s\nproperty float t\n"
                     "element face " +
                     std::to_string(frame.indices.size() / 3) +
                     "\nproperty list uchar uint vertex_indices\nend_header\n";
  std::string body;
  body.reserve(frame.vertices.size() * 32 + frame.indices.size() / 3 * 13);
  for (Ozm::EngineVertex v : frame.vertices) {
    v.v = 1.0f - v.v;
    body.append(reinterpret_cast<const char*>(&v), sizeof(v));
  }
  for (size_t t = 0; t + 3 <= frame.indices.size(); t += 3) {
    body += static_cast<char>(3);
    body.append(reinterpret_cast<const char*>(&frame.indices[t]), 12);
  }
  WriteText(path, text + body);
  return {path};
}

std::vector<std::string> WriteObj(const std::string& base, const ExportFrame& frame, const std::string& png) {
  const std::string obj = base + ".obj", mtl = base + ".mtl";
  WriteText(mtl, "# made by ozm export\nnewmtl frame\nKa 1 1 1\nKd 1 1 1\nKs 0 0 0\nillum 1\nmap_Kd " + png + "\n");
  std::string text = "# made by ozm export\nmtllib " + FileName(mtl) + "\no frame\n";
  char line[160];
  for (const Ozm::EngineVertex& v : frame.vertices) {
    std::snprintf(line, sizeof(line), "v %.7g %.7g %.7g\n", v.x, v.y, v.z);
    text += line;
  }
  for (const Ozm::EngineVertex& v : frame.vertices) {
    std::snprintf(line, sizeof(line), "vt %.7g %.7g\n", v.u, 1.0f - v.v);
    text += line;
  }
  for (const Ozm::EngineVertex& v : frame.vertices) {
    std::snprintf(line, sizeof(line), "vn %.5g %.5g %.5g\n", v.nx, v.ny, v.nz);
    text += line;
  }
  text += "usemtl frame\n";
  for (size_t t = 0; t + 3 <= frame.indices.size(); t += 3) {
    const uint32_t a = frame.indices[t] + 1, b = frame.indices[t + 1] + 1, c = frame.indices[t + 2] + 1;
    std::snprintf(line, sizeof(line), "f %u/%u/%u %u/%u/%u %u/%u/%u\n", a, a, a, b, b, b, c, c, c);
    text += line;
  }
  WriteText(obj, text);
  return {obj, mtl};
}

std::vector<std::string> WriteGltf(const std::string& base, const ExportFrame& frame, const std::string& png,
                                   bool embed, const std::vector<uint8_t>& pngBytes) {
  using nlohmann::json;
  const std::string path = base + ".gltf", bin = base + ".bin";
  // One buffer: the interleaved vertices exactly as the engine gets them, then the indices.
  std::vector<uint8_t> buffer(frame.vertices.size() * sizeof(Ozm::EngineVertex) + frame.indices.size() * 4);
  if (!frame.vertices.empty()) std::memcpy(buffer.data(), frame.vertices.data(), frame.vertices.size() * 32);
  if (!frame.indices.empty()) {
    std::memcpy(buffer.data() + frame.vertices.size() * 32, frame.indices.data(), frame.indices.size() * 4);
  }
  float lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
  for (size_t i = 0; i < frame.vertices.size(); ++i) {
    const float p[3] = {frame.vertices[i].x, frame.vertices[i].y, frame.vertices[i].z};
    for (int a = 0; a < 3; ++a) {
      lo[a] = i ? std::min(lo[a], p[a]) : p[a];
      hi[a] = i ? std::max(hi[a], p[a]) : p[a];
    }
  }
  const size_t vertexBytes = frame.vertices.size() * 32;
  const size_t count = frame.vertices.size();
  json doc;
  doc["asset"] = {{"version", "2.0"}, {"generator", "ozm export"}};
  doc["extensionsUsed"] = json::array({"KHR_materials_unlit"});
  doc["scene"] = 0;
  doc["scenes"] = json::array({json{{"nodes", json::array({0})}}});
  doc["nodes"] = json::array({json{{"mesh", 0}, {"name", FileName(base)}}});
  json primitive = {{"attributes", {{"POSITION", 0}, {"NORMAL", 1}, {"TEXCOORD_0", 2}}},
                    {"indices", 3},
                    {"material", 0},
                    {"mode", 4}};
  doc["meshes"] = json::array({json{{"primitives", json::array({primitive})}}});
  // Volumetric captures carry their lighting in the picture: the material is unlit.
  json material;
  material["pbrMetallicRoughness"] = {
      {"baseColorTexture", {{"index", 0}}}, {"metallicFactor", 0.0}, {"roughnessFactor", 1.0}};
  material["extensions"] = {{"KHR_materials_unlit", json::object()}};
  doc["materials"] = json::array({material});
  doc["samplers"] = json::array({json{{"magFilter", 9729}, {"minFilter", 9729}, {"wrapS", 33071}, {"wrapT", 33071}}});
  doc["textures"] = json::array({json{{"source", 0}, {"sampler", 0}}});
  doc["images"] =
      json::array({json{{"uri", embed ? "data:image/png;base64," + Base64(pngBytes.data(), pngBytes.size()) : png}}});
  doc["buffers"] =
      json::array({json{{"byteLength", buffer.size()},
                        {"uri", embed ? "data:application/octet-stream;base64," + Base64(buffer.data(), buffer.size())
                                      : FileName(bin)}}});
  doc["bufferViews"] = json::array(
      {json{{"buffer", 0}, {"byteOffset", 0}, {"byteLength", vertexBytes}, {"byteStride", 32}, {"target", 34962}},
       json{{"buffer", 0}, {"byteOffset", vertexBytes}, {"byteLength", frame.indices.size() * 4}, {"target", 34963}}});
  auto accessor = [](int view, size_t offset, int type, size_t n, const char* shape) {
    return json{{"bufferView", view}, {"byteOffset", offset}, {"componentType", type}, {"count", n}, {"type", shape}};
  };
  json position = accessor(0, 0, 5126, count, "VEC3");
  position["min"] = json::array({lo[0], lo[1], lo[2]});
  position["max"] = json::array({hi[0], hi[1], hi[2]});
  doc["accessors"] = json::array({position, accessor(0, 12, 5126, count, "VEC3"), accessor(0, 24, 5126, count, "VEC2"),
                                  accessor(1, 0, 5125, frame.indices.size(), "SCALAR")});
  WriteText(path, doc.dump(1) + "\n");
  if (embed) return {path};
  WriteBytes(bin, buffer);
  return {path, bin};
}

}  // namespace

ImportedMesh ImportMesh(const std::string& path, bool normals) {
  Assimp::Importer importer;
  // Points and lines are dropped; polygons become triangles; vertices that agree in every attribute
  // are shared; every mesh is moved to its place in the scene.
  importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, aiPrimitiveType_POINT | aiPrimitiveType_LINE);
  const aiScene* scene =
      importer.ReadFile(path, aiProcess_Triangulate | aiProcess_JoinIdenticalVertices | aiProcess_PreTransformVertices |
                                  aiProcess_SortByPType | aiProcess_FlipUVs);
  if (!scene) throw ToolError("cannot read the mesh " + path + ": " + importer.GetErrorString());
  ImportedMesh out;
  OzmEncode::Mesh& m = out.mesh;
  bool allUvs = true, allNormals = true;
  for (unsigned i = 0; i < scene->mNumMeshes; ++i) {
    const aiMesh* mesh = scene->mMeshes[i];
    if (!(mesh->mPrimitiveTypes & aiPrimitiveType_TRIANGLE)) continue;
    allUvs = allUvs && mesh->HasTextureCoords(0);
    allNormals = allNormals && mesh->HasNormals();
  }
  for (unsigned i = 0; i < scene->mNumMeshes; ++i) {
    const aiMesh* mesh = scene->mMeshes[i];
    if (!(mesh->mPrimitiveTypes & aiPrimitiveType_TRIANGLE)) continue;
    const uint32_t offset = static_cast<uint32_t>(m.VertexCount());
    for (unsigned v = 0; v < mesh->mNumVertices; ++v) {
      const aiVector3D& p = mesh->mVertices[v];
      m.positions.insert(m.positions.end(), {p.x, p.y, p.z});
      if (allUvs) {
        const aiVector3D& t = mesh->mTextureCoords[0][v];
        if (t.x < 0 || t.x > 1 || t.y < 0 || t.y > 1) ++out.texCoordsOutside;
        m.uvs.insert(m.uvs.end(), {t.x, t.y});
      }
      if (normals && allNormals) {
        const aiVector3D& n = mesh->mNormals[v];
        m.normals.insert(m.normals.end(), {n.x, n.y, n.z});
      }
    }
    for (unsigned f = 0; f < mesh->mNumFaces; ++f) {
      const aiFace& face = mesh->mFaces[f];
      if (face.mNumIndices != 3) continue;
      m.faces.push_back({{offset + face.mIndices[0], offset + face.mIndices[1], offset + face.mIndices[2]}});
    }
  }
  if (m.faces.empty()) throw ToolError(path + ": no triangles");
  out.hadTexCoords = allUvs;
  if (!allUvs) {
    // A front projection of the frame's own box, so that the frame can still be textured.
    const OzmEncode::Box box = OzmEncode::BoundsOf(m.positions);
    const float w = std::max(box.max[0] - box.min[0], 1e-9f), h = std::max(box.max[1] - box.min[1], 1e-9f);
    m.uvs.clear();
    for (size_t v = 0; v < m.VertexCount(); ++v) {
      m.uvs.push_back((m.positions[3 * v] - box.min[0]) / w);
      m.uvs.push_back(1.0f - (m.positions[3 * v + 1] - box.min[1]) / h);
    }
  }
  out.hadNormals = normals && allNormals;
  if (normals && !allNormals) m.normals = VertexNormals(m.positions, m.faces);
  if (normals) {
    // Imported normals need not be unit length.
    for (size_t v = 0; v < m.VertexCount(); ++v) {
      float* n = &m.normals[3 * v];
      const float len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
      if (len > 0) {
        for (int k = 0; k < 3; ++k) n[k] /= len;
      } else {
        n[0] = n[1] = 0;
        n[2] = 1;
      }
    }
  }
  return out;
}

std::vector<std::string> ListMeshFiles(const std::string& folder) { return ListFiles(folder, kMeshExtensions); }

std::vector<std::string> ListPictureFiles(const std::string& folder) { return ListFiles(folder, kPictureExtensions); }

bool IsPictureFile(const std::string& path) {
  const std::string ext = Lower(fs::path(path).extension().string());
  return std::find(kPictureExtensions.begin(), kPictureExtensions.end(), ext) != kPictureExtensions.end();
}

std::vector<std::string> WriteFrame(ExportFormat format, const std::string& base, const ExportFrame& frame,
                                    const std::string& png, bool embed, const std::vector<uint8_t>& pngBytes) {
  switch (format) {
    case ExportFormat::Ply: return WritePly(base, frame, png);
    case ExportFormat::Obj: return WriteObj(base, frame, png);
    case ExportFormat::Gltf: return WriteGltf(base, frame, png, embed, pngBytes);
  }
  return {};
}

}  // namespace OzmTool
