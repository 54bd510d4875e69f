// Picture size and frame rate from an H.264 or HEVC sequence parameter set.
#pragma once

#include <cstdint>
#include <string>

class SPSParser {
 public:
  // Both take the parameter set without start code and without the NAL header byte(s), with the
  // emulation-prevention bytes already removed. They return false, with the reason in m_error, when
  // the set is truncated, malformed or of a kind this player does not play; the outputs are then
  // left as they were. Every read is bounds-checked.
  //
  // H.264: the crop unit is always 2 (4:2:0 progressive video), the frame rate is
  // time_scale / (2 * num_units_in_tick).
  bool ParseH264(const unsigned char* rbsp, unsigned short size);
  // HEVC: the crop unit follows the chroma format, the frame rate is time_scale / num_units_in_tick.
  // Only streams with a single temporal sub-layer are accepted.
  bool ParseHEVC(const unsigned char* rbsp, unsigned short size);

  // Outputs. The frame rate changes only when the set carries usable timing information, so a caller
  // may preset it with a default.
  int32_t m_width = 0;
  int32_t m_height = 0;
  int32_t m_frameRate = 0;

  // Why the last parse failed; empty after a success.
  std::string m_error;
};
