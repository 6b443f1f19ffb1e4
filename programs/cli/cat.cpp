#include <unistd.h>

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

// Moves the file to standard output; `*offset` counts the bytes.
int CatWhole(World& world, vesk::FileHandle& file, const vesk::FileInfo& info,
             std::uint64_t* offset) {
  const std::string& name = world.options().source;
  const std::uint64_t size = file.Size();
  std::vector<unsigned char> chunk(kChunkSize);
  for (;;) {
    const vesk::RequestScope scope(world.NewLimits());
    std::size_t count = 0;
    const vesk::Status status = file.ReadAt(chunk.data(), chunk.size(), *offset, &count);
    if (const int failed = WriteAll(STDOUT_FILENO, chunk.data(), count)) {
      return world.Fail("write to", "standard output", failed);
    }
    *offset += count;
    if (!status.ok()) return world.Fail("read", name, file, status);
    if (count == 0) break;
  }
  if (*offset < size) {
    return world.Fail("read", name, std::string("The file became shorter while it was read"));
  }
  const vesk::RequestScope scope(world.NewLimits());
  return world.CheckSource(info, "what was written is not to be relied on");
}

}  // namespace

int Cat(World& world) {
  std::unique_ptr<vesk::FileHandle> file;
  vesk::FileInfo info;
  {
    const vesk::RequestScope scope(world.NewLimits());
    if (const int status = world.OpenSource("read", &file, &info)) return status;
  }
  file->Advise(vesk::Advice::kSequential);
  Moved moved;
  const int status = CatWhole(world, *file, info, &moved.done);
  if (status == kExitOk && world.options().stats) {
    moved.data = moved.done;
    world.status_line().Print(Summary("Read", moved, world.Elapsed()));
    world.Report(file->GetStats(), nullptr);
  }
  const vesk::RequestScope scope(world.LeavingLimits());
  file.reset();
  return status;
}

}  // namespace vesk_cli
