#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "programs/cli/commands.h"
#include "runtime/ticker.h"

namespace vesk_cli {

namespace {

int Interrupted(World& world) {
  return world.Fail("copy to", world.options().destination, std::string("Interrupted"));
}

// The name behind symbolic links, so that a link stays one when its target is replaced.
std::string Resolved(const std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> path(realpath(name.c_str(), nullptr), std::free);
  return path == nullptr ? name : path.get();
}

// Checks the destination and chooses the permissions of the copy: an existing file keeps its own,
// but for the bits that lend its owner's rights to whoever runs it: owner and contents are others.
int CheckDestination(World& world, const vesk::FileInfo& source, mode_t* permissions) {
  const std::string& name = world.options().destination;
  vesk::FileInfo info;
  const int error = world.store().Stat(name, &info);
  if (error == ENOENT) {
    if (name.empty() || name.back() == '/') return world.Fail("write", name, error);
    struct stat link = {};  // to take its name would leave what it was made for without the copy
    if (lstat(name.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
      return world.Fail("write", name, std::string("It is a link to a name that is not there"));
    }
    const mode_t mask = umask(0);
    umask(mask);
    *permissions = source.mode & 0777 & ~mask;
    return kExitOk;
  }
  if (error != 0) return world.Fail("write", name, error);
  if (S_ISDIR(info.mode)) return world.Fail("write", name, EISDIR);
  if (!S_ISREG(info.mode)) return world.Fail("write", name, std::string("Not a regular file"));
  if (info.device == source.device && info.inode == source.inode) {
    return world.Fail("write", name, std::string("It is the same file as the source"));
  }
  if (const int denied = world.store().Open(name, vesk::Access::kWrite)) {
    return world.Fail("write", name, denied);
  }
  *permissions = info.mode & 0777;
  return kExitOk;
}

// The unfinished copy: a file beside the destination, removed unless it took its name.
class PartialFile {
 public:
  PartialFile(World& world, const std::string& destination)
      : world_(world), destination_(destination) {}
  ~PartialFile() {
    const vesk::RequestScope scope(world_.LeavingLimits());
    if (creation_ != nullptr) SeeCreated();
    if (exists_) Remove();
    file_.reset();
  }
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;

  //   Before   Create has returned 0
  vesk::FileHandle& file() { return *file_; }

  // The owner can read and write it for now, whatever the permissions that it is to have. A file
  // that comes to be when the request has met its limits is removed in the end.
  int Create(mode_t permissions) {
    permissions_ = permissions;
    const std::string directory = destination_.substr(0, destination_.rfind('/') + 1);
    int error = EEXIST;
    // A name that is taken may be another machine's copy into the same directory: left alone.
    for (int attempt = 0; error == EEXIST && attempt < kAttempts; ++attempt) {
      name_ = directory + ".vesk-cp-" + std::to_string(getpid()) + "-" + std::to_string(attempt) +
              ".partial";
      creation_ = std::make_unique<OwnJob>(
          world_.runtime().bundler(),
          vesk::NewNameJob(vesk::OPCODE_CREATE, name_, {}, permissions | kForNow));
      error = creation_->Wait("Create");
    }
    if (error != 0) return error;
    creation_.reset();
    exists_ = true;
    vesk::OpenOptions options;
    options.write = true;
    return world_.files().Open(name_, options, &file_).error();
  }

  // What it is called until then.
  const std::string& name() const { return name_; }

  //   Before   the file is closed
  vesk::Status TakeDestination() {
    if ((permissions_ & kForNow) != kForNow) {
      const int error = world_.store().SetPermissions(name_, permissions_);
      if (error != 0) return {error, "permissions of '" + name_ + "'"};
    }
    if (const int error = world_.store().Stat(name_, &info_)) {
      return {error, "stat '" + name_ + "'"};
    }
    vesk::Status status = world_.files().Rename(name_, destination_);
    if (status.ok()) exists_ = false;
    return status;
  }

 private:
  static constexpr int kAttempts = 100;
  static constexpr mode_t kForNow = S_IRUSR | S_IWUSR;

  // Looks again whether there is a file to remove, after a failure.
  void SeeCreated() {
    const int error = creation_->Wait("Create");
    exists_ = error == 0;
    if (error == ETIMEDOUT) {
      world_.Say("the store may still create '" + name_ + "', which can be removed then");
    }
  }

  // Gives up what is not stored: it would go to a file that is not to stay. What is on its way may
  // arrive when it likes: nobody else will have that name. So the store is asked itself, which does
  // not wait for that.
  void Remove() {
    if (file_ != nullptr) file_->Discard();
    const int error = world_.store().Remove(name_);
    if (error != 0 && error != ENOENT) world_.Fail("remove", name_, error);
    if (error == ENOENT && HasDestination()) {
      world_.Say("the copy has the name '" + world_.options().destination +
                 "' already, which a crash of the machine may take back");
    }
  }

  // The name can be taken although taking it fails, at its last step or by a request that has met
  // its limits.
  bool HasDestination() {
    vesk::FileInfo there;
    return info_.inode != 0 && world_.store().Stat(destination_, &there) == 0 &&
           there.device == info_.device && there.inode == info_.inode;
  }

  World& world_;
  const std::string destination_;
  std::string name_;
  mode_t permissions_ = 0;
  vesk::FileInfo info_;  // once it is about to take the destination's name
  bool exists_ = false;
  std::unique_ptr<OwnJob> creation_;  // while it is not known to have succeeded
  std::unique_ptr<vesk::FileHandle> file_;
};

// Shows how far the copy is, several times a second, until it is destroyed. In a thread of its own,
// since a store may keep the copy waiting.
//   Threads  Advance from one thread at a time
class ProgressDisplay {
 public:
  ProgressDisplay(World& world, std::uint64_t total)
      : world_(world), progress_(total, world.runtime().clock().Now()) {
    if (!world.ShowsProgress()) return;
    ticker_ =
        std::make_unique<vesk::Ticker>(world.runtime().clock(), kInterval, [this] { Show(); });
  }
  ~ProgressDisplay() {
    ticker_.reset();
    world_.status_line().Show("");
  }
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  // The copy is at `done`, and `data` bytes more were moved.
  void Advance(std::uint64_t done, std::uint64_t data) {
    done_.store(done, std::memory_order_relaxed);
    data_.fetch_add(data, std::memory_order_relaxed);
  }

  Moved moved() const {
    Moved moved;
    moved.done = done_.load(std::memory_order_relaxed);
    moved.data = data_.load(std::memory_order_relaxed);
    return moved;
  }

 private:
  // Also the time before the first line: a copy that is done by then shows none.
  static constexpr vesk::Clock::Duration kInterval = std::chrono::milliseconds(250);

  void Show() {
    try {
      Moved now = moved();
      now.unsaved = world_.files().GetStats().dirty;
      const unsigned columns = TerminalColumns(STDERR_FILENO);
      world_.status_line().Show(progress_.Line(now, world_.runtime().clock().Now(), columns));
    } catch (const std::bad_alloc&) {  // the next one comes
    }
  }

  World& world_;
  Progress progress_;  // the ticker's
  std::atomic<std::uint64_t> done_{0};
  std::atomic<std::uint64_t> data_{0};
  std::unique_ptr<vesk::Ticker> ticker_;
};

// Requests to the unfinished copy, and what becomes of its write-backs: where the store tries them
// again, a failure that may pass is said once and waited out; any other calls the copy off.
class Writer {
 public:
  Writer(World& world, vesk::FileHandle& file) : world_(world), file_(file) {
    file.OnWriteFailure([this](const vesk::WriteFailure& failure) { Judge(failure); });
  }
  ~Writer() {
    file_.OnWriteFailure([](const vesk::WriteFailure& /*failure*/) {});
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // Why a write-back failed for good, for which everything was called off; 0: none has.
  int failed_for_good() const { return failed_for_good_; }

  // Bytes that would have to wait for a failing write-back wait until the store has taken that.
  vesk::Status WriteAt(const unsigned char* source, std::size_t length, std::uint64_t offset) {
    for (std::size_t done = 0;;) {
      std::size_t moved = 0;
      vesk::Status status = file_.WriteAt(source + done, length - done, offset + done, &moved);
      done += moved;
      if (status.ok() || !HeardMore(&heard_by_writes_)) return status;
      status = Sync();
      if (!status.ok()) return status;
    }
  }

  // Makes all of it durable, with this length, for the file may end in a hole.
  vesk::Status Finish(std::uint64_t size) {
    vesk::Status status = Sync();
    if (status.ok() && file_.Size() != size) {
      status = file_.Truncate(size);
      if (status.ok()) status = Sync();
    }
    if (status.ok()) stats_ = file_.GetStats();
    return status.ok() ? file_.Close() : status;
  }

  // As it was when all was stored.
  const vesk::FileStats& stats() const { return stats_; }

 private:
  //   Threads  any, with locks held
  void Judge(const vesk::WriteFailure& failure) {
    if (world_.runtime().retry() == nullptr || !failure.transient || failure.given_up) {
      failed_for_good_ = failure.error;
      world_.CallOff();
    } else if (heard_++ == 0) {
      world_.Say("writing '" + world_.options().destination + "' fails now and is tried again: " +
                 std::generic_category().message(failure.error));
    }
  }

  // A sync is told of each write-back that has failed, once, and otherwise waits for those that
  // fail: it is made again while that is what it was told. One that fails itself is not: bytes may
  // be lost that a second one would say nothing of.
  vesk::Status Sync() {
    for (;;) {
      vesk::Status status = file_.Sync();
      if (status.ok() || !HeardMore(&heard_by_syncs_)) return status;
    }
  }

  // True: write-backs have failed since requests of this kind last asked, and may pass; so that is
  // what the request was told. False as well when it has met its limits.
  bool HeardMore(unsigned* heard) {
    const unsigned before = std::exchange(*heard, heard_);
    return *heard != before && failed_for_good_ == 0 &&
           vesk::RequestScope::Exceeded(world_.runtime().clock()) == 0;
  }

  World& world_;
  vesk::FileHandle& file_;
  vesk::FileStats stats_;
  std::atomic<int> failed_for_good_{0};
  std::atomic<unsigned> heard_{0};  // failures that may pass
  unsigned heard_by_writes_ = 0;
  unsigned heard_by_syncs_ = 0;
};

// Why the copy cannot go on: a signal; a write-back that failed for good; or `status`, which a
// request to `file` met.
int CannotGoOn(World& world, const Writer& to, const std::string& what, const std::string& name,
               const vesk::FileHandle& file, const vesk::Status& status) {
  if (world.interrupted_by() != 0) return Interrupted(world);
  if (to.failed_for_good() != 0) {
    return world.Fail("write", world.options().destination, to.failed_for_good());
  }
  return world.Fail(what, name, file, status);
}

// Moves the source's data; holes are passed over.
int CopyData(World& world, vesk::FileHandle& from, vesk::FileHandle& to, Writer& writer,
             std::uint64_t size, ProgressDisplay& progress) {
  const Options& options = world.options();
  std::vector<unsigned char> chunk(kChunkSize);
  vesk::Extent extent;
  for (std::uint64_t offset = 0; offset < size;) {
    const vesk::RequestScope scope(world.NewLimits());
    if (world.interrupted_by() != 0) return Interrupted(world);
    if (offset >= extent.end) {
      const int error = world.store().NextData(options.source, offset, &extent);
      if (error != 0) {
        return CannotGoOn(world, writer, "read", options.source, from, {error, "next data"});
      }
      offset = extent.begin >= extent.end ? size : std::min(extent.begin, size);
      progress.Advance(offset, 0);
      continue;
    }
    const std::size_t wanted =
        std::min<std::uint64_t>(chunk.size(), std::min(extent.end, size) - offset);
    std::size_t count = 0;
    vesk::Status status = from.ReadAt(chunk.data(), wanted, offset, &count);
    if (!status.ok()) return CannotGoOn(world, writer, "read", options.source, from, status);
    if (count < wanted) {
      return world.Fail("read", options.source,
                        std::string("The file became shorter while it was copied"));
    }
    status = writer.WriteAt(chunk.data(), count, offset);
    if (!status.ok()) return CannotGoOn(world, writer, "write", options.destination, to, status);
    offset += count;
    progress.Advance(offset, count);
  }
  return kExitOk;
}

// Moves all bytes and completes the copy.
int CopyWhole(World& world, vesk::FileHandle& from, const vesk::FileInfo& source,
              PartialFile& partial) {
  const Options& options = world.options();
  const std::uint64_t size = from.Size();
  Writer writer(world, partial.file());
  const auto cannot = [&](const char* what, const vesk::Status& status) {
    return CannotGoOn(world, writer, what, options.destination, partial.file(), status);
  };
  Moved moved;
  {
    ProgressDisplay progress(world, size);
    if (const int status = CopyData(world, from, partial.file(), writer, size, progress)) {
      return status;
    }
    {
      const vesk::RequestScope scope(world.NewLimits());
      if (const vesk::Status status = writer.Finish(size); !status.ok()) {
        return cannot("write", status);
      }
    }
    if (world.interrupted_by() != 0) return Interrupted(world);
    const vesk::RequestScope scope(world.NewLimits());
    if (const int status = world.CheckSource(source, "nothing was replaced")) return status;
    if (const vesk::Status status = partial.TakeDestination(); !status.ok()) {
      return cannot("complete", status);
    }
    moved = progress.moved();
  }
  if (options.stats || world.ShowsProgress()) {
    world.status_line().Print(Summary("Copied", moved, world.Elapsed()));
  }
  if (options.stats) world.Report(from.GetStats(), &writer.stats());
  return kExitOk;
}

// Checks both names, opens the source and makes the unfinished copy.
int Prepare(World& world, std::unique_ptr<vesk::FileHandle>* from, vesk::FileInfo* source,
            PartialFile* partial) {
  const Options& options = world.options();
  mode_t permissions = 0;
  const vesk::RequestScope scope(world.NewLimits());
  if (const int status = world.OpenSource("read", from, source)) return status;
  if (const int status = CheckDestination(world, *source, &permissions)) return status;
  const int error = partial->Create(permissions);
  if (error == 0) return kExitOk;
  return world.Fail("create '" + partial->name() + "' beside", options.destination, error);
}

}  // namespace

int Copy(World& world) {
  std::unique_ptr<vesk::FileHandle> from;
  vesk::FileInfo source;
  int status = kExitOk;
  {
    PartialFile partial(world, Resolved(world.options().destination));
    status = Prepare(world, &from, &source, &partial);
    if (status == kExitOk) {
      from->Advise(vesk::Advice::kSequential);
      status = CopyWhole(world, *from, source, partial);
    }
    if (status != kExitOk && world.interrupted_by() != 0) status = 128 + world.interrupted_by();
  }
  const vesk::RequestScope scope(world.LeavingLimits());
  from.reset();
  return status;
}

}  // namespace vesk_cli
