// Registration of the benchmark families, with the comparisons and goals that go with them.
#pragma once

namespace OzmBench {

void RegisterKeyFrameBenchmarks();
void RegisterInterFrameBenchmarks();
// Playback through the plug-in; registered only when --benchmark_filter names "Playback".
void RegisterPlaybackBenchmarks();
// HLS streams over the loopback interface; registered with the playback benchmarks.
void RegisterHlsBenchmarks();

// The child process of the playback memory benchmarks: plays the clip given with
// --playback-child=PATH (a file, or a stream's URL) and prints its peak memory. Returns the exit
// code, or -1 without the flag.
int PlaybackChild(int argc, char** argv);

}  // namespace OzmBench
