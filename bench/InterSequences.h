// The animated sequences and the inter codings that the inter-frame benchmarks (speed, and size at
// equal accuracy) measure, so that both always measure the same thing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "OzmCore/encode/SequenceEncoder.h"

namespace OzmBench {

struct SequenceCase {
  const char* name;
  const char* mesh;    // "bunny" is bunny-anim.anim; the others are moved by the same motion
  size_t frames;       // frames of the sequence, from its start
  size_t dracoFrames;  // inter frames that Draco codes, spread over the sequence (its encoder is slow)
};

// About 1.8 k, 29 k and 117 k vertices a frame. The subdivided sequences are two groups long, which
// keeps their encoding (done before any timing) to a few seconds.
inline constexpr SequenceCase kAnimations[] = {
    {"bunny-anim", "bunny", 300, 30},
    {"loop2-anim", "bunny-loop2", 60, 8},
    {"loop3-anim", "bunny-loop3", 60, 4},
};

struct CodingCase {
  OzmEncode::InterCoding coding;
  const char* name;
};
inline constexpr CodingCase kCodings[] = {
    {OzmEncode::InterCoding::ByteDelta, "ByteDelta"},
    {OzmEncode::InterCoding::Golomb, "Golomb"},
    {OzmEncode::InterCoding::Huffman, "Huffman"},
    {OzmEncode::InterCoding::TransformDelta, "TransformDelta"},
};

// A key frame starts every group of this many frames.
constexpr uint32_t kKeyFrameInterval = 30;

}  // namespace OzmBench
