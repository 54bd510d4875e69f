// What `ozm play` makes of the pictures it renders: an H.264 MP4 (with the clip's audio copied in),
// a folder of PNG pictures, a contact sheet. The render thread hands each picture over and goes on;
// a thread of this class converts, encodes and writes them in order.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OzmTool {

class ClipAudio;

struct OutputSettings {
  int width = 0, height = 0;  // of the pictures (even)
  int fps = 30;               // of the video
  std::string video;          // an .mp4 to write, or empty
  std::string folder;         // a folder for frame_000000.png, ..., or empty
  std::string sheet;          // a contact sheet (.png) to write, or empty
  int sheetColumns = 4, sheetRows = 2;
  uint64_t expectedFrames = 0;  // pictures likely to come, to space the contact sheet's
  ClipAudio* audio = nullptr;   // copied into the video when given; must outlive the output
};

// One rendered picture.
struct RenderedFrame {
  uint64_t output = 0;        // its place in the output, from 0 (frames come in this order)
  uint32_t frameId = 0;       // the mesh frame shown
  int64_t clipFrame = -1;     // that frame's place in the clip, from 0
  std::vector<uint8_t> rgba;  // width * height * 4 bytes, rows from the bottom up (as GL reads them)
};

class PlayOutput {
 public:
  // Opens the files (the video's header is written): throws ToolError when one cannot be written.
  explicit PlayOutput(const OutputSettings& settings);
  // Without Finish(), stops the thread and removes an unfinished video.
  ~PlayOutput();
  PlayOutput(const PlayOutput&) = delete;
  PlayOutput& operator=(const PlayOutput&) = delete;

  // Queues a picture; waits while a few are queued already (the writer catches up). False, with the
  // picture dropped, once writing has failed.
  bool Push(RenderedFrame frame);
  // Writes what is queued and finishes the files. Throws ToolError with the first failure.
  void Finish();

  uint64_t Written() const;
  // The frames in the contact sheet, by mesh frame id, in the order of its tiles.
  std::vector<uint32_t> SheetFrameIds() const;
  int64_t AudioPackets() const;

 private:
  struct Writers;
  void Run();
  void Write(const RenderedFrame& frame);
  void PutTile(size_t tile, const RenderedFrame& frame);
  void Close();

  OutputSettings m_settings;
  std::unique_ptr<Writers> m_writers;  // used by the thread only, until it ends
  std::vector<uint64_t> m_sheetTargets;
  size_t m_queueLimit = 2;

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<RenderedFrame> m_queue;
  bool m_closing = false;  // no more frames; finish the files
  bool m_abandon = false;  // stop without finishing
  bool m_done = false;     // the thread has ended
  std::string m_error;
  uint64_t m_written = 0;
  std::vector<uint32_t> m_sheetIds;
  int64_t m_audioPackets = 0;
  std::thread m_thread;
};

}  // namespace OzmTool
