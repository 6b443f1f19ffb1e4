#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "programs/cli/commands.h"

namespace vesk_cli {

namespace {

using vesk::VeskBackend;

volatile sig_atomic_t interrupted_by = 0;

extern "C" void Interrupt(int signal_number) { interrupted_by = signal_number; }

// SIGINT, SIGTERM and SIGHUP stop the copy between two chunks, so that its half can be removed.
void CatchSignals() {
  struct sigaction action = {};
  action.sa_handler = Interrupt;
  for (const int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
    sigaction(signal_number, &action, nullptr);
  }
}

int Interrupted(const std::string& name) {
  World::Fail("copy to", name, std::string("Interrupted"));
  return 128 + interrupted_by;
}

// The name behind symbolic links, so that a link stays one when its target is replaced.
std::string Resolved(const std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> path(realpath(name.c_str(), nullptr), std::free);
  return path == nullptr ? name : path.get();
}

// Checks the destination and chooses the permissions of the copy: an existing file keeps its own.
int CheckDestination(World& world, const VeskBackend::FileInfo& source, mode_t* permissions) {
  const std::string& name = world.options().destination;
  VeskBackend::FileInfo info;
  const int error = world.backend().Stat(name, &info);
  if (error == ENOENT) {
    const mode_t mask = umask(0);
    umask(mask);
    *permissions = source.mode & 0777 & ~mask;
    return kExitOk;
  }
  if (error != 0) return World::Fail("write", name, error);
  if (S_ISDIR(info.mode)) return World::Fail("write", name, EISDIR);
  if (!S_ISREG(info.mode)) return World::Fail("write", name, std::string("Not a regular file"));
  if (info.device == source.device && info.inode == source.inode) {
    return World::Fail("write", name, std::string("It is the same file as the source"));
  }
  if (const int denied = world.backend().Open(name, VeskBackend::Access::kWrite)) {
    return World::Fail("write", name, denied);
  }
  *permissions = info.mode & 07777;
  return kExitOk;
}

// The unfinished copy: a file beside the destination, removed unless it took its name.
class PartialFile {
 public:
  PartialFile(VeskBackend& backend, const std::string& destination)
      : backend_(backend), destination_(destination) {}
  ~PartialFile() {
    if (exists_) backend_.Remove(name_);
  }
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;

  const std::string& name() const { return name_; }

  int Create(mode_t permissions) {
    const std::string directory = destination_.substr(0, destination_.rfind('/') + 1);
    int error = EEXIST;
    // A name that is taken may be another machine's copy into the same directory: left alone.
    for (int attempt = 0; error == EEXIST && attempt < kAttempts; ++attempt) {
      name_ = directory + ".vesk-cp-" + std::to_string(getpid()) + "-" + std::to_string(attempt) +
              ".partial";
      error = backend_.Create(name_, permissions);
    }
    exists_ = error == 0;
    return error;
  }

  // Gives it its length, for a file may end in a hole, makes it durable, and then the destination.
  int Finish(std::uint64_t size) {
    if (const int error = backend_.Truncate(name_, size)) return error;
    if (const int error = backend_.Sync(name_)) return error;
    const int error = backend_.Rename(name_, destination_);
    if (error == 0) exists_ = false;
    return error;
  }

 private:
  static constexpr int kAttempts = 100;

  VeskBackend& backend_;
  const std::string destination_;
  std::string name_;
  bool exists_ = false;
};

// Moves the source's data; holes are passed over.
int CopyData(World& world, vesk::File& from, vesk::File& to, std::uint64_t size) {
  const Options& options = world.options();
  std::vector<unsigned char> chunk(ChunkSize(options.shape));
  VeskBackend::Extent extent;
  for (std::uint64_t offset = 0; offset < size;) {
    if (interrupted_by != 0) return Interrupted(options.destination);
    if (offset >= extent.end) {
      const int error = world.backend().NextData(options.source, offset, &extent);
      if (error != 0) return World::Fail("read", options.source, error);
      if (extent.begin >= extent.end) return kExitOk;  // a hole to the end
      offset = extent.begin;
    }
    const std::size_t wanted =
        std::min<std::uint64_t>(chunk.size(), std::min(extent.end, size) - offset);
    std::size_t count = 0;
    if (const int error = from.ReadAt(chunk.data(), wanted, offset, &count)) {
      return World::Fail("read", options.source, from, error);
    }
    if (count < wanted) {
      return World::Fail("read", options.source,
                         std::string("The file became shorter while it was copied"));
    }
    if (const int error = to.WriteAt(chunk.data(), count, offset)) {
      return World::Fail("write", options.destination, to, error);
    }
    offset += count;
  }
  return kExitOk;
}

}  // namespace

int Copy(World& world) {
  const Options& options = world.options();
  VeskBackend::FileInfo source;
  if (const int status = world.CheckSource(options.source, &source)) return status;
  mode_t permissions = 0;
  if (const int status = CheckDestination(world, source, &permissions)) return status;

  CatchSignals();
  PartialFile partial(world.backend(), Resolved(options.destination));
  if (const int error = partial.Create(permissions)) {
    return World::Fail("create", options.destination, error);
  }
  vesk::File from(world.bundler(), options.source, source.size, options.shape);
  vesk::File to(world.bundler(), partial.name(), 0, options.shape);
  if (const int status = CopyData(world, from, to, source.size)) return status;
  if (const int error = to.Close()) return World::Fail("write", options.destination, to, error);
  if (interrupted_by != 0) return Interrupted(options.destination);
  if (const int error = partial.Finish(source.size)) {
    return World::Fail("complete", options.destination, error);
  }
  if (options.stats) world.Report("Copied", source.size, &from, &to);
  return kExitOk;
}

}  // namespace vesk_cli
