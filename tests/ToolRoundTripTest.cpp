// The ozm tool end to end on the sample: encode to MP4, inspect, export, and read what was written
// back with independent readers (libavformat for the samples, the player's attribute reader for the
// block at the end, assimp for the mesh files, FFmpeg's PNG decoder for the pictures).
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <assimp/Importer.hpp>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshFrame.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/OzmAttributes.h"
#include "OzmCore/OzmMeshReader.h"
#include "tests/data/TestMeshFiles.h"
#include "tools/ozm/Encode.h"
#include "tools/ozm/Export.h"
#include "tools/ozm/ClipReport.h"
#include "tools/ozm/MeshStream.h"
#include "tools/ozm/Sample.h"
#include "tools/ozm/media/Av.h"
#include "tools/ozm/media/NalUnits.h"
#include "tools/ozm/media/PictureReader.h"
#include "tools/ozm/media/VolumetricReader.h"

namespace {

namespace fs = std::filesystem;
using OzmTool::ExportFormat;
using OzmTool::VideoCodec;

constexpr int kFrames = 20;
constexpr int kKeyInterval = 8;
constexpr int kSize = 192;

std::string SampleMesh() { return TestMeshFiles::Folder() + "/bunny.mesh"; }

class ToolRoundTrip : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::exists(SampleMesh())) {
      if (TestMeshFiles::MissingDataAllowed()) GTEST_SKIP() << "no test data in " << TestMeshFiles::Folder();
      FAIL() << "no test data in " << TestMeshFiles::Folder() << ": run scripts/test-data.sh";
    }
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    m_dir = fs::temp_directory_path() / ("ozm-tool-" + std::to_string(getpid()) + "-" + info->name());
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
    OzmTool::Av::QuietLibraryLogs();
  }
  void TearDown() override {
    if (!m_dir.empty()) fs::remove_all(m_dir);
  }
  std::string Path(const std::string& name) const { return (m_dir / name).string(); }

  fs::path m_dir;
};

OzmTool::EncodeOptions SampleOptions(const std::string& out) {
  OzmTool::EncodeOptions o;
  o.out = out;
  o.sample = true;
  o.sampleMesh = SampleMesh();
  o.frames = kFrames;
  o.keyInterval = kKeyInterval;
  o.width = o.height = kSize;
  o.crf = 18;
  o.preset = "veryfast";
  return o;
}

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// A mesh file as assimp reads it: texture coordinates flipped into the tool's convention (v = 0 on
// the picture's top row), whatever the format's own convention is; OBJ corners that agree in every
// attribute joined into one vertex.
struct Loaded {
  std::vector<std::array<float, 3>> positions, normals;
  std::vector<std::array<float, 2>> uvs;
  size_t triangles = 0;
};

Loaded Load(const std::string& path) {
  Assimp::Importer importer;
  const aiScene* scene = importer.ReadFile(path, aiProcess_FlipUVs | aiProcess_JoinIdenticalVertices);
  Loaded out;
  if (!scene) {
    ADD_FAILURE() << path << ": " << importer.GetErrorString();
    return out;
  }
  for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
    const aiMesh* mesh = scene->mMeshes[m];
    for (unsigned v = 0; v < mesh->mNumVertices; ++v) {
      out.positions.push_back({mesh->mVertices[v].x, mesh->mVertices[v].y, mesh->mVertices[v].z});
      if (mesh->HasNormals()) out.normals.push_back({mesh->mNormals[v].x, mesh->mNormals[v].y, mesh->mNormals[v].z});
      if (mesh->HasTextureCoords(0)) out.uvs.push_back({mesh->mTextureCoords[0][v].x, mesh->mTextureCoords[0][v].y});
    }
    out.triangles += mesh->mNumFaces;
  }
  return out;
}

// For every vertex of `got`, the vertex of `want` nearest to it: the largest differences per axis.
struct Differences {
  double position = 0, uv = 0, normal = 0;
};

Differences Compare(const Loaded& got, const Loaded& want) {
  // A grid over the wanted positions; each got vertex searches its cell's neighbourhood.
  std::array<float, 3> lo = want.positions[0], hi = want.positions[0];
  for (const auto& p : want.positions) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], p[a]);
      hi[a] = std::max(hi[a], p[a]);
    }
  }
  constexpr int kCells = 24;
  auto cellOf = [&](const std::array<float, 3>& p, int a) {
    const float span = std::max(hi[a] - lo[a], 1e-9f);
    return std::clamp(static_cast<int>((p[a] - lo[a]) / span * kCells), 0, kCells - 1);
  };
  std::map<std::array<int, 3>, std::vector<size_t>> grid;
  for (size_t i = 0; i < want.positions.size(); ++i) {
    const auto& p = want.positions[i];
    grid[{cellOf(p, 0), cellOf(p, 1), cellOf(p, 2)}].push_back(i);
  }
  Differences d;
  for (size_t i = 0; i < got.positions.size(); ++i) {
    const auto& p = got.positions[i];
    const int c[3] = {cellOf(p, 0), cellOf(p, 1), cellOf(p, 2)};
    double best = INFINITY;
    size_t nearest = 0;
    for (int dx = -1; dx <= 1; ++dx) {
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dz = -1; dz <= 1; ++dz) {
          auto it = grid.find({c[0] + dx, c[1] + dy, c[2] + dz});
          if (it == grid.end()) continue;
          for (size_t j : it->second) {
            double dist = 0;
            for (int a = 0; a < 3; ++a) dist = std::max<double>(dist, std::fabs(p[a] - want.positions[j][a]));
            if (dist < best) {
              best = dist;
              nearest = j;
            }
          }
        }
      }
    }
    d.position = std::max(d.position, best);
    if (!std::isfinite(best)) continue;
    if (i < got.uvs.size() && nearest < want.uvs.size()) {
      for (int a = 0; a < 2; ++a) d.uv = std::max<double>(d.uv, std::fabs(got.uvs[i][a] - want.uvs[nearest][a]));
    }
    if (i < got.normals.size() && nearest < want.normals.size()) {
      for (int a = 0; a < 3; ++a) {
        d.normal = std::max<double>(d.normal, std::fabs(got.normals[i][a] - want.normals[nearest][a]));
      }
    }
  }
  return d;
}

Loaded SourceFrame(int index, bool normals) {
  const OzmEncode::Mesh m = OzmTool::Sample(SampleMesh()).Frame(index, normals);
  Loaded out;
  for (size_t v = 0; v < m.VertexCount(); ++v) {
    out.positions.push_back({m.positions[3 * v], m.positions[3 * v + 1], m.positions[3 * v + 2]});
    out.uvs.push_back({m.uvs[2 * v], m.uvs[2 * v + 1]});
    if (normals) out.normals.push_back({m.normals[3 * v], m.normals[3 * v + 1], m.normals[3 * v + 2]});
  }
  out.triangles = m.faces.size();
  return out;
}

// The frame number the picture shows, read back with the sample's font.
int NumberOnPicture(const std::string& png) {
  OzmTool::PictureReader reader(png);
  const AVFrame* frame = reader.Next();
  if (!frame) return -1;
  const int w = frame->width, h = frame->height;
  OzmTool::Av::Scaler scaler(w, h, AV_PIX_FMT_RGB24);
  OzmTool::Av::FramePtr rgb = OzmTool::Av::NewPicture(w, h, AV_PIX_FMT_RGB24);
  scaler.Convert(frame, rgb.get());
  std::vector<uint8_t> packed(static_cast<size_t>(w) * h * 3);
  for (int y = 0; y < h; ++y)
    std::memcpy(&packed[static_cast<size_t>(y) * w * 3], rgb->data[0] + y * rgb->linesize[0], w * 3);
  const OzmTool::NumberPlacement at = OzmTool::Sample::NumberAt(w, h);
  return OzmTool::ReadNumber(at.cx, at.cy, at.scale, 3, w, h, packed);
}

// What libavformat hands a player for each sample of the video track, as stored.
struct StoredSample {
  std::vector<uint8_t> bytes;
  bool key = false;
};

std::vector<StoredSample> StoredSamples(const std::string& path) {
  OzmTool::Av::InputPtr input = OzmTool::Av::OpenInput(path);
  OzmTool::Av::PacketPtr packet = OzmTool::Av::NewPacket();
  std::vector<StoredSample> out;
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    out.push_back(
        {std::vector<uint8_t>(packet->data, packet->data + packet->size), (packet->flags & AV_PKT_FLAG_KEY) != 0});
    av_packet_unref(packet.get());
  }
  return out;
}

struct RoundTripCase {
  const char* name;
  VideoCodec codec;
  int indexCoding;
  int interCoding;
  bool normals;
  bool temporal;
  ExportFormat format;
  bool embed;
};

TEST_F(ToolRoundTrip, EncodeInspectExportReproduceTheSampleWithinTheQuantisation) {
  const std::vector<RoundTripCase> cases = {
      {"H.264, EdgeBreaker, Huffman, PLY", VideoCodec::H264, 4, 7, false, false, ExportFormat::Ply, false},
      {"HEVC, varint, byte deltas, normals, OBJ", VideoCodec::Hevc, 3, 3, true, false, ExportFormat::Obj, false},
      {"H.264, fixed-byte, Golomb, normals, temporal, glTF", VideoCodec::H264, 2, 4, true, true, ExportFormat::Gltf,
       false},
      {"HEVC, raw indices, transform deltas, embedded glTF", VideoCodec::Hevc, 1, 5, false, false, ExportFormat::Gltf,
       true},
  };
  for (const RoundTripCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string clip = Path("clip.mp4");
    OzmTool::EncodeOptions o = SampleOptions(clip);
    o.codec = c.codec;
    o.indexCoding = c.indexCoding;
    o.interCoding = c.interCoding;
    o.normals = c.normals;
    o.temporal = c.temporal;
    const OzmTool::EncodeSummary summary = OzmTool::Encode(o);
    ASSERT_EQ(summary.frames, kFrames);
    EXPECT_EQ(summary.meshKeyFrames, (kFrames + kKeyInterval - 1) / kKeyInterval);
    const double tolerance = 0.5 * summary.maxStep + 1e-5;

    // The attribute block ends the file, and the player's reader finds the sequence's values in the
    // last kilobyte.
    const std::vector<uint8_t> file = ReadFile(clip);
    ASSERT_EQ(file.size(), summary.fileBytes);
    const size_t block = summary.attributeBytes;
    ASSERT_GT(block, 8u);
    ASSERT_LE(block, 1024u);
    const uint8_t* atom = &file[file.size() - block];
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(atom + 4), 4), "Xtra");
    EXPECT_EQ(static_cast<size_t>(atom[0] << 24 | atom[1] << 16 | atom[2] << 8 | atom[3]), block);
    OZMCORE::CComPtr<OzmCrossPlatform::Buffer> values(new OzmCrossPlatform::Buffer(16));
    ASSERT_TRUE(OzmCrossPlatform::ReadXtraAttributes(&file[file.size() - 1024], 1024, values.Get()));
    uint32_t frameCount = 0, maxVertices = 0, maxIndices = 0, normals = 7;
    values->GetUINT32(OzmAttrib_FrameCount, &frameCount);
    values->GetUINT32(OzmAttrib_MaxVertexCount, &maxVertices);
    values->GetUINT32(OzmAttrib_MaxIndexCount, &maxIndices);
    values->GetUINT32(OzmAttrib_HasVertexNormals, &normals);
    EXPECT_EQ(frameCount, static_cast<uint32_t>(kFrames));
    EXPECT_EQ(maxVertices, summary.maxVertices);
    EXPECT_EQ(maxIndices, 3 * SourceFrame(0, false).triangles);
    EXPECT_EQ(normals, c.normals ? 1u : 0u);
    std::array<float, 3> lo = SourceFrame(0, false).positions[0], hi = lo;
    for (int i = 0; i < kFrames; ++i) {
      for (const auto& p : SourceFrame(i, false).positions) {
        for (int a = 0; a < 3; ++a) {
          lo[a] = std::min(lo[a], p[a]);
          hi[a] = std::max(hi[a], p[a]);
        }
      }
    }
    const _GUID* mins[3] = {&OzmAttrib_BBoxMinX, &OzmAttrib_BBoxMinY, &OzmAttrib_BBoxMinZ};
    const _GUID* maxs[3] = {&OzmAttrib_BBoxMaxX, &OzmAttrib_BBoxMaxY, &OzmAttrib_BBoxMaxZ};
    for (int a = 0; a < 3; ++a) {
      double v = 0;
      values->GetDouble(*mins[a], &v);
      EXPECT_EQ(v, lo[a]) << "axis " << a;
      values->GetDouble(*maxs[a], &v);
      EXPECT_EQ(v, hi[a]) << "axis " << a;
    }

    // Every stored sample holds exactly one mesh unit as a NAL unit of its own, in front of the
    // picture, and key frames of mesh and picture coincide.
    const std::vector<StoredSample> samples = StoredSamples(clip);
    ASSERT_EQ(samples.size(), static_cast<size_t>(kFrames));
    uint64_t stored = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
      std::vector<OzmTool::NalSpan> units;
      ASSERT_TRUE(OzmTool::SplitLengthPrefixed(samples[i].bytes.data(), samples[i].bytes.size(), 4, &units)) << i;
      int meshUnits = 0;
      bool pictureSeen = false, meshFirst = false;
      for (const auto& u : units) {
        const uint8_t* nal = &samples[i].bytes[u.begin];
        if (nal[0] == 0x18 && u.end - u.begin > 8 && std::memcmp(nal + 1, "WELM", 4) == 0) {
          ++meshUnits;
          meshFirst = !pictureSeen;
        } else if (OzmTool::IsPictureUnit(c.codec, nal, u.end - u.begin)) {
          pictureSeen = true;
        }
      }
      EXPECT_EQ(meshUnits, 1) << "sample " << i;
      EXPECT_TRUE(meshFirst && pictureSeen) << "sample " << i;
      EXPECT_EQ(samples[i].key, i % kKeyInterval == 0) << "sample " << i;
      stored += samples[i].bytes.size();
    }
    EXPECT_EQ(stored, summary.pictureBytes + summary.meshBytes);

    // Inspect finds and decodes every mesh the way the player does.
    const OzmTool::InspectReport report = OzmTool::Inspect(clip);
    ASSERT_EQ(report.frames.size(), static_cast<size_t>(kFrames));
    EXPECT_EQ(report.problems, 0);
    EXPECT_TRUE(report.attributes.found);
    EXPECT_EQ(report.attributes.blockBytes, block);
    EXPECT_EQ(report.width, kSize);
    for (const OzmTool::FrameInfo& f : report.frames) {
      EXPECT_TRUE(f.decoded) << f.index << ": " << f.problem;
      EXPECT_EQ(f.header.m_frameId, static_cast<uint32_t>(f.index + 1));
      EXPECT_EQ(f.meshKey, f.index % kKeyInterval == 0) << f.index;
      EXPECT_EQ(f.pictureKey, f.meshKey) << f.index;
      EXPECT_EQ(f.vertices, summary.maxVertices) << f.index;
      EXPECT_EQ(f.indices, maxIndices) << f.index;
      EXPECT_NEAR(f.seconds, f.index / 30.0, 1e-6);
    }

    // Export starts decoding at the key frame before the range; every frame comes back within the
    // quantisation step, with its own picture.
    const std::string out = Path("export");
    OzmTool::ExportOptions e;
    e.path = clip;
    e.frames = {kKeyInterval + 1, kKeyInterval + 3};
    e.format = c.format;
    e.outDir = out;
    e.embed = c.embed;
    const OzmTool::ExportResult result = OzmTool::Export(e);
    EXPECT_EQ(result.meshesFrom, kKeyInterval);
    EXPECT_EQ(result.picturesFrom, kKeyInterval);
    ASSERT_EQ(result.frames.size(), 3u);
    for (const OzmTool::ExportedFrame& f : result.frames) {
      SCOPED_TRACE("frame " + std::to_string(f.index));
      ASSERT_FALSE(f.files.empty());
      const Loaded got = Load(f.files[0]);
      const bool storedNormals = c.normals && !c.temporal && c.interCoding != 5;
      const Loaded want = SourceFrame(static_cast<int>(f.index), storedNormals);
      EXPECT_LE(got.positions.size(), summary.maxVertices);
      EXPECT_EQ(got.triangles, want.triangles);
      ASSERT_EQ(got.uvs.size(), got.positions.size());
      ASSERT_EQ(got.normals.size(), got.positions.size());
      const Differences there = Compare(got, want), back = Compare(want, got);
      EXPECT_LE(there.position, tolerance);
      EXPECT_LE(back.position, tolerance);
      EXPECT_LE(there.uv, 1e-4);
      if (storedNormals) {
        EXPECT_LE(there.normal, 1e-3);
      }
      for (const auto& n : got.normals) EXPECT_NEAR(n[0] * n[0] + n[1] * n[1] + n[2] * n[2], 1.0, 1e-3);
      if (c.embed) {
        EXPECT_EQ(f.files.size(), 1u);
        const std::vector<uint8_t> text = ReadFile(f.files[0]);
        EXPECT_NE(std::string(text.begin(), text.end()).find("data:image/png;base64,"), std::string::npos);
      } else {
        EXPECT_EQ(NumberOnPicture(f.files.back()), f.index);
      }
    }
    fs::remove_all(out);
  }
}

// Frames exported as files are valid encoder input: a folder of meshes with a folder of pictures
// encodes again, and decodes to the same frames and pictures.
TEST_F(ToolRoundTrip, ExportedFramesEncodeAgainFromAFolder) {
  const std::string clip = Path("clip.mp4");
  OzmTool::EncodeOptions o = SampleOptions(clip);
  o.frames = 5;
  const OzmTool::EncodeSummary first = OzmTool::Encode(o);
  for (ExportFormat format : {ExportFormat::Ply, ExportFormat::Obj, ExportFormat::Gltf}) {
    SCOPED_TRACE(static_cast<int>(format));
    const std::string frames = Path("frames"), again = Path("again.mp4"), back = Path("back");
    OzmTool::ExportOptions e;
    e.path = clip;
    e.frames = {0, 4};
    e.format = format;
    e.outDir = frames;
    ASSERT_EQ(OzmTool::Export(e).frames.size(), 5u);

    OzmTool::EncodeOptions folder;
    folder.out = again;
    folder.input = frames;
    folder.texture = frames;
    folder.preset = "veryfast";
    folder.crf = 18;
    const OzmTool::EncodeSummary second = OzmTool::Encode(folder);
    EXPECT_EQ(second.frames, 5);
    EXPECT_EQ(second.width, kSize);
    EXPECT_FALSE(second.projectedTexCoords);

    e.path = again;
    e.outDir = back;
    const OzmTool::ExportResult result = OzmTool::Export(e);
    ASSERT_EQ(result.frames.size(), 5u);
    for (const OzmTool::ExportedFrame& f : result.frames) {
      SCOPED_TRACE("frame " + std::to_string(f.index));
      const std::string name = fs::path(f.files[0]).filename().string();
      const Loaded before = Load((fs::path(frames) / name).string()), after = Load(f.files[0]);
      EXPECT_EQ(after.triangles, before.triangles);
      const Differences d = Compare(after, before);
      EXPECT_LE(d.position, 0.5 * (first.maxStep + second.maxStep) + 1e-5);
      EXPECT_LE(d.uv, 1e-4);
      EXPECT_EQ(NumberOnPicture(f.files.back()), f.index);
    }
    fs::remove_all(frames);
    fs::remove_all(back);
  }
}

// A change of topology inside a group makes a mesh key frame but no picture key frame; export then
// starts the meshes and the pictures at their own key frames.
TEST_F(ToolRoundTrip, TopologyChangesStartMeshesButNotPictures) {
  const std::string frames = Path("frames");
  fs::create_directories(frames);
  const OzmTool::Sample sample(SampleMesh());
  for (int i = 0; i < 6; ++i) {
    OzmEncode::Mesh m = sample.Frame(i, false);
    if (i >= 3) m.faces.resize(m.faces.size() - 10);  // from frame 3 on, a few triangles fewer
    std::ofstream obj(frames + "/f" + std::to_string(i) + ".obj");
    for (size_t v = 0; v < m.VertexCount(); ++v) {
      obj << "v " << m.positions[3 * v] << ' ' << m.positions[3 * v + 1] << ' ' << m.positions[3 * v + 2] << '\n';
      obj << "vt " << m.uvs[2 * v] << ' ' << 1.0f - m.uvs[2 * v + 1] << '\n';
    }
    for (const WelmMeshFace& f : m.faces) {
      obj << "f";
      for (uint32_t v : f.v) obj << ' ' << v + 1 << '/' << v + 1;
      obj << '\n';
    }
  }
  OzmTool::EncodeOptions o;
  o.out = Path("clip.mp4");
  o.input = frames;
  o.keyInterval = 4;
  o.width = o.height = 64;
  o.preset = "veryfast";
  OzmTool::Encode(o);
  const OzmTool::InspectReport report = OzmTool::Inspect(o.out);
  ASSERT_EQ(report.frames.size(), 6u);
  std::vector<int64_t> meshKeys, pictureKeys;
  for (const OzmTool::FrameInfo& f : report.frames) {
    if (f.meshKey) meshKeys.push_back(f.index);
    if (f.pictureKey) pictureKeys.push_back(f.index);
  }
  EXPECT_EQ(meshKeys, (std::vector<int64_t>{0, 3, 4}));
  EXPECT_EQ(pictureKeys, (std::vector<int64_t>{0, 4}));

  struct Case {
    int64_t frame, meshesFrom, picturesFrom;
  };
  for (const Case& c : {Case{2, 0, 0}, Case{3, 3, 0}, Case{5, 4, 4}}) {
    OzmTool::ExportOptions e;
    e.path = o.out;
    e.frames = {c.frame, c.frame};
    e.outDir = Path("out");
    const OzmTool::ExportResult r = OzmTool::Export(e);
    EXPECT_EQ(r.meshesFrom, c.meshesFrom) << c.frame;
    EXPECT_EQ(r.picturesFrom, c.picturesFrom) << c.frame;
    ASSERT_EQ(r.frames.size(), 1u);
    EXPECT_EQ(r.frames[0].triangles, sample.FaceCount() - (c.frame >= 3 ? 10 : 0)) << c.frame;
  }
}

// The pictures of a video file texture the frames in order.
TEST_F(ToolRoundTrip, AVideoTexturesTheFramesInOrder) {
  const std::string source = Path("source.mp4"), clip = Path("clip.mp4");
  OzmTool::EncodeOptions o = SampleOptions(source);
  o.frames = 6;
  OzmTool::Encode(o);
  o.out = clip;
  o.texture = source;
  o.width = o.height = 0;  // the video's own size
  o.codec = VideoCodec::Hevc;
  OzmTool::Encode(o);
  OzmTool::ExportOptions e;
  e.path = clip;
  e.frames = {3, 5};
  e.outDir = Path("out");
  for (const OzmTool::ExportedFrame& f : OzmTool::Export(e).frames) {
    EXPECT_EQ(NumberOnPicture(f.files.back()), f.index);
  }
  // Asking for more frames than the video has pictures is an error, not a crash or a short file.
  o.frames = 7;
  o.out = Path("short.mp4");
  EXPECT_THROW(OzmTool::Encode(o), OzmTool::ToolError);
  EXPECT_FALSE(fs::exists(o.out));
}

// The video access units of HLS segments as a transport-stream demultiplexer finds them: one PES
// packet each, read straight from the 188-byte packets.
struct TsAccessUnit {
  std::vector<uint8_t> bytes;  // the elementary stream
  int ptsDtsFlags = -1;        // the two bits of the PES header
  int64_t pts = -1;
  bool randomAccess = false;  // the adaptation field's random-access indicator
  size_t segment = 0;
  bool segmentStart = false;
};

std::vector<TsAccessUnit> TsVideoAccessUnits(const std::vector<std::string>& segments) {
  std::vector<TsAccessUnit> out;
  int videoPid = -1;
  for (size_t s = 0; s < segments.size(); ++s) {
    const std::vector<uint8_t> ts = ReadFile(segments[s]);
    EXPECT_EQ(ts.size() % 188, 0u) << segments[s];
    bool first = true;
    for (size_t at = 0; at + 188 <= ts.size(); at += 188) {
      const uint8_t* p = &ts[at];
      if (p[0] != 0x47) {
        ADD_FAILURE() << segments[s] << ": lost sync at " << at;
        return out;
      }
      const int pid = (p[1] & 0x1F) << 8 | p[2];
      const bool unitStart = (p[1] & 0x40) != 0;
      const int control = (p[3] >> 4) & 3;
      size_t payload = 4;
      bool randomAccess = false;
      if (control & 2) {
        randomAccess = p[4] > 0 && (p[5] & 0x40) != 0;
        payload += 1 + p[4];
      }
      if (!(control & 1) || payload >= 188) continue;
      const uint8_t* data = p + payload;
      const size_t size = 188 - payload;
      if (unitStart && size >= 14 && data[0] == 0 && data[1] == 0 && data[2] == 1 && (data[3] & 0xF0) == 0xE0) {
        videoPid = pid;
        TsAccessUnit au;
        au.ptsDtsFlags = data[7] >> 6;
        au.pts = static_cast<int64_t>(data[9] & 0x0E) << 29 | data[10] << 22 | (data[11] & 0xFE) << 14 | data[12] << 7 |
                 data[13] >> 1;
        au.randomAccess = randomAccess;
        au.segment = s;
        au.segmentStart = first;
        first = false;
        const size_t header = 9u + data[8];
        if (header < size) au.bytes.assign(data + header, data + size);
        out.push_back(std::move(au));
      } else if (pid == videoPid && !out.empty() && !unitStart) {
        out.back().bytes.insert(out.back().bytes.end(), data, data + size);
      }
    }
  }
  return out;
}

// A picture that decoding can start at: IDR in H.264; IDR, CRA or BLA in HEVC (the encoder's
// forced key frames after the first are CRA pictures, which start cleanly without B-frames).
bool IsRandomAccessPicture(VideoCodec codec, const std::vector<uint8_t>& au) {
  for (const OzmTool::NalSpan& nal : OzmTool::SplitAnnexB(au.data(), au.size())) {
    const int type = OzmTool::NalType(codec, au[nal.begin]);
    if (codec == VideoCodec::H264 ? type == 5 : (type >= 16 && type <= 21)) return true;
  }
  return false;
}

// HLS output: a playlist of MPEG-TS segments that each start with a key frame of picture and mesh,
// every access unit opening with its delimiter and carrying one mesh unit, PES headers with the
// presentation time only, and the meshes decoding in order the way the player decodes them.
TEST_F(ToolRoundTrip, HlsSegmentsCarryEveryMeshInItsAccessUnit) {
  struct Case {
    const char* name;
    VideoCodec codec;
    int keyInterval;
    double segmentSeconds;
    int segmentFrames;  // what the length rounds to: whole key-frame intervals
    size_t segments;
  };
  const std::vector<Case> cases = {
      {"H.264, one group a segment", VideoCodec::H264, 4, 0.1, 4, 5},
      {"HEVC, two groups a segment", VideoCodec::Hevc, 4, 0.3, 8, 3},
      {"H.264, three groups a segment, key frames inside", VideoCodec::H264, 5, 0.5, 15, 2},
      {"HEVC, the default length: one segment", VideoCodec::Hevc, 8, 2.0, 64, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(Path("hls"));
    fs::create_directories(Path("hls"));
    const std::string playlist = Path("hls/clip.m3u8");
    OzmTool::EncodeOptions o = SampleOptions(playlist);
    o.codec = c.codec;
    o.keyInterval = c.keyInterval;
    o.segmentSeconds = c.segmentSeconds;
    const OzmTool::EncodeSummary summary = OzmTool::Encode(o);
    EXPECT_TRUE(summary.hls);
    EXPECT_EQ(summary.segmentFrames, c.segmentFrames);
    EXPECT_EQ(summary.attributeBytes, 0u);

    // The playlist lists the segments (and nothing else is written), ends, and covers every frame.
    ASSERT_EQ(summary.segments.size(), c.segments);
    const std::vector<uint8_t> bytes = ReadFile(playlist);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(text.rfind("#EXTM3U\n", 0), 0u);
    EXPECT_NE(text.find("#EXT-X-ENDLIST"), std::string::npos);
    EXPECT_EQ(text.find("#EXT-X-TARGETDURATION:0"), std::string::npos);
    for (size_t i = 0; i < summary.segments.size(); ++i) {
      const std::string name = "clip_0000" + std::to_string(i) + ".ts";
      EXPECT_EQ(fs::path(summary.segments[i]).filename().string(), name);
      EXPECT_NE(text.find("\n" + name + "\n"), std::string::npos) << name;
    }
    uint64_t files = bytes.size();
    for (const auto& entry : fs::directory_iterator(Path("hls"))) {
      if (entry.path().filename() != "clip.m3u8") {
        EXPECT_NE(std::find(summary.segments.begin(), summary.segments.end(), entry.path().string()),
                  summary.segments.end())
            << entry.path();
      }
    }
    for (const std::string& segment : summary.segments) files += fs::file_size(segment);
    EXPECT_EQ(files, summary.fileBytes);

    const std::vector<TsAccessUnit> aus = TsVideoAccessUnits(summary.segments);
    ASSERT_EQ(aus.size(), static_cast<size_t>(kFrames));
    OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
    Ozm::COzmMeshReader reader;
    reader.Initialize(allocator, 0x0F);
    uint64_t stream = 0;
    for (size_t i = 0; i < aus.size(); ++i) {
      SCOPED_TRACE("access unit " + std::to_string(i));
      const TsAccessUnit& au = aus[i];
      stream += au.bytes.size();
      EXPECT_EQ(au.ptsDtsFlags, 2);  // '10': PTS only
      EXPECT_EQ(au.pts - aus[0].pts, static_cast<int64_t>(i) * 90000 / 30);
      EXPECT_EQ(au.segment, i / static_cast<size_t>(c.segmentFrames));
      EXPECT_EQ(au.segmentStart, i % static_cast<size_t>(c.segmentFrames) == 0);
      EXPECT_TRUE(OzmTool::StartsWithDelimiter(c.codec, au.bytes.data(), au.bytes.size()));
      const bool groupStart = i % static_cast<size_t>(c.keyInterval) == 0;
      EXPECT_EQ(IsRandomAccessPicture(c.codec, au.bytes), groupStart);
      EXPECT_EQ(OzmTool::StartsMeshGroup(au.bytes), groupStart);
      if (au.segmentStart) {
        EXPECT_TRUE(au.randomAccess);
      }
      int meshUnits = 0;
      for (const OzmTool::NalSpan& nal : OzmTool::SplitAnnexB(au.bytes.data(), au.bytes.size())) {
        meshUnits += au.bytes[nal.begin] == 0x18 && nal.end - nal.begin > 5 &&
                     std::memcmp(&au.bytes[nal.begin + 1], "WELM", 4) == 0;
      }
      EXPECT_EQ(meshUnits, 1);
      OZMCORE::CComPtr<OzmCrossPlatform::Stream> mesh(
          OzmCrossPlatform::FindCompressedMesh(au.bytes.data(), static_cast<unsigned int>(au.bytes.size())));
      ASSERT_TRUE(mesh);
      CStreamingMeshHeader header;
      ASSERT_TRUE(OZM_SUCCEEDED(header.Read(mesh)));
      EXPECT_EQ(header.m_frameId, static_cast<uint32_t>(i + 1));
      OZMCORE::CComPtr<OzmCrossPlatform::Stream> again(
          OzmCrossPlatform::FindCompressedMesh(au.bytes.data(), static_cast<unsigned int>(au.bytes.size())));
      again->SetTimestamp(static_cast<int64_t>(i) * 1000000000 / 30);
      const std::shared_ptr<Ozm::MeshFrame> frame = Ozm::DecodeMeshFrame(reader, again);
      ASSERT_TRUE(frame);
      EXPECT_EQ(frame->NumVertices(), summary.maxVertices);
      EXPECT_EQ(frame->NumIndices(), 3 * SourceFrame(0, false).triangles);
    }
    // The elementary stream is exactly the access units written: nothing added by the muxer.
    EXPECT_EQ(stream, summary.pictureBytes + summary.meshBytes);

    // FFmpeg reads the playlist and decodes every picture.
    OzmTool::VolumetricReader input(playlist);
    OzmTool::PictureDecoder decoder(input.Video());
    OzmTool::AccessUnit au;
    int pictures = 0;
    auto count = [&pictures](int64_t, const std::vector<uint8_t>&) { ++pictures; };
    while (input.Next(&au)) decoder.Send(au.packet.get(), count);
    decoder.Send(nullptr, count);
    EXPECT_EQ(pictures, kFrames);
  }
}

}  // namespace

// The audio track of a clip as a player gets it: the decoded samples of the first channel, timed
// against the clip's first picture.
struct DecodedAudio {
  int stream = -1, videoStream = -1;
  AVCodecID codec = AV_CODEC_ID_NONE;
  int rate = 0, channels = 0;
  double start = 0;          // seconds of the first sample after the first picture (negative: before)
  double trackSeconds = -1;  // the length the container gives the track, if it gives one
  std::vector<float> samples;
  double Seconds() const { return rate ? static_cast<double>(samples.size()) / rate : 0; }
};

DecodedAudio DecodeAudio(const std::string& path) {
  DecodedAudio out;
  OzmTool::Av::InputPtr input = OzmTool::Av::OpenInput(path);
  out.videoStream = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  const AVCodec* codec = nullptr;
  out.stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  if (out.stream < 0 || out.videoStream < 0 || !codec) return out;
  const AVStream* audio = input->streams[out.stream];
  const AVStream* video = input->streams[out.videoStream];
  out.codec = audio->codecpar->codec_id;
  if (audio->duration != AV_NOPTS_VALUE) {
    out.trackSeconds = static_cast<double>(audio->duration) * av_q2d(audio->time_base);
  }
  OzmTool::Av::CodecPtr decoder(avcodec_alloc_context3(codec));
  avcodec_parameters_to_context(decoder.get(), audio->codecpar);
  decoder->request_sample_fmt = AV_SAMPLE_FMT_FLTP;
  if (avcodec_open2(decoder.get(), codec, nullptr) < 0) return out;
  out.rate = decoder->sample_rate;
  out.channels = decoder->ch_layout.nb_channels;
  OzmTool::Av::PacketPtr packet = OzmTool::Av::NewPacket();
  OzmTool::Av::FramePtr frame = OzmTool::Av::NewFrame();
  int64_t firstPicture = AV_NOPTS_VALUE;
  bool timed = false;
  auto receive = [&] {
    while (avcodec_receive_frame(decoder.get(), frame.get()) == 0) {
      EXPECT_EQ(frame->format, AV_SAMPLE_FMT_FLTP);
      if (!timed && frame->pts != AV_NOPTS_VALUE) {
        out.start = frame->pts * av_q2d(audio->time_base) - static_cast<double>(out.samples.size()) / out.rate;
        timed = true;
      }
      const float* first = reinterpret_cast<const float*>(frame->data[0]);
      out.samples.insert(out.samples.end(), first, first + frame->nb_samples);
      av_frame_unref(frame.get());
    }
  };
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    if (packet->stream_index == out.videoStream && firstPicture == AV_NOPTS_VALUE) firstPicture = packet->pts;
    if (packet->stream_index == out.stream) {
      EXPECT_EQ(avcodec_send_packet(decoder.get(), packet.get()), 0);
      receive();
    }
    av_packet_unref(packet.get());
  }
  avcodec_send_packet(decoder.get(), nullptr);
  receive();
  if (firstPicture != AV_NOPTS_VALUE) out.start -= firstPicture * av_q2d(video->time_base);
  return out;
}

// Where sound sets in after silence: the start of the first 5 ms window above a quarter of full
// scale that follows 100 ms of quiet, at or after `from` seconds; -1 when there is none.
double OnsetAfter(const DecodedAudio& a, double from) {
  const size_t window = static_cast<size_t>(a.rate / 200);
  size_t quiet = 0;
  for (size_t at = static_cast<size_t>(std::max(0.0, from) * a.rate); at + window <= a.samples.size(); at += window) {
    float peak = 0;
    for (size_t i = at; i < at + window; ++i) peak = std::max(peak, std::fabs(a.samples[i]));
    if (peak > 0.25f && quiet >= 20) return a.start + static_cast<double>(at) / a.rate;
    quiet = peak < 0.01f ? quiet + 1 : 0;
  }
  return -1;
}

// The pictures' samples of an MP4 file, in order (the other tracks' left out).
std::vector<StoredSample> StoredVideoSamples(const std::string& path) {
  OzmTool::Av::InputPtr input = OzmTool::Av::OpenInput(path);
  const int video = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  OzmTool::Av::PacketPtr packet = OzmTool::Av::NewPacket();
  std::vector<StoredSample> out;
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    if (packet->stream_index == video) {
      out.push_back(
          {std::vector<uint8_t>(packet->data, packet->data + packet->size), (packet->flags & AV_PKT_FLAG_KEY) != 0});
    }
    av_packet_unref(packet.get());
  }
  return out;
}

int MeshUnitsIn(const std::vector<uint8_t>& au, bool lengthPrefixed) {
  std::vector<OzmTool::NalSpan> units;
  if (lengthPrefixed) {
    if (!OzmTool::SplitLengthPrefixed(au.data(), au.size(), 4, &units)) return -1;
  } else {
    units = OzmTool::SplitAnnexB(au.data(), au.size());
  }
  int count = 0;
  for (const OzmTool::NalSpan& u : units) {
    count += au[u.begin] == 0x18 && u.end - u.begin > 5 && std::memcmp(&au[u.begin + 1], "WELM", 4) == 0;
  }
  return count;
}

// An audio track rides along as the second track (MP4) or the second elementary stream (HLS): AAC
// cut to the pictures' length, the beeps of the sample on the second marks, and the video exactly as
// without it: one mesh unit in every picture's access unit and, in an MP4, the attribute block last.
TEST_F(ToolRoundTrip, AnAudioTrackRidesAlongWithoutTouchingTheVideo) {
  constexpr int kAudioFrames = 45;  // 1.5 s: beeps at 0 and 1 s
  const std::string source = Path("source.mp4");
  {
    // A clip with the sample's beeps: the audio input of the cases that read a file.
    OzmTool::EncodeOptions o = SampleOptions(source);
    o.frames = 60;
    o.width = o.height = 64;
    o.sampleAudio = true;
    OzmTool::Encode(o);
  }
  struct Case {
    const char* name;
    bool hls;
    bool fromFile;
  };
  for (const Case& c :
       {Case{"MP4, the sample's beeps", false, false}, Case{"HLS, the sample's beeps", true, false},
        Case{"MP4, another clip's audio", false, true}, Case{"HLS, another clip's audio", true, true}}) {
    SCOPED_TRACE(c.name);
    fs::remove_all(Path("out"));
    fs::create_directories(Path("out"));
    OzmTool::EncodeOptions o = SampleOptions(Path(c.hls ? "out/clip.m3u8" : "out/clip.mp4"));
    o.frames = kAudioFrames;
    o.keyInterval = 15;
    o.segmentSeconds = 0.5;
    if (c.fromFile) {
      o.audio = source;
    } else {
      o.sampleAudio = true;
    }
    const OzmTool::EncodeSummary summary = OzmTool::Encode(o);
    EXPECT_TRUE(summary.audio);
    EXPECT_EQ(summary.audioRate, 48000);
    EXPECT_EQ(summary.audioChannels, 1);
    EXPECT_DOUBLE_EQ(summary.audioSeconds, 1.5);
    EXPECT_GT(summary.audioBytes, 0u);

    const DecodedAudio audio = DecodeAudio(o.out);
    EXPECT_EQ(audio.stream, 1);
    EXPECT_EQ(audio.videoStream, 0);
    EXPECT_EQ(audio.codec, AV_CODEC_ID_AAC);
    EXPECT_EQ(audio.rate, 48000);
    EXPECT_EQ(audio.channels, 1);
    // The decoder gives whole AAC frames of 1024 samples, and a transport stream keeps the encoder's
    // priming frame in front of the first picture; an MP4 track says where the sound ends.
    constexpr double kAacFrame = 1024.0 / 48000;
    EXPECT_GE(audio.Seconds(), 1.5);
    EXPECT_LE(audio.Seconds(), 1.5 + (c.hls ? 2 : 1) * kAacFrame);
    if (!c.hls) {
      EXPECT_NEAR(audio.trackSeconds, 1.5, 1e-3);
    }
    EXPECT_NEAR(audio.start, c.hls ? -kAacFrame : 0.0, 1e-3);
    EXPECT_NEAR(OnsetAfter(audio, 0.3), 1.0, 0.006) << "the second beep is out of step with the pictures";

    if (c.hls) {
      const std::vector<TsAccessUnit> aus = TsVideoAccessUnits(summary.segments);
      ASSERT_EQ(aus.size(), static_cast<size_t>(kAudioFrames));
      for (size_t i = 0; i < aus.size(); ++i) EXPECT_EQ(MeshUnitsIn(aus[i].bytes, false), 1) << "access unit " << i;
      EXPECT_EQ(summary.segments.size(), 3u);
      // Each segment carries the sound of its own pictures.
      for (size_t s = 0; s < summary.segments.size(); ++s) {
        const DecodedAudio part = DecodeAudio(summary.segments[s]);
        EXPECT_EQ(part.stream, 1) << summary.segments[s];
        EXPECT_NEAR(part.Seconds(), 0.5, 2 * kAacFrame) << summary.segments[s];
      }
    } else {
      const std::vector<StoredSample> samples = StoredVideoSamples(o.out);
      ASSERT_EQ(samples.size(), static_cast<size_t>(kAudioFrames));
      for (size_t i = 0; i < samples.size(); ++i) EXPECT_EQ(MeshUnitsIn(samples[i].bytes, true), 1) << "sample " << i;
      const std::vector<uint8_t> file = ReadFile(o.out);
      ASSERT_GE(file.size(), 1024u);
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(&file[file.size() - summary.attributeBytes + 4]), 4), "Xtra");
      OZMCORE::CComPtr<OzmCrossPlatform::Buffer> values(new OzmCrossPlatform::Buffer(16));
      ASSERT_TRUE(OzmCrossPlatform::ReadXtraAttributes(&file[file.size() - 1024], 1024, values.Get()));
      uint32_t frameCount = 0;
      values->GetUINT32(OzmAttrib_FrameCount, &frameCount);
      EXPECT_EQ(frameCount, static_cast<uint32_t>(kAudioFrames));
      const OzmTool::InspectReport report = OzmTool::Inspect(o.out);
      EXPECT_EQ(report.problems, 0);
      EXPECT_EQ(report.frames.size(), static_cast<size_t>(kAudioFrames));
    }
  }

  // Audio that cannot be had ends the run with a message naming the file, and leaves no output.
  std::ofstream(Path("junk.wav")) << "not audio";
  struct Bad {
    std::string audio;
    bool sampleAudio;
    const char* message;
  };
  for (const Bad& b : {Bad{Path("junk.wav"), false, "cannot open"}, Bad{Path("none.wav"), false, "does not exist"},
                       Bad{Path("out"), false, "audio input"}, Bad{source, true, "not both"}}) {
    SCOPED_TRACE(b.audio);
    OzmTool::EncodeOptions o = SampleOptions(Path("bad.mp4"));
    o.audio = b.audio;
    o.sampleAudio = b.sampleAudio;
    try {
      OzmTool::Encode(o);
      ADD_FAILURE() << "accepted";
    } catch (const OzmTool::ToolError& e) {
      EXPECT_NE(std::string(e.what()).find(b.message), std::string::npos) << e.what();
    }
    EXPECT_FALSE(fs::exists(o.out));
  }
}

namespace {

// inspect and export read an HLS stream through the player's own input and find in it what they
// find in the MP4 of the same content: every frame's mesh, the key frames, the pictures, the tracks.
TEST_F(ToolRoundTrip, AnHlsStreamReadsLikeTheMp4OfTheSameContent) {
  struct Case {
    const char* name;
    VideoCodec codec;
    bool audio;
    ExportFormat format;
  };
  const std::vector<Case> cases = {
      {"H.264, PLY", VideoCodec::H264, false, ExportFormat::Ply},
      {"HEVC, OBJ", VideoCodec::Hevc, false, ExportFormat::Obj},
      {"H.264 with audio, OBJ", VideoCodec::H264, true, ExportFormat::Obj},
      {"HEVC with audio, PLY", VideoCodec::Hevc, true, ExportFormat::Ply},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(Path("hls"));
    fs::create_directories(Path("hls"));
    OzmTool::EncodeOptions o = SampleOptions(Path("clip.mp4"));
    o.codec = c.codec;
    o.sampleAudio = c.audio;
    o.segmentSeconds = 0.3;
    OzmTool::Encode(o);
    o.out = Path("hls/clip.m3u8");
    ASSERT_EQ(OzmTool::Encode(o).segments.size(), 3u);

    const OzmTool::InspectReport mp4 = OzmTool::Inspect(Path("clip.mp4"));
    const OzmTool::InspectReport hls = OzmTool::Inspect(o.out);
    EXPECT_EQ(hls.format, "HLS (MPEG-TS segments)");
    EXPECT_TRUE(hls.stream);
    EXPECT_FALSE(hls.attributes.found);
    EXPECT_EQ(hls.codec, c.codec);
    EXPECT_EQ(hls.width, mp4.width);
    EXPECT_EQ(hls.height, mp4.height);
    EXPECT_NEAR(hls.seconds, kFrames / 30.0, 1e-3);
    ASSERT_EQ(hls.tracks.size(), c.audio ? 2u : 1u);
    ASSERT_EQ(hls.tracks.size(), mp4.tracks.size());
    for (size_t t = 0; t < hls.tracks.size(); ++t) {
      SCOPED_TRACE("track " + std::to_string(t));
      const OzmTool::TrackInfo &got = hls.tracks[t], &want = mp4.tracks[t];
      EXPECT_EQ(got.type, want.type);
      EXPECT_EQ(got.codec, want.codec);
      EXPECT_EQ(got.profile, want.profile);
      EXPECT_EQ(got.width, want.width);
      EXPECT_EQ(got.height, want.height);
      EXPECT_EQ(got.fps, want.fps);
      EXPECT_EQ(got.sampleRate, want.sampleRate);
      EXPECT_EQ(got.channels, want.channels);
      if (got.type == "video") {
        EXPECT_EQ(got.frames, want.frames);
        EXPECT_NEAR(got.seconds, want.seconds, 1e-3);
      }
    }
    EXPECT_EQ(hls.problems, 0);
    EXPECT_EQ(hls.framesWithMesh, mp4.framesWithMesh);
    EXPECT_EQ(hls.meshKeyFrames, mp4.meshKeyFrames);
    EXPECT_EQ(hls.meshBytes, mp4.meshBytes);
    ASSERT_EQ(hls.frames.size(), static_cast<size_t>(kFrames));
    ASSERT_EQ(hls.frames.size(), mp4.frames.size());
    for (size_t i = 0; i < hls.frames.size(); ++i) {
      SCOPED_TRACE("frame " + std::to_string(i));
      const OzmTool::FrameInfo &got = hls.frames[i], &want = mp4.frames[i];
      EXPECT_EQ(got.index, want.index);
      EXPECT_NEAR(got.seconds, want.seconds, 1e-5);
      EXPECT_EQ(got.pictureKey, want.pictureKey);
      EXPECT_EQ(got.meshKey, want.meshKey);
      EXPECT_TRUE(got.decoded) << got.problem;
      EXPECT_EQ(got.meshBytes, want.meshBytes);
      EXPECT_EQ(got.header.m_Version.word, want.header.m_Version.word);
      EXPECT_EQ(got.header.m_frameId, want.header.m_frameId);
      for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(got.header.m_bboxMin[a], want.header.m_bboxMin[a]);
        EXPECT_EQ(got.header.m_bboxMax[a], want.header.m_bboxMax[a]);
      }
      EXPECT_EQ(got.vertices, want.vertices);
      EXPECT_EQ(got.indices, want.indices);
    }

    // The frames exported from either are the same files, each with its own picture.
    OzmTool::ExportOptions e;
    e.frames = {kKeyInterval + 1, kKeyInterval + 3};
    e.format = c.format;
    e.path = Path("clip.mp4");
    e.outDir = Path("from-mp4");
    const OzmTool::ExportResult fromMp4 = OzmTool::Export(e);
    e.path = o.out;
    e.outDir = Path("from-hls");
    const OzmTool::ExportResult fromHls = OzmTool::Export(e);
    EXPECT_EQ(fromHls.meshesFrom, fromMp4.meshesFrom);
    EXPECT_EQ(fromHls.picturesFrom, fromMp4.picturesFrom);
    ASSERT_EQ(fromHls.frames.size(), 3u);
    ASSERT_EQ(fromHls.frames.size(), fromMp4.frames.size());
    for (size_t i = 0; i < fromHls.frames.size(); ++i) {
      const OzmTool::ExportedFrame &got = fromHls.frames[i], &want = fromMp4.frames[i];
      SCOPED_TRACE("exported frame " + std::to_string(got.index));
      ASSERT_EQ(got.files.size(), want.files.size());
      EXPECT_EQ(got.index, want.index);
      EXPECT_EQ(ReadFile(got.files[0]), ReadFile(want.files[0])) << got.files[0];
      EXPECT_EQ(NumberOnPicture(got.files.back()), got.index);
    }
    fs::remove_all(Path("from-mp4"));
    fs::remove_all(Path("from-hls"));
  }
}

// A stream that cannot be read ends the command at once with a ToolError that says why; a segment
// cut short loses only its own frames.
TEST_F(ToolRoundTrip, AnUnreadableHlsStreamFailsWithItsReason) {
  fs::create_directories(Path("hls"));
  OzmTool::EncodeOptions o = SampleOptions(Path("hls/clip.m3u8"));
  o.segmentSeconds = 0.3;
  const OzmTool::EncodeSummary summary = OzmTool::Encode(o);
  ASSERT_EQ(summary.segments.size(), 3u);
  const std::vector<uint8_t> playlist = ReadFile(o.out);

  struct Bad {
    const char* name;
    std::string playlist;  // written into its own folder, with copies of the segments listed
    bool withSegments;
    const char* segmentText;  // replaces every segment when set
    const char* message;
  };
  const std::string listed(playlist.begin(), playlist.end());
  const std::vector<Bad> cases = {
      {"no playlist", "", false, nullptr, "failed to open HLS playlist"},
      {"no segment listed", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-ENDLIST\n", false, nullptr, "lists no segments"},
      {"the segments are missing", listed, false, nullptr, "has no video"},
      {"the segments are not transport streams", listed, true, "not a transport stream\n", "has no video"},
  };
  for (const Bad& b : cases) {
    SCOPED_TRACE(b.name);
    const fs::path folder = m_dir / "bad";
    fs::remove_all(folder);
    fs::create_directories(folder);
    const std::string path = (folder / "clip.m3u8").string();
    if (!b.playlist.empty()) std::ofstream(path) << b.playlist;
    for (const std::string& segment : summary.segments) {
      if (!b.withSegments) continue;
      std::ofstream(folder / fs::path(segment).filename()) << b.segmentText;
    }
    for (bool inspect : {true, false}) {
      try {
        if (inspect) {
          OzmTool::Inspect(path);
        } else {
          OzmTool::ExportOptions e;
          e.path = path;
          e.outDir = Path("out");
          OzmTool::Export(e);
        }
        ADD_FAILURE() << (inspect ? "inspect" : "export") << " accepted it";
      } catch (const OzmTool::ToolError& e) {
        const std::string message = e.what();
        EXPECT_EQ(message.rfind("cannot open " + path + ": ", 0), 0u) << message;
        EXPECT_NE(message.find(b.message), std::string::npos) << message;
      }
    }
  }

  // The last segment cut in the middle of a packet: the frames before it are all there.
  const std::string last = summary.segments.back();
  const std::vector<uint8_t> bytes = ReadFile(last);
  std::ofstream(last, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size() / 2 + 50));
  const OzmTool::InspectReport report = OzmTool::Inspect(o.out);
  const size_t whole = static_cast<size_t>(2 * summary.segmentFrames);
  ASSERT_GE(report.frames.size(), whole);
  EXPECT_LT(report.frames.size(), static_cast<size_t>(kFrames));
  for (size_t i = 0; i < whole; ++i) EXPECT_TRUE(report.frames[i].decoded) << i << ": " << report.frames[i].problem;
}

}  // namespace
