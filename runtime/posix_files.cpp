#include "runtime/posix_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "vesk/VeskJob.h"

namespace vesk {

namespace {

// What O_DIRECT asks of offset, length and memory; file systems may ask for less, none for more.
constexpr std::size_t kDirectUnit = 4096;

// Calls until it is not interrupted by a signal.
template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// 0, or why the last system call failed; never 0 for a failure.
int ErrnoOf(long result) {
  if (result >= 0) return 0;
  return errno != 0 ? errno : EIO;
}

// Moves `length` bytes to `data`; `*done` of them when the file ends before.
int ReadAll(int fd, unsigned char* data, const Transfer& transfer, std::size_t* done) {
  while (*done < transfer.length) {
    const ssize_t count = Uninterrupted([&] {
      return pread(fd, data + *done, transfer.length - *done,
                   static_cast<off_t>(transfer.offset + *done));
    });
    if (count < 0) return ErrnoOf(count);
    if (count == 0) break;  // the file ends here: the count tells
    *done += static_cast<std::size_t>(count);
  }
  return 0;
}

int WriteAll(int fd, const unsigned char* data, const Transfer& transfer) {
  std::size_t done = 0;
  while (done < transfer.length) {
    const ssize_t count = Uninterrupted([&] {
      return pwrite(fd, data + done, transfer.length - done,
                    static_cast<off_t>(transfer.offset + done));
    });
    if (count < 0) return ErrnoOf(count);
    if (count == 0) return EIO;  // nothing written and no reason given: never report success
    done += static_cast<std::size_t>(count);
  }
  return 0;
}

// Memory that O_DIRECT takes; a block's own begins behind the allocator's header.
class DirectMemory {
 public:
  explicit DirectMemory(std::size_t length)
      : data_(static_cast<unsigned char*>(std::aligned_alloc(kDirectUnit, length))) {
    if (data_ == nullptr) throw std::bad_alloc();
  }
  ~DirectMemory() { std::free(data_); }
  DirectMemory(const DirectMemory&) = delete;
  DirectMemory& operator=(const DirectMemory&) = delete;

  unsigned char* data() const { return data_; }

 private:
  unsigned char* const data_;
};

int TransferDirect(int fd, const Transfer& transfer) {
  const DirectMemory memory(transfer.length);
  if (transfer.is_write) {
    std::memcpy(memory.data(), transfer.data, transfer.length);
    return WriteAll(fd, memory.data(), transfer);
  }
  std::size_t done = 0;
  if (const int error = ReadAll(fd, memory.data(), transfer, &done)) return error;
  std::memcpy(transfer.data, memory.data(), done);
  transfer.StoreCount(done);
  return 0;
}

std::int64_t Nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

std::string DirectoryOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : name.substr(0, slash);
}

// Makes a new or changed directory entry survive a crash.
int SyncDirectory(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  const Descriptor descriptor(fd);
  const int error = ErrnoOf(Uninterrupted([&] { return fsync(fd); }));
  return error == EINVAL ? 0 : error;  // a file system without such a thing has nothing to lose
}

OpenFor OpenForOf(const Transfer& transfer, bool direct) {
  if (transfer.is_write) return direct ? OpenFor::kDirectWrite : OpenFor::kWrite;
  return direct ? OpenFor::kDirectRead : OpenFor::kRead;
}

}  // namespace

PosixFiles::PosixFiles(const Options& options)
    : direct_(options.direct), descriptors_(options.descriptors) {}

int PosixFiles::Perform(const VeskJob& job) {
  try {
    if (job.GetType() == JOB_TYPE_IO) return PerformTransfer(Transfer(job.GetOP()));
    return PerformOnName(NameOperation(job.GetOP()));
  } catch (const std::bad_alloc&) {  // for a descriptor's entry, say: the job fails, no more
    return ENOMEM;
  }
}

bool PosixFiles::TryPerform(const VeskJob& job, int* result) {
  if (job.GetType() != JOB_TYPE_IO || job.GetOP().GetOpcode() != OPCODE_READ) return false;
  const Transfer transfer(job.GetOP());
  const auto file = Find(transfer);
  if (file == nullptr || file->IsDirect()) return false;
  iovec target = {transfer.data, transfer.length};
  const ssize_t count =
      preadv2(file->fd(), &target, 1, static_cast<off_t>(transfer.offset), RWF_NOWAIT);
  // A short count may be the end of the file or of what is in memory: Perform finds out.
  if (count < 0 || static_cast<std::size_t>(count) < transfer.length) return false;
  transfer.StoreCount(transfer.length);
  *result = 0;
  return true;
}

int PosixFiles::Get(const Transfer& transfer, std::shared_ptr<const Descriptor>* file) {
  if (IsDirect(transfer)) {
    const int error = descriptors_.Get({transfer.name, OpenForOf(transfer, true)}, file);
    if (error != EINVAL) return error;  // EINVAL: this file system has no such thing
  }
  return descriptors_.Get({transfer.name, OpenForOf(transfer, false)}, file);
}

std::shared_ptr<const Descriptor> PosixFiles::Find(const Transfer& transfer) {
  const bool direct = IsDirect(transfer);
  if (direct && reinterpret_cast<std::uintptr_t>(transfer.data) % kDirectUnit != 0) return nullptr;
  try {
    return descriptors_.Find({transfer.name, OpenForOf(transfer, direct)});
  } catch (const std::bad_alloc&) {  // for a copy of the name: Perform says what it comes to
    return nullptr;
  }
}

bool PosixFiles::IsDirect(const Transfer& transfer) const {
  return direct_ && transfer.length > 0 && transfer.offset % kDirectUnit == 0 &&
         transfer.length % kDirectUnit == 0;
}

int PosixFiles::PerformTransfer(const Transfer& transfer) {
  std::shared_ptr<const Descriptor> file;
  if (const int error = Get(transfer, &file)) return error;
  if (file->IsDirect()) {
    const int error = TransferDirect(file->fd(), transfer);
    if (error != EINVAL) return error;  // EINVAL: larger units here, or not within one at the end
    if (const int other = descriptors_.Get({transfer.name, OpenForOf(transfer, false)}, &file)) {
      return other;
    }
  }
  if (transfer.is_write) return WriteAll(file->fd(), transfer.data, transfer);
  std::size_t done = 0;
  if (const int error = ReadAll(file->fd(), transfer.data, transfer, &done)) return error;
  transfer.StoreCount(done);
  return 0;
}

int PosixFiles::PerformOnName(const NameOperation& operation) {
  switch (operation.code) {
    case OPCODE_STAT: return Stat(operation);
    case OPCODE_OPEN: return Open(operation);
    case OPCODE_CREATE: return Create(operation);
    case OPCODE_TRUNCATE: return Truncate(operation);
    case OPCODE_NEXT_DATA: return NextData(operation);
    case OPCODE_SYNC: return Sync(operation);
    case OPCODE_RENAME: return Rename(operation);
    case OPCODE_REMOVE: return Remove(operation);
    case OPCODE_SET_PERMISSIONS: return SetPermissions(operation);
    default: return ENOTSUP;
  }
}

int PosixFiles::Stat(const NameOperation& operation) {
  struct stat status = {};
  if (const int error = ErrnoOf(stat(operation.name.c_str(), &status))) return error;
  auto& info = operation.ResultAs<FileInfo>();
  info.size = static_cast<std::uint64_t>(status.st_size);
  info.mode = status.st_mode;
  info.device = status.st_dev;
  info.inode = status.st_ino;
  info.modified_ns = Nanoseconds(status.st_mtim);
  ForgetIfReplaced(operation.name, info);
  return 0;
}

// Another program may have put another file in its place: what is open is the old one.
void PosixFiles::ForgetIfReplaced(const std::string& name, const FileInfo& info) {
  for (const OpenFor opened_for :
       {OpenFor::kRead, OpenFor::kWrite, OpenFor::kDirectRead, OpenFor::kDirectWrite}) {
    const std::shared_ptr<const Descriptor> file = descriptors_.Find({name, opened_for});
    struct stat status = {};
    if (file == nullptr || fstat(file->fd(), &status) != 0) continue;
    if (status.st_dev == info.device && status.st_ino == info.inode) continue;
    descriptors_.Forget(name);
    return;
  }
}

int PosixFiles::Open(const NameOperation& operation) {
  const bool write = operation.number == static_cast<unsigned long>(Access::kWrite);
  std::shared_ptr<const Descriptor> file;
  return descriptors_.Get({operation.name, write ? OpenFor::kWrite : OpenFor::kRead}, &file);
}

int PosixFiles::Create(const NameOperation& operation) {
  const auto permissions = static_cast<mode_t>(operation.number);
  const int fd = open(operation.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions);
  if (fd < 0) return errno;
  const Descriptor file(fd);
  descriptors_.Forget(operation.name);      // of a file that somebody else has removed
  return ErrnoOf(fchmod(fd, permissions));  // open took the process's umask off
}

int PosixFiles::SetPermissions(const NameOperation& operation) {
  return ErrnoOf(chmod(operation.name.c_str(), static_cast<mode_t>(operation.number)));
}

int PosixFiles::Truncate(const NameOperation& operation) {
  return ErrnoOf(Uninterrupted(
      [&] { return truncate(operation.name.c_str(), static_cast<off_t>(operation.number)); }));
}

int PosixFiles::NextData(const NameOperation& operation) {
  std::shared_ptr<const Descriptor> file;
  if (const int error = descriptors_.Get({operation.name, OpenFor::kRead}, &file)) return error;
  struct stat status = {};
  if (const int error = ErrnoOf(fstat(file->fd(), &status))) return error;
  const auto size = static_cast<std::uint64_t>(status.st_size);
  const std::uint64_t offset = operation.number;
  auto& extent = operation.ResultAs<Extent>();

  extent = {size, size};
  if (offset >= size) return 0;
  const off_t begin = lseek(file->fd(), static_cast<off_t>(offset), SEEK_DATA);
  if (begin < 0) {
    if (errno == ENXIO) return 0;       // a hole to the end
    if (errno != EINVAL) return errno;  // EINVAL: this file system cannot tell
    extent = {offset, size};
    return 0;
  }
  const off_t end = lseek(file->fd(), begin, SEEK_HOLE);
  if (end < 0) return errno;
  extent = {static_cast<std::uint64_t>(begin), static_cast<std::uint64_t>(end)};
  return 0;
}

int PosixFiles::Sync(const NameOperation& operation) {
  std::shared_ptr<const Descriptor> file;
  if (const int error = descriptors_.Get({operation.name, OpenFor::kWrite}, &file)) return error;
  return ErrnoOf(Uninterrupted([&] { return fsync(file->fd()); }));
}

int PosixFiles::Rename(const NameOperation& operation) {
  const std::string& from = operation.name;
  const std::string& to = operation.other;
  if (const int error = ErrnoOf(rename(from.c_str(), to.c_str()))) return error;
  descriptors_.Forget(from);
  descriptors_.Forget(to);
  return SyncDirectory(DirectoryOf(to));
}

int PosixFiles::Remove(const NameOperation& operation) {
  const int error = ErrnoOf(unlink(operation.name.c_str()));
  descriptors_.Forget(operation.name);
  return error;
}

}  // namespace vesk
