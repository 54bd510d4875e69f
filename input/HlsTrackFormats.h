// Track formats and decoder input of an HLS stream, built from its demultiplexed elementary streams:
// parameter sets and picture facts from the first video access unit, codec-specific data, the AAC
// configuration, and one video sample out of each demultiplexed access unit.
//
// These are free functions so that they can be tested and fuzzed alone; HLSStream's members of the
// same names call them (qualified with ::, since the members hide them).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The parameter sets of a video stream, each without start code, as found in the stream (NAL header
// and emulation-prevention bytes included). vps stays empty for H.264.
struct ParameterSets {
  std::vector<uint8_t> vps, sps, pps;
};

struct VideoParameters {
  int width = 0, height = 0, frameRate = 0;
};

// Scans one access unit (Annex B; it may begin with a NAL header byte instead of a start code) for
// parameter sets: H.264 NAL types 7 and 8, HEVC types 32, 33 and 34 of layer 0. Every other unit
// (SEI, delimiters, slices) is passed over. A unit extends to the next start code; the zero bytes in
// front of that start code belong to it and are not kept. The first set of each kind in the access
// unit replaces the one in `sets`; kinds not found are left as they were.
// The SPS is then parsed, after its 1- or 2-byte NAL header and with emulation prevention removed,
// into `video` (whose frame rate stays as it was when the SPS carries no timing information).
// Returns true when an SPS was found and parsed; otherwise `video` is unchanged and `error`, when
// given, says why.
bool ReadVideoFormatDescriptorH264(const uint8_t* data, size_t size, ParameterSets& sets, VideoParameters& video,
                                   std::string* error = nullptr);
bool ReadVideoFormatDescriptorHEVC(const uint8_t* data, size_t size, ParameterSets& sets, VideoParameters& video,
                                   std::string* error = nullptr);

// Codec-specific data for the video decoder: 00 00 00 01 VPS 00 00 00 01 SPS 00 00 00 01 PPS for HEVC;
// 00 00 00 01 SPS and 00 00 00 01 PPS for H.264.
std::vector<uint8_t> HevcCsd0(const ParameterSets& sets);
std::vector<uint8_t> H264Csd0(const ParameterSets& sets);
std::vector<uint8_t> H264Csd1(const ParameterSets& sets);

// The 2-byte AudioSpecificConfig from the fields of an ADTS header (profile is the ADTS profile, one
// less than the audio object type): ((profile + 1) << 3 | index >> 1), (index << 7 | channels << 3),
// each cut to 8 bits.
std::array<uint8_t, 2> AacAudioSpecificConfig(int profile, int samplingFrequencyIndex, int channelConfiguration);

// One video sample as decoder input, from one demultiplexed access unit: every NAL unit of the range
// behind a 4-byte start code 00 00 00 01, byte for byte, except the access-unit delimiters, which are
// dropped. The range may begin with a start code or directly with a NAL header byte; the start code
// it ends with (the next access unit's) and the zero bytes in front of each start code are dropped.
// Any input gives some output or none.
std::vector<uint8_t> ReadVideoRangeH264(const uint8_t* data, size_t size);
std::vector<uint8_t> ReadVideoRangeHEVC(const uint8_t* data, size_t size);

// Removes the emulation-prevention bytes of a NAL unit: every 03 that follows two zero bytes.
std::vector<uint8_t> RemoveEmulationPrevention(const uint8_t* data, size_t size);
