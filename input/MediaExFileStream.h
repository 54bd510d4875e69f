// File input: an MP4 reached by absolute path, as an application asset, through the expansion
// archive or through a descriptor handed over by the Java side; plus the 1024-byte tail of the file
// that holds the mesh attributes, from which the file information is filled.
#pragma once

#include <cstdint>
#include <memory>

#include "input/MediaInputStream.h"
#include "platform/Platform.h"

class MediaExFileStream final : public MediaInputStream {
 public:
  static constexpr uint32_t kTailSize = 1024;

  explicit MediaExFileStream(int playerId);
  ~MediaExFileStream() override;

  bool Rewind() override;
  bool Open(const char* path, const OzmOpenInfo& openInfo) override;
  bool GetFileInfo(OzmFileInfo& info) override;
  int32_t GetSampleTrackIndex() override;
  int32_t GetTrackCount() override;
  std::unique_ptr<OzmPlatform::MediaFormat> GetTrackFormat(int32_t track) override;
  int64_t GetSampleTime() override;
  bool Advance() override;
  ssize_t ReadSampleData(uint8_t* buffer, uint32_t capacity) override;

  int32_t FileSize() const { return fileSize; }
  const uint8_t* XtraTail() const { return xtraTail.get(); }

 private:
  bool OpenFromDescriptor(const OzmPlatform::AssetFileDescriptor& descriptor);
  bool OpenFromAbsolutePath(const char* path);
  bool OpenFromAsset(const char* path);
  // Reads the last 1024 bytes of an open file into xtraTail and sets fileSize.
  void ReadTail(FILE* file);
  bool CreateExtractor();
  void SelectTracks();

  OzmOpenInfo openInfo{};
  std::unique_ptr<uint8_t[]> xtraTail;
  std::unique_ptr<OzmPlatform::MediaExtractor> extractor;
  int playerId;
  int32_t fileSize = 0;
};
