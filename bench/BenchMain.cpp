// ozm_bench: our mesh decoders against Draco and meshoptimizer on the same meshes, in one run, and
// playback through the plug-in against FFmpeg (only with --benchmark_filter=Playback).
//
//   ozm_bench [--results=FILE] [benchmark flags]
//
// Runs the benchmarks (all Google Benchmark flags apply, e.g. --benchmark_filter and
// --benchmark_out), then prints the comparisons and goals and, with --results, writes them as JSON.
// Unless told otherwise, each benchmark runs three times for at least 0.1 s (the fastest of the
// three counts), which keeps the whole run short and the figures steady on a busy machine.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "bench/Benchmarks.h"
#include "bench/Results.h"

int main(int argc, char** argv) {
  if (const int code = OzmBench::PlaybackChild(argc, argv); code >= 0) return code;
  std::string resultsPath;
  bool minTimeGiven = false, repetitionsGiven = false;
  // Colours only on a terminal, and never when --benchmark_color says no.
  bool color = isatty(STDOUT_FILENO) != 0;
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && std::strncmp(argv[i], "--results=", 10) == 0) {
      resultsPath = argv[i] + 10;
      continue;
    }
    if (std::strncmp(argv[i], "--benchmark_min_time", 20) == 0) minTimeGiven = true;
    if (std::strncmp(argv[i], "--benchmark_repetitions", 23) == 0) repetitionsGiven = true;
    if (std::strncmp(argv[i], "--benchmark_color=", 18) == 0) {
      const std::string value = argv[i] + 18;
      color = value == "true" || value == "yes" || value == "1" || (value == "auto" && color);
    }
    args.push_back(argv[i]);
  }
  static char defaultMinTime[] = "--benchmark_min_time=0.1";
  static char defaultRepetitions[] = "--benchmark_repetitions=3";
  if (!minTimeGiven) args.push_back(defaultMinTime);
  if (!repetitionsGiven) args.push_back(defaultRepetitions);
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);

  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  OzmBench::RegisterKeyFrameBenchmarks();
  OzmBench::RegisterInterFrameBenchmarks();
  OzmBench::RegisterPlaybackBenchmarks();
  OzmBench::RegisterHlsBenchmarks();

  OzmBench::Collector collector(color ? benchmark::ConsoleReporter::OO_ColorTabular
                                      : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&collector);
  benchmark::Shutdown();

  if (collector.Runs().empty()) return 0;  // nothing ran (a filter matched nothing, or --benchmark_list_tests)

  nlohmann::json results = OzmBench::Evaluate(collector.Runs(), collector.Machine());
  char date[32];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&now));
  results["date"] = date;
  OzmBench::PrintTables(results);
  if (!resultsPath.empty()) {
    std::ofstream out(resultsPath);
    out << results.dump(2) << "\n";
    if (!out) {
      std::fprintf(stderr, "ozm_bench: cannot write %s\n", resultsPath.c_str());
      return 1;
    }
    std::printf("results written to %s\n", resultsPath.c_str());
  }
  return 0;
}
