// Inter frames: every temporal coding of the sequence encoder, decoded frame after frame through one
// reader, against meshoptimizer's vertex codec and Draco coding each frame alone.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/encode/SequenceEncoder.h"
#include "bench/BenchData.h"
#include "bench/Benchmarks.h"
#include "bench/InterSequences.h"
#include "bench/Peers.h"
#include "bench/Results.h"

namespace OzmBench {
namespace {

using OzmEncode::InterCoding;

constexpr double kMinVerticesPerSecond = 100e6;
constexpr double kMinSizeRatioToDraco = 3;

bool IsKeyFrame(size_t f) { return f % kKeyFrameInterval == 0; }

struct CodedSequence {
  std::string error;
  std::vector<std::vector<uint8_t>> payloads;
  std::vector<bool> key;
  size_t interFrames = 0;
  double interBytes = 0, allBytes = 0;
  double maxError = 0;  // over the inter frames, largest distance on any axis from the input
  // Byte-delta sequences: the order-0 entropy of each inter frame's delta bytes (per axis, summed
  // over the axes), averaged over the frames, in bytes per vertex. No coder of these symbols with
  // per-frame code tables gets below it.
  double entropyBytesPerVertex = 0;
};

// The parts of a byte-delta inter frame: header, the delta range (min x, y, z, max x, y, z) and
// 3 bytes a vertex.
struct ByteDeltaFrame {
  CStreamingMeshHeader header;
  float range[6];
  std::vector<uint8_t> deltas;
};

bool ParseByteDeltaFrame(const std::vector<uint8_t>& payload, size_t vertices, ByteDeltaFrame* out) {
  SpanStream stream(payload);
  if (OZM_FAILED(out->header.Read(&stream)) ||
      out->header.m_Version.v.m_VertexVersion != NWelmStudioVertexVersion::c_CompressedXYZUV) {
    return false;
  }
  const size_t start = payload.size() - stream.Unread();
  if (stream.Unread() < sizeof(out->range) + 3 * vertices) return false;
  std::memcpy(out->range, payload.data() + start, sizeof(out->range));
  const auto first = payload.begin() + static_cast<ptrdiff_t>(start + sizeof(out->range));
  out->deltas.assign(first, first + static_cast<ptrdiff_t>(3 * vertices));
  out->header.m_numVertices = static_cast<uint32_t>(vertices);  // inter frames take it from the key frame
  return true;
}

double EntropyBitsPerVertex(const std::vector<uint8_t>& deltas) {
  const size_t n = deltas.size() / 3;
  double bits = 0;
  for (size_t a = 0; a < 3; ++a) {
    size_t histogram[256] = {};
    for (size_t i = 0; i < n; ++i) ++histogram[deltas[3 * i + a]];
    for (size_t count : histogram) {
      if (count) bits -= static_cast<double>(count) * std::log2(static_cast<double>(count) / static_cast<double>(n));
    }
  }
  return n ? bits / static_cast<double>(n) : 0;
}

struct AnimationData {
  std::string error;
  Animation anim;
  std::map<InterCoding, CodedSequence> ours;
  bool peersReady = false;
  std::vector<size_t> interFrames;  // frame numbers
  MeshoptKeyFrame meshoptKey;
  std::vector<float> meshoptUVs;          // texture coordinates in meshoptimizer's vertex order
  std::vector<MeshoptPositions> meshopt;  // one per inter frame
  std::vector<std::vector<uint8_t>> draco;
};

AnimationData& Data(const SequenceCase& seq) {
  static std::map<std::string, std::unique_ptr<AnimationData>> cache;
  std::unique_ptr<AnimationData>& slot = cache[seq.name];
  if (slot) return *slot;
  slot = std::make_unique<AnimationData>();
  AnimationData& d = *slot;
  const bool loaded = std::string(seq.mesh) == "bunny" ? LoadBunnyAnimation(seq.frames, &d.anim)
                                                       : MakeSubdividedAnimation(seq.mesh, seq.frames, &d.anim);
  if (!loaded) d.error = std::string("cannot read the test data for ") + seq.name + " (run scripts/test-data.sh)";
  for (size_t f = 0; f < seq.frames; ++f) {
    if (!IsKeyFrame(f)) d.interFrames.push_back(f);
  }
  return d;
}

// Encodes the sequence in one coding, on first use.
const CodedSequence& Ours(AnimationData& d, InterCoding coding) {
  auto [it, added] = d.ours.try_emplace(coding);
  CodedSequence& s = it->second;
  if (!added) return s;
  OzmEncode::SequenceOptions options;
  options.inter = coding;
  options.keyFrameInterval = kKeyFrameInterval;
  OzmEncode::SequenceEncoder encoder(options);
  for (size_t f = 0; f < d.anim.frames.size(); ++f) {
    OzmEncode::EncodedFrame e;
    if (!encoder.Encode(d.anim.Frame(f), static_cast<uint32_t>(f + 1), &e)) {
      s.error = "the sequence encoder refuses frame " + std::to_string(f);
      return s;
    }
    if (e.keyFrame != IsKeyFrame(f)) {
      s.error = "unexpected key frame at " + std::to_string(f);
      return s;
    }
    s.allBytes += static_cast<double>(e.payload.size());
    if (!e.keyFrame) {
      ++s.interFrames;
      s.interBytes += static_cast<double>(e.payload.size());
      s.maxError = std::max(s.maxError, e.maxError);
    }
    if (!e.keyFrame && coding == InterCoding::ByteDelta) {
      ByteDeltaFrame parsed;
      if (!ParseByteDeltaFrame(e.payload, d.anim.VertexCount(), &parsed)) {
        s.error = "unexpected byte-delta layout";
        return s;
      }
      s.entropyBytesPerVertex += EntropyBitsPerVertex(parsed.deltas) / 8;
    }
    s.key.push_back(e.keyFrame);
    s.payloads.push_back(std::move(e.payload));
  }
  if (s.interFrames) s.entropyBytesPerVertex /= static_cast<double>(s.interFrames);
  return s;
}

// The peers' codings of the inter frames, on first use.
void PreparePeers(AnimationData& d, const SequenceCase& seq) {
  if (d.peersReady || !d.error.empty()) return;
  d.peersReady = true;
  if (!MeshoptEncodeKeyFrame(d.anim.Frame(0), &d.meshoptKey)) {
    d.error = "meshoptimizer refuses the mesh";
    return;
  }
  const size_t n = d.anim.VertexCount();
  d.meshoptUVs.resize(2 * n);
  for (size_t i = 0; i < n; ++i) {
    const size_t to = d.meshoptKey.remap[i];
    d.meshoptUVs[2 * to] = d.anim.rest.uvs[2 * i];
    d.meshoptUVs[2 * to + 1] = d.anim.rest.uvs[2 * i + 1];
  }
  for (size_t f : d.interFrames) {
    MeshoptPositions p;
    if (!MeshoptEncodePositions(d.anim.frames[f], d.meshoptKey.remap, &p)) {
      d.error = "meshoptimizer refuses frame " + std::to_string(f);
      return;
    }
    d.meshopt.push_back(std::move(p));
  }
  const size_t count = std::min(seq.dracoFrames, d.interFrames.size());
  for (size_t k = 0; k < count; ++k) {
    const size_t f = d.interFrames[k * d.interFrames.size() / count];
    std::vector<uint8_t> bytes;
    if (!DracoEncode(d.anim.Frame(f), true, &bytes)) {
      d.error = "Draco refuses frame " + std::to_string(f);
      return;
    }
    d.draco.push_back(std::move(bytes));
  }
}

void SetCounters(benchmark::State& state, size_t frames, size_t vertices, double bytesPerFrame) {
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(frames * vertices));
  state.counters["frames"] = static_cast<double>(frames);
  state.counters["vertices"] = static_cast<double>(vertices);
  state.counters["bytes"] = bytesPerFrame;
  state.counters["bytes_per_vertex"] = bytesPerFrame / static_cast<double>(vertices);
}

// Decodes the whole sequence through one reader, as the player does; only the inter frames are
// timed (the clock stops around each key frame).
void OursInter(benchmark::State& state, const SequenceCase& seq, InterCoding coding) {
  AnimationData& d = Data(seq);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  const CodedSequence& s = Ours(d, coding);
  if (!s.error.empty()) return state.SkipWithError(s.error.c_str());
  std::vector<SpanStream> streams;
  streams.reserve(s.payloads.size());
  for (const auto& payload : s.payloads) streams.emplace_back(payload);
  Ozm::COzmMeshReader reader;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  reader.Initialize(allocator, kReaderFlags);
  for (auto _ : state) {
    for (size_t f = 0; f < streams.size(); ++f) {
      streams[f].Rewind();
      OZMCORE::CComPtr<IOzmBuffer> vb, ib;
      if (s.key[f]) state.PauseTiming();
      const HRESULT hr = reader.ReadMesh(&streams[f], static_cast<long long>(f), &vb, &ib);
      if (s.key[f]) state.ResumeTiming();
      if (OZM_FAILED(hr)) return state.SkipWithError("ReadMesh failed");
      benchmark::DoNotOptimize(vb.Get());
    }
  }
  const size_t n = d.anim.VertexCount();
  SetCounters(state, s.interFrames, n, s.interBytes / static_cast<double>(s.interFrames));
  state.counters["stream_bytes_per_frame"] = s.allBytes / static_cast<double>(s.payloads.size());
  state.counters["max_error"] = s.maxError;
  if (coding == InterCoding::ByteDelta) state.counters["entropy_bytes_per_vertex"] = s.entropyBytesPerVertex;
}

// The last stage that every byte-delta coding shares, on its own: prediction from the history,
// delta bytes added, output vertices written (on the sequence's first inter frame, over and over).
void OursDecodeDeltas(benchmark::State& state, const SequenceCase& seq) {
  AnimationData& d = Data(seq);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  const CodedSequence& s = Ours(d, InterCoding::ByteDelta);
  if (!s.error.empty()) return state.SkipWithError(s.error.c_str());
  const size_t n = d.anim.VertexCount();
  ByteDeltaFrame frame;
  if (s.payloads.size() < 2 || !ParseByteDeltaFrame(s.payloads[1], n, &frame)) {
    return state.SkipWithError("no byte-delta frame");
  }
  Ozm::COzmMeshReader reader;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  reader.Initialize(allocator, kReaderFlags);
  {
    SpanStream key(s.payloads[0]);
    OZMCORE::CComPtr<IOzmBuffer> vb, ib;
    if (OZM_FAILED(reader.ReadMesh(&key, 0, &vb, &ib))) return state.SkipWithError("key frame does not decode");
  }
  Ozm::COzmMeshReaderCtx* ctx = reader.Context(frame.header.m_subMeshId);
  const float* r = frame.range;
  for (auto _ : state) {
    OZMCORE::CComPtr<IOzmBuffer> vb;
    if (OZM_FAILED(reader.DecodeDeltas(ctx, &frame.header, frame.deltas.data(),
                                       static_cast<uint32_t>(frame.deltas.size()), r[0], r[1], r[2], r[3], r[4], r[5],
                                       &vb))) {
      return state.SkipWithError("DecodeDeltas failed");
    }
    benchmark::DoNotOptimize(vb.Get());
  }
  SetCounters(state, 1, n, static_cast<double>(frame.deltas.size()));
}

// meshoptimizer's vertex codec on each inter frame's 16-bit positions, dequantised into the same
// 32-byte vertices with the texture coordinates of the sequence.
void MeshoptInter(benchmark::State& state, const SequenceCase& seq) {
  AnimationData& d = Data(seq);
  PreparePeers(d, seq);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  const size_t n = d.anim.VertexCount();
  MeshoptScratch scratch;
  std::vector<OutputVertex> vertices;
  for (auto _ : state) {
    for (const MeshoptPositions& frame : d.meshopt) {
      if (!MeshoptDecodePositions(frame, n, d.meshoptUVs, &scratch, &vertices)) {
        return state.SkipWithError("meshoptimizer decode failed");
      }
      benchmark::DoNotOptimize(vertices.data());
      benchmark::ClobberMemory();
    }
  }
  double bytes = 0, maxError = 0;
  for (const MeshoptPositions& frame : d.meshopt) {
    bytes += static_cast<double>(frame.bytes.size());
    maxError = std::max(maxError, frame.maxError);
  }
  SetCounters(state, d.meshopt.size(), n, bytes / static_cast<double>(d.meshopt.size()));
  state.counters["max_error"] = maxError;
}

// Draco coding each frame alone (connectivity, positions, texture coordinates), decoded into the
// same output.
void DracoInter(benchmark::State& state, const SequenceCase& seq) {
  AnimationData& d = Data(seq);
  PreparePeers(d, seq);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  std::vector<OutputVertex> vertices;
  std::vector<uint32_t> indices;
  for (auto _ : state) {
    for (const auto& frame : d.draco) {
      if (!DracoDecode(frame, &vertices, &indices)) return state.SkipWithError("Draco decode failed");
      benchmark::DoNotOptimize(vertices.data());
      benchmark::ClobberMemory();
    }
  }
  double bytes = 0;
  for (const auto& frame : d.draco) bytes += static_cast<double>(frame.size());
  SetCounters(state, d.draco.size(), d.anim.VertexCount(), bytes / static_cast<double>(d.draco.size()));
}

std::string Name(const SequenceCase& seq, const char* who) { return std::string("Inter/") + seq.name + "/" + who; }

}  // namespace

void RegisterInterFrameBenchmarks() {
  for (const SequenceCase& seq : kAnimations) {
    for (const CodingCase& c : kCodings) {
      benchmark::RegisterBenchmark(Name(seq, c.name).c_str(), OursInter, seq, c.coding);
    }
    benchmark::RegisterBenchmark(Name(seq, "meshopt").c_str(), MeshoptInter, seq);
    benchmark::RegisterBenchmark(Name(seq, "Draco").c_str(), DracoInter, seq);
    benchmark::RegisterBenchmark(Name(seq, "Stage/DecodeDeltas").c_str(), OursDecodeDeltas, seq);

    const std::string anim = seq.name;
    for (const CodingCase& c : kCodings) {
      AddComparison({"inter / " + anim, c.name, Name(seq, c.name), "meshopt vertex codec", Name(seq, "meshopt")});
      AddComparison({"inter / " + anim, c.name, Name(seq, c.name), "Draco per frame", Name(seq, "Draco")});
      AddGoal([seq, c, anim](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
        const Measured* ours = Find(runs, Name(seq, c.name));
        if (!ours) return std::nullopt;
        const double rate = ours->Counter("items_per_second");
        return nlohmann::json{{"goal", "temporal decode >= 100 M vertices/s (one core)"},
                              {"subject", anim + " " + c.name},
                              {"measured", rate / 1e6},
                              {"unit", "M/s"},
                              {"target", ">= 100 M/s"},
                              {"met", rate >= kMinVerticesPerSecond}};
      });
    }
    AddGoal([seq, anim](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
      const Measured* draco = Find(runs, Name(seq, "Draco"));
      const Measured* best = nullptr;
      std::string bestName;
      for (const CodingCase& c : kCodings) {
        const Measured* m = Find(runs, Name(seq, c.name));
        if (m && (!best || m->Counter("bytes") < best->Counter("bytes"))) best = m, bestName = c.name;
      }
      if (!draco || !best) return std::nullopt;
      const double ratio = draco->Counter("bytes") / best->Counter("bytes");
      return nlohmann::json{{"goal", "best temporal coding >= 3x smaller than Draco"},
                            {"subject", anim + " " + bestName},
                            {"measured", ratio},
                            {"unit", "x"},
                            {"target", ">= 3 x"},
                            {"met", ratio >= kMinSizeRatioToDraco}};
    });
  }
}

}  // namespace OzmBench
