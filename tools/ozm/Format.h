// Small helpers for the printed reports.
#pragma once

#include <cstdint>
#include <string>

namespace OzmTool {

// 1234567 -> "1,234,567".
inline std::string Thousands(uint64_t n) {
  std::string digits = std::to_string(n), out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

// True when s ends with the suffix, ignoring case.
inline bool EndsWithNoCase(const std::string& s, const std::string& suffix) {
  if (s.size() < suffix.size()) return false;
  for (size_t i = 0; i < suffix.size(); ++i) {
    char a = s[s.size() - suffix.size() + i], b = suffix[i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
    if (a != b) return false;
  }
  return true;
}

// A playlist of segments: HLS, which encode writes and inspect and export read.
inline bool IsPlaylist(const std::string& path) { return EndsWithNoCase(path, ".m3u8"); }

}  // namespace OzmTool
