#include "tools/ozm/media/NalUnits.h"

namespace OzmTool {
namespace {

// Offset of the next 00 00 01 at or after `from`, or size.
size_t FindStartCode(const uint8_t* data, size_t size, size_t from) {
  for (size_t i = from; i + 3 <= size; ++i) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
  }
  return size;
}

}  // namespace

std::vector<NalSpan> SplitAnnexB(const uint8_t* data, size_t size) {
  std::vector<NalSpan> units;
  size_t code = FindStartCode(data, size, 0);
  while (code < size) {
    const size_t begin = code + 3;
    const size_t next = FindStartCode(data, size, begin);
    size_t end = next;
    while (end > begin && data[end - 1] == 0) --end;  // the zero byte of a 4-byte start code, or trailing zeros
    if (end > begin) units.push_back({begin, end});
    code = next;
  }
  return units;
}

bool SplitLengthPrefixed(const uint8_t* data, size_t size, int lengthSize, std::vector<NalSpan>* units) {
  units->clear();
  size_t pos = 0;
  while (pos < size) {
    if (size - pos < static_cast<size_t>(lengthSize)) return false;
    size_t length = 0;
    for (int i = 0; i < lengthSize; ++i) length = (length << 8) | data[pos + static_cast<size_t>(i)];
    pos += static_cast<size_t>(lengthSize);
    if (length > size - pos) return false;
    units->push_back({pos, pos + length});
    pos += length;
  }
  return true;
}

int NalType(VideoCodec codec, uint8_t headerByte) {
  return codec == VideoCodec::H264 ? headerByte & 0x1F : (headerByte >> 1) & 0x3F;
}

bool IsPictureUnit(VideoCodec codec, const uint8_t* unit, size_t size) {
  if (size == 0) return false;
  const int type = NalType(codec, unit[0]);
  if (codec == VideoCodec::H264) return type >= 1 && type <= 5;
  // HEVC: types 0 to 31 with a two-byte header whose layer id is 0.
  if (size < 2) return false;
  const int layer = ((unit[0] & 0x01) << 5) | (unit[1] >> 3);
  return type <= 31 && layer == 0;
}

std::vector<uint8_t> InsertBeforeFirstPicture(VideoCodec codec, const uint8_t* au, size_t size,
                                              const std::vector<uint8_t>& units) {
  size_t at = size;
  for (const NalSpan& nal : SplitAnnexB(au, size)) {
    if (IsPictureUnit(codec, au + nal.begin, nal.end - nal.begin)) {
      at = nal.begin - 3;
      if (at > 0 && au[at - 1] == 0) --at;  // keep a 4-byte start code whole
      break;
    }
  }
  std::vector<uint8_t> out;
  out.reserve(size + units.size());
  out.insert(out.end(), au, au + at);
  out.insert(out.end(), units.begin(), units.end());
  out.insert(out.end(), au + at, au + size);
  return out;
}

bool StartsWithDelimiter(VideoCodec codec, const uint8_t* au, size_t size) {
  const std::vector<NalSpan> units = SplitAnnexB(au, size);
  if (units.empty()) return false;
  const int type = NalType(codec, au[units[0].begin]);
  return codec == VideoCodec::H264 ? type == 9 : type == 35;
}

std::vector<uint8_t> WithDelimiter(VideoCodec codec, std::vector<uint8_t> au) {
  if (StartsWithDelimiter(codec, au.data(), au.size())) return au;
  // H.264: type 9, primary_pic_type 7 (any slice type). HEVC: type 35, layer 0, temporal id 1,
  // pic_type 2 (any slice type). Each ends with its stop bit.
  static const uint8_t kH264[] = {0, 0, 0, 1, 0x09, 0xF0};
  static const uint8_t kHevc[] = {0, 0, 0, 1, 0x46, 0x01, 0x50};
  const uint8_t* begin = codec == VideoCodec::H264 ? kH264 : kHevc;
  const size_t size = codec == VideoCodec::H264 ? sizeof(kH264) : sizeof(kHevc);
  au.insert(au.begin(), begin, begin + size);
  return au;
}

size_t StoredSize(const uint8_t* au, size_t size) {
  size_t total = 0;
  for (const NalSpan& nal : SplitAnnexB(au, size)) total += 4 + (nal.end - nal.begin);
  return total;
}

}  // namespace OzmTool
