#include "tools/ozm/ClipReport.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshFrame.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMeshReader.h"
#include "input/HlsPlaylist.h"
#include "platform/host/LogCapture.h"
#include "tools/ozm/Format.h"
#include "tools/ozm/MeshStream.h"
#include "tools/ozm/ToolError.h"
#include "tools/ozm/media/StreamReader.h"
#include "tools/ozm/media/VolumetricReader.h"

namespace OzmTool {
namespace {

constexpr size_t kAttributeWindow = 1024;  // players read the block from the file's last kilobyte

std::string Hex(uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08" PRIX32, v);
  return text;
}

TrackInfo TrackOf(const AVStream* s) {
  TrackInfo t;
  const AVCodecParameters* par = s->codecpar;
  t.index = s->index;
  const char* type = av_get_media_type_string(par->codec_type);
  t.type = type ? type : "unknown";
  t.codec = avcodec_get_name(par->codec_id);
  if (const char* profile = avcodec_profile_name(par->codec_id, par->profile)) t.profile = profile;
  t.width = par->width;
  t.height = par->height;
  if (s->avg_frame_rate.num > 0 && s->avg_frame_rate.den > 0) t.fps = av_q2d(s->avg_frame_rate);
  t.frames = s->nb_frames;
  if (s->duration != AV_NOPTS_VALUE) t.seconds = static_cast<double>(s->duration) * av_q2d(s->time_base);
  t.bitRate = par->bit_rate;
  t.sampleRate = par->sample_rate;
  t.channels = par->ch_layout.nb_channels;
  return t;
}

}  // namespace

AttributeInfo ReadAttributes(const std::string& path) {
  AttributeInfo info;
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) throw ToolError("cannot open " + path);
  const std::streamoff size = file.tellg();
  const size_t window = static_cast<size_t>(std::min<std::streamoff>(size, kAttributeWindow));
  std::vector<uint8_t> tail(window);
  file.seekg(size - static_cast<std::streamoff>(window));
  if (!file.read(reinterpret_cast<char*>(tail.data()), static_cast<std::streamsize>(window))) {
    throw ToolError("cannot read the end of " + path);
  }
  // The atom that ends the file: its size field counts up to the last byte.
  for (size_t p = 4; p + 4 <= tail.size(); ++p) {
    if (std::memcmp(&tail[p], "Xtra", 4) != 0) continue;
    const uint32_t atomSize =
        static_cast<uint32_t>(tail[p - 4]) << 24 | tail[p - 3] << 16 | tail[p - 2] << 8 | tail[p - 1];
    if (atomSize == tail.size() - (p - 4)) info.blockBytes = atomSize;
  }

  OZMCORE::CComPtr<OzmCrossPlatform::Buffer> values(new OzmCrossPlatform::Buffer(16));
  IOzmAttributesCore* attributes = values.Get();
  {
    OzmPlatform::ScopedLogCapture quiet;  // a file without the block is reported below, not logged
    info.found = OzmCrossPlatform::ReadXtraAttributes(tail.data(), tail.size(), attributes);
  }
  if (!info.found) return info;
  attributes->GetUINT32(OzmAttrib_FrameCount, &info.frameCount);
  attributes->GetUINT32(OzmAttrib_MaxVertexCount, &info.maxVertexCount);
  attributes->GetUINT32(OzmAttrib_MaxIndexCount, &info.maxIndexCount);
  const _GUID* mins[3] = {&OzmAttrib_BBoxMinX, &OzmAttrib_BBoxMinY, &OzmAttrib_BBoxMinZ};
  const _GUID* maxs[3] = {&OzmAttrib_BBoxMaxX, &OzmAttrib_BBoxMaxY, &OzmAttrib_BBoxMaxZ};
  for (int a = 0; a < 3; ++a) {
    attributes->GetDouble(*mins[a], &info.bboxMin[a]);
    attributes->GetDouble(*maxs[a], &info.bboxMax[a]);
  }
  info.normalsKnown = OZM_SUCCEEDED(attributes->GetUINT32(OzmAttrib_HasVertexNormals, &info.hasNormals));
  return info;
}

namespace {

// Every access unit's mesh, found in the Annex B sample and decoded with the player's reader.
void ReadFrames(AccessUnitSource& reader, InspectReport* report) {
  // The player's reader: float vertices with normals.
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  Ozm::COzmMeshReader meshReader;
  meshReader.Initialize(allocator, 0x0F);
  AccessUnit au;
  while (reader.Next(&au)) {
    FrameInfo f;
    f.index = au.index;
    f.seconds = au.seconds;
    f.pictureKey = au.keyFrame;
    f.sampleBytes = au.annexB.size();
    OzmPlatform::ScopedLogCapture log;
    const auto* data = au.annexB.data();
    const auto size = static_cast<unsigned int>(au.annexB.size());
    OZMCORE::CComPtr<OzmCrossPlatform::Stream> forHeader(OzmCrossPlatform::FindCompressedMesh(data, size));
    if (!au.damage.empty()) {
      f.problem = au.damage;
    } else if (!forHeader) {
      f.problem = "no mesh unit";
    } else {
      f.meshFound = true;
      f.meshBytes = forHeader->GetSize() - forHeader->GetPosition();
      const HRESULT hr = f.header.Read(forHeader);
      f.headerRead = OZM_SUCCEEDED(hr);
      if (!f.headerRead) {
        f.problem = "mesh header rejected (" + Hex(static_cast<uint32_t>(hr)) + ")";
      } else {
        OZMCORE::CComPtr<OzmCrossPlatform::Stream> stream(OzmCrossPlatform::FindCompressedMesh(data, size));
        stream->SetTimestamp(static_cast<int64_t>(au.seconds * 1e9));
        const std::shared_ptr<Ozm::MeshFrame> frame = Ozm::DecodeMeshFrame(meshReader, stream);
        if (!frame) {
          const std::string why = LastLogLine(log);
          f.problem = "the mesh does not decode" + (why.empty() ? "" : ": " + why);
        } else {
          f.decoded = true;
          f.meshKey = StartsMeshGroup(au.annexB);
          f.vertices = frame->NumVertices();
          f.indices = frame->NumIndices();
        }
      }
    }
    report->framesWithMesh += f.meshFound ? 1 : 0;
    report->meshKeyFrames += f.meshKey ? 1 : 0;
    report->meshBytes += f.meshBytes;
    report->problems += f.problem.empty() ? 0 : 1;
    report->frames.push_back(std::move(f));
  }
}

// The playlist and its segments, for a playlist on this machine; 0 when it cannot be read.
uint64_t LocalStreamBytes(const std::string& playlist) {
  std::ifstream file(playlist, std::ios::binary);
  if (!file) return 0;
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  uint64_t bytes = text.size();
  const std::filesystem::path folder = std::filesystem::path(playlist).parent_path();
  for (const HlsSegment& segment : ParseHlsPlaylistText(text)) {
    std::error_code ec;
    const std::filesystem::path at =
        segment.uri.compare(0, 1, "/") == 0 ? std::filesystem::path(segment.uri) : folder / segment.uri;
    const uintmax_t size = std::filesystem::file_size(at, ec);
    if (!ec) bytes += size;
  }
  return bytes;
}

InspectReport InspectStream(const std::string& path, double timeoutSeconds) {
  InspectReport report;
  report.path = path;
  report.format = "HLS (MPEG-TS segments)";
  report.stream = true;
  StreamReader reader(path, timeoutSeconds);
  report.codec = reader.Codec();
  report.width = reader.Tracks()[0].width;
  report.height = reader.Tracks()[0].height;
  report.seconds = static_cast<double>(reader.FileInfo().duration) / 1e7;
  report.fileBytes =
      reader.Remote() ? static_cast<uint64_t>(reader.FileInfo().fileSizeMB * 1048576.0) : LocalStreamBytes(path);
  ReadFrames(reader, &report);
  // The tracks as read: counts and lengths are known once every sample has gone by.
  for (size_t i = 0; i < reader.Tracks().size(); ++i) {
    const StreamTrack& s = reader.Tracks()[i];
    TrackInfo t;
    t.index = static_cast<int>(i);
    t.type = s.video ? "video" : "audio";
    t.codec = s.codec;
    t.profile = s.profile;
    t.width = s.width;
    t.height = s.height;
    t.fps = s.frameRate;
    t.frames = s.frames;
    t.seconds = s.seconds;
    if (s.seconds > 0) t.bitRate = static_cast<int64_t>(static_cast<double>(s.bytes) * 8 / s.seconds);
    t.sampleRate = s.sampleRate;
    t.channels = s.channels;
    report.tracks.push_back(t);
  }
  return report;
}

}  // namespace

InspectReport Inspect(const std::string& path, double timeoutSeconds) {
  if (IsPlaylist(path)) return InspectStream(path, timeoutSeconds);
  InspectReport report;
  report.path = path;
  std::error_code ec;
  report.fileBytes = std::filesystem::file_size(path, ec);
  VolumetricReader reader(path);
  const AVFormatContext* format = reader.Format();
  report.format = format->iformat->long_name ? format->iformat->long_name : format->iformat->name;
  if (format->duration != AV_NOPTS_VALUE) report.seconds = static_cast<double>(format->duration) / AV_TIME_BASE;
  for (unsigned i = 0; i < format->nb_streams; ++i) report.tracks.push_back(TrackOf(format->streams[i]));
  report.codec = reader.Codec();
  report.width = reader.Video()->codecpar->width;
  report.height = reader.Video()->codecpar->height;
  report.attributes = ReadAttributes(path);
  ReadFrames(reader, &report);
  return report;
}

}  // namespace OzmTool
