// ozm_bench_sizes: bytes per inter frame of our temporal codings against Draco and meshoptimizer at
// equal accuracy. For each of our codings, each peer gets the coarsest position grid whose largest
// error, measured by decoding, is no larger than that coding's largest error over the sequence.
//
//   ozm_bench_sizes [--sequence=NAME]
//
// Prints Markdown tables (docs/benchmarks.md, "Sizes at equal accuracy") and exits with 1 if a
// sequence cannot be read or a peer's decoded error exceeds the error it was chosen for.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "OzmCore/encode/SequenceEncoder.h"
#include "bench/BenchData.h"
#include "bench/InterSequences.h"
#include "bench/Peers.h"

namespace OzmBench {
namespace {

using OzmEncode::InterCoding;

constexpr int kMinBits = 8, kMaxDracoBits = 24, kMaxMeshoptBits = 16;
constexpr double kGoalRatio = 3;

// One row of our side: bytes and errors per inter frame.
struct Ours {
  std::string name;
  std::vector<double> bytes, error;
  double step = 0;  // largest quantisation step of any inter frame

  double MeanBytes() const {
    double sum = 0;
    for (double b : bytes) sum += b;
    return bytes.empty() ? 0 : sum / static_cast<double>(bytes.size());
  }
  double MaxError() const { return error.empty() ? 0 : *std::max_element(error.begin(), error.end()); }
};

bool EncodeOurs(const Animation& anim, const CodingCase& c, Ours* out) {
  OzmEncode::SequenceOptions options;
  options.inter = c.coding;
  options.keyFrameInterval = kKeyFrameInterval;
  OzmEncode::SequenceEncoder encoder(options);
  out->name = c.name;
  for (size_t f = 0; f < anim.frames.size(); ++f) {
    OzmEncode::EncodedFrame e;
    if (!encoder.Encode(anim.Frame(f), static_cast<uint32_t>(f + 1), &e)) return false;
    if (e.keyFrame) continue;
    out->bytes.push_back(static_cast<double>(e.payload.size()));
    out->error.push_back(e.maxError);
    out->step = std::max(out->step, e.step);
  }
  return true;
}

// What an encoder choosing the smallest coding per frame would send. Each coding predicts from its
// own reconstruction, so this is what the per-frame choice gets if the history does not change it.
Ours BestPerFrame(const std::vector<Ours>& codings, std::map<std::string, int>* chosen) {
  Ours best;
  best.name = "best per frame";
  for (size_t k = 0; k < codings[0].bytes.size(); ++k) {
    const Ours* pick = &codings[0];
    for (const Ours& c : codings) {
      if (c.bytes[k] < pick->bytes[k]) pick = &c;
    }
    best.bytes.push_back(pick->bytes[k]);
    best.error.push_back(pick->error[k]);
    best.step = std::max(best.step, pick->step);
    ++(*chosen)[pick->name];
  }
  return best;
}

struct DracoResult {
  DracoOptions options;
  double error = 0;                           // largest over the frames
  double fullBytes = 0, positionBytes = 0;    // means over the frames
  bool met = false;
};

// Draco on a spread of the inter frames, each coded alone, at one speed setting.
class DracoSide {
 public:
  DracoSide(const Animation& anim, const std::vector<size_t>& frames, int speed) : m_frames(frames), m_speed(speed) {
    m_meshes.reserve(frames.size());
    for (size_t f : frames) m_meshes.push_back(anim.Frame(f));
  }

  bool Prepare(std::string* error) {
    DracoOptions options;
    options.speed = m_speed;
    if (!DracoConnectivityBytes(m_meshes[0], &m_connectivity, options)) return Fail(error, "Draco refuses the mesh");
    return true;
  }
  size_t ConnectivityBytes() const { return m_connectivity; }

  // The fewest bits (Draco's own grid over the largest extent) whose error on every frame is <= target.
  bool Search(double target, DracoResult* out, std::string* error) {
    for (int bits = kMinBits; bits <= kMaxDracoBits; ++bits) {
      const DracoOptions grid{bits, 0, m_speed};
      bool met = true;
      for (size_t k = 0; k < m_meshes.size() && met; ++k) {
        const Measured* m = Measure(grid, k, error);
        if (!m) return false;
        met = m->error <= target;
      }
      if (met || bits == kMaxDracoBits) return Sizes(grid, target, out, error);
    }
    return false;
  }

  // The coarsest explicit grid (step = range / (2^bits - 1)) whose error on every frame is <= target,
  // with the bits of the search: the step is matched to the target instead of halving per bit.
  bool MatchStep(double target, int bits, DracoResult* out, std::string* error) {
    float extent = 0;
    for (const OzmEncode::Mesh& m : m_meshes) {
      const OzmEncode::Box box = OzmEncode::BoundsOf(m.positions);
      for (int a = 0; a < 3; ++a) extent = std::max(extent, box.max[a] - box.min[a]);
    }
    const double steps = std::ldexp(1.0, bits) - 1;
    double range = 2 * target * steps;
    for (int attempt = 0; attempt < 40 && range >= extent; ++attempt, range *= 0.995) {
      const DracoOptions grid{bits, static_cast<float>(range), m_speed};
      bool met = true;
      for (size_t k = 0; k < m_meshes.size() && met; ++k) {
        const Measured* m = Measure(grid, k, error);
        if (!m) return false;
        met = m->error <= target;
      }
      if (met) return Sizes(grid, target, out, error);
    }
    return Search(target, out, error);  // the range cannot go below the box: Draco's own grid
  }

 private:
  struct Measured {
    double error = 0;
    size_t positionBytes = 0, fullBytes = 0;
  };
  using Key = std::pair<std::pair<int, float>, size_t>;

  static bool Fail(std::string* error, const std::string& what) {
    *error = what;
    return false;
  }

  Measured* Measure(const DracoOptions& grid, size_t k, std::string* error) {
    const Key key{{grid.positionBits, grid.positionRange}, k};
    auto it = m_measured.find(key);
    if (it != m_measured.end()) return &it->second;
    Measured m;
    if (!DracoPositionError(m_meshes[k], grid, &m.error, &m.positionBytes)) {
      Fail(error, "Draco position error not measurable at frame " + std::to_string(m_frames[k]));
      return nullptr;
    }
    return &m_measured.emplace(key, m).first->second;
  }

  bool Sizes(const DracoOptions& grid, double target, DracoResult* out, std::string* error) {
    *out = {};
    out->options = grid;
    for (size_t k = 0; k < m_meshes.size(); ++k) {
      Measured* m = Measure(grid, k, error);
      if (!m) return false;
      if (!m->fullBytes) {
        std::vector<uint8_t> bytes;
        if (!DracoEncode(m_meshes[k], true, &bytes, grid)) return Fail(error, "Draco refuses a frame");
        m->fullBytes = bytes.size();
      }
      out->error = std::max(out->error, m->error);
      out->fullBytes += static_cast<double>(m->fullBytes);
      // Positions only: the encoding without texture coordinates less the bound on its connectivity.
      out->positionBytes += static_cast<double>(m->positionBytes) - static_cast<double>(m_connectivity);
    }
    out->fullBytes /= static_cast<double>(m_meshes.size());
    out->positionBytes /= static_cast<double>(m_meshes.size());
    out->met = out->error <= target;
    return true;
  }

  std::vector<size_t> m_frames;
  int m_speed;
  std::vector<OzmEncode::Mesh> m_meshes;
  size_t m_connectivity = 0;
  std::map<Key, Measured> m_measured;
};

struct MeshoptResult {
  int bits = 0;
  double error = 0;  // measured on the decoded positions, over every inter frame
  double bytes = 0;  // mean vertex-buffer bytes per frame
  bool met = false;
};

// meshoptimizer's vertex codec on every inter frame at each bit count; the error is measured on what
// MeshoptDecodePositions returns, and must agree with the encoder's own figure.
bool MeshoptSweep(const Animation& anim, const std::vector<size_t>& frames, std::vector<MeshoptResult>* out,
                  std::string* error) {
  MeshoptKeyFrame key;
  if (!MeshoptEncodeKeyFrame(anim.Frame(0), &key)) return (*error = "meshoptimizer refuses the mesh", false);
  const size_t n = anim.VertexCount();
  const std::vector<float> uvs(2 * n, 0.0f);
  MeshoptScratch scratch;
  std::vector<OutputVertex> decoded;
  for (int bits = kMinBits; bits <= kMaxMeshoptBits; ++bits) {
    MeshoptResult r;
    r.bits = bits;
    for (size_t f : frames) {
      MeshoptPositions p;
      if (!MeshoptEncodePositions(anim.frames[f], key.remap, &p, bits) ||
          !MeshoptDecodePositions(p, n, uvs, &scratch, &decoded)) {
        return (*error = "meshoptimizer fails on frame " + std::to_string(f), false);
      }
      double frameError = 0;
      for (size_t i = 0; i < n; ++i) {
        const OutputVertex& v = decoded[key.remap[i]];
        const float* in = &anim.frames[f][3 * i];
        frameError = std::max({frameError, std::fabs(static_cast<double>(v.x) - in[0]),
                               std::fabs(static_cast<double>(v.y) - in[1]), std::fabs(static_cast<double>(v.z) - in[2])});
      }
      if (frameError != p.maxError) return (*error = "meshoptimizer's decoded error disagrees with its encoder", false);
      r.error = std::max(r.error, frameError);
      r.bytes += static_cast<double>(p.bytes.size());
    }
    r.bytes /= static_cast<double>(frames.size());
    out->push_back(r);
  }
  return true;
}

MeshoptResult MeshoptFor(const std::vector<MeshoptResult>& sweep, double target) {
  for (const MeshoptResult& r : sweep) {
    if (r.error <= target) return {r.bits, r.error, r.bytes, true};
  }
  MeshoptResult last = sweep.back();
  last.met = false;
  return last;
}

std::string Thousands(double v) {
  std::string digits = std::to_string(static_cast<long long>(std::llround(v)));
  for (int i = static_cast<int>(digits.size()) - 3; i > 0; i -= 3) digits.insert(static_cast<size_t>(i), ",");
  return digits;
}

std::string Fixed(double v, int decimals) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f", decimals, v);
  return text;
}

std::string Micro(double v) { return Fixed(v * 1e6, 1); }

struct Row {
  Ours ours;
  DracoResult draco;
  MeshoptResult meshopt;
};

// The tables, filled sequence by sequence.
struct Tables {
  std::vector<std::string> sizes, draco, goals;
};

std::string DracoGrid(const DracoResult& r) {
  std::string grid = std::to_string(r.options.positionBits) + " bits";
  if (r.options.positionRange > 0) grid += " over " + Fixed(r.options.positionRange, 3);
  return grid;
}

bool RunSequence(const SequenceCase& seq, Tables* tables, std::string* error) {
  Animation anim;
  const bool loaded = std::string(seq.mesh) == "bunny" ? LoadBunnyAnimation(seq.frames, &anim)
                                                       : MakeSubdividedAnimation(seq.mesh, seq.frames, &anim);
  if (!loaded) return (*error = std::string("cannot read the test data for ") + seq.name, false);
  std::vector<size_t> inter;
  for (size_t f = 0; f < seq.frames; ++f) {
    if (f % kKeyFrameInterval) inter.push_back(f);
  }

  std::vector<Ours> codings;
  for (const CodingCase& c : kCodings) {
    codings.emplace_back();
    if (!EncodeOurs(anim, c, &codings.back())) return (*error = std::string("cannot encode ") + c.name, false);
  }
  std::map<std::string, int> chosen;
  std::vector<Row> rows;
  for (const Ours& c : codings) rows.push_back({c, {}, {}});
  rows.push_back({BestPerFrame(codings, &chosen), {}, {}});
  const Row& best = rows.back();
  size_t bestSingle = 0;
  for (size_t i = 1; i < codings.size(); ++i) {
    if (codings[i].MeanBytes() < codings[bestSingle].MeanBytes()) bestSingle = i;
  }

  std::vector<size_t> dracoFrames;
  const size_t count = std::min(seq.dracoFrames, inter.size());
  for (size_t k = 0; k < count; ++k) dracoFrames.push_back(inter[k * inter.size() / count]);
  DracoSide draco(anim, dracoFrames, -1), smallest(anim, dracoFrames, 0);
  std::vector<MeshoptResult> sweep;
  if (!draco.Prepare(error) || !smallest.Prepare(error) || !MeshoptSweep(anim, inter, &sweep, error)) return false;

  const std::string vertices = Thousands(static_cast<double>(anim.VertexCount()));
  for (Row& r : rows) {
    const double target = r.ours.MaxError();
    if (!draco.Search(target, &r.draco, error)) return false;
    if (!r.draco.met) return (*error = std::string("Draco does not reach ") + r.ours.name + "'s error", false);
    r.meshopt = MeshoptFor(sweep, target);
    const double ours = r.ours.MeanBytes();
    std::string name = r.ours.name;
    if (&r - rows.data() == static_cast<ptrdiff_t>(bestSingle)) name += " (best single)";
    if (&r == &best) {
      std::string picks;
      for (const auto& [coding, frames] : chosen) picks += (picks.empty() ? "" : ", ") + coding + " " + std::to_string(frames);
      name += " (" + picks + ")";
    }
    tables->sizes.push_back(
        "| " + (&r == rows.data() ? std::string(seq.name) + " (" + vertices + " v)" : std::string()) + " | " + name +
        " | " + Thousands(ours) + " | " + Micro(target) + " | " + Micro(r.ours.step) + " | " +
        std::to_string(r.draco.options.positionBits) + " | " + Micro(r.draco.error) + " | " +
        Thousands(r.draco.fullBytes) + " | " + Thousands(r.draco.positionBytes) + " | " +
        Fixed(r.draco.fullBytes / ours, 2) + "x | " + Fixed(r.draco.positionBytes / ours, 2) + "x | " +
        std::to_string(r.meshopt.bits) + (r.meshopt.met ? "" : " (not reached)") + " | " + Micro(r.meshopt.error) +
        " | " + Thousands(r.meshopt.bytes) + " | " + Fixed(r.meshopt.bytes / ours, 2) + "x |");
  }

  // The best per frame against Draco's other settings at the same error: the step matched to ours
  // instead of a power of two, and the smallest (slowest) speed setting.
  const double target = best.ours.MaxError(), ours = best.ours.MeanBytes();
  struct Variant {
    const char* name;
    DracoResult result;
  };
  Variant variants[] = {{"default speed, bits searched", best.draco},
                        {"default speed, step matched", {}},
                        {"speed 0, bits searched", {}},
                        {"speed 0, step matched", {}}};
  if (!draco.MatchStep(target, best.draco.options.positionBits, &variants[1].result, error) ||
      !smallest.Search(target, &variants[2].result, error) ||
      !smallest.MatchStep(target, variants[2].result.options.positionBits, &variants[3].result, error)) {
    return false;
  }
  double leastFull = best.draco.fullBytes, leastPositions = best.draco.positionBytes;
  for (const Variant& v : variants) {
    if (!v.result.met) return (*error = std::string("Draco (") + v.name + ") does not reach our error", false);
    leastFull = std::min(leastFull, v.result.fullBytes);
    leastPositions = std::min(leastPositions, v.result.positionBytes);
    tables->draco.push_back("| " + std::string(&v == variants ? seq.name : "") + " | " + v.name + " | " +
                            DracoGrid(v.result) + " | " + Micro(v.result.error) + " | " +
                            Thousands(v.result.fullBytes) + " | " + Thousands(v.result.positionBytes) + " | " +
                            Fixed(v.result.fullBytes / ours, 2) + "x | " + Fixed(v.result.positionBytes / ours, 2) +
                            "x |");
  }
  const double ratio = best.draco.fullBytes / ours;
  tables->goals.push_back("| " + std::string(seq.name) + " | " + Thousands(ours) + " | " + Fixed(ratio, 2) + "x | " +
                          Fixed(best.draco.positionBytes / ours, 2) + "x | " + Fixed(leastFull / ours, 2) + "x / " +
                          Fixed(leastPositions / ours, 2) + "x | " +
                          (ratio >= kGoalRatio ? "met" : "**missed** (" + Fixed(kGoalRatio / ratio, 2) + "x short)") +
                          " |");
  std::fprintf(stderr, "%s: %zu inter frames (Draco: %zu); Draco connectivity bound %zu bytes (speed 0: %zu)\n",
               seq.name, inter.size(), dracoFrames.size(), draco.ConnectivityBytes(), smallest.ConnectivityBytes());
  return true;
}

}  // namespace
}  // namespace OzmBench

int main(int argc, char** argv) {
  std::string only;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--sequence=", 11) == 0) {
      only = argv[i] + 11;
    } else {
      std::fprintf(stderr, "usage: %s [--sequence=bunny-anim|loop2-anim|loop3-anim]\n", argv[0]);
      return 2;
    }
  }
  const auto start = std::chrono::steady_clock::now();
  OzmBench::Tables tables;
  for (const OzmBench::SequenceCase& seq : OzmBench::kAnimations) {
    if (!only.empty() && only != seq.name) continue;
    std::string error;
    if (!OzmBench::RunSequence(seq, &tables, &error)) {
      std::fprintf(stderr, "ozm_bench_sizes: %s: %s\n", seq.name, error.c_str());
      return 1;
    }
  }
  std::printf(
      "Bytes per inter frame; errors in millionths of a unit, largest on any axis (ours and meshopt over every "
      "inter frame, Draco over its frames). Draco at its default speed.\n\n"
      "| sequence | ours | bytes | error | step | Draco bits | Draco error | Draco full frame | Draco positions only "
      "| Draco full / ours | Draco positions / ours | meshopt bits | meshopt error | meshopt bytes | meshopt / ours |\n"
      "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const std::string& l : tables.sizes) std::printf("%s\n", l.c_str());
  std::printf(
      "\nDraco's settings against our best per frame, at its error:\n\n"
      "| sequence | Draco | grid | error | full frame | positions only | full / ours | positions / ours |\n"
      "|---|---|---|---|---|---|---|---|\n");
  for (const std::string& l : tables.draco) std::printf("%s\n", l.c_str());
  std::printf(
      "\n| sequence | our best per frame | Draco full / ours | Draco positions only / ours "
      "| smallest Draco setting: full / positions | goal >= 3x (full frame, default speed) |\n"
      "|---|---|---|---|---|---|\n");
  for (const std::string& l : tables.goals) std::printf("%s\n", l.c_str());
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fprintf(stderr, "ozm_bench_sizes: %.1f s\n", seconds);
  return 0;
}
