#include "input/SPSParser.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

// Larger than any picture either standard's levels allow (both stop near 16 888 samples a side);
// anything beyond comes from a broken or hostile parameter set.
constexpr int64_t kMaxDimension = 32768;

// Reads a bit string most significant bit first. A read past the end marks the reader as failed and
// returns 0, as does every later read, so a walk may check for failure at its section ends only.
class BitReader {
 public:
  BitReader(const unsigned char* data, size_t size) : m_data(data), m_bits(data ? size * 8 : 0) {}

  // n is at most 32.
  uint32_t Bits(unsigned n) {
    if (m_failed) return 0;
    if (n > m_bits - m_pos) {
      m_failed = true;
      return 0;
    }
    uint32_t value = 0;
    for (unsigned i = 0; i < n; ++i, ++m_pos) value = (value << 1) | ((m_data[m_pos >> 3] >> (7 - (m_pos & 7))) & 1u);
    return value;
  }

  bool Flag() { return Bits(1) != 0; }

  void Skip(size_t n) {
    if (m_failed) return;
    if (n > m_bits - m_pos) {
      m_failed = true;
      return;
    }
    m_pos += n;
  }

  // Unsigned Exp-Golomb: n leading zero bits, a one, then n bits; the value is 2^n - 1 + those bits.
  // Codes with more than 31 leading zeros do not fit 32 bits and fail.
  uint32_t UE() {
    unsigned zeros = 0;
    for (;;) {
      const uint32_t bit = Bits(1);
      if (m_failed) return 0;
      if (bit) break;
      if (++zeros > 31) {
        m_failed = true;
        m_tooLong = true;
        return 0;
      }
    }
    return static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + Bits(zeros));
  }

  // Signed Exp-Golomb: 1, 2, 3, 4 ... map to 1, -1, 2, -2 ...
  int64_t SE() {
    const uint32_t k = UE();
    return (k & 1) ? static_cast<int64_t>((uint64_t{k} + 1) / 2) : -static_cast<int64_t>(k / 2);
  }

  bool Failed() const { return m_failed; }
  bool TooLong() const { return m_tooLong; }

 private:
  const unsigned char* m_data;
  size_t m_bits;
  size_t m_pos = 0;
  bool m_failed = false;
  bool m_tooLong = false;
};

// Why a walk stopped at the end of the named section, or an empty text when it did not.
std::string ReaderFailure(const BitReader& r, const char* section) {
  if (!r.Failed()) return {};
  if (r.TooLong()) return std::string("Exp-Golomb code with more than 31 leading zero bits in ") + section;
  return std::string("data ends inside ") + section;
}

// The frame rate of VUI timing information, or 0 when it gives no usable rate (no tick length, or
// less than one frame per second).
int32_t FrameRate(uint32_t timeScale, uint64_t ticksPerFrame) {
  if (ticksPerFrame == 0) return 0;
  const uint64_t rate = timeScale / ticksPerFrame;
  return rate <= INT32_MAX ? static_cast<int32_t>(rate) : 0;
}

bool IsDimension(int64_t v) { return v > 0 && v <= kMaxDimension; }

// H.264 scaling_list(): the deltas are read until a delta brings the next scale to 0.
bool SkipH264ScalingList(BitReader& r, int size) {
  int64_t lastScale = 8;
  int64_t nextScale = 8;
  for (int j = 0; j < size && !r.Failed(); ++j) {
    if (nextScale != 0) {
      const int64_t deltaScale = r.SE();
      if (deltaScale < -128 || deltaScale > 127) return false;
      nextScale = (lastScale + deltaScale + 256) % 256;
    }
    if (nextScale != 0) lastScale = nextScale;
  }
  return true;
}

// Profiles whose sequence parameter set carries chroma format, bit depths and scaling matrices.
bool HasH264ChromaInfo(uint32_t profileIdc) {
  switch (profileIdc) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
    case 138:
    case 139:
    case 134:
    case 135: return true;
    default: return false;
  }
}

// H.264 and HEVC VUI start alike: aspect ratio, overscan, video signal type, chroma location.
void SkipVuiPictureFields(BitReader& r) {
  if (r.Flag()) {                      // aspect_ratio_info_present_flag
    if (r.Bits(8) == 255) r.Skip(32);  // Extended_SAR: sar_width, sar_height
  }
  if (r.Flag()) r.Skip(1);     // overscan_info_present_flag, overscan_appropriate_flag
  if (r.Flag()) {              // video_signal_type_present_flag
    r.Skip(4);                 // video_format, video_full_range_flag
    if (r.Flag()) r.Skip(24);  // colour_primaries, transfer_characteristics, matrix_coeffs
  }
  if (r.Flag()) {  // chroma_loc_info_present_flag
    r.UE();
    r.UE();
  }
}

// HEVC profile_tier_level(1, maxSubLayersMinus1).
void SkipHevcProfileTierLevel(BitReader& r, unsigned maxSubLayersMinus1) {
  // general_profile_space .. general_inbld_flag/reserved (88 bits), general_level_idc.
  r.Skip(88 + 8);
  bool profilePresent[8] = {};
  bool levelPresent[8] = {};
  for (unsigned i = 0; i < maxSubLayersMinus1; ++i) {
    profilePresent[i] = r.Flag();
    levelPresent[i] = r.Flag();
  }
  if (maxSubLayersMinus1 > 0) {
    for (unsigned i = maxSubLayersMinus1; i < 8; ++i) r.Skip(2);  // reserved_zero_2bits
  }
  for (unsigned i = 0; i < maxSubLayersMinus1; ++i) {
    if (profilePresent[i]) r.Skip(88);
    if (levelPresent[i]) r.Skip(8);
  }
}

// HEVC scaling_list_data().
void SkipHevcScalingListData(BitReader& r) {
  for (int sizeId = 0; sizeId < 4; ++sizeId) {
    for (int matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
      if (!r.Flag()) {  // scaling_list_pred_mode_flag
        r.UE();         // scaling_list_pred_matrix_id_delta
        continue;
      }
      const int coefNum = sizeId == 0 ? 16 : 64;
      if (sizeId > 1) r.SE();                                   // scaling_list_dc_coef_minus8
      for (int i = 0; i < coefNum && !r.Failed(); ++i) r.SE();  // scaling_list_delta_coef
    }
  }
}

// HEVC st_ref_pic_set() for every set of the SPS. A set predicted from the one before it has one
// used/use-delta pair per picture of that set plus one; the count of pictures it keeps is needed by
// the next set.
bool SkipHevcShortTermRefPicSets(BitReader& r, uint32_t count, std::string& why) {
  constexpr uint32_t kMaxPicturesPerDirection = 16;
  std::vector<uint32_t> numDeltaPocs(count, 0);
  for (uint32_t idx = 0; idx < count; ++idx) {
    const bool predicted = idx != 0 && r.Flag();  // inter_ref_pic_set_prediction_flag
    if (predicted) {
      r.Skip(1);  // delta_rps_sign
      r.UE();     // abs_delta_rps_minus1
      uint32_t kept = 0;
      for (uint32_t j = 0; j <= numDeltaPocs[idx - 1] && !r.Failed(); ++j) {
        const bool usedByCurrPic = r.Flag();
        if (usedByCurrPic || r.Flag()) ++kept;  // use_delta_flag is read only for unused pictures
      }
      numDeltaPocs[idx] = kept;
    } else {
      const uint32_t negative = r.UE();
      const uint32_t positive = r.UE();
      if (negative > kMaxPicturesPerDirection || positive > kMaxPicturesPerDirection) {
        why = "short-term reference picture set with more than 16 pictures in one direction";
        return false;
      }
      for (uint32_t i = 0; i < negative + positive; ++i) {
        r.UE();     // delta_poc_s0/s1_minus1
        r.Skip(1);  // used_by_curr_pic_s0/s1_flag
      }
      numDeltaPocs[idx] = negative + positive;
    }
    if (r.Failed()) {
      why = ReaderFailure(r, "the short-term reference picture sets");
      return false;
    }
  }
  return true;
}

}  // namespace

bool SPSParser::ParseH264(const unsigned char* rbsp, unsigned short size) {
  m_error.clear();
  const auto fail = [this](const std::string& why) {
    m_error = "H.264 sequence parameter set: " + why;
    return false;
  };
  BitReader r(rbsp, size);

  const uint32_t profileIdc = r.Bits(8);
  r.Skip(16);  // constraint_set flags and reserved bits, level_idc
  r.UE();      // seq_parameter_set_id
  uint32_t chromaFormatIdc = 1;
  if (HasH264ChromaInfo(profileIdc)) {
    chromaFormatIdc = r.UE();
    if (r.Failed()) return fail(ReaderFailure(r, "the chroma format"));
    if (chromaFormatIdc > 3) return fail("chroma_format_idc " + std::to_string(chromaFormatIdc) + " is not 0 to 3");
    if (chromaFormatIdc == 3) r.Skip(1);  // separate_colour_plane_flag
    r.UE();                               // bit_depth_luma_minus8
    r.UE();                               // bit_depth_chroma_minus8
    r.Skip(1);                            // qpprime_y_zero_transform_bypass_flag
    if (r.Flag()) {                       // seq_scaling_matrix_present_flag
      const int lists = chromaFormatIdc != 3 ? 8 : 12;
      for (int i = 0; i < lists; ++i) {
        if (r.Flag() && !SkipH264ScalingList(r, i < 6 ? 16 : 64)) {
          return fail("delta_scale outside -128 to 127 in a scaling list");
        }
      }
    }
  }
  r.UE();  // log2_max_frame_num_minus4
  const uint32_t picOrderCntType = r.UE();
  if (r.Failed()) return fail(ReaderFailure(r, "the header fields"));
  if (picOrderCntType == 0) {
    r.UE();  // log2_max_pic_order_cnt_lsb_minus4
  } else if (picOrderCntType == 1) {
    r.Skip(1);  // delta_pic_order_always_zero_flag
    r.SE();     // offset_for_non_ref_pic
    r.SE();     // offset_for_top_to_bottom_field
    const uint32_t cycle = r.UE();
    if (cycle > 255) return fail("num_ref_frames_in_pic_order_cnt_cycle " + std::to_string(cycle) + " above 255");
    for (uint32_t i = 0; i < cycle && !r.Failed(); ++i) r.SE();  // offset_for_ref_frame
  } else if (picOrderCntType != 2) {
    return fail("pic_order_cnt_type " + std::to_string(picOrderCntType) + " is not 0 to 2");
  }
  r.UE();     // max_num_ref_frames
  r.Skip(1);  // gaps_in_frame_num_value_allowed_flag
  const uint32_t widthInMbsMinus1 = r.UE();
  const uint32_t heightInMapUnitsMinus1 = r.UE();
  const bool frameMbsOnly = r.Flag();
  if (!frameMbsOnly) r.Skip(1);  // mb_adaptive_frame_field_flag
  r.Skip(1);                     // direct_8x8_inference_flag
  int64_t cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0;
  if (r.Flag()) {  // frame_cropping_flag
    cropLeft = r.UE();
    cropRight = r.UE();
    cropTop = r.UE();
    cropBottom = r.UE();
  }
  const bool vuiPresent = r.Flag();
  if (r.Failed()) return fail(ReaderFailure(r, "the picture size"));

  // The crop unit is 2 in both directions: this player takes 4:2:0 progressive video.
  const int64_t width = (int64_t{widthInMbsMinus1} + 1) * 16 - 2 * (cropLeft + cropRight);
  const int64_t height =
      (frameMbsOnly ? 1 : 2) * (int64_t{heightInMapUnitsMinus1} + 1) * 16 - 2 * (cropTop + cropBottom);
  if (!IsDimension(width) || !IsDimension(height)) {
    return fail("picture size " + std::to_string(width) + "x" + std::to_string(height) + " after cropping");
  }

  int32_t frameRate = m_frameRate;
  if (vuiPresent) {
    SkipVuiPictureFields(r);
    if (r.Flag()) {  // timing_info_present_flag
      const uint32_t numUnitsInTick = r.Bits(32);
      const uint32_t timeScale = r.Bits(32);
      // A frame lasts two ticks (one per field).
      const int32_t rate = FrameRate(timeScale, 2 * uint64_t{numUnitsInTick});
      if (rate > 0) frameRate = rate;
    }
    if (r.Failed()) return fail(ReaderFailure(r, "the VUI parameters"));
  }

  m_width = static_cast<int32_t>(width);
  m_height = static_cast<int32_t>(height);
  m_frameRate = frameRate;
  return true;
}

bool SPSParser::ParseHEVC(const unsigned char* rbsp, unsigned short size) {
  m_error.clear();
  const auto fail = [this](const std::string& why) {
    m_error = "HEVC sequence parameter set: " + why;
    return false;
  };
  BitReader r(rbsp, size);

  r.Skip(4);  // sps_video_parameter_set_id
  const unsigned maxSubLayersMinus1 = r.Bits(3);
  r.Skip(1);  // sps_temporal_id_nesting_flag
  SkipHevcProfileTierLevel(r, maxSubLayersMinus1);
  if (r.Failed()) return fail(ReaderFailure(r, "profile_tier_level"));
  if (maxSubLayersMinus1 != 0) {
    return fail("sps_max_sub_layers_minus1 == 0 does not hold (it is " + std::to_string(maxSubLayersMinus1) +
                "): only streams with a single temporal sub-layer are played");
  }

  r.UE();  // sps_seq_parameter_set_id
  const uint32_t chromaFormatIdc = r.UE();
  if (r.Failed()) return fail(ReaderFailure(r, "the chroma format"));
  if (chromaFormatIdc > 3) return fail("chroma_format_idc " + std::to_string(chromaFormatIdc) + " is not 0 to 3");
  bool separateColourPlanes = false;
  if (chromaFormatIdc == 3) separateColourPlanes = r.Flag();
  const uint32_t picWidth = r.UE();
  const uint32_t picHeight = r.UE();
  int64_t confLeft = 0, confRight = 0, confTop = 0, confBottom = 0;
  if (r.Flag()) {  // conformance_window_flag
    confLeft = r.UE();
    confRight = r.UE();
    confTop = r.UE();
    confBottom = r.UE();
  }
  if (r.Failed()) return fail(ReaderFailure(r, "the picture size"));

  // The conformance window counts chroma samples: two luma samples across for 4:2:0 and 4:2:2, two
  // down for 4:2:0 only, one for monochrome, 4:4:4 and separately coded colour planes.
  const unsigned chromaArrayType = separateColourPlanes ? 0 : chromaFormatIdc;
  const int64_t subWidthC = chromaArrayType == 1 || chromaArrayType == 2 ? 2 : 1;
  const int64_t subHeightC = chromaArrayType == 1 ? 2 : 1;
  const int64_t width = int64_t{picWidth} - subWidthC * (confLeft + confRight);
  const int64_t height = int64_t{picHeight} - subHeightC * (confTop + confBottom);
  if (!IsDimension(width) || !IsDimension(height)) {
    return fail("picture size " + std::to_string(width) + "x" + std::to_string(height) + " after cropping");
  }

  r.UE();  // bit_depth_luma_minus8
  r.UE();  // bit_depth_chroma_minus8
  const uint32_t log2MaxPocLsbMinus4 = r.UE();
  if (r.Failed()) return fail(ReaderFailure(r, "the bit depths"));
  if (log2MaxPocLsbMinus4 > 12) {
    return fail("log2_max_pic_order_cnt_lsb_minus4 " + std::to_string(log2MaxPocLsbMinus4) + " above 12");
  }
  const bool orderingInfoForEachSubLayer = r.Flag();  // sps_sub_layer_ordering_info_present_flag
  for (unsigned i = orderingInfoForEachSubLayer ? 0 : maxSubLayersMinus1; i <= maxSubLayersMinus1; ++i) {
    r.UE();  // sps_max_dec_pic_buffering_minus1
    r.UE();  // sps_max_num_reorder_pics
    r.UE();  // sps_max_latency_increase_plus1
  }
  // Coding block and transform block sizes, transform hierarchy depths.
  for (int i = 0; i < 6; ++i) r.UE();
  if (r.Flag() && r.Flag())
    SkipHevcScalingListData(r);  // scaling_list_enabled_flag, sps_scaling_list_data_present_flag
  r.Skip(2);                     // amp_enabled_flag, sample_adaptive_offset_enabled_flag
  if (r.Flag()) {                // pcm_enabled_flag
    r.Skip(8);                   // pcm_sample_bit_depth_luma_minus1, pcm_sample_bit_depth_chroma_minus1
    r.UE();                      // log2_min_pcm_luma_coding_block_size_minus3
    r.UE();                      // log2_diff_max_min_pcm_luma_coding_block_size
    r.Skip(1);                   // pcm_loop_filter_disabled_flag
  }
  const uint32_t shortTermSets = r.UE();
  if (r.Failed()) return fail(ReaderFailure(r, "the coding tools"));
  if (shortTermSets > 64) return fail("num_short_term_ref_pic_sets " + std::to_string(shortTermSets) + " above 64");
  std::string why;
  if (!SkipHevcShortTermRefPicSets(r, shortTermSets, why)) return fail(why);
  if (r.Flag()) {  // long_term_ref_pics_present_flag
    const uint32_t longTerm = r.UE();
    if (longTerm > 32) return fail("num_long_term_ref_pics_sps " + std::to_string(longTerm) + " above 32");
    for (uint32_t i = 0; i < longTerm; ++i) r.Skip(log2MaxPocLsbMinus4 + 4 + 1);  // lt_ref_pic_poc_lsb_sps, used flag
  }
  r.Skip(2);  // sps_temporal_mvp_enabled_flag, strong_intra_smoothing_enabled_flag
  const bool vuiPresent = r.Flag();
  if (r.Failed()) return fail(ReaderFailure(r, "the reference picture fields"));

  int32_t frameRate = m_frameRate;
  if (vuiPresent) {
    SkipVuiPictureFields(r);
    r.Skip(3);       // neutral_chroma_indication_flag, field_seq_flag, frame_field_info_present_flag
    if (r.Flag()) {  // default_display_window_flag
      for (int i = 0; i < 4; ++i) r.UE();
    }
    if (r.Flag()) {  // vui_timing_info_present_flag
      const uint32_t numUnitsInTick = r.Bits(32);
      const uint32_t timeScale = r.Bits(32);
      const int32_t rate = FrameRate(timeScale, numUnitsInTick);
      if (rate > 0) frameRate = rate;
    }
    if (r.Failed()) return fail(ReaderFailure(r, "the VUI parameters"));
  }

  m_width = static_cast<int32_t>(width);
  m_height = static_cast<int32_t>(height);
  m_frameRate = frameRate;
  return true;
}
