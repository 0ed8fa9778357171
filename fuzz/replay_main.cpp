// Replays inputs through a fuzz target's entry function without libFuzzer: every file named on
// the command line, and every file in every folder named, in name order. Saved inputs (the seed
// corpus, and any crash found and kept beside it) thus run as ordinary tests. A failed check
// aborts the run; the input being replayed is named first.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const fs::path arg(argv[i]);
    if (fs::is_directory(arg)) {
      for (const auto& entry : fs::directory_iterator(arg)) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else {
      inputs.push_back(arg);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  if (inputs.empty()) {
    std::fprintf(stderr, "%s: no inputs to replay\n", argv[0]);
    return 2;
  }
  for (const fs::path& path : inputs) {
    std::fprintf(stderr, "replaying %s\n", path.c_str());
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "%s: cannot read %s\n", argv[0], path.c_str());
      return 2;
    }
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("%zu inputs replayed\n", inputs.size());
  return 0;
}
