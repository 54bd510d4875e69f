#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/StreamingMeshHeader.h"
#include "OzmCore/encode/HeaderWriter.h"
#include "platform/host/LogCapture.h"

using Bytes = std::vector<uint8_t>;
using OzmCrossPlatform::Stream;

namespace {

OZMCORE::CComPtr<Stream> StreamOver(const Bytes& bytes) {
  return OZMCORE::CComPtr<Stream>(Stream::CopyOf(bytes.data(), static_cast<uint32_t>(bytes.size())));
}

// Little-endian 32-bit values as bytes, for readable expectations.
Bytes Words(std::initializer_list<uint32_t> words) {
  Bytes b;
  for (uint32_t w : words) b.insert(b.end(), {uint8_t(w), uint8_t(w >> 8), uint8_t(w >> 16), uint8_t(w >> 24)});
  return b;
}

Bytes Cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Bytes kBox = Words({0xBF800000, 0, 0x3F000000, 0x3F800000, 0x40000000, 0x3F400000});  // (-1,0,.5) (1,2,.75)

struct Parsed {
  HRESULT hr;
  CStreamingMeshHeader header;
  uint32_t consumed;
  std::vector<std::string> log;
};

Parsed Parse(const Bytes& bytes) {
  OzmPlatform::ScopedLogCapture log;
  OZMCORE::CComPtr<Stream> stream = StreamOver(bytes);
  Parsed p;
  p.hr = p.header.Read(stream);
  p.consumed = stream->GetPosition();
  p.log = log.Texts();
  return p;
}

std::string Assert(const std::string& expression) {
  return "ASSERT FAILED: '" + expression + "' at OzmCore/StreamingMeshHeader";
}

bool LogStartsWith(const std::vector<std::string>& log, const std::vector<std::string>& prefixes) {
  if (log.size() != prefixes.size()) return false;
  for (size_t i = 0; i < log.size(); ++i) {
    if (log[i].rfind(prefixes[i], 0) != 0) return false;
  }
  return true;
}

const std::string kFlagsZero = Assert("m_Version.v.m_FormatFlags == 0");
const std::string kDeprecatedVertices =
    Assert("m_Version.v.m_VertexVersion == NWelmStudioVertexVersion::c_Deprecated_UnwrappedVertexVersion");
const std::string kUnknownOld = Assert(
    "m_Version.v.m_MeshHeaderVersion >= NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame && \"Unknown old "
    "format encountered\"");
const std::string kReexport = Assert(
    "m_Version.v.m_MeshHeaderVersion >= NWelmStudioMeshHeaderVersion::c_MeshHeaderVersion_KeyFrame && \"Mesh is in "
    "old format. Need to re-export!\"");

TEST(StreamingMeshHeader, LegacyAndEdgeLayoutsParseAsTheFormatSays) {
  struct Case {
    const char* name;
    Bytes bytes;
    HRESULT hr;
    uint32_t word;  // version word after Read
    uint32_t consumed;
    uint32_t vertices, faces, indices;
    std::vector<std::string> log;
  };
  const Bytes counts = Words({100, 180, 999, 0xAAAAAAAA});
  const std::vector<Case> cases = {
      {"delta frame, no ids", Cat(Cat(Bytes{2, 0, 6, 1}, kBox), counts), S_OK, 0x01060002, 28, 0, 0, 0, {}},
      {"key frame", Cat(Cat(Bytes{2, 1, 5, 4}, kBox), counts), S_OK, 0x04050102, 40, 100, 180, 999, {}},
      {"header 0 becomes a key frame with derived index count",
       Cat(Cat(Bytes{19, 0, 0, 0}, kBox), counts),
       S_OK,
       0x01050102,
       36,
       100,
       180,
       540,
       {}},
      {"header 1", Cat(Cat(Bytes{19, 0, 1, 9}, kBox), counts), S_OK, 0x02050102, 36, 100, 180, 540, {}},
      {"header 1 with wrong bytes still upgrades",
       Cat(Cat(Bytes{2, 4, 1, 0}, kBox), counts),
       S_OK,
       0x02050102,
       36,
       100,
       180,
       540,
       {kFlagsZero, kDeprecatedVertices}},
      {"packed vertices, header 2", Cat(Cat(Bytes{23, 0, 2, 77}, kBox), counts), S_OK, 0x02060103, 28, 0, 0, 0, {}},
      {"packed vertices, header 3", Cat(Cat(Bytes{23, 0, 3, 0}, kBox), counts), S_OK, 0x02060104, 28, 0, 0, 0, {}},
      {"packed vertices with flags",
       Cat(Cat(Bytes{23, 8, 2, 0}, kBox), counts),
       S_OK,
       0x02060103,
       28,
       0,
       0,
       0,
       {kFlagsZero}},
      {"header 4 is read but flagged",
       Cat(Cat(Bytes{2, 0, 4, 1}, kBox), counts),
       S_OK,
       0x01040002,
       28,
       0,
       0,
       0,
       {kUnknownOld, kReexport}},
      {"header 2 without packed vertices",
       Cat(Cat(Bytes{3, 0, 2, 1}, kBox), counts),
       S_OK,
       0x01020003,
       28,
       0,
       0,
       0,
       {kUnknownOld, kReexport}},
      {"high-resolution mesh is rejected",
       Cat(Cat(Bytes{22, 0, 5, 1}, kBox), counts),
       E_UNEXPECTED,
       0x01050016,
       4,
       0,
       0,
       0,
       {Assert("!\"Unsupported format! We no longer support the hi-res mesh\"")}},
      {"short stream keeps the zeros", Bytes{2, 0, 5, 1, 0, 0}, S_OK, 0x01050002, 6, 0, 0, 0, {}},
      {"empty stream", Bytes{}, S_OK, 0x01050102, 0, 0, 0, 0, {kDeprecatedVertices}},
  };
  for (const Case& c : cases) {
    const Parsed p = Parse(c.bytes);
    EXPECT_EQ(p.hr, c.hr) << c.name;
    EXPECT_EQ(p.header.m_Version.word, c.word) << c.name;
    EXPECT_EQ(p.consumed, c.consumed) << c.name;
    EXPECT_EQ(p.header.m_numVertices, c.vertices) << c.name;
    EXPECT_EQ(p.header.m_numFaces, c.faces) << c.name;
    EXPECT_EQ(p.header.m_numIndices, c.indices) << c.name;
    EXPECT_TRUE(LogStartsWith(p.log, c.log)) << c.name << ": " << ::testing::PrintToString(p.log);
  }
}

TEST(StreamingMeshHeader, TemporalHeaderWithBothIdsReadsFieldsInOrder) {
  const Bytes bytes = Cat(Cat(Bytes{7, 0x18, 7, 4}, kBox), Words({0xFFFFFFFE, 42, 3, 1000, 1900, 5700}));
  const Parsed p = Parse(bytes);
  ASSERT_EQ(p.hr, S_OK);
  EXPECT_EQ(p.consumed, 52u);
  EXPECT_EQ(p.header.m_subMeshId, -2);
  EXPECT_EQ(p.header.m_frameId, 42u);
  EXPECT_EQ(p.header.m_numSubMeshes, 3u);
  EXPECT_EQ(p.header.m_numVertices, 1000u);
  EXPECT_EQ(p.header.m_numFaces, 1900u);
  EXPECT_EQ(p.header.m_numIndices, 5700u);
  EXPECT_EQ(p.header.m_bboxMin[0], -1.0f);
  EXPECT_EQ(p.header.m_bboxMax[2], 0.75f);
}

TEST(StreamingMeshHeader, WriterAndReaderAgreeOnEveryVersionAndFlagCombination) {
  // Every header version (legacy ones included), every flag byte, two vertex versions.
  for (uint32_t headerVersion = 0; headerVersion <= 7; ++headerVersion) {
    for (uint32_t flags = 0; flags < 256; ++flags) {
      for (uint8_t vertexVersion : {uint8_t(2), uint8_t(19), uint8_t(23)}) {
        CStreamingMeshHeader in;
        in.m_Version.v = {vertexVersion, uint8_t(flags), uint8_t(headerVersion), uint8_t(flags % 5)};
        in.m_bboxMin[0] = -1.5f;
        in.m_bboxMin[1] = 0.25f;
        in.m_bboxMin[2] = -3;
        in.m_bboxMax[0] = 1.5f;
        in.m_bboxMax[1] = 2;
        in.m_bboxMax[2] = 3;
        in.m_subMeshId = -7;
        in.m_frameId = 123456;
        in.m_numSubMeshes = 4;
        in.m_numVertices = 65537;
        in.m_numFaces = 131000;
        in.m_numIndices = 393000;
        Bytes bytes;
        OzmEncode::WriteStreamingMeshHeader(in, bytes);
        ASSERT_EQ(bytes.size(), OzmEncode::StreamingMeshHeaderSize(in.m_Version.word));
        bytes.insert(bytes.end(), 16, 0xCD);  // what follows the header must stay unread

        const Parsed p = Parse(bytes);
        const CStreamingMeshHeader& out = p.header;
        ASSERT_EQ(p.hr, S_OK);
        ASSERT_EQ(p.consumed, bytes.size() - 16) << headerVersion << " " << flags;
        const uint8_t outFlags = out.m_Version.v.m_FormatFlags;
        const uint8_t outVersion = out.m_Version.v.m_MeshHeaderVersion;
        EXPECT_EQ(out.m_Version.word, UpgradeLegacyVersionWord(in.m_Version.word).word);
        EXPECT_EQ(std::memcmp(out.m_bboxMin, in.m_bboxMin, 12), 0);
        EXPECT_EQ(std::memcmp(out.m_bboxMax, in.m_bboxMax, 12), 0);
        EXPECT_EQ(out.m_subMeshId, outFlags & 0x08 ? -7 : 0);
        EXPECT_EQ(out.m_frameId, outFlags & 0x10 ? 123456u : 0u);
        EXPECT_EQ(out.m_numSubMeshes, outVersion == 7 ? 4u : 0u);
        const bool counts = outVersion == 5 || outVersion == 7;
        EXPECT_EQ(out.m_numVertices, counts ? 65537u : 0u);
        EXPECT_EQ(out.m_numFaces, counts ? 131000u : 0u);
        EXPECT_EQ(out.m_numIndices, !counts ? 0u : headerVersion <= 1 ? 3 * 131000u : 393000u);
      }
    }
  }
}

// A stream whose n-th read fails, to check that failures end the parse with their code.
class FailingStream : public IStream {
 public:
  explicit FailingStream(int failAt) : m_failAt(failAt) {}
  virtual ~FailingStream() = default;
  HRESULT QueryInterface(const _GUID&, void**) override { return E_NOINTERFACE; }
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  HRESULT Read(void* dst, unsigned int n, unsigned int* got) override {
    ++m_reads;
    if (m_reads == m_failAt) return E_FAIL;
    // Version bytes for a temporal header with both ids; ones everywhere else.
    static const uint8_t version[4] = {7, 0x18, 7, 4};
    for (unsigned int i = 0; i < n; ++i) static_cast<uint8_t*>(dst)[i] = m_reads == 1 ? version[i % 4] : 1;
    *got = n;
    return S_OK;
  }
  int m_reads = 0;

 private:
  int m_failAt;
};

TEST(StreamingMeshHeader, AFailedReadEndsTheParseWithItsCode) {
  // Reads: version, min, max, sub-mesh id, frame id, sub-mesh count, vertices, faces, indices.
  for (int failAt = 1; failAt <= 10; ++failAt) {
    FailingStream stream(failAt);
    CStreamingMeshHeader header;
    const HRESULT hr = header.Read(&stream);
    EXPECT_EQ(hr, failAt <= 9 ? E_FAIL : S_OK) << failAt;
    EXPECT_EQ(stream.m_reads, failAt <= 9 ? failAt : 9) << failAt;
  }
}

}  // namespace
