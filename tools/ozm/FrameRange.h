// "A:B" (frames A to B, both included, counted from 0) or "N" (one frame) on the command line.
#pragma once

#include <cstdint>
#include <regex>
#include <string>

#include "tools/ozm/ToolError.h"

namespace OzmTool {

struct FrameRange {
  int64_t first = 0;
  int64_t last = INT64_MAX;
  bool Contains(int64_t i) const { return i >= first && i <= last; }
};

inline FrameRange ParseFrameRange(const std::string& text) {
  std::smatch m;
  if (std::regex_match(text, m, std::regex(R"((\d{1,9}))"))) {
    const int64_t n = std::stoll(m[1]);
    return {n, n};
  }
  if (!std::regex_match(text, m, std::regex(R"((\d{0,9}):(\d{0,9}))"))) {
    throw ToolError("--frames takes FIRST:LAST or one frame number (counted from 0), not \"" + text + "\"");
  }
  FrameRange r;
  if (m[1].length()) r.first = std::stoll(m[1]);
  if (m[2].length()) r.last = std::stoll(m[2]);
  if (r.last < r.first) throw ToolError("--frames " + text + ": the last frame comes before the first");
  return r;
}

}  // namespace OzmTool
