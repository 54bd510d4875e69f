// Driver for the fuzz targets when libFuzzer is not available (gcc builds): replays every file of
// the corpus folders given on the command line, then runs -runs=N deterministic mutations of them
// (bit flips, byte changes, cuts, insertions and splices). It keeps the targets building and
// exercised by the ordinary test run; real fuzzing uses the fuzz preset.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Input = std::vector<uint8_t>;

void LoadFile(const std::filesystem::path& path, std::vector<Input>& corpus) {
  std::ifstream file(path, std::ios::binary);
  corpus.emplace_back((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

Input Mutate(const std::vector<Input>& corpus, std::mt19937& rng) {
  Input input = corpus[rng() % corpus.size()];
  const int steps = 1 + static_cast<int>(rng() % 4);
  for (int s = 0; s < steps; ++s) {
    const size_t n = input.size();
    switch (rng() % 6) {
      case 0:
        if (n) input[rng() % n] ^= static_cast<uint8_t>(1u << (rng() % 8));
        break;
      case 1:
        if (n) input[rng() % n] = static_cast<uint8_t>(rng() % 5 == 0 ? rng() % 4 : rng());
        break;
      case 2:
        if (n) input.resize(rng() % n);
        break;
      case 3:
        input.insert(input.begin() + static_cast<long>(n ? rng() % (n + 1) : 0), 1 + rng() % 8,
                     static_cast<uint8_t>(rng() % 3 == 0 ? 0 : rng()));
        break;
      case 4:
        if (n > 1) {  // erase a range
          const size_t at = rng() % n;
          input.erase(input.begin() + static_cast<long>(at),
                      input.begin() + static_cast<long>(std::min(n, at + 1 + rng() % 16)));
        }
        break;
      default: {  // splice the head of another input
        const Input& other = corpus[rng() % corpus.size()];
        const size_t cut = other.empty() ? 0 : rng() % other.size();
        input.insert(input.end(), other.begin(), other.begin() + static_cast<long>(cut));
        break;
      }
    }
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  long runs = 0;
  std::vector<Input> corpus;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("-runs=", 0) == 0) {
      runs = std::strtol(arg.c_str() + 6, nullptr, 10);
    } else if (arg[0] == '-') {
      continue;  // other libFuzzer options mean nothing here
    } else if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg)) {
        if (entry.is_regular_file()) LoadFile(entry.path(), corpus);
      }
    } else if (std::filesystem::is_regular_file(arg)) {
      LoadFile(arg, corpus);
    }
  }
  if (corpus.empty()) corpus.emplace_back();
  for (const Input& input : corpus) LLVMFuzzerTestOneInput(input.data(), input.size());
  std::mt19937 rng(12345);
  for (long r = 0; r < runs; ++r) {
    const Input input = Mutate(corpus, rng);
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  std::printf("replayed %zu corpus inputs and %ld mutations\n", corpus.size(), runs);
  return 0;
}
