#include "bench/Results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

namespace OzmBench {
namespace {

std::vector<Comparison>& Comparisons() {
  static std::vector<Comparison> list;
  return list;
}

std::vector<GoalCheck>& Goals() {
  static std::vector<GoalCheck> goals;
  return goals;
}

std::string Duration(double ns) {
  char text[32];
  if (ns < 10e3) {
    std::snprintf(text, sizeof(text), "%.0f ns", ns);
  } else if (ns < 10e6) {
    std::snprintf(text, sizeof(text), "%.1f us", ns / 1e3);
  } else {
    std::snprintf(text, sizeof(text), "%.1f ms", ns / 1e6);
  }
  return text;
}

std::string Duration(const nlohmann::json& ns) { return ns.is_number() ? Duration(ns.get<double>()) : "-"; }

std::string Number(const nlohmann::json& value, int decimals) {
  if (!value.is_number()) return "-";
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", decimals, value.get<double>());
  return text;
}

}  // namespace

bool Collector::ReportContext(const Context& context) {
  const benchmark::CPUInfo& cpu = context.cpu_info;
  m_machine = {{"host", context.sys_info.name},
               {"cpus", cpu.num_cpus},
               {"mhz", std::round(cpu.cycles_per_second / 1e6)},
               {"frequency_scaling", cpu.scaling == benchmark::CPUInfo::ENABLED    ? "enabled"
                                     : cpu.scaling == benchmark::CPUInfo::DISABLED ? "disabled"
                                                                                   : "unknown"},
               {"load_average", cpu.load_avg}};
  return ConsoleReporter::ReportContext(context);
}

double Measured::MedianNsPerFrame() const {
  if (repetitionsCpuNs.empty()) return NsPerFrame();
  std::vector<double> sorted = repetitionsCpuNs;
  std::sort(sorted.begin(), sorted.end());
  const size_t k = sorted.size();
  const double median = k % 2 ? sorted[k / 2] : 0.5 * (sorted[k / 2 - 1] + sorted[k / 2]);
  return median / Counter("frames", 1);
}

void Collector::ReportRuns(const std::vector<Run>& runs) {
  std::vector<Run> shown;
  const Run* fastest = nullptr;
  for (const Run& run : runs) {
    if (run.error_occurred) shown.push_back(run);
    if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations <= 0) continue;
    const double iterations = static_cast<double>(run.iterations);
    const double cpuNs = run.cpu_accumulated_time / iterations * 1e9;
    if (!fastest || run.cpu_accumulated_time / iterations <
                        fastest->cpu_accumulated_time / static_cast<double>(fastest->iterations)) {
      fastest = &run;
    }
    Measured& m = m_runs[run.benchmark_name()];
    m.repetitionsCpuNs.push_back(cpuNs);
    if (m.repetitionsCpuNs.size() > 1 && cpuNs >= m.cpuNsPerIteration) continue;
    m.cpuNsPerIteration = cpuNs;
    m.realNsPerIteration = run.real_accumulated_time / iterations * 1e9;
    m.iterations = run.iterations;
    m.counters.clear();
    for (const auto& [key, counter] : run.counters) m.counters[key] = counter.value;
  }
  if (fastest) shown.push_back(*fastest);
  if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
}

void AddComparison(const Comparison& cmp) { Comparisons().push_back(cmp); }

void AddGoal(GoalCheck check) { Goals().push_back(std::move(check)); }

const Measured* Find(const MeasuredRuns& runs, const std::string& name) {
  const auto it = runs.find(name);
  return it == runs.end() ? nullptr : &it->second;
}

nlohmann::json Evaluate(const MeasuredRuns& runs, const nlohmann::json& machine) {
  nlohmann::json comparisons = nlohmann::json::array();
  for (const Comparison& cmp : Comparisons()) {
    const Measured* ours = Find(runs, cmp.oursBench);
    const Measured* peer = Find(runs, cmp.peerBench);
    if (!ours || !peer) continue;
    const double oursNs = ours->NsPerFrame(), peerNs = peer->NsPerFrame();
    const double ourBytes = ours->Counter(cmp.oursBytes), peerBytes = peer->Counter(cmp.peerBytes);
    const nlohmann::json none;
    const double oursMedian = ours->MedianNsPerFrame();
    comparisons.push_back(
        {{"name", cmp.name + ": " + cmp.ours + " vs " + cmp.peer},
         {"subject", cmp.name},
         {"ours", cmp.ours},
         {"ours_benchmark", cmp.oursBench},
         {"ours_ns", oursNs},
         {"peer", cmp.peer},
         {"peer_benchmark", cmp.peerBench},
         {"peer_ns", cmp.timed ? nlohmann::json(peerNs) : none},
         {"ours_ns_median", oursMedian},
         {"peer_ns_median", cmp.timed ? nlohmann::json(peer->MedianNsPerFrame()) : none},
         {"ratio", cmp.timed ? nlohmann::json(peerNs / oursNs) : none},
         {"our_bytes", ourBytes},
         {"peer_bytes", peerBytes},
         {"size_ratio", ourBytes > 0 ? nlohmann::json(peerBytes / ourBytes) : none},
         {"ours_items_per_second", ours->Counter("items_per_second")},
         {"peer_items_per_second", cmp.timed ? nlohmann::json(peer->Counter("items_per_second")) : none},
         {"vertices", ours->Counter("vertices")},
         {"triangles", ours->Counter("triangles")}});
  }
  nlohmann::json goals = nlohmann::json::array();
  for (const GoalCheck& check : Goals()) {
    if (std::optional<nlohmann::json> goal = check(runs)) goals.push_back(*goal);
  }
  nlohmann::json benchmarks = nlohmann::json::object();
  for (const auto& [name, m] : runs) {
    benchmarks[name] = {{"ns_per_frame", m.NsPerFrame()},
                        {"ns_per_frame_median", m.MedianNsPerFrame()},
                        {"repetitions", m.repetitionsCpuNs.size()},
                        {"counters", m.counters}};
  }
  return {{"machine", machine},
          {"timing",
           "CPU time of the benchmark thread; ours_ns and peer_ns are nanoseconds per decoded frame, from the "
           "fastest repetition (the *_median fields: the median repetition)"},
          {"ratio", "peer_ns / ours_ns: how many times faster our decoder is (below 1: slower)"},
          {"size_ratio", "peer_bytes / our_bytes: how many times smaller our coding is (below 1: larger)"},
          {"comparisons", comparisons},
          {"goals", goals},
          {"benchmarks", benchmarks}};
}

void PrintTables(const nlohmann::json& results) {
  std::printf("\n%-34s %-30s %10s  %-24s %10s %8s %10s %10s %8s\n", "comparison", "ours", "ours/frame", "peer",
              "peer/frame", "speed x", "our bytes", "peer bytes", "size x");
  for (const nlohmann::json& c : results["comparisons"]) {
    std::printf("%-34s %-30s %10s  %-24s %10s %8s %10s %10s %8s\n", c["subject"].get<std::string>().c_str(),
                c["ours"].get<std::string>().c_str(), Duration(c["ours_ns"]).c_str(),
                c["peer"].get<std::string>().c_str(), Duration(c["peer_ns"]).c_str(), Number(c["ratio"], 2).c_str(),
                Number(c["our_bytes"], 0).c_str(), Number(c["peer_bytes"], 0).c_str(),
                Number(c["size_ratio"], 2).c_str());
  }
  std::printf("\n%-52s %-34s %12s %12s  %s\n", "goal", "subject", "measured", "target", "result");
  int met = 0, missed = 0;
  for (const nlohmann::json& g : results["goals"]) {
    const bool ok = g["met"].get<bool>();
    (ok ? met : missed) += 1;
    const std::string unit = g.value("unit", "");
    std::printf("%-52s %-34s %12s %12s  %s\n", g["goal"].get<std::string>().c_str(),
                g["subject"].get<std::string>().c_str(), (Number(g["measured"], 2) + " " + unit).c_str(),
                g["target"].get<std::string>().c_str(), ok ? "met" : "MISSED");
  }
  std::printf("\ngoals: %d met, %d missed\n", met, missed);
}

}  // namespace OzmBench
