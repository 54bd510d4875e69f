#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/OzmAttributes.h"
#include "OzmCore/encode/XtraWriter.h"
#include "platform/host/LogCapture.h"

using OzmCrossPlatform::Buffer;
using OzmCrossPlatform::ReadXtraAttributes;
using OzmEncode::XtraAttributes;
using OzmEncode::XtraProperty;

namespace {

XtraAttributes SampleAttributes() {
  XtraAttributes a;
  a.frameCount = 300;
  a.maxVertexCount = 31234;
  a.maxIndexCount = 180000;
  a.bboxMin[0] = -0.75;
  a.bboxMin[1] = 0.0;
  a.bboxMin[2] = -0.5;
  a.bboxMax[0] = 0.8;
  a.bboxMax[1] = 1.95;
  a.bboxMax[2] = 0.45;
  a.hasVertexNormals = 1;
  return a;
}

// An MP4-like tail: some unrelated boxes, then the block.
std::vector<uint8_t> FileTail(const std::vector<uint8_t>& block) {
  std::vector<uint8_t> tail(200, 0x11);
  std::memcpy(tail.data() + 4, "mdat", 4);
  tail.insert(tail.end(), block.begin(), block.end());
  return tail;
}

struct Read {
  bool ok;
  OZMCORE::CComPtr<Buffer> attributes;
  std::vector<std::string> log;
};

Read ReadBlock(const std::vector<uint8_t>& bytes) {
  OzmPlatform::ScopedLogCapture log;
  Read r;
  r.attributes = new Buffer(0);
  r.ok = ReadXtraAttributes(bytes.data(), bytes.size(), static_cast<IOzmAttributesCore*>(r.attributes.Get()));
  r.log = log.Texts();
  return r;
}

uint32_t U32(Buffer* b, const _GUID& g) {
  unsigned int v = 0xFFFFFFFF;
  b->GetUINT32(g, &v);
  return v;
}

double F64(Buffer* b, const _GUID& g) {
  double v = -12345;
  b->GetDouble(g, &v);
  return v;
}

TEST(XtraAttributes, GuidTextIsUpperCaseWithBraces) {
  EXPECT_EQ(OzmCrossPlatform::GuidToString(OzmAttrib_FrameCount), "{36B53E4E-0A14-42F8-8143-DCA29E480AA8}");
  EXPECT_EQ(OzmCrossPlatform::GuidToString(OzmAttrib_NumVertices), "{00370E73-ADA9-4F24-85B1-B22D2ADC93F6}");
}

TEST(XtraAttributes, WrittenBlockReadsBackEveryValue) {
  const XtraAttributes a = SampleAttributes();
  const Read r = ReadBlock(FileTail(OzmEncode::WriteXtraBlock(a)));
  ASSERT_TRUE(r.ok);
  EXPECT_TRUE(r.log.empty());
  EXPECT_EQ(U32(r.attributes, OzmAttrib_FrameCount), 300u);
  EXPECT_EQ(U32(r.attributes, OzmAttrib_MaxVertexCount), 31234u);
  EXPECT_EQ(U32(r.attributes, OzmAttrib_MaxIndexCount), 180000u);
  EXPECT_EQ(F64(r.attributes, OzmAttrib_BBoxMinX), -0.75);
  EXPECT_EQ(F64(r.attributes, OzmAttrib_BBoxMinY), 0.0);
  EXPECT_EQ(F64(r.attributes, OzmAttrib_BBoxMinZ), -0.5);
  EXPECT_EQ(F64(r.attributes, OzmAttrib_BBoxMaxX), 0.8);
  EXPECT_EQ(F64(r.attributes, OzmAttrib_BBoxMaxY), 1.95);
  EXPECT_EQ(F64(r.attributes, OzmAttrib_BBoxMaxZ), 0.45);
  EXPECT_EQ(U32(r.attributes, OzmAttrib_HasVertexNormals), 1u);
}

std::string Name(const _GUID& g) { return OzmCrossPlatform::GuidToString(g); }

TEST(XtraAttributes, MalformedBlocksFailWithTheirMessageAndKeepWhatWasStored) {
  struct Case {
    const char* name;
    std::function<std::vector<uint8_t>()> bytes;
    bool ok;
    std::string message;    // the one line expected, or empty for none
    bool frameCountStored;  // whether the first property made it in
  };
  const auto with = [](const std::function<void(std::vector<XtraProperty>&)>& change) {
    std::vector<XtraProperty> properties = OzmEncode::XtraPropertiesOf(SampleAttributes());
    change(properties);
    return FileTail(OzmEncode::WriteXtraAtom(properties));
  };
  const std::vector<Case> cases = {
      {"without the normals property", [&] { return with([](auto& p) { p.pop_back(); }); }, true, "", true},
      {"bounding box stored as u32",
       [&] { return with([](auto& p) { p[3].type = OzmCrossPlatform::kXtraTypeUInt32; }); }, false,
       "ReadXtraAttributes: expected type 5 but got type 19 for attribute " + Name(OzmAttrib_BBoxMinX) + "\n", true},
      {"alternative type encoding",
       [&] {
         return with([](auto& p) {
           for (auto& x : p) x.wideType = true;
         });
       },
       true, "", true},
      {"missing required property", [&] { return with([](auto& p) { p.erase(p.begin() + 2); }); }, false,
       "ReadXtraAttributes: couldn't find attribute for guid " + Name(OzmAttrib_MaxIndexCount) + "\n", true},
      {"no block at all", [] { return std::vector<uint8_t>(500, 0x20); }, false,
       "ReadXtraAttributes: didn't find Xtra atom\n", false},
      {"empty buffer", [] { return std::vector<uint8_t>(); }, false, "ReadXtraAttributes: didn't find Xtra atom\n",
       false},
      {"name only before the block",
       [&] {
         // The frame count property precedes the "Xtra" bytes, the rest follows them.
         std::vector<XtraProperty> p = OzmEncode::XtraPropertiesOf(SampleAttributes());
         std::vector<uint8_t> first = OzmEncode::WriteXtraAtom({p[0]});
         first.erase(first.begin(), first.begin() + 8);
         p.erase(p.begin());
         std::vector<uint8_t> bytes = FileTail(first);
         const std::vector<uint8_t> rest = OzmEncode::WriteXtraAtom(p);
         bytes.insert(bytes.end(), rest.begin(), rest.end());
         return bytes;
       },
       false, "ReadXtraAttributes: couldn't find attribute for guid " + Name(OzmAttrib_FrameCount) + "\n", false},
  };
  for (const Case& c : cases) {
    const Read r = ReadBlock(c.bytes());
    EXPECT_EQ(r.ok, c.ok) << c.name;
    if (c.message.empty()) {
      EXPECT_TRUE(r.log.empty()) << c.name;
    } else {
      EXPECT_EQ(r.log, std::vector<std::string>{c.message}) << c.name;
    }
    EXPECT_EQ(U32(r.attributes, OzmAttrib_FrameCount), c.frameCountStored ? 300u : 0xFFFFFFFFu) << c.name;
  }
}

TEST(XtraAttributes, BadCountOrEntrySizeFailsSilently) {
  const std::vector<uint8_t> good = FileTail(OzmEncode::WriteXtraBlock(SampleAttributes()));
  const size_t name = 200 + 8 + 8;  // tail filler, atom header, entry size and name length
  struct Case {
    size_t offset;
    uint8_t value;
  };
  for (const Case& c : {Case{name + 43, 2}, Case{name + 43, 0}, Case{name + 47, 5}}) {
    std::vector<uint8_t> bytes = good;
    bytes[c.offset] = c.value;
    const Read r = ReadBlock(bytes);
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(r.log.empty());
  }
}

TEST(XtraAttributes, EveryTruncationFailsCleanly) {
  // Both type encodings: every cut of the block, at every byte, is handled without reading past it.
  for (bool wide : {false, true}) {
    auto block = [wide](bool withNormals) {
      XtraAttributes a = SampleAttributes();
      a.writeHasVertexNormals = withNormals;
      std::vector<XtraProperty> properties = OzmEncode::XtraPropertiesOf(a);
      for (auto& p : properties) p.wideType = wide;
      return FileTail(OzmEncode::WriteXtraAtom(properties));
    };
    const std::vector<uint8_t> full = block(true);
    const std::vector<uint8_t> noNormals = block(false);
    // Every required property complete and the normals name cut: the normals are simply absent.
    // Once the normals name is whole but its value is not, the entry is malformed.
    const size_t normalsNameEnd = noNormals.size() + 8 + 38;
    for (size_t n = 0; n < full.size(); ++n) {
      const std::vector<uint8_t> cut(full.begin(), full.begin() + static_cast<long>(n));
      const Read r = ReadBlock(cut);
      EXPECT_EQ(r.ok, n >= noNormals.size() && n < normalsNameEnd) << n << (wide ? " wide" : "");
    }
  }
}

}  // namespace
