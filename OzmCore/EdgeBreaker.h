// EdgeBreaker connectivity codec: a bitstream of per-triangle operation codes <-> triangle lists.
// The decoder is what the plug-in runs; Compress, the encoder, is defined in OzmCore/encode/ and only
// linked into the tools and tests.
#pragma once

#include <cstdint>
#include <vector>

// One triangle: three vertex indices.
struct WelmMeshFace {
  uint32_t v[3];
};

namespace EdgeBreaker {

// One value per triangle operation; the numbers are part of the format.
enum EEdgeCode : int32_t {
  C = 0,    // "0"    new vertex
  L = 1,    // "110"  closes on the vertex before the gate
  R = 2,    // "101"  closes on the vertex after the gate
  E = 3,    // "111"  closes the current boundary loop
  S = 4,    // "1000" split
  End = 5,  // "1001" end of a submesh
};

class CEdgeBreaker {
 public:
  CEdgeBreaker();
  ~CEdgeBreaker();

  // Decodes the whole code stream and appends the triangles to faces. Vertices are numbered in the
  // order the traversal first meets them, continuing across submeshes. Returns false when the
  // stream is corrupt; decoding then stops early and faces holds what was decoded before.
  bool Decompress(std::vector<uint8_t>& compressedIndices, std::vector<WelmMeshFace>* faces);

  // Decodes one submesh whose codes (its End included) start at codes; nextVertex is the first free
  // vertex index and is advanced by the vertices the submesh introduces. Returns false on corrupt codes.
  bool DecompressSubmesh(EEdgeCode* codes, int codeLen, std::vector<WelmMeshFace>* faces, int& nextVertex);

  // Length in bits of a code; 0 (with an assertion) for values outside the table.
  static int BitsInCode(EEdgeCode code);

  // Encoder (tools and tests only). Encodes any triangle list: several components, boundaries,
  // holes, handles, non-manifold edges and vertices, degenerate triangles. Vertices are split where
  // the decoder's operations cannot express the topology. On return, (*vertexOrder)[k] is the input
  // vertex that decoded vertex k stands for (an input vertex may appear several times), and bits
  // holds the stream. Decoding it gives every input triangle exactly once, with its orientation,
  // under that renumbering. Returns false for indices that do not fit the format.
  bool Compress(const std::vector<WelmMeshFace>& faces, std::vector<int>* vertexOrder, std::vector<uint8_t>* bits);
};

}  // namespace EdgeBreaker
