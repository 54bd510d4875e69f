// PNG files of 8-bit RGB pictures (libpng).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace OzmTool {

// Writes rows of width * 3 bytes, `stride` bytes apart. Throws ToolError when it cannot.
void WritePng(const std::string& path, int width, int height, const uint8_t* rgb, int stride);
std::vector<uint8_t> EncodePng(int width, int height, const uint8_t* rgb, int stride);

}  // namespace OzmTool
