#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
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

// Moves the file to standard output.
int CatWhole(World& world, vesk::File& file, std::uint64_t size) {
  const std::string& name = world.options().source;
  std::vector<unsigned char> chunk(
      std::min<std::uint64_t>(ChunkSize(world.shape()), std::max<std::uint64_t>(size, 1)));
  for (std::uint64_t offset = 0; offset < size;) {
    const vesk::RequestScope scope(world.NewLimits());
    std::size_t count = 0;
    const int error = file.ReadAt(chunk.data(), chunk.size(), offset, &count);
    if (error != 0) return World::Fail("read", name, file, error);
    if (count == 0) {
      return World::Fail("read", name, std::string("The file became shorter while it was read"));
    }
    if (const int failed = WriteAll(STDOUT_FILENO, chunk.data(), count)) {
      return World::Fail("write to", "standard output", failed);
    }
    offset += count;
  }
  return kExitOk;
}

}  // namespace

int Cat(World& world) {
  const Options& options = world.options();
  vesk::FileInfo info;
  {
    const vesk::RequestScope scope(world.NewLimits());
    if (const int status = world.CheckSource(options.source, &info)) return status;
  }
  auto file = std::make_unique<vesk::File>(world.runtime().services(), options.source, info.size,
                                           world.shape());
  const int status = CatWhole(world, *file, info.size);
  if (status == kExitOk && options.stats) world.Report("Read", info.size, file.get(), nullptr);
  const vesk::RequestScope scope(world.LeavingLimits());
  file.reset();
  return status;
}

}  // namespace vesk_cli
