#include "input/MediaExFileStream.h"

#include <cstdio>
#include <cstring>

#include "OzmCore/CComPtr.h"
#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMediaObjects.h"
#include "platform/Log.h"

using OzmPlatform::AssetFileDescriptor;
using OzmPlatform::GetPlatform;

MediaExFileStream::MediaExFileStream(int id) : playerId(id) { OZM_LOGI("[%i] new MediaExFileStream", playerId); }

MediaExFileStream::~MediaExFileStream() = default;

bool MediaExFileStream::Open(const char* path, const OzmOpenInfo& info) {
  openInfo = info;
  if (!path) return false;
  OzmPlatform::Platform& platform = GetPlatform();
  if (!platform.AttachCurrentThread()) return false;

  bool opened = false;
  if (path[0] != '/' && platform.HasObbRoute()) {
    OZM_LOGI("[%i] Opening file from obb: %s", playerId, path);
    AssetFileDescriptor descriptor;
    if (!platform.GetAssetFileDescriptorFromObb(path, &descriptor)) {
      OZM_LOGE("[%i] Failed to get AssetFileDescriptor from obb", playerId);
      return false;
    }
    opened = OpenFromDescriptor(descriptor);
  } else if (path[0] == '/') {
    AssetFileDescriptor descriptor;
    if (platform.GetAssetFileDescriptorAndroid10(path, &descriptor)) {
      opened = OpenFromDescriptor(descriptor);
    } else {
      opened = OpenFromAbsolutePath(path);
    }
  } else {
    opened = OpenFromAsset(path);
  }
  if (!opened) return false;
  SelectTracks();
  return true;
}

bool MediaExFileStream::OpenFromDescriptor(const AssetFileDescriptor& descriptor) {
  OZM_LOGI("[%i] Got AssetFileDescriptor from Java", playerId);
  // The stream wraps the descriptor the extractor reads, so it is never closed here: closing it
  // would close the descriptor too. The tail is the whole file's, not the asset range's.
  FILE* file = descriptor.fd >= 0 ? fdopen(descriptor.fd, "rb") : nullptr;
  if (!file) {
    OZM_LOGE("[%i] failed to open file", playerId);
    return false;
  }
  ReadTail(file);
  if (!CreateExtractor()) return false;
  const int status = extractor->SetDataSourceFd(descriptor.fd, descriptor.startOffset, descriptor.length);
  if (status != OzmPlatform::kMediaOk) {
    OZM_LOGE("[%i] AMediaExtractor_setDataSourceFd failed, error = %i", playerId, status);
    return false;
  }
  return true;
}

bool MediaExFileStream::OpenFromAbsolutePath(const char* path) {
  OZM_LOGI("[%i] Opening file with absolute path", playerId);
  FILE* file = std::fopen(path, "rb");
  if (!file) {
    OZM_LOGE("[%i] failed to open file", playerId);
    return false;
  }
  ReadTail(file);
  std::fclose(file);
  if (!CreateExtractor()) return false;
  const int status = extractor->SetDataSource(path);
  if (status != OzmPlatform::kMediaOk) {
    OZM_LOGE("[%i] AMediaExtractor_setDataSource failed, error = %i", playerId, status);
    return false;
  }
  return true;
}

bool MediaExFileStream::OpenFromAsset(const char* path) {
  OZM_LOGI("[%i] Opening file with asset manager", playerId);
  std::unique_ptr<OzmPlatform::Asset> asset = GetPlatform().OpenAsset(path);
  if (!asset) {
    OZM_LOGE("[%i] AAssetManager_open returned null", playerId);
    return false;
  }
  int64_t start = 0, length = 0;
  const int fd = asset->OpenFileDescriptor(&start, &length);
  if (fd < 1) {
    OZM_LOGE("[%i] AAsset_openFileDescriptor returned %i", playerId, fd);
    return false;
  }
  fileSize = static_cast<int32_t>(length);
  xtraTail.reset(new uint8_t[kTailSize]);
  bool tailRead = false;
  if (asset->Seek(-static_cast<int64_t>(kTailSize), SEEK_END) != -1) {
    tailRead = asset->Read(xtraTail.get(), kTailSize) == static_cast<int>(kTailSize);
  }
  if (tailRead) {
    OZM_LOGI("[%i] read end of file for xtra atom", playerId);
  } else {
    xtraTail.reset();
  }
  if (!CreateExtractor()) return false;
  const int status = extractor->SetDataSourceFd(fd, start, length);
  if (status != OzmPlatform::kMediaOk) {
    OZM_LOGE("[%i] AMediaExtractor_setDataSource failed, error = %i", playerId, status);
    return false;
  }
  // The extractor keeps reading through the descriptor it was given.
  return true;
}

void MediaExFileStream::ReadTail(FILE* file) {
  xtraTail.reset(new uint8_t[kTailSize]);
  bool read = false;
  if (std::fseek(file, -static_cast<long>(kTailSize), SEEK_END) == 0) {
    fileSize = static_cast<int32_t>(std::ftell(file) + static_cast<long>(kTailSize));
    read = std::fread(xtraTail.get(), 1, kTailSize, file) != 0;
  }
  if (read) {
    OZM_LOGI("[%i] read end of file for xtra atom", playerId);
  } else {
    xtraTail.reset();
  }
}

bool MediaExFileStream::CreateExtractor() {
  extractor = GetPlatform().NewMediaExtractor();
  if (!extractor) OZM_LOGE("[%i] AMediaExtractor_new failed", playerId);
  return extractor != nullptr;
}

void MediaExFileStream::SelectTracks() {
  const int32_t n = GetTrackCount();
  extractor->SelectTrack(0);
  if (n >= 2 && openInfo.audioDisabled == 0) extractor->SelectTrack(1);
}

bool MediaExFileStream::GetFileInfo(OzmFileInfo& info) {
  if (!extractor) return false;
  if (!xtraTail) {
    OZM_LOGW("[%i] Failed to read file attributes", playerId);
  } else {
    OZMCORE::CComPtr<OzmCrossPlatform::Buffer> attributes(new OzmCrossPlatform::Buffer(0));
    if (OzmCrossPlatform::ReadXtraAttributes(xtraTail.get(), kTailSize, attributes.Get())) {
      const bool counts = OZM_SUCCEEDED(attributes->GetUINT32(OzmAttrib_FrameCount, &info.frameCount)) &&
                          OZM_SUCCEEDED(attributes->GetUINT32(OzmAttrib_MaxVertexCount, &info.maxVertexCount)) &&
                          OZM_SUCCEEDED(attributes->GetUINT32(OzmAttrib_MaxIndexCount, &info.maxIndexCount));
      const bool box = counts && OZM_SUCCEEDED(attributes->GetDouble(OzmAttrib_BBoxMinX, &info.bboxMin[0])) &&
                       OZM_SUCCEEDED(attributes->GetDouble(OzmAttrib_BBoxMaxX, &info.bboxMax[0])) &&
                       OZM_SUCCEEDED(attributes->GetDouble(OzmAttrib_BBoxMinY, &info.bboxMin[1])) &&
                       OZM_SUCCEEDED(attributes->GetDouble(OzmAttrib_BBoxMaxY, &info.bboxMax[1])) &&
                       OZM_SUCCEEDED(attributes->GetDouble(OzmAttrib_BBoxMinZ, &info.bboxMin[2])) &&
                       OZM_SUCCEEDED(attributes->GetDouble(OzmAttrib_BBoxMaxZ, &info.bboxMax[2]));
      if (!box) return false;
      unsigned int normals = 0;
      if (OZM_SUCCEEDED(attributes->GetUINT32(OzmAttrib_HasVertexNormals, &normals))) {
        info.hasNormals = normals == 1;
        OZM_LOGI("[%i] GetFileInfo: hasNormals = %s", playerId, info.hasNormals ? "true" : "false");
      }
      OZM_LOGI("[%i] Successfully read file attributes:", playerId);
      OZM_LOGI("\tframe count = %i", static_cast<int>(info.frameCount));
      OZM_LOGI("\tmax verts = %i", static_cast<int>(info.maxVertexCount));
      OZM_LOGI("\tmax indices = %i", static_cast<int>(info.maxIndexCount));
      OZM_LOGI("\tmin x = %f", info.bboxMin[0]);
      OZM_LOGI("\tmax x = %f", info.bboxMax[0]);
      OZM_LOGI("\tmin y = %f", info.bboxMin[1]);
      OZM_LOGI("\tmax y = %f", info.bboxMax[1]);
      OZM_LOGI("\tmin z = %f", info.bboxMin[2]);
      OZM_LOGI("\tmax z = %f", info.bboxMax[2]);
    }
  }

  int32_t width = 0, height = 0;
  int64_t durationUs = 0;
  if (std::unique_ptr<OzmPlatform::MediaFormat> format = extractor->GetTrackFormat(0)) {
    format->GetInt32(OzmPlatform::MediaKeys::kWidth, &width);
    format->GetInt32(OzmPlatform::MediaKeys::kHeight, &height);
    format->GetInt64(OzmPlatform::MediaKeys::kDurationUs, &durationUs);
  }
  info.textureWidth = width;
  info.textureHeight = height;
  info.hasAudio = GetTrackCount() > 1;
  info.fileSizeMB = static_cast<float>(static_cast<double>(fileSize) * 9.5367431640625e-7);
  info.duration = durationUs * 10;
  // A zero duration gives an infinite bit rate; callers see it as such.
  info.bitrate = static_cast<float>(static_cast<double>(info.fileSizeMB * 8.0f) /
                                    (static_cast<double>(durationUs) / 1000000.0));
  OZM_LOGI("[%i] texture size = %i, %i", playerId, width, height);
  OZM_LOGI("[%i] has audio = %i", playerId, static_cast<int>(info.hasAudio));
  OZM_LOGI("[%i] file size = %i MB", playerId, static_cast<int>(info.fileSizeMB));
  OZM_LOGI("[%i] duration = %lli (100 ns)", playerId, static_cast<long long>(info.duration));
  OZM_LOGI("[%i] bitrate = %.3f Mbps", playerId, static_cast<double>(info.bitrate));
  return true;
}

bool MediaExFileStream::Rewind() {
  if (!extractor) return false;
  const int status = extractor->SeekTo(0, OzmPlatform::SeekMode::ClosestSync);
  OZM_LOGI("[%i] media extractor seek returned %i", playerId, status);
  return status == OzmPlatform::kMediaOk;
}

int32_t MediaExFileStream::GetSampleTrackIndex() { return extractor ? extractor->GetSampleTrackIndex() : -1; }

int32_t MediaExFileStream::GetTrackCount() {
  return extractor ? static_cast<int32_t>(extractor->GetTrackCount()) : 0;
}

std::unique_ptr<OzmPlatform::MediaFormat> MediaExFileStream::GetTrackFormat(int32_t track) {
  if (!extractor || track < 0) return nullptr;
  return extractor->GetTrackFormat(static_cast<size_t>(track));
}

int64_t MediaExFileStream::GetSampleTime() { return extractor ? extractor->GetSampleTime() : -1; }

bool MediaExFileStream::Advance() { return extractor && extractor->Advance(); }

ssize_t MediaExFileStream::ReadSampleData(uint8_t* buffer, uint32_t capacity) {
  return extractor ? extractor->ReadSampleData(buffer, capacity) : -1;
}
