// Encodes a mesh sequence frame by frame: a key frame at the start of every group of frames (and
// whenever the topology changes), inter frames in the chosen temporal coding in between. Inter
// frames predict from exactly what the decoder will have reconstructed (the encoder runs the decoder
// on its own output), so the error of a frame is its own quantisation error and never drifts.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "OzmCore/StreamingMeshHeader.h"
#include "OzmCore/encode/Mesh.h"

namespace OzmEncode {

// Vertex codings of inter frames, by their header value.
enum class InterCoding : uint8_t {
  KeyFramesOnly = 0,
  ByteDelta = NWelmStudioVertexVersion::c_CompressedXYZUV,
  Golomb = NWelmStudioVertexVersion::c_GolombCodedXYZUV,
  TransformDelta = NWelmStudioVertexVersion::c_TransformDeltaXYZUV,
  Huffman = NWelmStudioVertexVersion::c_HuffmanCodedXYZUV,
};

struct SequenceOptions {
  uint32_t keyFrameInterval = 30;  // frames per group; each group starts with a key frame
  uint8_t indexVersion = NWelmStudioIndexVersion::c_EdgeBreakerIndices;
  bool indicesFirst = false;
  InterCoding inter = InterCoding::Huffman;
  bool normals = false;            // key frames carry normals in their records, inter frames a normals block
  bool temporalSubMeshes = false;  // every frame is a temporal mesh made of the connected components
  uint32_t maxTransforms = 16;     // transform-delta frames: rigid transforms besides the identity (at most 31)
};

struct EncodedFrame {
  std::vector<uint8_t> payload;  // the mesh bitstream, header first
  bool keyFrame = false;
  uint32_t vertices = 0;         // decoded vertex count (vertices may be split by the connectivity coder)
  uint32_t faces = 0;
  // The input vertex behind each decoded vertex, in the order the decoder outputs them.
  std::vector<uint32_t> sourceVertex;
  // After decoding: the largest distance, on any axis, of a reconstructed position from the input,
  // and the quantisation step of the frame on the axis with the largest step. The error stays within
  // half a step (plus float rounding) for every coding.
  double maxError = 0;
  double step = 0;
};

class SequenceEncoder {
 public:
  explicit SequenceEncoder(const SequenceOptions& options);
  ~SequenceEncoder();
  SequenceEncoder(const SequenceEncoder&) = delete;
  SequenceEncoder& operator=(const SequenceEncoder&) = delete;

  // Encodes the next frame; frameId is written into the header when not 0. Returns false when the
  // frame cannot be encoded (bad indices, too many elements) or, which would be a bug, when the
  // decoder does not accept what was produced.
  bool Encode(const Mesh& frame, uint32_t frameId, EncodedFrame* out);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace OzmEncode
