#include "tools/ozm/Encode.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>

#include "OzmCore/encode/MeshNalWriter.h"
#include "OzmCore/encode/SequenceEncoder.h"
#include "OzmCore/encode/XtraWriter.h"
#include "tools/ozm/Format.h"
#include "tools/ozm/MeshFiles.h"
#include "tools/ozm/Sample.h"
#include "tools/ozm/media/AudioTrack.h"
#include "tools/ozm/media/HlsWriter.h"
#include "tools/ozm/media/Mp4Writer.h"
#include "tools/ozm/media/PictureReader.h"
#include "tools/ozm/media/VideoEncoder.h"

namespace OzmTool {
namespace {

namespace fs = std::filesystem;

// ---- Mesh input ----

class MeshSource {
 public:
  virtual ~MeshSource() = default;
  virtual int Count() const = 0;
  virtual OzmEncode::Mesh Frame(int index, EncodeSummary* summary) = 0;
};

class SampleMeshes final : public MeshSource {
 public:
  SampleMeshes(const std::string& path, int frames, bool normals)
      : m_sample(path.empty() ? Sample::DefaultMeshPath() : path),
        m_count(frames > 0 ? frames : Sample::kFrames),
        m_normals(normals) {}
  int Count() const override { return m_count; }
  OzmEncode::Mesh Frame(int index, EncodeSummary*) override { return m_sample.Frame(index, m_normals); }

 private:
  Sample m_sample;
  int m_count;
  bool m_normals;
};

class FolderMeshes final : public MeshSource {
 public:
  FolderMeshes(const std::string& folder, int frames, bool normals)
      : m_files(ListMeshFiles(folder)), m_normals(normals) {
    if (m_files.empty()) throw ToolError("no mesh files (.obj, .ply, .gltf, .glb, ...) in " + folder);
    if (frames > static_cast<int>(m_files.size())) {
      throw ToolError(folder + " holds " + std::to_string(m_files.size()) + " mesh files, fewer than the " +
                      std::to_string(frames) + " frames asked for");
    }
    if (frames > 0) m_files.resize(static_cast<size_t>(frames));
  }
  int Count() const override { return static_cast<int>(m_files.size()); }
  OzmEncode::Mesh Frame(int index, EncodeSummary* summary) override {
    ImportedMesh m = ImportMesh(m_files[static_cast<size_t>(index)], m_normals);
    summary->texCoordsOutside += m.texCoordsOutside;
    summary->projectedTexCoords = summary->projectedTexCoords || !m.hadTexCoords;
    return std::move(m.mesh);
  }

 private:
  std::vector<std::string> m_files;
  bool m_normals;
};

// ---- Texture input ----

class TextureSource {
 public:
  virtual ~TextureSource() = default;
  // The natural size of the pictures.
  virtual void Size(int* width, int* height) const = 0;
  // Fills picture (the encoder's size and format) with frame `index`.
  virtual void Picture(int index, Av::Scaler& scaler, AVFrame* picture) = 0;
};

class GeneratedTexture final : public TextureSource {
 public:
  void Size(int* width, int* height) const override { *width = *height = 1024; }
  void Picture(int index, Av::Scaler& scaler, AVFrame* picture) override {
    // Drawn at the output size, so the digits stay sharp.
    Sample::Texture(index, picture->width, picture->height, &m_rgb);
    scaler.ConvertPacked(m_rgb.data(), picture->width * 3, picture->width, picture->height, AV_PIX_FMT_RGB24, picture);
  }

 private:
  std::vector<uint8_t> m_rgb;
};

class StillTexture final : public TextureSource {
 public:
  explicit StillTexture(const std::string& path) : m_reader(path) {
    m_frame = m_reader.Next();
    if (!m_frame) throw ToolError(path + ": no picture could be decoded");
  }
  void Size(int* width, int* height) const override {
    *width = m_frame->width;
    *height = m_frame->height;
  }
  void Picture(int, Av::Scaler& scaler, AVFrame* picture) override { scaler.Convert(m_frame, picture); }

 private:
  PictureReader m_reader;
  const AVFrame* m_frame = nullptr;
};

class FolderTexture final : public TextureSource {
 public:
  FolderTexture(const std::string& folder, int frames) : m_files(ListPictureFiles(folder)) {
    if (static_cast<int>(m_files.size()) < frames) {
      throw ToolError(folder + " holds " + std::to_string(m_files.size()) + " pictures for " + std::to_string(frames) +
                      " frames");
    }
    PictureReader first(m_files[0]);
    const AVFrame* f = first.Next();
    if (!f) throw ToolError(m_files[0] + ": no picture could be decoded");
    m_width = f->width;
    m_height = f->height;
  }
  void Size(int* width, int* height) const override {
    *width = m_width;
    *height = m_height;
  }
  void Picture(int index, Av::Scaler& scaler, AVFrame* picture) override {
    PictureReader reader(m_files[static_cast<size_t>(index)]);
    const AVFrame* f = reader.Next();
    if (!f) throw ToolError(reader.Path() + ": no picture could be decoded");
    scaler.Convert(f, picture);
  }

 private:
  std::vector<std::string> m_files;
  int m_width = 0, m_height = 0;
};

class VideoTexture final : public TextureSource {
 public:
  VideoTexture(const std::string& path, int frames) : m_reader(path), m_frames(frames) {
    m_first = m_reader.Next();
    if (!m_first) throw ToolError(path + ": no picture could be decoded");
    m_width = m_first->width;
    m_height = m_first->height;
  }
  void Size(int* width, int* height) const override {
    *width = m_width;
    *height = m_height;
  }
  void Picture(int index, Av::Scaler& scaler, AVFrame* picture) override {
    const AVFrame* f = index == 0 ? m_first : m_reader.Next();
    if (!f) {
      throw ToolError(m_reader.Path() + " has " + std::to_string(index) + " pictures for " + std::to_string(m_frames) +
                      " frames");
    }
    scaler.Convert(f, picture);
  }

 private:
  PictureReader m_reader;
  int m_frames;
  const AVFrame* m_first = nullptr;
  int m_width = 0, m_height = 0;
};

std::unique_ptr<TextureSource> OpenTexture(const std::string& path, int frames) {
  if (path.empty()) return std::make_unique<GeneratedTexture>();
  std::error_code ec;
  if (fs::is_directory(path, ec)) return std::make_unique<FolderTexture>(path, frames);
  if (!fs::exists(path, ec)) throw ToolError("texture input " + path + " does not exist");
  if (IsPictureFile(path)) return std::make_unique<StillTexture>(path);
  return std::make_unique<VideoTexture>(path, frames);
}

void CheckOptions(const EncodeOptions& o) {
  if (o.out.empty()) throw ToolError("no output file (--out)");
  if (o.sample == !o.input.empty()) throw ToolError("give either --sample or an input folder");
  if (o.indexCoding < 1 || o.indexCoding > 4) throw ToolError("index coding must be 1, 2, 3 or 4");
  const int inter = o.interCoding;
  if (inter != kInterAuto && inter != 0 && inter != 3 && inter != 4 && inter != 5 && inter != 7) {
    throw ToolError("inter coding must be auto, 3, 4, 5 or 7 (0 for key frames only)");
  }
  if (!(o.keyFrameShare >= 0 && o.keyFrameShare <= 1)) throw ToolError("the key-frame share must be 0 to 1");
  if (o.keyInterval < 1) throw ToolError("the key-frame interval must be at least 1");
  if (o.fps < 1 || o.fps > 240) throw ToolError("frames per second must be 1 to 240");
  if (o.frames < 0) throw ToolError("the frame count cannot be negative");
  if (o.width < 0 || o.height < 0 || o.width % 2 || o.height % 2) throw ToolError("the texture size must be even");
  if (o.sampleAudio && !o.sample) throw ToolError("--sample-audio goes with --sample");
  if (o.sampleAudio && !o.audio.empty()) throw ToolError("give --audio or --sample-audio, not both");
  if (!(o.segmentSeconds > 0 && o.segmentSeconds <= 3600)) throw ToolError("the segment length must be 0 to 3600 s");
}

// Frames of an HLS segment: the asked length rounded to whole key-frame intervals, at least one.
int SegmentFrames(const EncodeOptions& o) {
  const double groups = o.segmentSeconds * o.fps / o.keyInterval;
  return o.keyInterval * std::max(1, static_cast<int>(std::lround(groups)));
}

}  // namespace

namespace {
struct InterName {
  const char* name;
  int coding;
};
constexpr InterName kInterNames[] = {{"auto", kInterAuto}, {"huffman", 7}, {"golomb", 4},
                                     {"bytes", 3},         {"transform", 5}, {"none", 0}};
}  // namespace

int ParseInterCoding(const std::string& name) {
  for (const InterName& n : kInterNames) {
    if (name == n.name || (n.coding >= 0 && name == std::to_string(n.coding))) return n.coding;
  }
  throw ToolError("--inter takes auto, huffman, golomb, bytes, transform or none (or 7, 4, 3, 5, 0), not '" + name +
                  "'");
}

const char* InterCodingName(int coding) {
  for (const InterName& n : kInterNames) {
    if (n.coding == coding) return n.name;
  }
  return "?";
}

EncodeSummary Encode(const EncodeOptions& o, const ProgressFn& progress) {
  const auto start = std::chrono::steady_clock::now();
  CheckOptions(o);
  std::unique_ptr<MeshSource> meshes;
  if (o.sample) {
    meshes = std::make_unique<SampleMeshes>(o.sampleMesh, o.frames, o.normals);
  } else {
    meshes = std::make_unique<FolderMeshes>(o.input, o.frames, o.normals);
  }
  const int count = meshes->Count();
  std::unique_ptr<TextureSource> texture = OpenTexture(o.texture, count);

  VideoSettings settings;
  settings.codec = o.codec;
  settings.fps = o.fps;
  settings.keyInterval = o.keyInterval;
  settings.bitrateKbps = o.bitrateKbps;
  settings.crf = o.crf;
  settings.preset = o.preset;
  const bool hls = IsPlaylist(o.out);
  // A transport stream has no sample description: the parameter sets travel in every key frame.
  settings.globalHeader = !hls;
  if (o.width > 0 && o.height > 0) {
    settings.width = o.width;
    settings.height = o.height;
  } else {
    texture->Size(&settings.width, &settings.height);
    settings.width &= ~1;
    settings.height &= ~1;
  }

  EncodeSummary summary;
  summary.path = o.out;
  summary.codec = o.codec;
  summary.width = settings.width;
  summary.height = settings.height;
  summary.fps = o.fps;
  summary.frames = count;
  summary.durationSeconds = static_cast<double>(count) / o.fps;
  summary.hls = hls;
  summary.segmentFrames = hls ? SegmentFrames(o) : 0;

  // The audio first: a bad audio input ends the run before any output is written.
  std::unique_ptr<AudioTrack> audio;
  if (!o.audio.empty()) {
    audio = std::make_unique<AudioTrack>(AudioTrack::FromFile(o.audio, summary.durationSeconds));
  } else if (o.sampleAudio) {
    audio = std::make_unique<AudioTrack>(AudioTrack::Beeps(summary.durationSeconds));
  }
  const AVCodecContext* audioContext = audio ? audio->Context() : nullptr;
  if (audio) {
    summary.audio = true;
    summary.audioRate = audio->SampleRate();
    summary.audioChannels = audio->Channels();
    summary.audioSeconds = static_cast<double>(audio->Samples()) / audio->SampleRate();
    summary.audioBytes = audio->Bytes();
  }

  VideoEncoder video(settings);
  std::unique_ptr<Mp4Writer> mp4;
  std::unique_ptr<HlsWriter> stream;
  if (hls) {
    stream = std::make_unique<HlsWriter>(o.out, video.Context(), static_cast<double>(summary.segmentFrames) / o.fps,
                                         audioContext);
  } else {
    mp4 = std::make_unique<Mp4Writer>(o.out, video.Context(), audioContext);
  }
  // Audio packets go in ahead of the first picture that starts at or after them, so that each HLS
  // segment holds the sound of its own pictures.
  size_t audioNext = 0;
  auto writeAudioBefore = [&](int64_t pts, AVRational timeBase) {
    if (!audio) return;
    std::vector<Av::PacketPtr>& packets = audio->Packets();
    for (; audioNext < packets.size(); ++audioNext) {
      AVPacket* p = packets[audioNext].get();
      if (timeBase.num && av_compare_ts(p->pts, audioContext->time_base, pts, timeBase) >= 0) break;
      if (hls) {
        stream->WriteAudio(p);
      } else {
        mp4->WriteAudio(p);
      }
    }
  };

  OzmEncode::SequenceOptions sequence;
  sequence.keyFrameInterval = static_cast<uint32_t>(o.keyInterval);
  sequence.indexVersion = static_cast<uint8_t>(o.indexCoding);
  sequence.inter = o.interCoding == kInterAuto ? OzmEncode::InterCoding::Auto
                                               : static_cast<OzmEncode::InterCoding>(o.interCoding);
  sequence.keyFrameShare = o.keyFrameShare;
  sequence.normals = o.normals;
  sequence.temporalSubMeshes = o.temporal;
  std::unique_ptr<OzmEncode::SequenceEncoder> meshEncoder;

  Av::Scaler scaler(settings.width, settings.height, AV_PIX_FMT_YUV420P);
  Av::FramePtr picture = Av::NewPicture(settings.width, settings.height, AV_PIX_FMT_YUV420P);

  // Mesh units waiting for their picture to come out of the encoder, by pts.
  std::map<int64_t, std::vector<uint8_t>> waiting;
  const VideoCodec codec = o.codec;
  int64_t lastPts = -1;
  auto write = [&](AVPacket* packet) {
    auto it = waiting.find(packet->pts);
    if (it == waiting.end()) throw ToolError("the picture encoder returned a picture that was never sent");
    if (packet->pts <= lastPts) throw ToolError("the picture encoder returned pictures out of order");
    lastPts = packet->pts;
    std::vector<uint8_t> au =
        InsertBeforeFirstPicture(codec, packet->data, static_cast<size_t>(packet->size), it->second);
    if (hls) {
      // Every access unit of the transport stream starts with its delimiter. Decode order is
      // presentation order, so the PES headers carry the presentation time only.
      au = WithDelimiter(codec, std::move(au));
      packet->dts = packet->pts;
      summary.pictureBytes += au.size() - it->second.size();
      summary.meshBytes += it->second.size();
    } else {
      summary.pictureBytes += StoredSize(packet->data, static_cast<size_t>(packet->size));
      summary.meshBytes += it->second.size() + 1;  // a 4-byte length field instead of the 3-byte start code
    }
    waiting.erase(it);
    Av::PacketPtr out = Av::NewPacket();
    Av::Check(av_new_packet(out.get(), static_cast<int>(au.size())), "packet");
    std::copy(au.begin(), au.end(), out->data);
    Av::Check(av_packet_copy_props(out.get(), packet), "packet");
    writeAudioBefore(packet->pts, video.Context()->time_base);
    if (hls) {
      stream->Write(out.get(), packet->pts % summary.segmentFrames == 0);
    } else {
      mp4->Write(out.get());
    }
  };

  OzmEncode::XtraAttributes attributes;
  attributes.frameCount = static_cast<uint32_t>(count);
  attributes.writeHasVertexNormals = true;
  attributes.hasVertexNormals = o.normals ? 1 : 0;
  for (int i = 0; i < count; ++i) {
    // Every group starts with a key frame of both picture and mesh (a fresh mesh encoder begins with
    // one), so that playback can start at any picture key frame. Topology changes inside a group
    // add mesh key frames, which need no picture key frame.
    const bool groupStart = i % o.keyInterval == 0;
    if (groupStart) meshEncoder = std::make_unique<OzmEncode::SequenceEncoder>(sequence);
    const OzmEncode::Mesh mesh = meshes->Frame(i, &summary);
    OzmEncode::EncodedFrame encoded;
    if (!meshEncoder->Encode(mesh, static_cast<uint32_t>(i + 1), &encoded)) {
      throw ToolError("frame " + std::to_string(i) + ": the mesh cannot be encoded (" +
                      std::to_string(mesh.VertexCount()) + " vertices, " + std::to_string(mesh.faces.size()) +
                      " triangles; too large, or broken faces)");
    }
    std::vector<uint8_t> unit;
    if (!OzmEncode::AppendMeshNalUnit(encoded.payload.data(), encoded.payload.size(), unit, 0x18)) {
      throw ToolError("frame " + std::to_string(i) + ": the mesh is too large for a mesh unit");
    }
    waiting[i] = std::move(unit);

    const OzmEncode::Box box = OzmEncode::BoundsOf(mesh.positions);
    for (int a = 0; a < 3; ++a) {
      attributes.bboxMin[a] = i ? std::min<double>(attributes.bboxMin[a], box.min[a]) : box.min[a];
      attributes.bboxMax[a] = i ? std::max<double>(attributes.bboxMax[a], box.max[a]) : box.max[a];
    }
    attributes.maxVertexCount = std::max(attributes.maxVertexCount, encoded.vertices);
    attributes.maxIndexCount = std::max(attributes.maxIndexCount, 3 * encoded.faces);
    summary.triangles += encoded.faces;
    summary.vertices += encoded.vertices;
    summary.meshKeyFrames += encoded.keyFrame ? 1 : 0;
    // A key frame that its group's start did not ask for and that prediction could have made: a
    // topology change makes one too, and then no coding was tried.
    summary.placedKeyFrames += encoded.keyFrame && !groupStart && !encoded.candidates.empty() ? 1 : 0;
    if (!encoded.keyFrame) ++summary.interFrames[static_cast<int>(encoded.coding)];
    summary.maxError = std::max(summary.maxError, encoded.maxError);
    summary.maxStep = std::max(summary.maxStep, encoded.step);

    texture->Picture(i, scaler, picture.get());
    picture->pts = i;
    video.Send(picture.get(), groupStart, write);
    if (progress) progress(i + 1, count);
  }
  video.Send(nullptr, false, write);
  if (!waiting.empty()) {
    throw ToolError("the picture encoder dropped " + std::to_string(waiting.size()) + " of " + std::to_string(count) +
                    " pictures");
  }
  writeAudioBefore(0, AVRational{0, 1});  // the rest of the audio
  std::error_code ec;
  if (hls) {
    // No attribute block: a player of the stream learns the same facts from the stream itself.
    stream->Finish();
    summary.segments = stream->Segments();
    summary.fileBytes = fs::file_size(o.out, ec);
    for (const std::string& segment : summary.segments) summary.fileBytes += fs::file_size(segment, ec);
  } else {
    mp4->Finish();
    // The attribute block closes the file: players read it from the last kilobyte.
    const std::vector<uint8_t> block = OzmEncode::WriteXtraBlock(attributes);
    Mp4Writer::Append(o.out, block);
    summary.attributeBytes = block.size();
    summary.fileBytes = fs::file_size(o.out, ec);
  }

  summary.maxVertices = attributes.maxVertexCount;
  summary.maxIndices = attributes.maxIndexCount;
  for (int a = 0; a < 3; ++a) {
    summary.bboxMin[a] = attributes.bboxMin[a];
    summary.bboxMax[a] = attributes.bboxMax[a];
  }
  const uint64_t known = summary.pictureBytes + summary.meshBytes + summary.attributeBytes + summary.audioBytes;
  summary.containerBytes = summary.fileBytes > known ? summary.fileBytes - known : 0;
  summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return summary;
}

}  // namespace OzmTool
