// Key frames: the connectivity decoder alone, and the whole key-frame decode into the engine's
// vertices and 32-bit indices, against Draco and meshoptimizer on the same mesh.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "OzmCore/CComPtr.h"
#include "OzmCore/EdgeBreaker.h"
#include "OzmCore/OzmMeshReader.h"
#include "OzmCore/encode/KeyFrameWriter.h"
#include "bench/BenchData.h"
#include "bench/Benchmarks.h"
#include "bench/Peers.h"
#include "bench/Results.h"

namespace OzmBench {
namespace {

const char* const kMeshes[] = {"bunny", "bunny-loop2", "bunny-loop3"};
constexpr double kMaxBitsPerTriangle = 2.1;
constexpr double kMinSpeedupOverDraco = 10;
constexpr double kMaxSlowdownAgainstMeshopt = 2;

struct KeyFrameData {
  std::string error;  // empty when everything below is ready
  OzmEncode::Mesh mesh;
  std::vector<uint8_t> connectivity;  // the EdgeBreaker code stream of the faces
  OzmEncode::EncodedKeyFrame ours;
  CStreamingMeshHeader header;  // of our key frame, and its two blocks on their own
  std::vector<uint8_t> vertexBlock, indexBlock;
  std::vector<uint8_t> draco;
  size_t dracoConnectivityBytes = 0;
  MeshoptKeyFrame meshopt;
};

// Encodes every codec's version of the mesh once, on first use, and checks that each decodes.
const KeyFrameData& Data(const std::string& name) {
  static std::map<std::string, std::unique_ptr<KeyFrameData>> cache;
  std::unique_ptr<KeyFrameData>& slot = cache[name];
  if (slot) return *slot;
  slot = std::make_unique<KeyFrameData>();
  KeyFrameData& d = *slot;
  if (!LoadMesh(name, &d.mesh)) {
    d.error = "cannot read " + DataFolder() + "/" + name + ".mesh (run scripts/test-data.sh)";
    return d;
  }
  std::vector<int> order;
  EdgeBreaker::CEdgeBreaker codec;
  if (!codec.Compress(d.mesh.faces, &order, &d.connectivity)) d.error = "EdgeBreaker refuses the mesh";
  if (d.error.empty() && !OzmEncode::EncodeKeyFrame(d.mesh, OzmEncode::KeyFrameOptions{}, &d.ours)) {
    d.error = "the key-frame encoder refuses the mesh";
  }
  if (d.error.empty() &&
      (!DracoEncode(d.mesh, true, &d.draco) || !DracoConnectivityBytes(d.mesh, &d.dracoConnectivityBytes))) {
    d.error = "Draco refuses the mesh";
  }
  if (d.error.empty() && !MeshoptEncodeKeyFrame(d.mesh, &d.meshopt)) d.error = "meshoptimizer refuses the mesh";
  if (!d.error.empty()) return d;

  SpanStream headerStream(d.ours.bytes);
  if (OZM_FAILED(d.header.Read(&headerStream)) ||
      (d.header.m_Version.v.m_FormatFlags & NWelmStudioFormatFlags::c_IndicesFirst) ||
      headerStream.Unread() < 12ull * d.header.m_numVertices) {
    d.error = "unexpected key-frame layout";
    return d;
  }
  const size_t vertexStart = d.ours.bytes.size() - headerStream.Unread();
  const size_t indexStart = vertexStart + 12ull * d.header.m_numVertices;
  d.vertexBlock.assign(d.ours.bytes.begin() + static_cast<ptrdiff_t>(vertexStart),
                       d.ours.bytes.begin() + static_cast<ptrdiff_t>(indexStart));
  d.indexBlock.assign(d.ours.bytes.begin() + static_cast<ptrdiff_t>(indexStart), d.ours.bytes.end());

  // Every decoder must give back all the triangles before it is timed.
  const size_t faces = d.mesh.faces.size();
  std::vector<WelmMeshFace> decodedFaces;
  std::vector<uint8_t> bits = d.connectivity;
  if (!codec.Decompress(bits, &decodedFaces) || decodedFaces.size() != faces)
    d.error = "EdgeBreaker does not round-trip";
  Ozm::COzmMeshReader reader;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  reader.Initialize(allocator, kReaderFlags);
  SpanStream stream(d.ours.bytes);
  OZMCORE::CComPtr<IOzmBuffer> vb, ib;
  unsigned int vbSize = 0, ibSize = 0;
  if (OZM_FAILED(reader.ReadMesh(&stream, 0, &vb, &ib)) || OZM_FAILED(vb->GetSize(&vbSize)) ||
      OZM_FAILED(ib->GetSize(&ibSize)) || vbSize != 32 * d.ours.vertexOrder.size() || ibSize != 12 * faces) {
    d.error = "our key frame does not decode";
  }
  std::vector<OutputVertex> vertices;
  std::vector<uint32_t> indices;
  if (!DracoDecode(d.draco, &vertices, &indices) || indices.size() != 3 * faces) d.error = "Draco does not decode";
  MeshoptScratch scratch;
  if (!MeshoptDecodeKeyFrame(d.meshopt, &scratch, &vertices, &indices) || indices.size() != 3 * faces) {
    d.error = "meshoptimizer does not decode";
  }
  return d;
}

void SetFrameCounters(benchmark::State& state, const KeyFrameData& d, double bytes, double vertices) {
  const double triangles = static_cast<double>(d.mesh.faces.size());
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(triangles));
  state.counters["frames"] = 1;
  state.counters["bytes"] = bytes;
  state.counters["vertices"] = vertices;
  state.counters["triangles"] = triangles;
}

// EdgeBreaker connectivity decode alone, on the code stream of the index block.
void OursConnectivity(benchmark::State& state, const std::string& name) {
  const KeyFrameData& d = Data(name);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  std::vector<uint8_t> bits = d.connectivity;
  std::vector<WelmMeshFace> faces;
  EdgeBreaker::CEdgeBreaker codec;
  for (auto _ : state) {
    faces.clear();
    bool ok = codec.Decompress(bits, &faces);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(faces.data());
    benchmark::ClobberMemory();
  }
  SetFrameCounters(state, d, static_cast<double>(d.connectivity.size()), static_cast<double>(d.mesh.VertexCount()));
  state.counters["bits_per_triangle"] =
      8.0 * static_cast<double>(d.connectivity.size()) / static_cast<double>(d.mesh.faces.size());
}

void MeshoptConnectivity(benchmark::State& state, const std::string& name) {
  const KeyFrameData& d = Data(name);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  std::vector<uint32_t> indices(d.meshopt.indexCount);
  for (auto _ : state) {
    bool ok = MeshoptDecodeIndices(d.meshopt, &indices);
    benchmark::DoNotOptimize(ok);
    benchmark::ClobberMemory();
  }
  SetFrameCounters(state, d, static_cast<double>(d.meshopt.indexBytes.size()),
                   static_cast<double>(d.meshopt.vertexCount));
  state.counters["bits_per_triangle"] =
      8.0 * static_cast<double>(d.meshopt.indexBytes.size()) / static_cast<double>(d.mesh.faces.size());
}

// The whole key frame through the reader: header, EdgeBreaker index block, plain 16-bit vertices
// into 32-byte float vertices. The reader allocates its output buffers, as it does in the player.
void OursKeyFrame(benchmark::State& state, const std::string& name) {
  const KeyFrameData& d = Data(name);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  Ozm::COzmMeshReader reader;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  reader.Initialize(allocator, kReaderFlags);
  SpanStream stream(d.ours.bytes);
  for (auto _ : state) {
    stream.Rewind();
    OZMCORE::CComPtr<IOzmBuffer> vb, ib;
    if (OZM_FAILED(reader.ReadMesh(&stream, 0, &vb, &ib))) return state.SkipWithError("ReadMesh failed");
    benchmark::DoNotOptimize(vb.Get());
    benchmark::DoNotOptimize(ib.Get());
  }
  SetFrameCounters(state, d, static_cast<double>(d.ours.bytes.size()), static_cast<double>(d.ours.vertexOrder.size()));
}

// The two stages of our key frame on their own: the vertex block (16-bit records into 32-byte float
// vertices, seeding the temporal history) and the index block (EdgeBreaker, copy, range check).
void OursReadVertices(benchmark::State& state, const std::string& name) {
  const KeyFrameData& d = Data(name);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  Ozm::COzmMeshReader reader;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  reader.Initialize(allocator, kReaderFlags);
  Ozm::COzmMeshReaderCtx* ctx = reader.Context(0);
  SpanStream stream(d.vertexBlock);
  for (auto _ : state) {
    stream.Rewind();
    CStreamingMeshHeader header = d.header;
    OZMCORE::CComPtr<IOzmBuffer> vb;
    if (OZM_FAILED(reader.ReadVertices(ctx, &stream, &header, &vb))) return state.SkipWithError("ReadVertices failed");
    benchmark::DoNotOptimize(vb.Get());
  }
  SetFrameCounters(state, d, static_cast<double>(d.vertexBlock.size()), static_cast<double>(d.header.m_numVertices));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(d.header.m_numVertices));
}

void OursReadIndices(benchmark::State& state, const std::string& name) {
  const KeyFrameData& d = Data(name);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  Ozm::COzmMeshReader reader;
  OZMCORE::CComPtr<OzmCrossPlatform::BufferAllocator> allocator(new OzmCrossPlatform::BufferAllocator);
  reader.Initialize(allocator, kReaderFlags);
  Ozm::COzmMeshReaderCtx* ctx = reader.Context(0);
  SpanStream stream(d.indexBlock);
  for (auto _ : state) {
    stream.Rewind();
    CStreamingMeshHeader header = d.header;
    OZMCORE::CComPtr<IOzmBuffer> ib;
    if (OZM_FAILED(reader.ReadIndices(ctx, &stream, &header, &ib))) return state.SkipWithError("ReadIndices failed");
    benchmark::DoNotOptimize(ib.Get());
  }
  SetFrameCounters(state, d, static_cast<double>(d.indexBlock.size()), static_cast<double>(d.header.m_numVertices));
}

// Draco's decode, then its attributes copied into the same 32-byte vertices (normal zero) and its
// faces into 32-bit indices. The output vectors are reused: no allocation of ours is timed here.
void DracoKeyFrame(benchmark::State& state, const std::string& name) {
  const KeyFrameData& d = Data(name);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  std::vector<OutputVertex> vertices;
  std::vector<uint32_t> indices;
  for (auto _ : state) {
    if (!DracoDecode(d.draco, &vertices, &indices)) return state.SkipWithError("Draco decode failed");
    benchmark::DoNotOptimize(vertices.data());
    benchmark::DoNotOptimize(indices.data());
    benchmark::ClobberMemory();
  }
  SetFrameCounters(state, d, static_cast<double>(d.draco.size()), static_cast<double>(d.mesh.VertexCount()));
  state.counters["connectivity_bytes"] = static_cast<double>(d.dracoConnectivityBytes);
  state.counters["bits_per_triangle"] =
      8.0 * static_cast<double>(d.dracoConnectivityBytes) / static_cast<double>(d.mesh.faces.size());
}

// meshoptimizer: index decode, vertex decode of the 12-byte records, dequantisation into the same
// 32-byte vertices. Work and output buffers are reused.
void MeshoptKeyFrameDecode(benchmark::State& state, const std::string& name) {
  const KeyFrameData& d = Data(name);
  if (!d.error.empty()) return state.SkipWithError(d.error.c_str());
  std::vector<OutputVertex> vertices;
  std::vector<uint32_t> indices;
  MeshoptScratch scratch;
  for (auto _ : state) {
    if (!MeshoptDecodeKeyFrame(d.meshopt, &scratch, &vertices, &indices)) {
      return state.SkipWithError("meshoptimizer decode failed");
    }
    benchmark::DoNotOptimize(vertices.data());
    benchmark::DoNotOptimize(indices.data());
    benchmark::ClobberMemory();
  }
  SetFrameCounters(state, d, static_cast<double>(d.meshopt.indexBytes.size() + d.meshopt.vertexBytes.size()),
                   static_cast<double>(d.meshopt.vertexCount));
}

std::string Name(const char* what, const std::string& mesh, const char* who) {
  return std::string("KeyFrame/") + what + "/" + mesh + "/" + who;
}

}  // namespace

void RegisterKeyFrameBenchmarks() {
  for (const char* meshName : kMeshes) {
    const std::string mesh = meshName;
    benchmark::RegisterBenchmark(Name("Connectivity", mesh, "Ours").c_str(), OursConnectivity, mesh);
    benchmark::RegisterBenchmark(Name("Connectivity", mesh, "meshopt").c_str(), MeshoptConnectivity, mesh);
    benchmark::RegisterBenchmark(Name("Whole", mesh, "Ours").c_str(), OursKeyFrame, mesh);
    benchmark::RegisterBenchmark(Name("Whole", mesh, "Draco").c_str(), DracoKeyFrame, mesh);
    benchmark::RegisterBenchmark(Name("Whole", mesh, "meshopt").c_str(), MeshoptKeyFrameDecode, mesh);
    benchmark::RegisterBenchmark(Name("Stage", mesh, "ReadVertices").c_str(), OursReadVertices, mesh);
    benchmark::RegisterBenchmark(Name("Stage", mesh, "ReadIndices").c_str(), OursReadIndices, mesh);

    AddComparison({"connectivity / " + mesh, "EdgeBreaker", Name("Connectivity", mesh, "Ours"), "meshopt index codec",
                   Name("Connectivity", mesh, "meshopt")});
    Comparison sizes{"connectivity / " + mesh, "EdgeBreaker", Name("Connectivity", mesh, "Ours"),
                     "Draco edgebreaker (bound)", Name("Whole", mesh, "Draco")};
    sizes.peerBytes = "connectivity_bytes";
    sizes.timed = false;
    AddComparison(sizes);
    AddComparison({"key frame / " + mesh, "EdgeBreaker + 16-bit vertices", Name("Whole", mesh, "Ours"), "Draco",
                   Name("Whole", mesh, "Draco")});
    AddComparison({"key frame / " + mesh, "EdgeBreaker + 16-bit vertices", Name("Whole", mesh, "Ours"),
                   "meshopt index+vertex", Name("Whole", mesh, "meshopt")});

    AddGoal([mesh](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
      const Measured* ours = Find(runs, Name("Whole", mesh, "Ours"));
      const Measured* draco = Find(runs, Name("Whole", mesh, "Draco"));
      if (!ours || !draco) return std::nullopt;
      const double speedup = draco->NsPerFrame() / ours->NsPerFrame();
      return nlohmann::json{{"goal", "key-frame decode >= 10x faster than Draco"},
                            {"subject", mesh},
                            {"measured", speedup},
                            {"unit", "x"},
                            {"target", ">= 10 x"},
                            {"met", speedup >= kMinSpeedupOverDraco}};
    });
    AddGoal([mesh](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
      const Measured* ours = Find(runs, Name("Whole", mesh, "Ours"));
      const Measured* meshopt = Find(runs, Name("Whole", mesh, "meshopt"));
      if (!ours || !meshopt) return std::nullopt;
      const double slowdown = ours->NsPerFrame() / meshopt->NsPerFrame();
      return nlohmann::json{{"goal", "key-frame decode time <= 2x meshoptimizer's"},
                            {"subject", mesh},
                            {"measured", slowdown},
                            {"unit", "x"},
                            {"target", "<= 2 x"},
                            {"met", slowdown <= kMaxSlowdownAgainstMeshopt}};
    });
    AddGoal([mesh](const MeasuredRuns& runs) -> std::optional<nlohmann::json> {
      const Measured* ours = Find(runs, Name("Connectivity", mesh, "Ours"));
      if (!ours) return std::nullopt;
      const double bits = ours->Counter("bits_per_triangle");
      return nlohmann::json{{"goal", "connectivity <= 2.1 bits per triangle"},
                            {"subject", mesh},
                            {"measured", bits},
                            {"unit", "bit"},
                            {"target", "<= 2.1 bit"},
                            {"met", bits <= kMaxBitsPerTriangle}};
    });
  }
}

}  // namespace OzmBench
