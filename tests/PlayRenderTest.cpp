// ozm play end to end, as a person uses it: the built tool plays short clips made by our encoder
// through the built plug-in and writes what it renders. Every drawn frame must come out as one
// picture (MP4, PNG folder, contact sheet), the video must carry the clip's audio when it has some,
// and the pictures must show the clip's mesh where a camera of our own (written here from the
// camera's description, not from the tool's code) sees it, with the clip's texture on it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/ClipFixtures.h"
#include "tests/LoopbackHttpServer.h"
#include "tools/ozm/Encode.h"
#include "tools/ozm/PairingCheck.h"
#include "tools/ozm/media/Av.h"
#include "tools/ozm/media/PictureReader.h"
#include "tools/ozm/media/Png.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr int kWidth = 320, kHeight = 240;
// The camera as the tool documents it: vertical field of view 35 degrees, looking at the centre of
// the clip's box from scale * radius / sin(17.5 degrees), radius half the box's diagonal; azimuth 0
// on the +z side, positive angles towards +x; y is up.
constexpr double kFieldOfViewDegrees = 35;
constexpr double kPi = 3.14159265358979323846;

// Playback at half speed (a quarter under the sanitizers) leaves the render thread time to spare on
// a loaded machine, so that the player shows every frame; the output still runs at the clip's rate.
#if defined(__SANITIZE_ADDRESS__)
#define OZM_PLAY_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OZM_PLAY_TEST_SANITIZED 1
#endif
#endif
#ifdef OZM_PLAY_TEST_SANITIZED
constexpr const char* kClockScale = "0.25";
#else
constexpr const char* kClockScale = "0.5";
#endif

// Colours of the two-colour texture: the top half red, the bottom half blue.
constexpr uint8_t kRed[3] = {220, 30, 30};
constexpr uint8_t kBlue[3] = {30, 60, 220};

std::string Quote(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

struct PlayResult {
  int status = -1;
  json summary;
  std::string errors;
};

// Runs `ozm play ARGS --json`.
PlayResult Play(const std::vector<std::string>& args, const fs::path& errorFile) {
  std::string command = Quote(OZM_TOOL) + " play";
  for (const std::string& a : args) command += " " + Quote(a);
  command += " --json 2>" + Quote(errorFile.string());
  PlayResult r;
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return r;
  std::string out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int rc = ::pclose(pipe);
  r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : 128 + WTERMSIG(rc);
  r.summary = json::parse(out, nullptr, false);
  std::ifstream in(errorFile);
  r.errors.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return r;
}

// Packets of a media file's video and audio streams, and the audio's length.
struct MediaCounts {
  int64_t video = 0, audio = 0;
  double audioSeconds = 0, videoSeconds = 0;
  std::string videoCodec;
};

MediaCounts Probe(const std::string& path) {
  MediaCounts m;
  OzmTool::Av::InputPtr input = OzmTool::Av::OpenInput(path);
  OzmTool::Av::PacketPtr packet = OzmTool::Av::NewPacket();
  while (av_read_frame(input.get(), packet.get()) >= 0) {
    const AVStream* stream = input->streams[packet->stream_index];
    const double seconds = static_cast<double>(packet->duration) * av_q2d(stream->time_base);
    if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      ++m.video;
      m.videoSeconds += seconds;
      m.videoCodec = avcodec_get_name(stream->codecpar->codec_id);
    } else if (stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      ++m.audio;
      m.audioSeconds += seconds;
    }
    av_packet_unref(packet.get());
  }
  return m;
}

struct Picture {
  int width = 0, height = 0;
  std::vector<uint8_t> rgb;
  const uint8_t* At(int x, int y) const { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
};

Picture ReadPicture(const std::string& path) {
  OzmTool::PictureReader reader(path);
  const AVFrame* frame = reader.Next();
  Picture p;
  if (!frame) return p;
  p.width = frame->width;
  p.height = frame->height;
  OzmTool::Av::Scaler scaler(p.width, p.height, AV_PIX_FMT_RGB24);
  OzmTool::Av::FramePtr rgb = OzmTool::Av::NewPicture(p.width, p.height, AV_PIX_FMT_RGB24);
  scaler.Convert(frame, rgb.get());
  p.rgb.resize(static_cast<size_t>(p.width) * p.height * 3);
  for (int y = 0; y < p.height; ++y) {
    std::copy_n(rgb->data[0] + static_cast<ptrdiff_t>(y) * rgb->linesize[0], p.width * 3, &p.rgb[y * p.width * 3]);
  }
  return p;
}

struct Camera {
  double angle = 0, elevation = 15, distanceScale = 0.8;
};

// What our own camera sees of a frame: per pixel, whether the mesh covers it and the texture row
// (v) of the nearest surface there. Triangles are filled where they cover pixel centres.
struct Reference {
  std::vector<uint8_t> covered;
  std::vector<float> v;
  size_t Count() const { return static_cast<size_t>(std::count(covered.begin(), covered.end(), 1)); }
};

Reference Rasterize(const PairingCheck::ExpectedFrame& frame, const std::array<double, 6>& box, const Camera& camera) {
  using V3 = std::array<double, 3>;
  auto sub = [](const V3& a, const V3& b) { return V3{a[0] - b[0], a[1] - b[1], a[2] - b[2]}; };
  auto dot = [](const V3& a, const V3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
  auto cross = [](const V3& a, const V3& b) {
    return V3{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
  };
  auto unit = [&](const V3& a) {
    const double l = std::sqrt(dot(a, a));
    return V3{a[0] / l, a[1] / l, a[2] / l};
  };
  const V3 centre{(box[0] + box[3]) / 2, (box[1] + box[4]) / 2, (box[2] + box[5]) / 2};
  const double radius = std::sqrt(dot(sub({box[3], box[4], box[5]}, {box[0], box[1], box[2]}),
                                      sub({box[3], box[4], box[5]}, {box[0], box[1], box[2]}))) /
                        2;
  const double halfFov = kFieldOfViewDegrees * kPi / 360;
  const double distance = camera.distanceScale * radius / std::sin(halfFov);
  const double a = camera.angle * kPi / 180, e = camera.elevation * kPi / 180;
  const V3 eye{centre[0] + distance * std::sin(a) * std::cos(e), centre[1] + distance * std::sin(e),
               centre[2] + distance * std::cos(a) * std::cos(e)};
  const V3 forward = unit(sub(centre, eye));
  const V3 right = unit(cross(forward, {0, 1, 0}));
  const V3 up = cross(right, forward);
  const double t = std::tan(halfFov), aspect = static_cast<double>(kWidth) / kHeight;

  const size_t count = frame.vertices.size() / 32;
  std::vector<std::array<double, 4>> screen(count);  // x, y in pixels (y down), depth, v
  for (size_t i = 0; i < count; ++i) {
    float f[8];
    std::memcpy(f, &frame.vertices[i * 32], sizeof f);
    const V3 q = sub({f[0], f[1], f[2]}, eye);
    const double z = dot(q, forward);
    screen[i] = {(dot(q, right) / (z * t * aspect) + 1) / 2 * kWidth, (1 - dot(q, up) / (z * t)) / 2 * kHeight, z,
                 f[7]};
  }
  Reference ref;
  ref.covered.assign(static_cast<size_t>(kWidth) * kHeight, 0);
  ref.v.assign(ref.covered.size(), 0);
  std::vector<double> depth(ref.covered.size(), 1e300);
  for (size_t k = 0; k + 2 < frame.indices.size(); k += 3) {
    if (frame.indices[k] >= count || frame.indices[k + 1] >= count || frame.indices[k + 2] >= count) continue;
    const auto& p0 = screen[frame.indices[k]];
    const auto& p1 = screen[frame.indices[k + 1]];
    const auto& p2 = screen[frame.indices[k + 2]];
    if (p0[2] <= 0 || p1[2] <= 0 || p2[2] <= 0) continue;
    const double area = (p1[0] - p0[0]) * (p2[1] - p0[1]) - (p1[1] - p0[1]) * (p2[0] - p0[0]);
    if (std::fabs(area) < 1e-12) continue;
    const int x0 = std::max(0, static_cast<int>(std::floor(std::min({p0[0], p1[0], p2[0]}))));
    const int x1 = std::min(kWidth - 1, static_cast<int>(std::ceil(std::max({p0[0], p1[0], p2[0]}))));
    const int y0 = std::max(0, static_cast<int>(std::floor(std::min({p0[1], p1[1], p2[1]}))));
    const int y1 = std::min(kHeight - 1, static_cast<int>(std::ceil(std::max({p0[1], p1[1], p2[1]}))));
    for (int y = y0; y <= y1; ++y) {
      for (int x = x0; x <= x1; ++x) {
        const double px = x + 0.5, py = y + 0.5;
        const double b0 = ((p1[0] - px) * (p2[1] - py) - (p1[1] - py) * (p2[0] - px)) / area;
        const double b1 = ((p2[0] - px) * (p0[1] - py) - (p2[1] - py) * (p0[0] - px)) / area;
        const double b2 = 1 - b0 - b1;
        if (b0 < 0 || b1 < 0 || b2 < 0) continue;
        // Perspective-correct depth and texture row.
        const double w = b0 / p0[2] + b1 / p1[2] + b2 / p2[2];
        const double z = 1 / w;
        const size_t at = static_cast<size_t>(y) * kWidth + x;
        if (z >= depth[at]) continue;
        depth[at] = z;
        ref.covered[at] = 1;
        ref.v[at] = static_cast<float>((b0 * p0[3] / p0[2] + b1 * p1[3] / p1[2] + b2 * p2[3] / p2[2]) * z);
      }
    }
  }
  return ref;
}

// Pixels that are not the background (the picture's corner).
std::vector<uint8_t> Silhouette(const Picture& p) {
  std::vector<uint8_t> mask(static_cast<size_t>(p.width) * p.height, 0);
  const uint8_t* background = p.At(0, 0);
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      const uint8_t* c = p.At(x, y);
      for (int k = 0; k < 3; ++k) {
        if (std::abs(c[k] - background[k]) > 10) mask[static_cast<size_t>(y) * p.width + x] = 1;
      }
    }
  }
  return mask;
}

double Overlap(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  size_t both = 0, either = 0;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    both += a[i] && b[i];
    either += a[i] || b[i];
  }
  return either ? static_cast<double>(both) / either : 0;
}

class PlayRender : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!ClipFixtures::HaveSampleMesh()) return;
    s_work = fs::path(OZM_TEST_WORK_DIR) / "ozm-play";
    fs::remove_all(s_work);
    fs::create_directories(s_work);
    OzmTool::Av::QuietLibraryLogs();
    ClipFixtures::ClipContent numbered;
    numbered.frames = 36;
    numbered.size = 256;
    numbered.audio = true;
    s_numbered = ClipFixtures::Clip(numbered);
    numbered.container = "m3u8";
    numbered.segmentSeconds = 0.4;
    s_numberedHls = ClipFixtures::Clip(numbered);

    // The sample's mesh with a texture whose top half is red and bottom half blue: the sample maps
    // the picture's rows onto the model from its top (v = 0) to its feet.
    std::vector<uint8_t> texture(256 * 256 * 3);
    for (int y = 0; y < 256; ++y) {
      for (int x = 0; x < 256; ++x) std::copy_n(y < 128 ? kRed : kBlue, 3, &texture[(y * 256 + x) * 3]);
    }
    OzmTool::WritePng((s_work / "two-colours.png").string(), 256, 256, texture.data(), 256 * 3);
    OzmTool::EncodeOptions o;
    o.out = (s_work / "two-colours.mp4").string();
    o.sample = true;
    o.sampleMesh = ClipFixtures::MeshPath("bunny");
    o.texture = (s_work / "two-colours.png").string();
    o.frames = 30;
    o.keyInterval = 10;
    o.preset = "ultrafast";
    OzmTool::Encode(o);
    s_twoColours = o.out;
  }

  void SetUp() override {
    if (!ClipFixtures::HaveSampleMesh()) {
      if (TestMeshFiles::MissingDataAllowed()) GTEST_SKIP() << "no test data";
      FAIL() << "no test data in " << TestMeshFiles::Folder() << ": run scripts/test-data.sh";
    }
  }

  static fs::path Work(const std::string& name) { return s_work / name; }

  static inline fs::path s_work;
  static inline std::string s_numbered, s_numberedHls, s_twoColours;
};

// Each output holds exactly the frames drawn: an MP4 at the clip's rate with the clip's audio (or
// none), PNG pictures, a contact sheet; a frame range renders only those frames; an HLS stream from a
// loopback server plays two passes, and the audio follows both.
TEST_F(PlayRender, WritesEveryDrawnFrameToEachOutput) {
  OzmTest::LoopbackHttpServer server;
  std::string error;
  OzmTest::LoopbackServerOptions serverOptions;
  serverOptions.root = fs::path(s_numberedHls).parent_path().string();
  serverOptions.maxSeconds = 120;
  ASSERT_TRUE(server.Start(serverOptions, &error)) << error;
  ::setenv("OZM_DOWNLOAD_DIR", Work("downloads").c_str(), 1);

  struct Case {
    std::string name;
    std::string clip;
    std::vector<std::string> options;
    std::string out;      // under the work folder; a trailing slash makes a folder
    bool sheet;           // with a contact sheet
    int passes;           // of the clip
    int64_t first, last;  // clip frames rendered
    bool audio;           // the video has an audio track
  };
  const std::vector<Case> cases = {
      {"mp4-audio", s_numbered, {}, "numbered.mp4", true, 1, 0, 35, true},
      {"no-audio", s_numbered, {"--no-audio"}, "silent.mp4", false, 1, 0, 35, false},
      {"png-range", s_numbered, {"--frames", "10:19"}, "range/", false, 1, 10, 19, false},
      {"hls-loops", server.Url("clip.m3u8"), {"--loops", "2"}, "loops.mp4", false, 2, 0, 35, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args = {c.clip,      "--size", "320x240",           "--clock-scale",
                                     kClockScale, "--out",  Work(c.out).string()};
    args.insert(args.end(), c.options.begin(), c.options.end());
    if (c.sheet) args.insert(args.end(), {"--contact-sheet", Work(c.name + "-sheet.png").string()});
    const PlayResult r = Play(args, Work(c.name + ".err"));
    ASSERT_EQ(r.status, 0) << r.summary.dump(1) << r.errors.substr(r.errors.size() > 2000 ? r.errors.size() - 2000 : 0);
    const json& s = r.summary;
    const int64_t wanted = c.last - c.first + 1;
    EXPECT_EQ(s["mismatched"], 0);
    EXPECT_EQ(s["clip_frames"], 36);
    // Playback starts at the first frame whatever is rendered; every frame of the passes is drawn.
    EXPECT_GE(s["drawn"].get<int64_t>(), (c.last + 1) * c.passes);
    EXPECT_EQ(s["dropped"], 0) << s["rendered"]["frame_ids"].dump();
    const std::vector<uint32_t> ids = s["rendered"]["frame_ids"];
    EXPECT_EQ(s["rendered"]["frames"].get<size_t>(), ids.size());
    EXPECT_EQ(s["outputs"]["frames_written"].get<size_t>(), ids.size());
    // Frame ids count from 1: the rendered ones are the frames asked for, pass after pass (a loop
    // may show the next pass's first frame before the player is paused).
    ASSERT_GE(ids.size(), static_cast<size_t>(wanted * c.passes));
    ASSERT_LE(ids.size(), static_cast<size_t>(wanted * c.passes + 1));
    for (size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(ids[i], static_cast<uint32_t>(c.first + 1 + i % wanted)) << i;

    const fs::path out = Work(c.out);
    if (c.out.back() == '/') {
      size_t pictures = 0;
      for (const auto& entry : fs::directory_iterator(out)) pictures += entry.path().extension() == ".png";
      EXPECT_EQ(pictures, ids.size());
      char name[32];
      std::snprintf(name, sizeof name, "frame_%06zu.png", ids.size() - 1);
      const Picture last = ReadPicture((out / name).string());
      EXPECT_EQ(last.width, kWidth);
      EXPECT_EQ(last.height, kHeight);
    } else {
      const MediaCounts m = Probe(out.string());
      EXPECT_EQ(m.videoCodec, "h264");
      EXPECT_EQ(m.video, static_cast<int64_t>(ids.size()));
      EXPECT_NEAR(m.videoSeconds, static_cast<double>(ids.size()) / 30, 1e-6);
      if (c.audio) {
        // The clip's sound for every frame shown, give or take an AAC frame where passes meet.
        EXPECT_GT(m.audio, 0);
        EXPECT_NEAR(m.audioSeconds, m.videoSeconds, 0.05 * c.passes);
      } else {
        EXPECT_EQ(m.audio, 0);
      }
    }
    if (c.sheet) {
      const Picture sheet = ReadPicture(Work(c.name + "-sheet.png").string());
      EXPECT_EQ(sheet.width, 4 * kWidth / 2);
      EXPECT_EQ(sheet.height, 2 * kHeight / 2);
      const std::vector<uint32_t> tiles = s["outputs"]["contact_sheet_frame_ids"];
      EXPECT_EQ(tiles, (std::vector<uint32_t>{1, 6, 11, 16, 21, 26, 31, 36}));
      // Every tile shows something besides the background.
      for (int tile = 0; tile < 8; ++tile) {
        size_t lit = 0;
        const int x0 = (tile % 4) * kWidth / 2, y0 = (tile / 4) * kHeight / 2;
        for (int y = y0; y < y0 + kHeight / 2; ++y) {
          for (int x = x0; x < x0 + kWidth / 2; ++x) lit += std::abs(sheet.At(x, y)[0] - sheet.At(0, 0)[0]) > 10;
        }
        EXPECT_GT(lit, 500u) << "tile " << tile;
      }
    }
  }
  EXPECT_TRUE(!fs::exists(Work("downloads")) || fs::is_empty(Work("downloads")));
  ::unsetenv("OZM_DOWNLOAD_DIR");
}

// The pictures show the mesh of the frame they name where our own camera sees it, textured: the
// silhouette matches our rasterisation of the decoded mesh (which a blank picture, a flipped one or
// another camera would not), and each pixel is red or blue as the texture row that our rasterisation
// finds there (which an untextured, flipped or shifted texture would not).
TEST_F(PlayRender, DrawsTheTexturedMeshFromTheCamera) {
  const PairingCheck::Clip clip(s_twoColours);
  ASSERT_TRUE(clip.Error().empty()) << clip.Error();

  struct Case {
    std::string name;
    std::vector<std::string> options;
    Camera start;
    double turn;  // degrees a second of the output's 30 frames a second
    std::vector<size_t> frames;
  };
  const std::vector<Case> cases = {
      {"front", {"--fixed-angle", "0", "--elevation", "0"}, {0, 0, 0.8}, 0, {0, 20}},
      {"turning",
       {"--angle", "30", "--turn-degrees-per-second", "90", "--elevation", "25", "--distance-scale", "1.2"},
       {30, 25, 1.2},
       90,
       {0, 15, 29}},  // 30, 75 and 117 degrees
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args = {
        s_twoColours, "--size", "320x240", "--clock-scale", kClockScale, "--out", Work(c.name).string() + "/"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const PlayResult r = Play(args, Work(c.name + ".err"));
    ASSERT_EQ(r.status, 0) << r.summary.dump(1);
    const json& s = r.summary;
    // The camera turns with the output's frames, whichever clip frames they show: a frame the player
    // skipped on a busy machine does not matter here.
    ASSERT_GE(s["rendered"]["frames"], 25) << s["rendered"].dump();
    ASSERT_EQ(s["rendered"]["without_mesh"], 0);
    // The box the camera looks at is the clip's: it holds every decoded vertex, snugly.
    const std::array<double, 6> box{s["camera"]["box_min"][0], s["camera"]["box_min"][1], s["camera"]["box_min"][2],
                                    s["camera"]["box_max"][0], s["camera"]["box_max"][1], s["camera"]["box_max"][2]};
    for (int a = 0; a < 3; ++a) {
      const double size = clip.Box()[3 + a] - clip.Box()[a];
      EXPECT_NEAR(box[a], clip.Box()[a], 0.02 * size) << "axis " << a;
      EXPECT_NEAR(box[3 + a], clip.Box()[3 + a], 0.02 * size) << "axis " << a;
    }
    const std::vector<uint32_t> ids = s["rendered"]["frame_ids"];
    for (size_t k : c.frames) {
      k = std::min(k, ids.size() - 1);
      SCOPED_TRACE("output frame " + std::to_string(k));
      char name[32];
      std::snprintf(name, sizeof name, "frame_%06zu.png", k);
      const Picture picture = ReadPicture((Work(c.name) / name).string());
      ASSERT_EQ(picture.width, kWidth);
      const PairingCheck::ExpectedFrame* frame = clip.ByFrameId(ids.at(k));
      ASSERT_NE(frame, nullptr);
      Camera camera = c.start;
      camera.angle += c.turn * static_cast<double>(k) / 30;
      const Reference ref = Rasterize(*frame, box, camera);
      const std::vector<uint8_t> silhouette = Silhouette(picture);
      const double share = static_cast<double>(std::count(silhouette.begin(), silhouette.end(), 1)) / silhouette.size();
      const double expectedShare = static_cast<double>(ref.Count()) / silhouette.size();
      EXPECT_GT(expectedShare, 0.03);
      EXPECT_NEAR(share, expectedShare, 0.1 * expectedShare);
      EXPECT_GT(Overlap(silhouette, ref.covered), 0.9);
      // The check tells cameras apart: a quarter turn away overlaps far less.
      Camera aside = camera;
      aside.angle += 90;
      EXPECT_LT(Overlap(silhouette, Rasterize(*frame, box, aside).covered), 0.8);

      size_t judged = 0, agreeing = 0;
      for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
          const size_t at = static_cast<size_t>(y) * kWidth + x;
          const float v = ref.v[at];
          if (!ref.covered[at] || !silhouette[at] || std::fabs(v - 0.5f) < 0.06f) continue;
          const uint8_t* p = picture.At(x, y);
          const bool red = p[0] > p[1] + 20 && p[0] > p[2] + 20;
          const bool blue = p[2] > p[0] + 20 && p[2] > p[1] + 20;
          ++judged;
          agreeing += v < 0.5f ? red : blue;
        }
      }
      EXPECT_GT(judged, 1000u);
      EXPECT_GT(static_cast<double>(agreeing), 0.9 * judged) << agreeing << " of " << judged;
    }
  }
}

// Bad command lines and unwritable outputs end with status 2 and a message, before any playback.
TEST_F(PlayRender, RefusesBadOptionsWithAMessage) {
  const std::string missing = Work("no/such/folder").string();
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--size", "320"}, "--size takes WIDTHxHEIGHT"},
      {{"--size", "321x240"}, "even numbers"},
      {{"--size", "8x8"}, "from 16 to 8192"},
      {{"--out", Work("x.avi").string()}, "--out takes FILE.mp4"},
      {{"--out", missing + "/x.mp4"}, "cannot write " + missing + "/x.mp4"},
      {{"--contact-sheet", Work("sheet.jpg").string()}, "--contact-sheet takes a .png"},
      {{"--contact-sheet", missing + "/sheet.png"}, "cannot write " + missing + "/sheet.png"},
      {{"--frames", "40:50"}, "the clip has 36 frames"},
      {{"--frames", "9:3"}, "comes before the first"},
      {{"--distance-scale", "0"}, "--distance-scale"},
      {{"--elevation", "100"}, "elevation"},
      {{"--fixed-angle", "10", "--angle", "5"}, "excludes"},
  };
  for (const auto& [options, message] : cases) {
    std::vector<std::string> args = {s_numbered};
    args.insert(args.end(), options.begin(), options.end());
    SCOPED_TRACE(args.back());
    const PlayResult r = Play(args, Work("bad.err"));
    EXPECT_GT(r.status, 0);
    EXPECT_LT(r.status, 128);
    EXPECT_NE(r.errors.find(message), std::string::npos) << r.errors;
  }
  EXPECT_FALSE(fs::exists(Work("x.avi")));
}

}  // namespace
