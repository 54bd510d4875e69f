#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/MeshPayload.h"
#include "OzmCore/encode/MeshNalWriter.h"
#include "platform/host/LogCapture.h"

using Bytes = std::vector<uint8_t>;
using OzmCrossPlatform::FindCompressedMesh;
using OzmCrossPlatform::Stream;

namespace {

// A mesh unit with the size fields set by hand and the payload copied as it stands.
Bytes RawUnit(uint8_t header, const Bytes& escapedPayload, const Bytes& prefix = {0, 0, 1}) {
  Bytes unit = prefix;
  unit.push_back(header);
  unit.insert(unit.end(), {'W', 'E', 'L', 'M', 0xFF, 0xFF, 0xFF, 0xFF});
  const uint32_t n = static_cast<uint32_t>(escapedPayload.size());
  unit.insert(unit.end(), {uint8_t(n), uint8_t(n >> 8), 0xFF, uint8_t(n >> 16), uint8_t(n >> 24)});
  unit.insert(unit.end(), 9, 0xFF);
  unit.insert(unit.end(), escapedPayload.begin(), escapedPayload.end());
  return unit;
}

// The whole unescaped payload held by the stream, prefix included.
Bytes Contents(Stream* s) { return Bytes(s->GetData(), s->GetData() + s->GetSize()); }

Bytes WithPrefix(const Bytes& payload) {
  Bytes b(8, 0xEE);
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}

TEST(FindCompressedMesh, FindsUnitsAndUnescapesThemByTheReaderRule) {
  struct Case {
    const char* name;
    Bytes sample;
    bool found;
    Bytes unescaped;  // whole payload, prefix included
  };
  const Bytes aud = {0, 0, 0, 1, 0x09, 0xF0};
  auto cat = [](Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const std::vector<Case> cases = {
      {"four-byte start code", RawUnit(0x15, WithPrefix({1, 2, 3}), {0, 0, 0, 1}), true, WithPrefix({1, 2, 3})},
      {"type 24 after another NAL unit", cat(aud, RawUnit(0x18, WithPrefix({9}))), true, WithPrefix({9})},
      {"type 21 with a reference indicator is not a mesh unit", RawUnit(0x35, WithPrefix({1})), false, {}},
      {"wrong tag",
       [] {
         Bytes u = RawUnit(0x18, WithPrefix({1}));
         u[7] = 'N';
         return u;
       }(),
       false,
       {}},
      {"escape 00 00 03 01", RawUnit(0x18, WithPrefix({0, 0, 3, 1})), true, WithPrefix({0, 0, 1})},
      {"00 00 03 04 is no escape", RawUnit(0x18, WithPrefix({0, 0, 3, 4})), true, WithPrefix({0, 0, 3, 4})},
      {"the byte after an escape is consumed with it", RawUnit(0x18, WithPrefix({0, 0, 3, 0, 0, 3, 1})), true,
       WithPrefix({0, 0, 0, 0, 3, 1})},
      {"escape needs all four bytes inside the payload", RawUnit(0x18, WithPrefix({7, 0, 0, 3})), true,
       WithPrefix({7, 0, 0, 3})},
      {"payload of exactly the prefix", RawUnit(0x18, WithPrefix({})), true, WithPrefix({})},
      {"payload shorter than the prefix", RawUnit(0x18, {1, 2, 3}), true, {1, 2, 3}},
      {"three bytes", {0, 0, 1}, false, {}},
      {"empty", {}, false, {}},
      {"tag cut off", {0, 0, 1, 0x18, 'W', 'E'}, false, {}},
      {"header cut off",
       [] {
         Bytes u = RawUnit(0x18, WithPrefix({}));
         u.resize(20);
         return u;
       }(),
       false,
       {}},
      {"payload size beyond the sample",
       [] {
         Bytes u = RawUnit(0x18, WithPrefix({1, 2}));
         u.pop_back();
         return u;
       }(),
       false,
       {}},
      {"negative payload size gives an empty payload",
       [] {
         Bytes u = RawUnit(0x18, WithPrefix({1, 2}));
         u[16] = 0x80;
         return u;
       }(),
       true,
       {}},
  };
  for (const Case& c : cases) {
    OzmPlatform::ScopedLogCapture quiet;
    OZMCORE::CComPtr<Stream> stream(FindCompressedMesh(c.sample.data(), static_cast<unsigned>(c.sample.size())));
    EXPECT_EQ(static_cast<bool>(stream.Get()), c.found) << c.name;
    if (!stream || !c.found) continue;
    EXPECT_EQ(Contents(stream), c.unescaped) << c.name;
    EXPECT_EQ(stream->GetPosition(), 8u) << c.name;
    EXPECT_EQ(stream->GetTimestamp(), 0) << c.name;
  }
}

TEST(FindCompressedMesh, SizeBytesSitAroundTheSeparator) {
  Bytes unit = RawUnit(0x18, Bytes(16, 0x42));
  for (int separator : {0x00, 0x01, 0x7F, 0xFF}) {
    unit[14] = static_cast<uint8_t>(separator);
    OZMCORE::CComPtr<Stream> stream(FindCompressedMesh(unit.data(), static_cast<unsigned>(unit.size())));
    ASSERT_TRUE(stream.Get());
    EXPECT_EQ(stream->GetSize(), 16u);
  }
}

TEST(FindCompressedMesh, ReportsATruncatedPayload) {
  OzmPlatform::ScopedLogCapture log;
  Bytes unit = RawUnit(0x18, Bytes(100, 0x42));
  unit.resize(unit.size() - 10);
  EXPECT_EQ(FindCompressedMesh(unit.data(), static_cast<unsigned>(unit.size())), nullptr);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].priority, OzmPlatform::kLogError);
  EXPECT_EQ(log.Lines()[0].text,
            "FindCompressedMesh: mesh payload of 100 bytes runs past the end of the 116-byte sample");
}

// Random payloads rich in what escaping must get right: long zero runs, values 0..3, and 00 00 03.
Bytes TrickyPayload(std::mt19937& rng, size_t size) {
  Bytes b;
  while (b.size() < size) {
    switch (rng() % 5) {
      case 0: b.insert(b.end(), rng() % 12, 0); break;
      case 1: b.insert(b.end(), {0, 0, 3}); break;
      case 2: b.push_back(static_cast<uint8_t>(rng() % 4)); break;
      default: b.push_back(static_cast<uint8_t>(rng())); break;
    }
  }
  b.resize(size);
  return b;
}

bool HasStartCode(const Bytes& b, size_t from) {
  for (size_t i = from; i + 2 < b.size(); ++i) {
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] <= 2 && b[i + 2] != 0) return true;
  }
  return false;
}

TEST(MeshNalWriter, WrappedPayloadsComeBackExactlyWithoutStartCodesInside) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 3000; ++round) {
    const size_t size = round < 64 ? static_cast<size_t>(round) : rng() % 3000;
    Bytes mesh = TrickyPayload(rng, size);
    if (round % 7 == 0) mesh.insert(mesh.end(), 1 + rng() % 5, 0);  // trailing zeros
    Bytes sample = {0, 0, 0, 1, 0x09, 0xF0};
    ASSERT_TRUE(OzmEncode::AppendMeshNalUnit(mesh.data(), mesh.size(), sample, round % 2 ? 0x18 : 0x15));
    const size_t unitStart = 6;
    sample.insert(sample.end(), {0, 0, 0, 1, 0x65, 0x88});  // a following slice NAL unit

    // Nothing inside the unit may look like the next start code; the unit never ends in a zero.
    const size_t unitEnd = sample.size() - 6;
    EXPECT_FALSE(HasStartCode(Bytes(sample.begin() + unitStart, sample.begin() + unitEnd), 3)) << round;
    EXPECT_NE(sample[unitEnd - 1], 0) << round;

    OZMCORE::CComPtr<Stream> stream(FindCompressedMesh(sample.data(), static_cast<unsigned>(sample.size())));
    ASSERT_TRUE(stream.Get()) << round;
    const Bytes got = Contents(stream);
    ASSERT_EQ(got.size(), mesh.size() + 8) << round;
    EXPECT_TRUE(std::equal(mesh.begin(), mesh.end(), got.begin() + 8)) << round;
  }
}

TEST(MeshNalWriter, EscapeIsTheExactInverseForEveryShortString) {
  // Every string of up to 7 bytes over {0, 1, 2, 3, 4}: escaping then unescaping is the identity and
  // the escaped form never holds 00 00 01 or 00 00 02.
  for (size_t length = 0; length <= 7; ++length) {
    size_t combinations = 1;
    for (size_t i = 0; i < length; ++i) combinations *= 5;
    for (size_t code = 0; code < combinations; ++code) {
      Bytes in(length);
      size_t c = code;
      for (size_t i = 0; i < length; ++i, c /= 5) in[i] = static_cast<uint8_t>(c % 5);
      const Bytes escaped = OzmEncode::EscapeMeshPayload(in.data(), in.size());
      ASSERT_EQ(OzmEncode::UnescapeMeshPayload(escaped.data(), escaped.size()), in);
      ASSERT_FALSE(HasStartCode(escaped, 0));
    }
  }
}

TEST(StreamingURL, AcceptsOnlyTheConfiguredBaseAddresses) {
  const std::string configured[] = {OZM_TEST_STREAMING_URL_0, OZM_TEST_STREAMING_URL_1, OZM_TEST_STREAMING_URL_2};
  for (const std::string& base : configured) {
    EXPECT_TRUE(OzmCrossPlatform::IsValidStreamingURL((base + "clip/master.m3u8").c_str())) << base;
    // Matched as a substring, as deployed players have always done.
    EXPECT_TRUE(OzmCrossPlatform::IsValidStreamingURL(("proxy?u=" + base + "x.m3u8").c_str())) << base;
    EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL(base.substr(0, base.size() - 2).c_str())) << base;
  }
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL(nullptr));
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL(""));
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL("https://elsewhere.example/clip.m3u8"));

  const char* loopback = "http://127.0.0.1:8080/clip.m3u8";
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL(loopback));
  OzmCrossPlatform::AllowLoopbackStreamingURLs(true);
  EXPECT_TRUE(OzmCrossPlatform::IsValidStreamingURL(loopback));
  EXPECT_TRUE(OzmCrossPlatform::IsValidStreamingURL("http://localhost:9000/a.m3u8"));
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL("http://127.0.0.2.evil.example/a.m3u8"));
  EXPECT_TRUE(OzmCrossPlatform::IsValidStreamingURL("/tmp/clip/clip.m3u8"));
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL("clip/clip.m3u8"));
  OzmCrossPlatform::AllowLoopbackStreamingURLs(false);
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL(loopback));
  EXPECT_FALSE(OzmCrossPlatform::IsValidStreamingURL("/tmp/clip/clip.m3u8"));
}

}  // namespace
