// The mesh reader: turns one mesh payload into a vertex buffer and an index buffer, keeping per
// sub-mesh state between frames so that inter frames can reuse their key frame's connectivity and
// predict vertices from earlier frames.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/Golomb.h"
#include "OzmCore/Huffman.h"
#include "OzmCore/OzmMediaObjects.h"
#include "OzmCore/StreamingMeshHeader.h"

namespace Ozm {

// A position of the temporal history; the fourth component is not used.
struct __vector4 {
  float x, y, z, w;
};

// The delta bytes of an inter frame: axis a of vertex i at axis[a][i * stride], count vertices' worth.
// Interleaved (x, y, z) bytes have stride 3, one array per axis stride 1.
struct DeltaBytes {
  const uint8_t* axis[3];
  size_t stride;
  uint32_t count;
};

// Interleaved (x, y, z) delta bytes; none when data is null.
inline DeltaBytes InterleavedDeltas(const uint8_t* data, uint32_t vertices) {
  if (!data) return DeltaBytes{{nullptr, nullptr, nullptr}, 3, 0};
  return DeltaBytes{{data, data + 1, data + 2}, 3, vertices};
}

// Texture-coordinate transform of one sub-mesh of a temporal mesh (already inverted for decoding).
struct STransform {
  float m00, m01, m10, m11, tx, ty;
};

// A key frame's quantised vertex, as kept for the inter frames that follow it.
struct SKeyVertex {
  int16_t x, y, z, pad;
  int16_t u, v;
};
static_assert(sizeof(SKeyVertex) == 12, "key vertex records are 12 bytes");

// Reader flags, given to Initialize.
namespace NReaderFlags {
constexpr unsigned int c_WithNormals = 0x02;
constexpr unsigned int c_FloatVertices = 0x08;
}  // namespace NReaderFlags

// Sanity limit on the counts of one mesh: far beyond any real frame, small enough that a corrupt
// header cannot make the reader allocate gigabytes.
constexpr uint32_t c_MaxMeshElements = 1u << 24;

// Per sub-mesh decoding state.
struct COzmMeshReaderCtx {
  uint32_t m_numIndices = 0;
  uint32_t m_numVertices = 0;
  uint32_t m_numFaces = 0;
  bool m_usedInFrame = false;
  OZMCORE::CComPtr<IOzmBuffer> m_indexBuffer;  // the last key frame's indices

  // Temporal history: the previous decoded positions and the ones before them. The two arrays
  // alternate; m_pOlderMesh is null right after a key frame.
  std::vector<__vector4>* m_pPrevMesh = nullptr;
  std::vector<__vector4>* m_pOlderMesh = nullptr;
  std::vector<__vector4> m_keyMesh;
  std::vector<__vector4> m_workMesh;
  std::vector<SKeyVertex> m_pKeyVertices;
  // The key vertices' texture coordinates as floats (u, v per vertex), made on first use by an inter
  // frame with float output; cleared whenever a key frame reseeds the history.
  std::vector<float> m_keyTexCoords;
};

class COzmMeshReader {
 public:
  HRESULT Initialize(IOzmBufferAllocator* allocator, unsigned int flags);

  // Decodes one mesh payload (positioned at its header) into a vertex and an index buffer tagged
  // with the mesh attributes; timestamp in 100 ns units. A null stream gives the placeholder quad.
  // On success the caller owns one reference to each buffer.
  HRESULT ReadMesh(IStream* stream, long long timestamp, IOzmBuffer** ppVertexBuffer, IOzmBuffer** ppIndexBuffer);
  HRESULT ReadSubMesh(IStream* stream, CStreamingMeshHeader& header, IOzmBuffer** ppVertexBuffer,
                      IOzmBuffer** ppIndexBuffer);
  HRESULT ReadTemporalMesh(IStream* stream, CStreamingMeshHeader& header, IOzmBuffer** ppVertexBuffer,
                           IOzmBuffer** ppIndexBuffer);
  HRESULT SetAttributes(IOzmBuffer* pBuffer, CStreamingMeshHeader* pHeader, bool hasNormals, long long timestamp);
  // The mesh shown for a sample without mesh data: a quad seen from both sides.
  HRESULT BuildSingleQuadMesh(long long timestamp, IOzmBuffer** ppVertexBuffer, IOzmBuffer** ppIndexBuffer);

  // Output vertex stride for the reader flags: 32 (float with normal), 20 (float), 20 (16-bit with
  // normal) or 12 (16-bit).
  unsigned int VertexStride() const;
  unsigned int Flags() const { return m_flags; }

  // Key-frame index block: the index buffer (u32 indices), also kept in the context.
  HRESULT ReadIndices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header, IOzmBuffer** out);
  // Key-frame vertices (plain 16-bit records) into the output format; seeds the temporal history.
  HRESULT ReadVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header, IOzmBuffer** out);
  // The normals block after a vertex block, when the header has one.
  HRESULT ReadNormals(IStream* stream, CStreamingMeshHeader* header, IOzmBuffer* buffer);
  // Inter frame coded as plain byte deltas.
  HRESULT ReadCompressedVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                 IOzmBuffer** out);

  // Last stage of every byte-delta coding: rebuilds positions from interleaved (x, y, z) delta bytes
  // and the prediction from the history, rotates the history, writes the output vertices.
  HRESULT DecodeDeltas(COzmMeshReaderCtx* ctx, const CStreamingMeshHeader* header, const uint8_t* deltas, uint32_t len,
                       float minx, float miny, float minz, float maxx, float maxy, float maxz, IOzmBuffer** out);
  // The same from delta bytes laid out in any stride; range: min x, y, z, max x, y, z.
  HRESULT DecodeDeltas(COzmMeshReaderCtx* ctx, const CStreamingMeshHeader* header, const DeltaBytes& in,
                       const float range[6], IOzmBuffer** out);

  // Inter frames coded with Golomb or Huffman codes per axis, and with rigid transforms plus deltas.
  HRESULT ReadGolombCodedVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                  IOzmBuffer** out);
  HRESULT ReadHuffmanCodedVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                   IOzmBuffer** out);
  HRESULT ReadTransformDeltaVertices(COzmMeshReaderCtx* ctx, IStream* stream, CStreamingMeshHeader* header,
                                     IOzmBuffer** out);

  // The texture-coordinate transforms of a temporal mesh, one per sub-mesh.
  HRESULT ReadTransforms(IStream* stream, CStreamingMeshHeader& header, std::vector<STransform>* transforms);

  // The context of a sub-mesh id, made on first use.
  COzmMeshReaderCtx* Context(int subMeshId);
  size_t ContextCount() const { return m_contexts.size(); }
  bool HasContext(int subMeshId) const { return m_contexts.count(subMeshId) != 0; }

 private:
  HRESULT Allocate(uint32_t size, uint32_t elementSize, IOzmBuffer** out);
  // The transform-delta block from a bit reader (see LazyBitReader); streamResult is the result
  // of the stream the reader takes its words from.
  template <class Bits>
  HRESULT DecodeTransformDeltaBlock(COzmMeshReaderCtx* ctx, CStreamingMeshHeader* header, Bits& bits,
                                    const HRESULT& streamResult, IOzmBuffer** out);
  // A locked buffer for count vertices of the reader's layout.
  HRESULT AllocateVertices(uint32_t count, OZMCORE::CComPtr<IOzmBuffer>& buffer, OzmLockedMemory& locked);
  // Appends one decoded sub-mesh to the frame's buffers: indices rebased, positions moved into the
  // frame's box, texture coordinates mapped by the sub-mesh's transform.
  HRESULT MergeSubmesh(const CStreamingMeshHeader& frame, const CStreamingMeshHeader& sub, const STransform& transform,
                       IOzmBuffer* subVertices, IOzmBuffer* subIndices, uint8_t* frameVertices, uint32_t* frameIndices,
                       uint32_t& vertexCount, uint32_t& indexCount);

  OZMCORE::CComPtr<IOzmBufferAllocator> m_allocator;
  std::map<int, std::shared_ptr<COzmMeshReaderCtx>> m_contexts;
  // Working memory of the entropy decoders, kept from frame to frame.
  struct Scratch {
    CGolombDecompressor golomb;
    HuffmanEncoding huffman;
    HuffmanDecoder huffmanDecoders[3];
    std::vector<uint8_t> axes[3];
    std::vector<uint8_t> bits[3];
  } m_scratch;
  unsigned int m_flags = 0;
};

}  // namespace Ozm
