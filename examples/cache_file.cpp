// A file through the cache, the least that a program needs: adds a line to it and shows all of it.
//
//     cache_file FILE LINE

#include <cstdio>
#include <vector>

#include "files/file_system.h"
#include "runtime/runtime.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: cache_file FILE LINE\n", stderr);
    return 2;
  }
  const std::string line = std::string(argv[2]) + "\n";

  vesk::Settings settings;        // a server reads them from its own configuration
  settings.store = "auto,retry";  // what the disk cannot take now is kept and tried again
  settings.request_timeout_ms = 5000;
  vesk::VeskRuntime runtime(settings);
  const vesk::RequestScope limits(runtime.NewLimits());  // all that follows ends by then
  vesk::FileSystem files(runtime.services(), runtime.store(), vesk::OptionsFrom(settings));

  vesk::OpenOptions options;
  options.write = options.create = true;
  std::unique_ptr<vesk::FileHandle> file;
  vesk::Status status = files.Open(argv[1], options, &file);
  if (status.ok()) status = file->Append(line.data(), line.size());  // every reader sees it now
  if (status.ok()) status = file->Sync();  // and it survives a crash of the machine
  if (status.ok()) {
    std::vector<char> bytes(file->Size());
    std::size_t count = 0;
    status = file->ReadAt(bytes.data(), bytes.size(), 0, &count);
    std::fwrite(bytes.data(), 1, count, stdout);
    const auto fetched = static_cast<unsigned long long>(file->GetStats().fetched);
    std::printf("%zu bytes, %llu of them from the store\n", count, fetched);
  }
  if (status.ok()) status = file->Close();  // a destructor could not tell that it failed
  if (!status.ok()) {
    std::fprintf(stderr, "cache_file: %s\n", status.Message().c_str());
    return 1;
  }
  if (std::fflush(stdout) == 0) return 0;
  std::perror("cache_file: standard output");
  return 1;
}
