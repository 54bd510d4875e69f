// PNG files of 8-bit RGB pictures (libpng).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace OzmTool {

// Writes rows of width * 3 bytes, `stride` bytes apart. Throws ToolError when it cannot. The zlib
// level trades size for speed (1 fastest, 9 smallest).
void WritePng(const std::string& path, int width, int height, const uint8_t* rgb, int stride, int level = 6);
std::vector<uint8_t> EncodePng(int width, int height, const uint8_t* rgb, int stride, int level = 6);

}  // namespace OzmTool
