// The exact bytes of every temporal coding, pinned down by hashes: the encoder's payloads and the
// reader's output vertices and indices over whole sequences, in the float and the 16-bit layouts.
// The recorded hashes are those of the x86-64 build. The same test runs on 32- and 64-bit ARM, where
// matching hashes prove that the encoder and decoder compute bit for bit the same floats there; and
// any change to a decoder (a faster loop, a new table) must leave them untouched.
//
// The input frames come from the generated test data through plain float arithmetic (no libm calls
// whose last bits could differ between C libraries), so they are the same on every machine too.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/encode/SequenceEncoder.h"
#include "tests/MeshTestUtil.h"
#include "tests/data/TestMeshFiles.h"

using OzmEncode::InterCoding;

namespace {

// 64-bit FNV-1a.
struct Hash {
  uint64_t value = 0xcbf29ce484222325ull;
  void Add(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) value = (value ^ p[i]) * 0x100000001b3ull;
  }
  template <typename T>
  void Add(const std::vector<T>& v) {
    Add(reinterpret_cast<const uint8_t*>(v.data()), v.size() * sizeof(T));
  }
};

// Texture coordinates by a planar projection of the first frame, and normals from the triangles
// (square root only, which IEEE arithmetic rounds exactly).
void Finish(OzmEncode::Mesh* m, const std::vector<float>& rest) {
  std::array<float, 3> lo{rest[0], rest[1], rest[2]}, hi = lo;
  for (size_t i = 0; i < rest.size(); i += 3) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], rest[i + a]);
      hi[a] = std::max(hi[a], rest[i + a]);
    }
  }
  m->uvs.clear();
  for (size_t i = 0; i < rest.size(); i += 3) {
    m->uvs.push_back((rest[i] - lo[0]) / (hi[0] - lo[0]));
    m->uvs.push_back((rest[i + 1] - lo[1]) / (hi[1] - lo[1]));
  }
  m->normals.assign(m->positions.size(), 0.0f);
  for (const WelmMeshFace& f : m->faces) {
    const float* a = &m->positions[3 * f.v[0]];
    const float* b = &m->positions[3 * f.v[1]];
    const float* c = &m->positions[3 * f.v[2]];
    const float e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]}, e2[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
    const float n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
    for (uint32_t v : f.v) {
      for (int k = 0; k < 3; ++k) m->normals[3 * v + k] += n[k];
    }
  }
  for (size_t v = 0; v < m->normals.size(); v += 3) {
    float* n = &m->normals[v];
    const float len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    for (int k = 0; k < 3; ++k) n[k] = len > 0 ? n[k] / len : (k == 2 ? 1.0f : 0.0f);
  }
}

// The deforming bunny of the test data, all 300 frames.
std::vector<OzmEncode::Mesh> BunnyAnimation() {
  TestMeshFiles::Animation anim;
  if (!TestMeshFiles::ReadAnimation(TestMeshFiles::Folder() + "/bunny-anim.anim", &anim)) return {};
  std::vector<OzmEncode::Mesh> frames(anim.frames.size());
  std::vector<float> rest;
  for (size_t v = 0; v < anim.vertexCount; ++v) {
    const std::array<float, 3> p = anim.Position(0, v);
    rest.insert(rest.end(), p.begin(), p.end());
  }
  for (size_t f = 0; f < frames.size(); ++f) {
    for (size_t v = 0; v < anim.vertexCount; ++v) {
      const std::array<float, 3> p = anim.Position(f, v);
      frames[f].positions.insert(frames[f].positions.end(), p.begin(), p.end());
    }
    for (const auto& face : anim.faces) frames[f].faces.push_back({{face[0], face[1], face[2]}});
    Finish(&frames[f], rest);
  }
  return frames;
}

// A subdivided bunny: its upper part sways and shears (a deformation), and the part on the
// left moves rigidly (a translation), so that every coding meets both kinds of motion.
std::vector<OzmEncode::Mesh> SubdividedAnimation(const std::string& name, int count) {
  TestMeshFiles::Mesh mesh;
  if (!TestMeshFiles::ReadMesh(TestMeshFiles::Folder() + "/" + name + ".mesh", &mesh)) return {};
  std::array<float, 3> lo = mesh.positions[0], hi = lo;
  for (const auto& p : mesh.positions) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], p[a]);
      hi[a] = std::max(hi[a], p[a]);
    }
  }
  const float height = hi[1] - lo[1], width = hi[0] - lo[0];
  const float midX = 0.5f * (lo[0] + hi[0]);
  std::vector<float> rest;
  for (const auto& p : mesh.positions) rest.insert(rest.end(), p.begin(), p.end());
  std::vector<OzmEncode::Mesh> frames(static_cast<size_t>(count));
  for (int f = 0; f < count; ++f) {
    // A triangle wave from -1 to 1 over 20 frames.
    const float phase = static_cast<float>(f % 20) / 10.0f;
    const float wave = phase < 1.0f ? 2.0f * phase - 1.0f : 3.0f - 2.0f * phase;
    OzmEncode::Mesh& m = frames[static_cast<size_t>(f)];
    for (const auto& p : mesh.positions) {
      const float up = (p[1] - lo[1]) / height;
      float x = p[0], y = p[1], z = p[2];
      if (p[0] < midX - 0.2f * width) {
        x += 0.01f * width * static_cast<float>(f);
        y += 0.002f * height * wave;
      } else {
        x += 0.05f * width * wave * up * up;
        z -= 0.03f * width * wave * up * (x - midX) / width;
      }
      m.positions.insert(m.positions.end(), {x, y, z});
    }
    for (const auto& face : mesh.faces) m.faces.push_back({{face[0], face[1], face[2]}});
    Finish(&m, rest);
  }
  return frames;
}

// A stream that only reads, as an engine's own stream might: decoders that read a stream in place
// when it is in memory take their other path with it.
class ReadOnlyStream final : public IStream {
 public:
  explicit ReadOnlyStream(const std::vector<uint8_t>& bytes) : m_bytes(bytes) {}
  virtual ~ReadOnlyStream() = default;
  HRESULT QueryInterface(const _GUID&, void** out) override {
    if (out) *out = nullptr;
    return E_NOINTERFACE;
  }
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  HRESULT Read(void* dst, unsigned int n, unsigned int* got) override {
    const size_t count = std::min<size_t>(n, m_bytes.size() - m_position);
    if (count) std::memcpy(dst, m_bytes.data() + m_position, count);
    m_position += count;
    if (got) *got = static_cast<unsigned int>(count);
    return S_OK;
  }

 private:
  const std::vector<uint8_t>& m_bytes;
  size_t m_position = 0;
};

struct Sequence {
  std::string error;
  std::vector<OzmEncode::Mesh> frames;
};

const Sequence& SequenceNamed(const std::string& name) {
  static std::map<std::string, Sequence> cache;
  auto [it, added] = cache.try_emplace(name);
  if (added) {
    it->second.frames = name == "bunny-anim" ? BunnyAnimation() : SubdividedAnimation(name, 30);
    if (it->second.frames.empty()) it->second.error = "no test data in " + TestMeshFiles::Folder();
  }
  return it->second;
}

const char* CodingName(InterCoding c) {
  switch (c) {
    case InterCoding::ByteDelta: return "ByteDelta";
    case InterCoding::Golomb: return "Golomb";
    case InterCoding::Huffman: return "Huffman";
    case InterCoding::TransformDelta: return "TransformDelta";
    default: return "KeyFramesOnly";
  }
}

struct HashCase {
  const char* sequence;
  InterCoding coding;
  bool normals;
  uint64_t payloads;  // every frame's payload
  uint64_t floats;    // output vertices and indices, float vertices with room for the normal (reader flags 0x0A)
  uint64_t shorts;    // the same in 16-bit vertices (reader flags 0x00)
};

void PrintTo(const HashCase& c, std::ostream* os) {
  *os << c.sequence << " " << CodingName(c.coding) << (c.normals ? " with normals" : "");
}

class DecodedOutput : public ::testing::TestWithParam<HashCase> {};

TEST_P(DecodedOutput, MatchesTheRecordedHashes) {
  const HashCase& c = GetParam();
  const Sequence& seq = SequenceNamed(c.sequence);
  if (!seq.error.empty()) {
    if (TestMeshFiles::MissingDataAllowed()) GTEST_SKIP() << seq.error;
    FAIL() << seq.error << ": run scripts/test-data.sh";
  }
  OzmEncode::SequenceOptions options;
  options.inter = c.coding;
  options.normals = c.normals;
  options.keyFrameInterval = 30;
  OzmEncode::SequenceEncoder encoder(options);
  std::vector<std::vector<uint8_t>> payloads;
  Hash payloadHash;
  for (size_t f = 0; f < seq.frames.size(); ++f) {
    OzmEncode::EncodedFrame e;
    ASSERT_TRUE(encoder.Encode(seq.frames[f], static_cast<uint32_t>(f + 1), &e)) << "frame " << f;
    payloadHash.Add(e.payload);
    payloads.push_back(std::move(e.payload));
  }
  // Float and 16-bit layouts from the player's streams in memory, and floats once more from a
  // stream that only reads.
  uint64_t decoded[3] = {};
  const unsigned layouts[3] = {0x0A, 0x00, 0x0A};
  for (int l = 0; l < 3; ++l) {
    OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
    Ozm::COzmMeshReader reader;
    reader.Initialize(allocator, layouts[l]);
    Hash h;
    for (size_t f = 0; f < payloads.size(); ++f) {
      OZMCORE::CComPtr<IOzmBuffer> vb, ib;
      ReadOnlyStream plain(payloads[f]);
      IStream* stream = l < 2 ? static_cast<IStream*>(MeshTest::StreamOver(payloads[f]).Detach()) : &plain;
      const HRESULT hr = reader.ReadMesh(stream, static_cast<long long>(f) * 333333, &vb, &ib);
      if (l < 2) stream->Release();
      ASSERT_EQ(hr, S_OK) << "frame " << f;
      h.Add(MeshTest::Contents(vb));
      h.Add(MeshTest::Contents(ib));
    }
    decoded[l] = h.value;
  }
  EXPECT_EQ(decoded[2], decoded[0]) << "a stream that only reads decodes differently";
  // The line to paste into the table when a change of the format is intended.
  std::printf("    {\"%s\", InterCoding::%s, %s, 0x%016" PRIx64 "ull, 0x%016" PRIx64 "ull, 0x%016" PRIx64 "ull},\n",
              c.sequence, CodingName(c.coding), c.normals ? "true" : "false", payloadHash.value, decoded[0],
              decoded[1]);
  EXPECT_EQ(payloadHash.value, c.payloads) << "the encoder's payloads changed";
  EXPECT_EQ(decoded[0], c.floats) << "the decoded float vertices changed";
  EXPECT_EQ(decoded[1], c.shorts) << "the decoded 16-bit vertices changed";
}

const HashCase kHashCases[] = {
    {"bunny-anim", InterCoding::ByteDelta, false, 0x7c8b610b0d2f84d9ull, 0xb1288d56595526a5ull, 0x5e32c47d41eb24e1ull},
    {"bunny-anim", InterCoding::ByteDelta, true, 0xdba0ecbd2f82c9b4ull, 0x1c621d1f5ba4c297ull, 0x5e32c47d41eb24e1ull},
    {"bunny-anim", InterCoding::Golomb, false, 0xae32dd7b66ed7532ull, 0xb1288d56595526a5ull, 0x5e32c47d41eb24e1ull},
    {"bunny-anim", InterCoding::Huffman, false, 0x690f8518faba9688ull, 0xb1288d56595526a5ull, 0x5e32c47d41eb24e1ull},
    {"bunny-anim", InterCoding::TransformDelta, false, 0x56afb278de91def1ull, 0x2ac7b34d96364aa5ull,
     0x71fd725ac9b5b95bull},
    {"bunny-loop2", InterCoding::ByteDelta, false, 0xc0193546a43e03e1ull, 0xe171e49cbbce4a97ull, 0x8de6e585cedfe990ull},
    {"bunny-loop2", InterCoding::Golomb, false, 0xd664b878511f0d41ull, 0xe171e49cbbce4a97ull, 0x8de6e585cedfe990ull},
    {"bunny-loop2", InterCoding::Huffman, true, 0x524a10085075bca6ull, 0xe5fb06749f71e957ull, 0x8de6e585cedfe990ull},
    {"bunny-loop2", InterCoding::TransformDelta, false, 0x6f795093d1ed93bfull, 0x6d84518c0ee9744aull,
     0x018693cdfba7850full},
};

INSTANTIATE_TEST_SUITE_P(Sequences, DecodedOutput, ::testing::ValuesIn(kHashCases),
                         [](const ::testing::TestParamInfo<HashCase>& param) {
                           std::string name = param.param.sequence;
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name + CodingName(param.param.coding) + (param.param.normals ? "WithNormals" : "");
                         });

}  // namespace
