// Runs a fuzz target on the files of the folders that are named as arguments, with any compiler.
// Fails when there is none.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::size_t files = 0;
  for (int i = 1; i < argc; i++) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (entry.is_regular_file()) {
        std::printf("%s\n", entry.path().c_str());
        std::fflush(stdout);
        std::ifstream stream(entry.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
        const std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
        LLVMFuzzerTestOneInput(data.data(), data.size());
        files++;
      }
    }
  }
  std::printf("%zu files\n", files);
  return files > 0 ? 0 : 1;
}
