// Encodes a mesh sequence frame by frame: a key frame at the start of every group of frames (and
// whenever the topology changes), inter frames in the chosen temporal coding in between. Inter
// frames predict from exactly what the decoder will have reconstructed (the encoder runs the decoder
// on its own output), so the error of a frame is its own quantisation error and never drifts.
// With InterCoding::Auto every inter frame is made in each coding and the smallest one that decodes
// within the frame's accuracy is kept; a frame whose best inter coding costs too large a share of a
// key frame becomes a key frame instead.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
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
  // Per frame, the smallest of the four codings above. Never written into a header.
  Auto = 0xFF,
};

// The codings Auto chooses among, in the order it tries them when two come out the same size.
constexpr InterCoding kInterCodings[] = {InterCoding::Huffman, InterCoding::Golomb, InterCoding::ByteDelta,
                                         InterCoding::TransformDelta};

struct SequenceOptions {
  uint32_t keyFrameInterval = 30;  // frames per group; each group starts with a key frame
  uint8_t indexVersion = NWelmStudioIndexVersion::c_EdgeBreakerIndices;
  bool indicesFirst = false;
  InterCoding inter = InterCoding::Huffman;
  bool normals = false;            // key frames carry normals in their records, inter frames a normals block
  bool temporalSubMeshes = false;  // every frame is a temporal mesh made of the connected components
  uint32_t maxTransforms = 16;     // transform-delta frames: rigid transforms besides the identity (at most 31)
  // Auto: an inter frame that costs more than this share of the last key frame is coded as a key
  // frame instead (group starts stay where they are); 0 turns this off. The cost of an inter frame
  // is its size plus the bits it lacks to be as precise as a key frame (log2 of its quantisation step
  // over the key frame's 16-bit grid, per coordinate, where coarser).
  // Why a third: an inter frame codes positions only, reusing the key frame's connectivity and
  // texture coordinates, and a key frame spends some 6 of its 12 to 14 bytes a vertex on 16-bit
  // positions. An inter frame costing more than a third of the key frame spends most of what raw
  // positions would cost: prediction has stopped paying. The key frame then costs little more, is
  // exact to its grid, and restarts prediction cleanly (linear prediction would carry the jump into
  // the next inter frame, the key frame does not), and the inter frames after it predict from it as
  // well as from the inter frame. Smooth motion costs well below a third (a tenth or less on large
  // meshes, a fifth on meshes of a hundred vertices, where the fixed parts of a frame weigh most);
  // frames where every vertex jumps cost close to half.
  double keyFrameShare = 1.0 / 3;
};

struct EncodedFrame {
  std::vector<uint8_t> payload;  // the mesh bitstream, header first
  bool keyFrame = false;
  // The coding of the frame: KeyFramesOnly for key frames, never Auto.
  InterCoding coding = InterCoding::KeyFramesOnly;
  // Auto inter frames (and key frames placed in their stead): the payload size of each coding made,
  // in kInterCodings order.
  std::vector<std::pair<InterCoding, size_t>> candidates;
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
