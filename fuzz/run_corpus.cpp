// Gives a fuzz target every file that is named, and every file of the directories that are, once:
// for builds without a fuzzer.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "fuzz/fuzz.h"

namespace {

// False: the file could not be read.
bool Run(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  std::fprintf(stderr, "%s\n", path.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code none;
    if (!std::filesystem::is_directory(argv[i], none)) {
      files.emplace_back(argv[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      files.push_back(entry.path());
    }
  }
  for (const std::filesystem::path& file : files) {
    if (Run(file)) continue;
    std::fprintf(stderr, "cannot read '%s'\nusage: %s FILE-OR-DIRECTORY...\n", file.c_str(),
                 argv[0]);
    return 2;
  }
  std::printf("%zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
