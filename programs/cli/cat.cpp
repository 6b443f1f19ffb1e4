#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "programs/cli/commands.h"

namespace vesk_cli {

namespace {

int WriteAll(int fd, const unsigned char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t count = write(fd, bytes, length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    bytes += count;
    length -= static_cast<std::size_t>(count);
  }
  return 0;
}

}  // namespace

int Cat(World& world) {
  const Options& options = world.options();
  vesk::VeskBackend::FileInfo info;
  if (const int status = world.CheckSource(options.source, &info)) return status;

  vesk::File file(world.bundler(), options.source, info.size, options.shape);
  std::vector<unsigned char> chunk(
      std::min<std::uint64_t>(ChunkSize(options.shape), std::max<std::uint64_t>(info.size, 1)));
  std::uint64_t offset = 0;
  while (offset < info.size) {
    std::size_t count = 0;
    const int error = file.ReadAt(chunk.data(), chunk.size(), offset, &count);
    if (error != 0) return World::Fail("read", options.source, file, error);
    if (count == 0) {
      return World::Fail("read", options.source,
                         std::string("The file became shorter while it was read"));
    }
    if (const int failed = WriteAll(STDOUT_FILENO, chunk.data(), count)) {
      return World::Fail("write to", "standard output", failed);
    }
    offset += count;
  }
  if (options.stats) world.Report("Read", offset, &file, nullptr);
  return kExitOk;
}

}  // namespace vesk_cli
