#include "tools/ozm/PlayOutput.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "tools/ozm/MeshRenderer.h"
#include "tools/ozm/ToolError.h"
#include "tools/ozm/media/Av.h"
#include "tools/ozm/media/ClipAudio.h"
#include "tools/ozm/media/Mp4Writer.h"
#include "tools/ozm/media/Png.h"
#include "tools/ozm/media/VideoEncoder.h"

namespace OzmTool {
namespace {

// Pictures waiting for the writer before the render thread waits for it: 48 (2 MB each at 960x540),
// fewer when they are large.
constexpr size_t kQueueFrames = 48;
constexpr size_t kQueueBytes = size_t{256} << 20;
// PNG pictures are written for speed rather than size.
constexpr int kPngLevel = 3;

}  // namespace

struct PlayOutput::Writers {
  std::unique_ptr<VideoEncoder> encoder;
  std::unique_ptr<Mp4Writer> mp4;
  std::unique_ptr<Av::Scaler> scaler;
  Av::FramePtr picture;
  int keyInterval = 60;
  std::vector<uint8_t> rgb;    // one picture, top row first
  std::vector<uint8_t> sheet;  // the contact sheet, RGB
  int tileWidth = 0, tileHeight = 0;
  RenderedFrame last;  // the last frame written, for the contact sheet
  bool haveLast = false;
};

PlayOutput::PlayOutput(const OutputSettings& settings) : m_settings(settings), m_writers(std::make_unique<Writers>()) {
  const OutputSettings& s = m_settings;
  const size_t pictureBytes = static_cast<size_t>(std::max(s.width, 1)) * std::max(s.height, 1) * 4;
  m_queueLimit = std::clamp<size_t>(kQueueBytes / pictureBytes, 2, kQueueFrames);
  Writers& w = *m_writers;
  if (!s.video.empty()) {
    VideoSettings video;
    video.codec = VideoCodec::H264;
    video.width = s.width;
    video.height = s.height;
    video.fps = s.fps;
    video.keyInterval = std::max(1, 2 * s.fps);
    video.crf = 20;
    video.preset = "veryfast";
    w.keyInterval = video.keyInterval;
    w.encoder = std::make_unique<VideoEncoder>(video);
    if (s.audio) {
      w.mp4 = std::make_unique<Mp4Writer>(s.video, w.encoder->Context(), s.audio->Parameters(), s.audio->TimeBase());
    } else {
      w.mp4 = std::make_unique<Mp4Writer>(s.video, w.encoder->Context());
    }
    w.scaler = std::make_unique<Av::Scaler>(s.width, s.height, AV_PIX_FMT_YUV420P);
    w.picture = Av::NewPicture(s.width, s.height, AV_PIX_FMT_YUV420P);
  }
  if (!s.folder.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(s.folder, ec);
    if (!std::filesystem::is_directory(s.folder, ec)) throw ToolError("cannot make the folder " + s.folder);
  }
  if (!s.sheet.empty()) {
    // Tiles of half the picture's size, the frames spaced evenly over the expected ones.
    w.tileWidth = std::max(1, s.width / 2);
    w.tileHeight = std::max(1, s.height / 2);
    const uint64_t tiles = static_cast<uint64_t>(std::max(1, s.sheetColumns * s.sheetRows));
    const uint64_t expected = std::max<uint64_t>(s.expectedFrames, 1);
    if (expected <= tiles) {
      for (uint64_t i = 0; i < expected; ++i) m_sheetTargets.push_back(i);
    } else {
      for (uint64_t i = 0; i < tiles; ++i) {
        m_sheetTargets.push_back(
            static_cast<uint64_t>(std::llround(static_cast<double>(i) * (expected - 1) / (tiles - 1))));
      }
    }
    w.sheet.resize(static_cast<size_t>(w.tileWidth) * s.sheetColumns * w.tileHeight * s.sheetRows * 3);
    for (size_t i = 0; i < w.sheet.size(); i += 3)
      std::copy(MeshRenderer::kBackground, MeshRenderer::kBackground + 3, &w.sheet[i]);
    // Find out now, not after the playback, whether the sheet can be written.
    std::error_code ec;
    const std::filesystem::path parent = std::filesystem::absolute(s.sheet, ec).parent_path();
    if (!std::filesystem::is_directory(parent, ec) || ::access(parent.c_str(), W_OK) != 0 ||
        std::filesystem::is_directory(s.sheet, ec)) {
      throw ToolError("cannot write " + s.sheet);
    }
  }
  m_thread = std::thread(&PlayOutput::Run, this);
}

PlayOutput::~PlayOutput() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_closing) m_abandon = true;
    m_closing = true;
  }
  m_changed.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

bool PlayOutput::Push(RenderedFrame frame) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait(lock, [&] { return m_queue.size() < m_queueLimit || !m_error.empty() || m_done || m_closing; });
  if (!m_error.empty() || m_done || m_closing) return false;
  m_queue.push_back(std::move(frame));
  m_changed.notify_all();
  return true;
}

void PlayOutput::Finish() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closing = true;
  }
  m_changed.notify_all();
  if (m_thread.joinable()) m_thread.join();
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_error.empty()) throw ToolError(m_error);
}

uint64_t PlayOutput::Written() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_written;
}

std::vector<uint32_t> PlayOutput::SheetFrameIds() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_sheetIds;
}

int64_t PlayOutput::AudioPackets() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_audioPackets;
}

void PlayOutput::Run() {
  for (;;) {
    RenderedFrame frame;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait(lock, [&] { return !m_queue.empty() || m_closing; });
      if (m_abandon || !m_error.empty()) {
        m_queue.clear();
        if (m_closing) break;
        continue;
      }
      if (m_queue.empty()) break;
      frame = std::move(m_queue.front());
      m_queue.pop_front();
      m_changed.notify_all();
    }
    try {
      Write(frame);
      if (!m_settings.sheet.empty()) {
        m_writers->last = std::move(frame);
        m_writers->haveLast = true;
      }
      std::lock_guard<std::mutex> lock(m_mutex);
      ++m_written;
    } catch (const std::exception& e) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_error = e.what();
      m_changed.notify_all();
    }
  }
  bool finish = false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    finish = !m_abandon && m_error.empty();
  }
  if (finish) {
    try {
      Close();
    } catch (const std::exception& e) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_error = e.what();
    }
  }
  // An unfinished video is removed with its writer.
  m_writers.reset();
  std::lock_guard<std::mutex> lock(m_mutex);
  m_done = true;
  m_changed.notify_all();
}

void PlayOutput::Write(const RenderedFrame& frame) {
  const OutputSettings& s = m_settings;
  Writers& w = *m_writers;
  const size_t rowBytes = static_cast<size_t>(s.width) * 4;
  if (frame.rgba.size() != rowBytes * s.height) throw ToolError("a rendered picture has the wrong size");
  // GL's rows start at the bottom of the picture.
  const uint8_t* top = frame.rgba.data() + rowBytes * (s.height - 1);
  const int topDownStride = -static_cast<int>(rowBytes);

  if (w.encoder) {
    AVFrame* picture = w.picture.get();
    w.scaler->ConvertPacked(top, topDownStride, s.width, s.height, AV_PIX_FMT_RGBA, picture);
    picture->pts = static_cast<int64_t>(frame.output);
    const bool key = frame.output % static_cast<uint64_t>(w.keyInterval) == 0;
    w.encoder->Send(picture, key, [&](AVPacket* packet) { w.mp4->Write(packet); });
    if (s.audio) {
      int64_t packets = 0;
      s.audio->Follow(static_cast<int64_t>(frame.output), frame.clipFrame, s.fps, [&](AVPacket* packet) {
        w.mp4->WriteAudio(packet);
        ++packets;
      });
      std::lock_guard<std::mutex> lock(m_mutex);
      m_audioPackets += packets;
    }
  }

  if (!s.folder.empty()) {
    w.rgb.resize(static_cast<size_t>(s.width) * s.height * 3);
    for (int y = 0; y < s.height; ++y) {
      const uint8_t* in = top + static_cast<std::ptrdiff_t>(topDownStride) * y;
      uint8_t* out = &w.rgb[static_cast<size_t>(y) * s.width * 3];
      for (int x = 0; x < s.width; ++x) {
        out[x * 3 + 0] = in[x * 4 + 0];
        out[x * 3 + 1] = in[x * 4 + 1];
        out[x * 3 + 2] = in[x * 4 + 2];
      }
    }
    char name[32];
    std::snprintf(name, sizeof name, "frame_%06llu.png", static_cast<unsigned long long>(frame.output));
    WritePng((std::filesystem::path(s.folder) / name).string(), s.width, s.height, w.rgb.data(), s.width * 3,
             kPngLevel);
  }

  auto target = std::find(m_sheetTargets.begin(), m_sheetTargets.end(), frame.output);
  if (!s.sheet.empty() && target != m_sheetTargets.end()) {
    PutTile(static_cast<size_t>(target - m_sheetTargets.begin()), frame);
  }
}

void PlayOutput::PutTile(size_t tile, const RenderedFrame& frame) {
  const OutputSettings& s = m_settings;
  Writers& w = *m_writers;
  const size_t rowBytes = static_cast<size_t>(s.width) * 4;
  const uint8_t* top = frame.rgba.data() + rowBytes * (s.height - 1);
  const std::ptrdiff_t topDownStride = -static_cast<std::ptrdiff_t>(rowBytes);
  const int columns = s.sheetColumns;
  const int x0 = static_cast<int>(tile % columns) * w.tileWidth, y0 = static_cast<int>(tile / columns) * w.tileHeight;
  const size_t sheetRow = static_cast<size_t>(w.tileWidth) * columns * 3;
  // A 2x2 average a tile pixel.
  for (int y = 0; y < w.tileHeight; ++y) {
    for (int x = 0; x < w.tileWidth; ++x) {
      int sum[3] = {0, 0, 0};
      for (int dy = 0; dy < 2; ++dy) {
        const uint8_t* row = top + topDownStride * std::min(2 * y + dy, s.height - 1);
        for (int dx = 0; dx < 2; ++dx) {
          const int sx = std::min(2 * x + dx, s.width - 1);
          for (int c = 0; c < 3; ++c) sum[c] += row[sx * 4 + c];
        }
      }
      uint8_t* out = &w.sheet[static_cast<size_t>(y0 + y) * sheetRow + static_cast<size_t>(x0 + x) * 3];
      for (int c = 0; c < 3; ++c) out[c] = static_cast<uint8_t>((sum[c] + 2) / 4);
    }
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_sheetIds.push_back(frame.frameId);
}

void PlayOutput::Close() {
  const OutputSettings& s = m_settings;
  Writers& w = *m_writers;
  if (w.encoder) {
    w.encoder->Send(nullptr, false, [&](AVPacket* packet) { w.mp4->Write(packet); });
    w.mp4->Finish();
  }
  if (!s.sheet.empty()) {
    // Fewer frames came than expected (the player skipped some): the last one takes the first tile
    // left empty, so that the sheet still ends with the end of the playback.
    if (w.haveLast && !m_sheetTargets.empty() && m_sheetTargets.back() > w.last.output) {
      const auto empty = std::upper_bound(m_sheetTargets.begin(), m_sheetTargets.end(), w.last.output);
      const bool shown = empty != m_sheetTargets.begin() && *(empty - 1) == w.last.output;
      if (!shown) PutTile(static_cast<size_t>(empty - m_sheetTargets.begin()), w.last);
    }
    WritePng(s.sheet, w.tileWidth * s.sheetColumns, w.tileHeight * s.sheetRows, w.sheet.data(),
             w.tileWidth * s.sheetColumns * 3);
  }
}

}  // namespace OzmTool
