#include "input/HlsTrackFormats.h"

#include <limits>

#include "input/SPSParser.h"

namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};

enum class Codec { H264, HEVC };

uint32_t NalType(Codec codec, uint8_t headerByte) {
  return codec == Codec::HEVC ? (headerByte >> 1) & 63u : headerByte & 31u;
}

bool IsAccessUnitDelimiter(Codec codec, uint8_t headerByte) {
  return NalType(codec, headerByte) == (codec == Codec::HEVC ? 35u : 9u);
}

// Position of the next three-byte start code 00 00 01 at or after `from`, or `size`.
size_t FindStartCode(const uint8_t* data, size_t size, size_t from) {
  for (size_t i = from; i + 2 < size; ++i) {
    if (data[i + 2] > 1) {
      i += 2;  // no start code can begin at i, i + 1 or i + 2
    } else if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
      return i;
    }
  }
  return size;
}

// Calls visit(begin, end) for each non-empty NAL unit of an Annex B byte sequence. A unit ends at the
// next start code; the zero bytes in front of a start code (the first byte of a 4-byte start code,
// or padding) are left out, since a NAL unit never ends in a zero byte. Bytes in front of the first
// start code form a unit of their own: a sequence may begin directly with a NAL header byte, and one
// that begins with a start code gives only zero bytes there, which are dropped.
template <typename Visit>
void ForEachNalUnit(const uint8_t* data, size_t size, Visit&& visit) {
  if (data == nullptr) return;
  for (size_t begin = 0; begin < size;) {
    const size_t startCode = FindStartCode(data, size, begin);
    size_t end = startCode;
    while (end > begin && data[end - 1] == 0) --end;
    if (end > begin) visit(data + begin, data + end);
    begin = startCode + 3;
  }
}

std::vector<uint8_t> ReadVideoRange(Codec codec, const uint8_t* data, size_t size) {
  std::vector<uint8_t> sample;
  sample.reserve(size + 8);
  ForEachNalUnit(data, size, [&](const uint8_t* begin, const uint8_t* end) {
    if (IsAccessUnitDelimiter(codec, *begin)) return;
    sample.insert(sample.end(), std::begin(kStartCode), std::end(kStartCode));
    sample.insert(sample.end(), begin, end);
  });
  return sample;
}

bool ReadVideoFormatDescriptor(Codec codec, const uint8_t* data, size_t size, ParameterSets& sets,
                               VideoParameters& video, std::string* error) {
  const auto fail = [error](const std::string& why) {
    if (error) *error = why;
    return false;
  };
  const size_t headerBytes = codec == Codec::HEVC ? 2 : 1;
  std::vector<uint8_t>* const targets[3] = {&sets.vps, &sets.sps, &sets.pps};
  bool found[3] = {false, false, false};
  ForEachNalUnit(data, size, [&](const uint8_t* begin, const uint8_t* end) {
    if (static_cast<size_t>(end - begin) < headerBytes) return;
    // Parameter sets of enhancement layers describe pictures this player does not decode.
    if (codec == Codec::HEVC && (((begin[0] & 1) << 5) | (begin[1] >> 3)) != 0) return;
    // Index into targets: HEVC types 32 to 34, H.264 types 7 and 8 (SEI, 6, is passed over).
    const uint32_t type = NalType(codec, begin[0]);
    int kind = -1;
    if (codec == Codec::HEVC && type >= 32 && type <= 34) kind = static_cast<int>(type - 32);
    if (codec == Codec::H264 && (type == 7 || type == 8)) kind = static_cast<int>(type - 6);
    if (kind < 0 || found[kind]) return;
    targets[kind]->assign(begin, end);
    found[kind] = true;
  });
  const char* name = codec == Codec::HEVC ? "HEVC" : "H.264";
  if (!found[1]) return fail(std::string("no ") + name + " sequence parameter set in the access unit");
  if (sets.sps.size() <= headerBytes) return fail(std::string(name) + " sequence parameter set without content");

  const std::vector<uint8_t> rbsp =
      RemoveEmulationPrevention(sets.sps.data() + headerBytes, sets.sps.size() - headerBytes);
  if (rbsp.size() > std::numeric_limits<unsigned short>::max()) {
    return fail(std::string(name) + " sequence parameter set of " + std::to_string(rbsp.size()) + " bytes is too long");
  }
  SPSParser parser;
  parser.m_frameRate = video.frameRate;
  const auto rbspSize = static_cast<unsigned short>(rbsp.size());
  const bool parsed =
      codec == Codec::HEVC ? parser.ParseHEVC(rbsp.data(), rbspSize) : parser.ParseH264(rbsp.data(), rbspSize);
  if (!parsed) return fail(parser.m_error);
  video.width = parser.m_width;
  video.height = parser.m_height;
  video.frameRate = parser.m_frameRate;
  return true;
}

void AppendWithStartCode(std::vector<uint8_t>& out, const std::vector<uint8_t>& unit) {
  out.insert(out.end(), std::begin(kStartCode), std::end(kStartCode));
  out.insert(out.end(), unit.begin(), unit.end());
}

}  // namespace

bool ReadVideoFormatDescriptorH264(const uint8_t* data, size_t size, ParameterSets& sets, VideoParameters& video,
                                   std::string* error) {
  return ReadVideoFormatDescriptor(Codec::H264, data, size, sets, video, error);
}

bool ReadVideoFormatDescriptorHEVC(const uint8_t* data, size_t size, ParameterSets& sets, VideoParameters& video,
                                   std::string* error) {
  return ReadVideoFormatDescriptor(Codec::HEVC, data, size, sets, video, error);
}

std::vector<uint8_t> HevcCsd0(const ParameterSets& sets) {
  std::vector<uint8_t> csd;
  AppendWithStartCode(csd, sets.vps);
  AppendWithStartCode(csd, sets.sps);
  AppendWithStartCode(csd, sets.pps);
  return csd;
}

std::vector<uint8_t> H264Csd0(const ParameterSets& sets) {
  std::vector<uint8_t> csd;
  AppendWithStartCode(csd, sets.sps);
  return csd;
}

std::vector<uint8_t> H264Csd1(const ParameterSets& sets) {
  std::vector<uint8_t> csd;
  AppendWithStartCode(csd, sets.pps);
  return csd;
}

std::array<uint8_t, 2> AacAudioSpecificConfig(int profile, int samplingFrequencyIndex, int channelConfiguration) {
  const unsigned objectType = static_cast<unsigned>(profile) + 1;
  const auto index = static_cast<unsigned>(samplingFrequencyIndex);
  const auto channels = static_cast<unsigned>(channelConfiguration);
  return {static_cast<uint8_t>((objectType << 3) | (index >> 1)), static_cast<uint8_t>((index << 7) | (channels << 3))};
}

std::vector<uint8_t> ReadVideoRangeH264(const uint8_t* data, size_t size) {
  return ReadVideoRange(Codec::H264, data, size);
}

std::vector<uint8_t> ReadVideoRangeHEVC(const uint8_t* data, size_t size) {
  return ReadVideoRange(Codec::HEVC, data, size);
}

std::vector<uint8_t> RemoveEmulationPrevention(const uint8_t* data, size_t size) {
  std::vector<uint8_t> out;
  if (data == nullptr) return out;
  out.reserve(size);
  int zeros = 0;
  for (size_t i = 0; i < size; ++i) {
    if (zeros >= 2 && data[i] == 3) {
      zeros = 0;
      continue;
    }
    zeros = data[i] == 0 ? zeros + 1 : 0;
    out.push_back(data[i]);
  }
  return out;
}
