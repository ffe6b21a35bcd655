// A main for the fuzz targets when they are built without libFuzzer (with g++, for instance): runs
// every file named on the command line, and every file under every directory named, through
// LLVMFuzzerTestOneInput once, in name order. The seed corpora run this way as ordinary tests, and
// an input a fuzzing run kept can be replayed under a debugger.

#include <algorithm>
#include <cstddef>
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
    const fs::path path(argv[i]);
    if (fs::is_directory(path)) {
      for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else if (fs::is_regular_file(path)) {
      inputs.push_back(path);
    } else {
      std::fprintf(stderr, "%s: no such file or directory\n", argv[i]);
      return 2;
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY... (no inputs found)\n", argv[0]);
    return 2;
  }
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof()) {
      std::fprintf(stderr, "%s: cannot read\n", input.c_str());
      return 2;
    }
    // The engine hands over a buffer of exactly the input's size; so does this main, so that
    // AddressSanitizer sees a read past the end.
    std::vector<uint8_t> buffer(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(buffer.data(), buffer.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
