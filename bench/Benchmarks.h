// Registration of the benchmark families, with the comparisons and goals that go with them.
#pragma once

namespace OzmBench {

void RegisterKeyFrameBenchmarks();
void RegisterInterFrameBenchmarks();

}  // namespace OzmBench
