// NAL units of H.264 and HEVC access units, in both framings: Annex B (start codes, as encoders
// produce and the player reads) and length-prefixed (as MP4 samples store them).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace OzmTool {

enum class VideoCodec { H264, Hevc };

struct NalSpan {
  size_t begin = 0;  // first byte of the unit (its header), after the start code
  size_t end = 0;    // one past its last byte, trailing zero bytes excluded
};

// The units of an Annex B access unit, in order.
std::vector<NalSpan> SplitAnnexB(const uint8_t* data, size_t size);

// The units of a length-prefixed sample; false when a length runs past the end.
bool SplitLengthPrefixed(const uint8_t* data, size_t size, int lengthSize, std::vector<NalSpan>* units);

// The unit type from the first header byte.
int NalType(VideoCodec codec, uint8_t headerByte);

// True for the units that carry coded picture data of the base layer (the ones decoders show).
bool IsPictureUnit(VideoCodec codec, const uint8_t* unit, size_t size);

// The access unit with extra units (Annex B, start codes included) put in front of its first picture
// unit, after the delimiter, parameter sets and SEI that precede it.
std::vector<uint8_t> InsertBeforeFirstPicture(VideoCodec codec, const uint8_t* au, size_t size,
                                              const std::vector<uint8_t>& units);

// True when the first unit of the Annex B access unit is an access-unit delimiter.
bool StartsWithDelimiter(VideoCodec codec, const uint8_t* au, size_t size);

// The access unit with a delimiter in front (with a 4-byte start code), unless it starts with one.
// Transport streams need one at the start of every access unit: it is where a demultiplexer that
// reads the elementary stream knows that a new one begins.
std::vector<uint8_t> WithDelimiter(VideoCodec codec, std::vector<uint8_t> au);

// Bytes that the units of an Annex B access unit take in an MP4 sample (a 4-byte length each).
size_t StoredSize(const uint8_t* au, size_t size);

}  // namespace OzmTool
