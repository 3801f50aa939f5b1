// Runs a fuzz target on the files of the folders that are given: every input that was ever worth keeping, as a plain
// test.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      std::printf("%s\n", entry.path().c_str());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count == 0;
}
