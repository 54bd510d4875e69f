// Collects what the benchmarks measured and turns it into comparisons with the peers and into the
// goals, written as JSON and printed as a table.
//
// Every benchmark reports, besides its times, these counters (per decoded frame unless noted):
//   frames     frames decoded per iteration (1 for a key frame)
//   bytes      coded bytes of a frame
//   vertices   vertices of a frame; triangles where it matters
// All times are CPU time of the benchmark thread, which the other work on a shared machine
// disturbs least. A benchmark repeated several times counts with its fastest repetition, the one
// least disturbed; the median is kept alongside.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace OzmBench {

// One benchmark's result.
struct Measured {
  double cpuNsPerIteration = 0;  // of the fastest repetition
  double realNsPerIteration = 0;
  int64_t iterations = 0;
  std::vector<double> repetitionsCpuNs;    // every repetition, per iteration
  std::map<std::string, double> counters;  // as reported, rates already per second

  double Counter(const std::string& key, double fallback = 0) const {
    const auto it = counters.find(key);
    return it == counters.end() ? fallback : it->second;
  }
  // CPU nanoseconds per decoded frame.
  double NsPerFrame() const { return cpuNsPerIteration / Counter("frames", 1); }
  double MedianNsPerFrame() const;
};

using MeasuredRuns = std::map<std::string, Measured>;

// Keeps every run, and shows the console the fastest repetition of each benchmark (the complete
// record goes to --benchmark_out).
class Collector : public benchmark::ConsoleReporter {
 public:
  explicit Collector(OutputOptions options) : ConsoleReporter(options) {}
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  const MeasuredRuns& Runs() const { return m_runs; }
  const nlohmann::json& Machine() const { return m_machine; }

 private:
  MeasuredRuns m_runs;
  nlohmann::json m_machine;
};

// A comparison of one of our decoders with a peer on the same input and output: both benchmarks
// must have run for it to appear.
struct Comparison {
  std::string name;       // what is compared, e.g. "key frame / bunny"
  std::string ours;       // our decoder, e.g. "EdgeBreaker + plain vertices"
  std::string oursBench;  // benchmark names
  std::string peer;
  std::string peerBench;
  // The counters holding each side's coded size, and whether the times are compared at all (a
  // comparison of sizes only has no times).
  std::string oursBytes = "bytes";
  std::string peerBytes = "bytes";
  bool timed = true;
};
void AddComparison(const Comparison& cmp);

// A goal: evaluated after the run into {goal, subject, measured, target, unit, met, detail}, or
// nothing when the benchmarks it needs did not run.
using GoalCheck = std::function<std::optional<nlohmann::json>(const MeasuredRuns&)>;
void AddGoal(GoalCheck check);

// The comparisons and goals of a run, with the machine it ran on.
nlohmann::json Evaluate(const MeasuredRuns& runs, const nlohmann::json& machine);

// A readable rendering of Evaluate's result.
void PrintTables(const nlohmann::json& results);

// Looks a benchmark up; null when it did not run or failed.
const Measured* Find(const MeasuredRuns& runs, const std::string& name);

}  // namespace OzmBench
