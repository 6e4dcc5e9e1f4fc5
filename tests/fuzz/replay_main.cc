// Replays a fuzz corpus through a fuzz target, so that every finding stays a regression test.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  size_t runs = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(argv[i], ec)) {
      for (const auto& e : std::filesystem::recursive_directory_iterator(argv[i], ec))
        if (e.is_regular_file()) files.push_back(e.path());
    } else {
      files.emplace_back(argv[i]);
    }
    for (const auto& f : files) {
      std::ifstream in(f, std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                 std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++runs;
    }
  }
  std::printf("replayed %zu inputs\n", runs);
  return 0;
}
