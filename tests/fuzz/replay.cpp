// Replays the cases of a fuzzer, given as folders, outside its preset.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "tests/fuzz/fuzz.h"

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& file : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!file.is_regular_file()) {
        continue;
      }
      std::cout << file.path().filename().string()
                << std::endl;  // the last one said is the culprit
      std::ifstream stream(file.path(), std::ios::binary);
      const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::cout << count << " cases replayed\n";
  return count > 0 ? 0 : 1;
}
