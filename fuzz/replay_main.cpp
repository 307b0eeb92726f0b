// Runs a fuzz target once over every file of the directories that are its arguments.

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/FuzzTarget.h"

namespace {

void replay(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  try {
    for (int i = 1; i < argc; ++i) {
      for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
        replay(entry.path());
        ++count;
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  std::printf("%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
