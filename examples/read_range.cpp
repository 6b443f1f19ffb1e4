// A range of a file through the cache: the least that a program needs.
//
//     read_range FILE OFFSET LENGTH

#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

#include "files/file.h"
#include "runtime/runtime.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: read_range FILE OFFSET LENGTH\n");
    return 2;
  }
  const std::string name = argv[1];
  std::vector<char> bytes(std::strtoul(argv[3], nullptr, 10));

  vesk::Settings settings;  // a server reads them from its own configuration
  settings.store = "auto,retry";
  vesk::VeskRuntime runtime(settings);

  vesk::FileInfo info;
  int error = runtime.store().Stat(name, &info);
  std::size_t count = 0;
  if (error == 0) {
    vesk::File file(runtime.services(), name, info.size, vesk::CacheShape{});
    error = file.ReadAt(bytes.data(), bytes.size(), std::strtoul(argv[2], nullptr, 10), &count);
  }
  if (error != 0) {
    const std::string reason = std::generic_category().message(error);
    std::fprintf(stderr, "read_range: %s: %s\n", name.c_str(), reason.c_str());
    return 1;
  }
  std::fwrite(bytes.data(), 1, count, stdout);
  return 0;
}
