// Thin ownership wrappers around the FFmpeg objects the tool uses, and the conversion of FFmpeg
// error codes into ToolError messages.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

#include "tools/ozm/ToolError.h"

namespace OzmTool::Av {

// FFmpeg's text for an error code.
std::string ErrorText(int code);

// Throws ToolError("<what>: <FFmpeg's text>") for a negative code; returns the code otherwise.
int Check(int code, const std::string& what);

// Library messages below errors are not shown; the tool reports what matters itself.
void QuietLibraryLogs();

struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct CodecFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct BsfFree {
  void operator()(AVBSFContext* b) const { av_bsf_free(&b); }
};
struct SwsFree {
  void operator()(SwsContext* s) const { sws_freeContext(s); }
};
struct InputClose {
  void operator()(AVFormatContext* f) const { avformat_close_input(&f); }
};
// An output context owns its I/O context too.
struct OutputClose {
  void operator()(AVFormatContext* f) const {
    if (f && f->pb && !(f->oformat->flags & AVFMT_NOFILE)) avio_closep(&f->pb);
    avformat_free_context(f);
  }
};

using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFree>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfFree>;
using SwsPtr = std::unique_ptr<SwsContext, SwsFree>;
using InputPtr = std::unique_ptr<AVFormatContext, InputClose>;
using OutputPtr = std::unique_ptr<AVFormatContext, OutputClose>;

FramePtr NewFrame();
PacketPtr NewPacket();
// A frame with its own buffers of the given size and pixel format.
FramePtr NewPicture(int width, int height, AVPixelFormat format);

// Opens a media file for reading and reads its stream information.
InputPtr OpenInput(const std::string& path);

// Converts pictures of any size and format to one size and format, keeping a context per source
// geometry.
class Scaler {
 public:
  Scaler(int width, int height, AVPixelFormat format) : m_width(width), m_height(height), m_format(format) {}
  // Scales src into dst, which must have the target geometry.
  void Convert(const AVFrame* src, AVFrame* dst);
  // Scales a packed picture (one plane) into dst.
  void ConvertPacked(const uint8_t* data, int stride, int width, int height, AVPixelFormat format, AVFrame* dst);

 private:
  SwsContext* ContextFor(int width, int height, AVPixelFormat format);
  int m_width, m_height;
  AVPixelFormat m_format;
  SwsPtr m_context;
  int m_srcWidth = 0, m_srcHeight = 0;
  AVPixelFormat m_srcFormat = AV_PIX_FMT_NONE;
};

}  // namespace OzmTool::Av
