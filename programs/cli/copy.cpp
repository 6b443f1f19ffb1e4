#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "programs/cli/commands.h"

namespace vesk_cli {

namespace {

int Interrupted(const World& world) {
  World::Fail("copy to", world.options().destination, std::string("Interrupted"));
  return 128 + world.interrupted_by();
}

// Why the copy cannot go on: a signal; a failing write-back that will not pass, for which every
// request was called off; or `error`, which `what` met.
int CannotGoOn(const World& world, const vesk::File& to, const std::string& what,
               const std::string& name, const vesk::File& file, int error) {
  if (world.interrupted_by() != 0) return Interrupted(world);
  if (error == ECANCELED && to.LastWriteFailure() != 0) {
    return World::Fail("write", world.options().destination, to.LastWriteFailure());
  }
  return World::Fail(what, name, file, error);
}

// The name behind symbolic links, so that a link stays one when its target is replaced.
std::string Resolved(const std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> path(realpath(name.c_str(), nullptr), std::free);
  return path == nullptr ? name : path.get();
}

// Checks the destination and chooses the permissions of the copy: an existing file keeps its own.
int CheckDestination(World& world, const vesk::FileInfo& source, mode_t* permissions) {
  const std::string& name = world.options().destination;
  vesk::FileInfo info;
  const int error = world.store().Stat(name, &info);
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
  if (const int denied = world.store().Open(name, vesk::Access::kWrite)) {
    return World::Fail("write", name, denied);
  }
  *permissions = info.mode & 07777;
  return kExitOk;
}

// The unfinished copy: a file beside the destination, removed unless it took its name.
class PartialFile {
 public:
  PartialFile(World& world, const std::string& destination)
      : world_(world), store_(world.store()), destination_(destination) {}
  ~PartialFile() {
    if (!exists_) return;
    const vesk::RequestScope scope(world_.LeavingLimits());
    const int error = store_.Remove(name_);
    if (error != 0 && error != ENOENT) World::Fail("remove", name_, error);
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
      error = store_.Create(name_, permissions);
    }
    exists_ = error == 0;
    return error;
  }

  // Gives it its length, for a file may end in a hole, makes it durable, and then the destination.
  int Finish(std::uint64_t size) {
    if (const int error = store_.Truncate(name_, size)) return error;
    if (const int error = store_.Sync(name_)) return error;
    const int error = store_.Rename(name_, destination_);
    if (error == 0) exists_ = false;
    return error;
  }

 private:
  static constexpr int kAttempts = 100;

  World& world_;
  vesk::Store& store_;
  const std::string destination_;
  std::string name_;
  bool exists_ = false;
};

// Moves the source's data; holes are passed over.
int CopyData(World& world, vesk::File& from, vesk::File& to, std::uint64_t size) {
  const Options& options = world.options();
  std::vector<unsigned char> chunk(ChunkSize(world.shape()));
  vesk::Extent extent;
  for (std::uint64_t offset = 0; offset < size;) {
    const vesk::RequestScope scope(world.NewLimits());
    if (world.interrupted_by() != 0) return Interrupted(world);
    if (offset >= extent.end) {
      const int error = world.store().NextData(options.source, offset, &extent);
      if (error != 0) return CannotGoOn(world, to, "read", options.source, from, error);
      if (extent.begin >= extent.end) return kExitOk;  // a hole to the end
      offset = extent.begin;
    }
    const std::size_t wanted =
        std::min<std::uint64_t>(chunk.size(), std::min(extent.end, size) - offset);
    std::size_t count = 0;
    if (const int error = from.ReadAt(chunk.data(), wanted, offset, &count)) {
      return CannotGoOn(world, to, "read", options.source, from, error);
    }
    if (count < wanted) {
      return World::Fail("read", options.source,
                         std::string("The file became shorter while it was copied"));
    }
    if (const int error = to.WriteAt(chunk.data(), count, offset)) {
      return CannotGoOn(world, to, "write", options.destination, to, error);
    }
    offset += count;
  }
  return kExitOk;
}

// Checks both names and makes the unfinished copy.
int Prepare(World& world, vesk::FileInfo* source, PartialFile* partial) {
  mode_t permissions = 0;
  {
    const vesk::RequestScope scope(world.NewLimits());
    if (const int status = world.CheckSource(world.options().source, source)) return status;
    if (const int status = CheckDestination(world, *source, &permissions)) return status;
  }
  // Not called off by a signal: the file might come into being after it was removed.
  const vesk::RequestScope scope(world.LeavingLimits());
  const int error = partial->Create(permissions);
  return error == 0 ? kExitOk : World::Fail("create", world.options().destination, error);
}

// A failure that may pass is waited out, said once; any other ends the copy.
void Judge(World& world, const vesk::WriteFailure& failure) {
  if (!failure.transient || failure.given_up) {
    world.CallOff();
    return;
  }
  static std::atomic<bool> said{false};
  if (said.exchange(true)) return;
  std::fprintf(stderr, "vesk: writing '%s' fails now and is tried again: %s\n",
               world.options().destination.c_str(),
               std::generic_category().message(failure.error).c_str());
}

// Moves all bytes and completes the copy; or gives up what is not written yet, since the unfinished
// file is to be removed.
int CopyWhole(World& world, vesk::File& from, vesk::File& to, std::uint64_t size,
              PartialFile* partial) {
  const std::string& destination = world.options().destination;
  int status = CopyData(world, from, to, size);
  if (status == kExitOk) {
    const vesk::RequestScope scope(world.NewLimits());
    if (const int error = to.Close()) {
      status = CannotGoOn(world, to, "write", destination, to, error);
    } else if (world.interrupted_by() != 0) {
      status = Interrupted(world);
    } else if (const int failed = partial->Finish(size)) {
      status = CannotGoOn(world, to, "complete", destination, to, failed);
    }
  }
  if (status != kExitOk) to.Discard();
  return status;
}

}  // namespace

int Copy(World& world) {
  const Options& options = world.options();
  PartialFile partial(world, Resolved(options.destination));
  vesk::FileInfo source;
  if (const int status = Prepare(world, &source, &partial)) {
    return world.interrupted_by() != 0 ? 128 + world.interrupted_by() : status;
  }
  const vesk::Services services = world.runtime().services();
  auto from = std::make_unique<vesk::File>(services, options.source, source.size, world.shape());
  auto to = std::make_unique<vesk::File>(services, partial.name(), 0, world.shape());
  to->OnWriteFailure([&world](const vesk::WriteFailure& failure) { Judge(world, failure); });
  const int status = CopyWhole(world, *from, *to, source.size, &partial);
  if (status == kExitOk && options.stats) {
    world.Report("Copied", source.size, from.get(), to.get());
  }
  const vesk::RequestScope scope(world.LeavingLimits());
  from.reset();
  to.reset();
  return status;
}

}  // namespace vesk_cli
