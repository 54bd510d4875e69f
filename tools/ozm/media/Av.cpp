#include "tools/ozm/media/Av.h"

#include <cstdarg>
#include <cstdio>

namespace OzmTool::Av {

std::string ErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

int Check(int code, const std::string& what) {
  if (code < 0) throw ToolError(what + ": " + ErrorText(code));
  return code;
}

namespace {

// FFmpeg's errors as lines of their own, without the address of the object that logged them.
void LogLine(void* object, int level, const char* format, va_list args) {
  if (level > av_log_get_level()) return;
  char line[1024];
  int prefix = 0;
  av_log_format_line2(object, level, format, args, line, sizeof(line), &prefix);
  std::string text = line;
  const size_t at = text.find(" @ 0x");
  const size_t close = text.find("] ");
  if (text.rfind("[", 0) == 0 && at != std::string::npos && close != std::string::npos && at < close) {
    text = text.substr(1, at - 1) + ": " + text.substr(close + 2);
  }
  while (!text.empty() && text.back() == '\n') text.pop_back();
  if (!text.empty()) std::fprintf(stderr, "ffmpeg: %s\n", text.c_str());
}

}  // namespace

void QuietLibraryLogs() {
  av_log_set_level(AV_LOG_ERROR);
  av_log_set_callback(LogLine);
}

FramePtr NewFrame() {
  FramePtr f(av_frame_alloc());
  if (!f) throw ToolError("out of memory (picture)");
  return f;
}

PacketPtr NewPacket() {
  PacketPtr p(av_packet_alloc());
  if (!p) throw ToolError("out of memory (packet)");
  return p;
}

FramePtr NewPicture(int width, int height, AVPixelFormat format) {
  FramePtr f = NewFrame();
  f->width = width;
  f->height = height;
  f->format = format;
  Check(av_frame_get_buffer(f.get(), 0),
        "cannot allocate a " + std::to_string(width) + "x" + std::to_string(height) + " picture");
  return f;
}

InputPtr OpenInput(const std::string& path) {
  AVFormatContext* raw = nullptr;
  const int opened = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
  if (opened < 0) throw ToolError("cannot open " + path + ": " + ErrorText(opened));
  InputPtr input(raw);
  Check(avformat_find_stream_info(input.get(), nullptr), path + ": cannot read the stream information");
  return input;
}

SwsContext* Scaler::ContextFor(int width, int height, AVPixelFormat format) {
  if (!m_context || width != m_srcWidth || height != m_srcHeight || format != m_srcFormat) {
    m_context.reset(
        sws_getContext(width, height, format, m_width, m_height, m_format, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!m_context) {
      const char* name = av_get_pix_fmt_name(format);
      throw ToolError(std::string("cannot convert pictures from ") + (name ? name : "an unknown format") + " " +
                      std::to_string(width) + "x" + std::to_string(height));
    }
    m_srcWidth = width;
    m_srcHeight = height;
    m_srcFormat = format;
  }
  return m_context.get();
}

void Scaler::Convert(const AVFrame* src, AVFrame* dst) {
  SwsContext* sws = ContextFor(src->width, src->height, static_cast<AVPixelFormat>(src->format));
  Check(av_frame_make_writable(dst), "picture buffer");
  sws_scale(sws, src->data, src->linesize, 0, src->height, dst->data, dst->linesize);
}

void Scaler::ConvertPacked(const uint8_t* data, int stride, int width, int height, AVPixelFormat format, AVFrame* dst) {
  SwsContext* sws = ContextFor(width, height, format);
  Check(av_frame_make_writable(dst), "picture buffer");
  const uint8_t* planes[4] = {data, nullptr, nullptr, nullptr};
  const int strides[4] = {stride, 0, 0, 0};
  sws_scale(sws, planes, strides, 0, height, dst->data, dst->linesize);
}

}  // namespace OzmTool::Av
