#include "tools/ozm/media/Png.h"

#include <png.h>

#include <cstdio>

#include "tools/ozm/ToolError.h"

namespace OzmTool {
namespace {

void OnPngError(png_structp png, png_const_charp message) {
  *static_cast<std::string*>(png_get_error_ptr(png)) = message;
  png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

void AppendBytes(png_structp png, png_bytep data, png_size_t size) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + size);
}

void NoFlush(png_structp) {}

}  // namespace

std::vector<uint8_t> EncodePng(int width, int height, const uint8_t* rgb, int stride, int level) {
  std::vector<uint8_t> out;
  std::string error;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &error, OnPngError, OnPngWarning);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!png || !info) {
    png_destroy_write_struct(&png, nullptr);
    throw ToolError("out of memory (PNG)");
  }
  // libpng reports errors by jumping back here; nothing with a destructor is made in between.
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    throw ToolError("cannot encode a PNG picture: " + error);
  }
  png_set_write_fn(png, &out, AppendBytes, NoFlush);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_compression_level(png, level);
  png_write_info(png, info);
  for (int y = 0; y < height; ++y) png_write_row(png, const_cast<png_bytep>(rgb + static_cast<ptrdiff_t>(y) * stride));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

void WritePng(const std::string& path, int width, int height, const uint8_t* rgb, int stride, int level) {
  const std::vector<uint8_t> bytes = EncodePng(width, height, rgb, stride, level);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) throw ToolError("cannot write " + path);
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  if (std::fclose(file) != 0 || !ok) throw ToolError("cannot write " + path);
}

}  // namespace OzmTool
